#include "KTSemaphore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>

#include "KTException.h"
#include "KTHooks.h"

namespace {

constexpr mode_t kLockFileMode = 0660;
constexpr int64_t kMillisecondsPerSecond = 1000;
constexpr long kNanosecondsPerMillisecond = 1000000;
constexpr int kTimeoutCode = 1;

std::string chosenDirectory(const std::string& given) {
  if (!given.empty()) return given;
  const char* variable = getenv("LOCK_VAR");
  return variable ? variable : ".";
}

std::string pathOf(const std::string& directory, const std::string& name) {
  constexpr std::string_view kPrefix = "/semaphore_";
  std::string path;
  path.reserve(directory.size() + kPrefix.size() + name.size());
  return path.append(directory).append(kPrefix).append(name);
}

KTIOException ioFailure(const char* what, const std::string& name) {
  const int failure = errno;
  return {failure, what + name + " [" + strerror(failure) + "]"};
}

// Milliseconds. Pauses are drawn from 10 to 989, so that contenders do not stay in step.
constexpr int kShortestPause = 10;
constexpr double kPauseSpread = 980.0;
constexpr double kRandomValues = 2147483648.0;  // how many rand() can give

int drawPause() { return static_cast<int>(rand() * kPauseSpread / kRandomValues) + kShortestPause; }

void sleepFor(int milliseconds) {
  const timespec pause = {0, milliseconds * kNanosecondsPerMillisecond};
  nanosleep(&pause, nullptr);  // a pause cut short by a signal only brings the next attempt forward
}

}  // namespace

KTSemaphore::KTSemaphore(const std::string& lockName, bool unlockAtEnd) : KTSemaphore(lockName, "", unlockAtEnd) {}

KTSemaphore::KTSemaphore(const std::string& lockName, const std::string& lockDirectory, bool unlockAtEnd)
    : name(lockName),
      directory(chosenDirectory(lockDirectory)),
      autoUnlock(unlockAtEnd),
      lockFile(pathOf(directory, name)),
      exceptionsAtStart(std::uncaught_exceptions()) {}

KTSemaphore::~KTSemaphore() noexcept(false) {  // NOLINT(bugprone-exception-escape)
  if (!autoUnlock) return;
  try {
    unlock();
  } catch (...) {
    // cppcheck-suppress exceptThrowInDestructor
    if (std::uncaught_exceptions() <= exceptionsAtStart) throw;
  }
}

bool KTSemaphore::lockResource() {
  if (!makeLockFile() && !(ktHooks.lockTakenOver && ktHooks.lockTakenOver(lockFile))) return false;
  locked = true;
  return true;
}

// False when it is there already.
bool KTSemaphore::makeLockFile() const {
  if (ktHooks.makeLock)
    if (const auto made = ktHooks.makeLock(lockFile)) return *made;
  return makePlainFile();
}

bool KTSemaphore::makePlainFile() const {
  errno = 0;
  const int descriptor = open(lockFile.c_str(), O_RDONLY | O_CREAT | O_EXCL, kLockFileMode);
  if (descriptor >= 0) {
    close(descriptor);
    return true;
  }
  if (errno == EEXIST) return false;
  throw ioFailure("Creating semaphore failed: ", name);
}

bool KTSemaphore::lock(int timeout) {
  int64_t budget = timeout * kMillisecondsPerSecond;  // spent by the pauses alone, not by the attempts
  while (!lockResource()) {
    if (timeout != 0 && budget <= 0) throw KTTimeoutException(kTimeoutCode, "Semaphore timed out");
    const int pause = drawPause();
    sleepFor(pause);
    if (timeout > 0) budget -= pause;
  }
  return true;
}

void KTSemaphore::unlock() {
  if (!locked && !lockedElsewhere) return;
  errno = 0;
  if (unlink(lockFile.c_str()) != 0 && errno != ENOENT &&
      !(ktHooks.lockRemovedAfterAll && ktHooks.lockRemovedAfterAll(lockFile)))
    throw ioFailure("Releasing semaphore failed: ", name);
  locked = false;
}
