#include "hashlayout.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>

#include "fakes/fakes.h"
#include "hashlayout.h"
#include "support/child.h"
#include "support/results.h"
#include "support/scratch.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The hash once more, cell by cell instead of byte by byte, to set against the library's.
std::string hashAgain(const std::string& name) {
  std::string result;
  for (uint64_t cell = 1; cell <= 6; ++cell) {
    uint64_t sum = 0;
    for (size_t i = 0; i < name.size(); ++i) sum += static_cast<unsigned char>(name[i]) * (i + cell) * (i + cell);
    result += "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_"[sum % 256 % 37];
    if (cell % 2 == 0) result += '/';
  }
  return result + name;
}

// The whole conversion once more, with the path taken apart first.
std::string convertAgain(const std::string& path) {
  std::vector<std::string> components(1);
  for (const char c : path) {
    if (c == '/')
      components.emplace_back();
    else
      components.back() += c;
  }
  std::string result;
  for (size_t i = 0; i + 1 < components.size(); ++i)
    if (!components[i].empty()) result += hashAgain(components[i]) + "/";
  return result + components.back();
}

class TraceSwitchedOn {
 public:
  TraceSwitchedOn() { isDEBUGHASH = true; }
  ~TraceSwitchedOn() { isDEBUGHASH = false; }
};

std::string targetOf(const std::string& link) { return fs::read_symlink(link).string(); }

// A hashed tree and a link tree side by side.
struct Trees {
  Trees() { makeDirectories(links()); }
  std::string links() const { return dir / "links/"; }
  std::string hash() const { return dir / "hash/"; }
  int create(const std::string& relPath) const {
    return createDirectory(links().c_str(), hash().c_str(), relPath.c_str());
  }
  int remove(const std::string& relPath) const {
    return removeDirectory(links().c_str(), hash().c_str(), relPath.c_str());
  }

  const ScratchDirectory dir;
};

// a/ and a/b/ in hashed form.
const std::string kHashedA = "BC/6J/AJ/a/";
const std::string kHashedAB = "BC/6J/AJ/a/NM/R7/0H/b/";

}  // namespace

TEST(HashLengthTest, IsTwoCharactersInEachOfThreeLevels) { EXPECT_EQ(hashLength, 2u); }

TEST(CreateHashTest, GivesThreeLevelsAndTheNameItself) {
  const struct {
    const char* name;
    const char* levels;
  } rows[] = {
      {"a", "BC/6J/AJ/"},        {"abc", "1W/H6/HW/"},        {"2009", "FP/IA/L3/"}, {"12345", "DM/_O/HX/"},
      {"b", "NM/R7/0H/"},        {"12", "2B/7X/NI/"},         {"A", "3T/_J/H_/"},    {"m1", "D0/IY/18/"},
      {"resource", "CF/30/3A/"}, {"lost+found", "K1/Z2/Z1/"}, {"_", "CF/FL/9L/"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(createHash(row.name)), std::string(row.levels) + row.name);
}

TEST(CreateHashTest, AnEmptyNameStandsBelowTheFirstCharacters) { EXPECT_EQ(taken(createHash("")), "QQ/QQ/QQ/"); }

TEST(CreateHashTest, NullGivesNull) { EXPECT_EQ(createHash(nullptr), nullptr); }

TEST(CreateHashTest, BytesAbove127CountAsUnsignedValues) {
  std::string upperHalf;
  for (int byte = 128; byte < 256; ++byte) upperHalf += static_cast<char>(byte);
  const struct {
    std::string name;
    const char* levels;
  } rows[] = {
      {"\x80", "KQ/KQ/KQ/"},         {"\xe9", "SJ/D8/OS/"},
      {"\xff", "85/ML/P0/"},         {"gr\xc3\xbc\xc3\x9f", "DY/RP/X_/"},
      {"\xff\xff\xff", "XY/C6/08/"}, {upperHalf, "2Q/2Q/2Q/"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(createHash(row.name.c_str())), row.levels + row.name);
}

TEST(CreateHashTest, EveryByteIsTakenAsItIs) {
  const struct {
    std::string name;
    const char* levels;
  } rows[] = {
      {" ", "7K/7Q/7K/"},    {".", "P_/AE/HP/"},    {"..", "OD/HX/N8/"},   {"%s", "ZS/G3/JL/"},
      {"\x01", "WT/PJ/M_/"}, {"\x7f", "J5/OL/40/"}, {"a\nb", "47/IM/HG/"}, {"a b", "PS/41/E6/"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(createHash(row.name.c_str())), row.levels + row.name);
}

TEST(CreateHashTest, LongNamesHaveNoLimit) {
  const std::string longest(255, 'x');
  EXPECT_EQ(taken(createHash(longest.c_str())), "QM/7H/K0/" + longest);
  const std::string overlong(70000, 'z');  // beyond the position whose square still fits 32 bits
  EXPECT_EQ(taken(createHash(overlong.c_str())), "8U/BJ/JB/" + overlong);
}

TEST(CreateHashTest, AgreesWithASecondComputationForManyNames) {
  std::mt19937 random(20090415);
  std::uniform_int_distribution<int> byte(1, 255);
  std::uniform_int_distribution<size_t> length(0, 300);
  for (int round = 0; round < 20000; ++round) {
    std::string name(length(random), '\0');
    for (char& c : name) c = static_cast<char>(byte(random));
    ASSERT_EQ(taken(createHash(name.c_str())), hashAgain(name)) << "round " << round;
  }
}

TEST(CreateHashTest, UsesThreeLevelsOfTwoCharactersOfTheAlphabet) {
  const std::string alphabet = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
  std::set<char> seen;
  for (int number = 0; number < 5000; ++number) {
    const std::string name = std::to_string(number);
    const std::string hash = *taken(createHash(name.c_str()));
    ASSERT_EQ(hash.size(), 9 + name.size());
    for (const size_t i : {2u, 5u, 8u}) EXPECT_EQ(hash[i], '/') << name;
    for (const size_t i : {0u, 1u, 3u, 4u, 6u, 7u}) {
      EXPECT_NE(alphabet.find(hash[i]), std::string::npos) << hash;
      seen.insert(hash[i]);
    }
  }
  EXPECT_EQ(seen.size(), alphabet.size());
}

TEST(CreateHashTest, GivesAFreshStringEachTime) {
  char* first = createHash("a");
  char* second = createHash("a");
  EXPECT_NE(first, second);
  delete[] first;
  EXPECT_STREQ(second, "BC/6J/AJ/a");
  delete[] second;
}

TEST(ConvertToHashedTest, ABareNameIsNeverHashed) {
  EXPECT_EQ(taken(convertToHashed_("abc")), "abc");
  EXPECT_EQ(taken(convertToHashed_("a%s b")), "a%s b");
}

TEST(ConvertToHashedTest, HashesEveryComponentButTheLast) {
  const struct {
    const char* path;
    const char* want;
  } rows[] = {
      {"2009/1234", "FP/IA/L3/2009/1234"},
      {"2009/12/", "FP/IA/L3/2009/2B/7X/NI/12/"},
      {"abc", "abc"},
      {"a/", "BC/6J/AJ/a/"},
      {"a/b", "BC/6J/AJ/a/b"},
      {"a/b/", "BC/6J/AJ/a/NM/R7/0H/b/"},
      {"a/b/c", "BC/6J/AJ/a/NM/R7/0H/b/c"},
      {"", ""},
      {"./a", "P_/AE/HP/./a"},
      {"../a", "OD/HX/N8/../a"},
      {"\xff/\xff", "85/ML/P0/\xff/\xff"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(convertToHashed_(row.path)), row.want) << row.path;
}

TEST(ConvertToHashedTest, ALeadingSlashAndEmptyComponentsAreDropped) {
  const struct {
    const char* path;
    const char* want;
  } rows[] = {
      {"/a//b/c", "BC/6J/AJ/a/NM/R7/0H/b/c"},
      {"/abc", "abc"},
      {"//abc", "abc"},
      {"/", ""},
      {"///", ""},
      {"a//", "BC/6J/AJ/a/"},
      {"/a/", "BC/6J/AJ/a/"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(convertToHashed_(row.path)), row.want) << row.path;
}

TEST(ConvertToHashedTest, NullGivesNull) { EXPECT_EQ(convertToHashed_(nullptr), nullptr); }

TEST(ConvertToHashedTest, AgreesWithASecondComputationForManyPaths) {
  std::mt19937 random(1234);
  std::uniform_int_distribution<int> byte(1, 255);
  std::uniform_int_distribution<size_t> length(0, 60);
  std::uniform_int_distribution<int> oneInFive(0, 4);
  for (int round = 0; round < 10000; ++round) {
    std::string path(length(random), '\0');
    for (char& c : path) c = oneInFive(random) == 0 ? '/' : static_cast<char>(byte(random));
    ASSERT_EQ(taken(convertToHashed_(path.c_str())), convertAgain(path)) << "round " << round;
  }
}

TEST(ConvertToHashedTest, PlacesAClosedComponentWhereCreateHashPlacesIt) {
  EXPECT_EQ(taken(convertToHashed_("12345/")), "DM/_O/HX/12345/");
  EXPECT_EQ(taken(createHash("12345")), "DM/_O/HX/12345");
}

TEST(ConvertToHashedTest, IsThereUnderAPlainName) {
  EXPECT_EQ(taken(convertToHashed("2009/1234")), "FP/IA/L3/2009/1234");
  EXPECT_EQ(convertToHashed(nullptr), nullptr);
}

TEST(CreateDirectoryTest, MakesTheHashedDirectoriesOfTheDirectoryPart) {
  const Trees trees;
  EXPECT_EQ(trees.create("a/b/c"), 0);
  EXPECT_TRUE(isDirectoryThere(trees.hash() + kHashedAB));
  EXPECT_FALSE(isThere(trees.hash() + kHashedAB + "c")) << "the last component is not made";
}

TEST(CreateDirectoryTest, MakesTheWholeOfAPathThatEndsInASlash) {
  const Trees trees;
  EXPECT_EQ(trees.create("a/b/"), 0);
  EXPECT_TRUE(isDirectoryThere(trees.hash() + kHashedAB));
}

TEST(CreateDirectoryTest, MakesNothingButTheHashedDirectoriesWithoutALinkRoot) {
  const ScratchDirectory dir;
  EXPECT_EQ(createDirectory(nullptr, (dir / "hash/").c_str(), "a/"), 0);
  EXPECT_THAT(treeOf(dir.path()),
              ElementsAre("hash/", "hash/BC/", "hash/BC/6J/", "hash/BC/6J/AJ/", "hash/BC/6J/AJ/a/"));
}

TEST(CreateDirectoryTest, MakesNoLinksForALinkRootWithoutADirectoryPart) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  EXPECT_EQ(createDirectory("links", "hash/", "a/"), 0);
  EXPECT_THAT(treeOf(dir.path()),
              ElementsAre("hash/", "hash/BC/", "hash/BC/6J/", "hash/BC/6J/AJ/", "hash/BC/6J/AJ/a/"));
}

TEST(CreateDirectoryTest, MakesAPlainNamedLinkToEachHashedDirectory) {
  const Trees trees;
  EXPECT_EQ(trees.create("a/b/c"), 0);
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA);
  EXPECT_EQ(targetOf(trees.links() + "a/b"), trees.hash() + kHashedAB);
  EXPECT_TRUE(fs::is_symlink(trees.hash() + kHashedA + "b")) << "a link below a link stands in the hashed tree";
  EXPECT_FALSE(isThere(trees.links() + "a/b/c"));
}

TEST(CreateDirectoryTest, CutsBothRootsToTheirDirectoryParts) {
  const Trees trees;
  EXPECT_EQ(createDirectory((trees.links() + "ignored").c_str(), (trees.hash() + "ignored").c_str(), "a/"), 0);
  EXPECT_TRUE(isDirectoryThere(trees.hash() + kHashedA));
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA);
}

TEST(CreateDirectoryTest, ARelativePathWithoutADirectoryPartGivesOne) {
  const Trees trees;
  EXPECT_EQ(trees.create("abc"), 1);
  EXPECT_EQ(trees.create(""), 1);
  EXPECT_EQ(createDirectory(nullptr, trees.hash().c_str(), nullptr), 1);
  EXPECT_EQ(createDirectory(nullptr, nullptr, "abc"), 1) << "the relative path is looked at first";
  EXPECT_FALSE(isThere(trees.hash()));
}

TEST(CreateDirectoryTest, AHashRootWithoutADirectoryPartGivesTwo) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  EXPECT_EQ(createDirectory("links/", "hash", "a/"), 2);
  EXPECT_EQ(createDirectory("links/", nullptr, "a/"), 2);
  EXPECT_EQ(createDirectory("links/", "", "a/"), 2);
  EXPECT_THAT(treeOf(dir.path()), IsEmpty());
}

TEST(CreateDirectoryTest, DoesNotTellThatADirectoryCouldNotBeMade) {
  const Trees trees;
  const FailingCall failing("mkdir", ENOSPC, "/BC");
  EXPECT_EQ(trees.create("a/"), 0);
  EXPECT_EQ(failing.failed(), 1);
  EXPECT_FALSE(isThere(trees.hash() + "BC"));
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA) << "the link is made regardless";
}

TEST(CreateDirectoryTest, DoesNotTellThatALinkCouldNotBeMade) {
  const Trees trees;
  const FailingCall failing("symlink", EACCES);
  EXPECT_EQ(trees.create("a/b/"), 0);
  EXPECT_EQ(failing.failed(), 2);
  EXPECT_TRUE(isDirectoryThere(trees.hash() + kHashedAB));
  EXPECT_FALSE(isThere(trees.links() + "a"));
}

TEST(CreateDirectoryTest, ChangesNothingWhenAllIsThere) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/b/"), 0);
  const CallWatch watch;
  EXPECT_EQ(trees.create("a/b/"), 0);
  for (const std::string& call : watch.calls) EXPECT_EQ(call.substr(0, 7), "access ") << call;
}

TEST(CreateDirectoryTest, UsesTheModeOfAllDirectories) {
  const Trees trees;
  const mode_t before = umask(0);
  EXPECT_EQ(trees.create("a/"), 0);
  umask(before);
  for (const std::string& path : {std::string("BC"), std::string("BC/6J"), std::string("BC/6J/AJ"), kHashedA}) {
    struct stat status;
    ASSERT_EQ(stat((trees.hash() + path).c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode & 07777, mode_t{0755}) << path;
  }
}

TEST(CreateDirectoryTest, IsThereUnderAPlainName) {
  const Trees trees;
  EXPECT_EQ(createHashDirectory(trees.links().c_str(), trees.hash().c_str(), "a/"), 0);
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA);
  EXPECT_EQ(createHashDirectory(nullptr, trees.hash().c_str(), "a"), 1);
  EXPECT_EQ(createHashDirectory(nullptr, "hash", "a/"), 2);
}

TEST(CreateDirectoryTest, TwoProcessesAtOnceLeaveEveryDirectory) {
  const ScratchDirectory dir;
  const auto createAll = [&] {
    for (int i = 0; i < 100; ++i)
      EXPECT_EQ(createDirectory(nullptr, (dir / (std::to_string(i) + "/")).c_str(), "a/b/"), 0);
  };
  Child other([&](const Child::Parent& parent) {
    parent.tell();
    parent.await();
    createAll();
  });
  other.await();
  other.tell();
  createAll();
  EXPECT_EQ(other.join(), 0);
  // Where one process loses a race it goes on in the directory that the other has made.
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(isDirectoryThere(dir / (std::to_string(i) + "/" + kHashedAB))) << i;
}

TEST(MylinkTest, MakesALinkForEachDirectoryOfThePath) {
  const Trees trees;
  makeDirectories(trees.hash() + kHashedAB);
  mylink(trees.links().c_str(), trees.hash().c_str(), "a/b/c");
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA);
  EXPECT_EQ(targetOf(trees.links() + "a/b"), trees.hash() + kHashedAB);
}

TEST(MylinkTest, LinksEvenToATargetThatIsMissing) {
  const Trees trees;
  mylink(trees.links().c_str(), trees.hash().c_str(), "a/");
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA);
  EXPECT_FALSE(isThere(trees.hash()));
}

TEST(MylinkTest, KeepsWhatStandsAtTheNameOfALink) {
  const Trees trees;
  writeFile(trees.links() + "a", "content");
  mylink(trees.links().c_str(), trees.hash().c_str(), "a/");
  EXPECT_EQ(readFile(trees.links() + "a"), "content");
}

TEST(MylinkTest, KeepsADanglingLink) {
  const Trees trees;
  fs::create_symlink(trees.dir / "elsewhere", trees.links() + "a");
  mylink(trees.links().c_str(), trees.hash().c_str(), "a/");
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.dir / "elsewhere");
}

TEST(MylinkTest, DoesNothingWithoutADirectoryPartInEachArgument) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories("links");
  const CallWatch watch;
  mylink(nullptr, "hash/", "a/");
  mylink("links", "hash/", "a/");
  mylink("links/", nullptr, "a/");
  mylink("links/", "hash", "a/");
  mylink("links/", "hash/", nullptr);
  mylink("links/", "hash/", "a");
  EXPECT_THAT(watch.calls, IsEmpty());
}

TEST(RemoveDirectoryTest, RemovesTheDirectoryAndEveryEmptyLevelAboveIt) {
  const Trees trees;
  ASSERT_EQ(createDirectory(nullptr, trees.hash().c_str(), "a/b/"), 0);
  EXPECT_EQ(removeDirectory(nullptr, trees.hash().c_str(), "a/b/"), 0);
  EXPECT_THAT(treeOf(trees.hash()), IsEmpty());
  EXPECT_TRUE(isDirectoryThere(trees.hash())) << "the root stays";
}

TEST(RemoveDirectoryTest, GoesUpOneHashedLevelAfterAnother) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  ASSERT_EQ(createDirectory(nullptr, "hash/", "a/b/"), 0);
  const CallWatch watch;
  EXPECT_EQ(removeDirectory(nullptr, "hash/", "a/b/"), 0);
  EXPECT_THAT(watch.calls,
              ElementsAre("rmdir hash/BC/6J/AJ/a/NM/R7/0H/b/", "rmdir hash/BC/6J/AJ/a/NM/R7/0H/",
                          "rmdir hash/BC/6J/AJ/a/NM/R7/", "rmdir hash/BC/6J/AJ/a/NM/", "rmdir hash/BC/6J/AJ/a/",
                          "rmdir hash/BC/6J/AJ/", "rmdir hash/BC/6J/", "rmdir hash/BC/"));
}

TEST(RemoveDirectoryTest, StopsAtTheFirstLevelThatIsNotEmpty) {
  const Trees trees;
  ASSERT_EQ(createDirectory(nullptr, trees.hash().c_str(), "a/b/"), 0);
  writeFile(trees.hash() + "BC/6J/other", "content");
  EXPECT_EQ(removeDirectory(nullptr, trees.hash().c_str(), "a/b/"), 0);
  EXPECT_THAT(treeOf(trees.hash()), ElementsAre("BC/", "BC/6J/", "BC/6J/other=content"));
}

TEST(RemoveDirectoryTest, GivesTheFailureWhenTheDirectoryItselfStays) {
  const Trees trees;
  ASSERT_EQ(createDirectory(nullptr, trees.hash().c_str(), "a/"), 0);
  writeFile(trees.hash() + kHashedA + "file", "content");
  errno = 0;
  EXPECT_EQ(removeDirectory(nullptr, trees.hash().c_str(), "a/"), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(readFile(trees.hash() + kHashedA + "file"), "content");
}

TEST(RemoveDirectoryTest, DoesNotTellThatALevelAboveCouldNotBeRemoved) {
  const Trees trees;
  ASSERT_EQ(createDirectory(nullptr, trees.hash().c_str(), "a/"), 0);
  const FailingCall failing("rmdir", EACCES, "", 1);
  EXPECT_EQ(removeDirectory(nullptr, trees.hash().c_str(), "a/"), 0);
  EXPECT_EQ(failing.failed(), 1) << "the walk ends at the failure";
  EXPECT_THAT(treeOf(trees.hash()), ElementsAre("BC/", "BC/6J/", "BC/6J/AJ/"));
}

TEST(RemoveDirectoryTest, TakesThePathWhole) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/b/c"), 0);
  errno = 0;
  EXPECT_EQ(trees.remove("a/b/c"), -1) << "there is no c, and b is not what was named";
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(isDirectoryThere(trees.hash() + kHashedAB));
  EXPECT_EQ(trees.remove("a/b/"), 0);
  EXPECT_FALSE(isThere(trees.hash() + "BC"));
}

TEST(RemoveDirectoryTest, RemovesAnEmptyDirectoryInsideAndLeavesTheOneAbove) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/b/"), 0);
  makeDirectories(trees.hash() + kHashedAB + "c");
  EXPECT_EQ(trees.remove("a/b/c"), 0);
  EXPECT_FALSE(isThere(trees.hash() + kHashedAB + "c"));
  EXPECT_TRUE(isDirectoryThere(trees.hash() + kHashedAB));
}

TEST(RemoveDirectoryTest, RemovesNoDirectoryWhenAFileBearsTheName) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/b/"), 0);
  writeFile(trees.hash() + kHashedAB + "c", "content");
  errno = 0;
  EXPECT_EQ(trees.remove("a/b/c"), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(readFile(trees.hash() + kHashedAB + "c"), "content");
}

TEST(RemoveDirectoryTest, RemovesABareNameUnhashed) {
  const Trees trees;
  makeDirectories(trees.hash() + "abc");
  EXPECT_EQ(removeDirectory(nullptr, trees.hash().c_str(), "abc"), 0);
  EXPECT_THAT(treeOf(trees.hash()), IsEmpty());
}

TEST(RemoveDirectoryTest, RemovesTheLinksThatDangleThereafter) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/b/"), 0);
  EXPECT_EQ(trees.remove("a/b/"), 0);
  EXPECT_THAT(treeOf(trees.dir.path()), ElementsAre("hash/", "links/"));
}

TEST(RemoveDirectoryTest, LeavesTheLinkToADirectoryThatStays) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/b/"), 0);
  writeFile(trees.hash() + kHashedA + "other", "content");
  EXPECT_EQ(trees.remove("a/b/"), 0);
  EXPECT_EQ(targetOf(trees.links() + "a"), trees.hash() + kHashedA);
  EXPECT_FALSE(isThere(trees.links() + "a/b"));
  EXPECT_EQ(readFile(trees.links() + "a/other"), "content");
}

TEST(RemoveDirectoryTest, LeavesTheLinksWithoutALinkRoot) {
  for (const char* linkRoot : {static_cast<const char*>(nullptr), "links"}) {
    const Trees trees;
    const WorkingDirectory inside(trees.dir.path());
    ASSERT_EQ(trees.create("a/"), 0);
    EXPECT_EQ(removeDirectory(linkRoot, trees.hash().c_str(), "a/"), 0);
    EXPECT_TRUE(isThere(trees.links() + "a"));
  }
}

TEST(RemoveDirectoryTest, RemovesDanglingLinksAlsoWhenThereIsNoDirectory) {
  const Trees trees;
  mylink(trees.links().c_str(), trees.hash().c_str(), "a/");
  ASSERT_TRUE(isThere(trees.links() + "a"));
  EXPECT_EQ(trees.remove("a/"), -1);
  EXPECT_FALSE(isThere(trees.links() + "a"));
}

TEST(RemoveDirectoryTest, RemovesADanglingLinkAboveAlsoWhenThereIsNoDirectory) {
  const Trees trees;
  mylink(trees.links().c_str(), trees.hash().c_str(), "a/");
  EXPECT_EQ(trees.remove("a/b/"), -1);
  EXPECT_FALSE(isThere(trees.links() + "a"));
}

TEST(RemoveDirectoryTest, GoesUpTheLinkTreePastWhatIsNoLink) {
  const Trees trees;
  makeDirectories(trees.links() + "a/b");
  EXPECT_EQ(trees.remove("a/b/"), -1);
  EXPECT_TRUE(isDirectoryThere(trees.links() + "a/b")) << "a directory is not unlinked";
}

TEST(RemoveDirectoryTest, FailsForARootWithoutADirectoryPart) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories("hash/" + kHashedA);
  EXPECT_EQ(removeDirectory(nullptr, "hash", "a/"), -1);
  EXPECT_EQ(removeDirectory(nullptr, nullptr, "a/"), -1);
  EXPECT_EQ(removeDirectory(nullptr, "hash/", nullptr), -1);
  EXPECT_TRUE(isDirectoryThere("hash/" + kHashedA));
}

TEST(RemoveDirectoryTest, IsThereUnderAPlainName) {
  const Trees trees;
  ASSERT_EQ(trees.create("a/"), 0);
  EXPECT_EQ(removeHashDirectory(trees.links().c_str(), trees.hash().c_str(), "a/"), 0);
  EXPECT_THAT(treeOf(trees.dir.path()), ElementsAre("hash/", "links/"));
  EXPECT_EQ(removeHashDirectory(trees.links().c_str(), trees.hash().c_str(), "a/"), -1);
}

TEST(HashTraceTest, IsOffByDefault) {
  const Trees trees;
  const FakeSyslog log;
  EXPECT_FALSE(isDEBUGHASH);
  trees.create("a/b/");
  trees.remove("a/b/");
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(HashTraceTest, TellsTheStepsOfCreateDirectory) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  ASSERT_EQ(createDirectory("links", "hash/root", "a/b/c"), 0);
  EXPECT_THAT(
      log.texts(),
      ElementsAre("createDirectory started with (links, hash/root, a/b/c)",
                  "calling mkdirs with hashed path (hash/BC/6J/AJ/a/NM/R7/0H/b/)", "creating directory hash",
                  "creating directory hash/BC", "creating directory hash/BC/6J", "creating directory hash/BC/6J/AJ",
                  "creating directory hash/BC/6J/AJ/a", "creating directory hash/BC/6J/AJ/a/NM",
                  "creating directory hash/BC/6J/AJ/a/NM/R7", "creating directory hash/BC/6J/AJ/a/NM/R7/0H",
                  "creating directory hash/BC/6J/AJ/a/NM/R7/0H/b", "mkdirs returned"));
}

TEST(HashTraceTest, TellsThatMkdirsReturnedAlsoAfterItFailed) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories("hash");
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  const FailingCall failing("mkdir", ENOSPC);
  ASSERT_EQ(createDirectory(nullptr, "hash/", "a/"), 0);
  EXPECT_THAT(log.texts(), ElementsAre("createDirectory started with ((null), hash/, a/)",
                                       "calling mkdirs with hashed path (hash/BC/6J/AJ/a/)", "the subdir hash exists",
                                       "creating directory hash/BC", "failed", "mkdirs returned"));
}

TEST(HashTraceTest, TellsTheArgumentsBeforeTheyAreChecked) {
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  EXPECT_EQ(createDirectory("links/", "hash/", "a"), 1);
  EXPECT_EQ(createDirectory("links/", "hash", "a/"), 2);
  EXPECT_THAT(log.texts(), ElementsAre("createDirectory started with (links/, hash/, a)",
                                       "createDirectory started with (links/, hash, a/)"));
}

TEST(HashTraceTest, TellsThatATargetIsMissing) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories("links");
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mylink("links/", "hash/", "a/");
  EXPECT_THAT(log.texts(), ElementsAre("Cannot link: target (hash/BC/6J/AJ/a/) missing"));
  EXPECT_TRUE(isThere("links/a"));
}

TEST(HashTraceTest, TellsThatTheDirectoryOfALinkIsMissing) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories("hash/" + kHashedA);
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mylink("links/", "hash/", "a/");
  EXPECT_THAT(log.texts(), ElementsAre("Cannot link: link's parent directory (links/) missing"));
}

TEST(HashTraceTest, TellsBothForEachLevel) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mylink("links/", "hash/", "a/b/");
  EXPECT_THAT(log.texts(), ElementsAre("Cannot link: target (hash/BC/6J/AJ/a/) missing",
                                       "Cannot link: link's parent directory (links/) missing",
                                       "Cannot link: target (hash/BC/6J/AJ/a/NM/R7/0H/b/) missing",
                                       "Cannot link: link's parent directory (links/a/) missing"));
}

TEST(HashTraceTest, SaysNothingAboutALinkThatCanBeMade) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories("hash/" + kHashedA);
  makeDirectories("links");
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mylink("links/", "hash/", "a/");
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(HashTraceTest, OpensAndClosesTheLogAroundEachMessage) {
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  createDirectory("links/", "hash/", "a");
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].ident, "kthash");
  EXPECT_EQ(log.lines[0].option, LOG_PID);
  EXPECT_EQ(log.lines[0].facility, LOG_LOCAL3);
  EXPECT_EQ(log.lines[0].priority, LOG_DEBUG);
  ASSERT_EQ(log.events.size(), 3u);
  EXPECT_EQ(log.events[0], "openlog kthash " + std::to_string(LOG_PID) + " " + std::to_string(LOG_LOCAL3));
  EXPECT_EQ(log.events[2], "closelog");
}

TEST(HashTraceTest, TakesAPercentSignInAnArgumentAsItIs) {
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  createDirectory("%s/", "%n/", "%%d");
  EXPECT_THAT(log.texts(), ElementsAre("createDirectory started with (%s/, %n/, %%d)"));
}
