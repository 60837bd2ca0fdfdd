#include "operationlog.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "KTSemaphore.h"
#include "entrypoints.h"
#include "fakes/fakes.h"
#include "paths.h"
#include "registry.h"
#include "support/child.h"
#include "support/repository.h"
#include "support/scratch.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

std::string lockOf(std::string file) {
  std::replace(file.begin(), file.end(), '/', '_');
  return "KTRepositoryHandler-" + file + "-";
}

// A log file "oper.log" that is not there yet, and a directory for lock files.
class OperationLogTest : public testing::Test {
 protected:
  OperationLogTest() { makeDirectories(directory / "locks"); }

  std::string lockFile() const { return directory / "locks/semaphore_" + lockName; }
  bool isLocked() const { return isThere(lockFile()); }
  void write(const std::string& text) const { writeToLogGlobal(path.c_str(), text.c_str()); }
  std::string content() const { return readFile(path); }
  std::string notLocked() const { return "The log file \"" + path + "\" could not be locked."; }
  std::string notOpened() const { return "couldn't create logfile:" + path; }

  ScratchDirectory directory;
  EnvironmentVariable lockVariable{"LOCK_VAR", directory / "locks"};
  const std::string path = directory / "oper.log";
  const std::string lockName = lockOf(path);
  FakeSyslog log;
};

}  // namespace

TEST_F(OperationLogTest, MakesTheFileWithTheTextAsItsLine) {
  write("/data/m1/FP/IA/L3/2009");
  EXPECT_EQ(content(), "/data/m1/FP/IA/L3/2009\n");
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("WritetoLog", "text:/data/m1/FP/IA/L3/2009\n"));
  EXPECT_EQ(log.lines.size(), 2u);
}

TEST_F(OperationLogTest, TheSameTextTwiceLeavesOneLineAndOneReport) {
  write("a");
  log.lines.clear();
  write("a");
  EXPECT_EQ(content(), "a\n");
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(OperationLogTest, LinesStandInTheOrderOfFirstAppearance) {
  for (const char* text : {"c", "a", "c", "b", "a"}) write(text);
  EXPECT_EQ(content(), "c\na\nb\n");
}

TEST_F(OperationLogTest, AppendingIsReportedLikeMaking) {
  writeFile(path, "a\n");
  write("b");
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("WritetoLog", "text:b\n"));
  EXPECT_EQ(log.lines.size(), 2u);
}

TEST_F(OperationLogTest, ALineIsEqualByteByByteWithoutOneLineFeed) {
  struct Row {
    std::string before;
    std::string text;
    std::string after;
  };
  const std::vector<Row> rows = {
      {"", "a", "a\n"},
      {"a\nb\nc\n", "b", "a\nb\nc\n"},
      {"a\nb\nc\n", "c", "a\nb\nc\n"},
      {"abc\n", "ab", "abc\nab\n"},
      {"ab\n", "abc", "ab\nabc\n"},
      {"A\n", "a", "A\na\n"},
      {"a \n", "a", "a \na\n"},
      {"a\r\n", "a", "a\r\na\n"},
      {"a\r\n", "a\r", "a\r\n"},
      {"\xc3\xa4\n", "\xc3\xa4", "\xc3\xa4\n"},
      {"", "", "\n"},
      {"a\n", "", "a\n\n"},
      {"a\n\n", "", "a\n\n"},
      {"a\nb\n", "a\nb", "a\nb\na\nb\n"},
  };
  for (const Row& row : rows) {
    writeFile(path, row.before);
    write(row.text);
    EXPECT_EQ(content(), row.after) << row.before << " and " << row.text;
  }
}

TEST_F(OperationLogTest, ALastLineWithoutItsLineFeedIsFound) {
  writeFile(path, "a\nb");
  write("b");
  EXPECT_EQ(content(), "a\nb");
}

TEST_F(OperationLogTest, ANewTextGoesDirectlyBehindALastLineWithoutItsLineFeed) {
  writeFile(path, "a\nb");
  write("c");
  EXPECT_EQ(content(), "a\nbc\n");
}

TEST_F(OperationLogTest, ATextOfMoreThan1023BytesIsAppendedEachTime) {
  const std::string text(1024, 'x');
  for (int i = 0; i < 3; ++i) write(text);
  EXPECT_EQ(content(), text + "\n" + text + "\n" + text + "\n");
}

TEST_F(OperationLogTest, ATextOf1023BytesIsFound) {
  const std::string text(1023, 'x');
  for (int i = 0; i < 3; ++i) write(text);
  EXPECT_EQ(content(), text + "\n");
}

TEST_F(OperationLogTest, APieceOfALongLineCountsAsALine) {
  const std::string before = std::string(1023, 'x') + "tail\n";
  writeFile(path, before);
  write("tail");
  write(std::string(1023, 'x'));
  EXPECT_EQ(content(), before);
}

TEST_F(OperationLogTest, APercentSignIsText) {
  write("100%s%n");
  write("100%s%n");
  EXPECT_EQ(content(), "100%s%n\n");
  EXPECT_THAT(log.texts(), ElementsAre("WritetoLog", "text:100%s%n\n"));
}

TEST_F(OperationLogTest, ChecksAndAppendsUnderTheLockNamedAfterTheFile) {
  writeFile(path, "a\n");
  CallWatch watch;
  write("b");
  EXPECT_THAT(watch.locks, ElementsAre("+" + lockName, "-" + lockName));
  EXPECT_THAT(watch.calls, ElementsAre("open " + lockFile(), "access " + path, "fopen " + path, "fopen " + path,
                                       "unlink " + lockFile()));
}

TEST_F(OperationLogTest, MakesANewFileUnderTheLockToo) {
  CallWatch watch;
  write("b");
  EXPECT_THAT(watch.calls,
              ElementsAre("open " + lockFile(), "access " + path, "fopen " + path, "unlink " + lockFile()));
}

TEST_F(OperationLogTest, ALockHeldByAnotherIsWaitedForThirtySecondsAndLogged) {
  KTSemaphore holder(lockName, true);
  ASSERT_TRUE(holder.lockResource());
  FakeClock clock;
  write("a");
  EXPECT_EQ(std::accumulate(clock.pauses.begin(), clock.pauses.end(), 0L), 30000) << "pauses of 10 milliseconds";
  EXPECT_FALSE(isThere(path));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notLocked()));
  EXPECT_EQ(log.lines.size(), 1u);
  EXPECT_TRUE(isLocked()) << "the holder's file is gone";
}

TEST_F(OperationLogTest, ALockThatCannotBeMadeIsLoggedWithoutWaiting) {
  const EnvironmentVariable missing("LOCK_VAR", directory / "missing");
  writeFile(path, "a\n");
  FakeClock clock;
  write("b");
  EXPECT_THAT(clock.pauses, IsEmpty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notLocked()));
  EXPECT_EQ(content(), "a\n");
}

TEST_F(OperationLogTest, APercentSignInThePathIsExpandedInTheLineOfALockNotTaken) {
  const EnvironmentVariable missing("LOCK_VAR", directory / "missing");
  writeToLogGlobal("/100%%", "a");
  EXPECT_THAT(log.texts(), ElementsAre("The log file \"/100%\" could not be locked."));
}

TEST_F(OperationLogTest, ALockHeldByAnotherProcessPastTheTimeOutKeepsTheFileAsItIs) {
  writeFile(path, "a\n");
  Child holder([&](const Child::Parent& parent) {
    KTSemaphore semaphore(lockName, true);
    ASSERT_TRUE(semaphore.lockResource());
    parent.tell();
    parent.await();
  });
  holder.await();
  FakeClock clock;
  write("b");
  EXPECT_EQ(content(), "a\n");
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notLocked()));
  holder.tell();
  EXPECT_EQ(holder.join(), 0);
  EXPECT_FALSE(isLocked());
}

TEST_F(OperationLogTest, WritesOnceAnotherProcessHasReleasedTheLock) {
  Child holder([&](const Child::Parent& parent) {
    KTSemaphore semaphore(lockName, true);
    ASSERT_TRUE(semaphore.lockResource());
    parent.tell();
    parent.await();
    semaphore.unlock();
    parent.tell();
  });
  holder.await();
  FakeClock clock;
  clock.onSleep = [&] {
    holder.tell();
    holder.await();
  };
  write("b");
  EXPECT_EQ(clock.pauses.size(), 1u);
  EXPECT_EQ(content(), "b\n");
  EXPECT_EQ(holder.join(), 0);
}

TEST_F(OperationLogTest, TwoProcessesThatLogTheSameTextsAtOnceLeaveOneLineForEach) {
  constexpr int kTexts = 100;
  const auto logAll = [&] {
    FakeClock clock;
    clock.onSleep = [] { poll(nullptr, 0, 1); };  // waiting is shortened to a real millisecond
    for (int i = 0; i < kTexts; ++i) write("text " + std::to_string(i));
  };
  Child other([&](const Child::Parent& parent) {
    parent.await();
    FakeSyslog ofChild;
    logAll();
    EXPECT_THAT(ofChild.texts(LOG_ERR), IsEmpty());
  });
  other.tell();
  logAll();
  EXPECT_EQ(other.join(), 0);
  std::string want;
  for (int i = 0; i < kTexts; ++i) want += "text " + std::to_string(i) + "\n";
  EXPECT_EQ(content(), want);
  EXPECT_THAT(log.texts(LOG_ERR), IsEmpty());
  EXPECT_FALSE(isLocked());
}

TEST_F(OperationLogTest, AFileThatCannotBeReadIsLoggedAndStaysAsItIs) {
  writeFile(path, "a\n");
  {
    const FailingCall refused("fopen", EACCES, path, 0, 1);
    write("b");
    EXPECT_EQ(refused.failed(), 1);
  }
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notOpened()));
  EXPECT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(content(), "a\n");
  EXPECT_FALSE(isLocked());
}

TEST_F(OperationLogTest, AFileThatCannotBeAppendedToIsLoggedAndStaysAsItIs) {
  writeFile(path, "a\n");
  {
    const FailingCall refused("fopen", EROFS, path, 1);
    write("b");
    EXPECT_EQ(refused.failed(), 1);
  }
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notOpened()));
  EXPECT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(content(), "a\n");
  EXPECT_FALSE(isLocked());
}

TEST_F(OperationLogTest, AFileThatCannotBeMadeIsLogged) {
  const std::string missing = directory / "missing/oper.log";
  writeToLogGlobal(missing.c_str(), "a");
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("couldn't create logfile:" + missing));
  EXPECT_EQ(log.lines.size(), 1u);
  EXPECT_THAT(treeOf(directory / "locks"), IsEmpty());
}

TEST_F(OperationLogTest, ADirectoryInPlaceOfTheFileCannotBeAppendedTo) {
  makeDirectories(path);
  write("a");
  EXPECT_THAT(log.texts(), ElementsAre(notOpened()));
  EXPECT_THAT(treeOf(path), IsEmpty());
}

TEST_F(OperationLogTest, NothingIsThrownWhenTheLockFileCannotBeRemoved) {
  const FailingCall refused("unlink", EACCES, "semaphore_");
  EXPECT_NO_THROW(write("a"));
  EXPECT_EQ(refused.failed(), 1);
  EXPECT_EQ(content(), "a\n");
  EXPECT_TRUE(isLocked());
}

TEST_F(OperationLogTest, NothingIsThrownWhenNeitherTheFileNorTheLockFileGivesWay) {
  const FailingCall refused("unlink", EACCES, "semaphore_");
  const FailingCall unopened("fopen", EACCES, path);
  EXPECT_NO_THROW(write("a"));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notOpened(), StartsWith("Releasing semaphore failed: ")));
}

TEST_F(OperationLogTest, NullArgumentsAreIgnored) {
  CallWatch watch;
  writeToLogGlobal(nullptr, "a");
  writeToLogGlobal(path.c_str(), nullptr);
  writeToLogGlobal(nullptr, nullptr);
  EXPECT_THAT(watch.calls, IsEmpty());
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(OperationLogTest, AnEmptyPathCannotBeMade) {
  writeToLogGlobal("", "a");
  EXPECT_THAT(log.texts(), ElementsAre("couldn't create logfile:"));
}

TEST(OperationLogHookTest, TheHooksTakeATextAndDoNothing) {
  TestRepository repository({"d1"});
  FakeDisks disks;
  disks.setUsed(repository.mount(0), 10);
  FakeSyslog log;
  KTRepositoryHandler* handler = getRepository(repository.id());
  KTMountPointHandler& mount = *handler->mountPoints.at(0);
  EXPECT_EQ(mount.logPath, repository.mount(0) + "/.log");
  CallWatch watch;
  for (const char* text : {"/data/m1/AA/BB/CC/a", "", static_cast<const char*>(nullptr)}) {
    mount.writeToLog(text);
    handler->writeToLegacyLog(text);
  }
  EXPECT_THAT(watch.calls, IsEmpty());
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST(OperationLogHookTest, NormalWorkWritesNoOperationLog) {
  TestRepository repository({"d1"});
  FakeDisks disks;
  disks.setUsed(repository.mount(0), 10);
  FakeSyslog log;
  int status = -1;
  release(createDirectory_(repository.id(), "2009", &status, false));
  EXPECT_EQ(status, 0);
  release(getLocation_(repository.id(), "2009", &status));
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(isThere(repository.mount(0) + "/.log"));
  EXPECT_FALSE(isThere(repository.path() + "/.log"));
}
