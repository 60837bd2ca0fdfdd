// KTMountPointHandler: configuration, fill level, status bits.

#include "KTMountPointHandler.h"

#include <sys/statvfs.h>

#include "KTRepositoryHandler.h"
#include "assertionsites.h"
#include "configfiles.h"
#include "filestatus.h"
#include "librarylog.h"
#include "paths.h"
#include "singleprecision.h"

namespace {

constexpr float kUsageUnknown = -1.0F;

bool reaches(float used, int limit) { return used >= static_cast<float>(limit); }

}  // namespace

KTMountPointHandler::KTMountPointHandler(const std::string& path, KTRepositoryHandler* owner) { setup(path, owner); }

KTMountPointHandler::KTMountPointHandler(const KTMountPointHandler& other) {
  rh_logger.debugLog("mount point copy constructor");
  setup(other.mountPath, other.repository);
}

KTMountPointHandler::~KTMountPointHandler() = default;

void KTMountPointHandler::setup(const std::string& path, KTRepositoryHandler* owner) {
  assertAt(kMountDirectoryExists, exists(path.c_str()));
  KT_ASSERT(owner);
  status = 0;
  mountPath = path;
  configFile = mountPath + kMountConfig;
  logPath = mountPath + "/.log";
  repository = owner;
  switchLimit = owner->switchLimit;
  fullLimit = owner->fullLimit;
  cleanLimit = owner->cleanLimit;
  moveLimit = owner->moveLimit;
  nomoveTime = owner->nomoveTime;
  if (checkStatus(false) & MOUNT_MISSING) return;
  parseConfigFile();
  checkStatus(false);
}

int KTMountPointHandler::parseConfigFile() {
  if (!exists(configFile.c_str())) return 0;
  configTime = lastModified(configFile.c_str());
  KTProperties properties;
  properties.load(configFile.c_str());
  takeNatural(properties, "switchLimit", switchLimit);
  takeNatural(properties, "fullLimit", fullLimit);
  takeNatural(properties, "cleanLimit", cleanLimit);
  takeNatural(properties, "moveLimit", moveLimit);
  return 0;
}

bool KTMountPointHandler::isUpToDate() {
  return exists(configFile.c_str()) && lastModified(configFile.c_str()) == configTime;
}

float KTMountPointHandler::getUsedPercentage() {
  struct statvfs space;
  if (myStatVfs(mountPath.c_str(), &space) != 0) return kUsageUnknown;
  // A file system without blocks gives no finite number, which then reaches no limit.
  const auto available = static_cast<long double>(space.f_bavail);
  return toSingle(100 + available / (static_cast<long double>(space.f_blocks) / -100.0L));
}

int KTMountPointHandler::checkStatus(bool useCached) {
  if (!exists(configFile.c_str())) return status = MOUNT_MISSING;
  if (status & MOUNT_MISSING) {
    rh_logger.debugLog("Mount is back in town:%s", configFile.c_str());
    useCached = false;
    parseConfigFile();
  }
  if (useCached) return status;
  const float used = getUsedPercentage();
  if (used == kUsageUnknown) return status = MOUNT_MISSING;
  return status = statusBits(used);
}

int KTMountPointHandler::statusBits(float used) const {
  const struct {
    int bit;
    int limit;
  } levels[] = {
      {MOUNT_REMIND, repository->remindLimit},
      {MOUNT_WARN, repository->warnLimit},
      {MOUNT_WARN2, repository->warn2Limit},
      {MOUNT_WARN3, repository->warn3Limit},
      {MOUNT_SWITCH, switchLimit},
      {MOUNT_FULL, fullLimit},
      {MOUNT_CLEAN, cleanLimit},
      {MOUNT_MOVE, moveLimit},
  };
  int bits = 0;
  for (const auto& level : levels) {
    // A limit of 0 or less disables its bit. Not so the switch limit: 0 there means to balance from the start.
    const bool enabled = level.limit > 0 || level.bit == MOUNT_SWITCH;
    if (enabled && reaches(used, level.limit)) bits |= level.bit;
  }
  return bits;
}

int KTMountPointHandler::parseNatInt(const char* text) {
  if (!text || *text == '\0') return -1;
  unsigned int value = 0;  // wraps around, on purpose: no value is out of range
  for (; *text; ++text) {
    if (*text < '0' || *text > '9') return -1;
    value = value * 10 + static_cast<unsigned int>(*text - '0');
  }
  return static_cast<int>(value);
}

void KTMountPointHandler::writeToLog(const char* /*text*/) {}
