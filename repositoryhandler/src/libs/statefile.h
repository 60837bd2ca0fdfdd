// The safe mode's way to write a small file whole. Internal to the library.

#ifndef REPOSITORYHANDLER_STATEFILE_H
#define REPOSITORYHANDLER_STATEFILE_H

#include <string>

// Puts a file with this content in the place of the one at `path`, whose mode and, as far as that may be, owner and
// group it gets: the content is on the disk before, the name after it, where the file system can do that. `temporary`
// is a path beside it that nothing else uses: what is there goes. False, with errno, when that failed; the old file is
// as it was then, or the new one stands in its place and a power cut may bring the old one back.
// With `isNew` none is there: should one be all the same, it stays, and that is a failure.
bool replaceFile(const std::string& path, const std::string& temporary, const std::string& content, bool isNew = false);

#endif
