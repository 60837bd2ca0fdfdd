#include "faults/disks/drainedrepository.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "entrypoints.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kFileBytes = 80000;
constexpr time_t kLongAgo = 1000000000;

const std::string& contentOf(const std::string& name) {
  static std::map<std::string, std::string> contents;
  std::string& content = contents[name];
  for (unsigned int i = 0; content.size() < kFileBytes; ++i) content += name + " " + std::to_string(i * 7919) + "\n";
  return content;
}

bool isWhole(const std::string& path, const std::string& id) {
  const std::vector<std::string> whole = {"first=" + contentOf(id + "a"), "second=" + contentOf(id + "b")};
  try {
    return treeOf(path) == whole;
  } catch (const fs::filesystem_error&) {
    return false;
  }
}

}  // namespace

DrainedRepository::DrainedRepository(DiskKind kind, const std::function<std::string(const std::string& image)>& served)
    : repository({"d1", "d2"}), disks(kind), log(std::in_place) {
  // Below the disks there is no configuration, as where no disk is mounted.
  for (size_t i = 0; i < 2; ++i) unlink((repository.mount(i) + "/repositorypart.cfg").c_str());
  disks.mountAt(origin());
  repository.configureMount(0, "cleanLimit=1\nmoveLimit=2\n");
  if (served)
    disks.mountAt(destination(), served);
  else
    disks.mountAt(destination());
  repository.configureMount(1, "");
  for (unsigned int i = 0; i < kResources; ++i) place(idOf(i));
  EXPECT_TRUE(RealDisks::writeOut(origin()) && RealDisks::writeOut(destination()));
}

unsigned int DrainedRepository::balance(Interruption interruption, unsigned int point,
                                        const std::function<void()>& onStop) {
  Points points(interruption, point, onStop);
  checkOverload_(id(), false);
  points.pass();
  return points.passed();
}

unsigned int DrainedRepository::lost() const {
  unsigned int count = 0;
  for (unsigned int i = 0; i < kResources; ++i)
    if (isLost(i)) ++count;
  return count;
}

void DrainedRepository::repair() const {
  for (const std::string& lock : repository.locksLeft()) unlink((repository.lockDirectory() + "/" + lock).c_str());
  checkOverload_(id(), false);
}

bool DrainedRepository::isFoundWhole(unsigned int resource) const {
  const Found found = repository.find(idOf(resource));
  return found.status == 0 && isWhole(found.path, idOf(resource));
}

void DrainedRepository::place(const std::string& resource) {
  const std::string path = repository.resourcePath(0, resource);
  writeFile(path + "/first", contentOf(resource + "a"));
  writeFile(path + "/second", contentOf(resource + "b"));
  setTimes(path + "/first", kLongAgo);
  setTimes(path + "/second", kLongAgo);
  setTimes(path, kLongAgo);
}

bool DrainedRepository::isWholeAt(size_t mount, unsigned int resource) const {
  return isWhole(repository.resourcePath(mount, idOf(resource)), idOf(resource));
}
