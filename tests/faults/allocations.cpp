#include "faults/allocations.h"

#include <cerrno>
#include <cstdint>

// libc's own.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* old, size_t size);
extern "C" void __libc_free(void* block);

namespace {

// Blocks that the operation has, by open addressing: an operation has a few hundred at a time.
constexpr size_t kPlaces = 1 << 16;
void* const kGone = reinterpret_cast<void*>(1);

void* places[kPlaces];
size_t holding = 0;
size_t count = 0;
size_t refused = 0;
bool refusesOnwards = false;
bool counting = false;

size_t placeOf(const void* block) { return (reinterpret_cast<uintptr_t>(block) >> 4) * 2654435761U % kPlaces; }

bool isRefused() {
  if (!counting) return false;
  ++count;
  if (refused == 0 || count < refused || (count > refused && !refusesOnwards)) return false;
  errno = ENOMEM;
  return true;
}

void* noted(void* block) {
  if (!counting || !block) return block;
  size_t place = placeOf(block);
  while (places[place] && places[place] != kGone) place = (place + 1) % kPlaces;
  places[place] = block;
  ++holding;
  return block;
}

// Also behind the end: what is given back then was not kept.
void forget(const void* block) {
  if (holding == 0 || !block) return;
  for (size_t place = placeOf(block); places[place]; place = (place + 1) % kPlaces) {
    if (places[place] != block) continue;
    places[place] = kGone;
    --holding;
    return;
  }
}

}  // namespace

namespace allocations {

void begin(size_t failing, bool onwards) {
  refused = failing;
  refusesOnwards = onwards;
  count = 0;
  counting = true;
}

void end() { counting = false; }
size_t made() { return count; }
size_t kept() { return holding; }

}  // namespace allocations

extern "C" {

void* malloc(size_t size) { return isRefused() ? nullptr : noted(__libc_malloc(size)); }

void* calloc(size_t blocks, size_t size) { return isRefused() ? nullptr : noted(__libc_calloc(blocks, size)); }

void* realloc(void* old, size_t size) {
  if (isRefused()) return nullptr;
  forget(old);
  return noted(__libc_realloc(old, size));
}

void free(void* block) {
  forget(block);
  __libc_free(block);
}
}
