#include "renaming.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "safety.h"

bool renameToNothing(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (safety::isThere(to.c_str())) {  // a file system that cannot tell the kernel
    errno = EEXIST;
    return false;
  }
  return rename(from.c_str(), to.c_str()) == 0;
}
