#include "sorteddirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "filestatus.h"
#include "safety.h"

namespace {

bool isDotEntry(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

bool collatesBefore(const std::string& a, const std::string& b) { return strcoll(a.c_str(), b.c_str()) < 0; }

}  // namespace

SortedDirectory::SortedDirectory(std::string where) : path(std::move(where)), directory(opendir(path.c_str())) {
  if (!directory) {
    mayHoldMore = safety::mayBeThere();
    return;
  }
  // Only the errno that comes with the end tells a failure: storing a name may leave one behind that means nothing.
  while (const dirent* entry = (errno = 0, readdir(directory.get())))
    if (!isDotEntry(entry->d_name)) names.emplace_back(entry->d_name);
  isWhole = errno == 0;
  mayHoldMore = !isWhole && safety::mayBeThere();
  if (!isWhole) names.clear();
  std::stable_sort(names.begin(), names.end(), collatesBefore);  // of names that collate alike, what was read first
}

int SortedDirectory::examine(const std::string& name, struct stat* status) const {
  if (fstatat(dirfd(directory.get()), name.c_str(), status, 0) == 0) return 0;
  return statFailed(pathOf(name).c_str());
}
