// Reading and setting times takes no lock in the default mode. In the safe mode a resource is marked as dirty while it
// is moved, and an unlocked look-up that joined its two copies would take them from under the move.

#include <gmock/gmock.h>
#include <unistd.h>
#include <utime.h>

#include "entrypoints.h"
#include "fakes/fakes.h"
#include "support/child.h"
#include "support/repository.h"
#include "support/results.h"

namespace {

const Child::Parent* told = nullptr;
int flushes = 0;

}  // namespace

// The move's second flush comes when the copy is in its place and the origin is still there.
extern "C" int syncfs(int) noexcept {
  if (told && ++flushes == 2) {
    told->tell();
    told->await();
  }
  return 0;
}

namespace {

constexpr time_t kOld = 1000000000;

// Moves a resource between two mounts, and asks for its times in the middle.
void askInTheMiddleOfAMove(size_t from) {
  TestRepository repository({"d1", "d2"});
  const size_t to = 1 - from;
  repository.place(from, "r", "content", kOld);
  const EnvironmentVariable safe("KT_SAFE", "1");
  Child mover([&](const Child::Parent& parent) {
    told = &parent;
    FakeDisks disks;
    disks.setUsed(repository.mount(from), 99.5);
    disks.setUsed(repository.mount(to), 10);
    checkOverload_(repository.id(), false);
  });
  mover.await();
  Child asker([&](const Child::Parent& parent) {
    FakeClock clock;  // no pause while the move holds the lock
    utimbuf times = {kOld, kOld};
    getTimeProperties_(repository.id(), "r", &times);
    setTimeProperties_(repository.id(), "r", &times);
    parent.tell();
  });
  asker.await();
  EXPECT_EQ(asker.join(), 0);
  mover.tell();
  EXPECT_EQ(mover.join(), 0);
  EXPECT_EQ(repository.find("r").path, repository.resourcePath(to, "r"));
  EXPECT_EQ(readFile(repository.resourcePath(to, "r") + "/content"), "content");
}

TEST(UnlockedTest, TimesInTheMiddleOfAMoveToALaterMountLoseNothingInTheSafeMode) { askInTheMiddleOfAMove(0); }
TEST(UnlockedTest, TimesInTheMiddleOfAMoveToAnEarlierMountLoseNothingInTheSafeMode) { askInTheMiddleOfAMove(1); }

}  // namespace
