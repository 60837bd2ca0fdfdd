#include "relocation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <optional>

#include "KTOwned.h"
#include "disklayout.h"
#include "filestatus.h"
#include "hashlayout.h"
#include "librarylog.h"
#include "listing.h"
#include "paths.h"
#include "renaming.h"
#include "safety.h"
#include "shell.h"
#include "transfer.h"
#include "treecomparison.h"

namespace {

constexpr int kNotMoved = -1;

// Below the one directory at the root of a mount into which no walk goes, in either mode: what stands three levels
// below any other is taken for resources.
constexpr char kOutOfSight[] = "lost+found/kt-moves";

std::string outOfSight(const std::string& mountPath) { return mountPath + "/" + kOutOfSight; }

// Begins the names of what is neither in sight nor ever removed.
std::string outOfReach(const std::string& mountPath) { return mountPath + "/lost+found/kt-kept-"; }

// Where a path of the hashed layout stands.
struct Place {
  std::string mountPath;
  std::string id;
};

// The first place in the path where three levels and a name stand together as the layout has them. Of a stray file,
// three levels below a mount like a resource, the mount is the nearest directory that is one. None for a path outside
// of any mount, in the legacy directory.
std::optional<Place> placeOf(const std::string& path) {
  std::optional<Place> stray;
  for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    size_t name = slash;
    for (unsigned int level = 0; level < kHashLevels && name != std::string::npos; ++level)
      name = path.find('/', name + 1);
    if (name == std::string::npos) break;
    const size_t end = path.find('/', name + 1);
    const std::string id = path.substr(name + 1, end == std::string::npos ? end : end - name - 1);
    if (id.empty()) continue;
    const Place place = {path.substr(0, slash), id};
    const OwnedChars hashed(createHash(id.c_str()));
    if (path.compare(slash + 1, strlen(hashed.get()), hashed.get()) == 0) return place;
    if (exists((place.mountPath + kMountConfig).c_str())) stray = place;
  }
  return stray;
}

// Distinct for all moves of all processes that go on: one process works for a resource at a time.
std::string nameOfMove() {
  static std::atomic<unsigned int> moves{0};
  return std::to_string(getpid()) + "-" + std::to_string(++moves);
}

// A name out of sight, on the file system of a path, for what is on its way there or away. What is there in the end is
// removed, and what a process that had the same id has left there before.
class Hideout {
 public:
  // Below a mount it is found by the resource's id; elsewhere it stands beside the path.
  static Hideout of(const std::string& neighbour) {
    const auto place = placeOf(neighbour);
    if (!place) return beside(neighbour);
    const std::string directory = outOfSight(place->mountPath) + "/" + place->id;
    const std::string move = nameOfMove();
    return {directory, directory + "/" + move, outOfReach(place->mountPath) + place->id + "-" + move};
  }
  static Hideout beside(const std::string& neighbour) {
    const OwnedChars parent(baseDir(neighbour.c_str()));
    return {"", (parent ? parent.get() : "") + (".kt-move-" + nameOfMove()), ""};
  }
  ~Hideout() {
    const int failure = errno;
    if (!isKept) clear();
    if (!directory.empty()) rmdir(directory.c_str());
    errno = failure;
  }
  Hideout(const Hideout&) = delete;
  Hideout& operator=(const Hideout&) = delete;

  // For a copy.
  bool make() const {
    clear();
    if (directory.empty() || tryToMake()) return true;
    const int failure = errno;
    safety::logError("The directory \"" + directory + "\" for moves could not be made: " + strerror(failure));
    errno = failure;
    return false;
  }
  // For what goes away: a disk too full for one directory more can do without, since such disks are drained.
  bool makeIfRoom() const {
    clear();
    if (directory.empty() || tryToMake()) return true;
    return errno == ENOSPC || errno == EDQUOT || make();
  }
  bool isMade() const { return !directory.empty() && exists(directory.c_str()); }
  // Leaves what is there to the operator, where nothing removes it.
  void keep() {
    isKept = true;
    renameToNothing(path, kept);
    safety::logError("The resource \"" + path + "\" could not be brought back. It is kept as \"" + kept + "\".");
  }

  const std::string path;

 private:
  Hideout(const std::string& above, const std::string& name, const std::string& aside)
      : path(name), directory(above), kept(aside), removal(safety::removeCommand(name)) {}

  void clear() const {
    if (safety::isThere(path.c_str())) run(removal);
  }
  bool tryToMake() const {
    mkdirs(directory.c_str(), kDirectoryMode);
    const int failure = errno;  // that of the mkdir, should it not be there
    if (exists(directory.c_str())) return true;
    errno = failure;
    return false;
  }

  const std::string directory;
  const std::string kept;
  const std::string removal;  // made first: a destructor has no memory to ask for
  bool isKept = false;
};

// The file system around a path, to be brought to the disk. What it loses of what was written to it is told to whoever
// had opened it by then, and of all others only to the first who asks: it is opened before anything is written.
class Disk {
 public:
  explicit Disk(const std::string& path) {
    const OwnedChars parent(baseDir(path.c_str()));
    descriptor = open(parent.get(), O_RDONLY | O_CLOEXEC);
  }
  ~Disk() {
    const int failure = errno;
    if (descriptor >= 0) close(descriptor);
    errno = failure;
  }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;

  // False, with errno, when something was lost. A file system that gave up for an error is read-only from then on, and
  // has nothing to write, as it says.
  bool flush() const {
    struct statvfs space;
    if (syncfs(descriptor) != 0 || fstatvfs(descriptor, &space) != 0) return false;
    if (space.f_flag & ST_RDONLY) errno = EROFS;
    return !(space.f_flag & ST_RDONLY);
  }

 private:
  int descriptor;
};

// Where a disk is away, a path of its mount names the directory below the mount point, on another disk: what is moved
// there is out of reach when the disk is back.
bool isInService(const std::string& path) {
  const auto place = placeOf(path);
  if (!place || exists((place->mountPath + kMountConfig).c_str())) return true;
  errno = ENODEV;
  return false;
}

int makeCopy(const std::string& origin, const std::string& copy, const Disk& disk) {
  if (const int status = run(safety::copyCommand(origin, copy))) return status;
  if (const int status = compareTrees(origin, copy)) return status;
  return disk.flush() ? 0 : kNotMoved;
}

// The copy stands at its place and is on the disk. A failure takes it back.
bool putInPlace(const std::string& copy, const std::string& destination, const Disk& disk) {
  if (!renameToNothing(copy, destination)) return false;
  if (disk.flush() && isInService(destination)) return true;
  const int failure = errno;
  renameToNothing(destination, copy);
  errno = failure;
  return false;
}

// Whole and at once, and on the disk: after a power cut it would stand beside its copy, when no mark tells of the two
// any more. The hideout removes it at its end. A failure takes it back; and so does a process of the default mode that
// has joined the copy to the origin, directories without files, before it was hidden.
bool hideAway(const std::string& origin, const std::string& kept, Hideout& old) {
  const Disk disk(origin);
  if (!renameToNothing(origin, old.path)) return false;
  const bool isFlushed = disk.flush();
  if (isFlushed && namesAreContained(old.path, kept)) return true;
  const int failure = isFlushed ? EBUSY : errno;
  const bool isBack = renameToNothing(old.path, origin);
  if (!isBack && !namesAreContained(old.path, kept)) old.keep();
  errno = failure;
  return !isBack;
}

// In a directory that is listed flat it would be taken for a resource, and on a full disk there may be no hideout:
// there it is deleted where it is, by this process, with which that ends: a command would go on when somebody else has
// taken the lock over.
bool putAway(const std::string& origin, const std::string& kept, Hideout& old) {
  if (old.isMade()) return hideAway(origin, kept, old);
  if (!namesAreContained(origin, kept)) {
    errno = EBUSY;
    return false;
  }
  return deleteRes(origin.c_str()) == kTransferred;
}

// One thing under two names, by a link or a mount above it.
bool isOneThing(const std::string& path, const std::string& other) {
  struct stat first;
  struct stat second;
  return lstat(path.c_str(), &first) == 0 && lstat(other.c_str(), &second) == 0 && isSameInode(first, second);
}

}  // namespace

int relocate(const std::string& origin, const std::string& destination) {
  if (!isInService(destination)) return kNotMoved;
  const Hideout copy = Hideout::of(destination);
  Hideout old = Hideout::of(origin);
  if (!copy.make() || !old.makeIfRoom()) return kNotMoved;
  const Disk disk(copy.path);
  if (const int status = makeCopy(origin, copy.path, disk)) return status;
  if (!putInPlace(copy.path, destination, disk)) return kNotMoved;
  // A process of the default mode may have joined the origin to the copy: that is the only one then.
  if (putAway(origin, destination, old) || !safety::isThere(origin.c_str())) return 0;
  const int failure = errno;
  // Where the origin was deleted in its place, only a part of it may be left: the copy stays.
  if (old.isMade() && namesAreContained(destination, origin)) renameToNothing(destination, copy.path);
  errno = failure;
  return kNotMoved;
}

bool dropContainedCopy(const std::string& origin, const std::string& kept) {
  if (isOneThing(origin, kept)) return false;
  Hideout old = Hideout::of(origin);
  const Disk disk(kept);
  return old.makeIfRoom() && isContained(origin, kept) && disk.flush() && putAway(origin, kept, old);
}

std::vector<std::string> leftCopies(const std::string& mountPath) {
  std::list<std::string> names;
  listDir(outOfSight(mountPath).c_str(), names);
  return {names.begin(), names.end()};
}

// Renamed first: a move that goes on in spite of the lock, after somebody removed the lock file, then fails as a whole.
void removeLeftCopies(const std::string& mountPath, const std::string& id) {
  const std::string left = outOfSight(mountPath) + "/" + id;
  const Hideout rest = Hideout::beside(left);
  if (renameToNothing(left, rest.path)) rh_logger.infoLog("What a move left behind is removed: %s", left.c_str());
}
