// What a caller brings along: limits of its process, descriptors that are closed, signals that it ignores.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>

#include "KTDirtyFlagHandler.h"
#include "KTException.h"
#include "entrypoints.h"
#include "faults/disks/drainedrepository.h"
#include "operationlog.h"
#include "sizeaccounting.h"
#include "support/child.h"
#include "support/results.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned int kResources = DrainedRepository::kResources;

enum class Mode { byDefault, safe };

class CallerRepository : public DrainedRepository {
 public:
  CallerRepository() : DrainedRepository(DiskKind::tmpfs) {}

  void setDirty(const std::string& resource) const {
    KTDirtyFlagHandler handler;
    handler.setRepository(id());
    handler.setDirty(resource.c_str(), true);
  }
  unsigned int wholeAtBoth() const {
    unsigned int both = 0;
    for (unsigned int i = 0; i < kResources; ++i)
      if (isWholeAtOrigin(i) && isWholeAtDestination(i)) ++both;
    return both;
  }
  unsigned int wholeAtOrigin() const {
    unsigned int whole = 0;
    for (unsigned int i = 0; i < kResources; ++i)
      if (isWholeAtOrigin(i)) ++whole;
    return whole;
  }
  unsigned int foundWhole() const {
    unsigned int found = 0;
    for (unsigned int i = 0; i < kResources; ++i)
      if (isFoundWhole(i)) ++found;
    return found;
  }
  bool isAtDestination(unsigned int resource) const { return isThere(repository.resourcePath(1, idOf(resource))); }
};

// Runs `body` in a process of its own. Its wait status.
int statusOf(const std::function<void()>& body) {
  return Child([&](const Child::Parent&) { body(); }).join();
}

int endedBy(int status) { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }

class CallerTest : public testing::TestWithParam<Mode> {
 protected:
  bool isSafe() const { return GetParam() == Mode::safe; }

  EnvironmentVariable safety{"KT_SAFE", isSafe() ? std::optional<std::string>("1") : std::nullopt};
};

INSTANTIATE_TEST_SUITE_P(In, CallerTest, testing::Values(Mode::byDefault, Mode::safe),
                         [](const auto& test) { return test.param == Mode::safe ? "SafeMode" : "DefaultMode"; });

// ---- SIGCHLD: the kernel takes the status of a command away, and every command counts as failed.

// Runs `body` in a process that ignores it.
void whileSigchldIsIgnored(const std::function<void()>& body) {
  EXPECT_EQ(statusOf([&] {
              signal(SIGCHLD, SIG_IGN);
              body();
            }),
            0);
}

TEST(IgnoredSigchldTest, ByDefaultAPassCopiesWhatItMovesAndLeavesBothCopies) {
  CallerRepository repository;
  whileSigchldIsIgnored([&] { checkOverload_(repository.id(), false); });
  EXPECT_EQ(repository.wholeAtBoth(), kResources);
  EXPECT_EQ(repository.lost(), 0U);
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST(IgnoredSigchldTest, InTheSafeModeAPassMovesNothingAndLeavesNoCopy) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  CallerRepository repository;
  whileSigchldIsIgnored([&] { checkOverload_(repository.id(), false); });
  EXPECT_EQ(repository.wholeAtOrigin(), kResources);
  EXPECT_EQ(repository.wholeAtBoth(), 0U);
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST_P(CallerTest, WhoIgnoresSigchldAndFreesAMountLosesNothingAndIsNotToldThatItIsEmpty) {
  CallerRepository repository;
  whileSigchldIsIgnored([&] { EXPECT_EQ(freeMount_(repository.id(), "d1"), 3); });
  EXPECT_EQ(repository.wholeAtOrigin(), kResources);
  EXPECT_EQ(repository.wholeAtBoth(), isSafe() ? 0U : kResources);
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST_P(CallerTest, WhoIgnoresSigchldAndLooksUpADirtyResourceLosesNeitherCopy) {
  CallerRepository repository;
  const std::string id = CallerRepository::idOf(0);
  const std::string other = repository.repository.place(1, id, "other", 1000000001);
  repository.setDirty(id);
  whileSigchldIsIgnored([&] {
    const Found found = repository.repository.find(id);
    EXPECT_EQ(found.path, "");
    EXPECT_EQ(found.status, 8);
  });
  EXPECT_TRUE(repository.isWholeAtOrigin(0));
  EXPECT_EQ(readFile(other + "/content"), "other");
  EXPECT_EQ(repository.repository.dirtySet(), id + "\n");
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST_P(CallerTest, WhoIgnoresSigchldCountsNothingAndTheNextOneTooUntilAResourceIsUsed) {
  CallerRepository repository;
  whileSigchldIsIgnored([&] { EXPECT_EQ(countSize(repository.origin().c_str(), false), 0); });
  EXPECT_EQ(countSize(repository.origin().c_str(), false), 0);
  for (unsigned int i = 0; i < kResources; ++i)
    setTimes(repository.repository.resourcePath(0, CallerRepository::idOf(i)), time(nullptr));
  EXPECT_GE(countSize(repository.origin().c_str(), false), 480) << "each has 160 kB";
}

// ---- RLIMIT_FSIZE: whoever writes past it gets SIGXFSZ, or EFBIG where the signal is ignored.

void limitFiles(rlim_t bytes, bool ignored) {
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  const rlimit limit = {bytes, bytes};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  signal(SIGXFSZ, ignored ? SIG_IGN : SIG_DFL);
}

TEST_P(CallerTest, WhoseFileLimitACopyExceedsLosesNothingAndOnlyTheDefaultModeLeavesAPart) {
  for (const bool ignored : {false, true}) {
    SCOPED_TRACE(ignored ? "ignored" : "not ignored");
    CallerRepository repository;
    EXPECT_EQ(statusOf([&] {
                limitFiles(65536, ignored);
                checkOverload_(repository.id(), false);
              }),
              0);
    EXPECT_EQ(repository.wholeAtOrigin(), kResources);
    EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
    bool isPartThere = false;
    for (unsigned int i = 0; i < kResources; ++i) isPartThere |= repository.isAtDestination(i);
    EXPECT_EQ(isPartThere, !isSafe());
  }
}

// The set's file is longer than that, with a mark of 600 bytes; what a safe lock says of its holder is shorter.
constexpr rlim_t kLimitOfMarks = 512;
const std::string kLongMark(600, 'x');
const std::string kTornMarks = ("before\n" + kLongMark).substr(0, kLimitOfMarks);

TEST_P(CallerTest, WhoseFileLimitAMarkExceedsIsEndedByTheSignalAndOnlyTheDefaultModeTearsTheMarks) {
  CallerRepository repository;
  repository.setDirty("before");
  EXPECT_EQ(endedBy(statusOf([&] {
              limitFiles(kLimitOfMarks, false);
              repository.setDirty(kLongMark);
            })),
            SIGXFSZ);
  EXPECT_EQ(repository.repository.dirtySet(), isSafe() ? "before\n" : kTornMarks);
  EXPECT_THAT(repository.repository.locksLeft(), ElementsAre("semaphore_" + repository.repository.dirtyLockName()));
}

TEST(FileLimitTest, ThatAMarkExceedsByDefaultTearsTheMarksWithoutAWordWhereTheSignalIsIgnored) {
  CallerRepository repository;
  repository.setDirty("before");
  EXPECT_EQ(statusOf([&] {
              limitFiles(kLimitOfMarks, true);
              repository.setDirty(kLongMark);
            }),
            0);
  EXPECT_EQ(repository.repository.dirtySet(), kTornMarks);
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST(FileLimitTest, ThatAMarkExceedsInTheSafeModeIsToldAndLosesNoMarkWhereTheSignalIsIgnored) {
  const EnvironmentVariable safe("KT_SAFE", "1");
  CallerRepository repository;
  repository.setDirty("before");
  EXPECT_EQ(statusOf([&] {
              limitFiles(kLimitOfMarks, true);
              EXPECT_THROW(repository.setDirty(kLongMark), KTAssertionException);
            }),
            0);
  EXPECT_EQ(repository.repository.dirtySet(), "before\n");
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

// ---- RLIMIT_NOFILE

// The entries; each may fail for want of descriptors, by an answer or by an exception of the library.
struct Entry {
  const char* name;
  std::function<void(const CallerRepository&)> call;
};

const std::vector<Entry>& entries() {
  static const std::vector<Entry> all = {
      {"getLocation", [](const auto& r) { r.repository.find("resource0"); }},
      {"createDirectory", [](const auto& r) { r.repository.create("fresh"); }},
      {"createLocation",
       [](const auto& r) {
         int status = 0;
         taken(createLocation_(r.id(), "fresh", &status, false));
       }},
      {"removeResource", [](const auto& r) { removeResource_(r.id(), "absent"); }},
      {"checkResourceStatus", [](const auto& r) { checkResourceStatus_(r.id(), "resource0"); }},
      {"getRepositoryStatus", [](const auto& r) { getRepositoryStatus_(r.id()); }},
      {"listDirs",
       [](const auto& r) {
         long count = 0;
         char** names = listDirs_(r.id(), &count, true);
         taken(names, count);
       }},
      {"listFiles",
       [](const auto& r) {
         long count = 0;
         char** names = listFiles_(r.id(), &count, true);
         taken(names, count);
       }},
      {"getTimeProperties",
       [](const auto& r) {
         utimbuf times;
         getTimeProperties_(r.id(), "resource0", &times);
       }},
      {"setTimeProperties",
       [](const auto& r) {
         utimbuf times = {1000000000, 1000000000};
         setTimeProperties_(r.id(), "resource0", &times);
       }},
      {"setup", [](const auto& r) { setup_(r.id()); }},
      {"giveBackMounts", [](const auto& r) { giveBackMounts_(r.id()); }},
      {"MountUnmount", [](const auto& r) { MountUnmount_(r.id(), 5, true); }},
      {"getDeletedDirs", [](const auto& r) { getDeletedDirs_(r.id()); }},
      {"createToLegacy", [](const auto& r) { taken(createToLegacy_(r.id(), "fresh")); }},
      {"setDirty", [](const auto& r) { r.setDirty("resource0"); }},
      {"checkOverload", [](const auto& r) { checkOverload_(r.id(), true); }},
      {"freeMount", [](const auto& r) { freeMount_(r.id(), "d1"); }},
  };
  return all;
}

// What changes more than its own resource, and what is no entry of its own but writes files.
std::vector<Entry> allEntries() {
  std::vector<Entry> all = entries();
  all.push_back({"rndMount", [](const auto& r) { rndMount_(r.id()); }});
  all.push_back({"makeEmpty", [](const auto& r) { makeEmpty_(r.id()); }});
  all.push_back({"countSize", [](const auto& r) {
                   // The cache keeps times, which are to be the same in every repository.
                   for (const auto& entry : std::filesystem::directory_iterator(r.origin()))
                     setTimes(entry.path(), 1000000000);
                   countSize(r.origin().c_str(), true);
                 }});
  all.push_back({"writeToLogGlobal", [](const auto& r) {
                   writeToLogGlobal((r.repository.path() + "/log").c_str(), "line");
                   writeToLogGlobal((r.repository.path() + "/log").c_str(), "another");
                 }});
  return all;
}

// Enough for every entry, and for what the shell's commands need.
constexpr int kMostDescriptors = 24;

TEST_P(CallerTest, ThatMayOpenFewDescriptorsLosesNothingWhicheverEntryItCalls) {
  for (const Entry& entry : entries()) {
    for (int more = 0; more <= kMostDescriptors; more += more < 8 ? 1 : 8) {
      SCOPED_TRACE(std::string(entry.name) + " with " + std::to_string(more) + " descriptors");
      CallerRepository repository;
      EXPECT_EQ(statusOf([&] {
                  const long before = openDescriptors();
                  {
                    const DescriptorLimit limit(more);
                    try {
                      outputOf([&] { entry.call(repository); });
                    } catch (const KTException&) {
                    }
                  }
                  EXPECT_EQ(openDescriptors(), before);
                }),
                0);
      EXPECT_EQ(repository.lost(), 0U);
      EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
      EXPECT_EQ(repository.foundWhole(), kResources);
    }
  }
}

// ---- Descriptors 0 to 2: what is opened first gets their numbers.

// Everything on the disks and in the repository's directory, lock directory included.
std::vector<std::string> everythingAfter(const Entry& entry, const std::vector<int>& closed) {
  CallerRepository repository;
  EXPECT_EQ(statusOf([&] {
              repository.log.reset();
              setvbuf(stdout, nullptr, _IONBF, 0);  // what is printed is written at once, whatever is open then
              dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
              for (const int descriptor : closed) close(descriptor);
              entry.call(repository);
            }),
            0);
  std::vector<std::string> tree = treeOf(repository.repository.scratch());
  for (std::string& line : tree)
    for (size_t at = 0; (at = line.find(repository.repository.scratch())) != std::string::npos;)
      line.replace(at, repository.repository.scratch().size(), "SCRATCH");
  return tree;
}

TEST_P(CallerTest, WithoutDescriptors0To2FindsTheSameInEveryFileWhicheverEntryItCalls) {
  for (const Entry& entry : allEntries()) {
    SCOPED_TRACE(entry.name);
    const std::vector<std::string> everything = everythingAfter(entry, {});
    for (const std::vector<int>& closed : {std::vector<int>{0, 1, 2}, {1}, {2}})
      EXPECT_TRUE(everythingAfter(entry, closed) == everything) << "without " << testing::PrintToString(closed);
  }
}

// ---- A file longer than 2 GiB, which a 32-bit process without large files cannot examine.

constexpr bool kExaminesLongFiles = sizeof(off_t) > 4;
constexpr char kThreeGibibytes[] = "truncate -s 3G ";

class LongFileTest : public CallerTest {
 protected:
  // A resource that is such a file; and one that is a directory with it, of old times as the others.
  std::string placeFile(const std::string& id) const {
    const std::string path = repository.repository.placeFile(0, id, "");
    EXPECT_EQ(FakeShell::runReal(kThreeGibibytes + path + " && touch -d @1000000000 " + path), 0);
    return path;
  }
  std::string placeDirectory(const std::string& id) const {
    const std::string path = repository.repository.place(0, id, "", 1000000000);
    EXPECT_EQ(FakeShell::runReal(kThreeGibibytes + path + "/long && touch -d @1000000000 " + path), 0);
    return path;
  }
  std::vector<std::string> listed(char** (*list)(const char*, long*, bool)) const {
    long count = 0;
    char** names = list(repository.id(), &count, true);
    return taken(names, count);
  }

  CallerRepository repository;
};

INSTANTIATE_TEST_SUITE_P(In, LongFileTest, testing::Values(Mode::byDefault, Mode::safe),
                         [](const auto& test) { return test.param == Mode::safe ? "SafeMode" : "DefaultMode"; });

TEST_P(LongFileTest, IsFoundAndItsTimesAreSetByEveryBuildAndReadByThe64BitBuildAlone) {
  const std::string path = placeFile("long");
  const Found found = repository.repository.find("long");
  EXPECT_EQ(found.path, path);
  EXPECT_EQ(found.status, 0);
  utimbuf times = {1000000000, 1000000000};
  EXPECT_EQ(setTimeProperties_(repository.id(), "long", &times), 1);
  EXPECT_EQ(getTimeProperties_(repository.id(), "long", &times), kExaminesLongFiles ? 1 : 0);
}

TEST_P(LongFileTest, IsListedByThe64BitBuildAlone) {
  placeFile("long");
  EXPECT_EQ(listed(listFiles_), kExaminesLongFiles ? std::vector<std::string>{"long"} : std::vector<std::string>{});
}

TEST_P(LongFileTest, IsRemovedByThe64BitBuildAndLeftWithResultEightByThe32BitBuild) {
  const std::string path = placeFile("long");
  EXPECT_EQ(removeResource_(repository.id(), "long"), kExaminesLongFiles ? 0 : 8);
  EXPECT_EQ(isThere(path), !kExaminesLongFiles);
}

TEST_P(LongFileTest, IsMovedByAPassOfThe64BitBuildAndLeftWhereItIsByThe32BitBuild) {
  const std::string path = placeFile("long");
  checkOverload_(repository.id(), false);
  EXPECT_EQ(isThere(path), !kExaminesLongFiles);
  EXPECT_EQ(isThere(repository.repository.resourcePath(1, "long")), kExaminesLongFiles);
  EXPECT_EQ(repository.lost(), 0U);
  EXPECT_THAT(repository.repository.locksLeft(), IsEmpty());
}

TEST_P(LongFileTest, InADirectoryIsMovedWithItByEveryBuild) {
  const std::string path = placeDirectory("directory");
  checkOverload_(repository.id(), false);
  EXPECT_FALSE(isThere(path));
  EXPECT_TRUE(isThere(repository.repository.resourcePath(1, "directory") + "/long"));
  EXPECT_EQ(listed(listDirs_).size(), kResources + 1);
}

TEST_P(LongFileTest, InADirectoryIsRemovedWithItByThe64BitBuildAlone) {
  const std::string path = placeDirectory("directory");
  EXPECT_EQ(removeResource_(repository.id(), "directory"), kExaminesLongFiles ? 0 : 8);
  EXPECT_EQ(isThere(path + "/long"), !kExaminesLongFiles);
}

// The size is du's, of the blocks that are there: a hole has none.
TEST_P(LongFileTest, IsCountedByEveryBuildWithTheBlocksThatItHas) {
  const long before = countSize(repository.origin().c_str(), false);
  placeFile("long");
  EXPECT_EQ(countSize(repository.origin().c_str(), false), before);
}

}  // namespace
