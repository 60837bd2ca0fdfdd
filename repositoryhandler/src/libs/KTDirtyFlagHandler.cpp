#include "KTDirtyFlagHandler.h"

#include <cerrno>
#include <cstdio>

#include "KTLinePieces.h"
#include "KTOwned.h"
#include "assertionsites.h"
#include "locking.h"
#include "messages.h"
#include "paths.h"
#include "safety.h"
#include "statefile.h"

namespace {

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

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

// Adds what the file holds.
void KTDirtyFlagHandler::load() {
  const OwnedFile f(fopen(setFile.c_str(), "rb"));
  assertAt(kDirtySetReadable, f != nullptr);
  KTLinePieces pieces(f.get());
  while (const char* id = pieces.next()) dirtySet.insert(id);
}

// What other processes have marked and cleared since this one looked. A file that cannot be read changes nothing.
void KTDirtyFlagHandler::catchUp() {
  if (!safety::replacesStateFiles()) return;
  struct stat now = {};
  if (stat(setFile.c_str(), &now) != 0 && errno != ENOENT) return;
  if (isSameFile(now, known)) return;
  std::set<std::string> before;
  before.swap(dirtySet);
  try {
    if (now.st_ino != 0) load();
  } catch (const KTAssertionException&) {
    dirtySet.swap(before);
    return;
  }
  dirtySet.insert(unsaved.begin(), unsaved.end());
  known = now;
}

bool KTDirtyFlagHandler::isDirty(const char* id) {
  KT_ASSERT(id);
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return true;
  catchUp();
  return dirtySet.count(id) > 0;
}

void KTDirtyFlagHandler::setDirty(const char* id, bool dirty) {
  KT_ASSERT(id);
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return;
  catchUp();
  const bool changed = dirty ? dirtySet.insert(id).second : dirtySet.erase(id) > 0;
  if (!changed) return;
  if (dirty)
    unsaved.insert(id);
  else
    unsaved.erase(id);
  writeSetFile();
}

void KTDirtyFlagHandler::clearDirtySet() {
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return;
  dirtySet.clear();
  unsaved.clear();
  writeSetFile();
}

int KTDirtyFlagHandler::writeSetFile() {
  if (safety::replacesStateFiles()) {
    assertAt(kDirtySetWritable, replaceSetFile());
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
  if (!replaceFile(setFile, setFile + ".new", content)) return false;
  unsaved.clear();
  if (stat(setFile.c_str(), &known) != 0) known = {};
  return true;
}

bool KTDirtyFlagHandler::lockSet(KTSemaphore& semaphore) const {
  if (takeLock(semaphore)) return true;
  safety::logError("The dirty mechanism " + quoted(setFile) + " could not be locked.");
  return false;
}
