// Cut, join, make and test paths. Paths are plain terminated byte strings, joined by concatenation and
// never normalised. Every string handed out is a fresh char array: the caller frees it with `release`.
// Nothing here throws but for lack of memory, nothing is logged, and no state is kept, so any thread and
// any process may call at once.

#ifndef REPOSITORYHANDLER_PATHS_H
#define REPOSITORYHANDLER_PATHS_H

#include "KTApi.h"

// A fresh copy of `src`; null for null.
KT_API char* mystrdup(const char* src);

// Frees a string that the library handed out; null is fine. `release` is the same under a plain name.
KT_API void release_(char* p);
extern "C" KT_API void release(char* p);

// unlink without one trailing "/" of the path. Returns what unlink returns, with errno.
KT_API int myunlink(const char* path);

// The path up to and including its last "/", or null when it has none. A path that ends in "/" is its
// own base: a/b/c and a/b/ both give a/b/. Null gives null.
KT_API char* baseDir(const char* path);

// The directory above `baseDir(path)`, with its "/", or null: a/b/c and a/b/ both give a/, a/ gives null.
KT_API char* parentDir(const char* path);

// A fresh string: `a` followed by `b`. A null counts as empty.
KT_API char* append0(const char* a, const char* b);

// The same, and `a` is consumed: the usual way to let a string grow in place.
KT_API char* append(char* a, const char* b);

// True when something is there that `access` can see, links followed; false for a null.
KT_API bool exists(const char* name);

// Makes `path` and every missing directory above it with `mode`. Returns 0, or -1 with errno when a
// directory above `path` could not be made; what was made until then stays. That the last directory
// could not be made is not told: callers look whether it exists. An existing path gives 0, and a
// directory that another process makes at the same time is no failure.
KT_API int mkdirs(const char* path, unsigned long mode);

// True when `path` is no readable symbolic link, or when what it points to does not exist. The target is
// tested as it is written, so a relative one is looked up from the process's current directory.
KT_API bool isDangling(const char* path);

#endif
