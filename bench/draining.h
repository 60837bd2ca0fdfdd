// A repository of two mounts whose first one is full until a known number of its resources has been moved: the
// statvfs of this file asks the real one and then says how full a mount is.

#ifndef BENCH_DRAINING_H
#define BENCH_DRAINING_H

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "floors.h"
#include "ground.h"

class Draining {
 public:
  // What a resource that will be moved holds.
  struct Content {
    size_t files;
    size_t bytes;  // of each file
  };

  // So many `resources` on the first mount; the oldest of them, `moved`, hold the content, the others are empty
  // directories, as nothing reads what they hold.
  Draining(size_t resources, size_t moved, const Content& content);

  // Seconds of a whole pass that moves them, of its floor, and of any other work that does. Afterwards they are back
  // where they were. A resource that was not moved ends the program.
  double pass() const;
  double passFloor() const;
  double other(const std::function<void(const std::vector<floors::Move>&)>& work) const;

 private:
  template <typename Work>
  double timed(const Work& work) const;
  void makeOldest(const std::string& place, const Content& content) const;
  void takeBack() const;

  Ground ground;
  std::vector<floors::Move> moves;
  std::optional<floors::Tree> tree;  // of the full mount, while all is there
};

#endif
