// The oldest, random and globally oldest resources.

#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>

#include "KTException.h"
#include "KTOwned.h"
#include "KTRepositoryHandler.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "librarylog.h"
#include "listing.h"

namespace {

// By how many entries each mount may raise the global selection, and how many of them stay in the end.
constexpr int kGlobalStep = 100;

constexpr int kMountIsMissing = -1;

}  // namespace

bool ltres::operator()(const ResourceEntry& a, const ResourceEntry& b) const {
  if (a.lastAccessTime != b.lastAccessTime) return a.lastAccessTime < b.lastAccessTime;
  return strcmp(a.path.c_str(), b.path.c_str()) > 0;
}

// What a walk does with the resources that it meets.
struct KTMountPointHandler::CandidateWalk {
  std::function<bool()> isDone;  // asked before each name
  std::function<void(ResourceEntry& entry, struct stat& known)> take;
};

int KTMountPointHandler::getOldestResources(std::set<ResourceEntry, ltres>* result, unsigned int max,
                                            const char* prefix, unsigned int depth) {
  KT_ASSERT(result);
  const int64_t cutoff = static_cast<int64_t>(time(nullptr)) - nomoveTime;
  const auto takeOld = [=](ResourceEntry& entry, struct stat& known) {
    entry.lastAccessTime = lastAccess(entry.path.c_str(), &known);
    if (entry.lastAccessTime > cutoff) return;
    if (result->size() >= max && entry.lastAccessTime > result->rbegin()->lastAccessTime) return;
    result->insert(entry);
    if (result->size() > max) result->erase(std::prev(result->end()));
  };
  return collect(*result, max, {[] { return false; }, takeOld}, prefix, depth);
}

int KTMountPointHandler::getRandomResources(std::set<ResourceEntry, ltres>* result, unsigned int max,
                                            const char* prefix, unsigned int depth) {
  KT_ASSERT(result);
  const auto isFull = [=] { return result->size() >= max; };
  const auto takeAny = [=](ResourceEntry& entry, struct stat&) { result->insert(entry); };
  return collect(*result, max, {isFull, takeAny}, prefix, depth);
}

int KTMountPointHandler::collect(const Candidates& found, unsigned int max, const CandidateWalk& walk,
                                 const char* prefix, unsigned int depth) {
  KT_ASSERT(prefix);
  if (max == 0) return 0;
  if (depth == 0 && (checkStatus(true) & MOUNT_MISSING)) return kMountIsMissing;
  walkDirectory(walk, prefix, depth);
  return static_cast<int>(found.size());
}

void KTMountPointHandler::walkDirectory(const CandidateWalk& walk, const std::string& prefix, unsigned int depth) {
  std::list<std::string> names;
  listDir((mountPath + prefix).c_str(), names);
  for (const std::string& name : names) {
    if (walk.isDone()) return;
    if (depth == 0 && name == kLostAndFound) continue;
    walkEntry(walk, prefix, name, depth);
  }
}

void KTMountPointHandler::walkEntry(const CandidateWalk& walk, const std::string& prefix, const std::string& name,
                                    unsigned int depth) {
  if (repository->dirtyFlagHandler.isDirty(name.c_str())) {
    const OwnedChars joined(repository->getLocation(name.c_str(), nullptr, true, false));
    return;
  }
  const std::string relative = prefix + "/" + name;
  const std::string full = mountPath + relative;
  struct stat known;
  if (myStat(full.c_str(), &known) != 0) return;
  bool isDirectory = false;
  isDir(full.c_str(), &isDirectory, &known);
  if (depth < kHashLevels) {
    if (isDirectory) walkDirectory(walk, relative, depth + 1);
    return;
  }
  ResourceEntry entry{full, relative, name, 0};
  walk.take(entry, known);
}

int KTRepositoryHandler::getGlobalOldestResources(std::set<ResourceEntry, ltres>* result) {
  KT_ASSERT(result);
  checkRepositoryStatus();
  int back = 0;
  for (KTMountPointHandler* mount : mountPoints) {
    if (mount->status & MOUNT_MISSING) continue;
    const int request = back + kGlobalStep;
    back = mount->getOldestResources(result, static_cast<unsigned int>(request), "", 0);
    rh_logger.debugLog("global newresnum:%d, size:%d, backsize:%d", request, static_cast<int>(result->size()), back);
  }
  // The newest entry survives beside the oldest hundred: passes have always seen 101.
  if (result->size() > kGlobalStep) result->erase(std::next(result->begin(), kGlobalStep), std::prev(result->end()));
  return static_cast<int>(result->size());
}
