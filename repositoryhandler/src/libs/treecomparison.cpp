#include "treecomparison.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <set>

#include "safety.h"
#include "shell.h"
#include "sorteddirectory.h"

namespace {

constexpr int kDiffers = 1 << 8;  // as system gives the status of a diff that found a difference

// What diff cannot compare: it would read a named pipe for ever, and takes two equal ones for different.
bool isSpecial(mode_t mode) { return !S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode); }

// None for a directory that cannot be read to its end, which must not pass for an empty one.
std::optional<std::set<std::string>> namesIn(const std::string& path) {
  const SortedDirectory directory(path);
  if (!directory.isWhole) return std::nullopt;
  return std::set<std::string>(directory.names.begin(), directory.names.end());
}

bool holdsSpecial(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return false;
  if (!S_ISDIR(status.st_mode)) return isSpecial(status.st_mode);
  const auto names = namesIn(path);
  return names && std::any_of(names->begin(), names->end(),
                              [&](const std::string& name) { return holdsSpecial(path + "/" + name); });
}

std::string targetOf(const std::string& link) {
  char target[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return {target, length > 0 ? static_cast<size_t>(length) : 0};
}

// What of two trees is compared.
struct Extent {
  bool contents = true;  // else names and types alone
  bool copyMayHoldMore = false;
};

int compareDirectories(const std::string& origin, const std::string& copy, Extent extent);

// One entry: as diff would, and special files by what they are.
int compareEntries(const std::string& origin, const std::string& copy, Extent extent) {
  struct stat a;
  struct stat b;
  if (lstat(origin.c_str(), &a) != 0 || lstat(copy.c_str(), &b) != 0) return kDiffers;
  if ((a.st_mode & S_IFMT) != (b.st_mode & S_IFMT)) return kDiffers;
  if (S_ISDIR(a.st_mode)) return compareDirectories(origin, copy, extent);
  if (!extent.contents) return 0;
  if (S_ISREG(a.st_mode)) return run(safety::compareCommand(origin, copy));
  if (S_ISLNK(a.st_mode)) return targetOf(origin) == targetOf(copy) ? 0 : kDiffers;
  return a.st_rdev == b.st_rdev ? 0 : kDiffers;
}

int compareDirectories(const std::string& origin, const std::string& copy, Extent extent) {
  const auto names = namesIn(origin);
  const auto others = namesIn(copy);
  if (!names || !others) return kDiffers;
  if (!extent.copyMayHoldMore && names->size() != others->size()) return kDiffers;
  for (const std::string& name : *names) {
    const std::string entry = "/" + name;
    if (const int status = compareEntries(origin + entry, copy + entry, extent)) return status;
  }
  return 0;
}

}  // namespace

int compareTrees(const std::string& origin, const std::string& copy) {
  return holdsSpecial(origin) ? compareEntries(origin, copy, {}) : run(safety::compareCommand(origin, copy));
}

bool isContained(const std::string& part, const std::string& whole) {
  if (!namesAreContained(part, whole)) return false;  // without a command, and before any file is read
  return compareTrees(part, whole) == 0 ||
         compareEntries(part, whole, {.contents = true, .copyMayHoldMore = true}) == 0;
}

bool namesAreContained(const std::string& part, const std::string& whole) {
  return compareEntries(part, whole, {.contents = false, .copyMayHoldMore = true}) == 0;
}
