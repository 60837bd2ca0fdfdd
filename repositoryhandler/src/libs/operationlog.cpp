#include "operationlog.h"

#include <cstdio>
#include <cstring>

#include "KTException.h"
#include "KTLinePieces.h"
#include "KTOwned.h"
#include "librarylog.h"
#include "locking.h"
#include "messages.h"
#include "paths.h"
#include "safety.h"

namespace {

OwnedFile openLogged(const char* path, const char* mode) {
  OwnedFile file(fopen(path, mode));
  if (!file) rh_logger.errorLog("couldn't create logfile:%s", path);
  return file;
}

bool holdsLine(FILE* file, const char* text) {
  KTLinePieces pieces(file);
  while (const char* piece = pieces.next())
    if (strcmp(piece, text) == 0) return true;
  return false;
}

void writeLine(const char* path, const char* mode, const char* text) {
  const OwnedFile file(openLogged(path, mode));
  if (!file) return;
  fprintf(file.get(), "%s\n", text);
  rh_logger.debugLog("WritetoLog");
  rh_logger.debugLog("text:%s\n", text);
}

void writeUnlessThere(const char* path, const char* text) {
  if (!exists(path)) return writeLine(path, "wb", text);
  {
    const OwnedFile file(openLogged(path, "rb"));
    if (!file || holdsLine(file.get(), text)) return;
  }
  writeLine(path, "ab", text);
}

}  // namespace

void writeToLogGlobal(const char* path, const char* text) {
  if (!path || !text) return;
  try {
    KTSemaphore semaphore(resourceLockName(path, ""), true);
    if (!takeLock(semaphore)) {
      safety::logError("The log file " + quoted(path) + " could not be locked.");
      return;
    }
    writeUnlessThere(path, text);
  } catch (const KTException& failure) {  // the lock file could not be removed, and holds up whoever comes next
    safety::logError(failure.m_message);
  }
}
