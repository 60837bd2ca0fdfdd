// Real file systems for tests: small disks, mounted in a mount namespace that belongs to the test process alone.
// Nobody else sees them, and they go with the process, however it ends: the namespace dies with its last process,
// and a loop device lets its image go with the last mount. Needs root, and the mkfs of the kind. A machine that lacks
// one of them fails the test with a text that says which; nothing is skipped.

#ifndef TESTS_REALDISK_DISKS_H
#define TESTS_REALDISK_DISKS_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "support/scratch.h"

enum class DiskKind { tmpfs, ext4, xfs, btrfs };

const char* nameOf(DiskKind kind);
void PrintTo(DiskKind kind, std::ostream* out);  // for GoogleTest

// Gives the process a mount namespace of its own, out of which no mount is propagated. Once per process; further
// calls do nothing. Throws std::runtime_error when the machine does not allow it.
void enterPrivateMounts();

// The disks of one test. Every operation throws std::runtime_error when the machine refuses it.
class RealDisks {
 public:
  explicit RealDisks(DiskKind kind);
  // Unmounts all. A disk that is still in use then fails the test.
  ~RealDisks();
  RealDisks(const RealDisks&) = delete;
  RealDisks& operator=(const RealDisks&) = delete;

  // Makes a new, empty disk and mounts it on the directory.
  void mountAt(const std::string& directory);
  // The same, with something between the file system and its image: `served` gets the path of the image and gives that
  // of the file to mount. restorePower mounts the image itself, and `served` is then done with.
  void mountAt(const std::string& directory, const std::function<std::string(const std::string& image)>& served);
  // The disk goes away with all that is on it, and comes back. What lies below the mount shows meanwhile.
  void takeAway(const std::string& directory);
  void giveBack(const std::string& directory);
  // As takeAway, in the way of "umount -l": who has opened something there goes on with it.
  void detach(const std::string& directory);
  void setReadOnly(const std::string& directory, bool readOnly);
  // The power fails: what the disk has not been given yet never reaches it. With `metadataFirst` it is given what the
  // journal holds, and still no contents of files: ext4 and xfs, which hold both back apart. Who uses the disk is to
  // end before restorePower, which mounts what was on it.
  void cutPower(const std::string& directory, bool metadataFirst = false);
  void restorePower(const std::string& directory);
  // Writes out all that the disk has not been given yet. False, with errno, when it did not take it.
  static bool writeOut(const std::string& directory);

 private:
  struct Disk {
    std::string directory;
    std::string place;  // where it is mounted now
    std::string image;
  };

  Disk& diskOf(const std::string& directory);
  std::string awayFrom(const Disk& disk) const;
  std::string newImage();
  void mountImage(const std::string& image, const std::string& directory);
  void move(Disk& disk, const std::string& to);
  void unmount(const std::string& place);

  DiskKind kind;
  ScratchDirectory images;  // the mount point of a tmpfs that holds the images
  std::vector<Disk> disks;
};

// Percent of the disk's blocks that are not available, asked after everything was written out: some file systems
// count a file only then.
double usedPercent(const std::string& directory);
// Whether it comes down below `percent`: some file systems free a removed file a moment later.
bool settlesBelow(const std::string& directory, double percent);
// Bytes that are `percent` of the whole disk.
size_t partOfDisk(const std::string& directory, double percent);
// Lets a file "ballast" in the directory grow until the disk is at `percent` or a little more.
void fillTo(const std::string& directory, double percent);
// Removes the ballast, and returns when its room can be seen to be free.
void relieve(const std::string& directory);

#endif
