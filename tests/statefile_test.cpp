// Small files that are replaced whole, seen through the two that are: the dirty set and the cache of sizes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KTDirtyFlagHandler.h"
#include "KTException.h"
#include "fakes/fakes.h"
#include "sizeaccounting.h"
#include "support/child.h"
#include "support/results.h"
#include "support/scratch.h"

namespace fs = std::filesystem;

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

// A call by descriptor that fails, for files whose path ends so.
struct DescriptorCall {
  std::string function;
  std::string end;
  int error;
};
const DescriptorCall* failing = nullptr;
size_t mostWritten = 0;  // bytes of each write; 0: all

std::string pathOf(int descriptor) {
  std::error_code gone;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), gone).string();
}

bool fails(const char* function, int descriptor) {
  if (!failing || failing->function != function) return false;
  if (!pathOf(descriptor).ends_with(failing->end)) return false;
  errno = failing->error;
  return true;
}

std::string markOf(int writer, int number) { return std::to_string(writer).append("-").append(std::to_string(number)); }

struct stat statusOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

class StateFileTest : public testing::Test {
 protected:
  StateFileTest() {
    makeDirectories(root);
    makeDirectories(directory / "locks");
  }
  ~StateFileTest() override {
    failing = nullptr;
    mostWritten = 0;
  }
  std::unique_ptr<KTDirtyFlagHandler> loaded() const {
    auto handler = std::make_unique<KTDirtyFlagHandler>();
    handler->setRepository(root.c_str());
    return handler;
  }
  void mark(const std::string& id) const { loaded()->setDirty(id.c_str(), true); }
  std::string marks() const { return readFile(file); }
  // The file calls of `body` that have to do with the set's file, names without directories.
  std::vector<std::string> callsOf(const std::function<void()>& body) const {
    const CallWatch watch;
    body();
    std::vector<std::string> calls;
    for (const std::string& call : watch.calls)
      if (call.find("/.dirty") != std::string::npos && call.find("semaphore") == std::string::npos)
        calls.push_back(call.substr(0, call.find(' ')) + " " + call.substr(call.rfind('/') + 1));
    return calls;
  }

  ScratchDirectory directory;
  EnvironmentVariable lockVariable{"LOCK_VAR", directory / "locks"};
  EnvironmentVariable safe{"KT_SAFE", "1"};
  const std::string root = directory / "rep";
  const std::string file = root + "/.dirty";
  FakeSyslog log;
};

using DirtySetTest = StateFileTest;
using SizeCacheTest = StateFileTest;

}  // namespace

extern "C" {

int fsync(int descriptor) {
  CallWatch::note("fsync", pathOf(descriptor).c_str());
  if (fails("fsync", descriptor)) return -1;
  static const auto real = realFunction<int (*)(int)>("fsync");
  return real(descriptor);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
  if (fails("write", descriptor)) return -1;
  static const auto real = realFunction<ssize_t (*)(int, const void*, size_t)>("write");
  const bool isCut = mostWritten > 0 && pathOf(descriptor).find("/.dirty.new") != std::string::npos;
  return real(descriptor, bytes, isCut ? std::min(size, mostWritten) : size);
}

int close(int descriptor) {
  const bool strikes = fails("close", descriptor);
  static const auto real = realFunction<int (*)(int)>("close");
  const int result = real(descriptor);
  if (!strikes) return result;
  errno = failing->error;
  return -1;
}
}

TEST_F(StateFileTest, ANewFileIsWrittenBesideTheOldOneAndFlushedBeforeItTakesItsPlace) {
  writeFile(file, "old\n");
  const auto handler = loaded();
  const auto calls = callsOf([&] { handler->setDirty("new", true); });
  const auto from = std::find(calls.begin(), calls.end(), "open .dirty.new");
  ASSERT_NE(from, calls.end());
  EXPECT_THAT(std::vector<std::string>(from, calls.end()),
              ElementsAre("open .dirty.new", "stat .dirty", "fsync .dirty.new", "rename .dirty.new"));
  EXPECT_EQ(marks(), "new\nold\n");
  EXPECT_FALSE(isThere(file + ".new"));
}

TEST_F(StateFileTest, TheNameOfTheNewFileIsOnTheDiskBeforeTheMarkCountsAsWritten) {
  writeFile(file, "");
  const auto handler = loaded();
  const CallWatch watch;
  handler->setDirty("new", true);
  const auto renamed = std::find(watch.calls.begin(), watch.calls.end(), "rename " + file + ".new");
  ASSERT_NE(renamed, watch.calls.end());
  EXPECT_THAT(std::vector<std::string>(renamed + 1, watch.calls.end()),
              ElementsAre("fsync " + root, StartsWith("unlink " + (directory / "locks"))));
}

TEST_F(StateFileTest, AFailureToBringTheNameToTheDiskIsToldAndTheMarkIsWrittenWithTheNextChange) {
  writeFile(file, "old\n");
  const auto handler = loaded();
  const DescriptorCall call = {"fsync", "/rep", EIO};
  failing = &call;
  EXPECT_EQ(failedExpression([&] { handler->setDirty("new", true); }), "f");
  failing = nullptr;
  EXPECT_EQ(marks(), "new\nold\n");
  writeFile(file, "old\n");  // as a power cut may leave it
  EXPECT_TRUE(handler->isDirty("new"));
  handler->setDirty("next", true);
  EXPECT_EQ(marks(), "new\nnext\nold\n");
}

TEST_F(StateFileTest, AFileSystemThatBringsNoNamesToTheDiskHasItsFilesReplaced) {
  const DescriptorCall call = {"fsync", "/rep", EINVAL};
  failing = &call;
  mark("new");
  EXPECT_EQ(marks(), "new\n");
}

TEST_F(StateFileTest, WhereTheDirectoryCannotBeOpenedTheOldFileStays) {
  writeFile(file, "old\n");
  const auto handler = loaded();
  const FailingCall once("open", EMFILE, root + "/", 0, 1);
  EXPECT_EQ(failedExpression([&] { handler->setDirty("new", true); }), "f");
  EXPECT_EQ(marks(), "old\n");
  EXPECT_FALSE(isThere(file + ".new"));
}

TEST_F(StateFileTest, WhoReadsTheOldFileReadsItToItsEnd) {
  writeFile(file, "old\n");
  std::ifstream reader(file);
  mark("new");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), "old\n");
}

TEST_F(StateFileTest, InTheDefaultModeTheFileIsWrittenOverInItsPlace) {
  const EnvironmentVariable usual("KT_SAFE", std::nullopt);
  writeFile(file, "old\n");
  const ino_t before = statusOf(file).st_ino;
  const auto handler = loaded();
  EXPECT_THAT(callsOf([&] { handler->setDirty("new", true); }), ElementsAre("fopen .dirty"));
  EXPECT_EQ(statusOf(file).st_ino, before);
}

TEST_F(StateFileTest, TheNewFileHasTheModeAndOwnerOfTheOldOne) {
  writeFile(file, "old\n");
  ASSERT_EQ(chown(file.c_str(), 12, 34), 0) << "needs root";
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  const mode_t before = umask(077);
  mark("new");
  umask(before);
  EXPECT_EQ(statusOf(file).st_mode & 07777u, 0666u);
  EXPECT_EQ(statusOf(file).st_uid, 12u);
  EXPECT_EQ(statusOf(file).st_gid, 34u);
}

TEST_F(StateFileTest, AFreshFileHasTheModeThatTheUmaskLeaves) {
  const mode_t before = umask(027);
  mark("new");
  umask(before);
  EXPECT_EQ(statusOf(file).st_mode & 07777u, 0640u);
}

TEST_F(StateFileTest, AProcessThatCannotGiveFilesAwayKeepsTheGroupThatSharesTheFile) {
  constexpr gid_t kShared = 34;
  writeFile(file, "old\n");
  for (const std::string& shared : {directory.path(), root, directory / "locks"})
    ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
  ASSERT_EQ(chown(file.c_str(), 12, kShared), 0) << "needs root";
  ASSERT_EQ(chmod(file.c_str(), 0660), 0);
  Child child([&](const Child::Parent&) {
    ASSERT_EQ(setgroups(1, &kShared), 0);
    ASSERT_EQ(setresgid(56, 56, 56), 0);
    ASSERT_EQ(setresuid(56, 56, 56), 0);
    mark("new");
  });
  EXPECT_EQ(child.join(), 0);
  EXPECT_EQ(marks(), "new\nold\n");
  EXPECT_EQ(statusOf(file).st_gid, kShared);
  EXPECT_EQ(statusOf(file).st_mode & 07777u, 0660u);
}

TEST_F(StateFileTest, NothingIsWrittenThroughALinkInThePlaceOfTheTemporaryFile) {
  writeFile(directory / "outside", "kept");
  makeLink(directory / "outside", file + ".new");
  mark("new");
  EXPECT_EQ(readFile(directory / "outside"), "kept");
  EXPECT_EQ(marks(), "new\n");
  EXPECT_TRUE(S_ISREG(statusOf(file).st_mode));
}

TEST_F(StateFileTest, WhatAKilledProcessLeftInThePlaceOfTheTemporaryFileGoes) {
  writeFile(file + ".new", "half of a se");
  ASSERT_EQ(chmod((file + ".new").c_str(), 0), 0);
  mark("new");
  EXPECT_EQ(marks(), "new\n");
  EXPECT_FALSE(isThere(file + ".new"));
}

TEST_F(StateFileTest, ASystemThatWritesInPiecesGetsTheWholeFileWritten) {
  mostWritten = 3;
  mark("a longer name");
  EXPECT_EQ(marks(), "a longer name\n");
}

TEST_F(StateFileTest, AFailureOfAnyStepKeepsTheOldFileAndLeavesNoOtherAndTheMarkIsWrittenWithTheNextChange) {
  for (const std::string step : {"open", "write", "fsync", "close", "rename"}) {
    for (const int error : {ENOSPC, EIO}) {
      SCOPED_TRACE(step);
      writeFile(file, "old\n");
      const auto handler = loaded();
      const DescriptorCall call = {step, "/.dirty.new", error};
      {
        const FailingCall named(step, error, "/.dirty.new");
        failing = &call;
        EXPECT_EQ(failedExpression([&] { handler->setDirty("new", true); }), "f");
        failing = nullptr;
      }
      EXPECT_EQ(marks(), "old\n");
      EXPECT_FALSE(isThere(file + ".new"));
      EXPECT_TRUE(handler->isDirty("new"));
      EXPECT_TRUE(handler->isDirty("old"));
      handler->setDirty("next", true);
      EXPECT_EQ(marks(), "new\nnext\nold\n");
      EXPECT_THAT(fs::is_empty(directory / "locks"), true);
    }
  }
}

TEST_F(DirtySetTest, AnUnsavedMarkOutlivesAChangeOfTheFileByAnotherProcess) {
  const auto one = loaded();
  const auto two = loaded();
  {
    const FailingCall full("open", ENOSPC, "/.dirty.new");
    assertionOf([&] { one->setDirty("unsaved", true); });
  }
  two->setDirty("other", true);
  EXPECT_EQ(marks(), "other\n");
  EXPECT_TRUE(one->isDirty("unsaved"));
  one->setDirty("next", true);
  EXPECT_EQ(marks(), "next\nother\nunsaved\n");
}

TEST_F(DirtySetTest, AnUnsavedMarkIsWrittenWhenItIsSetAgain) {
  writeFile(file, "");
  const auto handler = loaded();
  for (const char* call : {"open", "rename"}) {
    const FailingCall full(call, ENOSPC, "/.dirty.new");
    EXPECT_EQ(failedExpression([&] { handler->setDirty("a", true); }), "f") << "and told of again";
  }
  handler->setDirty("a", true);
  EXPECT_EQ(marks(), "a\n");
}

TEST_F(DirtySetTest, TwoHandlersLoseNoMarkOfEachOther) {
  const auto one = loaded();
  const auto two = loaded();
  one->setDirty("a", true);
  two->setDirty("b", true);
  one->setDirty("c", true);
  EXPECT_EQ(marks(), "a\nb\nc\n");
  for (const char* id : {"a", "b", "c"}) {
    EXPECT_TRUE(one->isDirty(id)) << id;
    EXPECT_TRUE(two->isDirty(id)) << id;
  }
}

TEST_F(DirtySetTest, AMarkThatOneClearsIsNotBroughtBackByTheOther) {
  const auto one = loaded();
  const auto two = loaded();
  one->setDirty("a", true);
  EXPECT_TRUE(two->isDirty("a"));
  two->setDirty("a", false);
  EXPECT_FALSE(one->isDirty("a"));
  one->setDirty("b", true);
  EXPECT_EQ(marks(), "b\n");
  two->clearDirtySet();
  EXPECT_FALSE(one->isDirty("b"));
  one->setDirty("c", true);
  EXPECT_EQ(marks(), "c\n");
}

// A file may change twice within the time that its times tell apart, keep its size, and even its number.
TEST_F(DirtySetTest, AChangeWithinTheSameTickOfTheFilesTimesIsSeen) {
  writeFile(file, "a\n");
  const auto one = loaded();
  for (int i = 0; i < 200; ++i) {
    const std::string id(1, i % 2 ? 'a' : 'b');
    std::ofstream(file) << id << "\n";  // as the default mode writes
    ASSERT_TRUE(one->isDirty(id.c_str())) << i;
  }
}

TEST_F(DirtySetTest, AFileThatHasRestedIsReadOnceAndItsNextChangeIsSeen) {
  FakeClock clock;
  writeFile(file, "a\n");
  const auto one = loaded();
  clock.now += 3600;
  EXPECT_TRUE(one->isDirty("a"));
  EXPECT_THAT(callsOf([&] { EXPECT_TRUE(one->isDirty("a")); }), ElementsAre("stat .dirty"));
  writeFile(file, "bcd\n");
  EXPECT_FALSE(one->isDirty("a"));
  EXPECT_TRUE(one->isDirty("bcd"));
}

TEST_F(DirtySetTest, MarksInAFileThatAnOperatorRemovesAreGone) {
  FakeClock clock;
  writeFile(file, "a\n");
  const auto one = loaded();
  EXPECT_TRUE(one->isDirty("a"));
  unlink(file.c_str());
  EXPECT_FALSE(one->isDirty("a"));
  one->setDirty("b", true);
  EXPECT_EQ(marks(), "b\n");
}

TEST_F(DirtySetTest, WhileTheFileCannotBeReadEverythingIsDirtyAndNoMarkInItIsLost) {
  const auto one = loaded();
  mark("other");
  EXPECT_TRUE(one->isDirty("other"));
  for (const char* function : {"fopen", "stat"}) {
    const FailingCall none(function, EMFILE, file);
    EXPECT_TRUE(one->isDirty("anything"));
    EXPECT_EQ(failedExpression([&] { one->setDirty(function, true); }), "f");
    EXPECT_EQ(marks(), "other\n");
    EXPECT_EQ(one->dirtySet.count("other"), 1u);
  }
  EXPECT_FALSE(one->isDirty("anything"));
  for (const char* id : {"other", "fopen", "stat"}) EXPECT_TRUE(one->isDirty(id)) << id;
  one->setDirty("next", true);
  EXPECT_EQ(marks(), "fopen\nnext\nother\nstat\n");
}

TEST_F(DirtySetTest, AFileThatCannotBeReadToItsEndIsNotReplaced) {
  const auto one = loaded();
  makeDirectories(file);  // opens, and then cannot be read
  EXPECT_TRUE(one->isDirty("anything"));
  EXPECT_EQ(failedExpression([&] { one->setDirty("mine", true); }), "f");
  EXPECT_TRUE(isDirectoryThere(file));
}

// A network file system may say so while its server comes back.
TEST_F(DirtySetTest, AFileThatIsSaidNotToBeThereThoughItIsLosesNoMark) {
  const auto one = loaded();
  mark("other");
  {
    const FailingCall absent("stat", ENOENT, file, 0, 1);
    EXPECT_EQ(failedExpression([&] { one->setDirty("mine", true); }), "f");
    EXPECT_EQ(absent.failed(), 1);
  }
  EXPECT_EQ(marks(), "other\n");
  one->setDirty("more", true);
  EXPECT_EQ(marks(), "mine\nmore\nother\n");
}

TEST_F(DirtySetTest, ClearingNeedsNotReadTheFile) {
  const auto one = loaded();
  mark("other");
  const FailingCall none("fopen", EMFILE, file);
  EXPECT_TRUE(one->isDirty("anything"));
  one->clearDirtySet();
  EXPECT_EQ(marks(), "");
}

TEST_F(DirtySetTest, FourProcessesThatMarkAndClearLoseNoMarkOfEachOther) {
  constexpr int kMarks = 50;
  std::vector<std::unique_ptr<Child>> writers;
  for (int writer = 0; writer < 4; ++writer)
    writers.push_back(std::make_unique<Child>([this, writer](const Child::Parent&) {
      FakeClock clock;
      clock.onSleep = [&] {
        clock.milliseconds = 0;
        usleep(1000);
      };
      const auto handler = loaded();
      for (int i = 0; i < kMarks; ++i) {
        const std::string id = markOf(writer, i);
        handler->setDirty(id.c_str(), true);
        if (i % 2) handler->setDirty(id.c_str(), false);
      }
    }));
  for (const auto& writer : writers) EXPECT_EQ(writer->join(), 0);
  const std::string content = marks();
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 4 * kMarks / 2);
  const auto handler = loaded();
  for (int writer = 0; writer < 4; ++writer)
    for (int i = 0; i < kMarks; i += 2) EXPECT_TRUE(handler->isDirty(markOf(writer, i).c_str())) << markOf(writer, i);
}

TEST_F(DirtySetTest, MarksOfADefaultModeProcessAreSeenAndKept) {
  const auto mine = loaded();
  {
    const EnvironmentVariable usual("KT_SAFE", std::nullopt);
    mark("theirs");
  }
  EXPECT_TRUE(mine->isDirty("theirs"));
  mine->setDirty("mine", true);
  EXPECT_EQ(marks(), "mine\ntheirs\n");
}

TEST_F(DirtySetTest, ADefaultModeProcessStillWritesItsOwnSetOverTheMarksOfOthers) {
  const auto theirs = loaded();
  mark("mine");
  const EnvironmentVariable usual("KT_SAFE", std::nullopt);
  theirs->setDirty("theirs", true);
  EXPECT_EQ(marks(), "theirs\n");
}

TEST_F(DirtySetTest, AMarkThatTheDefaultModeWroteIsNotTakenForUnsaved) {
  const auto mine = loaded();
  {
    const EnvironmentVariable usual("KT_SAFE", std::nullopt);
    mine->setDirty("a", true);
  }
  loaded()->clearDirtySet();
  EXPECT_FALSE(mine->isDirty("a"));
}

TEST_F(DirtySetTest, AMarkOfAnIdWithALineFeedIsOneLineAndIsFound) {
  mark("a\nb");
  EXPECT_EQ(marks(), "a/b\n");
  EXPECT_TRUE(loaded()->isDirty("a\nb"));
  EXPECT_FALSE(loaded()->isDirty("a"));
  loaded()->setDirty("a\nb", false);
  EXPECT_EQ(marks(), "");
}

TEST_F(SizeCacheTest, IsReplacedWholeWithItsModeAndLeavesNoOtherFile) {
  writeFile(root + "/AA/BB/CC/resource/file", "content");
  countSize(root.c_str(), false);
  ASSERT_EQ(chmod((root + "/.count").c_str(), 0640), 0);
  std::ifstream reader(root + "/.count");
  const std::string before = readFile(root + "/.count");
  ASSERT_THAT(before, StartsWith("resource\n"));
  fs::remove_all(root + "/AA");
  countSize(root.c_str(), false);
  EXPECT_EQ(readFile(root + "/.count"), "");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), before);
  EXPECT_EQ(statusOf(root + "/.count").st_mode & 07777u, 0640u);
  EXPECT_FALSE(isThere(root + "/.countres"));
}

TEST_F(SizeCacheTest, AFailureOfAnyStepKeepsTheOldCacheAndThrows) {
  writeFile(root + "/.count", "resource\n1\n2\n");
  for (const std::string step : {"open", "fsync", "close", "rename"}) {
    SCOPED_TRACE(step);
    const DescriptorCall call = {step, "/.countres", EIO};
    const FailingCall named(step, EIO, "/.countres");
    failing = &call;
    EXPECT_EQ(assertionOf([&] { countSize(root.c_str(), false); }).m_expression, "f");
    failing = nullptr;
    EXPECT_EQ(readFile(root + "/.count"), "resource\n1\n2\n");
  }
}
