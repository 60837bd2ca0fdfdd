// List directories and resources, name locks, measure trees. Names only come and go as bytes: nothing is
// decoded. The functions keep no state. Listings report no errors: what cannot be read is
// left out, and an entry that cannot be examined is logged by the probe. Any process
// may call at once and sees a tree that others change meanwhile.

#ifndef REPOSITORYHANDLER_LISTING_H
#define REPOSITORYHANDLER_LISTING_H

#include <sys/stat.h>

#include <list>
#include <string>

#include "KTApi.h"

// What a listing takes.
enum ResourceTypeFilter {
  kAllResources = 0,
  kOnlyDirectories = 1,
  kOnlyFiles = 2  // and so does every other value: everything but directories
};

// Appends the names in `directory`, without "." and "..", in the locale's collation order. Returns the
// number of entries in `out` afterwards. A directory that cannot be read adds nothing.
KT_API int listDir(const char* directory, std::list<std::string>& out);

// Appends the names of the resources below `directory`: with `hashed` those under three hash levels, where
// plain files at the hash levels and a "lost+found" at the root are passed over; without, the entries of
// the directory itself.
//   typeFilter  a ResourceTypeFilter
//   level       the hash level of `directory`: 0 for the root of a mount
// Returns the number of entries in `out` afterwards.
KT_API int listResourcesRecursively(const char* directory, std::list<std::string>& out, unsigned int typeFilter,
                                    bool hashed, unsigned int level);

// The lock name of a resource of a repository, "KTRepositoryHandler-<repository>-<resource>" with every "/"
// turned into "_", in a fresh char array that the caller frees with `release`. A repository's own lock has
// an empty resource. Null when an argument is null.
KT_API char* toResourceID(const char* repository, const char* resource);

// The size of the tree at `path` in blocks of 512 bytes, symbolic links followed, or -1 as soon as a path
// in it cannot be examined (logged).
//   status  of the path, or null to ask the file system
// Throws KTAssertionException for a null path.
KT_API long getSize(const char* path, struct stat* status);

#endif
