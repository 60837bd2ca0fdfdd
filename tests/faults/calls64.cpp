#include <asm/unistd_64.h>

#include "faults/calls.h"
#include "faults/calltable.inc"

const std::vector<Call>& calls64() {
  static const std::vector<Call> calls = {KT_COMMON_CALLS, KT_READ(newfstatat, "stat", 1)};
  return calls;
}

int switchNumber64() { return __NR_getpgid; }
