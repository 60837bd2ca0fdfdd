#include "sizeaccounting.h"

#include <sys/stat.h>
#include <utime.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>

#include "KTException.h"
#include "KTLinePieces.h"
#include "KTOwned.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "librarylog.h"
#include "listing.h"
#include "paths.h"
#include "safety.h"
#include "shell.h"
#include "statefile.h"

namespace {

using SizeCache = std::map<std::string, CountResourceEntry>;
using SizeSet = std::set<CountResourceSetEntry, ctres>;

constexpr char kCacheName[] = "/.count";
constexpr char kScratchName[] = "/.countres";
// A resource used more recently keeps the times that measuring left it: nobody may lose a use.
constexpr time_t kIdleSeconds = 3600;

// Lines come in threes: name, time, size. What is no number reads as 0.
SizeCache readCache(const std::string& file) {
  SizeCache cache;
  const OwnedFile f(fopen(file.c_str(), "r"));
  KT_ASSERT(f);
  KTLinePieces pieces(f.get());
  std::string name;
  CountResourceEntry entry = {0, 0};
  for (int line = 0; const char* piece = pieces.next(); line = (line + 1) % 3) {
    if (line == 0) {
      name = piece;
    } else if (line == 1) {
      entry.time = atoi(piece);
    } else {
      entry.size = atoi(piece);
      cache[name] = entry;
    }
  }
  return cache;
}

std::string contentOf(const SizeSet& found) {
  std::string content;
  for (const CountResourceSetEntry& entry : found)
    content += entry.name + "\n" + std::to_string(entry.time) + "\n" + std::to_string(entry.size) + "\n";
  return content;
}

// Where a new file replaces the old one it is written as the scratch file, which no count takes for a resource.
void writeCache(const std::string& directory, const SizeSet& found) {
  const std::string file = directory + kCacheName;
  if (safety::replacesStateFiles()) {
    const bool f = replaceFile(file, directory + kScratchName, contentOf(found));
    KT_ASSERT(f);
    return;
  }
  const OwnedFile f(fopen(file.c_str(), "w"));
  KT_ASSERT(f);
  for (const CountResourceSetEntry& entry : found)
    fprintf(f.get(), "%s\n%ld\n%ld\n", entry.name.c_str(), entry.time, entry.size);
}

// Kilobytes by du, or 0 when it gave none.
long runDu(const std::string& path, const std::string& scratch) {
  long size = 0;
  const int status = run(safety::measureCommand(path, scratch));
  if (status != 0 || !exists(scratch.c_str())) {
    rh_logger.debugLog("ERROR: du terminated abnormally\n");
    return size;
  }
  const OwnedFile f(fopen(scratch.c_str(), "r"));
  KT_ASSERT(f);
  if (fscanf(f.get(), "%ld", &size) != 1) size = 0;
  return size;
}

// du reads the directories it measures; an idle resource must not look used because of that.
void restoreIdleTimes(const std::string& path, const struct stat& before) {
  const time_t idleSince = time(nullptr) - kIdleSeconds;
  if (before.st_atime >= idleSince || before.st_mtime >= idleSince) return;
  const utimbuf times = {before.st_atime, before.st_mtime};
  utime(path.c_str(), &times);
}

CountResourceEntry measure(const std::string& name, const std::string& path, const std::string& scratch) {
  CountResourceEntry entry = {static_cast<long>(lastAccess(path.c_str(), nullptr)), 0};
  struct stat before;
  const bool known = myStat(path.c_str(), &before) == 0;
  entry.size = runDu(path, scratch);
  if (known) restoreIdleTimes(path, before);
  rh_logger.debugLog("resource: %s new size:%ld\n", name.c_str(), entry.size);
  return entry;
}

CountResourceEntry cachedOrMeasured(const std::string& name, const std::string& path, const SizeCache& cache,
                                    const std::string& scratch) {
  const auto cached = cache.find(name);
  if (cached == cache.end() || lastAccess(path.c_str(), nullptr) > cached->second.time)
    return measure(name, path, scratch);
  rh_logger.debugLog("resource not changed:%s\n", name.c_str());
  return cached->second;
}

bool isOwnFile(const std::string& name) { return name == kCacheName + 1 || name == kScratchName + 1; }

}  // namespace

bool ctres::operator()(const CountResourceSetEntry& a, const CountResourceSetEntry& b) const {
  return strcmp(a.name.c_str(), b.name.c_str()) > 0;
}

long countSize(const char* directory, bool flat) {
  KT_ASSERT(directory);
  const std::string file = std::string(directory) + kCacheName;
  rh_logger.debugLog("Filename: %s\n", file.c_str());
  SizeCache cache;
  if (exists(file.c_str())) {
    rh_logger.debugLog("Exists\n");
    cache = readCache(file);
  }
  SizeSet found;
  const long total = countSizeRecursively(directory, &cache, &found, directory, 0, flat ? kHashLevels : 0, flat);
  writeCache(directory, found);
  return total;
}

long countSizeRecursively(const char* directory, std::map<std::string, CountResourceEntry>* cache,
                          std::set<CountResourceSetEntry, ctres>* found, const char* root, long total,
                          unsigned int depth, bool flat) {
  std::list<std::string> names;
  listDir(directory, names);
  long sum = total;
  for (const std::string& name : names) {
    if (depth == kHashLevels && isOwnFile(name)) continue;
    if (depth == 0 && name == kLostAndFound) continue;
    const std::string path = std::string(directory) + "/" + name;
    if (depth == kHashLevels) {
      if (flat && !isNotLink(path.c_str())) continue;
      const CountResourceEntry entry = cachedOrMeasured(name, path, *cache, std::string(root) + kScratchName);
      found->insert({name, entry.time, entry.size});
      sum += entry.size;
      continue;
    }
    bool isDirectory = false;
    if (isDir(path.c_str(), &isDirectory, nullptr) != 0 || !isDirectory) continue;
    // Handed the caller's total, not the sum so far: 0 from countSize, so nothing counts twice.
    sum += countSizeRecursively(path.c_str(), cache, found, root, total, depth + 1, flat);
  }
  return sum;
}
