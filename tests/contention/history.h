// What was asked of one resource by all processes, and what came back, held against a model: a resource is there or
// not; each operation takes effect at one moment between its begin and its end. One of unknown outcome (the lock was
// not taken, the process was killed) may have taken effect or not.

#ifndef TESTS_CONTENTION_HISTORY_H
#define TESTS_CONTENTION_HISTORY_H

#include <map>
#include <set>
#include <string>
#include <vector>

struct Operation {
  enum Effect { kNone, kMakes, kRemoves };
  enum Sight { kAnything, kIsThere, kIsAbsent };

  long long begin;  // nanoseconds, for all processes alike
  long long end;
  bool isCertain;  // it took effect; otherwise it may have
  Sight sight;     // what the resource was before
  Effect effect;
};

// Whether the resource may be there (true) and may be absent (false) after all of them; empty when no order of them
// fits what came back. Nothing is there at first.
std::set<bool> possibleEnds(const std::vector<Operation>& operations);

// What the processes of a run wrote down; see contender.cpp.
class Histories {
 public:
  // The worker that writes this file was killed and has gone.
  void noteKill(const std::string& file, long long time);
  // The file of one worker, in the end. An operation without an end was cut off when the worker was killed.
  void read(const std::string& file);

  std::map<std::string, std::vector<Operation>> operations;  // by name of resource
  std::map<std::string, unsigned int> generations;           // of what must be there, complete
  std::vector<std::string> complaints;                       // of the workers
  std::vector<std::string> undescribed;                      // results
  unsigned long made = 0;
  unsigned long unknown = 0;  // of those, the ones of which nobody knows whether they took effect

 private:
  std::map<std::string, std::vector<long long>> kills;
};

#endif
