#include "draining.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "disklayout.h"
#include "entrypoints.h"
#include "registry.h"

namespace fs = std::filesystem;

namespace {

// How often the full mount still says that it is full. Others have room.
std::string fullMount;
size_t timesFull = 0;

constexpr fsblkcnt_t kBlocks = 100;
constexpr fsblkcnt_t kRoom = 90;

bool isFull(const char* path) {
  if (timesFull == 0 || fullMount != path) return false;
  --timesFull;
  return true;
}

}  // namespace

extern "C" int statvfs(const char* path, struct statvfs* space) noexcept {
  static const auto real = reinterpret_cast<decltype(&statvfs)>(dlsym(RTLD_NEXT, "statvfs"));
  const int result = real(path, space);
  space->f_blocks = kBlocks;
  space->f_bavail = space->f_bfree = isFull(path) ? 0 : kRoom;
  return result;
}

namespace {

constexpr size_t kFull = 0;  // the mounts
constexpr size_t kEmpty = 1;
constexpr time_t kLongAgo = 1000000000;
// What a look at a pass that moves nothing asks of the full mount: the status, and whether another mount takes its
// resources. Then each step asks once; after the last one there is room.
constexpr size_t kAsksOfPass = 2;

void setTime(const std::string& path, time_t time) {
  const utimbuf times = {time, time};
  utime(path.c_str(), &times);
}

}  // namespace

Draining::Draining(size_t resources, size_t moved, const Content& content) : ground(2, "nomoveTimeSeconds=0\n") {
  setenv("TZ", "UTC0", 1);  // else each time in a log line looks for the machine's zone
  for (size_t i = 0; i < resources; ++i) {
    const floors::Resource resource(ground.repository(), "resource" + std::to_string(i));
    fs::create_directories(resource.places[kFull]);
    if (i < moved) {
      makeOldest(resource.places[kFull], content);
      moves.emplace_back(resource, kFull, kEmpty);
    }
    setTime(resource.places[kFull], kLongAgo + static_cast<time_t>(i));
  }
  tree.emplace(ground.mount(kFull));
  getRepository(ground.id());
}

double Draining::pass() const {
  return timed([this] { checkOverload_(ground.id(), false); });
}

double Draining::passFloor() const {
  const floors::Repository& repository = ground.repository();
  return timed([&] {
    floors::lookUpRepository(repository);
    floors::takeLock(repository.lock);
    floors::measureAll(repository);
    floors::measureAll(repository);
    floors::walk(repository, kFull, *tree);
    for (const floors::Move& move : moves) floors::step(repository, move);
    floors::releaseLock(repository.lock);
  });
}

double Draining::other(const std::function<void(const std::vector<floors::Move>&)>& work) const {
  return timed([&] { work(moves); });
}

template <typename Work>
double Draining::timed(const Work& work) const {
  fullMount = ground.mount(kFull);
  timesFull = kAsksOfPass + moves.size() - 1;
  const double seconds = secondsOf(work);
  takeBack();
  return seconds;
}

// Random bytes, so that no file system stores less than was written.
void Draining::makeOldest(const std::string& place, const Content& content) const {
  std::string bytes(content.bytes, '\0');
  for (char& byte : bytes) byte = static_cast<char>(rand());
  for (size_t i = 0; i < content.files; ++i) std::ofstream(place + "/" + std::to_string(i)) << bytes;
}

void Draining::takeBack() const {
  for (const floors::Move& move : moves) {
    fs::create_directories(move.levels.front());
    // Also from disk to disk, with its times, and over a directory that is left but empty.
    if (system(("mv -T " + move.destination + " " + move.origin).c_str()) != 0)
      throw std::runtime_error("not moved: " + move.origin);
    for (size_t level = 1; level <= kHashLevels; ++level)
      if (::remove(move.ancestors[move.ancestors.size() - level].c_str()) != 0) break;
  }
}
