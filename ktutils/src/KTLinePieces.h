// KTLinePieces reads a text file the way all small files of the system are read: line by line through
// a buffer of 1024 bytes, so that a longer line comes in several pieces, each a line of its own to the
// caller. One trailing line feed is dropped from each piece. The file stays the caller's.

#ifndef KTUTILS_KTLINEPIECES_H
#define KTUTILS_KTLINEPIECES_H

#include <cstdio>
#include <cstring>

class KTLinePieces {
 public:
  explicit KTLinePieces(FILE* source) : file(source) {}

  // The next piece, at most 1023 bytes, or null at the end of the file. The text may be written to;
  // it is valid until the next call.
  char* next() {
    if (!fgets(buffer, sizeof buffer, file)) return nullptr;
    const size_t length = strlen(buffer);
    if (length > 0 && buffer[length - 1] == '\n') buffer[length - 1] = '\0';
    return buffer;
  }

 private:
  FILE* file;
  char buffer[1024] = "";  // the piece length is part of the file formats: it decides where long lines split
};

#endif
