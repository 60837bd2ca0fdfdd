// KTDirtyFlagHandler: the set of "dirty" resources of one repository, those of which copies may lie on
// several mounts because a mount was away when they were made or moved. The set is loaded once from the file
// ".dirty" in the repository's root and written through on every change. Each operation holds the set's own
// lock, which is always the inner one; each process works on its own copy, and the last writer's set stands
// in the file. In the safe mode each operation works on what the file says, and the file is replaced whole; while it
// cannot be read, every resource is dirty and no change can be written. An object
// belongs to one thread. Every operation that takes the lock throws KTIOException when the lock file cannot be removed
// at its end; its work is done then.

#ifndef REPOSITORYHANDLER_KTDIRTYFLAGHANDLER_H
#define REPOSITORYHANDLER_KTDIRTYFLAGHANDLER_H

#include <array>
#include <cstdint>
#include <set>
#include <string>

#include "KTApi.h"

class KTSemaphore;

class KT_API KTDirtyFlagHandler {
 public:
  // An empty set, of no repository yet.
  KTDirtyFlagHandler();
  ~KTDirtyFlagHandler();
  // Names the file after the repository at `repository` and adds what it holds to the set. A missing file
  // adds nothing; so does a lock that is not taken within 30 seconds (logged). Throws KTAssertionException for
  // a null, or when the file is there and cannot be opened.
  //
  // The file holds one id per line, sorted by bytes. It is read in pieces of 1023 bytes, each an id of its
  // own, an empty line being the empty id.
  void setRepository(const char* repository);
  // Whether `id` is in the set; true as well when the lock is not taken within 30 seconds (logged), so that
  // the caller looks everywhere. Throws KTAssertionException for a null.
  bool isDirty(const char* id);
  // Puts `id` in the set or takes it out, and rewrites the file when that changed the set. Does nothing when
  // the lock is not taken within 30 seconds (logged). Throws KTAssertionException for a null, or when the file
  // cannot be opened: the set in memory has changed then, and is written with the next change; in the safe
  // mode also when a mark that is not in the file is set again.
  void setDirty(const char* id, bool dirty);
  // Empties the set and rewrites the file; otherwise as setDirty.
  void clearDirtySet();
  // Writes the set over the file. The caller holds the set's lock. Returns what closing the file returned, 0
  // on success. Throws KTAssertionException when the file cannot be opened.
  int writeSetFile();

  std::set<std::string> dirtySet;
  std::string setFile;

 private:
  KT_LOCAL bool lockSet(KTSemaphore& semaphore) const;
  KT_LOCAL bool load();
  KT_LOCAL bool catchUp();
  KT_LOCAL bool replaceSetFile();

  std::string lockName;  // of setFile; each name of a walk takes it

  // Safe mode only: what this process knows of the file, and has not got into it.
  // The first is the state that the set was read from, zero when it is to be read again: in widths that are the same
  // for every caller, as those of a struct stat are not.
  std::array<int64_t, 5> known = {};
  std::set<std::string> unsaved;
  bool isNew = false;    // there was no file when this process looked
  bool caughtUp = true;  // otherwise the file holds more than this process knows, and is not replaced
};

#endif
