#include "faults/disks/failingimage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/child.h"

namespace {

constexpr useconds_t kMicrosecondsBetween = 10000;

}  // namespace

FailingImage::FailingImage(const std::string& image) : server(-1) {
  makeDirectories(mountPoint());
  const pid_t self = getpid();
  server = fork();
  if (server < 0) throw std::runtime_error("no process for nbdfuse");
  if (server == 0) {
    endWithParent(self);
    serve(image);
  }
  while (!isThere(file())) {
    if (waitpid(server, nullptr, WNOHANG) == server)
      throw std::runtime_error("this machine cannot run nbdfuse over nbdkit; they say: " +
                               readFile(scratch / "output"));
    usleep(kMicrosecondsBetween);
  }
}

// The loop device lets the file go some time after the disk was unmounted.
FailingImage::~FailingImage() {
  while (umount(mountPoint().c_str()) != 0) {
    if (errno != EBUSY) ADD_FAILURE() << "cannot unmount " << mountPoint() << ": " << strerror(errno);
    if (errno != EBUSY) break;
    usleep(kMicrosecondsBetween);
  }
  waitpid(server, nullptr, 0);
}

void FailingImage::failWrites(bool failing) const {
  if (failing)
    writeFile(trigger(), "");
  else
    unlink(trigger().c_str());
}

void FailingImage::serve(const std::string& image) const {
  const int output = open((scratch / "output").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  setenv("PATH", "/usr/sbin:/sbin:/usr/bin:/bin", 1);
  const std::string when = "error-file=" + trigger();
  execlp("nbdfuse", "nbdfuse", mountPoint().c_str(), "[", "nbdkit", "--exit-with-parent", "--filter=error", "file",
         image.c_str(), "error-pwrite-rate=100%", "error-zero-rate=100%", "error-trim-rate=100%", when.c_str(), "]",
         nullptr);
  dprintf(STDERR_FILENO, "nbdfuse: %s", strerror(errno));
  _exit(127);
}
