// Who holds a lock, as the lock file itself tells in the safe mode. A process of the default mode leaves the file empty
// and takes any file for a lock that is held. Internal to the library; the functions are called at once by any
// processes. Without memory they throw, and have done nothing.

#ifndef REPOSITORYHANDLER_LOCKOWNER_H
#define REPOSITORYHANDLER_LOCKOWNER_H

#include <optional>
#include <string>

// Makes a lock file that names the calling process, from its first moment where the file system of the lock directory
// has files without a name: a process that is killed meanwhile leaves nothing, or a lock that can be taken over. One
// that cannot be written is held all the same, and nobody can take it over. False: the lock is held by another; none:
// it could not be made, and nothing was.
std::optional<bool> makeSignedLock(const std::string& lockFile);

// Makes a lock the calling process's whose holder is provably gone: it ran on this host, under the kernel that runs
// now, and in the caller's namespaces of process ids and of time, and no process there has its id and the time at which
// it started. Where /proc shows the processes of another namespace, none is taken over, nor made that could be. True,
// and a log line, when it was taken over. The file is never absent meanwhile, and of several callers one succeeds.
bool takeOverLock(const std::string& lockFile);

#endif
