#include "transfer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "KTException.h"
#include "fakes/fakes.h"
#include "support/results.h"
#include "support/scratch.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr time_t kLongAgo = 1000000000;
constexpr time_t kLongerAgo = 900000000;
constexpr int kExitOne = 256;  // what system gives for a command that exits with 1
constexpr int kThrew = -1;     // moveRes gave no result

bool startsWith(const std::string& text, const std::string& start) { return text.rfind(start, 0) == 0; }

// Lets the commands of `tool` give `status` and errno without running; all others run.
void failTool(FakeShell& shell, const std::string& tool, int status, int error) {
  shell.answer = [=](const std::string& command) {
    if (!startsWith(command, tool + " ")) return FakeShell::runReal(command);
    errno = error;
    return status;
  };
}

// What myStat logs before its caller does.
std::string statLine(const std::string& path, char mark) {
  return "The resource \"" + path + "\" can not be stat-ed. Error code is " + mark;
}

// A directory "from" and a place "to", whose directory is there.
class TransferTest : public testing::Test {
 protected:
  std::string from() const { return directory / "from"; }
  std::string to() const { return directory / "to"; }
  std::string from(const std::string& name) const { return from() + "/" + name; }
  std::string to(const std::string& name) const { return to() + "/" + name; }
  int move() const { return moveRes(from().c_str(), to().c_str()); }
  int rename() const { return mountRename(from().c_str(), to().c_str()); }
  int erase() const { return deleteRes(from().c_str()); }

  ScratchDirectory directory;
  FakeSyslog log;
};

using MountRenameTest = TransferTest;
using MoveResTest = TransferTest;
using DeleteResTest = TransferTest;
using ClearEmptyHashTest = TransferTest;

}  // namespace

TEST_F(MountRenameTest, CopiesComparesAndDeletesThroughTheShellOnOneFileSystemToo) {
  writeFile(from(), "content");
  FakeShell shell;
  CallWatch watch;
  EXPECT_EQ(rename(), 0);
  EXPECT_THAT(shell.commands,
              ElementsAre("cp -r " + from() + " " + to(), "diff -q -r " + from() + " " + to(), "rm -fr " + from()));
  EXPECT_THAT(watch.calls, testing::Not(testing::Contains(testing::StartsWith("rename "))));
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("to=content"));
}

TEST_F(MountRenameTest, MovesATree) {
  writeFile(from("sub/deep/file"), "deep");
  makeDirectories(from("empty"));
  EXPECT_EQ(rename(), 0);
  EXPECT_FALSE(isThere(from()));
  EXPECT_THAT(treeOf(to()), ElementsAre("empty/", "sub/", "sub/deep/", "sub/deep/file=deep"));
}

TEST_F(MountRenameTest, KeepsALinkInATreeALink) {
  writeFile(directory / "target", "content");
  makeDirectories(from());
  std::filesystem::create_symlink(directory / "target", from("link"));
  EXPECT_EQ(rename(), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(to("link")));
  EXPECT_EQ(readFile(directory / "target"), "content");
}

TEST_F(MountRenameTest, MakesTheDirectoriesAboveTheDestinationBeforeItCopies) {
  writeFile(from(), "content");
  FakeShell shell;
  shell.answer = [&](const std::string&) {
    EXPECT_TRUE(isDirectoryThere(directory / "FP/IA/L3"));
    return 0;
  };
  EXPECT_EQ(mountRename(from().c_str(), (directory / "FP/IA/L3/2009").c_str()), 0);
  EXPECT_EQ(shell.commands.size(), 3u);
}

TEST_F(MountRenameTest, MakesDirectoriesOfMode0755) {
  writeFile(from(), "content");
  const mode_t before = umask(0);
  EXPECT_EQ(mountRename(from().c_str(), (directory / "FP/IA/2009").c_str()), 0);
  umask(before);
  for (const char* made : {"FP", "FP/IA"}) {
    struct stat status;
    ASSERT_EQ(stat((directory / made).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0755u) << made;
  }
}

TEST_F(MountRenameTest, DestinationWithoutADirectoryPartGivesMinusOneAndRunsNothing) {
  writeFile(from(), "content");
  const WorkingDirectory inside(directory.path());
  FakeShell shell;
  EXPECT_EQ(mountRename("from", "to"), -1);
  EXPECT_EQ(mountRename("from", ""), -1);
  EXPECT_EQ(mountRename("from", nullptr), -1);
  EXPECT_THAT(shell.commands, IsEmpty());
  EXPECT_THAT(treeOf("."), ElementsAre("from=content"));
}

TEST_F(MountRenameTest, NullOriginThrows) {
  FakeShell shell;
  EXPECT_EQ(failedExpression([&] { mountRename(nullptr, to().c_str()); }), "origin");
  EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(MountRenameTest, ReturnsTheResultOfMakingTheDirectoriesAndRunsNothing) {
  writeFile(from(), "content");
  FakeShell shell;
  const FailingCall full("mkdir", ENOSPC, directory / "FP");
  EXPECT_EQ(mountRename(from().c_str(), (directory / "FP/2009").c_str()), -1);
  EXPECT_THAT(shell.commands, IsEmpty());
  EXPECT_EQ(full.failed(), 1);
}

TEST_F(MountRenameTest, ReturnsTheStatusOfCpAsItIsAndRunsNothingElse) {
  writeFile(from(), "content");
  for (const int status : {kExitOne, 2 * kExitOne, 9, -1}) {
    FakeShell shell;
    failTool(shell, "cp", status, 0);
    EXPECT_EQ(rename(), status);
    EXPECT_THAT(shell.commands, ElementsAre("cp -r " + from() + " " + to()));
  }
  EXPECT_EQ(readFile(from()), "content");
}

TEST_F(MountRenameTest, CpThatFailsLeavesBehindWhatItCopied) {
  writeFile(from("a"), "content");
  FakeShell shell;
  shell.answer = [&](const std::string&) {
    writeFile(to("a"), "con");
    return kExitOne;
  };
  EXPECT_EQ(rename(), kExitOne);
  EXPECT_THAT(treeOf(to()), ElementsAre("a=con"));
  EXPECT_THAT(treeOf(from()), ElementsAre("a=content"));
}

TEST_F(MountRenameTest, ACopyThatDiffersIsRemovedAndTheStatusOfDiffReturned) {
  writeFile(from("a"), "content");
  FakeShell shell;
  shell.answer = [&](const std::string& command) {
    if (startsWith(command, "diff ")) writeFile(to("a"), "damaged");
    return FakeShell::runReal(command);
  };
  outputOf([&] { EXPECT_EQ(rename(), kExitOne); });
  EXPECT_THAT(shell.commands,
              ElementsAre("cp -r " + from() + " " + to(), "diff -q -r " + from() + " " + to(), "rm -fr " + to()));
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from/", "from/a=content"));
}

TEST_F(MountRenameTest, ReturnsTheStatusOfDiffUndecoded) {
  writeFile(from(), "content");
  for (const int status : {kExitOne, 2 * kExitOne, 9, -1}) {
    FakeShell shell;
    failTool(shell, "diff", status, 0);
    EXPECT_EQ(rename(), status);
    EXPECT_EQ(shell.commands.back(), "rm -fr " + to());
  }
}

TEST_F(MountRenameTest, IgnoresThatTheOriginCouldNotBeRemoved) {
  writeFile(from(), "content");
  FakeShell shell;
  failTool(shell, "rm", kExitOne, 0);
  EXPECT_EQ(rename(), 0);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from=content", "to=content"));
}

TEST_F(MountRenameTest, IgnoresThatTheCopyCouldNotBeRemoved) {
  writeFile(from(), "content");
  FakeShell shell;
  shell.answer = [](const std::string& command) {
    if (startsWith(command, "diff ")) return 2 * kExitOne;
    return startsWith(command, "rm ") ? kExitOne : FakeShell::runReal(command);
  };
  EXPECT_EQ(rename(), 2 * kExitOne);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from=content", "to=content"));
}

TEST_F(MountRenameTest, PathsStandInTheCommandsAsTheyAre) {
  FakeShell shell;
  shell.answer = [](const std::string&) { return 0; };
  const std::string destination = directory / "b\"$HOME*\"";
  EXPECT_EQ(mountRename("/a 'b;", destination.c_str()), 0);
  EXPECT_THAT(shell.commands,
              ElementsAre("cp -r /a 'b; " + destination, "diff -q -r /a 'b; " + destination, "rm -fr /a 'b;"));
}

TEST_F(MountRenameTest, ATreeWithADanglingLinkStaysWhereItIs) {
  writeFile(from("a"), "content");
  std::filesystem::create_symlink("/nonexistent", from("link"));
  FakeShell shell;
  shell.answer = [](const std::string& command) { return FakeShell::runReal(command + " 2>/dev/null"); };
  outputOf([&] { EXPECT_EQ(rename(), 2 * kExitOne) << "diff cannot read the link"; });
  EXPECT_FALSE(isThere(to()));
  EXPECT_EQ(readFile(from("a")), "content");
}

TEST_F(MountRenameTest, LogsNothing) {
  writeFile(from(), "content");
  FakeShell shell;
  failTool(shell, "cp", kExitOne, EIO);
  rename();
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MoveResTest, MissingOriginThrowsTheAssertionOfLine538) {
  FakeShell shell;
  const KTAssertionException thrown = assertionOf([&] { move(); });
  EXPECT_EQ(rendered(thrown),
            "ASSERT (access( origin, F_OK ) == 0) in repositoryhandler/src/libs/KTRepositoryHandler at line 538.");
  EXPECT_EQ(thrown.m_line, 538);
  EXPECT_EQ(thrown.m_code, 1);
  EXPECT_THAT(shell.commands, IsEmpty());
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MoveResTest, NullAndEmptyOriginsAreMissing) {
  EXPECT_EQ(failedExpression([&] { moveRes(nullptr, to().c_str()); }), "access( origin, F_OK ) == 0");
  EXPECT_EQ(failedExpression([&] { moveRes("", to().c_str()); }), "access( origin, F_OK ) == 0");
}

TEST_F(MoveResTest, NullDestinationThrows) {
  writeFile(from(), "content");
  EXPECT_EQ(failedExpression([&] { moveRes(from().c_str(), nullptr); }), "destination");
  EXPECT_EQ(readFile(from()), "content");
}

TEST_F(MoveResTest, AbsentDestinationOnTheSameFileSystemIsCopiedComparedAndDeleted) {
  writeFile(from("a"), "content");
  FakeShell shell;
  EXPECT_EQ(move(), 0);
  EXPECT_THAT(shell.commands,
              ElementsAre("cp -r " + from() + " " + to(), "diff -q -r " + from() + " " + to(), "rm -fr " + from()));
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("to/", "to/a=content"));
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MoveResTest, AMovedFileKeepsItsTimes) {
  writeFile(from(), "content");
  setTimes(from(), kLongAgo, kLongerAgo);
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(accessTime(to()), kLongAgo);
  EXPECT_EQ(modificationTime(to()), kLongerAgo);
}

TEST_F(MoveResTest, AMovedDirectoryKeepsItsTimesThoughItWasReadMeanwhile) {
  writeFile(from("a"), "content");
  setTimes(from(), kLongAgo, kLongerAgo);
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(accessTime(to()), kLongAgo);
  EXPECT_EQ(modificationTime(to()), kLongerAgo);
}

TEST_F(MoveResTest, WhatIsInsideACopiedDirectoryHasTheTimesOfTheCopy) {
  writeFile(from("a"), "content");
  setTimes(from("a"), kLongAgo);
  EXPECT_EQ(move(), 0);
  EXPECT_GT(modificationTime(to("a")), kLongAgo);
}

TEST_F(MoveResTest, TimesThatCannotBeSetAreNoFailure) {
  writeFile(from(), "content");
  const FailingCall refused("utime", EPERM, to());
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(refused.failed(), 1);
  EXPECT_EQ(readFile(to()), "content");
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MoveResTest, OriginThatCannotBeStatedIsLoggedAndGivesEight) {
  writeFile(from(), "content");
  FakeShell shell;
  const FailingCall broken("stat", EIO, from());
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre(statLine(from(), '\x05'), "The resource \"" + from() + "\" could not be stated \"\x05"));
  EXPECT_EQ(log.lines.size(), 2u);
  EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(MoveResTest, AnErrorNumberIsLoggedAsOneCharacterOfThatCode) {
  const std::map<int, std::string> marks = {{ENOENT, "\x02"}, {EIO, "\x05"},    {EACCES, "\r"},
                                            {ENOSPC, "\x1c"}, {ETIMEDOUT, "n"}, {EDQUOT, "z"}};
  writeFile(from(), "content");
  for (const auto& [error, mark] : marks) {
    FakeSyslog lines;
    FakeShell shell;
    failTool(shell, "cp", kExitOne, error);
    EXPECT_EQ(move(), 8);
    EXPECT_THAT(lines.texts(), ElementsAre("The resource \"" + from() + "\" could not be renamed to \"" + to() +
                                           "\". Error code is " + mark));
    EXPECT_EQ(lines.lines.at(0).priority, LOG_ERR);
  }
}

TEST_F(MoveResTest, ACopyThatDiffersGivesEightAndLeavesTheOriginWithItsTimes) {
  writeFile(from("a"), "content");
  setTimes(from(), kLongAgo, kLongerAgo);
  FakeShell shell;
  failTool(shell, "diff", kExitOne, ENOENT);
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from/", "from/a=content"));
  EXPECT_EQ(modificationTime(from()), kLongerAgo);
}

TEST_F(MoveResTest, DestinationWithoutADirectoryPartGivesEight) {
  writeFile(from(), "content");
  const WorkingDirectory inside(directory.path());
  EXPECT_EQ(moveRes("from", "to"), 8);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre(testing::StartsWith("The resource \"from\" could not be renamed to \"to\". Error code is ")));
  EXPECT_THAT(treeOf("."), ElementsAre("from=content"));
}

TEST_F(MoveResTest, DirectoriesAboveTheDestinationThatCannotBeMadeGiveEightWithTheirError) {
  writeFile(from(), "content");
  const std::string destination = directory / "FP/2009";
  const FailingCall full("mkdir", ENOSPC, directory / "FP");
  EXPECT_EQ(moveRes(from().c_str(), destination.c_str()), 8);
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + from() + "\" could not be renamed to \"" + destination +
                                       "\". Error code is \x1c"));
}

TEST_F(MoveResTest, AFileOntoAnExistingFileIsAConflictThatLeavesBoth) {
  writeFile(from(), "mine");
  writeFile(to(), "theirs");
  FakeShell shell;
  EXPECT_EQ(move(), 2);
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + from() + "\" conflicts with \"" + to() + "\"."));
  EXPECT_EQ(log.lines.at(0).priority, LOG_ERR);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from=mine", "to=theirs"));
  EXPECT_THAT(shell.commands, IsEmpty());
}

TEST_F(MoveResTest, AFileOntoAnEqualFileIsAConflictAsWell) {
  writeFile(from(), "same");
  writeFile(to(), "same");
  EXPECT_EQ(move(), 2);
}

TEST_F(MoveResTest, AFileOntoADirectoryIsAConflictThatLeavesBoth) {
  writeFile(from(), "mine");
  makeDirectories(to());
  EXPECT_EQ(move(), 2);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from=mine", "to/"));
}

TEST_F(MoveResTest, ADirectoryOntoAFileGivesEightAndLeavesBoth) {
  writeFile(from("a"), "mine");
  writeFile(to(), "theirs");
  FakeShell shell;
  shell.answer = [](const std::string& command) { return FakeShell::runReal(command + " 2>/dev/null"); };
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from/", "from/a=mine", "to=theirs"));
}

TEST_F(MoveResTest, AnOriginWhoseTypeCannotBeAskedGivesEightWithoutALineOfItsOwn) {
  writeFile(from("a"), "content");
  makeDirectories(to());
  const FailingCall broken("stat", EIO, from(), 1);
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(log.texts(), ElementsAre(statLine(from(), '\x05')));
  EXPECT_EQ(readFile(from("a")), "content");
}

TEST_F(MoveResTest, AMessageIsPassedAsItsOwnFormat) {
  const std::string origin = directory / "100%%";
  writeFile(origin, "mine");
  writeFile(to(), "theirs");
  EXPECT_EQ(moveRes(origin.c_str(), to().c_str()), 2);
  EXPECT_THAT(log.texts(),
              ElementsAre("The resource \"" + directory.path() + "/100%\" conflicts with \"" + to() + "\"."));
  EXPECT_EQ(log.lines.at(0).format, "The resource \"" + origin + "\" conflicts with \"" + to() + "\".");
}

TEST_F(MoveResTest, MergesEntryByEntryInListingOrder) {
  writeFile(from("b/inner"), "b");
  writeFile(from("a"), "a");
  writeFile(to("own"), "own");
  FakeShell shell;
  EXPECT_EQ(move(), 0);
  EXPECT_THAT(shell.commands,
              ElementsAre("cp -r " + from("a") + " " + to("a"), "diff -q -r " + from("a") + " " + to("a"),
                          "rm -fr " + from("a"), "cp -r " + from("b") + " " + to("b"),
                          "diff -q -r " + from("b") + " " + to("b"), "rm -fr " + from("b")));
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("to/", "to/a=a", "to/b/", "to/b/inner=b", "to/own=own"));
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MoveResTest, MergesDirectoriesInsideAsWell) {
  writeFile(from("sub/deep/mine"), "mine");
  writeFile(to("sub/deep/theirs"), "theirs");
  FakeShell shell;
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(shell.commands.front(), "cp -r " + from("sub/deep/mine") + " " + to("sub/deep/mine"));
  EXPECT_THAT(treeOf(directory.path()),
              ElementsAre("to/", "to/sub/", "to/sub/deep/", "to/sub/deep/mine=mine", "to/sub/deep/theirs=theirs"));
}

TEST_F(MoveResTest, AMergeGivesTheDestinationTheOldTimesOfTheOrigin) {
  writeFile(from("a"), "a");
  setTimes(from(), kLongAgo, kLongerAgo);
  makeDirectories(to());
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(accessTime(to()), kLongAgo);
  EXPECT_EQ(modificationTime(to()), kLongerAgo);
}

TEST_F(MoveResTest, AMergeKeepsTheTimesOfEachEntry) {
  writeFile(from("a"), "a");
  writeFile(from("sub/b"), "b");
  makeDirectories(to("sub"));
  setTimes(from("a"), kLongAgo, kLongerAgo);
  setTimes(from("sub/b"), kLongerAgo, kLongAgo);
  setTimes(from("sub"), kLongAgo + 1, kLongAgo + 2);
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(accessTime(to("a")), kLongAgo);
  EXPECT_EQ(modificationTime(to("a")), kLongerAgo);
  EXPECT_EQ(accessTime(to("sub/b")), kLongerAgo);
  EXPECT_EQ(modificationTime(to("sub/b")), kLongAgo);
  EXPECT_EQ(accessTime(to("sub")), kLongAgo + 1);
  EXPECT_EQ(modificationTime(to("sub")), kLongAgo + 2);
}

TEST_F(MoveResTest, AnEmptyDirectoryMergesIntoAnythingThatExists) {
  makeDirectories(from());
  setTimes(from(), kLongAgo, kLongerAgo);
  writeFile(to(), "theirs");
  FakeShell shell;
  EXPECT_EQ(move(), 0);
  EXPECT_THAT(shell.commands, IsEmpty());
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("to=theirs"));
  EXPECT_EQ(modificationTime(to()), kLongerAgo);
}

TEST_F(MoveResTest, AMergeStopsAtTheFirstConflictAndLeavesTheRestAndTheTimes) {
  for (const char* name : {"a", "b", "c"}) writeFile(from(name), name);
  writeFile(to("b"), "theirs");
  setTimes(from(), kLongAgo);
  const time_t before = modificationTime(to());
  EXPECT_EQ(move(), 2);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from/", "from/b=b", "from/c=c", "to/", "to/a=a", "to/b=theirs"));
  EXPECT_GE(modificationTime(to()), before) << "the origin's times are given when all has moved, not before";
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + from("b") + "\" conflicts with \"" + to("b") + "\"."));
}

TEST_F(MoveResTest, AMergeReturnsTheFailureOfAnEntryDeepInside) {
  writeFile(from("sub/a"), "a");
  writeFile(from("z"), "z");
  makeDirectories(to("sub"));
  FakeShell shell;
  failTool(shell, "cp", kExitOne, EIO);
  EXPECT_EQ(move(), 8);
  EXPECT_EQ(shell.commands.size(), 1u);
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + from("sub/a") + "\" could not be renamed to \"" +
                                       to("sub/a") + "\". Error code is \x05"));
}

TEST_F(MoveResTest, AnOriginThatCannotBeRemovedAfterItsEntriesIsLoggedAndGivesEight) {
  writeFile(from("a"), "a");
  setTimes(from(), kLongAgo);
  makeDirectories(to());
  const FailingCall refused("rmdir", ENOTEMPTY, from());
  CallWatch watch;
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("The directory \"" + from() + "\" could not be removed. Error code is \x27"));
  EXPECT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(readFile(to("a")), "a");
  EXPECT_THAT(watch.calls, testing::Not(testing::Contains("utime " + to()))) << "the times are given at the very end";
}

TEST_F(MoveResTest, AnOriginThatCannotBeListedKeepsItsEntries) {
  writeFile(from("a"), "a");
  makeDirectories(to());
  const FailingCall unreadable("opendir", EACCES, from());
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(log.texts(), ElementsAre("The directory \"" + from() + "\" could not be removed. Error code is \x27"));
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from/", "from/a=a", "to/"));
}

TEST_F(MoveResTest, AMergeThatMeetsADanglingLinkThrows) {
  writeFile(from("a"), "a");
  std::filesystem::create_symlink("/nonexistent", from("link"));
  makeDirectories(to());
  EXPECT_EQ(failedExpression([&] { move(); }), "access( origin, F_OK ) == 0") << "links are followed";
  EXPECT_TRUE(std::filesystem::is_symlink(from("link")));
  EXPECT_EQ(readFile(to("a")), "a");
}

TEST_F(MoveResTest, TakesNoLock) {
  writeFile(from("a"), "a");
  CallWatch watch;
  EXPECT_EQ(move(), 0);
  EXPECT_THAT(watch.locks, IsEmpty());
}

// The copy goes into a directory that is only taken for absent, differs, and is dropped with what was there. This
// is the price of asking once; an unreachable disk refuses the commands as well.
TEST_F(MoveResTest, AnExistingDirectoryThatLooksAbsentIsDroppedWithTheCopyWhileTheOriginSurvives) {
  writeFile(from("a"), "a");
  writeFile(to("own"), "own");
  const FailingCall unreachable("access", EIO, to());
  outputOf([&] { EXPECT_EQ(move(), 8); });
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("from/", "from/a=a"));
}

namespace {

using Files = std::map<std::string, std::string>;

// What lies in "from" before a sweep, and what lies in "to".
const Files kMoved = {{"a", "first"}, {"new/d", "fourth"}, {"new/e", ""}, {"sub/b", "second"}, {"sub/c", "third"}};
const Files kOwn = {{"own", "mine"}, {"sub/x", "mine too"}};

void writeFiles(const std::string& directory, const Files& files) {
  for (const auto& [name, content] : files) writeFile(directory + "/" + name, content);
}

bool isComplete(const std::string& path, const std::string& content) {
  return isThere(path) && readFile(path) == content;
}

// A move of kMoved, onto kOwn or to nowhere, in which one thing fails.
class SweptMove {
 public:
  explicit SweptMove(bool merges) {
    writeFiles(from, kMoved);
    if (merges) writeFiles(to, kOwn);
  }

  int run() {
    const long before = openDescriptors();
    int result = kThrew;
    outputOf([&] {
      try {
        result = moveRes(from.c_str(), to.c_str());
      } catch (const KTAssertionException&) {
      }
    });
    EXPECT_EQ(openDescriptors(), before);
    return result;
  }

  void expectOriginFiles() const {
    for (const auto& [name, content] : kMoved)
      EXPECT_TRUE(isComplete(from + "/" + name, content) || isComplete(to + "/" + name, content)) << name << " is lost";
  }

  void expectOwnFiles() const {
    for (const auto& [name, content] : kOwn) EXPECT_TRUE(isComplete(to + "/" + name, content)) << name << " is lost";
  }

  void expectMoved() const {
    EXPECT_FALSE(isThere(from));
    for (const auto& [name, content] : kMoved) EXPECT_TRUE(isComplete(to + "/" + name, content)) << name;
  }

  ScratchDirectory directory;
  FakeSyslog log;
  const std::string from = directory / "from";
  const std::string to = directory / "FP/IA/to";
};

// How a shell command fails: it is not run at all, or cp writes one file half and stops.
enum class CommandFault { kNotRun, kHalfDone };

void halfCopy(const std::string& command) {
  std::string destination = command.substr(command.rfind(' ') + 1);
  const std::string origin = command.substr(6, command.rfind(' ') - 6);
  if (!isDirectoryThere(origin)) return writeFile(destination, readFile(origin).substr(0, 2));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(origin)) {
    if (entry.is_directory()) continue;
    const std::string name = std::filesystem::relative(entry.path(), origin).string();
    return writeFile(destination + "/" + name, readFile(entry.path().string()).substr(0, 2));
  }
}

// Moves with the command of number `failing` failing; gives whether there was one.
bool commandFails(SweptMove& move, size_t failing, CommandFault how) {
  FakeShell shell;
  shell.answer = [&](const std::string& command) {
    if (shell.commands.size() != failing) return FakeShell::runReal(command);
    if (how == CommandFault::kHalfDone && startsWith(command, "cp ")) halfCopy(command);
    errno = EIO;
    return kExitOne;
  };
  const int result = move.run();
  if (shell.commands.size() >= failing) return true;
  EXPECT_EQ(result, 0);
  return false;
}

struct Sweep {
  const char* function;
  bool merges;
};

constexpr int kRoundsAtMost = 200;

}  // namespace

TEST(TransferSweepTest, EachFileIsCompleteInOnePlaceWhicheverCommandOfAMoveFails) {
  for (const bool merges : {false, true}) {
    for (const CommandFault how : {CommandFault::kNotRun, CommandFault::kHalfDone}) {
      for (size_t failing = 1;; ++failing) {
        SCOPED_TRACE("command " + std::to_string(failing) + (merges ? " of a merge" : " of a plain move"));
        ASSERT_LT(failing, size_t{kRoundsAtMost});
        SweptMove move(merges);
        const bool failed = commandFails(move, failing, how);
        move.expectOriginFiles();
        if (merges) move.expectOwnFiles();
        if (failed) continue;
        EXPECT_EQ(failing, merges ? 13u : 4u) << "the round after the last command";
        move.expectMoved();
        break;
      }
    }
  }
}

TEST(TransferSweepTest, EachFileIsCompleteInOnePlaceWhicheverFileCallOfAMoveFails) {
  const std::vector<Sweep> sweeps = {{"stat", false},  {"stat", true},    {"opendir", true},
                                     {"rmdir", true},  {"utime", false},  {"utime", true},
                                     {"mkdir", false}, {"access", false}, {"access", true}};
  for (const Sweep& sweep : sweeps) {
    for (int round = 0;; ++round) {
      SCOPED_TRACE(sweep.function + std::string(" ") + std::to_string(round) + (sweep.merges ? " merging" : ""));
      ASSERT_LT(round, kRoundsAtMost);
      SweptMove move(sweep.merges);
      int result = 0;
      int failed = 0;
      {
        const FailingCall fault(sweep.function, EIO, move.directory.path(), round, 1);
        result = move.run();
        failed = fault.failed();
      }
      move.expectOriginFiles();
      // A destination that looks absent is the one case that costs what was there.
      if (sweep.merges && sweep.function != std::string("access")) move.expectOwnFiles();
      if (failed > 0) continue;
      EXPECT_GT(round, 0) << "there was nothing to fail";
      EXPECT_EQ(result, 0);
      move.expectMoved();
      break;
    }
  }
}

TEST(TransferSweepTest, ADeletionThatFailsLeavesEachOtherFileWholeAndTheNextOneFinishes) {
  for (const char* function : {"remove", "stat", "opendir", "access"}) {
    for (int round = 0;; ++round) {
      SCOPED_TRACE(function + std::string(" ") + std::to_string(round));
      ASSERT_LT(round, kRoundsAtMost);
      const ScratchDirectory directory;
      const FakeSyslog log;
      const std::string path = directory / "resource";
      writeFiles(path, kMoved);
      const long descriptors = openDescriptors();
      int result = 0;
      int failed = 0;
      {
        const FailingCall fault(function, EIO, path, round, 1);
        result = deleteRes(path.c_str());
        failed = fault.failed();
      }
      EXPECT_EQ(openDescriptors(), descriptors);
      for (const auto& [name, content] : kMoved) {
        const std::string file = path + "/" + name;
        EXPECT_TRUE(!isThere(file) || isComplete(file, content)) << name;
      }
      if (failed == 0) {
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(isThere(path));
        break;
      }
      // Only a path that cannot be seen from the start counts as gone.
      EXPECT_EQ(result, function == std::string("access") && round == 0 ? 0 : 8);
      EXPECT_TRUE(isThere(path));
      EXPECT_EQ(deleteRes(path.c_str()), 0);
      EXPECT_FALSE(isThere(path));
    }
  }
}

TEST_F(DeleteResTest, AMissingPathCountsAsDeletedAndIsNotLogged) {
  EXPECT_EQ(erase(), 0);
  EXPECT_EQ(deleteRes(nullptr), 0);
  EXPECT_EQ(deleteRes(""), 0);
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(DeleteResTest, DeletesAFile) {
  writeFile(from(), "content");
  EXPECT_EQ(erase(), 0);
  EXPECT_THAT(treeOf(directory.path()), IsEmpty());
}

TEST_F(DeleteResTest, DeletesATreeFromTheLeavesUp) {
  writeFile(from("sub/b"), "b");
  writeFile(from("a"), "a");
  FakeShell shell;
  CallWatch watch;
  EXPECT_EQ(erase(), 0);
  std::vector<std::string> removals;
  std::copy_if(watch.calls.begin(), watch.calls.end(), std::back_inserter(removals),
               [](const std::string& call) { return startsWith(call, "remove "); });
  EXPECT_THAT(removals, ElementsAre("remove " + from("a"), "remove " + from("sub/b"), "remove " + from("sub"),
                                    "remove " + from()));
  EXPECT_THAT(shell.commands, IsEmpty());
  EXPECT_THAT(watch.locks, IsEmpty());
  EXPECT_THAT(treeOf(directory.path()), IsEmpty());
}

TEST_F(DeleteResTest, APathWhoseTypeCannotBeAskedGivesEightWithoutALineOfItsOwn) {
  writeFile(from(), "content");
  const FailingCall broken("stat", EIO, from());
  EXPECT_EQ(erase(), 8);
  EXPECT_THAT(log.texts(), ElementsAre(statLine(from(), '\x05')));
  EXPECT_EQ(readFile(from()), "content");
}

TEST_F(DeleteResTest, WhatCannotBeRemovedIsLoggedWithItsErrorAsOneCharacter) {
  writeFile(from(), "content");
  for (const auto& [error, mark] : std::map<int, std::string>{{ENOENT, "\x02"}, {EACCES, "\r"}, {EBUSY, "\x10"}}) {
    FakeSyslog lines;
    const FailingCall refused("remove", error, from());
    EXPECT_EQ(erase(), 8);
    EXPECT_THAT(lines.texts(LOG_ERR),
                ElementsAre("The resource \"" + from() + "\" could not be removed. Error code is " + mark));
    EXPECT_EQ(lines.lines.size(), 1u);
  }
}

TEST_F(DeleteResTest, StopsAtTheFirstEntryThatCannotBeRemoved) {
  for (const char* name : {"a", "b", "c"}) writeFile(from(name), name);
  const FailingCall refused("remove", EACCES, from("b"));
  EXPECT_EQ(erase(), 8);
  EXPECT_THAT(treeOf(from()), ElementsAre("b=b", "c=c"));
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + from("b") + "\" could not be removed. Error code is \r"));
}

TEST_F(DeleteResTest, ADirectoryThatCannotBeListedStaysWhole) {
  writeFile(from("a"), "a");
  const FailingCall unreadable("opendir", EACCES, from());
  EXPECT_EQ(erase(), 8);
  EXPECT_THAT(treeOf(from()), ElementsAre("a=a"));
}

// A link to a directory counts as that directory, so what it points to is emptied as well.
TEST_F(DeleteResTest, FollowsALinkToADirectoryAndEmptiesWhatItPointsTo) {
  writeFile(directory / "elsewhere/precious", "content");
  makeDirectories(from());
  std::filesystem::create_directory_symlink(directory / "elsewhere", from("link"));
  EXPECT_EQ(erase(), 0);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("elsewhere/"));
}

TEST_F(DeleteResTest, RemovesALinkToAFileAndLeavesTheFile) {
  writeFile(directory / "elsewhere", "content");
  makeDirectories(from());
  std::filesystem::create_symlink(directory / "elsewhere", from("link"));
  EXPECT_EQ(erase(), 0);
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("elsewhere=content"));
}

// A dangling link looks missing; it is passed over and keeps the directory that holds it.
TEST_F(DeleteResTest, ADanglingLinkCountsAsDeletedAndKeepsItsDirectory) {
  makeDirectories(from());
  std::filesystem::create_symlink("/nonexistent", from("link"));
  EXPECT_EQ(deleteRes(from("link").c_str()), 0);
  EXPECT_TRUE(isThere(from("link")));
  EXPECT_EQ(erase(), 8);
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + from() + "\" could not be removed. Error code is \x27"));
}

TEST_F(ClearEmptyHashTest, RemovesNothingWhileTheResourceExists) {
  makeDirectories(directory / "m/AA/BB/CC/resource");
  CallWatch watch;
  clearEmptyHash((directory / "m/AA/BB/CC/resource").c_str());
  EXPECT_TRUE(isThere(directory / "m/AA/BB/CC/resource"));
  EXPECT_THAT(watch.calls, ElementsAre("access " + (directory / "m/AA/BB/CC/resource")));
}

TEST_F(ClearEmptyHashTest, RemovesThreeLevelsAndNeverTheMount) {
  makeDirectories(directory / "m/AA/BB/CC");
  clearEmptyHash((directory / "m/AA/BB/CC/gone").c_str());
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("m/")) << "the mount is empty too";
}

TEST_F(ClearEmptyHashTest, RemovesTheParentFirst) {
  makeDirectories(directory / "m/AA/BB/CC");
  const std::string mount = directory / "m";
  CallWatch watch;
  clearEmptyHash((mount + "/AA/BB/CC/gone").c_str());
  EXPECT_THAT(watch.calls, ElementsAre("access " + mount + "/AA/BB/CC/gone", "remove " + mount + "/AA/BB/CC",
                                       "remove " + mount + "/AA/BB", "remove " + mount + "/AA"));
}

TEST_F(ClearEmptyHashTest, StopsAtTheFirstAncestorThatIsNotEmpty) {
  makeDirectories(directory / "m/AA/BB/CC");
  writeFile(directory / "m/AA/BB/other", "content");
  CallWatch watch;
  clearEmptyHash((directory / "m/AA/BB/CC/gone").c_str());
  EXPECT_THAT(treeOf(directory / "m"), ElementsAre("AA/", "AA/BB/", "AA/BB/other=content"));
  EXPECT_EQ(std::count_if(watch.calls.begin(), watch.calls.end(),
                          [](const std::string& call) { return startsWith(call, "remove "); }),
            2);
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ClearEmptyHashTest, StopsAtADirectoryThatCannotBeRemoved) {
  makeDirectories(directory / "m/AA/BB/CC");
  const FailingCall refused("remove", EBUSY, directory / "m/AA/BB", 1);
  clearEmptyHash((directory / "m/AA/BB/CC/gone").c_str());
  EXPECT_EQ(refused.failed(), 1);
  EXPECT_THAT(treeOf(directory / "m"), ElementsAre("AA/", "AA/BB/"));
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ClearEmptyHashTest, AShortPathEndsAtItsFirstComponent) {
  makeDirectories(directory / "AA/BB");
  const WorkingDirectory inside(directory.path());
  clearEmptyHash("AA/BB/gone");
  EXPECT_THAT(treeOf(directory.path()), IsEmpty());
}

TEST_F(ClearEmptyHashTest, NeverTriesTheRootOrAnEmptyPath) {
  CallWatch watch;
  for (const char* path : {"/kt-gone", "kt-gone", "", "/"}) clearEmptyHash(path);
  clearEmptyHash(nullptr);
  EXPECT_THAT(watch.calls, testing::Not(testing::Contains(testing::StartsWith("remove"))));
}

TEST_F(ClearEmptyHashTest, ATrailingSlashMakesThePathItselfTheFirstToGo) {
  makeDirectories(directory / "AA");
  CallWatch watch;
  clearEmptyHash((directory / "AA/gone/").c_str());
  EXPECT_EQ(watch.calls.back(), "remove " + (directory / "AA/gone"));
  EXPECT_TRUE(isThere(directory / "AA"));
}
