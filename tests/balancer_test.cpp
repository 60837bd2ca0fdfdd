#include <gmock/gmock.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "KTException.h"
#include "KTRepositoryHandler.h"
#include "entrypoints.h"
#include "fakes/fakes.h"
#include "support/repository.h"

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using Lines = std::vector<std::string>;

// Old enough for every pass, and what a pass says about it.
constexpr time_t kLongAgo = 1000;
const char* const kLongAgoText = "Thu Jan  1 00:16:40 1970\n";

constexpr int kCommandFailed = 256;  // the status of a command that ended with 1

struct statvfs spaceUsed(double percent) {
  constexpr fsblkcnt_t kBlocks = 100000;
  struct statvfs space = {};
  space.f_bsize = space.f_frsize = 1024;
  space.f_blocks = kBlocks;
  space.f_bfree = space.f_bavail = kBlocks - static_cast<fsblkcnt_t>(kBlocks * percent / 100 + 0.5);
  return space;
}

// The shell's part in a move without processes, for moves by the hundred.
int runInProcess(const std::string& command) {
  const size_t last = command.rfind(' ');
  const std::string second = command.substr(last + 1);
  if (command.starts_with("cp -r ")) {
    const size_t before = strlen("cp -r ");
    fs::copy(command.substr(before, last - before), second, fs::copy_options::recursive);
  }
  if (command.starts_with("rm -fr ")) fs::remove_all(second);
  return 0;
}

bool copies(const std::string& command, const std::string& name) {
  return command.starts_with("cp -r ") && command.ends_with("/" + name);
}

// A repository whose disks are as full as the test says, with a recorded log and a shell and a clock of its own.
class Scene {
 public:
  explicit Scene(const Lines& mountNames, const std::string& settings = "") : repository(mountNames, settings) {}

  // Built by the first call; what was logged until then does not count.
  KTRepositoryHandler& handler() {
    if (!made) {
      made = std::make_unique<KTRepositoryHandler>(repository.id());
      log.lines.clear();
    }
    return *made;
  }
  KTMountPointHandler* mount(size_t index) { return handler().mountPoints[index]; }

  std::string pass(bool verbose = true) {
    KTRepositoryHandler& built = handler();
    log.lines.clear();
    return outputOf([&] { built.checkOverload(verbose); });
  }

  // The usage is asked for at each probe.
  void used(size_t index, const std::function<double()>& percent) {
    disks.answerWith(repository.mount(index), [percent](struct statvfs* out) {
      *out = spaceUsed(percent());
      return 0;
    });
  }
  void used(size_t index, double percent) { disks.setUsed(repository.mount(index), percent); }
  // `base` percent, and `each` percent for every resource that is there.
  void usedByResources(size_t index, double base, double each) {
    used(index, [=, this] { return base + each * static_cast<double>(resources(index).size()); });
  }

  // The names of the resources on a mount, sorted. Does not read the resources, so that their times stay.
  Lines resources(size_t index) const {
    constexpr int kResourceDepth = 3;
    Lines names;
    for (fs::recursive_directory_iterator entry(repository.mount(index)), end; entry != end; ++entry) {
      if (entry.depth() != kResourceDepth) continue;
      names.push_back(entry->path().filename().string());
      entry.disable_recursion_pending();
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // The log since the handler was built, or since the last pass began, each line with its level: "E ", "I ", "D ".
  Lines logged() const {
    Lines lines;
    for (const LogLine& line : log.lines) {
      const char* level = line.priority == LOG_ERR     ? "E "
                          : line.priority == LOG_INFO  ? "I "
                          : line.priority == LOG_DEBUG ? "D "
                                                       : "? ";
      lines.push_back(level + line.text);
    }
    return lines;
  }

  // How a resource's path reads below every mount.
  std::string relative(const std::string& name) const {
    return repository.resourcePath(0, name).substr(repository.mount(0).size());
  }
  std::string at(size_t index, const std::string& name) const { return repository.mount(index) + relative(name); }

  void hold(const std::string& resource) const { writeFile(repository.lockFile(repository.lockName(resource)), ""); }
  // Holds the resource's lock, and when a pass waits for it does `action` and gives the lock back.
  void whileWaitingFor(const std::string& resource, const std::function<void()>& action) {
    hold(resource);
    clock.onSleep = [=, this] {
      if (fs::remove(repository.lockFile(repository.lockName(resource)))) action();
    };
  }

  TestRepository repository;
  FakeDisks disks;
  FakeShell shell;
  FakeClock clock;
  FakeSyslog log;

 private:
  std::unique_ptr<KTRepositoryHandler> made;
};

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string notLocked(const Scene& scene, const std::string& resource) {
  return "The resource " + quoted(scene.repository.lockName(resource)) + " could not be locked.";
}

std::string checking(const Scene& scene) { return "checking repository " + scene.repository.path() + "\n"; }

std::string checkingMount(const Scene& scene, size_t index) {
  return "checking mount " + scene.repository.mount(index) + "\n";
}

std::string cleaningMount(const Scene& scene, size_t index) {
  return checkingMount(scene, index) + "trying to clean mount " + scene.repository.mount(index) + "\n";
}

std::string needsNothing(const Scene& scene, size_t index, const std::string& usedText, int moveLimit = 99) {
  return checkingMount(scene, index) + "mount does not need maintenance (moveLimit=" + std::to_string(moveLimit) +
         ", used=" + usedText + ")\n";
}

std::string moving(const Scene& scene, const std::string& name, size_t from, size_t to) {
  return "CheckOverload moves " + scene.at(from, name) + " to " + scene.at(to, name) +
         "\nCheckOverload: Last access/modification time of the resource: " + kLongAgoText + "\n";
}

std::string deleting(const Scene& scene, const std::string& name, size_t index) {
  return "Deleting resource: " + scene.at(index, name) +
         "\nLast access/modification time of the resource: " + kLongAgoText + "\n";
}

std::string logDetected(const Scene& scene, size_t index) {
  return "D CheckOverload detected " + scene.repository.mount(index) + " has to be clean";
}

std::string logMoves(const Scene& scene, const std::string& name, size_t from, size_t to) {
  return "I CheckOverload moves " + scene.at(from, name) + " to " + scene.at(to, name);
}

std::string logDeletes(const Scene& scene, const std::string& name, size_t index, size_t treated) {
  return "I CheckOverload deletes resource: " + scene.at(index, name) +
         " when cleaning mount: " + scene.repository.mount(treated);
}

const std::string kLogLastUse =
    std::string("I CheckOverload: Last access/modification time of the resource: ") + kLongAgoText;

std::string logGivesUp(const Scene& scene, size_t index) {
  return "E CheckOverload gives up on " + scene.repository.mount(index) + ": nothing could be moved or deleted";
}

long countOf(const Lines& lines, const std::string& wanted) { return std::count(lines.begin(), lines.end(), wanted); }

std::string lastOf(const Lines& lines) { return lines.empty() ? "" : lines.back(); }

std::string numbered(const std::string& prefix, int number) {
  const std::string digits = std::to_string(number);
  return prefix + std::string(4 - digits.size(), '0') + digits;
}

// How many locks of resources "r..." `body` takes before the first listing of mount 0, and after each: the sizes of its
// batches.
std::vector<long> locksBetweenListings(const Scene& scene, const std::function<void()>& body) {
  const std::string listing = "opendir " + scene.repository.mount(0);
  const std::string lock = "open " + scene.repository.lockFile(scene.repository.lockName("r"));
  const CallWatch watch;
  body();
  std::vector<long> locks = {0};
  for (const std::string& call : watch.calls) {
    if (call == listing) locks.push_back(0);
    if (call.starts_with(lock)) ++locks.back();
  }
  return locks;
}

}  // namespace

// The repository's lock

TEST(BalancerTest, SaysAndLogsThatTheRepositoryIsLockedByAnother) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "old", "content", kLongAgo);
  scene.handler();
  scene.hold("");
  const std::string text = "The repository " + quoted(scene.repository.path()) + " could not be locked.";
  EXPECT_EQ(scene.pass(), checking(scene) + text + "\n");
  EXPECT_THAT(scene.logged(), ElementsAre("E " + text));
  EXPECT_THAT(scene.resources(0), ElementsAre("old"));
}

TEST(BalancerTest, LogsThatTheRepositoryIsLockedByAnotherAndPrintsNothingWhenNotVerbose) {
  Scene scene({"d1"});
  scene.used(0, 99.5);
  scene.handler();
  scene.hold("");
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(),
              ElementsAre("E The repository " + quoted(scene.repository.path()) + " could not be locked."));
}

TEST(BalancerTest, WaitsThirtySecondsForTheRepositoryAndLeavesTheLockOfTheOther) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.handler();
  scene.clock.pauses.clear();
  scene.hold("");
  scene.pass();
  const long waited = std::accumulate(scene.clock.pauses.begin(), scene.clock.pauses.end(), 0L);
  EXPECT_GE(waited, 30000);
  EXPECT_LT(waited - scene.clock.pauses.back(), 30000);
  EXPECT_THAT(scene.repository.locksLeft(), ElementsAre("semaphore_" + scene.repository.lockName("")));
}

TEST(BalancerTest, GoesOnWhenTheRepositoryIsUnlockedWhileItWaits) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.handler();
  scene.whileWaitingFor("", [] {});
  EXPECT_EQ(scene.pass(), checking(scene) + needsNothing(scene, 0, "10.000000"));
}

TEST(BalancerTest, CountsALockFileThatCannotBeMadeAsNotLocked) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.handler();
  const FailingCall noLock("open", EACCES, scene.repository.lockFile(scene.repository.lockName("")));
  const std::string text = "The repository " + quoted(scene.repository.path()) + " could not be locked.";
  EXPECT_EQ(scene.pass(), checking(scene) + text + "\n");
  EXPECT_THAT(scene.clock.pauses, IsEmpty());
}

TEST(BalancerTest, AsksNoDiskWhileTheRepositoryIsNotItsOwn) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.handler();
  const int before = scene.disks.calls(scene.repository.mount(0));
  scene.hold("");
  scene.pass();
  EXPECT_EQ(scene.disks.calls(scene.repository.mount(0)), before);
}

TEST(BalancerTest, HoldsTheRepositoryAroundOneResourceLockAtATime) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 1);
  scene.handler();
  Lines locks;
  {
    CallWatch watch;
    scene.pass();
    locks = watch.locks;
  }
  std::erase_if(locks, [&](const std::string& lock) { return lock.substr(1) == scene.repository.dirtyLockName(); });
  const auto name = [&](const char* resource) { return scene.repository.lockName(resource); };
  EXPECT_THAT(locks, ElementsAre("+" + name(""), "+" + name("a"), "-" + name("a"), "+" + name("b"), "-" + name("b"),
                                 "-" + name("")));
}

TEST(BalancerTest, UnlocksTheRepositoryAlsoWhenItIsFull) {
  Scene scene({"d1"});
  scene.used(0, 99.5);
  scene.pass();
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

// Which mounts are treated

TEST(BalancerTest, LeavesAMountBelowItsMoveLimitAlone) {
  TestRepository repository({"d1", "d2"});
  FakeDisks disks;
  disks.setUsed(repository.mount(0), 98.5);
  disks.setUsed(repository.mount(1), 10);
  repository.place(0, "old", "content", kLongAgo);
  FakeShell shell;
  FakeSyslog log;
  const std::string output = outputOf([&] { checkOverload_(repository.id(), true); });
  EXPECT_EQ(output, "checking repository " + repository.path() + "\nchecking mount " + repository.mount(0) +
                        "\nmount does not need maintenance (moveLimit=99, used=98.500000)\nchecking mount " +
                        repository.mount(1) + "\nmount does not need maintenance (moveLimit=99, used=10.000000)\n");
  EXPECT_TRUE(shell.commands.empty());
  EXPECT_TRUE(repository.locksLeft().empty());
}

TEST(BalancerTest, LogsNothingAboutMountsThatNeedNoMaintenance) {
  Scene scene({"d1", "d2"});
  scene.used(0, 98.5);
  scene.used(1, 10);
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(), IsEmpty());
}

TEST(BalancerTest, SaysThatAMissingMountIsUnmounted) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "old", "content", kLongAgo);
  scene.repository.takeOut(0);
  EXPECT_EQ(scene.pass(),
            checking(scene) + checkingMount(scene, 0) + "mount is unmounted\n" + needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.logged(), IsEmpty());
  EXPECT_THAT(scene.resources(0), ElementsAre("old"));
}

TEST(BalancerTest, TakesAMountWhoseFileSystemCannotBeAskedAsUnmounted) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.handler();
  scene.disks.fail(scene.repository.mount(0), EIO);
  EXPECT_EQ(scene.pass(),
            checking(scene) + checkingMount(scene, 0) + "mount is unmounted\n" + needsNothing(scene, 1, "10.000000"));
}

TEST(BalancerTest, SaysUnmountedForEveryMountOfARepositoryWithoutPresentMounts) {
  Scene scene({"d1", "d2"});
  scene.repository.takeOut(0);
  scene.repository.takeOut(1);
  EXPECT_EQ(scene.pass(), checking(scene) + checkingMount(scene, 0) + "mount is unmounted\n" + checkingMount(scene, 1) +
                              "mount is unmounted\n");
}

TEST(BalancerTest, FindsNothingToCheckInARepositoryThatDoesNotExist) {
  const TestRepository lockPlace({"d1"});
  FakeSyslog log;
  KTRepositoryHandler handler((lockPlace.scratch() + "/nowhere").c_str());
  EXPECT_EQ(outputOf([&] { handler.checkOverload(true); }), "checking repository \n");
  EXPECT_THAT(log.texts(), IsEmpty());
  EXPECT_THAT(lockPlace.locksLeft(), IsEmpty());
}

TEST(BalancerTest, DrainsAMountThatIsExactlyAtItsMoveLimit) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 98, 0.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 1);
  scene.pass();
  EXPECT_THAT(scene.resources(0), IsEmpty());
}

TEST(BalancerTest, FollowsTheLimitsOfTheMountsOwnConfiguration) {
  Scene scene({"d1", "d2"});
  scene.repository.configureMount(0, "moveLimit=60\ncleanLimit=50\n");
  scene.usedByResources(0, 48, 4);
  scene.used(1, 65);
  for (int i = 0; i < 3; ++i) scene.repository.place(0, numbered("r", i), "content", kLongAgo + i);
  const std::string output = scene.pass();
  EXPECT_THAT(scene.resources(0), IsEmpty()) << "60 is the move limit, and 52 is above the clean limit";
  EXPECT_THAT(output, HasSubstr("(moveLimit=60, used=56.000000)\n"));
  EXPECT_THAT(output, HasSubstr("(moveLimit=60, used=48.000000)\n"));
}

TEST(BalancerTest, NeverTreatsAMountWhoseMoveLimitIsZero) {
  Scene scene({"d1", "d2"}, "moveLimit=0\n");
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "old", "content", kLongAgo);
  EXPECT_EQ(scene.pass(),
            checking(scene) + needsNothing(scene, 0, "99.500000", 0) + needsNothing(scene, 1, "10.000000", 0));
  EXPECT_THAT(scene.resources(0), ElementsAre("old"));
}

TEST(BalancerTest, ChangesNothingInAFullRepositoryThatIsNotClearable) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 97);
  scene.repository.place(0, "old", "content", kLongAgo);
  EXPECT_EQ(scene.pass(), checking(scene) + "the repository is full, we can't do anything\n");
  EXPECT_THAT(scene.logged(), IsEmpty());
  EXPECT_THAT(scene.resources(0), ElementsAre("old"));
}

TEST(BalancerTest, PrintsNothingAboutAFullRepositoryWhenNotVerbose) {
  Scene scene({"d1"});
  scene.used(0, 99.5);
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(), IsEmpty());
}

// Moving

TEST(BalancerTest, TellsEachStepOfAPassThatMoves) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 0.75);  // 99.0, then 98.25, then 97.5
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 60);
  const std::string d1 = scene.repository.mount(0);
  const std::string d2 = scene.repository.mount(1);
  const std::string a = scene.relative("a");
  const std::string b = scene.relative("b");
  EXPECT_EQ(scene.pass(), "checking repository " + scene.repository.path() + "\nchecking mount " + d1 +
                              "\ntrying to clean mount " + d1 +
                              "\nCheckOverload tries to move\n"
                              "CheckOverload moves " +
                              d1 + a + " to " + d2 + a +
                              "\n"
                              "CheckOverload: Last access/modification time of the resource: "
                              "Thu Jan  1 00:16:40 1970\n\n"
                              "Move succeeded\n"
                              "(moveLimit=99, used=98.250000)\n"
                              "CheckOverload moves " +
                              d1 + b + " to " + d2 + b +
                              "\n"
                              "CheckOverload: Last access/modification time of the resource: "
                              "Thu Jan  1 00:17:40 1970\n\n"
                              "Move succeeded\n"
                              "(moveLimit=99, used=97.500000)\n"
                              "checking mount " +
                              d2 + "\nmount does not need maintenance (moveLimit=99, used=10.000000)\n");
}

TEST(BalancerTest, LogsEachStepOfAPassThatMoves) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 0.75);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 60);
  scene.pass();
  const std::string d1 = scene.repository.mount(0);
  const std::string d2 = scene.repository.mount(1);
  const std::string a = scene.relative("a");
  const std::string b = scene.relative("b");
  EXPECT_THAT(
      scene.logged(),
      ElementsAre("D CheckOverload detected " + d1 + " has to be clean", "D CheckOverload tries to move",
                  "I CheckOverload moves " + d1 + a + " to " + d2 + a,
                  "I CheckOverload: Last access/modification time of the resource: Thu Jan  1 00:16:40 1970\n",
                  "I CheckOverload moves " + d1 + b + " to " + d2 + b,
                  "I CheckOverload: Last access/modification time of the resource: Thu Jan  1 00:17:40 1970\n"));
}

TEST(BalancerTest, LogsTheSameAndPrintsNothingWhenNotVerbose) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move",
                                          logMoves(scene, "a", 0, 1), kLogLastUse));
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
}

TEST(BalancerTest, MovesTheContentAndKeepsTheTimes) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "what it holds", kLongAgo);
  scene.pass();
  EXPECT_EQ(modificationTime(scene.at(1, "a")), kLongAgo);
  EXPECT_EQ(accessTime(scene.at(1, "a")), kLongAgo);
  EXPECT_EQ(readFile(scene.at(1, "a") + "/content"), "what it holds");
}

TEST(BalancerTest, RemovesTheHashDirectoriesThatAMoveLeavesEmpty) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.pass();
  EXPECT_THAT(treeOf(scene.repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

TEST(BalancerTest, DrainsAMountUntilItIsBelowItsCleanLimitNotMerelyItsMoveLimit) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97, 0.5);
  scene.used(1, 10);
  for (int i = 0; i < 5; ++i) scene.repository.place(0, numbered("r", i), "content", kLongAgo + i);
  scene.pass();
  // 99.5, 99.0, 98.5, 98.0 are at or above the clean limit; 97.5 is below.
  EXPECT_THAT(scene.resources(0), ElementsAre("r0004"));
  EXPECT_THAT(scene.resources(1), ElementsAre("r0000", "r0001", "r0002", "r0003"));
}

TEST(BalancerTest, MovesTheOldestFirstAndOfOneAgeTheLastPathFirst) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  // Below the mount: a is BC/6J/AJ/a and abc is 1W/H6/HW/abc.
  scene.repository.place(0, "abc", "content", kLongAgo + 5);
  scene.repository.place(0, "a", "content", kLongAgo + 5);
  scene.repository.place(0, "12345", "content", kLongAgo);
  scene.pass(false);
  Lines moves = scene.logged();
  std::erase_if(moves, [](const std::string& line) { return !line.starts_with("I CheckOverload moves "); });
  EXPECT_THAT(moves,
              ElementsAre(logMoves(scene, "12345", 0, 1), logMoves(scene, "a", 0, 1), logMoves(scene, "abc", 0, 1)));
}

TEST(BalancerTest, NeverMovesWhatWasUsedWithinNomoveTime) {
  Scene scene({"d1", "d2"}, "nomoveTimeSeconds=500\n");
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "young", "content", scene.clock.now - 499);
  scene.repository.place(0, "old", "content", scene.clock.now - 500);
  scene.pass();
  EXPECT_THAT(scene.resources(0), ElementsAre("young"));
  EXPECT_THAT(scene.resources(1), ElementsAre("old"));
}

TEST(BalancerTest, MovesResourcesThatArePlainFiles) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "bytes", kLongAgo);
  scene.pass();
  EXPECT_EQ(readFile(scene.at(1, "a")), "bytes");
  EXPECT_THAT(scene.resources(0), IsEmpty());
}

TEST(BalancerTest, SaysThatThereIsNoOldResourceAndGoesOnToTheNextMount) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "young");
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "CheckOverload tries to move\nno old resource found on mount " +
                              scene.repository.mount(0) + "\n" + needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.logged(),
              ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move", "D no old resource found"));
}

// A mount may be over limits of its own while all others are past their switch limit.
TEST(BalancerTest, DoesAndSaysNothingFurtherWhenNoMountCanTakeWhatHasToMove) {
  Scene scene({"d1", "d2"});
  scene.repository.configureMount(0, "moveLimit=50\ncleanLimit=40\n");
  scene.used(0, 60);
  scene.used(1, 96);
  scene.repository.place(0, "old", "content", kLongAgo);
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) + needsNothing(scene, 1, "96.000000"));
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0)));
  EXPECT_THAT(scene.resources(0), ElementsAre("old"));
}

TEST(BalancerTest, ChoosesTheTargetAnewAfterEachMove) {
  Scene scene({"d1", "d2", "d3"});
  scene.used(0, 99.5);
  scene.usedByResources(1, 94, 1);  // at its switch limit after one
  scene.used(2, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 1);
  scene.pass();
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
  EXPECT_THAT(scene.resources(2), ElementsAre("b"));
}

TEST(BalancerTest, ChoosesTheTargetAnewAlsoAfterAMoveThatFailed) {
  Scene scene({"d1", "d2", "d3"});
  bool filled = false;
  scene.used(0, 99.5);
  scene.used(1, [&] { return filled ? 97.5 : 10.0; });
  scene.used(2, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 1);
  scene.shell.answer = [&](const std::string& command) {
    if (!copies(command, "a") || std::exchange(filled, true)) return FakeShell::runReal(command);
    return kCommandFailed;
  };
  scene.pass();
  EXPECT_THAT(scene.resources(1), IsEmpty());
  EXPECT_THAT(scene.resources(2), ElementsAre("a", "b")) << "a comes again in the next batch";
}

TEST(BalancerTest, DrainsAMountOntoMountZero) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.usedByResources(1, 97.5, 0.75);
  scene.repository.place(1, "a", "content", kLongAgo);
  scene.repository.place(1, "b", "content", kLongAgo);
  scene.pass();
  EXPECT_THAT(scene.resources(0), ElementsAre("a", "b"));
  EXPECT_THAT(scene.resources(1), IsEmpty());
}

TEST(BalancerTest, StopsMovingWithoutAWordWhenNoMountCanTakeMore) {
  Scene scene({"d1", "d2", "d3"});
  scene.used(0, 99.5);
  scene.used(1, 99.25);
  scene.usedByResources(2, 90, 7.5);
  for (int i = 0; i < 3; ++i) scene.repository.place(0, numbered("r", i), "content", kLongAgo);
  scene.repository.place(1, "other", "content", kLongAgo);
  const std::string output = scene.pass();
  EXPECT_THAT(scene.resources(0), SizeIs(2));
  EXPECT_THAT(scene.resources(2), SizeIs(1));
  // The repository is full by now, so the second mount is not drained; the third is full, but does not need it.
  EXPECT_TRUE(output.ends_with("Move succeeded\n(moveLimit=99, used=99.500000)\n" + cleaningMount(scene, 1) +
                               needsNothing(scene, 2, "97.500000")))
      << output;
  EXPECT_THAT(scene.logged(), Not(Contains(StartsWith("E "))));
  EXPECT_EQ(lastOf(scene.logged()), logDetected(scene, 1));
}

// The last probe decides; room that comes in the same moment is the next pass's.
TEST(BalancerTest, LeavesTheNextMountAloneWhenTheLastMoveTookTheLastRoom) {
  Scene scene({"d1", "d2", "d3"});
  scene.used(0, 99.5);
  scene.used(1, 99.25);
  bool wasFull = false;
  scene.used(2, [&] { return isThere(scene.at(2, "a")) && !std::exchange(wasFull, true) ? 97.5 : 50.0; });
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(1, "other", "content", kLongAgo);
  scene.pass(false);
  EXPECT_THAT(scene.resources(1), ElementsAre("other"));
  EXPECT_THAT(scene.resources(2), ElementsAre("a"));
}

TEST(BalancerTest, DrainsEveryMountThatNeedsItInOrder) {
  Scene scene({"d1", "d2", "d3"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.usedByResources(1, 97.5, 1.5);
  scene.used(2, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(1, "b", "content", kLongAgo);
  scene.pass();
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move",
                                          logMoves(scene, "a", 0, 2), kLogLastUse, logDetected(scene, 1),
                                          "D CheckOverload tries to move", logMoves(scene, "b", 1, 2), kLogLastUse));
}

TEST(BalancerTest, LeavesAResourceThatWasUsedWhileItWaitedForTheLockWhereItWas) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { setTimes(scene.at(0, "a"), scene.clock.now); });
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "CheckOverload tries to move\nResource touched while checking: " + scene.at(0, "a") +
                              "\n" + needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move"))
      << "no line in the log for a touched resource";
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

TEST(BalancerTest, TakesAnOlderTimeThanListedAsATouchToo) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { setTimes(scene.at(0, "a"), kLongAgo - 1); });
  const std::string output = scene.pass();
  EXPECT_THAT(output, HasSubstr("Resource touched while checking: " + scene.at(0, "a") + "\n"));
  EXPECT_THAT(scene.resources(1), ElementsAre("a")) << "the next batch lists it with its new time";
}

TEST(BalancerTest, SkipsAResourceThatAnotherProcessRemovedMeanwhile) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { fs::remove_all(scene.at(0, "a")); });
  EXPECT_THAT(scene.pass(), HasSubstr("Resource touched while checking: " + scene.at(0, "a") + "\n"));
  EXPECT_THAT(scene.shell.commands, IsEmpty());
}

TEST(BalancerTest, SkipsAResourceThatIsLockedByAnotherAndMovesTheNext) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 96.5, 1.25);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo - 1);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.handler();
  scene.hold("a");
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) + "CheckOverload tries to move\n" +
                              notLocked(scene, "a") + "\n" + moving(scene, "b", 0, 1) +
                              "Move succeeded\n(moveLimit=99, used=97.750000)\n" + needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move",
                                          "E " + notLocked(scene, "a"), logMoves(scene, "b", 0, 1), kLogLastUse));
  EXPECT_GE(scene.clock.pauses.size(), 31U) << "thirty seconds of pauses below one second";
}

TEST(BalancerTest, OnlyLogsThatAResourceCouldNotBeLockedWhenNotVerbose) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 96.5, 1.25);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo - 1);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.handler();
  scene.hold("a");
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(), Contains("E " + notLocked(scene, "a")).Times(1));
}

TEST(BalancerTest, MarksAResourceWhoseMoveRanIntoAConflictAsDirtyByItsPath) {
  Scene scene({"d1", "d2"});
  scene.used(0, [&] { return isThere(scene.at(0, "b")) ? 99.0 : 97.5; });
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "mine", kLongAgo);
  scene.repository.placeFile(1, "a", "theirs", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 60);
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) + "CheckOverload tries to move\n" +
                              moving(scene, "a", 0, 1) +
                              "Conflict prevented resource move\n(moveLimit=99, used=99.000000)\n"
                              "CheckOverload moves " +
                              scene.at(0, "b") + " to " + scene.at(1, "b") +
                              "\nCheckOverload: Last access/modification time of the resource: "
                              "Thu Jan  1 00:17:40 1970\n\nMove succeeded\n(moveLimit=99, used=97.500000)\n" +
                              needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(
      scene.logged(),
      ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move", logMoves(scene, "a", 0, 1), kLogLastUse,
                  "E The resource " + quoted(scene.at(0, "a")) + " conflicts with " + quoted(scene.at(1, "a")) + ".",
                  logMoves(scene, "b", 0, 1),
                  "I CheckOverload: Last access/modification time of the resource: Thu Jan  1 00:17:40 1970\n"));
  EXPECT_EQ(scene.repository.dirtySet(), scene.at(0, "a") + "\n");
  EXPECT_EQ(readFile(scene.at(0, "a")), "mine");
  EXPECT_EQ(readFile(scene.at(1, "a")), "theirs");
}

TEST(BalancerTest, SaysThatAMoveFailedAndGoesOnWithTheNext) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 96.5, 1.25);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo - 1);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.shell.answer = [](const std::string& command) {
    return copies(command, "a") ? kCommandFailed : FakeShell::runReal(command);
  };
  EXPECT_THAT(scene.pass(), HasSubstr("Move failed (Maybe out of space?)\n(moveLimit=99, used=99.000000)\n" +
                                      moving(scene, "b", 0, 1) + "Move succeeded\n"));
  const Lines log = scene.logged();
  ASSERT_THAT(log, SizeIs(8));
  EXPECT_EQ(log[2], logMoves(scene, "a", 0, 1));
  EXPECT_THAT(log[4], StartsWith("E The resource " + quoted(scene.at(0, "a")) + " could not be renamed to " +
                                 quoted(scene.at(1, "a")) + ". Error code is "));
  EXPECT_EQ(log[5], "D Nospaceleft? checkoverload couldn't move");
  EXPECT_EQ(log[6], logMoves(scene, "b", 0, 1));
  EXPECT_EQ(log[7], kLogLastUse);
  EXPECT_EQ(scene.repository.dirtySet(), "") << "a failure leaves no mark";
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(BalancerTest, PrintsNothingAboutConflictsAndFailuresWhenNotVerbose) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "mine", kLongAgo);
  scene.repository.placeFile(1, "a", "theirs", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.shell.answer = [](const std::string&) { return kCommandFailed; };
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_EQ(scene.repository.dirtySet(), scene.at(0, "a") + "\n");
  EXPECT_THAT(scene.resources(0), ElementsAre("a", "b"));
}

TEST(BalancerTest, MovesBatchAfterBatchOfAHundred) {
  constexpr int kResources = 203;
  Scene scene({"d1", "d2"});
  scene.used(0, [&] { return isThere(scene.at(0, numbered("r", kResources - 1))) ? 99.0 : 97.5; });
  scene.used(1, 10);
  for (int i = 0; i < kResources; ++i) scene.repository.placeFile(0, numbered("r", i), "content", kLongAgo + i);
  scene.shell.answer = runInProcess;
  scene.handler();
  EXPECT_THAT(locksBetweenListings(scene, [&] { scene.pass(false); }), ElementsAre(0, 100, 100, 3));
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), SizeIs(kResources));
}

TEST(BalancerTest, EndsTheMovesWhenTheMountGoesAwayAmongThem) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.shell.answer = [&](const std::string& command) {
    if (command.starts_with("cp ")) scene.repository.takeOut(0);
    return FakeShell::runReal(command);
  };
  const std::string output = scene.pass();
  EXPECT_THAT(scene.resources(0), SizeIs(1));
  EXPECT_TRUE(
      output.ends_with("Move succeeded\n(moveLimit=99, used=99.500000)\n" + needsNothing(scene, 1, "10.000000")))
      << output;
}

TEST(BalancerTest, EndsTheMovesWhenTheMountIsAwayAtTheNextBatch) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] {
    setTimes(scene.at(0, "a"), kLongAgo + 1);
    scene.repository.takeOut(0);
  });
  EXPECT_EQ(scene.handler().moveResourcesFromMount(scene.mount(0), false), 0);
  EXPECT_EQ(scene.mount(0)->status, MOUNT_MISSING);
  EXPECT_THAT(scene.logged(), ElementsAre("D CheckOverload tries to move"));
}

TEST(BalancerTest, LocatesADirtyResourceInsteadOfMovingIt) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.writeDirtySet("a\n");
  EXPECT_THAT(scene.pass(), HasSubstr("no old resource found on mount " + scene.repository.mount(0) + "\n"));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_EQ(scene.repository.dirtySet(), "") << "every copy was seen";
}

// Rounds without success

TEST(BalancerTest, GivesUpMovingAfterThreeBatchesWithoutSuccess) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.shell.answer = [](const std::string&) { return kCommandFailed; };
  scene.pass();
  EXPECT_EQ(countOf(scene.logged(), logMoves(scene, "a", 0, 1)), 3);
  EXPECT_EQ(lastOf(scene.logged()), logGivesUp(scene, 0));
  EXPECT_THAT(scene.logged(), Contains(StartsWith("E CheckOverload gives up")).Times(1));
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

TEST(BalancerTest, CountsBatchesWithoutSuccessFromTheLastSuccess) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 1);
  int failures = 2;  // of b
  scene.shell.answer = [&](const std::string& command) {
    if (copies(command, "a") || (copies(command, "b") && failures-- > 0)) return kCommandFailed;
    return FakeShell::runReal(command);
  };
  scene.pass(false);
  EXPECT_THAT(scene.resources(1), ElementsAre("b"));
  EXPECT_EQ(countOf(scene.logged(), logMoves(scene, "a", 0, 1)), 6) << "three with b, and three after its success";
  EXPECT_EQ(countOf(scene.logged(), logGivesUp(scene, 0)), 1);
}

TEST(BalancerTest, GivesUpMovingWhenEveryResourceStaysLocked) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.hold("a");
  scene.pass(false);
  const std::string line = "E " + notLocked(scene, "a");
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D CheckOverload tries to move", line, line, line,
                                          logGivesUp(scene, 0)));
}

TEST(BalancerTest, GoesOnWithTheNextMountAfterItGaveUp) {
  Scene scene({"d1", "d2", "d3"});
  scene.used(0, 99.5);
  scene.usedByResources(1, 97.5, 1.5);
  scene.used(2, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.repository.placeFile(1, "b", "content", kLongAgo);
  scene.shell.answer = [](const std::string& command) {
    return copies(command, "a") ? kCommandFailed : FakeShell::runReal(command);
  };
  scene.pass(false);
  EXPECT_THAT(scene.resources(2), ElementsAre("b"));
}

TEST(BalancerTest, GivesUpOnAFullRepositoryAfterThreeSweepsThatDeleteNothing) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.used(1, 97.5);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.handler();
  const FailingCall stuck("remove", EACCES, "/a");
  scene.pass();
  EXPECT_EQ(stuck.failed(), 3);
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAre(scene.at(0, "a"), scene.at(0, "a"), scene.at(0, "a")));
  EXPECT_EQ(lastOf(scene.logged()), logGivesUp(scene, 0));
  EXPECT_THAT(scene.logged(), Contains(StartsWith("E CheckOverload gives up")).Times(1));
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

TEST(BalancerTest, CountsSweepsThatDeleteNothingFromTheLastSuccess) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.used(1, 97.5);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 1);
  scene.handler();
  const FailingCall stuck("remove", EACCES, "/a");
  const FailingCall slow("remove", EBUSY, "/b", 0, 2);
  scene.pass(false);
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_EQ(stuck.failed(), 6) << "three with b, and three after its success";
  EXPECT_EQ(countOf(scene.logged(), logGivesUp(scene, 0)), 1);
}

// With a cleanLimit above the moveLimit a mount can need treatment while no move helps it.
TEST(BalancerTest, GivesUpOnAClearableRepositoryAfterThreeCyclesThatChangeNothing) {
  Scene scene({"d1", "d2"}, "isClearable=true\nmoveLimit=90\n");
  scene.used(0, 95);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.pass(false);
  EXPECT_EQ(countOf(scene.logged(), "D Trying to move instead of cleaning first..."), 3);
  EXPECT_EQ(lastOf(scene.logged()), logGivesUp(scene, 0));
  EXPECT_THAT(scene.logged(), Contains(StartsWith("E CheckOverload gives up")).Times(1));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(BalancerTest, InTheSafeModeGivesUpOnAClearableRepositoryAfterOneCycleThatTriesNothing) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  Scene scene({"d1", "d2"}, "isClearable=true\nmoveLimit=90\n");
  scene.used(0, 95);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.pass(false);
  EXPECT_EQ(countOf(scene.logged(), "D Trying to move instead of cleaning first..."), 1);
  EXPECT_EQ(lastOf(scene.logged()), logGivesUp(scene, 0));
  EXPECT_THAT(scene.logged(), Contains(StartsWith("E CheckOverload gives up")).Times(1));
}

TEST(BalancerTest, InTheSafeModeACycleThatMovesIsFollowedByAnother) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  Scene scene({"d1", "d2"}, "isClearable=true\nmoveLimit=90\n");
  scene.used(0, [&] { return isThere(scene.at(0, "a")) ? 98.5 : 95.0; });
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 1);
  scene.pass(false);
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
  EXPECT_EQ(countOf(scene.logged(), "D Trying to move instead of cleaning first..."), 2);
  EXPECT_EQ(lastOf(scene.logged()), logGivesUp(scene, 0));
}

TEST(BalancerTest, CountsCyclesThatChangeNothingFromTheLastSuccess) {
  Scene scene({"d1", "d2"}, "isClearable=true\nmoveLimit=90\n");
  const auto cycles = [&] { return countOf(scene.logged(), "D Trying to move instead of cleaning first..."); };
  // In the third cycle the mount is above its clean limit until a is off it.
  scene.used(0, [&] { return cycles() == 3 && isThere(scene.at(0, "a")) ? 98.5 : 95.0; });
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 1);
  scene.pass(false);
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
  EXPECT_EQ(cycles(), 6);
  EXPECT_EQ(countOf(scene.logged(), logGivesUp(scene, 0)), 1);
}

TEST(BalancerTest, EndsAPassOverAClearableRepositoryInWhichNoMoveSucceeds) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.shell.answer = [](const std::string&) { return kCommandFailed; };
  scene.pass(false);
  EXPECT_THAT(scene.logged(), Contains(logGivesUp(scene, 0)).Times(1));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

// moveResourcesFromMount by itself

TEST(MoveResourcesFromMountTest, AnswersOneAndLogsNothingWithoutATarget) {
  Scene scene({"d1"});
  scene.used(0, 99.5);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  int result = -1;
  EXPECT_EQ(outputOf([&] { result = scene.handler().moveResourcesFromMount(scene.mount(0), true); }), "");
  EXPECT_EQ(result, 1);
  EXPECT_THAT(scene.logged(), IsEmpty());
}

TEST(MoveResourcesFromMountTest, AnswersOneWithoutAnOldResource) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.handler();
  int result = -1;
  EXPECT_EQ(outputOf([&] { result = scene.handler().moveResourcesFromMount(scene.mount(0), false); }), "");
  EXPECT_EQ(result, 1);
  EXPECT_THAT(scene.logged(), ElementsAre("D CheckOverload tries to move", "D no old resource found"));
}

TEST(MoveResourcesFromMountTest, AnswersOneForAMissingMount) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.repository.takeOut(0);
  EXPECT_EQ(scene.handler().moveResourcesFromMount(scene.mount(0), false), 1);
  EXPECT_THAT(scene.logged(), ElementsAre("D CheckOverload tries to move", "D no old resource found"));
}

TEST(MoveResourcesFromMountTest, AnswersZeroAndMovesNothingOffAMountBelowItsCleanLimit) {
  Scene scene({"d1", "d2"});
  scene.used(0, 97.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  int result = -1;
  EXPECT_EQ(outputOf([&] { result = scene.handler().moveResourcesFromMount(scene.mount(0), true); }),
            "CheckOverload tries to move\n");
  EXPECT_EQ(result, 0);
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(MoveResourcesFromMountTest, AnswersZeroAfterMovesAndTakesNoRepositoryLock) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 0.5);  // 98.0: at the clean limit, below the move limit
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  CallWatch watch;
  EXPECT_EQ(scene.handler().moveResourcesFromMount(scene.mount(0), false), 0);
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
  EXPECT_THAT(watch.locks, Not(Contains("+" + scene.repository.lockName(""))));
}

TEST(MoveResourcesFromMountTest, RefusesANullMount) {
  Scene scene({"d1"});
  scene.used(0, 10);
  EXPECT_THROW(scene.handler().moveResourcesFromMount(nullptr, false), KTAssertionException);
}

// Clearable repositories

TEST(ClearableBalancerTest, MovesWhileTheRepositoryHasRoomAndTellsEachStep) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 1\n"
                              "CheckOverload tries to move\n" +
                              moving(scene, "a", 0, 1) + "Move succeeded\n(moveLimit=99, used=97.500000)\n" +
                              needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.logged(),
              ElementsAre(logDetected(scene, 0), "D global newresnum:100, size:1, backsize:1",
                          "D global newresnum:101, size:1, backsize:1", "D Move limit: 99 Clean limit: 98",
                          "D GlobalOldResources:1", "D Trying to move instead of cleaning first...",
                          "D CheckOverload tries to move", logMoves(scene, "a", 0, 1), kLogLastUse));
  EXPECT_THAT(scene.handler().deletedDirs, IsEmpty());
}

TEST(ClearableBalancerTest, LogsTheSameAndPrintsNothingWhenNotVerbose) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "a")) ? 99.5 : 50.0; });
  scene.repository.place(0, "a", "content", kLongAgo);
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D global newresnum:100, size:1, backsize:1",
                                          "D Move limit: 99 Clean limit: 98", "D GlobalOldResources:1",
                                          logDeletes(scene, "a", 0, 0), kLogLastUse));
}

TEST(ClearableBalancerTest, DeletesTheGloballyOldestWhicheverMountHoldsItAndTellsEachStep) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 98.5);
  scene.used(1, [&] { return isThere(scene.at(0, "a")) ? 99.0 : 50.0; });
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(1, "b", "content", kLongAgo + 1);
  EXPECT_EQ(scene.pass(), checking(scene) + needsNothing(scene, 0, "98.500000") + cleaningMount(scene, 1) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 2\n" +
                              deleting(scene, "a", 0));
  EXPECT_THAT(scene.logged(),
              ElementsAre(logDetected(scene, 1), "D global newresnum:100, size:1, backsize:1",
                          "D global newresnum:101, size:2, backsize:2", "D Move limit: 99 Clean limit: 98",
                          "D GlobalOldResources:2", logDeletes(scene, "a", 0, 1), kLogLastUse));
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), ElementsAre("b")) << "there was room again";
}

TEST(ClearableBalancerTest, MovesOnceDeletingHasMadeRoomElsewhere) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, [&] { return isThere(scene.at(1, "oldest")) ? 97.5 : 50.0; });
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(1, "oldest", "content", kLongAgo - 1);
  scene.pass(false);
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAre(scene.at(1, "oldest")));
  EXPECT_THAT(scene.logged(), Contains("D Trying to move instead of cleaning first...").Times(1));
}

TEST(ClearableBalancerTest, RemovesTheHashDirectoriesThatADeletionLeavesEmpty) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "a")) ? 99.5 : 50.0; });
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.pass(false);
  EXPECT_THAT(treeOf(scene.repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

TEST(ClearableBalancerTest, NeverDeletesWhatWasUsedWithinNomoveTime) {
  Scene scene({"d1"}, "isClearable=true\nnomoveTimeSeconds=500\n");
  scene.used(0, 99.5);
  scene.repository.place(0, "young", "content", scene.clock.now - 499);
  scene.repository.place(0, "old", "content", scene.clock.now - 500);
  scene.pass(false);
  EXPECT_THAT(scene.resources(0), ElementsAre("young"));
}

TEST(ClearableBalancerTest, SaysThatThereIsNoGlobalOldResourceAndGoesOnToTheNextMount) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "young");
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nno global old resource found\n" +
                              needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.logged(),
              ElementsAre(logDetected(scene, 0), "D global newresnum:100, size:0, backsize:0",
                          "D global newresnum:100, size:0, backsize:0", "D no global old resource found"));
}

TEST(ClearableBalancerTest, OnlyLogsThatThereIsNoGlobalOldResourceWhenNotVerbose) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, 99.5);
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_EQ(lastOf(scene.logged()), "D no global old resource found");
}

TEST(ClearableBalancerTest, StopsWhenEverythingOldIsDeletedAndThereIsStillNoRoom) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.used(1, 97.5);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(1, "young");
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 1\n" +
                              deleting(scene, "a", 0) + "No other resources found to be deleted...\n" +
                              needsNothing(scene, 1, "97.500000"));
  EXPECT_THAT(scene.logged(),
              ElementsAre(logDetected(scene, 0), "D global newresnum:100, size:1, backsize:1",
                          "D global newresnum:101, size:1, backsize:1", "D Move limit: 99 Clean limit: 98",
                          "D GlobalOldResources:1", logDeletes(scene, "a", 0, 0), kLogLastUse,
                          "D Clearing is not enough...", "D global newresnum:100, size:0, backsize:0",
                          "D global newresnum:100, size:0, backsize:0", "D No other resources found to be deleted..."));
}

TEST(ClearableBalancerTest, ListsTheNextOldestWhenOneSweepIsNotEnough) {
  constexpr int kResources = 103;
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, numbered("r", kResources - 2))) ? 99.5 : 50.0; });
  std::vector<std::string> expected;
  for (int i = 0; i < kResources; ++i) {
    scene.repository.placeFile(0, numbered("r", i), "content", kLongAgo + i);
    if (i < kResources - 1) expected.push_back(scene.at(0, numbered("r", i)));
  }
  scene.pass(false);
  EXPECT_THAT(scene.resources(0), ElementsAre(numbered("r", kResources - 1)));
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAreArray(expected));
  EXPECT_THAT(scene.logged(), Contains("D GlobalOldResources:100").Times(1));
  EXPECT_THAT(scene.logged(), Contains("D Clearing is not enough...").Times(1));
}

// The hundred oldest of all, and the newest of the candidates.
TEST(ClearableBalancerTest, SweepsOverAHundredAndOneResourcesOfSeveralMounts) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, numbered("a", 59))) ? 99.5 : 50.0; });
  scene.used(1, 97.5);
  for (int i = 0; i < 60; ++i) scene.repository.placeFile(0, numbered("a", i), "content", kLongAgo + 2 * i);
  for (int i = 0; i < 60; ++i) scene.repository.placeFile(1, numbered("b", i), "content", kLongAgo + 2 * i + 1);
  scene.pass(false);
  EXPECT_THAT(scene.logged(), Contains("D GlobalOldResources:101").Times(1));
  const std::list<std::string>& deleted = scene.handler().deletedDirs;
  ASSERT_GE(deleted.size(), 101U);
  const auto newest = std::next(deleted.begin(), 100);
  EXPECT_EQ(*std::prev(newest), scene.at(1, numbered("b", 49)));
  EXPECT_EQ(*newest, scene.at(1, numbered("b", 59)));
}

TEST(ClearableBalancerTest, StopsWhenNoMountCanTakeWhatHasToMove) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.repository.configureMount(0, "moveLimit=50\ncleanLimit=40\n");
  scene.used(0, 60);
  scene.used(1, 96);
  scene.repository.place(0, "a", "content", kLongAgo);
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 50 Clean limit: 40\nGlobalOldResources: 1\n" +
                              needsNothing(scene, 1, "96.000000"));
  EXPECT_EQ(lastOf(scene.logged()), "D Trying to move instead of cleaning first...");
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(ClearableBalancerTest, StopsWhenTheOldResourcesAreAllOnOtherMounts) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(1, "a", "content", kLongAgo);
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 1\n"
                              "CheckOverload tries to move\nno old resource found on mount " +
                              scene.repository.mount(0) + "\n" + needsNothing(scene, 1, "10.000000"));
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
}

TEST(ClearableBalancerTest, RunsAnotherCycleWhenTheFirstFilledTheOthers) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "b")) ? 99.0 : 97.5; });
  scene.usedByResources(1, 90, 7.5);  // full after one
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.place(0, "b", "content", kLongAgo + 1);
  scene.pass(false);
  // The first cycle moves a, and then nothing has room; the second deletes it, still the oldest, and moves b.
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), ElementsAre("b"));
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAre(scene.at(1, "a")));
  EXPECT_THAT(scene.logged(), Contains("D Trying to move instead of cleaning first...").Times(2));
}

TEST(ClearableBalancerTest, LeavesAResourceThatWasUsedWhileItWaitedForTheLockWhereItWas) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "b")) ? 99.0 : 50.0; });
  scene.used(1, 97.5);
  scene.repository.place(0, "a", "content", kLongAgo - 1);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { setTimes(scene.at(0, "a"), scene.clock.now); });
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 2\n"
                              "Resource touched while checking: " +
                              scene.at(0, "a") + "\n" + deleting(scene, "b", 0) + needsNothing(scene, 1, "97.500000"));
  EXPECT_THAT(scene.logged(), Contains("D Resource touched:" + scene.at(0, "a")).Times(1));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAre(scene.at(0, "b")));
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

TEST(ClearableBalancerTest, OnlyLogsATouchedResourceWhenNotVerbose) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { setTimes(scene.at(0, "a"), scene.clock.now); });
  EXPECT_EQ(scene.pass(false), "");
  EXPECT_THAT(scene.logged(), Contains("D Resource touched:" + scene.at(0, "a")).Times(1));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(ClearableBalancerTest, SkipsAResourceThatIsLockedByAnotherAndDeletesTheNext) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "b")) ? 99.0 : 50.0; });
  scene.used(1, 97.5);
  scene.repository.place(0, "a", "content", kLongAgo - 1);
  scene.repository.place(0, "b", "content", kLongAgo);
  scene.handler();
  scene.hold("a");
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 2\n" +
                              notLocked(scene, "a") + "\n" + deleting(scene, "b", 0) +
                              needsNothing(scene, 1, "97.500000"));
  EXPECT_THAT(scene.logged(), ElementsAre(logDetected(scene, 0), "D global newresnum:100, size:2, backsize:2",
                                          "D global newresnum:102, size:2, backsize:2",
                                          "D Move limit: 99 Clean limit: 98", "D GlobalOldResources:2",
                                          "E " + notLocked(scene, "a"), logDeletes(scene, "b", 0, 0), kLogLastUse));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(ClearableBalancerTest, MarksAResourceThatCannotBeDeletedAsDirtyByItsPathAndGoesOn) {
  Scene scene({"d1", "d2"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "b")) ? 99.0 : 50.0; });
  scene.used(1, 97.5);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 60);
  scene.handler();
  const FailingCall stuck("remove", EACCES, "/a");
  EXPECT_EQ(scene.pass(), checking(scene) + cleaningMount(scene, 0) +
                              "repository is clearable\nMove limit: 99 Clean limit: 98\nGlobalOldResources: 2\n" +
                              deleting(scene, "a", 0) + "Deleting resource " + scene.at(0, "a") +
                              " failed\nDeleting resource: " + scene.at(0, "b") +
                              "\nLast access/modification time of the resource: Thu Jan  1 00:17:40 1970\n\n" +
                              needsNothing(scene, 1, "97.500000"));
  EXPECT_THAT(
      scene.logged(),
      ElementsAre(logDetected(scene, 0), "D global newresnum:100, size:2, backsize:2",
                  "D global newresnum:102, size:2, backsize:2", "D Move limit: 99 Clean limit: 98",
                  "D GlobalOldResources:2", logDeletes(scene, "a", 0, 0), kLogLastUse,
                  std::string("E The resource ") + quoted(scene.at(0, "a")) + " could not be removed. Error code is " +
                      static_cast<char>(EACCES),
                  "E Resource deleting didn't succeed:" + scene.at(0, "a"), logDeletes(scene, "b", 0, 0),
                  "I CheckOverload: Last access/modification time of the resource: Thu Jan  1 00:17:40 1970\n"));
  EXPECT_EQ(scene.repository.dirtySet(), scene.at(0, "a") + "\n");
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAre(scene.at(0, "a"), scene.at(0, "b")));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(ClearableBalancerTest, ForgetsTheDeletionsOfTheLastPass) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, [&] { return isThere(scene.at(0, "a")) ? 99.5 : 50.0; });
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.pass(false);
  ASSERT_THAT(*scene.handler().getDeletedDirs(), ElementsAre(scene.at(0, "a")));
  scene.pass(false);
  EXPECT_THAT(*scene.handler().getDeletedDirs(), IsEmpty());
}

TEST(ClearableBalancerTest, ForgetsTheDeletionsOfTheLastPassAlsoWhenTheRepositoryIsLocked) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.handler().deletedDirs = {"/from/before"};
  scene.hold("");
  scene.pass(false);
  EXPECT_THAT(scene.handler().deletedDirs, IsEmpty());
}

TEST(ClearableBalancerTest, DeletedDirsAreReachedThroughTheFlatEntry) {
  TestRepository repository({"d1"}, "isClearable=true\n");
  FakeDisks disks;
  const std::string path = repository.place(0, "a", "content", kLongAgo);
  disks.answerWith(repository.mount(0), [path](struct statvfs* out) {
    *out = spaceUsed(isThere(path) ? 99.5 : 50.0);
    return 0;
  });
  FakeSyslog log;
  checkOverload_(repository.id(), false);
  EXPECT_THAT(*getDeletedDirs_(repository.id()), ElementsAre(path));
}

// moveAllResourcesFromMount

TEST(FreeMountTest, MovesEverythingWhateverItsAgeAndAnswersZero) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.repository.placeFile(0, "young", "bytes");
  scene.handler();
  int result = -1;
  EXPECT_EQ(outputOf([&] { result = scene.handler().moveAllResourcesFromMount("d1"); }), "");
  EXPECT_EQ(result, 0);
  EXPECT_THAT(treeOf(scene.repository.mount(0)), ElementsAre("repositorypart.cfg="));
  EXPECT_THAT(scene.resources(1), ElementsAre("a", "young"));
}

TEST(FreeMountTest, LogsEachMoveInDescendingPathOrder) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  // abc is 1W/H6/HW/abc, a is BC/6J/AJ/a, 2009 is FP/IA/L3/2009.
  for (const char* name : {"abc", "2009", "a"}) scene.repository.placeFile(0, name, "content", kLongAgo);
  scene.handler().moveAllResourcesFromMount("d1");
  const auto line = [&](const char* name) {
    return "I EmptyMount moves " + scene.at(0, name) + " to " + scene.at(1, name);
  };
  EXPECT_THAT(scene.logged(), ElementsAre(line("2009"), line("a"), line("abc")));
}

TEST(FreeMountTest, IsReachedThroughTheFlatEntry) {
  TestRepository repository({"d1", "d2"});
  FakeDisks disks;
  disks.setUsed(repository.mount(0), 50);
  disks.setUsed(repository.mount(1), 10);
  FakeSyslog log;
  repository.place(0, "a");
  EXPECT_EQ(freeMount_(repository.id(), "d1"), 0);
  EXPECT_TRUE(isThere(repository.resourcePath(1, "a")));
}

TEST(FreeMountTest, TakesEachResourcesLockAndNotTheRepositorys) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.place(0, "a");
  scene.handler();
  Lines locks;
  {
    CallWatch watch;
    scene.handler().moveAllResourcesFromMount("d1");
    locks = watch.locks;
  }
  std::erase_if(locks, [&](const std::string& lock) { return lock.substr(1) == scene.repository.dirtyLockName(); });
  EXPECT_THAT(locks, ElementsAre("+" + scene.repository.lockName("a"), "-" + scene.repository.lockName("a")));
}

TEST(FreeMountTest, InTheSafeModeAMountIsFoundByAnotherNameOfItsDirectory) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  for (const char* name : {"d1", "link", "d1/", "d2/../d1"}) {
    SCOPED_TRACE(name);
    Scene scene({"d1", "d2", "d3"});
    scene.used(0, 50);
    scene.used(1, 96);
    scene.used(2, 10);
    makeLink("d1", scene.repository.path() + "/link");
    scene.repository.configure("mountPoints=d1\\link\\d2\\d3\n");
    scene.repository.placeFile(0, "a", "content", kLongAgo);
    EXPECT_EQ(scene.handler().moveAllResourcesFromMount(name), 0);
    EXPECT_THAT(scene.resources(0), IsEmpty());
    EXPECT_THAT(scene.resources(2), ElementsAre("a"));
    EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d4"), 1);
    EXPECT_EQ(scene.handler().moveAllResourcesFromMount(""), 1);
  }
}

TEST(FreeMountTest, AnswersOneForANameThatNoMountHas) {
  for (const char* name : {"d3", "", "d1/", "/d1", "D1", "d1/../d1"}) {
    Scene scene({"d1", "d2"});
    scene.used(0, 50);
    scene.used(1, 10);
    EXPECT_EQ(scene.handler().moveAllResourcesFromMount(name), 1) << name;
    EXPECT_THAT(scene.logged(), ElementsAre("D Source mount " + quoted(scene.repository.path() + "/" + name) +
                                            " could not be found in repository."));
  }
}

TEST(FreeMountTest, FindsTheFirstOfTwoMountsOfOneDirectory) {
  Scene scene({"d1", "d1"});
  scene.used(0, 50);
  scene.repository.placeFile(0, "a", "content");
  // From the first to the second of them: a conflict with itself. From the second it would be mount 0, a 2.
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 3);
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(FreeMountTest, RefusesANullName) {
  Scene scene({"d1"});
  scene.used(0, 50);
  EXPECT_THROW(scene.handler().moveAllResourcesFromMount(nullptr), KTAssertionException);
}

TEST(FreeMountTest, AnswersTwoWhenNoMountCanTakeResources) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 99);
  scene.repository.place(0, "a");
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 2);
  EXPECT_THAT(scene.logged(), ElementsAre("D Could not find target mount for data moving."));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(FreeMountTest, AnswersZeroWhenThereIsNothingToMove) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.logged(), ElementsAre("D no movable resource found"));
}

TEST(FreeMountTest, AnswersZeroForAMountThatIsMissing) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.place(0, "a");
  scene.repository.takeOut(0);
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.logged(), ElementsAre("D no movable resource found"));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(FreeMountTest, AnswersTwoWhenTheOnlyTargetIsMountZeroEvenAfterAllWasMoved) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.used(1, 50);
  scene.repository.placeFile(1, "a", "content");
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d2"), 2);
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_THAT(scene.resources(1), IsEmpty());
  EXPECT_THAT(scene.logged(), ElementsAre("I EmptyMount moves " + scene.at(1, "a") + " to " + scene.at(0, "a"),
                                          "D Nospaceleft? EmptyMount couldn't move"));
}

TEST(FreeMountTest, AnswersTwoWhenTheTargetsFillUpOnTheWay) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.usedByResources(1, 90, 7.5);
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "b", "content");
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 2);
  EXPECT_THAT(scene.resources(0), SizeIs(1));
  EXPECT_THAT(scene.resources(1), SizeIs(1));
  EXPECT_EQ(lastOf(scene.logged()), "D Nospaceleft? EmptyMount couldn't move");
}

TEST(FreeMountTest, ChoosesTheTargetAnewAfterEachMove) {
  Scene scene({"d1", "d2", "d3"});
  scene.used(0, 50);
  scene.usedByResources(1, 94, 1);
  scene.used(2, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "b", "content");
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.resources(1), SizeIs(1));
  EXPECT_THAT(scene.resources(2), SizeIs(1));
}

TEST(FreeMountTest, ChoosesTheTargetAnewAlsoAfterAMoveThatFailed) {
  Scene scene({"d1", "d2", "d3"});
  bool filled = false;
  scene.used(0, 50);
  scene.used(1, [&] { return filled ? 97.5 : 10.0; });
  scene.used(2, 10);
  // In this order: a is BC/6J/AJ/a and abc is 1W/H6/HW/abc.
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "abc", "content");
  scene.shell.answer = [&](const std::string& command) {
    if (!copies(command, "a") || std::exchange(filled, true)) return FakeShell::runReal(command);
    return kCommandFailed;
  };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.resources(1), IsEmpty());
  EXPECT_THAT(scene.resources(2), ElementsAre("a", "abc")) << "a comes again in the next batch";
}

TEST(FreeMountTest, AnswersTwoWhenTheTargetFillsUpDuringAMoveThatFails) {
  Scene scene({"d1", "d2"});
  bool filled = false;
  scene.used(0, 50);
  scene.used(1, [&] { return filled ? 97.5 : 10.0; });
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "abc", "content");
  scene.shell.answer = [&](const std::string& command) {
    if (!copies(command, "a")) return FakeShell::runReal(command);
    filled = true;
    return kCommandFailed;
  };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 2);
  EXPECT_THAT(scene.resources(0), ElementsAre("a", "abc"));
  EXPECT_THAT(scene.resources(1), IsEmpty());
  EXPECT_EQ(lastOf(scene.logged()), "D Nospaceleft? EmptyMount couldn't move");
}

TEST(FreeMountTest, AnswersThreeWhenNothingCouldBeMoved) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.shell.answer = [](const std::string&) { return kCommandFailed; };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 3);
  const Lines log = scene.logged();
  ASSERT_THAT(log, SizeIs(4));
  EXPECT_EQ(log[0], "I EmptyMount moves " + scene.at(0, "a") + " to " + scene.at(1, "a"));
  EXPECT_THAT(log[1], StartsWith("E The resource " + quoted(scene.at(0, "a")) + " could not be renamed to "));
  EXPECT_EQ(log[2], "D Nospaceleft? EmptyMount couldn't move");
  EXPECT_EQ(log[3], "D Not all resources could be moved");
  EXPECT_EQ(scene.repository.dirtySet(), "");
}

TEST(FreeMountTest, AnswersThreeWhenARoundMovesNoneOfWhatIsLeft) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "b", "content");
  int tries = 0;
  scene.shell.answer = [&](const std::string& command) {
    if (!copies(command, "a")) return FakeShell::runReal(command);
    ++tries;
    return kCommandFailed;
  };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 3);
  EXPECT_EQ(tries, 2);
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_THAT(scene.resources(1), ElementsAre("b"));
}

TEST(FreeMountTest, TriesAgainWhatFailedInARoundThatMovedOthers) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "b", "content");
  int failures = 1;
  scene.shell.answer = [&](const std::string& command) {
    return copies(command, "a") && failures-- > 0 ? kCommandFailed : FakeShell::runReal(command);
  };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.resources(1), ElementsAre("a", "b"));
}

TEST(FreeMountTest, MarksAConflictAsDirtyByItsPath) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "mine");
  scene.repository.placeFile(1, "a", "theirs");
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 3);
  EXPECT_THAT(scene.logged(), ElementsAre("I EmptyMount moves " + scene.at(0, "a") + " to " + scene.at(1, "a"),
                                          "E The resource " + quoted(scene.at(0, "a")) + " conflicts with " +
                                              quoted(scene.at(1, "a")) + ".",
                                          "D Not all resources could be moved"));
  EXPECT_EQ(scene.repository.dirtySet(), scene.at(0, "a") + "\n");
  EXPECT_EQ(readFile(scene.at(0, "a")), "mine");
}

TEST(FreeMountTest, SkipsALockedResourceAndMovesTheOthers) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.repository.placeFile(0, "abc", "content");
  scene.handler();
  scene.hold("a");
  int result = -1;
  EXPECT_EQ(outputOf([&] { result = scene.handler().moveAllResourcesFromMount("d1"); }), "");
  EXPECT_EQ(result, 3);
  EXPECT_THAT(scene.logged(), ElementsAre("E " + notLocked(scene, "a"),
                                          "I EmptyMount moves " + scene.at(0, "abc") + " to " + scene.at(1, "abc"),
                                          "E " + notLocked(scene, "a"), "D Not all resources could be moved"));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(FreeMountTest, MovesAResourceThatIsInUseAllTheSame) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { setTimes(scene.at(0, "a"), scene.clock.now); });
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
}

TEST(FreeMountTest, EndsWhenTheMountGoesAwayAfterAMove) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.shell.answer = [&](const std::string& command) {
    if (command.starts_with("rm ")) scene.repository.takeOut(0);
    return FakeShell::runReal(command);
  };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0);
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
}

TEST(FreeMountTest, AnswersThreeWhenTheMountGoesAwayBeforeAnyMove) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.handler();
  scene.hold("a");
  scene.clock.onSleep = [&] {
    if (isThere(scene.repository.mount(0) + "/repositorypart.cfg")) scene.repository.takeOut(0);
  };
  EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 3);
  EXPECT_THAT(scene.logged(), ElementsAre("E " + notLocked(scene, "a"), "D Not all resources could be moved"));
}

TEST(FreeMountTest, MovesBatchAfterBatchOfAThousand) {
  constexpr int kResources = 2002;
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  for (int i = 0; i < kResources; ++i) scene.repository.placeFile(0, numbered("r", i), "");
  scene.shell.answer = runInProcess;
  scene.handler();
  const auto moveAll = [&] { EXPECT_EQ(scene.handler().moveAllResourcesFromMount("d1"), 0); };
  EXPECT_THAT(locksBetweenListings(scene, moveAll), ElementsAre(0, 1000, 1000, 2, 0)) << "the last batch finds nothing";
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), SizeIs(kResources));
}

// makeEmpty

TEST(MakeEmptyTest, RemovesEveryResourceAndKeepsTheConfiguration) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a");
  scene.repository.place(0, "old", "content", kLongAgo);
  scene.repository.placeFile(1, "b", "bytes");
  scene.handler();
  EXPECT_EQ(outputOf([&] { scene.handler().makeEmpty(); }), "");
  EXPECT_THAT(treeOf(scene.repository.mount(0)), ElementsAre("repositorypart.cfg="));
  EXPECT_THAT(treeOf(scene.repository.mount(1)), ElementsAre("repositorypart.cfg="));
  EXPECT_TRUE(isThere(scene.repository.path() + "/repository.cfg"));
  EXPECT_THAT(scene.logged(), ElementsAre("D Mounts are back"));
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

TEST(MakeEmptyTest, IsReachedThroughTheFlatEntry) {
  TestRepository repository({"d1"});
  FakeDisks disks;
  disks.setUsed(repository.mount(0), 10);
  FakeSyslog log;
  const std::string path = repository.place(0, "a");
  makeEmpty_(repository.id());
  EXPECT_FALSE(isThere(path));
}

TEST(MakeEmptyTest, PutsMountsBackInServiceAndEmptiesThemToo) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.used(1, 10);
  scene.repository.place(1, "a");
  scene.repository.takeOut(1);
  scene.handler().makeEmpty();
  EXPECT_THAT(treeOf(scene.repository.mount(1)), ElementsAre("repositorypart.cfg="));
}

TEST(MakeEmptyTest, LeavesWhatIsOnAMountThatStaysMissing) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.repository.place(0, "a");
  scene.repository.place(1, "b");
  fs::remove(scene.repository.mount(1) + "/repositorypart.cfg");
  scene.handler().makeEmpty();
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), ElementsAre("b"));
}

TEST(MakeEmptyTest, ClearsTheDirtySetBeforeItRemoves) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "mine");
  scene.repository.placeFile(1, "a", "theirs");
  scene.repository.writeDirtySet("a\nb\n");
  scene.handler().makeEmpty();
  EXPECT_TRUE(isThere(scene.repository.path() + "/.dirty"));
  EXPECT_EQ(scene.repository.dirtySet(), "");
  EXPECT_THAT(scene.resources(0), IsEmpty()) << "a dirty one whose copies cannot be joined would have stayed";
  EXPECT_THAT(scene.resources(1), IsEmpty());
}

TEST(MakeEmptyTest, ClearsTheDirtySetBeforeItGivesMountsBack) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.used(1, 10);
  scene.repository.takeOut(1);
  scene.handler();
  const std::string clears = "fopen " + scene.repository.path() + "/.dirty";
  const std::string givesBack = "rename " + scene.repository.mount(1);
  Lines calls;
  {
    CallWatch watch;
    scene.handler().makeEmpty();
    calls = watch.calls;
  }
  std::erase_if(calls, [&](const std::string& call) { return call != clears && !call.starts_with(givesBack); });
  EXPECT_THAT(calls, ElementsAre(clears, StartsWith(givesBack)));
}

TEST(MakeEmptyTest, RemovesLegacyResourcesFilesAndDirectories) {
  const ScratchDirectory legacy;
  Scene scene({"d1"}, "legacyDir=" + legacy.path() + "\n");
  scene.used(0, 10);
  writeFile(legacy / "directory/inner/file", "content");
  writeFile(legacy / "file", "content");
  scene.handler().makeEmpty();
  EXPECT_THAT(treeOf(legacy.path()), IsEmpty());
  EXPECT_THAT(scene.resources(0), IsEmpty());
}

TEST(MakeEmptyTest, RemovesMountByMountAndTheLegacyDirectoryLast) {
  const ScratchDirectory legacy;
  Scene scene({"d1", "d2"}, "legacyDir=" + legacy.path() + "\n");
  scene.used(0, 10);
  scene.used(1, 10);
  writeFile(legacy / "1", "content");
  scene.repository.place(0, "zz");
  scene.repository.place(1, "aa");
  scene.handler();
  Lines locks;
  {
    CallWatch watch;
    scene.handler().makeEmpty();
    locks = watch.locks;
  }
  std::erase_if(locks, [&](const std::string& lock) { return lock.substr(1) == scene.repository.dirtyLockName(); });
  const auto name = [&](const char* resource) { return scene.repository.lockName(resource); };
  EXPECT_THAT(locks, ElementsAre("+" + name("zz"), "-" + name("zz"), "+" + name("aa"), "-" + name("aa"),
                                 "+" + name("1"), "-" + name("1")));
}

TEST(MakeEmptyTest, RemovesAResourceOnTwoMountsWithoutComplaint) {
  Scene scene({"d1", "d2"});
  scene.used(0, 10);
  scene.used(1, 10);
  scene.repository.place(0, "a");
  scene.repository.place(1, "a");
  scene.handler().makeEmpty();
  EXPECT_THAT(scene.resources(0), IsEmpty());
  EXPECT_THAT(scene.resources(1), IsEmpty());
  EXPECT_THAT(scene.logged(), ElementsAre("D Mounts are back"));
}

TEST(MakeEmptyTest, SkipsALockedResourceAndRemovesTheOthers) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.repository.place(0, "a");
  scene.repository.place(0, "b");
  scene.handler();
  scene.hold("a");
  scene.handler().makeEmpty();
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
  EXPECT_THAT(scene.logged(), ElementsAre("D Mounts are back", "E " + notLocked(scene, "a")));
}

// Exceptions pass, and what was taken goes back

TEST(BalancerExceptionTest, GivesAllLocksBackWhenTheDirtySetCannotBeWritten) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "mine", kLongAgo);
  scene.repository.placeFile(1, "a", "theirs", kLongAgo);
  scene.handler();
  const FailingCall unwritable("fopen", EROFS, "/.dirty");
  EXPECT_THROW(scene.pass(false), KTAssertionException);
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}

TEST(BalancerExceptionTest, GivesAllLocksBackWhenAFailedDeletionCannotBeMarked) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.repository.placeFile(0, "a", "content", kLongAgo);
  scene.handler();
  const FailingCall stuck("remove", EACCES, "/a");
  const FailingCall unwritable("fopen", EROFS, "/.dirty");
  EXPECT_THROW(scene.pass(false), KTAssertionException);
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
  EXPECT_THAT(scene.handler().deletedDirs, ElementsAre(scene.at(0, "a")));
}

TEST(BalancerExceptionTest, GivesTheRepositoryBackWhenAResourceCannotBeUnlocked) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  const std::string lock = scene.repository.lockName("a");
  const FailingCall stuck("unlink", EACCES, lock);
  EXPECT_THROW(scene.pass(false), KTIOException);
  EXPECT_THAT(scene.repository.locksLeft(), ElementsAre("semaphore_" + lock));
  EXPECT_THAT(scene.resources(1), ElementsAre("a")) << "the move was done";
}

TEST(BalancerExceptionTest, LogsATouchedResourceOnlyOnceItIsUnlocked) {
  Scene scene({"d1"}, "isClearable=true\n");
  scene.used(0, 99.5);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.whileWaitingFor("a", [&] { setTimes(scene.at(0, "a"), scene.clock.now); });
  const FailingCall stuck("unlink", EACCES, scene.repository.lockName("a"));
  EXPECT_THROW(scene.pass(false), KTIOException);
  EXPECT_GE(stuck.failed(), 1);
  EXPECT_THAT(scene.logged(), Not(Contains("D Resource touched:" + scene.at(0, "a"))));
  EXPECT_THAT(scene.resources(0), ElementsAre("a"));
}

TEST(BalancerExceptionTest, TellsThatTheRepositoryCouldNotBeUnlockedAfterAllIsDone) {
  Scene scene({"d1", "d2"});
  scene.usedByResources(0, 97.5, 1.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  const FailingCall stuck("unlink", EACCES, scene.repository.lockFile(scene.repository.lockName("")), 0, 1);
  EXPECT_THROW(scene.pass(false), KTIOException);
  EXPECT_EQ(stuck.failed(), 1);
  EXPECT_THAT(scene.resources(1), ElementsAre("a"));
}

TEST(BalancerExceptionTest, PassesOnWhatIsNoFailureOfTheRepositorysLock) {
  Scene scene({"d1"});
  scene.used(0, 10);
  scene.handler();
  scene.hold("");
  scene.clock.onSleep = [] { throw std::runtime_error("from outside"); };
  EXPECT_THROW(scene.pass(false), std::runtime_error);
  EXPECT_THAT(scene.logged(), IsEmpty());
}

TEST(BalancerExceptionTest, PassesOnWhatIsNoFailureOfAResourcesLockAndGivesTheRepositoryBack) {
  Scene scene({"d1", "d2"});
  scene.used(0, 99.5);
  scene.used(1, 10);
  scene.repository.place(0, "a", "content", kLongAgo);
  scene.handler();
  scene.hold("a");
  scene.clock.onSleep = [] { throw std::runtime_error("from outside"); };
  EXPECT_THROW(scene.pass(false), std::runtime_error);
  EXPECT_THAT(scene.repository.locksLeft(), ElementsAre("semaphore_" + scene.repository.lockName("a")));
}

TEST(BalancerExceptionTest, CanPassAgainAfterAnException) {
  Scene scene({"d1", "d2"});
  scene.used(0, [&] { return isThere(scene.at(0, "b")) ? 99.0 : 97.5; });
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "mine", kLongAgo);
  scene.repository.placeFile(1, "a", "theirs", kLongAgo);
  scene.repository.placeFile(0, "b", "content", kLongAgo + 1);
  scene.handler();
  {
    const FailingCall unwritable("fopen", EROFS, "/.dirty");
    EXPECT_THROW(scene.pass(false), KTAssertionException);
  }
  scene.pass(false);
  EXPECT_THAT(scene.resources(1), ElementsAre("a", "b"));
}

TEST(BalancerExceptionTest, ThrowsWhenAResourceVanishesWhileItsMountIsEmptied) {
  Scene scene({"d1", "d2"});
  scene.used(0, 50);
  scene.used(1, 10);
  scene.repository.placeFile(0, "a", "content");
  scene.handler();
  scene.whileWaitingFor("a", [&] { fs::remove(scene.at(0, "a")); });
  EXPECT_THROW(scene.handler().moveAllResourcesFromMount("d1"), KTAssertionException);
  EXPECT_THAT(scene.repository.locksLeft(), IsEmpty());
}
