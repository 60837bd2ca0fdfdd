// The points of an operation at which it may be interrupted: before each call that changes a file or a directory, or
// brings a file system to the disk; before and after each shell command, and in the middle of a copy and of a removal.

#ifndef TESTS_FAULTS_DISKS_POINTS_H
#define TESTS_FAULTS_DISKS_POINTS_H

#include <functional>

#include "fakes/fakes.h"

// What happens at the point.
enum class Interruption {
  ends,   // the operation: `onStop` does not come back
  passes  // something around it changes, and it goes on; the middle of a command is then no point
};

// While it lives, points are counted from 0, and at the one of number `stop` `onStop` is called. What is copied and
// removed must be a directory that holds a file "first" of more than 64 KiB, and others.
class Points {
 public:
  Points(Interruption interruption, unsigned int stop, const std::function<void()>& onStop);

  void pass();  // one more point, for the end of the operation
  unsigned int passed() const { return number; }

 private:
  void passInTheMiddleOf(const std::string& command);
  int run(const std::string& command);

  Interruption kind;
  unsigned int stopAt;
  std::function<void()> stopped;
  unsigned int number = 0;
  FakeShell shell;
  CallWatch calls;
};

#endif
