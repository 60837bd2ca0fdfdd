// Creation and removal, which undo each other: a batch is made and then removed, and one half is timed.

#ifndef BENCH_HALVES_H
#define BENCH_HALVES_H

#include <string>
#include <vector>

#include "ground.h"
#include "pairs.h"

constexpr size_t kBatch = 200;

enum class Half { kCreate, kRemove };

// `create` and `remove` take the number of a resource.
template <typename Create, typename Remove>
void timeHalf(benchmark::State& state, Half timed, const Create& create, const Remove& remove) {
  for (auto _ : state) {
    const double creating = secondsOf([&] {
      for (size_t i = 0; i < kBatch; ++i) create(i);
    });
    const double removing = secondsOf([&] {
      for (size_t i = 0; i < kBatch; ++i) remove(i);
    });
    state.SetIterationTime((timed == Half::kCreate ? creating : removing) / kBatch);
  }
}

// The names of the resources of a batch.
inline std::vector<std::string> ids() {
  std::vector<std::string> all;
  for (size_t i = 0; i < kBatch; ++i) all.push_back("resource" + std::to_string(i));
  return all;
}

#endif
