// Probes: what a path is, when it was used, how full its file system is. They wrap stat, statvfs and
// readlink so that a failure is logged once and in one wording. No state, no lock: each answer is a
// snapshot, since other processes go on writing. After a failure errno is that of the call that failed. Any process may
// call at once; a log line binds a call to the logger's one thread.

#ifndef REPOSITORYHANDLER_FILESTATUS_H
#define REPOSITORYHANDLER_FILESTATUS_H

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <ctime>

#include "KTApi.h"

// True only for an object that positively is no symbolic link; a missing or unreachable path is not, nor is null.
KT_API bool isNotLink(const char* path);

// stat, links followed, into *resStat. Returns 0, or 8 when it failed (logged). Throws
// KTAssertionException for a null.
KT_API int myStat(const char* resource, struct stat* resStat);

// What myStat does after a stat of `resource` that failed: logs the errno of that call, and returns 8.
KT_LOCAL int statFailed(const char* resource);

// Stores in *isDirectory whether `path` is a directory, links followed. With `known`, a status of the path,
// the file system is not asked. Returns 0, or 8 when the path cannot be examined (logged); the flag is then
// left as it was. Throws KTAssertionException for a null isDirectory, or a null path without `known`.
KT_API int isDir(const char* path, bool* isDirectory, struct stat* known);

// The modification time in seconds since the epoch, or -1 when the path cannot be read (logged). Throws
// KTAssertionException for a null.
KT_API time_t lastModified(const char* path);

// When the path was last read or written, whichever was later, in seconds since the epoch; -1 when it
// cannot be read (logged). With `known` the file system is not asked. Throws KTAssertionException for a
// null path without `known`.
KT_API time_t lastAccess(const char* path, struct stat* known);

// statvfs into *resStatVfs. Returns 0, or 8 when it failed (logged). Throws KTAssertionException for a
// null.
KT_API int myStatVfs(const char* mountPath, struct statvfs* resStatVfs);

// Stores in *blockCount how many blocks must be freed on the file system at `mountPath` to come down to
// `limit` percent used; zero or less: it is there already. Blocks kept back for root count as used.
//   limit       percent, 0 to 100
//   blockCount  out, in units of f_frsize; untouched on failure
//   known       a statvfs result to reuse, or null to ask the file system
// Returns 0, or 1 when the file system could not be read (logged once). Throws KTAssertionException for
// a null mountPath or blockCount.
KT_API int blocksToFree(const char* mountPath, int limit, long* blockCount, struct statvfs* known);

// Whether two statuses are of one thing, be it under two names.
inline bool isSameInode(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// True when both paths show the same free blocks and free inodes. It is these counts, not an identity,
// that are compared: a file system that is written to between the two calls is taken for two, and two that
// happen to agree for one. False when either cannot be read (logged). Throws KTAssertionException for a
// null.
KT_API bool IsOnTheSameMount(const char* first, const char* second);

#endif
