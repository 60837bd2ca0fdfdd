#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <optional>
#include <vector>

#include "KTException.h"
#include "KTRepositoryHandler.h"
#include "fakes/fakes.h"
#include "support/repository.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using Candidates = std::set<ResourceEntry, ltres>;

constexpr time_t kNow = 1600000000;
constexpr unsigned int kPlenty = 1000;

// A directory of the third hash level; the walk takes any names for the levels.
const char* const kLevels = "/AA/BB/CC";

std::string numbered(std::string text, int number) { return text.append(std::to_string(number)); }

std::vector<std::string> namesOf(const Candidates& candidates) {
  std::vector<std::string> names;
  for (const ResourceEntry& entry : candidates) names.push_back(entry.name);
  return names;
}

std::vector<time_t> timesOf(const Candidates& candidates) {
  std::vector<time_t> times;
  for (const ResourceEntry& entry : candidates) times.push_back(entry.lastAccessTime);
  return times;
}

// Three mounts on disks that are half full. It is kNow, and what was not used for a minute may be moved.
class CandidatesTest : public testing::Test {
 protected:
  CandidatesTest() {
    clock.now = kNow;
    for (size_t i = 0; i < 3; ++i) disks.setUsed(files.mount(i), 50);
    repository.emplace(files.id());
  }

  KTMountPointHandler& mount(size_t index) { return *repository->mountPoints.at(index); }

  // Makes a resource beside the others in one directory of a mount.
  std::string leaf(const std::string& name, time_t used, size_t index = 0) const {
    const std::string path = files.mount(index) + kLevels + "/" + name;
    writeFile(path, "");
    setTimes(path, used);
    return path;
  }

  Candidates oldest(unsigned int max = kPlenty, size_t index = 0) {
    Candidates found;
    const int size = mount(index).getOldestResources(&found, max, "", 0);
    EXPECT_EQ(size, static_cast<int>(found.size()));
    return found;
  }
  Candidates random(unsigned int max = kPlenty, size_t index = 0) {
    Candidates found;
    const int size = mount(index).getRandomResources(&found, max, "", 0);
    EXPECT_EQ(size, static_cast<int>(found.size()));
    return found;
  }
  // What both walks find.
  void expectBoth(const std::vector<std::string>& sortedNames) {
    for (const Candidates& found : {oldest(), random()}) {
      std::vector<std::string> names = namesOf(found);
      std::sort(names.begin(), names.end());
      EXPECT_EQ(names, sortedNames);
    }
  }

  TestRepository files{{"d1", "d2", "d3"}, "nomoveTimeSeconds=60\n"};
  FakeDisks disks;
  FakeClock clock;
  FakeSyslog log;
  std::optional<KTRepositoryHandler> repository;
};

ResourceEntry entryOf(time_t time, const std::string& path) { return {path, "", "", time}; }

}  // namespace

TEST(CandidateOrderTest, OlderComesFirstAndOfEqualTimesTheGreaterPath) {
  const struct {
    ResourceEntry a;
    ResourceEntry b;
    bool aFirst;
    bool bFirst;
  } rows[] = {
      {entryOf(1, "/a"), entryOf(2, "/a"), true, false},
      {entryOf(1, "/a"), entryOf(2, "/b"), true, false},
      {entryOf(1, "/b"), entryOf(2, "/a"), true, false},
      {entryOf(-1, "/a"), entryOf(0, "/b"), true, false},  // before the epoch
      {entryOf(-2147483647, "/a"), entryOf(2147483647, "/b"), true, false},
      {entryOf(5, "/b"), entryOf(5, "/a"), true, false},
      {entryOf(5, "/aa"), entryOf(5, "/a"), true, false},
      {entryOf(5, "/a"), entryOf(5, "/B"), true, false},
      {entryOf(5, "/\xe9"), entryOf(5, "/z"), true, false},  // bytes, not signed characters
      {entryOf(5, "/a"), entryOf(5, "/a"), false, false},
      {entryOf(5, ""), entryOf(5, ""), false, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ltres()(row.a, row.b), row.aFirst) << row.a.path << " before " << row.b.path;
    EXPECT_EQ(ltres()(row.b, row.a), row.bFirst) << row.b.path << " before " << row.a.path;
  }
}

TEST(CandidateOrderTest, EntriesOfOneTimeAndPathAreOne) {
  Candidates set;
  set.insert({"/d1/a", "/a", "a", 5});
  set.insert({"/d1/a", "", "other", 5});
  set.insert({"/d1/a", "/a", "a", 6});
  EXPECT_THAT(timesOf(set), ElementsAre(5, 6));
}

TEST_F(CandidatesTest, AnEntryNamesTheResourceInFull) {
  const std::string path = files.place(1, "report", "content", 1000);
  const Candidates found = oldest(kPlenty, 1);
  ASSERT_THAT(found, SizeIs(1));
  const ResourceEntry& entry = *found.begin();
  EXPECT_EQ(entry.path, path);
  EXPECT_EQ(entry.relativePath, path.substr(files.mount(1).size()));
  EXPECT_THAT(entry.relativePath, StartsWith("/"));
  EXPECT_EQ(entry.name, "report");
  EXPECT_EQ(entry.lastAccessTime, 1000);
}

TEST_F(CandidatesTest, ARandomEntryHasNoTime) {
  const std::string path = files.place(1, "report", "content", 1000);
  const Candidates found = random(kPlenty, 1);
  ASSERT_THAT(found, SizeIs(1));
  const ResourceEntry& entry = *found.begin();
  EXPECT_EQ(entry.path, path);
  EXPECT_EQ(entry.relativePath, path.substr(files.mount(1).size()));
  EXPECT_EQ(entry.name, "report");
  EXPECT_EQ(entry.lastAccessTime, 0);
}

TEST_F(CandidatesTest, TheOldestComeFirstFromAllDirectories) {
  files.place(0, "b", "", 3000);
  files.placeFile(0, "a", "", 1000);
  files.place(0, "c", "", 2000);
  leaf("d", 500);
  files.place(1, "elsewhere", "", 1);
  EXPECT_THAT(namesOf(oldest()), ElementsAre("d", "a", "c", "b"));
}

TEST_F(CandidatesTest, RandomResourcesAreOrderedByPathAlone) {
  leaf("b", 1000);
  leaf("a", 2000);
  leaf("c", 3000);
  EXPECT_THAT(namesOf(random()), ElementsAre("c", "b", "a"));
}

TEST_F(CandidatesTest, UsedIsReadOrWrittenWhicheverWasLater) {
  setTimes(leaf("read", 1), 3000, 1000);
  setTimes(leaf("written", 1), 1000, 2000);
  const Candidates found = oldest();
  EXPECT_THAT(namesOf(found), ElementsAre("written", "read"));
  EXPECT_THAT(timesOf(found), ElementsAre(2000, 3000));
}

TEST_F(CandidatesTest, ResourcesUsedWithinTheTimeWithoutMovesAreNoCandidates) {
  leaf("at", kNow - 60);
  leaf("before", kNow - 61);
  leaf("within", kNow - 59);
  leaf("now", kNow);
  leaf("future", kNow + 100000);
  EXPECT_THAT(namesOf(oldest()), ElementsAre("before", "at"));
}

TEST_F(CandidatesTest, AReadWithinTheTimeWithoutMovesCountsToo) {
  setTimes(leaf("read", 1), kNow - 59, 1000);
  setTimes(leaf("written", 1), 1000, kNow - 59);
  EXPECT_THAT(oldest(), IsEmpty());
}

TEST_F(CandidatesTest, TheTimeWithoutMovesIsTheMountsCopy) {
  leaf("recent", kNow - 30);
  repository->nomoveTime = 0;
  EXPECT_THAT(oldest(), IsEmpty());
  mount(0).nomoveTime = 30;
  EXPECT_THAT(namesOf(oldest()), ElementsAre("recent"));
}

TEST_F(CandidatesTest, WithoutATimeWithoutMovesOnlyTheFutureIsLeftOut) {
  mount(0).nomoveTime = 0;
  leaf("now", kNow);
  leaf("future", kNow + 1);
  EXPECT_THAT(namesOf(oldest()), ElementsAre("now"));
}

TEST_F(CandidatesTest, ATimeWithoutMovesThatWrapsBelowZeroReachesIntoTheFuture) {
  mount(0).nomoveTime = -6;
  leaf("near", kNow + 6);
  leaf("far", kNow + 7);
  EXPECT_THAT(namesOf(oldest()), ElementsAre("near"));
}

TEST_F(CandidatesTest, ATimeWithoutMovesBeyondTheEpochLeavesNoCandidate) {
  mount(0).nomoveTime = INT_MAX;
  leaf("old", 0);
  EXPECT_THAT(oldest(), IsEmpty());
}

TEST_F(CandidatesTest, RandomResourcesMayBeOfAnyAge) {
  leaf("old", 1);
  leaf("future", kNow + 1);
  leaf("new", kNow);
  EXPECT_THAT(namesOf(random()), ElementsAre("old", "new", "future"));
}

TEST_F(CandidatesTest, TheSetNeverHoldsMoreThanItsMaximum) {
  for (int i = 0; i < 20; ++i) leaf(numbered("r", i), 1000 + (i * 7) % 20);
  EXPECT_THAT(timesOf(oldest(5)), ElementsAre(1000, 1001, 1002, 1003, 1004));
  EXPECT_THAT(timesOf(oldest(1)), ElementsAre(1000));
  EXPECT_THAT(oldest(20), SizeIs(20));
  EXPECT_THAT(oldest(UINT_MAX), SizeIs(20));
}

TEST_F(CandidatesTest, OfEqualTimesTheGreaterPathsStay) {
  for (const char* name : {"a", "b", "c", "d", "e"}) leaf(name, 1000);
  EXPECT_THAT(namesOf(oldest()), ElementsAre("e", "d", "c", "b", "a"));
  EXPECT_THAT(namesOf(oldest(2)), ElementsAre("e", "d"));
}

// The names are listed in ascending order, so the second comes when the set is full already.
TEST_F(CandidatesTest, AnEntryAsOldAsTheNewestMayDisplaceIt) {
  leaf("a", 1000);
  leaf("b", 1000);
  EXPECT_THAT(namesOf(oldest(1)), ElementsAre("b"));
}

TEST_F(CandidatesTest, EntriesAlreadyInTheSetCount) {
  leaf("old", 1000);
  leaf("new", 3000);
  Candidates found = {entryOf(2000, "/elsewhere")};
  EXPECT_EQ(mount(0).getOldestResources(&found, 2, "", 0), 2);
  EXPECT_THAT(timesOf(found), ElementsAre(1000, 2000));
}

TEST_F(CandidatesTest, ASetAboveItsMaximumChangesButDoesNotShrink) {
  leaf("old", 1000);
  Candidates found = {entryOf(2000, "/elsewhere"), entryOf(3000, "/elsewhere")};
  EXPECT_EQ(mount(0).getOldestResources(&found, 1, "", 0), 2);
  EXPECT_THAT(timesOf(found), ElementsAre(1000, 2000));
}

TEST_F(CandidatesTest, ASetThatIsFullStopsTheRandomWalkAtOnce) {
  leaf("a", 1000);
  Candidates found = {entryOf(2000, "/elsewhere")};
  EXPECT_EQ(mount(0).getRandomResources(&found, 1, "", 0), 1);
  EXPECT_THAT(timesOf(found), ElementsAre(2000));
}

TEST_F(CandidatesTest, TheRandomWalkStopsWhenTheSetHoldsItsMaximum) {
  const std::vector<std::string> names = {"a", "b", "c", "d", "e"};
  for (const std::string& name : names) leaf(name, 1000);
  writeFile(files.mount(0) + "/DD/EE/FF/g", "");
  for (unsigned int max = 1; max <= names.size(); ++max) {
    CallWatch watch;
    const Candidates found = random(max);
    EXPECT_THAT(found, SizeIs(max));
    EXPECT_THAT(namesOf(found), IsSubsetOf(names));
    EXPECT_THAT(watch.calls, Not(Contains(HasSubstr("/DD/EE")))) << "nothing was looked at beyond the last";
  }
}

TEST_F(CandidatesTest, AMaximumOfZeroListsNothing) {
  leaf("a", 1000);
  const FailingCall unlisted("opendir", EIO);
  CallWatch watch;
  EXPECT_THAT(oldest(0), IsEmpty());
  EXPECT_THAT(random(0), IsEmpty());
  EXPECT_EQ(unlisted.failed(), 0);
  EXPECT_THAT(watch.calls, IsEmpty());
}

TEST_F(CandidatesTest, AMaximumOfZeroAnswersZeroWhateverTheSetHolds) {
  files.takeOut(0);
  Candidates found = {entryOf(2000, "/elsewhere")};
  EXPECT_EQ(mount(0).getOldestResources(&found, 0, "", 0), 0);
  EXPECT_EQ(mount(0).getRandomResources(&found, 0, "", 0), 0);
  EXPECT_THAT(found, SizeIs(1));
}

TEST_F(CandidatesTest, AMissingMountIsNotListed) {
  leaf("a", 1000);
  files.takeOut(0);
  const FailingCall unlisted("opendir", EIO);
  Candidates found;
  EXPECT_EQ(mount(0).getOldestResources(&found, kPlenty, "", 0), -1);
  EXPECT_EQ(mount(0).getRandomResources(&found, kPlenty, "", 0), -1);
  EXPECT_THAT(found, IsEmpty());
  EXPECT_EQ(unlisted.failed(), 0);
  EXPECT_EQ(mount(0).status, 0x100);
}

TEST_F(CandidatesTest, AMountThatIsPresentIsNotAskedForItsSpace) {
  leaf("a", 1000);
  const int before = disks.calls(files.mount(0));
  EXPECT_THAT(oldest(), SizeIs(1));
  EXPECT_THAT(random(), SizeIs(1));
  EXPECT_EQ(disks.calls(files.mount(0)), before);
}

TEST_F(CandidatesTest, AMountThatCannotBeListedHasNoCandidates) {
  leaf("a", 1000);
  const FailingCall unlisted("opendir", EIO);
  EXPECT_THAT(oldest(), IsEmpty());
  EXPECT_THAT(random(), IsEmpty());
  EXPECT_EQ(unlisted.failed(), 2);
}

TEST_F(CandidatesTest, ADirectoryThatCannotBeListedIsLeftOut) {
  leaf("a", 1000);
  writeFile(files.mount(0) + "/DD/EE/FF/g", "");
  setTimes(files.mount(0) + "/DD/EE/FF/g", 1000);
  const FailingCall unlisted("opendir", EACCES, "/AA/BB");
  expectBoth({"g"});
}

TEST_F(CandidatesTest, ADirectoryThatCannotBeReadToItsEndIsLeftOut) {
  leaf("a", 1000);
  leaf("b", 1000);
  const FailingCall unread("readdir", EIO, kLevels, 3);
  expectBoth({});
  EXPECT_EQ(unread.failed(), 2);
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(CandidatesTest, NamesOfADirectoryComeInCollationOrder) {
  for (const char* name : {"b", "a", "c"}) leaf(name, 1000);
  const ReversedCollation reversed;
  EXPECT_THAT(namesOf(random(2)), ElementsAre("c", "b"));
}

TEST_F(CandidatesTest, AWalkHoldsFourDescriptorsAndOneOfALockAndNoneAfterwards) {
  leaf("a", 1000);
  const long before = openDescriptors();
  {
    const DescriptorLimit limit(5);
    expectBoth({"a"});
  }
#ifndef __SANITIZE_ADDRESS__  // which needs descriptors itself when the exception for the lock is thrown
  {
    const DescriptorLimit limit(4);
    expectBoth({});
  }
#endif
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(CandidatesTest, NothingOrNoPrefixFailsAnAssertion) {
  Candidates found;
  EXPECT_THROW(mount(0).getOldestResources(nullptr, 1, "", 0), KTAssertionException);
  EXPECT_THROW(mount(0).getRandomResources(nullptr, 1, "", 0), KTAssertionException);
  EXPECT_THROW(mount(0).getOldestResources(&found, 1, nullptr, 0), KTAssertionException);
  EXPECT_THROW(mount(0).getRandomResources(&found, 1, nullptr, 0), KTAssertionException);
  EXPECT_THROW(repository->getGlobalOldestResources(nullptr), KTAssertionException);
}

TEST_F(CandidatesTest, LostAndFoundIsSkippedDirectlyBelowTheMountOnly) {
  for (const char* path :
       {"/lost+found/BB/CC/skipped", "/AA/lost+found/CC/second", "/AA/BB/lost+found/third", "/AA/BB/CC/lost+found"}) {
    writeFile(files.mount(0) + path, "");
    setTimes(files.mount(0) + path, 1000);
  }
  expectBoth({"lost+found", "second", "third"});
}

TEST_F(CandidatesTest, LostAndFoundIsNotLookedInto) {
  makeDirectories(files.mount(0) + "/lost+found/BB");
  CallWatch watch;
  oldest();
  random();
  EXPECT_THAT(watch.calls, Not(Contains(HasSubstr("lost+found"))));
}

TEST_F(CandidatesTest, FilesAtTheHashLevelsAreSkipped) {
  for (const char* path : {"/first", "/AA/second", "/AA/BB/third"}) {
    writeFile(files.mount(0) + path, "");
    setTimes(files.mount(0) + path, 1000);
  }
  leaf("fourth", 1000);
  CallWatch watch;
  expectBoth({"fourth"});
  EXPECT_THAT(watch.calls, Not(Contains("opendir " + files.mount(0) + "/first"))) << "and not opened";
}

TEST_F(CandidatesTest, FilesAndDirectoriesAreResourcesAndNothingInsideThem) {
  leaf("file", 1000);
  const std::string directory = files.mount(0) + kLevels + "/directory";
  writeFile(directory + "/inner/content", "");
  setTimes(directory, 1000);
  CallWatch watch;
  expectBoth({"directory", "file"});
  EXPECT_THAT(watch.calls, Not(Contains(HasSubstr("opendir " + directory))));
}

TEST_F(CandidatesTest, NamesWithADotInFrontAreResourcesToo) {
  leaf(".hidden", 1000);
  leaf("...", 1000);
  expectBoth({"...", ".hidden"});
}

TEST_F(CandidatesTest, LinksAreFollowed) {
  leaf("file", 1000);
  const std::string link = files.mount(0) + kLevels + "/link";
  ASSERT_EQ(symlink("file", link.c_str()), 0);
  ASSERT_EQ(symlink("AA", (files.mount(0) + "/ZZ").c_str()), 0);
  expectBoth({"file", "file", "link", "link"});
}

TEST_F(CandidatesTest, AnEntryThatCannotBeStatedIsSkippedAndLogged) {
  leaf("good", 1000);
  const std::string dangling = files.mount(0) + kLevels + "/dangling";
  ASSERT_EQ(symlink("nowhere", dangling.c_str()), 0);
  const std::string line = "The resource \"" + dangling + "\" can not be stat-ed. Error code is \x02";
  EXPECT_THAT(namesOf(oldest()), ElementsAre("good"));
  EXPECT_THAT(log.texts(), ElementsAre(line));
  EXPECT_THAT(namesOf(random()), ElementsAre("good"));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(line, line));
}

TEST_F(CandidatesTest, AHashDirectoryThatCannotBeStatedIsSkippedAndLogged) {
  leaf("good", 1000);
  writeFile(files.mount(0) + "/AA/XX/CC/lost", "");
  const FailingCall unexamined("stat", EIO, "/AA/XX");
  expectBoth({"good"});
  EXPECT_EQ(unexamined.failed(), 2);
  EXPECT_THAT(log.texts(),
              Each("The resource \"" + files.mount(0) + "/AA/XX\" can not be stat-ed. Error code is \x05"));
}

TEST_F(CandidatesTest, AWalkCanBeginAtAHashLevel) {
  leaf("inside", 1000);
  for (const char* path : {"/DD/EE/FF/outside", "/AA/EE/FF/beside"}) {
    writeFile(files.mount(0) + path, "");
    setTimes(files.mount(0) + path, 1000);
  }
  const struct {
    const char* prefix;
    unsigned int depth;
    std::vector<std::string> want;
  } rows[] = {{"", 0, {"outside", "beside", "inside"}},
              {"/AA", 1, {"beside", "inside"}},
              {"/AA/BB", 2, {"inside"}},
              {"/AA/BB/CC", 3, {"inside"}},
              {"/absent", 1, {}}};
  for (const auto& row : rows) {
    Candidates found;
    EXPECT_EQ(mount(0).getOldestResources(&found, kPlenty, row.prefix, row.depth), static_cast<int>(row.want.size()));
    EXPECT_EQ(namesOf(found), row.want) << row.prefix;
    for (const ResourceEntry& entry : found) {
      EXPECT_EQ(entry.path, files.mount(0) + entry.relativePath);
      EXPECT_THAT(entry.relativePath, StartsWith(row.prefix));
    }
    Candidates any;
    EXPECT_EQ(mount(0).getRandomResources(&any, kPlenty, row.prefix, row.depth), static_cast<int>(row.want.size()));
    EXPECT_EQ(namesOf(any), row.want) << row.prefix;
  }
}

TEST_F(CandidatesTest, TheDepthDecidesWhatIsAResource) {
  leaf("deep", 1000);
  makeDirectories(files.mount(0) + "/lost+found");
  for (const char* name : {"/AA", "/lost+found", "/repositorypart.cfg"}) setTimes(files.mount(0) + name, 1000);
  Candidates found;
  EXPECT_EQ(mount(0).getOldestResources(&found, kPlenty, "", 3), 3);
  EXPECT_THAT(namesOf(found), ElementsAre("repositorypart.cfg", "lost+found", "AA"));
  EXPECT_EQ(found.begin()->relativePath, "/repositorypart.cfg");
  EXPECT_EQ(mount(0).getOldestResources(&found, kPlenty, "/AA/BB/CC", 1), 3) << "a resource at a hash level is none";
}

TEST_F(CandidatesTest, PresenceIsTestedAtTheTopOnly) {
  leaf("a", 1000);
  files.takeOut(0);
  Candidates found;
  EXPECT_EQ(mount(0).getOldestResources(&found, kPlenty, "/AA", 1), 1);
  EXPECT_EQ(mount(0).getRandomResources(&found, kPlenty, "/AA/BB/CC", 3), 2) << "without a time it is another entry";
}

TEST_F(CandidatesTest, ADirtyNameIsLocatedUnderItsLockInstead) {
  leaf("clean", 1000);
  leaf("dirty", 1000);
  repository->dirtyFlagHandler.setDirty("dirty", true);
  const std::string set = files.dirtyLockName();
  const std::string resource = files.lockName("dirty");
  // Each of the five names is looked up in the set; then the dirty one is located, which looks it up again and, with
  // every mount present, takes it out of the set.
  const std::vector<std::string> lookUp = {"+" + set, "-" + set};
  std::vector<std::string> want;
  for (int i = 0; i < 5; ++i) want.insert(want.end(), lookUp.begin(), lookUp.end());  // AA, BB, CC, clean, dirty
  want.push_back("+" + resource);
  for (int i = 0; i < 2; ++i) want.insert(want.end(), lookUp.begin(), lookUp.end());
  want.push_back("-" + resource);
  want.insert(want.end(), lookUp.begin(), lookUp.end());  // the mount's configuration file, listed last
  CallWatch watch;
  EXPECT_THAT(namesOf(oldest()), ElementsAre("clean"));
  EXPECT_EQ(watch.locks, want);
  EXPECT_THAT(repository->dirtyFlagHandler.dirtySet, IsEmpty());
  EXPECT_THAT(files.locksLeft(), IsEmpty());
}

TEST_F(CandidatesTest, ADirtyNameIsLocatedByTheRandomWalkToo) {
  leaf("clean", 1000);
  leaf("dirty", 1000);
  repository->dirtyFlagHandler.setDirty("dirty", true);
  CallWatch watch;
  EXPECT_THAT(namesOf(random()), ElementsAre("clean"));
  EXPECT_THAT(watch.locks, Contains("+" + files.lockName("dirty")));
  EXPECT_THAT(watch.locks, Not(Contains("+" + files.lockName("clean"))));
}

TEST_F(CandidatesTest, LocatingADirtyNameJoinsItsCopies) {
  const std::string first = files.place(0, "dirty", "content", 1000);
  const std::string second = files.resourcePath(1, "dirty");
  writeFile(second + "/other", "on the second");
  repository->dirtyFlagHandler.setDirty("dirty", true);
  EXPECT_THAT(oldest(), IsEmpty());
  EXPECT_FALSE(isThere(first));
  EXPECT_THAT(treeOf(second), ElementsAre("content=content", "other=on the second"));
  EXPECT_THAT(repository->dirtyFlagHandler.dirtySet, IsEmpty());
}

TEST_F(CandidatesTest, LocatingADirtyNameDoesNotTouchIt) {
  const std::string path = files.place(0, "dirty", "content", 1000);
  repository->dirtyFlagHandler.setDirty("dirty", true);
  EXPECT_THAT(oldest(), IsEmpty());
  EXPECT_EQ(modificationTime(path), 1000);
}

TEST_F(CandidatesTest, ANameThatStaysDirtyIsNoCandidateEither) {
  leaf("dirty", 1000);
  repository->dirtyFlagHandler.setDirty("dirty", true);
  files.takeOut(2);
  expectBoth({});
  EXPECT_THAT(repository->dirtyFlagHandler.dirtySet, ElementsAre("dirty"));
}

TEST_F(CandidatesTest, ADirtyNameIsTestedAtTheHashLevelsToo) {
  leaf("below", 1000);
  files.takeOut(2);  // so that it stays dirty
  repository->dirtyFlagHandler.setDirty("BB", true);
  CallWatch watch;
  expectBoth({});
  EXPECT_THAT(watch.locks, Contains("+" + files.lockName("BB")).Times(2));
}

TEST_F(CandidatesTest, ADirtyNameThatCannotBeLockedIsSkipped) {
  leaf("clean", 1000);
  leaf("dirty", 1000);
  repository->dirtyFlagHandler.setDirty("dirty", true);
  writeFile(files.lockFile(files.lockName("dirty")), "");
  EXPECT_THAT(namesOf(oldest()), ElementsAre("clean"));
  EXPECT_THAT(log.texts(), ElementsAre("The resource \"" + files.lockName("dirty") + "\" could not be locked."));
  EXPECT_THAT(repository->dirtyFlagHandler.dirtySet, ElementsAre("dirty"));
}

TEST_F(CandidatesTest, NothingIsACandidateWhileTheDirtySetIsLocked) {
  leaf("a", 1000);
  writeFile(files.lockFile(files.dirtyLockName()), "");
  EXPECT_THAT(oldest(), IsEmpty());
  EXPECT_THAT(random(), IsEmpty());
  EXPECT_THAT(log.texts(), Each("The dirty mechanism \"" + files.path() + "/.dirty\" could not be locked."));
  EXPECT_THAT(log.texts(), Not(IsEmpty()));
}

TEST_F(CandidatesTest, AFullSetEndsTheRandomWalkBeforeAFurtherDirtyNameIsLocated) {
  leaf("a", 1000);
  leaf("b", 1000);
  repository->dirtyFlagHandler.setDirty("b", true);
  CallWatch watch;
  EXPECT_THAT(namesOf(random(1)), ElementsAre("a"));
  EXPECT_THAT(watch.locks, Not(Contains("+" + files.lockName("b"))));
}

// Each removal of a lock file fails in turn, until a walk meets none that does.
TEST_F(CandidatesTest, ALockFileThatCannotBeRemovedEndsTheWalk) {
  leaf("clean", 1000);
  leaf("dirty", 1000);
  int throws = 0;
  for (int removal = 0;; ++removal) {
    repository->dirtyFlagHandler.setDirty("dirty", true);
    Candidates found;
    const FailingCall stuck("unlink", EACCES, "semaphore_", removal, 1);
    try {
      mount(0).getOldestResources(&found, kPlenty, "", 0);
    } catch (const KTIOException& failure) {
      EXPECT_EQ(failure.m_code, EACCES);
      ++throws;
    }
    EXPECT_EQ(stuck.failed(), throws > removal ? 1 : 0);
    if (stuck.failed() == 0) break;
    ASSERT_THAT(files.locksLeft(), SizeIs(1)) << "the one that could not be removed";
    unlink((files.lockDirectory() + "/" + files.locksLeft().front()).c_str());
  }
  EXPECT_EQ(throws, 9) << "six names looked up, and the dirty one's lock around two more";
  EXPECT_THAT(files.locksLeft(), IsEmpty());
}

TEST_F(CandidatesTest, WalksChangeNothing) {
  leaf("a", 1000);
  files.place(0, "b", "content", 1000);
  const std::vector<std::string> before = treeOf(files.path());
  oldest();
  random();
  Candidates found;
  repository->getGlobalOldestResources(&found);
  EXPECT_EQ(treeOf(files.path()), before);
}

namespace {

class GlobalCandidatesTest : public CandidatesTest {
 protected:
  // `count` resources on one mount, used at `first`, then every `step` seconds.
  void fill(size_t index, int count, time_t first, int step) const {
    for (int i = 0; i < count; ++i) leaf(numbered("m", i), first + i * step, index);
  }
  int gather() { return repository->getGlobalOldestResources(&found); }
  static std::string line(int request, int size, int back) {
    return numbered("global newresnum:", request) + numbered(", size:", size) + numbered(", backsize:", back);
  }
  static std::vector<time_t> everySecond(time_t first, int count) {
    std::vector<time_t> times;
    for (int i = 0; i < count; ++i) times.push_back(first + i);
    return times;
  }

  Candidates found;
};

}  // namespace

TEST_F(GlobalCandidatesTest, TheOldestOfAllMountsComeFirst) {
  leaf("a", 3000, 0);
  leaf("b", 1000, 1);
  leaf("c", 2000, 2);
  leaf("recent", kNow - 59, 2);
  EXPECT_EQ(gather(), 3);
  EXPECT_THAT(namesOf(found), ElementsAre("b", "c", "a"));
  EXPECT_THAT(log.texts(), ElementsAre(line(100, 1, 1), line(101, 2, 2), line(102, 3, 3)));
  EXPECT_THAT(log.texts(LOG_DEBUG), SizeIs(3));
}

TEST_F(GlobalCandidatesTest, WithoutResourcesTheSetStaysEmpty) {
  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(found, IsEmpty());
  EXPECT_THAT(log.texts(), ElementsAre(line(100, 0, 0), line(100, 0, 0), line(100, 0, 0)));
}

TEST_F(GlobalCandidatesTest, ResourcesOfOneTimeComeInDescendingOrderOfTheirPaths) {
  for (const size_t index : {0U, 1U, 2U}) leaf("same", 1000, index);
  EXPECT_EQ(gather(), 3);
  std::vector<std::string> paths;
  for (const ResourceEntry& entry : found) paths.push_back(entry.path);
  EXPECT_THAT(paths, ElementsAre(files.mount(2) + "/AA/BB/CC/same", files.mount(1) + "/AA/BB/CC/same",
                                 files.mount(0) + "/AA/BB/CC/same"));
}

// The first mount brings its hundred oldest, the even seconds up to 1198. The second raises the set to 200, which are
// the seconds 1000 to 1199; the hundred oldest of them stay, and the newest.
TEST_F(GlobalCandidatesTest, TheHundredOldestAndTheNewestStay) {
  fill(0, 120, 1000, 2);
  fill(1, 120, 1001, 2);
  EXPECT_EQ(gather(), 101);
  std::vector<time_t> want = everySecond(1000, 100);
  want.push_back(1199);
  EXPECT_EQ(timesOf(found), want);
  EXPECT_THAT(log.texts(), ElementsAre(line(100, 100, 100), line(200, 200, 200), line(300, 200, 200)));
}

TEST_F(GlobalCandidatesTest, OneMountBringsItsHundredOldestOnly) {
  fill(0, 150, 1000, 1);
  EXPECT_EQ(gather(), 100);
  EXPECT_EQ(timesOf(found), everySecond(1000, 100));
}

TEST_F(GlobalCandidatesTest, AHundredAndOneStayAsTheyAre) {
  fill(0, 100, 1000, 1);
  fill(1, 1, 5000, 1);
  EXPECT_EQ(gather(), 101);
  std::vector<time_t> want = everySecond(1000, 100);
  want.push_back(5000);
  EXPECT_EQ(timesOf(found), want);
}

TEST_F(GlobalCandidatesTest, OfAHundredAndTwoTheLastButOneIsErased) {
  fill(0, 100, 1000, 1);
  fill(1, 2, 5000, 1000);
  EXPECT_EQ(gather(), 101);
  std::vector<time_t> want = everySecond(1000, 100);
  want.push_back(6000);
  EXPECT_EQ(timesOf(found), want);
}

// The second mount's 150 older ones push the 50 newest of the first out of the set of 200. The 100 oldest of all are
// the second mount's; the newest of the 200 is the fiftieth of the first.
TEST_F(GlobalCandidatesTest, OlderResourcesOfALaterMountDisplaceNewerOnes) {
  fill(0, 100, 5000, 1);
  fill(1, 150, 1000, 1);
  EXPECT_EQ(gather(), 101);
  std::vector<time_t> want = everySecond(1000, 100);
  want.push_back(5049);
  EXPECT_EQ(timesOf(found), want);
}

TEST_F(GlobalCandidatesTest, EachMountMayRaiseTheSetByAHundred) {
  fill(0, 130, 1000, 1);
  fill(1, 130, 2000, 1);
  fill(2, 130, 3000, 1);
  EXPECT_EQ(gather(), 101);
  std::vector<time_t> want = everySecond(1000, 100);
  want.push_back(3099);
  EXPECT_EQ(timesOf(found), want);
  EXPECT_THAT(log.texts(), ElementsAre(line(100, 100, 100), line(200, 200, 200), line(300, 300, 300)));
}

TEST_F(GlobalCandidatesTest, MissingMountsAreLeftOut) {
  leaf("a", 1000, 0);
  leaf("b", 2000, 1);
  leaf("c", 3000, 2);
  files.takeOut(1);
  EXPECT_EQ(gather(), 2);
  EXPECT_THAT(namesOf(found), ElementsAre("a", "c"));
  EXPECT_THAT(log.texts(), ElementsAre(line(100, 1, 1), line(101, 2, 2)));
}

TEST_F(GlobalCandidatesTest, AMountWhoseDiskCannotBeAskedIsLeftOut) {
  leaf("a", 1000, 0);
  leaf("b", 2000, 1);
  disks.fail(files.mount(0), EIO);
  EXPECT_EQ(gather(), 1);
  EXPECT_THAT(namesOf(found), ElementsAre("b"));
}

TEST_F(GlobalCandidatesTest, WithoutAPresentMountNothingIsListed) {
  for (size_t i = 0; i < 3; ++i) files.takeOut(i);
  const FailingCall unlisted("opendir", EIO);
  EXPECT_EQ(gather(), 0);
  EXPECT_EQ(unlisted.failed(), 0);
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(GlobalCandidatesTest, TheStatusIsRefreshedFirst) {
  for (size_t i = 0; i < 3; ++i) disks.setUsed(files.mount(i), 91);
  const int before = disks.calls(files.mount(0));
  gather();
  EXPECT_EQ(repository->status, 0x03);
  EXPECT_EQ(disks.calls(files.mount(0)), before + 1);
}

// A mount that goes between the status and its walk answers -1, and the next one may bring 99.
TEST_F(GlobalCandidatesTest, AMountThatGoesMeanwhileCostsTheNextOneAPlace) {
  fill(0, 1, 1000, 1);
  fill(1, 110, 2000, 1);
  disks.answerWith(files.mount(2), [this](struct statvfs* out) {
    *out = {};
    out->f_blocks = out->f_bavail = 1000;
    if (isThere(files.mount(0) + "/repositorypart.cfg")) files.takeOut(0);
    return 0;
  });
  EXPECT_EQ(gather(), 99);
  EXPECT_EQ(timesOf(found), everySecond(2000, 99));
  EXPECT_THAT(log.texts(), ElementsAre(line(100, 0, -1), line(99, 99, 99), line(199, 99, 99)));
}
