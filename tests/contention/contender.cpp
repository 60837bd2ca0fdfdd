// A native process that contends for a repository; Contender.java is the same in Java.
//
//   contender REPOSITORY HISTORY WORKER WORKERS OPERATIONS SEED
//   contender balance REPOSITORY
//   contender create REPOSITORY NAME
//   contender free REPOSITORY MOUNT
//
// The last two make one call: the path that it gives is printed, the status is the exit status.
//
// It makes that many operations, drawn from SEED, and appends to HISTORY what it asked and what came back, each line
// when it happens, so that a killed process tells what it was about:
//
//   B TIME OPERATION NAME   begun, at nanoseconds of the monotonic clock
//   E TIME RESULT           ended
//   M NAME GENERATION       a resource of its own is there and complete
//   V TEXT                  what must not be
//
// OPERATION is create, find, remove, settimes or gettimes; RESULT the status, or -1 when the resource was not locked;
// of a creation 99 when the directory is not there afterwards: the caller cannot tell then whether it ever was. Each
// worker has names of its own, which it alone makes, with content, and removes; others are everybody's. A HISTORY that
// is there already is of a worker that was killed, or had done its operations: its own names that are not known to be
// there are removed first.

#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "board.h"
#include "entrypoints.h"
#include "support/content.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

constexpr unsigned int kOwnNames = 24;
constexpr unsigned int kSharedNames = 24;
constexpr time_t kLongAgo = 1000000000;
constexpr int kNotLocked = -1;
constexpr int kNotThere = 99;

long long now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1000000000LL + time.tv_nsec;
}

struct Place {
  std::string path;
  int status;
};

class Contender {
 public:
  Contender(const char* repositoryPath, const char* historyFile, unsigned int worker, unsigned int workers,
            unsigned int most, unsigned int seed)
      : repository(repositoryPath), number(worker), count(workers), mostOperations(most), random(seed) {
    std::ifstream before(historyFile);
    const bool wasKilled = before.good();
    if (wasKilled) recall(before);
    history = open(historyFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (history < 0) exit(3);
    if (wasKilled)
      for (unsigned int i = 0; i < kOwnNames; ++i)
        if (!generations.contains(ownName(number, i))) unmake(ownName(number, i), true);
  }
  ~Contender() { close(history); }
  Contender(const Contender&) = delete;
  Contender& operator=(const Contender&) = delete;

  bool isDone() const { return operations >= mostOperations; }

  void step() {
    if (drawBelow(10) < 4)
      workOnOwn(ownName(number, drawBelow(kOwnNames)));
    else
      workOnShared();
  }

 private:
  unsigned int drawBelow(unsigned int bound) { return static_cast<unsigned int>(random() % bound); }
  static std::string ownName(unsigned int worker, unsigned int i) {
    std::string name("w");
    return name.append(std::to_string(worker)).append("r").append(std::to_string(i));
  }

  void write(const std::string& line) const {
    if (::write(history, line.data(), line.size()) != static_cast<ssize_t>(line.size())) exit(3);
  }

  void complain(const std::string& name, const std::string& text) const { write("V " + name + " " + text + "\n"); }

  // Makes one operation, whose status `call` gives.
  template <typename Call>
  int operate(const char* operation, const std::string& name, const Call& call) {
    ++operations;
    write("B " + std::to_string(now()) + " " + operation + " " + name + "\n");
    const int result = call();
    write("E " + std::to_string(now()) + " " + std::to_string(result) + "\n");
    return result;
  }

  Place create(const std::string& name) {
    Place place;
    place.status = operate("create", name, [&] {
      int status = kNotLocked;
      place.path = taken(createDirectory_(repository, name.c_str(), &status, false)).value_or("");
      return status == 0 && !isDirectoryThere(place.path) ? kNotThere : status;
    });
    return place;
  }

  Place find(const std::string& name) {
    Place place;
    place.status = operate("find", name, [&] {
      int status = kNotLocked;
      place.path = taken(getLocation_(repository, name.c_str(), &status)).value_or("");
      return status;
    });
    return place;
  }

  int remove(const std::string& name) {
    return operate("remove", name, [&] { return removeResource_(repository, name.c_str()); });
  }

  // Old enough to be moved: whoever calls this is done with the resource.
  int letGo(const std::string& name) {
    utimbuf old = {kLongAgo + static_cast<time_t>(drawBelow(1000)), kLongAgo};
    return operate("settimes", name, [&] { return setTimeProperties_(repository, name.c_str(), &old); });
  }

  void lookAtTimes(const std::string& name) {
    utimbuf times;
    operate("gettimes", name, [&] { return getTimeProperties_(repository, name.c_str(), &times); });
  }

  void workOnOwn(const std::string& name) {
    if (!generations.contains(name))
      make(name);
    else if (drawBelow(4) == 0)
      unmake(name);
    else
      use(name);
  }

  void make(const std::string& name) {
    Place place;
    do {
      place = create(name);
      if (place.status == kNotLocked) return;
    } while (place.status == kNotThere);  // the emptied directory above it was removed meanwhile
    if (place.status != 0) return complain(name, "was not created: " + std::to_string(place.status));
    if (!treeOf(place.path).empty()) return complain(name, "was removed or never made, and has contents");
    const unsigned int generation = ++generationsMade;
    if (!writeContent(place.path, name, generation)) return complain(name, "could not be written");
    generations[name] = generation;
    write("M " + name + " " + std::to_string(generation) + "\n");
    letGo(name);
  }

  // Tries until the outcome is known: what was perhaps removed is not made again.
  void unmake(const std::string& name, bool mayBeAbsent = false) {
    generations.erase(name);
    int status = 0;
    do {
      status = remove(name);
    } while (isUnknown(status) && !isDone());
    if (status != 0 && !isUnknown(status) && !(mayBeAbsent && status == 4))
      complain(name, "was not removed: " + std::to_string(status));
  }

  static bool isUnknown(int removal) { return removal == 16 || removal == 1; }

  void use(const std::string& name) {
    const Place place = find(name);
    if (place.status == kNotLocked) return;
    if (place.status != 0) return complain(name, "was not found: " + std::to_string(place.status));
    if (treeOf(place.path) != treeOfContent(name, generations[name])) complain(name, "is not what it was");
    letGo(name);
  }

  void workOnShared() {
    std::string shared("s");
    shared += std::to_string(drawBelow(kSharedNames));
    const unsigned int drawn = drawBelow(8);
    if (drawn == 0) {
      remove(shared);
      return;
    }
    if (drawn < 3)
      create(shared);
    else if (drawn == 3)
      lookAtTimes(shared);
    else
      find(drawn == 4 ? ownName(drawBelow(count), drawBelow(kOwnNames)) : shared);
    letGo(shared);
  }

  void recall(std::istream& before) {
    for (std::string line; std::getline(before, line);) {
      std::istringstream words(line);
      std::string kind;
      std::string first;
      std::string second;
      std::string name;
      words >> kind >> first >> second >> name;
      if (kind == "B" && second == "remove") generations.erase(name);
      if (kind == "M") generations[first] = static_cast<unsigned int>(std::stoul(second));
      if (kind == "M") generationsMade = std::max(generationsMade, generations[first]);
    }
    generationsMade += 1;  // one may have been begun
  }

  const char* repository;
  unsigned int number;
  unsigned int count;
  unsigned int mostOperations;
  std::mt19937 random;
  int history = -1;
  unsigned long operations = 0;
  unsigned int generationsMade = 0;
  std::map<std::string, unsigned int> generations;  // of what must be there
};

// Passes, over one mount after the other, until the test ends.
int balance(const char* repository) {
  constexpr unsigned int kMounts = 3;
  const char* file = getenv(kBoardVariable);
  Board* board = file ? mapBoard(file, false) : nullptr;
  if (!board) return 3;
  while (!board->ended) {
    checkOverload_(repository, false);
    board->drained = (board->drained + 1) % kMounts;
  }
  return 0;
}

int createOnce(const char* repository, const char* name) {
  int status = kNotThere;
  puts(taken(createDirectory_(repository, name, &status, false)).value_or("").c_str());
  return status;
}

unsigned int number(const char* text) { return static_cast<unsigned int>(strtoul(text, nullptr, 10)); }

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "balance") return balance(argv[2]);
  if (argc == 4 && std::string(argv[1]) == "create") return createOnce(argv[2], argv[3]);
  if (argc == 4 && std::string(argv[1]) == "free") return freeMount_(argv[2], argv[3]);
  if (argc != 7) return 2;
  Contender contender(argv[1], argv[2], number(argv[3]), number(argv[4]), number(argv[5]), number(argv[6]));
  while (!contender.isDone()) contender.step();
  return 0;
}
