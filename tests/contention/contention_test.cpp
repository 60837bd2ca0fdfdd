// Many processes on one repository at once, with the real lock files between them: native workers, virtual machines, a
// process that makes one balancing pass after the other, and mountwarden. In the end the histories that the workers
// wrote are held against a model, and the disks against the histories.
//
//   KT_LONG=1                        many more operations and kills
//   KT_CONTENTION_CLIENT=FILE        every second process works in the mount namespace of this file
//   KT_CONTENTION_OPERATIONS=NUMBER  that many of all workers together, in tests that kill nobody

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>

#include "board.h"
#include "entrypoints.h"
#include "history.h"
#include "support/child.h"
#include "support/content.h"
#include "support/repository.h"
#include "support/results.h"
#include "support/shared.h"

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

enum class Mode { kDefault, kSafe, kMixed };

constexpr unsigned int kMachines = KT_MACHINES;  // none without the Java binding: those workers are native then
constexpr unsigned int kWorkers = 6;
constexpr unsigned int kBalancer = kWorkers;
constexpr unsigned int kMountwarden = kWorkers + 1;
constexpr unsigned int kProcesses = kWorkers + 2;
constexpr unsigned int kMounts = 3;

constexpr long kPauseDivisor = 100;          // a lock is waited for 0.3 seconds
constexpr long kPauseDivisorBroken = 10000;  // some are never given back

bool isMachine(unsigned int number) { return number + 1 <= kMachines; }

bool isLong() {
  const char* value = getenv("KT_LONG");
  return value && std::string(value) == "1";
}

unsigned int chosen(unsigned int few, unsigned int many) { return isLong() ? many : few; }

unsigned int operationsOfAll() {
  const char* value = getenv("KT_CONTENTION_OPERATIONS");
  return value ? static_cast<unsigned int>(strtoul(value, nullptr, 10)) : chosen(102000, 1020000);
}

long long now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1000000000LL + time.tv_nsec;
}

std::unique_ptr<ScratchDirectory> directoryInMemory() {
  const EnvironmentVariable memory("TMPDIR", "/dev/shm");
  return std::make_unique<ScratchDirectory>();
}

// Where the default mode is at work, a killed process leaves parts, and a second copy, which a removal may leave.
constexpr const char* kPinned[] = {"is there several times", "the look-up of", "finds a part", "is not what it was",
                                   "has contents"};

bool isPinned(const std::string& text) {
  return std::any_of(std::begin(kPinned), std::end(kPinned),
                     [&](const char* kind) { return text.find(kind) != std::string::npos; });
}

// Half of the processes work in another mount namespace, where that is wanted: on another mount of the same.
void enterClientOf(unsigned int number) {
  const char* client = getenv("KT_CONTENTION_CLIENT");
  if (client && number % 2 == 1 && setns(open(client, O_RDONLY | O_CLOEXEC), CLONE_NEWNS) != 0)
    throw std::runtime_error(std::string("no other client at ") + client);
}

class Contention {
 public:
  explicit Contention(Mode chosenMode)
      : mode(chosenMode),
        files(directoryInMemory()),
        boardVariable(kBoardVariable, *files / "board"),
        board(mapBoard((*files / "board").c_str(), true)) {
    if (!board) throw std::runtime_error("no board at " + *files / "board");
    board->pauseDivisor = kPauseDivisor;
  }
  ~Contention() {
    for (Process& process : processes) stop(process);
    munmap(board, sizeof(Board));
  }
  Contention(const Contention&) = delete;
  Contention& operator=(const Contention&) = delete;

  // What goes wrong on purpose: every so many times a lock is taken that is held, or not given back.
  void breakExclusiveCreation(unsigned int every) { board->breakExclusive = every; }
  void dropUnlock(unsigned int every) {
    board->dropUnlock = every;
    board->pauseDivisor = kPauseDivisorBroken;
  }

  // Lets the workers make that many operations together, kills processes meanwhile, and looks what came of it.
  void run(unsigned int operations, unsigned int killCount = 0);

  std::vector<std::string> violations;
  // What the default mode does to resources when a process is killed (see kPinned); else each is a violation.
  std::vector<std::string> damages;

 private:
  struct Process {
    pid_t id = 0;
    unsigned int starts = 0;
    bool isDone = false;
  };

  bool isSafe(unsigned int number) const { return mode == Mode::kSafe || (mode == Mode::kMixed && number % 2 == 1); }
  void complain(const std::string& text);
  std::string historyOf(unsigned int number) const { return *files / ("history" + std::to_string(number)); }

  std::vector<std::string> commandOf(unsigned int number) const;
  void start(unsigned int number);
  [[noreturn]] void become(unsigned int number, pid_t parent) const;
  static int stop(Process& process);
  void watch();
  void noteEnd(unsigned int number, int status);
  bool areWorkersDone() const;
  void killOne();
  void giveUpLocksOf(unsigned int number, pid_t dead);
  void removeLockOfDead(LockOnBoard& lock, pid_t dead);
  bool isBusy(const LockOnBoard& lock) const;

  void judge();
  void judgeMeasurement();
  void judgeLocks();
  void judgeCopies(const std::string& name, const std::set<bool>& ends);
  void judgeLookUp(const std::string& name, const std::set<bool>& ends);
  void tell() const;

  TestRepository repository{{"d1", "d2", "d3"}};
  Mode mode;
  std::unique_ptr<ScratchDirectory> files;
  EnvironmentVariable boardVariable;
  Board* board;
  Process processes[kProcesses];
  Histories histories;
  std::mt19937 random;
  unsigned int operationsOfWorker = 0;
  unsigned int kills = 0;
  unsigned int killsLeft = 0;     // until they are made, workers that have done their operations begin again
  unsigned int locksRemoved = 0;  // of killed processes, by this test
  long long began = now();
};

std::vector<std::string> Contention::commandOf(unsigned int number) const {
  if (number == kMountwarden) return {KT_MOUNTWARDEN_FILE, repository.path()};
  if (number == kBalancer) return {KT_CONTENDER_FILE, "balance", repository.path()};
  std::vector<std::string> command = {KT_CONTENDER_FILE};
  if (isMachine(number))
    command = {KT_JAVA_RUNTIME, "-XX:+UseSerialGC",    "-Xmx64m",  "-Djava.library.path=" KT_LIBRARY_DIRECTORY,
               "-cp",           KT_CONTENDER_ARCHIVES, "Contender"};
  const unsigned int seed = number * 1000 + processes[number].starts;
  for (const std::string& argument :
       {repository.path(), historyOf(number), std::to_string(number), std::to_string(kWorkers),
        std::to_string(operationsOfWorker), std::to_string(seed)})
    command.push_back(argument);
  return command;
}

void Contention::start(unsigned int number) {
  Process& process = processes[number];
  ++process.starts;
  const pid_t self = getpid();
  process.id = fork();
  if (process.id < 0) throw std::runtime_error("no further process");
  if (process.id == 0) become(number, self);
  setpgid(process.id, process.id);  // killed with the commands that it started, as by a power cut
}

void Contention::become(unsigned int number, pid_t parent) const {
  setpgid(0, 0);
  endWithParent(parent);
  enterClientOf(number);
  setenv(kNumberVariable, std::to_string(number).c_str(), 1);
  setenv("KT_SAFE", isSafe(number) ? "1" : "0", 1);
  setenv("LD_PRELOAD", KT_CONTENTION_PRELOAD, 1);
  static char machine[] = KT_MACHINE_ENVIRONMENT;  // empty but where a sanitizer has to leave it alone
  if (isMachine(number) && machine[0] != '\0') putenv(machine);
  if (number == kMountwarden) dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  const std::vector<std::string> command = commandOf(number);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  _exit(123);
}

// The wait status: the process may have ended by itself.
int Contention::stop(Process& process) {
  int status = 0;
  if (process.id <= 0) return status;
  kill(-process.id, SIGKILL);
  waitpid(process.id, &status, 0);
  process.id = 0;
  return status;
}

void Contention::run(unsigned int operations, unsigned int killCount) {
  operationsOfWorker = (operations + kWorkers - 1) / kWorkers;
  killsLeft = killCount;
  for (unsigned int number = 0; number < kProcesses; ++number) start(number);
  while (!areWorkersDone()) {
    usleep(5000);
    watch();
    if (killsLeft > 0 && random() % 10 == 0) killOne();
  }
  board->ended = true;
  while (processes[kBalancer].id > 0 || processes[kMountwarden].id > 0) {
    usleep(5000);
    watch();
  }
  judge();
  tell();
}

bool Contention::areWorkersDone() const {
  return std::all_of(processes, processes + kWorkers, [](const Process& process) { return process.isDone; });
}

void Contention::watch() {
  for (unsigned int number = 0; number < kProcesses; ++number) {
    int status = 0;
    Process& process = processes[number];
    if (process.id <= 0 || waitpid(process.id, &status, WNOHANG) != process.id) continue;
    process.id = 0;
    noteEnd(number, status);
  }
}

void Contention::noteEnd(unsigned int number, int status) {
  const bool isWanted = !board->ended && (number == kMountwarden || killsLeft > 0);
  processes[number].isDone = status != 0 || !isWanted;
  if (status != 0)
    violations.push_back("process " + std::to_string(number) + " ended with status " + std::to_string(status));
  else if (isWanted)
    start(number);
}

void Contention::killOne() {
  const unsigned int number = static_cast<unsigned int>(random() % kProcesses);
  Process& process = processes[number];
  if (process.id <= 0) return;
  const pid_t dead = process.id;
  const int status = stop(process);
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) return noteEnd(number, status);
  ++kills;
  --killsLeft;
  histories.noteKill(historyOf(number), now());
  giveUpLocksOf(number, dead);
  start(number);
}

// What an administrator does in the default mode. In the safe mode the others take the locks over, but for one whose
// holder had no time to write its name into it.
void Contention::giveUpLocksOf(unsigned int number, pid_t dead) {
  const unsigned int mark = board->busy[number].exchange(kNobody);
  for (LockOnBoard& lock : board->locks)
    if (lock.holder == dead) removeLockOfDead(lock, dead);
  if (mark != kNobody) removeLockOfDead(board->locks[mark - 1], dead);
}

// A file that was there before and after nobody was found to hold it or to be about to, is nobody's.
void Contention::removeLockOfDead(LockOnBoard& lock, pid_t dead) {
  const std::string path(std::begin(lock.path), std::find(std::begin(lock.path), std::end(lock.path), '\0'));
  struct stat before;
  while (stat(path.c_str(), &before) == 0) {
    if (mode == Mode::kSafe && before.st_size > 0) return;
    const pid_t holder = lock.holder;
    if (holder != 0 && holder != dead) return;
    struct stat after;
    if (!isBusy(lock) && stat(path.c_str(), &after) == 0 && after.st_ino == before.st_ino) {
      lock.holder = 0;
      unlink(path.c_str());
      ++locksRemoved;
      return;
    }
    usleep(1000);
  }
}

bool Contention::isBusy(const LockOnBoard& lock) const {
  const auto mark = static_cast<unsigned int>(&lock - board->locks) + 1;
  return std::any_of(board->busy, board->busy + kMostContenders, [=](const auto& busy) { return busy == mark; });
}

void Contention::complain(const std::string& text) {
  (kills > 0 && mode != Mode::kSafe && isPinned(text) ? damages : violations).push_back(text);
}

void Contention::judge() {
  for (unsigned int number = 0; number < kWorkers; ++number) histories.read(historyOf(number));
  for (const std::string& result : histories.undescribed) violations.push_back(result);
  for (const std::string& complaint : histories.complaints) complain(complaint);
  judgeMeasurement();
  judgeLocks();
  const EnvironmentVariable safe("KT_SAFE", isSafe(kMountwarden) ? "1" : "0");
  checkOverload_(repository.id(), false);  // removes what killed processes left out of sight
  for (const auto& [name, operations] : histories.operations) {
    const std::set<bool> ends = possibleEnds(operations);
    if (ends.empty()) violations.push_back("what came back of " + name + " fits no order of the operations");
    judgeCopies(name, ends);
    judgeLookUp(name, ends);
  }
}

// What was not there to be measured held by chance.
void Contention::judgeMeasurement() {
  for (unsigned int number = 0; number < kProcesses; ++number)
    if (board->takenBy[number] == 0)
      violations.push_back("process " + std::to_string(number) + " was not seen to take a lock");
  if (board->moves == 0) violations.emplace_back("no resource was seen to be moved");
  if (killsLeft > 0) violations.push_back(std::to_string(killsLeft) + " kills were not made");
}

void Contention::judgeLocks() {
  if (board->overlaps > 0 || board->lost > 0) {
    const LockOnBoard& example = board->locks[board->example - 1];
    violations.push_back(
        std::to_string(board->overlaps) + " locks taken that were held, " + std::to_string(board->lost) +
        " released that were not: " + std::string(std::begin(example.path), std::end(example.path)).c_str());
  }
  for (const std::string& left : repository.locksLeft()) {
    // In the safe mode a lock of a killed process stays until somebody asks for it.
    if (mode == Mode::kDefault || kills == 0) violations.push_back("left: " + left);
    unlink((repository.lockDirectory() + "/" + left).c_str());
  }
}

void Contention::judgeCopies(const std::string& name, const std::set<bool>& ends) {
  const auto made = histories.generations.find(name);
  unsigned int copies = 0;
  unsigned int complete = 0;
  for (unsigned int i = 0; i < kMounts; ++i) {
    const std::string path = repository.resourcePath(i, name);
    if (!isThere(path)) continue;
    ++copies;
    if (made != histories.generations.end() && treeOf(path) == treeOfContent(name, made->second)) ++complete;
  }
  if (copies == 0 && !ends.contains(false)) violations.push_back(name + " is lost");
  if (copies > 0 && !ends.contains(true)) violations.push_back(name + " is there, though it was removed");
  if (copies > 1) complain(name + " is there several times");
  if (made != histories.generations.end() && complete == 0) violations.push_back(name + " is complete nowhere");
}

void Contention::judgeLookUp(const std::string& name, const std::set<bool>& ends) {
  const Found found = repository.find(name);
  if (found.status != (found.path.empty() ? 4 : 0) || !ends.contains(!found.path.empty()))
    complain("the look-up of " + name + " gives " + std::to_string(found.status));
  const auto made = histories.generations.find(name);
  if (made == histories.generations.end() || found.path.empty()) return;
  if (treeOf(found.path) != treeOfContent(name, made->second)) complain("the look-up of " + name + " finds a part");
}

void Contention::tell() const {
  printf(
      "%lu operations (%lu of unknown outcome), %zu resources, %lu locks taken, %lu taken over, %lu overlaps, "
      "%lu moves, %u kills, %u locks removed, %zu damages, %.1f s\n",
      histories.made, histories.unknown, histories.operations.size(), board->taken.load(), board->takenOver.load(),
      board->overlaps.load(), board->moves.load(), kills, locksRemoved, damages.size(),
      static_cast<double>(now() - began) / 1e9);
}

void contendWithoutKills(Mode mode) {
  Contention contention(mode);
  contention.run(operationsOfAll());
  EXPECT_THAT(contention.violations, IsEmpty());
}

TEST(ContentionTest, NothingIsLostAndNoLockHeldTwice) { contendWithoutKills(Mode::kDefault); }
TEST(ContentionTest, NothingIsLostAndNoLockHeldTwiceInTheSafeMode) { contendWithoutKills(Mode::kSafe); }
TEST(ContentionTest, NothingIsLostAndNoLockHeldTwiceWhenHalfOfTheProcessesAreSafe) {
  contendWithoutKills(Mode::kMixed);
}

void contendWithKills(Mode mode) {
  Contention contention(mode);
  contention.run(chosen(20000, 300000), chosen(40, 500));
  EXPECT_THAT(contention.violations, IsEmpty());
  for (const std::string& damage : contention.damages) printf("damage: %s\n", damage.c_str());
}

TEST(ContentionKillsTest, ACompleteCopyStaysWhenLocksOfKilledProcessesAreRemoved) { contendWithKills(Mode::kDefault); }
TEST(ContentionKillsTest, OneCompleteCopyStaysAndLocksOfKilledProcessesAreTakenOverInTheSafeMode) {
  contendWithKills(Mode::kSafe);
}
TEST(ContentionKillsTest, ACompleteCopyStaysWhenHalfOfTheProcessesAreSafe) { contendWithKills(Mode::kMixed); }

// What locks are made of: of two that create a file exclusively one wins, on two mounts of one file system too.
TEST(ExclusiveCreationTest, OneOfTwoProcessesWins) {
  constexpr unsigned int kNames = 10000;
  struct Race {
    std::atomic<unsigned int> ready;
    std::atomic<unsigned int> wins[2];
    std::atomic<unsigned int> winners[kNames];
  };
  const ScratchDirectory directory;
  const Shared<Race> race;
  std::vector<std::unique_ptr<Child>> children;
  for (unsigned int number = 0; number < 2; ++number)
    children.push_back(std::make_unique<Child>([&, number](const Child::Parent&) {
      enterClientOf(number);
      for (unsigned int i = 0; i < kNames; ++i) {
        ++race->ready;
        while (race->ready < 2 * (i + 1)) usleep(0);  // both begin at once
        const int file = open((directory / std::to_string(i)).c_str(), O_RDONLY | O_CREAT | O_EXCL, 0660);
        if (file < 0 && errno == EEXIST) continue;
        ASSERT_GE(file, 0) << strerror(errno);
        close(file);
        ++race->winners[i];
        ++race->wins[number];
      }
    }));
  for (const auto& child : children) EXPECT_EQ(child->join(), 0);
  for (unsigned int i = 0; i < kNames; ++i) EXPECT_EQ(race->winners[i], 1U) << i;
  printf("%u won by the first, %u by the second\n", race->wins[0].load(), race->wins[1].load());
}

// That the test can fail.
constexpr unsigned int kFewOperations = 6000;

TEST(ContentionBrokenTest, ALockThatTwoTakeIsReported) {
  Contention contention(Mode::kDefault);
  contention.breakExclusiveCreation(50);
  contention.run(kFewOperations);
  EXPECT_THAT(contention.violations, Contains(HasSubstr("locks taken that were held")));
}

TEST(ContentionBrokenTest, ALockThatIsNotGivenBackIsReported) {
  Contention contention(Mode::kDefault);
  contention.dropUnlock(50);
  contention.run(kFewOperations / 4);
  EXPECT_THAT(contention.violations, Contains(HasSubstr("left: ")));
}

Operation certain(long long begin, long long end, Operation::Sight sight, Operation::Effect effect) {
  return {begin, end, true, sight, effect};
}

TEST(ContentionHistoryTest, AnOrderIsLookedForAmongOperationsAtTheSameTime) {
  const Operation making = certain(0, 10, Operation::kAnything, Operation::kMakes);
  const Operation removing = certain(5, 20, Operation::kIsThere, Operation::kRemoves);
  EXPECT_EQ(possibleEnds({making}), std::set<bool>{true});
  EXPECT_EQ(possibleEnds({making, removing}), std::set<bool>{false});
  const Operation absentEarly = certain(6, 7, Operation::kIsAbsent, Operation::kNone);
  EXPECT_EQ(possibleEnds({making, removing, absentEarly}), std::set<bool>{false});
  const Operation absentLate = certain(11, 12, Operation::kIsAbsent, Operation::kNone);
  EXPECT_EQ(possibleEnds({making, absentLate}), std::set<bool>{}) << "it was made before";
  EXPECT_EQ(possibleEnds({making, removing, absentLate}), std::set<bool>{false});
  const Operation thereLate = certain(21, 22, Operation::kIsThere, Operation::kNone);
  EXPECT_EQ(possibleEnds({making, removing, thereLate}), std::set<bool>{}) << "it was removed before";
}

TEST(ContentionHistoryTest, AnUnknownOutcomeMayHaveHappenedOrNot) {
  const Operation making = certain(0, 10, Operation::kAnything, Operation::kMakes);
  Operation removing = certain(20, 30, Operation::kIsThere, Operation::kRemoves);
  removing.isCertain = false;
  EXPECT_EQ(possibleEnds({making, removing}), (std::set<bool>{false, true}));
  const Operation there = certain(40, 50, Operation::kIsThere, Operation::kNone);
  EXPECT_EQ(possibleEnds({making, removing, there}), std::set<bool>{true});
}

}  // namespace
