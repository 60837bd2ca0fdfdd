// The natives of the Java class, on a machine that is the test's own: what each asks of the machine, in which order,
// what it answers, and what it leaves behind when the library or the machine fails. What the entries do is real.

#include <corvanta_util_RepositoryHandler.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <syslog.h>

#include <algorithm>
#include <functional>
#include <new>
#include <string_view>
#include <type_traits>

#include "entrypoints.h"
#include "fakes/javamachine.h"
#include "registry.h"
#include "support/fixture.h"
#include "support/hostileids.h"
#include "support/results.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kNoMemory[] = "java/lang/OutOfMemoryError";
constexpr char kNoField[] = "java/lang/NoSuchFieldError";
constexpr char kBadIndex[] = "java/lang/ArrayIndexOutOfBoundsException";
constexpr char kOfTheUser[] = "java/lang/RuntimeException";

// Every value but 0 is true.
constexpr jboolean kTruths[] = {1, 2, 128, 255};

constexpr auto& setTimePropertiesNative = Java_corvanta_util_RepositoryHandler_setTimePropertiesNative;
constexpr auto& getTimePropertiesNative = Java_corvanta_util_RepositoryHandler_getTimePropertiesNative;
constexpr auto& listDirsNative = Java_corvanta_util_RepositoryHandler_listDirsNative;
constexpr auto& listFilesNative = Java_corvanta_util_RepositoryHandler_listFilesNative;
constexpr auto& removeResourceNative = Java_corvanta_util_RepositoryHandler_removeResourceNative;
constexpr auto& checkResourceStatusNative = Java_corvanta_util_RepositoryHandler_checkResourceStatusNative;
constexpr auto& getRepositoryStatusNative = Java_corvanta_util_RepositoryHandler_getRepositoryStatusNative;
constexpr auto& getLocationNative = Java_corvanta_util_RepositoryHandler_getLocationNative;
constexpr auto& createLocationNative = Java_corvanta_util_RepositoryHandler_createLocationNative;
constexpr auto& createDirectoryNative = Java_corvanta_util_RepositoryHandler_createDirectoryNative;

using Create = jstring(JNIEnv*, jobject, jstring, jstring, jboolean);

// A native with arguments that any repository can take.
struct Native {
  const char* operation;  // as the message about an exception names it
  bool takesResource;
  const char* failure;  // what it answers then
  std::function<std::string(FakeJavaMachine&, jstring repository, jstring resource)> call;
};

const Native kNatives[] = {
    {"setTimeProperties_", true, "void",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       m.call(setTimePropertiesNative, repository, resource, m.ints({1234567, 7654321}));
       return "void";
     }},
    {"getTimeProperties_", true, "null",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       return m.shown(m.call(getTimePropertiesNative, repository, resource));
     }},
    {"listDirs_", false, "null",
     [](FakeJavaMachine& m, jstring repository, jstring) {
       return m.shown(m.call(listDirsNative, repository, JNI_TRUE));
     }},
    {"listFiles_", false, "null",
     [](FakeJavaMachine& m, jstring repository, jstring) {
       return m.shown(m.call(listFilesNative, repository, JNI_TRUE));
     }},
    {"removeResource_", true, "-1",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       return std::to_string(m.call(removeResourceNative, repository, resource));
     }},
    {"checkResourceStatus_", true, "-1",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       return std::to_string(m.call(checkResourceStatusNative, repository, resource));
     }},
    // not the name of its entry
    {"checkRepositoryStatus_", false, "-1",
     [](FakeJavaMachine& m, jstring repository, jstring) {
       return std::to_string(m.call(getRepositoryStatusNative, repository));
     }},
    {"getLocation_", true, "null",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       return m.shown(m.call(getLocationNative, repository, resource));
     }},
    {"createLocation_", true, "null",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       return m.shown(m.call(createLocationNative, repository, resource, JNI_FALSE));
     }},
    {"createDirectory_", true, "null",
     [](FakeJavaMachine& m, jstring repository, jstring resource) {
       return m.shown(m.call(createDirectoryNative, repository, resource, JNI_FALSE));
     }},
};

bool answersAPath(const Native& native) {
  const std::string_view operation = native.operation;
  return operation.ends_with("Location_") || operation == "createDirectory_";
}

std::string caught(const Native& native, const std::string& repository, const std::string& resource) {
  const std::string strings = native.takesResource ? repository + ", " + resource : repository;
  return std::string("An exception was caught in ") + native.operation + "(" + strings + ")";
}

// While positive: that many allocations by the library's own code until one finds no memory.
int allocationsUntilFailure = 0;

bool isOfTheLibrary(const void* caller) {
  Dl_info place;
  return dladdr(caller, &place) != 0 &&
         std::string_view(place.dli_fname).find("KTRepositoryHandler") != std::string::npos;
}

void failIfMeant(const void* caller) {
  if (allocationsUntilFailure > 0 && isOfTheLibrary(caller) && --allocationsUntilFailure == 0) throw std::bad_alloc();
}

// The names of the real ones.
constexpr bool kSizeIsLong = std::is_same_v<size_t, unsigned long>;
constexpr const char* kNew = kSizeIsLong ? "_Znwm" : "_Znwj";
constexpr const char* kNewArray = kSizeIsLong ? "_Znam" : "_Znaj";

}  // namespace

// The library allocates through these: it finds them in the executable.
void* operator new(size_t size) {
  failIfMeant(__builtin_return_address(0));
  static const auto real = realFunction<void* (*)(size_t)>(kNew);
  return real(size);
}

void* operator new[](size_t size) {
  failIfMeant(__builtin_return_address(0));
  static const auto real = realFunction<void* (*)(size_t)>(kNewArray);
  return real(size);
}

namespace {

class JniBindingTest : public RepositoryFixture {
 protected:
  JniBindingTest() : RepositoryFixture({"d1", "d2"}) {}

  jstring root() { return machine.string(repository.path()); }
  jstring the2009() { return machine.string("2009"); }

  // Calls to expect.
  std::string converted() const { return "GetStringUTFChars " + repository.path(); }
  std::string released() const { return "ReleaseStringUTFChars " + repository.path(); }

  // A listed mount that does not exist: every operation throws.
  void breakRepository() { repository.configure("mountPoints=d1\\nowhere\n"); }
  // Its directories come first to last as "b", "a", its files as "d", "c".
  void placeFour() const {
    repository.place(0, "b");
    repository.place(1, "a");
    repository.placeFile(0, "d", "content");
    repository.placeFile(1, "c", "content");
  }
  bool wasLookedUp() const { return repositoryMap.count(repository.path()) > 0; }

  FakeJavaMachine machine{kUntouched};
};

// ------------------------------------------------------------------------------------------------- times

TEST_F(JniBindingTest, SetTimePropertiesSetsTheAccessTimeFirstAndTheModificationTimeSecond) {
  place(1, k2009);
  machine.call(setTimePropertiesNative, root(), the2009(), machine.ints({1234567, 7654321}));
  EXPECT_EQ(accessTime(at(1, k2009)), 1234567);
  EXPECT_EQ(modificationTime(at(1, k2009)), 7654321);
  EXPECT_THAT(machine.calls(), ElementsAre(converted(), "GetStringUTFChars 2009", "GetIntArrayRegion 0 2",
                                           "ReleaseStringUTFChars 2009", released()));
}

TEST_F(JniBindingTest, SetTimePropertiesTakesTheFirstTwoOfMoreTimes) {
  place(1, k2009);
  machine.call(setTimePropertiesNative, root(), the2009(), machine.ints({1234567, 7654321, 3}));
  EXPECT_EQ(accessTime(at(1, k2009)), 1234567);
  EXPECT_EQ(modificationTime(at(1, k2009)), 7654321);
}

TEST_F(JniBindingTest, TimesBefore1970GoBothWays) {
  place(1, k2009);
  machine.call(setTimePropertiesNative, root(), the2009(), machine.ints({-1, -86400}));
  EXPECT_EQ(accessTime(at(1, k2009)), -1);
  EXPECT_EQ(modificationTime(at(1, k2009)), -86400);
  EXPECT_EQ(machine.shown(machine.call(getTimePropertiesNative, root(), the2009())), "[-1, -86400]");
}

TEST_F(JniBindingTest, SetTimePropertiesWithoutTimesSetsBothToNow) {
  place(1, k2009);
  machine.call(setTimePropertiesNative, root(), the2009(), nullptr);
  EXPECT_GT(accessTime(at(1, k2009)), kLongAgo);
  EXPECT_EQ(accessTime(at(1, k2009)), modificationTime(at(1, k2009)));
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "GetStringUTFChars 2009", "ReleaseStringUTFChars 2009", released()));
}

TEST_F(JniBindingTest, SetTimePropertiesSetsNothingWhenThereAreFewerThanTwoTimes) {
  place(1, k2009);
  for (const std::vector<jint>& times : {std::vector<jint>{}, std::vector<jint>{1234567}}) {
    FakeJavaMachine another(kUntouched);
    another.call(setTimePropertiesNative, another.string(repository.path()), another.string("2009"),
                 another.ints(times));
    EXPECT_EQ(another.pending(), kBadIndex);
  }
  EXPECT_EQ(accessTime(at(1, k2009)), kLongAgo);
  EXPECT_EQ(modificationTime(at(1, k2009)), kLongAgo);
  EXPECT_FALSE(wasLookedUp());
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(JniBindingTest, SetTimePropertiesOfAResourceThatIsNowhereIsSilent) {
  machine.call(setTimePropertiesNative, root(), the2009(), machine.ints({1, 2}));
  EXPECT_EQ(machine.pending(), "");
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(JniBindingTest, GetTimePropertiesReleasesTheStringsBeforeItMakesTheArray) {
  place(1, k2009);
  setTimes(at(1, k2009), 7654321, 1234567);
  EXPECT_EQ(machine.shown(machine.call(getTimePropertiesNative, root(), the2009())), "[7654321, 1234567]");
  EXPECT_THAT(machine.calls(), ElementsAre(converted(), "GetStringUTFChars 2009", "ReleaseStringUTFChars 2009",
                                           released(), "NewIntArray 2", "SetIntArrayRegion 0 2"));
}

TEST_F(JniBindingTest, GetTimePropertiesOfAResourceThatIsNowhereMakesNoArray) {
  EXPECT_EQ(machine.call(getTimePropertiesNative, root(), the2009()), nullptr);
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "GetStringUTFChars 2009", "ReleaseStringUTFChars 2009", released()));
}

// ------------------------------------------------------------------------------------------------- lists

TEST_F(JniBindingTest, ListDirsListsDirectoriesAndListFilesTheRest) {
  placeFour();
  EXPECT_EQ(machine.shown(machine.call(listDirsNative, root(), JNI_TRUE)), "[a, b]");
  EXPECT_EQ(machine.shown(machine.call(listFilesNative, root(), JNI_TRUE)), "[c, d]");
}

TEST_F(JniBindingTest, ListsAreSortedForEveryTruth) {
  placeFour();
  EXPECT_EQ(machine.shown(machine.call(listDirsNative, root(), JNI_FALSE)), "[b, a]");
  EXPECT_EQ(machine.shown(machine.call(listFilesNative, root(), JNI_FALSE)), "[d, c]");
  for (const jboolean sort : kTruths) {
    EXPECT_EQ(machine.shown(machine.call(listDirsNative, root(), sort)), "[a, b]") << int{sort};
    EXPECT_EQ(machine.shown(machine.call(listFilesNative, root(), sort)), "[c, d]") << int{sort};
  }
}

TEST_F(JniBindingTest, AListBecomesAnArrayOfEmptyStringsThatIsFilledFromTheStart) {
  placeFour();
  machine.call(listDirsNative, root(), JNI_FALSE);
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "FindClass java/lang/String", "NewStringUTF ", "NewObjectArray 2 \"\"",
                          "NewStringUTF b", "SetObjectArrayElement 0 b", "DeleteLocalRef b", "NewStringUTF a",
                          "SetObjectArrayElement 1 a", "DeleteLocalRef a", released()));
}

TEST_F(JniBindingTest, AnEmptyListIsAnEmptyArray) {
  EXPECT_EQ(machine.shown(machine.call(listDirsNative, root(), JNI_TRUE)), "[]");
  EXPECT_EQ(machine.shown(machine.call(listFilesNative, root(), JNI_TRUE)), "[]");
  EXPECT_THAT(machine.calls(), Contains("NewObjectArray 0 \"\"").Times(2));
}

// The machine fails the test when there are too many.
TEST_F(JniBindingTest, ALongListNeedsFewLocalReferences) {
  std::string wanted;
  for (int i = 100; i < 140; ++i) {
    repository.place(0, std::to_string(i));
    wanted += (wanted.empty() ? "" : ", ") + std::to_string(i);
  }
  EXPECT_EQ(machine.shown(machine.call(listDirsNative, root(), JNI_TRUE)), "[" + wanted + "]");
}

// -------------------------------------------------------------------------------------------------- codes

TEST_F(JniBindingTest, RemoveResourceRemovesAndAnswersTheCodeOfTheEntry) {
  place(1, k2009);
  EXPECT_EQ(machine.call(removeResourceNative, root(), the2009()), 0);
  EXPECT_FALSE(isThere(at(1, k2009)));
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "GetStringUTFChars 2009", "ReleaseStringUTFChars 2009", released()));
  EXPECT_EQ(machine.call(removeResourceNative, root(), the2009()), 4);
}

TEST_F(JniBindingTest, CheckResourceStatusAnswersTheCodeOfTheEntryAndLeavesTheTimes) {
  place(1, k2009);
  EXPECT_EQ(machine.call(checkResourceStatusNative, root(), the2009()), 0);
  EXPECT_EQ(accessTime(at(1, k2009)), kLongAgo);
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "GetStringUTFChars 2009", "ReleaseStringUTFChars 2009", released()));
  EXPECT_EQ(machine.call(checkResourceStatusNative, root(), machine.string("abc")), 4);
  repository.writeDirtySet("2009\n");
  repository.takeOut(0);
  EXPECT_EQ(machine.call(checkResourceStatusNative, root(), the2009()), 1);
}

TEST_F(JniBindingTest, GetRepositoryStatusAnswersTheBitsOfTheEntry) {
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 95);
  EXPECT_EQ(machine.call(getRepositoryStatusNative, root()), 0x0f);
  EXPECT_THAT(machine.calls(), ElementsAre(converted(), released()));
  EXPECT_EQ(giveBackMounts_(repository.id()), 0x1f) << "the bit that the native never has";
  repository.takeOut(0);
  repository.takeOut(1);
  EXPECT_EQ(machine.call(getRepositoryStatusNative, root()), 0x100);
}

// -------------------------------------------------------------------------------------------------- places

TEST_F(JniBindingTest, GetLocationAnswersThePathAndWritesTheStatusBeforeItReleasesTheStrings) {
  place(1, k2009);
  EXPECT_EQ(machine.shown(machine.call(getLocationNative, root(), the2009())), at(1, k2009));
  EXPECT_EQ(machine.status(), 0);
  EXPECT_GT(accessTime(at(1, k2009)), kLongAgo) << "it is in use";
  EXPECT_THAT(machine.calls(), ElementsAre(converted(), "GetStringUTFChars 2009", "NewStringUTF " + at(1, k2009),
                                           "GetObjectClass corvanta/util/RepositoryHandler", "GetFieldID status I",
                                           "SetIntField 0", "ReleaseStringUTFChars 2009", released()));
}

// What the entry answers, as the machine shows it; "null" as well for what it throws.
std::string answerOf(const std::function<Text()>& entry) {
  try {
    return entry().value_or("null");
  } catch (const KTException&) {
    return "null";
  }
}

// Where the native that took other bytes would leave, or find, something else.
TEST_F(JniBindingTest, EveryByteOfAnIdGoesThroughToTheEntryAndComesBack) {
  const char* repositoryId = repository.id();
  for (const auto& [name, text] : kHostileIds) {
    SCOPED_TRACE(name);
    const char* id = text.c_str();
    const jstring resource = machine.string(text);
    int status = kUntouched;
    const std::string place = answerOf([&] { return taken(createLocation_(repositoryId, id, &status, false)); });
    EXPECT_EQ(machine.shown(machine.call(createLocationNative, root(), resource, JNI_FALSE)), place);
    EXPECT_EQ(machine.shown(machine.call(createDirectoryNative, root(), resource, JNI_FALSE)), place);
    const std::string found = answerOf([&] { return taken(getLocation_(repositoryId, id, &status)); });
    EXPECT_EQ(machine.shown(machine.call(getLocationNative, root(), resource)), found);
    EXPECT_EQ(machine.call(checkResourceStatusNative, root(), resource), checkResourceStatus_(repositoryId, id));
    utimbuf times = {};
    machine.call(setTimePropertiesNative, root(), resource, machine.ints({1234567, 7654321}));
    const bool hasTimes = getTimeProperties_(repositoryId, id, &times) == 1;
    EXPECT_EQ(hasTimes, times.actime == 1234567 && times.modtime == 7654321);
    long count = 0;
    char** listed = listDirs_(repositoryId, &count, true);
    const std::vector<std::string> names = taken(listed, count);
    EXPECT_EQ(machine.shown(machine.call(listDirsNative, root(), JNI_TRUE)),
              names.empty() ? "[]" : "[" + names.front() + "]");
    const bool wasThere = checkResourceStatus_(repositoryId, id) == 0;
    const jint removed = machine.call(removeResourceNative, root(), resource);
    EXPECT_EQ(removed == 0, wasThere && !names.empty());
    EXPECT_THAT(machine.calls(), Contains("GetStringUTFChars " + text));
  }
}

TEST_F(JniBindingTest, GetLocationOfAResourceThatIsNowhereMakesNoStringAndWritesTheCode) {
  EXPECT_EQ(machine.call(getLocationNative, root(), the2009()), nullptr);
  EXPECT_EQ(machine.status(), 4);
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "GetStringUTFChars 2009", "GetObjectClass corvanta/util/RepositoryHandler",
                          "GetFieldID status I", "SetIntField 4", "ReleaseStringUTFChars 2009", released()));
}

TEST_F(JniBindingTest, GetLocationWritesACodeBesideAPathToo) {
  place(1, k2009);
  repository.writeDirtySet("2009\n");
  repository.takeOut(0);
  EXPECT_EQ(machine.shown(machine.call(getLocationNative, root(), the2009())), at(1, k2009));
  EXPECT_EQ(machine.status(), 1);
}

TEST_F(JniBindingTest, GetLocationWritesTheCodeOfAConflict) {
  writeFile(at(0, k2009), "first");
  place(1, k2009);
  repository.writeDirtySet("2009\n");
  EXPECT_EQ(machine.call(getLocationNative, root(), the2009()), nullptr);
  EXPECT_EQ(machine.status(), 2);
}

TEST_F(JniBindingTest, TheStatusIsWrittenAsZeroWhenTheOperationLeavesItAlone) {
  place(0, k2009);
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  FakeClock clock;
  const std::function<jstring(jstring, jstring)> natives[] = {
      [&](jstring r, jstring id) { return machine.call(getLocationNative, r, id); },
      [&](jstring r, jstring id) { return machine.call(createLocationNative, r, id, JNI_FALSE); },
      [&](jstring r, jstring id) { return machine.call(createDirectoryNative, r, id, JNI_FALSE); },
  };
  for (const auto& native : natives) {
    EXPECT_EQ(native(root(), the2009()), nullptr);
    EXPECT_EQ(machine.calls()[machine.calls().size() - 3], "SetIntField 0");
  }
  EXPECT_EQ(machine.status(), 0);
}

TEST_F(JniBindingTest, CreateLocationAnswersAPlaceThatIsNotMade) {
  EXPECT_EQ(machine.shown(machine.call(createLocationNative, root(), the2009(), JNI_FALSE)), at(0, k2009));
  EXPECT_EQ(machine.status(), 0);
  EXPECT_TRUE(isDirectoryThere(repository.mount(0) + "/FP/IA/L3"));
  EXPECT_FALSE(isThere(at(0, k2009)));
}

TEST_F(JniBindingTest, CreateDirectoryMakesThePlace) {
  EXPECT_EQ(machine.shown(machine.call(createDirectoryNative, root(), the2009(), JNI_FALSE)), at(0, k2009));
  EXPECT_EQ(machine.status(), 0);
  EXPECT_TRUE(isDirectoryThere(at(0, k2009)));
}

TEST_F(JniBindingTest, CreationTakesTheStepsOfGetLocation) {
  for (Create* const create : {&createLocationNative, &createDirectoryNative}) {
    FakeJavaMachine another(kUntouched);
    another.call(create, another.string(repository.path()), another.string("2009"), JNI_FALSE);
    EXPECT_THAT(another.calls(), ElementsAre(converted(), "GetStringUTFChars 2009", "NewStringUTF " + at(0, k2009),
                                             "GetObjectClass corvanta/util/RepositoryHandler", "GetFieldID status I",
                                             "SetIntField 0", "ReleaseStringUTFChars 2009", released()));
  }
}

TEST_F(JniBindingTest, CreationWritesTheCodeWhenNoMountCanTakeTheResource) {
  for (size_t i = 0; i < 2; ++i) disks.setUsed(repository.mount(i), 99);
  for (Create* const create : {&createLocationNative, &createDirectoryNative}) {
    FakeJavaMachine another(kUntouched);
    EXPECT_EQ(another.call(create, another.string(repository.path()), another.string("2009"), JNI_FALSE), nullptr);
    EXPECT_EQ(another.status(), 8);
  }
}

TEST_F(JniBindingTest, CreationMarksNothingDirtyForEveryTruth) {
  repository.takeOut(1);
  for (Create* const create : {&createLocationNative, &createDirectoryNative}) {
    repository.writeDirtySet("");
    for (const jboolean noDirtyMark : kTruths) {
      const std::string id = "new" + std::to_string(noDirtyMark);
      machine.call(create, root(), machine.string(id), noDirtyMark);
      EXPECT_EQ(repository.dirtySet(), "") << int{noDirtyMark};
    }
    machine.call(create, root(), machine.string("marked"), JNI_FALSE);
    EXPECT_EQ(repository.dirtySet(), "marked\n");
    removeResource_(repository.id(), "marked");
  }
}

// ------------------------------------------------------------------------------------------------- status

TEST_F(JniBindingTest, AnErrorLeftByTheFieldIsLoggedAndCleared) {
  place(1, k2009);
  machine.failAt("SetIntField", 0, kOfTheUser);
  EXPECT_EQ(machine.shown(machine.call(getLocationNative, root(), the2009())), at(1, k2009));
  EXPECT_EQ(machine.failed(), "SetIntField");
  EXPECT_EQ(machine.pending(), "");
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("JNI error: cound not set status"));
  EXPECT_THAT(machine.calls(), ElementsAre(converted(), "GetStringUTFChars 2009", "NewStringUTF " + at(1, k2009),
                                           "GetObjectClass corvanta/util/RepositoryHandler", "GetFieldID status I",
                                           "SetIntField 0", "log JNI error: cound not set status", "ExceptionClear",
                                           "ReleaseStringUTFChars 2009", released()));
}

TEST_F(JniBindingTest, AClassWithoutTheFieldGetsTheResultAndTheMachinesError) {
  place(1, k2009);
  for (const Native& native : kNatives) {
    if (!answersAPath(native)) continue;
    FakeJavaMachine another(std::nullopt);
    EXPECT_EQ(native.call(another, another.string(repository.path()), another.string("2009")), at(1, k2009));
    EXPECT_EQ(another.pending(), kNoField) << native.operation;
    EXPECT_THAT(another.calls(), Not(Contains(StartsWith("SetIntField")))) << native.operation;
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(JniBindingTest, OnlyTheNativesThatAnswerAPathTouchTheStatus) {
  place(1, k2009);
  for (const Native& native : kNatives) {
    FakeJavaMachine another(kUntouched);
    native.call(another, another.string(repository.path()), another.string("2009"));
    EXPECT_EQ(another.status() != kUntouched, answersAPath(native)) << native.operation;
  }
}

// ------------------------------------------------------------------------------------------------ strings

TEST_F(JniBindingTest, AllConversionsShareOneFlagThatIsFalseAtFirst) {
  for (const Native& native : kNatives) {
    FakeJavaMachine another(kUntouched);
    native.call(another, another.string(repository.path()), another.string("2009"));
    ASSERT_THAT(another.copyFlags, SizeIs(native.takesResource ? 2 : 1)) << native.operation;
    EXPECT_EQ(another.copyFlags.front().before, JNI_FALSE) << native.operation;
    EXPECT_EQ(another.copyFlags.back().flag, another.copyFlags.front().flag) << native.operation;
  }
}

TEST_F(JniBindingTest, NullStringsFailInTheEntryAndAreNeverGivenToTheMachine) {
  for (const Native& native : kNatives) {
    const bool takes = native.takesResource;
    FakeJavaMachine another(kUntouched);
    EXPECT_EQ(native.call(another, nullptr, another.string("2009")), native.failure);
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(caught(native, "(null)", "2009")));
    EXPECT_THAT(another.calls(), Contains(StartsWith("ReleaseStringUTFChars")).Times(takes ? 1 : 0));
    log.lines.clear();
    EXPECT_EQ(native.call(another, nullptr, nullptr), native.failure);
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(caught(native, "(null)", "(null)")));
    log.lines.clear();
    if (takes) {
      EXPECT_EQ(native.call(another, another.string(repository.path()), nullptr), native.failure);
      EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(caught(native, repository.path(), "(null)")));
    }
    EXPECT_EQ(another.status(), kUntouched) << native.operation;
    EXPECT_EQ(another.pending(), "") << native.operation;
    log.lines.clear();
  }
}

// --------------------------------------------------------------------------------- exceptions of the library

// What a native did when its entry threw: it logged while it still held its strings, and then only gave them back.
void expectCaught(const Native& native, FakeJavaMachine& machine, const std::string& repository,
                  const std::string& resource) {
  std::vector<std::string> wanted = {"GetStringUTFChars " + repository};
  if (native.takesResource) wanted.push_back("GetStringUTFChars " + resource);
  if (native.operation == std::string("setTimeProperties_")) wanted.emplace_back("GetIntArrayRegion 0 2");
  wanted.push_back("log " + caught(native, repository, resource));
  if (native.takesResource) wanted.push_back("ReleaseStringUTFChars " + resource);
  wanted.push_back("ReleaseStringUTFChars " + repository);
  EXPECT_EQ(machine.calls(), wanted);
  EXPECT_EQ(machine.status(), kUntouched) << native.operation;
  EXPECT_EQ(machine.pending(), "") << native.operation;
}

TEST_F(JniBindingTest, AnExceptionOfTheLibraryIsLoggedWithTheStringsAndAnswersTheFailure) {
  breakRepository();
  for (const Native& native : kNatives) {
    log.lines.clear();
    FakeJavaMachine another(kUntouched);
    EXPECT_EQ(native.call(another, another.string(repository.path()), another.string("20%s09")), native.failure);
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(caught(native, repository.path(), "20%s09")));
    expectCaught(native, another, repository.path(), "20%s09");
  }
}

TEST_F(JniBindingTest, LackOfMemoryInTheLibraryIsCaughtToo) {
  for (const Native& native : kNatives) {
    const std::string unknown = repository.scratch() + "/" + native.operation;
    log.lines.clear();
    FakeJavaMachine another(kUntouched);
    const jstring id = another.string("2009");
    const jstring strange = another.string(unknown);
    allocationsUntilFailure = 1;
    EXPECT_EQ(native.call(another, strange, id), native.failure);
    EXPECT_EQ(allocationsUntilFailure, 0) << native.operation << " took no memory";
    EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(caught(native, unknown, "2009")));
    expectCaught(native, another, unknown, "2009");
  }
}

TEST_F(JniBindingTest, WhateverIsThrownIsCaught) {
  place(0, k2009);
  writeFile(repository.lockFile(repository.lockName("2009")), "");
  FakeClock clock;
  clock.onSleep = [] { throw 42; };
  EXPECT_EQ(machine.call(getLocationNative, root(), the2009()), nullptr);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("An exception was caught in getLocation_(" + repository.path() + ", 2009)"));
  EXPECT_EQ(machine.status(), kUntouched);
}

// --------------------------------------------------------------------------------- failures of the machine

// For every native: lets the first call that can fail do so, then the second, until a round ends without one.
// `check` gets each machine after its failed round, and what the native answered.
template <typename Check>
void sweepFailures(const std::function<void()>& prepare, const std::string& repository, const Check& check) {
  constexpr int kMoreCallsThanAnyMakes = 50;
  for (const Native& native : kNatives) {
    int round = 0;
    for (; round < kMoreCallsThanAnyMakes; ++round) {
      prepare();
      FakeJavaMachine machine(kUntouched);
      machine.failAt("", round, kNoMemory);
      const std::string answer = native.call(machine, machine.string(repository), machine.string("2009"));
      if (machine.failed().empty()) break;
      SCOPED_TRACE(std::string(native.operation) + ", call " + std::to_string(round) + ": " + machine.failed());
      check(native, machine, answer);
    }
    EXPECT_GT(round, 0) << native.operation;
    EXPECT_LT(round, kMoreCallsThanAnyMakes) << native.operation;
  }
}

bool concernsTheField(const FakeJavaMachine& machine) {
  return machine.failed() == "GetFieldID" || machine.failed() == "SetIntField";
}

// Under AddressSanitizer this also shows that nothing of a list is lost when its conversion stops in the middle.
TEST_F(JniBindingTest, AfterAFailureOfTheMachineANativeOnlyGivesBackItsStrings) {
  const auto prepare = [&] {
    placeFour();
    place(1, k2009);
  };
  sweepFailures(prepare, repository.path(), [&](const Native& native, FakeJavaMachine& failed, const auto& answer) {
    if (concernsTheField(failed)) return;
    EXPECT_EQ(failed.pending(), kNoMemory);
    EXPECT_EQ(answer, native.failure);
    EXPECT_EQ(failed.status(), kUntouched);
    const auto& calls = failed.calls();
    const auto isFailed = [&](const std::string& call) { return call.starts_with(failed.failed() + " "); };
    const auto last = std::find_if(calls.rbegin(), calls.rend(), isFailed);
    EXPECT_THAT(std::vector<std::string>(last.base(), calls.end()), Each(StartsWith("ReleaseStringUTFChars ")));
  });
  EXPECT_THAT(log.texts(LOG_ERR), Each("JNI error: cound not set status"));
  EXPECT_THAT(log.texts(LOG_ERR), SizeIs(3)) << "of the natives that write the field";
}

TEST_F(JniBindingTest, TheEntryIsNotCalledWhenAStringCouldNotBeConverted) {
  place(1, k2009);
  for (const Native& native : kNatives) {
    for (int skipped = 0; skipped < (native.takesResource ? 2 : 1); ++skipped) {
      FakeJavaMachine another(kUntouched);
      another.failAt("GetStringUTFChars", skipped);
      EXPECT_EQ(native.call(another, another.string(repository.path()), another.string("2009")), native.failure);
      EXPECT_EQ(another.pending(), kNoMemory) << native.operation;
      EXPECT_THAT(another.calls(), Contains(StartsWith("GetStringUTFChars")).Times(skipped + 1)) << native.operation;
      EXPECT_THAT(another.calls(), Contains(StartsWith("ReleaseStringUTFChars")).Times(skipped)) << native.operation;
    }
  }
  EXPECT_FALSE(wasLookedUp());
  EXPECT_THAT(log.texts(), IsEmpty());
}

// The entry has done its work by then.
TEST_F(JniBindingTest, NoMemoryForThePathLeavesTheStatusAlone) {
  for (Create* const create : {&createLocationNative, &createDirectoryNative}) {
    FakeJavaMachine another(kUntouched);
    another.failAt("NewStringUTF");
    EXPECT_EQ(another.call(create, another.string(repository.path()), another.string("2009"), JNI_FALSE), nullptr);
    EXPECT_EQ(another.pending(), kNoMemory);
    EXPECT_EQ(another.status(), kUntouched);
    EXPECT_THAT(another.calls(), ElementsAre(converted(), "GetStringUTFChars 2009", "NewStringUTF " + at(0, k2009),
                                             "ReleaseStringUTFChars 2009", released()));
  }
  EXPECT_TRUE(isDirectoryThere(at(0, k2009)));
}

TEST_F(JniBindingTest, AListStopsAtTheElementThatFails) {
  placeFour();
  machine.failAt("SetObjectArrayElement", 1, kOfTheUser);
  EXPECT_EQ(machine.call(listDirsNative, root(), JNI_TRUE), nullptr);
  EXPECT_EQ(machine.pending(), kOfTheUser);
  EXPECT_THAT(machine.calls(),
              ElementsAre(converted(), "FindClass java/lang/String", "NewStringUTF ", "NewObjectArray 2 \"\"",
                          "NewStringUTF a", "SetObjectArrayElement 0 a", "DeleteLocalRef a", "NewStringUTF b",
                          "SetObjectArrayElement 1 b", released()));
}

TEST_F(JniBindingTest, AListThatStopsLeavesNoIdBehind) {
  constexpr size_t kRounds = 100;
  constexpr size_t kIds = 20;
  const std::string longName(200, 'x');
  for (size_t i = 0; i < kIds; ++i) repository.place(0, longName + std::to_string(i));
  const auto stopAtTheFirst = [&] {
    FakeJavaMachine another(0);
    another.failAt("SetObjectArrayElement");
    EXPECT_EQ(another.call(listDirsNative, another.string(repository.path()), JNI_TRUE), nullptr);
  };
  stopAtTheFirst();
  const size_t before = mallinfo2().uordblks;
  for (size_t i = 0; i < kRounds; ++i) stopAtTheFirst();
  EXPECT_LT(mallinfo2().uordblks, before + kRounds * longName.size());
}

TEST_F(JniBindingTest, AFailureWhileTheTimesAreReadSetsNothing) {
  place(1, k2009);
  machine.failAt("GetIntArrayRegion", 0, kOfTheUser);
  machine.call(setTimePropertiesNative, root(), the2009(), machine.ints({1, 2}));
  EXPECT_EQ(machine.pending(), kOfTheUser);
  EXPECT_EQ(accessTime(at(1, k2009)), kLongAgo);
  EXPECT_FALSE(wasLookedUp());
}

}  // namespace
