// The power fails in the middle of a balancing pass, in the worst order that the file system allows: what was not
// brought to the disk is not on it. A pass of three moves is cut at 20 points from its first to its last call; then the
// disks come back, and each resource is looked at, contents and all. Contents stay in memory for seconds before a file
// system writes them by itself; a pass takes less than one.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "entrypoints.h"
#include "fakes/fakes.h"
#include "faults/disks/points.h"
#include "realdisk/disks.h"
#include "support/child.h"
#include "support/repository.h"

namespace fs = std::filesystem;

using testing::Gt;

namespace {

constexpr unsigned int kCuts = 20;
constexpr unsigned int kNever = ~0U;
constexpr unsigned int kResources = 3;
constexpr size_t kFileBytes = 150000;
constexpr time_t kLongAgo = 1000000000;

enum class Cut {
  destination,          // the origin's disk has another power supply
  destinationMetadata,  // the same, but names and sizes had reached the destination's disk: files, and nothing in them
  both,                 // and nothing had reached either disk
  bothOriginWritten     // the origin's disk had been given everything, so that what was removed is gone
};

const char* nameOf(Cut cut) {
  const char* const names[] = {"Destination", "DestinationMetadata", "Both", "BothOriginWritten"};
  return names[static_cast<size_t>(cut)];
}

struct Setting {
  DiskKind kind;
  Cut cut;
};

void PrintTo(const Setting& setting, std::ostream* out) { *out << nameOf(setting.kind) << nameOf(setting.cut); }

std::string idOf(unsigned int resource) { return "resource" + std::to_string(resource); }

std::string contentOf(const std::string& name) {
  std::string content;
  for (unsigned int i = 0; content.size() < kFileBytes; ++i) content += name + " " + std::to_string(i * 7919) + "\n";
  return content;
}

// Whether the resource is there, names and contents.
bool isComplete(const std::string& path, const std::string& id) {
  const std::vector<std::string> whole = {"first=" + contentOf(id + "a"), "second=" + contentOf(id + "b")};
  try {
    return treeOf(path) == whole;
  } catch (const fs::filesystem_error&) {
    return false;
  }
}

void writeOut(const std::string& directory) {
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(syncfs(descriptor), 0);
  close(descriptor);
}

// Two disks, the first of which a pass empties onto the second.
class CutRepository {
 public:
  explicit CutRepository(DiskKind kind) : repository({"d1", "d2"}), disks(kind) {
    for (size_t i = 0; i < 2; ++i) {
      disks.mountAt(repository.mount(i));
      repository.configureMount(i, i == 0 ? "cleanLimit=1\nmoveLimit=2\n" : "");
    }
    for (unsigned int i = 0; i < kResources; ++i) place(idOf(i));
    for (size_t i = 0; i < 2; ++i) writeOut(repository.mount(i));
  }

  // Returns how many points the pass has.
  unsigned int balance() { return balanceUntil(kNever, [] {}); }

  // Cuts the power at a point of the pass, and restores it.
  void cutAt(unsigned int point, Cut cut) {
    Child child([&](const Child::Parent& parent) {
      balanceUntil(point, [&] {
        parent.tell();
        parent.await();  // until it is killed
      });
    });
    child.await();
    for (unsigned int i = 0; i < kResources; ++i) wasWhole[i] = isCompleteAt(0, i);
    if (cut == Cut::bothOriginWritten) writeOut(repository.mount(0));
    const bool originToo = cut == Cut::both || cut == Cut::bothOriginWritten;
    if (originToo) disks.cutPower(repository.mount(0));
    disks.cutPower(repository.mount(1), cut == Cut::destinationMetadata);
    child.kill();
    child.join();
    if (originToo) disks.restorePower(repository.mount(0));
    disks.restorePower(repository.mount(1));
  }

  // Whether the origin of a resource was whole when the power failed.
  bool originWasWhole(unsigned int resource) const { return wasWhole[resource]; }
  bool isLost(unsigned int resource) const { return !isCompleteAt(0, resource) && !isCompleteAt(1, resource); }

  // What an operator does after a cut: removes the locks of dead processes, and lets a pass run.
  void repair() {
    for (const std::string& lock : repository.locksLeft()) unlink((repository.lockDirectory() + "/" + lock).c_str());
    checkOverload_(repository.id(), false);
  }
  bool isFoundComplete(unsigned int resource) const {
    const Found found = repository.find(idOf(resource));
    return found.status == 0 && isComplete(found.path, idOf(resource));
  }

 private:
  void place(const std::string& id) {
    const std::string path = repository.resourcePath(0, id);
    writeFile(path + "/first", contentOf(id + "a"));
    writeFile(path + "/second", contentOf(id + "b"));
    setTimes(path + "/first", kLongAgo);
    setTimes(path + "/second", kLongAgo);
    setTimes(path, kLongAgo);
  }
  bool isCompleteAt(size_t mount, unsigned int resource) const {
    return isComplete(repository.resourcePath(mount, idOf(resource)), idOf(resource));
  }
  unsigned int balanceUntil(unsigned int point, const std::function<void()>& onStop) {
    Points points(point, onStop);
    checkOverload_(repository.id(), false);
    points.pass();
    return points.passed();
  }

  TestRepository repository;
  RealDisks disks;
  FakeSyslog log;
  bool wasWhole[kResources] = {};
};

class PowerCutTest : public testing::TestWithParam<Setting> {
 protected:
  // Cuts a fresh repository's pass at each of 20 points, the first and the last among them.
  void cutEverywhere(const std::function<void(CutRepository&)>& examine) const {
    const unsigned int points = CutRepository(GetParam().kind).balance();
    ASSERT_THAT(points, Gt(kCuts));
    for (unsigned int i = 0; i < kCuts; ++i) {
      const unsigned int point = i * (points - 1) / (kCuts - 1);
      SCOPED_TRACE("cut at point " + std::to_string(point) + " of " + std::to_string(points));
      CutRepository repository(GetParam().kind);
      repository.cutAt(point, GetParam().cut);
      examine(repository);
    }
  }
};

std::vector<Setting> everyWorstOrder() {
  std::vector<Setting> settings;
  for (const DiskKind kind : {DiskKind::ext4, DiskKind::xfs, DiskKind::btrfs})
    for (const Cut cut : {Cut::destination, Cut::destinationMetadata, Cut::both, Cut::bothOriginWritten})
      if (kind != DiskKind::btrfs || cut != Cut::destinationMetadata) settings.push_back({kind, cut});
  return settings;
}

INSTANTIATE_TEST_SUITE_P(On, PowerCutTest, testing::ValuesIn(everyWorstOrder()), [](const auto& test) {
  return std::string(nameOf(test.param.kind)) + nameOf(test.param.cut);
});

// When nothing of either disk is written the origin comes back with its disk, unless its file system happened to write
// in between; so what must be lost is what has no origin any more.
TEST_P(PowerCutTest, ByDefaultEveryResourceIsLostWhoseOriginWasRemovedBeforeItsCopyWasWritten) {
  const bool originIsGoneForGood = GetParam().cut != Cut::both;
  unsigned int lost = 0;
  unsigned int cuts = 0;
  cutEverywhere([&](const CutRepository& repository) {
    bool losesOne = false;
    for (unsigned int i = 0; i < kResources; ++i) {
      const bool isLost = repository.isLost(i);
      EXPECT_FALSE(isLost && repository.originWasWhole(i)) << idOf(i);
      if (originIsGoneForGood) {
        EXPECT_EQ(isLost, !repository.originWasWhole(i)) << idOf(i);
      }
      losesOne |= isLost;
      lost += isLost ? 1 : 0;
    }
    cuts += losesOne ? 1 : 0;
  });
  if (originIsGoneForGood) {
    EXPECT_THAT(lost, Gt(0U));
  }
  RecordProperty("cutsThatLose", static_cast<int>(cuts));
  RecordProperty("resourcesLost", static_cast<int>(lost));
}

TEST_P(PowerCutTest, InTheSafeModeNoneOfTwentyCutsLosesAResourceAndLookUpsFindThemAll) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  cutEverywhere([](CutRepository& repository) {
    for (unsigned int i = 0; i < kResources; ++i) EXPECT_FALSE(repository.isLost(i)) << idOf(i);
    repository.repair();
    for (unsigned int i = 0; i < kResources; ++i) EXPECT_TRUE(repository.isFoundComplete(i)) << idOf(i);
  });
}

}  // namespace
