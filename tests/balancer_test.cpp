#include <gmock/gmock.h>

#include "entrypoints.h"
#include "fakes/fakes.h"
#include "support/repository.h"

TEST(BalancerTest, LeavesAMountBelowItsMoveLimitAlone) {
  TestRepository repository({"d1", "d2"});
  FakeDisks disks;
  disks.setUsed(repository.mount(0), 98.5);
  disks.setUsed(repository.mount(1), 10);
  repository.place(0, "old", "content", 1000);
  FakeShell shell;
  FakeSyslog log;
  const std::string output = outputOf([&] { checkOverload_(repository.id(), true); });
  EXPECT_EQ(output, "checking repository " + repository.path() + "\nchecking mount " + repository.mount(0) +
                        "\nmount does not need maintenance (moveLimit=99, used=98.500000)\nchecking mount " +
                        repository.mount(1) + "\nmount does not need maintenance (moveLimit=99, used=10.000000)\n");
  EXPECT_TRUE(shell.commands.empty());
  EXPECT_TRUE(repository.locksLeft().empty());
}
