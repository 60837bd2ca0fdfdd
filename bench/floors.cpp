#include "floors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <list>

#include "disklayout.h"
#include "hashlayout.h"
#include "listing.h"
#include "paths.h"

namespace floors {

namespace {

constexpr size_t kConfigurationBytes = 4096;  // what stdio reads at a time

std::string owned(char* text) {
  std::string copy = text;
  release(text);
  return copy;
}

std::string lockFile(const std::string& repository, const std::string& resource) {
  return std::string(getenv("LOCK_VAR")) + "/semaphore_" + owned(toResourceID(repository.c_str(), resource.c_str()));
}

void look(const std::string& path) { access(path.c_str(), F_OK); }

void examine(const std::string& path) {
  struct stat status;
  stat(path.c_str(), &status);
}

void measure(const Repository::Mount& mount) {
  struct statvfs space;
  look(mount.config);
  statvfs(mount.path.c_str(), &space);
}

void readConfiguration(const std::string& path, bool empty) {
  char content[kConfigurationBytes];
  struct stat status;
  look(path);
  examine(path);
  const int file = open(path.c_str(), O_RDONLY);
  fstat(file, &status);
  [[maybe_unused]] ssize_t size = read(file, content, sizeof content);
  if (!empty) size = read(file, content, sizeof content);
  close(file);
}

void isDirty(const Repository& repository) {
  takeLock(repository.dirtyLock);
  releaseLock(repository.dirtyLock);
}

void makeAncestors(const std::vector<std::string>& ancestors) {
  for (const std::string& directory : ancestors)
    if (access(directory.c_str(), F_OK) != 0) mkdir(directory.c_str(), 0755);
}

void run(const std::string& command) { [[maybe_unused]] const int status = system(command.c_str()); }

void readDirectory(const std::string& path) {
  DIR* directory = opendir(path.c_str());
  while (readdir(directory)) continue;
  closedir(directory);
}

// A directory is closed after all that is below it.
template <typename PerName>
void visit(const Tree& tree, const PerName& perName) {
  DIR* directory = opendir(tree.path.c_str());
  while (readdir(directory)) continue;
  for (const Tree& entry : tree.entries) {
    perName(entry.path);
    if (entry.isRead) visit(entry, perName);
  }
  closedir(directory);
}

}  // namespace

Repository::Repository(const std::string& where, const std::vector<std::string>& mountPaths)
    : root(where),
      config(root + "/repository.cfg"),
      dirtySet(root + "/.dirty"),
      dirtyLock(lockFile(dirtySet, "")),
      lock(lockFile(root, "")) {
  for (const std::string& path : mountPaths) mounts.push_back({path, path + "/repositorypart.cfg"});
}

Resource::Resource(const Repository& repository, const std::string& id) : lock(lockFile(repository.root, id)) {
  std::string hashed("/");
  hashed += owned(createHash(id.c_str()));
  for (const Repository::Mount& mount : repository.mounts) {
    const std::string place = mount.path + hashed;
    places.push_back(place);
    ancestors.emplace_back();
    for (size_t slash = place.find('/', 1); slash != std::string::npos; slash = place.find('/', slash + 1))
      ancestors.back().push_back(place.substr(0, slash));
  }
}

Tree::Tree(const std::string& where, unsigned int depth)
    : path(where), isRead(depth <= kHashLevels && std::filesystem::is_directory(where)) {
  if (!isRead) return;
  std::list<std::string> found;
  listDir(path.c_str(), found);
  for (const std::string& name : found) entries.emplace_back(path + "/" + name, depth + 1);
}

size_t Tree::names() const {
  size_t count = entries.size();
  for (const Tree& entry : entries) count += entry.names();
  return count;
}

Move::Move(const Resource& resource, size_t from, size_t to)
    : lock(resource.lock),
      origin(resource.places[from]),
      destination(resource.places[to]),
      levels(resource.ancestors[from].rbegin(), resource.ancestors[from].rbegin() + kHashLevels),
      ancestors(resource.ancestors[to]) {
  const std::string both = origin + " " + destination;
  copy = "cp -r " + both;
  compare = "diff -q -r " + both;
  removal = "rm -fr " + origin;
}

void takeLock(const std::string& lock) { close(open(lock.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0660)); }

void releaseLock(const std::string& lock) { unlink(lock.c_str()); }

void measureAll(const Repository& repository) {
  for (const Repository::Mount& mount : repository.mounts) measure(mount);
}

void lookUpRepository(const Repository& repository) {
  look(repository.config);
  examine(repository.config);
  for (const Repository::Mount& mount : repository.mounts) {
    look(mount.config);
    examine(mount.config);
  }
}

void rebuildRepository(const Repository& repository) {
  look(repository.config);  // it has changed, so the mounts are not asked
  examine(repository.config);
  look(repository.root);
  takeLock(repository.dirtyLock);
  look(repository.dirtySet);
  releaseLock(repository.dirtyLock);
  readConfiguration(repository.config, false);
  for (const Repository::Mount& mount : repository.mounts) {
    look(mount.path);
    measure(mount);
    readConfiguration(mount.config, true);
    measure(mount);
  }
  measureAll(repository);
}

void locate(const Repository& repository, const Resource& resource, size_t mountOfHit) {
  lookUpRepository(repository);
  takeLock(resource.lock);
  isDirty(repository);
  for (size_t mount = 0; mount <= mountOfHit; ++mount) {
    measure(repository.mounts[mount]);
    look(resource.places[mount]);
  }
  utime(resource.places[mountOfHit].c_str(), nullptr);
  releaseLock(resource.lock);
}

void createDirectory(const Repository& repository, const Resource& resource) {
  lookUpRepository(repository);
  takeLock(resource.lock);
  isDirty(repository);
  for (size_t mount = 0; mount < repository.mounts.size(); ++mount) {
    measure(repository.mounts[mount]);
    look(resource.places[mount]);
  }
  measureAll(repository);
  look(repository.mounts[0].config);
  makeAncestors(resource.ancestors[0]);
  for (const std::string& directory : resource.ancestors[0]) look(directory);
  look(resource.places[0]);
  mkdir(resource.places[0].c_str(), 0755);
  releaseLock(resource.lock);
}

void remove(const Repository& repository, const Resource& resource, size_t mountOfHit) {
  lookUpRepository(repository);
  takeLock(resource.lock);
  isDirty(repository);
  for (size_t mount = 0; mount < repository.mounts.size(); ++mount) {
    const std::string& place = resource.places[mount];
    measure(repository.mounts[mount]);
    look(place);
    if (mount != mountOfHit) continue;
    look(place);
    examine(place);
    readDirectory(place);
    ::remove(place.c_str());
    look(place);
    const std::vector<std::string>& above = resource.ancestors[mount];
    for (size_t level = 1; level <= 3; ++level) ::remove(above[above.size() - level].c_str());
  }
  releaseLock(resource.lock);
}

void walk(const Repository& repository, size_t mount, const Tree& tree) {
  look(repository.mounts[mount].config);
  visit(tree, [&](const std::string& path) {
    isDirty(repository);
    examine(path);
  });
}

void list(const Repository& repository, const std::vector<Tree>& trees) {
  lookUpRepository(repository);
  for (size_t mount = 0; mount < trees.size(); ++mount) {
    look(repository.mounts[mount].config);
    visit(trees[mount], examine);
  }
}

void step(const Repository& repository, const Move& move) {
  takeLock(move.lock);
  examine(move.origin);  // touched since it was listed?
  look(move.origin);
  struct stat status;
  stat(move.origin.c_str(), &status);
  look(move.destination);
  makeAncestors(move.ancestors);
  look(move.ancestors.back());
  run(move.copy);
  run(move.compare);
  run(move.removal);
  const utimbuf times = {status.st_atime, status.st_mtime};
  utime(move.destination.c_str(), &times);
  look(move.origin);
  for (const std::string& level : move.levels)
    if (::remove(level.c_str()) != 0) break;
  releaseLock(move.lock);
  measureAll(repository);
}

}  // namespace floors
