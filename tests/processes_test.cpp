// Several processes on one repository, with the real lock files between them: clients that create, find and remove,
// and one process that balances all the time. Each client writes down what should exist; in the end the parent looks
// for it.

#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "entrypoints.h"
#include "fakes/fakes.h"
#include "support/child.h"
#include "support/content.h"
#include "support/repository.h"
#include "support/results.h"
#include "support/shared.h"

using testing::IsEmpty;

namespace {

constexpr unsigned int kClients = 4;
constexpr unsigned int kStepsOfAClient = 600;
constexpr unsigned int kMostStepsOfAClient = 20 * kStepsOfAClient;
constexpr unsigned int kLeastMoves = 100;
constexpr unsigned int kNamesOfAClient = 40;
constexpr time_t kLongAgo = 1000000000;

// Waits for a lock as always, but with the shortest pause that can be drawn: real pauses of 10 milliseconds, 3000 in
// the 30 seconds that a lock is waited for.
class ShortPauses {
 public:
  ShortPauses() {
    clock.onSleep = [this] {
      clock.pauses.clear();
      usleep(10000);
    };
  }

 private:
  FakeClock clock;
};

struct Board {
  std::atomic<unsigned int> drained;  // number of the mount that is at its move limit now
  std::atomic<unsigned int> ready;
  std::atomic<unsigned int> running;  // clients at work
  std::atomic<unsigned int> passes;
  std::atomic<unsigned int> moves;
  std::atomic<unsigned int> conflicts;
};

// Disks as the board tells: one at its move limit, the others nearly empty. All processes see the same.
class BoardDisks {
 public:
  BoardDisks(const TestRepository& repository, const Shared<Board>& board, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i)
      disks.answerWith(repository.mount(i), [&board, i](struct statvfs* out) {
        *out = {};
        out->f_frsize = 1024;
        out->f_blocks = 1000;
        out->f_bavail = board->drained == i ? 5 : 900;
        return 0;
      });
  }

 private:
  FakeDisks disks;
};

std::string numbered(std::string prefix, unsigned int number) { return prefix.append(std::to_string(number)); }

// One client's work. It alone makes and removes its names, and keeps the record of them; it also looks for the names
// of others. A resource that was just found is young, so that no pass moves it while it is used; when the client is
// done with it, it makes it old again.
class Client {
 public:
  Client(const TestRepository& rep, unsigned int clientNumber)
      : repository(rep), number(clientNumber), random(number) {}

  void step() {
    const std::string name = nameOf(number, drawBelow(kNamesOfAClient));
    const auto known = generations.find(name);
    if (known == generations.end())
      make(name);
    else if (drawBelow(4) == 0)
      remove(name);
    else
      use(name, known->second);
    const Found other = repository.find(nameOf(drawBelow(kClients), drawBelow(kNamesOfAClient)));
    EXPECT_EQ(other.status, other.path.empty() ? 4 : 0);
  }

  void writeRecord(const std::string& file) const {
    std::ofstream record(file);
    for (const auto& [name, generation] : generations) record << name << ' ' << generation << '\n';
  }

  static std::string nameOf(unsigned int client, unsigned int resource) {
    return numbered(numbered("c", client) + "r", resource);
  }

 private:
  unsigned int drawBelow(unsigned int bound) { return static_cast<unsigned int>(random() % bound); }

  void make(const std::string& name) {
    const unsigned int generation = ++made;
    // Another client may remove the emptied hash directory between two steps of making the resource's own; the
    // path is then not there, and the client asks again.
    Found found;
    do {
      found = repository.create(name);
      ASSERT_EQ(found.status, 0) << name;
    } while (!isDirectoryThere(found.path));
    EXPECT_THAT(treeOf(found.path), IsEmpty()) << name << " was removed or never made";
    ASSERT_TRUE(writeContent(found.path, name, generation)) << name;
    generations[name] = generation;
    letGo(name);
  }

  void use(const std::string& name, unsigned int generation) {
    const Found found = repository.find(name);
    ASSERT_EQ(found.status, 0) << name;
    EXPECT_EQ(treeOf(found.path), treeOfContent(name, generation)) << name;
    letGo(name);
  }

  void remove(const std::string& name) {
    EXPECT_EQ(removeResource_(repository.id(), name.c_str()), 0) << name;
    generations.erase(name);
    EXPECT_EQ(repository.find(name).status, 4) << name;
    EXPECT_EQ(removeResource_(repository.id(), name.c_str()), 4) << name;
  }

  void letGo(const std::string& name) {
    utimbuf old = {kLongAgo + static_cast<time_t>(drawBelow(1000)), kLongAgo};
    EXPECT_EQ(setTimeProperties_(repository.id(), name.c_str(), &old), 1) << name;
  }

  const TestRepository& repository;
  unsigned int number;
  std::mt19937 random;
  unsigned int made = 0;
  std::map<std::string, unsigned int> generations;  // of what should exist
};

std::string recordFile(const TestRepository& repository, unsigned int client) {
  return repository.scratch() + "/record" + std::to_string(client);
}

// Passes as long as a client runs, over one mount after the other.
void balance(const TestRepository& repository, const Shared<Board>& board, unsigned int mounts) {
  while (board->running > 0) {
    FakeSyslog log;
    checkOverload_(repository.id(), false);
    ++board->passes;
    const auto count = [&](int priority, const std::string& part) {
      const std::vector<std::string> lines = log.texts(priority);
      return static_cast<unsigned int>(std::count_if(
          lines.begin(), lines.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
    };
    board->conflicts += count(LOG_ERR, " conflicts with ");
    board->moves += count(LOG_INFO, "CheckOverload moves ") - count(LOG_ERR, " could not be renamed to ");
    board->drained = (board->drained + 1) % mounts;
  }
}

// A client makes all its steps, and goes on while the balancer has moved little, so that neither depends on the
// machine's speed. A balancer that moves nothing is not waited for without end.
bool hasMoreToDo(unsigned int steps, const Shared<Board>& board) {
  return steps < kStepsOfAClient || (board->moves < kLeastMoves && steps < kMostStepsOfAClient);
}

// On how many mounts the resource is.
unsigned int copiesOf(const TestRepository& repository, const std::string& name, unsigned int mounts) {
  unsigned int copies = 0;
  for (unsigned int i = 0; i < mounts; ++i)
    if (isThere(repository.resourcePath(i, name))) ++copies;
  return copies;
}

TEST(ProcessesTest, NothingIsLostWhileClientsWorkAndABalancerMovesTheirResources) {
  constexpr unsigned int kMounts = 3;
  TestRepository repository({"d1", "d2", "d3"});
  const Shared<Board> board;
  board->running = kClients;
  std::vector<std::unique_ptr<Child>> children;  // forked before this process touches the repository
  for (unsigned int number = 0; number < kClients; ++number)
    children.push_back(std::make_unique<Child>([&, number](const Child::Parent&) {
      const BoardDisks disks(repository, board, kMounts);
      const ShortPauses pauses;
      FakeSyslog log;
      Client client(repository, number);
      for (unsigned int i = 0; hasMoreToDo(i, board) && !testing::Test::HasFailure(); ++i) client.step();
      client.writeRecord(recordFile(repository, number));
      --board->running;
    }));
  children.push_back(std::make_unique<Child>([&](const Child::Parent&) {
    const BoardDisks disks(repository, board, kMounts);
    const ShortPauses pauses;
    balance(repository, board, kMounts);
  }));
  for (const auto& child : children) EXPECT_EQ(child->join(), 0);

  EXPECT_THAT(repository.locksLeft(), IsEmpty());
  EXPECT_GE(board->moves, kLeastMoves) << "in " << board->passes << " passes";
  EXPECT_EQ(board->conflicts, 0U);
  EXPECT_FALSE(isThere(repository.path() + "/.dirty")) << "no mount was away, and nothing conflicted";

  const BoardDisks disks(repository, board, kMounts);
  std::vector<std::string> expected;
  for (unsigned int number = 0; number < kClients; ++number) {
    std::ifstream record(recordFile(repository, number));
    std::string name;
    for (unsigned int generation = 0; record >> name >> generation;) {
      expected.push_back(name);
      EXPECT_EQ(copiesOf(repository, name, kMounts), 1U) << name;
      const Found found = repository.find(name);
      ASSERT_EQ(found.status, 0) << name;
      EXPECT_EQ(treeOf(found.path), treeOfContent(name, generation)) << name;
    }
  }
  EXPECT_GT(expected.size(), kNamesOfAClient) << "the clients left little to look for";
  std::sort(expected.begin(), expected.end());
  long count = 0;
  char** names = listDirs_(repository.id(), &count, true);
  EXPECT_EQ(taken(names, count), expected) << "what was removed is on no mount";
}

// Each process sees the other's favourite disk as full, so that only the lock, and the look before the creation, bring
// them to the same place.
TEST(ProcessesTest, TwoProcessesThatCreateTheSameResourceAtOnceGetTheSameLocation) {
  constexpr unsigned int kRounds = 300;
  TestRepository repository({"d1", "d2"});
  const Shared<Board> board;
  std::vector<std::unique_ptr<Child>> children;
  for (unsigned int number = 0; number < 2; ++number)
    children.push_back(std::make_unique<Child>([&, number](const Child::Parent&) {
      FakeDisks disks;
      disks.setUsed(repository.mount(number), 10);
      disks.setUsed(repository.mount(1 - number), 98);
      const ShortPauses pauses;
      FakeSyslog log;
      std::ofstream record(recordFile(repository, number));
      for (unsigned int round = 0; round < kRounds; ++round) {
        ++board->ready;
        while (board->ready < 2 * (round + 1)) usleep(0);  // both begin at once
        const Found found = repository.create(numbered("same", round));
        record << found.status << ' ' << found.path << '\n';
      }
    }));
  for (const auto& child : children) EXPECT_EQ(child->join(), 0);
  std::ifstream first(recordFile(repository, 0));
  std::ifstream second(recordFile(repository, 1));
  unsigned int byFirst = 0;
  for (unsigned int round = 0; round < kRounds; ++round) {
    std::string one;
    std::string other;
    ASSERT_TRUE(std::getline(first, one) && std::getline(second, other));
    const std::string name = numbered("same", round);
    EXPECT_EQ(one, other) << name;
    EXPECT_EQ(copiesOf(repository, name, 2), 1U) << name;
    const bool isOnFirst = one == "0 " + repository.resourcePath(0, name);
    EXPECT_TRUE(isOnFirst || one == "0 " + repository.resourcePath(1, name)) << one;
    if (isOnFirst) ++byFirst;
  }
  RecordProperty("madeByTheFirst", static_cast<int>(byFirst));
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

// Of two passes at once the second finds the repository locked and waits; both come to an end, and each resource is
// moved once.
TEST(ProcessesTest, TwoBalancersAtOnceMoveEachResourceOnce) {
  constexpr unsigned int kResources = 60;
  TestRepository repository({"d1", "d2"});
  for (unsigned int i = 0; i < kResources; ++i)
    repository.place(0, numbered("r", i), numbered("content", i), kLongAgo + static_cast<time_t>(i));
  const Shared<Board> board;
  std::vector<std::unique_ptr<Child>> children;
  for (unsigned int number = 0; number < 2; ++number)
    children.push_back(std::make_unique<Child>([&](const Child::Parent&) {
      const BoardDisks disks(repository, board, 2);
      const ShortPauses pauses;
      FakeSyslog log;
      ++board->ready;
      while (board->ready < 2) usleep(0);
      checkOverload_(repository.id(), false);
      for (const std::string& line : log.texts(LOG_INFO))
        if (line.starts_with("CheckOverload moves ")) ++board->moves;
      EXPECT_THAT(log.texts(LOG_ERR), IsEmpty());
    }));
  for (const auto& child : children) EXPECT_EQ(child->join(), 0);
  EXPECT_EQ(board->moves, kResources);
  for (unsigned int i = 0; i < kResources; ++i) {
    const std::string name = numbered("r", i);
    EXPECT_FALSE(isThere(repository.resourcePath(0, name))) << name;
    EXPECT_EQ(readFile(repository.resourcePath(1, name) + "/content"), numbered("content", i)) << name;
  }
  EXPECT_THAT(repository.locksLeft(), IsEmpty());
}

}  // namespace
