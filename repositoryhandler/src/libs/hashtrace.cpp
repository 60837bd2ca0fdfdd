#include "hashtrace.h"

#include <syslog.h>

#include <cstdarg>

bool isDEBUGHASH = false;

void traceHash(const char* format, ...) {
  if (!isDEBUGHASH) return;
  va_list args;
  va_start(args, format);
  openlog("kthash", LOG_PID, LOG_LOCAL3);
  vsyslog(LOG_DEBUG, format, args);
  closelog();
  va_end(args);
}
