// createDirectory_ of a new resource whose hash levels are missing, and removeResource_ of an empty one, among m
// mounts. A batch is made and then removed, so that each half leaves the repository to the other as it was.

#include "entrypoints.h"
#include "ground.h"
#include "halves.h"
#include "pairs.h"

namespace {

template <Half timed>
void operation(benchmark::State& state) {
  const Ground& ground = Ground::shared(static_cast<size_t>(state.range(0)));
  const std::vector<std::string> resources = ids();
  int status = 0;
  timeHalf(
      state, timed, [&](size_t i) { release(createDirectory_(ground.id(), resources[i].c_str(), &status, false)); },
      [&](size_t i) { removeResource_(ground.id(), resources[i].c_str()); });
}

template <Half timed>
void operationFloor(benchmark::State& state) {
  const Ground& ground = Ground::shared(static_cast<size_t>(state.range(0)));
  std::vector<floors::Resource> resources;
  for (const std::string& id : ids()) resources.emplace_back(ground.repository(), id);
  timeHalf(
      state, timed, [&](size_t i) { floors::createDirectory(ground.repository(), resources[i]); },
      [&](size_t i) { floors::remove(ground.repository(), resources[i], 0); });
}

pairs::Pair pairFor(const char* name, pairs::Body body, pairs::Body floor) {
  return {.operation = name,
          .arguments = {"m"},
          .shapes = {{1}, {4}, {16}},
          .body = body,
          .floor = floor,
          .goal = 1.08,
          .stretch = 1.03,
          .manual = true,
          .iterations = 20};
}

}  // namespace

int main(int count, char** arguments) {
  return pairs::run(count, arguments,
                    {pairFor("createDirectory_ new", operation<Half::kCreate>, operationFloor<Half::kCreate>),
                     pairFor("removeResource_", operation<Half::kRemove>, operationFloor<Half::kRemove>)});
}
