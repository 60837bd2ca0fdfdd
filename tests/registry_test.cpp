#include "registry.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "KTException.h"
#include "fakes/fakes.h"
#include "support/repository.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace fs = std::filesystem;

// What the allocator sees. The registry's handlers are told apart by their addresses.
long allocationsAlive = 0;
const void* watched[4] = {};
bool watchedGone[4] = {};
FakeSyslog* logOfTheEnd = nullptr;  // where the end of a watched object is noted between the log's events

void* allocate(size_t size) noexcept {
  void* const memory = malloc(size ? size : 1);
  if (memory) ++allocationsAlive;
  return memory;
}

void* allocateOrThrow(size_t size) {
  if (void* const memory = allocate(size)) return memory;
  throw std::bad_alloc();
}

void deallocate(void* memory) noexcept {
  if (!memory) return;
  --allocationsAlive;
  for (size_t i = 0; i < std::size(watched); ++i) {
    if (watched[i] != memory) continue;
    watched[i] = nullptr;
    watchedGone[i] = true;
    if (logOfTheEnd) logOfTheEnd->events.push_back("delete " + std::to_string(i));
  }
  free(memory);
}

}  // namespace

// The library allocates through these: it finds them in the executable.
void* operator new(size_t size) { return allocateOrThrow(size); }
void* operator new[](size_t size) { return allocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { deallocate(memory); }
void operator delete[](void* memory) noexcept { deallocate(memory); }
void operator delete(void* memory, size_t) noexcept { deallocate(memory); }
void operator delete[](void* memory, size_t) noexcept { deallocate(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { deallocate(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { deallocate(memory); }

namespace {

int reportPipe = -1;  // in a child that tells how it ended

void report(int, void*) {
  if (reportPipe < 0) return;
  for (const std::string& event : logOfTheEnd->events) dprintf(reportPipe, "%s\n", event.c_str());
}

// Registered before any static object of the library is built, so that it runs after all of them are destroyed. It is
// on_exit and not atexit because an atexit handler belongs to the executable and runs before the library's.
void registerReport() { on_exit(report, nullptr); }

__attribute__((section(".preinit_array"), used)) void (*const beforeAllInitialisers)() = registerReport;

// Notes when the memory at `object` is given back.
void watch(size_t number, const void* object) {
  watched[number] = object;
  watchedGone[number] = false;
}

// The events of a child process that begins with no log open, runs `body` and leaves by exit(): the log's, with
// "delete N" where a watched object went.
template <typename Body>
std::vector<std::string> eventsUntilTheEnd(const Body& body) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  fflush(nullptr);
  const pid_t process = fork();
  if (process < 0) throw std::runtime_error("no second process");
  if (process == 0) {
    close(ends[0]);
    closelog();
    KTLogger::m_lastFacility = FACILITY_NONE;
    logOfTheEnd = new FakeSyslog;  // lives until the very end
    reportPipe = ends[1];
    body();
    exit(0);
  }
  close(ends[1]);
  std::vector<std::string> events;
  FILE* const in = fdopen(ends[0], "r");
  char line[1024];
  while (fgets(line, sizeof line, in)) events.push_back(std::string(line, strcspn(line, "\n")));
  fclose(in);
  int status = -1;
  waitpid(process, &status, 0);
  EXPECT_EQ(status, 0);
  return events;
}

void touch(const std::string& file, time_t by) { setTimes(file, modificationTime(file) + by); }

// Whether what was put in before main was still there in main, asked before the first test clears the registry.
bool earlyEntryWasKept() {
  static const bool kept = repositoryMap.count("/no/such/repository") == 1;
  return kept;
}

// A registry that is empty at first.
class RegistryTest : public testing::Test {
 protected:
  RegistryTest() {
    earlyEntryWasKept();
    clear();
  }
  ~RegistryTest() override { clear(); }

  static void clear() {
    for (const auto& entry : repositoryMap) delete entry.second;
    repositoryMap.clear();
  }

  static bool hasEntry(const std::string& id) { return repositoryMap.count(id) != 0; }
};

// What a static object of a program finds when it is built, before main. The fakes are not built yet: the log counts
// as open, so that only the message goes out, and libc drops it.
struct BeforeMain {
  BeforeMain() {
    if (rh_logger.ident) ident = rh_logger.ident;
    KTLogger::m_lastFacility = FACILITY_MAIN;
    const int mask = setlogmask(LOG_MASK(LOG_EMERG));
    rh_logger.debugLog("before %s", "main");
    setlogmask(mask);
    KTLogger::m_lastFacility = FACILITY_NONE;
    entriesAtFirst = repositoryMap.size();
    status = getRepository("/no/such/repository")->status;
    entriesAfterwards = repositoryMap.size();
  }
  std::string ident;
  size_t entriesAtFirst;
  int status;
  size_t entriesAfterwards;
};

const BeforeMain beforeMain;

}  // namespace

TEST(RegistryStartTest, LoggerAndRegistryAreUsableBeforeMain) {
  EXPECT_EQ(beforeMain.ident, "KTRepositoryHandler");
  EXPECT_EQ(beforeMain.entriesAtFirst, 0U);
  EXPECT_EQ(beforeMain.status, 0x100);
  EXPECT_EQ(beforeMain.entriesAfterwards, 1U);
  EXPECT_TRUE(earlyEntryWasKept());
}

TEST_F(RegistryTest, FirstLookUpBuildsAHandlerAndKeepsItUnderItsIdentifier) {
  const TestRepository repository({"d1", "d2"});
  KTRepositoryHandler* const handler = getRepository(repository.id());
  ASSERT_NE(handler, nullptr);
  ASSERT_THAT(repositoryMap, SizeIs(1));
  EXPECT_EQ(repositoryMap.begin()->first, repository.path());
  EXPECT_EQ(repositoryMap.begin()->second, handler);
  EXPECT_STREQ(handler->getID(), repository.id());
  EXPECT_THAT(handler->mountPoints, SizeIs(2));
}

TEST_F(RegistryTest, UntouchedConfigurationGivesTheSameHandler) {
  const TestRepository repository({"d1", "d2"});
  KTRepositoryHandler* const handler = getRepository(repository.id());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(getRepository(repository.id()), handler);
  EXPECT_THAT(repositoryMap, SizeIs(1));
}

TEST_F(RegistryTest, KeptHandlerCostsOneAccessAndOneStatForEachConfigurationFile) {
  const TestRepository repository({"d1", "d2"});
  getRepository(repository.id());
  const CallWatch calls;
  getRepository(repository.id());
  const std::string files[] = {repository.path() + "/repository.cfg", repository.mount(0) + "/repositorypart.cfg",
                               repository.mount(1) + "/repositorypart.cfg"};
  std::vector<std::string> want;
  for (const std::string& file : files) {
    want.push_back("access " + file);
    want.push_back("stat " + file);
  }
  EXPECT_EQ(calls.calls, want);
}

TEST_F(RegistryTest, TouchedRepositoryConfigurationGivesAnotherHandler) {
  const TestRepository repository({"d1"});
  for (const time_t by : {1, -2, 100000}) {
    KTRepositoryHandler* const before = getRepository(repository.id());
    touch(repository.path() + "/repository.cfg", by);
    KTRepositoryHandler* const after = getRepository(repository.id());
    EXPECT_NE(after, before) << by;
    EXPECT_EQ(getRepository(repository.id()), after) << by;
  }
  EXPECT_THAT(repositoryMap, SizeIs(1));
}

TEST_F(RegistryTest, TouchedMountConfigurationGivesAnotherHandler) {
  const TestRepository repository({"d1", "d2"});
  for (const size_t mount : {size_t{0}, size_t{1}})
    for (const time_t by : {1, -2}) {
      KTRepositoryHandler* const before = getRepository(repository.id());
      touch(repository.mount(mount) + "/repositorypart.cfg", by);
      KTRepositoryHandler* const after = getRepository(repository.id());
      EXPECT_NE(after, before) << mount;
      EXPECT_EQ(getRepository(repository.id()), after) << mount;
    }
}

TEST_F(RegistryTest, ReplacedHandlerHasTheNewSettings) {
  TestRepository repository({"d1", "d2"}, "remindLimit=70\n");
  EXPECT_EQ(getRepository(repository.id())->remindLimit, 70);
  repository.configure("warnLimit=60\n");
  EXPECT_EQ(getRepository(repository.id())->remindLimit, 80);
  EXPECT_EQ(getRepository(repository.id())->warnLimit, 60);
}

TEST_F(RegistryTest, ReplacedHandlerIsDeletedWithItsMountPoints) {
  const TestRepository repository({"d1", "d2"});
  KTRepositoryHandler* const before = getRepository(repository.id());
  watch(0, before);
  watch(1, before->mountPoints[0]);
  watch(2, before->mountPoints[1]);
  touch(repository.path() + "/repository.cfg", 1);
  getRepository(repository.id());
  EXPECT_THAT(watchedGone, ElementsAre(true, true, true, testing::_));
}

TEST_F(RegistryTest, KeptHandlerIsNotDeleted) {
  const TestRepository repository({"d1"});
  watch(0, getRepository(repository.id()));
  getRepository(repository.id());
  EXPECT_FALSE(watchedGone[0]);
  watched[0] = nullptr;
}

TEST_F(RegistryTest, MissingMountGivesAnotherHandlerOnEveryLookUp) {
  const TestRepository repository({"d1", "d2"});
  KTRepositoryHandler* before = getRepository(repository.id());
  repository.takeOut(1);
  for (int i = 0; i < 3; ++i) {
    KTRepositoryHandler* const after = getRepository(repository.id());
    EXPECT_NE(after, before);
    EXPECT_EQ(after->status & REPOSITORY_INCOMPLETE, REPOSITORY_INCOMPLETE);
    before = after;
  }
}

TEST_F(RegistryTest, ReturnedMountGivesAnotherHandlerOnce) {
  const TestRepository repository({"d1", "d2"});
  repository.takeOut(0);
  KTRepositoryHandler* const incomplete = getRepository(repository.id());
  repository.giveBack(0);
  KTRepositoryHandler* const complete = getRepository(repository.id());
  EXPECT_NE(complete, incomplete);
  EXPECT_EQ(complete->status & REPOSITORY_INCOMPLETE, 0);
  EXPECT_EQ(getRepository(repository.id()), complete);
}

TEST_F(RegistryTest, RepositoryWithoutConfigurationGivesAnotherHandlerOnEveryLookUp) {
  const ScratchDirectory root;
  writeFile(root / "repositorypart.cfg", "");
  KTRepositoryHandler* before = nullptr;
  for (int i = 0; i < 3; ++i) {
    KTRepositoryHandler* const after = getRepository(root.path().c_str());
    EXPECT_NE(after, before);
    ASSERT_THAT(after->mountPoints, SizeIs(1));
    EXPECT_EQ(after->mountPoints[0]->mountPath, root.path());
    before = after;
  }
}

TEST_F(RegistryTest, RemovedConfigurationGivesAnotherHandler) {
  const TestRepository repository({"d1", "d2"});
  KTRepositoryHandler* const before = getRepository(repository.id());
  fs::remove(repository.path() + "/repository.cfg");
  KTRepositoryHandler* const after = getRepository(repository.id());
  EXPECT_NE(after, before);
  EXPECT_THAT(after->mountPoints, SizeIs(1));
}

TEST_F(RegistryTest, ConfigurationThatCannotBeExaminedGivesAnotherHandler) {
  const TestRepository repository({"d1"});
  KTRepositoryHandler* const before = getRepository(repository.id());
  const FakeSyslog log;
  const FailingCall refused("stat", EIO, "/repository.cfg", 0, 1);
  EXPECT_NE(getRepository(repository.id()), before);
  EXPECT_EQ(refused.failed(), 1);
}

TEST_F(RegistryTest, PathWithATrailingSlashIsAnotherRepository) {
  const TestRepository repository({"d1"});
  const std::string slashed = repository.path() + "/";
  KTRepositoryHandler* const plain = getRepository(repository.id());
  KTRepositoryHandler* const other = getRepository(slashed.c_str());
  EXPECT_NE(plain, other);
  EXPECT_EQ(other->getID(), slashed);
  EXPECT_EQ(getRepository(repository.id()), plain);
  EXPECT_EQ(getRepository(slashed.c_str()), other);
  EXPECT_THAT(repositoryMap, SizeIs(2));
}

TEST_F(RegistryTest, IdentifiersAreNotNormalised) {
  const TestRepository repository({"d1"});
  const std::string dotted = repository.scratch() + "/./rep";
  const std::string doubled = repository.scratch() + "//rep";
  for (const std::string& id : {repository.path(), dotted, doubled}) getRepository(id.c_str());
  EXPECT_THAT(repositoryMap, SizeIs(3));
  EXPECT_TRUE(hasEntry(dotted));
  EXPECT_TRUE(hasEntry(doubled));
}

TEST_F(RegistryTest, ChangeOfOneRepositoryLeavesTheOthersHandler) {
  const TestRepository first({"d1"});
  const TestRepository second({"d1"});
  getRepository(first.id());
  KTRepositoryHandler* const kept = getRepository(second.id());
  touch(first.path() + "/repository.cfg", 1);
  getRepository(first.id());
  EXPECT_EQ(getRepository(second.id()), kept);
}

TEST_F(RegistryTest, MissingDirectoryGivesAMissingRepositoryAndNoException) {
  const ScratchDirectory directory;
  const FakeSyslog log;
  const std::string id = directory / "missing";
  KTRepositoryHandler* const handler = getRepository(id.c_str());
  EXPECT_EQ(handler->status, 0x100);
  EXPECT_THAT(handler->mountPoints, IsEmpty());
  EXPECT_STREQ(handler->getID(), "");
  EXPECT_TRUE(hasEntry(id));
  EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(RegistryTest, MissingDirectoryIsLookedForOnEveryLookUp) {
  const ScratchDirectory directory;
  const std::string id = directory / "later";
  KTRepositoryHandler* const missing = getRepository(id.c_str());
  KTRepositoryHandler* const stillMissing = getRepository(id.c_str());
  EXPECT_NE(stillMissing, missing);
  writeFile(id + "/repository.cfg", "");
  writeFile(id + "/repositorypart.cfg", "");
  KTRepositoryHandler* const there = getRepository(id.c_str());
  EXPECT_EQ(there->status & 0x100, 0);
  EXPECT_THAT(there->mountPoints, SizeIs(1));
  EXPECT_EQ(getRepository(id.c_str()), there);
}

TEST_F(RegistryTest, RemovedDirectoryGivesAMissingRepository) {
  const TestRepository repository({"d1"});
  getRepository(repository.id());
  fs::remove_all(repository.path());
  EXPECT_EQ(getRepository(repository.id())->status, 0x100);
}

TEST_F(RegistryTest, EmptyIdentifierIsAMissingRepository) {
  EXPECT_EQ(getRepository("")->status, 0x100);
  EXPECT_TRUE(hasEntry(""));
}

TEST_F(RegistryTest, NullIdentifierFailsAnAssertion) {
  EXPECT_THROW(getRepository(nullptr), KTAssertionException);
  EXPECT_THAT(repositoryMap, IsEmpty());
}

TEST_F(RegistryTest, MissingDirectoryOfAListedMountThrowsAndLeavesNoEntry) {
  const TestRepository repository({"d1", "d2"});
  fs::remove_all(repository.mount(1));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(assertionOf([&] { getRepository(repository.id()); }).m_message,
              "ASSERT (access( mountPath.c_str(), F_OK & X_OK ) == 0) in "
              "repositoryhandler/src/libs/KTRepositoryHandler at line 1250.");
    EXPECT_THAT(repositoryMap, IsEmpty());
  }
  makeDirectories(repository.mount(1));
  EXPECT_THAT(getRepository(repository.id())->mountPoints, SizeIs(2));
}

TEST_F(RegistryTest, FailedRebuildLeavesNoEntryAndDeletesTheOldHandler) {
  const TestRepository repository({"d1", "d2"});
  watch(0, getRepository(repository.id()));
  fs::remove_all(repository.mount(1));
  EXPECT_THROW(getRepository(repository.id()), KTAssertionException);
  EXPECT_FALSE(hasEntry(repository.path()));
  EXPECT_TRUE(watchedGone[0]);
}

TEST_F(RegistryTest, FailedRebuildLeavesTheOtherEntries) {
  const TestRepository broken({"d1"});
  const TestRepository sound({"d1"});
  getRepository(broken.id());
  KTRepositoryHandler* const kept = getRepository(sound.id());
  fs::remove_all(broken.mount(0));
  EXPECT_THROW(getRepository(broken.id()), KTAssertionException);
  EXPECT_THAT(repositoryMap, SizeIs(1));
  EXPECT_EQ(getRepository(sound.id()), kept);
}

TEST_F(RegistryTest, FailedConstructionGivesAllMemoryBack) {
  const TestRepository repository({"d1", "d2", "d3"});
  fs::remove_all(repository.mount(2));
  const auto attempt = [&] {
    try {
      getRepository(repository.id());
      return false;
    } catch (const KTAssertionException&) {
      return true;
    }
  };
  ASSERT_TRUE(attempt());  // whatever is allocated once and for all
  const long before = allocationsAlive;
  ASSERT_TRUE(attempt());
  EXPECT_EQ(allocationsAlive, before);
}

TEST_F(RegistryTest, RebuildKeepsNoMemoryOfTheOldHandler) {
  const TestRepository repository({"d1", "d2"}, "legacyDir=/a/rather/long/path/that/is/allocated\n");
  getRepository(repository.id());
  touch(repository.path() + "/repository.cfg", 1);
  getRepository(repository.id());
  const long before = allocationsAlive;
  touch(repository.path() + "/repository.cfg", 1);
  getRepository(repository.id());
  EXPECT_EQ(allocationsAlive, before);
}

TEST_F(RegistryTest, IdentifierMayBeTheStaleHandlersOwn) {
  const TestRepository repository({"d1"});
  KTRepositoryHandler* const before = getRepository(repository.id());
  touch(repository.path() + "/repository.cfg", 1);
  KTRepositoryHandler* const after = getRepository(before->getID());
  EXPECT_EQ(after->getID(), repository.path());
  EXPECT_TRUE(hasEntry(repository.path()));
}

TEST_F(RegistryTest, MapDeletesItsHandlersAndPassesOverNulls) {
  const TestRepository repository({"d1"});
  {
    RepMap map;
    EXPECT_TRUE(map.empty());
    map["a"] = new KTRepositoryHandler(repository.id());
    map["b"] = nullptr;
    map["c"] = new KTRepositoryHandler("/no/such/repository");
    watch(0, map["a"]);
    watch(1, map["a"]->mountPoints[0]);
    watch(2, map["c"]);
  }
  EXPECT_THAT(watchedGone, ElementsAre(true, true, true, testing::_));
}

TEST_F(RegistryTest, MapIsOrderedByTheBytesOfTheIdentifiers) {
  RepMap map;
  for (const char* const id : {"/b", "/B", "/b/", "/\xC3\xA4", "/a"}) map[id] = nullptr;
  std::vector<std::string> ids;
  for (const auto& entry : map) ids.push_back(entry.first);
  EXPECT_THAT(ids, ElementsAre("/B", "/a", "/b", "/b/", "/\xC3\xA4"));
}

TEST_F(RegistryTest, ProcessEndDeletesTheHandlersBeforeItClosesTheLog) {
  const TestRepository first({"d1"});
  const TestRepository second({"d1"});
  const std::vector<std::string> events = eventsUntilTheEnd([&] {
    KTRepositoryHandler* const one = getRepository(first.id());
    KTRepositoryHandler* const two = getRepository(second.id());
    // The registry's order, which is that of the scratch names.
    watch(0, repositoryMap.begin()->second);
    watch(1, repositoryMap.begin()->second == one ? two : one);
    rh_logger.errorLog("live");
  });
  EXPECT_THAT(events,
              ElementsAre("openlog KTRepositoryHandler 1 128", "vsyslog 3 live", "delete 0", "delete 1", "closelog"));
}

TEST_F(RegistryTest, ProcessEndDeletesTheMountPointsWithTheirRepository) {
  const TestRepository repository({"d1", "d2"});
  const std::vector<std::string> events = eventsUntilTheEnd([&] {
    const KTRepositoryHandler* const handler = getRepository(repository.id());
    watch(0, handler->mountPoints[0]);
    watch(1, handler->mountPoints[1]);
    watch(2, handler);
  });
  EXPECT_THAT(events, ElementsAre("delete 0", "delete 1", "delete 2")) << "nothing was logged: no log to close";
}

TEST_F(RegistryTest, ProcessEndReleasesTheIdentAfterTheHandlersAndClosesTheLogOnce) {
  const TestRepository repository({"d1"});
  const std::vector<std::string> events = eventsUntilTheEnd([&] {
    watch(0, getRepository(repository.id()));
    watch(1, rh_logger.ident);
    rh_logger.debugLog("one");
    rh_logger.operInfoLog("two");
  });
  EXPECT_THAT(events,
              ElementsAre("openlog KTRepositoryHandler 1 128", "vsyslog 7 one", "openlog KTRepositoryHandler 1 128",
                          "vsyslog 6 two", "delete 0", "delete 1", "closelog"));
}

TEST_F(RegistryTest, ProcessEndWithoutHandlersAndMessagesTouchesNoLog) {
  EXPECT_THAT(eventsUntilTheEnd([] {}), IsEmpty());
}
