// Limits that a process or a disk really has, and disks that go or turn read-only while something is done on them. The
// disks are tmpfs: none of this is a matter of the kind of file system.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>

#include "KTException.h"
#include "entrypoints.h"
#include "faults/disks/drainedrepository.h"
#include "support/child.h"
#include "support/results.h"

namespace fs = std::filesystem;

using testing::Ge;
using testing::Gt;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::StartsWith;

namespace {

constexpr unsigned int kResources = DrainedRepository::kResources;

enum class Mode { byDefault, safe };

class Safety {
 public:
  explicit Safety(Mode mode)
      : variable("KT_SAFE", mode == Mode::safe ? std::optional<std::string>("1") : std::nullopt) {}

 private:
  EnvironmentVariable variable;
};

class LimitedRepository : public DrainedRepository {
 public:
  LimitedRepository() : DrainedRepository(DiskKind::tmpfs) {}

  // Resources that are there, and not whole.
  unsigned int partsAtDestination() const {
    return count([&](unsigned int i) { return isThere(placeAt(1, i)) && !isWholeAtDestination(i); });
  }
  unsigned int wholeAtBoth() const {
    return count([&](unsigned int i) { return isWholeAtOrigin(i) && isWholeAtDestination(i); });
  }
  unsigned int wholeAtOrigin() const {
    return count([&](unsigned int i) { return isWholeAtOrigin(i); });
  }
  unsigned int foundWhole() const {
    return count([&](unsigned int i) { return isFoundWhole(i); });
  }
  std::string placeAt(size_t mount, unsigned int resource) const {
    return repository.resourcePath(mount, idOf(resource));
  }
  void expectNoLoss() const {
    EXPECT_EQ(lost(), 0U);
    EXPECT_THAT(repository.locksLeft(), IsEmpty());
  }

 private:
  static unsigned int count(const std::function<bool(unsigned int)>& is) {
    unsigned int number = 0;
    for (unsigned int i = 0; i < kResources; ++i)
      if (is(i)) ++number;
    return number;
  }
};

// Gives a tmpfs other limits.
void limit(const std::string& disk, const std::string& options) {
  ASSERT_EQ(mount("disk", disk.c_str(), "tmpfs", MS_REMOUNT, options.c_str()), 0) << strerror(errno);
}

// A pass of a fresh repository for each point at which `fault` may happen, and what `examine` expects of it then.
void atEveryPoint(const std::function<void(LimitedRepository&)>& fault,
                  const std::function<void(LimitedRepository&)>& examine) {
  const unsigned int points = LimitedRepository().balance();
  ASSERT_THAT(points, Gt(20U));
  for (unsigned int point = 0; point < points; ++point) {
    SCOPED_TRACE("at point " + std::to_string(point) + " of " + std::to_string(points));
    LimitedRepository repository;
    try {
      repository.balance(Interruption::passes, point, [&] { fault(repository); });
    } catch (const KTAssertionException& gone) {  // a resource was there, and then not
      EXPECT_EQ(gone.m_expression, "access( origin, F_OK ) == 0");
    }
    examine(repository);
  }
}

// Of the resources, 160 kB in two files below three directories of their own, the first fits; of the last one not all.
class ExhaustedDiskTest : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(Of, ExhaustedDiskTest, testing::Values("size=250k", "nr_inodes=19"), [](const auto& test) {
  return std::string(test.param).substr(0, 1) == "s" ? "Room" : "Inodes";
});

TEST_P(ExhaustedDiskTest, ByDefaultAMoveThatEndsThereLeavesAPartAtTheDestinationThatLookUpsGiveWhenTheOriginIsAway) {
  LimitedRepository repository;
  limit(repository.destination(), GetParam());
  checkOverload_(repository.id(), false);
  repository.expectNoLoss();
  EXPECT_THAT(repository.partsAtDestination(), Ge(1U));
  repository.disks.takeAway(repository.origin());
  unsigned int partsFound = 0;
  for (unsigned int i = 0; i < kResources; ++i)
    if (!repository.repository.find(repository.idOf(i)).path.empty() && !repository.isFoundWhole(i)) ++partsFound;
  EXPECT_EQ(partsFound, repository.partsAtDestination());
  repository.disks.giveBack(repository.origin());
}

TEST_P(ExhaustedDiskTest, InTheSafeModeAMoveThatEndsThereLeavesNothingAtTheDestination) {
  const Safety safe(Mode::safe);
  LimitedRepository repository;
  limit(repository.destination(), GetParam());
  checkOverload_(repository.id(), false);
  repository.expectNoLoss();
  EXPECT_EQ(repository.partsAtDestination(), 0U);
  EXPECT_EQ(repository.wholeAtBoth(), 0U);
  EXPECT_THAT(repository.wholeAtOrigin(), Ge(1U)) << "not all fit";
  EXPECT_EQ(repository.foundWhole(), kResources);
  EXPECT_TRUE(fs::is_empty(repository.destination() + "/lost+found/kt-moves"));
}

class ReadOnlyTest : public testing::TestWithParam<Mode> {
 protected:
  Safety safety{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(In, ReadOnlyTest, testing::Values(Mode::byDefault, Mode::safe),
                         [](const auto& test) { return test.param == Mode::safe ? "SafeMode" : "DefaultMode"; });

TEST_P(ReadOnlyTest, ADestinationThatTurnsReadOnlyAtAnyPointOfAPassLosesNothing) {
  atEveryPoint([](const LimitedRepository& repository) { limit(repository.destination(), "ro"); },
               [](LimitedRepository& repository) {
                 repository.expectNoLoss();
                 limit(repository.destination(), "rw");
                 EXPECT_EQ(repository.foundWhole(), kResources);
               });
}

TEST_P(ReadOnlyTest, AnOriginThatTurnsReadOnlyAtAnyPointOfAPassLosesNothing) {
  atEveryPoint([](const LimitedRepository& repository) { limit(repository.origin(), "ro"); },
               [](LimitedRepository& repository) {
                 repository.expectNoLoss();
                 limit(repository.origin(), "rw");
                 EXPECT_EQ(repository.foundWhole(), kResources);
               });
}

TEST(ReadOnlyOriginTest, ByDefaultLeavesASecondWholeCopyThatNoLookUpTakesForDirty) {
  LimitedRepository repository;
  limit(repository.origin(), "ro");
  checkOverload_(repository.id(), false);
  EXPECT_EQ(repository.wholeAtBoth(), kResources);
  EXPECT_THAT(repository.repository.dirtySet(), StartsWith(repository.origin())) << "paths, which nobody asks for";
}

TEST(ReadOnlyOriginTest, InTheSafeModeLeavesNoSecondCopy) {
  const Safety safe(Mode::safe);
  LimitedRepository repository;
  limit(repository.origin(), "ro");
  checkOverload_(repository.id(), false);
  EXPECT_EQ(repository.wholeAtBoth(), 0U);
  EXPECT_EQ(repository.wholeAtOrigin(), kResources);
}

// Below the mount point there is a directory of the disk above, into which everything goes from then on.
class DetachedTest : public testing::TestWithParam<Mode> {
 protected:
  Safety safety{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(In, DetachedTest, testing::Values(Mode::byDefault, Mode::safe),
                         [](const auto& test) { return test.param == Mode::safe ? "SafeMode" : "DefaultMode"; });

TEST_P(DetachedTest, AnOriginThatIsDetachedAtAnyPointOfAPassLosesNothing) {
  atEveryPoint([](LimitedRepository& repository) { repository.disks.detach(repository.origin()); },
               [](LimitedRepository& repository) {
                 repository.disks.giveBack(repository.origin());
                 repository.expectNoLoss();
                 EXPECT_EQ(repository.foundWhole(), kResources);
               });
}

// Whether a resource is whole below the mount point of the destination, on the disk above, is to be asked meanwhile.
unsigned int wholeBelowTheMountPoint(LimitedRepository& repository) {
  unsigned int number = 0;
  for (unsigned int i = 0; i < kResources; ++i)
    if (repository.isWholeAtDestination(i)) ++number;
  return number;
}

TEST(DetachedDestinationTest, ByDefaultAResourceMayEndBelowTheMountPointAndIsGoneWhenTheDiskIsBack) {
  unsigned int outOfReach = 0;
  atEveryPoint([](LimitedRepository& repository) { repository.disks.detach(repository.destination()); },
               [&](LimitedRepository& repository) {
                 const unsigned int below = wholeBelowTheMountPoint(repository);
                 repository.disks.giveBack(repository.destination());
                 EXPECT_EQ(repository.lost(), below);
                 EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
                 outOfReach += below;
               });
  EXPECT_THAT(outOfReach, Gt(0U));
}

TEST(DetachedDestinationTest, InTheSafeModeNoResourceEndsBelowTheMountPoint) {
  const Safety safe(Mode::safe);
  atEveryPoint([](LimitedRepository& repository) { repository.disks.detach(repository.destination()); },
               [](LimitedRepository& repository) {
                 EXPECT_EQ(wholeBelowTheMountPoint(repository), 0U);
                 repository.disks.giveBack(repository.destination());
                 repository.expectNoLoss();
                 EXPECT_EQ(repository.foundWhole(), kResources);
               });
}

std::vector<std::string> listed(const LimitedRepository& repository) {
  long count = 0;
  char** names = listDirs_(repository.id(), &count, true);
  return taken(names, count);
}

TEST(DetachedWalkTest, AListingDuringWhichADiskIsDetachedNamesWhatItSawBeforeAndEnds) {
  LimitedRepository repository;
  const std::vector<std::string> all = listed(repository);
  ASSERT_EQ(all.size(), kResources);
  bool goesOn = true;
  std::set<size_t> sizes;
  for (unsigned int stop = 0; goesOn; ++stop) {
    unsigned int call = 0;
    CallWatch calls;
    calls.onCall = [&](const std::string&) {
      if (call++ == stop) repository.disks.detach(repository.origin());
    };
    const std::vector<std::string> names = listed(repository);
    calls.onCall = nullptr;
    EXPECT_THAT(names, IsSubsetOf(all)) << stop;
    sizes.insert(names.size());
    goesOn = call > stop;
    if (goesOn) repository.disks.giveBack(repository.origin());
  }
  EXPECT_THAT(sizes, testing::SizeIs(Gt(1U))) << "at some point it saw a part";
}

}  // namespace
