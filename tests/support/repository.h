// A repository on disk for one test, with a lock directory of its own.

#ifndef TESTS_SUPPORT_REPOSITORY_H
#define TESTS_SUPPORT_REPOSITORY_H

#include <string>
#include <vector>

#include "support/scratch.h"

// What a look-up or a creation gave.
struct Found {
  std::string path;  // empty: null
  int status;
};

class TestRepository {
 public:
  // Mount directories of these names below the root, each with an empty "repositorypart.cfg", and a
  // "repository.cfg" that lists them. `settings` are further lines of it. LOCK_VAR points to a directory beside
  // the root.
  explicit TestRepository(const std::vector<std::string>& mountNames, const std::string& settings = "");

  const std::string& path() const { return root; }
  const char* id() const { return root.c_str(); }
  std::string mount(size_t index) const { return root + "/" + names[index]; }
  const std::string& scratch() const { return directory.path(); }
  std::string lockDirectory() const { return directory / "locks"; }
  std::string lockFile(const std::string& lockName) const { return lockDirectory() + "/semaphore_" + lockName; }
  // The name of a resource's lock; of the repository's for "".
  std::string lockName(const std::string& resource) const;
  std::string dirtyLockName() const;
  // The lock files that are there now.
  std::vector<std::string> locksLeft() const;

  // Writes the file and moves its modification time on by a second each time, so that the change is seen.
  void configure(const std::string& settings);
  void configureMount(size_t index, const std::string& settings);
  void takeOut(size_t index) const;  // renames the mount's configuration file, as an operator would
  void giveBack(size_t index) const;

  // Where a resource of that name lives on a mount, "" + hashed path.
  std::string resourcePath(size_t index, const std::string& name) const;
  // Makes a resource that is a directory with one file "content", last used at `used` (0: now).
  std::string place(size_t index, const std::string& name, const std::string& content = "content",
                    time_t used = 0) const;
  // Makes a resource that is a file.
  std::string placeFile(size_t index, const std::string& name, const std::string& content, time_t used = 0) const;

  // By the flat entries.
  Found create(const std::string& name) const;
  Found find(const std::string& name) const;

  // What the file of the dirty set holds.
  void writeDirtySet(const std::string& lines) const { writeFile(dirtySetFile(), lines); }
  std::string dirtySet() const { return readFile(dirtySetFile()); }

 private:
  std::string dirtySetFile() const { return root + "/.dirty"; }
  std::string listOfMounts() const;

  ScratchDirectory directory;
  EnvironmentVariable lockVariable;
  std::string root;
  std::vector<std::string> names;
  time_t configured;
};

#endif
