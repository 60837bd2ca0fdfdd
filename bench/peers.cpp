// Established tools that do part of what the library does, on the same disks in the same run: the time of ours over the
// time of the peer ("floor" in the rows). None of them locks, and of the movers only the shell loop compares what it
// copied with what it read. Needs root, mergerfs and rsync; scripts/bench --peers runs it.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <array>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

#include "draining.h"
#include "entrypoints.h"
#include "halves.h"
#include "pairs.h"
#include "registry.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMounts = 4;

void run(const std::string& command) {
  if (system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

// mergerfs as the union of the mounts of a repository.
class Union {
 public:
  Union(const Ground& ground, const std::string& options) : path(std::string(ground.id()) + "/union") {
    fs::create_directory(path);
    std::string branches;
    for (const floors::Repository::Mount& mount : ground.repository().mounts)
      branches.append(branches.empty() ? "" : ":").append(mount.path);
    run("mergerfs -o " + options + " " + branches + " " + path);
  }
  ~Union() {
    umount2(path.c_str(), MNT_DETACH);
    fs::remove(path);
  }
  Union(const Union&) = delete;
  Union& operator=(const Union&) = delete;

  // Where a resource is seen.
  std::string seen(const Ground& ground, const floors::Resource& resource) const {
    return path + resource.places[0].substr(ground.mount(0).size());
  }

 private:
  const std::string path;
};

const char kUncached[] = "cache.attr=0,cache.entry=0";
const char kCached[] = "cache.attr=3600,cache.entry=3600";

// Where a resource is, its times set to now.

const char kResource[] = "2009";

size_t mountOf(const benchmark::State& state) { return static_cast<size_t>(state.range(0)) - 1; }

void locate(benchmark::State& state) {
  const Ground ground(kMounts);
  ground.place(mountOf(state), kResource);
  int status = 0;
  for (auto _ : state) release(getLocation_(ground.id(), kResource, &status));
}

template <const char* options>
void locateInUnion(benchmark::State& state) {
  const Ground ground(kMounts);
  ground.place(mountOf(state), kResource);
  const Union merged(ground, options);
  const std::string path = merged.seen(ground, floors::Resource(ground.repository(), kResource));
  struct stat status;
  for (auto _ : state)
    if (stat(path.c_str(), &status) != 0 || utime(path.c_str(), nullptr) != 0) state.SkipWithError("not in the union");
}

// A directory and the three hash levels above it, on the disk with most room or on the first one that has some.

const char kBalanced[] = "switchLimit=0\n";
const char kInOrder[] = "";
const char kMostRoom[] = "cache.attr=0,cache.entry=0,category.create=mfs";
const char kFirst[] = "cache.attr=0,cache.entry=0,category.create=ff";

template <const char* settings, Half timed>
void create(benchmark::State& state) {
  const Ground ground(kMounts, settings);
  const std::vector<std::string> resources = ids();
  int status = 0;
  timeHalf(
      state, timed, [&](size_t i) { release(createDirectory_(ground.id(), resources[i].c_str(), &status, false)); },
      [&](size_t i) { removeResource_(ground.id(), resources[i].c_str()); });
}

using Branch = std::array<std::string, 4>;  // the hash levels and the resource, the outermost first

Branch branchOf(const std::string& resource) {
  Branch branch;
  fs::path path = resource;
  for (auto level = branch.rbegin(); level != branch.rend(); ++level, path = path.parent_path()) *level = path;
  return branch;
}

template <const char* options, Half timed>
void createInUnion(benchmark::State& state) {
  const Ground ground(kMounts);
  const Union merged(ground, options);
  std::vector<Branch> branches;
  for (const std::string& id : ids())
    branches.push_back(branchOf(merged.seen(ground, floors::Resource(ground.repository(), id))));
  timeHalf(
      state, timed,
      [&](size_t i) {
        for (const std::string& level : branches[i]) mkdir(level.c_str(), 0755);
      },
      [&](size_t i) {
        for (auto level = branches[i].rbegin(); level != branches[i].rend(); ++level) rmdir(level->c_str());
      });
}

// Moving resources of three files to another disk.

const Draining& draining() {
  static const Draining twenty(20, 20, {3, 4096});
  return twenty;
}

void pass(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(draining().pass());
}

// `work` takes the moves.
template <auto work>
void otherMover(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(draining().other(work));
}

void rsyncEach(const std::vector<floors::Move>& moves) {
  for (const floors::Move& move : moves)
    run("rsync -a --mkpath --remove-source-files " + move.origin + "/ " + move.destination + "/");
}

void rsyncAll(const std::vector<floors::Move>& moves) {
  constexpr size_t kLevelsBelowMount = 4;
  const auto mountOf = [](fs::path path) {
    for (size_t level = 0; level < kLevelsBelowMount; ++level) path = path.parent_path();
    return path.string();
  };
  run("rsync -a --remove-source-files --exclude=/repositorypart.cfg " + mountOf(moves[0].origin) + "/ " +
      mountOf(moves[0].destination) + "/");
}

void shellLoop(const std::vector<floors::Move>& moves) {
  std::string script;
  for (const floors::Move& move : moves)
    script += "mkdir -p " + move.ancestors.back() + " && " + move.copy + " && " + move.compare + " && " + move.removal +
              " || exit 1\n";
  run(script);
}

// The hundred oldest of N resources.

constexpr unsigned int kOldest = 100;

const Ground& filled(const benchmark::State& state) {
  static std::unique_ptr<Ground> ground;
  if (ground) return *ground;
  ground = std::make_unique<Ground>(1, "nomoveTimeSeconds=0\n");
  for (int64_t i = 0; i < state.range(0); ++i) ground->place(0, "resource" + std::to_string(i));
  return *ground;
}

void candidates(benchmark::State& state) {
  const Ground& ground = filled(state);
  KTMountPointHandler* mount = getRepository(ground.id())->mountPoints[0];
  for (auto _ : state) {
    std::set<ResourceEntry, ltres> oldest;
    mount->getOldestResources(&oldest, kOldest, "", 0);
    if (oldest.size() != kOldest) state.SkipWithError("not enough resources");
  }
}

void find(benchmark::State& state) {
  const std::string command = "find " + filled(state).mount(0) +
                              " -mindepth 4 -maxdepth 4 -printf '%T@ %p\\n' | LC_ALL=C sort -n | head -n " +
                              std::to_string(kOldest) + " >/dev/null";
  for (auto _ : state) run(command);
}

pairs::Pair peer(const char* name, std::vector<std::string> arguments, std::vector<pairs::Shape> shapes,
                 pairs::Body ours, pairs::Body theirs, int64_t iterations = 0) {
  return {.operation = name,
          .arguments = std::move(arguments),
          .shapes = std::move(shapes),
          .body = ours,
          .floor = theirs,
          .goal = 0,
          .stretch = 0,
          .manual = iterations != 0,
          .iterations = iterations};
}

}  // namespace

int main(int count, char** arguments) {
  using enum Half;
  return pairs::run(
      count, arguments,
      {peer("locate / mergerfs uncached", {"k"}, {{1}, {4}}, locate, locateInUnion<kUncached>),
       peer("locate / mergerfs cached", {"k"}, {{1}, {4}}, locate, locateInUnion<kCached>),
       peer("create / mergerfs mfs", {}, {{}}, create<kBalanced, kCreate>, createInUnion<kMostRoom, kCreate>, 5),
       peer("create / mergerfs ff", {}, {{}}, create<kInOrder, kCreate>, createInUnion<kFirst, kCreate>, 5),
       peer("remove / mergerfs", {}, {{}}, create<kInOrder, kRemove>, createInUnion<kFirst, kRemove>, 5),
       peer("move 20 / rsync for each", {}, {{}}, pass, otherMover<rsyncEach>, 2),
       peer("move 20 / rsync for all", {}, {{}}, pass, otherMover<rsyncAll>, 2),
       peer("move 20 / cp, diff, rm in a shell", {}, {{}}, pass, otherMover<shellLoop>, 2),
       peer("candidates / find, sort, head", {"N"}, {{20000}}, candidates, find)});
}
