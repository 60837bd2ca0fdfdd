#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "fakes/fakes.h"

namespace {

std::vector<FailingCall*>& failing() {
  static auto* calls = new std::vector<FailingCall*>;  // outlives every test and destructor
  return *calls;
}

CallWatch* watch = nullptr;
bool collationIsReversed = false;

// The directories that are open, by their descriptors.
std::map<int, std::string>& openDirectories() {
  static auto* directories = new std::map<int, std::string>;
  return *directories;
}

// What a path relative to a descriptor names.
std::string pathAt(int directory, const char* path) {
  const auto opened = openDirectories().find(directory);
  return opened == openDirectories().end() ? path : opened->second + "/" + path;
}

bool strikes(const char* function, const char* path) {
  CallWatch::note(function, path);
  return FailingCall::strikes(function, path);
}

}  // namespace

FailingCall::FailingCall(const std::string& called, int failure, const std::string& part, int skipped, int struck)
    : function(called), error(failure), pathPart(part), skip(skipped), times(struck) {
  failing().push_back(this);
}

FailingCall::~FailingCall() { std::erase(failing(), this); }

int errnoBehindEntries = 0;

bool FailingCall::matches(const std::string& called, const std::string& path) {
  if (called != function || path.find(pathPart) == std::string::npos) return false;
  if (skip > 0) {
    --skip;
    return false;
  }
  if (times == 0) return false;
  if (times > 0) --times;
  ++failures;
  return true;
}

bool FailingCall::strikes(const char* function, const char* path) {
  if (failing().empty()) return false;
  for (FailingCall* call : failing()) {
    if (!call->matches(function, path ? path : "")) continue;
    errno = call->error;
    return true;
  }
  return false;
}

CallWatch::CallWatch() { watch = this; }
CallWatch::~CallWatch() { watch = nullptr; }

void CallWatch::note(const char* function, const char* path) {
  if (!watch) return;
  watch->calls.push_back(std::string(function) + " " + (path ? path : "(null)"));
  if (watch->onCall) watch->onCall(function);
}

void CallWatch::noteLock(char sign, const char* path) {
  const char* name = path ? strstr(path, "/semaphore_") : nullptr;
  if (watch && name) watch->locks.push_back(sign + std::string(name + strlen("/semaphore_")));
}

ReversedCollation::ReversedCollation() { collationIsReversed = true; }
ReversedCollation::~ReversedCollation() { collationIsReversed = false; }

extern "C" {

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (flags & O_CREAT) {
    va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  if (strikes("open", path)) return -1;
  static const auto real = realFunction<int (*)(const char*, int, ...)>("open");
  const int descriptor = real(path, flags, mode);
  if (descriptor >= 0 && (flags & O_EXCL)) CallWatch::noteLock('+', path);
  return descriptor;
}

int unlink(const char* path) noexcept {
  if (strikes("unlink", path)) return -1;
  static const auto real = realFunction<int (*)(const char*)>("unlink");
  const int result = real(path);
  if (result == 0) CallWatch::noteLock('-', path);
  return result;
}

int mkdir(const char* path, mode_t mode) noexcept {
  if (strikes("mkdir", path)) return -1;
  static const auto real = realFunction<int (*)(const char*, mode_t)>("mkdir");
  return real(path, mode);
}

int rmdir(const char* path) noexcept {
  if (strikes("rmdir", path)) return -1;
  static const auto real = realFunction<int (*)(const char*)>("rmdir");
  return real(path);
}

int remove(const char* path) noexcept {
  if (strikes("remove", path)) return -1;
  static const auto real = realFunction<int (*)(const char*)>("remove");
  return real(path);
}

int rename(const char* from, const char* to) noexcept {
  if (strikes("rename", from)) return -1;
  static const auto real = realFunction<int (*)(const char*, const char*)>("rename");
  return real(from, to);
}

int utime(const char* path, const utimbuf* times) noexcept {
  if (strikes("utime", path)) return -1;
  static const auto real = realFunction<int (*)(const char*, const utimbuf*)>("utime");
  return real(path, times);
}

FILE* fopen(const char* path, const char* mode) {
  if (strikes("fopen", path)) return nullptr;
  static const auto real = realFunction<FILE* (*)(const char*, const char*)>("fopen");
  return real(path, mode);
}

int stat(const char* path, struct stat* out) noexcept {
  if (strikes("stat", path)) return -1;
  static const auto real = realFunction<int (*)(const char*, struct stat*)>("stat");
  return real(path, out);
}

int access(const char* path, int mode) noexcept {
  if (strikes("access", path)) return -1;
  static const auto real = realFunction<int (*)(const char*, int)>("access");
  return real(path, mode);
}

int symlink(const char* target, const char* link) noexcept {
  if (strikes("symlink", link)) return -1;
  static const auto real = realFunction<int (*)(const char*, const char*)>("symlink");
  return real(target, link);
}

int linkat(int from, const char* target, int to, const char* link, int flags) noexcept {
  if (strikes("linkat", link)) return -1;
  static const auto real = realFunction<int (*)(int, const char*, int, const char*, int)>("linkat");
  return real(from, target, to, link, flags);
}

DIR* opendir(const char* path) {
  if (strikes("opendir", path)) return nullptr;
  static const auto real = realFunction<DIR* (*)(const char*)>("opendir");
  DIR* directory = real(path);
  if (directory) openDirectories()[dirfd(directory)] = path;
  return directory;
}

dirent* readdir(DIR* directory) {
  const int kept = errno;  // the end of the directory is told by an errno that stays as it was
  if (FailingCall::strikes("readdir", pathAt(dirfd(directory), "").c_str())) return nullptr;
  static const auto real = realFunction<dirent* (*)(DIR*)>("readdir");
  errno = kept;
  dirent* entry = real(directory);
  if (entry && errnoBehindEntries) errno = errnoBehindEntries;
  return entry;
}

int closedir(DIR* directory) {
  openDirectories().erase(dirfd(directory));
  static const auto real = realFunction<int (*)(DIR*)>("closedir");
  return real(directory);
}

int fstatat(int directory, const char* path, struct stat* out, int flags) noexcept {
  if (strikes("stat", pathAt(directory, path).c_str())) return -1;
  static const auto real = realFunction<int (*)(int, const char*, struct stat*, int)>("fstatat");
  return real(directory, path, out, flags);
}

int strcoll(const char* a, const char* b) noexcept {
  static const auto real = realFunction<int (*)(const char*, const char*)>("strcoll");
  return collationIsReversed ? real(b, a) : real(a, b);
}
}
