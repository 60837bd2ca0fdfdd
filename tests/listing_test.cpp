#include "listing.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <vector>

#include "KTException.h"
#include "fakes/fakes.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

// What an allocation leaves in errno, as malloc does when it gets memory another way than it tried first; 0: nothing.
int errnoOfAllocations = 0;

}  // namespace

void* operator new(size_t size) {
  void* memory = malloc(size ? size : 1);
  if (!memory) throw std::bad_alloc();
  if (errnoOfAllocations) errno = errnoOfAllocations;
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::list<std::string>;

Names namesIn(const std::string& directory) {
  Names names;
  listDir(directory.c_str(), names);
  return names;
}

Names listed(const std::string& directory, unsigned int typeFilter, bool hashed, unsigned int level = 0) {
  Names names;
  listResourcesRecursively(directory.c_str(), names, typeFilter, hashed, level);
  return names;
}

// A file whose blocks do not change any more: they may be counted late, when the content reaches the disk.
void writeSettled(const std::string& path, const std::string& content) {
  writeFile(path, content);
  const int file = open(path.c_str(), O_RDONLY);
  ASSERT_GE(file, 0) << path;
  EXPECT_EQ(fsync(file), 0) << path;
  close(file);
}

long blocksOf(const std::string& path) {
  struct stat status;
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return static_cast<long>(status.st_blocks);
}

long sizeOf(const std::string& path) { return getSize(path.c_str(), nullptr); }

std::string cannotBeStated(const std::string& path, int error) {
  return "The resource \"" + path + "\" can not be stat-ed. Error code is " + static_cast<char>(error);
}

// A mount with one resource of each kind three levels down, and with what does not belong to it.
void makeMount(const ScratchDirectory& dir) {
  makeDirectories(dir / "FP/IA/L3/2009");
  writeFile(dir / "FP/IA/L3/file", "content");
  writeFile(dir / "FP/IA/L3/2009/inside", "content");
  makeDirectories(dir / "BC/6J/AJ/a");
  writeFile(dir / "repositorypart.cfg", "");
  writeFile(dir / ".log", "");
  writeFile(dir / "lost+found/IA/L3/lost", "content");
}

std::vector<std::string> pathsOf(const CallWatch& watch, const std::string& function) {
  std::vector<std::string> paths;
  for (const std::string& call : watch.calls)
    if (call.rfind(function + " ", 0) == 0) paths.push_back(call.substr(function.size() + 1));
  return paths;
}

}  // namespace

TEST(ListDirTest, GivesTheNamesInOrderWithoutTheDots) {
  const ScratchDirectory dir;
  for (const char* name : {"b", "a", "B", "10", "9", ".hidden", "...", "a b", "a%s", "_", "\xc3\xa4"})
    writeFile(dir / name, "");
  makeDirectories(dir / "directory");
  EXPECT_THAT(namesIn(dir.path()),
              ElementsAre("...", ".hidden", "10", "9", "B", "_", "a", "a b", "a%s", "b", "directory", "\xc3\xa4"));
}

TEST(ListDirTest, AddsNothingForAnEmptyDirectory) {
  const ScratchDirectory dir;
  Names names;
  EXPECT_EQ(listDir(dir.path().c_str(), names), 0);
  EXPECT_THAT(names, IsEmpty());
}

TEST(ListDirTest, AppendsAndGivesTheNumberOfAllEntries) {
  const ScratchDirectory dir;
  writeFile(dir / "b", "");
  writeFile(dir / "a", "");
  Names names = {"x", "a"};
  EXPECT_EQ(listDir(dir.path().c_str(), names), 4);
  EXPECT_THAT(names, ElementsAre("x", "a", "a", "b"));
}

TEST(ListDirTest, NamesLinksWithoutFollowingThem) {
  const ScratchDirectory dir;
  makeLink(dir / "missing", dir / "dangling");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("dangling"));
}

TEST(ListDirTest, ADirectoryThatCannotBeReadAddsNothing) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  const FakeSyslog log;
  Names names = {"kept"};
  EXPECT_EQ(listDir((dir / "missing").c_str(), names), 1);
  EXPECT_EQ(listDir((dir / "file").c_str(), names), 1);
  EXPECT_EQ(listDir("", names), 1);
  EXPECT_EQ(listDir(std::string(100000, 'n').c_str(), names), 1);
  {
    const FailingCall failing("opendir", EACCES, dir.path());
    EXPECT_EQ(listDir(dir.path().c_str(), names), 1);
    EXPECT_EQ(failing.failed(), 1);
  }
  EXPECT_THAT(names, ElementsAre("kept"));
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(ListDirTest, AnErrnoThatAnAllocationLeavesIsNoFailure) {
  const ScratchDirectory dir;
  writeFile(dir / "a-name-that-is-too-long-to-be-stored-without-an-allocation", "");
  errnoOfAllocations = ENOMEM;
  const Names names = namesIn(dir.path());
  errnoOfAllocations = 0;
  EXPECT_THAT(names, ElementsAre("a-name-that-is-too-long-to-be-stored-without-an-allocation"));
}

TEST(ListDirTest, NullAddsNothing) {
  Names names = {"kept"};
  EXPECT_EQ(listDir(nullptr, names), 1);
  EXPECT_THAT(names, ElementsAre("kept"));
}

TEST(ListDirTest, ListsAThousandEntriesInOrder) {
  const ScratchDirectory dir;
  Names want;
  for (int i = 1000; i < 2000; ++i) {
    writeFile(dir / std::to_string(i), "");
    want.push_back(std::to_string(i));
  }
  EXPECT_EQ(namesIn(dir.path()), want);
}

TEST(GetSizeTest, AFileHasTheSizeOfItsBlocks) {
  const ScratchDirectory dir;
  writeSettled(dir / "file", std::string(100000, 'x'));
  EXPECT_EQ(sizeOf(dir / "file"), blocksOf(dir / "file"));
}

TEST(GetSizeTest, ADirectoryAddsEverythingBelowItAndItself) {
  const ScratchDirectory dir;
  writeSettled(dir / "tree/a/file", std::string(10000, 'x'));
  writeSettled(dir / "tree/b", std::string(20000, 'x'));
  EXPECT_EQ(sizeOf(dir / "tree"), blocksOf(dir / "tree") + blocksOf(dir / "tree/a") + blocksOf(dir / "tree/a/file") +
                                      blocksOf(dir / "tree/b"));
}

TEST(GetSizeTest, FollowsLinks) {
  const ScratchDirectory dir;
  writeSettled(dir / "elsewhere/file", std::string(50000, 'x'));
  makeDirectories(dir / "tree");
  makeLink(dir / "elsewhere", dir / "tree/toDirectory");
  makeLink(dir / "elsewhere/file", dir / "tree/toFile");
  EXPECT_EQ(sizeOf(dir / "tree"),
            blocksOf(dir / "tree") + blocksOf(dir / "elsewhere") + 2 * blocksOf(dir / "elsewhere/file"));
}

TEST(GetSizeTest, TakesAKnownStatusOfAFileWithoutAskingTheFileSystem) {
  const CallWatch watch;
  struct stat known = {};
  known.st_mode = S_IFREG;
  known.st_blocks = 42;
  EXPECT_EQ(getSize("/missing", &known), 42);
  EXPECT_THAT(watch.calls, IsEmpty());
}

TEST(GetSizeTest, AddsWhatIsInADirectoryToItsKnownStatus) {
  const ScratchDirectory dir;
  writeSettled(dir / "file", std::string(10000, 'x'));
  struct stat known = {};
  known.st_mode = S_IFDIR;
  known.st_blocks = 42;
  EXPECT_EQ(getSize(dir.path().c_str(), &known), 42 + blocksOf(dir / "file"));
}

TEST(GetSizeTest, ListsAKnownDirectoryOnly) {
  const ScratchDirectory dir;
  writeSettled(dir / "file", std::string(10000, 'x'));
  struct stat known = {};
  known.st_mode = S_IFREG;
  known.st_blocks = 42;
  EXPECT_EQ(getSize(dir.path().c_str(), &known), 42) << "the status says that it is no directory";
}

TEST(GetSizeTest, AMissingPathGivesMinusOneAndOneLine) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  EXPECT_EQ(sizeOf(dir / "missing"), -1);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(cannotBeStated(dir / "missing", ENOENT)));
}

TEST(ListDirTest, NamesComeInCollationOrder) {
  const ScratchDirectory dir;
  for (const char* name : {"b", "a", "c"}) writeFile(dir / name, "");
  const ReversedCollation reversed;
  EXPECT_EQ(namesIn(dir.path()), (Names{"c", "b", "a"}));
}

TEST(GetSizeTest, AnUnreadableChildEndsTheWalkWithMinusOne) {
  const ScratchDirectory dir;
  writeSettled(dir / "tree/a", "content");
  writeSettled(dir / "tree/b/unreadable", "content");
  writeSettled(dir / "tree/c", "content");
  const FakeSyslog log;
  const CallWatch watch;
  const FailingCall failing("stat", EACCES, "/tree/b/unreadable");
  EXPECT_EQ(sizeOf(dir / "tree"), -1);
  EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated(dir / "tree/b/unreadable", EACCES)));
  EXPECT_THAT(pathsOf(watch, "stat"),
              ElementsAre(dir / "tree", dir / "tree/a", dir / "tree/b", dir / "tree/b/unreadable"));
}

TEST(GetSizeTest, ADanglingLinkEndsTheWalkWithMinusOne) {
  const ScratchDirectory dir;
  makeLink(dir / "missing", dir / "dangling");
  const FakeSyslog log;
  EXPECT_EQ(sizeOf(dir.path()), -1);
  EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated(dir / "dangling", ENOENT)));
}

TEST(GetSizeTest, ADirectoryThatCannotBeListedCountsItself) {
  const ScratchDirectory dir;
  writeSettled(dir / "file", "content");
  const FailingCall failing("opendir", EACCES);
  EXPECT_EQ(sizeOf(dir.path()), blocksOf(dir.path()));
}

TEST(GetSizeTest, AssertsThatAPathIsGiven) { EXPECT_THROW(getSize(nullptr, nullptr), KTAssertionException); }

TEST(GetSizeTest, AssertsThatAPathIsGivenAlsoWithAKnownStatus) {
  for (const mode_t mode : {mode_t{S_IFREG}, mode_t{S_IFDIR}}) {
    struct stat known = {};
    known.st_mode = mode;
    EXPECT_THROW(getSize(nullptr, &known), KTAssertionException);
  }
}

TEST(ListResourcesRecursivelyTest, GivesTheNamesBelowThreeHashLevels) {
  const ScratchDirectory dir;
  makeMount(dir);
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("a", "2009", "file"));
}

TEST(ListResourcesRecursivelyTest, AppendsAndGivesTheNumberOfAllEntries) {
  const ScratchDirectory dir;
  makeMount(dir);
  Names names = {"x"};
  EXPECT_EQ(listResourcesRecursively(dir.path().c_str(), names, kAllResources, true, 0), 4);
  EXPECT_EQ(listResourcesRecursively(dir.path().c_str(), names, kOnlyFiles, true, 0), 5);
  EXPECT_THAT(names, ElementsAre("x", "a", "2009", "file", "file"));
}

TEST(ListResourcesRecursivelyTest, TheFilterSelectsByKind) {
  const ScratchDirectory dir;
  makeMount(dir);
  makeLink(dir / "FP/IA/L3/2009", dir / "FP/IA/L3/linkToDirectory");
  makeLink(dir / "FP/IA/L3/file", dir / "FP/IA/L3/linkToFile");
  const struct {
    unsigned int filter;
    Names want;
  } rows[] = {
      {0, {"a", "2009", "file", "linkToDirectory", "linkToFile"}},
      {1, {"a", "2009", "linkToDirectory"}},
      {2, {"file", "linkToFile"}},
      {3, {"file", "linkToFile"}},
      {256, {"file", "linkToFile"}},
      {4294967295u, {"file", "linkToFile"}},
  };
  for (const auto& row : rows) EXPECT_EQ(listed(dir.path(), row.filter, true), row.want) << row.filter;
}

TEST(ListResourcesRecursivelyTest, TheFilterSelectsByKindInAFlatDirectoryToo) {
  const ScratchDirectory dir;
  makeDirectories(dir / "directory");
  writeFile(dir / "file", "");
  const struct {
    unsigned int filter;
    Names want;
  } rows[] = {
      {0, {"directory", "file"}}, {1, {"directory"}}, {2, {"file"}}, {3, {"file"}}, {4294967295u, {"file"}},
  };
  for (const auto& row : rows) EXPECT_EQ(listed(dir.path(), row.filter, false), row.want) << row.filter;
}

TEST(ListResourcesRecursivelyTest, PlainFilesAtHashLevelsAreIgnored) {
  const ScratchDirectory dir;
  writeFile(dir / "repositorypart.cfg", "");
  writeFile(dir / ".log", "");
  writeFile(dir / "level0", "");
  writeFile(dir / "FP/level1", "");
  writeFile(dir / "FP/IA/level2", "");
  writeFile(dir / "FP/IA/L3/level3", "");
  for (const unsigned int filter : {0u, 2u}) EXPECT_THAT(listed(dir.path(), filter, true), ElementsAre("level3"));
  EXPECT_THAT(listed(dir.path(), kOnlyDirectories, true), IsEmpty());
}

TEST(ListResourcesRecursivelyTest, ResourcesAreNotEntered) {
  const ScratchDirectory dir;
  makeDirectories(dir / "FP/IA/L3/2009/inside");
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("2009"));
}

TEST(ListResourcesRecursivelyTest, ListsNothingFromLostAndFoundAtTheRoot) {
  const ScratchDirectory dir;
  makeDirectories(dir / "lost+found/IA/L3/lost");
  const CallWatch watch;
  EXPECT_THAT(listed(dir.path(), kAllResources, true), IsEmpty());
  EXPECT_THAT(pathsOf(watch, "opendir"), ElementsAre(dir.path()));
  EXPECT_THAT(pathsOf(watch, "stat"), IsEmpty()) << "it is not even looked at";
}

TEST(ListResourcesRecursivelyTest, WalksLostAndFoundAtDeeperLevels) {
  const ScratchDirectory dir;
  makeDirectories(dir / "FP/lost+found/L3/one");
  makeDirectories(dir / "FP/IA/lost+found/two");
  makeDirectories(dir / "FP/IA/L3/lost+found");
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("lost+found", "two", "one"));
}

TEST(ListResourcesRecursivelyTest, PassesOverOnlyTheExactNameLostAndFound) {
  const ScratchDirectory dir;
  makeDirectories(dir / "lost+found2/IA/L3/one");
  makeDirectories(dir / "LOST+FOUND/IA/L3/two");
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("two", "one"));
}

TEST(ListResourcesRecursivelyTest, LostAndFoundIsAResourceOfAFlatDirectory) {
  const ScratchDirectory dir;
  makeDirectories(dir / "lost+found");
  EXPECT_THAT(listed(dir.path(), kAllResources, false), ElementsAre("lost+found"));
}

TEST(ListResourcesRecursivelyTest, AFlatDirectoryIsNotEntered) {
  const ScratchDirectory dir;
  makeDirectories(dir / "b/FP/IA/L3/inside");
  writeFile(dir / "b/file", "");
  writeFile(dir / "a", "");
  EXPECT_THAT(listed(dir.path(), kAllResources, false), ElementsAre("a", "b"));
  EXPECT_THAT(listed(dir.path(), kAllResources, false, 2), ElementsAre("a", "b")) << "whatever the level";
}

TEST(ListResourcesRecursivelyTest, StartsAtTheGivenLevel) {
  const ScratchDirectory dir;
  makeMount(dir);
  const struct {
    std::string directory;
    unsigned int level;
    Names want;
  } rows[] = {
      {dir.path(), 0, {"a", "2009", "file"}},
      {dir / "FP", 1, {"2009", "file"}},
      {dir / "FP/IA", 2, {"2009", "file"}},
      {dir / "FP/IA/L3", 3, {"2009", "file"}},
      {dir / "FP/IA/L3/2009", 3, {"inside"}},
      {dir / "lost+found", 1, {"lost"}},
      {dir.path(), 3, {".log", "BC", "FP", "lost+found", "repositorypart.cfg"}},
      {dir / "FP/IA/L3", 4, {}},  // below the resources there is no level of resources any more
  };
  for (const auto& row : rows)
    EXPECT_EQ(listed(row.directory, kAllResources, true, row.level), row.want) << row.directory << " " << row.level;
}

TEST(ListResourcesRecursivelyTest, GoesThroughTheHashDirectoriesInOrder) {
  const ScratchDirectory dir;
  makeDirectories(dir / "ZZ/AA/AA/first");
  makeDirectories(dir / "AA/ZZ/AA/second");
  makeDirectories(dir / "AA/AA/ZZ/third");
  makeDirectories(dir / "AA/AA/AA/zebra");
  makeDirectories(dir / "AA/AA/AA/ant");
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("ant", "zebra", "third", "second", "first"));
}

TEST(ListResourcesRecursivelyTest, ANameInTwoPlacesIsListedTwice) {
  const ScratchDirectory dir;
  makeDirectories(dir / "AA/AA/AA/twice");
  makeDirectories(dir / "BB/AA/AA/twice");
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("twice", "twice"));
}

TEST(ListResourcesRecursivelyTest, FollowsLinksToHashDirectories) {
  const ScratchDirectory dir;
  makeDirectories(dir / "elsewhere/L3/2009");
  makeDirectories(dir / "mount/FP");
  makeLink(dir / "elsewhere", dir / "mount/FP/IA");
  EXPECT_THAT(listed(dir / "mount", kAllResources, true), ElementsAre("2009"));
}

TEST(ListResourcesRecursivelyTest, DanglingLinksAreSkippedAtEveryLevel) {
  const ScratchDirectory dir;
  makeMount(dir);
  for (const char* where : {"/", "/FP/", "/FP/IA/", "/FP/IA/L3/"}) makeLink("missing", dir.path() + where + "dangling");
  const FakeSyslog log;
  for (const unsigned int filter : {0u, 2u})
    EXPECT_THAT(listed(dir.path(), filter, true), testing::Not(testing::Contains("dangling")));
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("a", "2009", "file"));
  EXPECT_THAT(listed(dir / "FP/IA/L3", kAllResources, false), ElementsAre("2009", "file"));
}

TEST(ListResourcesRecursivelyTest, AnEntryThatCannotBeExaminedIsSkippedAndTheProbeLogsIt) {
  const ScratchDirectory dir;
  makeMount(dir);
  const FakeSyslog log;
  const FailingCall failing("stat", EIO, "/FP/IA/L3/2009");
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("a", "file"));
  EXPECT_THAT(log.texts(), ElementsAre(cannotBeStated(dir / "FP/IA/L3/2009", EIO)));
}

TEST(ListResourcesRecursivelyTest, ADirectoryThatCannotBeReadIsSkipped) {
  const ScratchDirectory dir;
  makeMount(dir);
  const FakeSyslog log;
  {
    const FailingCall failing("opendir", EACCES, "/FP/IA");
    EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("a"));
    EXPECT_EQ(failing.failed(), 1);
  }
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(ListResourcesRecursivelyTest, ADirectoryThatCannotBeReadToItsEndIsSkipped) {
  const ScratchDirectory dir;
  makeMount(dir);
  const FakeSyslog log;
  const FailingCall failing("readdir", EIO, "/FP/IA/L3/", 3, 1);
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("a"));
  EXPECT_EQ(failing.failed(), 1);
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(ListResourcesRecursivelyTest, NamesOfADirectoryComeInCollationOrder) {
  const ScratchDirectory dir;
  makeMount(dir);
  const ReversedCollation reversed;
  EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("file", "2009", "a"));
}

TEST(ListResourcesRecursivelyTest, HoldsFourDescriptorsAtMostAndNoneAfterwards) {
  const ScratchDirectory dir;
  makeMount(dir);
  const long before = openDescriptors();
  {
    const DescriptorLimit limit(4);
    EXPECT_THAT(listed(dir.path(), kAllResources, true), ElementsAre("a", "2009", "file"));
  }
  {
    const DescriptorLimit limit(3);
    EXPECT_THAT(listed(dir.path(), kAllResources, true), IsEmpty());
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(ListResourcesRecursivelyTest, AMissingDirectoryAddsNothing) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  for (const bool hashed : {false, true}) {
    Names names = {"kept"};
    EXPECT_EQ(listResourcesRecursively((dir / "missing").c_str(), names, kAllResources, hashed, 0), 1);
    EXPECT_EQ(listResourcesRecursively("", names, kAllResources, hashed, 0), 1);
    EXPECT_EQ(listResourcesRecursively(nullptr, names, kAllResources, hashed, 0), 1);
    EXPECT_THAT(names, ElementsAre("kept"));
  }
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(ListResourcesRecursivelyTest, ReadsEachDirectoryOnceAndLooksAtEachEntryOnce) {
  const ScratchDirectory dir;
  makeMount(dir);
  const CallWatch watch;
  listed(dir.path(), kAllResources, true);
  EXPECT_THAT(pathsOf(watch, "opendir"), ElementsAre(dir.path(), dir / "BC", dir / "BC/6J", dir / "BC/6J/AJ",
                                                     dir / "FP", dir / "FP/IA", dir / "FP/IA/L3"));
  EXPECT_THAT(pathsOf(watch, "stat"),
              ElementsAre(dir / ".log", dir / "BC", dir / "BC/6J", dir / "BC/6J/AJ", dir / "BC/6J/AJ/a", dir / "FP",
                          dir / "FP/IA", dir / "FP/IA/L3", dir / "FP/IA/L3/2009", dir / "FP/IA/L3/file",
                          dir / "repositorypart.cfg"));
}

TEST(ToResourceIDTest, JoinsRepositoryAndResourceWithAHyphenAndUnderscoresForSlashes) {
  EXPECT_EQ(taken(toResourceID("a/b", "c/d")), "KTRepositoryHandler-a_b-c_d");
}

TEST(ToResourceIDTest, TurnsEverySlashIntoAnUnderscore) {
  const struct {
    const char* repository;
    const char* resource;
    const char* want;
  } rows[] = {
      {"/data/rep", "2009", "KTRepositoryHandler-_data_rep-2009"},
      {"/data/rep/.dirty", "", "KTRepositoryHandler-_data_rep_.dirty-"},
      {"/data/rep", "", "KTRepositoryHandler-_data_rep-"},
      {"", "", "KTRepositoryHandler--"},
      {"", "a", "KTRepositoryHandler--a"},
      {"/", "/", "KTRepositoryHandler-_-_"},
      {"//a//", "/b/", "KTRepositoryHandler-__a__-_b_"},
      {"/data/my-rep", "a_b-c", "KTRepositoryHandler-_data_my-rep-a_b-c"},
      {"/data/rep", "a.b %s\\\xff\n", "KTRepositoryHandler-_data_rep-a.b %s\\\xff\n"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(toResourceID(row.repository, row.resource)), row.want);
}

TEST(ToResourceIDTest, ShortensNothing) {
  const std::string repository(5000, 'r');
  const std::string resource(70000, 's');
  EXPECT_EQ(taken(toResourceID(repository.c_str(), resource.c_str())),
            "KTRepositoryHandler-" + repository + "-" + resource);
}

TEST(ToResourceIDTest, NamesOfTwoResourcesCanBeTheSame) {
  EXPECT_EQ(taken(toResourceID("/data/rep", "a/b")), "KTRepositoryHandler-_data_rep-a_b");
  EXPECT_EQ(taken(toResourceID("/data/rep", "a_b")), "KTRepositoryHandler-_data_rep-a_b");
}

TEST(ToResourceIDTest, ANullArgumentGivesNull) {
  EXPECT_EQ(toResourceID(nullptr, "2009"), nullptr);
  EXPECT_EQ(toResourceID("/data/rep", nullptr), nullptr);
  EXPECT_EQ(toResourceID(nullptr, nullptr), nullptr);
}
