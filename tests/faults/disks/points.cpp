#include "faults/disks/points.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <set>

namespace {

bool changesFiles(const std::string& function) {
  static const std::set<std::string> functions = {"mkdir",  "rename", "renameat2", "unlink",
                                                  "remove", "rmdir",  "syncfs",    "utime"};
  return functions.count(function) > 0;
}

bool begins(const std::string& text, const std::string& beginning) { return text.rfind(beginning, 0) == 0; }

}  // namespace

Points::Points(Interruption interruption, unsigned int stop, const std::function<void()>& onStop)
    : kind(interruption), stopAt(stop), stopped(onStop) {
  shell.answer = [this](const std::string& command) { return run(command); };
  calls.onCall = [this](const std::string& function) {
    if (changesFiles(function)) pass();
  };
}

void Points::pass() {
  if (number++ == stopAt) stopped();
}

// A copy ends at its first 64 KiB, a removal behind the first file.
void Points::passInTheMiddleOf(const std::string& command) {
  if (kind != Interruption::ends) return;
  if (number == stopAt) {
    if (begins(command, "cp ")) FakeShell::runReal("exec 2>/dev/null; ulimit -c 0; ulimit -f 128; " + command);
    if (begins(command, "rm ")) FakeShell::runReal(command + "/first");
  }
  pass();
}

int Points::run(const std::string& command) {
  pass();
  passInTheMiddleOf(command);
  const int status = FakeShell::runReal(command);
  pass();
  return status;
}

// Calls that the fakes do not know.
extern "C" {

int syncfs(int descriptor) noexcept {
  CallWatch::note("syncfs", std::to_string(descriptor).c_str());
  static const auto real = realFunction<int (*)(int)>("syncfs");
  return real(descriptor);
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned int flags) noexcept {
  CallWatch::note("renameat2", from);
  static const auto real = realFunction<int (*)(int, const char*, int, const char*, unsigned int)>("renameat2");
  return real(fromDirectory, from, toDirectory, to, flags);
}
}
