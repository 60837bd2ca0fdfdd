#include "listing.h"

#include <iterator>
#include <utility>

#include "KTException.h"
#include "KTOwned.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "locking.h"
#include "paths.h"
#include "sorteddirectory.h"

namespace {

bool allows(unsigned int typeFilter, bool isDirectory) {
  return typeFilter == kAllResources || (typeFilter == kOnlyDirectories) == isDirectory;
}

void listBelow(const std::string& path, std::list<std::string>& out, unsigned int typeFilter, bool hashed,
               unsigned int level) {
  SortedDirectory directory(path);
  const bool isResourceLevel = !hashed || level == kHashLevels;
  for (std::string& name : directory.names) {
    if (hashed && level == 0 && name == kLostAndFound) continue;
    struct stat status;
    if (directory.examine(name, &status) != 0) continue;
    const bool isDirectory = S_ISDIR(status.st_mode);
    if (isResourceLevel) {
      if (allows(typeFilter, isDirectory)) out.push_back(std::move(name));
    } else if (isDirectory) {
      listBelow(directory.pathOf(name), out, typeFilter, hashed, level + 1);
    }
  }
}

}  // namespace

int listDir(const char* directory, std::list<std::string>& out) {
  if (directory) {
    SortedDirectory sorted(directory);
    std::move(sorted.names.begin(), sorted.names.end(), std::back_inserter(out));
  }
  return static_cast<int>(out.size());
}

int listResourcesRecursively(const char* directory, std::list<std::string>& out, unsigned int typeFilter, bool hashed,
                             unsigned int level) {
  if (directory) listBelow(directory, out, typeFilter, hashed, level);
  return static_cast<int>(out.size());
}

char* toResourceID(const char* repository, const char* resource) {
  if (!repository || !resource) return nullptr;
  return mystrdup(resourceLockName(repository, resource).c_str());
}

long getSize(const char* path, struct stat* status) {
  KT_ASSERT(path);
  struct stat own;
  if (!status) {
    if (myStat(path, &own) != 0) return -1;
    status = &own;
  }
  const auto ownBlocks = static_cast<long>(status->st_blocks);
  bool isDirectory = false;
  isDir(path, &isDirectory, status);
  if (!isDirectory) return ownBlocks;
  std::list<std::string> names;
  listDir(path, names);
  long total = ownBlocks;
  for (const std::string& name : names) {
    const long blocks = getSize((std::string(path) + "/" + name).c_str(), nullptr);
    if (blocks == -1) return -1;
    total += blocks;
  }
  return total;
}
