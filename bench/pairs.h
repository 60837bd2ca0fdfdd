// Benchmarks in pairs: an operation and its floor, measured in turns in one run, so that what disturbs the machine
// disturbs both. What counts is the ratio of the two, not the time.

#ifndef BENCH_PAIRS_H
#define BENCH_PAIRS_H

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace pairs {

using Body = void (*)(benchmark::State&);
using Shape = std::vector<int64_t>;  // the arguments of one measurement

struct Pair {
  std::string operation;
  std::vector<std::string> arguments;  // their names
  std::vector<Shape> shapes;
  Body body;
  Body floor;
  double goal;             // operation / floor, at most; 0: none
  double stretch;          // what we would like
  bool manual = false;     // the bodies take the time themselves, of a part of what they do
  int64_t iterations = 0;  // of one measurement; 0: as many as fill its time
  int turns = 7;           // of the operation beside its floor; more where a measurement wavers
};

// What a benchmark program is asked for.
struct Options {
  std::string json;        // where the rows go as well; empty: nowhere
  std::string only;        // a part of the names of what is measured; empty: all
  int64_t iterations = 0;  // of one turn; 0: as many turns and iterations as it takes. 1: only see that it runs
};

// Returns false, and tells the usage, for arguments that are none of a benchmark program's.
bool parse(int count, char** arguments, Options& options);

// The main function of a benchmark program: measures all shapes of all pairs and prints a row for each.
//   --json FILE     also writes the rows there
//   --only TEXT     only those with TEXT in their names, as they are printed, a space behind them
//   --iterations N  one turn of N iterations each, for a profiler
//   --quick         one turn of one iteration each, to see that it runs; its ratios mean nothing
// Returns 0, or 2 for other arguments. A goal that is missed is told, and no failure: machines differ.
int run(int count, char** arguments, const std::vector<Pair>& all);

}  // namespace pairs

#endif
