// The debugging trace of the path layer.

#ifndef REPOSITORYHANDLER_HASHTRACE_H
#define REPOSITORYHANDLER_HASHTRACE_H

// Writes one printf-style message under an ident of its own when isDEBUGHASH (hashlayout.h) is on. errno is left as it
// was.
void traceHash(const char* format, ...);

#endif
