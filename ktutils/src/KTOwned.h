// Guards for what C hands out raw: char arrays of array new, stdio files, malloc memory, descriptors.

#ifndef KTUTILS_KTOWNED_H
#define KTUTILS_KTOWNED_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

using OwnedChars = std::unique_ptr<char[]>;  // array new in, array delete out, as release_ does

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, FileCloser>;

struct MallocFreer {
  void operator()(void* memory) const { free(memory); }
};
template <typename T>
using OwnedMalloc = std::unique_ptr<T, MallocFreer>;

// Of what `open` gave; negative: nothing is open.
class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int opened) : number(opened) {}
  ~OwnedDescriptor() {
    if (number >= 0) close(number);
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  const int number;
};

#endif
