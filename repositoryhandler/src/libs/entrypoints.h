// The flat entries, for callers that do not want classes: each looks the repository up, as getRepository
// (registry.h) does, and calls the one operation of KTRepositoryHandler that it is named after; what that
// does, answers, locks and throws is told there. Nothing is caught: the exceptions of the look-up and of the
// operation reach the caller. `repository` is the path of the repository's root directory, `resource` the id of
// a resource; null throws KTAssertionException. One thread at a time; any number of processes.
//
// A char* that comes back is a fresh char array, null meaning none: free it with `release`.

#ifndef REPOSITORYHANDLER_ENTRYPOINTS_H
#define REPOSITORYHANDLER_ENTRYPOINTS_H

#include <utime.h>

#include <list>
#include <string>

#include "KTApi.h"
#include "paths.h"  // release

extern "C" {

// Sets the access and modification time of a resource, seconds since the epoch, both to now for null times. Returns 1
// when they are set, else 0. In the safe mode the resource is locked meanwhile, as for the calls below that wait for
// it.
KT_API int setTimeProperties_(const char* repository, const char* resource, utimbuf* times);
// Reads them into *times, likewise. Returns 1 when the resource is found, else 0 with *times untouched.
KT_API int getTimeProperties_(const char* repository, const char* resource, utimbuf* times);

// Moves all resources off a mount, named as in the configuration. Returns 0 when done, 1 when there is no such
// mount, 2 when no other mount could take them or the last that did was mount 0, 3 when some could not be moved, or in
// the safe mode, not all of the mount could be read.
KT_API int freeMount_(const char* repository, const char* mountName);
// One balancing pass; with `verbose` it tells on standard output what it does.
KT_API void checkOverload_(const char* repository, bool verbose);
// Reads the configuration again, whether it changed or not.
KT_API void setup_(const char* repository);
// The paths that the last balancing pass in this process deleted or tried to delete. The list is the
// repository's and goes with the next look-up that finds a configuration file changed or missing, this one included: of
// a repository without "repository.cfg" it is always empty.
KT_API std::list<std::string>* getDeletedDirs_(const char* repository);
// Puts all mounts back in service and returns the repository's status bits.
KT_API int giveBackMounts_(const char* repository);
// Takes the mount of that number out of service, or with `doMount` puts it back. Returns 0, or -1 when there is
// no such mount.
KT_API int MountUnmount_(const char* repository, int mount, bool doMount);
// Takes a mount drawn at random out of service, or puts it back.
KT_API void rndMount_(const char* repository);
// Removes every resource of the repository.
KT_API void makeEmpty_(const char* repository);

// Makes a directory for a resource in the legacy directory. Returns its path, or null when there is no legacy directory
// or a directory above it cannot be made; that the last one could not be made is not told.
KT_API char* createToLegacy_(const char* repository, const char* resource);

// The ids of all resources that are directories, and of all that are not, sorted by bytes with `sort`: an array
// of *count strings. Free each with `release`, and the array with array delete. Never null.
KT_API char** listDirs_(const char* repository, long* count, bool sort);
KT_API char** listFiles_(const char* repository, long* count, bool sort);

// Removes a resource. Returns 0; 1, with nothing removed, when a mount is away on which a copy may be or when copies
// cannot be joined; 4 when there is none; 8 when not all of it could be deleted; 16 when it is not locked within 30
// seconds.
KT_API int removeResource_(const char* repository, const char* resource);
// Returns what getLocation_ stores in *status; 0 for a resource that stays in the legacy directory, 16 when the
// resource is not locked within 30 seconds.
KT_API int checkResourceStatus_(const char* repository, const char* resource);
// The repository's status bits, without 0x10, which only steers the choice of mounts.
KT_API int getRepositoryStatus_(const char* repository);

// Where a resource lives, its times set to now, or null. *status, when status is not null: 0 found; 1 found,
// but a mount is away on which a copy may be; 2 copies that cannot be joined; 4 not found; 8 joining copies failed, or
// in the safe mode, not every mount could be looked at. Untouched when the resource is not locked within 30 seconds,
// and when it stays in the legacy directory.
KT_API char* getLocation_(const char* repository, const char* resource, int* status);
// Where a resource lives or, for a new one, is to be made: the directories above it exist. *status: 0 found or placed;
// 1 found, but a mount is away on which a copy may be; 8 with null when no mount can take it; untouched when it is not
// locked. Of copies that cannot be joined none is given, but a new place, with 0. That the last directory could not be
// made is not told: look whether it exists.
//   noDirtyMark  do not mark a resource that is made while a mount is away as one of which a copy may be there
KT_API char* createLocation_(const char* repository, const char* resource, int* status, bool noDirtyMark);
// The same, and the resource's directory is made.
KT_API char* createDirectory_(const char* repository, const char* resource, int* status, bool noDirtyMark);
}

#endif
