// KTRepositoryHandler: the balancing pass with its moves and deletions, and the emptying of a mount or of
// everything.

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "KTOwned.h"
#include "KTRepositoryHandler.h"
#include "filestatus.h"
#include "librarylog.h"
#include "listing.h"
#include "locking.h"
#include "messages.h"
#include "transfer.h"

namespace {

// The oldest resources of one mount that a pass holds at a time: bounds its memory, not its work.
constexpr unsigned int kOldestBatch = 100;
// The same for emptying a mount, where no order has to be found.
constexpr unsigned int kRandomBatch = 1000;
// Rounds in a row that move and delete nothing before a loop gives up: what cannot be moved now (a lock left
// behind, a disk that fails) would otherwise be tried for ever, with the repository locked.
constexpr int kMostFruitlessRounds = 3;

// Progress on standard output; a pass that is not verbose says nothing.
void say(bool verbose, const char* line) {
  if (verbose) puts(line);
}

__attribute__((format(printf, 2, 3))) void sayFormatted(bool verbose, const char* format, ...) {
  if (!verbose) return;
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
}

// The established text, which ends in a line feed of its own.
std::string timeText(time_t time) {
  const char* text = ctime(&time);
  return text ? text : "";
}

// Watches a count that every success raises.
class FruitlessRounds {
 public:
  FruitlessRounds(const unsigned long& counted, const std::string& place)
      : count(counted), last(counted), where(place) {}

  // To be asked after each round. True, once logged, when there were too many in a row.
  bool tooMany() {
    rounds = count == last ? rounds + 1 : 0;
    last = count;
    if (rounds < kMostFruitlessRounds) return false;
    rh_logger.errorLog("CheckOverload gives up on %s: nothing could be moved or deleted", where.c_str());
    return true;
  }

 private:
  const unsigned long& count;
  unsigned long last;
  std::string where;
  int rounds = 0;
};

}  // namespace

void KTRepositoryHandler::checkOverload(bool verbose) {
  sayFormatted(verbose, "checking repository %s\n", id.c_str());
  deletedDirs.clear();
  KTSemaphore semaphore(lockNameOf(""), true);
  if (!takeLock(semaphore)) {
    const std::string text = "The repository " + quoted(id) + " could not be locked.";
    say(verbose, text.c_str());
    rh_logger.errorLog(text.c_str());
    return;
  }
  checkRepositoryStatus();
  if ((status & REPOSITORY_NOSPACE) && !isClearable) {
    say(verbose, "the repository is full, we can't do anything");
    return;
  }
  for (KTMountPointHandler* mount : mountPoints) relieveMount(mount, verbose);
}

void KTRepositoryHandler::relieveMount(KTMountPointHandler* mount, bool verbose) {
  const char* path = mount->mountPath.c_str();
  sayFormatted(verbose, "checking mount %s\n", path);
  if (mount->status & MOUNT_MISSING) {
    say(verbose, "mount is unmounted");
    return;
  }
  if (!(mount->status & MOUNT_MOVE)) {
    if (verbose)
      printf("mount does not need maintenance (moveLimit=%i, used=%f)\n", mount->moveLimit,
             static_cast<double>(mount->getUsedPercentage()));
    return;
  }
  sayFormatted(verbose, "trying to clean mount %s\n", path);
  rh_logger.debugLog("CheckOverload detected %s has to be clean", path);
  if (!isClearable) {
    if (!(status & REPOSITORY_NOSPACE)) moveResourcesFromMount(mount, verbose);
    return;
  }
  say(verbose, "repository is clearable");
  FruitlessRounds cycles(relocated, mount->mountPath);
  while ((mount->status & MOUNT_MOVE) && relieveByDeleting(mount, verbose))
    if (cycles.tooMany()) return;
}

// One cycle over a clearable repository: deletes the oldest resources of all while it has no room, then moves
// what is old off the mount. False when there is nothing left to delete or to move.
bool KTRepositoryHandler::relieveByDeleting(KTMountPointHandler* mount, bool verbose) {
  Candidates oldest;
  if (getGlobalOldestResources(&oldest) < 1) {
    say(verbose, "no global old resource found");
    rh_logger.debugLog("no global old resource found");
    return false;
  }
  const int found = static_cast<int>(oldest.size());
  rh_logger.debugLog("Move limit: %d Clean limit: %d", mount->moveLimit, mount->cleanLimit);
  rh_logger.debugLog("GlobalOldResources:%d", found);
  sayFormatted(verbose, "Move limit: %d Clean limit: %d\n", mount->moveLimit, mount->cleanLimit);
  sayFormatted(verbose, "GlobalOldResources: %d\n", found);
  if (!deleteOldest(mount, oldest, verbose)) return false;
  if (!(mount->status & MOUNT_MOVE) || (status & REPOSITORY_NOSPACE)) return true;
  rh_logger.debugLog("Trying to move instead of cleaning first...");
  return moveResourcesFromMount(mount, verbose) == 0;
}

// Deletes while the repository has no room, batch after batch. False when nothing is left to be deleted.
bool KTRepositoryHandler::deleteOldest(const KTMountPointHandler* mount, Candidates& oldest, bool verbose) {
  FruitlessRounds sweeps(relocated, mount->mountPath);
  while ((status & REPOSITORY_NOSPACE) && !oldest.empty()) {
    for (const ResourceEntry& entry : oldest) {
      if (!(status & REPOSITORY_NOSPACE)) return true;
      deleteCandidate(mount, entry, verbose);
    }
    if (!(status & REPOSITORY_NOSPACE)) return true;
    if (sweeps.tooMany()) return false;
    rh_logger.debugLog("Clearing is not enough...");
    oldest.clear();
    if (getGlobalOldestResources(&oldest) < 1) {
      rh_logger.debugLog("No other resources found to be deleted...");
      say(verbose, "No other resources found to be deleted...");
      return false;
    }
  }
  return true;
}

void KTRepositoryHandler::deleteCandidate(const KTMountPointHandler* mount, const ResourceEntry& entry, bool verbose) {
  const char* path = entry.path.c_str();
  KTSemaphore semaphore(lockNameOf(entry.name), true);
  if (!lockCandidate(semaphore, verbose)) return;
  if (lastAccess(path, nullptr) != entry.lastAccessTime) {
    semaphore.unlock();
    rh_logger.debugLog("Resource touched:%s", path);
    sayFormatted(verbose, "Resource touched while checking: %s\n", path);
    return;
  }
  const std::string lastUse = timeText(entry.lastAccessTime);
  rh_logger.infoLog("CheckOverload deletes resource: %s when cleaning mount: %s", path, mount->mountPath.c_str());
  rh_logger.infoLog("CheckOverload: Last access/modification time of the resource: %s", lastUse.c_str());
  sayFormatted(verbose, "Deleting resource: %s\n", path);
  sayFormatted(verbose, "Last access/modification time of the resource: %s\n", lastUse.c_str());
  deletedDirs.push_back(entry.path);
  if (deleteRes(path) == kTransferred) {
    clearEmptyHash(path);
    ++relocated;
  } else {
    rh_logger.errorLog("Resource deleting didn't succeed:%s", path);
    sayFormatted(verbose, "Deleting resource %s failed\n", path);
    dirtyFlagHandler.setDirty(path, true);
  }
  semaphore.unlock();
  checkRepositoryStatus();
}

int KTRepositoryHandler::moveResourcesFromMount(KTMountPointHandler* mount, bool verbose) {
  KT_ASSERT(mount);
  int target = getActualMountPointForMove(mount);
  if (target < 0) return 1;
  rh_logger.debugLog("CheckOverload tries to move");
  say(verbose, "CheckOverload tries to move");
  Candidates oldest;
  if (mount->getOldestResources(&oldest, kOldestBatch, "", 0) < 1) {
    rh_logger.debugLog("no old resource found");
    sayFormatted(verbose, "no old resource found on mount %s\n", mount->mountPath.c_str());
    return 1;
  }
  const auto goesOn = [&] { return (mount->status & MOUNT_CLEAN) && target >= 0; };
  FruitlessRounds batches(relocated, mount->mountPath);
  while (!oldest.empty() && goesOn()) {
    for (const ResourceEntry& entry : oldest) {
      if (!goesOn()) return 0;
      moveCandidate(mount, entry, target, verbose);
    }
    if (!goesOn() || batches.tooMany()) return 0;
    oldest.clear();
    if (mount->getOldestResources(&oldest, kOldestBatch, "", 0) < 0) return 0;
  }
  return 0;
}

// Moves one resource to the mount of number `target`, and then chooses the target for the next.
void KTRepositoryHandler::moveCandidate(KTMountPointHandler* mount, const ResourceEntry& entry, int& target,
                                        bool verbose) {
  const std::string source = mount->mountPath + entry.relativePath;
  const std::string destination = mountPoints[static_cast<size_t>(target)]->mountPath + entry.relativePath;
  KTSemaphore semaphore(lockNameOf(entry.name), true);
  if (!lockCandidate(semaphore, verbose)) return;
  if (lastAccess(entry.path.c_str(), nullptr) != entry.lastAccessTime) {
    semaphore.unlock();
    sayFormatted(verbose, "Resource touched while checking: %s\n", entry.path.c_str());
    return;
  }
  const std::string lastUse = timeText(entry.lastAccessTime);
  rh_logger.infoLog("CheckOverload moves %s to %s", source.c_str(), destination.c_str());
  rh_logger.infoLog("CheckOverload: Last access/modification time of the resource: %s", lastUse.c_str());
  sayFormatted(verbose, "CheckOverload moves %s to %s\n", source.c_str(), destination.c_str());
  sayFormatted(verbose, "CheckOverload: Last access/modification time of the resource: %s\n", lastUse.c_str());
  const int result = moveRes(source.c_str(), destination.c_str());
  if (result & kTransferConflict) {
    say(verbose, "Conflict prevented resource move");
    dirtyFlagHandler.setDirty(entry.path.c_str(), true);
  } else if (result & kTransferFailed) {
    say(verbose, "Move failed (Maybe out of space?)");
    rh_logger.debugLog("Nospaceleft? checkoverload couldn't move");
  } else {
    say(verbose, "Move succeeded");
    clearEmptyHash(source.c_str());
    ++relocated;
  }
  semaphore.unlock();
  target = getActualMountPointForMove(mount);
  if (verbose) printf("(moveLimit=%i, used=%f)\n", mount->moveLimit, static_cast<double>(mount->getUsedPercentage()));
}

int KTRepositoryHandler::moveAllResourcesFromMount(const char* mountName) {
  KT_ASSERT(mountName);
  const std::string wanted = id + "/" + mountName;
  KTMountPointHandler* mount = nullptr;
  for (KTMountPointHandler* candidate : mountPoints)
    if (!mount && candidate->mountPath == wanted) mount = candidate;
  if (!mount) {
    rh_logger.debugLog(("Source mount " + quoted(wanted) + " could not be found in repository.").c_str());
    return kNoSuchMount;
  }
  int target = getActualMountPointForMove(mount);
  if (target < 0) {
    rh_logger.debugLog("Could not find target mount for data moving.");
    return kNoTargetMount;
  }
  Candidates batch;
  if (mount->getRandomResources(&batch, kRandomBatch, "", 0) < 1) {
    rh_logger.debugLog("no movable resource found");
    return kMountFreed;
  }
  bool moved = true;
  while (!batch.empty() && target >= 0 && moved) {
    moved = false;
    for (const ResourceEntry& entry : batch) {
      if (target < 0) break;
      if (evacuate(mount, entry, target)) moved = true;
    }
    if (target < 0) break;
    batch.clear();
    if (mount->getRandomResources(&batch, kRandomBatch, "", 0) < 0) break;
  }
  // A last target of number 0 counts as none here, though the loop takes it: callers know the 2.
  if (target <= 0) {
    rh_logger.debugLog("Nospaceleft? EmptyMount couldn't move");
    return kNoTargetMount;
  }
  if (!moved) {
    rh_logger.debugLog("Not all resources could be moved");
    return kMountNotFreed;
  }
  return kMountFreed;
}

// Moves one resource whatever its age, and then chooses the target for the next. True when it was moved.
bool KTRepositoryHandler::evacuate(KTMountPointHandler* mount, const ResourceEntry& entry, int& target) {
  const std::string source = mount->mountPath + entry.relativePath;
  const std::string destination = mountPoints[static_cast<size_t>(target)]->mountPath + entry.relativePath;
  KTSemaphore semaphore(lockNameOf(entry.name), true);
  if (!lockCandidate(semaphore, false)) return false;
  rh_logger.infoLog("EmptyMount moves %s to %s", source.c_str(), destination.c_str());
  const int result = moveRes(source.c_str(), destination.c_str());
  const bool moved = !(result & (kTransferConflict | kTransferFailed));
  if (result & kTransferConflict)
    dirtyFlagHandler.setDirty(entry.path.c_str(), true);
  else if (result & kTransferFailed)
    rh_logger.debugLog("Nospaceleft? EmptyMount couldn't move");
  else
    clearEmptyHash(source.c_str());
  semaphore.unlock();
  target = getActualMountPointForMove(mount);
  return moved;
}

void KTRepositoryHandler::makeEmpty() {
  dirtyFlagHandler.clearDirtySet();
  giveBackMounts();
  std::list<std::string> names;
  for (KTMountPointHandler* mount : mountPoints) mount->listResources(names, kAllResources);
  if (!legacyDir.empty()) listResourcesRecursively(legacyDir.c_str(), names, kAllResources, false, 0);
  for (const std::string& name : names) removeResource(name.c_str());
}

bool KTRepositoryHandler::lockCandidate(KTSemaphore& semaphore, bool verbose) const {
  if (lockResource(semaphore)) return true;
  say(verbose, ("The resource " + quoted(semaphore.name) + " could not be locked.").c_str());
  return false;
}
