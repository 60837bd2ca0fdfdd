#include "statefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "KTOwned.h"
#include "renaming.h"

namespace {

constexpr mode_t kFreshFileMode = 0666;  // before the process's umask, as fopen makes files

bool write(int descriptor, const std::string& content) {
  for (size_t done = 0; done < content.size();) {
    const ssize_t size = ::write(descriptor, content.data() + done, content.size() - done);
    if (size < 0 && errno != EINTR) return false;
    if (size > 0) done += static_cast<size_t>(size);
  }
  return fsync(descriptor) == 0;
}

void takeAfter(int descriptor, const std::string& path) {
  struct stat old;
  if (stat(path.c_str(), &old) != 0) return;
  // Only root gives files away; the group of the processes that share the file may be had without.
  if (fchown(descriptor, old.st_uid, old.st_gid) != 0)
    static_cast<void>(fchown(descriptor, static_cast<uid_t>(-1), old.st_gid) == 0);
  fchmod(descriptor, old.st_mode & 07777);
}

bool writeFile(const std::string& path, const std::string& temporary, const std::string& content) {
  unlink(temporary.c_str());  // of a killed process, or a link: nothing is written through it
  const int descriptor = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFreshFileMode);
  if (descriptor < 0) return false;
  takeAfter(descriptor, path);
  const bool written = write(descriptor, content);
  const int failure = errno;
  const bool closed = close(descriptor) == 0;
  if (!written) errno = failure;
  return written && closed;
}

// Some file systems bring no directory to the disk by itself (EINVAL): nothing more can be done there.
bool flushDirectory(int descriptor) { return fsync(descriptor) == 0 || errno == EINVAL; }

}  // namespace

bool replaceFile(const std::string& path, const std::string& temporary, const std::string& content, bool isNew) {
  const std::string parent = path.substr(0, path.rfind('/') + 1);
  const OwnedDescriptor directory(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.number < 0) return false;
  const auto put = [&] {
    return isNew ? renameToNothing(temporary, path) : rename(temporary.c_str(), path.c_str()) == 0;
  };
  if (writeFile(path, temporary, content) && put()) return flushDirectory(directory.number);
  const int failure = errno;
  unlink(temporary.c_str());
  errno = failure;
  return false;
}
