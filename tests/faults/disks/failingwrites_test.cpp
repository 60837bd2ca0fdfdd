// The destination's disk begins to fail its writes in the middle of a balancing pass. The page cache takes what is
// written and gives it back, so that copying and comparing succeed; only bringing it to the disk fails, seconds later
// or when somebody asks for it. Anybody may ask: then the file system turns read-only, and what is still to be moved
// stays. So what the default mode loses is looked for among several attempts, and no one of them must lose it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>

#include "entrypoints.h"
#include "faults/disks/drainedrepository.h"
#include "faults/disks/failingimage.h"
#include "support/child.h"

namespace fs = std::filesystem;

using testing::Gt;

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

// Whether a process was started with that in its arguments.
bool isNamedByAProcess(const std::string& text) {
  for (const auto& entry : fs::directory_iterator("/proc"))
    if (readFile(entry.path() / "cmdline").find(text) != std::string::npos) return true;
  return false;
}

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
  unsigned int silentLosses = 0;
  failEverywhere([&](FailingRepository& repository) {
    const bool isSilent = repository.drained.log->texts(LOG_ERR).empty();
    repository.replaceDisk();
    if (isSilent && repository.drained.lost() == kResources) ++silentLosses;
  });
  EXPECT_THAT(silentLosses, Gt(0U));
  RecordProperty("silentLosses", static_cast<int>(silentLosses));
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
  bool isSeen = false;
  for (unsigned int i = 0; i < kFailures && !isSeen; ++i) {
    FailingRepository repository(GetParam());
    repository.image->failWrites(true);
    const bool isSuccess = freeMount_(repository.drained.id(), "d1") == 0;
    repository.replaceDisk();
    isSeen = isSuccess && repository.drained.lost() == kResources;
  }
  EXPECT_TRUE(isSeen);
}

TEST_P(FailingWritesTest, InTheSafeModeFreeMountAnswersThatResourcesAreLeftAndTheyAreWhole) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  FailingRepository repository(GetParam());
  repository.image->failWrites(true);
  EXPECT_EQ(freeMount_(repository.drained.id(), "d1"), 3);
  for (unsigned int i = 0; i < kResources; ++i) EXPECT_TRUE(repository.drained.isWholeAtOrigin(i)) << i;
}

TEST(FailingImageTest, GoesWithATestThatIsKilled) {
  const ScratchDirectory scratch;
  const EnvironmentVariable below("TMPDIR", scratch.path());
  Child test([](const Child::Parent& parent) {
    const FailingRepository repository(DiskKind::ext4);
    parent.tell();
    parent.await();  // until it is killed
  });
  test.await();
  EXPECT_TRUE(isNamedByAProcess(scratch.path()));
  test.kill();
  test.join();
  while (isNamedByAProcess(scratch.path())) usleep(1000);  // a moment; for ever where a server stays
}

// The kernel gives an error of writing back to everyone who had opened the disk before it, and else to the first who
// asks. Here that is another process, such as a move of another resource to the same disk.
class WriteFailureSeenByOthers {
 public:
  explicit WriteFailureSeenByOthers(const FailingRepository& failing) : repository(failing) {
    shell.answer = [this](const std::string& command) {
      const int status = FakeShell::runReal(command);
      if (command.rfind("cp ", 0) == 0 && !happened) happen();
      return status;
    };
  }
  bool hasHappened() const { return happened; }

 private:
  void happen() {
    happened = true;
    repository.image->failWrites(true);
    for (const auto& entry : fs::recursive_directory_iterator(repository.drained.destination()))
      if (entry.path().filename() == "first" || entry.path().filename() == "second") writeContents(entry.path());
    repository.image->failWrites(false);
    EXPECT_FALSE(RealDisks::writeOut(repository.drained.destination()));
    EXPECT_TRUE(RealDisks::writeOut(repository.drained.destination())) << "the disk works again";
  }

  // As the kernel does by itself after a while: nobody is told.
  static void writeContents(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    sync_file_range(file, 0, 0, SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
    close(file);
  }

  const FailingRepository& repository;
  bool happened = false;
  FakeShell shell;
};

TEST_P(FailingWritesTest, InTheSafeModeAFailureThatAnotherProcessWasToldOfLosesNoResource) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  FailingRepository repository(GetParam());
  const WriteFailureSeenByOthers failure(repository);
  checkOverload_(repository.drained.id(), false);
  EXPECT_TRUE(failure.hasHappened());
  repository.replaceDisk();
  EXPECT_EQ(repository.drained.lost(), 0U);
}

}  // namespace
