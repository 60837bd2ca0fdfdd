// An image of a disk behind a block device that can be told to fail: nbdkit's error filter, which nbdfuse shows as a
// file. What is in the page cache can be read on; what is brought to the disk fails with EIO.

#ifndef TESTS_FAULTS_DISKS_FAILINGIMAGE_H
#define TESTS_FAULTS_DISKS_FAILINGIMAGE_H

#include <sys/types.h>

#include <string>

#include "support/scratch.h"

// In the private mount namespace of the process (see enterPrivateMounts). Whatever is mounted of it must be unmounted
// before its end. Throws std::runtime_error when the machine does not have what it needs.
class FailingImage {
 public:
  explicit FailingImage(const std::string& image);
  ~FailingImage();
  FailingImage(const FailingImage&) = delete;
  FailingImage& operator=(const FailingImage&) = delete;

  std::string file() const { return mountPoint() + "/nbd"; }
  void failWrites(bool failing) const;

 private:
  std::string mountPoint() const { return scratch / "served"; }
  std::string trigger() const { return scratch / "failing"; }
  [[noreturn]] void serve(const std::string& image) const;

  ScratchDirectory scratch;
  pid_t server;
};

#endif
