// The floor of each operation: exactly the calls that it has to make, in their order, and nothing else. Paths are built
// before; results are not looked at, but for what a directory holds and the times that a moved resource keeps. A test
// compares each floor, call by call, with what the library does.

#ifndef BENCH_FLOORS_H
#define BENCH_FLOORS_H

#include <string>
#include <vector>

namespace floors {

// The paths of a repository.
struct Repository {
  struct Mount {
    std::string path;
    std::string config;
  };

  // `mounts` are paths of mounts; the lock directory is what LOCK_VAR names.
  Repository(const std::string& root, const std::vector<std::string>& mounts);

  std::string root;
  std::string config;
  std::string dirtySet;
  std::string dirtyLock;  // lock files
  std::string lock;
  std::vector<Mount> mounts;
};

// The paths of one resource in it.
struct Resource {
  Resource(const Repository& repository, const std::string& id);

  std::string lock;
  std::vector<std::string> places;                  // one per mount
  std::vector<std::vector<std::string>> ancestors;  // of each place: all directories above it, the outermost first
};

// What a walk or a listing meets at a path of a mount: names in the library's order, down to the resources.
struct Tree {
  // `depth` is that of `path` below the mount: 0 for the mount itself.
  explicit Tree(const std::string& path, unsigned int depth = 0);

  size_t names() const;  // below it, at all depths

  std::string path;
  bool isRead;  // a directory above the resources
  std::vector<Tree> entries;
};

// The paths and the shell commands of its move from one mount to another.
struct Move {
  Move(const Resource& resource, size_t from, size_t to);

  std::string lock;
  std::string origin;
  std::string destination;
  std::vector<std::string> levels;     // the hash levels above the origin, the innermost first
  std::vector<std::string> ancestors;  // of the destination, the outermost first
  std::string copy;
  std::string compare;
  std::string removal;
};

void takeLock(const std::string& lock);
void releaseLock(const std::string& lock);

void lookUpRepository(const Repository& repository);   // the handler is up to date
void rebuildRepository(const Repository& repository);  // after the registry's first look: it is not
void locate(const Repository& repository, const Resource& resource, size_t mountOfHit);
// All three hash levels are missing, and the first mount takes it.
void createDirectory(const Repository& repository, const Resource& resource);
// It is an empty directory on that mount, alone in its hash levels.
void remove(const Repository& repository, const Resource& resource, size_t mountOfHit);
// Nothing on the mount is dirty: one call, 4 for each name and 5 for each directory above the resources.
void walk(const Repository& repository, size_t mount, const Tree& tree);
// After the registry's look-up one call for each mount, one for each name and 5 for each directory above the resources.
void list(const Repository& repository, const std::vector<Tree>& trees);
// A balancing step, with its three commands and the look at all mounts for the next one.
void step(const Repository& repository, const Move& move);
void measureAll(const Repository& repository);  // the status of a repository, afresh

}  // namespace floors

#endif
