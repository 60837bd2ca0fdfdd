#include "hashtrace.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>

#include "hashlayout.h"

bool isDEBUGHASH = false;

void traceHash(const char* format, ...) {
  if (!isDEBUGHASH) return;
  const int kept = errno;  // the traced functions report it
  va_list args;
  va_start(args, format);
  openlog("kthash", LOG_PID, LOG_LOCAL3);
  vsyslog(LOG_DEBUG, format, args);
  closelog();
  va_end(args);
  errno = kept;
}
