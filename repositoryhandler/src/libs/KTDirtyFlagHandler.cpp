#include "KTDirtyFlagHandler.h"

#include <cstdio>

#include "KTLinePieces.h"
#include "KTOwned.h"
#include "assertionsites.h"
#include "librarylog.h"
#include "locking.h"
#include "messages.h"
#include "paths.h"

KTDirtyFlagHandler::KTDirtyFlagHandler() : lockName(resourceLockName(setFile, "")) {}

KTDirtyFlagHandler::~KTDirtyFlagHandler() = default;

void KTDirtyFlagHandler::setRepository(const char* repository) {
  assertAt(kRepositoryGiven, repository != nullptr);
  setFile = std::string(repository) + "/.dirty";
  lockName = resourceLockName(setFile, "");
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore) || !exists(setFile.c_str())) return;
  const OwnedFile f(fopen(setFile.c_str(), "rb"));
  assertAt(kDirtySetReadable, f != nullptr);
  KTLinePieces pieces(f.get());
  while (const char* id = pieces.next()) dirtySet.insert(id);
}

bool KTDirtyFlagHandler::isDirty(const char* id) {
  KT_ASSERT(id);
  KTSemaphore semaphore(lockName, true);
  return !lockSet(semaphore) || dirtySet.count(id) > 0;
}

void KTDirtyFlagHandler::setDirty(const char* id, bool dirty) {
  KT_ASSERT(id);
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return;
  const bool changed = dirty ? dirtySet.insert(id).second : dirtySet.erase(id) > 0;
  if (changed) writeSetFile();
}

void KTDirtyFlagHandler::clearDirtySet() {
  KTSemaphore semaphore(lockName, true);
  if (!lockSet(semaphore)) return;
  dirtySet.clear();
  writeSetFile();
}

int KTDirtyFlagHandler::writeSetFile() {
  OwnedFile f(fopen(setFile.c_str(), "wb"));
  assertAt(kDirtySetWritable, f != nullptr);
  for (const std::string& id : dirtySet) fprintf(f.get(), "%s\n", id.c_str());
  return fclose(f.release());
}

bool KTDirtyFlagHandler::lockSet(KTSemaphore& semaphore) const {
  if (takeLock(semaphore)) return true;
  rh_logger.errorLog(("The dirty mechanism " + quoted(setFile) + " could not be locked.").c_str());
  return false;
}
