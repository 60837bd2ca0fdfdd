// A whole balancing pass: N resources on the full mount, of which the hundred oldest are moved, three files of 4 KiB
// each. Its floor is that of the walk and a hundred times that of a step.

#include <memory>

#include "draining.h"
#include "pairs.h"

namespace {

constexpr size_t kMoved = 100;
constexpr Draining::Content kContent = {3, 4096};

// That of the last N; the one before it is removed.
const Draining& drainingFor(size_t resources) {
  static size_t made = 0;
  static std::unique_ptr<Draining> draining;
  if (made != resources) {
    draining.reset();
    draining = std::make_unique<Draining>(resources, kMoved, kContent);
    made = resources;
  }
  return *draining;
}

template <double (Draining::*timed)() const>
void pass(benchmark::State& state) {
  const Draining& draining = drainingFor(static_cast<size_t>(state.range(0)));
  for (auto _ : state) state.SetIterationTime((draining.*timed)());
}

const pairs::Pair kPass = {
    .operation = "pass that moves 100",
    .arguments = {"N"},
    .shapes = {{1000}, {10000}, {100000}},
    .body = pass<&Draining::pass>,
    .floor = pass<&Draining::passFloor>,
    .goal = 1.05,
    .stretch = 1.00,
    .manual = true,
    .iterations = 1,
};

}  // namespace

int main(int count, char** arguments) { return pairs::run(count, arguments, {kPass}); }
