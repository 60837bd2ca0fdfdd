#include "listing.h"

#include <dirent.h>

#include <algorithm>
#include <cstring>

#include "KTException.h"
#include "KTOwned.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "paths.h"

namespace {

// What scandir hands out: an array of entries, all from malloc.
class DirectoryEntries {
 public:
  explicit DirectoryEntries(const char* directory)
      : count(directory ? scandir(directory, &entries, nullptr, alphasort) : -1) {}
  ~DirectoryEntries() {
    for (int i = 0; i < count; ++i) free(entries[i]);
    if (count >= 0) free(entries);
  }
  DirectoryEntries(const DirectoryEntries&) = delete;
  DirectoryEntries& operator=(const DirectoryEntries&) = delete;

  dirent* const* begin() const { return entries; }
  dirent* const* end() const { return entries + std::max(count, 0); }

 private:
  dirent** entries = nullptr;
  int count;  // -1: the directory could not be read, and nothing was allocated
};

bool isDotEntry(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

bool allows(unsigned int typeFilter, bool isDirectory) {
  return typeFilter == kAllResources || (typeFilter == kOnlyDirectories) == isDirectory;
}

}  // namespace

int listDir(const char* directory, std::list<std::string>& out) {
  const DirectoryEntries entries(directory);
  for (const dirent* entry : entries)
    if (!isDotEntry(entry->d_name)) out.emplace_back(entry->d_name);
  return static_cast<int>(out.size());
}

int listResourcesRecursively(const char* directory, std::list<std::string>& out, unsigned int typeFilter, bool hashed,
                             unsigned int level) {
  std::list<std::string> names;
  listDir(directory, names);
  const bool isResourceLevel = !hashed || level == kHashLevels;
  for (const std::string& name : names) {
    if (hashed && level == 0 && name == kLostAndFound) continue;
    const std::string path = std::string(directory) + "/" + name;
    bool isDirectory = false;
    if (isDir(path.c_str(), &isDirectory, nullptr) != 0) continue;
    if (isResourceLevel) {
      if (allows(typeFilter, isDirectory)) out.push_back(name);
    } else if (isDirectory) {
      listResourcesRecursively(path.c_str(), out, typeFilter, hashed, level + 1);
    }
  }
  return static_cast<int>(out.size());
}

char* toResourceID(const char* repository, const char* resource) {
  if (!repository || !resource) return nullptr;
  std::string lockName = std::string("KTRepositoryHandler-") + repository + "-" + resource;
  std::replace(lockName.begin(), lockName.end(), '/', '_');
  return mystrdup(lockName.c_str());
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
