// listDirs_ of a repository of one mount with N resources, sorted or in the order of the walk.

#include "entrypoints.h"
#include "ground.h"
#include "pairs.h"

namespace {

FilledGround& groundFor(const benchmark::State& state) {
  return FilledGround::shared(static_cast<size_t>(state.range(0)), state.range(1) != 0);
}

void list(benchmark::State& state) {
  const FilledGround& ground = groundFor(state);
  for (auto _ : state) {
    long count = 0;
    char** names = listDirs_(ground.id(), &count, state.range(2) != 0);
    if (count != state.range(0)) {
      state.SkipWithError("not all listed");
      break;
    }
    state.PauseTiming();
    for (long i = 0; i < count; ++i) release(names[i]);
    delete[] names;
    state.ResumeTiming();
  }
}

void listFloor(benchmark::State& state) {
  FilledGround& ground = groundFor(state);
  const std::vector<floors::Tree>& trees = ground.trees();
  for (auto _ : state) floors::list(ground.repository(), trees);
}

const pairs::Pair kList = {
    .operation = "listDirs_",
    .arguments = {"N", "hexadecimal", "sorted"},
    .shapes = {{100000, 0, 0}, {100000, 0, 1}, {100000, 1, 0}, {100000, 1, 1}},
    .body = list,
    .floor = listFloor,
    .goal = 1.05,
    .stretch = 0.80,
    .iterations = 1,
};

}  // namespace

int main(int count, char** arguments) { return pairs::run(count, arguments, {kList}); }
