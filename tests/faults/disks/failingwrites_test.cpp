// The destination's disk begins to fail its writes in the middle of a balancing pass. The page cache takes what is
// written and gives it back, so that copying and comparing succeed; only bringing it to the disk fails, seconds later
// or when somebody asks for it.

#include <gmock/gmock.h>
#include <syslog.h>

#include <functional>
#include <optional>

#include "entrypoints.h"
#include "faults/disks/drainedrepository.h"
#include "faults/disks/failingimage.h"

using testing::Gt;
using testing::IsEmpty;

namespace {

constexpr unsigned int kResources = DrainedRepository::kResources;
constexpr unsigned int kFailures = 20;

class FailingRepository {
 public:
  explicit FailingRepository(DiskKind kind)
      : drained(kind, [this](const std::string& file) { return image.emplace(file).file(); }) {}
  ~FailingRepository() { replaceDisk(); }
  FailingRepository(const FailingRepository&) = delete;
  FailingRepository& operator=(const FailingRepository&) = delete;

  // What reached the destination's disk, on one that works.
  void replaceDisk() {
    if (!image) return;
    drained.disks.restorePower(drained.destination());
    image.reset();
  }

  std::optional<FailingImage> image;
  DrainedRepository drained;
};

class FailingWritesTest : public testing::TestWithParam<DiskKind> {
 protected:
  // Lets writes fail from each of 20 points of a fresh repository's pass on, the first and the last among them.
  static void failEverywhere(const std::function<void(FailingRepository&)>& examine) {
    const unsigned int points = FailingRepository(GetParam()).drained.balance();
    ASSERT_THAT(points, Gt(kFailures));
    for (unsigned int i = 0; i < kFailures; ++i) {
      const unsigned int point = i * (points - 1) / (kFailures - 1);
      SCOPED_TRACE("failing from point " + std::to_string(point) + " of " + std::to_string(points) + " on");
      FailingRepository repository(GetParam());
      repository.drained.balance(Interruption::passes, point, [&] { repository.image->failWrites(true); });
      examine(repository);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(On, FailingWritesTest, testing::Values(DiskKind::ext4, DiskKind::xfs, DiskKind::btrfs),
                         [](const auto& test) { return nameOf(test.param); });

TEST_P(FailingWritesTest, ByDefaultAPassLosesEveryResourceThatItMovesAndLogsNoError) {
  failEverywhere([](FailingRepository& repository) {
    EXPECT_THAT(repository.drained.log.texts(LOG_ERR), IsEmpty());
    repository.replaceDisk();
    EXPECT_EQ(repository.drained.lost(), kResources);
  });
}

TEST_P(FailingWritesTest, InTheSafeModeAPassLosesNoResourceAndLookUpsFindThemAll) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  failEverywhere([](FailingRepository& repository) {
    repository.replaceDisk();
    EXPECT_EQ(repository.drained.lost(), 0U);
    repository.drained.repair();
    for (unsigned int i = 0; i < kResources; ++i) EXPECT_TRUE(repository.drained.isFoundWhole(i)) << i;
  });
}

TEST_P(FailingWritesTest, ByDefaultFreeMountAnswersSuccessWithEveryResourceLost) {
  FailingRepository repository(GetParam());
  repository.image->failWrites(true);
  EXPECT_EQ(freeMount_(repository.drained.id(), "d1"), 0);
  repository.replaceDisk();
  EXPECT_EQ(repository.drained.lost(), kResources);
}

TEST_P(FailingWritesTest, InTheSafeModeFreeMountAnswersThatResourcesAreLeftAndTheyAreWhole) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  FailingRepository repository(GetParam());
  repository.image->failWrites(true);
  EXPECT_EQ(freeMount_(repository.drained.id(), "d1"), 3);
  for (unsigned int i = 0; i < kResources; ++i) EXPECT_TRUE(repository.drained.isWholeAtOrigin(i)) << i;
}

}  // namespace
