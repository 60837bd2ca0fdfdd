// The oldest, random and globally oldest resources.

#include "ResourceEntry.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <iterator>

#include "KTException.h"
#include "KTOwned.h"
#include "KTRepositoryHandler.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "librarylog.h"
#include "safety.h"
#include "sorteddirectory.h"

namespace {

// By how many entries each mount may raise the global selection, and how many of the oldest stay in the end.
constexpr int kGlobalStep = 100;

constexpr int kMountIsMissing = -1;

}  // namespace

bool ltres::operator()(const ResourceEntry& a, const ResourceEntry& b) const {
  if (a.lastAccessTime != b.lastAccessTime) return a.lastAccessTime < b.lastAccessTime;
  return strcmp(a.path.c_str(), b.path.c_str()) > 0;
}

// What a walk does with the resources that it meets.
class KTMountPointHandler::CandidateWalk {
 public:
  CandidateWalk(Candidates& candidates, unsigned int most) : found(candidates), max(most) {}
  virtual ~CandidateWalk() = default;
  CandidateWalk(const CandidateWalk&) = delete;
  CandidateWalk& operator=(const CandidateWalk&) = delete;

  virtual void enterDirectory() {}
  virtual bool isDone() const { return false; }  // asked before each name
  // Whether it takes a resource of this status, with what time.
  virtual bool wants(struct stat& known, time_t& lastAccessTime) const = 0;

  // The newest makes room.
  void take(const ResourceEntry& entry) {
    found.insert(entry);
    if (found.size() > max) found.erase(std::prev(found.end()));
  }

  Candidates& found;
  const unsigned int max;
  bool passedOver = false;  // something that is no candidate though it may be a resource: in the safe mode
};

// Keeps the oldest, by displacing the newest that it has.
class KTMountPointHandler::OldestWalk : public CandidateWalk {
 public:
  OldestWalk(Candidates& candidates, unsigned int most, int unusedSeconds)
      : CandidateWalk(candidates, most), unused(unusedSeconds) {}

  void enterDirectory() override { cutoff = static_cast<int64_t>(time(nullptr)) - unused; }

  bool wants(struct stat& known, time_t& lastAccessTime) const override {
    lastAccessTime = lastAccess(nullptr, &known);
    if (lastAccessTime > cutoff) return false;
    return found.size() < max || lastAccessTime <= found.rbegin()->lastAccessTime;
  }

 private:
  const int unused;
  int64_t cutoff = 0;  // wide enough for every limit, whatever the width of time_t
};

// Takes what comes, until it has enough.
class KTMountPointHandler::RandomWalk : public CandidateWalk {
 public:
  using CandidateWalk::CandidateWalk;
  bool isDone() const override { return found.size() >= max; }
  bool wants(struct stat&, time_t&) const override { return true; }
};

int KTMountPointHandler::getOldestResources(std::set<ResourceEntry, ltres>* result, unsigned int max,
                                            const char* prefix, unsigned int depth) {
  KT_ASSERT(result);
  OldestWalk walk(*result, max, nomoveTime);
  return collect(walk, prefix, depth);
}

int KTMountPointHandler::getRandomResources(std::set<ResourceEntry, ltres>* result, unsigned int max,
                                            const char* prefix, unsigned int depth) {
  KT_ASSERT(result);
  RandomWalk walk(*result, max);
  return collect(walk, prefix, depth);
}

int KTMountPointHandler::collect(CandidateWalk& walk, const char* prefix, unsigned int depth) {
  KT_ASSERT(prefix);
  if (walk.max == 0) return 0;
  passedOver = true;
  if (depth == 0 && (checkStatus(true) & MOUNT_MISSING)) return kMountIsMissing;
  walkDirectory(walk, mountPath + prefix, depth);
  passedOver = walk.passedOver;
  return static_cast<int>(walk.found.size());
}

void KTMountPointHandler::walkDirectory(CandidateWalk& walk, const std::string& path, unsigned int depth) {
  walk.enterDirectory();
  const SortedDirectory directory(path);
  if (directory.mayHoldMore) walk.passedOver = true;
  for (const std::string& name : directory.names) {
    if (walk.isDone()) return;
    if (depth == 0 && name == kLostAndFound) continue;
    walkEntry(walk, directory, name, depth);
  }
}

void KTMountPointHandler::walkEntry(CandidateWalk& walk, const SortedDirectory& directory, const std::string& name,
                                    unsigned int depth) {
  if (repository->dirtyFlagHandler.isDirty(name.c_str())) {
    const OwnedChars joined(repository->getLocation(name.c_str(), nullptr, true, false));
    passOver(walk, directory.pathOf(name));
    return;
  }
  struct stat known;
  if (directory.examine(name, &known) != 0) return passOver(walk, directory.pathOf(name));
  if (depth < kHashLevels) {
    if (S_ISDIR(known.st_mode)) walkDirectory(walk, directory.pathOf(name), depth + 1);
    return;
  }
  time_t lastAccessTime = 0;
  if (!walk.wants(known, lastAccessTime)) return;
  const std::string full = directory.pathOf(name);
  walk.take({full, full.substr(mountPath.size()), name, lastAccessTime});
}

void KTMountPointHandler::passOver(CandidateWalk& walk, const std::string& path) {
  if (safety::freesWhatWasSeenWhole() && safety::isThere(path.c_str())) walk.passedOver = true;
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
