// The hashed directory layout, and a tree of plain-named links into it. A resource is addressed by a
// relative path; on disk each directory of that path stands below three hashed levels of two characters.
// The mapping depends on the bytes of the path alone, so that every process finds what another one made
// without asking the disk; any change to it makes stored resources unfindable. Strings handed out are
// the caller's to free with `release`. Nothing throws but for lack of memory. Any thread and any process
// may call at once.

#ifndef REPOSITORYHANDLER_HASHLAYOUT_H
#define REPOSITORYHANDLER_HASHLAYOUT_H

#include "KTApi.h"

// Characters in each hashed level.
extern KT_API const unsigned int hashLength;

// Switches the debugging trace of paths and layout on. Off unless a developer changes it: each message opens and
// closes the process's syslog connection, which no other thread may use meanwhile.
extern KT_API bool isDEBUGHASH;

// The three hashed levels of one path component and the component behind them: 2009 gives
// FP/IA/L3/2009. Null gives null.
KT_API char* createHash(const char* name);

// A relative path in hashed form. Every component that a "/" closes is hashed, the last one is not:
// 2009/12 gives FP/IA/L3/2009/12. Empty components are dropped, and with them a leading "/". Null gives
// null. `convertToHashed` is the same under a plain name.
KT_API char* convertToHashed_(const char* path);
extern "C" KT_API char* convertToHashed(const char* path);

// Makes the hashed directories for the directory part of `relPath` below the directory part of
// `hashRoot`, and a plain-named link to each in the directory part of `linkRoot`, which may be null.
// Returns 0, 1 when relPath has no directory part, 2 when hashRoot has none. That a directory or a link
// could not be made is not told. `createHashDirectory` is the same under a plain name.
KT_API int createDirectory(const char* linkRoot, const char* hashRoot, const char* relPath);
extern "C" KT_API int createHashDirectory(const char* linkRoot, const char* hashRoot, const char* relPath);

// Removes the hashed directory of the whole of `relPath`, then every hashed level above it that is empty,
// up to the first that is not, and the links of the link tree that dangle thereafter. Returns 0, or the
// failing rmdir's -1 when the resource's own directory stays. A root without a directory part
// gives -1. Unlike `createDirectory` it takes relPath whole: a/b/c names the directory c inside b.
// `removeHashDirectory` is the same under a plain name.
KT_API int removeDirectory(const char* linkRoot, const char* hashRoot, const char* relPath);
extern "C" KT_API int removeHashDirectory(const char* linkRoot, const char* hashRoot, const char* relPath);

// Makes, for each directory of relPath's directory part, a link of its plain name below linkRoot to its
// hashed directory below hashRoot, where none is yet. A link is made even when its target is missing.
// Failures are not told.
KT_API void mylink(const char* linkRoot, const char* hashRoot, const char* relPath);

#endif
