// The safe mode as a whole: that only KT_SAFE=1 turns it on, and its points that are at home in no room of their own:
// commands, log lines, marks, rounds of the balancer and mounts under two names.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>

#include "KTDirtyFlagHandler.h"
#include "KTRepositoryHandler.h"
#include "KTSemaphore.h"
#include "entrypoints.h"
#include "fakes/fakes.h"
#include "librarylog.h"
#include "realdisk/disks.h"
#include "sizeaccounting.h"
#include "support/fixture.h"
#include "support/results.h"
#include "transfer.h"

namespace fs = std::filesystem;

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using Lines = std::vector<std::string>;
using Setting = std::optional<std::string>;

constexpr int kExitOne = 256;  // what system gives for a command that exits with 1

class ModeTest : public RepositoryFixture {
 protected:
  ModeTest() : RepositoryFixture({"m1", "m2"}) {}

  std::string origin() const { return at(0, k2009); }
  std::string destination() const { return at(1, k2009); }
  int move() const { return moveRes(origin().c_str(), destination().c_str()); }
  void pass() const {
    KTRepositoryHandler handler(repository.id());
    handler.checkOverload(false);
  }
  // The first mount needs to be drained, whatever is moved.
  void overload() { disks.setUsed(repository.mount(0), 99.5); }
};

// With each value of KT_SAFE but the one.
class DefaultModeTest : public ModeTest, public testing::WithParamInterface<Setting> {
 private:
  EnvironmentVariable unsafe{"KT_SAFE", GetParam()};
};

class SafeModeTest : public ModeTest {
 private:
  EnvironmentVariable safe{"KT_SAFE", "1"};
};

}  // namespace

TEST_P(DefaultModeTest, TheCommandsAreWhatTheyAlwaysWere) {
  place(0, k2009);
  FakeShell shell;
  EXPECT_EQ(move(), 0);
  countSize(repository.mount(1).c_str(), false);
  EXPECT_THAT(shell.commands, ElementsAre("cp -r " + origin() + " " + destination(),
                                          "diff -q -r " + origin() + " " + destination(), "rm -fr " + origin(),
                                          "du -sk \"" + destination() + "\" > " + repository.mount(1) + "/.countres"));
}

TEST_P(DefaultModeTest, AMoveLeavesNothingBesideTheResource) {
  place(0, k2009);
  overload();
  pass();
  EXPECT_THAT(treeOf(repository.path()), ElementsAre("m1/", "m1/repositorypart.cfg=", "m2/", "m2/FP/", "m2/FP/IA/",
                                                     "m2/FP/IA/L3/", "m2/FP/IA/L3/2009/", "m2/FP/IA/L3/2009/file=file",
                                                     "m2/repositorypart.cfg=", StartsWith("repository.cfg=")));
}

TEST_P(DefaultModeTest, LockFilesAreEmptyAndNeverTakenOver) {
  KTSemaphore semaphore(repository.lockName("2009"), true);
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_EQ(readFile(repository.lockFile(repository.lockName("2009"))), "");
  writeFile(repository.lockFile(repository.lockName("abc")), "host kernel space 1 1\n");
  KTSemaphore other(repository.lockName("abc"), true);
  EXPECT_FALSE(other.lockResource());
}

TEST_P(DefaultModeTest, StateFilesAreWrittenOverInTheirPlace) {
  writeFile(origin(), "content");
  repository.writeDirtySet("old\n");
  writeFile(repository.mount(0) + "/.count", "");
  const auto number = [](const std::string& path) {
    struct stat status;
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_ino;
  };
  const Lines files = {repository.path() + "/.dirty", repository.mount(0) + "/.count"};
  const ino_t before[] = {number(files[0]), number(files[1])};
  KTDirtyFlagHandler handler;
  handler.setRepository(repository.id());
  handler.setDirty("new", true);
  countSize(repository.mount(0).c_str(), false);
  EXPECT_EQ(number(files[0]), before[0]);
  EXPECT_EQ(number(files[1]), before[1]);
  EXPECT_TRUE(isThere(repository.mount(0) + "/.countres"));
}

TEST_P(DefaultModeTest, ABuiltLogLineIsItsOwnFormatAndItsControlCharactersAreRaw) {
  writeFile(repository.scratch() + "/a%%b\tc", "mine");
  writeFile(repository.scratch() + "/other", "yours");
  EXPECT_EQ(moveRes((repository.scratch() + "/a%%b\tc").c_str(), (repository.scratch() + "/other").c_str()), 2);
  rh_logger.infoLog("a\nb%s", "\x01");
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_THAT(log.lines[0].format, HasSubstr("/a%%b\tc\" conflicts with"));
  EXPECT_THAT(log.lines[0].text, HasSubstr("/a%b\tc\" conflicts with"));
  EXPECT_EQ(log.lines[1].format, "a\nb%s");
  EXPECT_EQ(log.lines[1].text, "a\nb\x01");
}

TEST_P(DefaultModeTest, ThePassMarksThePathOfAResourceThatConflicts) {
  writeFile(origin(), "mine");
  setTimes(origin(), kLongAgo);
  writeFile(destination(), "yours");
  overload();
  pass();
  EXPECT_EQ(repository.dirtySet(), origin() + "\n");
}

TEST_P(DefaultModeTest, ThePassGivesAMountUpAfterThreeRounds) {
  place(0, k2009);
  overload();
  FakeShell shell;
  shell.answer = [](const std::string&) { return kExitOne; };
  pass();
  EXPECT_THAT(shell.commands, SizeIs(3));
}

TEST_P(DefaultModeTest, AMountListedTwiceIsTwoMounts) {
  repository.configure("mountPoints=m1\\m1\\m2\n");
  const KTRepositoryHandler handler(repository.id());
  EXPECT_THAT(handler.mountPoints, SizeIs(3));
  EXPECT_THAT(log.texts(LOG_ERR), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(WhateverElseKtSafeSays, DefaultModeTest,
                         testing::Values(Setting(), "0", "", "2", "true", "1 ", " 1", "01", "on"));

TEST_F(SafeModeTest, IsAskedForAtEachQuestion) {
  FakeShell shell;
  place(0, k2009);
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(shell.commands[0].substr(0, 9), "cp -a -- ");
  const EnvironmentVariable usual("KT_SAFE", "0");
  EXPECT_EQ(moveRes(destination().c_str(), origin().c_str()), 0);
  EXPECT_EQ(shell.commands[3], "cp -r " + destination() + " " + origin());
}

TEST_F(SafeModeTest, TheCommandsHaveTheirPathsQuotedBehindTwoHyphens) {
  place(0, k2009);
  FakeShell shell;
  EXPECT_EQ(move(), 0);
  countSize(repository.mount(1).c_str(), false);
  const auto hidden = [&](size_t mount) { return "'" + repository.mount(mount) + "/lost+found/kt-moves/2009/"; };
  EXPECT_THAT(shell.commands,
              ElementsAre(StartsWith("cp -a -- '" + origin() + "' " + hidden(1)),
                          StartsWith("diff -q -r --no-dereference -- '" + origin() + "' " + hidden(1)),
                          StartsWith("rm -fr -- " + hidden(0)),
                          "du -sk -- '" + destination() + "' > '" + repository.mount(1) + "/.countres'"));
}

TEST_F(SafeModeTest, IdsThatMeanSomethingToTheShellAreMeasuredMovedFoundAndRemovedWholeAndRunNothing) {
  const WorkingDirectory here(repository.scratch());
  const char* const ids[] = {"a b",
                             " a",
                             "a\tb",
                             "a\nb",
                             "\n",
                             "a\rb",
                             "a'b",
                             "'",
                             "a\"b",
                             "a\\b",
                             "a\\",
                             "*",
                             "?",
                             "[a]",
                             "{a,b}",
                             "~",
                             "#a",
                             "!a",
                             "-rf",
                             "--",
                             "-",
                             "%s%n",
                             "a=b",
                             "a;touch canary",
                             "a&touch canary&",
                             "a|touch canary",
                             "$(touch canary)",
                             "`touch canary`",
                             "'; touch canary; '",
                             "'$(touch canary)'",
                             ">canary",
                             "a\ntouch canary\n",
                             "\xff\xfe",
                             "\xc0\xaf",
                             "semaphore_a",
                             "lost+found",
                             "kt-moves"};
  for (const std::string id : ids) {
    SCOPED_TRACE(id);
    repository.place(0, id, "content of " + id, kLongAgo);
    EXPECT_GE(countSize(repository.mount(0).c_str(), false), 4);
    {
      KTRepositoryHandler handler(repository.id());
      EXPECT_EQ(handler.moveAllResourcesFromMount("m1"), 0);
    }
    const Found found = repository.find(id);
    EXPECT_EQ(found.path, repository.resourcePath(1, id));
    EXPECT_THAT(treeOf(found.path), ElementsAre("content=content of " + id));
    EXPECT_FALSE(isThere(repository.resourcePath(0, id)));
    EXPECT_EQ(removeResource_(repository.id(), id.c_str()), 0);
    EXPECT_FALSE(isThere(found.path));
    for (size_t i = 0; i < 2; ++i) EXPECT_THAT(treeOf(repository.mount(i) + "/lost+found"), ElementsAre("kt-moves/"));
    EXPECT_EQ(repository.dirtySet(), "");
    EXPECT_THAT(repository.locksLeft(), IsEmpty());
  }
  EXPECT_THAT(treeOf(repository.scratch()), Not(Contains(HasSubstr("canary"))));
  for (const LogLine& line : log.lines) EXPECT_EQ(line.format, "%s");
}

TEST_F(SafeModeTest, LogLinesAreShownAsTheyAreWithControlCharactersEscaped) {
  const std::string mine = repository.scratch() + "/%n%s%d";
  const std::string other = repository.scratch() + "/a\nb\tc\x7f\x01\x1b[2J";
  writeFile(mine, "mine");
  writeFile(other, "yours");
  EXPECT_EQ(moveRes(mine.c_str(), other.c_str()), 2);
  rh_logger.infoLog("100%% of %s: %d\n", "\xc3\xa4", 7);
  rh_logger.debugLog("a\nb\n");
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + mine + "\" conflicts with \"" + repository.scratch() +
                                           "/a\\nb\\x09c\\x7f\\x01\\x1b[2J\".",
                                       "100% of \xc3\xa4: 7", "a\\nb"));
  for (const LogLine& line : log.lines) EXPECT_EQ(line.format, "%s");
}

TEST_F(SafeModeTest, TheMarkOfAnErrnoIsShownEscaped) {
  place(0, k2009);
  const FailingCall full("mkdir", ENOSPC, destination().substr(0, destination().size() - 5));
  errno = 0;
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(testing::EndsWith("Error code is \\x1c")));
}

TEST_F(SafeModeTest, APassMarksTheIdOfAResourceThatConflictsAndALookUpFindsBothCopies) {
  writeFile(origin(), "mine");
  setTimes(origin(), kLongAgo);
  writeFile(destination(), "yours");
  overload();
  pass();
  EXPECT_EQ(repository.dirtySet(), "2009\n");
  EXPECT_THAT(log.texts(LOG_ERR), Contains(StartsWith("CheckOverload gives up on " + repository.mount(0))).Times(1));
  EXPECT_EQ(repository.find("2009").status, 2);
  writeFile(destination(), "mine");
  const Found found = repository.find("2009");
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.path, destination());
  EXPECT_FALSE(isThere(origin()));
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(SafeModeTest, WhileAResourceIsMovedItsIdIsMarked) {
  place(0, k2009);
  overload();
  FakeShell shell;
  shell.answer = [&](const std::string& command) {
    EXPECT_EQ(repository.dirtySet(), "2009\n");
    return FakeShell::runReal(command);
  };
  pass();
  EXPECT_TRUE(isThere(destination()));
  EXPECT_EQ(shell.commands.size(), 3u);
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(SafeModeTest, AMoveThatFailedLeavesNoMark) {
  place(0, k2009);
  overload();
  FakeShell shell;
  shell.answer = [](const std::string&) { return kExitOne; };
  pass();
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(SafeModeTest, AMarkThatCannotBeWrittenKeepsNothingFromBeingMoved) {
  place(0, k2009);
  overload();
  const FailingCall full("open", ENOSPC, "/.dirty.new");
  pass();
  EXPECT_GT(full.failed(), 0);
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
}

TEST_F(SafeModeTest, AMarkWhoseLockCannotBeReleasedKeepsNothingFromBeingMoved) {
  place(0, k2009);
  overload();
  KTRepositoryHandler handler(repository.id());
  std::unique_ptr<FailingCall> stuck;
  FakeShell shell;
  shell.answer = [&](const std::string& command) {
    if (command.starts_with("rm ")) stuck = std::make_unique<FailingCall>("unlink", EACCES, repository.dirtyLockName());
    return FakeShell::runReal(command);
  };
  FakeClock clock;
  handler.checkOverload(false);
  ASSERT_TRUE(stuck);
  EXPECT_GT(stuck->failed(), 0);
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
  EXPECT_FALSE(isThere(origin()));
}

TEST_F(SafeModeTest, AMountThatCannotBeLookedAtCountsAsAway) {
  place(0, k2009);
  place(1, k2009, "other");
  repository.writeDirtySet("2009\n");
  for (const int error : {EIO, EACCES, ENOMEM, ELOOP}) {
    const FailingCall blind("access", error, origin());
    Found found = repository.find("2009");
    EXPECT_EQ(found.path, destination());
    EXPECT_EQ(found.status, 1) << "another copy may be there";
    EXPECT_EQ(repository.dirtySet(), "2009\n");
  }
  EXPECT_EQ(repository.find("2009").status, 0);
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file", "other=other"));
}

TEST_F(SafeModeTest, WhatCannotBeLookedAtIsNeitherFoundNorNotFound) {
  place(0, k2009);
  const FailingCall blind("access", EIO, origin());
  const Found found = repository.find("2009");
  EXPECT_EQ(found.path, "");
  EXPECT_EQ(found.status, 8);
  EXPECT_EQ(removeResource_(repository.id(), "2009"), 8);
  EXPECT_TRUE(isThere(origin()));
}

TEST_F(SafeModeTest, WhatIsMadeWhileAMountCannotBeLookedAtIsMarked) {
  place(0, k2009);
  {
    const FailingCall blind("access", EIO, origin());
    EXPECT_EQ(repository.create("2009").status, 0);
  }
  EXPECT_EQ(repository.dirtySet(), "2009\n");
  EXPECT_EQ(repository.find("2009").status, 0);
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_P(DefaultModeTest, WhatCannotBeLookedAtIsNotThere) {
  place(0, k2009);
  const FailingCall blind("access", EIO, origin());
  EXPECT_EQ(repository.find("2009").status, 4);
  EXPECT_EQ(removeResource_(repository.id(), "2009"), 4);
}

TEST_F(SafeModeTest, AMountOfWhichAPartCannotBeReadIsNotFreed) {
  for (const char* function : {"opendir", "readdir", "stat"}) {
    place(0, k2009);
    const FailingCall blind(function, EIO, repository.mount(0) + "/FP/IA");
    EXPECT_EQ(freeMount_(repository.id(), "m1"), 3) << function;
    EXPECT_GT(blind.failed(), 0);
    EXPECT_TRUE(isThere(origin()));
  }
  EXPECT_EQ(freeMount_(repository.id(), "m1"), 0);
  EXPECT_FALSE(isThere(origin()));
}

TEST_F(SafeModeTest, ASymbolicLinkThatLeadsNowhereKeepsAMountFromBeingFreed) {
  makeDirectories(at(0, kAbc).substr(0, at(0, kAbc).rfind('/')));
  makeLink("nowhere", at(0, kAbc));
  EXPECT_EQ(freeMount_(repository.id(), "m1"), 3);
}

TEST_P(DefaultModeTest, AMountOfWhichAPartCannotBeReadIsFreed) {
  place(0, k2009);
  const FailingCall blind("opendir", EIO, repository.mount(0) + "/FP/IA");
  EXPECT_EQ(freeMount_(repository.id(), "m1"), 0);
}

TEST_F(SafeModeTest, SlashesAroundAnIdAreNoPartOfItsLockAndMark) {
  place(0, k2009);
  KTSemaphore held(repository.lockName("2009"), true);
  ASSERT_TRUE(held.lockResource());
  FakeClock clock;
  for (const char* id : {"2009", "/2009", "2009/", "//2009//"})
    EXPECT_EQ(checkResourceStatus_(repository.id(), id), 16) << id;
  held.unlock();
  overload();
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(repository.find("/2009/").status, 0);
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(SafeModeTest, AnIdWithoutANameIsFoundNowhereAndNeverMade) {
  useLegacy();
  for (const char* id : {"", "/", "///"}) {
    EXPECT_EQ(repository.find(id).status, 4) << id;
    EXPECT_EQ(repository.create(id).status, 8) << id;
    EXPECT_EQ(taken(createToLegacy_(repository.id(), id)), std::nullopt);
  }
}

class SafeLegacyTest : public SafeModeTest {
 protected:
  SafeLegacyTest() {
    useLegacy();
    outside = repository.scratch() + "/outside";
    writeFile(outside + "/sub/file", "of others");
    makeLink(outside, legacy("link"));
  }
  Lines outsideNow() const { return treeOf(outside); }

  std::string outside;
};

TEST_F(SafeLegacyTest, ALinkLeadsNoIdOutOfTheLegacyDirectory) {
  const Lines before = outsideNow();
  for (const char* id : {"link/", "link//", "link/sub", "link/sub/file", "/link/sub/"}) {
    EXPECT_EQ(checkResourceStatus_(repository.id(), id), 4) << id;
    EXPECT_EQ(taken(createToLegacy_(repository.id(), (std::string(id) + "/new").c_str())), std::nullopt);
    EXPECT_EQ(outsideNow(), before) << id;
  }
  for (const char* id : {"link/sub/file", "link/sub", "link/"}) {
    removeResource_(repository.id(), id);
    EXPECT_EQ(outsideNow(), before) << id;
  }
  EXPECT_FALSE(isThere(legacy("link"))) << "a link itself is a resource";
}

TEST_F(SafeLegacyTest, AResourceWhoseImportFailsIsFoundWhereItIs) {
  writeFile(legacy("2009/file"), "old");
  FakeShell shell;
  shell.answer = [](const std::string&) { return kExitOne; };
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(taken(getLocation_(repository.id(), "2009", nullptr)), legacy("2009"));
    EXPECT_EQ(repository.dirtySet(), "");
    EXPECT_FALSE(isThere(repository.mount(0) + "/FP"));
    EXPECT_FALSE(isThere(repository.mount(1) + "/FP"));
  }
}

TEST_F(SafeLegacyTest, WhileAResourceIsImportedItIsMarkedAndAnotherCopyIsJoined) {
  writeFile(legacy("2009/file"), "old");
  writeFile(legacy("2009/more"), "old");
  writeFile(destination() + "/file", "old");  // of an import that was cut off
  FakeShell shell;
  shell.answer = [&](const std::string& command) {
    EXPECT_EQ(repository.dirtySet(), "2009\n");
    return FakeShell::runReal(command);
  };
  const Found found = repository.find("2009");
  EXPECT_EQ(found.status, 0);
  EXPECT_THAT(treeOf(found.path), ElementsAre("file=old", "more=old"));
  EXPECT_NE(isThere(origin()), isThere(destination()));
  EXPECT_FALSE(isThere(legacy("2009")));
  EXPECT_EQ(repository.dirtySet(), "");
  EXPECT_FALSE(shell.commands.empty());
}

TEST_F(SafeModeTest, AFruitlessRoundEndsTheTreatmentOfTheMountWithAnErrorLine) {
  place(0, k2009);
  place(0, kAbc);
  overload();
  FakeShell shell;
  shell.answer = [](const std::string&) { return kExitOne; };
  pass();
  EXPECT_THAT(shell.commands, SizeIs(2)) << "each was tried once";
  EXPECT_THAT(
      log.texts(LOG_ERR),
      Contains("CheckOverload gives up on " + repository.mount(0) + ": nothing could be moved or deleted").Times(1));
}

TEST_F(SafeModeTest, ARoundThatMovedSomethingIsFollowedByAnother) {
  place(0, k2009);
  place(0, kAbc);
  overload();
  FakeShell shell;
  bool fails = true;
  shell.answer = [&](const std::string& command) {
    if (!command.starts_with("cp ") || command.find("abc") == std::string::npos) return FakeShell::runReal(command);
    return fails ? kExitOne : FakeShell::runReal(command);
  };
  pass();
  EXPECT_TRUE(isThere(destination()));
  EXPECT_TRUE(isThere(at(0, kAbc)));
  EXPECT_EQ(std::count_if(shell.commands.begin(), shell.commands.end(),
                          [](const std::string& command) {
                            return command.starts_with("cp ") && command.find("abc") != std::string::npos;
                          }),
            2);
}

TEST_F(SafeModeTest, AFruitlessRoundOfDeletionsEndsTooWithAnErrorLine) {
  repository.configure("isClearable=true\n");
  place(0, k2009);
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 99.5);
  const FailingCall none("remove", EIO, "2009");
  pass();
  EXPECT_EQ(none.failed(), 1);
  EXPECT_THAT(
      log.texts(LOG_ERR),
      Contains("CheckOverload gives up on " + repository.mount(0) + ": nothing could be moved or deleted").Times(1));
}

TEST_F(SafeModeTest, AMountListedTwiceOrUnderAnotherNameIsOne) {
  enterPrivateMounts();
  makeLink("m1", repository.path() + "/link");
  makeDirectories(repository.path() + "/bound");
  ASSERT_EQ(mount(repository.mount(0).c_str(), (repository.path() + "/bound").c_str(), nullptr, MS_BIND, nullptr), 0);
  for (const std::string other : {"m1", "m1/", "./m1", "m2/../m1", "link", "link/", "bound"}) {
    SCOPED_TRACE(other);
    disks.setUsed(repository.path() + "/" + other, 10);
    repository.configure("mountPoints=m1\\" + other + "\\m2\n");
    log.lines.clear();
    const KTRepositoryHandler handler(repository.id());
    ASSERT_THAT(handler.mountPoints, SizeIs(2));
    EXPECT_EQ(handler.mountPoints[0]->mountPath, repository.mount(0));
    EXPECT_EQ(handler.mountPoints[1]->mountPath, repository.mount(1));
    EXPECT_THAT(log.texts(LOG_ERR),
                ElementsAre("The mount \"" + repository.path() + "/" + other +
                            "\" is left out: it is the directory of \"" + repository.mount(0) + "\""));
  }
  EXPECT_EQ(umount((repository.path() + "/bound").c_str()), 0);
}

TEST_F(SafeModeTest, OneDiskThatComesUnderTwoNamesLaterLosesNoEmptyDirectory) {
  overload();
  makeDirectories(origin());
  KTRepositoryHandler handler(repository.id());
  ASSERT_THAT(handler.mountPoints, SizeIs(2));
  fs::remove_all(repository.mount(1));
  makeLink("m1", repository.mount(1));
  setTimes(origin(), kLongAgo);
  handler.checkOverload(false);
  EXPECT_TRUE(isDirectoryThere(origin()));
}
