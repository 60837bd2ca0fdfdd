#include "KTDirtyFlagHandler.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "KTException.h"
#include "KTSemaphore.h"
#include "fakes/fakes.h"
#include "support/child.h"
#include "support/results.h"
#include "support/scratch.h"

using testing::ElementsAre;
using testing::IsEmpty;

extern const size_t sizeForLargeFiles;  // see largefiles.cpp

namespace {

constexpr char kRepositoryIsNull[] =
    "ASSERT (repository) in repositoryhandler/src/libs/KTRepositoryHandler at line 1682.";
constexpr char kNotReadable[] = "ASSERT (f) in repositoryhandler/src/libs/KTRepositoryHandler at line 1705.";
constexpr char kNotWritable[] = "ASSERT (f) in repositoryhandler/src/libs/KTRepositoryHandler at line 1781.";

std::string lockOf(std::string file) {
  std::replace(file.begin(), file.end(), '/', '_');
  return "KTRepositoryHandler-" + file + "-";
}

// A repository's root directory without a set file, and a directory for lock files.
class DirtyFlagTest : public testing::Test {
 protected:
  DirtyFlagTest() {
    makeDirectories(root);
    makeDirectories(directory / "locks");
  }

  void setUp(KTDirtyFlagHandler& handler) const { handler.setRepository(root.c_str()); }
  KTDirtyFlagHandler loaded() const {
    KTDirtyFlagHandler handler;
    setUp(handler);
    return handler;
  }
  std::string lockFile() const { return directory / "locks/semaphore_" + lockName; }
  bool isLocked() const { return isThere(lockFile()); }
  std::string notLocked() const { return "The dirty mechanism \"" + file + "\" could not be locked."; }

  // A process that holds the set's lock until it is told to leave.
  void holdLock(const Child::Parent& parent) const {
    KTSemaphore semaphore(lockName, true);
    ASSERT_TRUE(semaphore.lockResource());
    parent.tell();
    parent.await();
  }

  ScratchDirectory directory;
  EnvironmentVariable lockVariable{"LOCK_VAR", directory / "locks"};
  const std::string root = directory / "rep";
  const std::string file = root + "/.dirty";
  const std::string lockName = lockOf(file);
  FakeSyslog log;
};

}  // namespace

TEST_F(DirtyFlagTest, ANewHandlerIsEmptyAndNamesNoFile) {
  const KTDirtyFlagHandler handler;
  EXPECT_THAT(handler.dirtySet, IsEmpty());
  EXPECT_EQ(handler.setFile, "");
}

TEST_F(DirtyFlagTest, AHandlerIsAsLargeForACallerOfLargeFiles) {
  EXPECT_EQ(sizeof(KTDirtyFlagHandler), sizeForLargeFiles);
}

TEST_F(DirtyFlagTest, TheFileIsNamedAfterTheRepositoryAsItWasGiven) {
  EXPECT_EQ(loaded().setFile, root + "/.dirty");
  KTDirtyFlagHandler handler;
  handler.setRepository((root + "/").c_str());
  EXPECT_EQ(handler.setFile, root + "//.dirty");
}

TEST_F(DirtyFlagTest, ANullRepositoryThrowsTheAssertionOfLine1682) {
  KTDirtyFlagHandler handler;
  CallWatch watch;
  EXPECT_EQ(rendered(assertionOf([&] { handler.setRepository(nullptr); })), kRepositoryIsNull);
  EXPECT_EQ(handler.setFile, "");
  EXPECT_THAT(watch.calls, IsEmpty());
}

TEST_F(DirtyFlagTest, AMissingFileLoadsNothingAndIsNotMade) {
  EXPECT_THAT(loaded().dirtySet, IsEmpty());
  EXPECT_FALSE(isThere(file));
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(DirtyFlagTest, ALastLineWithoutALineFeedIsLoaded) {
  writeFile(file, "a\nb");
  EXPECT_THAT(loaded().dirtySet, ElementsAre("a", "b"));
}

TEST_F(DirtyFlagTest, ALineOf1500CharactersIsLoadedAsTwoIds) {
  const std::string first(1023, 'x');
  const std::string rest(477, 'y');
  writeFile(file, first + rest + "\n");
  EXPECT_THAT(loaded().dirtySet, ElementsAre(first, rest));
}

TEST_F(DirtyFlagTest, LoadsEachLineAsAnId) {
  struct Row {
    const char* what;
    std::string content;
    std::set<std::string> want;
  };
  const std::string full(1023, 'x');
  const std::vector<Row> rows = {
      {"an empty file", "", {}},
      {"two lines", "a\nb\n", {"a", "b"}},
      {"any order and duplicates", "b\na\nb\n", {"a", "b"}},
      {"an empty line", "a\n\nb\n", {"", "a", "b"}},
      {"a line feed alone", "\n", {""}},
      {"blanks and carriage returns stay", " a \nb\r\n\t\n", {"\t", " a ", "b\r"}},
      {"a slash", "2009/12\n", {"2009/12"}},
      {"bytes above 127", "\xc3\xa4\n", {"\xc3\xa4"}},
      {"a line of 1022 is one", full.substr(1) + "\n", {full.substr(1)}},
      {"the line feed behind 1023 is an empty line", full + "\n", {full, ""}},
      {"1023 without a line feed are one", full, {full}},
      {"a line of 2046 is two ids and an empty one",
       full + std::string(1023, 'y') + "\n",
       {full, std::string(1023, 'y'), ""}},
  };
  for (const Row& row : rows) {
    writeFile(file, row.content);
    EXPECT_EQ(loaded().dirtySet, row.want) << row.what;
    EXPECT_EQ(readFile(file), row.content) << row.what << ": loading writes nothing";
  }
}

TEST_F(DirtyFlagTest, LoadingAddsToWhatIsInTheSet) {
  KTDirtyFlagHandler handler;
  handler.dirtySet = {"a", "z"};
  writeFile(file, "a\nb\n");
  setUp(handler);
  EXPECT_THAT(handler.dirtySet, ElementsAre("a", "b", "z"));
}

TEST_F(DirtyFlagTest, AFileThatCannotBeReadThrowsTheAssertionOfLine1705) {
  writeFile(file, "a\n");
  KTDirtyFlagHandler handler;
  const FailingCall refused("fopen", EACCES, file);
  EXPECT_EQ(rendered(assertionOf([&] { setUp(handler); })), kNotReadable);
  EXPECT_THAT(handler.dirtySet, IsEmpty());
  EXPECT_FALSE(isLocked());
}

TEST_F(DirtyFlagTest, LoadsUnderTheLockNamedAfterTheFile) {
  writeFile(file, "a\n");
  KTDirtyFlagHandler handler;
  CallWatch watch;
  setUp(handler);
  EXPECT_THAT(watch.locks, ElementsAre("+" + lockName, "-" + lockName));
  EXPECT_THAT(watch.calls,
              ElementsAre("open " + lockFile(), "access " + file, "fopen " + file, "unlink " + lockFile()));
}

TEST_F(DirtyFlagTest, MarksAndUnmarks) {
  KTDirtyFlagHandler handler = loaded();
  handler.setDirty("a", true);
  EXPECT_TRUE(handler.isDirty("a"));
  EXPECT_FALSE(handler.isDirty("b"));
  handler.setDirty("a", false);
  EXPECT_FALSE(handler.isDirty("a"));
  EXPECT_EQ(readFile(file), "");
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(DirtyFlagTest, TheEmptyIdIsAnIdLikeAnyOther) {
  KTDirtyFlagHandler handler = loaded();
  EXPECT_FALSE(handler.isDirty(""));
  handler.setDirty("", true);
  EXPECT_TRUE(handler.isDirty(""));
  EXPECT_EQ(readFile(file), "\n");
}

TEST_F(DirtyFlagTest, IdsAreWrittenSortedByBytesWhateverTheOrderOfMarking) {
  KTDirtyFlagHandler handler = loaded();
  for (const char* id : {"b", "a", "\xc3\xa4", "B", "10", "2", "a/b"}) handler.setDirty(id, true);
  EXPECT_EQ(readFile(file), "10\n2\nB\na\na/b\nb\n\xc3\xa4\n");
}

TEST_F(DirtyFlagTest, WhatIsWrittenIsWhatIsLoaded) {
  KTDirtyFlagHandler handler = loaded();
  for (const char* id : {"", " b", "a\r", "2009/12"}) handler.setDirty(id, true);
  handler.setDirty(std::string(1022, 'x').c_str(), true);
  EXPECT_EQ(loaded().dirtySet, handler.dirtySet);
}

TEST_F(DirtyFlagTest, MarkingTwiceWritesTheFileOnce) {
  KTDirtyFlagHandler handler = loaded();
  CallWatch watch;
  handler.setDirty("x", true);
  handler.setDirty("x", true);
  EXPECT_EQ(std::count(watch.calls.begin(), watch.calls.end(), "fopen " + file), 1);
  EXPECT_EQ(readFile(file), "x\n");
}

TEST_F(DirtyFlagTest, UnmarkingWhatIsNotMarkedLeavesTheFileUntouched) {
  KTDirtyFlagHandler handler = loaded();
  handler.setDirty("x", false);
  EXPECT_FALSE(isThere(file));
  writeFile(file, "of another process\n");
  handler.setDirty("x", false);
  EXPECT_EQ(readFile(file), "of another process\n");
}

TEST_F(DirtyFlagTest, AChangeIsWrittenUnderTheLock) {
  KTDirtyFlagHandler handler = loaded();
  CallWatch watch;
  handler.setDirty("x", true);
  EXPECT_THAT(watch.calls, ElementsAre("open " + lockFile(), "fopen " + file, "unlink " + lockFile()));
}

TEST_F(DirtyFlagTest, AskingTakesTheLockAndDoesNotReadTheFile) {
  KTDirtyFlagHandler handler = loaded();
  writeFile(file, "x\n");
  CallWatch watch;
  EXPECT_FALSE(handler.isDirty("x"));
  EXPECT_THAT(watch.calls, ElementsAre("open " + lockFile(), "unlink " + lockFile()));
}

TEST_F(DirtyFlagTest, EveryOperationButWritingTakesTheLockOnce) {
  KTDirtyFlagHandler handler = loaded();
  const std::vector<std::function<void()>> locking = {[&] { setUp(handler); },
                                                      [&] { handler.isDirty("a"); },
                                                      [&] { handler.setDirty("a", true); },
                                                      [&] { handler.setDirty("a", true); },
                                                      [&] { handler.setDirty("b", false); },
                                                      [&] { handler.clearDirtySet(); }};
  for (const auto& operation : locking) {
    CallWatch watch;
    operation();
    EXPECT_THAT(watch.locks, ElementsAre("+" + lockName, "-" + lockName));
  }
  CallWatch watch;
  EXPECT_EQ(handler.writeSetFile(), 0);
  EXPECT_THAT(watch.calls, ElementsAre("fopen " + file));
}

TEST_F(DirtyFlagTest, ClearingLeavesAnEmptyFile) {
  writeFile(file, "a\nb\n");
  KTDirtyFlagHandler handler = loaded();
  CallWatch watch;
  handler.clearDirtySet();
  EXPECT_THAT(watch.calls, ElementsAre("open " + lockFile(), "fopen " + file, "unlink " + lockFile()));
  EXPECT_THAT(handler.dirtySet, IsEmpty());
  ASSERT_TRUE(isThere(file));
  EXPECT_EQ(readFile(file), "");
}

TEST_F(DirtyFlagTest, ClearingAnEmptySetMakesTheFile) {
  loaded().clearDirtySet();
  ASSERT_TRUE(isThere(file));
  EXPECT_EQ(readFile(file), "");
}

TEST_F(DirtyFlagTest, WritingReplacesAllThatWasThere) {
  KTDirtyFlagHandler handler = loaded();
  handler.dirtySet = {"b", "a"};
  writeFile(file, "a much longer content\nthan the new one\n");
  EXPECT_EQ(handler.writeSetFile(), 0);
  EXPECT_EQ(readFile(file), "a\nb\n");
}

TEST_F(DirtyFlagTest, WritingReturnsWhatClosingReturned) {
  KTDirtyFlagHandler handler = loaded();
  handler.dirtySet = {"a"};
  std::filesystem::create_symlink("/dev/full", file);
  EXPECT_EQ(handler.writeSetFile(), EOF);
}

TEST_F(DirtyFlagTest, AFullDiskIsNotToldToTheOneWhoMarks) {
  KTDirtyFlagHandler handler = loaded();
  std::filesystem::create_symlink("/dev/full", file);
  EXPECT_NO_THROW(handler.setDirty("a", true));
  EXPECT_TRUE(handler.isDirty("a"));
}

TEST_F(DirtyFlagTest, AFileThatCannotBeWrittenThrowsTheAssertionOfLine1781) {
  KTDirtyFlagHandler handler = loaded();
  handler.setDirty("a", true);
  const FailingCall refused("fopen", EROFS, file);
  EXPECT_EQ(rendered(assertionOf([&] { handler.setDirty("b", true); })), kNotWritable);
  EXPECT_EQ(rendered(assertionOf([&] { handler.setDirty("a", false); })), kNotWritable);
  EXPECT_EQ(rendered(assertionOf([&] { handler.clearDirtySet(); })), kNotWritable);
  EXPECT_EQ(rendered(assertionOf([&] { handler.writeSetFile(); })), kNotWritable);
  EXPECT_EQ(readFile(file), "a\n");
  EXPECT_FALSE(isLocked());
}

TEST_F(DirtyFlagTest, AChangeThatCouldNotBeWrittenStandsInTheSet) {
  KTDirtyFlagHandler handler = loaded();
  {
    const FailingCall refused("fopen", EROFS, file);
    EXPECT_EQ(rendered(assertionOf([&] { handler.setDirty("a", true); })), kNotWritable);
  }
  EXPECT_TRUE(handler.isDirty("a"));
  handler.setDirty("b", true);
  EXPECT_EQ(readFile(file), "a\nb\n");
}

TEST_F(DirtyFlagTest, WithoutARepositoryThereIsNoFileToWrite) {
  KTDirtyFlagHandler handler;
  EXPECT_EQ(rendered(assertionOf([&] { handler.setDirty("a", true); })), kNotWritable);
  EXPECT_THAT(treeOf(directory / "locks"), IsEmpty());
}

TEST_F(DirtyFlagTest, NullIdsThrowBeforeTheLock) {
  KTDirtyFlagHandler handler = loaded();
  CallWatch watch;
  EXPECT_THROW(handler.isDirty(nullptr), KTAssertionException);
  EXPECT_THROW(handler.setDirty(nullptr, true), KTAssertionException);
  EXPECT_THROW(handler.setDirty(nullptr, false), KTAssertionException);
  EXPECT_THAT(watch.calls, IsEmpty());
}

TEST_F(DirtyFlagTest, ALockHeldByAnotherIsWaitedForThirtySeconds) {
  KTDirtyFlagHandler handler = loaded();
  KTSemaphore holder(lockName, true);
  ASSERT_TRUE(holder.lockResource());
  const std::vector<std::function<void()>> locking = {
      [&] { setUp(handler); }, [&] { handler.isDirty("a"); }, [&] { handler.setDirty("a", true); },
      [&] { handler.setDirty("a", false); }, [&] { handler.clearDirtySet(); }};
  for (const auto& operation : locking) {
    FakeClock clock;
    FakeSyslog lines;
    operation();
    EXPECT_EQ(std::accumulate(clock.pauses.begin(), clock.pauses.end(), 0L), 30000) << "pauses of 10 milliseconds";
    EXPECT_THAT(lines.texts(LOG_ERR), ElementsAre(notLocked()));
    EXPECT_EQ(lines.lines.size(), 1u);
  }
  EXPECT_TRUE(isLocked()) << "the holder's file is gone";
}

TEST_F(DirtyFlagTest, WithoutTheLockEveryIdIsDirty) {
  KTDirtyFlagHandler handler = loaded();
  handler.setDirty("a", true);
  Child holder([&](const Child::Parent& parent) { holdLock(parent); });
  holder.await();
  FakeClock clock;
  EXPECT_TRUE(handler.isDirty("a"));
  EXPECT_TRUE(handler.isDirty("never marked"));
  holder.tell();
  EXPECT_EQ(holder.join(), 0);
  EXPECT_FALSE(handler.isDirty("never marked"));
}

TEST_F(DirtyFlagTest, WithoutTheLockNothingChanges) {
  KTDirtyFlagHandler handler = loaded();
  handler.setDirty("a", true);
  Child holder([&](const Child::Parent& parent) { holdLock(parent); });
  holder.await();
  FakeClock clock;
  handler.setDirty("b", true);
  handler.setDirty("a", false);
  handler.clearDirtySet();
  EXPECT_THAT(handler.dirtySet, ElementsAre("a"));
  EXPECT_EQ(readFile(file), "a\n");
}

TEST_F(DirtyFlagTest, WithoutTheLockTheFileIsNamedButNotLoaded) {
  writeFile(file, "a\n");
  KTSemaphore holder(lockName, true);
  ASSERT_TRUE(holder.lockResource());
  KTDirtyFlagHandler handler;
  handler.dirtySet = {"z"};
  FakeClock clock;
  setUp(handler);
  EXPECT_EQ(handler.setFile, file);
  EXPECT_THAT(handler.dirtySet, ElementsAre("z"));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notLocked()));
}

TEST_F(DirtyFlagTest, ALockThatCannotBeMadeCountsAsNotTakenWithoutWaiting) {
  KTDirtyFlagHandler handler = loaded();
  const EnvironmentVariable missing("LOCK_VAR", directory / "missing");
  FakeClock clock;
  EXPECT_TRUE(handler.isDirty("a"));
  handler.setDirty("a", true);
  EXPECT_THAT(clock.pauses, IsEmpty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(notLocked(), notLocked()));
  EXPECT_FALSE(isThere(file));
}

TEST_F(DirtyFlagTest, MarksOnceAnotherProcessHasReleasedTheLock) {
  KTDirtyFlagHandler handler = loaded();
  Child holder([&](const Child::Parent& parent) {
    holdLock(parent);
    parent.tell();
  });
  holder.await();
  FakeClock clock;
  clock.onSleep = [&] {
    holder.tell();
    holder.await();
  };
  handler.setDirty("a", true);
  EXPECT_EQ(clock.pauses.size(), 1u);
  EXPECT_EQ(readFile(file), "a\n");
  EXPECT_THAT(log.texts(), IsEmpty());
  EXPECT_EQ(holder.join(), 0);
}

TEST_F(DirtyFlagTest, ALockFileThatCannotBeRemovedIsToldToTheCallerAfterTheWork) {
  KTDirtyFlagHandler handler = loaded();
  const FailingCall refused("unlink", EACCES, "semaphore_");
  const auto thrown = thrownBy<KTIOException>([&] { handler.setDirty("a", true); });
  EXPECT_EQ(thrown.m_code, EACCES);
  EXPECT_EQ(thrown.m_message, "Releasing semaphore failed: " + lockName + " [Permission denied]");
  EXPECT_EQ(readFile(file), "a\n");
}

TEST_F(DirtyFlagTest, AFailedWriteIsWhatTheCallerHearsWhenTheLockFileStaysAsWell) {
  KTDirtyFlagHandler handler = loaded();
  const FailingCall locked("unlink", EACCES, "semaphore_");
  const FailingCall refused("fopen", EROFS, file);
  EXPECT_EQ(rendered(assertionOf([&] { handler.setDirty("a", true); })), kNotWritable);
}

TEST_F(DirtyFlagTest, TheLastWritersSetStandsInTheFile) {
  writeFile(file, "common\n");
  Child other([&](const Child::Parent& parent) {
    KTDirtyFlagHandler handler = loaded();
    parent.tell();
    parent.await();
    handler.setDirty("theirs", true);
    EXPECT_FALSE(handler.isDirty("mine")) << "the file was read again";
  });
  other.await();
  KTDirtyFlagHandler handler = loaded();
  handler.setDirty("mine", true);
  EXPECT_EQ(readFile(file), "common\nmine\n");
  other.tell();
  EXPECT_EQ(other.join(), 0);
  EXPECT_EQ(readFile(file), "common\ntheirs\n");
  EXPECT_TRUE(handler.isDirty("mine"));
  EXPECT_FALSE(handler.isDirty("theirs"));
  EXPECT_THAT(loaded().dirtySet, ElementsAre("common", "theirs"));
}

TEST_F(DirtyFlagTest, TwoProcessesThatMarkAtOnceLeaveTheWholeSetOfOneOfThem) {
  constexpr int kMarks = 100;
  const auto markAll = [&](const std::string& whose) {
    FakeClock clock;
    clock.onSleep = [] { poll(nullptr, 0, 1); };  // waiting is shortened to a real millisecond
    KTDirtyFlagHandler handler = loaded();
    handler.dirtySet.clear();  // of what the other had marked by then
    for (int i = 0; i < kMarks; ++i) handler.setDirty((whose + std::to_string(100 + i)).c_str(), true);
  };
  const auto setOf = [](const std::string& whose) {
    std::string lines;
    for (int i = 0; i < kMarks; ++i) lines += whose + std::to_string(100 + i) + "\n";
    return lines;
  };
  Child other([&](const Child::Parent& parent) {
    parent.await();
    FakeSyslog ofChild;
    markAll("theirs");
    EXPECT_THAT(ofChild.texts(), IsEmpty());
  });
  other.tell();
  markAll("mine");
  EXPECT_EQ(other.join(), 0);
  EXPECT_THAT(readFile(file), testing::AnyOf(setOf("mine"), setOf("theirs")));
  EXPECT_THAT(log.texts(), IsEmpty());
  EXPECT_FALSE(isLocked());
}

TEST_F(DirtyFlagTest, AHandlerThatGoesWritesNothing) {
  {
    KTDirtyFlagHandler handler = loaded();
    handler.dirtySet = {"a"};
  }
  EXPECT_FALSE(isThere(file));
}
