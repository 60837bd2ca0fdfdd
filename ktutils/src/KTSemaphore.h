// KTSemaphore: a named lock between processes. The lock is an empty file, created exclusively; that
// the file exists is the whole message. It names no owner, so a process that dies while holding it
// leaves the others to their time-outs until an operator removes it. Advisory: it stops only code that
// takes the same name in the same directory. Waiting is sleep and retry, without fairness; the lock is
// not re-entrant. An object belongs to one thread; exclusion holds between all processes that see the
// directory.

#ifndef KTUTILS_KTSEMAPHORE_H
#define KTUTILS_KTSEMAPHORE_H

#include <string>

#include "KTApi.h"

class KT_API KTSemaphore {
 public:
  // The lock file is directory + "/semaphore_" + name. The directory is the first of: the one given,
  // when it is not empty; the environment variable LOCK_VAR, when it is set, be it empty; ".". With
  // `unlockAtEnd` the destructor releases the lock. Neither constructor touches the file system.
  KTSemaphore(const std::string& lockName, bool unlockAtEnd);
  KTSemaphore(const std::string& lockName, const std::string& lockDirectory, bool unlockAtEnd);
  // Throws what `unlock` throws; when it runs because another exception is on its way, that one goes on
  // alone: two at once would end the process.
  ~KTSemaphore() noexcept(false);  // NOLINT(bugprone-exception-escape)
  KTSemaphore(const KTSemaphore&) = delete;
  KTSemaphore& operator=(const KTSemaphore&) = delete;

  // One attempt. True when taken, false when the lock is held, by this object or another. Throws
  // KTIOException with errno when the lock file cannot be made for any other reason.
  bool lockResource();
  // Tries until the lock is taken and returns true.
  //   timeout  seconds of pauses before KTTimeoutException; 0 waits for ever, a negative one tries once
  // Throws what `lockResource` throws. Draws the pauses from rand(), which the library never seeds.
  bool lock(int timeout);
  // Removes the lock file if this object made it and still holds it; otherwise does nothing. A file that
  // is gone already is fine. Throws KTIOException with errno when it cannot be removed; the lock then
  // stays this object's.
  void unlock();

  std::string name;
  std::string directory;
  bool autoUnlock;
  bool locked = false;
  bool lockedElsewhere = false;  // ownership in another form; nothing sets it

 private:
  KT_LOCAL bool makeLockFile() const;
  KT_LOCAL bool makePlainFile() const;

  std::string lockFile;  // its path

  // Uncaught exceptions when the object was made; the destructor throws only when there are no more than then.
  int exceptionsAtStart;
};

#endif
