// Memory that forked processes share with their parent.

#ifndef TESTS_SUPPORT_SHARED_H
#define TESTS_SUPPORT_SHARED_H

#include <sys/mman.h>

#include <new>
#include <stdexcept>

template <typename Value>
class Shared {
 public:
  Shared() {
    void* memory = mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    value = new (memory) Value{};
  }
  ~Shared() { munmap(value, sizeof(Value)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  Value* operator->() const { return value; }

 private:
  Value* value;
};

#endif
