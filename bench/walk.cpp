// The walk of a balancing pass over one mount with N resources: it looks at all of them for the oldest hundred.

#include "KTRepositoryHandler.h"
#include "ground.h"
#include "pairs.h"

namespace {

constexpr unsigned int kOldestBatch = 100;  // how many the pass asks for

FilledGround& groundFor(const benchmark::State& state) {
  return FilledGround::shared(static_cast<size_t>(state.range(0)), state.range(1) != 0);
}

void walk(benchmark::State& state) {
  KTMountPointHandler& mount = groundFor(state).mountPoint();
  for (auto _ : state) {
    std::set<ResourceEntry, ltres> oldest;
    if (mount.getOldestResources(&oldest, kOldestBatch, "", 0) != kOldestBatch) state.SkipWithError("not all found");
  }
}

void walkFloor(benchmark::State& state) {
  FilledGround& ground = groundFor(state);
  const floors::Tree& tree = ground.trees().front();
  for (auto _ : state) floors::walk(ground.repository(), 0, tree);
}

const pairs::Pair kWalk = {
    .operation = "walk for candidates",
    .arguments = {"N", "hexadecimal"},
    .shapes = {{10000, 0}, {10000, 1}, {100000, 0}, {100000, 1}},
    .body = walk,
    .floor = walkFloor,
    .goal = 1.03,
    .stretch = 0.95,
    .iterations = 1,
};

}  // namespace

int main(int count, char** arguments) { return pairs::run(count, arguments, {kWalk}); }
