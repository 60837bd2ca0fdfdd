// getLocation_ of a resource on mount k of m. Small repository, everything cached: the look-up that an application
// makes thousands of times a second.

#include <filesystem>

#include "entrypoints.h"
#include "ground.h"
#include "pairs.h"

namespace {

const char kResource[] = "2009";

size_t mountOf(const benchmark::State& state) { return static_cast<size_t>(state.range(1)) - 1; }

Ground& groundFor(const benchmark::State& state) {
  Ground& ground = Ground::shared(static_cast<size_t>(state.range(0)));
  for (const floors::Repository::Mount& mount : ground.repository().mounts)
    std::filesystem::remove_all(mount.path + "/FP");
  ground.place(mountOf(state), kResource);
  return ground;
}

void locate(benchmark::State& state) {
  const Ground& ground = groundFor(state);
  int status = 0;
  for (auto _ : state) release(getLocation_(ground.id(), kResource, &status));
}

void locateFloor(benchmark::State& state) {
  const Ground& ground = groundFor(state);
  const floors::Resource resource(ground.repository(), kResource);
  for (auto _ : state) floors::locate(ground.repository(), resource, mountOf(state));
}

const pairs::Pair kLocate = {
    .operation = "getLocation_ hit",
    .arguments = {"m", "k"},
    .shapes = {{1, 1}, {2, 2}, {4, 4}, {8, 8}, {16, 1}, {16, 8}, {16, 16}},
    .body = locate,
    .floor = locateFloor,
    .goal = 1.08,
    .stretch = 1.03,
};

}  // namespace

int main(int count, char** arguments) { return pairs::run(count, arguments, {kLocate}); }
