// A repository for the faults of moves: two disks, the first of which a pass empties onto the second.

#ifndef TESTS_FAULTS_DISKS_DRAINEDREPOSITORY_H
#define TESTS_FAULTS_DISKS_DRAINEDREPOSITORY_H

#include <functional>
#include <optional>
#include <string>

#include "fakes/fakes.h"
#include "faults/disks/points.h"
#include "realdisk/disks.h"
#include "support/repository.h"

class DrainedRepository {
 public:
  static constexpr unsigned int kResources = 3;  // on the first disk, each a directory of two files

  // The second disk is mounted through `served` (see RealDisks::mountAt) when it is given.
  explicit DrainedRepository(DiskKind kind,
                             const std::function<std::string(const std::string& image)>& served = nullptr);

  const char* id() const { return repository.id(); }
  std::string origin() const { return repository.mount(0); }
  std::string destination() const { return repository.mount(1); }

  // One pass over all points. Returns how many there are.
  unsigned int balance() {
    return balance(Interruption::passes, kNever, [] {});
  }
  // One pass, interrupted at a point.
  unsigned int balance(Interruption interruption, unsigned int point, const std::function<void()>& onStop);

  // Whether the resource is there, names and contents.
  bool isWholeAtOrigin(unsigned int resource) const { return isWholeAt(0, resource); }
  bool isWholeAtDestination(unsigned int resource) const { return isWholeAt(1, resource); }
  bool isLost(unsigned int resource) const { return !isWholeAtOrigin(resource) && !isWholeAtDestination(resource); }
  unsigned int lost() const;

  // What an operator does after a fault: removes the locks of dead processes, and lets a pass run.
  void repair() const;
  // Whether a look-up gives the whole resource.
  bool isFoundWhole(unsigned int resource) const;

  static std::string idOf(unsigned int resource) { return "resource" + std::to_string(resource); }

  TestRepository repository;
  RealDisks disks;
  std::optional<FakeSyslog> log;

 private:
  static constexpr unsigned int kNever = ~0U;

  void place(const std::string& resource);
  bool isWholeAt(size_t mount, unsigned int resource) const;
};

#endif
