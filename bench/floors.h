// The floor of each operation: exactly the calls that it has to make, in their order, and nothing else. Paths are built
// before; results are not looked at, but for what a directory holds. A test compares each floor, call by call, with
// what the library does.

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

void takeLock(const std::string& lock);
void releaseLock(const std::string& lock);

void lookUpRepository(const Repository& repository);   // the handler is up to date
void rebuildRepository(const Repository& repository);  // after the registry's first look: it is not
void locate(const Repository& repository, const Resource& resource, size_t mountOfHit);
// All three hash levels are missing, and the first mount takes it.
void createDirectory(const Repository& repository, const Resource& resource);
// It is an empty directory on that mount, alone in its hash levels.
void remove(const Repository& repository, const Resource& resource, size_t mountOfHit);

}  // namespace floors

#endif
