// The debugging trace of the path layer.

#ifndef REPOSITORYHANDLER_HASHTRACE_H
#define REPOSITORYHANDLER_HASHTRACE_H

#include "KTApi.h"

// Switches the trace on. Off unless a developer changes it: each message opens and closes the process's
// syslog connection, which no other thread may use meanwhile.
extern KT_API bool isDEBUGHASH;

// Writes one printf-style message under an ident of its own when the trace is on.
void traceHash(const char* format, ...);

#endif
