// Ids that no careful caller takes: what every entry that takes an id answers, and what a move makes of the resource.
// Each row pins the result of the default mode, hazards included, and the safe mode's beside it.

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "KTDirtyFlagHandler.h"
#include "KTException.h"
#include "entrypoints.h"
#include "fakes/fakes.h"
#include "hashlayout.h"
#include "sizeaccounting.h"
#include "support/hostileids.h"
#include "support/repository.h"
#include "support/results.h"

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using Lines = std::vector<std::string>;

constexpr int kUntouched = -77;
constexpr time_t kLongAgo = 1000;

enum Mode { kDefault, kSafe };

// A repository of two mounts in a private directory, which is also where the process stands. A legacy directory when
// `withLegacy`, beside which a bystander stands.
class Ground {
 public:
  explicit Ground(Mode mode, bool withLegacy = false)
      : safeVariable("KT_SAFE", mode == kSafe ? "1" : "0"),
        repository({"m1", "m2"}, "nomoveTime=0\n"),
        current((makeDirectories(currentPath()), currentPath())) {
    log.expandsFormats = false;
    setUsed(10);
    disks.setUsed(repository.mount(1), 10);
    writeFile(outside() + "/bystander", "kept");
    makeDirectories(legacy());
    disks.setUsed(legacy(), 20);
    if (withLegacy) repository.configure("nomoveTime=0\nlegacyDir=" + legacy() + "\n");
    // What a shell leaves behind becomes a child of this process, which can wait for it.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    shell.answer = [this](const std::string& command) { return runToItsEnd(command); };
  }

  const char* id() const { return repository.id(); }
  std::string currentPath() const { return repository.scratch() + "/current"; }
  std::string outside() const { return repository.scratch() + "/outside"; }
  std::string legacy() const { return outside() + "/legacy"; }
  void setUsed(double percent) { disks.setUsed(repository.mount(0), percent); }

  EnvironmentVariable safeVariable;
  TestRepository repository;
  WorkingDirectory current;
  FakeDisks disks;
  FakeSyslog log;
  FakeShell shell;
  std::function<void()> beforeCommand = [] {};

 private:
  int runToItsEnd(const std::string& command) {
    beforeCommand();
    const int status = FakeShell::runReal(command);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    return status;
  }
};

// A path as the tables name it.
std::string named(const Ground& ground, const std::string& id, const std::string& path) {
  if (path == ground.repository.resourcePath(0, id)) return "at its place";
  const std::string& start = ground.repository.scratch();
  if (path == ground.legacy() + "/" + id) return "legacy";
  return path.starts_with(start) ? path.substr(start.size()) : path;
}

std::string outcome(const Ground& ground, const std::string& id, const Text& path, int status) {
  const std::string text = path ? named(ground, id, *path) : "null";
  return text + (status == kUntouched ? "" : ", " + std::to_string(status));
}

// What a call answers, or the expression of the assertion that it throws.
std::string answer(const std::function<std::string()>& call) {
  try {
    return call();
  } catch (const KTAssertionException& assertion) {
    return "throws " + assertion.m_expression;
  }
}

using Creation = char* (*)(const char*, const char*, int*, bool);

std::string create(const Ground& ground, const std::string& id, Creation creation) {
  return answer([&] {
    int status = kUntouched;
    const Text path = taken(creation(ground.id(), id.c_str(), &status, false));
    return outcome(ground, id, path, status);
  });
}

std::string lookUp(const Ground& ground, const std::string& id) {
  return answer([&] {
    int status = kUntouched;
    const Text path = taken(getLocation_(ground.id(), id.c_str(), &status));
    return outcome(ground, id, path, status);
  });
}

using Listing = char** (*)(const char*, long*, bool);

std::string list(const Ground& ground, const std::string& id, Listing listing = listDirs_) {
  long count = 0;
  char** names = listing(ground.id(), &count, true);
  const Lines listed = taken(names, count);
  return listed.empty() ? "nothing" : listed == Lines{id} ? "it" : testing::PrintToString(listed);
}

// The entries that take an id, in the order of a resource's life. Lists of answers are in this order.
Lines live(const Ground& ground, const std::string& id) {
  const char* root = ground.id();
  utimbuf times = {kLongAgo, kLongAgo};
  return {
      lookUp(ground, id),
      create(ground, id, createLocation_),
      create(ground, id, createDirectory_),
      lookUp(ground, id),
      std::to_string(checkResourceStatus_(root, id.c_str())),
      std::to_string(setTimeProperties_(root, id.c_str(), &times)),
      std::to_string(getTimeProperties_(root, id.c_str(), &times)),
      list(ground, id),
      std::to_string(removeResource_(root, id.c_str())),
      lookUp(ground, id),
      list(ground, id),
  };
}

enum Shape { kDirectory, kFile };

// A resource of that id on the first mount, a file or a directory with a file and a directory in it, and its path.
std::string place(const Ground& ground, const std::string& id, Shape shape = kDirectory) {
  if (shape == kFile) return ground.repository.placeFile(0, id, "Dear customer", kLongAgo);
  const std::string path = ground.repository.resourcePath(0, id);
  writeFile(path + "/letter", "Dear customer");
  writeFile(path + "/inner/letter", "Dear sir");
  for (const char* entry : {"/inner/letter", "/inner", "/letter", ""}) setTimes(path + entry, kLongAgo);
  return path;
}

bool isWhole(const std::string& path, Shape shape) {
  if (shape == kFile) return readFile(path) == "Dear customer";
  return readFile(path + "/letter") == "Dear customer" && readFile(path + "/inner/letter") == "Dear sir";
}

Lines lettersOf(const Ground& ground) {
  Lines letters = treeOf(ground.repository.path());
  std::erase_if(letters, [](const std::string& line) { return line.find("=Dear ") == std::string::npos; });
  return letters;
}

enum Way { kPass, kFreeing };

void move(Ground& ground, Way way) {
  ground.setUsed(way == kPass ? 99.5 : 10);
  if (way == kPass)
    checkOverload_(ground.id(), false);
  else
    freeMount_(ground.id(), "m1");
}

// What became of the resource, and what stands in the current directory then.
std::string moved(Ground& ground, const std::string& id, Way way, Shape shape = kDirectory) {
  constexpr size_t kMostCommands = 40;  // of a move that ends
  const std::string origin = place(ground, id, shape);
  const size_t letters = shape == kFile ? 1 : 2;  // not counted here: whoever reads them uses them
  const std::string aside = ground.repository.scratch() + "/aside";
  bool endless = false;
  ground.beforeCommand = [&] {
    if (ground.shell.commands.size() != kMostCommands) return;
    endless = true;
    if (isThere(origin)) fs::rename(origin, aside);  // with nothing to move it ends
  };
  move(ground, way);
  if (isThere(aside)) {
    makeDirectories(fs::path(origin).parent_path());
    fs::rename(aside, origin);
  }

  const std::string destination = ground.repository.resourcePath(1, id);
  std::string text = isWhole(origin, shape) ? "kept" : isThere(origin) ? "torn" : "gone";
  if (isThere(destination)) text += isWhole(destination, shape) ? ", copied" : ", partly copied";
  if (text == "gone, copied") text = "moved";
  if (endless) text += ", without end";
  if (lettersOf(ground).size() > letters) text += ", with copies elsewhere";
  for (const std::string& name : treeOf(".")) text += ", makes " + name;
  return text;
}

struct Answers {
  Lines byDefault;
  Lines safe = byDefault;
};

const Lines kOrdinary = {"null, 4", "at its place, 0", "at its place, 0", "at its place, 0", "0", "1", "1", "it",
                         "0",       "null, 4",         "nothing"};
// The lock cannot be made, and without a lock nothing is looked up.
const Lines kNotLocked = {"null", "null", "null", "null", "16", "0", "0", "nothing", "16", "null", "nothing"};
// The mount's own directory is found, and given times. It is not removed.
const Lines kMount = {"/rep/m1/, 0", "/rep/m1/, 0", "/rep/m1/, 0", "/rep/m1/, 0", "0",      "1",
                      "1",           "nothing",     "4",           "/rep/m1/, 0", "nothing"};
const std::string kThrown = "throws subDirectory.find( '/' ) == string::npos";
const Lines kNoResource = {"null, 4", kThrown, kThrown, "null, 4", "4", "0", "0", "nothing", "4", "null, 4", "nothing"};

// What leads to the directories of others, or to that of all resources, is no id in the safe mode.
const Lines kRefused = {"null, 4", "null, 8", "null, 8", "null, 4", "4",      "0",
                        "0",       "nothing", "4",       "null, 4", "nothing"};

// Of the ids that are not ordinary.
const std::map<std::string, Answers> kSpecialAnswers = {
    {"", {kMount, kRefused}},
    {"/", {kMount, kRefused}},
    // The directory that would hold it, at the third level, is found once it is made. What is in it goes with the
    // removal; it stays itself.
    {".",
     {{"null, 4", "at its place, 0", "at its place, 0", "at its place, 0", "0", "1", "1", "nothing", "8",
       "at its place, 0", "nothing"},
      kRefused}},
    // The same of the second level.
    {"..",
     {{"null, 4", "at its place, 0", "at its place, 0", "at its place, 0", "0", "1", "1", "nothing", "8", "null, 4",
       "nothing"},
      kRefused}},
    {"a/b", {kNoResource}},
    {"../a", {kNoResource}},
    {"/a/",
     {{"null, 4", "/rep/m1/BC/6J/AJ/a, 0", "/rep/m1/BC/6J/AJ/a, 0", "/rep/m1/BC/6J/AJ/a, 0", "0", "1", "1", "{ \"a\" }",
       "0", "null, 4", "nothing"}}},
    {kLongest, {kNotLocked}},
    {kTooLong, {kNotLocked}},
};

bool isOrdinary(const std::string& id) { return !kSpecialAnswers.contains(id); }

Lines answersTo(const std::string& id, Mode mode) {
  const auto special = kSpecialAnswers.find(id);
  if (special == kSpecialAnswers.end()) return kOrdinary;
  return mode == kSafe ? special->second.safe : special->second.byDefault;
}

struct MoveRow {
  const char* name;
  std::string id;
  const char* byDefault;
  const char* safe = "moved";
};

// By default the id is a part of shell commands. What they print and what they answer decides what a pass believes.
const MoveRow kMoveRows[] = {
    {"Plain", "2009", "moved"},
    {"Blank", " ", "kept"},
    {"BlankInside", "a b", "kept"},
    {"Tab", "\t", "kept"},
    {"LineFeed", "\n", "kept"},
    {"LineFeedInside", "a\nb", "kept"},
    {"CarriageReturn", "\r", "moved"},
    {"Semicolon", ";", "kept"},
    {"SemicolonRunsACommandAndNeverEndsByDefault", "x;touch made", "kept, without end, makes made="},
    {"AmpersandIsLostByDefault", "&", "gone"},
    {"AmpersandBehindNeverEndsByDefault", "a&", "kept, without end"},
    {"AmpersandInside", "a&b", "kept"},
    {"Substitution", "$()", "kept"},
    {"SubstitutionRunsACommandByDefault", "$(touch made)", "kept, makes made="},
    {"Backquote", "`", "kept"},
    {"BackquotesRunACommandByDefault", "`touch made`", "kept, makes made="},
    {"RedirectionMakesAFileByDefault", "a>made", "kept, makes made="},
    {"Pipe", "|", "kept"},
    {"Quote", "'", "kept"},
    {"QuoteInside", "it's", "kept"},
    {"DoubleQuote", "\"", "kept"},
    {"Star", "*", "moved"},
    {"QuestionMark", "?", "moved"},
    {"Option", "-rf", "moved"},
    {"Tilde", "~", "moved"},
    {"Hash", "#", "moved"},
    {"HashBehindABlank", " #", "kept"},
    {"Conversion", "%s%n", "moved"},
    {"Backslash", "\\", "kept"},
    {"NoCharacter", "\xff\xfe", "moved"},
    {"OverlongSlash", "\xc0\xaf", "moved"},
    {"LockFile", "semaphore_2009", "moved"},
    {"LostAndFound", "lost+found", "moved"},
    {"Bytes255StayForWantOfALock", kLongest, "kept", "kept"},
};

template <typename Row>
std::string nameOf(const testing::TestParamInfo<Row>& row) {
  return row.param.name;
}

// googletest shows a row by this.
void PrintTo(const MoveRow& row, std::ostream* out) { *out << row.name; }

class HostileIdTest : public testing::TestWithParam<HostileId> {};
class HostileIdMoveTest : public testing::TestWithParam<MoveRow> {};
class HostileLegacyIdTest : public testing::TestWithParam<Mode> {};

bool isControl(char c) { return static_cast<unsigned char>(c) < ' '; }

}  // namespace

TEST_P(HostileIdTest, IsAnsweredAlikeInBothModesButForDotsAndNoNameThatTheSafeModeRefuses) {
  for (const Mode mode : {kDefault, kSafe}) {
    SCOPED_TRACE(mode == kSafe ? "safe" : "default");
    const Ground ground(mode);
    EXPECT_EQ(live(ground, GetParam().id), answersTo(GetParam().id, mode));
    EXPECT_THAT(ground.shell.commands, IsEmpty());
    EXPECT_THAT(ground.repository.locksLeft(), IsEmpty());
    EXPECT_THAT(treeOf(ground.outside()), ElementsAre("bystander=kept", "legacy/"));
    EXPECT_THAT(treeOf("."), IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(EachEntry, HostileIdTest, testing::ValuesIn(kHostileIds), nameOf<HostileId>);

TEST_P(HostileIdMoveTest, IsMovedWholeInTheSafeMode) {
  const MoveRow& row = GetParam();
  for (const Mode mode : {kDefault, kSafe}) {
    for (const Way way : {kPass, kFreeing}) {
      for (const Shape shape : {kDirectory, kFile}) {
        SCOPED_TRACE(std::string(mode == kSafe ? "safe, " : "default, ") + (way == kPass ? "a pass" : "freeing") +
                     (shape == kFile ? ", a file" : ""));
        Ground ground(mode);
        EXPECT_EQ(moved(ground, row.id, way, shape), mode == kSafe ? row.safe : row.byDefault);
        EXPECT_THAT(ground.repository.locksLeft(), IsEmpty());
        EXPECT_THAT(treeOf(ground.outside()), ElementsAre("bystander=kept", "legacy/"));
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(EachWay, HostileIdMoveTest, testing::ValuesIn(kMoveRows), nameOf<MoveRow>);

// The life of a resource that is a file, whose id a file may have.
Lines liveAsFile(const Ground& ground, const std::string& id) {
  const char* root = ground.id();
  utimbuf times = {kLongAgo, kLongAgo};
  place(ground, id, kFile);
  return {
      lookUp(ground, id),
      std::to_string(checkResourceStatus_(root, id.c_str())),
      std::to_string(setTimeProperties_(root, id.c_str(), &times)),
      std::to_string(getTimeProperties_(root, id.c_str(), &times)),
      list(ground, id, listFiles_),
      list(ground, id),
      std::to_string(removeResource_(root, id.c_str())),
      lookUp(ground, id),
      list(ground, id, listFiles_),
  };
}

TEST_P(HostileIdTest, OfAFileIsAnsweredAlikeInBothModesButForTimesThatNeedALockInTheSafeMode) {
  const std::string& id = GetParam().id;
  if (!isOrdinary(id) && id != kLongest) return;  // no file has such a name: see below
  const Lines ordinary = {"at its place, 0", "0", "1", "1", "it", "nothing", "0", "null, 4", "nothing"};
  for (const Mode mode : {kDefault, kSafe}) {
    SCOPED_TRACE(mode == kSafe ? "safe" : "default");
    const Ground ground(mode);
    const char* timed = mode == kSafe ? "0" : "1";
    const Lines notLocked = {"null", "16", timed, timed, "it", "nothing", "16", "null", "it"};
    EXPECT_EQ(liveAsFile(ground, id), isOrdinary(id) ? ordinary : notLocked);
    EXPECT_THAT(ground.repository.locksLeft(), IsEmpty());
  }
}

// The name of an entry on a mount is what a pass, a listing and a count take for an id.
TEST(HostileIdEntryTest, NoEntryOnAMountHasAnEmptyNameOneOfDotsWithASlashOrOf256Bytes) {
  const ScratchDirectory directory;
  for (const char* id : {"", ".", "..", "/", "a/b", kTooLong.c_str()}) {
    EXPECT_NE(mkdir((directory / id).c_str(), 0755), 0) << id;
    for (const auto& entry : fs::directory_iterator(directory.path())) ADD_FAILURE() << entry.path();
  }
}

// The safe mode writes a slash for a line feed, which ends a line of the file, and no slashes around a name.
std::string safeMarkOf(const std::string& id) { return id == "\n" ? "/" : id == "/a/" ? "a" : id; }

TEST_P(HostileIdTest, IsMarkedInALineOfItsOwnButForALineFeedByDefault) {
  const std::string& id = GetParam().id;
  const bool isOneLine = id.find('\n') == std::string::npos;
  for (const Mode mode : {kDefault, kSafe}) {
    SCOPED_TRACE(mode == kSafe ? "safe" : "default");
    const Ground ground(mode);
    KTDirtyFlagHandler marking;
    marking.setRepository(ground.id());
    EXPECT_FALSE(marking.isDirty(id.c_str()));
    marking.setDirty(id.c_str(), true);
    EXPECT_TRUE(marking.isDirty(id.c_str()));
    EXPECT_EQ(ground.repository.dirtySet(), (mode == kSafe ? safeMarkOf(id) : id) + "\n");
    KTDirtyFlagHandler reading;
    reading.setRepository(ground.id());
    EXPECT_EQ(reading.isDirty(id.c_str()), isOneLine || mode == kSafe);
    marking.setDirty(id.c_str(), false);
    EXPECT_FALSE(marking.isDirty(id.c_str()));
    EXPECT_EQ(ground.repository.dirtySet(), "");
  }
}

long kilobytesOf(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 ? static_cast<long>(status.st_blocks) / 2 : -1;
}

// By default a name stands between double quotes in the command, where some characters keep their meaning.
TEST_P(HostileIdTest, OfAResourceIsCountedButForCharactersOfTheShellByDefault) {
  const std::string& id = GetParam().id;
  if (!isOrdinary(id) && id != kLongest) return;
  const std::set<std::string> uncounted = {"`", "\"", "\\"};
  for (const Mode mode : {kDefault, kSafe}) {
    SCOPED_TRACE(mode == kSafe ? "safe" : "default");
    const Ground ground(mode);
    const std::string path = ground.repository.placeFile(0, id, std::string(20000, 'x'), kLongAgo);
    long kilobytes = mode == kDefault && uncounted.contains(id) ? 0 : kilobytesOf(path);
    if (mode == kDefault && id == "$()") kilobytes += kilobytesOf(fs::path(path).parent_path());  // that is counted
    const std::string mount = ground.repository.mount(0);
    EXPECT_EQ(countSize(mount.c_str(), false), kilobytes);
    EXPECT_EQ(readFile(mount + "/.count"),
              id + "\n" + std::to_string(kLongAgo) + "\n" + std::to_string(kilobytes) + "\n");
    EXPECT_EQ(countSize(mount.c_str(), false), kilobytes);
    EXPECT_EQ(ground.shell.commands.size(), id == "\n" ? 2U : 1U) << "what was counted is remembered, but for lines";
    EXPECT_THAT(treeOf("."), IsEmpty());
  }
}

TEST(HostileIdHazardTest, CountingRunsACommandThatANameHoldsByDefault) {
  for (const Mode mode : {kDefault, kSafe}) {
    const Ground ground(mode);
    place(ground, "$(touch made)");
    countSize(ground.repository.mount(0).c_str(), false);
    EXPECT_EQ(isThere("made"), mode == kDefault);
  }
}

// With an id of several names of the hashed directories' own, look-ups and removals reach what is no such resource.
TEST(HostileIdHazardTest, RemovingTwoDotsDeletesTheResourcesOfASecondLevelByDefault) {
  for (const Mode mode : {kDefault, kSafe}) {
    const Ground ground(mode);
    const std::string third = fs::path(ground.repository.resourcePath(0, "..")).parent_path();
    const std::string neighbour = std::string(fs::path(third).parent_path()) + "/AB/neighbour/letter";
    makeDirectories(third);
    writeFile(neighbour, "");
    EXPECT_EQ(removeResource_(ground.id(), ".."), mode == kSafe ? 4 : 8);
    EXPECT_EQ(isThere(neighbour), mode == kSafe);
  }
}

// One resource, two locks: two processes that name it differently do not exclude each other.
// A lock is seen by its release: how it is taken differs between the modes.
TEST(HostileIdHazardTest, SlashesAroundAnIdNameTheSameResourceUnderAnotherLockByDefault) {
  for (const Mode mode : {kDefault, kSafe}) {
    const Ground ground(mode);
    place(ground, "2009");
    const CallWatch watch;
    EXPECT_EQ(lookUp(ground, "2009"), "at its place, 0");
    EXPECT_THAT(lookUp(ground, "/2009/"),
                HasSubstr(ground.repository.resourcePath(0, "2009").substr(ground.repository.scratch().size())));
    EXPECT_THAT(watch.locks, Contains("-" + ground.repository.lockName("2009")));
    const auto isOther = [](const std::string& lock) { return lock.ends_with("-_2009_"); };
    EXPECT_EQ(std::any_of(watch.locks.begin(), watch.locks.end(), isOther), mode == kDefault);
  }
}

// The file has a line for each mark.
TEST(HostileIdHazardTest, AMarkOfAnIdWithALineFeedIsReadAsTwoOthersByDefault) {
  for (const Mode mode : {kDefault, kSafe}) {
    const Ground ground(mode);
    KTDirtyFlagHandler marking;
    marking.setRepository(ground.id());
    marking.setDirty("a\nb", true);
    KTDirtyFlagHandler reading;
    reading.setRepository(ground.id());
    EXPECT_EQ(reading.isDirty("a\nb"), mode == kSafe);
    EXPECT_EQ(reading.isDirty("a"), mode == kDefault);
    EXPECT_EQ(reading.isDirty("b"), mode == kDefault);
  }
}

// Below the legacy directory an id is a path as it is; only the safe mode does not follow it out of there.
INSTANTIATE_TEST_SUITE_P(EachMode, HostileLegacyIdTest, testing::Values(kDefault, kSafe),
                         [](const auto& mode) { return mode.param == kSafe ? "Safe" : "Default"; });

// What an id makes below "legacy", and a path up outside of it.
Lines madeOf(const std::string& id) {
  const std::map<std::string, Lines> special = {
      {"", {}},
      {"/", {}},
      {".", {}},
      {"..", {}},
      {"a/b", {"legacy/a/", "legacy/a/b/"}},
      {"../a", {"a/"}},
      {"/a/", {"legacy/a/"}},
      {kTooLong, {}},  // that the last directory could not be made is not told
  };
  const auto row = special.find(id);
  return row != special.end() ? row->second : Lines{"legacy/" + id + "/"};
}

TEST_P(HostileLegacyIdTest, IsMadeWhereverItLeads) {
  std::vector<HostileId> ids = kHostileIds;
  ids.push_back({"SubstitutionThatRunsACommand", "$(touch made)"});
  ids.push_back({"LineFeedInside", "a\nb"});
  for (const auto& [name, id] : ids) {
    SCOPED_TRACE(name);
    const Ground ground(GetParam(), true);
    const bool safe = GetParam() == kSafe;
    const bool refused = safe && (id.starts_with(".") || id.empty() || id == "/");
    const std::string below = safe && id == "/a/" ? "a" : id;
    EXPECT_EQ(taken(createToLegacy_(ground.id(), id.c_str())), refused ? Text() : Text(ground.legacy() + "/" + below));
    Lines outside = treeOf(ground.outside());
    std::erase(outside, "bystander=kept");
    std::erase(outside, "legacy/");
    EXPECT_EQ(outside, refused ? Lines() : madeOf(id));
    EXPECT_THAT(treeOf("."), IsEmpty());
    EXPECT_THAT(ground.shell.commands, IsEmpty());
  }
}

TEST_P(HostileLegacyIdTest, ThroughASymbolicLinkLeadsOutOfTheLegacyDirectoryByDefault) {
  const bool safe = GetParam() == kSafe;
  const Ground ground(GetParam(), true);
  writeFile(ground.outside() + "/beyond/victim/letter", "");
  fs::create_directory_symlink(ground.outside() + "/beyond", ground.legacy() + "/link");
  const Text made = taken(createToLegacy_(ground.id(), "link/made"));
  EXPECT_EQ(made, safe ? Text() : Text(ground.legacy() + "/link/made"));
  EXPECT_EQ(isThere(ground.outside() + "/beyond/made"), !safe);
  EXPECT_EQ(removeResource_(ground.id(), "link/victim"), safe ? 4 : 0);
  EXPECT_EQ(isThere(ground.outside() + "/beyond/victim"), safe);
}

TEST_P(HostileLegacyIdTest, WithSlashesAroundItIsFoundInBothModes) {
  const Ground ground(GetParam(), true);
  writeFile(ground.legacy() + "/2009/letter", "");
  EXPECT_THAT(lookUp(ground, "/2009/"), HasSubstr("/2009, 0"));
  EXPECT_TRUE(isThere(ground.repository.resourcePath(0, "2009") + "/letter"));
}

TEST_P(HostileLegacyIdTest, OfTwoDotsMovesByDefaultWhatStandsBesideTheLegacyDirectoryWhenLookedUp) {
  const bool safe = GetParam() == kSafe;
  const Ground ground(GetParam(), true);
  EXPECT_EQ(lookUp(ground, ".."), safe ? "null, 4" : "at its place, 0");
  EXPECT_EQ(isThere(ground.outside() + "/bystander"), safe);
  EXPECT_EQ(readFile(ground.repository.resourcePath(0, "..") + "/bystander"), safe ? "" : "kept");
}

TEST_P(HostileLegacyIdTest, OfOneDotMovesByDefaultAllLegacyResourcesToOnePlaceWhenLookedUp) {
  const bool safe = GetParam() == kSafe;
  const Ground ground(GetParam(), true);
  writeFile(ground.legacy() + "/2009/letter", "");
  EXPECT_EQ(lookUp(ground, "."), safe ? "null, 4" : "at its place, 0");
  EXPECT_EQ(isThere(ground.repository.resourcePath(0, ".") + "/2009/letter"), !safe);
  EXPECT_EQ(lookUp(ground, "2009"), safe ? "at its place, 0" : "null, 4") << "by default no look-up finds it there";
}

TEST_P(HostileLegacyIdTest, OfTwoDotsDeletesByDefaultWhatStandsBesideTheLegacyDirectoryWhenRemoved) {
  const bool safe = GetParam() == kSafe;
  const Ground ground(GetParam(), true);
  EXPECT_EQ(removeResource_(ground.id(), ".."), safe ? 4 : 8);
  EXPECT_EQ(treeOf(ground.outside()).empty(), !safe);
}

TEST_P(HostileLegacyIdTest, OfAPathUpIsDeletedByDefaultOutsideOfTheLegacyDirectory) {
  const bool safe = GetParam() == kSafe;
  const Ground ground(GetParam(), true);
  EXPECT_EQ(lookUp(ground, "../bystander"), safe ? "null, 4" : kThrown);
  EXPECT_EQ(removeResource_(ground.id(), "../bystander"), safe ? 4 : 0);
  EXPECT_EQ(isThere(ground.outside() + "/bystander"), safe);
  EXPECT_THAT(ground.repository.locksLeft(), IsEmpty());
}

// A line that tells of each id: its lock cannot be made.
TEST(HostileIdLogTest, AnIdIsTheFormatOfALineByDefaultAndItsTextInTheSafeMode) {
  for (const Mode mode : {kDefault, kSafe}) {
    const Ground ground(mode);
    fs::remove(ground.repository.lockDirectory());
    EXPECT_EQ(lookUp(ground, "%s%n"), "null");
    ASSERT_THAT(ground.log.lines, Not(IsEmpty()));
    const LogLine& line = ground.log.lines.back();
    EXPECT_THAT(mode == kSafe ? line.text : line.format, HasSubstr("-%s%n\" could not be locked"));
    if (mode == kSafe) {
      EXPECT_EQ(line.format, "%s");
    }
  }
}

TEST(HostileIdLogTest, AnIdBreaksALineByDefaultAndIsShownEscapedInTheSafeMode) {
  for (const Mode mode : {kDefault, kSafe}) {
    const Ground ground(mode);
    fs::remove(ground.repository.lockDirectory());
    EXPECT_EQ(lookUp(ground, "a\nb\r"), "null");
    ASSERT_THAT(ground.log.lines, Not(IsEmpty()));
    EXPECT_THAT(ground.log.lines.back().text, HasSubstr(mode == kSafe ? "-a\\nb\\x0d\"" : "-a\nb\r\""));
  }
}

TEST(HostileIdLogTest, NoIdIsAFormatOrBreaksALineInTheSafeMode) {
  for (const MoveRow& row : kMoveRows) {
    SCOPED_TRACE(row.name);
    Ground ground(kSafe);
    moved(ground, row.id, kPass);
    for (const LogLine& line : ground.log.lines) {
      EXPECT_EQ(line.format, "%s");
      EXPECT_TRUE(std::none_of(line.text.begin(), line.text.end(), isControl)) << line.text;
    }
  }
}
