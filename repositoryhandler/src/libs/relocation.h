// The safe mode's move to a path where nothing is: whoever looks finds the whole resource at the origin or at the
// destination, whenever a process is killed or the power fails. The copy is made out of sight on the destination's file
// system, compared, brought to the disk and only then renamed into its place; the origin is renamed out of sight, on
// the disk too, before it is deleted. Internal to the library. The caller holds the resource's lock, as for every move.

#ifndef REPOSITORYHANDLER_RELOCATION_H
#define REPOSITORYHANDLER_RELOCATION_H

#include <string>
#include <vector>

// Moves `origin` to `destination`, where nothing is and whose parent directory is there. Returns 0, and the origin is
// gone; or the status of the command that failed, or -1 with errno for any other step. Then the origin is whole and,
// but for a removal that fails too, nothing of the copy is left. Where the origin is deleted in its place (outside of
// any mount, or on a disk too full for a directory out of sight) a deletion that fails leaves the whole copy, and of
// the origin what was not deleted.
int relocate(const std::string& origin, const std::string& destination);

// Of two copies, one that holds nothing of its own goes: removes `origin` when everything in it is at `kept` too, and
// is on the disk there. False when it is not, or the two are one under two names, or `origin` could not be removed,
// whole.
bool dropContainedCopy(const std::string& origin, const std::string& kept);

// The ids of the resources of which moves have left something out of sight on a mount, in no order: of moves that go
// on, and of killed processes.
std::vector<std::string> leftCopies(const std::string& mountPath);

// Removes what moves of a resource have left on a mount. The caller holds the resource's lock, so that none goes on.
void removeLeftCopies(const std::string& mountPath, const std::string& id);

#endif
