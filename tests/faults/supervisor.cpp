#include "faults/supervisor.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "faults/calls.h"

namespace {

// An operation that makes no call for so long does not end; no operation of the scenarios takes a second.
constexpr int kHungMilliseconds = 30000;
// Nor does one that makes so many; the longest makes less than a thousand.
constexpr unsigned int kHungPoints = 50000;
// A call that is interrupted is tried again, by the C library and the tools without end. Signals end some time.
constexpr unsigned int kInterruptionsInARow = 7;

[[noreturn]] void fail(const char* what) { throw std::runtime_error(std::string(what) + ": " + strerror(errno)); }

class Descriptor {
 public:
  explicit Descriptor(int opened) : number(opened) {}
  ~Descriptor() { close(number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const int number;
};

// A message with room for one descriptor.
struct Message {
  Message() {
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
  }

  char byte = 0;
  iovec part = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
};

void sendDescriptor(int socket, int descriptor) {
  Message m;
  cmsghdr* header = CMSG_FIRSTHDR(&m.message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof descriptor);
  memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  if (sendmsg(socket, &m.message, 0) != 1) fail("sendmsg");
}

int receiveDescriptor(int socket) {
  Message m;
  int descriptor = -1;
  if (recvmsg(socket, &m.message, MSG_CMSG_CLOEXEC) != 1) fail("the process did not come to its operation");
  memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&m.message)), sizeof descriptor);
  return descriptor;
}

int installFilter(bool withReading) {
  std::vector<sock_filter> program = filterOf(withReading);
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) fail("prctl");
  const long listener = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter);
  if (listener < 0) fail("seccomp");
  return static_cast<int>(listener);
}

// Its output is for nobody; its group is what a kill takes.
void becomeOperation() {
  setpgid(0, 0);
  const int nowhere = open("/dev/null", O_RDWR);
  for (int standard = 0; standard <= 2; ++standard) dup2(nowhere, standard);
  if (nowhere > STDERR_FILENO) close(nowhere);
}

[[noreturn]] void runBody(const std::function<void()>& body) {
  try {
    body();
  } catch (...) {
    _exit(1);  // a body tells of exceptions in its own way
  }
  _exit(0);
}

std::string programOf(pid_t process) {
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
  return name.rfind("faults_", 0) == 0 ? "library" : name;
}

std::string linkTarget(const std::string& link) {
  char target[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return {target, length > 0 ? static_cast<size_t>(length) : 0};
}

std::string descriptorOf(pid_t process, const char* directory, uint64_t descriptor) {
  return "/proc/" + std::to_string(process) + directory + std::to_string(static_cast<int>(descriptor));
}

std::string fileBehind(pid_t process, uint64_t descriptor) {
  return linkTarget(descriptorOf(process, "/fd/", descriptor));
}

// Whether it is a regular file that is open for writing.
bool isWrittenFile(pid_t process, uint64_t descriptor) {
  struct stat status;
  if (stat(descriptorOf(process, "/fd/", descriptor).c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  std::ifstream info(descriptorOf(process, "/fdinfo/", descriptor));
  std::string word;
  int flags = 0;
  while (info >> word && word != "flags:") continue;
  info >> std::oct >> flags;
  return (flags & O_ACCMODE) != O_RDONLY;
}

// By its file, since a pointer of a 32-bit process does not reach all of a 64-bit one. Up to the end of a page: behind
// it there may be nothing.
std::string textAt(pid_t process, uint64_t address) {
  constexpr uint64_t kPage = 4096;
  const Descriptor memory(open(("/proc/" + std::to_string(process) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  char text[2 * kPage + 1] = "";
  for (const uint64_t size : {2 * kPage - address % kPage, kPage - address % kPage}) {
    const ssize_t got = pread64(memory.number, text, static_cast<size_t>(size), static_cast<off64_t>(address));
    if (got <= 0) continue;
    text[got] = '\0';
    return text;
  }
  return "";
}

std::string pathOf(const seccomp_notif& told, const Call& call) {
  const auto process = static_cast<pid_t>(told.pid);
  if (call.path == kNoFile) return "";
  if (call.path == kDescriptor) return fileBehind(process, told.data.args[0]);
  const std::string path = textAt(process, told.data.args[call.path]);
  const bool belowDescriptor = call.path == 1 && !path.empty() && path[0] != '/';
  return belowDescriptor ? fileBehind(process, told.data.args[0]) + "/" + path : path;
}

// Which of the small files it is; empty: a resource, a directory.
const char* placeOf(const std::string& path) {
  constexpr const char* kPlaces[][2] = {{"/semaphore_", " lock"}, {"/locks", " lock"},  {"/.dirty", " marks"},
                                        {"/.count", " sizes"},    {"/.log", " log"},    {"/lost+found", " unseen"},
                                        {"/legacy", " legacy"},   {"/rep", " resource"}};
  for (const auto& [part, name] : kPlaces)
    if (path.find(part) != std::string::npos) return name;
  return "";
}

class Supervisor {
 public:
  Supervisor(pid_t operation, int listener, const Fault& f, const Watch& w)
      : process(operation), calls(listener), fault(f), watch(w) {}

  Observed follow() {
    const Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    while (!killed) {
      pollfd wanted[] = {{calls, POLLIN, 0}, {end.number, POLLIN, 0}};
      const int ready = poll(wanted, 2, kHungMilliseconds);
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0 || seen.points > kHungPoints) {
        seen.hung = true;
        break;
      }
      if (wanted[0].revents & POLLIN)
        hear();
      else
        break;
    }
    return seen;
  }

 private:
  void hear() {
    seccomp_notif told = {};
    if (ioctl(calls, SECCOMP_IOCTL_NOTIF_RECV, &told) != 0) return;  // it has gone meanwhile
    const int error = errorFor(told);
    if (killed) return;
    seccomp_notif_resp answer = {told.id, 0, -error, 0};
    if (error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ioctl(calls, SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }

  // 0: it passes.
  int errorFor(const seccomp_notif& told) {
    if (isSwitch(told.data)) {
      if (static_cast<pid_t>(told.pid) == process) watching = !watching;
      return 0;
    }
    if (!watching) return 0;
    const Call& call = callOf(told.data);
    if (isOutput(told, call) || isOtherClose(told, call)) return 0;
    ++seen.points;
    seen.kinds.push_back(kindOf(call, told.data));
    if (watch.record) seen.calls.push_back(nameOf(told, call));
    return strikes(told, call) ? strike(told, call) : 0;
  }

  // What a tool says to the terminal changes nothing.
  static bool isOutput(const seccomp_notif& told, const Call& call) {
    if (call.filter != CallFilter::descriptor || told.data.args[0] > STDERR_FILENO) return false;
    return fileBehind(static_cast<pid_t>(told.pid), told.data.args[0]) == "/dev/null";
  }

  // It says nothing of what was written.
  static bool isOtherClose(const seccomp_notif& told, const Call& call) {
    return call.filter == CallFilter::written && !isWrittenFile(static_cast<pid_t>(told.pid), told.data.args[0]);
  }

  bool strikes(const seccomp_notif& told, const Call& call) {
    if (fault.strike == Strike::none || seen.points < fault.point) return false;
    if (seen.points == fault.point) {
      kind = kindOf(call, told.data);
      seen.struck = nameOf(told, call);
      return true;
    }
    if (fault.strike != Strike::onwards || kindOf(call, told.data) != kind) return false;
    return fault.error != EINTR || ++interruptions % (kInterruptionsInARow + 1) != 0;
  }

  int strike(const seccomp_notif& told, const Call& call) {
    if (fault.strike == Strike::kill) {
      ::kill(-process, SIGKILL);
      killed = true;
      return 0;
    }
    if (strcmp(call.name, "unlink") == 0 && pathOf(told, call).find("/semaphore_") != std::string::npos)
      seen.removalRefused = true;
    if (call.kind == CallKind::closes && static_cast<pid_t>(told.pid) == process) ++seen.closesRefused;
    return fault.error;
  }

  static std::string nameOf(const seccomp_notif& told, const Call& call) {
    std::string name = programOf(static_cast<pid_t>(told.pid)) + ":" + call.name;
    if (call.path != kNoFile && kindOf(call, told.data) != CallKind::starts) name += placeOf(pathOf(told, call));
    return name;
  }

  const pid_t process;
  const int calls;
  const Fault& fault;
  const Watch& watch;
  Observed seen;
  bool watching = false;
  bool killed = false;
  CallKind kind = CallKind::changes;
  unsigned int interruptions = 0;
};

// Waits for the process and for what it has left, which is killed.
void reap(pid_t process, Observed& seen) {
  if (seen.hung) kill(-process, SIGKILL);
  while (waitpid(process, &seen.status, 0) < 0 && errno == EINTR) continue;
  int status = 0;
  const pid_t left = waitpid(-process, &status, WNOHANG);
  seen.childrenLeft = left >= 0;
  if (left == 0) kill(-process, SIGKILL);
  while (waitpid(-process, &status, 0) > 0) continue;
}

}  // namespace

void switchWatching() { syscall(SYS_getpgid, kSwitchArgument); }

Observed supervise(const std::function<void()>& body, const Fault& fault, const Watch& watch) {
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);  // what a killed process has started is handed to this one
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
  const pid_t process = fork();
  if (process < 0) fail("fork");
  if (process == 0) {
    close(ends[0]);
    becomeOperation();
    const int listener = installFilter(watch.reading);
    sendDescriptor(ends[1], listener);
    close(listener);
    close(ends[1]);
    runBody(body);
  }
  close(ends[1]);
  const Descriptor socket(ends[0]);
  const Descriptor listener(receiveDescriptor(socket.number));
  Observed seen = Supervisor(process, listener.number, fault, watch).follow();
  reap(process, seen);
  return seen;
}

Observed runAlone(const std::function<void()>& body) {
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  const pid_t process = fork();
  if (process < 0) fail("fork");
  if (process == 0) {
    becomeOperation();
    runBody(body);
  }
  setpgid(process, process);
  const Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  pollfd wanted = {end.number, POLLIN, 0};
  Observed seen;
  seen.hung = poll(&wanted, 1, kHungMilliseconds) == 0;
  reap(process, seen);
  return seen;
}
