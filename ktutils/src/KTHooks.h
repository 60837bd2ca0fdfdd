// What may be added to the foundation from above, which it does not know. An empty hook adds nothing: the foundation
// does what its own headers say. Hooks are set once, before any thread starts, and hold for the whole process.

#ifndef KTUTILS_KTHOOKS_H
#define KTUTILS_KTHOOKS_H

#include <cstdarg>
#include <optional>
#include <string>

struct KTHooks {
  // The text to send to the system log, as it is, for a format and its arguments; none: send those. `args` is left as
  // it was.
  std::optional<std::string> (*logText)(const char* format, va_list args);
  // Makes a lock file in another way. False: it is there already; none: none was made, make it as ever. Must not throw.
  std::optional<bool> (*makeLock)(const std::string& lockFile);
  // A lock file is there already: whether it is the calling process's now, the holder having gone. Must not throw.
  bool (*lockTakenOver)(const std::string& lockFile);
  // A lock file could not be removed: whether it is gone now; false with errno. Must not throw.
  bool (*lockRemovedAfterAll)(const std::string& lockFile);
};

extern KTHooks ktHooks;

#endif
