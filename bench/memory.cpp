// Memory of operations above that of the idle process: what malloc has handed out, with its overhead, at the highest
// and at the end. These figures are the same in each run; beside them stands by how much the resident memory rose.
// Look-up and creation are called a hundred thousand times, or as often as --iterations says.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>

#include "entrypoints.h"
#include "ground.h"
#include "pairs.h"

namespace {

size_t live = 0;     // bytes that malloc has handed out
size_t highest = 0;  // since it was last set

size_t chunkOf(void* memory) { return memory ? malloc_usable_size(memory) + sizeof(size_t) : 0; }

void* counted(void* memory) {
  live += chunkOf(memory);
  highest = std::max(highest, live);
  return memory;
}

}  // namespace

// glibc's own, and what stands before it: everything in the process is counted, what libc and operator new take too.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);

void* malloc(size_t size) noexcept { return counted(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) noexcept { return counted(__libc_calloc(count, size)); }
void* realloc(void* memory, size_t size) noexcept {
  live -= chunkOf(memory);
  return counted(__libc_realloc(memory, size));
}
void free(void* memory) noexcept {
  live -= chunkOf(memory);
  __libc_free(memory);
}
}

namespace {

constexpr size_t kMebibyte = 1024 * 1024;
constexpr long kBytesPerKilobyte = 1024;

struct Usage {
  size_t peak = 0;    // bytes above those at the beginning
  size_t left = 0;    // of them, those that were still there at the end
  long resident = 0;  // bytes by which the resident memory rose, at its highest
};

// A field of /proc/self/status, in bytes.
long processField(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1)) * kBytesPerKilobyte;
  return 0;
}

template <typename Work>
Usage usageOf(const Work& work) {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";  // the highest resident memory is that of now
  const long resident = processField("VmRSS");
  const size_t before = live;
  highest = live;
  work();
  Usage usage = {highest - before, live - before, 0};
  usage.resident = processField("VmHWM") - resident;
  return usage;
}

class Report {
 public:
  explicit Report(const std::string& file) {
    if (!file.empty()) json.open(file);
    json.precision(std::numeric_limits<double>::digits10);
  }

  void add(const std::string& operation, const std::string& what, size_t number, double measured, double goal,
           long resident) {
    printf("%-24s %9zu  %-34s %10.0f  goal %9.0f: %-6s  resident memory rose by %ld\n", operation.c_str(), number,
           what.c_str(), measured, goal, measured <= goal ? "goal" : "missed", resident);
    fflush(stdout);
    if (json.is_open())
      json << "{\"operation\": \"" << operation << "\", \"N\": " << number << ", \"measure\": \"" << what
           << "\", \"measured\": " << measured << ", \"goal\": " << goal << ", \"resident\": " << resident << "}\n";
  }

 private:
  std::ofstream json;
};

void walk(Report& report, size_t resources) {
  KTMountPointHandler& mount = FilledGround::shared(resources, true).mountPoint();
  const Usage usage = usageOf([&] {
    std::set<ResourceEntry, ltres> oldest;
    mount.getOldestResources(&oldest, 100, "", 0);
  });
  report.add("walk for candidates", "bytes", resources, static_cast<double>(usage.peak), 4 * kMebibyte, usage.resident);
}

void list(Report& report, size_t resources, bool sorted) {
  const FilledGround& ground = FilledGround::shared(resources, true);
  long count = 0;
  char** names = nullptr;
  const Usage usage = usageOf([&] { names = listDirs_(ground.id(), &count, sorted); });
  const double beside = static_cast<double>(usage.peak - usage.left) / static_cast<double>(count);
  report.add(sorted ? "listDirs_ sorted" : "listDirs_", "bytes per resource beside result", resources, beside, 100,
             usage.resident);
  for (long i = 0; i < count; ++i) release(names[i]);
  delete[] names;
}

// Calls `work` often. The first call may leave something behind, the others must not.
template <typename Work>
void often(Report& report, const std::string& operation, size_t calls, const Work& work) {
  Usage further;
  const Usage all = usageOf([&] {
    work();
    const size_t before = live;
    for (size_t i = 1; i < calls; ++i) work();
    further.left = live - before;
  });
  report.add(operation, "bytes", calls, static_cast<double>(all.peak), kMebibyte, all.resident);
  report.add(operation, "bytes of growth", calls, static_cast<double>(further.left), 0, all.resident);
}

void removeEmpty(const floors::Resource& resource) {
  const std::vector<std::string>& above = resource.ancestors.front();
  rmdir(resource.places.front().c_str());
  for (size_t level = 1; level <= 3; ++level) rmdir(above[above.size() - level].c_str());
}

void locateAndCreate(Report& report, size_t calls) {
  const Ground ground(1);
  int status = 0;
  ground.place(0, "2009");
  often(report, "getLocation_", calls, [&] { release(getLocation_(ground.id(), "2009", &status)); });
  const floors::Resource created(ground.repository(), "new");
  often(report, "createDirectory_ new", calls, [&] {
    release(createDirectory_(ground.id(), "new", &status, false));
    removeEmpty(created);
  });
}

}  // namespace

int main(int count, char** arguments) {
  pairs::Options options;
  if (!pairs::parse(count, arguments, options)) return 2;
  Report report(options.json);
  const bool quick = options.iterations == 1;
  const size_t most = quick ? 1000 : 100000;
  for (const size_t resources : {most / 10, most}) walk(report, resources);
  for (const bool sorted : {false, true}) list(report, most, sorted);
  locateAndCreate(report, quick ? 1000 : std::max(most, static_cast<size_t>(options.iterations)));
  return 0;
}
