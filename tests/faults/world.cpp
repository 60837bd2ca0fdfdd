#include "faults/world.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string_view>

#include "fakes/fakes.h"

namespace {

constexpr fsblkcnt_t kBlocks = 100000;
constexpr double kUsedElsewhere = 10;
// A thousand waits for a lock, of thirty seconds each.
constexpr double kMostSeconds = 30000;

bool errorLogged = false;

std::vector<Fill>& disks() {
  static auto* fills = new std::vector<Fill>;
  return *fills;
}

// By a call that is not watched.
bool isThere(const std::string& path) { return syscall(SYS_faccessat2, AT_FDCWD, path.c_str(), F_OK, 0) == 0; }

// Without an allocation: one may be refused.
double usedOf(std::string_view mount) {
  for (const Fill& fill : disks()) {
    if (fill.mount != mount) continue;
    double used = fill.base;
    for (const std::string& path : fill.paths)
      if (isThere(path)) used += fill.step;
    return used;
  }
  return kUsedElsewhere;
}

}  // namespace

bool hasLoggedError() { return errorLogged; }

void fillDisks(const std::vector<Fill>& fills) { disks() = fills; }

extern "C" {

int statvfs(const char* path, struct statvfs* out) noexcept {
  static const auto real = realFunction<int (*)(const char*, struct statvfs*)>("statvfs");
  if (const int failed = real(path, out)) return failed;
  const auto available = kBlocks - static_cast<fsblkcnt_t>(kBlocks * usedOf(path) / 100 + 0.5);
  *out = {};
  out->f_bsize = out->f_frsize = 1024;
  out->f_blocks = kBlocks;
  out->f_bfree = out->f_bavail = available;
  out->f_files = 2000000;
  out->f_ffree = out->f_favail = 500 + std::hash<std::string_view>{}(path) % 1000003;  // no two disks look like one
  return 0;
}

int nanosleep(const timespec* pause, timespec*) {
  static double slept = 0;
  slept += static_cast<double>(pause->tv_sec) + static_cast<double>(pause->tv_nsec) / 1e9;
  if (slept > kMostSeconds) _exit(kSleptForEver);
  return 0;
}

void openlog(const char*, int, int) {}
void closelog() {}
void vsyslog(int priority, const char* format, va_list args) {
  static char line[4096];
  vsnprintf(line, sizeof line, format, args);
  if (priority == LOG_ERR) errorLogged = true;
}
}
