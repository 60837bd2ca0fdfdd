// A balancing pass that finds one resource and moves it: the walk of three hash levels, copy, comparison, removal. The
// commands take nearly all of the time. Then the same from a process with much memory in use, over one with little:
// what starts a command must not copy the process first.

#include "draining.h"
#include "pairs.h"

namespace {

constexpr size_t kKiB = 1024;
constexpr size_t kMiB = 1024 * kKiB;
constexpr Draining::Content kThreeFiles = {3, 4 * kKiB};
constexpr size_t kSmallHeap = 2 * kMiB;

size_t argument(const benchmark::State& state, size_t index) { return static_cast<size_t>(state.range(index)); }

template <double (Draining::*timed)() const>
void step(benchmark::State& state) {
  const Draining draining(1, 1, {argument(state, 0), argument(state, 1) * kKiB});
  for (auto _ : state) state.SetIterationTime((draining.*timed)());
}

void stepWithHeap(benchmark::State& state, size_t bytes) {
  std::vector<char> heap(bytes, 'x');  // touched
  benchmark::DoNotOptimize(heap.data());
  const Draining draining(1, 1, kThreeFiles);
  for (auto _ : state) state.SetIterationTime(draining.pass());
}

void stepOfLargeProcess(benchmark::State& state) { stepWithHeap(state, argument(state, 0) * kMiB); }
void stepOfSmallProcess(benchmark::State& state) { stepWithHeap(state, kSmallHeap); }

pairs::Pair stepOf(pairs::Shape shape, int64_t iterations) {
  return {.operation = "balancing step",
          .arguments = {"files", "KiB"},
          .shapes = {std::move(shape)},
          .body = step<&Draining::pass>,
          .floor = step<&Draining::passFloor>,
          .goal = 1.03,
          .stretch = 1.01,
          .manual = true,
          .iterations = iterations,
          .turns = 21};
}

const pairs::Pair kLargeProcess = {
    .operation = "balancing step, large process",
    .arguments = {"MiB"},
    .shapes = {{2048}},
    .body = stepOfLargeProcess,
    .floor = stepOfSmallProcess,
    .goal = 1.05,
    .stretch = 1.01,
    .manual = true,
    .iterations = 15,
    .turns = 21,
};

}  // namespace

int main(int count, char** arguments) {
  return pairs::run(count, arguments, {stepOf({3, 4}, 15), stepOf({1, 65536}, 3), kLargeProcess});
}
