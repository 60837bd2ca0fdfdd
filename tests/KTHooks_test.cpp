// What the library adds to its foundation: that it adds nothing in the default mode, and throws nothing where no memory
// is left.

#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "KTLogger.h"
#include "KTSemaphore.h"
#include "fakes/fakes.h"
#include "librarylog.h"
#include "support/child.h"
#include "support/scratch.h"

namespace {

// Counts what is allocated while it lives; allocation number `failing`, from 0, fails.
class Allocations {
 public:
  explicit Allocations(int failing = -1) : left(failing) { current = this; }
  ~Allocations() { current = nullptr; }
  Allocations(const Allocations&) = delete;
  Allocations& operator=(const Allocations&) = delete;

  static void* make(size_t size) {
    if (current && current->strikes()) return nullptr;
    return malloc(size ? size : 1);
  }

  int count = 0;

 private:
  bool strikes() {
    ++count;
    return left-- == 0;
  }

  static inline Allocations* current = nullptr;
  int left;
};

const std::string kLongText(200, 'x');  // no small string

class HooksTest : public testing::Test {
 protected:
  HooksTest() {
    KTSemaphore first("first", directory.path(), true);  // the fakes allocate at their first use
    EXPECT_TRUE(first.lockResource());
    EXPECT_FALSE(first.lockResource());
  }
  std::string file() const { return directory / "semaphore_m1"; }
  // A lock file whose holder is gone.
  void leaveDeadLock() const {
    Child child([&](const Child::Parent&) {
      KTSemaphore semaphore("m1", directory.path(), false);
      EXPECT_TRUE(semaphore.lockResource());
    });
    EXPECT_EQ(child.join(), 0);
  }

  const ScratchDirectory directory;
  const EnvironmentVariable safe{"KT_SAFE", "1"};
};

}  // namespace

void* operator new(size_t size) {
  if (void* memory = Allocations::make(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocations::make(size); }
void* operator new[](size_t size) { return operator new(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocations::make(size); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { free(memory); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { free(memory); }

TEST_F(HooksTest, InTheDefaultModeALogLineIsSentAsItCame) {
  const EnvironmentVariable usual("KT_SAFE", std::nullopt);
  FakeSyslog log;
  rh_logger.errorLog("%s\n%d", "a\tb", 7);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].format, "%s\n%d");
  EXPECT_EQ(log.lines[0].text, "a\tb\n7");
}

TEST_F(HooksTest, InTheSafeModeALogLineIsExpandedOnceAndSentAsText) {
  FakeSyslog log;
  rh_logger.errorLog("%s %d %s", "%s%n", 7, kLongText.c_str());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].format, "%s");
  EXPECT_EQ(log.lines[0].text, "%s%n 7 " + kLongText);
  EXPECT_EQ(log.lines[0].priority, LOG_ERR);
}

TEST_F(HooksTest, ALogLineLeavesErrnoAsItWas) {
  FakeSyslog log;
  errno = ENOTTY;
  rh_logger.debugLog("%s", kLongText.c_str());
  EXPECT_EQ(errno, ENOTTY);
}

TEST_F(HooksTest, WithoutMemoryALogLineIsSentAsItCame) {
  FakeSyslog log;
  const auto allocated = [&](const char* mode) {
    const EnvironmentVariable now("KT_SAFE", mode);
    log.lines.reserve(100);
    log.events.reserve(100);
    rh_logger.errorLog("%s", kLongText.c_str());  // the log is open from here on
    const Allocations allocations;
    rh_logger.errorLog("%s", kLongText.c_str());
    return allocations.count;
  };
  const int byTheHook = allocated("1") - allocated("0");
  ASSERT_GT(byTheHook, 1);
  for (int k = 0; k < byTheHook; ++k) {
    log.lines.clear();
    {
      const Allocations allocations(k);
      EXPECT_NO_THROW(rh_logger.errorLog("%s", kLongText.c_str())) << k;
    }
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, kLongText);
    EXPECT_EQ(log.lines[0].format, "%s");
  }
}

TEST_F(HooksTest, WithoutMemoryALockIsTakenAllTheSameAndReleased) {
  FakeSyslog log;
  bool struck = true;
  int k = 0;
  for (; struck; ++k) {
    KTSemaphore semaphore("m1", directory.path(), true);
    std::thread([&] {  // which knows nothing of its process yet
      const Allocations allocations(k);
      EXPECT_NO_THROW(EXPECT_TRUE(semaphore.lockResource())) << k;
      struck = allocations.count > k;
    })
        .join();
    EXPECT_TRUE(semaphore.locked);
    semaphore.unlock();
    EXPECT_FALSE(isThere(file()));
  }
  EXPECT_GT(k, 3);
}

TEST_F(HooksTest, WithoutMemoryALockIsTakenOverOrNotButNothingIsThrown) {
  FakeSyslog log;
  log.lines.reserve(1000);
  bool struck = true;
  int k = 0;
  for (; struck; ++k) {
    leaveDeadLock();
    KTSemaphore semaphore("m1", directory.path(), false);
    bool taken = false;
    {
      const Allocations allocations(k);
      EXPECT_NO_THROW(taken = semaphore.lockResource()) << k;
      struck = allocations.count > k;
    }
    EXPECT_EQ(semaphore.locked, taken);
    unlink(file().c_str());
  }
  EXPECT_GT(k, 3);
}
