// What a contention test puts before libc in every process that contends, native or virtual machine: it counts the
// holders of each lock on the board, shortens the pauses between two attempts, tells how full the disks are, and drops
// the log. The commands that the library starts run without it.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <string>

#include "board.h"

namespace {

// Bringing a file system to the disk takes its time, which memory would hide: others work meanwhile.
constexpr useconds_t kFlushMicroseconds = 10000;

Board* board = nullptr;
std::atomic<unsigned int>* busy = nullptr;
std::atomic<unsigned long>* takenHere = nullptr;

__attribute__((constructor)) void begin() {
  unsetenv("LD_PRELOAD");
  const char* file = getenv(kBoardVariable);
  const char* number = getenv(kNumberVariable);
  if (!file || !number) return;
  board = mapBoard(file, false);
  if (!board) _exit(120);
  const unsigned long own = strtoul(number, nullptr, 10) % kMostContenders;
  busy = &board->busy[own];
  takenHere = &board->takenBy[own];
}

template <typename Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Null for what is no lock file.
LockOnBoard* lockOf(const char* path) {
  if (!board || !path || !strstr(path, "/semaphore_")) return nullptr;
  uint64_t key = 14695981039346656037U;
  for (const char* c = path; *c; ++c) key = (key ^ static_cast<unsigned char>(*c)) * 1099511628211U;
  for (unsigned int i = 0; i < kMostLocks; ++i) {
    LockOnBoard& lock = board->locks[(key + i) % kMostLocks];
    uint64_t found = 0;
    if (lock.key.compare_exchange_strong(found, key)) {
      for (size_t at = 0; path[at] && at + 1 < sizeof lock.path; ++at) lock.path[at] = path[at];
      return &lock;
    }
    if (found == key) return &lock;
  }
  _exit(121);
}

unsigned int markOf(const LockOnBoard& lock) { return static_cast<unsigned int>(&lock - board->locks) + 1; }

// A repository's lock, and that of a dirty set, end in "-".
bool isOfResource(const char* path) { return path[strlen(path) - 1] != '-'; }

bool isEvery(unsigned int times) {
  static unsigned int count = 0;
  return times != 0 && ++count % times == 0;
}

void noteTaken(LockOnBoard& lock) {
  const pid_t before = lock.holder.exchange(getpid());
  ++board->taken;
  ++*takenHere;
  if (before == 0) return;
  if (before != getpid() && kill(before, 0) != 0 && errno == ESRCH) {
    ++board->takenOver;
    return;
  }
  ++board->overlaps;
  board->example = markOf(lock);
}

int take(LockOnBoard& lock, int (*function)(const char*, int, ...), const char* path, int flags, mode_t mode) {
  if (isEvery(board->breakExclusive)) flags &= ~O_EXCL;
  *busy = markOf(lock);
  const int descriptor = function(path, flags, mode);
  const int failure = errno;
  if (descriptor >= 0) noteTaken(lock);
  *busy = kNobody;
  errno = failure;
  return descriptor;
}

// In the safe mode a lock file is written without a name and gets it when it is whole.
int takeByName(LockOnBoard& lock, const std::function<int()>& nameIt) {
  *busy = markOf(lock);
  const int result = nameIt();
  const int failure = errno;
  if (result == 0) noteTaken(lock);
  *busy = kNobody;
  errno = failure;
  return result;
}

int release(LockOnBoard& lock, int (*function)(const char*), const char* path) {
  *busy = markOf(lock);
  pid_t holder = getpid();
  const bool wasHolder = lock.holder.compare_exchange_strong(holder, 0);
  const int result = isOfResource(path) && isEvery(board->dropUnlock) ? 0 : function(path);
  const int failure = errno;
  if (!wasHolder || result != 0) {
    ++board->lost;
    board->example = markOf(lock);
  }
  *busy = kNobody;
  errno = failure;
  return result;
}

// The lock file that a thread opened last, to look whose it is.
thread_local int examined = -1;
thread_local LockOnBoard* examinedLock = nullptr;

int openAs(const char* name, const char* path, int flags, mode_t mode) {
  const auto function = real<int (*)(const char*, int, ...)>(name);
  LockOnBoard* lock = lockOf(path);
  if (lock && (flags & O_EXCL)) return take(*lock, function, path, flags, mode);
  const int descriptor = function(path, flags, mode);
  if (lock || descriptor == examined) {
    examined = descriptor;
    examinedLock = lock;
  }
  return descriptor;
}

// Whether the lock file is still the one that is open there: its holder may have released it, and gone, meanwhile.
bool isStillAt(const LockOnBoard& lock, int descriptor) {
  const std::string path(std::begin(lock.path), std::find(std::begin(lock.path), std::end(lock.path), '\0'));
  struct stat opened;
  struct stat named;
  return fstat(descriptor, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// A name written into the lock file of another is how a lock is taken over.
template <typename Offset>
ssize_t writeAs(const char* name, int descriptor, const void* data, size_t size, Offset offset) {
  const auto function = real<ssize_t (*)(int, const void*, size_t, Offset)>(name);
  const ssize_t result = function(descriptor, data, size, offset);
  if (board && examinedLock && descriptor == examined && result > 0 && examinedLock->holder != getpid()) {
    const int failure = errno;
    if (isStillAt(*examinedLock, descriptor)) noteTaken(*examinedLock);
    errno = failure;
  }
  return result;
}

// The mount's number is the last character of its path.
template <typename Space>
int measureAs(const char* name, const char* path, Space* space) {
  const auto function = real<int (*)(const char*, Space*)>(name);
  const int result = function(path, space);
  if (result != 0 || !board) return result;
  const unsigned int number = static_cast<unsigned int>(path[strlen(path) - 1] - '1');
  space->f_blocks = 1000;
  space->f_bfree = space->f_bavail = number == board->drained ? 5 : 900;
  return 0;
}

mode_t modeOf(int flags, va_list arguments) { return flags & O_CREAT ? va_arg(arguments, mode_t) : 0; }

}  // namespace

extern "C" {

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return openAs("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return openAs("open64", path, flags, mode);
}

int unlink(const char* path) noexcept {
  static const auto function = real<int (*)(const char*)>("unlink");
  LockOnBoard* lock = lockOf(path);
  return lock ? release(*lock, function, path) : function(path);
}

int linkat(int from, const char* path, int to, const char* name, int flags) noexcept {
  static const auto function = real<int (*)(int, const char*, int, const char*, int)>("linkat");
  const auto call = [&] { return function(from, path, to, name, flags); };
  LockOnBoard* lock = lockOf(name);
  return lock ? takeByName(*lock, call) : call();
}

ssize_t pwrite(int descriptor, const void* data, size_t size, off_t offset) {
  return writeAs("pwrite", descriptor, data, size, offset);
}

ssize_t pwrite64(int descriptor, const void* data, size_t size, off64_t offset) {
  return writeAs("pwrite64", descriptor, data, size, offset);
}

int statvfs(const char* path, struct statvfs* space) noexcept { return measureAs("statvfs", path, space); }
int statvfs64(const char* path, struct statvfs64* space) noexcept { return measureAs("statvfs64", path, space); }

int nanosleep(const timespec* pause, timespec* left) {
  static const auto function = real<int (*)(const timespec*, timespec*)>("nanosleep");
  if (!board) return function(pause, left);
  const timespec shorter = {pause->tv_sec / board->pauseDivisor, pause->tv_nsec / board->pauseDivisor};
  return function(&shorter, left);
}

int syncfs(int descriptor) noexcept {
  static const auto function = real<int (*)(int)>("syncfs");
  usleep(kFlushMicroseconds);
  return function(descriptor);
}

void vsyslog(int, const char* format, va_list arguments) {
  char text[1000];
  vsnprintf(text, sizeof text, format, arguments);
  if (board && strncmp(text, "CheckOverload moves ", 20) == 0) ++board->moves;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
}
