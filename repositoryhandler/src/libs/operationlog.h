// The operation log: a file of distinct lines that several processes append to.

#ifndef REPOSITORYHANDLER_OPERATIONLOG_H
#define REPOSITORYHANDLER_OPERATIONLOG_H

#include "KTApi.h"

// Appends `text` as one line to the file at `path`, which is made when missing, unless a line of it is equal
// already. Reads the whole file first, in pieces of 1023 bytes, so a longer text is never found equal. A
// last line without its line feed is found, and a new text then goes directly behind it.
// Check and append are one step between processes, under a lock named after the file, waited for up to 30
// seconds. Nothing is thrown: a lock not taken and a file that cannot be opened are logged, and nothing is
// written; a lock that cannot be released is logged. Null arguments are ignored.
KT_API void writeToLogGlobal(const char* path, const char* text);

#endif
