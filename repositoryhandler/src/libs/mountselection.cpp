// KTRepositoryHandler: the status of the whole, the choice of mounts, mounts in and out of service.

#include "KTRepositoryHandler.h"

#include <cstdio>
#include <cstdlib>

#include "configfiles.h"
#include "filestatus.h"
#include "librarylog.h"
#include "paths.h"

namespace {

constexpr int kNoMount = -1;

// What is passed over while mounts are filled in order, and while they are balanced.
struct Exclusions {
  int whenFilling;
  int whenBalancing;
};
constexpr Exclusions kForNew = {MOUNT_MISSING | MOUNT_FULL | MOUNT_SWITCH, MOUNT_MISSING | MOUNT_FULL};
constexpr Exclusions kForMove = {MOUNT_MISSING | MOUNT_CLEAN | MOUNT_FULL | MOUNT_SWITCH,
                                 MOUNT_MISSING | MOUNT_CLEAN | MOUNT_FULL};
// A full mount below its switch limit may take a legacy resource: filling does not look at the full limit here.
constexpr Exclusions kForLegacy = {MOUNT_MISSING | MOUNT_SWITCH, MOUNT_MISSING | MOUNT_FULL};

// The bits that a repository has when every present mount has them.
constexpr int kSharedBits = MOUNT_SWITCH | MOUNT_WARN3 | MOUNT_WARN2 | MOUNT_WARN | MOUNT_REMIND;

bool isInService(const KTMountPointHandler& mount) { return exists((mount.mountPath + kMountConfig).c_str()); }

// A failed rename shows in the next status.
void putInService(const KTMountPointHandler& mount) {
  rename((mount.mountPath + kMountConfigOutOfService).c_str(), (mount.mountPath + kMountConfig).c_str());
}

void takeOutOfService(const KTMountPointHandler& mount) {
  rename((mount.mountPath + kMountConfig).c_str(), (mount.mountPath + kMountConfigOutOfService).c_str());
}

void switchService(const KTMountPointHandler& mount, int number, bool inService) {
  if (inService) {
    rh_logger.debugLog("Mounting mount %d", number);
    putInService(mount);
  } else {
    rh_logger.debugLog("Unmounting mount %d", number);
    takeOutOfService(mount);
  }
}

}  // namespace

int KTRepositoryHandler::checkRepositoryStatus() {
  bool someMissing = false;
  bool someWithRoom = false;
  bool somePresent = false;
  int shared = ~0;
  for (KTMountPointHandler* mount : mountPoints) {
    const int mountStatus = mount->checkStatus(false);
    if (mountStatus & MOUNT_MISSING) {
      someMissing = true;
      continue;
    }
    somePresent = true;
    if (!(mountStatus & (MOUNT_FULL | MOUNT_CLEAN))) someWithRoom = true;
    shared &= mountStatus;
  }
  if (!somePresent) return status = REPOSITORY_MISSING;
  status = shared & kSharedBits;
  if (someMissing) status |= REPOSITORY_INCOMPLETE;
  if (!someWithRoom) status |= REPOSITORY_NOSPACE;
  if (shared & MOUNT_FULL) status |= REPOSITORY_FULL;
  return status;
}

int KTRepositoryHandler::giveBackMounts() {
  rh_logger.debugLog("Mounts are back");
  for (const KTMountPointHandler* mount : mountPoints)
    if (!isInService(*mount)) putInService(*mount);
  return checkRepositoryStatus();
}

int KTRepositoryHandler::MountUnmount(int mount, bool doMount) {
  if (static_cast<unsigned int>(mount) >= mountPoints.size()) return -1;
  const KTMountPointHandler& chosen = *mountPoints[static_cast<unsigned int>(mount)];
  if (isInService(chosen) != doMount) switchService(chosen, mount, doMount);
  checkRepositoryStatus();
  return 0;
}

void KTRepositoryHandler::rndMount() {
  if (mountPoints.empty()) return;
  const unsigned int number = static_cast<unsigned int>(rand()) % static_cast<unsigned int>(mountPoints.size());
  const KTMountPointHandler& chosen = *mountPoints[number];
  switchService(chosen, static_cast<int>(number), !isInService(chosen));
  checkRepositoryStatus();
}

int KTRepositoryHandler::getActualMountPoint() {
  checkRepositoryStatus();
  return chooseMount(nullptr, kForNew.whenFilling, kForNew.whenBalancing);
}

int KTRepositoryHandler::getActualMountPointForMove(KTMountPointHandler* source) {
  checkRepositoryStatus();
  return chooseMount(source, kForMove.whenFilling, kForMove.whenBalancing);
}

int KTRepositoryHandler::getActualMountPointForLegacy() {
  checkRepositoryStatus();
  for (size_t i = 0; i < mountPoints.size(); ++i) {
    const KTMountPointHandler& mount = *mountPoints[i];
    if (mount.status & (MOUNT_MISSING | MOUNT_FULL)) continue;
    if (IsOnTheSameMount(mount.mountPath.c_str(), legacyDir.c_str())) return static_cast<int>(i);
  }
  return chooseMount(nullptr, kForLegacy.whenFilling, kForLegacy.whenBalancing);
}

// The rule by which every choice is made, on the status bits just refreshed; `source` is never chosen.
int KTRepositoryHandler::chooseMount(const KTMountPointHandler* source, int notFilled, int notBalanced) {
  if (status & REPOSITORY_FULL) return kNoMount;
  if (status & MOUNT_SWITCH) return leastUsedMount(source, notBalanced);
  for (size_t i = 0; i < mountPoints.size(); ++i)
    if (mountPoints[i] != source && !(mountPoints[i]->status & notFilled)) return static_cast<int>(i);
  return kNoMount;
}

// Measured afresh; of two that are used alike, the first.
int KTRepositoryHandler::leastUsedMount(const KTMountPointHandler* source, int excluded) {
  int best = kNoMount;
  float lowest = 0;
  for (size_t i = 0; i < mountPoints.size(); ++i) {
    if (mountPoints[i] == source || (mountPoints[i]->status & excluded)) continue;
    const float used = mountPoints[i]->getUsedPercentage();
    if (best != kNoMount && !(used < lowest)) continue;
    best = static_cast<int>(i);
    lowest = used;
  }
  return best;
}
