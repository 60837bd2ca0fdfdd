// How the time for one name of a walk and of a listing grows from 100,000 resources to 1,000,000, beside the same of
// their floors. It is the processor's time: minutes lie between the two, and everything is cached. Takes up to ten
// minutes, some gibibytes and 2 million inodes.

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <limits>

#include "entrypoints.h"
#include "ground.h"
#include "pairs.h"

namespace {

constexpr double kGoal = 1.1;
constexpr double kNanoseconds = 1e9;
constexpr int kTurns = 3;

struct Times {  // nanoseconds for one name
  double operation;
  double floor;
};

double processorSeconds() { return static_cast<double>(clock()) / CLOCKS_PER_SEC; }

// The quickest of some turns: what disturbs the machine only adds.
template <typename Work>
double quickest(const Work& work) {
  double least = std::numeric_limits<double>::infinity();
  for (int turn = 0; turn < kTurns; ++turn) {
    const double begin = processorSeconds();
    work();
    least = std::min(least, processorSeconds() - begin);
  }
  return least;
}

template <typename Operation, typename Floor>
Times timesOf(FilledGround& ground, const Operation& operation, const Floor& floor) {
  const double perName = kNanoseconds / static_cast<double>(ground.trees().front().names());
  return {quickest(operation) * perName, quickest(floor) * perName};
}

Times walk(FilledGround& ground) {
  return timesOf(
      ground,
      [&] {
        std::set<ResourceEntry, ltres> oldest;
        ground.mountPoint().getOldestResources(&oldest, 100, "", 0);
      },
      [&] { floors::walk(ground.repository(), 0, ground.trees().front()); });
}

Times list(FilledGround& ground) {
  return timesOf(
      ground,
      [&] {
        long count = 0;
        char** names = listDirs_(ground.id(), &count, false);
        for (long i = 0; i < count; ++i) release(names[i]);
        delete[] names;
      },
      [&] { floors::list(ground.repository(), ground.trees()); });
}

void report(std::ostream& json, const char* operation, const Times& few, const Times& many) {
  const double growth = many.operation / few.operation;
  const double floorGrowth = many.floor / few.floor;
  printf("%-20s %5.0f ns to %5.0f ns for a name: %.3f  goal %.2f: %s  (floor %5.0f ns to %5.0f ns: %.3f)\n", operation,
         few.operation, many.operation, growth, kGoal, growth <= kGoal ? "goal" : "missed", few.floor, many.floor,
         floorGrowth);
  json << "{\"operation\": \"" << operation << "\", \"growth\": " << growth << ", \"floor_growth\": " << floorGrowth
       << ", \"goal\": " << kGoal << "}\n";
}

}  // namespace

int main(int count, char** arguments) {
  pairs::Options options;
  if (!pairs::parse(count, arguments, options)) return 2;
  std::ofstream json;
  if (!options.json.empty()) json.open(options.json);
  const size_t resources = options.iterations ? 1000 : 100000;
  Times walks[2];
  Times lists[2];
  for (const size_t i : {0, 1}) {
    FilledGround& ground = FilledGround::shared(i == 0 ? resources : resources * 10, true);
    walks[i] = walk(ground);
    lists[i] = list(ground);
  }
  report(json, "walk for candidates", walks[0], walks[1]);
  report(json, "listDirs_", lists[0], lists[1]);
  return 0;
}
