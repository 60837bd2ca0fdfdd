// What each operation asks of the kernel: every system call is counted, by a parent that traces the process which
// makes them. Not counted are the memory of the process itself and what `system` does.
//
// m is the number of mounts, k the mount of the hit counted from 1, D the number of components of a mount's path, h the
// number of hash levels that have to be made, c that of the levels that a clean-up tries to remove. The handler is up
// to date and the resource clean unless a test says otherwise; there is no legacy directory.

#include <gmock/gmock.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "KTRepositoryHandler.h"
#include "entrypoints.h"
#include "fakes/fakes.h"
#include "floors.h"
#include "registry.h"
#include "support/fixture.h"
#include "support/repository.h"
#include "support/results.h"

namespace {

using Calls = std::vector<std::string>;
using Operation = std::function<void()>;

const std::map<long, const char*> kNames = {
    {SYS_access, "access"},       {SYS_openat, "open"},      {SYS_close, "close"},
    {SYS_read, "read"},           {SYS_write, "write"},      {SYS_fstat, "fstat"},
    {SYS_mkdir, "mkdir"},         {SYS_rmdir, "rmdir"},      {SYS_unlink, "unlink"},
    {SYS_getdents64, "getdents"}, {SYS_statfs, "statvfs"},   {SYS_statx, "stat"},
    {SYS_utime, "utime"},         {SYS_utimensat, "utime"},
#if defined(__i386__)
    {SYS_open, "open"},           {SYS_stat64, "stat"},      {SYS_fstat64, "fstat"},
    {SYS_fstatat64, "stat"},      {SYS_statfs64, "statvfs"}, {SYS_utimensat_time64, "utime"},
#else
    {SYS_newfstatat, "stat"}, {SYS_stat, "stat"},
#endif
};

const std::set<long> kOfMemory = {
    SYS_brk,   SYS_mmap, SYS_munmap, SYS_mremap, SYS_madvise, SYS_mprotect,
#if defined(__i386__)
    SYS_mmap2,
#endif
};

// Switches the counting on and off: a call that no operation makes.
constexpr long kSwitch = SYS_getpgid;
constexpr int kNobody = -2;
void switchCounting() { syscall(kSwitch, kNobody); }

// Follows a process that stopped itself, to its end.
class Tracer {
 public:
  explicit Tracer(pid_t traced) : process(traced) {}

  Calls follow() {
    int state = 0;
    EXPECT_EQ(waitpid(process, &state, 0), process);
    EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL), 0);
    long signal = 0;  // to be handed on
    while (ptrace(PTRACE_SYSCALL, process, nullptr, signal) == 0 && waitpid(process, &state, 0) == process &&
           WIFSTOPPED(state)) {
      const bool isCall = WSTOPSIG(state) == (SIGTRAP | 0x80);
      signal = isCall ? 0 : WSTOPSIG(state);
      if (isCall) note();
    }
    EXPECT_EQ(state, 0) << "the traced process failed";
    return calls;
  }

 private:
  void note() {
    __ptrace_syscall_info info = {};
    EXPECT_GT(ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info), 0);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) return;
    const long call = static_cast<long>(info.entry.nr);
    if (call == kSwitch && static_cast<int>(info.entry.args[0]) == kNobody)
      counting = !counting;
    else if (counting && kOfMemory.count(call) == 0)
      calls.push_back(kNames.count(call) ? kNames.at(call) : "call " + std::to_string(call));
  }

  const pid_t process;
  bool counting = false;
  Calls calls;
};

// The calls of `operation`, made by a process of its own in which `before` ran first.
Calls callsOf(const Operation& before, const Operation& operation) {
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    before();
    switchCounting();
    operation();
    switchCounting();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  return Tracer(child).follow();
}

struct Shape {
  size_t m;
  size_t k;
  std::string below;  // directories between the root and the mounts
};
const Shape kShapes[] = {{1, 1, ""}, {2, 1, ""}, {2, 2, ""}, {4, 3, ""}, {3, 3, "disks/of/this/machine/"}};

std::vector<std::string> mountNames(const Shape& shape) {
  std::vector<std::string> names;
  for (size_t i = 1; i <= shape.m; ++i) names.push_back(shape.below + char('a' + i));
  return names;
}

// A repository of some shape with "2009" on mount k, and the handler of it ready.
class Ground {
 public:
  explicit Ground(const Shape& wanted, const std::string& settings = "")
      : shape(wanted), repository(mountNames(wanted), settings), id(repository.id()) {
    repository.place(shape.k - 1, "2009");
  }

  size_t D() const {
    const std::string mount = repository.mount(0);
    return static_cast<size_t>(std::count(mount.begin(), mount.end(), '/'));
  }

  // The calls of an operation on a handler that is up to date.
  Calls of(const Operation& operation) const {
    return callsOf([this] { getRepositoryStatus_(id); }, operation);
  }

  // What an operation on a new resource finds: all but `missing` of its hash levels on the first mount.
  void makeLevels(const std::string& name, size_t missing) const {
    std::filesystem::path path = repository.resourcePath(0, name);
    for (size_t level = 0; level <= missing; ++level) path = path.parent_path();
    makeDirectories(path);
  }

  const Shape shape;
  TestRepository repository;
  const char* const id;

 private:
  const FakeSyslog log;  // its lines are not counted
};

size_t registryCalls(size_t m) { return 2 + 2 * m; }

class SyscallsTest : public testing::TestWithParam<Shape> {
 protected:
  SyscallsTest() : ground(GetParam()), m(ground.shape.m), k(ground.shape.k), id(ground.id) {}

  const Ground ground;
  const size_t m;
  const size_t k;
  const char* const id;
  int status = 0;
};

TEST_P(SyscallsTest, LocationOfAResourceThatIsThere) {
  EXPECT_EQ(ground.of([&] { release(getLocation_(id, "2009", &status)); }).size(), 9 + 2 * m + 3 * k);
}

TEST_P(SyscallsTest, LocationOfAResourceThatIsNowhere) {
  EXPECT_EQ(ground.of([&] { release(getLocation_(id, "2010", &status)); }).size(), 8 + 5 * m);
}

TEST_P(SyscallsTest, StatusOfAResource) {
  EXPECT_EQ(ground.of([&] { checkResourceStatus_(id, "2009"); }).size(), 8 + 2 * m + 3 * k);
}

TEST_P(SyscallsTest, TimesOfAResource) {
  utimbuf times = {1000, 2000};
  EXPECT_EQ(ground.of([&] { getTimeProperties_(id, "2009", &times); }).size(), 6 + 2 * m + 3 * k);
  EXPECT_EQ(ground.of([&] { setTimeProperties_(id, "2009", &times); }).size(), 6 + 2 * m + 3 * k);
}

TEST_P(SyscallsTest, StatusOfTheRepository) {
  EXPECT_EQ(ground.of([&] { getRepositoryStatus_(id); }).size(), 2 + 4 * m);
}

TEST_P(SyscallsTest, NewDirectory) {
  for (const size_t h : {0U, 1U, 2U, 3U}) {
    const std::string name = "new" + std::to_string(h);
    ground.makeLevels(name, h);
    const Calls calls = ground.of([&] { release(createDirectory_(id, name.c_str(), &status, false)); });
    EXPECT_EQ(calls.size(), 17 + 7 * m + 2 * ground.D() + h) << h << " levels missing";
  }
}

TEST_P(SyscallsTest, NewLocation) {
  for (const size_t h : {0U, 1U, 2U, 3U}) {
    const std::string name = "new" + std::to_string(h);
    ground.makeLevels(name, h);
    const Calls calls = ground.of([&] { release(createLocation_(id, name.c_str(), &status, false)); });
    EXPECT_EQ(calls.size(), 12 + 7 * m + ground.D() + h) << h << " levels missing";
  }
}

TEST_P(SyscallsTest, RemovalOfAnEmptyDirectory) {
  for (const size_t c : {1U, 2U, 3U}) {
    const std::string name = "old" + std::to_string(c);
    const std::filesystem::path path = ground.repository.resourcePath(k - 1, name);
    makeDirectories(path);
    std::filesystem::path kept = path;  // the last level that the clean-up tries holds something else
    for (size_t level = 0; level < c; ++level) kept = kept.parent_path();
    writeFile(kept / "neighbour", "");
    EXPECT_EQ(ground.of([&] { removeResource_(id, name.c_str()); }).size(), 18 + 5 * m + 2 * c) << c << " levels tried";
  }
}

TEST_P(SyscallsTest, LookUpThatRebuildsTheHandler) {
  const auto calls = callsOf(
      [&] {
        getRepositoryStatus_(id);
        setTimes(ground.repository.path() + "/repository.cfg", kLongAgo);
      },
      [&] { getRepository(id); });
  EXPECT_EQ(calls.size(), 14 + 13 * m);
}

// Three resources per mount beside "2009": with their hash levels a known number of names and directories.
struct Contents {
  size_t names;        // listed on all mounts
  size_t directories;  // read
};

Contents fill(const Ground& ground) {
  for (size_t i = 0; i < ground.shape.m; ++i)
    for (const char* name : {"abc", "12345", "zebra"}) ground.repository.place(i, name, "content", kLongAgo);
  Contents contents = {0, 0};
  for (size_t i = 0; i < ground.shape.m; ++i) {
    ++contents.directories;
    for (auto entry = std::filesystem::recursive_directory_iterator(ground.repository.mount(i));
         entry != std::filesystem::recursive_directory_iterator(); ++entry) {
      ++contents.names;
      if (entry.depth() == 3)
        entry.disable_recursion_pending();
      else if (entry->is_directory())
        ++contents.directories;
    }
  }
  return contents;
}

TEST_P(SyscallsTest, Listing) {
  const Contents contents = fill(ground);
  long count = 0;
  const auto calls = ground.of([&] { taken(listDirs_(id, &count, true), count); });
  EXPECT_EQ(calls.size(), registryCalls(m) + m + contents.names + 5 * contents.directories);
}

TEST_P(SyscallsTest, WalkForCandidates) {
  const Contents contents = fill(ground);
  const auto calls = ground.of([&] {
    for (KTMountPointHandler* mount : repositoryMap.begin()->second->mountPoints) {
      std::set<ResourceEntry, ltres> oldest;
      EXPECT_GE(mount->getOldestResources(&oldest, 100, "", 0), 3);
    }
  });
  EXPECT_EQ(calls.size(), m + 4 * contents.names + 5 * contents.directories);
}

floors::Repository pathsOf(const Ground& ground) {
  std::vector<std::string> mounts;
  for (size_t i = 0; i < ground.shape.m; ++i) mounts.push_back(ground.repository.mount(i));
  return {ground.id, mounts};
}

// What a benchmark compares an operation with makes the same calls, in the same order.
TEST_P(SyscallsTest, FloorsMakeTheSameCalls) {
  const floors::Repository repository = pathsOf(ground);
  const floors::Resource there(repository, "2009");
  time_t differs = 0;  // from process to process
  const auto expectSame = [&](
                              const Operation& operation, const Operation& floor, const Operation& before = [] {}) {
    const auto ready = [&] {
      getRepositoryStatus_(id);
      before();
    };
    const Calls made = callsOf(ready, operation);
    ++differs;
    EXPECT_EQ(made, callsOf(ready, floor));
  };
  expectSame([&] { getRepository(id); }, [&] { floors::lookUpRepository(repository); });
  expectSame([&] { release(getLocation_(id, "2009", &status)); }, [&] { floors::locate(repository, there, k - 1); });
  expectSame([&] { release(createDirectory_(id, "new", &status, false)); },
             [&] { floors::createDirectory(repository, floors::Resource(repository, "new2")); });
  const floors::Resource old(repository, "old");
  for (const floors::Resource& resource : {old, floors::Resource(repository, "old2")})
    makeDirectories(resource.places[k - 1]);
  expectSame([&] { removeResource_(id, "old2"); }, [&] { floors::remove(repository, old, k - 1); });
  expectSame([&] { getRepository(id); }, [&] { floors::rebuildRepository(repository); },
             [&] { setTimes(repository.config, kLongAgo + differs); });
}

// The file calls of libc that `operation` makes, with their paths.
Calls watched(const Operation& operation) {
  const CallWatch watch;
  operation();
  return watch.calls;
}

TEST_P(SyscallsTest, FloorsOfWalksMakeTheSameCallsForTheSameNames) {
  const Contents contents = fill(ground);
  const floors::Repository repository = pathsOf(ground);
  std::vector<floors::Tree> trees;
  for (size_t i = 0; i < m; ++i) trees.emplace_back(ground.repository.mount(i));
  const auto expectSame = [&](const Operation& operation, const Operation& floor) {
    EXPECT_EQ(ground.of(operation), ground.of(floor));
    getRepositoryStatus_(id);
    const Calls calls = watched(operation);
    EXPECT_GT(calls.size(), contents.names);
    EXPECT_EQ(calls, watched(floor));
  };
  long count = 0;
  expectSame([&] { taken(listDirs_(id, &count, false), count); }, [&] { floors::list(repository, trees); });
  expectSame(
      [&] {
        for (KTMountPointHandler* mount : repositoryMap.at(id)->mountPoints) {
          std::set<ResourceEntry, ltres> oldest;
          mount->getOldestResources(&oldest, 100, "", 0);
        }
      },
      [&] {
        for (size_t i = 0; i < m; ++i) floors::walk(repository, i, trees[i]);
      });
}

INSTANTIATE_TEST_SUITE_P(Shapes, SyscallsTest, testing::ValuesIn(kShapes), [](const auto& given) {
  return std::to_string(given.param.m) + "Mounts" + std::to_string(given.param.k) +
         (given.param.below.empty() ? "" : "FarBelow");
});

// Past their switchLimit, the eligible mounts are asked once more, for the least used one.
TEST(SyscallsOfBalancingTest, NewDirectoryAsksOnceMorePerMount) {
  const Ground ground({3, 1, ""}, "switchLimit=0\n");
  const auto calls = ground.of([&] {
    int status = 0;
    release(createDirectory_(ground.id, "new", &status, false));
  });
  EXPECT_EQ(calls.size(), 17 + 7 * 3 + 2 * ground.D() + 3 + 3);
}

// Two mounts, the first of them full: the room on it is what `room` says, in percent.
class FullMount {
 public:
  explicit FullMount(const std::function<fsblkcnt_t()>& room) : zone("TZ", "UTC0"), ground({2, 2, ""}) {
    tzset();  // else the first time in a log line looks for the zone
    answer(0, room);
    answer(1, [] { return 90; });
    shell.answer = [this](const std::string& command) {
      switchCounting();
      ++commands;
      const int result = FakeShell::runReal(command);
      switchCounting();
      return result;
    };
  }

  const EnvironmentVariable zone;  // else each further one looks for the machine's
  const Ground ground;
  FakeShell shell;
  size_t commands = 0;  // that the shell ran; their calls are not counted

 private:
  void answer(size_t mount, const std::function<fsblkcnt_t()>& room) {
    const std::string path = ground.repository.mount(mount);
    disks.answerWith(path, [=](struct statvfs* space) {
      realFunction<int (*)(const char*, struct statvfs*)>("statvfs")(path.c_str(), space);
      space->f_blocks = 100;
      space->f_bavail = space->f_bfree = room();
      return 0;
    });
  }

  FakeDisks disks;
};

// The calls of a pass that moves `count` resources from the first mount to the second, without what `system` does.
Calls callsOfPass(size_t count) {
  FullMount full([] { return 0; });  // whatever leaves it
  for (size_t i = 0; i < count; ++i) full.ground.repository.place(0, "old" + std::to_string(i), "content", kLongAgo);
  return full.ground.of([&] {
    checkOverload_(full.ground.id, false);
    EXPECT_EQ(full.commands, 3 * count);
  });
}

TEST(SyscallsOfBalancingTest, StepMovesOneResource) {
  const size_t D = Ground({2, 2, ""}).D();
  const size_t listed = 4 * 4 + 5 * 3;  // by the walk: one resource and its three levels
  for (const size_t count : {1U, 2U, 5U})
    EXPECT_EQ(callsOfPass(count + 1).size() - callsOfPass(count).size(), 13 + D + 3 + 2 * 3 + 2 * 2 + listed);
}

// The calls of what moves "old" off the full mount, where the clean-up tries so many hash levels. The mount is full
// when the pass looks at it and when it looks for another one that takes its resources, and has room after the step.
Calls callsOfMoving(size_t levels, const std::function<void(const FullMount&)>& operation) {
  size_t asked = 0;
  FullMount full([&] { return ++asked <= 2 ? 0 : 90; });
  std::filesystem::path kept = full.ground.repository.place(0, "old", "content", kLongAgo);
  for (size_t level = 0; level < levels; ++level) kept = kept.parent_path();
  writeFile(kept / "neighbour", "");  // too new to be moved
  return full.ground.of([&] {
    asked = 0;
    operation(full);
    EXPECT_EQ(full.commands, 3);
  });
}

TEST(SyscallsOfBalancingTest, FloorOfAStepMakesTheSameCalls) {
  for (const size_t c : {1U, 2U, 3U}) {
    const Calls step = callsOfMoving(c, [](const FullMount& full) {
      const TestRepository& repository = full.ground.repository;
      const floors::Repository paths(full.ground.id, {repository.mount(0), repository.mount(1)});
      floors::step(paths, floors::Move(floors::Resource(paths, "old"), 0, 1));
    });
    Calls pass = callsOfMoving(c, [](const FullMount& full) { checkOverload_(full.ground.id, false); });
    EXPECT_EQ(pass.back(), "unlink") << "of the repository's lock, after the last step";
    pass.pop_back();
    ASSERT_GT(pass.size(), step.size());
    EXPECT_EQ(Calls(pass.end() - static_cast<long>(step.size()), pass.end()), step) << c << " levels tried";
    EXPECT_EQ(step.size(), 13 + Ground({2, 2, ""}).D() + 3 + 2 * c + 2 * 2);
  }
}

}  // namespace
