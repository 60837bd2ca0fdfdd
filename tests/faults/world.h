// What an operation meets in place of libc: disks that are as full as its scenario says, a log of which it is only
// known whether it tells of an error, and sleeps that take no time.

#ifndef TESTS_FAULTS_WORLD_H
#define TESTS_FAULTS_WORLD_H

#include <string>
#include <vector>

// How full a disk is: so much, and so much more for each of these paths that is there. Percent.
struct Fill {
  std::string mount;
  double base;
  double step;
  std::vector<std::string> paths;
};

// In the process of the operation. A directory that is not named is a disk of its own, a tenth full.
void fillDisks(const std::vector<Fill>& fills);

// Whether a line that tells of an error was sent to the log.
bool hasLoggedError();

// Whether the operation has slept longer than any lock is waited for, all waits of its scenario together. What sleeps
// on then is ended, as hung: its exit status is this.
constexpr int kSleptForEver = 99;

#endif
