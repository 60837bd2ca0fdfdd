// The operations whose faults are enumerated, each on a small repository of its own: what is there before, what is
// done, and what must be there after whatever happens. All sweeps share them.

#ifndef TESTS_FAULTS_SCENARIOS_H
#define TESTS_FAULTS_SCENARIOS_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "faults/contents.h"
#include "faults/world.h"

// The directories of a run.
struct Ground {
  std::string root;

  std::string repository() const { return root + "/rep"; }
  std::string mount(int number) const { return repository() + "/m" + std::to_string(number); }
  std::string locks() const { return root + "/locks"; }
  std::string legacy() const { return root + "/legacy"; }
  std::string outside() const { return root + "/outside"; }  // where the process works, and nothing may change
  std::string dirtySet() const { return repository() + "/.dirty"; }
  std::string place(int mount, const std::string& id) const;  // of a resource
};

struct Resource {
  std::string id;
  Contents contents;
  bool mayGo = false;  // the operation removes it
};

// What an operation gave.
struct Answer {
  int value = 0;           // its result or status
  std::string path;        // the path that it found or made
  bool disturbed = false;  // a fault was in it
  bool said = false;       // and an error was logged: all that tells of a failure where there is no result
};

struct Scenario {
  std::string name;
  std::function<void(const Ground&)> setUp;
  std::function<Answer(const Ground&)> operate;
  std::vector<Resource> resources;
  std::set<int> values;                                      // the results that it may have
  std::function<bool(const Ground&, const Answer&)> isTrue;  // whether what the answer says is so
  std::set<std::string> marks;                               // ids that are marked dirty before
  bool clearsAllMarks = false;
  bool looksUp = false;  // its answer is where the first resource is
  bool joins = false;    // the first resource lies in parts on several mounts
  std::function<std::vector<Fill>(const Ground&)> fills;
};

// A mark that no operation but the emptying of everything takes away: nobody asks for this resource.
extern const char kKeptMark[];
// The resource that is made.
extern const char kFreshId[];
// In a status that an operation left alone.
constexpr int kUntouched = -77;

constexpr int kMounts = 3;  // numbers 0 to 2; some scenarios use the first two alone

const std::vector<Scenario>& scenarios();
// Throws when there is none of this name.
const Scenario& scenarioOf(const std::string& name);

#endif
