#include "ground.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

// Stands in for libc's: log lines are not what is measured, and how long they take is the log daemon's business.
extern "C" void vsyslog(int, const char*, va_list) {}

namespace {

std::string fromEnvironment(const char* name, const std::string& otherwise) {
  const char* value = getenv(name);
  return value ? value : otherwise;
}

std::string makeDirectory() {
  std::string path = fromEnvironment("KT_BENCH_DIRECTORY", fromEnvironment("TMPDIR", "/tmp")) + "/ktbench-XXXXXX";
  if (!mkdtemp(path.data())) throw std::runtime_error("cannot make " + path);
  return path;
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
    std::ofstream(mountPaths.back() + "/repositorypart.cfg").flush();
    list.append(i == 1 ? "" : "\\").append(name);
  }
  std::ofstream(root + "/repository.cfg") << "mountPoints=" << list << "\n" << settings;
  paths = std::make_unique<floors::Repository>(root, mountPaths);
}

Ground::~Ground() { fs::remove_all(directory); }

Ground& Ground::shared(size_t mounts) {
  static std::unique_ptr<Ground> ground;
  if (!ground || ground->paths->mounts.size() != mounts) {
    ground.reset();
    ground = std::make_unique<Ground>(mounts);
  }
  return *ground;
}

void Ground::place(size_t mount, const std::string& resource) const {
  fs::create_directories(floors::Resource(*paths, resource).places[mount]);
}
