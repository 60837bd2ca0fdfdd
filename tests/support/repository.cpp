#include "support/repository.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "entrypoints.h"
#include "hashlayout.h"
#include "listing.h"
#include "support/results.h"

namespace fs = std::filesystem;

TestRepository::TestRepository(const std::vector<std::string>& mountNames, const std::string& settings)
    : lockVariable("LOCK_VAR", directory / "locks"),
      root(directory / "rep"),
      names(mountNames),
      configured(time(nullptr)) {
  makeDirectories(lockDirectory());
  makeDirectories(root);
  for (size_t i = 0; i < names.size(); ++i) writeFile(mount(i) + "/repositorypart.cfg", "");
  configure(settings);
}

std::string TestRepository::lockName(const std::string& resource) const {
  return taken(toResourceID(root.c_str(), resource.c_str())).value();
}

std::string TestRepository::dirtyLockName() const { return taken(toResourceID(dirtySetFile().c_str(), "")).value(); }

std::vector<std::string> TestRepository::locksLeft() const {
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(lockDirectory())) left.push_back(entry.path().filename().string());
  std::sort(left.begin(), left.end());
  return left;
}

void TestRepository::configure(const std::string& settings) {
  writeFile(root + "/repository.cfg", "mountPoints=" + listOfMounts() + "\n" + settings);
  setTimes(root + "/repository.cfg", ++configured);
}

void TestRepository::configureMount(size_t index, const std::string& settings) {
  writeFile(mount(index) + "/repositorypart.cfg", settings);
  setTimes(mount(index) + "/repositorypart.cfg", ++configured);
}

void TestRepository::takeOut(size_t index) const {
  fs::rename(mount(index) + "/repositorypart.cfg", mount(index) + "/repositorypart.no");
}

void TestRepository::giveBack(size_t index) const {
  fs::rename(mount(index) + "/repositorypart.no", mount(index) + "/repositorypart.cfg");
}

std::string TestRepository::resourcePath(size_t index, const std::string& name) const {
  return mount(index) + "/" + taken(createHash(name.c_str())).value();
}

std::string TestRepository::place(size_t index, const std::string& name, const std::string& content,
                                  time_t used) const {
  const std::string path = resourcePath(index, name);
  writeFile(path + "/content", content);
  if (used) {
    setTimes(path + "/content", used);
    setTimes(path, used);
  }
  return path;
}

std::string TestRepository::placeFile(size_t index, const std::string& name, const std::string& content,
                                      time_t used) const {
  const std::string path = resourcePath(index, name);
  writeFile(path, content);
  if (used) setTimes(path, used);
  return path;
}

Found TestRepository::create(const std::string& name) const {
  int status = -1;
  const Text path = taken(createDirectory_(id(), name.c_str(), &status, false));
  return {path.value_or(""), status};
}

Found TestRepository::find(const std::string& name) const {
  int status = -1;
  const Text path = taken(getLocation_(id(), name.c_str(), &status));
  return {path.value_or(""), status};
}

std::string TestRepository::listOfMounts() const {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : "\\") + name;
  return list;
}
