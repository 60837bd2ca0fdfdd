#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <vector>

#include "KTException.h"
#include "KTRepositoryHandler.h"
#include "fakes/fakes.h"
#include "support/repository.h"
#include "support/results.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Blocks of a test disk: one block is a thousandth of a percent.
constexpr fsblkcnt_t kBlocks = 100000;

enum { kRemind = 1, kWarn = 2, kWarn2 = 4, kWarn3 = 8, kSwitch = 0x10, kFull = 0x20, kClean = 0x40, kMove = 0x80 };
constexpr int kMissing = 0x100;

struct Level {
  const char* key;
  int bit;
};

// The limits that only a repository has, and those that a mount may have of its own.
constexpr Level kRepositoryLevels[] = {
    {"remindLimit", kRemind}, {"warnLimit", kWarn}, {"warn2Limit", kWarn2}, {"warn3Limit", kWarn3}};
constexpr Level kMountLevels[] = {
    {"switchLimit", kSwitch}, {"fullLimit", kFull}, {"cleanLimit", kClean}, {"moveLimit", kMove}};

std::vector<Level> allLevels() {
  std::vector<Level> levels(std::begin(kRepositoryLevels), std::end(kRepositoryLevels));
  levels.insert(levels.end(), std::begin(kMountLevels), std::end(kMountLevels));
  return levels;
}

// Settings in which no limit can be reached but the one of `key`.
std::string onlyLimit(const std::string& key, const std::string& value) {
  std::string settings;
  for (const Level& level : allLevels()) settings += std::string(level.key) + "=101\n";
  return settings + key + "=" + value + "\n";
}

class MountPointTest : public testing::Test {
 protected:
  MountPointTest() { disks.setUsed(path, 50); }

  std::string configFile() const { return path + "/repositorypart.cfg"; }
  std::string backInTown() const { return "Mount is back in town:" + configFile(); }
  std::string spaceError(int error) const {
    return "Error occured while statvfs call to \"" + path + "\". Error code is " + static_cast<char>(error);
  }

  TestRepository files{{"d1"}};
  const std::string path = files.mount(0);
  FakeDisks disks;
  FakeSyslog log;
};

}  // namespace

TEST(NaturalNumberTest, NaturalNumbersAreDecimalDigitsAlone) {
  const struct {
    const char* text;
    int want;
  } rows[] = {
      {"0", 0},     {"007", 7},    {"42", 42},   {"2147483647", 2147483647},
      {"", -1},     {"12a", -1},   {"a12", -1},  {"1a2", -1},
      {"+1", -1},   {"-1", -1},    {" 1", -1},   {"1 ", -1},
      {"\t1", -1},  {"1\n", -1},   {"0x10", -1}, {"1.5", -1},
      {"1,0", -1},  {"10%", -1},   {"-", -1},    {" ", -1},
      {"1/", -1},   {"1:", -1},    {"/", -1},    {":", -1},  // beside the digits in the character set
      {"\x80", -1}, {"1\xb2", -1}, {"\xff", -1},
  };
  for (const auto& row : rows)
    EXPECT_EQ(KTMountPointHandler::parseNatInt(row.text), row.want) << '"' << row.text << '"';
}

TEST(NaturalNumberTest, LargeNumbersWrapAround) {
  const struct {
    const char* text;
    int want;
  } rows[] = {
      {"2147483648", std::numeric_limits<int>::min()},
      {"4294967290", -6},
      {"4294967294", -2},
      {"4294967295", -1},
      {"4294967296", 0},
      {"4294967297", 1},
      {"8589934592", 0},
      {"8589934634", 42},
      {"12345678901", -539222987},           // 3755744309 - 2^32
      {"99999999999999999999", 1661992959},  // 10^20 - 1 = 23283064365 * 2^32 + 1661992959
  };
  for (const auto& row : rows) EXPECT_EQ(KTMountPointHandler::parseNatInt(row.text), row.want) << row.text;
}

TEST(NaturalNumberTest, LeadingZerosOfAnyNumberAreAccepted) {
  EXPECT_EQ(KTMountPointHandler::parseNatInt((std::string(5000, '0') + "95").c_str()), 95);
}

TEST(NaturalNumberTest, NoTextIsNoNumber) { EXPECT_EQ(KTMountPointHandler::parseNatInt(nullptr), -1); }

TEST_F(MountPointTest, TakesPathsAndLimitsFromItsRepository) {
  files.configure("switchLimit=11\nfullLimit=12\ncleanLimit=13\nmoveLimit=14\nnomoveTimeSeconds=15\n");
  KTRepositoryHandler repository(files.id());
  const KTMountPointHandler& mount = *repository.mountPoints.at(0);
  EXPECT_EQ(mount.mountPath, path);
  EXPECT_EQ(mount.logPath, path + "/.log");
  EXPECT_EQ(mount.repository, &repository);
  EXPECT_EQ(mount.switchLimit, 11);
  EXPECT_EQ(mount.fullLimit, 12);
  EXPECT_EQ(mount.cleanLimit, 13);
  EXPECT_EQ(mount.moveLimit, 14);
  EXPECT_EQ(mount.nomoveTime, 15);
}

TEST_F(MountPointTest, EachKeyOfItsOwnFileReplacesOneLimit) {
  const struct {
    const char* key;
    int KTMountPointHandler::*field;
  } rows[] = {{"switchLimit", &KTMountPointHandler::switchLimit},
              {"fullLimit", &KTMountPointHandler::fullLimit},
              {"cleanLimit", &KTMountPointHandler::cleanLimit},
              {"moveLimit", &KTMountPointHandler::moveLimit}};
  for (const auto& named : rows) {
    files.configureMount(0, std::string(named.key) + " = 42\n");
    KTRepositoryHandler repository(files.id());
    const KTMountPointHandler& mount = *repository.mountPoints.at(0);
    const int defaults[] = {95, 97, 98, 99};
    for (size_t i = 0; i < std::size(rows); ++i)
      EXPECT_EQ(mount.*rows[i].field, &rows[i] == &named ? 42 : defaults[i]) << named.key << " and " << rows[i].key;
    EXPECT_EQ(repository.switchLimit, 95) << "the repository's own stay";
  }
}

TEST_F(MountPointTest, ItsOwnFileSaysNothingAboutTheOtherSettings) {
  files.configureMount(0,
                       "remindLimit=1\nwarnLimit=2\nwarn2Limit=3\nwarn3Limit=4\nnomoveTime=5\nnomoveTimeSeconds=6\n");
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.mountPoints.at(0)->nomoveTime, 86400);
  EXPECT_EQ(repository.remindLimit, 80);
  EXPECT_EQ(repository.mountPoints.at(0)->status, 0);
}

TEST_F(MountPointTest, MalformedNumbersInItsFileArePassedOver) {
  for (const char* value : {"", "-1", "+1", "10%", "12a", "4294967295", "1 0"}) {
    files.configureMount(0, std::string("switchLimit=") + value + "\nfullLimit=" + value + "\ncleanLimit=" + value +
                                "\nmoveLimit=" + value + "\n");
    KTRepositoryHandler repository(files.id());
    const KTMountPointHandler& mount = *repository.mountPoints.at(0);
    EXPECT_EQ(mount.switchLimit, 95) << value;
    EXPECT_EQ(mount.fullLimit, 97) << value;
    EXPECT_EQ(mount.cleanLimit, 98) << value;
    EXPECT_EQ(mount.moveLimit, 99) << value;
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MountPointTest, AnotherParseKeepsLimitsThatTheFileNoLongerNames) {
  files.configureMount(0, "switchLimit=10\nfullLimit=20\n");
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  files.configureMount(0, "fullLimit=30\n");
  EXPECT_EQ(mount.parseConfigFile(), 0);
  EXPECT_EQ(mount.switchLimit, 10);
  EXPECT_EQ(mount.fullLimit, 30);
  EXPECT_EQ(mount.configTime, modificationTime(configFile()));
}

TEST_F(MountPointTest, ParsingWithoutAFileChangesNothing) {
  files.configureMount(0, "switchLimit=10\n");
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  const time_t before = mount.configTime;
  files.takeOut(0);
  EXPECT_EQ(mount.parseConfigFile(), 0);
  EXPECT_EQ(mount.switchLimit, 10);
  EXPECT_EQ(mount.configTime, before);
}

TEST_F(MountPointTest, AFileThatCannotBeReadLeavesTheLimitsButTheMountIsPresent) {
  files.configureMount(0, "switchLimit=10\n");
  const FailingCall unreadable("fopen", EACCES, "repositorypart.cfg");
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.mountPoints.at(0)->switchLimit, 95);
  EXPECT_EQ(repository.mountPoints.at(0)->status, 0);
}

TEST_F(MountPointTest, IsMissingWithoutItsFileAndKeepsTheLimitsOfItsRepository) {
  files.configure("switchLimit=11\nfullLimit=12\ncleanLimit=13\nmoveLimit=14\n");
  files.configureMount(0, "switchLimit=21\n");
  files.takeOut(0);
  KTRepositoryHandler repository(files.id());
  const KTMountPointHandler& mount = *repository.mountPoints.at(0);
  EXPECT_EQ(mount.status, kMissing);
  EXPECT_EQ(mount.switchLimit, 11);
  EXPECT_EQ(mount.fullLimit, 12);
  EXPECT_EQ(mount.cleanLimit, 13);
  EXPECT_EQ(mount.moveLimit, 14);
  EXPECT_EQ(mount.configTime, 0);
  EXPECT_EQ(disks.calls(path), 0) << "a disk that is not there is not asked";
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MountPointTest, APlainFileInPlaceOfItsDirectoryIsMissing) {
  KTRepositoryHandler repository(files.id());
  writeFile(files.path() + "/plain", "");
  EXPECT_EQ(KTMountPointHandler(files.path() + "/plain", &repository).status, kMissing);
}

TEST_F(MountPointTest, ADirectoryThatDoesNotExistFailsTheAssertionThatOperatorsKnow) {
  KTRepositoryHandler repository(files.id());
  const std::string dangling = files.path() + "/dangling";
  ASSERT_EQ(symlink("nowhere", dangling.c_str()), 0);
  for (const std::string& directory : {files.path() + "/absent", dangling, std::string()}) {
    const KTAssertionException failure = assertionOf([&] { KTMountPointHandler(directory, &repository); });
    EXPECT_EQ(failure.m_expression, "access( mountPath.c_str(), F_OK & X_OK ) == 0") << directory;
    EXPECT_EQ(failure.m_line, 1250);
    EXPECT_EQ(failure.m_file, "repositoryhandler/src/libs/KTRepositoryHandler");
    EXPECT_EQ(failure.m_code, 1);
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MountPointTest, OnlyExistenceOfItsDirectoryIsAskedFor) {
  KTRepositoryHandler repository(files.id());
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  EXPECT_NO_THROW(KTMountPointHandler(path, &repository));
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

TEST_F(MountPointTest, NeedsARepository) { EXPECT_THROW(KTMountPointHandler(path, nullptr), KTAssertionException); }

TEST_F(MountPointTest, AnotherSetupForgetsStatusAndLimits) {
  TestRepository others({"d1", "d2"}, "switchLimit=40\n");
  disks.setUsed(others.mount(0), 10);
  disks.setUsed(others.mount(1), 45);
  KTRepositoryHandler other(others.id());
  files.takeOut(0);
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  ASSERT_EQ(mount.status, kMissing);
  mount.setup(others.mount(1), &other);
  EXPECT_EQ(mount.status, kSwitch);
  EXPECT_EQ(mount.mountPath, others.mount(1));
  EXPECT_EQ(mount.logPath, others.mount(1) + "/.log");
  EXPECT_EQ(mount.repository, &other);
  EXPECT_EQ(mount.switchLimit, 40);
  EXPECT_THAT(log.texts(), IsEmpty()) << "it did not come back, it is another";
}

TEST_F(MountPointTest, SettingUpAsksThePresentDiskTwice) {
  KTRepositoryHandler repository(files.id());
  const int before = disks.calls(path);
  const KTMountPointHandler mount(path, &repository);
  EXPECT_EQ(disks.calls(path) - before, 2) << "with the repository's limits and with its own";
}

TEST_F(MountPointTest, StatusAfterSetupReflectsItsOwnLimits) {
  files.configureMount(0, "switchLimit=50\n");
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(KTMountPointHandler(path, &repository).status, kSwitch);
}

TEST_F(MountPointTest, ItsFileIsNotReadWhenTheDiskCannotBeAskedAtSetup) {
  files.configureMount(0, "switchLimit=10\n");
  KTRepositoryHandler repository(files.id());
  disks.fail(path, EIO);
  log.lines.clear();
  const KTMountPointHandler mount(path, &repository);
  EXPECT_EQ(mount.status, kMissing);
  EXPECT_EQ(mount.switchLimit, 95);
  EXPECT_EQ(mount.configTime, 0);
  EXPECT_THAT(log.texts(), ElementsAre(spaceError(EIO)));
}

TEST_F(MountPointTest, ACopyIsAFreshProbe) {
  files.configureMount(0, "fullLimit=60\n");
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  mount.moveLimit = 1;
  files.configureMount(0, "fullLimit=40\n");
  const KTMountPointHandler copy(mount);
  EXPECT_EQ(copy.fullLimit, 40);
  EXPECT_EQ(copy.moveLimit, 99);
  EXPECT_EQ(copy.status, kFull);
  EXPECT_EQ(copy.configTime, modificationTime(configFile()));
  EXPECT_EQ(copy.mountPath, path);
  EXPECT_EQ(copy.logPath, path + "/.log");
  EXPECT_EQ(copy.repository, &repository);
  EXPECT_EQ(mount.fullLimit, 60);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("mount point copy constructor"));
  EXPECT_EQ(log.lines.size(), 1U);
}

TEST_F(MountPointTest, ACopyOfAVanishedDirectoryIsNotMade) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  mount.mountPath = files.path() + "/absent";
  EXPECT_THROW(KTMountPointHandler{mount}, KTAssertionException);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("mount point copy constructor"));
}

TEST_F(MountPointTest, EachBitIsSetAtItsLimitAndAboveButNotBelow) {
  for (const Level& level : allLevels()) {
    files.configure(onlyLimit(level.key, "50"));
    KTRepositoryHandler repository(files.id());
    KTMountPointHandler& mount = *repository.mountPoints.at(0);
    disks.set(path, kBlocks, 50001);
    EXPECT_EQ(mount.checkStatus(false), 0) << level.key << " just below";
    disks.set(path, kBlocks, 50000);
    EXPECT_EQ(mount.checkStatus(false), level.bit) << level.key << " at the limit";
    EXPECT_EQ(mount.status, level.bit);
    disks.set(path, kBlocks, 49999);
    EXPECT_EQ(mount.checkStatus(false), level.bit) << level.key << " just above";
  }
}

TEST_F(MountPointTest, FourBitsFollowTheMountsOwnLimits) {
  for (const Level& level : kMountLevels) {
    files.configure(onlyLimit(level.key, "20"));
    files.configureMount(0, std::string(level.key) + "=50\n");
    KTRepositoryHandler repository(files.id());
    KTMountPointHandler& mount = *repository.mountPoints.at(0);
    disks.set(path, kBlocks, 50001);
    EXPECT_EQ(mount.checkStatus(false), 0) << level.key;
    disks.set(path, kBlocks, 50000);
    EXPECT_EQ(mount.checkStatus(false), level.bit) << level.key;
  }
}

TEST_F(MountPointTest, ChangesOfTheRepositoryReachOnlyTheReportingBits) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  repository.remindLimit = repository.warnLimit = repository.warn2Limit = repository.warn3Limit = 50;
  repository.switchLimit = repository.fullLimit = repository.cleanLimit = repository.moveLimit = 50;
  EXPECT_EQ(mount.checkStatus(false), kRemind | kWarn | kWarn2 | kWarn3);
}

TEST_F(MountPointTest, AtExactly95PercentEveryReportAndTheSwitchAreReachedByDefault) {
  disks.setUsed(path, 95);
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), 0x01 | 0x02 | 0x04 | 0x08 | 0x10);
}

TEST_F(MountPointTest, TheDefaultLimitsRiseInSteps) {
  const struct {
    int percent;
    int want;
  } rows[] = {{0, 0},     {79, 0},    {80, 0x01}, {89, 0x01}, {90, 0x03}, {91, 0x03}, {92, 0x07},
              {93, 0x07}, {94, 0x0f}, {96, 0x1f}, {97, 0x3f}, {98, 0x7f}, {99, 0xff}, {100, 0xff}};
  KTRepositoryHandler repository(files.id());
  for (const auto& row : rows) {
    disks.setUsed(path, row.percent);
    EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), row.want) << row.percent << " percent";
  }
}

TEST_F(MountPointTest, ALimitOfZeroDisablesItsBitButAlwaysSwitches) {
  for (const Level& level : allLevels()) {
    files.configure(onlyLimit(level.key, "0"));
    KTRepositoryHandler repository(files.id());
    for (const int percent : {0, 50, 100}) {
      disks.setUsed(path, percent);
      EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), level.bit == kSwitch ? kSwitch : 0)
          << level.key << " at " << percent;
    }
  }
}

TEST_F(MountPointTest, AnEmptyDiskIsPastASwitchLimitOfZeroOfItsOwn) {
  files.configureMount(0, "switchLimit=0\nfullLimit=0\n");
  disks.setUsed(path, 0);
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.mountPoints.at(0)->status, kSwitch);
}

TEST_F(MountPointTest, ALimitThatWrapsBelowZeroDisablesItsBitButAlwaysSwitches) {
  for (const char* wrapped : {"4294967290", "2147483648", "4294967294"}) {
    for (const Level& level : allLevels()) {
      files.configure(onlyLimit(level.key, wrapped));
      KTRepositoryHandler repository(files.id());
      for (const int percent : {0, 100}) {
        disks.setUsed(path, percent);
        EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), level.bit == kSwitch ? kSwitch : 0)
            << level.key << "=" << wrapped << " at " << percent;
      }
    }
  }
}

TEST_F(MountPointTest, ALimitAboveOneHundredIsNeverReached) {
  for (const char* value : {"101", "1000", "2147483647"}) {
    for (const Level& level : allLevels()) {
      files.configure(onlyLimit(level.key, value));
      disks.setUsed(path, 100);
      KTRepositoryHandler repository(files.id());
      EXPECT_EQ(repository.mountPoints.at(0)->status, 0) << level.key << "=" << value;
    }
  }
}

TEST_F(MountPointTest, ALimitOfOneHundredIsReachedByAFullDiskOnly) {
  for (const Level& level : allLevels()) {
    files.configure(onlyLimit(level.key, "100"));
    KTRepositoryHandler repository(files.id());
    disks.set(path, kBlocks, 1);
    EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), 0) << level.key;
    disks.set(path, kBlocks, 0);
    EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), level.bit) << level.key;
  }
}

TEST_F(MountPointTest, ALimitThatWrapsToASmallNumberIsThatNumber) {
  files.configure("switchLimit=4294967346\n");  // 2^32 + 50
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.mountPoints.at(0)->switchLimit, 50);
  EXPECT_EQ(repository.mountPoints.at(0)->status, kSwitch);
}

// Counts at which 100 - 100 * available / blocks lies so close to the middle between two floats that double precision
// would round to the wrong side. Worked out with exact fractions; all counts fit 32 bits.
TEST_F(MountPointTest, UsedPercentageIsTheNearestSinglePrecisionNumber) {
  constexpr float kStep = 1.0F / 131072;  // between the floats from 64 to 128
  const struct {
    fsblkcnt_t blocks;
    fsblkcnt_t available;
    float want;
  } rows[] = {
      {100000, 100000, 0.0F},
      {100000, 50000, 50.0F},
      {100000, 5000, 95.0F},
      {100000, 0, 100.0F},
      {1, 0, 100.0F},
      {1, 1, 0.0F},
      {3, 1, 66.6666641F},  // 8738133 * 2^-17, the nearest to two thirds
      {7, 2, 71.4285736F},  // 9362286 * 2^-17, the nearest to five sevenths
      {5, 6, -20.0F},
      {4294967295U, 4294967295U, 0.0F},
      {4294967295U, 0, 100.0F},
      {4000000000U, 200000000U, 95.0F},
      {4000000000U, 200000001U, 95.0F},  // 94.999999975
      {4271636479U, 213581661U, 95.0F + kStep},
      {4276005547U, 213799788U, 95.0F + kStep},
      {4290510847U, 214524724U, 95.0F + 3 * kStep},
      {4274257919U, 213713059U, 95.0F - kStep},
      {4278626987U, 213931839U, 95.0F - kStep},
      {4272385463U, 213620414U, 95.0F - 3 * kStep},
  };
  KTRepositoryHandler repository(files.id());
  for (const auto& row : rows) {
    disks.set(path, row.blocks, row.available);
    EXPECT_EQ(repository.mountPoints.at(0)->getUsedPercentage(), row.want) << row.available << " of " << row.blocks;
  }
}

TEST_F(MountPointTest, LimitsAreComparedWithTheRoundedPercentage) {
  files.configure(onlyLimit("fullLimit", "95"));
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  disks.set(path, 4000000000U, 200000001U);  // 94.999999975, the float 95
  EXPECT_EQ(mount.checkStatus(false), kFull);
  disks.set(path, 4274257919U, 213713059U);  // the float below 95
  EXPECT_EQ(mount.checkStatus(false), 0);
}

TEST_F(MountPointTest, BlocksKeptBackForRootCountAsUsed) {
  struct statvfs space = {};
  space.f_blocks = 1000;
  space.f_bfree = 500;
  space.f_bavail = 100;
  disks.set(path, space);
  KTRepositoryHandler repository(files.id());
  EXPECT_EQ(repository.mountPoints.at(0)->getUsedPercentage(), 90.0F);
}

TEST_F(MountPointTest, AFileSystemWithoutBlocksReachesNoLimit) {
  files.configureMount(0, "switchLimit=0\n");
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  for (const fsblkcnt_t available : {0U, 1U, 4294967295U}) {
    disks.set(path, 0, available);
    EXPECT_EQ(mount.checkStatus(false), 0) << available;
  }
}

TEST_F(MountPointTest, ADiskThatCannotBeAskedHasNoPercentage) {
  KTRepositoryHandler repository(files.id());
  disks.fail(path, ENOSYS);
  EXPECT_EQ(repository.mountPoints.at(0)->getUsedPercentage(), -1.0F);
  EXPECT_EQ(repository.mountPoints.at(0)->status, 0) << "asking for it changes no status";
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(spaceError(ENOSYS)));
  EXPECT_EQ(log.lines.size(), 1U);
}

TEST_F(MountPointTest, IsMissingWhileTheDiskCannotBeAsked) {
  disks.setUsed(path, 100);
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  disks.fail(path, EIO);
  EXPECT_EQ(mount.checkStatus(false), kMissing);
  EXPECT_EQ(mount.status, kMissing);
  ASSERT_EQ(log.lines.size(), 1U);
  EXPECT_EQ(log.lines[0].text, spaceError(EIO));
  EXPECT_EQ(log.lines[0].priority, LOG_ERR);
}

TEST_F(MountPointTest, ADiskThatFailsIsAskedAgainEvenForTheCachedStatus) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  disks.fail(path, EIO);
  mount.checkStatus(false);
  log.lines.clear();
  EXPECT_EQ(mount.checkStatus(true), kMissing);
  EXPECT_THAT(log.texts(), ElementsAre(backInTown(), spaceError(EIO)));
}

// Minus one percent is the mark of a failed query, also when a file system gives more blocks available than it has.
TEST_F(MountPointTest, APercentageOfMinusOneIsTakenForAFailedQuery) {
  KTRepositoryHandler repository(files.id());
  disks.set(path, 100, 101);
  EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), kMissing);
  EXPECT_THAT(log.texts(), IsEmpty());
  disks.set(path, 100, 102);
  EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), 0);
}

TEST_F(MountPointTest, CachedStatusDoesNotAskTheDisk) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  disks.setUsed(path, 100);
  const int before = disks.calls(path);
  EXPECT_EQ(mount.checkStatus(true), 0);
  EXPECT_EQ(disks.calls(path), before);
}

TEST_F(MountPointTest, FreshStatusAsksTheDiskOnce) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  disks.setUsed(path, 100);
  const int before = disks.calls(path);
  EXPECT_EQ(mount.checkStatus(false), 0xff);
  EXPECT_EQ(disks.calls(path), before + 1);
  EXPECT_EQ(mount.checkStatus(true), 0xff);
  EXPECT_EQ(disks.calls(path), before + 1);
}

TEST_F(MountPointTest, FreshStatusDropsBitsThatNoLongerHold) {
  disks.setUsed(path, 100);
  KTRepositoryHandler repository(files.id());
  disks.setUsed(path, 85);
  EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), kRemind);
}

TEST_F(MountPointTest, CachedStatusNoticesAMountThatWentAway) {
  disks.setUsed(path, 100);
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  const int before = disks.calls(path);
  files.takeOut(0);
  EXPECT_EQ(mount.checkStatus(true), kMissing);
  EXPECT_EQ(mount.status, kMissing);
  EXPECT_EQ(mount.checkStatus(false), kMissing);
  EXPECT_EQ(disks.calls(path), before);
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(MountPointTest, AMountThatIsBackIsProbedInFullEvenForTheCachedStatus) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  files.takeOut(0);
  mount.checkStatus(true);
  disks.setUsed(path, 96);
  files.giveBack(0);
  const int before = disks.calls(path);
  EXPECT_EQ(mount.checkStatus(true), 0x1f);
  EXPECT_EQ(mount.status, 0x1f);
  EXPECT_EQ(disks.calls(path), before + 1);
  ASSERT_EQ(log.lines.size(), 1U);
  EXPECT_EQ(log.lines[0].text, backInTown());
  EXPECT_EQ(log.lines[0].priority, LOG_DEBUG);
  EXPECT_EQ(mount.checkStatus(true), 0x1f);
  EXPECT_EQ(log.lines.size(), 1U) << "it is told once";
}

TEST_F(MountPointTest, AMountThatIsBackIsToldForTheFreshStatusToo) {
  files.takeOut(0);
  KTRepositoryHandler repository(files.id());
  files.giveBack(0);
  const int before = disks.calls(path);
  EXPECT_EQ(repository.mountPoints.at(0)->checkStatus(false), 0);
  EXPECT_EQ(disks.calls(path), before + 1);
  EXPECT_THAT(log.texts(), ElementsAre(backInTown()));
}

TEST_F(MountPointTest, AMountThatIsBackHasItsFileReadAgain) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  files.takeOut(0);
  mount.checkStatus(true);
  files.configureMount(0, "switchLimit=40\n");
  EXPECT_EQ(mount.checkStatus(true), kSwitch);
  EXPECT_EQ(mount.switchLimit, 40);
  EXPECT_EQ(mount.configTime, modificationTime(configFile()));
  EXPECT_TRUE(mount.isUpToDate());
}

TEST_F(MountPointTest, IsUpToDateUntilItsFileHasAnotherTime) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  const time_t read = modificationTime(configFile());
  EXPECT_EQ(mount.configTime, read);
  EXPECT_TRUE(mount.isUpToDate());
  setTimes(configFile(), read + 1);
  EXPECT_FALSE(mount.isUpToDate());
  setTimes(configFile(), read - 1);
  EXPECT_FALSE(mount.isUpToDate()) << "an older file is another file";
  setTimes(configFile(), read + 5, read);
  EXPECT_TRUE(mount.isUpToDate()) << "reading it is no change";
}

TEST_F(MountPointTest, IsNotUpToDateWithoutItsFile) {
  KTRepositoryHandler repository(files.id());
  KTMountPointHandler& mount = *repository.mountPoints.at(0);
  files.takeOut(0);
  EXPECT_FALSE(mount.isUpToDate());
  EXPECT_THAT(log.texts(), IsEmpty());
  files.giveBack(0);
  EXPECT_TRUE(mount.isUpToDate());
}

TEST_F(MountPointTest, AMountThatAppearedIsNotUpToDateUntilItWasRead) {
  files.takeOut(0);
  KTRepositoryHandler repository(files.id());
  files.giveBack(0);
  EXPECT_FALSE(repository.mountPoints.at(0)->isUpToDate());
}
