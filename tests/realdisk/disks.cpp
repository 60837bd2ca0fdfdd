#include "realdisk/disks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "fakes/fakes.h"

namespace {

constexpr off_t kMebibyte = 1024 * 1024;

// How often a disk is measured until it has freed what was removed; half a minute, of which a moment is needed.
constexpr int kMostMeasurements = 3000;
constexpr useconds_t kMicrosecondsBetween = 10000;

struct Making {
  const char* name;
  int mebibytes;  // the least that the kind's mkfs takes, or what keeps its own needs small beside the contents
  std::vector<const char*> mkfs;
  // Of the mount: what is changed stays in memory for long, so that few tests see the system write by itself. Of xfs
  // that is half a minute whatever one says.
  const char* options;
};

const Making& makingOf(DiskKind kind) {
  static const Making kinds[] = {
      {"tmpfs", 16, {}, ""},
      {"ext4", 32, {"mkfs.ext4", "-q", "-F", "-m", "0"}, "commit=300"},
      {"xfs", 300, {"mkfs.xfs", "-q", "-f"}, ""},
      // Data and metadata share their room, so that such a small disk can be filled evenly.
      {"btrfs", 128, {"mkfs.btrfs", "-q", "-f", "--mixed"}, "commit=300"},
  };
  return kinds[static_cast<size_t>(kind)];
}

[[noreturn]] void refused(const std::string& what) {
  const int failure = errno;
  const char* hint = failure == EPERM || failure == EACCES ? "; this test needs root" : "";
  throw std::runtime_error("this machine cannot " + what + ": " + strerror(failure) + hint);
}

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : number(open(path.c_str(), flags | O_CLOEXEC, 0600)) {
    if (number < 0) refused("open " + path);
  }
  ~Descriptor() { close(number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  operator int() const { return number; }

 private:
  int number;
};

// Not through `system`, which may be faked. Only what the command complains about is shown.
void run(std::vector<const char*> command, const std::string& last) {
  command.push_back(last.c_str());
  command.push_back(nullptr);
  const pid_t process = fork();
  if (process < 0) refused("fork");
  if (process == 0) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    setenv("PATH", "/usr/sbin:/sbin:/usr/bin:/bin", 1);
    execvp(command[0], const_cast<char* const*>(command.data()));
    _exit(127);
  }
  int status = -1;
  waitpid(process, &status, 0);
  if (status == 0) return;
  const bool isMissing = WIFEXITED(status) && WEXITSTATUS(status) == 127;
  throw std::runtime_error(std::string("this machine cannot run ") + command[0] +
                           (isMissing ? ": it is not installed" : ": it failed"));
}

void mountOrRefuse(const std::string& source, const std::string& target, const char* type, unsigned long flags,
                   const std::string& options) {
  if (mount(source.c_str(), target.c_str(), type, flags, options.c_str()) != 0)
    refused("mount " + source + " on " + target + (type ? std::string(" as ") + type : ""));
}

struct statvfs spaceOf(const std::string& directory) {
  static const auto realStatvfs = realFunction<int (*)(const char*, struct statvfs*)>("statvfs");
  if (!RealDisks::writeOut(directory)) refused("write out " + directory);
  struct statvfs space;
  if (realStatvfs(directory.c_str(), &space) != 0) refused("measure " + directory);
  return space;
}

// xfs's request to go down at once, which ext4 took over, and what it may still write then.
constexpr unsigned long kGoDown = _IOR('X', 125, __u32);
constexpr __u32 kWriteJournal = 1;
constexpr __u32 kWriteNothing = 2;

constexpr off_t kSmallestStep = 64 * 1024;  // bytes of ballast

double usedOf(const struct statvfs& space) {
  return 100.0 - 100.0 * static_cast<double>(space.f_bavail) / static_cast<double>(space.f_blocks);
}

off_t bytesOf(const struct statvfs& space, double percent) {
  return static_cast<off_t>(static_cast<double>(space.f_blocks) * static_cast<double>(space.f_frsize) * percent / 100);
}

}  // namespace

const char* nameOf(DiskKind kind) { return makingOf(kind).name; }

void PrintTo(DiskKind kind, std::ostream* out) { *out << nameOf(kind); }

void enterPrivateMounts() {
  static bool entered = false;
  if (entered) return;
  if (unshare(CLONE_NEWNS) != 0) refused("make a mount namespace");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) refused("keep its mounts to itself");
  entered = true;
}

RealDisks::RealDisks(DiskKind diskKind) : kind(diskKind) {
  enterPrivateMounts();
  mountOrRefuse("images", images.path(), "tmpfs", 0, "size=2g");
}

RealDisks::~RealDisks() {
  for (auto disk = disks.rbegin(); disk != disks.rend(); ++disk) unmount(disk->place);
  unmount(images.path());
}

void RealDisks::mountAt(const std::string& directory) {
  if (kind == DiskKind::tmpfs) {
    const std::string size = std::to_string(makingOf(kind).mebibytes) + "m";
    mountOrRefuse("disk", directory, "tmpfs", 0, "size=" + size);
    disks.push_back({directory, directory, ""});
  } else {
    mountAt(directory, [](const std::string& image) { return image; });
  }
}

void RealDisks::mountAt(const std::string& directory,
                        const std::function<std::string(const std::string& image)>& served) {
  const std::string image = newImage();
  mountImage(served(image), directory);
  disks.push_back({directory, directory, image});
}

void RealDisks::takeAway(const std::string& directory) {
  Disk& disk = diskOf(directory);
  move(disk, awayFrom(disk));
}

void RealDisks::detach(const std::string& directory) {
  Disk& disk = diskOf(directory);
  const std::string away = awayFrom(disk);
  mountOrRefuse(disk.place, away, nullptr, MS_BIND, "");
  if (umount2(disk.place.c_str(), MNT_DETACH) != 0) refused("detach " + directory);
  disk.place = away;
}

std::string RealDisks::awayFrom(const Disk& disk) const {
  const std::string away = images / "away" + std::to_string(&disk - disks.data());
  makeDirectories(away);
  return away;
}

void RealDisks::giveBack(const std::string& directory) { move(diskOf(directory), directory); }

void RealDisks::setReadOnly(const std::string& directory, bool readOnly) {
  unsigned long flags = MS_REMOUNT | MS_BIND;
  if (readOnly) flags |= MS_RDONLY;
  mountOrRefuse("disk", diskOf(directory).place, nullptr, flags, "");
}

void RealDisks::cutPower(const std::string& directory, bool metadataFirst) {
  const Disk& disk = diskOf(directory);
  if (kind == DiskKind::btrfs) return run({"cp", "--sparse=always", disk.image.c_str()}, disk.image + ".cut");
  const Descriptor root(disk.place, O_RDONLY | O_DIRECTORY);
  const __u32 written = metadataFirst ? kWriteJournal : kWriteNothing;
  if (ioctl(root, kGoDown, &written) != 0) refused("cut the power of " + directory);
}

void RealDisks::restorePower(const std::string& directory) {
  const Disk& disk = diskOf(directory);
  unmount(disk.place);
  const std::string cut = disk.image + ".cut";
  if (isThere(cut) && rename(cut.c_str(), disk.image.c_str()) != 0) refused("put back what was on " + directory);
  mountImage(disk.image, disk.place);
}

bool RealDisks::writeOut(const std::string& directory) {
  const Descriptor disk(directory, O_RDONLY | O_DIRECTORY);
  return syncfs(disk) == 0;
}

RealDisks::Disk& RealDisks::diskOf(const std::string& directory) {
  for (Disk& disk : disks)
    if (disk.directory == directory) return disk;
  throw std::runtime_error("no disk was mounted on " + directory);
}

std::string RealDisks::newImage() {
  const Making& making = makingOf(kind);
  const std::string path = images / "disk" + std::to_string(disks.size());
  const Descriptor image(path, O_RDWR | O_CREAT | O_EXCL);
  if (ftruncate(image, making.mebibytes * kMebibyte) != 0) refused("make an image of a disk");
  run(making.mkfs, path);
  return path;
}

void RealDisks::mountImage(const std::string& path, const std::string& directory) {
  const Descriptor image(path, O_RDWR);
  const Descriptor control("/dev/loop-control", O_RDWR);
  while (true) {
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    if (number < 0) refused("give a loop device");
    const std::string device = "/dev/loop" + std::to_string(number);
    const Descriptor loop(device, O_RDWR);
    loop_config config = {};
    config.fd = static_cast<__u32>(static_cast<int>(image));
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (ioctl(loop, LOOP_CONFIGURE, &config) != 0) {
      if (errno == EBUSY) continue;  // another process was faster
      refused("attach an image to " + device);
    }
    const Making& making = makingOf(kind);
    return mountOrRefuse(device, directory, making.name, 0, making.options);  // the mount holds the device from here on
  }
}

void RealDisks::move(Disk& disk, const std::string& to) {
  mountOrRefuse(disk.place, to, nullptr, MS_MOVE, "");
  disk.place = to;
}

void RealDisks::unmount(const std::string& place) {
  if (umount(place.c_str()) == 0) return;
  ADD_FAILURE() << "cannot unmount " << place << ": " << strerror(errno);
  umount2(place.c_str(), MNT_DETACH);
}

double usedPercent(const std::string& directory) { return usedOf(spaceOf(directory)); }

size_t partOfDisk(const std::string& directory, double percent) {
  return static_cast<size_t>(bytesOf(spaceOf(directory), percent));
}

void fillTo(const std::string& directory, double percent) {
  const Descriptor ballast(directory + "/ballast", O_RDWR | O_CREAT);
  off_t size = lseek(ballast, 0, SEEK_END);
  for (struct statvfs space = spaceOf(directory); usedOf(space) < percent; space = spaceOf(directory)) {
    // Most of it at once; then small steps, as a file system may take more for itself than the file's size.
    const double lacking = percent - usedOf(space);
    off_t step = bytesOf(space, lacking > 1 ? lacking - 0.5 : 0.25);
    // A file system that commits late refuses a large step now and then, and takes a smaller one.
    while ((errno = posix_fallocate(ballast, size, step)) == ENOSPC && step > kSmallestStep) step /= 2;
    if (errno != 0) refused("fill " + directory);
    size += step;
  }
}

bool settlesBelow(const std::string& directory, double percent) {
  for (int measured = 0; measured < kMostMeasurements; ++measured) {
    if (usedPercent(directory) < percent) return true;
    usleep(kMicrosecondsBetween);
  }
  return false;
}

void relieve(const std::string& directory) {
  const double before = usedPercent(directory);
  if (unlink((directory + "/ballast").c_str()) != 0) refused("remove the ballast of " + directory);
  if (!settlesBelow(directory, before - 1)) throw std::runtime_error("the room of the ballast does not come back");
}
