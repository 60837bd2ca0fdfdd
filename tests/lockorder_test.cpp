// The locks of whole operations, from the flat entry down: which are taken, in which order, and that they all
// go back, innermost first. The order is repository, then one resource, then the dirty set inside it.

#include <gmock/gmock.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>

#include "KTException.h"
#include "entrypoints.h"
#include "registry.h"
#include "support/fixture.h"
#include "support/results.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StartsWith;

using Steps = std::vector<std::string>;

// The dirty set is asked or changed.
const Steps kDirtySet = {"+dirty set", "-dirty set"};

Steps operator+(Steps steps, const Steps& further) {
  steps.insert(steps.end(), further.begin(), further.end());
  return steps;
}

Steps operator*(size_t times, const Steps& steps) {
  Steps result;
  for (size_t i = 0; i < times; ++i) result = result + steps;
  return result;
}

// Inside a resource's lock.
Steps within(const std::string& lock, const Steps& inner) { return Steps{"+" + lock} + inner + Steps{"-" + lock}; }

class LockOrderTest : public RepositoryFixture {
 protected:
  LockOrderTest() : RepositoryFixture({"d1", "d2"}) {}

  std::string placeFile(size_t index, const std::string& hashed) const {
    const std::string path = at(index, hashed);
    writeFile(path, "");
    setTimes(path, kLongAgo);
    return path;
  }
  bool marked() const { return !repository.dirtySet().empty(); }

  // The mount is as full as the function says at each time of asking.
  template <typename Percent>
  void setUsed(size_t index, const Percent& percent) {
    disks.answerWith(repository.mount(index), [=](struct statvfs* out) {
      *out = {};
      out->f_blocks = 1000;
      out->f_bavail = 1000 - static_cast<fsblkcnt_t>(percent() * 10);
      return 0;
    });
  }

  // The locks that `operation` takes and gives back, under plain names. The handler stands already.
  template <typename Operation>
  Steps stepsOf(const Operation& operation) {
    getRepository(repository.id());
    return allStepsOf(operation);
  }
  // The same with what building the handler takes.
  template <typename Operation>
  Steps allStepsOf(const Operation& operation) {
    const CallWatch watch;
    operation(repository.id());
    return plain(watch.locks);
  }
  // The same of an operation that throws.
  template <typename Exception, typename Operation>
  Steps stepsOfThrowing(const Operation& operation) {
    return stepsOf([&](const char* id) { EXPECT_THROW(operation(id), Exception); });
  }

  Steps plain(const Steps& locks) const {
    const std::string prefix = repository.lockName("");
    Steps result;
    for (const std::string& lock : locks) {
      const std::string name = lock.substr(1);
      std::string simple = name;
      if (name == repository.dirtyLockName())
        simple = "dirty set";
      else if (name == prefix)
        simple = "repository";
      else if (name.rfind(prefix, 0) == 0)
        simple = name.substr(prefix.size());
      result.push_back(lock[0] + simple);
    }
    return result;
  }

  ~LockOrderTest() override { EXPECT_THAT(repository.locksLeft(), ElementsAreArray(locksToBeLeft)); }

  FakeShell shell;
  Steps locksToBeLeft;
};

// What a walk over a mount with one resource asks the dirty set: three hash levels, the resource, and, by its name the
// last, the configuration file. An empty mount has the file alone.
const Steps kWalkOverOne = 5 * kDirtySet;
const Steps kWalkOverNone = kDirtySet;

// ---------------------------------------------------------------------------------------------- the look-up

TEST_F(LockOrderTest, BuildingAHandlerTakesTheDirtySetAlone) {
  EXPECT_EQ(allStepsOf([](const char* id) { getRepository(id); }), kDirtySet);
}

TEST_F(LockOrderTest, RebuildingAHandlerIsOverBeforeTheResourceIsLocked) {
  getRepository(repository.id());
  repository.configure("warnLimit=42\n");
  place(0, k2009);
  EXPECT_EQ(allStepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }),
            kDirtySet + within("2009", kDirtySet));
}

TEST_F(LockOrderTest, AHandlerThatIsUpToDateTakesNoLock) {
  getRepository(repository.id());
  EXPECT_THAT(allStepsOf([](const char* id) { getRepository(id); }), IsEmpty());
}

TEST_F(LockOrderTest, SetupTakesTheDirtySetAlone) {
  EXPECT_EQ(stepsOf([](const char* id) { setup_(id); }), kDirtySet);
}

TEST_F(LockOrderTest, ADirtySetThatCannotBeReadIsUnlocked) {
  repository.writeDirtySet("2009\n");
  const FailingCall fopen("fopen", EACCES, "/.dirty");
  EXPECT_EQ(allStepsOf([](const char* id) { EXPECT_THROW(getRepository(id), KTAssertionException); }), kDirtySet);
}

// ------------------------------------------------------------------------------------------------ locations

TEST_F(LockOrderTest, GetLocationAsksTheDirtySetInsideTheLockOfTheResource) {
  place(0, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }), within("2009", kDirtySet));
}

TEST_F(LockOrderTest, GetLocationOfAResourceThatIsNowhereTakesTheSameLocks) {
  EXPECT_EQ(stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }), within("2009", kDirtySet));
}

TEST_F(LockOrderTest, AJoinClearsTheMarkInsideTheLockOfTheResource) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }), within("2009", 2 * kDirtySet));
  EXPECT_FALSE(marked());
  EXPECT_THAT(shell.commands, ElementsAre(StartsWith("cp -r "), StartsWith("diff -q -r "), StartsWith("rm -fr ")))
      << "by the real shell";
}

TEST_F(LockOrderTest, TheShellRunsInsideTheLockOfTheResourceAndOutsideThatOfTheDirtySet) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  repository.writeDirtySet("2009\n");
  std::vector<Steps> held;
  shell.answer = [&](const std::string& command) {
    held.push_back(repository.locksLeft());
    return FakeShell::runReal(command);
  };
  stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); });
  EXPECT_THAT(held, testing::AllOf(testing::SizeIs(3), Each(ElementsAre("semaphore_" + repository.lockName("2009")))));
}

TEST_F(LockOrderTest, AJoinThatIsNotPossibleLeavesTheMark) {
  placeFile(0, k2009);
  place(1, k2009);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }), within("2009", kDirtySet));
}

TEST_F(LockOrderTest, CheckResourceStatusTakesTheLocksOfALocation) {
  place(0, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { checkResourceStatus_(id, "2009"); }), within("2009", kDirtySet));
}

TEST_F(LockOrderTest, CreateDirectoryAsksTheDirtySetInsideTheLockOfTheResource) {
  EXPECT_EQ(stepsOf([](const char* id) { taken(createDirectory_(id, "2009", nullptr, false)); }),
            within("2009", kDirtySet));
  EXPECT_TRUE(isDirectoryThere(at(0, k2009)));
}

TEST_F(LockOrderTest, CreateDirectoryMarksInsideTheLockOfTheResource) {
  repository.takeOut(0);
  EXPECT_EQ(allStepsOf([](const char* id) { taken(createDirectory_(id, "2009", nullptr, false)); }),
            kDirtySet + within("2009", 2 * kDirtySet));
  EXPECT_TRUE(marked());
}

TEST_F(LockOrderTest, CreateLocationTakesTheLocksOfCreateDirectory) {
  repository.takeOut(0);
  EXPECT_EQ(allStepsOf([](const char* id) { taken(createLocation_(id, "2009", nullptr, false)); }),
            kDirtySet + within("2009", 2 * kDirtySet));
}

TEST_F(LockOrderTest, RemoveResourceAsksTheDirtySetInsideTheLockOfTheResource) {
  place(0, k2009);
  place(1, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { removeResource_(id, "2009"); }), within("2009", kDirtySet));
  EXPECT_FALSE(isThere(at(0, k2009)));
}

TEST_F(LockOrderTest, RemoveResourceJoinsUnderTheLockThatItHolds) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  repository.writeDirtySet("2009\n");
  // Asked, asked again by the search, cleared, asked for the last time.
  EXPECT_EQ(stepsOf([](const char* id) { EXPECT_EQ(removeResource_(id, "2009"), 0); }), within("2009", 4 * kDirtySet));
}

TEST_F(LockOrderTest, TimesAreReadAndSetUnderNoLockOfTheResource) {
  place(0, k2009);
  utimbuf times = {1, 2};
  EXPECT_EQ(stepsOf([&](const char* id) { setTimeProperties_(id, "2009", &times); }), kDirtySet);
  EXPECT_EQ(stepsOf([&](const char* id) { getTimeProperties_(id, "2009", &times); }), kDirtySet);
}

TEST_F(LockOrderTest, ListsTakeNoLock) {
  place(0, k2009);
  for (const auto list : {listDirs_, listFiles_}) {
    EXPECT_THAT(stepsOf([=](const char* id) {
                  long count = 0;
                  char** names = list(id, &count, true);
                  for (long i = 0; i < count; ++i) taken(names[i]);
                  delete[] names;
                }),
                IsEmpty());
  }
}

TEST_F(LockOrderTest, WhatConcernsNoResourceTakesNoLock) {
  EXPECT_THAT(stepsOf([](const char* id) {
                getRepositoryStatus_(id);
                getDeletedDirs_(id);
                giveBackMounts_(id);
                MountUnmount_(id, 0, true);
                taken(createToLegacy_(id, "2009"));
              }),
              IsEmpty());
  EXPECT_THAT(stepsOf([](const char* id) { rndMount_(id); }), IsEmpty());
}

// ------------------------------------------------------------------------------------------------ emptying

TEST_F(LockOrderTest, MakeEmptyLocksOneResourceAfterTheOther) {
  place(0, kAbc);
  place(1, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { makeEmpty_(id); }),
            kDirtySet + within("abc", kDirtySet) + within("2009", kDirtySet));
  EXPECT_FALSE(isThere(at(0, kAbc)));
  EXPECT_FALSE(isThere(at(1, k2009)));
}

TEST_F(LockOrderTest, FreeMountLocksEachResourceAloneAndNeverTheRepository) {
  place(0, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { EXPECT_EQ(freeMount_(id, "d1"), 0); }),
            kWalkOverOne + within("2009", {}) + kWalkOverNone);
  EXPECT_TRUE(isThere(at(1, k2009)));
}

TEST_F(LockOrderTest, FreeMountTakesTheResourcesOneAtATime) {
  place(0, k2009);
  place(0, kAbc);
  // Of one time, in descending order of their paths.
  EXPECT_EQ(stepsOf([](const char* id) { EXPECT_EQ(freeMount_(id, "d1"), 0); }),
            9 * kDirtySet + within("2009", {}) + within("abc", {}) + kWalkOverNone);
}

TEST_F(LockOrderTest, FreeMountMarksAConflictInsideTheLockOfTheResource) {
  placeFile(0, k2009);
  placeFile(1, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { EXPECT_EQ(freeMount_(id, "d1"), 3); }),
            kWalkOverOne + within("2009", kDirtySet) + kWalkOverOne);
}

TEST_F(LockOrderTest, FreeMountGivesTheLockBackWhenTheMarkCannotBeWritten) {
  placeFile(0, k2009);
  placeFile(1, k2009);
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  EXPECT_EQ(stepsOfThrowing<KTAssertionException>([](const char* id) { freeMount_(id, "d1"); }),
            kWalkOverOne + within("2009", kDirtySet));
}

TEST_F(LockOrderTest, FreeMountPassesAResourceThatIsLockedByAnother) {
  place(0, k2009);
  place(0, kAbc);
  getRepository(repository.id());
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  const FakeClock clock;
  const Steps steps = stepsOf([](const char* id) { freeMount_(id, "d1"); });
  EXPECT_EQ(Steps(steps.begin() + 18, steps.begin() + 20), within("abc", {}));
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "+2009"), 0);
  EXPECT_TRUE(isThere(at(0, k2009)));
  EXPECT_TRUE(isThere(at(1, kAbc)));
  locksToBeLeft = {"semaphore_" + repository.lockName("2009")};
}

// ----------------------------------------------------------------------------------------------- balancing

TEST_F(LockOrderTest, APassWithNothingToDoTakesTheRepositoryAlone) {
  place(0, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }), within("repository", {}));
}

TEST_F(LockOrderTest, APassOverAFullRepositoryGivesTheRepositoryBack) {
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 99);
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }), within("repository", {}));
}

TEST_F(LockOrderTest, APassMovesUnderTheLockOfTheResourceInsideThatOfTheRepository) {
  const std::string old = place(0, k2009);
  setUsed(0, [=] { return isThere(old) ? 99 : 10; });
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", kWalkOverOne + within("2009", {})));
  EXPECT_TRUE(isThere(at(1, k2009)));
}

TEST_F(LockOrderTest, APassMovesOneResourceAfterTheOther) {
  const std::string older = place(0, kAbc);
  const std::string newer = place(0, k2009);
  setTimes(newer, kLongAgo + 1);
  setUsed(0, [=] { return isThere(newer) ? 99 : 10; });
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", 9 * kDirtySet + within("abc", {}) + within("2009", {})));
  EXPECT_FALSE(isThere(older));
}

TEST_F(LockOrderTest, TheShellOfAMoveRunsInsideBothLocks) {
  const std::string old = place(0, k2009);
  setUsed(0, [=] { return isThere(old) ? 99 : 10; });
  std::vector<Steps> held;
  shell.answer = [&](const std::string& command) {
    held.push_back(repository.locksLeft());
    return FakeShell::runReal(command);
  };
  stepsOf([](const char* id) { checkOverload_(id, false); });
  EXPECT_THAT(held, testing::AllOf(testing::SizeIs(3), Each(ElementsAre("semaphore_" + repository.lockName(""),
                                                                        "semaphore_" + repository.lockName("2009")))));
}

// Measuring all disks can take long; nobody is to wait for a resource meanwhile.
TEST_F(LockOrderTest, NoDiskIsMeasuredUnderTheLockOfAResourceThatIsMovedOrDeleted) {
  std::set<std::string> held;
  const auto noteLocks = [&] {
    for (const std::string& lock : repository.locksLeft()) held.insert(lock);
  };
  const std::string resource = at(0, k2009);
  const auto used = [&, resource] {
    noteLocks();
    return isThere(resource) ? 99 : 10;
  };
  setUsed(0, used);
  const std::string repositoryLock = "semaphore_" + repository.lockName("");
  place(0, k2009);
  stepsOf([](const char* id) { checkOverload_(id, false); });
  EXPECT_THAT(held, ElementsAre(repositoryLock)) << "by a move";
  held.clear();
  place(0, k2009);
  stepsOf([](const char* id) { freeMount_(id, "d1"); });
  EXPECT_THAT(held, IsEmpty()) << "by emptying a mount";
  repository.configure("isClearable=true\n");
  std::filesystem::remove_all(at(1, k2009));
  disks.setUsed(repository.mount(1), 99);
  place(0, k2009);
  stepsOf([](const char* id) { checkOverload_(id, false); });
  EXPECT_FALSE(isThere(resource));
  EXPECT_THAT(held, ElementsAre(repositoryLock)) << "by a deletion";
}

TEST_F(LockOrderTest, APassMarksAConflictInsideTheLockOfTheResource) {
  placeFile(0, k2009);
  placeFile(1, k2009);
  setUsed(0, [=, this] { return marked() ? 10 : 99; });
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", kWalkOverOne + within("2009", kDirtySet)));
  EXPECT_TRUE(marked());
}

TEST_F(LockOrderTest, AResourceTouchedSinceItWasListedIsUnlockedUnmoved) {
  place(0, kAbc);
  const std::string newer = place(0, k2009);
  setTimes(newer, kLongAgo + 1);
  setUsed(0, [] { return 99; });
  shell.answer = [&](const std::string& command) {  // while the older one is moved
    utime(newer.c_str(), nullptr);
    return FakeShell::runReal(command);
  };
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", 9 * kDirtySet + within("abc", {}) + within("2009", {}) + kWalkOverOne));
  EXPECT_TRUE(isThere(newer));
}

TEST_F(LockOrderTest, APassDeletesUnderTheLockOfTheResourceInsideThatOfTheRepository) {
  repository.configure("isClearable=true\n");
  const std::string old = place(0, k2009);
  disks.setUsed(repository.mount(1), 98);
  setUsed(0, [=] { return isThere(old) ? 99 : 10; });
  // The walk over the other, empty mount is part of finding the oldest of all.
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", kWalkOverOne + kWalkOverNone + within("2009", {})));
  EXPECT_THAT(*getDeletedDirs_(repository.id()), ElementsAre(old));
}

TEST_F(LockOrderTest, ADeletionThatFailsIsMarkedInsideTheLockOfTheResource) {
  repository.configure("isClearable=true\n");
  placeFile(0, k2009);
  disks.setUsed(repository.mount(1), 98);
  setUsed(0, [=, this] { return marked() ? 10 : 99; });
  const FailingCall remove("remove", EBUSY, k2009);
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", kWalkOverOne + kWalkOverNone + within("2009", kDirtySet)));
}

TEST_F(LockOrderTest, AWalkJoinsADirtyResourceUnderItsLockInsideThatOfTheRepository) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  repository.writeDirtySet("2009\n");
  setUsed(0, [=, this] { return marked() ? 99 : 10; });
  EXPECT_EQ(stepsOf([](const char* id) { checkOverload_(id, false); }),
            within("repository", 4 * kDirtySet + within("2009", 2 * kDirtySet) + kDirtySet));
  EXPECT_FALSE(isThere(at(0, k2009)));
  EXPECT_FALSE(marked());
}

TEST_F(LockOrderTest, APassWithoutTheRepositoryTakesNothing) {
  const std::string old = place(0, k2009);
  setUsed(0, [=] { return isThere(old) ? 99 : 10; });
  writeFile(repository.lockFile(repository.lockName("")), "");
  const FakeClock clock;
  EXPECT_THAT(stepsOf([](const char* id) { checkOverload_(id, false); }), IsEmpty());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("The repository \"" + repository.path() + "\" could not be locked."));
  locksToBeLeft = {"semaphore_" + repository.lockName("")};
}

TEST_F(LockOrderTest, TheRepositoryStaysUsableDuringAPassOfAnother) {
  place(0, k2009);
  writeFile(repository.lockFile(repository.lockName("")), "");
  const FakeClock clock;
  EXPECT_EQ(stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }), within("2009", kDirtySet));
  EXPECT_THAT(clock.pauses, IsEmpty());
  locksToBeLeft = {"semaphore_" + repository.lockName("")};
}

// ------------------------------------------------------------------------------------- exceptions on the way

TEST_F(LockOrderTest, AnAssertionInsideGivesTheLockOfTheResourceBack) {
  EXPECT_EQ(
      stepsOfThrowing<KTAssertionException>([](const char* id) { taken(createLocation_(id, "a/b", nullptr, false)); }),
      within("a_b", kDirtySet));
}

TEST_F(LockOrderTest, AMarkThatCannotBeWrittenGivesBothLocksBackInnermostFirst) {
  repository.takeOut(0);
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  EXPECT_EQ(allStepsOf([](const char* id) {
              EXPECT_THROW(taken(createDirectory_(id, "2009", nullptr, false)), KTAssertionException);
            }),
            kDirtySet + within("2009", 2 * kDirtySet));
}

TEST_F(LockOrderTest, AMarkThatCannotBeClearedGivesBothLocksBackInnermostFirst) {
  place(0, k2009);
  repository.writeDirtySet("2009\n");
  getRepository(repository.id());
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  for (const auto operation : {+[](const char* id) { taken(getLocation_(id, "2009", nullptr)); },
                               +[](const char* id) { taken(createDirectory_(id, "2009", nullptr, false)); },
                               +[](const char* id) { checkResourceStatus_(id, "2009"); }}) {
    getRepository(repository.id())->dirtyFlagHandler.dirtySet = {"2009"};
    EXPECT_EQ(stepsOfThrowing<KTAssertionException>(operation), within("2009", 2 * kDirtySet));
  }
  getRepository(repository.id())->dirtyFlagHandler.dirtySet = {"2009"};
  EXPECT_EQ(stepsOfThrowing<KTAssertionException>([](const char* id) { removeResource_(id, "2009"); }),
            within("2009", 3 * kDirtySet));
  EXPECT_TRUE(isThere(at(0, k2009)));
}

TEST_F(LockOrderTest, MakeEmptyGivesTheDirtySetBackWhenItCannotBeWritten) {
  place(0, k2009);
  getRepository(repository.id());
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  EXPECT_EQ(stepsOfThrowing<KTAssertionException>([](const char* id) { makeEmpty_(id); }), kDirtySet);
  EXPECT_TRUE(isThere(at(0, k2009)));
}

TEST_F(LockOrderTest, AnExceptionInAMoveGivesResourceAndRepositoryBackInnermostFirst) {
  placeFile(0, k2009);
  placeFile(1, k2009);
  setUsed(0, [] { return 99; });
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  EXPECT_EQ(stepsOfThrowing<KTAssertionException>([](const char* id) { checkOverload_(id, false); }),
            within("repository", kWalkOverOne + within("2009", kDirtySet)));
}

TEST_F(LockOrderTest, AnExceptionInADeletionGivesResourceAndRepositoryBackInnermostFirst) {
  repository.configure("isClearable=true\n");
  placeFile(0, k2009);
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 99);
  getRepository(repository.id());
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  const FailingCall remove("remove", EBUSY, k2009);
  EXPECT_EQ(stepsOfThrowing<KTAssertionException>([](const char* id) { checkOverload_(id, false); }),
            within("repository", kWalkOverOne + kWalkOverNone + within("2009", kDirtySet)));
}

TEST_F(LockOrderTest, AnExceptionInAWalkGivesResourceAndRepositoryBackInnermostFirst) {
  place(0, k2009, "first");
  place(1, k2009, "second");
  repository.writeDirtySet("2009\n");
  disks.setUsed(repository.mount(0), 99);
  getRepository(repository.id());
  const FailingCall fopen("fopen", EROFS, "/.dirty");
  EXPECT_EQ(stepsOfThrowing<KTAssertionException>([](const char* id) { checkOverload_(id, false); }),
            within("repository", 4 * kDirtySet + within("2009", 2 * kDirtySet)));
}

TEST_F(LockOrderTest, ADirtySetThatCannotBeUnlockedGivesTheResourceBack) {
  place(0, k2009);
  getRepository(repository.id());
  const FailingCall unlink("unlink", EACCES, repository.dirtyLockName());
  EXPECT_EQ(stepsOfThrowing<KTIOException>([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }),
            (Steps{"+2009", "+dirty set", "-2009"}));
  locksToBeLeft = {"semaphore_" + repository.dirtyLockName()};
}

TEST_F(LockOrderTest, AResourceThatCannotBeUnlockedGivesTheRepositoryBack) {
  const std::string old = place(0, k2009);
  setUsed(0, [=] { return isThere(old) ? 99 : 10; });
  const FailingCall unlink("unlink", EACCES, repository.lockName("2009"));
  EXPECT_EQ(stepsOfThrowing<KTIOException>([](const char* id) { checkOverload_(id, false); }),
            Steps{"+repository"} + kWalkOverOne + (Steps{"+2009", "-repository"}));
  locksToBeLeft = {"semaphore_" + repository.lockName("2009")};
}

TEST_F(LockOrderTest, TheFirstOfSeveralLocksThatCannotBeGivenBackIsReported) {
  place(0, k2009);
  getRepository(repository.id());
  const FailingCall unlink("unlink", EACCES, "semaphore_");
  const auto failure = thrownBy<KTIOException>([&] { taken(getLocation_(repository.id(), "2009", nullptr)); });
  EXPECT_EQ(failure.m_message, "Releasing semaphore failed: " + repository.dirtyLockName() + " [Permission denied]");
  EXPECT_EQ(unlink.failed(), 2);
  locksToBeLeft = {"semaphore_" + repository.lockName("2009"), "semaphore_" + repository.dirtyLockName()};
}

// -------------------------------------------------------------------------------------- locks not to be had

TEST_F(LockOrderTest, AResourceThatIsNotLockedLeavesTheDirtySetAlone) {
  place(0, k2009);
  getRepository(repository.id());
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  for (const auto operation : {+[](const char* id) { taken(getLocation_(id, "2009", nullptr)); },
                               +[](const char* id) { taken(createLocation_(id, "2009", nullptr, false)); },
                               +[](const char* id) { taken(createDirectory_(id, "2009", nullptr, false)); },
                               +[](const char* id) { removeResource_(id, "2009"); },
                               +[](const char* id) { checkResourceStatus_(id, "2009"); }}) {
    const FakeClock clock;
    EXPECT_THAT(stepsOf(operation), IsEmpty());
  }
  locksToBeLeft = {"semaphore_" + repository.lockName("2009")};
}

TEST_F(LockOrderTest, ADirtySetHeldByAnotherIsWaitedForInsideTheLockOfTheResource) {
  place(0, k2009);
  getRepository(repository.id());
  writeFile(repository.lockFile(repository.dirtyLockName()), "");
  FakeClock clock;
  std::vector<Steps> held;
  clock.onSleep = [&] {
    if (clock.pauses.size() == 1) held.push_back(repository.locksLeft());
  };
  EXPECT_EQ(stepsOf([](const char* id) { taken(getLocation_(id, "2009", nullptr)); }), within("2009", {}));
  EXPECT_THAT(held, ElementsAre(ElementsAre("semaphore_" + repository.lockName("2009"),
                                            "semaphore_" + repository.dirtyLockName())));
  locksToBeLeft = {"semaphore_" + repository.dirtyLockName()};
}

// ------------------------------------------------------------------------------------------ everything at once

int rankOf(const std::string& lock) { return lock == "repository" ? 0 : lock == "dirty set" ? 2 : 1; }

// Whether each lock is given back before the one around it, and none is taken inside one of its own rank or a later.
void expectNested(const Steps& steps) {
  Steps held;
  for (const std::string& step : steps) {
    const std::string lock = step.substr(1);
    if (step[0] == '+') {
      EXPECT_TRUE(held.empty() || rankOf(held.back()) < rankOf(lock)) << lock << " inside " << held.back();
      held.push_back(lock);
    } else {
      ASSERT_FALSE(held.empty()) << step;
      EXPECT_EQ(held.back(), lock);
      held.pop_back();
    }
  }
  EXPECT_THAT(held, IsEmpty());
}

TEST_F(LockOrderTest, ALongPassWithMovesConflictsAndJoinsKeepsTheOrder) {
  for (int i = 0; i < 20; ++i) {
    repository.place(0, "move" + std::to_string(i), "content", kLongAgo + i);
    repository.place(1, "keep" + std::to_string(i), "content", kLongAgo + i);
  }
  std::string marks;
  for (int i = 0; i < 5; ++i) {
    const std::string name = std::to_string(i);
    repository.placeFile(0, "conflict" + name, "first", kLongAgo + i);
    repository.placeFile(1, "conflict" + name, "second", kLongAgo + i);
    writeFile(repository.place(0, "join" + name) + "/first", "");
    writeFile(repository.resourcePath(1, "join" + name) + "/second", "");
    marks += "join" + name + "\n";
  }
  repository.writeDirtySet(marks);
  disks.setUsed(repository.mount(0), 99);
  const Steps steps = stepsOf([](const char* id) { checkOverload_(id, false); });
  expectNested(steps);
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "+repository"), 1);
  EXPECT_EQ(steps.front(), "+repository");
  EXPECT_EQ(steps.back(), "-repository");
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(isThere(repository.resourcePath(1, "move" + std::to_string(i))));
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(isThere(repository.resourcePath(0, "conflict" + std::to_string(i))));
    EXPECT_TRUE(isThere(repository.resourcePath(1, "join" + std::to_string(i)) + "/first"));
  }
}

TEST_F(LockOrderTest, WhereverALockCannotBeMadeTheOthersGoBack) {
  const auto operations = {+[](const char* id) { taken(createDirectory_(id, "2009", nullptr, false)); },
                           +[](const char* id) { taken(getLocation_(id, "2009", nullptr)); },
                           +[](const char* id) { freeMount_(id, "d1"); },
                           +[](const char* id) { removeResource_(id, "2009"); },
                           +[](const char* id) { checkOverload_(id, false); },
                           +[](const char* id) { makeEmpty_(id); }};
  for (const auto operation : operations) {
    for (int skip = 0;; ++skip) {
      place(0, k2009);
      repository.writeDirtySet("2009\n");
      const FailingCall open("open", EMFILE, "semaphore_", skip, 1);
      const Steps steps = allStepsOf([&](const char* id) {
        setup_(id);
        operation(id);
      });
      expectNested(steps);
      EXPECT_THAT(repository.locksLeft(), IsEmpty()) << "failure " << skip;
      if (open.failed() == 0) break;
    }
  }
}

}  // namespace
