#include <asm/unistd_32.h>

#include "faults/calls.h"
#include "faults/calltable.inc"

const std::vector<Call>& calls32() {
  static const std::vector<Call> calls = {
      KT_COMMON_CALLS,
      KT_CHANGE(chown32, "chown", 0),
      KT_CHANGE(fchown32, "chown", kDescriptor),
      KT_CHANGE(lchown32, "chown", 0),
      KT_CHANGE(truncate64, "truncate", 0),
      KT_CHANGE(ftruncate64, "truncate", kDescriptor),
      KT_CHANGE(sendfile64, "sendfile", kDescriptor),
      KT_CHANGE(utimensat_time64, "utime", 1),
      KT_READ(stat64, "stat", 0),
      KT_READ(lstat64, "stat", 0),
      KT_READ(fstat64, "stat", kDescriptor),
      KT_READ(fstatat64, "stat", 1),
      KT_READ(statfs64, "statfs", 0),
      KT_READ(fstatfs64, "statfs", kDescriptor),
  };
  return calls;
}

int switchNumber32() { return __NR_getpgid; }
