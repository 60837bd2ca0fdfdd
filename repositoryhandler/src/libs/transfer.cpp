#include "transfer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <list>
#include <string>

#include "KTOwned.h"
#include "assertionsites.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "listing.h"
#include "messages.h"
#include "paths.h"
#include "relocation.h"
#include "safety.h"
#include "shell.h"

namespace {

constexpr int kNoParentDirectory = -1;

// Logs `text` with the error mark and gives the result for it.
int failed(const std::string& text, int failure) {
  safety::logError(withErrorMark(text, failure));
  return kTransferFailed;
}

// Calls `step` with the path of each entry of `directory`, until one answers other than 0; gives that.
template <typename Step>
int forEachEntry(const char* directory, const Step& step) {
  std::list<std::string> names;
  listDir(directory, names);
  for (const std::string& name : names)
    if (const int result = step("/" + name)) return result;
  return 0;
}

int moveToAbsent(const char* origin, const char* destination, const struct stat& status) {
  if (mountRename(origin, destination) != 0) {
    const int failure = errno;
    return failed(
        "The resource " + quoted(origin) + " could not be renamed to " + quoted(destination) + ". Error code is ",
        failure);
  }
  safety::restoreTimes(destination, status);
  return kTransferred;
}

int mergeDirectory(const char* origin, const char* destination, const struct stat& status) {
  const int result = forEachEntry(origin, [=](const std::string& entry) {
    return moveRes((origin + entry).c_str(), (destination + entry).c_str());
  });
  if (result != kTransferred) return result;
  if (rmdir(origin) != 0) {
    const int failure = errno;
    return failed("The directory " + quoted(origin) + " could not be removed. Error code is ", failure);
  }
  safety::restoreTimes(destination, status);
  return kTransferred;
}

}  // namespace

int moveRes(const char* origin, const char* destination) {
  assertAt(kOriginExists, safety::isThere(origin));
  KT_ASSERT(destination);
  struct stat status;
  if (safety::examine(origin, &status) != 0) {
    const int failure = errno;
    return failed("The resource " + quoted(origin) + " could not be stated \"", failure);
  }
  if (!safety::isThere(destination)) return moveToAbsent(origin, destination, status);
  struct stat now;
  if (safety::examine(origin, &now) != 0) return kTransferFailed;
  if (!S_ISDIR(now.st_mode) || !safety::mayMerge(origin, destination)) {
    if (safety::dropsContainedCopies() && dropContainedCopy(origin, destination)) return kTransferred;
    safety::logError("The resource " + quoted(origin) + " conflicts with " + quoted(destination) + ".");
    return kTransferConflict;
  }
  return mergeDirectory(origin, destination, status);
}

int mountRename(const char* origin, const char* destination) {
  KT_ASSERT(origin);
  const OwnedChars parent(baseDir(destination));
  if (!parent) return kNoParentDirectory;
  if (const int result = mkdirs(parent.get(), kDirectoryMode)) return result;
  if (safety::movesOutOfSight()) return relocate(origin, destination);
  if (const int status = run(safety::copyCommand(origin, destination))) return status;
  const int difference = run(safety::compareCommand(origin, destination));
  run(safety::removeCommand(difference != 0 ? destination : origin));
  return difference;
}

int deleteRes(const char* path) {
  if (!safety::isThere(path)) return kTransferred;
  struct stat status;
  if (safety::examine(path, &status) != 0) return kTransferFailed;
  if (S_ISDIR(status.st_mode)) {
    const int result = forEachEntry(path, [=](const std::string& entry) { return deleteRes((path + entry).c_str()); });
    if (result != kTransferred) return result;
  }
  if (remove(path) == 0) return kTransferred;
  const int failure = errno;
  return failed("The resource " + quoted(path) + " could not be removed. Error code is ", failure);
}

void clearEmptyHash(const char* path) {
  if (!path || exists(path)) return;
  std::string ancestor(path);
  for (unsigned int level = 0; level < kHashLevels; ++level) {
    const size_t slash = ancestor.rfind('/');
    if (slash == std::string::npos || slash == 0) return;
    ancestor.resize(slash);
    if (remove(ancestor.c_str()) != 0) return;
  }
}
