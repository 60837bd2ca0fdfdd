// mountwarden: one verbose balancing pass over one repository, for a periodic job. The exit status is 0 whenever
// the pass was called, whatever it found; an exception ends the program.

#include <cstdio>

#include "entrypoints.h"

int main(int count, char** arguments) {
  if (count != 2) {
    puts("Usage: mountwarden <repository>");
    return -1;
  }
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // so that a pass that is aborted has told how far it came
  puts("calling library...");
  checkOverload_(arguments[1], true);
  return 0;
}
