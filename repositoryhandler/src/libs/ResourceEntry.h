// ResourceEntry: one candidate for moving or deleting, and the order of candidates.

#ifndef REPOSITORYHANDLER_RESOURCEENTRY_H
#define REPOSITORYHANDLER_RESOURCEENTRY_H

#include <ctime>
#include <string>

#include "KTApi.h"

struct KT_API ResourceEntry {
  std::string path;          // mount path and relativePath
  std::string relativePath;  // below the mount: "/", three hash levels, the name
  std::string name;          // the last component; names the resource's lock
  time_t lastAccessTime;     // lastAccess when it was listed; 0 from a walk that does not look at times
};

// Oldest first; of one age, paths in descending byte order.
struct KT_API ltres {
  bool operator()(const ResourceEntry& a, const ResourceEntry& b) const;
};

#endif
