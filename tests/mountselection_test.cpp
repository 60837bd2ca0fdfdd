#include <gmock/gmock.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <optional>
#include <vector>

#include "KTRepositoryHandler.h"
#include "fakes/fakes.h"
#include "support/child.h"
#include "support/repository.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

enum { kSwitch = 0x10, kFull = 0x20, kClean = 0x40, kMove = 0x80 };
constexpr int kMissing = 0x100;

enum { kNoSpace = 0x20, kAllFull = 0x40, kIncomplete = 0x80 };

std::vector<std::string> mountNames(size_t count) {
  std::vector<std::string> names;
  for (size_t i = 1; i <= count; ++i) names.push_back(std::string("d").append(std::to_string(i)));
  return names;
}

// A repository over fake disks, each 50 percent used at first.
struct Bench {
  explicit Bench(size_t count, const std::string& settings = "") : files(mountNames(count), settings) {
    for (size_t i = 0; i < count; ++i) disks.setUsed(files.mount(i), 50);
    disks.fail("", ENOENT);  // the legacy directory of a repository that has none
    repository.emplace(files.id());
  }

  void use(const std::vector<double>& percents) {
    for (size_t i = 0; i < percents.size(); ++i) disks.setUsed(files.mount(i), percents[i]);
  }
  std::string config(size_t mount) const { return files.mount(mount) + "/repositorypart.cfg"; }
  std::string configOutOfService(size_t mount) const { return files.mount(mount) + "/repositorypart.no"; }
  bool inService(size_t mount) const { return isThere(config(mount)) && !isThere(configOutOfService(mount)); }

  TestRepository files;
  FakeDisks disks;
  FakeSyslog log;
  std::optional<KTRepositoryHandler> repository;
};

// A mount as the model sees it: whether it is there, which of its own limits it has reached, how full it is.
struct MountState {
  bool isPresent;
  int bits;
  int percent;
};

std::ostream& operator<<(std::ostream& out, const MountState& state) {
  if (!state.isPresent) return out << "away";
  return out << std::hex << "0x" << state.bits << std::dec << " at " << state.percent << '%';
}

// Puts the mounts into the states. A limit is reached when it is 1, and not when it is 101.
void enter(Bench& bench, const std::vector<MountState>& states) {
  for (size_t i = 0; i < states.size(); ++i) {
    if (states[i].isPresent != bench.inService(i))
      states[i].isPresent ? bench.files.giveBack(i) : bench.files.takeOut(i);
    KTMountPointHandler& mount = *bench.repository->mountPoints[i];
    const auto limit = [&](int bit) { return states[i].bits & bit ? 1 : 101; };
    mount.switchLimit = limit(kSwitch);
    mount.fullLimit = limit(kFull);
    mount.cleanLimit = limit(kClean);
    mount.moveLimit = limit(kMove);
    bench.disks.setUsed(bench.files.mount(i), states[i].percent);
  }
  bench.log.lines.clear();
}

bool everyPresent(const std::vector<MountState>& states, int bit) {
  return std::all_of(states.begin(), states.end(), [=](const MountState& s) { return !s.isPresent || (s.bits & bit); });
}

// The status of a repository whose reporting limits are out of reach.
int modelStatus(const std::vector<MountState>& states) {
  const auto present = std::count_if(states.begin(), states.end(), [](const MountState& s) { return s.isPresent; });
  if (present == 0) return kMissing;
  const bool room = std::any_of(states.begin(), states.end(),
                                [](const MountState& s) { return s.isPresent && s.bits % kMove < kFull; });
  return (everyPresent(states, kSwitch) ? kSwitch : 0) | (room ? 0 : kNoSpace) |
         (everyPresent(states, kFull) ? kAllFull : 0) | (present < static_cast<long>(states.size()) ? kIncomplete : 0);
}

enum class For { kNew, kMove, kLegacy };

// `barred`: the number of the source, -1 for none.
int modelChoice(const std::vector<MountState>& states, For purpose, int barred) {
  const bool balance = everyPresent(states, kSwitch);
  if (everyPresent(states, kFull)) return -1;
  const auto mayTake = [&](size_t i) {
    const MountState& s = states[i];
    if (!s.isPresent || static_cast<int>(i) == barred) return false;
    if (purpose == For::kMove && (s.bits & kClean)) return false;
    if (balance) return !(s.bits & kFull);
    return !(s.bits & kSwitch) && (purpose == For::kLegacy || !(s.bits & kFull));
  };
  int best = -1;
  for (size_t i = states.size(); i-- > 0;) {  // backwards, so that the first of equals stays
    if (!mayTake(i)) continue;
    if (best < 0 || !balance || states[i].percent <= states[static_cast<size_t>(best)].percent)
      best = static_cast<int>(i);
  }
  return best;
}

// Calls `visit` for every list of `count` mounts out of `states`.
template <typename Visit>
void everyCombination(size_t count, const std::vector<MountState>& states, const Visit& visit) {
  std::vector<size_t> digits(count, 0);
  while (true) {
    std::vector<MountState> combination;
    for (const size_t digit : digits) combination.push_back(states[digit]);
    visit(combination);
    size_t i = 0;
    while (i < count && ++digits[i] == states.size()) digits[i++] = 0;
    if (i == count) return;
  }
}

std::vector<MountState> statesOf(const std::vector<int>& bitSets, const std::vector<int>& percents) {
  std::vector<MountState> states = {{false, 0, 0}};
  for (const int bits : bitSets)
    for (const int percent : percents) states.push_back({true, bits, percent});
  return states;
}

const char* const kNoReports = "remindLimit=0\nwarnLimit=0\nwarn2Limit=0\nwarn3Limit=0\n";

void expectChoices(Bench& bench, const std::vector<MountState>& states) {
  enter(bench, states);
  KTRepositoryHandler& repository = *bench.repository;
  const std::string what = testing::PrintToString(states);
  ASSERT_EQ(repository.getActualMountPoint(), modelChoice(states, For::kNew, -1)) << what;
  ASSERT_EQ(repository.getActualMountPointForLegacy(), modelChoice(states, For::kLegacy, -1)) << what;
  ASSERT_EQ(repository.getActualMountPointForMove(nullptr), modelChoice(states, For::kMove, -1)) << what;
  for (size_t i = 0; i < states.size(); ++i) {
    const int number = static_cast<int>(i);
    ASSERT_EQ(repository.getActualMountPointForMove(repository.mountPoints[i]), modelChoice(states, For::kMove, number))
        << what << " from " << i;
    repository.legacyDir = bench.files.mount(i);
    const bool isPreferred = states[i].isPresent && !(states[i].bits & kFull);
    ASSERT_EQ(repository.getActualMountPointForLegacy(), isPreferred ? number : modelChoice(states, For::kLegacy, -1))
        << what << " imported from the disk of " << i;
  }
  repository.legacyDir.clear();
}

std::vector<int> bitSets(const std::vector<int>& bits) {
  std::vector<int> sets = {0};
  for (const int bit : bits)
    for (size_t i = sets.size(); i-- > 0;) sets.push_back(sets[i] | bit);
  return sets;
}

}  // namespace

TEST(RepositoryStatusTest, MirrorsTheMountsForEveryCombinationOfTheirBits) {
  Bench bench(3, kNoReports);
  everyCombination(3, statesOf(bitSets({kSwitch, kFull, kClean, kMove}), {50}), [&](const auto& states) {
    enter(bench, states);
    ASSERT_EQ(bench.repository->checkRepositoryStatus(), modelStatus(states)) << testing::PrintToString(states);
    ASSERT_EQ(bench.repository->status, modelStatus(states));
  });
}

TEST(RepositoryStatusTest, ReportsWhatEveryPresentMountHasReached) {
  const struct {
    double least;  // used percent of the least used mount that is present
    int want;
  } levels[] = {{79.999, 0}, {80, 0x01},     {89.999, 0x01}, {90, 0x03}, {92, 0x07}, {94, 0x0f}, {94.999, 0x0f},
                {95, 0x1f},  {96.999, 0x1f}, {97, 0x7f},     {98, 0x7f}, {99, 0x7f}, {100, 0x7f}};
  Bench bench(3);
  for (const auto& first : levels)
    for (const auto& second : levels)
      for (const auto& third : levels) {
        bench.use({first.least, second.least, third.least});
        ASSERT_EQ(bench.repository->checkRepositoryStatus(), first.want & second.want & third.want)
            << first.least << ' ' << second.least << ' ' << third.least;
      }
}

TEST(RepositoryStatusTest, AMissingMountCountsNeitherAsFullNorAsRoom) {
  Bench bench(2);
  bench.use({97, 10});
  bench.files.takeOut(1);
  EXPECT_EQ(bench.repository->checkRepositoryStatus(), kIncomplete | kAllFull | kNoSpace | 0x1f);
}

// Neither mount has room to move to, but one may still take new resources.
TEST(RepositoryStatusTest, WithoutSpaceButNotFullWhenEachMountIsAtOneOfTwoLimits) {
  Bench bench(2, kNoReports);
  enter(bench, {{true, kFull, 50}, {true, kClean, 50}});
  EXPECT_EQ(bench.repository->checkRepositoryStatus(), kNoSpace);
}

TEST(RepositoryStatusTest, TheCleanAndMoveBitsOfMountsAreNotCopied) {
  Bench bench(2, kNoReports);
  enter(bench, {{true, kMove, 50}, {true, kMove, 50}});
  EXPECT_EQ(bench.repository->checkRepositoryStatus(), 0);
  enter(bench, {{true, kClean, 50}, {true, kClean, 50}});
  EXPECT_EQ(bench.repository->checkRepositoryStatus(), kNoSpace);
}

TEST(RepositoryStatusTest, IsExactlyMissingWithoutAPresentMount) {
  Bench bench(2);
  bench.use({100, 100});
  bench.files.takeOut(0);
  bench.disks.fail(bench.files.mount(1), EIO);
  EXPECT_EQ(bench.repository->checkRepositoryStatus(), kMissing);
  EXPECT_EQ(bench.repository->status, kMissing);
}

TEST(RepositoryStatusTest, IsMissingWithoutMounts) {
  Bench bench(1);
  writeFile(bench.files.path() + "/repository.cfg", "mountPoints=\\\n");
  KTRepositoryHandler repository(bench.files.id());
  EXPECT_EQ(repository.checkRepositoryStatus(), kMissing);
  EXPECT_EQ(repository.getActualMountPoint(), -1);
  EXPECT_EQ(repository.getActualMountPointForMove(nullptr), -1);
  EXPECT_EQ(repository.getActualMountPointForLegacy(), -1);
}

TEST(RepositoryStatusTest, AsksEveryMountAfresh) {
  Bench bench(3);
  const int before = bench.disks.calls(bench.files.mount(0));
  bench.repository->checkRepositoryStatus();
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(bench.disks.calls(bench.files.mount(i)), before + 1) << i;
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}

TEST(MountSelectionTest, FollowsTheRuleForEveryCombinationOfTwoMounts) {
  Bench bench(2, kNoReports);
  everyCombination(2, statesOf(bitSets({kSwitch, kFull, kClean, kMove}), {50, 51}),
                   [&](const auto& states) { ASSERT_NO_FATAL_FAILURE(expectChoices(bench, states)); });
}

TEST(MountSelectionTest, FollowsTheRuleForEveryCombinationOfThreeMounts) {
  Bench bench(3, kNoReports);
  everyCombination(3, statesOf(bitSets({kSwitch, kFull, kClean}), {50, 51}),
                   [&](const auto& states) { ASSERT_NO_FATAL_FAILURE(expectChoices(bench, states)); });
}

TEST(MountSelectionTest, MountsAreFilledInOrder) {
  Bench bench(2);
  bench.use({60, 50});
  EXPECT_EQ(bench.repository->getActualMountPoint(), 0);
  bench.use({94.999, 50});
  EXPECT_EQ(bench.repository->getActualMountPoint(), 0);
  bench.use({95, 50});
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
  bench.use({95, 94.999});
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
}

TEST(MountSelectionTest, PastTheSwitchLimitTheLeastUsedMountIsTaken) {
  const struct {
    std::vector<double> used;
    int want;
  } rows[] = {
      {{95, 96}, 0},     {{96, 95}, 1},       {{95, 95}, 0},       {{96.999, 96.998}, 1},
      {{96, 96, 95}, 2}, {{96, 95, 95}, 1},   {{95, 96, 95}, 0},   {{97, 96.5, 96}, 2},
      {{97, 96, 97}, 1}, {{96.9, 98, 99}, 0}, {{99, 98, 96.9}, 2}, {{96, 96, 96}, 0},
  };
  for (const auto& row : rows) {
    Bench bench(row.used.size());
    bench.use(row.used);
    EXPECT_EQ(bench.repository->getActualMountPoint(), row.want) << testing::PrintToString(row.used);
    EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), row.want) << testing::PrintToString(row.used);
  }
}

TEST(MountSelectionTest, NothingIsChosenWhenEveryPresentMountIsFull) {
  Bench bench(2);
  bench.use({97, 99});
  EXPECT_EQ(bench.repository->getActualMountPoint(), -1);
  EXPECT_EQ(bench.repository->status, 0x7f);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(bench.repository->mountPoints[0]), -1);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), -1);
  bench.use({10, 97});
  bench.files.takeOut(0);
  EXPECT_EQ(bench.repository->getActualMountPoint(), -1);
  EXPECT_EQ(bench.repository->status, 0x7f | kIncomplete);
  EXPECT_THAT(bench.log.texts(), IsEmpty()) << "the caller reports it";
}

TEST(MountSelectionTest, NothingIsChosenWithoutAPresentMount) {
  Bench bench(2);
  bench.files.takeOut(0);
  bench.files.takeOut(1);
  EXPECT_EQ(bench.repository->getActualMountPoint(), -1);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(nullptr), -1);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), -1);
  EXPECT_EQ(bench.repository->status, kMissing);
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}

// A mount below its switch limit that is full keeps the repository filling in order, and takes nothing itself.
TEST(MountSelectionTest, WhileFillingAMountPastItsSwitchLimitIsNotFallenBackOn) {
  Bench bench(2, kNoReports);
  enter(bench, {{true, kSwitch, 50}, {true, kFull, 50}});
  EXPECT_EQ(bench.repository->getActualMountPoint(), -1);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(nullptr), -1);
}

TEST(MountSelectionTest, ALegacyResourceMayFillAFullMountBelowItsSwitchLimit) {
  Bench bench(2, kNoReports);
  enter(bench, {{true, kSwitch, 50}, {true, kFull, 50}});
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 1);
}

TEST(MountSelectionTest, AMovedResourceNeverGoesToAMountAtItsCleanLimit) {
  Bench bench(3, kNoReports);
  enter(bench, {{true, 0, 50}, {true, kClean, 50}, {true, 0, 50}});
  EXPECT_EQ(bench.repository->getActualMountPointForMove(bench.repository->mountPoints[0]), 2);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 0);
  enter(bench, {{true, kSwitch, 50}, {true, kSwitch | kClean, 20}, {true, kSwitch, 30}});
  EXPECT_EQ(bench.repository->getActualMountPointForMove(bench.repository->mountPoints[0]), 2);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1) << "a new one may";
}

TEST(MountSelectionTest, TheSourceIsKnownByIdentityNotByPath) {
  Bench bench(2);
  KTMountPointHandler* const first = bench.repository->mountPoints[0];
  KTMountPointHandler copy(*first);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(first), 1);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(&copy), 0);
  bench.use({95, 96});
  EXPECT_EQ(bench.repository->getActualMountPointForMove(first), 1);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(&copy), 0);
}

TEST(MountSelectionTest, TheOnlyMountIsNoTargetForItself) {
  Bench bench(1);
  EXPECT_EQ(bench.repository->getActualMountPointForMove(bench.repository->mountPoints[0]), -1);
  bench.use({95});
  EXPECT_EQ(bench.repository->getActualMountPointForMove(bench.repository->mountPoints[0]), -1);
}

TEST(MountSelectionTest, EachChoiceRefreshesTheStatus) {
  Bench bench(2);
  const auto stale = [&] { bench.repository->status = 0; };
  bench.use({91, 91});
  bench.repository->getActualMountPoint();
  EXPECT_EQ(bench.repository->status, 0x03);
  stale();
  bench.repository->getActualMountPointForMove(nullptr);
  EXPECT_EQ(bench.repository->status, 0x03);
  stale();
  bench.repository->getActualMountPointForLegacy();
  EXPECT_EQ(bench.repository->status, 0x03);
}

TEST(MountSelectionTest, FillingAsksEachDiskOnce) {
  Bench bench(2);
  const int before = bench.disks.calls(bench.files.mount(0));
  bench.repository->getActualMountPoint();
  EXPECT_EQ(bench.disks.calls(bench.files.mount(0)), before + 1);
  EXPECT_EQ(bench.disks.calls(bench.files.mount(1)), before + 1);
}

TEST(MountSelectionTest, BalancingMeasuresTheMountsThatMayTakeItAgain) {
  Bench bench(3);
  bench.use({95, 97, 95});
  const int before = bench.disks.calls(bench.files.mount(0));
  bench.repository->getActualMountPoint();
  EXPECT_EQ(bench.disks.calls(bench.files.mount(0)), before + 2);
  EXPECT_EQ(bench.disks.calls(bench.files.mount(1)), before + 1) << "it is full";
  EXPECT_EQ(bench.disks.calls(bench.files.mount(2)), before + 2);
}

TEST(MountSelectionTest, BalancingComparesTheSecondMeasurement) {
  Bench bench(2);
  bench.use({95, 96});
  int calls = 0;
  bench.disks.answerWith(bench.files.mount(0), [&](struct statvfs* out) {
    *out = {};
    out->f_blocks = 1000;
    out->f_bavail = ++calls == 1 ? 50 : 30;  // 95 percent for the status, then 97
    return 0;
  });
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
}

TEST(MountSelectionTest, AMountWhoseSecondMeasurementFailsCountsAsTheLeastUsed) {
  Bench bench(2);
  bench.use({95, 96});
  int calls = 0;
  bench.disks.answerWith(bench.files.mount(1), [&](struct statvfs* out) {
    *out = {};
    out->f_blocks = 1000;
    out->f_bavail = 40;
    errno = EIO;
    return ++calls == 1 ? 0 : -1;
  });
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
}

TEST(LegacySelectionTest, AMountOnTheFileSystemOfTheLegacyDirectoryIsPreferred) {
  Bench bench(3);
  bench.repository->legacyDir = "/old";
  struct statvfs shared = {};
  shared.f_blocks = 1000;
  shared.f_bfree = 600;
  shared.f_bavail = 500;
  shared.f_ffree = 40;
  shared.f_favail = 30;
  bench.disks.set("/old", shared);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 0) << "none is; the mounts are filled in order";
  bench.disks.set(bench.files.mount(1), shared);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 1);
  bench.disks.set(bench.files.mount(2), shared);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 1) << "of several, the first";
  bench.files.takeOut(1);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 2) << "one that is away takes nothing";
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}

TEST(LegacySelectionTest, APreferredMountMayBePastItsSwitchCleanAndMoveLimits) {
  Bench bench(2, kNoReports);
  bench.repository->legacyDir = bench.files.mount(1);
  enter(bench, {{true, 0, 50}, {true, kSwitch | kClean | kMove, 60}});
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 1);
}

TEST(LegacySelectionTest, AFullMountIsNotPreferred) {
  Bench bench(2, kNoReports);
  bench.repository->legacyDir = bench.files.mount(1);
  enter(bench, {{true, 0, 50}, {true, kFull, 50}});
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 0);
}

TEST(LegacySelectionTest, AFullRepositoryIsNotSearchedForTheFileSystem) {
  Bench bench(2);
  bench.repository->legacyDir = "/old";  // asking its file system would fail the test
  bench.use({97, 97});
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), -1);
}

TEST(LegacySelectionTest, FullOrMissingMountsAreNotCompared) {
  Bench bench(3, kNoReports);
  bench.repository->legacyDir = "/old";
  bench.disks.setUsed("/old", 10);
  enter(bench, {{true, kFull, 50}, {false, 0, 50}, {true, kSwitch, 50}});
  const int first = bench.disks.calls(bench.files.mount(0));
  const int second = bench.disks.calls(bench.files.mount(1));
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 0) << "below its switch limit";
  EXPECT_EQ(bench.disks.calls(bench.files.mount(0)), first + 1) << "for the status";
  EXPECT_EQ(bench.disks.calls(bench.files.mount(1)), second);
  EXPECT_EQ(bench.disks.calls("/old"), 1);
}

TEST(LegacySelectionTest, ALegacyDirectoryThatCannotBeAskedIsOnNoMount) {
  Bench bench(2);
  bench.repository->legacyDir = "/old";
  bench.disks.fail("/old", ENOENT);
  EXPECT_EQ(bench.repository->getActualMountPointForLegacy(), 0);
  const std::string line = "Error occured while statvfs call to \"/old\". Error code is \x02";
  EXPECT_THAT(bench.log.texts(), ElementsAre(line, line)) << "once for each mount compared";
}

TEST(MountServiceTest, TakingAMountOutRenamesItsFile) {
  Bench bench(2);
  bench.files.configureMount(0, "switchLimit=1\n");
  EXPECT_EQ(bench.repository->MountUnmount(0, false), 0);
  EXPECT_FALSE(isThere(bench.config(0)));
  EXPECT_EQ(readFile(bench.configOutOfService(0)), "switchLimit=1\n");
  EXPECT_TRUE(bench.inService(1));
  EXPECT_EQ(bench.repository->status, kIncomplete);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
  ASSERT_EQ(bench.log.lines.size(), 1U);
  EXPECT_EQ(bench.log.lines[0].text, "Unmounting mount 0");
  EXPECT_EQ(bench.log.lines[0].priority, LOG_DEBUG);
}

TEST(MountServiceTest, WhileOneOfTwoMountsIsTakenOutTheRepositoryIsIncompleteAndTheOtherIsChosen) {
  Bench bench(2);
  bench.use({91, 91});
  ASSERT_EQ(bench.repository->getActualMountPoint(), 0);
  ASSERT_EQ(bench.repository->status, 0x03);
  const std::vector<std::string> before = treeOf(bench.files.path());

  EXPECT_EQ(bench.repository->MountUnmount(0, false), 0);
  EXPECT_EQ(bench.repository->status, 0x83);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
  const std::vector<std::string> without = treeOf(bench.files.path());
  EXPECT_NE(without, before);

  EXPECT_EQ(bench.repository->MountUnmount(0, false), 0) << "a second call";
  EXPECT_EQ(treeOf(bench.files.path()), without);
  EXPECT_EQ(bench.repository->status, 0x83);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);

  EXPECT_EQ(bench.repository->giveBackMounts(), 0x03);
  EXPECT_EQ(treeOf(bench.files.path()), before);
  EXPECT_EQ(bench.repository->status, 0x03);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 0);
  EXPECT_THAT(bench.log.texts(),
              ElementsAre("Unmounting mount 0", "Mounts are back", "Mount is back in town:" + bench.config(0)));
}

TEST(MountServiceTest, PuttingAMountBackRenamesItsFileBack) {
  Bench bench(3);
  bench.files.takeOut(2);
  bench.repository->checkRepositoryStatus();
  EXPECT_EQ(bench.repository->MountUnmount(2, true), 0);
  EXPECT_TRUE(bench.inService(2));
  EXPECT_EQ(bench.repository->status, 0);
  EXPECT_THAT(bench.log.texts(), ElementsAre("Mounting mount 2", "Mount is back in town:" + bench.config(2)));
  EXPECT_THAT(bench.log.texts(LOG_DEBUG), bench.log.texts());
}

TEST(MountServiceTest, TakingOutAMountThatIsOutChangesNothing) {
  Bench bench(2);
  bench.repository->MountUnmount(0, false);
  const std::vector<std::string> before = treeOf(bench.files.path());
  bench.log.lines.clear();
  EXPECT_EQ(bench.repository->MountUnmount(0, false), 0);
  EXPECT_EQ(treeOf(bench.files.path()), before);
  EXPECT_EQ(bench.repository->status, kIncomplete);
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}

TEST(MountServiceTest, PuttingBackAMountThatIsInServiceChangesNothing) {
  Bench bench(2);
  writeFile(bench.configOutOfService(1), "other");
  const std::vector<std::string> before = treeOf(bench.files.path());
  EXPECT_EQ(bench.repository->MountUnmount(1, true), 0);
  EXPECT_EQ(treeOf(bench.files.path()), before);
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}

TEST(MountServiceTest, EveryCallOnAMountRefreshesTheStatus) {
  Bench bench(2);
  bench.use({91, 91});
  EXPECT_EQ(bench.repository->MountUnmount(0, true), 0);
  EXPECT_EQ(bench.repository->status, 0x03);
}

TEST(MountServiceTest, ANumberThatNoMountHasIsRefused) {
  Bench bench(2);
  const std::vector<std::string> before = treeOf(bench.files.path());
  bench.use({91, 91});
  for (const int number : {-1, 2, 3, INT_MAX, INT_MIN})
    for (const bool doMount : {true, false}) EXPECT_EQ(bench.repository->MountUnmount(number, doMount), -1) << number;
  EXPECT_EQ(treeOf(bench.files.path()), before);
  EXPECT_EQ(bench.repository->status, 0) << "not refreshed";
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}

TEST(MountServiceTest, AFailedRenameOfAMountTakenOutShowsInTheStatusOnly) {
  Bench bench(2);
  const FailingCall stuck("rename", EROFS, "repositorypart.cfg");
  EXPECT_EQ(bench.repository->MountUnmount(0, false), 0);
  EXPECT_EQ(stuck.failed(), 1);
  EXPECT_EQ(bench.repository->status, 0);
  EXPECT_THAT(bench.log.texts(), ElementsAre("Unmounting mount 0"));
}

TEST(MountServiceTest, AFailedRenameOfAMountPutBackShowsInTheStatusOnly) {
  Bench bench(2);
  bench.files.takeOut(0);
  const FailingCall stuck("rename", EROFS, "repositorypart.no");
  EXPECT_EQ(bench.repository->MountUnmount(0, true), 0);
  EXPECT_EQ(stuck.failed(), 1);
  EXPECT_EQ(bench.repository->status, kIncomplete);
  EXPECT_THAT(bench.log.texts(), ElementsAre("Mounting mount 0"));
}

TEST(MountServiceTest, AMountWithNeitherFileStaysMissing) {
  Bench bench(2);
  std::filesystem::remove(bench.config(0));
  EXPECT_EQ(bench.repository->MountUnmount(0, true), 0);
  EXPECT_EQ(bench.repository->status, kIncomplete);
  EXPECT_EQ(bench.repository->giveBackMounts(), kIncomplete);
  EXPECT_FALSE(isThere(bench.config(0)));
}

TEST(MountServiceTest, AMountTakenOutByAnotherProcessIsMissingHereToo) {
  Bench bench(2);
  Child other([&](const Child::Parent&) { EXPECT_EQ(bench.repository->MountUnmount(0, false), 0); });
  ASSERT_EQ(other.join(), 0);
  EXPECT_EQ(bench.repository->getActualMountPoint(), 1);
  EXPECT_EQ(bench.repository->status, kIncomplete);
  EXPECT_EQ(bench.repository->giveBackMounts(), 0);
}

TEST(MountServiceTest, AMountTakenOutAndGivenBackIsNotUpToDateMeanwhile) {
  Bench bench(2);
  bench.repository->MountUnmount(1, false);
  EXPECT_FALSE(bench.repository->isUpToDate());
  bench.repository->MountUnmount(1, true);
  EXPECT_TRUE(bench.repository->isUpToDate());
}

TEST(MountServiceTest, AllMountsAreGivenBack) {
  Bench bench(3);
  bench.files.takeOut(0);
  bench.files.takeOut(2);
  ASSERT_EQ(bench.repository->checkRepositoryStatus(), kIncomplete);
  EXPECT_EQ(bench.repository->giveBackMounts(), 0);
  EXPECT_EQ(bench.repository->status, 0);
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(bench.inService(i)) << i;
  EXPECT_THAT(bench.log.texts(), ElementsAre("Mounts are back", "Mount is back in town:" + bench.config(0),
                                             "Mount is back in town:" + bench.config(2)));
  EXPECT_THAT(bench.log.texts(LOG_DEBUG), bench.log.texts());
}

TEST(MountServiceTest, GivingBackMountsThatAreInServiceTouchesNoFile) {
  Bench bench(2);
  writeFile(bench.configOutOfService(0), "other");
  bench.use({91, 91});
  const std::vector<std::string> before = treeOf(bench.files.path());
  EXPECT_EQ(bench.repository->giveBackMounts(), 0x03);
  EXPECT_EQ(treeOf(bench.files.path()), before);
  EXPECT_THAT(bench.log.texts(), ElementsAre("Mounts are back"));
}

TEST(MountServiceTest, AMountThatCannotBeGivenBackDoesNotKeepTheOthers) {
  Bench bench(3);
  for (size_t i = 0; i < 3; ++i) bench.files.takeOut(i);
  ASSERT_EQ(bench.repository->checkRepositoryStatus(), kMissing);
  const FailingCall stuck("rename", EIO, "/d2/");
  EXPECT_EQ(bench.repository->giveBackMounts(), kIncomplete);
  EXPECT_TRUE(bench.inService(0));
  EXPECT_FALSE(bench.inService(1));
  EXPECT_TRUE(bench.inService(2));
}

TEST(MountServiceTest, ARandomMountIsToggled) {
  Bench bench(3);
  FakeClock clock;
  clock.randoms = {1, 1, 5};  // 5 modulo 3: the last
  bench.repository->rndMount();
  EXPECT_EQ(clock.randomCalls, 1);
  EXPECT_FALSE(isThere(bench.config(1)));
  EXPECT_TRUE(isThere(bench.configOutOfService(1)));
  EXPECT_EQ(bench.repository->status, kIncomplete);
  bench.repository->rndMount();
  EXPECT_TRUE(bench.inService(1));
  EXPECT_EQ(bench.repository->status, 0);
  bench.repository->rndMount();
  EXPECT_FALSE(isThere(bench.config(2)));
  EXPECT_EQ(clock.randomCalls, 3);
  EXPECT_THAT(bench.log.texts(), ElementsAre("Unmounting mount 1", "Mounting mount 1",
                                             "Mount is back in town:" + bench.config(1), "Unmounting mount 2"));
  EXPECT_THAT(bench.log.texts(LOG_DEBUG), bench.log.texts());
}

TEST(MountServiceTest, TheRandomNumberIsTakenAsUnsigned) {
  Bench bench(3);
  FakeClock clock;
  clock.randoms = {-2, INT_MAX};  // 4294967294 modulo 3 is 2, 2147483647 modulo 3 is 1
  bench.repository->rndMount();
  EXPECT_FALSE(bench.inService(2));
  bench.repository->rndMount();
  EXPECT_FALSE(bench.inService(1));
  EXPECT_TRUE(bench.inService(0));
}

TEST(MountServiceTest, AFailedRenameOfARandomMountShowsInTheStatusOnly) {
  Bench bench(2);
  FakeClock clock;
  const FailingCall stuck("rename", EACCES);
  bench.repository->rndMount();
  EXPECT_EQ(stuck.failed(), 1);
  EXPECT_TRUE(bench.inService(0));
  EXPECT_EQ(bench.repository->status, 0);
}

TEST(MountServiceTest, WithoutMountsThereIsNoneToToggle) {
  Bench bench(1);
  FakeClock clock;
  writeFile(bench.files.path() + "/repository.cfg", "mountPoints=\\\n");
  KTRepositoryHandler repository(bench.files.id());
  repository.rndMount();
  EXPECT_EQ(repository.status, kMissing);
  EXPECT_THAT(bench.log.texts(), IsEmpty());
}
