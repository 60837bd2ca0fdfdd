// Enumerates the faults of one scenario:
//
//   faults_test SWEEP SCENARIO MODE     errors, reads, kill, takeover, doublekill or memory; default or safe
//   faults_test --pins SWEEP SCENARIO MODE   the lines for pinned.txt
//   faults_test --list                  the scenarios
//   faults_test --replay=CASE           one run, with its calls; a failing case is printed with this flag
//
// Exit status 0 when what breaks an invariant is what tests/faults/pinned.txt says: nothing else and nothing less. Its
// lines are "SWEEP SCENARIO MODE CALL INVARIANT RUNS", for so many runs that break it there; a call is PROGRAM:NAME and
// which of the small files it was for.

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "faults/run.h"
#include "support/scratch.h"

namespace {

constexpr const char* kPinned = KT_SOURCE_DIRECTORY "/tests/faults/pinned.txt";

const std::map<std::string, Sweep> kSweeps = {
    {"errors", Sweep::errors},     {"reads", Sweep::reads},           {"kill", Sweep::kill},
    {"takeover", Sweep::takeover}, {"doublekill", Sweep::doubleKill}, {"memory", Sweep::memory}};
const std::map<std::string, bool> kModes = {{"default", false}, {"safe", true}};
const std::map<std::string, int> kErrors = {
    {"ENOSPC", ENOSPC}, {"EIO", EIO},       {"EACCES", EACCES}, {"EROFS", EROFS},   {"EINTR", EINTR},
    {"EMFILE", EMFILE}, {"ENOENT", ENOENT}, {"EDQUOT", EDQUOT}, {"ENOMEM", ENOMEM}, {"ELOOP", ELOOP}};
const std::map<std::string, Strike> kStrikes = {
    {"none", Strike::none}, {"once", Strike::once}, {"onwards", Strike::onwards}, {"kill", Strike::kill}};

template <typename Value>
Value valueOf(const std::map<std::string, Value>& names, const std::string& name) {
  const auto found = names.find(name);
  if (found == names.end()) throw std::invalid_argument("unknown: " + name);
  return found->second;
}

template <typename Value>
std::string nameOf(const std::map<std::string, Value>& names, const Value& value) {
  for (const auto& [name, each] : names)
    if (each == value) return name;
  return "0";
}

// SWEEP/SCENARIO/MODE/STRIKE/POINT/ERROR/SECOND
std::string textOf(const Case& which) {
  return nameOf(kSweeps, which.sweep) + "/" + which.scenario->name + "/" + nameOf(kModes, which.safe) + "/" +
         nameOf(kStrikes, which.fault.strike) + "/" + std::to_string(which.fault.point) + "/" +
         nameOf(kErrors, which.fault.error) + "/" + std::to_string(which.second);
}

Case caseOf(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, '/');) parts.push_back(part);
  if (parts.size() != 7) throw std::invalid_argument("no case: " + text);
  const auto number = [](const std::string& part) { return static_cast<unsigned int>(std::stoul(part)); };
  const int error = parts[5] == "0" ? 0 : valueOf(kErrors, parts[5]);
  return {valueOf(kSweeps, parts[0]),
          &scenarioOf(parts[1]),
          valueOf(kModes, parts[2]),
          {valueOf(kStrikes, parts[3]), number(parts[4]), error},
          number(parts[6])};
}

// On a file system in memory: the safe mode flushes at each move, and which calls cp makes depends on the file system.
std::string scratchBase() {
  const char* given = getenv("TMPDIR");
  std::string base = given ? given : "/dev/shm";
  struct statfs system;
  if (statfs(base.c_str(), &system) != 0 || system.f_type != TMPFS_MAGIC)
    throw std::runtime_error(base + " is no file system in memory (tmpfs); name one with TMPDIR");
  return base;
}

// The faults of one scenario, and what they broke.
class Enumeration {
 public:
  Enumeration(Sweep s, const Scenario& which, bool isSafe)
      : sweep(s),
        scenario(which),
        safe(isSafe),
        name(nameOf(kSweeps, s) + " " + which.name + " " + nameOf(kModes, isSafe) + " "),
        pins(pinned(name)) {}

  bool holdsWhatIsPinned() { return runAll() && matchesPinned(); }

  bool printPins() {
    const bool ran = runAll();
    for (const auto& [kind, count] : found) printf("%s %lu\n", kind.c_str(), count);
    return ran;
  }

  void tell(double seconds) const {
    printf("%s%u points, %lu runs, %lu with a violation, of %zu kinds, %.1f s\n", name.c_str(), points, runs,
           violations, found.size(), seconds);
  }

 private:
  // False when not even the undisturbed run is as it should be.
  bool runAll() {
    const Outcome undisturbed = judge({sweep, &scenario, safe, {}, 0});
    points = undisturbed.points;
    for (const std::string& reason : undisturbed.reasons) printf("undisturbed: %s\n", reason.c_str());
    if (points == 0) printf("no call was watched\n");
    if (points == 0 || !undisturbed.broken.empty()) return false;
    kinds = undisturbed.kinds;
    for (unsigned int point = 1; point <= points; ++point) strikeAt(point);
    return true;
  }

  void strikeAt(unsigned int point) {
    const bool kills = sweep == Sweep::kill || sweep == Sweep::takeover || sweep == Sweep::doubleKill;
    if (kills && kinds[point - 1] == CallKind::closes) return;  // as at the next call
    switch (sweep) {
      case Sweep::errors:
      case Sweep::reads:
        for (const auto& error : kErrors)
          for (const Strike strike : {Strike::once, Strike::onwards})
            if (canFail(kinds[point - 1], error.second, strike == Strike::onwards))
              judge({sweep, &scenario, safe, {strike, point, error.second}, 0});
        break;
      case Sweep::memory:
        for (const Strike strike : {Strike::once, Strike::onwards})
          judge({sweep, &scenario, safe, {strike, point, 0}, 0});
        break;
      case Sweep::doubleKill:
        for (unsigned int second = 1; judge({sweep, &scenario, safe, {Strike::kill, point, 0}, second}).secondPoints;)
          ++second;
        break;
      default:
        judge({sweep, &scenario, safe, {Strike::kill, point, 0}, 0});
    }
  }

  Outcome judge(const Case& which) {
    const Outcome outcome = run(which, scratch / "run", false);
    ++runs;
    if (!outcome.broken.empty()) ++violations;
    // How many allocations there are depends on the digits of a process id; how many calls, on nothing.
    if (sweep != Sweep::memory && which.fault.strike != Strike::none && outcome.struck.empty())
      noteKind("nothing", "unrepeatable", which);
    for (const std::string& invariant : outcome.broken) noteKind(outcome.struck, invariant, which);
    return outcome;
  }

  // A kind that is not pinned is told at once: a long run may be ended.
  void noteKind(const std::string& call, const std::string& invariant, const Case& which) {
    const auto [kind, isNew] = found.try_emplace(name + call + " " + invariant, 0);
    ++kind->second;
    if (!isNew || pins.count(kind->first)) return;
    fprintf(stderr, "%s\n    --replay=%s\n", kind->first.c_str(), textOf(which).c_str());
  }

  bool matchesPinned() const {
    std::map<std::string, unsigned long> expected = pins;
    for (const auto& kind : found) expected.emplace(kind.first, 0);
    for (const auto& [kind, count] : expected) {
      const auto broken = found.find(kind);
      const unsigned long now = broken == found.end() ? 0 : broken->second;
      if (now != count) printf("%s: %lu runs, %lu are pinned\n", kind.c_str(), now, count);
    }
    return found == pins;
  }

  // The runs of each kind of this enumeration. Lines that begin with "#" say why.
  static std::map<std::string, unsigned long> pinned(const std::string& name) {
    std::map<std::string, unsigned long> kinds;
    std::ifstream file(kPinned);
    for (std::string line; std::getline(file, line);) {
      const size_t blank = line.rfind(' ');
      if (line.rfind(name, 0) == 0) kinds[line.substr(0, blank)] = std::stoul(line.substr(blank));
    }
    return kinds;
  }

  const Sweep sweep;
  const Scenario& scenario;
  const bool safe;
  const std::string name;  // with a blank behind it
  const std::map<std::string, unsigned long> pins;
  const ScratchDirectory scratch;
  unsigned int points = 0;
  std::vector<CallKind> kinds;  // of the calls
  unsigned long runs = 0;
  unsigned long violations = 0;
  std::map<std::string, unsigned long> found;  // the runs of each kind
};

int replay(const std::string& text) {
  const Case which = caseOf(text);
  const ScratchDirectory scratch;
  const Outcome outcome = run(which, scratch / "run", true);
  for (size_t i = 0; i < outcome.calls.size(); ++i)
    printf("%4zu %s%s\n", i + 1, outcome.calls[i].c_str(), i + 1 == which.fault.point ? "   <- here" : "");
  for (const std::string& reason : outcome.reasons) printf("%s\n", reason.c_str());
  printf("%s\n", outcome.broken.empty() ? "all invariants hold" : "broken");
  return outcome.broken.empty() ? 0 : 1;
}

int list() {
  for (const Scenario& scenario : scenarios()) printf("%s\n", scenario.name.c_str());
  return 0;
}

int printPins(const std::string& sweep, const std::string& scenario, const std::string& mode) {
  Enumeration enumeration(valueOf(kSweeps, sweep), scenarioOf(scenario), valueOf(kModes, mode));
  return enumeration.printPins() ? 0 : 1;
}

int enumerate(const std::string& sweep, const std::string& scenario, const std::string& mode) {
  const auto begin = std::chrono::steady_clock::now();
  Enumeration enumeration(valueOf(kSweeps, sweep), scenarioOf(scenario), valueOf(kModes, mode));
  const bool held = enumeration.holdsWhatIsPinned();
  enumeration.tell(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
  return held ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("LC_ALL", "C", 1);
  setenv("TZ", "UTC", 1);
  umask(022);
  constexpr std::string_view kReplay = "--replay=";
  try {
    setenv("TMPDIR", scratchBase().c_str(), 1);
    const std::string first = argc > 1 ? argv[1] : "";
    if (first.rfind(kReplay, 0) == 0) return replay(first.substr(kReplay.size()));
    if (first == "--list") return list();
    if (first == "--pins" && argc == 5) return printPins(argv[2], argv[3], argv[4]);
    if (argc == 4) return enumerate(first, argv[2], argv[3]);
    std::cerr << "usage: faults_test [--pins] SWEEP SCENARIO MODE | --list | --replay=CASE\n";
  } catch (const std::exception& failure) {
    std::cerr << "faults_test: " << failure.what() << "\n";
  }
  return 2;
}
