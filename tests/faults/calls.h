// The system calls at which a fault may strike: those that change files, start a process or run a program, and, for the
// long run, those that only read. Of both tables of an x86 kernel: the 32-bit build starts 64-bit programs. The calls
// that reach the system log are none of them, nor is faccessat2: the harness itself looks with it.

#ifndef TESTS_FAULTS_CALLS_H
#define TESTS_FAULTS_CALLS_H

#include <linux/filter.h>
#include <linux/seccomp.h>

#include <vector>

enum class CallKind { changes, closes, starts, reads };

// Which calls of a number are meant.
enum class CallFilter {
  all,
  writingFlags1,  // an open whose flags, in that argument, write, make or cut
  writingFlags2,
  descriptor,  // on another descriptor than standard input
  cloning,     // an ioctl that shares the blocks of another file
  written,     // on a file that was opened for writing: the kernel's filter cannot tell, the supervisor does
};

struct Call {
  int number;
  const char* name;  // the same for all calls that do the same: renameat2 is "rename"
  CallKind kind;
  CallFilter filter;
  int path;  // which argument names the file; kDescriptor: the first is its descriptor, kNoFile: there is none
};

constexpr int kDescriptor = -1;
constexpr int kNoFile = -2;

// A call that is made only to switch the watching on and off, and what it is made with.
constexpr int kSwitchArgument = -2;

// The program for the kernel that tells a supervisor of these calls.
std::vector<sock_filter> filterOf(bool withReading);

// The call that was told of.
const Call& callOf(const seccomp_data& data);

// What kind it is: an open may write or only read.
CallKind kindOf(const Call& call, const seccomp_data& data);

// Whether a call of this kind may really fail so, once, or from there on. A close tells only of what could not be
// written; and signals end some time: a program may begin anew with each that interrupts its reading (diff, when it
// reads what memory it has), and one that goes on refusing its calls keeps it for ever.
bool canFail(CallKind kind, int error, bool onwards);

bool isSwitch(const seccomp_data& data);

// The tables, and the numbers of the switch.
const std::vector<Call>& calls64();
const std::vector<Call>& calls32();
int switchNumber64();
int switchNumber32();

#endif
