// The look-up of a repository whose configuration changed: the handler is built anew, from m mounts.

#include <utime.h>

#include "ground.h"
#include "pairs.h"
#include "registry.h"

namespace {

// Gives "repository.cfg" another time in each round, and times what follows.
template <typename Work>
void timeAfterChange(benchmark::State& state, const Ground& ground, const Work& work) {
  time_t changed = 1000000;
  for (auto _ : state) {
    const utimbuf times = {++changed, changed};
    utime(ground.repository().config.c_str(), &times);
    state.SetIterationTime(secondsOf(work));
  }
}

void rebuild(benchmark::State& state) {
  const Ground& ground = Ground::shared(static_cast<size_t>(state.range(0)));
  timeAfterChange(state, ground, [&] { getRepository(ground.id()); });
}

void rebuildFloor(benchmark::State& state) {
  const Ground& ground = Ground::shared(static_cast<size_t>(state.range(0)));
  timeAfterChange(state, ground, [&] { floors::rebuildRepository(ground.repository()); });
}

const pairs::Pair kRebuild = {
    .operation = "look-up that rebuilds",
    .arguments = {"m"},
    .shapes = {{1}, {4}, {16}},
    .body = rebuild,
    .floor = rebuildFloor,
    .goal = 1.12,
    .stretch = 1.06,
    .manual = true,
    .iterations = 2000,
};

}  // namespace

int main(int count, char** arguments) { return pairs::run(count, arguments, {kRebuild}); }
