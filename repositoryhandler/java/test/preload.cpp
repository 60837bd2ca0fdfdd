// What the tests of the Java binding put before libc and the C++ library in the virtual machine's process: the system
// log, the pauses between two attempts for a lock, and the heap of the C++ code. The Java class Preloaded reaches it.
//
//   KT_LOG_FILE    where each message is appended, as a line "LEVEL TEXT"; without it messages are dropped
//
// Any thread may allocate; messages and pauses come from the one thread that is in the library.

#include <dlfcn.h>
#include <fcntl.h>
#include <jni.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>

namespace {

std::atomic<jint> liveBlocks{0};
std::atomic<bool> arePausesSkipped{false};

// The shell commands of the library run without this file; beside a 32-bit machine their programs could not load it.
__attribute__((constructor)) void stayInThisProcess() { unsetenv("LD_PRELOAD"); }

}  // namespace

void* operator new(size_t size) {
  void* block = malloc(size ? size : 1);
  if (!block) throw std::bad_alloc();
  ++liveBlocks;
  return block;
}

void operator delete(void* block) noexcept {
  if (!block) return;
  --liveBlocks;
  free(block);
}

// The other forms, but those for wide alignments, end up at these two in libstdc++ too; the compiler asks for this one.
void operator delete(void* block, size_t) noexcept { operator delete(block); }

extern "C" {

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
void vsyslog(int level, const char* format, va_list arguments) {
  const char* path = getenv("KT_LOG_FILE");
  const int file = path ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644) : -1;
  if (file < 0) return;
  dprintf(file, "%d ", level);
  vdprintf(file, format, arguments);
  dprintf(file, "\n");
  close(file);
}

int nanosleep(const timespec* pause, timespec* left) {
  if (arePausesSkipped) return 0;
  static const auto real = reinterpret_cast<int (*)(const timespec*, timespec*)>(dlsym(RTLD_NEXT, "nanosleep"));
  return real(pause, left);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

JNIEXPORT jint JNICALL Java_corvanta_util_Preloaded_liveBlocks(JNIEnv*, jclass) { return liveBlocks; }

JNIEXPORT void JNICALL Java_corvanta_util_Preloaded_skipPauses(JNIEnv*, jclass, jboolean skip) {
  arePausesSkipped = skip != JNI_FALSE;
}
}
