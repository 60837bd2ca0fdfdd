// Runs an operation in a process of its own, is told by the kernel of each call at which a fault may strike, of that
// process and of everything it starts, numbers them, and makes one of them the fault: the call is refused with an
// error, or the whole process group is killed instead of it. One run at a time.

#ifndef TESTS_FAULTS_SUPERVISOR_H
#define TESTS_FAULTS_SUPERVISOR_H

#include <functional>
#include <string>
#include <vector>

#include "faults/calls.h"

enum class Strike {
  none,
  once,     // one call is refused
  onwards,  // so are all behind it of its kind: those that change files, close them, or start programs
  kill,
};

struct Fault {
  Strike strike = Strike::none;
  unsigned int point = 0;  // the number of the call, from 1
  int error = 0;
};

struct Observed {
  unsigned int points = 0;         // calls that were numbered
  std::string struck;              // "PROGRAM:CALL PLACE" of the fault; empty when the operation ended before
  std::vector<std::string> calls;  // the same for all calls, when asked for
  std::vector<CallKind> kinds;     // of all calls
  bool removalRefused = false;     // of a lock file: the fault itself keeps it there
  long closesRefused = 0;          // by the process itself: the fault itself keeps the descriptor
  bool hung = false;
  bool childrenLeft = false;
  int status = 0;  // of the process, as waitpid gives it
};

struct Watch {
  bool reading = false;  // calls that only read, too
  bool record = false;   // Observed::calls
};

// In the process: the calls between two of these are numbered.
void switchWatching();

// Runs `body` in a forked process, which ends by _exit.
Observed supervise(const std::function<void()>& body, const Fault& fault, const Watch& watch);

// The same without a supervisor's eyes: nothing is numbered.
Observed runAlone(const std::function<void()>& body);

#endif
