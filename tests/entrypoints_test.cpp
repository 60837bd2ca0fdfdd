// The flat entries: each looks its repository up and hands its arguments on.

#include "entrypoints.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "KTException.h"
#include "registry.h"
#include "support/fixture.h"
#include "support/results.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

struct Entry {
  const char* name;
  std::function<void(const char* repository)> call;
};

// All nineteen, with arguments that any repository can take.
std::vector<Entry> allEntries() {
  static utimbuf times;
  static long count;
  static int status;
  times = {kLongAgo, kLongAgo};
  return {
      {"setTimeProperties_", [](const char* r) { setTimeProperties_(r, "2009", &times); }},
      {"getTimeProperties_", [](const char* r) { getTimeProperties_(r, "2009", &times); }},
      {"freeMount_", [](const char* r) { freeMount_(r, "d1"); }},
      {"checkOverload_", [](const char* r) { checkOverload_(r, false); }},
      {"setup_", [](const char* r) { setup_(r); }},
      {"getDeletedDirs_", [](const char* r) { getDeletedDirs_(r); }},
      {"giveBackMounts_", [](const char* r) { giveBackMounts_(r); }},
      {"MountUnmount_", [](const char* r) { MountUnmount_(r, 0, true); }},
      {"rndMount_", [](const char* r) { rndMount_(r); }},
      {"makeEmpty_", [](const char* r) { makeEmpty_(r); }},
      {"createToLegacy_", [](const char* r) { taken(createToLegacy_(r, "2009")); }},
      {"listDirs_", [](const char* r) { taken(listDirs_(r, &count, true), count); }},
      {"listFiles_", [](const char* r) { taken(listFiles_(r, &count, true), count); }},
      {"removeResource_", [](const char* r) { removeResource_(r, "2009"); }},
      {"checkResourceStatus_", [](const char* r) { checkResourceStatus_(r, "2009"); }},
      {"getRepositoryStatus_", [](const char* r) { getRepositoryStatus_(r); }},
      {"getLocation_", [](const char* r) { taken(getLocation_(r, "2009", &status)); }},
      {"createLocation_", [](const char* r) { taken(createLocation_(r, "2009", &status, false)); }},
      {"createDirectory_", [](const char* r) { taken(createDirectory_(r, "2009", &status, false)); }},
  };
}

class EntryPointsTest : public RepositoryFixture {
 protected:
  EntryPointsTest() : RepositoryFixture({"d1", "d2"}) {}

  int status = kUntouched;
};

// ------------------------------------------------------------------------------------------------- times

TEST_F(EntryPointsTest, SetTimePropertiesSetsBothTimes) {
  place(1, k2009);
  utimbuf times = {1234567, 7654321};
  EXPECT_EQ(setTimeProperties_(repository.id(), "2009", &times), 1);
  EXPECT_EQ(accessTime(at(1, k2009)), 1234567);
  EXPECT_EQ(modificationTime(at(1, k2009)), 7654321);
}

TEST_F(EntryPointsTest, SetTimePropertiesAnswersZeroForAResourceThatIsNowhere) {
  utimbuf times = {1, 2};
  EXPECT_EQ(setTimeProperties_(repository.id(), "2009", &times), 0);
}

TEST_F(EntryPointsTest, GetTimePropertiesReadsBothTimes) {
  place(1, k2009);
  setTimes(at(1, k2009), 7654321, 1234567);
  utimbuf times = {};
  EXPECT_EQ(getTimeProperties_(repository.id(), "2009", &times), 1);
  EXPECT_EQ(times.actime, 7654321);
  EXPECT_EQ(times.modtime, 1234567);
}

TEST_F(EntryPointsTest, GetTimePropertiesAnswersZeroAndLeavesTheRecordOfAResourceThatIsNowhere) {
  utimbuf times = {11, 22};
  EXPECT_EQ(getTimeProperties_(repository.id(), "2009", &times), 0);
  EXPECT_EQ(times.actime, 11);
  EXPECT_EQ(times.modtime, 22);
}

// --------------------------------------------------------------------------------------------- balancing

TEST_F(EntryPointsTest, FreeMountMovesEverythingOffTheNamedMount) {
  place(0, k2009);
  EXPECT_EQ(freeMount_(repository.id(), "d1"), 0);
  EXPECT_FALSE(isThere(at(0, k2009)));
  EXPECT_TRUE(isThere(at(1, k2009) + "/file"));
}

TEST_F(EntryPointsTest, FreeMountAnswersOneForAMountThatTheRepositoryHasNot) {
  EXPECT_EQ(freeMount_(repository.id(), "d3"), 1);
}

TEST_F(EntryPointsTest, FreeMountAnswersTwoWhenMountZeroIsTheTarget) {
  place(1, k2009);
  EXPECT_EQ(freeMount_(repository.id(), "d2"), 2);
  EXPECT_TRUE(isThere(at(0, k2009) + "/file"));
}

TEST_F(EntryPointsTest, FreeMountAnswersThreeWhenNotEverythingCouldBeMoved) {
  place(0, k2009);
  FakeShell shell;
  shell.answer = [](const std::string&) { return 256; };
  EXPECT_EQ(freeMount_(repository.id(), "d1"), 3);
}

TEST_F(EntryPointsTest, CheckOverloadSaysWhatItDoesOnlyWhenVerbose) {
  EXPECT_EQ(outputOf([&] { checkOverload_(repository.id(), false); }), "");
  EXPECT_EQ(outputOf([&] { checkOverload_(repository.id(), true); }),
            "checking repository " + repository.path() + "\nchecking mount " + repository.mount(0) +
                "\nmount does not need maintenance (moveLimit=99, used=10.000000)\nchecking mount " +
                repository.mount(1) + "\nmount does not need maintenance (moveLimit=99, used=10.000000)\n");
}

TEST_F(EntryPointsTest, GetDeletedDirsGivesWhatTheLastPassDeleted) {
  const std::string old = place(0, k2009);
  repository.configure("isClearable=true\n");
  disks.setUsed(repository.mount(1), 99);
  disks.answerWith(repository.mount(0), [&](struct statvfs* out) {
    *out = {};
    out->f_blocks = 100;
    out->f_bavail = isThere(old) ? 1 : 90;
    return 0;
  });
  checkOverload_(repository.id(), false);
  EXPECT_THAT(*getDeletedDirs_(repository.id()), ElementsAre(old));
  EXPECT_FALSE(isThere(old));
  disks.setUsed(repository.mount(1), 10);
  checkOverload_(repository.id(), false);
  EXPECT_THAT(*getDeletedDirs_(repository.id()), IsEmpty()) << "each pass begins anew";
}

TEST_F(EntryPointsTest, GetDeletedDirsGivesTheListOfTheHandlerItself) {
  EXPECT_EQ(getDeletedDirs_(repository.id()), &getRepository(repository.id())->deletedDirs);
}

TEST_F(EntryPointsTest, MakeEmptyRemovesEveryResource) {
  useLegacy();
  place(0, k2009);
  writeFile(at(1, kAbc), "");
  writeFile(legacy("old"), "");
  repository.takeOut(1);
  makeEmpty_(repository.id());
  EXPECT_THAT(treeOf(repository.mount(0)), ElementsAre("repositorypart.cfg="));
  EXPECT_THAT(treeOf(repository.mount(1)), ElementsAre("repositorypart.cfg="))
      << "a mount that was away is emptied too";
  EXPECT_THAT(treeOf(legacy("")), IsEmpty());
}

// ------------------------------------------------------------------------------------------ configuration

TEST_F(EntryPointsTest, SetupReadsTheConfigurationAgainThoughItLooksUnchanged) {
  KTRepositoryHandler* handler = getRepository(repository.id());
  const std::string file = repository.path() + "/repository.cfg";
  const time_t before = modificationTime(file);
  writeFile(file, "mountPoints=d1\nwarnLimit=42\n");
  setTimes(file, before);
  ASSERT_EQ(getRepository(repository.id()), handler);
  ASSERT_EQ(handler->warnLimit, 90);
  setup_(repository.id());
  EXPECT_EQ(getRepository(repository.id()), handler);
  EXPECT_EQ(handler->warnLimit, 42);
  EXPECT_EQ(handler->mountPoints.size(), 1U);
}

TEST_F(EntryPointsTest, SetupForgetsSettingsThatHaveGone) {
  repository.configure("warnLimit=42\nisClearable=true\n");
  KTRepositoryHandler* handler = getRepository(repository.id());
  handler->remindLimit = 7;
  setup_(repository.id());
  EXPECT_EQ(handler->remindLimit, 80);
  EXPECT_EQ(handler->warnLimit, 42);
}

// ------------------------------------------------------------------------------------- mounts and status

TEST_F(EntryPointsTest, MountUnmountTakesAMountOutOfServiceAndPutsItBack) {
  EXPECT_EQ(MountUnmount_(repository.id(), 1, false), 0);
  EXPECT_TRUE(isThere(repository.mount(1) + "/repositorypart.no"));
  EXPECT_FALSE(isThere(repository.mount(1) + "/repositorypart.cfg"));
  EXPECT_TRUE(isThere(repository.mount(0) + "/repositorypart.cfg"));
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x80);
  EXPECT_EQ(MountUnmount_(repository.id(), 1, true), 0);
  EXPECT_TRUE(isThere(repository.mount(1) + "/repositorypart.cfg"));
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0);
}

TEST_F(EntryPointsTest, MountUnmountAnswersMinusOneForANumberThatNoMountHas) {
  for (const int number : {-1, 2, 2147483647, -2147483647 - 1})
    for (const bool doMount : {false, true}) EXPECT_EQ(MountUnmount_(repository.id(), number, doMount), -1) << number;
}

TEST_F(EntryPointsTest, GiveBackMountsPutsAllMountsBack) {
  repository.takeOut(0);
  repository.takeOut(1);
  EXPECT_EQ(giveBackMounts_(repository.id()), 0);
  EXPECT_TRUE(isThere(repository.mount(0) + "/repositorypart.cfg"));
  EXPECT_TRUE(isThere(repository.mount(1) + "/repositorypart.cfg"));
}

TEST_F(EntryPointsTest, RndMountSwitchesTheMountThatIsDrawn) {
  getRepository(repository.id());
  FakeClock clock;
  clock.randoms = {1, 3};
  rndMount_(repository.id());
  EXPECT_TRUE(isThere(repository.mount(1) + "/repositorypart.no"));
  rndMount_(repository.id());
  EXPECT_TRUE(isThere(repository.mount(1) + "/repositorypart.cfg"));
  EXPECT_EQ(clock.randomCalls, 2);
}

TEST_F(EntryPointsTest, OnlyGetRepositoryStatusHidesTheSwitchBit) {
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 95);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x0f);
  EXPECT_EQ(giveBackMounts_(repository.id()), 0x1f);
  EXPECT_EQ(getRepository(repository.id())->status, 0x1f);
}

TEST_F(EntryPointsTest, GetRepositoryStatusGivesEveryOtherBit) {
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 99.5);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x6f);
  EXPECT_EQ(giveBackMounts_(repository.id()), 0x7f);
  repository.takeOut(0);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0xef);
  repository.takeOut(1);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x100);
}

TEST_F(EntryPointsTest, GetRepositoryStatusAsksTheDisksAtEveryCall) {
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0);
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 80);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x01);
}

// ---------------------------------------------------------------------------------------------- resources

TEST_F(EntryPointsTest, CreateToLegacyMakesTheDirectoryThere) {
  EXPECT_EQ(taken(createToLegacy_(repository.id(), "2009")), std::nullopt) << "without a legacy directory";
  useLegacy();
  EXPECT_EQ(taken(createToLegacy_(repository.id(), "2009")), legacy("2009"));
  EXPECT_TRUE(isDirectoryThere(legacy("2009")));
}

TEST_F(EntryPointsTest, ListDirsListsDirectoriesOnlyAndListFilesTheRest) {
  place(0, kAbc);
  place(1, k2009);
  writeFile(at(0, k12345), "");
  long count = kUntouched;
  char** names = listDirs_(repository.id(), &count, false);
  EXPECT_EQ(count, 2);
  EXPECT_THAT(taken(names, count), ElementsAre("abc", "2009"));
  names = listFiles_(repository.id(), &count, false);
  EXPECT_EQ(count, 1);
  EXPECT_THAT(taken(names, count), ElementsAre("12345"));
}

TEST_F(EntryPointsTest, ListsAreSortedWhenAsked) {
  place(0, kAbc);
  place(1, k2009);
  writeFile(repository.resourcePath(0, "z"), "");
  writeFile(repository.resourcePath(1, "y"), "");
  long count = 0;
  char** names = listDirs_(repository.id(), &count, true);
  EXPECT_THAT(taken(names, count), ElementsAre("2009", "abc"));
  names = listFiles_(repository.id(), &count, true);
  EXPECT_THAT(taken(names, count), ElementsAre("y", "z"));
  names = listFiles_(repository.id(), &count, false);
  EXPECT_THAT(taken(names, count), ElementsAre("z", "y"));
}

TEST_F(EntryPointsTest, AListOfNothingIsAnArrayAllTheSame) {
  for (const auto list : {listDirs_, listFiles_}) {
    long count = kUntouched;
    char** names = list(repository.id(), &count, true);
    EXPECT_NE(names, nullptr);
    EXPECT_EQ(count, 0);
    delete[] names;
  }
}

TEST_F(EntryPointsTest, RemoveResourceGivesTheResultCode) {
  place(0, k2009);
  EXPECT_EQ(removeResource_(repository.id(), "2009"), 0);
  EXPECT_FALSE(isThere(at(0, k2009)));
  EXPECT_EQ(removeResource_(repository.id(), "2009"), 4);
}

TEST_F(EntryPointsTest, RemoveResourceGivesSixteenWhenTheResourceIsNotLocked) {
  place(0, k2009);
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  EXPECT_EQ(removeResource_(repository.id(), "2009"), 16);
  EXPECT_TRUE(isThere(at(0, k2009)));
}

TEST_F(EntryPointsTest, CheckResourceStatusGivesTheStatusWithoutTouching) {
  place(0, k2009);
  EXPECT_EQ(checkResourceStatus_(repository.id(), "2009"), 0);
  EXPECT_EQ(modificationTime(at(0, k2009)), kLongAgo);
  EXPECT_EQ(checkResourceStatus_(repository.id(), "abc"), 4);
}

TEST_F(EntryPointsTest, CheckResourceStatusGivesSixteenWhenTheResourceIsNotLocked) {
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  EXPECT_EQ(checkResourceStatus_(repository.id(), "2009"), 16);
}

TEST_F(EntryPointsTest, GetLocationLocksAndTouches) {
  place(0, k2009);
  const time_t before = time(nullptr);
  const CallWatch watch;
  EXPECT_EQ(taken(getLocation_(repository.id(), "2009", &status)), at(0, k2009));
  EXPECT_EQ(status, 0);
  EXPECT_GE(accessTime(at(0, k2009)), before - 1);
  EXPECT_GE(modificationTime(at(0, k2009)), before - 1);
  EXPECT_THAT(watch.locks, Contains("+" + repository.lockName("2009")));
}

TEST_F(EntryPointsTest, GetLocationGivesNullAndStillTheStatusOfAResourceThatIsNowhere) {
  EXPECT_EQ(taken(getLocation_(repository.id(), "2009", &status)), std::nullopt);
  EXPECT_EQ(status, 4);
}

TEST_F(EntryPointsTest, GetLocationLeavesTheStatusWhenTheResourceIsNotLocked) {
  place(0, k2009);
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  EXPECT_EQ(taken(getLocation_(repository.id(), "2009", &status)), std::nullopt);
  EXPECT_EQ(status, kUntouched);
}

TEST_F(EntryPointsTest, TheThreeLocationsNeedNoStatus) {
  EXPECT_EQ(taken(getLocation_(repository.id(), "2009", nullptr)), std::nullopt);
  EXPECT_EQ(taken(createLocation_(repository.id(), "2009", nullptr, false)), at(0, k2009));
  EXPECT_EQ(taken(createDirectory_(repository.id(), "2009", nullptr, false)), at(0, k2009));
}

TEST_F(EntryPointsTest, CreateLocationMakesThePlaceOnly) {
  EXPECT_EQ(taken(createLocation_(repository.id(), "abc", &status, false)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, "/1W/H6/HW")));
  EXPECT_FALSE(isThere(at(0, kAbc)));
}

TEST_F(EntryPointsTest, CreateDirectoryMakesTheResourceToo) {
  EXPECT_EQ(taken(createDirectory_(repository.id(), "abc", &status, false)), at(0, kAbc));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDirectoryThere(at(0, kAbc)));
}

TEST_F(EntryPointsTest, TheFlagAgainstTheDirtyMarkIsHandedOn) {
  for (const auto create : {createLocation_, createDirectory_}) {
    std::filesystem::remove(repository.path() + "/.dirty");
    std::filesystem::remove_all(repository.mount(1) + "/1W");
    if (isThere(repository.mount(0) + "/repositorypart.cfg")) repository.takeOut(0);
    EXPECT_EQ(taken(create(repository.id(), "abc", &status, true)), at(1, kAbc));
    EXPECT_FALSE(isThere(repository.path() + "/.dirty"));
    std::filesystem::remove_all(repository.mount(1) + "/1W");
    EXPECT_EQ(taken(create(repository.id(), "abc", &status, false)), at(1, kAbc));
    EXPECT_EQ(repository.dirtySet(), "abc\n");
  }
}

// ------------------------------------------------------------------------------------------- the look-up

TEST_F(EntryPointsTest, ThereAreNineteen) { EXPECT_EQ(allEntries().size(), 19U); }

TEST_F(EntryPointsTest, EveryEntryUsesTheHandlerOfTheRegistry) {
  KTRepositoryHandler* handler = getRepository(repository.id());
  const size_t known = repositoryMap.size();
  for (const Entry& entry : allEntries()) {
    if (std::string(entry.name) == "rndMount_") continue;  // makes the handler stale
    entry.call(repository.id());
    ASSERT_EQ(repositoryMap.size(), known) << entry.name;
    ASSERT_EQ(repositoryMap[repository.id()], handler) << entry.name;
  }
}

TEST_F(EntryPointsTest, EveryEntryRebuildsAHandlerWhoseConfigurationChanged) {
  for (const Entry& entry : allEntries()) {
    getRepository(repository.id());
    repository.configure("warnLimit=42\n");
    KTRepositoryHandler* stale = repositoryMap[repository.id()];
    stale->deletedDirs.emplace_back("stale");
    entry.call(repository.id());
    KTRepositoryHandler* fresh = repositoryMap[repository.id()];
    EXPECT_THAT(fresh->deletedDirs, IsEmpty()) << entry.name;
    EXPECT_EQ(fresh->warnLimit, 42) << entry.name;
    giveBackMounts_(repository.id());
  }
}

TEST_F(EntryPointsTest, EveryEntryFailsTheAssertionIdForANullRepository) {
  const size_t known = repositoryMap.size();
  for (const Entry& entry : allEntries()) EXPECT_EQ(failedExpression([&] { entry.call(nullptr); }), "id") << entry.name;
  EXPECT_EQ(repositoryMap.size(), known);
}

TEST_F(EntryPointsTest, EveryEntryForAResourceFailsTheAssertionResourceForANull) {
  utimbuf times = {1, 2};
  const char* id = repository.id();
  const std::function<void()> calls[] = {
      [&] { setTimeProperties_(id, nullptr, &times); },
      [&] { getTimeProperties_(id, nullptr, &times); },
      [&] { taken(createToLegacy_(id, nullptr)); },
      [&] { removeResource_(id, nullptr); },
      [&] { checkResourceStatus_(id, nullptr); },
      [&] { taken(getLocation_(id, nullptr, &status)); },
      [&] { taken(createLocation_(id, nullptr, &status, false)); },
      [&] { taken(createDirectory_(id, nullptr, &status, false)); },
  };
  for (const auto& call : calls) EXPECT_EQ(failedExpression(call), "resource");
  EXPECT_EQ(status, kUntouched);
}

TEST_F(EntryPointsTest, OtherNullsFailAnAssertionToo) {
  place(0, k2009);
  const char* id = repository.id();
  EXPECT_EQ(failedExpression([&] { getTimeProperties_(id, "2009", nullptr); }), "times");
  EXPECT_EQ(failedExpression([&] { freeMount_(id, nullptr); }), "mountName");
  EXPECT_EQ(failedExpression([&] { listDirs_(id, nullptr, true); }), "count");
  EXPECT_EQ(failedExpression([&] { listFiles_(id, nullptr, true); }), "count");
}

TEST_F(EntryPointsTest, EveryEntryPassesTheAssertionOfAListedMountThatDoesNotExistOn) {
  getRepository(repository.id());
  repository.configure("mountPoints=d1\\nowhere\n");
  for (const Entry& entry : allEntries()) {
    const auto assertion = assertionOf([&] { entry.call(repository.id()); });
    EXPECT_EQ(assertion.m_expression, "access( mountPath.c_str(), F_OK & X_OK ) == 0") << entry.name;
    EXPECT_EQ(assertion.m_line, 1250) << entry.name;
    EXPECT_EQ(assertion.m_file, "repositoryhandler/src/libs/KTRepositoryHandler") << entry.name;
    EXPECT_EQ(repositoryMap.count(repository.id()), 0U) << entry.name;
  }
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

// It is there but gives no settings; the root, without a configuration of its own, is then a mount that is away.
TEST_F(EntryPointsTest, AnUnreadableConfigurationLeavesARepositoryThatIsMissing) {
  place(0, k2009);
  const FailingCall fopen("fopen", EACCES, "/repository.cfg");
  for (const Entry& entry : allEntries()) EXPECT_NO_THROW(entry.call(repository.id())) << entry.name;
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x100);
  EXPECT_EQ(taken(createDirectory_(repository.id(), "abc", &status, false)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_THAT(log.texts(LOG_ERR), Contains("The repository \"" + repository.path() + "\" is missing"));
  EXPECT_TRUE(isThere(at(0, k2009) + "/file"));
}

TEST_F(EntryPointsTest, EveryEntryPassesTheFailureOfAnUnreadableDirtySetOn) {
  repository.writeDirtySet("2009\n");
  const FailingCall fopen("fopen", EACCES, "/.dirty");
  for (const Entry& entry : allEntries())
    EXPECT_EQ(assertionOf([&] { entry.call(repository.id()); }).m_line, 1705) << entry.name;
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST_F(EntryPointsTest, TheExceptionOfAnOperationPasses) {
  EXPECT_EQ(assertionOf([&] { taken(createLocation_(repository.id(), "a/b", &status, false)); }).m_line, 1429);
  EXPECT_EQ(assertionOf([&] { taken(createDirectory_(repository.id(), "a/b", &status, false)); }).m_line, 1429);
  const FailingCall unlink("unlink", EACCES, repository.lockName("2009"));
  EXPECT_THROW(taken(getLocation_(repository.id(), "2009", &status)), KTIOException);
}

TEST_F(EntryPointsTest, NothingIsLoggedAboutAnExceptionThatPasses) {
  EXPECT_THROW(taken(createLocation_(repository.id(), "a/b", &status, false)), KTAssertionException);
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(EntryPointsTest, AMissingRepositoryIsNoException) {
  const std::string nowhere = repository.scratch() + "/nowhere";
  const char* id = nowhere.c_str();
  for (const Entry& entry : allEntries()) {
    if (std::string(entry.name) == "makeEmpty_") continue;  // see below
    EXPECT_NO_THROW(entry.call(id)) << entry.name;
  }
  EXPECT_FALSE(isThere(nowhere));
  EXPECT_EQ(getRepositoryStatus_(id), 0x100);
  EXPECT_EQ(giveBackMounts_(id), 0x100);
  EXPECT_EQ(MountUnmount_(id, 0, true), -1);
  EXPECT_EQ(taken(getLocation_(id, "2009", &status)), std::nullopt);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(taken(createDirectory_(id, "2009", &status, false)), std::nullopt);
  EXPECT_EQ(status, 8);
  EXPECT_EQ(removeResource_(id, "2009"), 4);
  EXPECT_EQ(checkResourceStatus_(id, "2009"), 4);
  utimbuf times = {11, 22};
  EXPECT_EQ(setTimeProperties_(id, "2009", &times), 0);
  EXPECT_EQ(getTimeProperties_(id, "2009", &times), 0);
  EXPECT_EQ(times.actime, 11);
  EXPECT_EQ(freeMount_(id, "d1"), 1);
  long count = kUntouched;
  EXPECT_THAT(taken(listDirs_(id, &count, true), count), IsEmpty());
}

TEST_F(EntryPointsTest, MakeEmptyOfAMissingRepositoryHasNoDirtySetToWrite) {
  const auto assertion = assertionOf([&] { makeEmpty_((repository.scratch() + "/nowhere").c_str()); });
  EXPECT_EQ(assertion.m_expression, "f");
  EXPECT_EQ(assertion.m_line, 1781);
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST_F(EntryPointsTest, ARepositoryWithoutConfigurationIsOneMountAtItsRoot) {
  std::filesystem::remove(repository.path() + "/repository.cfg");
  writeFile(repository.path() + "/repositorypart.cfg", "");
  disks.setUsed(repository.path(), 10);
  EXPECT_EQ(taken(createDirectory_(repository.id(), "2009", &status, false)), repository.path() + k2009);
  EXPECT_EQ(status, 0);
}

TEST_F(EntryPointsTest, ARepositoryWithAndWithoutATrailingSlashAreTwo) {
  const std::string slashed = repository.path() + "/";
  for (size_t i = 0; i < 2; ++i) disks.setUsed(slashed + "/d" + std::to_string(i + 1), 10);
  place(0, k2009);
  EXPECT_EQ(taken(getLocation_(repository.id(), "2009", &status)), at(0, k2009));
  EXPECT_EQ(taken(getLocation_(slashed.c_str(), "2009", &status)), slashed + "/d1" + k2009);
}

TEST_F(EntryPointsTest, AnIdOfSlashesOnlyLosesNothingThroughAnyEntry) {
  useLegacy();
  place(0, k2009);
  place(1, kAbc);
  writeFile(legacy("old"), "");
  const auto before = treeOf(repository.scratch());
  const char* id = repository.id();
  for (const char* resource : {"", "/", "//"}) {
    EXPECT_EQ(taken(getLocation_(id, resource, &status)), repository.mount(0) + "/");
    taken(createLocation_(id, resource, &status, false));
    taken(createDirectory_(id, resource, &status, false));
    EXPECT_EQ(removeResource_(id, resource), 4);
    checkResourceStatus_(id, resource);
    utimbuf times = {1, 2};
    getTimeProperties_(id, resource, &times);
    setTimeProperties_(id, resource, &times);
    taken(createToLegacy_(id, resource));
    EXPECT_EQ(freeMount_(id, resource), 1);
  }
  EXPECT_EQ(treeOf(repository.scratch()), before);
}

}  // namespace
