// KTRepositoryHandler: configuration and staleness.

#include "KTRepositoryHandler.h"

#include <cstring>

#include "KTException.h"
#include "KTProperties.h"
#include "configfiles.h"
#include "filestatus.h"
#include "librarylog.h"
#include "messages.h"
#include "paths.h"
#include "safety.h"

namespace {

constexpr int kSecondsPerDay = 86400;

struct Limit {
  const char* key;
  int KTRepositoryHandler::*field;
  int percent;  // when the configuration does not say
};

// In the order in which the keys are read.
constexpr Limit kLimits[] = {
    {"remindLimit", &KTRepositoryHandler::remindLimit, 80}, {"warnLimit", &KTRepositoryHandler::warnLimit, 90},
    {"warn2Limit", &KTRepositoryHandler::warn2Limit, 92},   {"warn3Limit", &KTRepositoryHandler::warn3Limit, 94},
    {"switchLimit", &KTRepositoryHandler::switchLimit, 95}, {"fullLimit", &KTRepositoryHandler::fullLimit, 97},
    {"cleanLimit", &KTRepositoryHandler::cleanLimit, 98},   {"moveLimit", &KTRepositoryHandler::moveLimit, 99},
};

// Between the entries of the mount list; no path of a disk needs it.
constexpr char kListSeparator = '\\';

int daysInSeconds(int days) { return static_cast<int>(static_cast<unsigned int>(days) * kSecondsPerDay); }

}  // namespace

// Through the empty handler, so that a setup that throws leaves no mount point behind.
KTRepositoryHandler::KTRepositoryHandler(const char* path) : KTRepositoryHandler() { setup(path); }

KTRepositoryHandler::KTRepositoryHandler(const KTRepositoryHandler& other) : KTRepositoryHandler() {
  rh_logger.debugLog("Repository copy constructor");
  setup(other.id.c_str());
}

KTRepositoryHandler::~KTRepositoryHandler() { removeMounts(); }

void KTRepositoryHandler::setup(const char* path) {
  KT_ASSERT(path);
  isClearable = false;
  legacyDir.clear();
  for (const Limit& limit : kLimits) this->*limit.field = limit.percent;
  nomoveTime = kSecondsPerDay;
  if (!exists(path)) {
    status = REPOSITORY_MISSING;
    return;
  }
  dirtyFlagHandler.setRepository(path);
  status = 0;
  id = path;
  configFile = id + kRepositoryConfig;
  parseConfigFile();
  checkRepositoryStatus();
}

int KTRepositoryHandler::parseConfigFile() {
  if (!exists(configFile.c_str())) {
    addMount(id);  // to whatever list there is: a repeated setup appends the root once more
    return 0;
  }
  configTime = lastModified(configFile.c_str());
  KTProperties properties;
  properties.load(configFile.c_str());
  applySettings(properties);
  removeMounts();
  const char* list = properties.getProperty("mountPoints");
  if (list && *list)
    addMounts(list);
  else
    addMount(id);
  return 0;
}

bool KTRepositoryHandler::isUpToDate() {
  if (!exists(configFile.c_str()) || lastModified(configFile.c_str()) != configTime) return false;
  for (KTMountPointHandler* mount : mountPoints)
    if (!mount->isUpToDate()) return false;
  return true;
}

std::list<std::string>* KTRepositoryHandler::getDeletedDirs() { return &deletedDirs; }

const char* KTRepositoryHandler::getID() { return id.c_str(); }

void KTRepositoryHandler::writeToLegacyLog(const char* /*text*/) {}

void KTRepositoryHandler::applySettings(KTProperties& properties) {
  if (const char* directory = properties.getProperty("legacyDir")) legacyDir = directory;
  for (const Limit& limit : kLimits) takeNatural(properties, limit.key, this->*limit.field);
  if (const char* clearable = properties.getProperty("isClearable")) isClearable = strcmp(clearable, "true") == 0;
  takeNatural(properties, "nomoveTimeSeconds", nomoveTime);
  int days = -1;
  takeNatural(properties, "nomoveTime", days);
  if (days != -1) nomoveTime = daysInSeconds(days);
}

void KTRepositoryHandler::addMounts(const char* list) {
  const char* entry = list;
  while (true) {
    const char* end = strchrnul(entry, kListSeparator);
    if (end != entry) addMount(id + "/" + std::string(entry, end));
    if (*end == '\0') return;
    entry = end + 1;
  }
}

void KTRepositoryHandler::addMount(const std::string& path) {
  for (const KTMountPointHandler* mount : mountPoints) {
    if (!safety::isOneMount(path, mount->mountPath)) continue;
    safety::logError("The mount " + quoted(path) + " is left out: it is the directory of " + quoted(mount->mountPath));
    return;
  }
  mountPoints.reserve(mountPoints.size() + 1);  // first: between the making and the storing nothing may fail
  mountPoints.push_back(new KTMountPointHandler(path, this));
}

void KTRepositoryHandler::removeMounts() {
  for (KTMountPointHandler* mount : mountPoints) delete mount;
  mountPoints.clear();
}
