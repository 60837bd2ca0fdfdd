// Lock files that tell their owner, seen through the lock: what the file says, and when a lock is taken over.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "KTSemaphore.h"
#include "fakes/fakes.h"
#include "support/child.h"
#include "support/scratch.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Called when the library takes the kernel's lock of a lock file, and when it writes into one.
std::function<void()> onKernelLock;
std::function<void()> onWrite;
ssize_t mostWritten = -1;  // bytes; -1: all
pid_t processId = 0;       // what the library takes for its own; 0: what it is

std::string firstLine(const std::string& path) {
  const std::string text = readFile(path);
  return text.substr(0, text.find('\n'));
}

// What the kernel tells of a process, "self" or a number: the 22nd field of its status.
std::string startOf(const std::string& process) {
  const std::string text = readFile("/proc/" + process + "/stat");
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  for (int number = 3; number <= 22; ++number) fields >> field;
  return field;
}

std::string startOf(pid_t process) { return startOf(std::to_string(process)); }

std::string namespaceNumber(const char* kind) {
  struct stat status;
  EXPECT_EQ(stat((std::string("/proc/self/ns/") + kind).c_str(), &status), 0) << "needs a kernel that has them";
  return std::to_string(status.st_ino);
}

// Runs `body` in the first process of a new process id namespace, where /proc still shows the one around it.
void inNewProcessNamespace(const std::function<void()>& body) {
  Child around([&](const Child::Parent&) {
    ASSERT_EQ(unshare(CLONE_NEWPID), 0) << "needs root";
    EXPECT_EQ(Child([&](const Child::Parent&) { body(); }).join(), 0);
  });
  EXPECT_EQ(around.join(), 0);
}

// Lets /proc show the process id namespace of the calling process, to itself and its children.
void mountOwnProc() {
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_EQ(mount("proc", "/proc", "proc", 0, nullptr), 0);
}

struct Owner {
  std::string host, kernel, space, process, start;
  std::string line() const { return host + " " + kernel + " " + space + " " + process + " " + start + "\n"; }
};

Owner ownerHere(pid_t process, const std::string& start) {
  utsname names;
  EXPECT_EQ(uname(&names), 0);
  return {names.nodename, firstLine("/proc/sys/kernel/random/boot_id"),
          namespaceNumber("pid") + "-" + namespaceNumber("time"), std::to_string(process), start};
}

// A process that has run here and is gone.
Owner goneOwner() {
  std::string start;
  const pid_t process = fork();
  if (process == 0) _exit(0);
  start = startOf(process);
  waitpid(process, nullptr, 0);
  return ownerHere(process, start);
}

// The process that a lock file names.
pid_t ownerIn(const std::string& lockFile) {
  std::istringstream fields(readFile(lockFile));
  std::string skipped;
  pid_t process = 0;
  fields >> skipped >> skipped >> skipped >> process;
  return process;
}

class LockOwnerTest : public testing::Test {
 protected:
  ~LockOwnerTest() override {
    onKernelLock = nullptr;
    onWrite = nullptr;
    mostWritten = -1;
  }
  std::string file() const { return directory / "semaphore_m1"; }
  void leave(const std::string& content) const { writeFile(file(), content); }
  bool take() const {
    KTSemaphore semaphore("m1", directory.path(), false);
    return semaphore.lockResource();
  }

  ScratchDirectory directory;
  EnvironmentVariable safe{"KT_SAFE", "1"};
  FakeSyslog log;
};

struct Board {
  std::atomic<int> round;
  std::atomic<int> done;
  std::atomic<int> winners;
};

// Memory that the contenders share with their parent.
class SharedBoard {
 public:
  SharedBoard() {
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    board = new (memory) Board{};
  }
  ~SharedBoard() { munmap(board, sizeof(Board)); }
  SharedBoard(const SharedBoard&) = delete;
  SharedBoard& operator=(const SharedBoard&) = delete;
  Board* operator->() const { return board; }

 private:
  Board* board;
};

}  // namespace

extern "C" {

int flock(int descriptor, int operation) noexcept {
  if (onKernelLock) std::exchange(onKernelLock, nullptr)();
  static const auto real = realFunction<int (*)(int, int)>("flock");
  return real(descriptor, operation);
}

pid_t getpid() noexcept {
  static const auto real = realFunction<pid_t (*)()>("getpid");
  return processId ? processId : real();
}

ssize_t pwrite(int descriptor, const void* bytes, size_t size, off_t offset) {
  if (onWrite) std::exchange(onWrite, nullptr)();
  static const auto real = realFunction<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
  return real(descriptor, bytes, mostWritten < 0 ? size : static_cast<size_t>(mostWritten), offset);
}
}

TEST_F(LockOwnerTest, TheFileTellsHostKernelNamespacesProcessAndStart) {
  KTSemaphore semaphore("m1", directory.path(), true);
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_EQ(readFile(file()), ownerHere(getpid(), startOf(getpid())).line());
  semaphore.unlock();
  EXPECT_FALSE(isThere(file()));
}

TEST_F(LockOwnerTest, TheFileTellsItsOwnerWhereNoFileIsWithoutAName) {
  const FailingCall noLink("linkat", EOPNOTSUPP);
  KTSemaphore semaphore("m1", directory.path(), true);
  ASSERT_TRUE(semaphore.lockResource());
  EXPECT_EQ(noLink.failed(), 1);
  EXPECT_EQ(readFile(file()), ownerHere(getpid(), startOf(getpid())).line());
  EXPECT_FALSE(take());
}

TEST_F(LockOwnerTest, WhereNoFileIsWithoutANameALockThatIsMadeMeanwhileIsHeld) {
  const FailingCall noLink("linkat", EOPNOTSUPP);
  onWrite = [&] { leave(""); };
  EXPECT_FALSE(take());
  EXPECT_EQ(readFile(file()), "");
}

TEST_F(LockOwnerTest, InTheDefaultModeTheFileIsEmpty) {
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>("0"), std::optional<std::string>("")}) {
    const EnvironmentVariable usual("KT_SAFE", value);
    KTSemaphore semaphore("m1", directory.path(), true);
    ASSERT_TRUE(semaphore.lockResource());
    EXPECT_EQ(readFile(file()), "");
  }
}

TEST_F(LockOwnerTest, ALockWhoseHolderWasKilledIsTakenOverWithALogLine) {
  pid_t holder = 0;
  {
    Child child([&](const Child::Parent& parent) {
      KTSemaphore semaphore("m1", directory.path(), true);
      ASSERT_TRUE(semaphore.lockResource());
      parent.tell();
      parent.await();
    });
    child.await();
    holder = ownerIn(file());
    EXPECT_FALSE(take()) << "it lives";
    child.kill();
    child.join();
  }
  log.lines.clear();
  EXPECT_TRUE(take());
  EXPECT_EQ(firstLine(file()) + "\n", ownerHere(getpid(), startOf(getpid())).line());
  EXPECT_THAT(log.texts(LOG_INFO), ElementsAre("The lock " + file() + " was taken over from process " +
                                               std::to_string(holder) + ", which is gone"));
  EXPECT_EQ(log.lines.size(), 1u);
  EXPECT_FALSE(take()) << "it has a living holder now";
}

TEST_F(LockOwnerTest, ALockThatWasTakenOverIsReleasedAsAnyOther) {
  leave(goneOwner().line());
  KTSemaphore semaphore("m1", directory.path(), true);
  ASSERT_TRUE(semaphore.lock(-1));
  semaphore.unlock();
  EXPECT_FALSE(isThere(file()));
}

TEST_F(LockOwnerTest, AZombieHoldsItsLocksUntilItIsReaped) {
  const pid_t process = fork();
  if (process == 0) _exit(take() ? 0 : 1);
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(take());
  waitpid(process, nullptr, 0);
  EXPECT_TRUE(take());
}

TEST_F(LockOwnerTest, ALockWhoseHoldersProcessIdHasGoneToAnotherProcessIsTakenOver) {
  leave(ownerHere(getppid(), startOf(getppid())).line());
  EXPECT_FALSE(take()) << "the same start: it is the holder";
  leave(ownerHere(getppid(), startOf(getppid()) + "1").line());
  EXPECT_TRUE(take());
}

TEST_F(LockOwnerTest, TheNameOfAProcessIsNotTakenForFieldsOfItsStatus) {
  Child child([&](const Child::Parent& parent) {
    writeFile("/proc/self/comm", "a) R 1 1 (b");
    ASSERT_TRUE(take());
    parent.tell();
    parent.await();
  });
  child.await();
  EXPECT_EQ(readFile(file()), ownerHere(ownerIn(file()), startOf(ownerIn(file()))).line());
  EXPECT_FALSE(take());
  child.tell();
  child.join();
  EXPECT_TRUE(take());
}

TEST_F(LockOwnerTest, ALockOfAnotherHostKernelOrNamespaceIsNotTakenOver) {
  const Owner gone = goneOwner();
  Owner otherHost = gone;
  otherHost.host += "x";
  Owner otherKernel = gone;
  otherKernel.kernel.back() = otherKernel.kernel.back() == '0' ? '1' : '0';
  Owner otherSpace = gone;
  otherSpace.space += "1";
  for (const Owner& owner : {otherHost, otherKernel, otherSpace}) {
    leave(owner.line());
    EXPECT_FALSE(take()) << owner.line();
    EXPECT_EQ(readFile(file()), owner.line());
  }
  leave(gone.line());
  EXPECT_TRUE(take());
}

TEST_F(LockOwnerTest, WhereProcShowsAnotherNamespaceALockOfALivingProcessIsNotTakenOver) {
  inNewProcessNamespace([&] {
    leave(ownerHere(getpid(), startOf("self")).line());
    EXPECT_EQ(Child([&](const Child::Parent&) { EXPECT_FALSE(take()); }).join(), 0);
  });
}

TEST_F(LockOwnerTest, WhereProcShowsAnotherNamespaceALockThatIsMadeIsOneThatNobodyTakesOver) {
  const auto takeAndEnd = [&] { EXPECT_EQ(Child([&](const Child::Parent&) { EXPECT_TRUE(take()); }).join(), 0); };
  inNewProcessNamespace([&] {
    takeAndEnd();
    mountOwnProc();
    EXPECT_FALSE(take());
    unlink(file().c_str());
    takeAndEnd();
    EXPECT_TRUE(take()) << "as where /proc shows the own one";
  });
}

// It sees processes start at other times.
TEST_F(LockOwnerTest, AProcessOfAnotherTimeNamespaceDoesNotTakeTheLockOfALivingOne) {
  ASSERT_TRUE(take());
  Child around([&](const Child::Parent&) {
    ASSERT_EQ(unshare(CLONE_NEWTIME), 0) << "needs root and a kernel with time namespaces";
    writeFile("/proc/self/timens_offsets", "boottime 100000 0\n");
    EXPECT_EQ(Child([&](const Child::Parent&) { EXPECT_FALSE(take()); }).join(), 0);
  });
  EXPECT_EQ(around.join(), 0);
}

TEST_F(LockOwnerTest, WhereTheKernelHasNoTimeNamespacesALockIsTakenOverAsElsewhere) {
  const FailingCall none("stat", ENOENT, "/proc/self/ns/time");
  const auto takeAndEnd = [&] { EXPECT_EQ(Child([&](const Child::Parent&) { EXPECT_TRUE(take()); }).join(), 0); };
  takeAndEnd();
  EXPECT_THAT(readFile(file()), HasSubstr(namespaceNumber("pid") + "-0 "));
  takeAndEnd();
}

TEST_F(LockOwnerTest, AnEmptyOrDamagedFileIsALockThatNobodyTakesOver) {
  const Owner gone = goneOwner();
  const std::string line = gone.line();
  const std::string front = gone.host + " " + gone.kernel + " " + gone.space + " ";
  std::vector<std::string> damaged = {"", "\n", "     \n", std::string(5000, 'x'), std::string(100, '\0'), " " + line,
                                      front + gone.process + "\n", front + "0 1\n", front + "-1 1\n", front + "x 1\n",
                                      front + gone.process + "x 1\n", front + "0" + gone.process + " 1\n",
                                      front + "99999999999999999999 1\n",
                                      // As a process id of 32 bits it would be that of one that is gone.
                                      front + std::to_string((1ULL << 32) + std::stoull(gone.process)) + " 1\n"};
  for (size_t length = 0; length < line.size(); ++length) damaged.push_back(line.substr(0, length));
  for (const std::string& content : damaged) {
    leave(content);
    EXPECT_FALSE(take()) << content;
    EXPECT_EQ(readFile(file()), content);
  }
  EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(LockOwnerTest, ALongerNameBehindTheOwnersLineIsNotRead) {
  leave(goneOwner().line() + "the rest of a longer line\n");
  EXPECT_TRUE(take());
  EXPECT_FALSE(take());
}

TEST_F(LockOwnerTest, AProcessOfTheDefaultModeSeesAPlainLock) {
  leave(goneOwner().line());
  const std::string before = readFile(file());
  const EnvironmentVariable usual("KT_SAFE", std::nullopt);
  EXPECT_FALSE(take());
  EXPECT_EQ(readFile(file()), before);
}

TEST_F(LockOwnerTest, ALockOfTheDefaultModeIsNotTakenOverThoughItsHolderIsGone) {
  Child child([&](const Child::Parent&) {
    const EnvironmentVariable usual("KT_SAFE", std::nullopt);
    ASSERT_TRUE(take());
  });
  child.join();
  EXPECT_FALSE(take());
}

TEST_F(LockOwnerTest, ALockThatIsReleasedWhileItIsLookedAtIsNotTakenOver) {
  leave(goneOwner().line());
  onKernelLock = [&] { unlink(file().c_str()); };
  EXPECT_FALSE(take());
  EXPECT_FALSE(isThere(file()));
}

TEST_F(LockOwnerTest, ALockThatIsReleasedAndMadeAnewWhileItIsLookedAtIsNotTakenOver) {
  const std::string other = goneOwner().line();
  for (auto* moment : {&onKernelLock, &onWrite}) {
    for (const std::string& content : {std::string(), other}) {
      leave(goneOwner().line());
      *moment = [&] {
        unlink(file().c_str());
        leave(content);
      };
      EXPECT_FALSE(take());
      EXPECT_EQ(readFile(file()), content) << "the new holder's file is as it was";
    }
  }
}

TEST_F(LockOwnerTest, ALockThatAnotherProcessTakesOverMeanwhileIsNotTakenOver) {
  leave(goneOwner().line());
  const std::string living = ownerHere(getppid(), startOf(getppid())).line();
  onKernelLock = [&] { leave(living); };
  EXPECT_FALSE(take());
  EXPECT_EQ(readFile(file()), living);
}

TEST_F(LockOwnerTest, WhileAnotherProcessIsAboutToTakeItOverTheLockIsNotTaken) {
  leave(goneOwner().line());
  const int other = open(file().c_str(), O_RDWR);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_FALSE(take());
  close(other);
  EXPECT_TRUE(take());
}

TEST_F(LockOwnerTest, ALockThatCannotBeSignedIsHeldAndNobodyTakesItOver) {
  Child child([&](const Child::Parent&) {
    mostWritten = 0;
    ASSERT_TRUE(take());
  });
  EXPECT_EQ(child.join(), 0);
  EXPECT_EQ(readFile(file()), "");
  EXPECT_FALSE(take());
}

TEST_F(LockOwnerTest, AProcessThatCannotLookAtItselfTakesNothingOverAndLeavesALockThatNobodyTakesOver) {
  for (const auto& [function, path] :
       std::vector<std::pair<std::string, std::string>>{{"open", "/proc/sys/kernel/random/boot_id"},
                                                        {"open", "/proc/self/stat"},
                                                        {"stat", "/proc/self/ns/pid"},
                                                        {"stat", "/proc/self/ns/time"}}) {
    SCOPED_TRACE(path);
    leave(goneOwner().line());
    const FailingCall none(function, EACCES, path);
    Child child([&](const Child::Parent&) {
      EXPECT_FALSE(take());
      unlink(file().c_str());
      EXPECT_TRUE(take());
    });
    EXPECT_EQ(child.join(), 0);
    EXPECT_NE(readFile(file()), "");
    EXPECT_FALSE(take());
  }
}

TEST_F(LockOwnerTest, WhatAProcessFindsOfItselfIsReadOnceInAThread) {
  const auto readings = [&] {
    const CallWatch watch;
    EXPECT_TRUE(take());
    unlink(file().c_str());
    return std::count_if(watch.calls.begin(), watch.calls.end(),
                         [](const std::string& call) { return call.find(" /proc/") != std::string::npos; });
  };
  Child child([&](const Child::Parent&) {
    EXPECT_EQ(readings(), 4) << "the kernel, two namespaces and the start";
    EXPECT_EQ(readings(), 0);
    std::thread([&] { EXPECT_EQ(readings(), 4); }).join();
    EXPECT_EQ(readings(), 0);
  });
  EXPECT_EQ(child.join(), 0);
}

TEST_F(LockOwnerTest, WhatAProcessDidNotFindOfItselfIsReadAgain) {
  Child child([&](const Child::Parent&) {
    const FailingCall once("open", EMFILE, "/proc/self/stat", 0, 1);
    ASSERT_TRUE(take());
    unlink(file().c_str());
    ASSERT_TRUE(take());
    EXPECT_EQ(readFile(file()), ownerHere(getpid(), startOf(getpid())).line());
  });
  EXPECT_EQ(child.join(), 0);
}

// As in a grandchild that has got the id of a process that is gone.
TEST_F(LockOwnerTest, AForkedProcessOfTheSameIdReadsAnewWhatItIs) {
  const pid_t parent = getpid();
  ASSERT_TRUE(take());
  const std::string line = readFile(file());
  unlink(file().c_str());
  Child child([&](const Child::Parent&) {
    processId = parent;
    ASSERT_TRUE(take());
  });
  EXPECT_EQ(child.join(), 0);
  EXPECT_NE(readFile(file()), line);
}

// No handler of a fork runs then.
TEST_F(LockOwnerTest, AProcessOfAnotherIdReadsAnewWhatItIs) {
  ASSERT_TRUE(take());
  unlink(file().c_str());
  const pid_t process = _Fork();
  if (process == 0) _exit(take() ? 0 : 1);
  int status = -1;
  waitpid(process, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ownerIn(file()), process);
}

TEST_F(LockOwnerTest, ALockThatIsSignedInPartIsHeldAndNobodyTakesItOver) {
  Child child([&](const Child::Parent&) {
    mostWritten = 60;
    ASSERT_TRUE(take());
  });
  EXPECT_EQ(child.join(), 0);
  EXPECT_EQ(readFile(file()).size(), 60u);
  EXPECT_FALSE(take());
}

TEST_F(LockOwnerTest, ALockThatCannotBeWrittenOverIsNotTaken) {
  leave(goneOwner().line());
  mostWritten = 0;
  EXPECT_FALSE(take());
}

TEST_F(LockOwnerTest, NoDescriptorIsLeftWhetherTheLockIsTakenOrNot) {
  leave(goneOwner().line());
  const long before = openDescriptors();
  EXPECT_TRUE(take());
  EXPECT_FALSE(take());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LockOwnerTest, OfEightProcessesThatTakeADeadOwnersLockAtOnceExactlyOneSucceeds) {
  constexpr int kContenders = 8;
  constexpr int kRounds = 150;
  const SharedBoard board;
  const std::string gone = goneOwner().line();
  std::vector<std::unique_ptr<Child>> contenders;
  for (int i = 0; i < kContenders; ++i)
    contenders.push_back(std::make_unique<Child>([&](const Child::Parent&) {
      for (int round = 1; round <= kRounds; ++round) {
        while (board->round < round) sched_yield();
        if (take()) ++board->winners;
        ++board->done;
      }
    }));
  for (int round = 1; round <= kRounds; ++round) {
    leave(gone);
    board->done = 0;
    board->winners = 0;
    board->round = round;
    while (board->done < kContenders) sched_yield();
    EXPECT_EQ(board->winners, 1) << "in round " << round;
  }
  for (const auto& contender : contenders) EXPECT_EQ(contender->join(), 0);
}

// Each holder looks whether it is alone, then releases the lock or dies with it.
TEST_F(LockOwnerTest, OfProcessesThatReleaseTheLockOrDieWithItNeverTwoHoldItAtOnce) {
  constexpr int kContenders = 4;
  constexpr int kTurns = 30;
  const SharedBoard board;  // winners: holders right now; done: those who met another
  std::vector<std::unique_ptr<Child>> contenders;
  for (int i = 0; i < kContenders; ++i)
    contenders.push_back(std::make_unique<Child>([&](const Child::Parent&) {
      for (int turn = 0; turn < kTurns; ++turn) {
        const pid_t process = fork();
        if (process == 0) {
          KTSemaphore semaphore("m1", directory.path(), true);
          while (!semaphore.lockResource()) sched_yield();
          if (++board->winners != 1) ++board->done;
          sched_yield();
          --board->winners;
          if (turn % 2 == 0) semaphore.unlock();
          _exit(0);
        }
        int status = -1;
        waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
      }
    }));
  for (const auto& contender : contenders) EXPECT_EQ(contender->join(), 0);
  EXPECT_EQ(board->done, 0);
}
