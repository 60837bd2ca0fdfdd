// KTRepositoryHandler: the balancing pass with its moves and deletions, and the emptying of a mount or of
// everything.

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <utility>

#include "KTException.h"
#include "KTRepositoryHandler.h"
#include "filestatus.h"
#include "librarylog.h"
#include "listing.h"
#include "locking.h"
#include "messages.h"
#include "relocation.h"
#include "safety.h"
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
void say(bool verbose, const std::string& line) {
  if (verbose) puts(line.c_str());
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

bool touchedSinceListed(const ResourceEntry& entry) {
  return lastAccess(entry.path.c_str(), nullptr) != entry.lastAccessTime;
}

// A mark that cannot be written keeps nothing from being moved: the disk of the set may be the one that is full.
template <typename Step>
void inSpiteOfFailure(const Step& step) {
  try {
    step();
  } catch (const KTException& failure) {
    safety::logError(failure.m_message);
  }
}

std::string notLocked(const char* what, const std::string& name) {
  return std::string("The ") + what + " " + quoted(name) + " could not be locked.";
}

}  // namespace

// Watches over a loop whose rounds should raise progress.relocated.
class KTRepositoryHandler::FruitlessRounds {
 public:
  FruitlessRounds(Progress& watched, const KTMountPointHandler& mount)
      : progress(watched), last(watched.relocated), lastTried(watched.tried), place(mount.mountPath) {}

  // To be asked after each round. True, once logged, when there were too many in a row, or the round had nothing to try
  // and so has the next.
  bool tooMany() {
    rounds = progress.relocated == last ? rounds + 1 : 0;
    last = progress.relocated;
    const bool triedNothing = std::exchange(lastTried, progress.tried) == progress.tried;
    return (rounds >= kMostFruitlessRounds || (triedNothing && safety::endsRepeatedRounds())) && giveUp();
  }

  // To be asked then. True, once logged, when the round was fruitless and the next would try nothing else.
  bool repeats(const Candidates& tried, const Candidates& next) {
    return rounds > 0 && safety::endsRepeatedRounds() &&
           std::includes(tried.begin(), tried.end(), next.begin(), next.end(), ltres()) && giveUp();
  }

 private:
  bool giveUp() {
    progress.gaveUp = true;
    rh_logger.errorLog("CheckOverload gives up on %s: nothing could be moved or deleted", place.c_str());
    return true;
  }

  Progress& progress;
  unsigned long last;
  unsigned long lastTried;
  const std::string& place;
  int rounds = 0;
};

void KTRepositoryHandler::checkOverload(bool verbose) {
  sayFormatted(verbose, "checking repository %s\n", id.c_str());
  deletedDirs.clear();
  KTSemaphore semaphore(lockNameOf(""), true);
  if (!takeLock(semaphore)) {
    const std::string text = notLocked("repository", id);
    say(verbose, text);
    safety::logError(text);
    return;
  }
  checkRepositoryStatus();
  for (const KTMountPointHandler* mount : mountPoints) removeLeftovers(mount);
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
  Progress progress;
  FruitlessRounds cycles(progress, *mount);
  while ((mount->status & MOUNT_MOVE) && relieveOnce(mount, verbose, progress))
    if (progress.gaveUp || cycles.tooMany()) return;
}

// One cycle over a mount of a clearable repository: deletes the oldest resources of all while the repository has no
// room, then moves what is old off the mount. False when there is nothing to delete or to move.
bool KTRepositoryHandler::relieveOnce(KTMountPointHandler* mount, bool verbose, Progress& progress) {
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
  if (!deleteOldest(mount, oldest, verbose, progress)) return false;
  if (!(mount->status & MOUNT_MOVE)) return true;
  rh_logger.debugLog("Trying to move instead of cleaning first...");
  return moveOldest(mount, verbose, progress);
}

// Deletes until the repository has room, batch after batch. False when nothing is left that can be deleted.
bool KTRepositoryHandler::deleteOldest(const KTMountPointHandler* mount, Candidates& oldest, bool verbose,
                                       Progress& progress) {
  FruitlessRounds sweeps(progress, *mount);
  while (status & REPOSITORY_NOSPACE) {
    for (const ResourceEntry& entry : oldest) {
      if (!(status & REPOSITORY_NOSPACE)) return true;
      ++progress.tried;
      if (deleteCandidate(mount, entry, verbose)) ++progress.relocated;
    }
    if (!(status & REPOSITORY_NOSPACE)) return true;
    if (sweeps.tooMany()) return false;
    rh_logger.debugLog("Clearing is not enough...");
    const Candidates tried = std::exchange(oldest, {});
    const int found = getGlobalOldestResources(&oldest);
    if (sweeps.repeats(tried, oldest)) return false;
    if (found < 1) {
      rh_logger.debugLog("No other resources found to be deleted...");
      say(verbose, "No other resources found to be deleted...");
      return false;
    }
  }
  return true;
}

// True when the resource was deleted.
bool KTRepositoryHandler::deleteCandidate(const KTMountPointHandler* mount, const ResourceEntry& entry, bool verbose) {
  const char* path = entry.path.c_str();
  KTSemaphore semaphore(lockNameOf(entry.name), true);
  if (!takeLock(semaphore)) {
    const std::string text = notLocked("resource", semaphore.name);
    say(verbose, text);
    safety::logError(text);
    return false;
  }
  if (touchedSinceListed(entry)) {
    semaphore.unlock();
    rh_logger.debugLog("Resource touched:%s", path);
    sayFormatted(verbose, "Resource touched while checking: %s\n", path);
    return false;
  }
  const std::string lastUse = timeText(entry.lastAccessTime);
  rh_logger.infoLog("CheckOverload deletes resource: %s when cleaning mount: %s", path, mount->mountPath.c_str());
  rh_logger.infoLog("CheckOverload: Last access/modification time of the resource: %s", lastUse.c_str());
  sayFormatted(verbose, "Deleting resource: %s\n", path);
  sayFormatted(verbose, "Last access/modification time of the resource: %s\n", lastUse.c_str());
  const bool deleted = deleteUnderLock(entry, verbose);
  semaphore.unlock();
  checkRepositoryStatus();
  return deleted;
}

bool KTRepositoryHandler::deleteUnderLock(const ResourceEntry& entry, bool verbose) {
  const char* path = entry.path.c_str();
  deletedDirs.push_back(entry.path);  // before it is known whether it can be deleted
  if (deleteRes(path) == kTransferred) {
    clearEmptyHash(path);
    return true;
  }
  rh_logger.errorLog("Resource deleting didn't succeed:%s", path);
  sayFormatted(verbose, "Deleting resource %s failed\n", path);
  markDirty(entry);
  return false;
}

int KTRepositoryHandler::moveResourcesFromMount(KTMountPointHandler* mount, bool verbose) {
  KT_ASSERT(mount);
  Progress progress;
  return moveOldest(mount, verbose, progress) ? 0 : 1;
}

// Drains the mount. False when no mount may take its resources, or none of them is old enough.
bool KTRepositoryHandler::moveOldest(KTMountPointHandler* mount, bool verbose, Progress& progress) {
  const int target = getActualMountPointForMove(mount);
  if (target < 0) return false;
  rh_logger.debugLog("CheckOverload tries to move");
  say(verbose, "CheckOverload tries to move");
  Candidates oldest;
  if (mount->getOldestResources(&oldest, kOldestBatch, "", 0) < 1) {
    rh_logger.debugLog("no old resource found");
    sayFormatted(verbose, "no old resource found on mount %s\n", mount->mountPath.c_str());
    return false;
  }
  moveBatches(mount, oldest, target, verbose, progress);
  return true;
}

// Moves batch after batch while the mount is at its cleanLimit and some mount takes what comes.
void KTRepositoryHandler::moveBatches(KTMountPointHandler* mount, Candidates& oldest, int target, bool verbose,
                                      Progress& progress) {
  const auto goesOn = [&] { return (mount->status & MOUNT_CLEAN) && target >= 0; };
  FruitlessRounds batches(progress, *mount);
  while (!oldest.empty() && goesOn()) {
    for (const ResourceEntry& entry : oldest) {
      if (!goesOn()) return;
      ++progress.tried;
      if (moveCandidate(mount, entry, target, verbose)) ++progress.relocated;
    }
    if (!goesOn() || batches.tooMany()) return;
    const Candidates tried = std::exchange(oldest, {});
    if (mount->getOldestResources(&oldest, kOldestBatch, "", 0) < 0 || batches.repeats(tried, oldest)) return;
  }
}

// Moves one resource to the mount of number `target`, and then chooses the target for the next. True when it was
// moved.
bool KTRepositoryHandler::moveCandidate(KTMountPointHandler* mount, const ResourceEntry& entry, int& target,
                                        bool verbose) {
  const char* source = entry.path.c_str();
  const std::string destination = destinationOf(entry, target);
  KTSemaphore semaphore(lockNameOf(entry.name), true);
  if (!takeResourceLock(semaphore)) {
    say(verbose, notLocked("resource", semaphore.name));
    return false;
  }
  if (touchedSinceListed(entry)) {
    semaphore.unlock();
    sayFormatted(verbose, "Resource touched while checking: %s\n", source);
    return false;
  }
  const std::string lastUse = timeText(entry.lastAccessTime);
  rh_logger.infoLog("CheckOverload moves %s to %s", source, destination.c_str());
  rh_logger.infoLog("CheckOverload: Last access/modification time of the resource: %s", lastUse.c_str());
  sayFormatted(verbose, "CheckOverload moves %s to %s\n", source, destination.c_str());
  sayFormatted(verbose, "CheckOverload: Last access/modification time of the resource: %s\n", lastUse.c_str());
  const bool moved = moveUnderLock(entry, destination, "Nospaceleft? checkoverload couldn't move", verbose);
  semaphore.unlock();
  target = getActualMountPointForMove(mount);
  if (verbose) printf("(moveLimit=%i, used=%f)\n", mount->moveLimit, static_cast<double>(mount->getUsedPercentage()));
  return moved;
}

// True when the resource was moved; a failure is logged as `failureLine`, a conflict leaves a mark.
bool KTRepositoryHandler::moveUnderLock(const ResourceEntry& entry, const std::string& destination,
                                        const char* failureLine, bool verbose) {
  const bool marked = markWhileMoved(entry.name.c_str());
  const int result = moveRes(entry.path.c_str(), destination.c_str());
  if (marked && (result == kTransferred || !safety::isThere(destination.c_str()))) unmark(entry.name.c_str());
  if (result != kTransferred && safety::clearsAfterFailedMoves()) clearEmptyHash(destination.c_str());
  if (result & kTransferConflict) {
    say(verbose, "Conflict prevented resource move");
    markDirty(entry);
    return false;
  }
  if (result & kTransferFailed) {
    say(verbose, "Move failed (Maybe out of space?)");
    rh_logger.debugLog(failureLine);
    return false;
  }
  say(verbose, "Move succeeded");
  clearEmptyHash(entry.path.c_str());
  return true;
}

int KTRepositoryHandler::moveAllResourcesFromMount(const char* mountName) {
  KT_ASSERT(mountName);
  const std::string wanted = id + "/" + mountName;
  KTMountPointHandler* mount = mountAt(wanted);
  if (!mount) {
    safety::logDebug("Source mount " + quoted(wanted) + " could not be found in repository.");
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
    return freed(mount);
  }
  const bool moved = evacuateBatches(mount, batch, target);
  // A last target of number 0 counts as none here, though the batches take it: callers know the 2.
  if (target <= 0) {
    rh_logger.debugLog("Nospaceleft? EmptyMount couldn't move");
    return kNoTargetMount;
  }
  if (!moved) {
    rh_logger.debugLog("Not all resources could be moved");
    return kMountNotFreed;
  }
  return freed(mount);
}

// The result for a mount on which the last walk has found nothing.
int KTRepositoryHandler::freed(const KTMountPointHandler* mount) {
  if (!mount->passedOver || !safety::freesWhatWasSeenWhole()) return kMountFreed;
  safety::logError("The mount " + quoted(mount->mountPath) + " may hold resources still: not all of it could be read.");
  return kMountNotFreed;
}

// Moves batch after batch, until none is left, no mount takes more, or a whole batch could not be moved: false then.
bool KTRepositoryHandler::evacuateBatches(KTMountPointHandler* mount, Candidates& batch, int& target) {
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
  return moved;
}

// Moves one resource whatever its age, and then chooses the target for the next. True when it was moved.
bool KTRepositoryHandler::evacuate(KTMountPointHandler* mount, const ResourceEntry& entry, int& target) {
  const std::string destination = destinationOf(entry, target);
  KTSemaphore semaphore(lockNameOf(entry.name), true);
  if (!takeResourceLock(semaphore)) return false;
  rh_logger.infoLog("EmptyMount moves %s to %s", entry.path.c_str(), destination.c_str());
  const bool moved = moveUnderLock(entry, destination, "Nospaceleft? EmptyMount couldn't move", false);
  semaphore.unlock();
  target = getActualMountPointForMove(mount);
  return moved;
}

void KTRepositoryHandler::makeEmpty() {
  dirtyFlagHandler.clearDirtySet();
  giveBackMounts();
  for (const std::string& name : allResources(kAllResources)) removeResource(name.c_str());
}

KTMountPointHandler* KTRepositoryHandler::mountAt(const std::string& path) const {
  const auto found = std::find_if(mountPoints.begin(), mountPoints.end(), [&](const KTMountPointHandler* mount) {
    return mount->mountPath == path || safety::isOneMount(path, mount->mountPath);
  });
  return found == mountPoints.end() ? nullptr : *found;
}

std::string KTRepositoryHandler::destinationOf(const ResourceEntry& entry, int target) const {
  return mountPoints[static_cast<size_t>(target)]->mountPath + entry.relativePath;
}

// The path names the disk to the operator who reads the set: the established form of these marks.
void KTRepositoryHandler::markDirty(const ResourceEntry& entry) {
  dirtyFlagHandler.setDirty((safety::marksResources() ? entry.name : entry.path).c_str(), true);
}

// In the safe mode. False when the resource has a mark already: that of somebody who knows of another copy.
bool KTRepositoryHandler::markWhileMoved(const char* resource) {
  if (!safety::marksResources()) return false;
  bool isMarked = false;
  inSpiteOfFailure([&] {
    isMarked = dirtyFlagHandler.isDirty(resource);
    dirtyFlagHandler.setDirty(resource, true);  // one that never came into the file is written now
  });
  return !isMarked;
}

void KTRepositoryHandler::unmark(const char* resource) {
  inSpiteOfFailure([&] { dirtyFlagHandler.setDirty(resource, false); });
}

// Under a resource's lock, from which no move can keep it: removes what killed processes have left on a mount.
void KTRepositoryHandler::removeLeftovers(const KTMountPointHandler* mount) const {
  if (!safety::removesLeftCopies() || (mount->status & MOUNT_MISSING)) return;
  for (const std::string& resource : leftCopies(mount->mountPath)) {
    KTSemaphore semaphore(lockNameOf(resource), true);
    if (takeLock(semaphore, kNoWait)) removeLeftCopies(mount->mountPath, resource);
  }
}
