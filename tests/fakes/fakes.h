// Fakes at the libc seam. The test executable defines statvfs, system, vsyslog, rand, nanosleep, time and a few
// file calls; the library finds these definitions before libc's. While no fake is announced, each call goes to
// libc. A fake is announced by making the object and withdrawn by its end; one of a kind at a time.

#ifndef TESTS_FAKES_FAKES_H
#define TESTS_FAKES_FAKES_H

#include <dlfcn.h>
#include <sys/statvfs.h>

#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

// libc's own function, the one that the fake stands in for.
template <typename Function>
Function realFunction(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Answers statvfs. A path that no test announced fails the test.
class FakeDisks {
 public:
  using Answer = std::function<int(struct statvfs*)>;  // what statvfs returns; sets errno when it is -1

  FakeDisks();
  ~FakeDisks();
  static FakeDisks* announced();

  // 100000 blocks, of which `percent` are used; free and available counts are equal. The inode counts differ from
  // path to path, so that two paths never look like one file system by chance.
  void setUsed(const std::string& path, double percent);
  void set(const std::string& path, fsblkcnt_t blocks, fsblkcnt_t available);
  void set(const std::string& path, const struct statvfs& space);
  void fail(const std::string& path, int error);
  void answerWith(const std::string& path, const Answer& answer);
  int calls(const std::string& path) const;  // how often the path was asked for

  int answer(const char* path, struct statvfs* out);

 private:
  std::map<std::string, Answer> answers;
  std::map<std::string, int> counts;
};

// Records the commands given to system. Each is run for real unless `answer` is set, which then gives the status
// (and may call runReal).
class FakeShell {
 public:
  FakeShell();
  ~FakeShell();
  static FakeShell* announced();
  static int runReal(const std::string& command);

  std::vector<std::string> commands;
  std::function<int(const std::string& command)> answer;
};

// One call of vsyslog, with the state of the log connection at that time.
struct LogLine {
  int priority;
  std::string text;    // expanded
  std::string format;  // as it was passed
  std::string ident;   // of the last openlog; empty before
  int option;
  int facility;
};

// Records the log; nothing reaches the real one.
class FakeSyslog {
 public:
  FakeSyslog();
  ~FakeSyslog();
  static FakeSyslog* announced();

  std::vector<std::string> texts() const;              // of all lines, in order
  std::vector<std::string> texts(int priority) const;  // of the lines of one priority

  // False: a format other than "%s" is the text itself, since what it would expand to may be undefined.
  bool expandsFormats = true;
  std::vector<LogLine> lines;
  std::vector<std::string> events;  // "openlog IDENT OPTION FACILITY", "closelog", "vsyslog PRIORITY TEXT"
};

// Answers time, nanosleep and rand. Sleeping takes no real time and moves `now` on.
class FakeClock {
 public:
  FakeClock();  // starts at the real time
  ~FakeClock();
  static FakeClock* announced();

  time_t now;
  long milliseconds = 0;          // slept beyond `now`
  std::vector<long> pauses;       // milliseconds of each nanosleep, in order
  std::function<void()> onSleep;  // called in each nanosleep, after it was recorded
  std::vector<int> randoms;       // what rand gives next; when empty, 0
  int randomCalls = 0;
};

// Makes a file call fail. While it lives, calls of `function` whose path contains `pathPart` return the failure
// with `error` set, after `skip` such calls have passed, and for `times` calls (-1: all).
// Functions: open unlink mkdir rmdir remove rename utime fopen stat access symlink linkat opendir readdir
// "stat" is fstatat too, by the path that it names. readdir has the path of the directory, with a "/" behind it.
class FailingCall {
 public:
  FailingCall(const std::string& function, int error, const std::string& pathPart = "", int skip = 0, int times = -1);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  int failed() const { return failures; }  // how many calls it made fail

  // For the fakes: whether this call fails; errno is then set.
  static bool strikes(const char* function, const char* path);

 private:
  bool matches(const std::string& called, const std::string& path);

  std::string function;
  int error;
  std::string pathPart;
  int skip;
  int times;
  int failures = 0;
};

// What a readdir that gives an entry leaves in errno, where only the end of a directory is told by it; 0: nothing.
extern int errnoBehindEntries;

// Records the file calls of the above functions, but for readdir, and the creation and removal of lock files, in order.
class CallWatch {
 public:
  CallWatch();
  ~CallWatch();
  CallWatch(const CallWatch&) = delete;
  CallWatch& operator=(const CallWatch&) = delete;

  // "+NAME" for each lock file made, "-NAME" for each removed; NAME is what follows "semaphore_".
  std::vector<std::string> locks;
  // "FUNCTION PATH" of every call, failed or not, before it is made.
  std::vector<std::string> calls;
  // Called at each of them, when it is set.
  std::function<void(const std::string& function)> onCall;

  static void note(const char* function, const char* path);
  static void noteLock(char sign, const char* path);
};

// Turns strcoll around: a machine may have no locale in which names come in another order than their bytes.
class ReversedCollation {
 public:
  ReversedCollation();
  ~ReversedCollation();
  ReversedCollation(const ReversedCollation&) = delete;
  ReversedCollation& operator=(const ReversedCollation&) = delete;
};

#endif
