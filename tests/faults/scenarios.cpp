#include "faults/scenarios.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "KTOwned.h"
#include "KTRepositoryHandler.h"
#include "entrypoints.h"
#include "hashlayout.h"
#include "locking.h"
#include "operationlog.h"
#include "registry.h"
#include "sizeaccounting.h"
#include "support/results.h"
#include "support/scratch.h"
#include "transfer.h"

const char kKeptMark[] = "kept";
const char kFreshId[] = "fresh";

namespace {

constexpr time_t kLongAgo = 1000000;

// More than one block, so that a part of it shows.
std::string bytes(char of) { return std::string(9000, of); }

const Contents kTree = {{"a", bytes('a')}, {"sub/b", bytes('b')}};
const Contents kOtherPart = {{"c", bytes('c')}};
const Contents kJoined = {{"a", bytes('a')}, {"c", bytes('c')}, {"sub/b", bytes('b')}};
const Contents kFile = {{"", bytes('f')}};

const std::string kId = "2009";
const Resource kBystander = {"abc", kFile};
const std::string kMarks = std::string(kKeptMark) + "\n";

void put(const std::string& path, const Contents& contents) {
  for (const auto& [name, content] : contents) {
    const std::string file = name.empty() ? path : path + "/" + name;
    writeFile(file, content);
    setTimes(file, kLongAgo);
  }
  setTimes(path, kLongAgo);
}

// Mounts, one mark, one resource that nothing concerns.
void makeRepository(const Ground& ground, const std::string& settings = "", int mounts = 2, int bystander = 0) {
  std::string list;
  for (int i = 0; i < mounts; ++i) {
    writeFile(ground.mount(i) + "/repositorypart.cfg", "");
    list += (i ? "\\m" : "m") + std::to_string(i);
  }
  writeFile(ground.repository() + "/repository.cfg", "mountPoints=" + list + "\n" + settings);
  writeFile(ground.dirtySet(), kMarks);
  put(ground.place(bystander, kBystander.id), kBystander.contents);
}

void makeRepositoryWith(const Ground& ground, int mount, const Contents& contents) {
  makeRepository(ground);
  put(ground.place(mount, kId), contents);
}

// Both halves of a resource of which a copy was made while a mount was away.
void makeDirtyHalves(const Ground& ground) {
  makeRepositoryWith(ground, 0, kTree);
  put(ground.place(1, kId), kOtherPart);
  writeFile(ground.dirtySet(), kId + "\n" + kMarks);
}

Answer answerOf(int value) {
  Answer answer;
  answer.value = value;
  return answer;
}

Answer located(char* path, int status) {
  const OwnedChars found(path);
  return {status, found ? found.get() : "", false, false};
}

Answer lookUp(const Ground& ground) {
  int status = kUntouched;
  char* path = getLocation_(ground.repository().c_str(), kId.c_str(), &status);
  return located(path, status);
}

using Creation = char* (*)(const char*, const char*, int*, bool);
Answer create(const Ground& ground, Creation creation) {
  int status = kUntouched;
  char* path = creation(ground.repository().c_str(), kFreshId, &status, false);
  return located(path, status);
}

Answer pass(const Ground& ground) {
  checkOverload_(ground.repository().c_str(), false);
  return {};
}

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool isAbsent(const Ground& ground, const std::string& id) {
  for (int mount = 0; mount < kMounts; ++mount)
    if (isThere(ground.place(mount, id))) return false;
  return !isThere(ground.legacy() + "/" + id);
}

bool isMarked(const Ground& ground, const std::string& id) {
  const auto lines = linesOf(readFile(ground.dirtySet()));
  return std::find(lines.begin(), lines.end(), id) != lines.end();
}

// Nothing is told by an answer without a path, but that the lock was not taken, which is logged.
bool isNone(const Answer& answer) {
  return answer.value == kResourceNotCreated || (answer.value == kUntouched && answer.said);
}

// The directories above a new place are there. That the last one could not be made is not told.
bool isMade(const std::string& directory, const Answer& answer) {
  return isDirectoryThere(answer.disturbed ? parentOf(directory) : directory);
}

bool isLocationMade(const Ground&, const Answer& answer) {
  return answer.path.empty() ? isNone(answer) : isMade(parentOf(answer.path), answer);
}

// It is marked, too, unless an error was logged.
bool isDirectoryMade(const Ground& ground, const Answer& answer) {
  if (answer.path.empty()) return isNone(answer);
  return isMade(answer.path, answer) && (isMarked(ground, kFreshId) || answer.said);
}

// The resource is there: it is found, or the answer tells why not. That what is found is whole is judged elsewhere.
bool isLookUpTrue(const Ground&, const Answer& answer) {
  if (!answer.path.empty()) return true;
  return answer.value == kUntouched ? answer.said
                                    : answer.value == kResourceConflict || answer.value == kTransferFailed;
}

bool isImportTrue(const Ground& ground, const Answer& answer) {
  const bool isImported = !isThere(ground.legacy() + "/" + kId);
  return isLookUpTrue(ground, answer) && (isImported || answer.value != kResourceFound || answer.said);
}

// The two are one; and nobody looks for another any more, unless an error was logged.
bool isJoiningTrue(const Ground& ground, const Answer& answer) {
  const bool isJoined = !isThere(ground.place(0, kId)) && (answer.said || !isMarked(ground, kId));
  return isLookUpTrue(ground, answer) && (isJoined || answer.value != kResourceFound);
}

// Gone everywhere; or nothing was removed.
bool isRemovalTrue(const Ground& ground, const Answer& answer) {
  if (answer.value == 0) return isAbsent(ground, kId);
  return answer.value == kTransferFailed ||
         (answer.value != kResourceNotFound && isCompleteAt(ground.place(0, kId), kTree));
}

// Both resources stand in the cache, with their times and sizes; what is gone does not.
bool isCounted(const Ground& ground, const Answer& answer) {
  const auto lines = linesOf(readFile(ground.mount(0) + "/.count"));
  return answer.said || (lines.size() == 6 && lines[0] == kBystander.id && lines[3] == kId);
}

std::vector<Fill> noFills(const Ground&) { return {}; }

const std::set<int> kOfLookUp = {0, 1, 2, 4, 8, kUntouched};
const std::set<int> kOfCreation = {0, 1, 8, kUntouched};
const std::set<int> kNothing = {0};

Scenario scenario(const std::string& name, std::function<void(const Ground&)> setUp,
                  std::function<Answer(const Ground&)> operate,
                  std::function<bool(const Ground&, const Answer&)> isTrue, const std::vector<Resource>& resources,
                  const std::set<int>& values) {
  Scenario made;
  made.name = name;
  made.setUp = std::move(setUp);
  made.operate = std::move(operate);
  made.isTrue = std::move(isTrue);
  made.resources = resources;
  made.values = values;
  made.marks = {kKeptMark};
  made.fills = noFills;
  return made;
}

Scenario createLocation() {
  return scenario(
      "createLocation", [](const Ground& ground) { makeRepository(ground); },
      [](const Ground& ground) { return create(ground, createLocation_); }, isLocationMade, {kBystander}, kOfCreation);
}

// While a mount is away, so that a mark is made.
Scenario createDirectory() {
  return scenario(
      "createDirectory",
      [](const Ground& ground) {
        makeRepository(ground, "", kMounts);
        std::filesystem::remove(ground.mount(2) + "/repositorypart.cfg");
      },
      [](const Ground& ground) { return create(ground, createDirectory_); }, isDirectoryMade, {kBystander},
      kOfCreation);
}

Scenario lookUpClean() {
  Scenario made = scenario(
      "lookUpClean", [](const Ground& ground) { makeRepositoryWith(ground, 1, kTree); }, lookUp, isLookUpTrue,
      {{kId, kTree}, kBystander}, kOfLookUp);
  made.looksUp = true;
  return made;
}

Scenario lookUpJoining() {
  Scenario made =
      scenario("lookUpJoining", makeDirtyHalves, lookUp, isJoiningTrue, {{kId, kJoined}, kBystander}, kOfLookUp);
  made.marks = {kKeptMark, kId};
  made.looksUp = made.joins = true;
  return made;
}

Scenario legacyImport() {
  Scenario made = scenario(
      "legacyImport",
      [](const Ground& ground) {
        makeRepository(ground, "legacyDir=" + ground.legacy() + "\n");
        put(ground.legacy() + "/" + kId, kTree);
      },
      lookUp, isImportTrue, {{kId, kTree}, kBystander}, kOfLookUp);
  made.looksUp = true;
  return made;
}

Scenario removal() {
  return scenario(
      "remove", [](const Ground& ground) { makeRepositoryWith(ground, 0, kTree); },
      [](const Ground& ground) { return answerOf(removeResource_(ground.repository().c_str(), kId.c_str())); },
      isRemovalTrue, {{kId, kTree, true}, kBystander}, {0, 1, 4, 8, 16});
}

Scenario setDirty() {
  return scenario(
      "setDirty", [](const Ground& ground) { makeRepositoryWith(ground, 0, kTree); },
      [](const Ground& ground) {
        getRepository(ground.repository().c_str())->dirtyFlagHandler.setDirty(kId.c_str(), true);
        return Answer{};
      },
      [](const Ground& ground, const Answer& answer) { return isMarked(ground, kId) || answer.said; },
      {{kId, kTree}, kBystander}, kNothing);
}

// To a mount that look-ups search before the one that is emptied: what is made there is what they find. It is not the
// first, of which no answer tells that the mount is empty.
Scenario freshMove() {
  Scenario made = scenario(
      "freshMove",
      [](const Ground& ground) {
        makeRepository(ground, "", kMounts);
        put(ground.place(2, kId), kTree);
      },
      [](const Ground& ground) { return answerOf(freeMount_(ground.repository().c_str(), "m2")); },
      [](const Ground& ground, const Answer& answer) { return answer.value != 0 || !isThere(ground.place(2, kId)); },
      {{kId, kTree}, kBystander}, {0, 1, 2, 3});
  made.fills = [](const Ground& ground) { return std::vector<Fill>{{ground.mount(0), 96, 0, {}}}; };
  return made;
}

// Of a resource one part of which is there already; its mark lets a look-up join what is left.
Scenario mergeMove() {
  Scenario made = scenario(
      "mergeMove", makeDirtyHalves,
      [](const Ground& ground) {
        KTSemaphore lock(resourceLockName(ground.repository(), kId), true);  // as everyone who moves
        if (!takeLock(lock)) return answerOf(kTransferFailed);
        return answerOf(moveRes(ground.place(0, kId).c_str(), ground.place(1, kId).c_str()));
      },
      [](const Ground& ground, const Answer& answer) {
        return answer.value != kTransferred ||
               (!isThere(ground.place(0, kId)) && isCompleteAt(ground.place(1, kId), kJoined));
      },
      {{kId, kJoined}, kBystander}, {0, 2, 8});
  made.marks = {kKeptMark, kId};
  made.joins = true;
  return made;
}

// Two disks of a clearable repository are full; the two oldest resources make room.
Scenario passDeleting() {
  const std::string ids[] = {"old1", "old2"};
  Scenario made = scenario(
      "passDeleting",
      [=](const Ground& ground) {
        makeRepository(ground, "isClearable=true\n", 2, 1);
        for (const std::string& id : ids) put(ground.place(0, id), kTree);
        setTimes(ground.place(1, kBystander.id), time(nullptr));
      },
      pass,
      [=](const Ground& ground, const Answer& answer) {
        return answer.said || (isAbsent(ground, ids[0]) && isAbsent(ground, ids[1]));
      },
      {{ids[0], kTree, true}, {ids[1], kTree, true}, kBystander}, kNothing);
  made.fills = [=](const Ground& ground) {
    return std::vector<Fill>{{ground.mount(0), 96.8, 1.2, {ground.place(0, ids[0]), ground.place(0, ids[1])}},
                             {ground.mount(1), 98.5, 0, {}}};
  };
  return made;
}

// Three resources go to the mount that look-ups search first.
Scenario passMoving() {
  const std::string ids[] = {"old1", "old2", "old3"};
  Scenario made = scenario(
      "passMoving",
      [=](const Ground& ground) {
        makeRepository(ground);
        put(ground.place(1, ids[0]), kTree);
        put(ground.place(1, ids[1]), kFile);
        put(ground.place(1, ids[2]), kOtherPart);
      },
      pass,
      [=](const Ground& ground, const Answer& answer) {
        return answer.said || std::all_of(std::begin(ids), std::end(ids), [&](const std::string& id) {
                 return isThere(ground.place(0, id)) && !isThere(ground.place(1, id));
               });
      },
      {{ids[0], kTree}, {ids[1], kFile}, {ids[2], kOtherPart}, kBystander}, kNothing);
  made.fills = [=](const Ground& ground) {
    std::vector<std::string> paths;
    for (const std::string& id : ids) paths.push_back(ground.place(1, id));
    return std::vector<Fill>{{ground.mount(1), 97.5, 0.6, paths}};
  };
  return made;
}

Scenario makeEmpty() {
  Scenario made = scenario(
      "makeEmpty", [](const Ground& ground) { makeRepositoryWith(ground, 0, kTree); },
      [](const Ground& ground) {
        makeEmpty_(ground.repository().c_str());
        return Answer{};
      },
      [](const Ground& ground, const Answer& answer) {
        const bool isEmpty =
            isAbsent(ground, kId) && isAbsent(ground, kBystander.id) && readFile(ground.dirtySet()).empty();
        return isEmpty || answer.said;
      },
      {{kId, kTree, true}, {kBystander.id, kBystander.contents, true}}, kNothing);
  made.clearsAllMarks = true;
  return made;
}

Scenario countingSize() {
  return scenario(
      "countSize",
      [](const Ground& ground) {
        makeRepositoryWith(ground, 0, kTree);
        writeFile(ground.mount(0) + "/.count", "gone\n1\n1\n");
      },
      [](const Ground& ground) {
        const long size = countSize(ground.mount(0).c_str(), false);
        return answerOf(size < 0 ? 1 : 0);
      },
      isCounted, {{kId, kTree}, kBystander}, kNothing);
}

Scenario logWriter() {
  return scenario(
      "logWriter",
      [](const Ground& ground) {
        makeRepositoryWith(ground, 0, kTree);
        writeFile(ground.mount(0) + "/.log", "first\n");
      },
      [](const Ground& ground) {
        writeToLogGlobal((ground.mount(0) + "/.log").c_str(), "second");
        return Answer{};
      },
      [](const Ground& ground, const Answer& answer) {
        return answer.said || readFile(ground.mount(0) + "/.log") == "first\nsecond\n";
      },
      {{kId, kTree}, kBystander}, kNothing);
}

}  // namespace

std::string Ground::place(int number, const std::string& id) const {
  return mount(number) + "/" + taken(createHash(id.c_str())).value();
}

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = {createLocation(), createDirectory(), lookUpClean(), lookUpJoining(),
                                            legacyImport(),   removal(),         setDirty(),    freshMove(),
                                            mergeMove(),      passDeleting(),    passMoving(),  makeEmpty(),
                                            countingSize(),   logWriter()};
  return all;
}

const Scenario& scenarioOf(const std::string& name) {
  const auto found =
      std::find_if(scenarios().begin(), scenarios().end(), [&](const Scenario& each) { return each.name == name; });
  if (found == scenarios().end()) throw std::invalid_argument("no scenario " + name);
  return *found;
}
