#include "filestatus.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "KTException.h"
#include "messages.h"
#include "safety.h"
#include "singleprecision.h"

namespace {

constexpr int kStatusFailed = 8;
constexpr int kSpaceUnknown = 1;

}  // namespace

bool isNotLink(const char* path) {
  char firstByte = '\0';
  return path && readlink(path, &firstByte, sizeof firstByte) < 0 && errno == EINVAL;
}

int myStat(const char* resource, struct stat* resStat) {
  KT_ASSERT(resource);
  KT_ASSERT(resStat);
  return stat(resource, resStat) == 0 ? 0 : statFailed(resource);
}

int statFailed(const char* resource) {
  const int failure = errno;
  const std::string text = "The resource " + quoted(resource) + " can not be stat-ed. Error code is ";
  safety::logError(withErrorMark(text, failure));
  return kStatusFailed;
}

int isDir(const char* path, bool* isDirectory, struct stat* known) {
  KT_ASSERT(isDirectory);
  struct stat own;
  if (!known) {
    if (const int result = myStat(path, &own)) return result;
    known = &own;
  }
  *isDirectory = S_ISDIR(known->st_mode);
  return 0;
}

time_t lastModified(const char* path) {
  struct stat status;
  return myStat(path, &status) == 0 ? status.st_mtime : -1;
}

time_t lastAccess(const char* path, struct stat* known) {
  struct stat status;
  if (known)
    status = *known;
  else if (myStat(path, &status) != 0)
    return -1;
  return std::max(status.st_atime, status.st_mtime);
}

int myStatVfs(const char* mountPath, struct statvfs* resStatVfs) {
  KT_ASSERT(mountPath);
  KT_ASSERT(resStatVfs);
  if (statvfs(mountPath, resStatVfs) == 0) return 0;
  const int failure = errno;
  const std::string text = "Error occured while statvfs call to " + quoted(mountPath) + ". Error code is ";
  safety::logError(withErrorMark(text, failure));
  return kStatusFailed;
}

int blocksToFree(const char* mountPath, int limit, long* blockCount, struct statvfs* known) {
  KT_ASSERT(mountPath);
  KT_ASSERT(blockCount);
  struct statvfs own;
  if (!known) {
    if (myStatVfs(mountPath, &own) != 0) return kSpaceUnknown;
    known = &own;
  }
  // Single precision for the fraction, so that 90 percent of 1000 blocks is 899: the established rounding.
  const float fraction = toSingle(limit / 100.0L);
  const auto allowed = static_cast<long long>(static_cast<long double>(known->f_blocks) * fraction);
  // In the platform's unsigned block counts, where a difference below zero wraps into the signed result.
  *blockCount = static_cast<long>(known->f_blocks - known->f_bavail - static_cast<fsblkcnt_t>(allowed));
  return 0;
}

bool IsOnTheSameMount(const char* first, const char* second) {
  struct statvfs a;
  struct statvfs b;
  const int firstResult = myStatVfs(first, &a);
  const int secondResult = myStatVfs(second, &b);
  if (firstResult != 0 || secondResult != 0) return false;
  return a.f_bfree == b.f_bfree && a.f_bavail == b.f_bavail && a.f_ffree == b.f_ffree && a.f_favail == b.f_favail;
}
