// The configuration files, and how numbers are taken from them.

#ifndef REPOSITORYHANDLER_CONFIGFILES_H
#define REPOSITORYHANDLER_CONFIGFILES_H

#include "KTMountPointHandler.h"
#include "KTProperties.h"
#include "disklayout.h"

constexpr char kRepositoryConfig[] = "/repository.cfg";
constexpr char kMountConfigOutOfService[] = "/repositorypart.no";  // kMountConfig while the mount is out of service

// Stores the natural number under `key` in `field`. An absent key and a value that is none leave it.
inline void takeNatural(KTProperties& properties, const char* key, int& field) {
  const int value = KTMountPointHandler::parseNatInt(properties.getProperty(key));
  if (value != -1) field = value;
}

#endif
