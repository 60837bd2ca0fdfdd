#include "ground.h"

#include <sys/mount.h>
#include <syslog.h>
#include <utime.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include "registry.h"

namespace fs = std::filesystem;

// Stands in for libc's: log lines are not what is measured, and how long they take is the log daemon's business.
extern "C" void vsyslog(int, const char*, va_list) {}

namespace {

constexpr time_t kLongAgo = 1000000000;  // seconds since the epoch
constexpr uint64_t kSecondsPerYear = 365 * 24 * 60 * 60;

std::string fromEnvironment(const char* name, const std::string& otherwise) {
  const char* value = getenv(name);
  return value ? value : otherwise;
}

std::string makeDirectory() {
  std::string path = fromEnvironment("KT_BENCH_DIRECTORY", fromEnvironment("TMPDIR", "/tmp")) + "/ktbench-XXXXXX";
  if (!mkdtemp(path.data())) throw std::runtime_error("cannot make " + path);
  return path;
}

std::string inHexadecimal(uint64_t number) {
  char digits[2 * sizeof number + 1];
  snprintf(digits, sizeof digits, "%016" PRIx64, number);
  return digits;
}

}  // namespace

Ground::Ground(size_t mounts, const std::string& settings)
    : directory(makeDirectory()), root(directory + "/repository") {
  const std::string locks = fromEnvironment("KT_BENCH_LOCKS", directory) + "/locks";
  fs::create_directories(locks);
  setenv("LOCK_VAR", locks.c_str(), 1);
  std::vector<std::string> mountPaths;
  std::string list;
  for (size_t i = 1; i <= mounts; ++i) {
    const std::string name = "disk" + std::to_string(i);
    mountPaths.push_back(root + "/" + name);
    fs::create_directories(mountPaths.back());
    lendDisk(i, mountPaths.back());
    std::ofstream(mountPaths.back() + "/repositorypart.cfg").flush();
    list.append(i == 1 ? "" : "\\").append(name);
  }
  std::ofstream(root + "/repository.cfg") << "mountPoints=" << list << "\n" << settings;
  paths = std::make_unique<floors::Repository>(root, mountPaths);
}

Ground::~Ground() {
  giveBackDisks();
  fs::remove_all(directory);
}

void Ground::lendDisk(size_t number, const std::string& path) {
  const std::string disks = fromEnvironment("KT_BENCH_DISKS", "");
  if (disks.empty()) return;
  lent.push_back({disks + "/disk" + std::to_string(number) + "/" + fs::path(directory).filename().string(), path});
  fs::create_directory(lent.back().directory);
  if (::mount(lent.back().directory.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
    throw std::runtime_error("cannot bind a disk to " + path);
}

void Ground::giveBackDisks() {
  for (const Lent& disk : lent) {
    umount(disk.mount.c_str());
    fs::remove_all(disk.directory);
  }
}

Ground& Ground::shared(size_t mounts) {
  static std::unique_ptr<Ground> ground;
  if (!ground || ground->paths->mounts.size() != mounts) {
    ground.reset();
    ground = std::make_unique<Ground>(mounts);
  }
  return *ground;
}

std::string Ground::place(size_t mount, const std::string& resource) const {
  std::string path = floors::Resource(*paths, resource).places[mount];
  fs::create_directories(path);
  return path;
}

FilledGround::FilledGround(size_t resources, bool isHexadecimal)
    : Ground(1), count(resources), hexadecimal(isHexadecimal) {
  std::mt19937_64 random;  // its default seed
  for (size_t i = 0; i < count; ++i) {
    const std::string id = hexadecimal ? inHexadecimal(random()) : std::to_string(i);
    const time_t used = kLongAgo + static_cast<time_t>(random() % kSecondsPerYear);
    const utimbuf times = {used, used};
    utime(place(0, id).c_str(), &times);
  }
}

FilledGround& FilledGround::shared(size_t count, bool hexadecimal) {
  static std::unique_ptr<FilledGround> ground;
  if (!ground || ground->count != count || ground->hexadecimal != hexadecimal) {
    ground.reset();
    ground = std::make_unique<FilledGround>(count, hexadecimal);
  }
  return *ground;
}

KTMountPointHandler& FilledGround::mountPoint() const { return *getRepository(id())->mountPoints.front(); }

const std::vector<floors::Tree>& FilledGround::trees() {
  if (known.empty()) known.emplace_back(mount(0));
  return known;
}
