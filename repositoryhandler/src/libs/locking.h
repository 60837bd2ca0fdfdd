// How every room takes an inter-process lock.

#ifndef REPOSITORYHANDLER_LOCKING_H
#define REPOSITORYHANDLER_LOCKING_H

#include "KTException.h"
#include "KTSemaphore.h"

// How long a lock is waited for before it counts as not taken.
constexpr int kLockTimeoutSeconds = 30;

// True when the lock was taken. A time-out and a lock file that cannot be made are both answers here, not
// exceptions: the caller goes on without the locked step. The semaphore releases the lock at its end.
inline bool takeLock(KTSemaphore& semaphore) {
  try {
    return semaphore.lock(kLockTimeoutSeconds);
  } catch (const KTException&) {
    return false;
  }
}

#endif
