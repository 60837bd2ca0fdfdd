#include "lockowner.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KTOwned.h"
#include "filestatus.h"
#include "librarylog.h"

namespace {

constexpr mode_t kLockFileMode = 0660;  // as KTSemaphore makes them
constexpr size_t kMostBytes = 1023;     // of what is read; an owner is shorter

std::string contentOf(int descriptor) {
  char bytes[kMostBytes];
  const ssize_t size = pread(descriptor, bytes, sizeof bytes, 0);
  return {bytes, size > 0 ? static_cast<size_t>(size) : 0};
}

// The first bytes of a small file of the kernel; empty when it cannot be read.
std::string kernelText(const char* path) {
  const OwnedDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  return file.number < 0 ? "" : contentOf(file.number);
}

// Distinct for each process id namespace of a running kernel, and each time namespace in it, which has processes start
// at other times. A kernel that knows no time namespaces has one time.
std::string namespacesOfThis() {
  struct stat processes;
  struct stat times;
  if (stat("/proc/self/ns/pid", &processes) != 0) return "";
  const std::string first = std::to_string(processes.st_ino) + "-";
  if (stat("/proc/self/ns/time", &times) == 0) return first + std::to_string(times.st_ino);
  return errno == ENOENT ? first + "0" : "";
}

// Whether /proc shows the caller's process id namespace: it may be that of another one, whose processes have other ids.
bool showsOwnNamespace() {
  char process[16];
  const ssize_t size = readlink("/proc/self", process, sizeof process);
  return size > 0 && std::string(process, static_cast<size_t>(size)) == std::to_string(getpid());
}

// In ticks after the start of the kernel; empty for a process that is not there or cannot be looked at.
std::string startOf(const std::string& process) {
  if (!showsOwnNamespace()) return "";
  const std::string text = kernelText(("/proc/" + process + "/stat").c_str());
  // The name in parentheses may hold anything; behind it the start is the 20th field.
  size_t at = text.rfind(')');
  for (int field = 0; field < 20 && at != std::string::npos; ++field) at = text.find(' ', at + 1);
  return at == std::string::npos ? "" : text.substr(at + 1, text.find(' ', at + 1) - at - 1);
}

// The kernel that runs now: another machine has another, and so has this one after a restart.
std::string runningKernel() {
  std::string text = kernelText("/proc/sys/kernel/random/boot_id");
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

struct Owner {
  std::string host;  // of a machine that was copied while it ran the kernel has the same number
  std::string kernel;
  std::string space;
  std::string process;
  std::string start;
};

// False for a file of the default mode, or one that another process is about to write.
bool ownerIn(const std::string& content, Owner& owner) {
  std::string* const parts[] = {&owner.host, &owner.kernel, &owner.space, &owner.process, &owner.start};
  size_t begin = 0;
  for (std::string* part : parts) {
    const size_t end = content.find(part == &owner.start ? '\n' : ' ', begin);
    if (end == std::string::npos || end == begin) return false;
    *part = content.substr(begin, end - begin);
    begin = end + 1;
  }
  return true;
}

// What a thread has found of its process, which stays the same as long as it runs. Plain memory: a thread that ends has
// nothing to give back.
struct Found {
  pid_t process;  // 0: nothing yet
  char line[128];
};

thread_local Found found;

// A forked process is another one, though it may get the id of one that its parent was forked from.
const bool isForgottenByForks = pthread_atfork(nullptr, nullptr, [] { found.process = 0; }) == 0;

// The line of an owner from behind the host. Of a process that cannot look at itself parts are empty, and the line is
// none that `ownerIn` reads.
std::string readOfThis() {
  std::string line;
  for (const std::string& part : {runningKernel(), namespacesOfThis(), std::to_string(getpid()), startOf("self")})
    line.append(" ").append(part);
  return line.append("\n");
}

std::string lineOfThis() {
  utsname names;
  const std::string host = uname(&names) == 0 ? names.nodename : "localhost";
  const pid_t process = getpid();
  if (found.process == process) return host + found.line;
  const std::string line = readOfThis();
  if (Owner self; isForgottenByForks && ownerIn(host + line, self) && line.size() < sizeof found.line) {
    memcpy(found.line, line.c_str(), line.size() + 1);
    found.process = process;
  }
  return host + line;
}

bool isGone(const Owner& owner, const Owner& self) {
  if (owner.host != self.host || owner.kernel != self.kernel || owner.space != self.space) return false;
  const auto process = static_cast<pid_t>(strtol(owner.process.c_str(), nullptr, 10));
  if (process <= 0 || std::to_string(process) != owner.process) return false;  // no process id: the file is damaged
  if (kill(process, 0) != 0 && errno == ESRCH) return true;
  const std::string start = startOf(owner.process);
  return !start.empty() && start != owner.start;  // its id has gone to another process
}

// What a longer line leaves behind the line feed is never read.
bool write(int descriptor, const std::string& line) {
  return pwrite(descriptor, line.data(), line.size(), 0) == static_cast<ssize_t>(line.size());
}

// Whether the lock file is still the one that was opened: its holder may have released it meanwhile.
bool isStillAt(const std::string& path, int descriptor) {
  struct stat opened;
  struct stat named;
  return fstat(descriptor, &opened) == 0 && stat(path.c_str(), &named) == 0 && isSameInode(opened, named);
}

bool isOfGoneProcess(int descriptor, const Owner& self, Owner& owner) {
  return ownerIn(contentOf(descriptor), owner) && isGone(owner, self);
}

// Whole before it has its name. None: the file system has no files without a name, or another step failed.
std::optional<bool> makeWhole(const std::string& lockFile, const std::string& owner) {
  const std::string directory = lockFile.substr(0, lockFile.rfind('/'));
  const OwnedDescriptor file(open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kLockFileMode));
  if (file.number < 0 || !write(file.number, owner)) return std::nullopt;
  const std::string nameless = "/proc/self/fd/" + std::to_string(file.number);
  if (linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, lockFile.c_str(), AT_SYMLINK_FOLLOW) == 0) return true;
  if (errno == EEXIST) return false;
  return std::nullopt;
}

// In two steps: between them the file is empty, as in the default mode.
std::optional<bool> makeAndSign(const std::string& lockFile, const std::string& owner) {
  const OwnedDescriptor file(open(lockFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kLockFileMode));
  if (file.number >= 0) {
    write(file.number, owner);
    return true;
  }
  if (errno == EEXIST) return false;
  return std::nullopt;
}

}  // namespace

std::optional<bool> makeSignedLock(const std::string& lockFile) {
  if (access(lockFile.c_str(), F_OK) == 0) return false;  // as while it is waited for: without the work below
  const std::string line = lineOfThis();
  if (const auto made = makeWhole(lockFile, line)) return made;
  return makeAndSign(lockFile, line);
}

bool takeOverLock(const std::string& lockFile) {
  const OwnedDescriptor file(open(lockFile.c_str(), O_RDWR | O_CLOEXEC));
  if (file.number < 0) return false;
  const std::string line = lineOfThis();
  Owner self;
  Owner owner;
  if (!ownerIn(line, self) || !isOfGoneProcess(file.number, self, owner)) return false;
  // Among those that see the same, the kernel's own lock decides; it ends with the descriptor. A name that is written
  // over stands for a process that lives: the next one that looks, under that lock, lets go.
  if (flock(file.number, LOCK_EX | LOCK_NB) != 0) return false;
  if (!isOfGoneProcess(file.number, self, owner)) return false;
  // Asked last: an operator may have removed the file until here, and then holds it who made it anew.
  if (!write(file.number, line) || !isStillAt(lockFile, file.number)) return false;
  rh_logger.infoLog("The lock %s was taken over from process %s, which is gone", lockFile.c_str(),
                    owner.process.c_str());
  return true;
}
