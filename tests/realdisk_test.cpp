// The repository on small file systems of its own: real fill levels, real shell, real disks that go and come back.
// Sizes are percent of a disk, so that one test serves all kinds. Some kinds count a written or removed file later
// than others; where a pass may see that late, a test pins the order and the bound, not the number of resources.

#include <gmock/gmock.h>
#include <syslog.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "entrypoints.h"
#include "fakes/fakes.h"
#include "realdisk/disks.h"
#include "support/repository.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Lt;
using testing::SizeIs;

namespace {

constexpr time_t kLongAgo = 1000000000;

// Different for each seed, and nowhere alike, so that a cut or shifted copy shows.
std::string contentOf(size_t size, unsigned int seed) {
  std::string content(size, '\0');
  uint32_t state = seed + 1;
  for (size_t i = 0; i < size; i += sizeof state) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    memcpy(&content[i], &state, std::min(sizeof state, size - i));
  }
  return content;
}

// As readFile, for files of many megabytes.
std::string wholeFile(const std::string& path) {
  std::string content(static_cast<size_t>(fs::file_size(path)), '\0');
  std::ifstream(path, std::ios::binary).read(content.data(), static_cast<std::streamsize>(content.size()));
  return content;
}

std::string nameOf(unsigned int number) { return "resource" + std::to_string(number); }

// A repository of three disks, "d1" to "d3", with an own log.
class RealRepository {
 public:
  explicit RealRepository(DiskKind kind, const std::string& settings = "")
      : repository({"d1", "d2", "d3"}, settings), disks(kind) {
    for (size_t i = 0; i < 3; ++i) {
      // Below the disk there is no configuration, as where no disk is mounted.
      unlink((mount(i) + "/repositorypart.cfg").c_str());
      disks.mountAt(mount(i));
      repository.configureMount(i, "");
    }
  }

  const char* id() const { return repository.id(); }
  std::string mount(size_t index) const { return repository.mount(index); }
  void fill(size_t index, double percent) { fillTo(mount(index), percent); }
  void setLimits(size_t index, int clean, int move) {
    std::ostringstream limits;
    limits << "cleanLimit=" << clean << "\nmoveLimit=" << move << '\n';
    repository.configureMount(index, limits.str());
  }

  // A directory with one file of `percent` of the disk, last used so many hours after long ago.
  void place(size_t index, unsigned int number, double percent, int hour) {
    repository.place(index, nameOf(number), content(index, number, percent), kLongAgo + hour * 3600);
  }
  std::string content(size_t index, unsigned int number, double percent) const {
    return contentOf(partOfDisk(mount(index), percent), number);
  }
  std::string pathOf(size_t index, unsigned int number) const { return repository.resourcePath(index, nameOf(number)); }
  bool isOn(size_t index, unsigned int number) const { return isThere(pathOf(index, number)); }
  // How many of the resources first, first + 1, ... are on the mount, and no later one of `count`. -1: a gap.
  int leadingOn(size_t index, unsigned int first, unsigned int count) const {
    unsigned int leading = 0;
    while (leading < count && isOn(index, first + leading)) ++leading;
    for (unsigned int i = leading; i < count; ++i)
      if (isOn(index, first + i)) return -1;
    return static_cast<int>(leading);
  }
  bool isComplete(size_t index, unsigned int number, double percent) const {
    const std::string path = pathOf(index, number);
    if (!isThere(path + "/content")) return false;
    const auto entries = std::distance(fs::directory_iterator(path), fs::directory_iterator());
    return entries == 1 && wholeFile(path + "/content") == content(index, number, percent);
  }
  void age(size_t index, unsigned int number) {
    setTimes(pathOf(index, number) + "/content", kLongAgo);
    setTimes(pathOf(index, number), kLongAgo);
  }

  Found create(const std::string& name) const { return repository.create(name); }
  Found find(const std::string& name) const { return repository.find(name); }

  TestRepository repository;
  RealDisks disks;
  FakeSyslog log;
};

class RealDiskTest : public testing::TestWithParam<DiskKind> {};

INSTANTIATE_TEST_SUITE_P(On, RealDiskTest,
                         testing::Values(DiskKind::tmpfs, DiskKind::ext4, DiskKind::xfs, DiskKind::btrfs),
                         [](const auto& test) { return nameOf(test.param); });

TEST_P(RealDiskTest, EachDiskIsAFileSystemOfItsOwn) {
  RealRepository repository(GetParam());
  repository.fill(1, 50);
  EXPECT_THAT(usedPercent(repository.mount(0)), Lt(15));
  EXPECT_THAT(usedPercent(repository.mount(1)), testing::AllOf(Ge(50), Lt(55)));
  EXPECT_THAT(usedPercent(repository.mount(2)), Lt(15));
}

TEST_P(RealDiskTest, TheStatusFollowsTheFillOfTheDisks) {
  RealRepository repository(GetParam(), "remindLimit=25\nwarnLimit=45\nwarn2Limit=80\nwarn3Limit=90\nswitchLimit=95\n");
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0);
  for (size_t i = 0; i < 3; ++i) repository.fill(i, 30);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x01);
  for (size_t i = 0; i < 3; ++i) repository.fill(i, 50);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x03);
  relieve(repository.mount(2));
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0) << "a bit stands only when every disk has reached the limit";
}

TEST_P(RealDiskTest, DisksAreFilledInOrderBelowTheirSwitchLimit) {
  RealRepository repository(GetParam(), "switchLimit=50\n");
  repository.fill(0, 35);
  EXPECT_EQ(repository.create("a").path, repository.repository.resourcePath(0, "a"));
  repository.fill(0, 55);
  EXPECT_EQ(repository.create("b").path, repository.repository.resourcePath(1, "b"));
  repository.fill(1, 55);
  EXPECT_EQ(repository.create("c").path, repository.repository.resourcePath(2, "c"));
}

TEST_P(RealDiskTest, PastTheirSwitchLimitTheLeastUsedDiskIsTaken) {
  RealRepository repository(GetParam(), "switchLimit=30\n");
  repository.fill(0, 60);
  repository.fill(1, 35);
  repository.fill(2, 50);
  EXPECT_EQ(repository.create("a").path, repository.repository.resourcePath(1, "a"));
  repository.fill(1, 75);
  EXPECT_EQ(repository.create("b").path, repository.repository.resourcePath(2, "b"));
}

TEST_P(RealDiskTest, AFullDiskTakesNoNewResource) {
  RealRepository repository(GetParam(), "fullLimit=50\n");
  repository.fill(0, 55);
  const Found found = repository.create("a");
  EXPECT_EQ(found.path, repository.repository.resourcePath(1, "a"));
  EXPECT_EQ(found.status, 0);
}

TEST_P(RealDiskTest, NothingIsCreatedWhenEveryDiskIsFull) {
  RealRepository repository(GetParam(), "fullLimit=50\n");
  for (size_t i = 0; i < 3; ++i) repository.fill(i, 55);
  const Found found = repository.create("a");
  EXPECT_EQ(found.path, "");
  EXPECT_EQ(found.status, 8);
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x60);
  EXPECT_THAT(repository.log.texts(LOG_ERR),
              ElementsAre("The repository \"" + repository.repository.path() + "\" is full"));
}

TEST_P(RealDiskTest, AFullDiskStillGivesWhatItHolds) {
  RealRepository repository(GetParam(), "fullLimit=50\n");
  repository.place(0, 1, 5, 0);
  repository.fill(0, 98);
  EXPECT_EQ(repository.find(nameOf(1)).path, repository.pathOf(0, 1));
  EXPECT_TRUE(repository.isComplete(0, 1, 5));
}

TEST_P(RealDiskTest, ADiskBelowItsMoveLimitIsLeftAlone) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 40, 80);
  repository.place(0, 1, 4, 0);
  repository.fill(0, 60);
  checkOverload_(repository.id(), false);
  EXPECT_TRUE(repository.isComplete(0, 1, 4));
  EXPECT_THAT(repository.log.texts(LOG_INFO), IsEmpty());
}

TEST_P(RealDiskTest, ADiskAtItsMoveLimitIsDrainedBelowItsCleanLimitOldestFirst) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 60, 75);
  for (unsigned int i = 0; i < 8; ++i) repository.place(0, i, 4, static_cast<int>(i));
  repository.fill(0, 82);
  ASSERT_THAT(usedPercent(repository.mount(0)), Lt(84));
  checkOverload_(repository.id(), false);
  EXPECT_TRUE(settlesBelow(repository.mount(0), 60));
  const int moved = repository.leadingOn(1, 0, 8);
  EXPECT_THAT(moved, Ge(6)) << "each is 4 percent, and 22 are to go";
  for (unsigned int i = 0; i < 8; ++i) {
    const size_t home = static_cast<int>(i) < moved ? 1 : 0;
    EXPECT_TRUE(repository.isComplete(home, i, 4)) << i;
    EXPECT_FALSE(repository.isOn(1 - home, i)) << i;
    EXPECT_FALSE(repository.isOn(2, i)) << i;
    EXPECT_EQ(repository.find(nameOf(i)).path, repository.pathOf(home, i));
  }
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST_P(RealDiskTest, AMovedResourceKeepsItsTimes) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 10, 40);
  repository.place(0, 1, 4, 5);
  repository.fill(0, 50);
  checkOverload_(repository.id(), false);
  ASSERT_TRUE(repository.isOn(1, 1));
  EXPECT_EQ(accessTime(repository.pathOf(1, 1)), kLongAgo + 5 * 3600);
  EXPECT_EQ(modificationTime(repository.pathOf(1, 1)), kLongAgo + 5 * 3600);
}

TEST_P(RealDiskTest, AResourceOfManyFilesMovesWhole) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 10, 40);
  repository.place(0, 1, 1, 0);
  const std::string path = repository.pathOf(0, 1);
  for (unsigned int i = 0; i < 40; ++i) writeFile(path + "/deep/deeper/file" + std::to_string(i), contentOf(i * 37, i));
  makeDirectories(path + "/empty");
  repository.age(0, 1);
  const std::vector<std::string> before = treeOf(path);
  repository.age(0, 1);
  repository.fill(0, 50);
  checkOverload_(repository.id(), false);
  EXPECT_FALSE(isThere(path));
  EXPECT_THAT(before, SizeIs(44));
  EXPECT_EQ(treeOf(repository.pathOf(1, 1)), before);
}

TEST_P(RealDiskTest, AResourceUsedWithinTheNomoveTimeStays) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 10, 40);
  repository.place(0, 1, 4, 0);
  repository.place(0, 2, 4, 0);
  repository.find(nameOf(2));  // uses it now
  repository.fill(0, 50);
  checkOverload_(repository.id(), false);
  EXPECT_TRUE(repository.isComplete(1, 1, 4));
  EXPECT_TRUE(repository.isComplete(0, 2, 4));
  EXPECT_FALSE(repository.isOn(1, 2));
}

TEST_P(RealDiskTest, ADiskAtItsCleanLimitTakesNoMovedResource) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 10, 40);
  repository.setLimits(1, 30, 90);
  repository.place(0, 1, 4, 0);
  repository.fill(0, 50);
  repository.fill(1, 35);
  checkOverload_(repository.id(), false);
  EXPECT_FALSE(repository.isOn(1, 1));
  EXPECT_TRUE(repository.isComplete(2, 1, 4));
}

TEST_P(RealDiskTest, APassOverAFullRepositoryThatMayNotBeClearedChangesNothing) {
  RealRepository repository(GetParam());
  for (size_t i = 0; i < 3; ++i) {
    repository.setLimits(i, 10, 40);
    repository.place(i, static_cast<unsigned int>(i), 4, 0);
    repository.fill(i, 50);
  }
  const std::string output = outputOf([&] { checkOverload_(repository.id(), true); });
  EXPECT_EQ(output,
            "checking repository " + repository.repository.path() + "\nthe repository is full, we can't do anything\n");
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(repository.isComplete(i, static_cast<unsigned int>(i), 4));
}

TEST_P(RealDiskTest, AClearableRepositoryWithoutRoomLosesItsOldestResources) {
  RealRepository repository(GetParam(), "isClearable=true\n");
  for (size_t i = 0; i < 3; ++i) repository.setLimits(i, 60, 80);
  for (unsigned int i = 0; i < 8; ++i) repository.place(1, i, 4, static_cast<int>(i));
  repository.place(0, 100, 4, 100);
  repository.find(nameOf(100));
  repository.fill(0, 85);
  repository.fill(1, 74);
  repository.fill(2, 70);
  checkOverload_(repository.id(), false);
  unsigned int deleted = 0;
  while (deleted < 8 && !repository.isOn(1, deleted)) ++deleted;
  EXPECT_THAT(deleted, Ge(4U)) << "each is 4 percent, and 14 are to go";
  for (unsigned int i = deleted; i < 8; ++i) EXPECT_TRUE(repository.isComplete(1, i, 4)) << i;
  EXPECT_TRUE(repository.isComplete(0, 100, 4)) << "used within the nomove time";
  EXPECT_TRUE(settlesBelow(repository.mount(1), 60));
  std::list<std::string> gone;
  for (unsigned int i = 0; i < deleted; ++i) gone.push_back(repository.pathOf(1, i));
  EXPECT_EQ(*getDeletedDirs_(repository.id()), gone);
  EXPECT_EQ(repository.find(nameOf(0)).status, 4);
}

TEST_P(RealDiskTest, ADiskThatGoesAwayTakesItsResourcesAndBringsThemBack) {
  RealRepository repository(GetParam());
  repository.place(0, 1, 4, 0);
  EXPECT_EQ(repository.find(nameOf(1)).status, 0);
  repository.disks.takeAway(repository.mount(0));
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x80);
  EXPECT_EQ(repository.find(nameOf(1)).path, "");
  EXPECT_EQ(repository.find(nameOf(1)).status, 4);
  repository.disks.giveBack(repository.mount(0));
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0);
  const Found back = repository.find(nameOf(1));
  EXPECT_EQ(back.path, repository.pathOf(0, 1));
  EXPECT_EQ(back.status, 0);
  EXPECT_TRUE(repository.isComplete(0, 1, 4));
}

TEST_P(RealDiskTest, NothingIsPutUnderADiskThatIsAway) {
  RealRepository repository(GetParam());
  repository.disks.takeAway(repository.mount(0));
  EXPECT_EQ(repository.create("a").path, repository.repository.resourcePath(1, "a"));
  EXPECT_THAT(treeOf(repository.mount(0)), IsEmpty());
}

TEST_P(RealDiskTest, WithoutADiskTheRepositoryIsMissing) {
  RealRepository repository(GetParam());
  for (size_t i = 0; i < 3; ++i) repository.disks.takeAway(repository.mount(i));
  EXPECT_EQ(getRepositoryStatus_(repository.id()), 0x100);
  const Found found = repository.create("a");
  EXPECT_EQ(found.path, "");
  EXPECT_EQ(found.status, 8);
  EXPECT_THAT(repository.log.texts(LOG_ERR),
              ElementsAre("The repository \"" + repository.repository.path() + "\" is missing"));
}

TEST_P(RealDiskTest, CopiesMadeWhileADiskWasAwayAreJoinedOnTheLastOne) {
  RealRepository repository(GetParam());
  const std::string dirtySet = repository.repository.path() + "/.dirty";
  const std::string old = contentOf(partOfDisk(repository.mount(0), 3), 1);
  const std::string young = contentOf(partOfDisk(repository.mount(0), 3), 2);
  writeFile(repository.create("a").path + "/old", old);
  repository.disks.takeAway(repository.mount(0));
  const Found second = repository.create("a");
  EXPECT_EQ(second.path, repository.repository.resourcePath(1, "a"));
  writeFile(second.path + "/young", young);
  EXPECT_EQ(readFile(dirtySet), "a\n");
  EXPECT_EQ(repository.find("a").status, 1) << "found, but a copy may be on the disk that is away";
  EXPECT_EQ(removeResource_(repository.id(), "a"), 1);
  repository.disks.giveBack(repository.mount(0));
  const Found joined = repository.find("a");
  EXPECT_EQ(joined.path, second.path);
  EXPECT_EQ(joined.status, 0);
  EXPECT_EQ(treeOf(joined.path), (std::vector<std::string>{"old=" + old, "young=" + young}));
  EXPECT_FALSE(isThere(repository.repository.resourcePath(0, "a")));
  EXPECT_TRUE(isThere(dirtySet));
  EXPECT_EQ(readFile(dirtySet), "");
  EXPECT_EQ(repository.find("a").status, 0);
}

TEST_P(RealDiskTest, CopiesAreNotJoinedOntoAFullDisk) {
  RealRepository repository(GetParam(), "fullLimit=50\n");
  writeFile(repository.create("a").path + "/old", "old");
  repository.disks.takeAway(repository.mount(0));
  writeFile(repository.create("a").path + "/young", "young");
  repository.fill(1, 55);
  repository.disks.giveBack(repository.mount(0));
  const Found found = repository.find("a");
  EXPECT_EQ(found.path, "");
  EXPECT_EQ(found.status, 2);
  EXPECT_EQ(readFile(repository.repository.resourcePath(0, "a") + "/old"), "old");
  EXPECT_EQ(readFile(repository.repository.resourcePath(1, "a") + "/young"), "young");
}

TEST_P(RealDiskTest, FreeMountEmptiesADiskWhateverTheAgeOfItsResources) {
  RealRepository repository(GetParam());
  for (unsigned int i = 0; i < 5; ++i) repository.create(nameOf(i));
  for (unsigned int i = 0; i < 5; ++i) writeFile(repository.pathOf(0, i) + "/content", repository.content(0, i, 2));
  EXPECT_EQ(freeMount_(repository.id(), "d1"), 0);
  for (unsigned int i = 0; i < 5; ++i) {
    EXPECT_TRUE(repository.isComplete(1, i, 2)) << i;
    EXPECT_FALSE(repository.isOn(0, i)) << i;
  }
  EXPECT_TRUE(settlesBelow(repository.mount(0), 15));
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST_P(RealDiskTest, FreeMountAnswersTwoWhenTheLastTargetWasTheFirstDisk) {
  RealRepository repository(GetParam());
  repository.place(1, 1, 2, 0);
  EXPECT_EQ(freeMount_(repository.id(), "d2"), 2);
  EXPECT_TRUE(repository.isComplete(0, 1, 2));
  EXPECT_FALSE(repository.isOn(1, 1));
}

TEST_P(RealDiskTest, FreeMountGoesOnToTheNextDiskWhenOneIsAtItsCleanLimit) {
  RealRepository repository(GetParam(), "switchLimit=20\n");
  repository.setLimits(0, 60, 90);
  repository.setLimits(2, 60, 90);
  for (unsigned int i = 0; i < 10; ++i) repository.place(1, i, 4, 0);
  repository.fill(0, 65);
  repository.fill(2, 30);
  EXPECT_EQ(freeMount_(repository.id(), "d2"), 2) << "the last target had no room left";
  for (unsigned int i = 0; i < 10; ++i) {
    EXPECT_FALSE(repository.isOn(0, i)) << i;
    EXPECT_NE(repository.isOn(1, i), repository.isOn(2, i)) << i;
    EXPECT_TRUE(repository.isComplete(repository.isOn(1, i) ? 1 : 2, i, 4)) << i;
  }
}

TEST_P(RealDiskTest, MakeEmptyGivesTheRoomBack) {
  RealRepository repository(GetParam());
  for (unsigned int i = 0; i < 6; ++i) repository.place(i % 3, i, 10, 0);
  MountUnmount_(repository.id(), 2, false);
  makeEmpty_(repository.id());
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(settlesBelow(repository.mount(i), 15)) << i;
    EXPECT_TRUE(isThere(repository.mount(i) + "/repositorypart.cfg")) << i;
  }
  long count = -1;
  char** names = listDirs_(repository.id(), &count, true);
  EXPECT_EQ(count, 0);
  delete[] names;
}

TEST_P(RealDiskTest, TheDirectoryForLostFilesIsNoResource) {
  RealRepository repository(GetParam());
  makeDirectories(repository.mount(0) + "/lost+found/a/b/found");
  long count = -1;
  char** names = listDirs_(repository.id(), &count, true);
  EXPECT_EQ(count, 0);
  delete[] names;
  EXPECT_EQ(freeMount_(repository.id(), "d1"), 0);
  makeEmpty_(repository.id());
  EXPECT_TRUE(isThere(repository.mount(0) + "/lost+found/a/b/found"));
}

TEST_P(RealDiskTest, ALegacyResourceGoesToTheDiskOnWhichItIsAlready) {
  RealRepository repository(GetParam());
  const std::string legacy = repository.mount(1) + "/legacy";
  repository.repository.configure("legacyDir=" + legacy + "\n");
  repository.fill(1, 30);  // so that no two disks look alike
  writeFile(legacy + "/a/content", "content");
  const Found found = repository.find("a");
  EXPECT_EQ(found.path, repository.repository.resourcePath(1, "a"));
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(readFile(found.path + "/content"), "content");
  EXPECT_FALSE(isThere(legacy + "/a"));
}

TEST_P(RealDiskTest, OnAReadOnlyDiskNothingIsCreated) {
  RealRepository repository(GetParam());
  repository.place(0, 1, 4, 0);
  repository.disks.setReadOnly(repository.mount(0), true);
  const Found found = repository.create("a");
  EXPECT_EQ(found.path, "");
  EXPECT_EQ(found.status, 8);
  const std::string levels = repository.repository.resourcePath(0, "a");
  EXPECT_THAT(repository.log.texts(LOG_ERR), ElementsAre("Error occured while creating directory \"" +
                                                         levels.substr(0, levels.rfind('/')) + "\". Error code is 30"));
  EXPECT_EQ(repository.find(nameOf(1)).path, repository.pathOf(0, 1));
}

TEST_P(RealDiskTest, AResourceOnAReadOnlyDiskIsCopiedByAPassAndStays) {
  RealRepository repository(GetParam());
  repository.setLimits(0, 10, 40);
  repository.place(0, 1, 4, 0);
  repository.fill(0, 50);
  repository.disks.setReadOnly(repository.mount(0), true);
  checkOverload_(repository.id(), false);
  // The copy stands and is complete; that the source could not be deleted is not noticed.
  EXPECT_TRUE(repository.isComplete(0, 1, 4));
  EXPECT_TRUE(repository.isComplete(1, 1, 4));
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

// A resource of 16 percent of a disk at its move limit, and a target with room for 12.
class LargeResource : public RealRepository {
 public:
  LargeResource(DiskKind kind, size_t source, size_t destination)
      : RealRepository(kind), from(source), to(destination) {
    setLimits(from, 60, 80);
    setLimits(to, 96, 99);
    place(from, 1, kPercent, 0);
    fill(from, 85);
    fill(to, 88);
    fill(2, 65);
    repository.configureMount(2, "cleanLimit=50\n");  // no target
  }

  static constexpr double kPercent = 16;

  const size_t from;
  const size_t to;
};

TEST_P(RealDiskTest, ACopyThatRunsOutOfSpaceLeavesTheSourceComplete) {
  LargeResource repository(GetParam(), 0, 1);
  const std::string output = outputOf([&] { checkOverload_(repository.id(), true); });
  EXPECT_THAT(output, testing::HasSubstr("Move failed (Maybe out of space?)\n"));
  EXPECT_TRUE(repository.isComplete(0, 1, LargeResource::kPercent));
  EXPECT_THAT(repository.log.texts(LOG_DEBUG), testing::Contains("Nospaceleft? checkoverload couldn't move"));
  EXPECT_THAT(
      repository.log.texts(LOG_ERR),
      ElementsAre(testing::StartsWith("The resource \"" + repository.pathOf(0, 1) + "\" could not be renamed to \"" +
                                      repository.pathOf(1, 1) + "\". Error code is ")));
  EXPECT_EQ(repository.find(nameOf(1)).path, repository.pathOf(0, 1));
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

// Nothing is rolled back: what the copy got to stays, and the disk is full with it.
TEST_P(RealDiskTest, ACopyThatRunsOutOfSpaceLeavesItsBeginningInTheDestination) {
  LargeResource repository(GetParam(), 0, 1);
  checkOverload_(repository.id(), false);
  const std::string whole = repository.content(0, 1, LargeResource::kPercent);
  const std::string part = wholeFile(repository.pathOf(1, 1) + "/content");
  EXPECT_THAT(part.size(), Lt(whole.size()));
  EXPECT_TRUE(whole.starts_with(part));
  EXPECT_THAT(usedPercent(repository.mount(1)), Ge(94));
}

TEST_P(RealDiskTest, AfterACopyThatRanOutOfSpaceTheNextPassMeetsAConflict) {
  LargeResource repository(GetParam(), 0, 1);
  checkOverload_(repository.id(), false);
  relieve(repository.mount(1));
  repository.age(0, 1);
  const std::string output = outputOf([&] { checkOverload_(repository.id(), true); });
  EXPECT_THAT(output, testing::HasSubstr("Conflict prevented resource move\n"));
  EXPECT_TRUE(repository.isComplete(0, 1, LargeResource::kPercent));
  EXPECT_EQ(repository.repository.dirtySet(), repository.pathOf(0, 1) + "\n");
}

// The look-up takes the first disk that has the name. An operator removes the part.
TEST_P(RealDiskTest, APartThatACopyLeftOnAnEarlierDiskHidesTheSource) {
  LargeResource repository(GetParam(), 1, 0);
  checkOverload_(repository.id(), false);
  EXPECT_TRUE(repository.isComplete(1, 1, LargeResource::kPercent));
  EXPECT_EQ(repository.find(nameOf(1)).path, repository.pathOf(0, 1));
  EXPECT_FALSE(repository.isComplete(0, 1, LargeResource::kPercent));
}

TEST_P(RealDiskTest, FreeMountThatRunsOutOfSpaceLeavesTheSourceComplete) {
  LargeResource repository(GetParam(), 0, 1);
  EXPECT_EQ(freeMount_(repository.id(), "d1"), 2);
  EXPECT_TRUE(repository.isComplete(0, 1, LargeResource::kPercent));
  EXPECT_THAT(repository.log.texts(LOG_DEBUG), testing::Contains("Nospaceleft? EmptyMount couldn't move"));
}

// The numbers, on the one kind that counts every file at once.
TEST(RealDiskOnTmpfsTest, DrainingStopsAsSoonAsTheDiskIsBelowItsCleanLimit) {
  RealRepository repository(DiskKind::tmpfs);
  repository.setLimits(0, 60, 75);
  for (unsigned int i = 0; i < 8; ++i) repository.place(0, i, 4, static_cast<int>(i));
  repository.fill(0, 82);
  checkOverload_(repository.id(), false);
  EXPECT_EQ(repository.leadingOn(1, 0, 8), 6) << "82 percent and six times 4 less";
}

TEST(RealDiskOnTmpfsTest, DeletingStopsAsSoonAsThereIsRoom) {
  RealRepository repository(DiskKind::tmpfs, "isClearable=true\n");
  for (size_t i = 0; i < 3; ++i) repository.setLimits(i, 60, 80);
  for (unsigned int i = 0; i < 8; ++i) repository.place(1, i, 4, static_cast<int>(i));
  repository.fill(0, 85);
  repository.fill(1, 74);
  repository.fill(2, 70);
  checkOverload_(repository.id(), false);
  EXPECT_THAT(*getDeletedDirs_(repository.id()), ElementsAre(repository.pathOf(1, 0), repository.pathOf(1, 1),
                                                             repository.pathOf(1, 2), repository.pathOf(1, 3)));
}

}  // namespace
