#include "entrypoints.h"

#include "listing.h"
#include "registry.h"

int setTimeProperties_(const char* repository, const char* resource, utimbuf* times) {
  return getRepository(repository)->setTimeProperties(resource, times);
}

int getTimeProperties_(const char* repository, const char* resource, utimbuf* times) {
  return getRepository(repository)->getTimeProperties(resource, times);
}

int freeMount_(const char* repository, const char* mountName) {
  return getRepository(repository)->moveAllResourcesFromMount(mountName);
}

void checkOverload_(const char* repository, bool verbose) { getRepository(repository)->checkOverload(verbose); }

void setup_(const char* repository) { getRepository(repository)->setup(repository); }

std::list<std::string>* getDeletedDirs_(const char* repository) { return getRepository(repository)->getDeletedDirs(); }

int giveBackMounts_(const char* repository) { return getRepository(repository)->giveBackMounts(); }

int MountUnmount_(const char* repository, int mount, bool doMount) {
  return getRepository(repository)->MountUnmount(mount, doMount);
}

void rndMount_(const char* repository) { getRepository(repository)->rndMount(); }

void makeEmpty_(const char* repository) { getRepository(repository)->makeEmpty(); }

char* createToLegacy_(const char* repository, const char* resource) {
  return getRepository(repository)->createToLegacy(resource);
}

char** listDirs_(const char* repository, long* count, bool sort) {
  return getRepository(repository)->listResources(kOnlyDirectories, count, sort);
}

char** listFiles_(const char* repository, long* count, bool sort) {
  return getRepository(repository)->listResources(kOnlyFiles, count, sort);
}

int removeResource_(const char* repository, const char* resource) {
  return getRepository(repository)->removeResource(resource);
}

int checkResourceStatus_(const char* repository, const char* resource) {
  return getRepository(repository)->checkResourceStatus(resource);
}

int getRepositoryStatus_(const char* repository) {
  return getRepository(repository)->checkRepositoryStatus() & ~MOUNT_SWITCH;
}

char* getLocation_(const char* repository, const char* resource, int* status) {
  return getRepository(repository)->getLocation(resource, status, true, true);
}

char* createLocation_(const char* repository, const char* resource, int* status, bool noDirtyMark) {
  return getRepository(repository)->createLocation(resource, status, noDirtyMark);
}

char* createDirectory_(const char* repository, const char* resource, int* status, bool noDirtyMark) {
  return getRepository(repository)->createDirectory(resource, status, noDirtyMark);
}
