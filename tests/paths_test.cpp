#include "paths.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fakes/fakes.h"
#include "hashlayout.h"
#include "support/child.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char* orNull(const Text& text) { return text ? text->c_str() : nullptr; }

// Directories are made with exactly the mode that was asked for while this lives.
class NoUmask {
 public:
  NoUmask() : before(umask(0)) {}
  ~NoUmask() { umask(before); }

 private:
  mode_t before;
};

mode_t modeOf(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class TraceSwitchedOn {
 public:
  TraceSwitchedOn() { isDEBUGHASH = true; }
  ~TraceSwitchedOn() { isDEBUGHASH = false; }
};

// `length` bytes that lead to `path`, which is absolute: slashes in front change nothing.
std::string padded(const std::string& path, size_t length) { return std::string(length - path.size(), '/') + path; }

}  // namespace

TEST(MystrdupTest, GivesACopyOfItsOwn) {
  char source[] = "a/b";
  char* copy = mystrdup(source);
  source[0] = 'x';
  EXPECT_STREQ(copy, "a/b");
  delete[] copy;
}

TEST(MystrdupTest, GivesNullForNull) { EXPECT_EQ(mystrdup(nullptr), nullptr); }

TEST(MystrdupTest, CopiesAnEmptyText) { EXPECT_EQ(taken(mystrdup("")), ""); }

TEST(MystrdupTest, CopiesEveryByte) {
  std::string everyByte;
  for (int byte = 1; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  EXPECT_EQ(taken(mystrdup(everyByte.c_str())), everyByte);
}

TEST(ReleaseTest, TakesNull) {
  release_(nullptr);
  release(nullptr);
}

TEST(ReleaseTest, FreesUnderBothNames) {  // the address sanitizer looks on
  release_(mystrdup("one"));
  release(mystrdup("two"));
}

TEST(MyunlinkTest, RemovesALinkThatIsNamedWithATrailingSlash) {
  const ScratchDirectory dir;
  makeDirectories(dir / "target");
  makeLink(dir / "target", dir / "link");
  EXPECT_EQ(myunlink((dir / "link/").c_str()), 0);
  EXPECT_FALSE(isThere(dir / "link"));
  EXPECT_TRUE(isThere(dir / "target"));
}

TEST(MyunlinkTest, RemovesAFileThatIsNamedWithoutASlash) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "content");
  EXPECT_EQ(myunlink((dir / "file").c_str()), 0);
  EXPECT_FALSE(isThere(dir / "file"));
}

TEST(MyunlinkTest, DropsOneSlashOnly) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "content");
  errno = 0;
  EXPECT_EQ(myunlink((dir / "file//").c_str()), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_TRUE(isThere(dir / "file"));
}

TEST(MyunlinkTest, LeavesItsArgumentAsItWas) {
  const ScratchDirectory dir;
  const std::string path = dir / "missing/";
  myunlink(path.c_str());
  EXPECT_EQ(path, dir / "missing/");
}

TEST(MyunlinkTest, GivesTheFailureOfUnlink) {
  const ScratchDirectory dir;
  errno = 0;
  EXPECT_EQ(myunlink((dir / "missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  writeFile(dir / "file", "content");
  const FailingCall failing("unlink", EACCES, "/file");
  EXPECT_EQ(myunlink((dir / "file").c_str()), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST(MyunlinkTest, DoesNotRemoveDirectories) {
  const ScratchDirectory dir;
  makeDirectories(dir / "directory");
  EXPECT_EQ(myunlink((dir / "directory/").c_str()), -1);
  EXPECT_TRUE(isThere(dir / "directory"));
}

TEST(BaseDirTest, EndsWithTheLastSlash) {
  const struct {
    Text path;
    Text want;
  } rows[] = {
      {"a/b/c", "a/b/"}, {"a/b/", "a/b/"},       {"a/b", "a/"},       {"a/", "a/"},
      {"/abc", "/"},     {"/abc/", "/abc/"},     {"/", "/"},          {"//", "//"},
      {"//a", "//"},     {"a//b", "a//"},        {"abc", {}},         {"", {}},
      {{}, {}},          {"./a", "./"},          {"../", "../"},      {"/a/b//", "/a/b//"},
      {" /x", " /"},     {"\xff/\xfe", "\xff/"}, {"a\\b/c", "a\\b/"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(baseDir(orNull(row.path))), row.want) << row.path.value_or("null");
}

TEST(BaseDirTest, TakesPathsOfAnyLength) {
  const std::string directory = std::string(100000, 'd') + "/";
  EXPECT_EQ(taken(baseDir((directory + std::string(100000, 'f')).c_str())), directory);
}

TEST(ParentDirTest, IsTheDirectoryAboveTheBase) {
  const struct {
    Text path;
    Text want;
  } rows[] = {
      {"a/b/c", "a/"}, {"a/b/", "a/"}, {"a/b/c/", "a/b/"}, {"/a/b/c", "/a/"},  {"/a/b/", "/a/"},
      {"/a/b", "/"},   {"/a/", "/"},   {"/a", {}},         {"a/", {}},         {"a/b", {}},
      {"/", {}},       {"//", "/"},    {"//a", "/"},       {"a//", "a/"},      {"a//b", "a/"},
      {"abc", {}},     {"", {}},       {{}, {}},           {"a/b//c", "a/b/"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(parentDir(orNull(row.path))), row.want) << row.path.value_or("null");
}

TEST(ParentDirTest, LeavesItsArgumentAsItWas) {
  char path[] = "a/b/";
  release(parentDir(path));
  EXPECT_STREQ(path, "a/b/");
}

TEST(Append0Test, JoinsWithoutAnythingInBetween) {
  const struct {
    Text a;
    Text b;
    std::string want;
  } rows[] = {
      {"a", "b", "ab"}, {"a/", "/b", "a//b"}, {"", "b", "b"}, {"a", "", "a"},       {"", "", ""},
      {{}, "b", "b"},   {"a", {}, "a"},       {{}, {}, ""},   {"%s", "%n", "%s%n"},
  };
  for (const auto& row : rows) EXPECT_EQ(taken(append0(orNull(row.a), orNull(row.b))), row.want);
}

TEST(Append0Test, LeavesBothPartsAsTheyWere) {
  const char a[] = "a";
  const char b[] = "b";
  release(append0(a, b));
  EXPECT_STREQ(a, "a");
  EXPECT_STREQ(b, "b");
}

TEST(AppendTest, ConsumesItsFirstPart) {  // a leak or a second free shows under the address sanitizer
  char* text = mystrdup("/data");
  text = append(text, "/m1");
  text = append(text, "/2009");
  EXPECT_EQ(taken(text), "/data/m1/2009");
}

TEST(AppendTest, StartsFromNull) { EXPECT_EQ(taken(append(nullptr, "a")), "a"); }

TEST(AppendTest, AppendsATextToItself) {
  char* text = mystrdup("ab");
  EXPECT_EQ(taken(append(text, text)), "abab");
}

TEST(AppendTest, TakesANullSecondPartAsEmpty) { EXPECT_EQ(taken(append(mystrdup("a"), nullptr)), "a"); }

TEST(ExistsTest, SeesWhateverAccessSees) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  makeDirectories(dir / "directory");
  makeLink(dir / "file", dir / "link");
  makeLink(dir / "missing", dir / "dangling");
  EXPECT_TRUE(exists((dir / "file").c_str()));
  EXPECT_TRUE(exists((dir / "directory").c_str()));
  EXPECT_TRUE(exists((dir / "directory/").c_str()));
  EXPECT_TRUE(exists((dir / "link").c_str()));
  EXPECT_FALSE(exists((dir / "dangling").c_str())) << "links are followed";
  EXPECT_FALSE(exists((dir / "missing").c_str()));
  EXPECT_FALSE(exists((dir / "file/").c_str()));
  EXPECT_FALSE(exists(""));
}

TEST(ExistsTest, IsFalseForNull) { EXPECT_FALSE(exists(nullptr)); }

TEST(ExistsTest, IsFalseForWhatCannotBeReached) {
  const ScratchDirectory dir;
  const FailingCall failing("access", EACCES);
  EXPECT_FALSE(exists(dir.path().c_str()));
}

TEST(ExistsTest, IsFalseForAnOverlongName) { EXPECT_FALSE(exists(std::string(100000, 'n').c_str())); }

TEST(MkdirsTest, MakesThePathAndEveryDirectoryAboveIt) {
  const ScratchDirectory dir;
  EXPECT_EQ(mkdirs((dir / "a/b/c").c_str(), 0755), 0);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/", "a/b/c/"));
}

TEST(MkdirsTest, MakesThePathWithATrailingSlash) {
  const ScratchDirectory dir;
  EXPECT_EQ(mkdirs((dir / "a/b/").c_str(), 0755), 0);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/"));
}

TEST(MkdirsTest, PassesOverDoubledSlashes) {
  const ScratchDirectory dir;
  EXPECT_EQ(mkdirs((dir / "a//b").c_str(), 0755), 0);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/"));
}

TEST(MkdirsTest, MakesARelativePathBelowTheCurrentDirectory) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  EXPECT_EQ(mkdirs("a/b", 0755), 0);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/"));
}

TEST(MkdirsTest, GivesTheModeToEveryDirectoryItMakes) {
  const ScratchDirectory dir;
  const NoUmask exact;
  for (const mode_t mode : {mode_t{0755}, mode_t{0700}, mode_t{01777}}) {
    const std::string top = dir / ("mode" + std::to_string(mode));
    EXPECT_EQ(mkdirs((top + "/b").c_str(), mode), 0);
    EXPECT_EQ(modeOf(top), mode);
    EXPECT_EQ(modeOf(top + "/b"), mode);
  }
}

TEST(MkdirsTest, LeavesTheModeOfADirectoryThatIsThere) {
  const ScratchDirectory dir;
  const NoUmask exact;
  ASSERT_EQ(mkdir((dir / "a").c_str(), 0700), 0);
  EXPECT_EQ(mkdirs((dir / "a/b").c_str(), 0755), 0);
  EXPECT_EQ(modeOf(dir / "a"), mode_t{0700});
}

TEST(MkdirsTest, AnExistingPathGivesZeroAndNothingIsMade) {
  const ScratchDirectory dir;
  makeDirectories(dir / "a/b");
  const CallWatch watch;
  EXPECT_EQ(mkdirs((dir / "a/b").c_str(), 0755), 0);
  for (const std::string& call : watch.calls) EXPECT_NE(call.substr(0, 6), "mkdir ") << call;
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/"));
}

TEST(MkdirsTest, APathThatIsAFileGivesZeroAndTheFileStays) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "content");
  EXPECT_EQ(mkdirs((dir / "file").c_str(), 0755), 0);
  EXPECT_EQ(readFile(dir / "file"), "content");
}

TEST(MkdirsTest, FailsWhenADirectoryAboveCannotBeMadeAndKeepsWhatItMade) {
  const ScratchDirectory dir;
  const FailingCall failing("mkdir", EACCES, "/a/b");
  errno = 0;
  EXPECT_EQ(mkdirs((dir / "a/b/c/d").c_str(), 0755), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(failing.failed(), 1) << "it stops at the first failure";
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/"));
}

TEST(MkdirsTest, FailsBelowAFile) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "content");
  errno = 0;
  EXPECT_EQ(mkdirs((dir / "file/a/b").c_str(), 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("file=content"));
}

TEST(MkdirsTest, FailsWithEexistWhereADanglingLinkIsInTheWayOfADirectoryAbove) {
  const ScratchDirectory dir;
  makeLink(dir / "missing", dir / "link");
  for (const char* path : {"link/a", "link/a/b"}) {
    errno = 0;
    EXPECT_EQ(mkdirs((dir / path).c_str(), 0755), -1) << path;
    EXPECT_EQ(errno, EEXIST) << path;
  }
  EXPECT_FALSE(isThere(dir / "missing")) << "nothing is made where the link leads";
}

TEST(MkdirsTest, FollowsALinkToADirectory) {
  const ScratchDirectory dir;
  makeDirectories(dir / "target");
  makeLink(dir / "target", dir / "link");
  EXPECT_EQ(mkdirs((dir / "link/a").c_str(), 0755), 0);
  EXPECT_TRUE(isDirectoryThere(dir / "target/a"));
}

TEST(MkdirsTest, DoesNotTellThatTheLastDirectoryCouldNotBeMade) {
  const ScratchDirectory dir;
  const FailingCall failing("mkdir", ENOSPC, "/a/b");
  EXPECT_EQ(mkdirs((dir / "a/b").c_str(), 0755), 0);
  EXPECT_EQ(failing.failed(), 1);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/"));
}

TEST(MkdirsTest, TellsAboutTheLastDirectoryWhenASlashFollowsIt) {
  const ScratchDirectory dir;
  const FailingCall failing("mkdir", ENOSPC, "/a/b");
  EXPECT_EQ(mkdirs((dir / "a/b/").c_str(), 0755), -1);
}

TEST(MkdirsTest, AnEmptyPathMakesNothing) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  EXPECT_EQ(mkdirs("", 0755), 0);
  EXPECT_THAT(treeOf(dir.path()), IsEmpty());
}

TEST(MkdirsTest, TheRootIsThere) { EXPECT_EQ(mkdirs("/", 0755), 0); }

TEST(MkdirsTest, FailsForNull) {
  errno = 0;
  EXPECT_EQ(mkdirs(nullptr, 0755), -1);
  EXPECT_EQ(errno, EFAULT);
}

TEST(MkdirsTest, FailsForAnOverlongDirectoryAbove) {
  const ScratchDirectory dir;
  errno = 0;
  EXPECT_EQ(mkdirs((dir / ("a/" + std::string(256, 'n') + "/b")).c_str(), 0755), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/"));
}

TEST(MkdirsTest, MakesANameOfTheGreatestLengthThatTheDiskTakes) {
  const ScratchDirectory dir;
  const std::string name(255, 'n');
  EXPECT_EQ(mkdirs((dir / (name + "/b")).c_str(), 0755), 0);
  EXPECT_TRUE(isDirectoryThere(dir / (name + "/b")));
}

TEST(MkdirsTest, ADirectoryThatAnotherProcessMadeInBetweenIsNoFailure) {
  const ScratchDirectory dir;
  makeDirectories(dir / "a");
  // The other process made it just after this one looked.
  const FailingCall notYet("access", ENOENT, dir / "a", 0, 1);
  const CallWatch watch;
  EXPECT_EQ(mkdirs((dir / "a/b").c_str(), 0755), 0);
  EXPECT_EQ(notYet.failed(), 1);
  EXPECT_THAT(watch.calls, testing::Contains("mkdir " + (dir / "a"))) << "this one tried it as well";
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/"));
}

TEST(MkdirsTest, AcceptsWhatAnotherProcessHasMade) {
  const ScratchDirectory dir;
  Child other([&](const Child::Parent&) { EXPECT_EQ(mkdirs((dir / "a/b").c_str(), 0755), 0); });
  ASSERT_EQ(other.join(), 0);
  EXPECT_EQ(mkdirs((dir / "a/b").c_str(), 0755), 0);
  EXPECT_EQ(mkdirs((dir / "a/b/c").c_str(), 0755), 0);
  EXPECT_THAT(treeOf(dir.path()), ElementsAre("a/", "a/b/", "a/b/c/"));
}

TEST(MkdirsTraceTest, IsOffByDefault) {
  const ScratchDirectory dir;
  const FakeSyslog log;
  EXPECT_FALSE(isDEBUGHASH);
  mkdirs((dir / "a/b").c_str(), 0755);
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(MkdirsTraceTest, TellsWhichDirectoriesItFindsAndMakes) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  makeDirectories(dir / "a");
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mkdirs("a//b/c", 0755);
  EXPECT_THAT(log.texts(), ElementsAre("the subdir a exists", "the subdir a/ exists", "creating directory a//b"));
}

TEST(MkdirsTraceTest, DoesNotMentionTheLastDirectory) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mkdirs("a", 0755);
  EXPECT_THAT(log.events, IsEmpty());
  EXPECT_TRUE(isDirectoryThere(dir / "a"));
}

TEST(MkdirsTraceTest, TellsThatADirectoryCouldNotBeMade) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  const FailingCall failing("mkdir", EROFS);
  errno = 0;
  EXPECT_EQ(mkdirs("a/b", 0755), -1);
  EXPECT_EQ(errno, EROFS) << "the trace must not hide the reason";
  EXPECT_THAT(log.texts(), ElementsAre("creating directory a", "failed"));
}

TEST(MkdirsTraceTest, WritesEachMessageOverAConnectionOfItsOwn) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mkdirs("a/b/", 0755);
  const std::string open = "openlog kthash " + std::to_string(LOG_PID) + " " + std::to_string(LOG_LOCAL3);
  const std::string write = "vsyslog " + std::to_string(LOG_DEBUG) + " ";
  EXPECT_THAT(log.events, ElementsAre(open, write + "creating directory a", "closelog",  //
                                      open, write + "creating directory a/b", "closelog"));
}

TEST(MkdirsTraceTest, TakesAPercentSignInAPathAsItIs) {
  const ScratchDirectory dir;
  const WorkingDirectory inside(dir.path());
  const TraceSwitchedOn trace;
  const FakeSyslog log;
  mkdirs("100%%s/b", 0755);
  EXPECT_THAT(log.texts(), ElementsAre("creating directory 100%%s"));
}

TEST(IsDanglingTest, ALinkToSomethingThatIsThereIsNot) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  makeDirectories(dir / "directory");
  makeLink(dir / "file", dir / "toFile");
  makeLink(dir / "directory", dir / "toDirectory");
  EXPECT_FALSE(isDangling((dir / "toFile").c_str()));
  EXPECT_FALSE(isDangling((dir / "toDirectory").c_str()));
}

TEST(IsDanglingTest, ALinkToSomethingMissingIs) {
  const ScratchDirectory dir;
  makeLink(dir / "missing", dir / "link");
  EXPECT_TRUE(isDangling((dir / "link").c_str()));
}

TEST(IsDanglingTest, APlainDirectoryIs) {
  const ScratchDirectory dir;
  EXPECT_TRUE(isDangling(dir.path().c_str()));
}

TEST(IsDanglingTest, APlainFileIs) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  EXPECT_TRUE(isDangling((dir / "file").c_str()));
}

TEST(IsDanglingTest, SomethingMissingIs) {
  const ScratchDirectory dir;
  EXPECT_TRUE(isDangling((dir / "missing").c_str()));
  EXPECT_TRUE(isDangling(""));
  EXPECT_TRUE(isDangling(std::string(100000, 'n').c_str()));
}

TEST(IsDanglingTest, LooksAtTheLinkItselfWhenASlashFollows) {
  const ScratchDirectory dir;
  makeDirectories(dir / "directory");
  makeLink(dir / "directory", dir / "link");
  makeLink(dir / "missing", dir / "dangling");
  EXPECT_FALSE(isDangling((dir / "link/").c_str()));
  EXPECT_TRUE(isDangling((dir / "dangling/").c_str()));
  EXPECT_TRUE(isDangling((dir / "link//").c_str())) << "only one slash is dropped";
}

TEST(IsDanglingTest, ReadsTargetsOfEveryLength) {
  const ScratchDirectory dir;
  writeFile(dir / "file", "");
  for (const size_t length : {98u, 99u, 100u, 101u, 199u, 200u, 201u, 399u, 400u, 401u, 1600u, 4000u}) {
    const std::string link = dir / ("link" + std::to_string(length));
    makeLink(padded(dir / "file", length), link);
    EXPECT_FALSE(isDangling(link.c_str())) << length;
    const std::string dangling = dir / ("dangling" + std::to_string(length));
    makeLink(padded(dir / "missing", length), dangling);
    EXPECT_TRUE(isDangling(dangling.c_str())) << length;
  }
}

TEST(IsDanglingTest, ALongTargetIsNotTestedByItsBeginning) {
  const ScratchDirectory dir;
  const std::string beginning = padded(dir / "d", 100);
  makeDirectories(beginning);
  makeLink(beginning + "/missing", dir / "link");
  EXPECT_TRUE(isDangling((dir / "link").c_str()));
}

TEST(IsDanglingTest, ARelativeTargetIsLookedUpFromTheCurrentDirectory) {
  const ScratchDirectory dir;
  writeFile(dir / "links/besideTheLink", "");
  writeFile(dir / "current/besideTheProcess", "");
  makeLink("besideTheLink", dir / "links/a");
  makeLink("besideTheProcess", dir / "links/b");
  const WorkingDirectory inside(dir / "current");
  EXPECT_TRUE(isDangling((dir / "links/a").c_str()));
  EXPECT_FALSE(isDangling((dir / "links/b").c_str()));
}

TEST(IsDanglingTest, FollowsAChainOfLinksToItsEnd) {
  const ScratchDirectory dir;
  makeLink(dir / "second", dir / "first");
  makeLink(dir / "missing", dir / "second");
  EXPECT_TRUE(isDangling((dir / "first").c_str()));
  writeFile(dir / "missing", "");
  EXPECT_FALSE(isDangling((dir / "first").c_str()));
}

TEST(IsDanglingTest, ALinkToItselfIs) {
  const ScratchDirectory dir;
  makeLink(dir / "loop", dir / "loop");
  EXPECT_TRUE(isDangling((dir / "loop").c_str()));
}
