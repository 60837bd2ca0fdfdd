#include "pairs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace pairs {

namespace {

constexpr int kAttempts = 2;
constexpr double kSteadySpread = 0.10;  // of the floor; beyond it the run is repeated
constexpr double kSeconds = 0.05;       // of one measurement, where the number of iterations is free
constexpr double kNanoseconds = 1e9;

// Takes the time of the one benchmark that ran last.
class Stopwatch : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    seconds = runs.back().real_accumulated_time / static_cast<double>(runs.back().iterations);
    failure = runs.back().error_occurred ? runs.back().error_message : "";
  }

  double seconds = 0;
  std::string failure;
};

// What came out of the turns of one shape.
struct Result {
  double ratio = 0;   // median of the ratios of the turns
  double lowest = 0;  // of these ratios
  double highest = 0;
  double seconds = 0;  // medians, of one iteration
  double floorSeconds = 0;
  double spread = 0;  // of the floor, see spreadOf
  int attempts = 0;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// How far the middle half of the values lie apart, over their median. A single outlier, which the median of the ratios
// does not feel, does not count.
double spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t quarter = values.size() / 4;
  return (values[values.size() - 1 - quarter] - values[quarter]) / median(values);
}

std::string nameOf(const Pair& pair, const Shape& shape) {
  std::string name = pair.operation;
  for (size_t i = 0; i < shape.size(); ++i) name += " " + pair.arguments[i] + "=" + std::to_string(shape[i]);
  return name;
}

// Runs a body under Google Benchmark, which decides on the number of iterations.
double secondsOf(const Pair& pair, const Shape& shape, Body body, int64_t iterations) {
  benchmark::ClearRegisteredBenchmarks();
  auto* registered = benchmark::RegisterBenchmark(nameOf(pair, shape).c_str(), body)->Args(shape);
  pair.manual ? registered->UseManualTime() : registered->UseRealTime();
  if (iterations)
    registered->Iterations(iterations);
  else if (pair.iterations)
    registered->Iterations(pair.iterations);
  else
    registered->MinTime(kSeconds);
  Stopwatch stopwatch;
  benchmark::RunSpecifiedBenchmarks(&stopwatch);
  if (!stopwatch.failure.empty()) {
    fprintf(stderr, "%s: %s\n", nameOf(pair, shape).c_str(), stopwatch.failure.c_str());
    exit(1);
  }
  return stopwatch.seconds;
}

Result attempt(const Pair& pair, const Shape& shape, int64_t iterations) {
  std::vector<double> times, floors, ratios;
  for (int turn = 0; turn < (iterations ? 1 : pair.turns); ++turn) {
    floors.push_back(secondsOf(pair, shape, pair.floor, iterations));
    times.push_back(secondsOf(pair, shape, pair.body, iterations));
    ratios.push_back(times.back() / floors.back());
  }
  const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
  return {median(ratios), *lowest, *highest, median(times), median(floors), spreadOf(floors), 1};
}

// Repeats while the floor is unsteady, and keeps the steadiest attempt.
Result measure(const Pair& pair, const Shape& shape, int64_t iterations) {
  Result best = attempt(pair, shape, iterations);
  for (int attempts = 2; attempts <= kAttempts && best.spread > kSteadySpread && !iterations; ++attempts) {
    printf("  %s: the floor spread by %.0f %%, once more\n", nameOf(pair, shape).c_str(), best.spread * 100);
    Result next = attempt(pair, shape, iterations);
    if (next.spread < best.spread) best = next;
    best.attempts = attempts;
  }
  return best;
}

std::string verdict(const Pair& pair, const Result& result) {
  if (pair.goal == 0) return "no goal";
  char text[40];
  snprintf(text, sizeof text, "goal %.2f: %s", pair.goal,
           result.ratio <= pair.stretch ? "stretch"
           : result.ratio <= pair.goal  ? "goal"
                                        : "missed");
  return text;
}

void print(const Pair& pair, const Shape& shape, const Result& result) {
  printf("%-44s %6.3f [%.3f, %.3f]  %12.0f ns  floor %12.0f ns (spread %2.0f %%)  %s\n", nameOf(pair, shape).c_str(),
         result.ratio, result.lowest, result.highest, result.seconds * kNanoseconds, result.floorSeconds * kNanoseconds,
         result.spread * 100, verdict(pair, result).c_str());
  fflush(stdout);
}

void write(std::ostream& json, const Pair& pair, const Shape& shape, const Result& result) {
  json << "{\"operation\": \"" << pair.operation << "\"";
  for (size_t i = 0; i < shape.size(); ++i) json << ", \"" << pair.arguments[i] << "\": " << shape[i];
  json << ", \"ratio\": " << result.ratio << ", \"lowest\": " << result.lowest << ", \"highest\": " << result.highest
       << ", \"seconds\": " << result.seconds << ", \"floor_seconds\": " << result.floorSeconds
       << ", \"floor_spread\": " << result.spread << ", \"attempts\": " << result.attempts
       << ", \"goal\": " << pair.goal << ", \"stretch\": " << pair.stretch << "}\n";
}

}  // namespace

bool parse(int count, char** arguments, Options& options) {
  for (int i = 1; i < count; ++i) {
    const bool hasValue = i + 1 < count;
    if (strcmp(arguments[i], "--quick") == 0) {
      options.iterations = 1;
    } else if (strcmp(arguments[i], "--iterations") == 0 && hasValue) {
      options.iterations = atoi(arguments[++i]);
    } else if (strcmp(arguments[i], "--only") == 0 && hasValue) {
      options.only = arguments[++i];
    } else if (strcmp(arguments[i], "--json") == 0 && hasValue) {
      options.json = arguments[++i];
    } else {
      fprintf(stderr, "Usage: %s [--quick | --iterations N] [--only TEXT] [--json FILE]\n", arguments[0]);
      return false;
    }
  }
#ifndef __OPTIMIZE__
  printf("built without optimisation: these figures say nothing\n");
#endif
  return true;
}

int run(int count, char** arguments, const std::vector<Pair>& all) {
  Options options;
  if (!parse(count, arguments, options)) return 2;
  std::ofstream json;
  if (!options.json.empty()) json.open(options.json);
  for (const Pair& pair : all) {
    for (const Shape& shape : pair.shapes) {
      if ((nameOf(pair, shape) + " ").find(options.only) == std::string::npos) continue;
      const Result result = measure(pair, shape, options.iterations);
      print(pair, shape, result);
      if (json.is_open()) write(json, pair, shape, result);
    }
  }
  return 0;
}

}  // namespace pairs
