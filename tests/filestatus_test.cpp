#include "filestatus.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

#include "KTLogger.h"
#include "fakes/fakes.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr long kUntouched = -77;

std::string cannotBeStated(const std::string& path, int error) {
  return "The resource \"" + path + "\" can not be stat-ed. Error code is " + static_cast<char>(error);
}

std::string statvfsFailed(const std::string& path, int error) {
  return "Error occured while statvfs call to \"" + path + "\". Error code is " + static_cast<char>(error);
}

struct stat statusOfTimes(time_t access, time_t modification) {
  struct stat status = {};
  status.st_atime = access;
  status.st_mtime = modification;
  return status;
}

struct statvfs spaceOf(fsblkcnt_t blocks, fsblkcnt_t available) {
  struct statvfs space = {};
  space.f_blocks = blocks;
  space.f_bfree = space.f_bavail = available;
  return space;
}

// What blocksToFree stores for a known space; nullopt when it fails.
std::optional<long> toFree(const struct statvfs& space, int limit) {
  struct statvfs known = space;
  long count = kUntouched;
  if (blocksToFree("/data/m1", limit, &count, &known) != 0) return std::nullopt;
  return count;
}

struct statvfs freeCounts(fsblkcnt_t bfree, fsblkcnt_t bavail, fsfilcnt_t ffree, fsfilcnt_t favail) {
  struct statvfs space = {};
  space.f_bfree = bfree;
  space.f_bavail = bavail;
  space.f_ffree = ffree;
  space.f_favail = favail;
  return space;
}

}  // namespace

TEST(IsNotLinkTest, IsTrueOnlyForWhatPositivelyIsSomethingElse) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  makeDirectories(dir / "directory");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  makeLink(dir / "file", dir / "toFile");
  makeLink(dir / "directory", dir / "toDirectory");
  makeLink(dir / "missing", dir / "dangling");
  makeLink(dir / "loop", dir / "loop");
  makeLink("f", dir / "oneByte");
  const struct {
    std::string path;
    bool want;
  } rows[] = {
      {dir / "file", true},
      {dir / "directory", true},
      {dir / "directory/", true},
      {dir / "pipe", true},
      {"/", true},
      {dir / "toDirectory/", true},  // the slash leads to the directory behind the link
      {dir / "toFile", false},
      {dir / "toDirectory", false},
      {dir / "dangling", false},
      {dir / "loop", false},
      {dir / "oneByte", false},
      {dir / "missing", false},              // ENOENT
      {dir / "file/below", false},           // ENOTDIR
      {dir / "loop/below", false},           // ELOOP
      {dir / std::string(256, 'n'), false},  // ENAMETOOLONG
      {std::string(100000, 'n'), false},     // ENAMETOOLONG
      {"", false},                           // ENOENT
  };
  for (const auto& row : rows) EXPECT_EQ(isNotLink(row.path.c_str()), row.want) << row.path.substr(0, 300);
}

TEST(IsNotLinkTest, NeverLogs) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  isNotLink((dir / "missing").c_str());
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(IsNotLinkTest, AnswersTheSameAfterAnEarlierFailure) {
  const ScratchDirectory dir;
  makeLink(dir.path(), dir / "link");
  errno = EINVAL;  // as an earlier call may have left it
  EXPECT_FALSE(isNotLink((dir / "link").c_str()));
  errno = EINVAL;
  EXPECT_FALSE(isNotLink((dir / "missing").c_str()));
}

TEST(MyStatTest, GivesTheStatusOfTheResource) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  writeFile(dir / "file", "content");
  setTimes(dir / "file", 1000, 2000);
  struct stat status;
  EXPECT_EQ(myStat((dir / "file").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_size, 7);
  EXPECT_EQ(status.st_atime, 1000);
  EXPECT_EQ(status.st_mtime, 2000);
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(MyStatTest, FollowsLinks) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "content");
  makeLink(dir / "file", dir / "link");
  struct stat status;
  EXPECT_EQ(myStat((dir / "link").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST(MyStatTest, FailsWithEightAndOneLineThatEndsInTheByteOfTheError) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  struct stat status;
  EXPECT_EQ(myStat((dir / "missing").c_str(), &status), 8);
  EXPECT_THAT(log.texts(),
              ElementsAre("The resource \"" + dir.path() + "/missing\" can not be stat-ed. Error code is \x02"));
}

TEST(MyStatTest, LogsAtErrorLevelOnTheGeneralStream) {
  const EnvironmentVariable facility("LOG_FACILITY", "local5");
  KTLogger::m_lastFacility = FACILITY_NONE;  // so that the stream is opened anew
  const ScratchDirectory dir;
  const FakeSyslog log;
  struct stat status;
  myStat((dir / "missing").c_str(), &status);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines[0].ident, "KTRepositoryHandler");
  EXPECT_EQ(log.lines[0].option, LOG_PID);
  EXPECT_EQ(log.lines[0].facility, LOG_LOCAL5);
}

TEST(MyStatTest, NamesEveryErrorByItsByte) {
  for (const int error : {EPERM, ENOENT, EIO, EACCES, ENOTDIR, ENOMEM, ENAMETOOLONG, ELOOP, EOVERFLOW, ESTALE}) {
    const FakeSyslog log;
    const FailingCall failing("stat", error, "/data/m1/resource");
    struct stat status;
    EXPECT_EQ(myStat("/data/m1/resource", &status), 8) << error;
    EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated("/data/m1/resource", error)));
  }
}

TEST(MyStatTest, TheByteOfErrorThirtySevenLeavesTheFormatUnfinished) {
  static_assert(ENOLCK == '%');
  const FakeSyslog log;
  const FailingCall failing("stat", ENOLCK, "/data/m1/resource");
  struct stat status;
  EXPECT_EQ(myStat("/data/m1/resource", &status), 8);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].format, "The resource \"/data/m1/resource\" can not be stat-ed. Error code is %");
}

TEST(MyStatTest, FailsForADanglingLink) {
  const ScratchDirectory dir;
  makeLink(dir / "missing", dir / "link");
  const FakeSyslog log;
  struct stat status;
  EXPECT_EQ(myStat((dir / "link").c_str(), &status), 8);
  EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated(dir / "link", ENOENT)));
}

TEST(MyStatTest, FailsForAnEmptyPathAndForAnOverlongOne) {
  const FakeSyslog log;
  struct stat status;
  EXPECT_EQ(myStat("", &status), 8);
  const std::string overlong(100000, 'n');
  EXPECT_EQ(myStat(overlong.c_str(), &status), 8);
  EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated("", ENOENT), cannotBeStated(overlong, ENAMETOOLONG)));
}

TEST(MyStatTest, APercentSignInThePathIsExpandedByTheLogger) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  struct stat status;
  myStat((dir / "100%%").c_str(), &status);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].format, cannotBeStated(dir / "100%%", ENOENT));
  EXPECT_EQ(log.lines[0].text, cannotBeStated(dir / "100%", ENOENT));
}

TEST(MyStatTest, AssertsThatBothArgumentsAreGiven) {
  const FakeSyslog log;
  struct stat status;
  EXPECT_EQ(failedExpression([&] { myStat(nullptr, &status); }), "resource");
  EXPECT_EQ(failedExpression([&] { myStat("/", nullptr); }), "resStat");
  EXPECT_EQ(failedExpression([&] { myStat(nullptr, nullptr); }), "resource");
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(IsDirTest, TellsDirectoriesFromEverythingElse) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  const struct {
    std::string path;
    bool want;
  } rows[] = {{dir.path(), true}, {dir / "", true}, {"/", true}, {dir / "file", false}, {dir / "pipe", false}};
  for (const auto& row : rows) {
    bool isDirectory = !row.want;
    EXPECT_EQ(isDir(row.path.c_str(), &isDirectory, nullptr), 0) << row.path;
    EXPECT_EQ(isDirectory, row.want) << row.path;
  }
}

TEST(IsDirTest, ALinkToADirectoryIsADirectory) {
  const ScratchDirectory dir;
  makeLink(dir.path(), dir / "link");
  bool isDirectory = false;
  EXPECT_EQ(isDir((dir / "link").c_str(), &isDirectory, nullptr), 0);
  EXPECT_TRUE(isDirectory);
}

TEST(IsDirTest, AFailureGivesEightAndLeavesTheFlag) {
  const ScratchDirectory dir;
  for (const bool before : {false, true}) {
    const FakeSyslog log;
    bool isDirectory = before;
    EXPECT_EQ(isDir((dir / "missing").c_str(), &isDirectory, nullptr), 8);
    EXPECT_EQ(isDirectory, before);
    EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated(dir / "missing", ENOENT)));
  }
}

TEST(IsDirTest, AKnownStatusIsTakenWithoutAskingTheFileSystem) {
  const CallWatch watch;
  const FakeSyslog log;
  const struct {
    mode_t mode;
    bool want;
  } rows[] = {{S_IFDIR | 0755, true}, {S_IFREG | 0644, false}, {S_IFLNK | 0777, false},
              {S_IFIFO, false},       {S_IFBLK, false},        {S_IFSOCK, false}};
  for (const auto& row : rows) {
    struct stat known = {};
    known.st_mode = row.mode;
    bool isDirectory = !row.want;
    EXPECT_EQ(isDir("/missing", &isDirectory, &known), 0);
    EXPECT_EQ(isDirectory, row.want) << row.mode;
  }
  EXPECT_THAT(watch.calls, IsEmpty());
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(IsDirTest, NeedsNoPathWithAKnownStatus) {
  struct stat known = {};
  known.st_mode = S_IFDIR;
  bool isDirectory = false;
  EXPECT_EQ(isDir(nullptr, &isDirectory, &known), 0);
  EXPECT_TRUE(isDirectory);
}

TEST(IsDirTest, AssertsThatFlagAndPathAreGiven) {
  bool isDirectory = false;
  EXPECT_EQ(failedExpression([&] { isDir("/", nullptr, nullptr); }), "isDirectory");
  EXPECT_EQ(failedExpression([&] { isDir(nullptr, &isDirectory, nullptr); }), "resource");
}

TEST(LastModifiedTest, GivesTheModificationTime) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  setTimes(dir / "file", 3000, 2000);
  EXPECT_EQ(lastModified((dir / "file").c_str()), 2000);
  setTimes(dir / "file", 1000, 0);
  EXPECT_EQ(lastModified((dir / "file").c_str()), 0);
}

TEST(LastModifiedTest, FollowsLinks) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  makeLink(dir / "file", dir / "link");
  setTimes(dir / "file", 2000);
  EXPECT_EQ(lastModified((dir / "link").c_str()), 2000);
}

TEST(LastModifiedTest, AFailureGivesMinusOneAndOneLine) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  EXPECT_EQ(lastModified((dir / "missing").c_str()), -1);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(cannotBeStated(dir / "missing", ENOENT)));
}

TEST(LastModifiedTest, AssertsThatThePathIsGiven) {
  EXPECT_EQ(failedExpression([] { lastModified(nullptr); }), "resource");
}

TEST(LastAccessTest, GivesTheLaterOfBothTimes) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  const struct {
    time_t access;
    time_t modification;
    time_t want;
  } rows[] = {
      {2000, 2000, 2000}, {2001, 2000, 2001},
      {2000, 2001, 2001}, {0, 5, 5},
      {5, 0, 5},          {std::numeric_limits<int32_t>::max(), 1, std::numeric_limits<int32_t>::max()},
  };
  for (const auto& row : rows) {
    setTimes(dir / "file", row.access, row.modification);
    EXPECT_EQ(lastAccess((dir / "file").c_str(), nullptr), row.want) << row.access << " " << row.modification;
    struct stat known = statusOfTimes(row.access, row.modification);
    EXPECT_EQ(lastAccess("/missing", &known), row.want) << row.access << " " << row.modification;
  }
}

TEST(LastAccessTest, AKnownStatusIsTakenWithoutAskingTheFileSystem) {
  const CallWatch watch;
  const FakeSyslog log;
  struct stat known = statusOfTimes(1001, 1000);
  EXPECT_EQ(lastAccess("/missing", &known), 1001);
  EXPECT_EQ(lastAccess(nullptr, &known), 1001);
  EXPECT_THAT(watch.calls, IsEmpty());
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(LastAccessTest, LeavesTheKnownStatusAsItWas) {
  struct stat known = statusOfTimes(1001, 1000);
  const struct stat before = known;
  lastAccess("/missing", &known);
  EXPECT_EQ(memcmp(&known, &before, sizeof known), 0);
}

TEST(LastAccessTest, AFailureGivesMinusOneAndOneLine) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  EXPECT_EQ(lastAccess((dir / "missing").c_str(), nullptr), -1);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(cannotBeStated(dir / "missing", ENOENT)));
}

TEST(LastAccessTest, AssertsThatThePathIsGiven) {
  EXPECT_EQ(failedExpression([] { lastAccess(nullptr, nullptr); }), "resource");
}

TEST(MyStatVfsTest, GivesWhatTheFileSystemSays) {
  FakeDisks disks;
  const FakeSyslog log;
  disks.set("/data/m1", 1000, 50);
  struct statvfs space = {};
  EXPECT_EQ(myStatVfs("/data/m1", &space), 0);
  EXPECT_EQ(space.f_blocks, 1000u);
  EXPECT_EQ(space.f_bavail, 50u);
  EXPECT_EQ(disks.calls("/data/m1"), 1);
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(MyStatVfsTest, ReadsARealFileSystem) {
  const ScratchDirectory dir;
  struct statvfs space = {};
  EXPECT_EQ(myStatVfs(dir.path().c_str(), &space), 0);
  EXPECT_GT(space.f_frsize, 0u);
}

TEST(MyStatVfsTest, FailsWithEightAndOneLineThatEndsInTheByteOfTheError) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  struct statvfs space;
  EXPECT_EQ(myStatVfs((dir / "missing").c_str(), &space), 8);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("Error occured while statvfs call to \"" + dir.path() + "/missing\". Error code is \x02"));
  EXPECT_EQ(log.lines.size(), 1u);
}

TEST(MyStatVfsTest, NamesEveryErrorByItsByte) {
  FakeDisks disks;
  for (const int error : {EPERM, ENOENT, EIO, EACCES, ENOTDIR, ENOMEM, ENAMETOOLONG, ELOOP, EOVERFLOW, ESTALE}) {
    disks.fail("/data/m1", error);
    const FakeSyslog log;
    struct statvfs space;
    EXPECT_EQ(myStatVfs("/data/m1", &space), 8) << error;
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(statvfsFailed("/data/m1", error)));
  }
}

TEST(MyStatVfsTest, APercentSignInThePathIsExpandedByTheLogger) {
  FakeDisks disks;
  disks.fail("/data/100%%", EIO);
  const FakeSyslog log;
  struct statvfs space;
  myStatVfs("/data/100%%", &space);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].format, statvfsFailed("/data/100%%", EIO));
  EXPECT_EQ(log.lines[0].text, statvfsFailed("/data/100%", EIO));
}

TEST(MyStatVfsTest, AssertsThatBothArgumentsAreGiven) {
  const FakeDisks disks;
  struct statvfs space;
  EXPECT_EQ(failedExpression([&] { myStatVfs(nullptr, &space); }), "mountPath");
  EXPECT_EQ(failedExpression([&] { myStatVfs("/data/m1", nullptr); }), "resStatVfs");
  EXPECT_EQ(failedExpression([&] { myStatVfs(nullptr, nullptr); }), "mountPath");
}

// 950 of 1000 blocks are used, and 90 percent in single precision is a little less than 900 blocks.
TEST(BlocksToFreeTest, FiftyOneBlocksAreTooManyWhenFiftyOfAThousandAreAvailableAtALimitOfNinety) {
  EXPECT_EQ(toFree(spaceOf(1000, 50), 90), 51);
}

TEST(BlocksToFreeTest, CountsWhatIsUsedAboveTheLimit) {
  const struct {
    fsblkcnt_t blocks;
    fsblkcnt_t available;
    int limit;
    long want;
  } rows[] = {
      {1000, 50, 70, 251},  // 699 allowed
      {1000, 50, 95, 1},    // 949 allowed
      {1000, 50, 1, 941},   // 9 allowed
      {1000, 50, 10, 850},  // in single precision a little more than 100 blocks
      {1000, 50, 98, -30}, {1000, 50, 99, -40}, {1000, 50, 0, 950},     {1000, 50, 100, -50},
      {1000, 0, 100, 0},   {1000, 1000, 0, 0},  {1000, 1000, 90, -899}, {1000, 1000, 100, -1000},
      {1000, 500, 50, 0},  {1000, 499, 50, 1},  {1000, 501, 50, -1},    {999, 0, 50, 500},  // 499.5 allowed, cut to 499
      {1, 0, 100, 0},      {1, 0, 99, 1},       {0, 0, 90, 0},          {0, 0, 0, 0},
  };
  for (const auto& row : rows)
    EXPECT_EQ(toFree(spaceOf(row.blocks, row.available), row.limit), row.want)
        << row.blocks << " " << row.available << " " << row.limit;
}

TEST(BlocksToFreeTest, ComputesBigCountsToTheBlock) {
  const struct {
    fsblkcnt_t blocks;
    fsblkcnt_t available;
    int limit;
    long want;
  } rows[] = {
      {2000000011, 0, 50, 1000000006},  // 1000000005 allowed; a product in single precision is off by blocks
      {2000000011, 0, 90, 200000049},   // 1799999962 allowed
      {2147483647, 2147483647, 100, -2147483647},
      {2147483647, 0, 0, 2147483647},
      // Counts beyond 31 bits, with a result that fits.
      {4000000000, 1000000000, 50, 1000000000},
      {4294967295, 3000000000, 0, 1294967295},
      {4294967295, 0, 90, 429496832},  // 3865470463 allowed
      {4294967295, 1, 100, -1},
  };
  for (const auto& row : rows)
    EXPECT_EQ(toFree(spaceOf(row.blocks, row.available), row.limit), row.want)
        << row.blocks << " " << row.available << " " << row.limit;
}

TEST(BlocksToFreeTest, TakesCountsOfThePlatformsFullWidth) {
  const struct {
    uint64_t blocks;
    uint64_t available;
    int limit;
    int64_t want;
  } wideRows[] = {
      {4000000000, 0, 0, 4000000000},
      {4294967296, 0, 50, 2147483648},
      {1099511627777, 0, 90, 109951188993},         // 989560438784 allowed
      {9007199254740995, 0, 50, 4503599627370498},  // beyond what a double holds exactly
      {4611686018427387904, 4611686018427387904, 100, -4611686018427387904},
  };
  if (sizeof(fsblkcnt_t) < sizeof(uint64_t)) {
    // A count of 32 bits is a signed one: what is beyond 31 bits comes out below zero.
    EXPECT_EQ(toFree(spaceOf(4000000000, 0), 0), -294967296);
    return;
  }
  for (const auto& row : wideRows)
    EXPECT_EQ(toFree(spaceOf(static_cast<fsblkcnt_t>(row.blocks), static_cast<fsblkcnt_t>(row.available)), row.limit),
              static_cast<long>(row.want))
        << row.blocks << " " << row.available << " " << row.limit;
}

TEST(BlocksToFreeTest, BlocksKeptBackForRootCountAsUsed) {
  struct statvfs space = spaceOf(1000, 50);
  space.f_bfree = 200;
  EXPECT_EQ(toFree(space, 90), 51);
}

TEST(BlocksToFreeTest, AKnownSpaceIsTakenWithoutAskingTheFileSystem) {
  const FakeDisks disks;  // fails the test at any call
  const FakeSyslog log;
  EXPECT_EQ(toFree(spaceOf(1000, 50), 90), 51);
  EXPECT_EQ(disks.calls("/data/m1"), 0);
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(BlocksToFreeTest, AsksTheFileSystemOnceWithoutAKnownSpace) {
  FakeDisks disks;
  disks.set("/data/m1", 1000, 50);
  long count = kUntouched;
  EXPECT_EQ(blocksToFree("/data/m1", 90, &count, nullptr), 0);
  EXPECT_EQ(count, 51);
  EXPECT_EQ(disks.calls("/data/m1"), 1);
}

TEST(BlocksToFreeTest, AFailureGivesOneAndLeavesTheCount) {
  FakeDisks disks;
  disks.fail("/data/m1", EIO);
  const FakeSyslog log;
  long count = kUntouched;
  EXPECT_EQ(blocksToFree("/data/m1", 90, &count, nullptr), 1);
  EXPECT_EQ(count, kUntouched);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(statvfsFailed("/data/m1", EIO)));
  EXPECT_EQ(log.lines.size(), 1u);
}

TEST(BlocksToFreeTest, AMissingPathGivesOneAndLeavesTheCount) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  long count = kUntouched;
  EXPECT_EQ(blocksToFree((dir / "missing").c_str(), 90, &count, nullptr), 1);
  EXPECT_EQ(count, kUntouched);
  EXPECT_THAT(log.texts(), ElementsAre(statvfsFailed(dir / "missing", ENOENT)));
}

TEST(BlocksToFreeTest, AssertsThatPathAndCountAreGiven) {
  const FakeDisks disks;
  struct statvfs known = spaceOf(1000, 50);
  long count = kUntouched;
  EXPECT_EQ(failedExpression([&] { blocksToFree(nullptr, 90, &count, &known); }), "mountPath");
  EXPECT_EQ(failedExpression([&] { blocksToFree("/data/m1", 90, nullptr, &known); }), "blockCount");
  EXPECT_EQ(failedExpression([&] { blocksToFree(nullptr, 90, nullptr, nullptr); }), "mountPath");
  EXPECT_EQ(failedExpression([&] { blocksToFree("/data/m1", 90, nullptr, nullptr); }), "blockCount");
  EXPECT_EQ(count, kUntouched);
}

TEST(IsOnTheSameMountTest, ComparesFreeBlocksAndFreeInodes) {
  const struct {
    struct statvfs second;
    bool want;
  } rows[] = {
      {freeCounts(1, 2, 3, 4), true},  {freeCounts(9, 2, 3, 4), false}, {freeCounts(1, 9, 3, 4), false},
      {freeCounts(1, 2, 9, 4), false}, {freeCounts(1, 2, 3, 9), false}, {freeCounts(4, 3, 2, 1), false},
  };
  FakeDisks disks;
  disks.set("/data/m1", freeCounts(1, 2, 3, 4));
  for (const auto& row : rows) {
    disks.set("/data/m2", row.second);
    EXPECT_EQ(IsOnTheSameMount("/data/m1", "/data/m2"), row.want);
    EXPECT_EQ(IsOnTheSameMount("/data/m2", "/data/m1"), row.want);
  }
}

TEST(IsOnTheSameMountTest, TakesTwoFileSystemsThatHappenToAgreeForOne) {
  struct statvfs one = freeCounts(1, 2, 3, 4);
  struct statvfs other = one;
  one.f_fsid = 1;
  one.f_blocks = 1000;
  one.f_files = 100;
  one.f_bsize = one.f_frsize = 1024;
  other.f_fsid = 2;
  other.f_blocks = 2000;
  other.f_files = 200;
  other.f_bsize = other.f_frsize = 4096;
  FakeDisks disks;
  disks.set("/data/m1", one);
  disks.set("/data/m2", other);
  EXPECT_TRUE(IsOnTheSameMount("/data/m1", "/data/m2"));
}

TEST(IsOnTheSameMountTest, ComparesCountsOfThePlatformsFullWidth) {
  const fsblkcnt_t most = std::numeric_limits<fsblkcnt_t>::max();
  FakeDisks disks;
  disks.set("/data/m1", freeCounts(most, most, most, most));
  disks.set("/data/m2", freeCounts(most, most - 1, most, most));
  EXPECT_TRUE(IsOnTheSameMount("/data/m1", "/data/m1"));
  EXPECT_FALSE(IsOnTheSameMount("/data/m1", "/data/m2"));
}

TEST(IsOnTheSameMountTest, AsksForTheFirstAndThenForTheSecond) {
  std::vector<std::string> asked;
  FakeDisks disks;
  for (const std::string path : {"/data/m1", "/data/m2"})
    disks.answerWith(path, [&asked, path](struct statvfs* out) {
      asked.push_back(path);
      *out = {};
      return 0;
    });
  EXPECT_TRUE(IsOnTheSameMount("/data/m2", "/data/m1"));
  EXPECT_THAT(asked, ElementsAre("/data/m2", "/data/m1"));
}

TEST(IsOnTheSameMountTest, TakesAFileSystemThatChangesMeanwhileForTwo) {
  fsblkcnt_t free = 100;
  FakeDisks disks;
  disks.answerWith("/data/m1", [&free](struct statvfs* out) {
    *out = {};
    out->f_bfree = free--;
    return 0;
  });
  EXPECT_FALSE(IsOnTheSameMount("/data/m1", "/data/m1"));
  EXPECT_EQ(disks.calls("/data/m1"), 2) << "the path is asked for twice, although it is one path";
}

TEST(IsOnTheSameMountTest, TwoDirectoriesOfOneFileSystemAreOnTheSame) {
  EXPECT_TRUE(IsOnTheSameMount("/proc", "/proc/self"));  // nothing writes there
  EXPECT_TRUE(IsOnTheSameMount("/proc", "/proc"));
}

TEST(IsOnTheSameMountTest, IsFalseWhenOnePathIsMissing) {
  const ScratchDirectory dir;
  const std::string missing = dir / "missing";
  {
    const FakeSyslog log;
    EXPECT_FALSE(IsOnTheSameMount(missing.c_str(), dir.path().c_str()));
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(statvfsFailed(missing, ENOENT)));
  }
  {
    const FakeSyslog log;
    EXPECT_FALSE(IsOnTheSameMount(dir.path().c_str(), missing.c_str()));
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(statvfsFailed(missing, ENOENT)));
  }
}

TEST(IsOnTheSameMountTest, IsFalseForTheSameMissingPathAndTellsItForEach) {
  const ScratchDirectory dir;
  const std::string missing = dir / "missing";
  const FakeSyslog log;
  EXPECT_FALSE(IsOnTheSameMount(missing.c_str(), missing.c_str()));
  EXPECT_THAT(log.texts(), ElementsAre(statvfsFailed(missing, ENOENT), statvfsFailed(missing, ENOENT)));
}

TEST(IsOnTheSameMountTest, TwoMissingPathsAreToldInTheirOrder) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  EXPECT_FALSE(IsOnTheSameMount((dir / "one").c_str(), (dir / "two").c_str()));
  EXPECT_THAT(log.texts(), ElementsAre(statvfsFailed(dir / "one", ENOENT), statvfsFailed(dir / "two", ENOENT)));
}

TEST(IsOnTheSameMountTest, AssertsThatBothPathsAreGiven) {
  FakeDisks disks;
  disks.set("/data/m1", 1000, 50);
  EXPECT_EQ(failedExpression([] { IsOnTheSameMount(nullptr, "/data/m1"); }), "mountPath");
  EXPECT_EQ(failedExpression([] { IsOnTheSameMount("/data/m1", nullptr); }), "mountPath");
}
