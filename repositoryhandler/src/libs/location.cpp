// Find, create, remove and list resources: the mount layer first, then the repository layer above it.

#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <utility>
#include <vector>

#include "KTOwned.h"
#include "KTRepositoryHandler.h"
#include "assertionsites.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "librarylog.h"
#include "listing.h"
#include "locking.h"
#include "messages.h"
#include "paths.h"
#include "relocation.h"
#include "resourceid.h"
#include "safety.h"
#include "transfer.h"

namespace {

// Another process may remove an empty hash directory between two steps of making a path; then it is made
// again.
constexpr int kMakeAttempts = 5;

// A look-up's answer where nothing was found, and not every mount could be looked at; as when joining copies failed.
constexpr int kResourceUnknown = 8;

void report(int* result, int value) {
  if (result) *result = value;
}

char* notCreated(int* result) {
  report(result, kResourceNotCreated);
  return nullptr;
}

// Others are never deleted, imported or joined.
bool namesResource(const char* id) { return hasName(id) && !safety::refuses(id); }

// Where a resource is below each mount; begins with "/".
std::string pathBelowMount(const char* id) {
  std::string closed(id);
  if (closed.empty() || closed.back() != '/') closed += '/';  // so that the last component is hashed too
  const OwnedChars hashed(convertToHashed_(closed.c_str()));
  std::string below("/");
  below += hashed.get();
  if (below.size() > 1) below.pop_back();  // the "/" behind the last component
  return below;
}

// By bytes, whatever the locale.
bool comesBefore(const OwnedChars& a, const OwnedChars& b) { return strcmp(a.get(), b.get()) < 0; }

void setTimesToNow(const std::string& path) { utime(path.c_str(), nullptr); }

void logNotMade(const std::string& directory, int failure) {
  safety::logError("Error occured while creating directory " + quoted(directory) + ". Error code is " +
                   std::to_string(failure));
}

bool makeDirectory(const std::string& directory) {
  for (int attempt = 0; attempt < kMakeAttempts; ++attempt)
    if (mkdirs(directory.c_str(), kDirectoryMode) == 0) return true;
  logNotMade(directory, errno);
  return false;
}

// Where a resource is in the legacy directory; "" when it can be nowhere there.
std::string legacyPathOf(const std::string& legacyDirectory, const char* resource) {
  const std::string name = safety::nameOf(resource);
  return safety::leadsNowhere(legacyDirectory, name) ? "" : legacyDirectory + "/" + name;
}

bool canJoin(const char* earlier, int laterMountStatus) {
  bool isDirectory = false;
  return isDir(earlier, &isDirectory, nullptr) == 0 && isDirectory && !(laterMountStatus & MOUNT_FULL);
}

bool drop(const char* copy, const char* kept) {
  if (!dropContainedCopy(copy, kept)) return false;
  clearEmptyHash(copy);
  return true;
}

// Moves the earlier of two copies of a dirty resource into the later one. Returns 0, and `earlier` is the path of the
// one that stays; or what to report.
int joinCopies(OwnedChars& earlier, OwnedChars later, int laterMountStatus) {
  if (safety::dropsContainedCopies()) {
    if (drop(earlier.get(), later.get())) {
      earlier = std::move(later);
      return kResourceFound;
    }
    if (drop(later.get(), earlier.get())) return kResourceFound;
  }
  if (!canJoin(earlier.get(), laterMountStatus)) return kResourceConflict;
  const int moved = moveRes(earlier.get(), later.get());
  rh_logger.debugLog("--- Dirty conflict handling ---");
  if (moved != kTransferred) return moved;
  clearEmptyHash(earlier.get());
  earlier = std::move(later);
  return kResourceFound;
}

}  // namespace

char* KTMountPointHandler::getLocation(const char* id, int* result, int* mountStatus, bool touch) {
  KT_ASSERT(id);
  return locate(pathBelowMount(id), result, mountStatus, touch);
}

char* KTMountPointHandler::locate(const std::string& below, int* result, int* mountStatus, bool touch) {
  const int fresh = checkStatus(false);
  report(mountStatus, fresh);
  if (fresh == MOUNT_MISSING) return nullptr;
  const std::string path = mountPath + below;
  if (!exists(path.c_str())) {
    if (safety::mayBeThere()) return notLookedAt(result, mountStatus);
    report(result, kResourceNotFound);
    return nullptr;
  }
  if (touch) setTimesToNow(path);
  writeToLog(path.c_str());
  report(result, kResourceFound);
  return mystrdup(path.c_str());
}

// As on a mount that is away, but that the answer is no "not found".
char* KTMountPointHandler::notLookedAt(int* result, int* mountStatus) const {
  report(result, kResourceUnknown);
  report(mountStatus, MOUNT_MISSING);
  repository->status |= REPOSITORY_INCOMPLETE;
  return nullptr;
}

char* KTMountPointHandler::createLocation(const char* id, int* result) {
  KT_ASSERT(id);
  if (checkStatus(true) == MOUNT_MISSING) return notCreated(result);
  const std::string subDirectory = withoutOuterSlashes(id);
  assertAt(kOneComponent, subDirectory.find('/') == std::string::npos);
  if (subDirectory.empty() || safety::refuses(id)) {  // an id without a name has no place
    logNotMade(mountPath + "/", EINVAL);
    return notCreated(result);
  }
  const OwnedChars hashed(convertToHashed_((subDirectory + "/").c_str()));
  const OwnedChars levels(parentDir(hashed.get()));
  std::string directory = mountPath + "/" + levels.get();
  directory.pop_back();  // the "/" behind the last level
  if (!makeDirectory(directory)) return notCreated(result);
  report(result, kResourceFound);
  return mystrdup((directory + "/" + subDirectory).c_str());
}

char* KTMountPointHandler::createDirectory(const char* id, int* result) {
  OwnedChars location(createLocation(id, result));
  if (!location) return nullptr;
  if (!makeDirectory(location.get())) return notCreated(result);
  writeToLog(location.get());
  return location.release();
}

int KTMountPointHandler::removeResource(const char* id) {
  KT_ASSERT(id);
  return namesResource(id) ? remove(pathBelowMount(id)) : kResourceNotFound;
}

int KTMountPointHandler::remove(const std::string& below) {
  int found = kResourceNotFound;
  const OwnedChars location(locate(below, &found, nullptr, false));
  if (!location) return found;
  const int result = deleteRes(location.get());
  if (result == kTransferred) clearEmptyHash(location.get());
  return result;
}

void KTMountPointHandler::listResources(std::list<std::string>& out, int typeFilter) {
  if (checkStatus(true) == MOUNT_MISSING) return;
  listResourcesRecursively(mountPath.c_str(), out, static_cast<unsigned int>(typeFilter), true, 0);
}

// The lock goes back inside each operation, before the path is let go: should that fail, the path is freed.
char* KTRepositoryHandler::getLocation(const char* resource, int* result, bool lock, bool touch) {
  KT_ASSERT(resource);
  OwnedChars location;
  if (lock) {
    KTSemaphore semaphore(lockNameOf(resource), true);
    if (takeResourceLock(semaphore)) location.reset(locate(resource, result, touch));
  } else {
    location.reset(locate(resource, result, touch));
  }
  return location.release();
}

char* KTRepositoryHandler::createLocation(const char* resource, int* result, bool noDirtyMark) {
  return create(resource, result, noDirtyMark, &KTMountPointHandler::createLocation);
}

char* KTRepositoryHandler::createDirectory(const char* resource, int* result, bool noDirtyMark) {
  return create(resource, result, noDirtyMark, &KTMountPointHandler::createDirectory);
}

char* KTRepositoryHandler::create(const char* resource, int* result, bool noDirtyMark, MountCreation creation) {
  KT_ASSERT(resource);
  OwnedChars location;
  {
    KTSemaphore semaphore(lockNameOf(resource), true);
    if (takeResourceLock(semaphore)) location.reset(createUnderLock(resource, result, noDirtyMark, creation));
  }
  return location.release();
}

int KTRepositoryHandler::removeResource(const char* resource) {
  KT_ASSERT(resource);
  KTSemaphore semaphore(lockNameOf(resource), true);
  if (!takeResourceLock(semaphore)) return kResourceNotLocked;
  if (dirtyFlagHandler.isDirty(resource)) {
    const OwnedChars joined(locate(resource, nullptr, false));
    if (dirtyFlagHandler.isDirty(resource)) return kResourceDirty;
  }
  return removeEverywhere(resource);
}

int KTRepositoryHandler::checkResourceStatus(const char* resource) {
  int result = kResourceNotLocked;
  const OwnedChars location(getLocation(resource, &result, true, false));
  // A resource that stays in the legacy directory is found without a status.
  return location && result == kResourceNotLocked ? kResourceFound : result;
}

bool KTRepositoryHandler::setTimeProperties(const char* resource, utimbuf* times) {
  const OwnedChars location(getLocation(resource, nullptr, safety::locksForTimes(), false));
  return location && utime(location.get(), times) != -1;
}

bool KTRepositoryHandler::getTimeProperties(const char* resource, utimbuf* times) {
  KT_ASSERT(times);
  const OwnedChars location(getLocation(resource, nullptr, safety::locksForTimes(), false));
  struct stat found;
  if (!location || myStat(location.get(), &found) != 0) return false;
  times->actime = found.st_atime;
  times->modtime = found.st_mtime;
  return true;
}

char* KTRepositoryHandler::createToLegacy(const char* resource) {
  KT_ASSERT(resource);
  if (legacyDir.empty() || safety::refuses(resource)) return nullptr;
  const std::string path = legacyPathOf(legacyDir, resource);
  if (path.empty()) return nullptr;
  return mkdirs(path.c_str(), kDirectoryMode) == 0 ? mystrdup(path.c_str()) : nullptr;
}

char** KTRepositoryHandler::listResources(int typeFilter, long* count, bool sort) {
  KT_ASSERT(count);
  std::list<std::string> names = allResources(typeFilter);
  std::vector<OwnedChars> copies;
  copies.reserve(names.size());
  for (; !names.empty(); names.pop_front())  // so that most names are held once
    copies.emplace_back(mystrdup(names.front().c_str()));
  if (sort) std::sort(copies.begin(), copies.end(), comesBefore);
  char** array = new char*[copies.size()];  // nothing below can fail
  for (size_t i = 0; i < copies.size(); ++i) array[i] = copies[i].release();
  *count = static_cast<long>(copies.size());
  return array;
}

// What is on the mounts, in their order, then what is in the legacy directory.
std::list<std::string> KTRepositoryHandler::allResources(int typeFilter) {
  std::list<std::string> names;
  for (KTMountPointHandler* mount : mountPoints) mount->listResources(names, typeFilter);
  if (!legacyDir.empty())
    listResourcesRecursively(legacyDir.c_str(), names, static_cast<unsigned int>(typeFilter), false, 0);
  return names;
}

std::string KTRepositoryHandler::lockNameOf(const std::string& resource) const {
  return resourceLockName(id, safety::nameOf(resource.c_str()));
}

bool KTRepositoryHandler::takeResourceLock(KTSemaphore& semaphore) const {
  if (takeLock(semaphore)) return true;
  safety::logError("The resource " + quoted(semaphore.name) + " could not be locked.");
  return false;
}

char* KTRepositoryHandler::locate(const char* resource, int* result, bool touch) {
  if (safety::refuses(resource)) {
    report(result, kResourceNotFound);
    return nullptr;
  }
  if (char* legacy = importFromLegacy(resource, touch)) return legacy;
  return locateOnMounts(resource, result, touch);
}

// The legacy path when the resource is in the legacy directory and no mount may take it; otherwise null, and a
// resource that was there is on a mount now, as far as it could be moved. A symbolic link stays where it is.
char* KTRepositoryHandler::importFromLegacy(const char* resource, bool touch) {
  if (legacyDir.empty() || !namesResource(resource)) return nullptr;
  const std::string legacy = legacyPathOf(legacyDir, resource);
  if (!exists(legacy.c_str()) || !isNotLink(legacy.c_str())) return nullptr;
  const int target = getActualMountPointForLegacy();
  writeToLegacyLog(legacy.c_str());
  if (target >= 0 && moveFromLegacy(mountPoints[static_cast<size_t>(target)], resource, legacy)) return nullptr;
  if (touch) setTimesToNow(legacy);
  return mystrdup(legacy.c_str());
}

// False when the resource is in the legacy directory as it was, and is found there. Its mark is for the look-up on the
// mounts that follows: another copy may be there.
bool KTRepositoryHandler::moveFromLegacy(KTMountPointHandler* mount, const char* resource, const std::string& legacy) {
  const OwnedChars location(mount->createLocation(resource, nullptr));
  if (!location) return !safety::findsFailedImports();
  const bool marked = markWhileMoved(resource);
  const int result = moveRes(legacy.c_str(), location.get());
  if (result == kTransferred || !safety::findsFailedImports() || safety::isThere(location.get())) return true;
  if (marked) unmark(resource);
  clearEmptyHash(location.get());
  return false;
}

char* KTRepositoryHandler::locateOnMounts(const char* resource, int* result, bool touch) {
  bool dirty = dirtyFlagHandler.isDirty(resource) && namesResource(resource);
  bool someMountAway = false;
  int unfound = kResourceNotFound;
  const std::string below = pathBelowMount(resource);
  OwnedChars found;
  for (KTMountPointHandler* mount : mountPoints) {
    int mountStatus = 0;
    int answer = kResourceNotFound;
    OwnedChars here(mount->locate(below, &answer, &mountStatus, touch));
    if (!here) {
      if (answer == kResourceUnknown) unfound = answer;
      if (mountStatus & MOUNT_MISSING) someMountAway = true;
      continue;
    }
    if (found) {
      if (const int conflict = joinCopies(found, std::move(here), mountStatus)) {
        report(result, conflict);
        return nullptr;
      }
    } else {
      found = std::move(here);
    }
    if (!dirty) break;  // a clean one is never searched for further copies
  }
  if (dirty && !someMountAway) {
    dirtyFlagHandler.setDirty(resource, false);  // every copy has been seen
    dirty = false;
  }
  report(result, !found ? unfound : dirty ? kResourceDirty : kResourceFound);
  return found.release();
}

char* KTRepositoryHandler::createUnderLock(const char* resource, int* result, bool noDirtyMark,
                                           MountCreation creation) {
  if (char* existing = locate(resource, result, false)) return existing;
  // A copy may be on the mount that is away; the first look-up after its return joins the two.
  if ((status & REPOSITORY_INCOMPLETE) && !noDirtyMark) dirtyFlagHandler.setDirty(resource, true);
  const int target = getActualMountPoint();
  if (target >= 0) return (mountPoints[static_cast<size_t>(target)]->*creation)(resource, result);
  std::string text = "The repository " + quoted(id) + " is ";
  text += status & REPOSITORY_MISSING ? "missing" : "full";
  if (status & REPOSITORY_INCOMPLETE) text += " and incomplete";
  safety::logError(text);
  report(result, kResourceNotCreated);
  return nullptr;
}

int KTRepositoryHandler::removeEverywhere(const char* resource) {
  const bool named = namesResource(resource);
  const std::string below = pathBelowMount(resource);
  bool found = false;
  int result = 0;
  for (KTMountPointHandler* mount : mountPoints) {
    const int removed = named ? mount->remove(below) : kResourceNotFound;
    if (removed & kResourceNotFound) continue;
    found = true;
    result |= removed;
  }
  const std::string legacy = legacyPathOf(legacyDir, resource);
  if (!legacyDir.empty() && named && exists(legacy.c_str())) {
    found = true;
    result |= deleteRes(legacy.c_str());
  }
  return found ? result : kResourceNotFound;
}
