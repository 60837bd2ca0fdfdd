#include <cstdlib>
#include <ctime>

#include "fakes/fakes.h"

namespace {

FakeClock* current = nullptr;

}  // namespace

FakeClock::FakeClock() : now(realFunction<time_t (*)(time_t*)>("time")(nullptr)) { current = this; }
FakeClock::~FakeClock() { current = nullptr; }
FakeClock* FakeClock::announced() { return current; }

extern "C" {

time_t time(time_t* out) noexcept {
  if (!current) {
    static const auto real = realFunction<time_t (*)(time_t*)>("time");
    return real(out);
  }
  if (out) *out = current->now;
  return current->now;
}

int nanosleep(const timespec* pause, timespec* left) {
  if (!current) {
    static const auto real = realFunction<int (*)(const timespec*, timespec*)>("nanosleep");
    return real(pause, left);
  }
  const long slept = static_cast<long>(pause->tv_sec) * 1000 + pause->tv_nsec / 1000000;
  current->pauses.push_back(slept);
  current->milliseconds += slept;
  current->now += current->milliseconds / 1000;
  current->milliseconds %= 1000;
  if (current->onSleep) current->onSleep();
  return 0;
}

int rand() noexcept {
  if (!current) {
    static const auto real = realFunction<int (*)()>("rand");
    return real();
  }
  ++current->randomCalls;
  if (current->randoms.empty()) return 0;
  const int value = current->randoms.front();
  current->randoms.erase(current->randoms.begin());
  return value;
}
}
