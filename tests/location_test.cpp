// Find, create, remove and list resources, on one mount and over all of them.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>

#include "KTException.h"
#include "KTRepositoryHandler.h"
#include "listing.h"
#include "support/fixture.h"
#include "support/results.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Lt;

long countCalls(const CallWatch& watch, const std::string& call) {
  return std::count(watch.calls.begin(), watch.calls.end(), call);
}

class LocationTest : public RepositoryFixture {
 protected:
  LocationTest() : RepositoryFixture({"d1", "d2", "d3"}) {}

  void setUsed(size_t index, double percent) { disks.setUsed(repository.mount(index), percent); }

  // Built at its first use: files and settings of a test come before.
  KTRepositoryHandler& handler() {
    if (!built) built = std::make_unique<KTRepositoryHandler>(repository.id());
    return *built;
  }
  KTMountPointHandler& mount(size_t index) { return *handler().mountPoints.at(index); }

  std::vector<std::string> errors() const { return log.texts(LOG_ERR); }
  long joins() const {
    const auto lines = log.texts(LOG_DEBUG);
    return std::count(lines.begin(), lines.end(), "--- Dirty conflict handling ---");
  }
  std::string notLocked(const std::string& resource) const {
    return "The resource \"" + repository.lockName(resource) + "\" could not be locked.";
  }

  std::unique_ptr<KTRepositoryHandler> built;
  int status = kUntouched;
};

using MountLocationTest = LocationTest;

// ---------------------------------------------------------------------------------------- one mount: find

TEST_F(MountLocationTest, FindsAResourceUnderItsHashedName) {
  place(1, k2009, "file");
  EXPECT_EQ(taken(mount(1).getLocation("2009", &status, nullptr, false)), at(1, "/FP/IA/L3/2009"));
  EXPECT_EQ(status, 0);
}

TEST_F(MountLocationTest, FindsAResourceThatIsAFile) {
  writeFile(at(0, k2009), "file");
  EXPECT_EQ(taken(mount(0).getLocation("2009", &status, nullptr, false)), at(0, k2009));
  EXPECT_EQ(status, 0);
}

TEST_F(MountLocationTest, FindsAResourceWhateverSlashesStandAroundItsId) {
  place(0, k2009, "file");
  for (const char* id : {"2009", "2009/", "/2009", "/2009/", "//2009//"}) {
    status = kUntouched;
    EXPECT_EQ(taken(mount(0).getLocation(id, &status, nullptr, false)), at(0, k2009)) << id;
    EXPECT_EQ(status, 0) << id;
  }
}

TEST_F(MountLocationTest, HashesEveryComponentOfAnIdWithSlashesInside) {
  writeFile(at(0, "/FP/IA/L3/2009/2B/7X/NI/12/file"), "");
  EXPECT_EQ(taken(mount(0).getLocation("2009/12", &status, nullptr, false)), at(0, "/FP/IA/L3/2009/2B/7X/NI/12"));
  EXPECT_EQ(status, 0);
}

TEST_F(MountLocationTest, ReportsFourForAResourceThatIsNotThere) {
  int mountStatus = kUntouched;
  EXPECT_EQ(taken(mount(0).getLocation("2009", &status, &mountStatus, true)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(mountStatus, 0);
}

TEST_F(MountLocationTest, TellsTheFreshStatusOfTheMount) {
  place(0, k2009, "file");
  mount(0);
  setUsed(0, 95);
  int mountStatus = kUntouched;
  taken(mount(0).getLocation("2009", nullptr, &mountStatus, false));
  EXPECT_EQ(mountStatus, 0x1f);
}

TEST_F(MountLocationTest, LeavesTheStatusAloneWhenTheMountIsAway) {
  place(0, k2009, "file");
  mount(0);
  repository.takeOut(0);
  int mountStatus = kUntouched;
  EXPECT_EQ(taken(mount(0).getLocation("2009", &status, &mountStatus, false)), std::nullopt);
  EXPECT_EQ(status, kUntouched);
  EXPECT_EQ(mountStatus, 0x100);
}

TEST_F(MountLocationTest, TakesADiskThatCannotBeAskedForAway) {
  place(0, k2009, "file");
  mount(0);
  disks.fail(repository.mount(0), EIO);
  int mountStatus = kUntouched;
  EXPECT_EQ(taken(mount(0).getLocation("2009", &status, &mountStatus, false)), std::nullopt);
  EXPECT_EQ(status, kUntouched);
  EXPECT_EQ(mountStatus, 0x100);
}

TEST_F(MountLocationTest, NeedsNeitherOfTheTwoStatuses) {
  place(0, k2009, "file");
  EXPECT_EQ(taken(mount(0).getLocation("2009", nullptr, nullptr, false)), at(0, k2009));
  EXPECT_EQ(taken(mount(0).getLocation("abc", nullptr, nullptr, false)), std::nullopt);
  repository.takeOut(0);
  EXPECT_EQ(taken(mount(0).getLocation("2009", nullptr, nullptr, false)), std::nullopt);
}

TEST_F(MountLocationTest, TouchSetsBothTimesOfTheResourceToNow) {
  place(0, k2009, "file");
  const time_t before = time(nullptr);
  taken(mount(0).getLocation("2009", nullptr, nullptr, true));
  EXPECT_GE(accessTime(at(0, k2009)), before - 1);
  EXPECT_GE(modificationTime(at(0, k2009)), before - 1);
  EXPECT_EQ(modificationTime(at(0, k2009) + "/file"), kLongAgo) << "what is inside keeps its time";
}

TEST_F(MountLocationTest, LeavesTheTimesWithoutTouch) {
  place(0, k2009, "file");
  taken(mount(0).getLocation("2009", nullptr, nullptr, false));
  EXPECT_EQ(accessTime(at(0, k2009)), kLongAgo);
  EXPECT_EQ(modificationTime(at(0, k2009)), kLongAgo);
}

TEST_F(MountLocationTest, FindsAResourceWhoseTimesCannotBeSet) {
  place(0, k2009, "file");
  FailingCall utime("utime", EPERM);
  EXPECT_EQ(taken(mount(0).getLocation("2009", &status, nullptr, true)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(utime.failed(), 1);
}

TEST_F(MountLocationTest, FindsItsOwnDirectoryForAnIdOfSlashesOnly) {
  for (const char* id : {"", "/", "//"})
    EXPECT_EQ(taken(mount(0).getLocation(id, nullptr, nullptr, false)), repository.mount(0) + "/") << id;
}

TEST_F(MountLocationTest, ANullIdFailsTheAssertionId) {
  KTMountPointHandler& disk = mount(0);
  const std::function<void()> calls[] = {
      [&] { taken(disk.getLocation(nullptr, &status, nullptr, true)); },
      [&] { taken(disk.createLocation(nullptr, &status)); },
      [&] { taken(disk.createDirectory(nullptr, &status)); },
      [&] { disk.removeResource(nullptr); },
  };
  for (const auto& call : calls) EXPECT_EQ(failedExpression(call), "id");
  EXPECT_EQ(status, kUntouched);
}

// -------------------------------------------------------------------------------------- one mount: create

TEST_F(MountLocationTest, CreateLocationMakesTheThreeHashLevelsAndNotTheResource) {
  EXPECT_EQ(taken(mount(0).createLocation("/abc/", &status)), at(0, "/1W/H6/HW/abc"));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("1W/", "1W/H6/", "1W/H6/HW/", "repositorypart.cfg="));
}

TEST_F(MountLocationTest, CreateLocationTakesTheSlashesOffAnId) {
  for (const char* id : {"abc", "abc/", "/abc", "///abc///"})
    EXPECT_EQ(taken(mount(0).createLocation(id, nullptr)), at(0, kAbc)) << id;
}

TEST_F(MountLocationTest, CreateLocationOfAnIdWithASlashInsideFailsAnAssertion) {
  for (const char* id : {"a/b", "/a/b/", "a//b"}) {
    const auto assertion = assertionOf([&] { taken(mount(0).createLocation(id, &status)); });
    EXPECT_EQ(assertion.m_expression, "subDirectory.find( '/' ) == string::npos");
    EXPECT_EQ(assertion.m_line, 1429);
    EXPECT_EQ(rendered(assertion),
              "ASSERT (subDirectory.find( '/' ) == string::npos) in "
              "repositoryhandler/src/libs/KTRepositoryHandler at line 1429.");
  }
  EXPECT_EQ(status, kUntouched);
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

TEST_F(MountLocationTest, CreateDirectoryOfAnIdWithASlashInsideFailsTheSameAssertion) {
  EXPECT_EQ(assertionOf([&] { taken(mount(0).createDirectory("a/b", &status)); }).m_line, 1429);
}

TEST_F(MountLocationTest, CreateLocationOnAMountThatIsAwayReportsEight) {
  mount(0);
  repository.takeOut(0);
  EXPECT_EQ(taken(mount(0).createLocation("abc", &status)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.no="));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(MountLocationTest, AMountThatIsAwayDoesNotLookAtTheId) {
  mount(0);
  repository.takeOut(0);
  EXPECT_EQ(taken(mount(0).createLocation("a/b", &status)), std::nullopt);
  EXPECT_EQ(status, 8);
}

TEST_F(MountLocationTest, CreatingAndListingDoNotMeasureTheDisk) {
  mount(0);
  const int before = disks.calls(repository.mount(0));
  taken(mount(0).createLocation("abc", &status));
  taken(mount(0).createDirectory("abc", &status));
  std::list<std::string> names;
  mount(0).listResources(names, kAllResources);
  EXPECT_EQ(disks.calls(repository.mount(0)), before);
}

TEST_F(MountLocationTest, CreateLocationGivesUpAfterFiveAttempts) {
  mount(0);
  const FailingCall mkdir("mkdir", ENOSPC, repository.mount(0));
  const CallWatch watch;
  EXPECT_EQ(taken(mount(0).createLocation("abc", &status)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_EQ(countCalls(watch, "mkdir " + at(0, "/1W")), 5);
  EXPECT_EQ(mkdir.failed(), 5);
  EXPECT_THAT(errors(),
              ElementsAre("Error occured while creating directory \"" + at(0, "/1W/H6/HW") + "\". Error code is 28"));
}

TEST_F(MountLocationTest, CreateLocationSucceedsAtTheFifthAttempt) {
  mount(0);
  const FailingCall mkdir("mkdir", ENOENT, repository.mount(0), 0, 4);
  EXPECT_EQ(taken(mount(0).createLocation("abc", &status)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(mkdir.failed(), 4);
  EXPECT_TRUE(isDirectoryThere(at(0, "/1W/H6/HW")));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(MountLocationTest, CreateLocationNeedsNoStatus) {
  mount(0);
  EXPECT_EQ(taken(mount(0).createLocation("abc", nullptr)), at(0, kAbc));
  const FailingCall mkdir("mkdir", ENOSPC);
  EXPECT_EQ(taken(mount(0).createLocation("2009", nullptr)), std::nullopt);
}

TEST_F(MountLocationTest, AnIdOfSlashesOnlyHasNoPlaceOnAMount) {
  for (const char* id : {"", "/", "//"}) {
    status = kUntouched;
    EXPECT_EQ(taken(mount(0).createLocation(id, &status)), std::nullopt);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(taken(mount(0).createDirectory(id, nullptr)), std::nullopt);
  }
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
  const std::string line = "Error occured while creating directory \"" + repository.mount(0) + "/\". Error code is 22";
  EXPECT_THAT(errors(), AllOf(testing::SizeIs(6), testing::Each(line)));
}

TEST_F(MountLocationTest, CreateDirectoryMakesTheResourceToo) {
  EXPECT_EQ(taken(mount(0).createDirectory("/abc/", &status)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, kAbc)));
}

TEST_F(MountLocationTest, DirectoriesAreMadeWithMode0755) {
  mount(0);
  const mode_t mask = umask(0);
  taken(mount(0).createDirectory("abc", &status));
  umask(mask);
  for (const char* made : {"/1W", "/1W/H6", "/1W/H6/HW", "/1W/H6/HW/abc"}) {
    struct stat found;
    ASSERT_EQ(stat(at(0, made).c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0755U) << made;
  }
}

TEST_F(MountLocationTest, CreateDirectoryTakesADirectoryThatIsThere) {
  place(0, kAbc, "file");
  EXPECT_EQ(taken(mount(0).createDirectory("abc", &status)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readFile(at(0, kAbc) + "/file"), "file");
}

TEST_F(MountLocationTest, CreateDirectoryLeavesTheEightOfAFailedLocation) {
  mount(0);
  const FailingCall mkdir("mkdir", EROFS, repository.mount(0));
  EXPECT_EQ(taken(mount(0).createDirectory("abc", &status)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_EQ(mkdir.failed(), 5);
  EXPECT_THAT(errors(),
              ElementsAre("Error occured while creating directory \"" + at(0, "/1W/H6/HW") + "\". Error code is 30"));
}

// The last hash level vanishes, as far as mkdirs can see, between the location and the directory.
TEST_F(MountLocationTest, CreateDirectoryGivesUpAfterFiveAttemptsOfItsOwn) {
  makeDirectories(at(0, "/1W/H6/HW"));
  mount(0);
  const FailingCall access("access", ENOENT, "/1W/H6/HW", 1);
  const FailingCall mkdir("mkdir", EIO, "/1W/H6/HW");
  const CallWatch watch;
  EXPECT_EQ(taken(mount(0).createDirectory("abc", &status)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_EQ(countCalls(watch, "mkdir " + at(0, "/1W/H6/HW")), 5);
  EXPECT_THAT(errors(), ElementsAre("Error occured while creating directory \"" + at(0, kAbc) + "\". Error code is 5"));
}

TEST_F(MountLocationTest, CreateDirectorySucceedsAtItsFifthAttempt) {
  makeDirectories(at(0, "/1W/H6/HW"));
  mount(0);
  const FailingCall access("access", ENOENT, "/1W/H6/HW", 1, 4);
  const FailingCall mkdir("mkdir", EIO, "/1W/H6/HW", 0, 4);
  EXPECT_EQ(taken(mount(0).createDirectory("abc", &status)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, kAbc)));
  EXPECT_THAT(errors(), IsEmpty());
}

// mkdirs does not tell that the last directory of a path could not be made: another process may have made it.
TEST_F(MountLocationTest, CreateDirectoryDoesNotNoticeThatTheResourceItselfCouldNotBeMade) {
  makeDirectories(at(0, "/1W/H6/HW"));
  mount(0);
  const FailingCall mkdir("mkdir", ENOSPC, kAbc);
  EXPECT_EQ(taken(mount(0).createDirectory("abc", &status)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(mkdir.failed(), 1);
  EXPECT_FALSE(isThere(at(0, kAbc)));
}

// ---------------------------------------------------------------------------- one mount: remove and list

TEST_F(MountLocationTest, RemoveResourceDeletesTheTreeAndTheHashLevelsLeftEmpty) {
  writeFile(at(0, k2009) + "/below/file", "");
  EXPECT_EQ(mount(0).removeResource("2009"), 0);
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

TEST_F(MountLocationTest, RemoveResourceLeavesHashLevelsThatOthersUse) {
  place(0, k2009, "file");
  writeFile(at(0, "/FP/IA/other/file"), "");
  EXPECT_EQ(mount(0).removeResource("2009"), 0);
  EXPECT_THAT(treeOf(repository.mount(0)),
              ElementsAre("FP/", "FP/IA/", "FP/IA/other/", "FP/IA/other/file=", "repositorypart.cfg="));
}

TEST_F(MountLocationTest, RemoveResourceAnswersFourForWhatIsNotHere) {
  place(0, k2009, "file");
  EXPECT_EQ(mount(0).removeResource("abc"), 4);
  EXPECT_TRUE(isThere(at(0, k2009) + "/file"));
}

TEST_F(MountLocationTest, RemoveResourceAnswersFourOnAMountThatIsAway) {
  place(0, k2009, "file");
  mount(0);
  repository.takeOut(0);
  EXPECT_EQ(mount(0).removeResource("2009"), 4);
  EXPECT_TRUE(isThere(at(0, k2009) + "/file"));
}

TEST_F(MountLocationTest, RemoveResourceAnswersEightWhenSomethingCannotBeDeleted) {
  place(0, k2009, "file");
  const FailingCall remove("remove", EBUSY, k2009 + "/file");
  EXPECT_EQ(mount(0).removeResource("2009"), 8);
  EXPECT_TRUE(isThere(at(0, k2009) + "/file"));
  EXPECT_THAT(errors(), ElementsAre("The resource \"" + at(0, k2009) + "/file\" could not be removed. Error code is " +
                                    std::string(1, static_cast<char>(EBUSY))));
}

TEST_F(MountLocationTest, RemoveResourceTidiesNothingWhenItFailed) {
  place(0, k2009, "file");
  const FailingCall remove("remove", EBUSY, k2009, 1);
  const CallWatch watch;
  EXPECT_EQ(mount(0).removeResource("2009"), 8);
  EXPECT_EQ(countCalls(watch, "remove " + at(0, "/FP/IA/L3")), 0);
}

TEST_F(MountLocationTest, RemoveResourceDeletesNothingForAnIdOfSlashesOnly) {
  place(0, k2009, "file");
  for (const char* id : {"", "/", "//"}) EXPECT_EQ(mount(0).removeResource(id), 4) << id;
  EXPECT_TRUE(isThere(at(0, k2009) + "/file"));
}

TEST_F(MountLocationTest, ListResourcesFiltersByType) {
  place(0, k2009, "file");
  writeFile(at(0, kAbc), "");
  const struct {
    int filter;
    std::vector<std::string> want;
  } rows[] = {{0, {"before", "abc", "2009"}}, {1, {"before", "2009"}}, {2, {"before", "abc"}}, {7, {"before", "abc"}}};
  for (const auto& row : rows) {
    std::list<std::string> names = {"before"};
    mount(0).listResources(names, row.filter);
    EXPECT_THAT(names, testing::ElementsAreArray(row.want)) << row.filter;
  }
}

TEST_F(MountLocationTest, ListResourcesOfAMountThatIsAwayAddsNothing) {
  place(0, k2009, "file");
  mount(0);
  repository.takeOut(0);
  std::list<std::string> names = {"before"};
  mount(0).listResources(names, kAllResources);
  EXPECT_THAT(names, ElementsAre("before"));
}

// ------------------------------------------------------------------------------------------------- search

TEST_F(LocationTest, ACleanResourceIsNotSearchedForBeyondItsFirstMount) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  handler();
  const int second = disks.calls(repository.mount(1));
  const int third = disks.calls(repository.mount(2));
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(disks.calls(repository.mount(1)), second);
  EXPECT_EQ(disks.calls(repository.mount(2)), third);
  EXPECT_TRUE(isThere(at(2, k2009) + "/third"));
}

TEST_F(LocationTest, TheMountsAreSearchedToTheLast) {
  place(2, k2009, "third");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 0);
}

TEST_F(LocationTest, AResourceOnNoMountIsReportedWithFour) {
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, true)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocationTest, ACleanResourceIsFoundWithZeroWhileAMountIsAway) {
  place(1, k2009, "second");
  repository.takeOut(0);
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(1, k2009));
  EXPECT_EQ(status, 0);
}

TEST_F(LocationTest, ACleanResourceOnTheMountThatIsAwayIsNotFound) {
  place(0, k2009, "first");
  repository.takeOut(0);
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_FALSE(isThere(repository.path() + "/.dirty"));
}

TEST_F(LocationTest, GetLocationNeedsNoStatus) {
  place(0, k2009, "first");
  EXPECT_EQ(taken(handler().getLocation("2009", nullptr, true, true)), at(0, k2009));
  EXPECT_EQ(taken(handler().getLocation("abc", nullptr, true, true)), std::nullopt);
}

TEST_F(LocationTest, GetLocationTouchesOnlyWhenAsked) {
  place(0, k2009, "first");
  const time_t before = time(nullptr);
  taken(handler().getLocation("2009", nullptr, true, false));
  EXPECT_EQ(modificationTime(at(0, k2009)), kLongAgo);
  taken(handler().getLocation("2009", nullptr, true, true));
  EXPECT_GE(accessTime(at(0, k2009)), before - 1);
  EXPECT_GE(modificationTime(at(0, k2009)), before - 1);
}

// --------------------------------------------------------------------------------------------- join copies

TEST_F(LocationTest, TheCopiesOfADirtyResourceAreJoinedOnTheLaterMount) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("first=first", "third=third"));
  EXPECT_EQ(joins(), 1);
  EXPECT_EQ(repository.dirtySet(), "");
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocationTest, ThreeCopiesEndUpOnTheLastMount) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("first=first", "second=second", "third=third"));
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
  EXPECT_THAT(treeOf(repository.mount(1)), ElementsAre("repositorypart.cfg="));
  EXPECT_EQ(joins(), 2);
}

TEST_F(LocationTest, TheJoinedCopyTakesTheTimesOfTheEarlierOne) {
  place(0, k2009, "first", kLongAgo);
  place(2, k2009, "third", kLongAgo * 2);
  repository.writeDirtySet("2009\n");
  taken(handler().getLocation("2009", &status, true, false));
  EXPECT_EQ(modificationTime(at(2, k2009)), kLongAgo);
}

TEST_F(LocationTest, JoinsWhileAMountIsAwayButKeepsTheMarkAndReportsOne) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.takeOut(1);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 1);
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("first=first", "third=third"));
  EXPECT_EQ(joins(), 1);
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

TEST_F(LocationTest, TheMarkOfAResourceWithOneCopyIsClearedOnceAllMountsWereSeen) {
  place(0, k2009, "first");
  repository.writeDirtySet("2009\nabc\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(repository.dirtySet(), "abc\n");
  EXPECT_EQ(joins(), 0);
}

TEST_F(LocationTest, TheMarkOfAResourceThatIsNowhereIsClearedToo) {
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(LocationTest, ADirtyResourceThatMayBeOnAMountThatIsAwayIsReportedWithFourAndKeepsItsMark) {
  place(0, k2009, "first");
  repository.takeOut(0);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

TEST_F(LocationTest, AMarkNamesTheIdAsItWasGiven) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009/", &status, true, false)), at(0, k2009));
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

TEST_F(LocationTest, ALaterMountThatIsFullTakesNoCopy) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  setUsed(2, 97);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 2);
  EXPECT_THAT(treeOf(at(0, k2009)), ElementsAre("first=first"));
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("third=third"));
  EXPECT_EQ(joins(), 0);
  EXPECT_EQ(repository.dirtySet(), "2009\n");
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocationTest, ALaterMountJustBelowItsFullLimitTakesACopy) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  setUsed(2, 96.9);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 0);
}

TEST_F(LocationTest, AnEarlierMountThatIsFullGivesItsCopyAway) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  setUsed(0, 99);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 0);
}

TEST_F(LocationTest, AnEarlierCopyThatIsAFileIsAConflict) {
  writeFile(at(0, k2009), "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 2);
  EXPECT_EQ(readFile(at(0, k2009)), "first");
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("third=third"));
  EXPECT_EQ(joins(), 0);
}

TEST_F(LocationTest, AnEarlierCopyThatCannotBeExaminedIsAConflict) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  handler();
  {
    const FailingCall stat("stat", EIO, at(0, k2009));
    EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  }
  EXPECT_EQ(status, 2);
  EXPECT_THAT(treeOf(at(0, k2009)), ElementsAre("first=first"));
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("third=third"));
  EXPECT_EQ(joins(), 0);
}

TEST_F(LocationTest, AConflictInsideTheCopiesPassesTheCodeOfTheMoveOn) {
  place(0, k2009, "same");
  place(1, k2009, "same");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 2);
  EXPECT_THAT(log.texts(),
              ElementsAre("The resource \"" + at(0, k2009) + "/same\" conflicts with \"" + at(1, k2009) + "/same\".",
                          "--- Dirty conflict handling ---"))
      << "unlike copies that were not tried";
  EXPECT_EQ(errors().size(), 1U);
  EXPECT_EQ(joins(), 1);
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("third=third")) << "nothing more is moved";
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

TEST_F(LocationTest, AMoveThatFailsPassesItsEightOn) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  FakeShell shell;
  shell.answer = [](const std::string& command) {
    errno = EIO;
    return command.rfind("cp ", 0) == 0 ? 256 : 0;
  };
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + at(0, k2009) + "/first\" could not be renamed to \"" +
                                           at(1, k2009) + "/first\". Error code is " + static_cast<char>(EIO),
                                       "--- Dirty conflict handling ---"));
  EXPECT_EQ(errors().size(), 1U);
  EXPECT_EQ(joins(), 1);
  EXPECT_THAT(shell.commands, ElementsAre("cp -r " + at(0, k2009) + "/first " + at(1, k2009) + "/first"));
  EXPECT_THAT(treeOf(at(0, k2009)), ElementsAre("first=first"));
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

TEST_F(LocationTest, AnEmptiedCopyThatCannotBeRemovedPassesItsEightOn) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  const FailingCall rmdir("rmdir", EBUSY, at(0, k2009));
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("first=first", "third=third"));
}

TEST_F(LocationTest, ConflictsAreReportedToNobodyWithoutAStatus) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  setUsed(2, 97);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", nullptr, true, false)), std::nullopt);
}

TEST_F(LocationTest, TouchReachesEveryCopyOfADirtyResource) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  setUsed(2, 97);
  repository.writeDirtySet("2009\n");
  const time_t before = time(nullptr);
  taken(handler().getLocation("2009", nullptr, true, true));
  EXPECT_GE(modificationTime(at(0, k2009)), before - 1);
  EXPECT_GE(modificationTime(at(2, k2009)), before - 1);
}

// --------------------------------------------------------------------------------------- legacy directory

TEST_F(LocationTest, ALegacyResourceIsImported) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(treeOf(at(0, k2009)), ElementsAre("file=old"));
  EXPECT_THAT(treeOf(legacy("")), IsEmpty());
}

TEST_F(LocationTest, ALegacyResourceThatIsAFileIsImported) {
  useLegacy();
  writeFile(legacy("2009"), "old");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_EQ(readFile(at(0, k2009)), "old");
}

TEST_F(LocationTest, AnImportKeepsTheTimesOfTheResourceUnlessItIsTouched) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  setTimes(legacy("2009"), kLongAgo);
  taken(handler().getLocation("2009", &status, true, false));
  EXPECT_EQ(modificationTime(at(0, k2009)), kLongAgo);
}

TEST_F(LocationTest, ALegacyResourceIsImportedIntoTheMountOnItsFileSystem) {
  useLegacy();
  struct statvfs space = {};
  space.f_blocks = 1000;
  space.f_bfree = space.f_bavail = 900;
  space.f_ffree = space.f_favail = 77;
  disks.set(repository.mount(1), space);
  disks.set(repository.scratch() + "/legacy", space);
  writeFile(legacy("2009/file"), "old");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(1, k2009));
  EXPECT_EQ(status, 0);
}

TEST_F(LocationTest, ALegacyResourceStaysWhenNoMountMayTakeItAndTheStatusKeepsItsValue) {
  useLegacy();
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  writeFile(legacy("2009/file"), "old");
  setTimes(legacy("2009"), kLongAgo);
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), legacy("2009"));
  EXPECT_EQ(status, kUntouched);
  EXPECT_EQ(modificationTime(legacy("2009")), kLongAgo);
  EXPECT_THAT(treeOf(legacy("")), ElementsAre("2009/", "2009/file=old"));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocationTest, ALegacyResourceThatStaysIsTouchedThere) {
  useLegacy();
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  writeFile(legacy("2009/file"), "old");
  setTimes(legacy("2009"), kLongAgo);
  const time_t before = time(nullptr);
  taken(handler().getLocation("2009", &status, true, true));
  EXPECT_GE(accessTime(legacy("2009")), before - 1);
  EXPECT_GE(modificationTime(legacy("2009")), before - 1);
}

TEST_F(LocationTest, ALegacyResourceThatStaysHidesTheCopyOnAMount) {
  useLegacy();
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  place(0, k2009, "first");
  writeFile(legacy("2009/file"), "old");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), legacy("2009"));
}

TEST_F(LocationTest, ALegacySymbolicLinkIsIgnored) {
  useLegacy();
  writeFile(repository.scratch() + "/elsewhere/file", "old");
  std::filesystem::create_directory_symlink(repository.scratch() + "/elsewhere", legacy("2009"));
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_TRUE(isThere(legacy("2009")));
  EXPECT_TRUE(isThere(repository.scratch() + "/elsewhere/file"));
}

TEST_F(LocationTest, AFailedImportLeavesTheResourceInTheLegacyDirectory) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  FakeShell shell;
  shell.answer = [](const std::string&) { return 256; };
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_THAT(treeOf(legacy("")), ElementsAre("2009/", "2009/file=old"));
}

TEST_F(LocationTest, AnImportThatConflictsGivesTheCopyOnTheMount) {
  useLegacy();
  writeFile(legacy("2009"), "old");
  place(0, k2009, "first");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readFile(legacy("2009")), "old");
}

TEST_F(LocationTest, AnImportMergesIntoTheCopyOnTheMount) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  place(0, k2009, "first");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_THAT(treeOf(at(0, k2009)), ElementsAre("file=old", "first=first"));
}

TEST_F(LocationTest, NothingIsImportedWhenThePlaceForItCannotBeMade) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  handler();
  FakeShell shell;
  const FailingCall mkdir("mkdir", ENOSPC, repository.mount(0));
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(mkdir.failed(), 5);
  EXPECT_THAT(shell.commands, IsEmpty());
  EXPECT_TRUE(isThere(legacy("2009/file")));
}

TEST_F(LocationTest, ALegacyResourceOfAnIdWithASlashInsideFailsTheAssertionOfItsPlace) {
  useLegacy();
  writeFile(legacy("a/b/file"), "old");
  EXPECT_EQ(assertionOf([&] { taken(handler().getLocation("a/b", &status, true, false)); }).m_line, 1429);
  EXPECT_TRUE(isThere(legacy("a/b/file")));
  EXPECT_EQ(status, kUntouched);
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST_F(LocationTest, TheCopiesOfADirtyResourceAreJoinedWithTheLegacyOne) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(treeOf(at(2, k2009)), ElementsAre("file=old", "third=third"));
}

// -------------------------------------------------------------------------------------------------- locks

struct LockingOperation {
  const char* name;
  std::function<Text(KTRepositoryHandler& repository, const char* resource, int* status)> run;
  Text whenNotLocked;
};

const LockingOperation kLockingOperations[] = {
    {"getLocation",
     [](KTRepositoryHandler& r, const char* resource, int* status) {
       return taken(r.getLocation(resource, status, true, true));
     },
     std::nullopt},
    {"createLocation",
     [](KTRepositoryHandler& r, const char* resource, int* status) {
       return taken(r.createLocation(resource, status, false));
     },
     std::nullopt},
    {"createDirectory",
     [](KTRepositoryHandler& r, const char* resource, int* status) {
       return taken(r.createDirectory(resource, status, false));
     },
     std::nullopt},
    {"removeResource",
     [](KTRepositoryHandler& r, const char* resource, int*) { return std::to_string(r.removeResource(resource)); },
     "16"},
    {"checkResourceStatus",
     [](KTRepositoryHandler& r, const char* resource, int*) { return std::to_string(r.checkResourceStatus(resource)); },
     "16"},
};

TEST_F(LocationTest, ALockHeldByAnotherIsWaitedForThirtySeconds) {
  place(0, k2009, "first");
  handler();
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const auto before = treeOf(repository.path());
  for (const LockingOperation& operation : kLockingOperations) {
    SCOPED_TRACE(operation.name);
    log.lines.clear();
    FakeClock clock;
    clock.randoms = {2147483647, 1073741824};
    EXPECT_EQ(operation.run(handler(), "2009", &status), operation.whenNotLocked);
    EXPECT_EQ(status, kUntouched);
    EXPECT_THAT(errors(), ElementsAre(notLocked("2009")));
    EXPECT_THAT(std::accumulate(clock.pauses.begin(), clock.pauses.end(), 0L), AllOf(Ge(30000), Lt(31000)));
  }
  EXPECT_EQ(treeOf(repository.path()), before);
  EXPECT_TRUE(isThere(repository.lockFile(repository.lockName("2009")))) << "it is the other's";
}

TEST_F(LocationTest, TheLineOfALockThatIsNotTakenNamesRepositoryAndResourceWithoutSlashes) {
  handler();
  std::string name = "KTRepositoryHandler-" + repository.path() + "-a_b";
  std::replace(name.begin(), name.end(), '/', '_');
  writeFile(repository.lockDirectory() + "/semaphore_" + name, "");
  const FakeClock clock;
  taken(handler().getLocation("a/b", &status, true, true));
  EXPECT_THAT(errors(), ElementsAre("The resource \"" + name + "\" could not be locked."));
}

TEST_F(LocationTest, AMissingLockDirectoryCountsAsNotLockedAtOnce) {
  place(0, k2009, "first");
  handler();
  const EnvironmentVariable elsewhere("LOCK_VAR", repository.scratch() + "/nowhere");
  const auto before = treeOf(repository.path());
  for (const LockingOperation& operation : kLockingOperations) {
    SCOPED_TRACE(operation.name);
    log.lines.clear();
    const FakeClock clock;
    EXPECT_EQ(operation.run(handler(), "2009", &status), operation.whenNotLocked);
    EXPECT_EQ(status, kUntouched);
    EXPECT_THAT(errors(), ElementsAre(notLocked("2009")));
    EXPECT_THAT(clock.pauses, IsEmpty());
  }
  EXPECT_EQ(treeOf(repository.path()), before);
}

TEST_F(LocationTest, ALockThatComesFreeInTimeIsTaken) {
  place(0, k2009, "first");
  handler();
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  FakeClock clock;
  clock.onSleep = [&] {
    if (clock.pauses.size() == 100) std::filesystem::remove(repository.lockFile(repository.lockName("2009")));
  };
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(0, k2009));
  EXPECT_EQ(clock.pauses.size(), 100U);
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST_F(LocationTest, WithoutALockTheOtherHolderDoesNotMatter) {
  place(0, k2009, "first");
  handler();
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  EXPECT_EQ(taken(handler().getLocation("2009", &status, false, false)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(clock.pauses, IsEmpty());
}

TEST_F(LocationTest, TheLockOfAnotherResourceDoesNotMatter) {
  handler();
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  for (const LockingOperation& operation : kLockingOperations) operation.run(handler(), "abc", &status);
  EXPECT_THAT(clock.pauses, IsEmpty());
}

TEST_F(LocationTest, EveryOperationGivesItsLockBack) {
  place(0, k2009, "first");
  for (const LockingOperation& operation : kLockingOperations) {
    operation.run(handler(), "2009", &status);
    EXPECT_THAT(repository.locksLeft(), IsEmpty()) << operation.name;
  }
}

TEST_F(LocationTest, ALockThatCannotBeGivenBackLeavesTheOperationAsAnException) {
  handler();
  for (const LockingOperation& operation : kLockingOperations) {
    SCOPED_TRACE(operation.name);
    place(0, k2009, "first");
    {
      const FailingCall unlink("unlink", EACCES, repository.lockName("2009"));
      const auto failure = thrownBy<KTIOException>([&] { operation.run(handler(), "2009", &status); });
      EXPECT_EQ(failure.m_code, EACCES);
      EXPECT_EQ(failure.m_message,
                "Releasing semaphore failed: " + repository.lockName("2009") + " [Permission denied]");
      EXPECT_EQ(unlink.failed(), 1);
    }
    EXPECT_THAT(repository.locksLeft(), ElementsAre("semaphore_" + repository.lockName("2009")));
    std::filesystem::remove(repository.lockFile(repository.lockName("2009")));
  }
}

TEST_F(LocationTest, TheWorkIsDoneWhenTheLockCannotBeGivenBack) {
  place(0, k2009, "first");
  handler();
  const FailingCall unlink("unlink", EACCES, repository.lockName(""));
  EXPECT_THROW(taken(handler().createDirectory("abc", &status, false)), KTIOException);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, kAbc)));
  EXPECT_THROW(handler().removeResource("2009"), KTIOException);
  EXPECT_FALSE(isThere(at(0, k2009)));
}

TEST_F(LocationTest, AnExceptionInsideGoesOnAloneWhenTheLockCannotBeGivenBack) {
  handler();
  const FailingCall unlink("unlink", EACCES, repository.lockName("a/b"));
  EXPECT_EQ(assertionOf([&] { taken(handler().createLocation("a/b", &status, false)); }).m_line, 1429);
  EXPECT_EQ(unlink.failed(), 1);
}

TEST_F(LocationTest, ADirtySetThatCannotBeLockedCountsAsDirty) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.takeOut(1);
  handler();
  log.lines.clear();
  writeFile(repository.lockFile(repository.dirtyLockName()), "");
  const FakeClock clock;
  EXPECT_EQ(taken(handler().getLocation("2009", &status, true, false)), at(2, k2009));
  EXPECT_EQ(status, 1);
  EXPECT_THAT(errors(), ElementsAre("The dirty mechanism \"" + repository.path() + "/.dirty\" could not be locked."));
}

// ------------------------------------------------------------------------------------------------- create

struct Creation {
  const char* name;
  std::function<Text(KTRepositoryHandler& repository, const char* resource, int* status, bool noDirtyMark)> run;
};

const Creation kCreations[] = {
    {"createLocation", [](KTRepositoryHandler& r, const char* resource, int* status,
                          bool noDirtyMark) { return taken(r.createLocation(resource, status, noDirtyMark)); }},
    {"createDirectory", [](KTRepositoryHandler& r, const char* resource, int* status,
                           bool noDirtyMark) { return taken(r.createDirectory(resource, status, noDirtyMark)); }},
};

class CreationTest : public LocationTest, public testing::WithParamInterface<size_t> {
 protected:
  Text create(const char* resource, bool noDirtyMark = false) {
    return kCreations[GetParam()].run(handler(), resource, &status, noDirtyMark);
  }
};

INSTANTIATE_TEST_SUITE_P(Both, CreationTest, testing::Values(size_t{0}, size_t{1}),
                         [](const auto& instance) { return kCreations[instance.param].name; });

TEST_F(LocationTest, CreateLocationOfANewResourceMakesThePlaceOnly) {
  EXPECT_EQ(taken(handler().createLocation("abc", &status, false)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, "/1W/H6/HW")));
  EXPECT_FALSE(isThere(at(0, kAbc)));
}

TEST_F(LocationTest, CreateDirectoryOfANewResourceMakesTheResource) {
  EXPECT_EQ(taken(handler().createDirectory("abc", &status, false)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, kAbc)));
}

TEST_P(CreationTest, TakesTheMountChosenForNewResources) {
  setUsed(0, 96);
  EXPECT_EQ(create("abc"), at(1, kAbc));
  EXPECT_EQ(status, 0);
}

TEST_P(CreationTest, GivesAResourceThatIsThereWithoutTouchingIt) {
  place(2, kAbc, "third");
  EXPECT_EQ(create("abc"), at(2, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(modificationTime(at(2, kAbc)), kLongAgo);
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

TEST_P(CreationTest, GivesAResourceThatIsThereThoughAllMountsAreFull) {
  for (size_t i = 0; i < 3; ++i) setUsed(i, 99);
  place(2, kAbc, "third");
  EXPECT_EQ(create("abc"), at(2, kAbc));
  EXPECT_EQ(status, 0);
}

TEST_P(CreationTest, GivesADirtyResourceThatIsThereWithOneWhileAMountIsAway) {
  place(2, kAbc, "third");
  repository.takeOut(0);
  repository.writeDirtySet("abc\n");
  EXPECT_EQ(create("abc"), at(2, kAbc));
  EXPECT_EQ(status, 1);
}

TEST_P(CreationTest, LeavesTheStatusAloneForAResourceThatStaysInTheLegacyDirectory) {
  useLegacy();
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  writeFile(legacy("abc/file"), "old");
  EXPECT_EQ(create("abc"), legacy("abc"));
  EXPECT_EQ(status, kUntouched);
}

TEST_P(CreationTest, MarksANewResourceDirtyWhileAMountIsAway) {
  repository.takeOut(0);
  EXPECT_EQ(create("abc"), at(1, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(repository.dirtySet(), "abc\n");
}

TEST_P(CreationTest, MarksNothingDirtyWhenToldNotTo) {
  repository.takeOut(0);
  EXPECT_EQ(create("abc", true), at(1, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(isThere(repository.path() + "/.dirty"));
}

TEST_P(CreationTest, MarksNothingDirtyWhileAllMountsAreThere) {
  create("abc");
  EXPECT_FALSE(isThere(repository.path() + "/.dirty"));
}

// The status is that of the last look at all mounts; the choice of a mount refreshes it, after the marking.
TEST_P(CreationTest, MarksNothingDirtyWhenAMountWentAwaySinceTheLastStatus) {
  handler();
  repository.takeOut(1);
  EXPECT_EQ(create("abc"), at(0, kAbc));
  EXPECT_FALSE(isThere(repository.path() + "/.dirty"));
  EXPECT_EQ(handler().status, REPOSITORY_INCOMPLETE) << "refreshed meanwhile";
  EXPECT_NE(create("2009"), std::nullopt);
  EXPECT_EQ(repository.dirtySet(), "2009\n") << "the next one is marked";
}

TEST_P(CreationTest, MarksANewResourceDirtyWhenAMountCameBackSinceTheLastStatus) {
  repository.takeOut(1);
  handler();
  repository.giveBack(1);
  EXPECT_EQ(create("abc"), at(0, kAbc));
  EXPECT_EQ(repository.dirtySet(), "abc\n");
  EXPECT_EQ(handler().status, 0) << "refreshed meanwhile";
  EXPECT_NE(create("2009"), std::nullopt);
  EXPECT_EQ(repository.dirtySet(), "abc\n") << "the next one is not";
}

TEST_P(CreationTest, MarksAResourceThatIsThereNotDirty) {
  place(2, kAbc, "third");
  repository.takeOut(0);
  EXPECT_EQ(create("abc"), at(2, kAbc));
  EXPECT_FALSE(isThere(repository.path() + "/.dirty"));
}

TEST_P(CreationTest, TheCopyOfAResourceMadeWhileItsMountWasAwayIsJoinedAfterTheReturn) {
  place(0, kAbc, "first");
  repository.takeOut(0);
  const Text made = create("abc");
  writeFile(made.value() + "/second", "second");
  repository.giveBack(0);
  EXPECT_EQ(taken(handler().getLocation("abc", &status, true, false)), at(1, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(treeOf(at(1, kAbc)), ElementsAre("first=first", "second=second"));
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_P(CreationTest, CopiesThatCannotBeJoinedDoNotStopIt) {
  place(1, kAbc, "second");
  place(2, kAbc, "third");
  setUsed(2, 97);
  repository.writeDirtySet("abc\n");
  EXPECT_EQ(create("abc"), at(0, kAbc));
  EXPECT_EQ(status, 0);
}

struct NoRoom {
  const char* name;
  double used;
  std::vector<size_t> away;
  const char* text;
};

TEST_P(CreationTest, ReportsARepositoryThatCanTakeNothing) {
  const NoRoom rows[] = {
      {"all full", 97, {}, "full"},
      {"full as far as it is there", 97, {0}, "full and incomplete"},
      {"nothing there", 10, {0, 1, 2}, "missing"},
  };
  for (const NoRoom& row : rows) {
    SCOPED_TRACE(row.name);
    log.lines.clear();
    built.reset();
    status = kUntouched;
    for (size_t i = 0; i < 3; ++i) setUsed(i, row.used);
    for (const size_t index : row.away) repository.takeOut(index);
    EXPECT_EQ(create("abc"), std::nullopt);
    EXPECT_EQ(status, 8);
    EXPECT_THAT(errors(), ElementsAre("The repository \"" + repository.path() + "\" is " + row.text));
    for (const size_t index : row.away) repository.giveBack(index);
  }
  for (size_t i = 0; i < 3; ++i) EXPECT_THAT(treeOf(repository.mount(i)), ElementsAre("repositorypart.cfg="));
}

TEST_P(CreationTest, MarksAResourceDirtyEvenWhenThereIsNoRoomForIt) {
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  repository.takeOut(0);
  EXPECT_EQ(create("abc"), std::nullopt);
  EXPECT_EQ(repository.dirtySet(), "abc\n");
}

TEST_P(CreationTest, ARepositoryWhoseDirectoryIsMissingHasNoName) {
  built = std::make_unique<KTRepositoryHandler>((repository.scratch() + "/nowhere").c_str());
  log.lines.clear();
  EXPECT_EQ(create("abc"), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_THAT(errors(), Contains("The repository \"\" is missing"));
}

TEST_P(CreationTest, ReportsEightWhenThePlaceCannotBeMade) {
  handler();
  const FailingCall mkdir("mkdir", ENOSPC, repository.mount(0));
  EXPECT_EQ(create("abc"), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_EQ(mkdir.failed(), 5);
  EXPECT_THAT(errors(),
              ElementsAre("Error occured while creating directory \"" + at(0, "/1W/H6/HW") + "\". Error code is 28"));
}

TEST_P(CreationTest, OfAnIdWithASlashInsideFailsAnAssertionAndGivesTheLockBack) {
  EXPECT_EQ(assertionOf([&] { create("a/b"); }).m_line, 1429);
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

TEST_P(CreationTest, GivesAnExistingResourceOfAnIdWithASlashInside) {
  writeFile(at(1, "/FP/IA/L3/2009/2B/7X/NI/12/file"), "");
  EXPECT_EQ(create("2009/12"), at(1, "/FP/IA/L3/2009/2B/7X/NI/12"));
  EXPECT_EQ(status, 0);
}

TEST_F(LocationTest, CreationsNeedNoStatus) {
  EXPECT_EQ(taken(handler().createLocation("abc", nullptr, false)), at(0, kAbc));
  EXPECT_EQ(taken(handler().createDirectory("abc", nullptr, false)), at(0, kAbc));
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  EXPECT_EQ(taken(handler().createLocation("2009", nullptr, false)), std::nullopt);
}

// ------------------------------------------------------------------------------------------------- remove

TEST_F(LocationTest, RemoveResourceAnswersFourForAResourceThatIsNowhere) {
  EXPECT_EQ(handler().removeResource("2009"), 4);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocationTest, RemoveResourceRemovesTheCopiesOnAllMounts) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  place(2, kAbc, "other");
  EXPECT_EQ(handler().removeResource("2009"), 0);
  EXPECT_FALSE(isThere(at(0, "/FP")));
  EXPECT_FALSE(isThere(at(2, "/FP")));
  EXPECT_TRUE(isThere(at(2, kAbc) + "/other"));
}

TEST_F(LocationTest, RemoveResourceRemovesTheOtherCopiesOfOneThatCannotBeRemoved) {
  for (const size_t stuck : {size_t{0}, size_t{2}}) {
    place(0, k2009, "first");
    place(2, k2009, "third");
    const FailingCall remove("remove", EBUSY, at(stuck, k2009));
    EXPECT_EQ(handler().removeResource("2009"), 8) << "the bits of all mounts";
    EXPECT_TRUE(isThere(at(stuck, k2009)));
    EXPECT_FALSE(isThere(at(2 - stuck, k2009)));
  }
}

TEST_F(LocationTest, RemoveResourceAnswersEightWhenEveryRemovalFailed) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  const FailingCall remove("remove", EBUSY, k2009);
  EXPECT_EQ(handler().removeResource("2009"), 8);
  EXPECT_EQ(remove.failed(), 2);
}

TEST_F(LocationTest, RemoveResourceRemovesTheLegacyResourceToo) {
  useLegacy();
  place(1, k2009, "second");
  writeFile(legacy("2009/file"), "old");
  EXPECT_EQ(handler().removeResource("2009"), 0);
  EXPECT_THAT(treeOf(legacy("")), IsEmpty());
  EXPECT_FALSE(isThere(at(1, k2009)));
}

TEST_F(LocationTest, RemoveResourceFindsAResourceThatIsOnlyInTheLegacyDirectory) {
  useLegacy();
  writeFile(legacy("2009"), "old");
  EXPECT_EQ(handler().removeResource("2009"), 0);
  EXPECT_THAT(treeOf(legacy("")), IsEmpty());
}

TEST_F(LocationTest, RemoveResourceAddsTheBitsOfTheLegacyResource) {
  useLegacy();
  place(1, k2009, "second");
  writeFile(legacy("2009"), "old");
  const FailingCall remove("remove", EBUSY, legacy("2009"));
  EXPECT_EQ(handler().removeResource("2009"), 8);
  EXPECT_FALSE(isThere(at(1, k2009)));
  EXPECT_TRUE(isThere(legacy("2009")));
}

TEST_F(LocationTest, RemoveResourceKeepsTheBitsOfAMountWhenTheLegacyResourceCouldBeRemoved) {
  useLegacy();
  place(1, k2009, "second");
  writeFile(legacy("2009"), "old");
  const FailingCall remove("remove", EBUSY, at(1, k2009));
  EXPECT_EQ(handler().removeResource("2009"), 8);
  EXPECT_TRUE(isThere(at(1, k2009)));
  EXPECT_FALSE(isThere(legacy("2009")));
}

TEST_F(LocationTest, RemoveResourceJoinsTheCopiesOfADirtyResourceFirst) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(handler().removeResource("2009"), 0);
  EXPECT_EQ(joins(), 1);
  EXPECT_FALSE(isThere(at(0, k2009)));
  EXPECT_FALSE(isThere(at(2, k2009)));
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(LocationTest, RemoveResourceRemovesNothingWhileACopyMayBeOnAMountThatIsAway) {
  place(0, k2009, "first");
  repository.takeOut(1);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(handler().removeResource("2009"), 1);
  EXPECT_TRUE(isThere(at(0, k2009) + "/first"));
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

TEST_F(LocationTest, RemoveResourceRemovesNothingWhenTheCopiesCannotBeJoined) {
  writeFile(at(0, k2009), "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(handler().removeResource("2009"), 1);
  EXPECT_TRUE(isThere(at(0, k2009)));
  EXPECT_TRUE(isThere(at(2, k2009) + "/third"));
}

TEST_F(LocationTest, RemoveResourceOfADirtyResourceThatIsNowhereAnswersFour) {
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(handler().removeResource("2009"), 4);
  EXPECT_EQ(repository.dirtySet(), "");
}

TEST_F(LocationTest, RemoveResourceRemovesACleanResourceWhileAnotherMountIsAway) {
  place(0, k2009, "first");
  repository.takeOut(1);
  EXPECT_EQ(handler().removeResource("2009"), 0);
  EXPECT_FALSE(isThere(at(0, k2009)));
}

TEST_F(LocationTest, RemoveResourceOfAnIdWithASlashInsideLeavesTheOuterResource) {
  writeFile(at(0, "/FP/IA/L3/2009/2B/7X/NI/12/file"), "");
  EXPECT_EQ(handler().removeResource("2009/12"), 0);
  EXPECT_THAT(treeOf(at(0, k2009)), IsEmpty());
  EXPECT_TRUE(isThere(at(0, k2009)));
}

// ------------------------------------------------------------------------------------- status of a resource

TEST_F(LocationTest, CheckResourceStatusReportsACleanResourceWithZeroAndDoesNotTouchIt) {
  place(1, k2009, "second");
  EXPECT_EQ(handler().checkResourceStatus("2009"), 0);
  EXPECT_EQ(modificationTime(at(1, k2009)), kLongAgo);
}

TEST_F(LocationTest, CheckResourceStatusReportsADirtyResourceWithOneWhileAMountIsAway) {
  place(1, k2009, "second");
  repository.takeOut(0);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(handler().checkResourceStatus("2009"), 1);
}

TEST_F(LocationTest, CheckResourceStatusReportsCopiesThatCannotBeJoinedWithTwo) {
  writeFile(at(0, k2009), "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(handler().checkResourceStatus("2009"), 2);
}

TEST_F(LocationTest, CheckResourceStatusReportsAResourceThatIsNowhereWithFour) {
  EXPECT_EQ(handler().checkResourceStatus("2009"), 4);
}

TEST_F(LocationTest, CheckResourceStatusPassesTheEightOfAFailedMoveOn) {
  place(0, k2009, "first");
  place(2, k2009, "third");
  repository.writeDirtySet("2009\n");
  FakeShell shell;
  shell.answer = [](const std::string&) { return 256; };
  EXPECT_EQ(handler().checkResourceStatus("2009"), 8);
}

TEST_F(LocationTest, CheckResourceStatusReportsAResourceThatStaysInTheLegacyDirectoryAsFound) {
  useLegacy();
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  writeFile(legacy("2009/file"), "old");
  EXPECT_EQ(handler().checkResourceStatus("2009"), 0);
}

// -------------------------------------------------------------------------------------------------- times

TEST_F(LocationTest, SetTimePropertiesSetsAccessAndModificationTime) {
  place(1, k2009, "second");
  utimbuf times = {1234567, 7654321};
  EXPECT_TRUE(handler().setTimeProperties("2009", &times));
  EXPECT_EQ(accessTime(at(1, k2009)), 1234567);
  EXPECT_EQ(modificationTime(at(1, k2009)), 7654321);
}

TEST_F(LocationTest, SetTimePropertiesIsFalseForAResourceThatIsNowhere) {
  utimbuf times = {1, 2};
  EXPECT_FALSE(handler().setTimeProperties("2009", &times));
}

TEST_F(LocationTest, SetTimePropertiesIsFalseWhenTheTimesCannotBeSet) {
  place(1, k2009, "second");
  utimbuf times = {1, 2};
  const FailingCall utime("utime", EPERM, k2009);
  EXPECT_FALSE(handler().setTimeProperties("2009", &times));
  EXPECT_EQ(utime.failed(), 1) << "and the search has not touched it";
}

TEST_F(LocationTest, SetTimePropertiesReachesAResourceThatStaysInTheLegacyDirectory) {
  useLegacy();
  for (size_t i = 0; i < 3; ++i) setUsed(i, 97);
  writeFile(legacy("2009/file"), "old");
  utimbuf times = {1234567, 7654321};
  EXPECT_TRUE(handler().setTimeProperties("2009", &times));
  EXPECT_EQ(modificationTime(legacy("2009")), 7654321);
}

TEST_F(LocationTest, GetTimePropertiesGivesAccessAndModificationTime) {
  place(1, k2009, "second");
  setTimes(at(1, k2009), 7654321, 1234567);
  utimbuf times = {};
  EXPECT_TRUE(handler().getTimeProperties("2009", &times));
  EXPECT_EQ(times.actime, 7654321);
  EXPECT_EQ(times.modtime, 1234567);
}

TEST_F(LocationTest, GetTimePropertiesLeavesTheRecordOfAResourceThatIsNowhere) {
  utimbuf times = {11, 22};
  EXPECT_FALSE(handler().getTimeProperties("2009", &times));
  EXPECT_EQ(times.actime, 11);
  EXPECT_EQ(times.modtime, 22);
}

TEST_F(LocationTest, GetTimePropertiesIsFalseWhenTheResourceCannotBeExamined) {
  place(1, k2009, "second");
  handler();
  utimbuf times = {11, 22};
  const FailingCall stat("stat", EIO, k2009);
  EXPECT_FALSE(handler().getTimeProperties("2009", &times));
  EXPECT_EQ(times.actime, 11);
}

TEST_F(LocationTest, TheTimesAreReadAndSetWithoutTheLockOfTheResource) {
  place(1, k2009, "second");
  handler();
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  utimbuf times = {1, 2};
  EXPECT_TRUE(handler().setTimeProperties("2009", &times));
  EXPECT_TRUE(handler().getTimeProperties("2009", &times));
  EXPECT_THAT(clock.pauses, IsEmpty());
}

// ------------------------------------------------------------------------------------- create in the legacy

TEST_F(LocationTest, CreateToLegacyGivesNothingWithoutALegacyDirectory) {
  EXPECT_EQ(taken(handler().createToLegacy("2009")), std::nullopt);
}

TEST_F(LocationTest, CreateToLegacyMakesTheDirectory) {
  useLegacy();
  EXPECT_EQ(taken(handler().createToLegacy("2009")), legacy("2009"));
  EXPECT_THAT(treeOf(legacy("")), ElementsAre("2009/"));
}

TEST_F(LocationTest, CreateToLegacyMakesTheDirectoriesAboveToo) {
  useLegacy();
  std::filesystem::remove_all(legacy(""));
  EXPECT_EQ(taken(handler().createToLegacy("a/b")), legacy("a/b"));
  EXPECT_THAT(treeOf(legacy("")), ElementsAre("a/", "a/b/"));
}

TEST_F(LocationTest, CreateToLegacyTakesADirectoryThatIsThere) {
  useLegacy();
  writeFile(legacy("2009/file"), "old");
  EXPECT_EQ(taken(handler().createToLegacy("2009")), legacy("2009"));
  EXPECT_TRUE(isThere(legacy("2009/file")));
}

TEST_F(LocationTest, CreateToLegacyGivesNothingWhenADirectoryAboveCannotBeMade) {
  useLegacy();
  handler();
  const FailingCall mkdir("mkdir", EACCES, legacy("a"));
  EXPECT_EQ(taken(handler().createToLegacy("a/b")), std::nullopt);
  EXPECT_EQ(mkdir.failed(), 1) << "one attempt";
}

TEST_F(LocationTest, CreateToLegacyMakesDirectoriesWithMode0755) {
  useLegacy();
  handler();
  const mode_t mask = umask(0);
  taken(handler().createToLegacy("2009"));
  umask(mask);
  struct stat found;
  ASSERT_EQ(stat(legacy("2009").c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777, 0755U);
}

TEST_F(LocationTest, CreateToLegacyTakesNoLock) {
  useLegacy();
  handler();
  const CallWatch watch;
  taken(handler().createToLegacy("2009"));
  EXPECT_THAT(watch.locks, IsEmpty());
}

// --------------------------------------------------------------------------------------------------- list

class ListResourcesTest : public LocationTest {
 protected:
  std::vector<std::string> list(int typeFilter, bool sort) {
    long count = kUntouched;
    char** names = handler().listResources(typeFilter, &count, sort);
    return taken(names, count);
  }
};

TEST_F(ListResourcesTest, ListsMountAfterMountAndThenTheLegacyDirectory) {
  useLegacy();
  place(0, k2009, "first");
  place(1, k12345, "second");
  place(2, kAbc, "third");
  writeFile(legacy("11"), "");
  EXPECT_THAT(list(kAllResources, false), ElementsAre("2009", "12345", "abc", "11"));
}

TEST_F(ListResourcesTest, SortsByBytes) {
  useLegacy();
  place(0, kAbc, "first");
  place(2, k2009, "third");
  for (const char* name : {"Zz", "a", "\xc3\xa4", "_"}) writeFile(legacy(name), "");
  EXPECT_THAT(list(kAllResources, true), ElementsAre("2009", "Zz", "_", "a", "abc", "\xc3\xa4"));
}

TEST_F(ListResourcesTest, FiltersByType) {
  useLegacy();
  place(0, k2009, "first");
  writeFile(at(1, kAbc), "");
  writeFile(legacy("directory/file"), "");
  writeFile(legacy("file"), "");
  EXPECT_THAT(list(0, true), ElementsAre("2009", "abc", "directory", "file"));
  EXPECT_THAT(list(1, true), ElementsAre("2009", "directory"));
  EXPECT_THAT(list(2, true), ElementsAre("abc", "file"));
}

TEST_F(ListResourcesTest, NamesAResourceOnceForEachMountThatHasIt) {
  place(0, k2009, "first");
  place(1, kAbc, "second");
  place(2, k2009, "third");
  EXPECT_THAT(list(kAllResources, true), ElementsAre("2009", "2009", "abc"));
}

TEST_F(ListResourcesTest, LeavesOutAMountThatIsAway) {
  place(0, k2009, "first");
  place(1, kAbc, "second");
  repository.takeOut(0);
  EXPECT_THAT(list(kAllResources, false), ElementsAre("abc"));
}

TEST_F(ListResourcesTest, GivesAnArrayOfNothingForAnEmptyRepository) {
  long count = kUntouched;
  char** names = handler().listResources(kAllResources, &count, true);
  EXPECT_NE(names, nullptr);
  EXPECT_EQ(count, 0);
  delete[] names;
}

TEST_F(ListResourcesTest, GivesAnArrayOfNothingForARepositoryWhoseDirectoryIsMissing) {
  built = std::make_unique<KTRepositoryHandler>((repository.scratch() + "/nowhere").c_str());
  long count = kUntouched;
  char** names = handler().listResources(kAllResources, &count, true);
  EXPECT_NE(names, nullptr);
  EXPECT_EQ(count, 0);
  delete[] names;
}

TEST_F(ListResourcesTest, ANullCountFailsTheAssertionCount) {
  EXPECT_EQ(failedExpression([&] { handler().listResources(kAllResources, nullptr, true); }), "count");
}

TEST_F(ListResourcesTest, TakesNoLock) {
  place(0, k2009, "first");
  handler();
  const CallWatch watch;
  list(kAllResources, true);
  EXPECT_THAT(watch.locks, IsEmpty());
}

// ---------------------------------------------------------------------------------------------- bad input

TEST_F(LocationTest, ANullResourceFailsTheAssertionResource) {
  KTRepositoryHandler& r = handler();
  utimbuf times = {1, 2};
  const std::function<void()> calls[] = {
      [&] { taken(r.getLocation(nullptr, &status, true, true)); },
      [&] { taken(r.getLocation(nullptr, &status, false, true)); },
      [&] { taken(r.createLocation(nullptr, &status, false)); },
      [&] { taken(r.createDirectory(nullptr, &status, false)); },
      [&] { r.removeResource(nullptr); },
      [&] { r.checkResourceStatus(nullptr); },
      [&] { r.setTimeProperties(nullptr, &times); },
      [&] { r.getTimeProperties(nullptr, &times); },
      [&] { taken(r.createToLegacy(nullptr)); },
  };
  const CallWatch watch;
  for (const auto& call : calls) EXPECT_EQ(failedExpression(call), "resource");
  EXPECT_EQ(status, kUntouched);
  EXPECT_THAT(watch.locks, IsEmpty());
}

TEST_F(LocationTest, NullTimesToFillFailTheAssertionTimes) {
  place(0, k2009, "first");
  EXPECT_EQ(failedExpression([&] { handler().getTimeProperties("2009", nullptr); }), "times");
}

// What each operation answers for an id; all of them, one after the other.
std::vector<Text> answersTo(KTRepositoryHandler& r, const char* id) {
  int status = kUntouched;
  std::vector<Text> answers;
  answers.push_back(taken(r.getLocation(id, &status, true, false)));
  answers.push_back(std::to_string(status));
  answers.push_back(taken(r.createLocation(id, &status, false)));
  answers.push_back(taken(r.createDirectory(id, &status, false)));
  answers.push_back(std::to_string(r.removeResource(id)));
  answers.push_back(std::to_string(r.checkResourceStatus(id)));
  utimbuf times;
  answers.push_back(std::to_string(r.getTimeProperties(id, &times)));
  answers.push_back(std::to_string(r.setTimeProperties(id, &times)));
  answers.push_back(taken(r.createToLegacy(id)));
  return answers;
}

TEST_F(LocationTest, AnIdOfSlashesOnlyLosesAndMovesNothing) {
  useLegacy();
  place(0, k2009, "first");
  place(1, kAbc, "second");
  writeFile(legacy("12345/file"), "old");
  const auto before = treeOf(repository.scratch());
  const std::string root = repository.mount(0) + "/";
  for (const std::string id : {"", "/", "///"})
    EXPECT_THAT(answersTo(handler(), id.c_str()),
                ElementsAre(root, "0", root, root, "4", "0", "1", "1", legacy("") + id))
        << id;
  EXPECT_EQ(treeOf(repository.scratch()), before);
}

TEST_F(LocationTest, AnIdOfSlashesOnlyIsNotLookedForInTheLegacyDirectory) {
  useLegacy();
  writeFile(legacy("12345/file"), "old");
  for (const double used : {10.0, 97.0}) {
    for (size_t i = 0; i < 3; ++i) setUsed(i, used);
    for (const char* id : {"", "/"})
      EXPECT_EQ(taken(handler().getLocation(id, &status, true, true)), repository.mount(0) + "/");
  }
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LocationTest, AnIdOfSlashesOnlyThatIsMarkedDirtyLosesAndMovesNothing) {
  useLegacy();
  place(0, k2009, "first");
  place(1, kAbc, "second");
  writeFile(legacy("12345/file"), "old");
  repository.writeDirtySet("\n/\n///\n");
  const auto before = treeOf(repository.scratch());
  for (const char* id : {"", "/", "///"}) answersTo(handler(), id);
  auto after = treeOf(repository.scratch());
  const auto withoutMarks = [](std::vector<std::string> tree) {
    std::erase_if(tree, [](const std::string& entry) { return entry.rfind("rep/.dirty=", 0) == 0; });
    return tree;
  };
  EXPECT_EQ(withoutMarks(after), withoutMarks(before));
  EXPECT_EQ(joins(), 0);
}

TEST_F(LocationTest, AnIdOfSlashesOnlyIsNotCreatedWhereNothingIs) {
  for (size_t i = 0; i < 3; ++i) repository.takeOut(i);
  for (const char* id : {"", "/"}) {
    EXPECT_EQ(taken(handler().createDirectory(id, &status, false)), std::nullopt);
    EXPECT_EQ(status, 8);
  }
}

TEST_F(LocationTest, AResourceWithAnUnusualNameIsOneLikeAnyOther) {
  const std::string names[] = {"a b", "\xc3\xa4\xff", "100%s%n", std::string(200, 'x'), "semaphore_", "lost+found"};
  for (const std::string& name : names) {
    const Text made = taken(handler().createDirectory(name.c_str(), &status, false));
    EXPECT_EQ(made, repository.resourcePath(0, name));
    EXPECT_EQ(taken(handler().getLocation(name.c_str(), &status, true, true)), made);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(handler().removeResource(name.c_str()), 0);
    EXPECT_FALSE(isThere(made.value()));
  }
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
}

// The lock file of such a name cannot be made; so the name is left alone.
TEST_F(LocationTest, AnIdTooLongForAFileNameIsNotLocked) {
  const std::string id(300, 'x');
  EXPECT_EQ(taken(handler().createDirectory(id.c_str(), &status, false)), std::nullopt);
  EXPECT_EQ(status, kUntouched);
  EXPECT_EQ(handler().removeResource(id.c_str()), 16);
  EXPECT_THAT(errors(), ElementsAre(notLocked(id), notLocked(id)));
}

}  // namespace
