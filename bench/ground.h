// The repositories that benchmarks work on, below the directory that KT_BENCH_DIRECTORY names (else TMPDIR, else /tmp).
// scripts/bench puts it on the file system to be measured. When KT_BENCH_DISKS names a directory of mounted disks,
// disk1 and so on, each mount is a directory on a disk of its own, which needs root. Nothing is logged.

#ifndef BENCH_GROUND_H
#define BENCH_GROUND_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KTRepositoryHandler.h"
#include "floors.h"

// A repository of `mounts` empty mounts, removed at the end, and its lock directory.
class Ground {
 public:
  explicit Ground(size_t mounts, const std::string& settings = "");
  ~Ground();
  Ground(const Ground&) = delete;
  Ground& operator=(const Ground&) = delete;

  // The one of that many mounts that all benchmarks of a program share; the one before it is removed.
  static Ground& shared(size_t mounts);

  const char* id() const { return root.c_str(); }
  const std::string& mount(size_t index) const { return paths->mounts[index].path; }
  const floors::Repository& repository() const { return *paths; }
  // Makes a resource that is an empty directory, and returns its path.
  std::string place(size_t mount, const std::string& resource) const;

 private:
  struct Lent {
    std::string directory;  // on a disk
    std::string mount;
  };

  void lendDisk(size_t number, const std::string& path);
  void giveBackDisks();

  std::string directory;
  std::string root;
  std::vector<Lent> lent;
  std::unique_ptr<floors::Repository> paths;
};

// A repository of one mount with `count` empty directories as resources, last used long ago, at times by chance. Their
// ids are the decimal numbers from 0, or 16 hexadecimal digits by chance; the seed is fixed.
class FilledGround : public Ground {
 public:
  FilledGround(size_t count, bool hexadecimal);

  // The one that all benchmarks of a program share; the one before it is removed when it differs.
  static FilledGround& shared(size_t count, bool hexadecimal);

  KTMountPointHandler& mountPoint() const;
  const std::vector<floors::Tree>& trees();  // of all mounts; read when first asked for

 private:
  const size_t count;
  const bool hexadecimal;
  std::vector<floors::Tree> known;
};

// Seconds that `work` takes.
template <typename Work>
double secondsOf(const Work& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

#endif
