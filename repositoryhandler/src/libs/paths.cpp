#include "paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "KTOwned.h"
#include "hashtrace.h"

namespace {

// Bytes; most link targets fit. It doubles until the target does.
constexpr size_t kFirstTargetSize = 100;

const char* orEmpty(const char* text) { return text ? text : ""; }

void dropTrailingSlash(std::string& path) {
  if (!path.empty() && path.back() == '/') path.pop_back();
}

char* copyOfFirst(const char* text, size_t length) {
  OwnedChars copy(new char[length + 1]);
  memcpy(copy.get(), text, length);
  copy[length] = '\0';
  return copy.release();
}

// mkdir; no failure when another process has made the directory since we looked. Else errno is mkdir's.
bool makeOrFind(const char* path, mode_t mode) {
  if (mkdir(path, mode) == 0) return true;
  const int failure = errno;
  const bool found = failure == EEXIST && exists(path);
  errno = failure;
  return found;
}

}  // namespace

char* mystrdup(const char* src) { return src ? copyOfFirst(src, strlen(src)) : nullptr; }

void release_(char* p) { delete[] p; }

void release(char* p) { release_(p); }

int myunlink(const char* path) {
  std::string plain(orEmpty(path));
  dropTrailingSlash(plain);
  return unlink(plain.c_str());
}

char* baseDir(const char* path) {
  if (!path) return nullptr;
  const char* slash = strrchr(path, '/');
  return slash ? copyOfFirst(path, static_cast<size_t>(slash - path) + 1) : nullptr;
}

char* parentDir(const char* path) {
  const OwnedChars base(baseDir(path));
  if (!base) return nullptr;
  base[strlen(base.get()) - 1] = 'x';  // turns the last directory into a file name: its base is the parent
  return baseDir(base.get());
}

char* append0(const char* a, const char* b) {
  const std::string joined = std::string(orEmpty(a)) + orEmpty(b);
  return copyOfFirst(joined.c_str(), joined.size());
}

char* append(char* a, const char* b) {
  const OwnedChars consumed(a);
  return append0(a, b);
}

bool exists(const char* name) { return name && access(name, F_OK) == 0; }

int mkdirs(const char* path, unsigned long mode) {
  if (!path) {
    errno = EFAULT;
    return -1;
  }
  std::string prefix(path);
  for (size_t i = 1; i < prefix.size(); ++i) {
    if (prefix[i] != '/') continue;
    prefix[i] = '\0';
    if (exists(prefix.c_str())) {
      traceHash("the subdir %s exists", prefix.c_str());
    } else {
      traceHash("creating directory %s", prefix.c_str());
      if (!makeOrFind(prefix.c_str(), static_cast<mode_t>(mode))) {
        traceHash("failed");
        return -1;
      }
    }
    prefix[i] = '/';
  }
  // The result is left alone on purpose: another process may have made the directory in between.
  if (!exists(path)) static_cast<void>(mkdir(path, static_cast<mode_t>(mode)));
  return 0;
}

bool isDangling(const char* path) {
  std::string link(orEmpty(path));
  dropTrailingSlash(link);
  std::vector<char> target(kFirstTargetSize);
  ssize_t length = readlink(link.c_str(), target.data(), target.size());
  while (length >= static_cast<ssize_t>(target.size())) {  // it may have been cut
    target.resize(target.size() * 2);
    length = readlink(link.c_str(), target.data(), target.size());
  }
  if (length < 0) return true;
  return !exists(std::string(target.data(), static_cast<size_t>(length)).c_str());
}
