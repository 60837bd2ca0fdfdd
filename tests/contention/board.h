// What all processes of a contention test share: a file that each of them maps, all zero at first. The processes that
// contend write it from inside, before and behind libc (interposed.cpp); the test reads it. Any process at any time.

#ifndef TESTS_CONTENTION_BOARD_H
#define TESTS_CONTENTION_BOARD_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <new>

// The file of the board, and the number that a process has on it.
constexpr char kBoardVariable[] = "KT_CONTENTION_BOARD";
constexpr char kNumberVariable[] = "KT_CONTENTION_NUMBER";

constexpr unsigned int kMostLocks = 4096;
constexpr unsigned int kMostContenders = 64;
constexpr unsigned int kNobody = 0;

// One lock name in one directory, found by the path of its file.
struct LockOnBoard {
  std::atomic<uint64_t> key;    // hash of the path; 0: free
  std::atomic<pid_t> holder;    // the process between lock taken and released; 0: none
  std::atomic<char> path[400];  // for the reader; written once
};

struct Board {
  LockOnBoard locks[kMostLocks];
  // 1 + the index of the lock that a process is about to take or to release, or is taking and releasing now. Of a
  // killed process: the lock of which nobody knows whether it is its own.
  std::atomic<unsigned int> busy[kMostContenders];

  std::atomic<unsigned long> takenBy[kMostContenders];  // locks taken, by the number of a process
  std::atomic<unsigned long> taken;                     // locks taken
  std::atomic<unsigned long> takenOver;                 // of those, from a process that had gone
  std::atomic<unsigned long> overlaps;                  // of those, while a living process held it
  std::atomic<unsigned long> lost;                      // locks released whose file had gone, or that another held
  std::atomic<unsigned int> example;                    // 1 + the index of the last lock that overlapped or was lost

  std::atomic<unsigned long> moves;  // resources that a pass began to move

  std::atomic<unsigned int> drained;  // number of the mount that is at its moveLimit now
  std::atomic<bool> ended;            // the balancer ends

  // A lock is waited for until the pauses add up to 30 seconds; each is shorter here by that.
  std::atomic<long> pauseDivisor;

  // What is to go wrong, to see that it is noticed: every so many times, 0: never.
  std::atomic<unsigned int> breakExclusive;  // a lock is taken though its file is there
  std::atomic<unsigned int> dropUnlock;      // the file of a resource's lock stays when it is released
};

// Null when the file cannot be mapped.
inline Board* mapBoard(const char* file, bool make) {
  const int descriptor = open(file, O_RDWR | O_CLOEXEC | (make ? O_CREAT | O_EXCL : 0), 0600);
  if (descriptor < 0) return nullptr;
  void* memory = MAP_FAILED;
  if (!make || ftruncate(descriptor, sizeof(Board)) == 0)
    memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  close(descriptor);
  return memory == MAP_FAILED ? nullptr : static_cast<Board*>(memory);
}

#endif
