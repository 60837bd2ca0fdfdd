// The safe mode: what the library does otherwise when the environment variable KT_SAFE is "1". Unset, or anything else,
// leaves everything as it always was, to the byte of each command, file and log line. The variable is read here alone,
// at each question, and every difference is one function here; the functions answer for the mode that is on. Processes
// of both modes may work on one repository at once. Internal to the library.

#ifndef REPOSITORYHANDLER_SAFETY_H
#define REPOSITORYHANDLER_SAFETY_H

#include <sys/stat.h>

#include <string>

namespace safety {

bool isOn();

// The shell commands. Paths stand in them as they are; safe: quoted, so that the shell takes none of their characters
// for its own, nor a tool one for an option, and the copy keeps owners, times, hard links, holes and attributes.
std::string copyCommand(const std::string& origin, const std::string& copy);
std::string compareCommand(const std::string& origin, const std::string& copy);
std::string removeCommand(const std::string& path);
std::string measureCommand(const std::string& path, const std::string& output);

// Whether a move makes its copy out of sight, brings it to the disk and renames it into its place (see relocation.h),
// rather than copying to the place itself.
bool movesOutOfSight();
// Whether a move that failed clears away the hash directories that it has made.
bool clearsAfterFailedMoves();
// Whether a pass removes what moves of killed processes have left out of sight.
bool removesLeftCopies();

// Whether of two copies one is dropped that holds nothing of its own, before they are joined or found to be in
// conflict: what a move leaves that was killed in its last steps.
bool dropsContainedCopies();

// After a look at a path that failed, with its errno: whether something may be there all the same. Never; safe: unless
// errno tells that nothing is. What could not be looked at is on a mount that is away, or was not moved or deleted.
bool mayBeThere();
// Moving and deleting: whether something is at `path`, and what it is. A symbolic link is what it points to; safe: a
// link, so that a link inside a resource is moved or deleted itself, be it dangling or not.
bool isThere(const char* path);
// Whether the entries of a directory that is moved may go into what is at its destination: into anything; safe: into
// another directory, not through a link, which may lead out of the repository, nor into itself under another name.
bool mayMerge(const char* origin, const char* destination);
// Returns 0, or 8 when it cannot be examined (logged).
int examine(const char* path, struct stat* status);
// Gives a moved resource the times that it had, in seconds; safe: in full, and to a link itself.
void restoreTimes(const char* path, const struct stat& status);

// A line for the log that is built already. It is the format, so that a "%" in it is taken for a conversion; safe: it
// is shown as it is.
void logError(const std::string& text);
void logDebug(const std::string& text);

// Whether state files are written beside themselves and renamed when they are on the disk (see replaceFile), rather
// than over themselves; the dirty set then is what its file says, not what this process once read.
bool replacesStateFiles();
// The line of the dirty set that stands for an id: the id, whatever it holds; safe: its `nameOf`, with a "/", which no
// resource has in its name, for each line feed, so that it is one line.
std::string markOf(const char* id);

// Whether an id is none at all, since it leads to what belongs to others, with a "." or ".." in it, or to the directory
// of all resources, without a name: no id is; safe: such a one is found nowhere and never made.
bool refuses(const char* id);

// The name under which a resource is locked and marked: the id; safe: without the slashes around it, with which it is
// another name of the same resource.
std::string nameOf(const char* id);
// Whether a path in the legacy directory leads nowhere: never; safe: when one of the directories on the way to it,
// below that one, is a symbolic link, which may lead out of the repository.
bool leadsNowhere(const std::string& legacyDirectory, const std::string& id);
// Whether a resource is found in the legacy directory still when its import failed, rather than nowhere.
bool findsFailedImports();

// Whether the times of a resource are read and set under its lock. It is marked as dirty while it is moved, and a
// look-up that joined its copies without the lock would take them from under the move.
bool locksForTimes();

// What the balancer marks as dirty: the path of the copy, or the resource's id, under which look-ups ask; then it is
// marked while it is moved, too: should the process be killed, a look-up finds both copies and joins them.
bool marksResources();

// Whether a mount counts as freed only after a walk that has seen all of it and left nothing there.
bool freesWhatWasSeenWhole();

// Whether the balancer gives a mount up after one round that moved and deleted nothing, when the next would try the
// same.
bool endsRepeatedRounds();
// Whether a mount of this path is left out, since it is the directory of another one.
bool isOneMount(const std::string& path, const std::string& other);

}  // namespace safety

#endif
