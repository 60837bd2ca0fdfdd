#include "safety.h"

#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

#include "KTHooks.h"
#include "filestatus.h"
#include "librarylog.h"
#include "lockowner.h"
#include "paths.h"
#include "resourceid.h"

namespace safety {

namespace {

// For the shell: nothing inside has a meaning to it, but the quote itself.
std::string inQuotes(const std::string& path) {
  std::string text = "'";
  for (const char c : path) {
    if (c == '\'')
      text += "'\\''";
    else
      text += c;
  }
  return text += '\'';
}

std::string command(const char* plain, const char* safe, const std::string& path) {
  return isOn() ? safe + inQuotes(path) : plain + path;
}

std::string command(const char* plain, const char* safe, const std::string& path, const std::string& other) {
  return command(plain, safe, path) + " " + (isOn() ? inQuotes(other) : other);
}

std::string formatted(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return format;
  std::vector<char> text(static_cast<size_t>(length) + 1);
  va_copy(again, args);
  vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  return {text.data(), static_cast<size_t>(length)};
}

bool isLink(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }

std::string escaped(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string shown;
  for (const char c : text) {
    if (c == '\n')
      shown += "\\n";
    else if (isControl(c))
      shown.append("\\x").append({kDigits[c >> 4], kDigits[c & 15]});
    else
      shown += c;
  }
  return shown;
}

// The hooks are called where nothing may be thrown: without memory they add nothing.

std::optional<std::string> logText(const char* format, va_list args) {
  if (!isOn()) return std::nullopt;
  try {
    std::string text = formatted(format, args);
    if (!text.empty() && text.back() == '\n') text.pop_back();  // it only ends the line
    return escaped(text);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<bool> makeLock(const std::string& lockFile) {
  try {
    return isOn() ? makeSignedLock(lockFile) : std::nullopt;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool lockTakenOver(const std::string& lockFile) {
  try {
    return isOn() && takeOverLock(lockFile);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// Tried once more: a lock that stays holds everybody up as long as this process lives.
bool lockRemovedAfterAll(const std::string& lockFile) {
  return isOn() && (unlink(lockFile.c_str()) == 0 || errno == ENOENT);
}

[[maybe_unused]] const bool hooked = [] {
  ktHooks = {logText, makeLock, lockTakenOver, lockRemovedAfterAll};
  return true;
}();

}  // namespace

bool isOn() {
  const char* value = getenv("KT_SAFE");
  return value && strcmp(value, "1") == 0;
}

std::string copyCommand(const std::string& origin, const std::string& copy) {
  return command("cp -r ", "cp -a -- ", origin, copy);
}

std::string compareCommand(const std::string& origin, const std::string& copy) {
  return command("diff -q -r ", "diff -q -r --no-dereference -- ", origin, copy);
}

std::string removeCommand(const std::string& path) { return command("rm -fr ", "rm -fr -- ", path); }

std::string measureCommand(const std::string& path, const std::string& output) {
  if (isOn()) return "du -sk -- " + inQuotes(path) + " > " + inQuotes(output);
  return "du -sk \"" + path + "\" > " + output;
}

bool movesOutOfSight() { return isOn(); }

bool clearsAfterFailedMoves() { return isOn(); }

bool removesLeftCopies() { return isOn(); }

bool dropsContainedCopies() { return isOn(); }

bool mayBeThere() { return errno != ENOENT && errno != ENOTDIR && errno != ENAMETOOLONG && isOn(); }

bool isThere(const char* path) {
  if (!isOn()) return exists(path);
  struct stat status;
  return path && (lstat(path, &status) == 0 || mayBeThere());
}

bool mayMerge(const char* origin, const char* destination) {
  if (!isOn()) return true;
  struct stat from;
  struct stat into;
  return lstat(origin, &from) == 0 && lstat(destination, &into) == 0 && S_ISDIR(into.st_mode) &&
         !isSameInode(from, into);
}

int examine(const char* path, struct stat* status) {
  if (!isOn()) return myStat(path, status);
  return lstat(path, status) == 0 ? 0 : statFailed(path);
}

void restoreTimes(const char* path, const struct stat& status) {
  if (isOn()) {
    const timespec times[] = {status.st_atim, status.st_mtim};
    utimensat(AT_FDCWD, path, times, AT_SYMLINK_NOFOLLOW);
  } else {
    const utimbuf times = {status.st_atime, status.st_mtime};
    utime(path, &times);
  }
}

void logError(const std::string& text) {
  if (isOn())
    rh_logger.errorLog("%s", text.c_str());
  else
    rh_logger.errorLog(text.c_str());
}

void logDebug(const std::string& text) {
  if (isOn())
    rh_logger.debugLog("%s", text.c_str());
  else
    rh_logger.debugLog(text.c_str());
}

bool replacesStateFiles() { return isOn(); }

std::string markOf(const char* id) {
  std::string mark = nameOf(id);
  const bool isOneLine = mark.find('\n') == std::string::npos;  // asked first: nearly every id is one
  if (!isOneLine && isOn()) std::replace(mark.begin(), mark.end(), '\n', '/');
  return mark;
}

bool refuses(const char* id) {
  if ((hasName(id) && !strchr(id, '.')) || !isOn()) return false;  // in this order, since most ids have no dot
  if (!hasName(id)) return true;
  const std::string closed = std::string("/").append(id).append("/");
  return closed.find("/./") != std::string::npos || closed.find("/../") != std::string::npos;
}

std::string nameOf(const char* id) {
  const size_t length = strlen(id);
  if (length == 0 || (id[0] != '/' && id[length - 1] != '/') || !isOn()) return id;
  return hasName(id) ? withoutOuterSlashes(id) : id;
}

bool leadsNowhere(const std::string& legacyDirectory, const std::string& id) {
  if (!isOn()) return false;
  for (size_t slash = id.find('/'); slash != std::string::npos; slash = id.find('/', slash + 1))
    if (isLink(legacyDirectory + "/" + id.substr(0, slash))) return true;
  return false;
}

bool findsFailedImports() { return isOn(); }

bool locksForTimes() { return isOn(); }

bool marksResources() { return isOn(); }

bool freesWhatWasSeenWhole() { return isOn(); }

bool endsRepeatedRounds() { return isOn(); }

bool isOneMount(const std::string& path, const std::string& other) {
  if (!isOn()) return false;
  struct stat first;
  struct stat second;
  return stat(path.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && isSameInode(first, second);
}

}  // namespace safety
