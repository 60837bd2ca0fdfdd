#include "KTSemaphore.h"

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "KTException.h"
#include "fakes/fakes.h"
#include "support/child.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kHighestRandom = 2147483647;  // RAND_MAX

std::string lockFile(const ScratchDirectory& dir, const std::string& name) { return dir / ("semaphore_" + name); }

mode_t modeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode;
}

constexpr int kMostAlarms = 1000;  // then they stop, so that a sleep that is resumed comes to its end
volatile sig_atomic_t alarms = 0;

// Every so many microseconds; 0: no more.
void setAlarm(suseconds_t interval) {
  const itimerval timer = {{0, interval}, {0, interval}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

void countAlarm(int) {
  alarms = alarms + 1;
  if (alarms == kMostAlarms) setAlarm(0);
}

}  // namespace

TEST(KTSemaphoreTest, ConstructionTouchesNoFile) {
  const ScratchDirectory dir;
  const KTSemaphore semaphore("m1", dir.path(), true);
  EXPECT_THAT(treeOf(dir.path()), IsEmpty());
  EXPECT_FALSE(semaphore.locked);
  EXPECT_FALSE(semaphore.lockedElsewhere);
  EXPECT_TRUE(semaphore.autoUnlock);
  EXPECT_EQ(semaphore.name, "m1");
  EXPECT_EQ(semaphore.directory, dir.path());
}

TEST(KTSemaphoreTest, LockIsAnEmptyRegularFileNamedAfterIt) {
  const ScratchDirectory dir;
  KTSemaphore semaphore("m1", dir.path(), true);
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_TRUE(semaphore.locked);
  EXPECT_FALSE(semaphore.lockedElsewhere);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("semaphore_m1="));
  EXPECT_TRUE(S_ISREG(modeOf(lockFile(dir, "m1"))));
}

TEST(KTSemaphoreTest, LockFileIsForOwnerAndGroupLessTheUmask) {
  const ScratchDirectory dir;
  KTSemaphore open("open", dir.path(), true);
  KTSemaphore narrowed("narrowed", dir.path(), true);
  const mode_t before = umask(0);
  const bool openTaken = open.lockResource();
  umask(027);
  const bool narrowedTaken = narrowed.lockResource();
  umask(before);
  ASSERT_TRUE(openTaken && narrowedTaken);
  EXPECT_EQ(modeOf(lockFile(dir, "open")) & 0777, 0660U);
  EXPECT_EQ(modeOf(lockFile(dir, "narrowed")) & 0777, 0640U);
}

TEST(KTSemaphoreTest, WithoutVariableAndDirectoryTheLockIsInTheWorkingDirectory) {
  const ScratchDirectory dir;
  const WorkingDirectory here(dir.path());
  const EnvironmentVariable variable("LOCK_VAR", std::nullopt);
  const CallWatch watch;
  KTSemaphore semaphore("m1", true);
  EXPECT_EQ(semaphore.directory, ".");
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_THAT(watch.calls, ElementsAre("open ./semaphore_m1"));
  EXPECT_TRUE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, VariableNamesTheDirectory) {
  const ScratchDirectory dir;
  const EnvironmentVariable variable("LOCK_VAR", dir.path());
  KTSemaphore one("one", true);
  KTSemaphore two("two", "", true);
  ASSERT_TRUE(one.lockResource());
  ASSERT_TRUE(two.lockResource());
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("semaphore_one=", "semaphore_two="));
}

TEST(KTSemaphoreTest, GivenDirectoryOverridesTheVariable) {
  const ScratchDirectory given;
  const ScratchDirectory other;
  const EnvironmentVariable variable("LOCK_VAR", other.path());
  KTSemaphore semaphore("m1", given.path(), true);
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_TRUE(isThere(lockFile(given, "m1")));
  EXPECT_THAT(treeOf(other.path()), IsEmpty());
}

TEST(KTSemaphoreTest, EmptyVariablePutsTheLockAtTheRootOfTheFileSystem) {
  const EnvironmentVariable variable("LOCK_VAR", "");
  const FailingCall refused("open", EACCES, "/semaphore_m1");
  const CallWatch watch;
  KTSemaphore semaphore("m1", true);
  EXPECT_EQ(semaphore.directory, "");
  EXPECT_THROW(semaphore.lockResource(), KTIOException);
  EXPECT_THAT(watch.calls, ElementsAre("open /semaphore_m1"));
}

TEST(KTSemaphoreTest, DirectoryIsChosenAtConstruction) {
  const ScratchDirectory first;
  const ScratchDirectory second;
  const EnvironmentVariable variable("LOCK_VAR", first.path());
  KTSemaphore semaphore("m1", true);
  const EnvironmentVariable changed("LOCK_VAR", second.path());
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_TRUE(isThere(lockFile(first, "m1")));
}

TEST(KTSemaphoreTest, NameMayBeEmpty) {
  const ScratchDirectory dir;
  KTSemaphore semaphore("", dir.path(), true);
  EXPECT_TRUE(semaphore.lockResource());
  EXPECT_TRUE(isThere(dir / "semaphore_"));
}

TEST(KTSemaphoreTest, HeldLockIsRefusedToAnother) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  KTSemaphore stranger("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  EXPECT_FALSE(stranger.lockResource());
  EXPECT_FALSE(stranger.locked);
}

TEST(KTSemaphoreTest, HeldLockIsRefusedToItsHolder) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  EXPECT_FALSE(holder.lockResource());
  EXPECT_TRUE(holder.locked);
  EXPECT_TRUE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, OtherNamesAndOtherDirectoriesAreOtherLocks) {
  const ScratchDirectory dir;
  const ScratchDirectory elsewhere;
  KTSemaphore holder("m1", dir.path(), true);
  KTSemaphore otherName("m2", dir.path(), true);
  KTSemaphore otherDirectory("m1", elsewhere.path(), true);
  EXPECT_TRUE(holder.lockResource());
  EXPECT_TRUE(otherName.lockResource());
  EXPECT_TRUE(otherDirectory.lockResource());
}

TEST(KTSemaphoreTest, AnythingAtTheLocksPathHoldsTheLock) {
  const ScratchDirectory dir;
  writeFile(lockFile(dir, "file"), "left by a process that died");
  makeDirectories(lockFile(dir, "directory"));
  std::filesystem::create_symlink("nowhere", lockFile(dir, "link"));
  for (const char* name : {"file", "directory", "link"}) {
    KTSemaphore semaphore(name, dir.path(), true);
    EXPECT_FALSE(semaphore.lockResource()) << name;
  }
}

TEST(KTSemaphoreTest, AttemptsLeaveNoDescriptorOpen) {
  const ScratchDirectory dir;
  const long before = openDescriptors();
  KTSemaphore holder("m1", dir.path(), true);
  KTSemaphore stranger("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  ASSERT_FALSE(stranger.lockResource());
  EXPECT_EQ(openDescriptors(), before);
}

TEST(KTSemaphoreTest, MissingDirectoryIsAFailureAtOnceAndNotAWait) {
  const ScratchDirectory dir;
  const FakeClock clock;
  KTSemaphore semaphore("m1", dir / "missing", true);
  const auto failure = thrownBy<KTIOException>([&] { semaphore.lockResource(); });
  EXPECT_EQ(failure.m_code, ENOENT);
  EXPECT_EQ(failure.m_message, "Creating semaphore failed: m1 [No such file or directory]");
  EXPECT_FALSE(semaphore.locked);
  EXPECT_THROW(semaphore.lock(30), KTIOException);
  EXPECT_THAT(clock.pauses, IsEmpty());
}

TEST(KTSemaphoreTest, RefusedCreationTellsTheNameAndTheReason) {
  const ScratchDirectory dir;
  const struct {
    int error;
    const char* text;
  } table[] = {
      {EACCES, "IO Exception: [13] Creating semaphore failed: m1 [Permission denied]"},
      {ENOSPC, "IO Exception: [28] Creating semaphore failed: m1 [No space left on device]"},
      {EMFILE, "IO Exception: [24] Creating semaphore failed: m1 [Too many open files]"},
      {EROFS, "IO Exception: [30] Creating semaphore failed: m1 [Read-only file system]"},
  };
  for (const auto& row : table) {
    const FailingCall refused("open", row.error, "/semaphore_m1");
    KTSemaphore semaphore("m1", dir.path(), true);
    const auto failure = thrownBy<KTIOException>([&] { semaphore.lockResource(); });
    EXPECT_EQ(rendered(failure), row.text);
    EXPECT_EQ(failure.m_code, row.error);
    EXPECT_FALSE(semaphore.locked);
  }
}

TEST(KTSemaphoreTest, NameTooLongForAFileIsAFailure) {
  const ScratchDirectory dir;
  const std::string name(300, 'n');
  KTSemaphore semaphore(name, dir.path(), true);
  const auto failure = thrownBy<KTIOException>([&] { semaphore.lockResource(); });
  EXPECT_EQ(failure.m_code, ENAMETOOLONG);
  EXPECT_EQ(failure.m_message, "Creating semaphore failed: " + name + " [File name too long]") << "not cut";
}

TEST(KTSemaphoreTest, FreeLockIsTakenWithoutASleepWhateverTheTimeOut) {
  for (const int timeout : {0, -1, 1, 30, INT_MIN, INT_MAX}) {
    const ScratchDirectory dir;
    const FakeClock clock;
    KTSemaphore semaphore("m1", dir.path(), true);
    EXPECT_TRUE(semaphore.lock(timeout)) << timeout;
    EXPECT_TRUE(semaphore.locked);
    EXPECT_THAT(clock.pauses, IsEmpty());
    EXPECT_EQ(clock.randomCalls, 0);
  }
}

TEST(KTSemaphoreTest, NegativeTimeOutTriesOnceAndThrowsWithoutASleep) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  for (const int timeout : {-1, -30, INT_MIN}) {
    const FakeClock clock;
    const CallWatch watch;
    KTSemaphore stranger("m1", dir.path(), true);
    const auto failure = thrownBy<KTTimeoutException>([&] { stranger.lock(timeout); });
    EXPECT_EQ(failure.m_code, 1);
    EXPECT_EQ(failure.m_message, "Semaphore timed out");
    EXPECT_THAT(watch.calls, SizeIs(1)) << timeout;
    EXPECT_THAT(clock.pauses, IsEmpty()) << timeout;
    EXPECT_EQ(clock.randomCalls, 0) << "no pause is drawn either";
  }
}

TEST(KTSemaphoreTest, TimeOutIsReachedWhenThePausesAddUpToIt) {
  const struct {
    int timeout;
    std::vector<int> randoms;
    std::vector<long> pauses;
  } table[] = {
      // 980 steps of the generator's range above 10 ms
      {1, {1073741824, 1073741824, 5}, {500, 500}},
      {1, {1073741824, 1071550516, 1073741824, 5}, {500, 499, 500}},
      {1, {kHighestRandom, kHighestRandom, 5}, {989, 989}},
      {2, {kHighestRandom, kHighestRandom, 26298085, kHighestRandom}, {989, 989, 22}},
  };
  for (const auto& row : table) {
    const ScratchDirectory dir;
    KTSemaphore holder("m1", dir.path(), true);
    ASSERT_TRUE(holder.lockResource());
    FakeClock clock;
    clock.randoms = row.randoms;
    const CallWatch watch;
    KTSemaphore stranger("m1", dir.path(), true);
    EXPECT_THROW(stranger.lock(row.timeout), KTTimeoutException);
    EXPECT_EQ(clock.pauses, row.pauses);
    EXPECT_EQ(watch.calls.size(), row.pauses.size() + 1) << "a last attempt after the budget is spent";
  }
}

TEST(KTSemaphoreTest, PauseIsDrawnFrom10To989Milliseconds) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;
  // One step of 980 is 2^31 / 980 = 2191309.8 wide.
  clock.randoms = {0, 2191309, 2191310, 1073741823, 1073741824, kHighestRandom};
  const size_t draws = clock.randoms.size();
  clock.onSleep = [&] {
    if (clock.pauses.size() == draws) holder.unlock();
  };
  KTSemaphore stranger("m1", dir.path(), true);
  ASSERT_TRUE(stranger.lock(0));
  EXPECT_THAT(clock.pauses, ElementsAre(10, 10, 11, 499, 500, 989));
  EXPECT_EQ(clock.randomCalls, 6);
}

TEST(KTSemaphoreTest, ThirtySecondsAreWaitedInPausesAlone) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;
  clock.randoms.assign(100, 1073741824);  // 500 ms each
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_THROW(stranger.lock(30), KTTimeoutException);
  EXPECT_THAT(clock.pauses, SizeIs(60));
  EXPECT_THAT(clock.pauses, Each(500));
}

TEST(KTSemaphoreTest, ShortestPausesMakeTheMostAttempts) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;  // rand gives 0: 10 ms each
  const CallWatch watch;
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_THROW(stranger.lock(1), KTTimeoutException);
  EXPECT_THAT(clock.pauses, SizeIs(100));
  EXPECT_THAT(watch.calls, SizeIs(101));
}

TEST(KTSemaphoreTest, LockIsTakenInTheLastAttemptAfterTheBudgetIsSpent) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;
  clock.onSleep = [&] {
    if (clock.pauses.size() == 100) holder.unlock();
  };
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_TRUE(stranger.lock(1));
  EXPECT_THAT(clock.pauses, SizeIs(100));
}

TEST(KTSemaphoreTest, TimeOutOfZeroWaitsUntilTheHolderReleases) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;
  clock.onSleep = [&] {
    if (clock.pauses.size() == 10000) holder.unlock();
  };
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_TRUE(stranger.lock(0));
  EXPECT_THAT(clock.pauses, SizeIs(10000));
  EXPECT_TRUE(stranger.locked);
}

TEST(KTSemaphoreTest, LongestTimeOutDoesNotOverflowItsBudget) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;
  clock.onSleep = [&] {
    if (clock.pauses.size() == 1000) holder.unlock();
  };
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_TRUE(stranger.lock(INT_MAX));
}

TEST(KTSemaphoreTest, FailureWhileWaitingEndsTheWait) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  const FakeClock clock;
  const FailingCall refused("open", EIO, "/semaphore_m1", 3);
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_THROW(stranger.lock(30), KTIOException);
  EXPECT_THAT(clock.pauses, SizeIs(3));
}

TEST(KTSemaphoreTest, PauseCutShortBySignalIsNotResumed) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = countAlarm;
  ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
  alarms = 0;
  setAlarm(1000);
  KTSemaphore stranger("m1", dir.path(), true);
  EXPECT_THROW(stranger.lock(3), KTTimeoutException);
  setAlarm(0);
  sigaction(SIGALRM, &before, nullptr);
  // Some six pauses are drawn, each over at the next alarm. Slept to their end they would see 3000.
  EXPECT_LT(alarms, kMostAlarms);
}

TEST(KTSemaphoreTest, UnlockRemovesTheFileAndFreesTheLock) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  KTSemaphore stranger("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  holder.unlock();
  EXPECT_FALSE(holder.locked);
  EXPECT_THAT(treeOf(dir.path()), IsEmpty());
  EXPECT_TRUE(stranger.lockResource());
}

TEST(KTSemaphoreTest, ReleasedLockCanBeTakenAgain) {
  const ScratchDirectory dir;
  KTSemaphore semaphore("m1", dir.path(), true);
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(semaphore.lockResource());
    semaphore.unlock();
  }
}

TEST(KTSemaphoreTest, UnlockLeavesALockFileThatAnotherObjectMade) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  KTSemaphore stranger("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  stranger.unlock();
  EXPECT_FALSE(stranger.lockResource()) << "the holder's file is gone";
}

TEST(KTSemaphoreTest, SecondUnlockLeavesTheNextHoldersFile) {
  const ScratchDirectory dir;
  KTSemaphore first("m1", dir.path(), true);
  KTSemaphore next("m1", dir.path(), true);
  ASSERT_TRUE(first.lockResource());
  first.unlock();
  ASSERT_TRUE(next.lockResource());
  first.unlock();
  EXPECT_TRUE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, UnlockOfAnObjectThatNeverLockedMakesNoCall) {
  const ScratchDirectory dir;
  const CallWatch watch;
  KTSemaphore("m1", dir.path(), true).unlock();
  EXPECT_THAT(watch.calls, IsEmpty());
}

TEST(KTSemaphoreTest, UnlockOfAFileThatIsGoneIsSilent) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  std::filesystem::remove(lockFile(dir, "m1"));
  EXPECT_NO_THROW(holder.unlock());
  EXPECT_FALSE(holder.locked);
}

TEST(KTSemaphoreTest, RefusedUnlockThrowsAndTheLockStaysTheObjects) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  {
    const FailingCall refused("unlink", EACCES, "/semaphore_m1");
    const auto failure = thrownBy<KTIOException>([&] { holder.unlock(); });
    EXPECT_EQ(rendered(failure), "IO Exception: [13] Releasing semaphore failed: m1 [Permission denied]");
    EXPECT_EQ(failure.m_code, EACCES);
    EXPECT_TRUE(holder.locked);
  }
  holder.unlock();
  EXPECT_FALSE(holder.locked);
  EXPECT_FALSE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, SecondOwnershipFlagLetsUnlockRemoveTheFileAndStays) {
  const ScratchDirectory dir;
  writeFile(lockFile(dir, "m1"), "");
  KTSemaphore semaphore("m1", dir.path(), false);
  semaphore.lockedElsewhere = true;
  semaphore.unlock();
  EXPECT_FALSE(isThere(lockFile(dir, "m1")));
  EXPECT_TRUE(semaphore.lockedElsewhere);
}

TEST(KTSemaphoreTest, DestructionReleasesTheLock) {
  const ScratchDirectory dir;
  {
    KTSemaphore holder("m1", dir.path(), true);
    ASSERT_TRUE(holder.lockResource());
  }
  EXPECT_FALSE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, DestructionWithoutAutoUnlockLeavesTheLockFile) {
  const ScratchDirectory dir;
  {
    KTSemaphore holder("m1", dir.path(), false);
    ASSERT_TRUE(holder.lockResource());
  }
  EXPECT_TRUE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, DestructionOfAnObjectThatNeverLockedLeavesTheHoldersFile) {
  const ScratchDirectory dir;
  KTSemaphore holder("m1", dir.path(), true);
  ASSERT_TRUE(holder.lockResource());
  { const KTSemaphore stranger("m1", dir.path(), true); }
  EXPECT_TRUE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, ExceptionInTheLockedStepReleasesTheLock) {
  const ScratchDirectory dir;
  const auto step = [&] {
    KTSemaphore holder("m1", dir.path(), true);
    holder.lockResource();
    throw std::runtime_error("the step failed");
  };
  EXPECT_THROW(step(), std::runtime_error);
  EXPECT_FALSE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, RefusedReleaseLeavesTheDestructorAsAnException) {
  const ScratchDirectory dir;
  const FailingCall refused("unlink", EACCES, "/semaphore_m1", 0, 1);
  const auto step = [&] {
    KTSemaphore holder("m1", dir.path(), true);
    holder.lockResource();
  };
  EXPECT_EQ(thrownBy<KTIOException>(step).m_message, "Releasing semaphore failed: m1 [Permission denied]");
  EXPECT_EQ(refused.failed(), 1);
  EXPECT_TRUE(isThere(lockFile(dir, "m1")));
}

TEST(KTSemaphoreTest, RefusedReleaseDoesNotReplaceTheExceptionOnItsWay) {
  const ScratchDirectory dir;
  const FailingCall refused("unlink", EACCES, "/semaphore_m1", 0, 1);
  const auto step = [&] {
    KTSemaphore holder("m1", dir.path(), true);
    holder.lockResource();
    throw std::runtime_error("the step failed");
  };
  EXPECT_STREQ(thrownBy(step, std::runtime_error("")).what(), "the step failed");
  EXPECT_EQ(refused.failed(), 1);
}

TEST(KTSemaphoreTest, LockHeldByAnotherProcessIsRefusedUntilItReleases) {
  const ScratchDirectory dir;
  Child holder([&](const Child::Parent& parent) {
    KTSemaphore semaphore("m1", dir.path(), true);
    ASSERT_TRUE(semaphore.lockResource());
    parent.tell();
    parent.await();
    semaphore.unlock();
  });
  holder.await();
  KTSemaphore semaphore("m1", dir.path(), true);
  EXPECT_FALSE(semaphore.lockResource());
  {
    const FakeClock clock;
    EXPECT_THROW(semaphore.lock(30), KTTimeoutException);
  }
  holder.tell();
  EXPECT_EQ(holder.join(), 0);
  EXPECT_TRUE(semaphore.lockResource());
}

TEST(KTSemaphoreTest, LockOfAProcessThatDiedStaysUntilAnOperatorRemovesIt) {
  const ScratchDirectory dir;
  Child holder([&](const Child::Parent& parent) {
    KTSemaphore semaphore("m1", dir.path(), true);
    ASSERT_TRUE(semaphore.lockResource());
    parent.tell();
    parent.await();
  });
  holder.await();
  holder.kill();
  holder.join();
  setTimes(lockFile(dir, "m1"), 1000);  // its age does not matter
  const FakeClock clock;
  KTSemaphore semaphore("m1", dir.path(), true);
  EXPECT_THROW(semaphore.lock(30), KTTimeoutException);
  std::filesystem::remove(lockFile(dir, "m1"));
  EXPECT_TRUE(semaphore.lock(30));
}

TEST(KTSemaphoreTest, OnlyOneProcessIsInsideAtATime) {
  const ScratchDirectory dir;
  constexpr int kRounds = 200;
  const std::string counter = dir / "counter";
  writeFile(counter, "0");
  const auto count = [&](const Child::Parent&) {
    for (int round = 0; round < kRounds; ++round) {
      KTSemaphore semaphore("m1", dir.path(), true);
      while (!semaphore.lockResource()) sched_yield();
      writeFile(counter, std::to_string(std::stoi(readFile(counter)) + 1));
    }
  };
  Child first(count);
  Child second(count);
  Child third(count);
  EXPECT_EQ(first.join(), 0);
  EXPECT_EQ(second.join(), 0);
  EXPECT_EQ(third.join(), 0);
  EXPECT_EQ(readFile(counter), std::to_string(3 * kRounds));
}
