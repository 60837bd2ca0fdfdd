#include <gtest/gtest.h>

#include <cerrno>

#include "fakes/fakes.h"

namespace {

FakeDisks* current = nullptr;

}  // namespace

FakeDisks::FakeDisks() { current = this; }
FakeDisks::~FakeDisks() { current = nullptr; }
FakeDisks* FakeDisks::announced() { return current; }

void FakeDisks::setUsed(const std::string& path, double percent) {
  constexpr fsblkcnt_t kBlocks = 100000;
  set(path, kBlocks, kBlocks - static_cast<fsblkcnt_t>(kBlocks * percent / 100 + 0.5));
}

void FakeDisks::set(const std::string& path, fsblkcnt_t blocks, fsblkcnt_t available) {
  struct statvfs space = {};
  space.f_bsize = space.f_frsize = 1024;
  space.f_blocks = blocks;
  space.f_bfree = space.f_bavail = available;
  space.f_files = 1000;
  space.f_ffree = space.f_favail = 500 + std::hash<std::string>{}(path) % 1000003;
  set(path, space);
}

void FakeDisks::set(const std::string& path, const struct statvfs& space) {
  answerWith(path, [space](struct statvfs* out) {
    *out = space;
    return 0;
  });
}

void FakeDisks::fail(const std::string& path, int error) {
  answerWith(path, [error](struct statvfs*) {
    errno = error;
    return -1;
  });
}

void FakeDisks::answerWith(const std::string& path, const Answer& answer) { answers[path] = answer; }

int FakeDisks::calls(const std::string& path) const {
  const auto found = counts.find(path);
  return found == counts.end() ? 0 : found->second;
}

int FakeDisks::answer(const char* path, struct statvfs* out) {
  ++counts[path];
  const auto found = answers.find(path);
  if (found != answers.end()) return found->second(out);
  ADD_FAILURE() << "statvfs of a path that was not announced: " << path;
  errno = ENOENT;
  return -1;
}

extern "C" int statvfs(const char* path, struct statvfs* out) noexcept {
  if (current) return current->answer(path, out);
  static const auto real = realFunction<int (*)(const char*, struct statvfs*)>("statvfs");
  return real(path, out);
}
