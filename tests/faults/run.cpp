#include "faults/run.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>

#include "KTException.h"
#include "entrypoints.h"
#include "faults/allocations.h"
#include "faults/contents.h"
#include "registry.h"
#include "support/results.h"
#include "support/scratch.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMostResources = 5;

enum class Ending { none, answered, libraryException, noMemory, otherException };

// What the forked processes tell.
struct Report {
  Ending ending;
  int value;
  char path[PATH_MAX];
  bool said;
  long descriptorsBefore;
  long descriptorsAfter;
  size_t allocations;
  size_t kept;
  bool recovered;
  char found[kMostResources][PATH_MAX];
};

// In memory that they share with this one.
class SharedReport {
 public:
  SharedReport()
      : report(static_cast<Report*>(
            mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (report == MAP_FAILED) throw std::bad_alloc();
  }
  ~SharedReport() { munmap(report, sizeof(Report)); }
  SharedReport(const SharedReport&) = delete;
  SharedReport& operator=(const SharedReport&) = delete;

  Report* operator->() const { return report; }

 private:
  Report* report;
};

void copyText(char (&to)[PATH_MAX], const std::string& text) { to[text.copy(to, PATH_MAX - 1)] = '\0'; }

// What shows that somebody changed a file or a directory, or something below it.
std::set<std::string> looksOf(const std::string& path) {
  struct stat status = {};
  lstat(path.c_str(), &status);
  std::ostringstream look;
  look << path << " " << status.st_mode << " " << status.st_uid << " " << status.st_gid << " " << status.st_mtim.tv_sec
       << "." << status.st_mtim.tv_nsec << " " << (S_ISREG(status.st_mode) ? readFile(path) : "");
  std::set<std::string> looks = {look.str()};
  if (S_ISDIR(status.st_mode))
    for (const auto& entry : fs::directory_iterator(path)) looks.merge(looksOf(entry.path()));
  return looks;
}

class Run {
 public:
  Run(const Case& c, const std::string& root, bool recordCalls)
      : which(c), scenario(*c.scenario), ground{root}, record(recordCalls) {}

  Outcome judged() {
    prepare();
    operate();
    if (!wasKilled()) judgeOperation();
    judgeState();
    if (which.sweep == Sweep::doubleKill && wasKilled()) killRecovery();
    if (which.sweep == Sweep::takeover) operateAgain();
    recover();
    if (which.sweep == Sweep::takeover) judgeLocks();
    judgeState();
    judgeLookUps();
    if (which.safe) judgeLeftovers();
    return outcome;
  }

 private:
  void prepare() {
    fs::remove_all(ground.root);
    for (const std::string& directory : {ground.repository(), ground.locks(), ground.legacy()})
      makeDirectories(directory);
    writeFile(ground.outside() + "/file", "outside");
    writeFile(ground.legacy() + "/neighbour/file", "legacy");
    scenario.setUp(ground);
    surroundings = looksAround();
  }

  bool wasKilled() const { return which.fault.strike == Strike::kill && !outcome.struck.empty(); }

  void enterWorld() const {
    setenv("LOCK_VAR", ground.locks().c_str(), 1);
    setenv("KT_SAFE", which.safe ? "1" : "0", 1);
    if (chdir(ground.outside().c_str()) != 0) _exit(1);
    fillDisks(scenario.fills(ground));
    const time_t now = 0;
    static_cast<void>(ctime(&now));  // reads the time zone once for all
  }

  void operate() {
    const bool memory = which.sweep == Sweep::memory;
    const size_t refused = memory && which.fault.strike != Strike::none ? which.fault.point : 0;
    const auto body = [&] {
      enterWorld();
      report->descriptorsBefore = openDescriptors();
      switchWatching();
      tell(refused);
      switchWatching();
      report->said = hasLoggedError();
      report->descriptorsAfter = openDescriptors();
    };
    seen = memory ? runAlone(body) : supervise(body, which.fault, {which.sweep == Sweep::reads, record});
    outcome.points = memory ? static_cast<unsigned int>(report->allocations) : seen.points;
    const bool came = refused > 0 && (report->ending == Ending::none || refused <= report->allocations);
    outcome.struck = came ? "allocation" : seen.struck;
    outcome.calls = seen.calls;
    outcome.kinds = seen.kinds;
  }

  // The handlers of repositories are the process's: they go before what is kept is counted.
  void tell(size_t refusedAllocation) {
    allocations::begin(refusedAllocation, which.fault.strike == Strike::onwards);
    try {
      const Answer answer = scenario.operate(ground);
      allocations::end();
      report->value = answer.value;
      copyText(report->path, answer.path);
      report->ending = Ending::answered;
    } catch (const KTException&) {
      report->ending = Ending::libraryException;
    } catch (const std::bad_alloc&) {
      report->ending = Ending::noMemory;
    } catch (...) {
      report->ending = Ending::otherException;
    }
    allocations::end();
    for (const auto& entry : repositoryMap) delete entry.second;
    repositoryMap.clear();
    report->allocations = allocations::made();
    report->kept = allocations::kept();
  }

  // A reading call that answers ENOENT has not failed: it lies. Which copies there are cannot be known then.
  bool isLie() const { return which.sweep == Sweep::reads && which.fault.error == ENOENT; }

  void broken(const std::string& invariant, const std::string& reason) {
    if (isLie() && (invariant == "I2" || invariant == "copies")) return;
    outcome.broken.insert(invariant);
    outcome.reasons.insert(invariant + (": " + reason));
  }

  void judgeOperation() {
    if (isHung(seen)) return broken("I9", "the operation does not end");
    if (seen.status != 0) broken("I6", "the process ended with status " + std::to_string(seen.status));
    judgeAnswer();
    if (seen.childrenLeft) broken("I8", "a child is left");
    if (report->descriptorsAfter - seen.closesRefused > report->descriptorsBefore) broken("I8", "a descriptor is left");
    if (report->kept > 0) broken("I8", std::to_string(report->kept) + " blocks of memory are left");
    // A lock file whose removal is refused for ever stays, whoever tries, and one that is said to be gone is left.
    const bool mustStay = seen.removalRefused && (which.fault.strike == Strike::onwards || which.fault.error == ENOENT);
    if (!mustStay) judgeLocks();
  }

  void judgeLocks() {
    for (const auto& entry : fs::directory_iterator(ground.locks())) broken("I4", entry.path().filename());
  }

  static bool isHung(const Observed& process) {
    return process.hung || (WIFEXITED(process.status) && WEXITSTATUS(process.status) == kSleptForEver);
  }

  void judgeAnswer() {
    if (report->ending == Ending::otherException) broken("I6", "an exception of another library");
    if (report->ending == Ending::noMemory && which.sweep != Sweep::memory) broken("I6", "bad_alloc");
    if (report->ending != Ending::answered) return;
    if (!scenario.values.count(report->value)) broken("I6", "the result is " + std::to_string(report->value));
    // With 1 it says that a mount is away, on which the other part may be.
    const bool found = report->value == 0 || (report->value == 1 && !scenario.joins) || report->value == kUntouched;
    if (scenario.looksUp && found && *report->path && !isCompleteAt(report->path, scenario.resources.front().contents))
      broken("I2", "the operation itself found a part");
    // What cannot be read counts as away, and is answered so.
    if (which.sweep != Sweep::reads || outcome.struck.empty()) judgeEffect();
  }

  void judgeEffect() {
    const bool disturbed = !outcome.struck.empty();
    const Answer answer = {report->value, report->path, disturbed, disturbed && report->said};
    if (!scenario.isTrue(ground, answer))
      broken("effect", "what the answer " + std::to_string(answer.value) + " " + answer.path + " says is not so");
    if (!disturbed && answer.value != 0) broken("effect", "undisturbed it answers " + std::to_string(answer.value));
  }

  // I1, I3 and I7: what holds at every time.
  void judgeState() {
    for (const Resource& resource : scenario.resources)
      if (!resource.mayGo && !isWhole(resource)) broken("I1", resource.id + " is not complete anywhere");
    judgeOutside();
    judgeMarks();
  }

  std::vector<std::string> placesOf(const Resource& resource) const {
    std::vector<std::string> places = {ground.legacy() + "/" + resource.id};
    for (int mount = 0; mount < kMounts; ++mount) places.push_back(ground.place(mount, resource.id));
    return places;
  }

  // What is being joined is whole as long as each file is complete somewhere.
  bool isWhole(const Resource& resource) const {
    std::vector<Contents> copies;
    for (const std::string& path : placesOf(resource)) copies.push_back(contentsOf(path));
    const auto isSomewhere = [&](const Contents& wanted) {
      return std::any_of(copies.begin(), copies.end(), [&](const Contents& copy) { return holds(copy, wanted); });
    };
    if (!scenario.joins || &resource != &scenario.resources.front()) return isSomewhere(resource.contents);
    return std::all_of(resource.contents.begin(), resource.contents.end(),
                       [&](const auto& file) { return isSomewhere({file}); });
  }

  // The working directory, and what else the legacy directory holds.
  std::set<std::string> looksAround() const {
    std::set<std::string> looks = looksOf(ground.outside());
    for (const auto& entry : fs::directory_iterator(ground.legacy()))
      if (!isResource(entry.path().filename())) looks.merge(looksOf(entry.path()));
    return looks;
  }

  bool isResource(const std::string& id) const {
    return std::any_of(scenario.resources.begin(), scenario.resources.end(),
                       [&](const Resource& resource) { return resource.id == id; });
  }

  void judgeOutside() {
    if (looksAround() != surroundings) broken("I3", "the working directory or the legacy directory has changed");
    const auto entries = std::distance(fs::directory_iterator(ground.root), fs::directory_iterator());
    constexpr int kOwnDirectories = 4;
    if (entries != kOwnDirectories) broken("I3", "something stands beside the repository");
  }

  void judgeMarks() {
    const std::string set = readFile(ground.dirtySet());
    const auto lines = linesOf(set);
    if (!set.empty() && set.back() != '\n') broken("I7", "the last line has no end");
    for (const std::string& line : lines)
      if (!isMark(line)) broken("I7", "a line is \"" + line + "\"");
    if (!scenario.clearsAllMarks && std::find(lines.begin(), lines.end(), kKeptMark) == lines.end())
      broken("I7", "a mark has vanished");
  }

  // Ids of the scenario; the balancer of the default mode marks paths.
  bool isMark(const std::string& line) const {
    if (scenario.marks.count(line) || line == kFreshId) return true;
    return std::any_of(scenario.resources.begin(), scenario.resources.end(), [&](const Resource& resource) {
      const auto places = placesOf(resource);
      return line == resource.id || std::find(places.begin(), places.end(), line) != places.end();
    });
  }

  // A pass, and a look-up of each resource, which joins what its mark says.
  void repair() const {
    enterWorld();
    const std::string repository = ground.repository();
    switchWatching();
    checkOverload_(repository.c_str(), false);
    for (const Resource& resource : scenario.resources) static_cast<void>(found(resource));
    switchWatching();
  }

  std::string found(const Resource& resource) const {
    int status = kUntouched;
    return taken(getLocation_(ground.repository().c_str(), resource.id.c_str(), &status)).value_or("");
  }

  void killRecovery() {
    if (which.sweep != Sweep::takeover) removeLocks();
    const Fault fault = {which.second > 0 ? Strike::kill : Strike::none, which.second, 0};
    const Observed recovery = supervise([&] { repair(); }, fault, {});
    outcome.secondPoints = recovery.struck.empty() ? 0 : recovery.points;
    judgeState();
  }

  // Whoever does the same again takes over what locks the killed process has left.
  void operateAgain() const {
    runAlone([&] {
      enterWorld();
      scenario.operate(ground);
    });
  }

  void removeLocks() const {
    for (const auto& entry : fs::directory_iterator(ground.locks())) fs::remove(entry.path());
  }

  void recover() {
    if (which.sweep != Sweep::takeover) removeLocks();
    const Observed repaired = runAlone([&] {
      repair();
      for (size_t i = 0; i < scenario.resources.size(); ++i) copyText(report->found[i], found(scenario.resources[i]));
      report->recovered = true;
    });
    if (isHung(repaired)) broken("I9", "the recovery does not end");
    if (!report->recovered) broken("I2", "the recovery failed");
  }

  void judgeLookUps() {
    for (size_t i = 0; i < scenario.resources.size(); ++i) {
      const Resource& resource = scenario.resources[i];
      if (resource.mayGo || isCompleteAt(report->found[i], resource.contents)) continue;
      broken("I2", resource.id + " is looked up at " + (*report->found[i] ? report->found[i] : "no place"));
    }
  }

  // Of the safe mode's moves nothing is left out of sight, and what they moved stands at one place.
  void judgeLeftovers() {
    for (int mount = 0; mount < kMounts; ++mount) {
      const std::string outOfSight = ground.mount(mount) + "/lost+found/kt-moves";
      if (fs::exists(outOfSight) && !fs::is_empty(outOfSight)) broken("leftover", "something is in " + outOfSight);
    }
    for (const std::string& directory : {ground.repository(), ground.legacy()})
      for (const auto& entry : fs::recursive_directory_iterator(directory))
        if (entry.path().filename().string().rfind(".kt-move", 0) == 0) broken("leftover", entry.path());
    for (const Resource& resource : scenario.resources) {
      const auto places = placesOf(resource);
      if (std::count_if(places.begin(), places.end(), isThere) > 1) broken("copies", resource.id + " is there twice");
    }
  }

  const Case& which;
  const Scenario& scenario;
  const Ground ground;
  const bool record;
  std::set<std::string> surroundings;
  SharedReport report;
  Observed seen;
  Outcome outcome;
};

}  // namespace

Outcome run(const Case& which, const std::string& root, bool record) { return Run(which, root, record).judged(); }
