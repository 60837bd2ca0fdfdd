#include "KTDirtyFlagHandler.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "KTLinePieces.h"
#include "KTOwned.h"
#include "assertionsites.h"
#include "filestatus.h"
#include "locking.h"
#include "messages.h"
#include "paths.h"
#include "safety.h"
#include "statefile.h"

namespace {

// Seconds without a change after which the times of a file tell of the next one: they are that coarse at most.
constexpr time_t kCoarsestTimes = 2;

// Another one when the file was changed, or another file has got its name.
std::array<int64_t, 5> stateOf(const struct stat& status) {
  return {static_cast<int64_t>(status.st_dev), static_cast<int64_t>(status.st_ino), status.st_size,
          status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

bool isSettled(const struct stat& status) { return status.st_ctim.tv_sec + kCoarsestTimes < time(nullptr); }

}  // namespace

KTDirtyFlagHandler::KTDirtyFlagHandler() : lockName(resourceLockName(setFile, "")) {}

KTDirtyFlagHandler::~KTDirtyFlagHandler() = default;

void KTDirtyFlagHandler::setRepository(const char* repository) {
  assertAt(kRepositoryGiven, repository != nullptr);
  setFile = std::string(repository) + "/.dirty";
  lockName = resourceLockName(setFile, "");
  KTSemaphore semaphore(lockName, true);
  if (lockSet(semaphore) && exists(setFile.c_str())) load();
}

// Adds what the file holds. False when it could not be read to its end.
bool KTDirtyFlagHandler::load() {
  const OwnedFile f(fopen(setFile.c_str(), "rb"));
  assertAt(kDirtySetReadable, f != nullptr);
  KTLinePieces pieces(f.get());
  while (const char* id = pieces.next()) dirtySet.insert(id);
  return !ferror(f.get());
}

// What other processes have marked and cleared since this one looked. False when the file cannot be read; the set is
// then as it was.
bool KTDirtyFlagHandler::catchUp() {
  if (!safety::replacesStateFiles()) return true;
  struct stat now;
  const bool there = stat(setFile.c_str(), &now) == 0;
  caughtUp = there || errno == ENOENT;
  isNew = caughtUp && !there;
  if (!caughtUp || (there && stateOf(now) == known)) return caughtUp;
  std::set<std::string> before;
  before.swap(dirtySet);
  try {
    caughtUp = !there || load();
  } catch (const KTAssertionException&) {
    caughtUp = false;
  }
  if (!caughtUp) dirtySet.swap(before);
  dirtySet.insert(unsaved.begin(), unsaved.end());
  known = {};
  if (caughtUp && there && isSettled(now)) known = stateOf(now);
  return caughtUp;
}

bool KTDirtyFlagHandler::isDirty(const char* id) {
  KT_ASSERT(id);
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return true;
  return !catchUp() || dirtySet.count(safety::markOf(id)) > 0;
}

void KTDirtyFlagHandler::setDirty(const char* id, bool dirty) {
  KT_ASSERT(id);
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return;
  catchUp();
  const std::string mark = safety::markOf(id);
  const bool changed = dirty ? dirtySet.insert(mark).second : dirtySet.erase(mark) > 0;
  if (!changed && unsaved.count(mark) == 0) return;
  if (dirty && safety::replacesStateFiles())
    unsaved.insert(mark);
  else
    unsaved.erase(mark);
  writeSetFile();
}

void KTDirtyFlagHandler::clearDirtySet() {
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return;
  dirtySet.clear();
  unsaved.clear();
  caughtUp = true;  // whatever the file holds
  isNew = false;
  writeSetFile();
}

int KTDirtyFlagHandler::writeSetFile() {
  if (safety::replacesStateFiles()) {
    assertAt(kDirtySetWritable, caughtUp && replaceSetFile());
    return 0;
  }
  OwnedFile f(fopen(setFile.c_str(), "wb"));
  assertAt(kDirtySetWritable, f != nullptr);
  for (const std::string& id : dirtySet) fprintf(f.get(), "%s\n", id.c_str());
  return fclose(f.release());
}

bool KTDirtyFlagHandler::replaceSetFile() {
  std::string content;
  for (const std::string& id : dirtySet) content.append(id).append("\n");
  if (!replaceFile(setFile, setFile + ".new", content, isNew)) return false;
  isNew = false;
  unsaved.clear();
  known = {};
  return true;
}

bool KTDirtyFlagHandler::lockSet(KTSemaphore& semaphore) const {
  if (takeLock(semaphore)) return true;
  safety::logError("The dirty mechanism " + quoted(setFile) + " could not be locked.");
  return false;
}
