// How every room names and takes an inter-process lock.

#ifndef REPOSITORYHANDLER_LOCKING_H
#define REPOSITORYHANDLER_LOCKING_H

#include <algorithm>
#include <string>
#include <string_view>

#include "KTException.h"
#include "KTSemaphore.h"

// How long a lock is waited for before it counts as not taken.
constexpr int kLockTimeoutSeconds = 30;

// The name of a resource's lock; that of a repository, or of a file that has its own, has an empty resource.
inline std::string resourceLockName(std::string_view repository, std::string_view resource) {
  constexpr std::string_view kPrefix = "KTRepositoryHandler-";
  std::string name;
  name.reserve(kPrefix.size() + repository.size() + 1 + resource.size());
  name.append(kPrefix).append(repository).append("-").append(resource);
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

// How to ask once, without waiting.
constexpr int kNoWait = -1;

// True when the lock was taken. A time-out and a lock file that cannot be made are both answers here, not
// exceptions: the caller goes on without the locked step. The semaphore releases the lock at its end.
inline bool takeLock(KTSemaphore& semaphore, int timeout = kLockTimeoutSeconds) {
  try {
    return semaphore.lock(timeout);
  } catch (const KTException&) {
    return false;
  }
}

#endif
