#include "sizeaccounting.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "KTOwned.h"
#include "fakes/fakes.h"
#include "support/results.h"
#include "support/scratch.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr time_t kLongAgo = 1000000000;
constexpr time_t kFarAhead = 2000000000;  // later than any use of a resource here
constexpr bool kHashed = false;
constexpr bool kFlat = true;
constexpr char kDuFailed[] = "ERROR: du terminated abnormally\n";

// Stands in for du: writes what a test announced for each path into the output file.
class ScriptedDu {
 public:
  ScriptedDu() {
    shell.answer = [this](const std::string& command) {
      const size_t first = command.find('"') + 1;
      const size_t last = command.rfind('"');
      const std::string path = command.substr(first, last - first);
      if (onRun) onRun(path);
      if (status == 0) writeFile(command.substr(last + 4), output.at(path));
      return status;
    };
  }

  FakeShell shell;
  std::map<std::string, std::string> output;           // by path
  std::function<void(const std::string& path)> onRun;  // what measuring does to the resource
  int status = 0;
};

// A directory to count, with resources that are files, all used long ago.
class SizeAccountingTest : public testing::Test {
 protected:
  SizeAccountingTest() { makeDirectories(root); }

  // A resource that du finds to be so big.
  std::string resource(const std::string& name, int kilobytes, time_t used = kLongAgo) {
    const std::string path = root + "/" + name;
    writeFile(path, "content");
    setTimes(path, used);
    du.output[path] = std::to_string(kilobytes) + "\t" + path + "\n";
    return path;
  }

  std::string measuring(const std::string& path) const { return "du -sk \"" + path + "\" > " + root + "/.countres"; }
  std::string cache() const { return readFile(root + "/.count"); }
  void setCache(const std::string& text) const { writeFile(root + "/.count", text); }
  std::string filenameLine() const { return "Filename: " + root + "/.count\n"; }
  long count(bool flat) const { return countSize(root.c_str(), flat); }

  ScratchDirectory directory;
  const std::string root = directory / "counted";
  FakeSyslog log;
  ScriptedDu du;
};

// How many writing calls of this process the kernel has counted.
long writes() {
  const std::string counts = readFile("/proc/self/io");
  const size_t at = counts.find("syscw: ");
  EXPECT_NE(at, std::string::npos) << "needs a kernel that counts them";
  return strtol(counts.c_str() + at + strlen("syscw: "), nullptr, 10);
}

// Kilobytes of the blocks of a tree, as du adds them up.
long kilobytesOf(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return -1;
  long blocks = static_cast<long>(status.st_blocks);
  if (S_ISDIR(status.st_mode))
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
      if (lstat(entry.path().c_str(), &status) != 0) return -1;
      blocks += static_cast<long>(status.st_blocks);
    }
  return (blocks + 1) / 2;
}

std::string triple(const std::string& name, time_t time, long size) {
  return name + "\n" + std::to_string(time) + "\n" + std::to_string(size) + "\n";
}

}  // namespace

TEST(CountResourceSetTest, NamesStandInDescendingByteOrder) {
  struct Row {
    const char* a;
    const char* b;
    bool before;
  };
  for (const Row& row : {Row{"b", "a", true}, Row{"a", "b", false}, Row{"a", "a", false}, Row{"ab", "a", true},
                         Row{"a", "ab", false}, Row{"a", "B", true}, Row{"\xc3\xa4", "z", true},
                         Row{"z", "\xff", false}, Row{"a", "", true}, Row{"2", "10", true}})
    EXPECT_EQ(ctres()({row.a, 1, 1}, {row.b, 2, 2}), row.before) << row.a << " before " << row.b;
}

TEST(CountResourceSetTest, OneNameStandsOnceWhateverItsTimeAndSize) {
  std::set<CountResourceSetEntry, ctres> found;
  found.insert({"a", 1, 2});
  found.insert({"a", 3, 4});
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found.begin()->size, 2) << "the first one found";
}

TEST_F(SizeAccountingTest, WithoutACacheEveryResourceIsMeasuredAndTheFileMade) {
  const std::string a = resource("AA/BB/CC/a", 12);
  const std::string b = resource("AA/BB/CD/b", 30, kLongAgo + 5);
  const std::string c = resource("ZZ/BB/CC/c", 4);
  EXPECT_EQ(count(kHashed), 46);
  EXPECT_THAT(du.shell.commands, ElementsAre(measuring(a), measuring(b), measuring(c)));
  EXPECT_EQ(cache(), triple("c", kLongAgo, 4) + triple("b", kLongAgo + 5, 30) + triple("a", kLongAgo, 12));
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre(filenameLine(), "resource: a new size:12\n",
                                                "resource: b new size:30\n", "resource: c new size:4\n"));
  EXPECT_EQ(log.lines.size(), 4u);
}

TEST_F(SizeAccountingTest, AnEmptyDirectoryCountsNothingAndGetsAnEmptyCache) {
  for (const bool flat : {kHashed, kFlat}) EXPECT_EQ(count(flat), 0);
  EXPECT_THAT(treeOf(root), ElementsAre(".count="));
  EXPECT_THAT(du.shell.commands, IsEmpty());
}

TEST_F(SizeAccountingTest, ASecondCallMeasuresNothingAndTellsSoForEach) {
  resource("AA/BB/CC/a", 12);
  resource("AA/BB/CC/b", 30);
  EXPECT_EQ(count(kHashed), 42);
  const std::string before = cache();
  du.shell.commands.clear();
  log.lines.clear();
  EXPECT_EQ(count(kHashed), 42);
  EXPECT_THAT(du.shell.commands, IsEmpty());
  EXPECT_THAT(log.texts(LOG_DEBUG),
              ElementsAre(filenameLine(), "Exists\n", "resource not changed:a\n", "resource not changed:b\n"));
  EXPECT_EQ(cache(), before);
}

TEST_F(SizeAccountingTest, AUsedResourceIsMeasuredAgainAndItsTripleUpdated) {
  const std::string a = resource("AA/BB/CC/a", 12);
  resource("AA/BB/CC/b", 30);
  count(kHashed);
  du.shell.commands.clear();
  log.lines.clear();
  setTimes(a, kLongAgo + 1, kLongAgo);
  du.output[a] = "50\t" + a + "\n";
  EXPECT_EQ(count(kHashed), 80);
  EXPECT_THAT(du.shell.commands, ElementsAre(measuring(a)));
  EXPECT_EQ(cache(), triple("b", kLongAgo, 30) + triple("a", kLongAgo + 1, 50));
  EXPECT_THAT(log.texts(),
              ElementsAre(filenameLine(), "Exists\n", "resource: a new size:50\n", "resource not changed:b\n"));
}

TEST_F(SizeAccountingTest, AWriteCountsAsAUse) {
  const std::string a = resource("a", 12);
  count(kFlat);
  setTimes(a, kLongAgo, kLongAgo + 1);
  du.output[a] = "13\t" + a + "\n";
  EXPECT_EQ(count(kFlat), 13);
  EXPECT_EQ(cache(), triple("a", kLongAgo + 1, 13));
}

TEST_F(SizeAccountingTest, AResourceIsMeasuredOnlyWhenItsLastUseIsLaterThanTheCachedTime) {
  struct Row {
    time_t cached;
    long total;
  };
  resource("a", 12);
  for (const Row& row : {Row{kLongAgo - 1, 12}, Row{kLongAgo, 99}, Row{kLongAgo + 1, 99}}) {
    setCache(triple("a", row.cached, 99));
    EXPECT_EQ(count(kFlat), row.total) << "cached time " << row.cached;
  }
  EXPECT_EQ(cache(), triple("a", kLongAgo + 1, 99)) << "the cached time stays with the cached size";
}

TEST_F(SizeAccountingTest, AResourceThatHasGoneDropsOutOfTheCache) {
  resource("a", 12);
  setCache(triple("z", kLongAgo, 99) + triple("a", kLongAgo, 12));
  EXPECT_EQ(count(kFlat), 12);
  EXPECT_EQ(cache(), triple("a", kLongAgo, 12));
}

TEST_F(SizeAccountingTest, AFlatCountLeavesOutLinksAndItsOwnFiles) {
  const std::string a = resource("a", 12);
  resource("target", 5);
  std::filesystem::create_symlink(root + "/target", root + "/link");
  std::filesystem::create_symlink("/nonexistent", root + "/dangling");
  writeFile(root + "/.countres", "7\told\n");
  setCache("");
  EXPECT_EQ(count(kFlat), 17);
  EXPECT_THAT(du.shell.commands, ElementsAre(measuring(a), measuring(root + "/target")));
  EXPECT_EQ(cache(), triple("target", kLongAgo, 5) + triple("a", kLongAgo, 12));
}

TEST_F(SizeAccountingTest, AFlatCountTakesEntriesOfAnyTypeAndEntersNone) {
  makeDirectories(root + "/tree/inner");
  setTimes(root + "/tree", kLongAgo);
  du.output[root + "/tree"] = "8\t-\n";
  makeDirectories(root + "/lost+found");
  setTimes(root + "/lost+found", kLongAgo);
  du.output[root + "/lost+found"] = "16\t-\n";
  EXPECT_EQ(count(kFlat), 24);
  EXPECT_EQ(cache(), triple("tree", kLongAgo, 8) + triple("lost+found", kLongAgo, 16));
}

TEST_F(SizeAccountingTest, AHashedCountSkipsLostAndFoundAtTheRootAndFilesAtHashLevels) {
  for (const char* file : {"lost+found/BB/CC/a", "file", "AA/file", "AA/BB/file"}) writeFile(root + "/" + file, "");
  resource("AA/BB/CC/b", 30);
  EXPECT_EQ(count(kHashed), 30);
  EXPECT_EQ(cache(), triple("b", kLongAgo, 30));
}

TEST_F(SizeAccountingTest, LostAndFoundBelowTheRootIsWalkedAndCountedLikeAnyOther) {
  resource("AA/lost+found/CC/a", 1);
  resource("AA/BB/CC/lost+found", 2);
  EXPECT_EQ(count(kHashed), 3);
}

TEST_F(SizeAccountingTest, AHashedCountFollowsLinksToDirectoriesAndCountsLinksAmongTheResources) {
  resource("AA/BB/CC/a", 1);
  writeFile(directory / "elsewhere", "");
  setTimes(directory / "elsewhere", kLongAgo);
  std::filesystem::create_symlink(directory / "elsewhere", root + "/AA/BB/CC/link");
  du.output[root + "/AA/BB/CC/link"] = "4\t-\n";
  std::filesystem::create_directory_symlink(root + "/AA/BB/CC", root + "/AA/BB/DD");
  du.output[root + "/AA/BB/DD/a"] = "1\t-\n";
  du.output[root + "/AA/BB/DD/link"] = "4\t-\n";
  EXPECT_EQ(count(kHashed), 10);
  EXPECT_EQ(cache(), triple("link", kLongAgo, 4) + triple("a", kLongAgo, 1));
}

TEST_F(SizeAccountingTest, ItsOwnNamesAreSkippedAmongHashedResourcesToo) {
  writeFile(root + "/AA/BB/CC/.count", "");
  writeFile(root + "/AA/BB/CC/.countres", "");
  EXPECT_EQ(count(kHashed), 0);
  EXPECT_THAT(du.shell.commands, IsEmpty());
}

TEST_F(SizeAccountingTest, ResourcesOfOneNameAllCountAndTheFirstStandsInTheFile) {
  resource("AA/BB/CC/same", 3);
  resource("BB/BB/CC/same", 4, kLongAgo + 9);
  EXPECT_EQ(count(kHashed), 7);
  EXPECT_EQ(cache(), triple("same", kLongAgo, 3));
}

// The cache knows names only, so a second count takes the first one's size for both.
TEST_F(SizeAccountingTest, ResourcesOfOneNameShareTheRememberedSize) {
  resource("AA/BB/CC/same", 3);
  resource("BB/BB/CC/same", 4);
  count(kHashed);
  EXPECT_EQ(count(kHashed), 6);
}

TEST_F(SizeAccountingTest, MeasuresForReal) {
  makeDirectories(root + "/AA/BB/CC/tree");
  writeFile(root + "/AA/BB/CC/tree/big", std::string(100000, 'x'));
  writeFile(root + "/AA/BB/CC/tree/sub/small", "x");
  writeFile(root + "/AA/BB/CC/with blank", std::string(20000, 'y'));
  const long tree = kilobytesOf(root + "/AA/BB/CC/tree");
  const long file = kilobytesOf(root + "/AA/BB/CC/with blank");
  ASSERT_GE(tree, 98);
  for (const char* name : {"tree", "with blank"}) setTimes(root + "/AA/BB/CC/" + name, kLongAgo);
  du.shell.answer = nullptr;
  EXPECT_EQ(count(kHashed), tree + file);
  EXPECT_EQ(cache(), triple("with blank", kLongAgo, file) + triple("tree", kLongAgo, tree));
  EXPECT_EQ(readFile(root + "/.countres"), std::to_string(file) + "\t" + root + "/AA/BB/CC/with blank\n")
      << "the last output is left in place";
  du.shell.commands.clear();
  EXPECT_EQ(count(kHashed), tree + file);
  EXPECT_THAT(du.shell.commands, IsEmpty()) << "measuring itself was no use of the resources";
}

TEST_F(SizeAccountingTest, AShellThatCannotRunDuCountsTheResourceAsNothing) {
  const std::string name = "quote\"d";
  writeFile(root + "/" + name, "content");
  setTimes(root + "/" + name, kLongAgo);
  du.shell.answer = [](const std::string& command) { return FakeShell::runReal("exec 2>/dev/null\n" + command); };
  EXPECT_EQ(count(kFlat), 0);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre(filenameLine(), kDuFailed, "resource: quote\"d new size:0\n"));
  EXPECT_EQ(cache(), triple(name, kLongAgo, 0));
}

TEST_F(SizeAccountingTest, ADuThatFailsCountsAsNothingUntilTheResourceIsUsedAgain) {
  const std::string a = resource("a", 12);
  writeFile(root + "/.countres", "77\told\n");
  for (const int status : {256, 9, -1}) {
    std::filesystem::remove(root + "/.count");
    log.lines.clear();
    du.status = status;
    EXPECT_EQ(count(kFlat), 0);
    EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre(filenameLine(), kDuFailed, "resource: a new size:0\n"));
    EXPECT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(cache(), triple("a", kLongAgo, 0));
  }
  du.status = 0;
  EXPECT_EQ(count(kFlat), 0) << "not measured again";
  setTimes(a, kLongAgo + 1);
  EXPECT_EQ(count(kFlat), 12);
}

TEST_F(SizeAccountingTest, ADuWithoutAnOutputFileCountsAsNothing) {
  resource("a", 12);
  du.shell.answer = [](const std::string&) { return 0; };
  EXPECT_EQ(count(kFlat), 0);
  EXPECT_THAT(log.texts(), ElementsAre(filenameLine(), kDuFailed, "resource: a new size:0\n"));
}

TEST_F(SizeAccountingTest, TheSizeIsTheFirstNumberOfTheOutput) {
  const std::string a = resource("a", 0);
  struct Row {
    const char* output;
    long size;
  };
  for (const Row& row : {Row{"12\tpath\n", 12}, Row{"  7 8", 7}, Row{"\n\n5", 5}, Row{"", 0}, Row{"none 5", 0},
                         Row{"2147483647", 2147483647}}) {
    std::filesystem::remove(root + "/.count");
    du.output[a] = row.output;
    EXPECT_EQ(count(kFlat), row.size) << row.output;
  }
}

TEST_F(SizeAccountingTest, AnOutputThatCannotBeOpenedThrowsAndLeavesTheCacheFile) {
  resource("a", 12);
  setCache("old");
  {
    const FailingCall refused("fopen", EACCES, "/.countres");
    EXPECT_EQ(failedExpression([&] { count(kFlat); }), "f");
    EXPECT_EQ(refused.failed(), 1);
  }
  EXPECT_EQ(cache(), "old");
}

TEST_F(SizeAccountingTest, ACacheFileThatCannotBeReadThrowsBeforeAnythingIsMeasured) {
  resource("a", 12);
  setCache("old");
  {
    const FailingCall refused("fopen", EACCES, "/.count", 0, 1);
    EXPECT_EQ(failedExpression([&] { count(kFlat); }), "f");
  }
  EXPECT_THAT(log.texts(), ElementsAre(filenameLine(), "Exists\n"));
  EXPECT_THAT(du.shell.commands, IsEmpty());
  EXPECT_EQ(cache(), "old");
}

// What a disk that fills up leaves of the file hangs on it.
TEST_F(SizeAccountingTest, TheCacheIsWrittenResourceByResourceThroughTheBufferOfAFile) {
  std::vector<std::string> triples;
  for (int i = 99; i >= 0; --i) {
    const std::string name = std::string(200, 'n') + std::to_string(1000 + i);
    resource(name, 0);
    triples.push_back(triple(name, kFarAhead, i));
  }
  const auto writeTriples = [&] {
    const OwnedFile file(fopen((root + "/.count").c_str(), "w"));
    for (const std::string& text : triples) fputs(text.c_str(), file.get());
  };
  const auto writesOf = [](const std::function<void()>& body) {
    const long before = writes();
    body();
    return writes() - before;
  };
  const long want = writesOf(writeTriples);
  const std::string content = cache();
  EXPECT_EQ(writesOf([&] { count(kFlat); }), want);
  EXPECT_EQ(cache(), content);
}

TEST_F(SizeAccountingTest, ACacheFileThatCannotBeWrittenThrows) {
  setCache("old");
  {
    const FailingCall refused("fopen", EROFS, "/.count", 1);
    EXPECT_EQ(failedExpression([&] { count(kFlat); }), "f");
  }
  EXPECT_EQ(cache(), "old");
}

TEST_F(SizeAccountingTest, ADirectoryThatIsMissingHasNoPlaceForTheCacheAndThrows) {
  const std::string missing = directory / "missing";
  EXPECT_EQ(failedExpression([&] { countSize(missing.c_str(), kHashed); }), "f");
  EXPECT_EQ(failedExpression([] { countSize(nullptr, kFlat); }), "directory");
}

TEST_F(SizeAccountingTest, ReadsTriplesAsTheyCome) {
  struct Row {
    const char* what;
    std::string cache;
    long total;  // of one resource "a" that du finds to be 12 and that was used long ago
  };
  const std::string name1023(1023, 'n');
  const std::vector<Row> rows = {
      {"a triple", triple("a", kFarAhead, 5), 5},
      {"no line feed at the end", "a\n2000000000\n5", 5},
      {"a later triple of the name wins", triple("a", kFarAhead, 5) + triple("a", kFarAhead, 6), 6},
      {"a size that is no number is 0", "a\n2000000000\nbig\n", 0},
      {"a size with a tail is its number", "a\n2000000000\n5 KB\n", 5},
      {"a carriage return is such a tail", "a\n2000000000\r\n5\r\n", 5},
      {"a time that is no number is 0", "a\nnever\n5\n", 12},
      {"an empty time is 0", "a\n\n5\n", 12},
      {"without a size there is no entry", "a\n2000000000\n", 12},
      {"without a time there is no entry", "a\n", 12},
      {"a blank is part of the name", triple("a ", kFarAhead, 5), 12},
      {"a line too few moves the rest up", "z\n1\n" + triple("a", kFarAhead, 5), 12},
      {"three lines too many do not", "z\n1\n2\n" + triple("a", kFarAhead, 5), 5},
      {"a name of 1022 characters is one line", triple(std::string(1022, 'n'), 1, 1) + triple("a", kFarAhead, 5), 5},
      {"the line feed of a name of 1023 is a line", triple(name1023, 1, 1) + triple("a", kFarAhead, 5), 12},
      {"a name of 3069 characters is three lines and its line feed one more",
       name1023 + name1023 + name1023 + "\n1\n" + triple("a", kFarAhead, 5), 12},
      {"negative numbers are read", "a\n2000000000\n-5\n", -5},
  };
  resource("a", 12);
  for (const Row& row : rows) {
    setCache(row.cache);
    EXPECT_EQ(count(kFlat), row.total) << row.what;
  }
}

TEST_F(SizeAccountingTest, AnIdleResourceGetsItsTimesBackAfterMeasuring) {
  struct Row {
    time_t sinceRead;
    time_t sinceWritten;
    bool restored;
  };
  FakeClock clock;
  const std::string a = resource("a", 12);
  for (const Row& row : {Row{3601, 3601, true}, Row{3600, 3601, false}, Row{3601, 3600, false}, Row{3600, 3600, false},
                         Row{3599, 9999, false}, Row{9999, 3599, false}, Row{0, 0, false}, Row{99999, 3601, true},
                         Row{-10, 9999, false}}) {
    std::filesystem::remove(root + "/.count");
    setTimes(a, clock.now - row.sinceRead, clock.now - row.sinceWritten);
    du.onRun = [&](const std::string& path) { setTimes(path, kLongAgo + 1, kLongAgo + 2); };
    count(kFlat);
    EXPECT_EQ(accessTime(a), row.restored ? clock.now - row.sinceRead : kLongAgo + 1) << row.sinceRead;
    EXPECT_EQ(modificationTime(a), row.restored ? clock.now - row.sinceWritten : kLongAgo + 2) << row.sinceWritten;
  }
}

TEST_F(SizeAccountingTest, TheHourIsCountedFromTheEndOfTheMeasuring) {
  FakeClock clock;
  const std::string a = resource("a", 12, clock.now - 3600);
  du.onRun = [&](const std::string& path) {
    setTimes(path, kLongAgo);
    ++clock.now;
  };
  const time_t used = clock.now - 3600;
  count(kFlat);
  EXPECT_EQ(accessTime(a), used);
}

TEST_F(SizeAccountingTest, TimesComeBackWhenDuFailsAsWell) {
  const std::string a = resource("a", 12);
  du.status = 256;
  du.onRun = [](const std::string& path) { setTimes(path, kLongAgo + 7); };
  count(kFlat);
  EXPECT_EQ(accessTime(a), kLongAgo);
}

TEST_F(SizeAccountingTest, TheRememberedTimeIsTheLaterOfBothAndFromBeforeTheMeasuring) {
  const std::string a = resource("a", 12);
  setTimes(a, kLongAgo, kLongAgo + 3);
  du.onRun = [](const std::string& path) { setTimes(path, kLongAgo + 7); };
  count(kFlat);
  EXPECT_EQ(cache(), triple("a", kLongAgo + 3, 12));
}

TEST_F(SizeAccountingTest, ACachedResourceIsNotTouched) {
  const std::string a = resource("a", 12);
  setCache(triple("a", kLongAgo, 12));
  CallWatch watch;
  EXPECT_EQ(count(kFlat), 12);
  EXPECT_THAT(watch.calls, testing::Not(testing::Contains("utime " + a)));
  EXPECT_THAT(watch.calls, testing::Contains("stat " + a).Times(1)) << "all that an unchanged resource costs";
  EXPECT_THAT(watch.locks, IsEmpty());
}

TEST_F(SizeAccountingTest, AResourceThatCannotBeStatedIsMeasuredAndRememberedWithTimeMinusOne) {
  const std::string a = resource("a", 12);
  const FailingCall broken("stat", EIO, a);
  CallWatch watch;
  EXPECT_EQ(count(kFlat), 12);
  EXPECT_EQ(cache(), triple("a", -1, 12));
  EXPECT_THAT(watch.calls, testing::Not(testing::Contains("utime " + a))) << "there are no times to give back";
}

TEST_F(SizeAccountingTest, AHashDirectoryThatCannotBeAskedIsLeftOut) {
  resource("AA/BB/CC/a", 1);
  resource("BB/BB/CC/b", 2);
  const FailingCall broken("stat", EIO, root + "/AA", 0, 1);
  EXPECT_EQ(count(kHashed), 2);
  EXPECT_EQ(cache(), triple("b", kLongAgo, 2));
}

TEST_F(SizeAccountingTest, AWalkWritesTheOutputOfDuWhereItsRootSays) {
  const std::string a = resource("a", 12);
  const std::string scratch = directory / "scratch";
  makeDirectories(scratch);
  std::map<std::string, CountResourceEntry> remembered;
  std::set<CountResourceSetEntry, ctres> found;
  EXPECT_EQ(countSizeRecursively(root.c_str(), &remembered, &found, scratch.c_str(), 0, 3, kFlat), 12);
  EXPECT_THAT(du.shell.commands, ElementsAre("du -sk \"" + a + "\" > " + scratch + "/.countres"));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found.begin()->name, "a");
  EXPECT_EQ(found.begin()->time, kLongAgo);
  EXPECT_EQ(found.begin()->size, 12);
  EXPECT_THAT(remembered, IsEmpty()) << "the walk reads the cache only";
  EXPECT_FALSE(isThere(root + "/.count"));
}

TEST_F(SizeAccountingTest, AWalkHandsTheCallersTotalToEachLevel) {
  resource("AA/BB/CC/a", 5);
  std::map<std::string, CountResourceEntry> remembered;
  std::set<CountResourceSetEntry, ctres> found;
  const auto from = [&](const std::string& at, unsigned int depth) {
    return countSizeRecursively((root + at).c_str(), &remembered, &found, root.c_str(), 100, depth, kHashed);
  };
  EXPECT_EQ(from("/AA/BB/CC", 3), 105);
  EXPECT_EQ(from("/AA/BB", 2), 205);
  EXPECT_EQ(from("", 0), 405);
}

TEST_F(SizeAccountingTest, AWalkOfADirectoryThatCannotBeReadGivesTheTotal) {
  std::map<std::string, CountResourceEntry> remembered;
  std::set<CountResourceSetEntry, ctres> found;
  EXPECT_EQ(countSizeRecursively("/nonexistent", &remembered, &found, root.c_str(), 100, 0, kHashed), 100);
  EXPECT_THAT(found, IsEmpty());
}
