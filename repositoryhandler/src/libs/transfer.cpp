#include "transfer.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>

#include "KTOwned.h"
#include "assertionsites.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "librarylog.h"
#include "listing.h"
#include "messages.h"
#include "paths.h"

namespace {

constexpr int kNoParentDirectory = -1;

// Logs `text` with the error mark and gives the result for it.
int failed(const std::string& text, int failure) {
  rh_logger.errorLog(withErrorMark(text, failure).c_str());
  return kTransferFailed;
}

int run(const std::string& command) { return system(command.c_str()); }

// Calls `step` with the path of each entry of `directory`, until one answers other than 0; gives that.
template <typename Step>
int forEachEntry(const char* directory, const Step& step) {
  std::list<std::string> names;
  listDir(directory, names);
  for (const std::string& name : names)
    if (const int result = step("/" + name)) return result;
  return 0;
}

int moveToAbsent(const char* origin, const char* destination, const utimbuf& times) {
  if (mountRename(origin, destination) != 0) {
    const int failure = errno;
    return failed(
        "The resource " + quoted(origin) + " could not be renamed to " + quoted(destination) + ". Error code is ",
        failure);
  }
  utime(destination, &times);
  return kTransferred;
}

int mergeDirectory(const char* origin, const char* destination, const utimbuf& times) {
  const int result = forEachEntry(origin, [=](const std::string& entry) {
    return moveRes((origin + entry).c_str(), (destination + entry).c_str());
  });
  if (result != kTransferred) return result;
  if (rmdir(origin) != 0) {
    const int failure = errno;
    return failed("The directory " + quoted(origin) + " could not be removed. Error code is ", failure);
  }
  utime(destination, &times);
  return kTransferred;
}

}  // namespace

int moveRes(const char* origin, const char* destination) {
  assertAt(kOriginExists, exists(origin));
  KT_ASSERT(destination);
  struct stat status;
  if (myStat(origin, &status) != 0) {
    const int failure = errno;
    return failed("The resource " + quoted(origin) + " could not be stated \"", failure);
  }
  const utimbuf times = {status.st_atime, status.st_mtime};
  if (!exists(destination)) return moveToAbsent(origin, destination, times);
  bool isDirectory = false;
  if (isDir(origin, &isDirectory, nullptr) != 0) return kTransferFailed;
  if (!isDirectory) {
    rh_logger.errorLog(("The resource " + quoted(origin) + " conflicts with " + quoted(destination) + ".").c_str());
    return kTransferConflict;
  }
  return mergeDirectory(origin, destination, times);
}

int mountRename(const char* origin, const char* destination) {
  KT_ASSERT(origin);
  const OwnedChars parent(baseDir(destination));
  if (!parent) return kNoParentDirectory;
  if (const int result = mkdirs(parent.get(), kDirectoryMode)) return result;
  const std::string both = std::string(origin) + " " + destination;
  if (const int status = run("cp -r " + both)) return status;
  const int difference = run("diff -q -r " + both);
  run(std::string("rm -fr ") + (difference != 0 ? destination : origin));
  return difference;
}

int deleteRes(const char* path) {
  if (!exists(path)) return kTransferred;
  bool isDirectory = false;
  if (isDir(path, &isDirectory, nullptr) != 0) return kTransferFailed;
  if (isDirectory) {
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
