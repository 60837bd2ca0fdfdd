// The safe mode's move, step by step: each command, flush and rename of it is recorded, may be made to fail, and may be
// the one at which the process is killed.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "KTDirtyFlagHandler.h"
#include "KTRepositoryHandler.h"
#include "KTSemaphore.h"
#include "entrypoints.h"
#include "fakes/fakes.h"
#include "realdisk/disks.h"
#include "sizeaccounting.h"
#include "support/child.h"
#include "support/fixture.h"
#include "support/results.h"
#include "transfer.h"

namespace fs = std::filesystem;

using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::StartsWith;

namespace {

using Lines = std::vector<std::string>;

constexpr int kExitOne = 256;  // what system gives for a command that exits with 1
constexpr int kNever = -1;

// Watches the steps of moves: the commands, the flushes and the renames, in their order.
class Steps {
 public:
  Steps() {
    current = this;
    shell.answer = [this](const std::string& command) {
      if (!passes(command.substr(0, command.find(' ')))) return runsInVain ? ranInVain(command) : kExitOne;
      return FakeShell::runReal(command);
    };
  }
  ~Steps() { current = nullptr; }
  Steps(const Steps&) = delete;
  Steps& operator=(const Steps&) = delete;

  // Whether the step is made. Called before it is.
  static bool passes(const std::string& step) {
    if (!current || current->isLooking) return true;
    return current->note(step);
  }

  Lines made;
  std::function<void(const std::string&)> look;  // before each step, which it is not to be one of
  int failing = kNever;                          // the number of the step that fails
  bool persistent = false;                       // and all later ones
  bool runsInVain = false;                       // a command that fails has done its work
  int error = EIO;
  int killing = kNever;  // the number of the step before which the process is killed

 private:
  bool note(const std::string& step) {
    if (look) {
      isLooking = true;
      look(step);
      isLooking = false;
    }
    const int number = static_cast<int>(made.size());
    made.push_back(step);
    if (number == killing) kill(getpid(), SIGKILL);
    if (failing == kNever || number < failing || (number > failing && !persistent)) return true;
    errno = error;
    return false;
  }

  int ranInVain(const std::string& command) const {
    FakeShell::runReal(command);
    errno = error;
    return kExitOne;
  }

  static inline Steps* current = nullptr;
  FakeShell shell;
  bool isLooking = false;
};

std::string pathOf(int descriptor) {
  std::error_code gone;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), gone).string();
}

// What stands below a path: names, types, contents of files, targets of links. Reads no special file.
Lines shapeOf(const std::string& path) {
  Lines shape;
  const auto add = [&](const fs::path& entry, const std::string& name) {
    struct stat status;
    if (lstat(entry.c_str(), &status) != 0) return;
    std::string what = std::to_string(status.st_mode >> 12);
    if (S_ISREG(status.st_mode)) what += "=" + readFile(entry.string());
    if (S_ISLNK(status.st_mode)) what += ">" + fs::read_symlink(entry).string();
    if (S_ISCHR(status.st_mode)) what += ":" + std::to_string(status.st_rdev);
    shape.push_back(name + " " + what);
  };
  add(path, ".");
  if (fs::is_directory(fs::symlink_status(path)))
    for (const auto& entry : fs::recursive_directory_iterator(path))
      add(entry.path(),
          fs::relative(entry.path().parent_path(), path).string() + "/" + entry.path().filename().string());
  std::sort(shape.begin(), shape.end());
  return shape;
}

std::string hidingPlace(const std::string& mount) { return mount + "/lost+found/kt-moves"; }

class RelocationTest : public RepositoryFixture {
 protected:
  RelocationTest() : RepositoryFixture({"m1", "m2"}) {}

  std::string origin() const { return at(0, k2009); }
  std::string destination() const { return at(1, k2009); }
  int move() const { return moveRes(origin().c_str(), destination().c_str()); }
  // What is out of sight on both mounts.
  Lines hidden() const {
    Lines names;
    for (size_t i = 0; i < 2; ++i) {
      if (!isThere(hidingPlace(repository.mount(i)))) continue;
      for (const auto& entry : fs::directory_iterator(hidingPlace(repository.mount(i))))
        names.push_back(entry.path().filename());
    }
    return names;
  }
  void pass() const {
    KTRepositoryHandler handler(repository.id());
    handler.checkOverload(false);
  }

  EnvironmentVariable safe{"KT_SAFE", "1"};
};

// A resource with everything in it that a move must carry.
std::string placeAllKinds(const RelocationTest*, const std::string& path) {
  writeFile(path + "/file", "file");
  writeFile(path + "/sub/deep/file", "deep");
  makeDirectories(path + "/empty");
  makeLink("nowhere", path + "/dangling");
  EXPECT_EQ(mkfifo((path + "/pipe").c_str(), 0600), 0);
  EXPECT_EQ(mkfifo((path + "/sub/pipe").c_str(), 0600), 0);
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const WorkingDirectory here(path);  // a socket's path is short
  strcpy(address.sun_path, "socket");
  EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(listener);
  return path;
}

}  // namespace

extern "C" {

int syncfs(int descriptor) noexcept {
  if (!Steps::passes("flush " + pathOf(descriptor))) return -1;
  static const auto real = realFunction<int (*)(int)>("syncfs");
  return real(descriptor);
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned int flags) noexcept {
  if (!Steps::passes(std::string("rename ") + to)) return -1;
  static const auto real = realFunction<int (*)(int, const char*, int, const char*, unsigned int)>("renameat2");
  return real(fromDirectory, from, toDirectory, to, flags);
}
}

TEST_F(RelocationTest, CopiesComparesFlushesRenamesFlushesAndOnlyThenTakesTheOriginAway) {
  place(0, k2009);
  Steps steps;
  EXPECT_EQ(mountRename(origin().c_str(), destination().c_str()), 0);
  const std::string here = hidingPlace(repository.mount(0)) + "/2009";
  const std::string there = hidingPlace(repository.mount(1)) + "/2009";
  EXPECT_THAT(steps.made, ElementsAre("cp", "diff", "flush " + there, "rename " + destination(), "flush " + there,
                                      StartsWith("rename " + here + "/"),
                                      "flush " + fs::path(origin()).parent_path().string(), "rm"));
  EXPECT_FALSE(isThere(origin()));
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
  EXPECT_THAT(hidden(), IsEmpty());
}

TEST_F(RelocationTest, AFailedFlushBeforeTheRenameLeavesTheOriginWholeAndNoCopyWithResultEight) {
  place(0, k2009);
  Steps steps;
  steps.failing = 2;
  EXPECT_EQ(move(), 8);
  ASSERT_THAT(steps.made[2], StartsWith("flush "));
  EXPECT_THAT(treeOf(origin()), ElementsAre("file=file"));
  EXPECT_FALSE(isThere(destination()));
  EXPECT_THAT(hidden(), IsEmpty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("The resource \"" + origin() + "\" could not be renamed to \"" +
                                              destination() + "\". Error code is \\x05"));
}

// Once and from there on, a command that fails before and after its work.
TEST_F(RelocationTest, AFailureOfAnyStepLeavesOneWholeResourceAndNothingInSightBesidesIt) {
  const Lines whole = shapeOf(place(0, k2009));
  constexpr size_t kStepsOfAMove = 8;
  for (const bool persistent : {false, true})
    for (const bool inVain : {false, true})
      for (size_t k = 0; k < kStepsOfAMove; ++k) {
        SCOPED_TRACE("step " + std::to_string(k) + (persistent ? " and all later" : "") + (inVain ? " in vain" : ""));
        Steps watched;
        watched.failing = static_cast<int>(k);
        watched.persistent = persistent;
        watched.runsInVain = inVain;
        const int result = move();
        watched.failing = kNever;
        // An origin that cannot be brought back has gone.
        const bool isRemoval = watched.made[k] == "rm" || (persistent && k == kStepsOfAMove - 2);
        EXPECT_EQ(result, isRemoval ? 0 : 8) << watched.made[k];
        EXPECT_EQ(shapeOf(result == 0 ? destination() : origin()), whole);
        if (!persistent || isRemoval) {
          EXPECT_FALSE(isThere(result == 0 ? origin() : destination())) << watched.made[k];
        }
        if (!persistent && !isRemoval) {
          EXPECT_THAT(hidden(), IsEmpty());
        }
        pass();
        EXPECT_THAT(hidden(), IsEmpty()) << "what could not be removed goes with the next pass";
        fs::remove_all(origin());
        fs::remove_all(destination());
        place(0, k2009);
      }
}

TEST_F(RelocationTest, NoListingNoWalkAndNoCountOfEitherModeSeesACopyBeforeItIsInItsPlace) {
  place(0, k2009, std::string("file"), kLongAgo);
  place(1, kAbc);
  const auto seen = [&] {
    if (isThere(origin())) setTimes(origin(), kLongAgo);  // a copy reads what it copies
    long directories = 0;
    long files = 0;
    Lines names = taken(listDirs_(repository.id(), &directories, true), directories);
    for (const std::string& name : taken(listFiles_(repository.id(), &files, true), files)) names.push_back(name);
    KTRepositoryHandler handler(repository.id());
    std::set<ResourceEntry, ltres> walked;
    for (KTMountPointHandler* mount : handler.mountPoints) {
      mount->getOldestResources(&walked, 100, "", 0);
      mount->getRandomResources(&walked, 100, "", 0);
    }
    for (const ResourceEntry& entry : walked) names.push_back(entry.relativePath);
    for (size_t i = 0; i < 2; ++i) {
      countSize(repository.mount(i).c_str(), false);
      names.push_back(readFile(repository.mount(i) + "/.count"));
      unlink((repository.mount(i) + "/.count").c_str());
    }
    return names;
  };
  for (const char* mode : {"0", "1"}) {
    const EnvironmentVariable lookers("KT_SAFE", mode);
    const Lines before = seen();
    ASSERT_THAT(before, IsSupersetOf(Lines{"2009", "abc", k2009, kAbc}));
    const EnvironmentVariable mover("KT_SAFE", "1");
    Steps steps;
    bool placed = false;
    int looks = 0;
    steps.look = [&](const std::string& step) {
      const EnvironmentVariable now("KT_SAFE", mode);
      if (!placed && step != "rm") {
        EXPECT_EQ(seen(), before) << step;
      }
      placed = placed || step == "rename " + destination();
      ++looks;
    };
    EXPECT_EQ(mountRename(origin().c_str(), destination().c_str()), 0);
    EXPECT_EQ(looks, 8);
    steps.look = nullptr;
    ASSERT_EQ(moveRes(destination().c_str(), origin().c_str()), 0);
  }
}

TEST_F(RelocationTest, ARemovalFindsTheOriginOutOfSightAlready) {
  place(0, k2009);
  Steps steps;
  steps.look = [&](const std::string& step) {
    if (step != "rm") return;
    EXPECT_FALSE(isThere(origin()));
    EXPECT_TRUE(isThere(destination()));
    EXPECT_THAT(hidden(), Contains("2009"));
  };
  EXPECT_EQ(move(), 0);
  EXPECT_THAT(steps.made, Contains("rm"));
}

TEST_F(RelocationTest, NeverReplacesWhatHasComeToTheDestinationMeanwhile) {
  place(0, k2009);
  Steps steps;
  steps.look = [&](const std::string& step) {
    if (step == "diff") makeDirectories(destination());  // empty: rename alone would take its place
  };
  EXPECT_EQ(move(), 8);
  EXPECT_THAT(treeOf(origin()), ElementsAre("file=file"));
  EXPECT_THAT(treeOf(destination()), IsEmpty());
  EXPECT_TRUE(isDirectoryThere(destination()));
  EXPECT_THAT(hidden(), IsEmpty());
}

TEST_F(RelocationTest, AFileSystemThatCannotRenameWithoutReplacingIsAskedFirst) {
  for (const int error : {EINVAL, ENOSYS}) {
    for (const bool comes : {false, true}) {
      place(0, k2009);
      Steps steps;
      steps.failing = 3;
      steps.persistent = true;
      steps.error = error;
      int flushes = 0;
      steps.look = [&](const std::string& step) {
        if (comes && step == "diff") makeDirectories(destination());
        if (step.starts_with("flush ") && ++flushes == 2) steps.failing = kNever;
      };
      EXPECT_EQ(move(), comes ? 8 : 0) << error;
      EXPECT_THAT(treeOf(comes ? origin() : destination()), ElementsAre("file=file"));
      fs::remove_all(destination());
    }
    fs::remove_all(origin());
  }
}

TEST_F(RelocationTest, ResourcesThatAreFilesAndLinksAreMovedToo) {
  writeFile(origin(), "a file");
  makeDirectories(fs::path(at(0, kAbc)).parent_path());
  makeLink("anywhere", at(0, kAbc));
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(moveRes(at(0, kAbc).c_str(), at(1, kAbc).c_str()), 0);
  EXPECT_EQ(readFile(destination()), "a file");
  EXPECT_EQ(fs::read_symlink(at(1, kAbc)), "anywhere");
  EXPECT_FALSE(isThere(origin()));
  EXPECT_FALSE(isThere(at(0, kAbc)));
}

TEST_F(RelocationTest, AMovedLinkLeavesTheTimesOfWhatItPointsTo) {
  const std::string target = repository.scratch() + "/outside";
  writeFile(target, "a file");
  setTimes(target, kLongAgo);
  makeDirectories(fs::path(origin()).parent_path());
  makeLink(target, origin());
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(fs::read_symlink(destination()), target);
  EXPECT_EQ(modificationTime(target), kLongAgo);
}

TEST_F(RelocationTest, AStrayFileThatIsNotAtItsHashPlaceIsMovedOutOfSightOfItsMount) {
  const std::string stray = repository.mount(0) + "/a/b/c/stray";
  writeFile(stray + "/file", "stray");
  Steps steps;
  EXPECT_EQ(moveRes(stray.c_str(), (repository.mount(1) + "/a/b/c/stray").c_str()), 0);
  EXPECT_THAT(steps.made, Contains("flush " + hidingPlace(repository.mount(1)) + "/stray"));
  EXPECT_THAT(steps.made, Contains(StartsWith("rename " + hidingPlace(repository.mount(0)) + "/stray/")));
  EXPECT_THAT(treeOf(repository.mount(1) + "/a/b/c"), ElementsAre("stray/", "stray/file=stray"));
}

TEST_F(RelocationTest, AResourceThatHoldsAFileLikeThatOfAMountIsMergedWithoutATrace) {
  for (const std::string& copy : {origin(), destination()}) writeFile(copy + "/repositorypart.cfg", "");
  writeFile(origin() + "/a/b/c/file", "deep");
  makeDirectories(destination() + "/a/b/c");
  EXPECT_EQ(move(), 0);
  EXPECT_FALSE(isThere(origin()));
  EXPECT_THAT(treeOf(destination()), ElementsAre("a/", "a/b/", "a/b/c/", "a/b/c/file=deep", "repositorypart.cfg="));
}

TEST_F(RelocationTest, AMountBelowARootThatIsAMountItselfHidesItsMovesOnItself) {
  writeFile(repository.path() + "/repositorypart.cfg", "");
  place(0, k2009);
  const std::string stray = repository.mount(0) + "/a/b/c/stray";
  writeFile(stray, "stray");
  Steps steps;
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(moveRes(stray.c_str(), (repository.mount(1) + "/a/b/c/stray").c_str()), 0);
  EXPECT_THAT(steps.made, Contains("flush " + hidingPlace(repository.mount(1)) + "/2009"));
  EXPECT_THAT(steps.made, Contains("flush " + hidingPlace(repository.mount(1)) + "/stray"));
  EXPECT_FALSE(isThere(hidingPlace(repository.path())));
}

TEST_F(RelocationTest, WhatIsLeftBelowARootThatIsAMountItselfIsRemovedToo) {
  writeFile(repository.path() + "/repositorypart.cfg", "");
  writeFile(hidingPlace(repository.mount(0)) + "/2009/1-1/file", "left");
  pass();
  EXPECT_THAT(hidden(), IsEmpty());
  EXPECT_FALSE(isThere(hidingPlace(repository.path())));
}

TEST_F(RelocationTest, TheRootAsTheOnlyMountHidesItsMovesInItsOwnLostAndFound) {
  ScratchDirectory directory;
  const std::string from = directory / "from";
  const std::string to = directory / "to";
  for (const std::string& root : {from, to}) writeFile(root + "/repositorypart.cfg", "");
  writeFile(from + k2009, "content");
  Steps steps;
  EXPECT_EQ(moveRes((from + k2009).c_str(), (to + k2009).c_str()), 0);
  EXPECT_THAT(steps.made, Contains("flush " + hidingPlace(to) + "/2009"));
  EXPECT_EQ(readFile(to + k2009), "content");
}

TEST_F(RelocationTest, OutsideOfAnyMountTheCopyStandsBesideItsPlace) {
  const ScratchDirectory directory;
  writeFile(directory / "from/file", "content");
  Steps steps;
  EXPECT_EQ(moveRes((directory / "from").c_str(), (directory / "to").c_str()), 0);
  EXPECT_THAT(steps.made, ElementsAre("cp", "diff", "flush " + directory.path(), "rename " + directory / "to",
                                      "flush " + directory.path()))
      << "it is deleted by no command, which would outlive this process";
  EXPECT_THAT(treeOf(directory.path()), ElementsAre("to/", "to/file=content"));
}

TEST_F(RelocationTest, AnOriginOutsideOfAnyMountThatCannotBeDeletedLeavesTheWholeCopy) {
  const std::string from = repository.scratch() + "/legacy/2009";
  writeFile(from + "/file", "content");
  const FailingCall stuck("remove", EIO, from);
  EXPECT_EQ(moveRes(from.c_str(), destination().c_str()), 8);
  EXPECT_EQ(stuck.failed(), 1);
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=content"));
}

TEST_F(RelocationTest, ALostAndFoundThatCannotBeWrittenFailsTheMoveWithALineAndLeavesTheOrigin) {
  for (const size_t mount : {0, 1}) {
    place(0, k2009);
    for (size_t i = 0; i < 2; ++i) fs::remove_all(repository.mount(i) + "/lost+found");
    writeFile(repository.mount(mount) + "/lost+found", "a file, so that nothing can be below it");
    log.lines.clear();
    EXPECT_EQ(move(), 8);
    EXPECT_THAT(treeOf(origin()), ElementsAre("file=file"));
    EXPECT_FALSE(isThere(destination()));
    EXPECT_THAT(log.texts(LOG_ERR), Contains(StartsWith("The directory \"" + hidingPlace(repository.mount(mount)) +
                                                        "/2009\" for moves could not be made: ")));
  }
}

TEST_F(RelocationTest, AFullDiskWithoutRoomForOneDirectoryMoreIsDrainedAllTheSame) {
  for (const int error : {ENOSPC, EDQUOT}) {
    place(0, k2009);
    const FailingCall full("mkdir", error, repository.mount(0));
    Steps steps;
    EXPECT_EQ(move(), 0);
    EXPECT_GT(full.failed(), 0);
    EXPECT_FALSE(isThere(origin()));
    EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
    EXPECT_THAT(log.texts(LOG_ERR), IsEmpty());
    fs::remove_all(destination());
    fs::remove_all(repository.mount(0) + "/lost+found");
  }
}

TEST_F(RelocationTest, OfAnOriginOnAFullDiskThatCannotBeDeletedTheCopyStays) {
  place(0, k2009);
  const FailingCall full("mkdir", ENOSPC, repository.mount(0));
  const FailingCall stuck("remove", EIO, origin());
  EXPECT_EQ(move(), 8);
  EXPECT_EQ(stuck.failed(), 1);
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
}

TEST_F(RelocationTest, AFailedMoveLeavesNoEmptyDirectoriesAtTheDestination) {
  place(0, k2009);
  Steps steps;
  steps.failing = 0;
  steps.persistent = true;
  EXPECT_EQ(freeMount_(repository.id(), "m1"), 3);
  EXPECT_THAT(treeOf(repository.mount(1)), ElementsAre("lost+found/", "lost+found/kt-moves/", "repositorypart.cfg="));
}

TEST_F(RelocationTest, WhatAProcessOfTheSameIdHasLeftIsNoPartOfTheCopy) {
  place(0, k2009);
  for (int number = 1; number < 1000; ++number)
    for (size_t i = 0; i < 2; ++i)
      writeFile(hidingPlace(repository.mount(i)) + "/2009/" + std::to_string(getpid()) + "-" + std::to_string(number) +
                    "/left",
                "");
  EXPECT_EQ(move(), 0);
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
  EXPECT_FALSE(isThere(origin()));
}

// A process of the default mode that asks for the times of a marked resource joins its copies without a lock. Of two
// copies with files it finds a conflict, of directories it removes one.
TEST_F(RelocationTest, ACopyThatIsJoinedToItsOriginMeanwhileLeavesTheOriginWhole) {
  for (const bool isEmpty : {true, false}) {
    makeDirectories(origin() + (isEmpty ? "" : "/empty"));
    if (!isEmpty) writeFile(origin() + "/file", "file");
    const Lines whole = shapeOf(origin());
    Steps steps;
    steps.look = [&](const std::string& step) {
      if (step.starts_with("flush ") && isThere(destination()) && isThere(origin()))
        fs::remove(destination() + (isEmpty ? "" : "/empty"));
    };
    EXPECT_EQ(move(), 8);
    EXPECT_EQ(shapeOf(origin()), whole);
    EXPECT_FALSE(isThere(destination()));
    EXPECT_THAT(hidden(), IsEmpty());
    fs::remove_all(origin());
  }
}

TEST_F(RelocationTest, ACopyThatIsJoinedMeanwhileToAnOriginOnAFullDiskLeavesTheOriginWhole) {
  makeDirectories(origin());
  const FailingCall full("mkdir", ENOSPC, repository.mount(0));
  Steps steps;
  steps.look = [&](const std::string& step) {
    if (step.starts_with("flush ") && isThere(destination())) fs::remove(destination());
  };
  EXPECT_EQ(move(), 8);
  EXPECT_TRUE(isDirectoryThere(origin()));
}

TEST_F(RelocationTest, AnOriginThatCannotComeBackIsKeptAndSaid) {
  place(0, k2009);
  makeDirectories(origin() + "/empty");
  const Lines whole = shapeOf(origin());
  Steps steps;
  steps.look = [&](const std::string& step) {
    if (step.starts_with("flush ") && isThere(destination()) && !isThere(origin())) {
      makeDirectories(origin());
      fs::remove(destination() + "/empty");
    }
  };
  EXPECT_EQ(move(), 0);
  Lines kept;
  for (const auto& entry : fs::directory_iterator(repository.mount(0) + "/lost+found"))
    if (entry.path().filename() != "kt-moves") kept.push_back(entry.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_THAT(kept[0], StartsWith(repository.mount(0) + "/lost+found/kt-kept-2009-"));
  EXPECT_EQ(shapeOf(kept[0]), whole);
  EXPECT_THAT(log.texts(LOG_ERR), Contains(HasSubstr("It is kept as \"" + kept[0] + "\".")));
  pass();
  EXPECT_TRUE(isThere(kept[0]));
}

TEST_F(RelocationTest, APassRemovesWhatKilledProcessesLeftButNotOfAMoveWhoseLockIsHeld) {
  writeFile(hidingPlace(repository.mount(0)) + "/2009/1-1/file", "left");
  writeFile(hidingPlace(repository.mount(0)) + "/abc/1-1", "a file");
  writeFile(hidingPlace(repository.mount(1)) + "/12345/1-1/file", "in work");
  {
    KTSemaphore held(repository.lockName("12345"), true);
    ASSERT_TRUE(held.lockResource());
    pass();
    EXPECT_THAT(hidden(), ElementsAre("12345"));
    EXPECT_EQ(readFile(hidingPlace(repository.mount(1)) + "/12345/1-1/file"), "in work");
    EXPECT_THAT(log.texts(LOG_INFO),
                ElementsAre("What a move left behind is removed: " + hidingPlace(repository.mount(0)) + "/2009",
                            "What a move left behind is removed: " + hidingPlace(repository.mount(0)) + "/abc"));
  }
  pass();
  EXPECT_THAT(hidden(), IsEmpty());
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

TEST_F(RelocationTest, APassOfTheDefaultModeLeavesWhatIsOutOfSightAlone) {
  writeFile(hidingPlace(repository.mount(0)) + "/2009/1-1/file", "left");
  const EnvironmentVariable usual("KT_SAFE", std::nullopt);
  pass();
  EXPECT_THAT(hidden(), ElementsAre("2009"));
}

TEST_F(RelocationTest, LinksPipesAndSocketsInsideAResourceAreMovedAndMergedAndDeletedWithoutHanging) {
  writeFile(repository.scratch() + "/outside/kept", "outside");
  placeAllKinds(this, origin());
  makeLink(repository.scratch() + "/outside", origin() + "/out");
  const Lines shape = shapeOf(origin());
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(shapeOf(destination()), shape);
  EXPECT_FALSE(isThere(origin()));

  makeDirectories(origin());  // to be merged into
  EXPECT_EQ(moveRes(destination().c_str(), origin().c_str()), 0);
  EXPECT_EQ(shapeOf(origin()), shape);
  EXPECT_FALSE(isThere(destination()));

  EXPECT_EQ(deleteRes(origin().c_str()), 0);
  EXPECT_FALSE(isThere(origin()));
  EXPECT_THAT(treeOf(repository.scratch() + "/outside"), ElementsAre("kept=outside"));
}

TEST_F(RelocationTest, DeviceNodesAreMovedAsWhatTheyAre) {
  makeDirectories(origin());
  ASSERT_EQ(mknod((origin() + "/null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0) << "needs root";
  const Lines shape = shapeOf(origin());
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(shapeOf(destination()), shape);
  EXPECT_EQ(deleteRes(destination().c_str()), 0);
  EXPECT_FALSE(isThere(destination()));
}

TEST_F(RelocationTest, ADirectoryIsNotMergedThroughALinkOutOfTheRepository) {
  writeFile(repository.scratch() + "/outside/kept", "outside");
  writeFile(origin() + "/sub/file", "inside");
  makeDirectories(destination());
  makeLink(repository.scratch() + "/outside", destination() + "/sub");
  EXPECT_EQ(move(), 2);
  EXPECT_THAT(treeOf(repository.scratch() + "/outside"), ElementsAre("kept=outside"));
  EXPECT_EQ(readFile(origin() + "/sub/file"), "inside");
}

TEST_F(RelocationTest, AnEmptyDirectoryIsNotLostToAFileOfItsName) {
  makeDirectories(origin() + "/sub");
  writeFile(destination() + "/sub", "a file");
  EXPECT_EQ(move(), 2);
  EXPECT_TRUE(isDirectoryThere(origin() + "/sub"));
  EXPECT_EQ(readFile(destination() + "/sub"), "a file");
}

TEST_F(RelocationTest, AResourceUnderTwoNamesIsNotMovedIntoItself) {
  const std::string levels = fs::path(k2009).parent_path();
  for (const bool isFile : {false, true}) {
    fs::remove_all(repository.mount(0) + "/FP");
    fs::remove_all(repository.mount(1) + "/FP");
    makeDirectories(repository.mount(0) + levels);
    makeLink(repository.mount(0) + "/FP", repository.mount(1) + "/FP");
    if (isFile)
      writeFile(origin(), "the only copy");
    else
      makeDirectories(origin());
    EXPECT_EQ(move(), 2);
    EXPECT_TRUE(isThere(origin()));
    const FailingCall full("mkdir", ENOSPC, "lost+found");
    EXPECT_EQ(move(), 2);
    EXPECT_TRUE(isThere(origin())) << "where what goes is deleted in its place";
  }
}

TEST_F(RelocationTest, OfTwoEqualFilesOneIsDroppedOnceTheOtherIsOnTheDisk) {
  writeFile(origin(), "content");
  writeFile(destination(), "content");
  {
    Steps steps;
    steps.failing = 1;
    EXPECT_EQ(move(), 2);
    EXPECT_THAT(steps.made, ElementsAre("diff", StartsWith("flush ")));
    EXPECT_EQ(readFile(origin()), "content");
  }
  EXPECT_EQ(move(), 0);
  EXPECT_FALSE(isThere(origin()));
  EXPECT_EQ(readFile(destination()), "content");
  EXPECT_THAT(hidden(), IsEmpty());
}

TEST_F(RelocationTest, OfTwoDifferentFilesNoneIsDropped) {
  writeFile(origin(), "mine");
  writeFile(destination(), "yours");
  EXPECT_EQ(move(), 2);
  EXPECT_EQ(readFile(origin()), "mine");
  EXPECT_EQ(readFile(destination()), "yours");
  EXPECT_THAT(hidden(), IsEmpty());
}

TEST_F(RelocationTest, OfTwoEqualDirectoriesOfADirtyResourceOneIsDroppedWhereTheDiskIsTooFullToMerge) {
  place(0, k2009);
  place(1, k2009);
  repository.writeDirtySet("2009\n");
  disks.setUsed(repository.mount(1), 97.5);
  const Found found = repository.find("2009");
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.path, destination());
  EXPECT_FALSE(isThere(origin()));
  EXPECT_THAT(treeOf(destination()), ElementsAre("file=file"));
}

struct Copies {
  const char* name;
  Lines first;   // files of the copy on the first mount
  Lines second;  // and on the second
  bool staysFirst;
};

void PrintTo(const Copies& copies, std::ostream* out) { *out << copies.name; }

class ContainedCopyTest : public RelocationTest, public testing::WithParamInterface<Copies> {};

INSTANTIATE_TEST_SUITE_P(Of, ContainedCopyTest,
                         testing::Values(Copies{"FirstWhole", {"a", "b/c"}, {"a"}, true},
                                         Copies{"SecondWhole", {"b/c"}, {"a", "b/c"}, false},
                                         Copies{"Equal", {"a", "b/c"}, {"a", "b/c"}, false},
                                         Copies{"SecondEmpty", {"a", "b/c"}, {}, true}),
                         [](const auto& test) { return std::string(test.param.name); });

// Where nothing can be moved any more: joining them entry by entry would leave two halves.
TEST_P(ContainedCopyTest, OfADirtyResourceOneThatHoldsNothingOfItsOwnIsDroppedWholeEvenOnFullDisks) {
  for (const std::string& copy : {origin(), destination()}) makeDirectories(copy);
  for (const std::string& name : GetParam().first) writeFile(origin() + "/" + name, name);
  for (const std::string& name : GetParam().second) writeFile(destination() + "/" + name, name);
  const Lines whole = shapeOf(GetParam().staysFirst ? origin() : destination());
  repository.writeDirtySet("2009\n");
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 99.9F);
  FakeShell shell;
  shell.answer = [](const std::string& command) {
    return command.starts_with("cp ") ? kExitOne : FakeShell::runReal(command);
  };
  const Found found = repository.find("2009");
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.path, GetParam().staysFirst ? origin() : destination());
  EXPECT_EQ(shapeOf(found.path), whole);
  EXPECT_NE(isThere(origin()), isThere(destination()));
  EXPECT_EQ(repository.dirtySet(), "");
  EXPECT_THAT(hidden(), IsEmpty());
}

TEST_F(RelocationTest, OfTwoCopiesWithFilesOfTheirOwnBothAreKept) {
  place(0, k2009, "mine");
  place(1, k2009, "yours");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(repository.find("2009").status, 0);
  EXPECT_THAT(treeOf(destination()), ElementsAre("mine=mine", "yours=yours"));
  EXPECT_FALSE(isThere(origin()));
}

// A pass that drains the first mount: full as long as the resource is there.
class KilledPassTest : public RelocationTest {
 protected:
  KilledPassTest() {
    disks.answerWith(repository.mount(0), [this](struct statvfs* out) {
      *out = {};
      out->f_frsize = 1024;
      out->f_blocks = 1000;
      out->f_bavail = isThere(origin()) ? 5 : 900;
      return 0;
    });
  }
  Lines complete() const { return shapeOf(repository.scratch() + "/model"); }
};

TEST_F(KilledPassTest, KilledAtAnyStepItLeavesAWholeResourceThatBothModesFindAndTheNextLookUpsHeal) {
  writeFile(repository.scratch() + "/model/file", "file");
  bool killed = true;
  for (int k = 0; killed; ++k) {
    SCOPED_TRACE(k);
    fs::remove_all(origin());
    fs::remove_all(destination());
    place(0, k2009);
    Child child([&](const Child::Parent&) {
      Steps steps;
      steps.killing = k;
      pass();
      EXPECT_FALSE(isThere(origin()));
    });
    const int status = child.join();
    killed = WIFSIGNALED(status);
    if (!killed) {
      EXPECT_EQ(status, 0);
      EXPECT_EQ(k, 8) << "every step was one to be killed at";
    }

    EXPECT_TRUE(shapeOf(origin()) == complete() || shapeOf(destination()) == complete());
    for (const std::string& copy : {origin(), destination()})
      EXPECT_THAT(shapeOf(copy), AnyOf(IsEmpty(), complete())) << "no half of it in sight";

    pass();
    const Found found = repository.find("2009");
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(shapeOf(found.path), complete());
    EXPECT_NE(isThere(origin()), isThere(destination())) << "one copy is left";
    EXPECT_THAT(hidden(), IsEmpty());
    EXPECT_EQ(repository.dirtySet(), "");
    EXPECT_THAT(repository.locksLeft(), IsEmpty());
  }
}

TEST_F(KilledPassTest, KilledBetweenRenameAndRemovalALookUpJoinsTheTwoCopiesByTheMarkOfTheId) {
  for (const bool isFile : {false, true}) {
    fs::remove_all(destination());
    for (size_t i = 0; i < 2; ++i) fs::remove_all(hidingPlace(repository.mount(i)));
    if (isFile) {
      writeFile(origin(), "file");
      setTimes(origin(), kLongAgo);
    } else {
      place(0, k2009);
    }
    Child child([&](const Child::Parent&) {
      Steps steps;
      steps.killing = 5;
      pass();
    });
    EXPECT_TRUE(WIFSIGNALED(child.join()));
    ASSERT_TRUE(isThere(origin()) && isThere(destination()));
    EXPECT_EQ(repository.dirtySet(), "2009\n");
    const Found found = repository.find("2009");
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.path, destination());
    EXPECT_FALSE(isThere(origin()));
    EXPECT_EQ(repository.dirtySet(), "");
  }
}

TEST_F(KilledPassTest, AMarkOfSomebodyWhoKnowsOfAnotherCopyOutlivesTheMove) {
  place(0, k2009);
  KTSemaphore held(repository.lockName("2009"), false);
  ASSERT_TRUE(held.lockResource());
  FakeClock clock;
  clock.onSleep = [&] {  // it is listed, and its lock is waited for
    if (!held.locked) return;
    KTDirtyFlagHandler other;
    other.setRepository(repository.id());
    other.setDirty("2009", true);
    held.unlock();
  };
  pass();
  EXPECT_TRUE(isThere(destination()));
  EXPECT_EQ(repository.dirtySet(), "2009\n");
}

namespace {

struct timespec modificationOf(const std::string& path) {
  struct stat status;
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mtim;
}

struct stat statusOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

std::string attributeOf(const std::string& path, const char* name) {
  char value[200];
  const ssize_t size = lgetxattr(path.c_str(), name, value, sizeof value);
  return size < 0 ? "none" : std::string(value, static_cast<size_t>(size));
}

// An access list that lets user 7 read: version 2, then tag, permissions and id of each entry.
std::string accessList() {
  const unsigned char bytes[] = {2,  0, 0, 0,                           //
                                 1,  0, 6, 0, 0xff, 0xff, 0xff, 0xff,   // the owner
                                 2,  0, 4, 0, 7,    0,    0,    0,      // user 7
                                 4,  0, 4, 0, 0xff, 0xff, 0xff, 0xff,   // the group
                                 16, 0, 4, 0, 0xff, 0xff, 0xff, 0xff,   // the mask
                                 32, 0, 0, 0, 0xff, 0xff, 0xff, 0xff};  // others
  return {reinterpret_cast<const char*>(bytes), sizeof bytes};
}

}  // namespace

TEST_F(RelocationTest, KeepsOwnersModesTimesHardLinksHolesAttributesAndAccessListsBetweenRealDisks) {
  constexpr char kList[] = "system.posix_acl_access";
  constexpr off_t kHole = 4 * 1024 * 1024;
  enterPrivateMounts();
  RealDisks real(DiskKind::ext4);
  for (size_t i = 0; i < 2; ++i) {
    real.mountAt(repository.mount(i));
    repository.configureMount(i, "");
  }
  writeFile(origin() + "/file", "content");
  fs::create_hard_link(origin() + "/file", origin() + "/same");
  makeLink("file", origin() + "/link");
  writeFile(origin() + "/holes", "x");
  fs::resize_file(origin() + "/holes", kHole);
  const std::string list = accessList();
  ASSERT_EQ(setxattr((origin() + "/file").c_str(), "user.note", "kept", 4, 0), 0);
  ASSERT_EQ(chmod((origin() + "/file").c_str(), 04741), 0);
  ASSERT_EQ(setxattr((origin() + "/holes").c_str(), kList, list.data(), list.size(), 0), 0);
  ASSERT_EQ(lchown((origin() + "/link").c_str(), 12, 34), 0) << "needs root";
  const timespec times[] = {{kLongAgo, 123456789}, {kLongAgo, 987654321}};
  for (const char* name : {"/file", "/link", "/holes", ""})
    ASSERT_EQ(utimensat(AT_FDCWD, (origin() + name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  ASSERT_LT(statusOf(origin() + "/holes").st_blocks * 512, kHole / 2);

  EXPECT_EQ(move(), 0);

  EXPECT_FALSE(isThere(origin()));
  EXPECT_EQ(statusOf(destination() + "/file").st_ino, statusOf(destination() + "/same").st_ino);
  EXPECT_EQ(statusOf(destination() + "/file").st_mode & 07777u, 04741u);
  EXPECT_EQ(attributeOf(destination() + "/file", "user.note"), "kept");
  EXPECT_EQ(attributeOf(destination() + "/holes", kList), list);
  EXPECT_EQ(statusOf(destination() + "/link").st_uid, 12u);
  EXPECT_EQ(statusOf(destination() + "/link").st_gid, 34u);
  EXPECT_LT(statusOf(destination() + "/holes").st_blocks * 512, kHole / 2);
  EXPECT_EQ(statusOf(destination() + "/holes").st_size, kHole);
  for (const char* name : {"/file", "/link", "/holes", ""}) {
    EXPECT_EQ(modificationOf(destination() + name).tv_sec, kLongAgo) << name;
    EXPECT_EQ(modificationOf(destination() + name).tv_nsec, 987654321) << name;
  }
  EXPECT_EQ(statusOf(destination()).st_atim.tv_sec, kLongAgo);
  EXPECT_EQ(statusOf(destination()).st_atim.tv_nsec, 123456789);
}

TEST_F(RelocationTest, ARealDiskThatRunsFullKeepsNothingOfTheCopy) {
  enterPrivateMounts();
  RealDisks real(DiskKind::tmpfs);
  real.mountAt(repository.mount(1));
  repository.configureMount(1, "");
  const std::string content(partOfDisk(repository.mount(1), 30), 'x');
  fillTo(repository.mount(1), 80);
  writeFile(origin() + "/first", content.substr(0, content.size() / 3));
  writeFile(origin() + "/second", content);
  const Lines whole = shapeOf(origin());
  EXPECT_EQ(move(), 8);
  EXPECT_EQ(shapeOf(origin()), whole);
  EXPECT_FALSE(isThere(destination()));
  EXPECT_THAT(hidden(), IsEmpty());
  EXPECT_LT(usedPercent(repository.mount(1)), 85);
}
