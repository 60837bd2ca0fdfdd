// One run: a fresh repository, the scenario's operation with one fault in it, the recovery, and what of the invariants
// did not hold.
//
//   I1 each resource has one complete copy     I6 each result is of the described set, the process lives
//   I2 after the recovery look-ups give it     I7 the dirty set holds whole lines, no mark vanishes unasked
//   I3 nothing changes outside                 I8 no memory, descriptor or child is left
//   I4 no lock file is left                    I9 it ends
//
// What an answer says is so ("effect"). In the safe mode, after the recovery: nothing is left of a move ("leftover"),
// no resource is there twice ("copies").
//
// I5, that a lock has one holder, needs several processes: processes_test has it.

#ifndef TESTS_FAULTS_RUN_H
#define TESTS_FAULTS_RUN_H

#include <set>
#include <string>

#include "faults/scenarios.h"
#include "faults/supervisor.h"

enum class Sweep {
  errors,      // a call is refused
  reads,       // the same, calls that only read included
  kill,        // the process group is killed; its lock files are removed by hand
  takeover,    // the same, but who comes next must take the locks over: none is left
  doubleKill,  // and so is the recovery
  memory,      // an allocation is refused
};

struct Case {
  Sweep sweep;
  const Scenario* scenario;
  bool safe;
  Fault fault;
  unsigned int second = 0;  // doubleKill: where the recovery is killed
};

struct Outcome {
  std::string struck;              // where the fault was, as Observed::struck; empty: behind the end
  unsigned int points = 0;         // of the operation
  unsigned int secondPoints = 0;   // doubleKill: of the recovery; 0 when it was not killed
  std::vector<std::string> calls;  // with `record`
  std::vector<CallKind> kinds;     // of all calls
  std::set<std::string> broken;    // "I1" to "I9", and the words above
  std::set<std::string> reasons;   // for the reader
};

// `root` is a directory for the run alone; what is there goes.
Outcome run(const Case& which, const std::string& root, bool record);

#endif
