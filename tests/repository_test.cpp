#include <gmock/gmock.h>
#include <malloc.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "KTException.h"
#include "KTRepositoryHandler.h"
#include "fakes/fakes.h"
#include "support/repository.h"
#include "support/results.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr int kMissing = 0x100;
constexpr int kIncomplete = 0x80;

struct Limit {
  const char* key;
  int KTRepositoryHandler::*field;
  int percent;  // of a new repository
};

constexpr Limit kLimits[] = {
    {"remindLimit", &KTRepositoryHandler::remindLimit, 80}, {"warnLimit", &KTRepositoryHandler::warnLimit, 90},
    {"warn2Limit", &KTRepositoryHandler::warn2Limit, 92},   {"warn3Limit", &KTRepositoryHandler::warn3Limit, 94},
    {"switchLimit", &KTRepositoryHandler::switchLimit, 95}, {"fullLimit", &KTRepositoryHandler::fullLimit, 97},
    {"cleanLimit", &KTRepositoryHandler::cleanLimit, 98},   {"moveLimit", &KTRepositoryHandler::moveLimit, 99},
};

void expectDefaults(const KTRepositoryHandler& repository) {
  for (const Limit& limit : kLimits) EXPECT_EQ(repository.*limit.field, limit.percent) << limit.key;
  EXPECT_EQ(repository.nomoveTime, 86400);
  EXPECT_FALSE(repository.isClearable);
  EXPECT_EQ(repository.legacyDir, "");
}

std::vector<std::string> mountPaths(const KTRepositoryHandler& repository) {
  std::vector<std::string> paths;
  for (const KTMountPointHandler* mount : repository.mountPoints) paths.push_back(mount->mountPath);
  return paths;
}

// Every disk is empty, whatever its path.
class RepositoryTest : public testing::Test {
 protected:
  RepositoryTest() { announce({"", "/d1", "/d2"}); }

  void announce(const std::vector<std::string>& names) {
    for (const std::string& name : names) disks.setUsed(files.path() + name, 0);
  }
  std::string configFile() const { return files.path() + "/repository.cfg"; }
  // Instead of the file with the list of both mounts.
  void writeConfig(const std::string& text) const { writeFile(configFile(), text); }
  std::string mountNamed(const std::string& name) {
    writeFile(files.path() + "/" + name + "/repositorypart.cfg", "");
    announce({"/" + name});
    return files.path() + "/" + name;
  }

  TestRepository files{{"d1", "d2"}};
  FakeDisks disks;
  FakeSyslog log;
};

}  // namespace

TEST_F(RepositoryTest, StartsFromTheDefaults) {
  const KTRepositoryHandler repository(files.id());
  expectDefaults(repository);
  EXPECT_EQ(repository.status, 0);
  EXPECT_EQ(repository.configTime, modificationTime(configFile()));
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.mount(0), files.mount(1)));
  EXPECT_THAT(repository.deletedDirs, IsEmpty());
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(RepositoryTest, EachLimitHasItsKey) {
  for (const Limit& named : kLimits) {
    files.configure(std::string(named.key) + "=42\n");
    const KTRepositoryHandler repository(files.id());
    for (const Limit& limit : kLimits)
      EXPECT_EQ(repository.*limit.field, limit.key == named.key ? 42 : limit.percent)
          << named.key << " and " << limit.key;
  }
}

TEST_F(RepositoryTest, ALimitThatIsNoNaturalNumberLeavesTheDefault) {
  for (const char* value : {"", "80%", "-5", "+5", "5 5", "0x5", "five", "4294967295", "5.0"}) {
    std::string settings;
    for (const Limit& limit : kLimits) settings += std::string(limit.key) + "=" + value + "\n";
    files.configure(settings + "nomoveTimeSeconds=" + value + "\nnomoveTime=" + value + "\n");
    SCOPED_TRACE(value);
    expectDefaults(KTRepositoryHandler(files.id()));
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(RepositoryTest, LimitsAreNotChecked) {
  const struct {
    const char* value;
    int want;
  } rows[] = {{"0", 0},           {"007", 7},           {"100", 100},
              {"101", 101},       {"1000000", 1000000}, {"2147483647", 2147483647},
              {"4294967290", -6}, {"4294967296", 0},    {"\"42\"", 42}};
  for (const auto& row : rows)
    for (const Limit& limit : kLimits) {
      files.configure(std::string(limit.key) + "=" + row.value + "\n");
      EXPECT_EQ(KTRepositoryHandler(files.id()).*limit.field, row.want) << limit.key << "=" << row.value;
    }
}

TEST_F(RepositoryTest, KeysAreCaseSensitive) {
  files.configure("RemindLimit=1\nREMINDLIMIT=2\nremindlimit=3\nisclearable=true\nLegacyDir=/old\nmountpoints=d1\n");
  expectDefaults(KTRepositoryHandler(files.id()));
}

TEST_F(RepositoryTest, TheLastOfARepeatedKeyStands) {
  files.configure("remindLimit=1\nremindLimit=2\n");
  EXPECT_EQ(KTRepositoryHandler(files.id()).remindLimit, 2);
}

TEST_F(RepositoryTest, ARepeatedKeyWhoseLastValueIsMalformedIsPassedOver) {
  files.configure("remindLimit=1\nremindLimit=x\n");
  EXPECT_EQ(KTRepositoryHandler(files.id()).remindLimit, 80);
}

// A line is read in pieces of 1023 bytes, and a piece without "=" is none.
TEST_F(RepositoryTest, AnOverlongLineIsCut) {
  files.configure("remindLimit=" + std::string(2000, '0') + "7\nwarnLimit=5\n");
  const KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.remindLimit, 0);
  EXPECT_EQ(repository.warnLimit, 5);
}

TEST_F(RepositoryTest, IsClearableOnlyWhenItSaysTrue) {
  const struct {
    const char* setting;
    bool want;
  } rows[] = {{"isClearable=true\n", true},    {"isClearable = \"true\" \n", true}, {"isClearable=TRUE\n", false},
              {"isClearable=True\n", false},   {"isClearable=1\n", false},          {"isClearable=yes\n", false},
              {"isClearable=truely\n", false}, {"isClearable=tru\n", false},        {"isClearable=\n", false},
              {"isClearable=true #\n", false}, {"isClearable=false\n", false},      {"", false}};
  for (const auto& row : rows) {
    files.configure(row.setting);
    EXPECT_EQ(KTRepositoryHandler(files.id()).isClearable, row.want) << row.setting;
  }
}

TEST_F(RepositoryTest, AnotherValueTakesClearableBack) {
  files.configure("isClearable=true\n");
  KTRepositoryHandler repository(files.id());
  files.configure("");
  repository.parseConfigFile();
  EXPECT_TRUE(repository.isClearable) << "an absent key says nothing";
  files.configure("isClearable=on\n");
  repository.parseConfigFile();
  EXPECT_FALSE(repository.isClearable);
}

TEST_F(RepositoryTest, TheTimeWithoutMovesIsGivenInSecondsOrDays) {
  const struct {
    const char* settings;
    int want;
  } rows[] = {
      {"nomoveTimeSeconds=60\n", 60},
      {"nomoveTimeSeconds=0\n", 0},
      {"nomoveTime=1\n", 86400},
      {"nomoveTime=2\n", 172800},
      {"nomoveTime=0\n", 0},
      {"nomoveTimeSeconds=60\nnomoveTime=2\n", 172800},
      {"nomoveTime=2\nnomoveTimeSeconds=60\n", 172800},  // days win in either order
      {"nomoveTimeSeconds=60\nnomoveTime=0\n", 0},
      {"nomoveTimeSeconds=60\nnomoveTime=two\n", 60},
      {"nomoveTimeSeconds=60\nnomoveTime=\n", 60},
      {"nomoveTimeSeconds=-60\nnomoveTime=3\n", 259200},
      {"nomoveTimeSeconds=2147483647\n", 2147483647},
      {"nomoveTimeSeconds=4294967290\n", -6},
      {"nomoveTime=24855\n", 2147472000},
      {"nomoveTime=24856\n", -2147408896},  // 2147558400 seconds wrap around
      {"nomoveTime=49711\n", 63104},        // 4295030400 - 2^32
      {"nomoveTime=2147483648\n", 0},       // an even number of 2^31
  };
  for (const auto& row : rows) {
    files.configure(row.settings);
    EXPECT_EQ(KTRepositoryHandler(files.id()).nomoveTime, row.want) << row.settings;
  }
}

TEST_F(RepositoryTest, TheLegacyDirectoryIsTakenAsItStands) {
  const struct {
    const char* settings;
    const char* want;
  } rows[] = {{"legacyDir=/srv/old\n", "/srv/old"},     {"legacyDir=old files/\n", "old files/"},
              {"legacyDir=\"/srv/a b\"\n", "/srv/a b"}, {"legacyDir=\n", ""},
              {"legacyDir=/a\\b\n", "/a\\b"},           {"legacyDir=/a=b\n", "/a=b"}};
  for (const auto& row : rows) {
    files.configure(row.settings);
    EXPECT_EQ(KTRepositoryHandler(files.id()).legacyDir, row.want) << row.settings;
  }
}

TEST_F(RepositoryTest, AnEmptyLegacyDirectoryReplacesAnEarlierOne) {
  files.configure("legacyDir=/srv/old\n");
  KTRepositoryHandler repository(files.id());
  files.configure("");
  repository.parseConfigFile();
  EXPECT_EQ(repository.legacyDir, "/srv/old") << "an absent key says nothing";
  files.configure("legacyDir=\n");
  repository.parseConfigFile();
  EXPECT_EQ(repository.legacyDir, "");
}

TEST_F(RepositoryTest, AnotherParseKeepsWhatTheFileNoLongerNames) {
  std::string settings = "nomoveTimeSeconds=60\n";
  for (const Limit& limit : kLimits) settings += std::string(limit.key) + "=42\n";
  files.configure(settings);
  KTRepositoryHandler repository(files.id());
  files.configure("warnLimit=43\n");
  EXPECT_EQ(repository.parseConfigFile(), 0);
  for (const Limit& limit : kLimits)
    EXPECT_EQ(repository.*limit.field, limit.key == std::string("warnLimit") ? 43 : 42) << limit.key;
  EXPECT_EQ(repository.nomoveTime, 60);
  EXPECT_EQ(repository.configTime, modificationTime(configFile()));
}

TEST_F(RepositoryTest, AnotherSetupForgetsEarlierValues) {
  std::string settings = "nomoveTimeSeconds=60\nisClearable=true\nlegacyDir=/srv/old\n";
  for (const Limit& limit : kLimits) settings += std::string(limit.key) + "=42\n";
  files.configure(settings);
  KTRepositoryHandler repository(files.id());
  files.configure("");
  repository.setup(files.id());
  expectDefaults(repository);
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.mount(0), files.mount(1)));
}

TEST_F(RepositoryTest, SetupTakesItsOwnIdentifier) {
  KTRepositoryHandler repository(files.id());
  repository.setup(repository.getID());
  EXPECT_STREQ(repository.getID(), files.id());
  EXPECT_EQ(repository.mountPoints.size(), 2U);
}

TEST_F(RepositoryTest, NewMountsTakeTheNewLimits) {
  KTRepositoryHandler repository(files.id());
  files.configure("switchLimit=10\nfullLimit=20\ncleanLimit=30\nmoveLimit=40\nnomoveTimeSeconds=50\n");
  repository.parseConfigFile();
  ASSERT_EQ(repository.mountPoints.size(), 2U);
  for (const KTMountPointHandler* mount : repository.mountPoints) {
    EXPECT_EQ(mount->switchLimit, 10);
    EXPECT_EQ(mount->fullLimit, 20);
    EXPECT_EQ(mount->cleanLimit, 30);
    EXPECT_EQ(mount->moveLimit, 40);
    EXPECT_EQ(mount->nomoveTime, 50);
  }
}

TEST_F(RepositoryTest, ALimitReadLastReachesTheMountsAllTheSame) {
  writeConfig("mountPoints=d1\nswitchLimit=10\n");
  EXPECT_EQ(KTRepositoryHandler(files.id()).mountPoints.at(0)->switchLimit, 10);
}

TEST_F(RepositoryTest, TheMountListIsSplitAtBackslashes) {
  const struct {
    const char* list;
    std::vector<std::string> want;
  } rows[] = {
      {"d1", {"d1"}},
      {"d1\\d2", {"d1", "d2"}},
      {"d2\\d1", {"d2", "d1"}},
      {"d1\\\\d2\\", {"d1", "d2"}},
      {"\\d1", {"d1"}},
      {"d1\\", {"d1"}},
      {"\\\\d1\\\\\\d2\\\\", {"d1", "d2"}},
      {"d1\\d1", {"d1", "d1"}},
      {"d1/sub", {"d1/sub"}},
      {"d1,d2", {"d1,d2"}},
      {"d1 \\ d2", {"d1 ", " d2"}},  // spaces are part of a name
      {"  d1\\d2  ", {"d1", "d2"}},  // but for those around the value
      {"\"d1\\d2\"", {"d1", "d2"}},
      {"\\", {}},
      {"\\\\\\", {}},
  };
  for (const char* name : {"d1/sub", "d1,d2", "d1 ", " d2"}) mountNamed(name);
  for (const auto& row : rows) {
    writeConfig(std::string("mountPoints=") + row.list + "\n");
    const KTRepositoryHandler repository(files.id());
    std::vector<std::string> want;
    for (const std::string& name : row.want) want.push_back(files.path() + "/" + name);
    EXPECT_EQ(mountPaths(repository), want) << row.list;
    for (const KTMountPointHandler* mount : repository.mountPoints) EXPECT_EQ(mount->repository, &repository);
  }
}

TEST_F(RepositoryTest, WithoutAMountListTheRootIsTheMount) {
  for (const char* config : {"", "# nothing\n", "mountPoints=\n", "mountPoints=\"  \"\n", "mountPoints\n"}) {
    writeConfig(config);
    EXPECT_THAT(mountPaths(KTRepositoryHandler(files.id())), ElementsAre(files.path())) << config;
  }
}

TEST_F(RepositoryTest, WithoutItsFileTheRootIsTheMountWithAllDefaults) {
  std::filesystem::remove(configFile());
  const KTRepositoryHandler repository(files.id());
  expectDefaults(repository);
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.path()));
  EXPECT_EQ(repository.mountPoints[0]->switchLimit, 95);
  EXPECT_EQ(repository.mountPoints[0]->moveLimit, 99);
  EXPECT_EQ(repository.configTime, 0);
  EXPECT_EQ(repository.status, kMissing) << "the root has no file of a mount";
}

TEST_F(RepositoryTest, TheRootIsAPresentMountWhenItHasTheFileOfOne) {
  std::filesystem::remove(configFile());
  writeFile(files.path() + "/repositorypart.cfg", "switchLimit=0\n");
  const KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.status, 0x10);
  EXPECT_EQ(repository.mountPoints.at(0)->switchLimit, 0);
}

TEST_F(RepositoryTest, RepeatedSetupsWithoutItsFileAppendTheRootEachTime) {
  std::filesystem::remove(configFile());
  KTRepositoryHandler repository(files.id());
  const KTMountPointHandler* const first = repository.mountPoints.at(0);
  repository.setup(files.id());
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.path(), files.path()));
  EXPECT_EQ(repository.mountPoints[0], first);
  EXPECT_EQ(repository.parseConfigFile(), 0);
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.path(), files.path(), files.path()));
  files.configure("");
  repository.setup(files.id());
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.mount(0), files.mount(1))) << "a parse begins anew";
}

TEST_F(RepositoryTest, WhenItsFileGoesTheRootIsAppendedToTheMountsAndTheTimeStays) {
  KTRepositoryHandler repository(files.id());
  const time_t read = repository.configTime;
  std::filesystem::remove(configFile());
  repository.setup(files.id());
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.mount(0), files.mount(1), files.path()));
  EXPECT_EQ(repository.configTime, read);
}

TEST_F(RepositoryTest, AFileThatCannotBeReadSaysNothing) {
  files.configure("remindLimit=1\n");
  const FailingCall unreadable("fopen", EACCES, "repository.cfg");
  const KTRepositoryHandler repository(files.id());
  expectDefaults(repository);
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.path()));
}

TEST_F(RepositoryTest, AFileWhoseTimeCannotBeReadIsParsedAllTheSame) {
  files.configure("remindLimit=1\n");
  const FailingCall unexamined("stat", EIO, "repository.cfg");
  const KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.remindLimit, 1);
  EXPECT_EQ(repository.configTime, -1);
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + configFile() + "\" can not be stat-ed. Error code is \x05"));
}

TEST_F(RepositoryTest, TheIdentifierIsKeptAsItIs) {
  for (const std::string& id : {files.path(), files.path() + "/", files.path() + "//", files.path() + "/d1/.."}) {
    for (const char* name : {"/d1", "/d2"}) disks.setUsed(id + name, 0);
    KTRepositoryHandler repository(id.c_str());
    EXPECT_EQ(repository.getID(), id);
    EXPECT_EQ(repository.id, id);
    EXPECT_THAT(mountPaths(repository), ElementsAre(id + "/d1", id + "/d2"));
  }
}

TEST_F(RepositoryTest, ARelativeIdentifierIsTakenFromTheWorkingDirectory) {
  const WorkingDirectory inside(files.scratch());
  disks.setUsed("rep/d1", 0);
  disks.setUsed("rep/d2", 0);
  EXPECT_THAT(mountPaths(KTRepositoryHandler("rep")), ElementsAre("rep/d1", "rep/d2"));
}

TEST_F(RepositoryTest, ADirectoryThatDoesNotExistGivesAMissingRepository) {
  const std::string absent = files.scratch() + "/absent";
  for (const char* id : {absent.c_str(), ""}) {
    KTRepositoryHandler repository(id);
    EXPECT_EQ(repository.status, kMissing);
    EXPECT_THAT(repository.mountPoints, IsEmpty());
    EXPECT_STREQ(repository.getID(), "");
    EXPECT_FALSE(repository.isUpToDate());
    expectDefaults(repository);
  }
  EXPECT_THAT(log.texts(), IsEmpty());
  EXPECT_FALSE(isThere(absent));
}

TEST_F(RepositoryTest, AVeryLongIdentifierGivesAMissingRepository) {
  const std::string id(100000, 'x');
  EXPECT_EQ(KTRepositoryHandler(id.c_str()).status, kMissing);
}

TEST_F(RepositoryTest, SetupForADirectoryThatDoesNotExistKeepsIdentifierAndMounts) {
  files.configure("remindLimit=1\nisClearable=true\nlegacyDir=/old\n");
  KTRepositoryHandler repository(files.id());
  repository.setup((files.path() + "/absent").c_str());
  EXPECT_EQ(repository.status, kMissing);
  EXPECT_STREQ(repository.getID(), files.id());
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.mount(0), files.mount(1)));
  expectDefaults(repository);
}

TEST_F(RepositoryTest, NoPathFailsAnAssertion) {
  const char* const none = nullptr;
  EXPECT_THROW(KTRepositoryHandler{none}, KTAssertionException);
  KTRepositoryHandler repository(files.id());
  EXPECT_THROW(repository.setup(none), KTAssertionException);
  EXPECT_EQ(repository.mountPoints.size(), 2U);
}

TEST_F(RepositoryTest, AListedMountThatDoesNotExistFailsTheAssertionOfTheMount) {
  writeConfig("mountPoints=d1\\absent\\d2\n");
  const KTAssertionException failure = assertionOf([&] { KTRepositoryHandler{files.id()}; });
  EXPECT_EQ(failure.m_line, 1250);
  EXPECT_EQ(failure.m_expression, "access( mountPath.c_str(), F_OK & X_OK ) == 0");
  EXPECT_THAT(files.locksLeft(), IsEmpty());
}

TEST_F(RepositoryTest, AParseThatFailsKeepsTheMountsThatWereMade) {
  KTRepositoryHandler repository(files.id());
  writeConfig("mountPoints=d2\\absent\\d1\n");
  EXPECT_THROW(repository.parseConfigFile(), KTAssertionException);
  EXPECT_THAT(mountPaths(repository), ElementsAre(files.mount(1)));
}

// What is left over also shows at the end of a run with a leak checker.
TEST_F(RepositoryTest, AConstructorThatThrowsLeavesNoMemoryBehind) {
  writeConfig("mountPoints=d1\\d2\\absent\n");
  constexpr size_t kRounds = 200;
  const auto fail = [&] { EXPECT_THROW(KTRepositoryHandler{files.id()}, KTAssertionException); };
  fail();  // what is allocated once, is now
  const size_t before = mallinfo2().uordblks;
  for (size_t i = 0; i < kRounds; ++i) fail();
  const size_t after = mallinfo2().uordblks;
  EXPECT_LT(after, before + kRounds * sizeof(KTMountPointHandler));
}

TEST_F(RepositoryTest, ASetupThatIsRepeatedLeavesNoMemoryBehind) {
  KTRepositoryHandler repository(files.id());
  constexpr size_t kRounds = 200;
  const size_t before = mallinfo2().uordblks;
  for (size_t i = 0; i < kRounds; ++i) repository.setup(files.id());
  const size_t after = mallinfo2().uordblks;
  EXPECT_LT(after, before + kRounds * sizeof(KTMountPointHandler));
}

TEST_F(RepositoryTest, ACopyIsAFreshParse) {
  KTRepositoryHandler repository(files.id());
  repository.warnLimit = 1;
  repository.deletedDirs.push_back("gone");
  files.configure("remindLimit=7\n");
  files.takeOut(1);
  const KTRepositoryHandler copy(repository);
  EXPECT_EQ(copy.id, files.path());
  EXPECT_EQ(copy.remindLimit, 7);
  EXPECT_EQ(copy.warnLimit, 90);
  EXPECT_EQ(copy.configTime, modificationTime(configFile()));
  EXPECT_EQ(copy.status, kIncomplete);
  EXPECT_THAT(copy.deletedDirs, IsEmpty());
  EXPECT_THAT(mountPaths(copy), ElementsAre(files.mount(0), files.mount(1)));
  EXPECT_NE(copy.mountPoints[0], repository.mountPoints[0]);
  EXPECT_EQ(copy.mountPoints[0]->repository, &copy);
  EXPECT_EQ(repository.remindLimit, 80);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("Repository copy constructor"));
  EXPECT_EQ(log.lines.size(), 1U);
}

TEST_F(RepositoryTest, ACopyOfAMissingRepositoryIsMissing) {
  const KTRepositoryHandler missing((files.path() + "/absent").c_str());
  const KTRepositoryHandler copy(missing);
  EXPECT_EQ(copy.status, kMissing);
  EXPECT_THAT(copy.mountPoints, IsEmpty());
}

TEST_F(RepositoryTest, ACopyWhoseMountIsGoneIsNotMade) {
  const KTRepositoryHandler repository(files.id());
  std::filesystem::remove_all(files.mount(1));
  EXPECT_THROW(KTRepositoryHandler{repository}, KTAssertionException);
  EXPECT_THAT(log.texts(), ElementsAre("Repository copy constructor"));
}

TEST_F(RepositoryTest, SetupLoadsTheDirtySet) {
  files.writeDirtySet("b\na\n");
  KTRepositoryHandler repository(files.id());
  EXPECT_THAT(repository.dirtyFlagHandler.dirtySet, ElementsAre("a", "b"));
  EXPECT_EQ(repository.dirtyFlagHandler.setFile, files.path() + "/.dirty");
}

TEST_F(RepositoryTest, TheDirtySetIsLoadedBeforeTheConfiguration) {
  files.writeDirtySet("a\n");
  writeConfig("mountPoints=absent\n");
  CallWatch watch;
  EXPECT_THROW(KTRepositoryHandler{files.id()}, KTAssertionException);
  EXPECT_THAT(watch.locks, ElementsAre("+" + files.dirtyLockName(), "-" + files.dirtyLockName()));
}

TEST_F(RepositoryTest, ADirtySetThatCannotBeOpenedFailsAnAssertion) {
  files.writeDirtySet("a\n");
  const FailingCall unreadable("fopen", EACCES, ".dirty");
  EXPECT_THROW(KTRepositoryHandler{files.id()}, KTAssertionException);
  EXPECT_THAT(files.locksLeft(), IsEmpty());
}

TEST_F(RepositoryTest, ALockFileThatCannotBeRemovedFailsTheSetup) {
  {
    const FailingCall stuck("unlink", EACCES, files.dirtyLockName(), 0, 1);
    EXPECT_THROW(KTRepositoryHandler{files.id()}, KTIOException);
  }
  EXPECT_THAT(files.locksLeft(), ElementsAre("semaphore_" + files.dirtyLockName()));
}

// An operator's matter, as after the end of a process that held it: here it is waited for, and then done without.
TEST_F(RepositoryTest, SetupGoesOnWithoutADirtySetThatStaysLocked) {
  files.writeDirtySet("a\n");
  writeFile(files.lockFile(files.dirtyLockName()), "");
  FakeClock clock;
  KTRepositoryHandler repository(files.id());
  EXPECT_THAT(repository.dirtyFlagHandler.dirtySet, IsEmpty());
  EXPECT_EQ(repository.mountPoints.size(), 2U);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("The dirty mechanism \"" + files.path() + "/.dirty\" could not be locked."));
}

TEST_F(RepositoryTest, SetupRefreshesTheStatus) {
  disks.setUsed(files.mount(0), 96);
  disks.setUsed(files.mount(1), 91);
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.status, 0x03);
  disks.setUsed(files.mount(0), 10);
  repository.setup(files.id());
  EXPECT_EQ(repository.status, 0);
}

TEST_F(RepositoryTest, SetupAsksEachDiskThreeTimes) {
  const KTRepositoryHandler repository(files.id());
  EXPECT_EQ(disks.calls(files.mount(0)), 3) << "twice for the mount, once for the repository";
  EXPECT_EQ(disks.calls(files.mount(1)), 3);
}

TEST_F(RepositoryTest, IsUpToDateWhileNoFileHasAnotherTime) {
  KTRepositoryHandler repository(files.id());
  EXPECT_TRUE(repository.isUpToDate());
  EXPECT_TRUE(repository.isUpToDate());
}

TEST_F(RepositoryTest, IsNotUpToDateWhenItsFileHasAnotherTime) {
  KTRepositoryHandler repository(files.id());
  const time_t read = modificationTime(configFile());
  setTimes(configFile(), read + 1);
  EXPECT_FALSE(repository.isUpToDate());
  setTimes(configFile(), read - 1);
  EXPECT_FALSE(repository.isUpToDate()) << "an older file is another file";
  setTimes(configFile(), read + 5, read);
  EXPECT_TRUE(repository.isUpToDate()) << "reading it is no change";
}

TEST_F(RepositoryTest, IsNotUpToDateWhenTheFileOfAMountHasAnotherTime) {
  for (const size_t mount : {0U, 1U}) {
    KTRepositoryHandler repository(files.id());
    files.configureMount(mount, "");
    EXPECT_FALSE(repository.isUpToDate()) << mount;
  }
}

TEST_F(RepositoryTest, IsNotUpToDateWhileAMountIsAway) {
  for (const size_t mount : {0U, 1U}) {
    KTRepositoryHandler repository(files.id());
    files.takeOut(mount);
    EXPECT_FALSE(repository.isUpToDate()) << mount;
    KTRepositoryHandler again(files.id());
    EXPECT_FALSE(again.isUpToDate()) << "also when it was away from the start";
    files.giveBack(mount);
    EXPECT_TRUE(repository.isUpToDate()) << "back, and the same file";
    EXPECT_FALSE(again.isUpToDate()) << "back, and never read";
  }
}

TEST_F(RepositoryTest, IsNeverUpToDateWithoutItsFile) {
  std::filesystem::remove(configFile());
  writeFile(files.path() + "/repositorypart.cfg", "");
  KTRepositoryHandler repository(files.id());
  ASSERT_EQ(repository.status, 0);
  EXPECT_FALSE(repository.isUpToDate());
  files.configure("");
  EXPECT_FALSE(repository.isUpToDate()) << "there now, and never read";
}

TEST_F(RepositoryTest, ARepositoryWithoutMountsIsUpToDate) {
  writeConfig("mountPoints=\\\n");
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.status, kMissing);
  EXPECT_TRUE(repository.isUpToDate());
}

TEST_F(RepositoryTest, BeingUpToDateCostsOneAccessAndOneStatForEachFile) {
  KTRepositoryHandler repository(files.id());
  const int before = disks.calls(files.mount(0));
  CallWatch watch;
  repository.isUpToDate();
  EXPECT_THAT(
      watch.calls,
      ElementsAre("access " + configFile(), "stat " + configFile(), "access " + files.mount(0) + "/repositorypart.cfg",
                  "stat " + files.mount(0) + "/repositorypart.cfg", "access " + files.mount(1) + "/repositorypart.cfg",
                  "stat " + files.mount(1) + "/repositorypart.cfg"));
  EXPECT_THAT(watch.locks, IsEmpty());
  EXPECT_EQ(disks.calls(files.mount(0)), before);
}

TEST_F(RepositoryTest, TheFirstStaleFileEndsTheTest) {
  KTRepositoryHandler repository(files.id());
  files.takeOut(0);
  CallWatch watch;
  EXPECT_FALSE(repository.isUpToDate());
  EXPECT_THAT(watch.calls, testing::Not(testing::Contains(HasSubstr(files.mount(1)))));
}

TEST_F(RepositoryTest, TheListOfDeletedPathsIsTheHandlersOwn) {
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.getDeletedDirs(), &repository.deletedDirs);
}

TEST_F(RepositoryTest, ReadingTheConfigurationWritesNothing) {
  const std::vector<std::string> before = treeOf(files.path());
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(treeOf(files.path()), before);
  EXPECT_THAT(files.locksLeft(), IsEmpty());
}
