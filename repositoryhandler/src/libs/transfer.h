// Move, delete and tidy up resources on disk. The work is done by the shell's cp, diff and rm, so a move
// is always copy, compare, delete, on one file system as between two. Paths stand in the commands as they
// are, unquoted: a blank or a character that the shell interprets, in an id or in the path of a disk, makes another
// command of it. Callers answer for their paths. No lock is taken: the caller holds the
// resource's. Nothing is rolled back; each function says what a failure leaves behind.
//
// In the safe mode (safety.h) paths are quoted, a copy is made out of sight and renamed into its place (relocation.h),
// and a link is taken for itself. What the functions say below then holds but for what they say of this mode.

#ifndef REPOSITORYHANDLER_TRANSFER_H
#define REPOSITORYHANDLER_TRANSFER_H

#include "KTApi.h"

// What moveRes and deleteRes answer; callers test the bits.
enum TransferResult {
  kTransferred = 0,
  kTransferConflict = 2,  // the destination exists and the source is no directory
  kTransferFailed = 8     // a query, the copy or a removal failed
};

// Moves `origin`, a file or a tree, to `destination`, and gives the destination the origin's times. A
// directory is merged into an existing directory entry by entry. Safe: into no link to one, and an origin that equals
// what is at its destination is dropped, where it would be in conflict.
// Returns a TransferResult; what went wrong is logged, but for an origin whose type cannot be asked. A
// merge that stops leaves in the destination what has moved and in the origin what has not. Throws
// KTAssertionException when origin is missing or destination is null.
KT_API int moveRes(const char* origin, const char* destination);

// Copies `origin` to `destination`, making the directories above it, compares the two and deletes the
// origin when they are equal, else the copy. Returns 0, -1 when destination has no directory part, or the
// non-zero status of the step that failed: mkdirs, or system's for cp or diff. A failed cp leaves behind
// what it copied; safe: nothing, -1 stands for the other steps too, and the origin is deleted when its copy is on the
// disk. Throws KTAssertionException for a null origin.
KT_API int mountRename(const char* origin, const char* destination);

// Deletes `path` and everything below it; a symbolic link to a directory is followed. Returns 0, also
// when nothing is there, or 8 (logged), leaving what is not deleted yet. A link whose target is missing counts as
// nothing there: it stays, and the directory that holds it cannot be removed. Safe: a link is deleted itself.
KT_API int deleteRes(const char* path);

// After `path` has gone, removes up to three directories above it, as long as they are empty. Does nothing
// while it exists.
KT_API void clearEmptyHash(const char* path);

#endif
