#include "support/repository.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "hashlayout.h"
#include "listing.h"
#include "paths.h"

namespace fs = std::filesystem;

namespace {

std::string taken(char* text) {
  const std::string copy(text);
  release(text);
  return copy;
}

}  // namespace

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
  return taken(toResourceID(root.c_str(), resource.c_str()));
}

std::string TestRepository::dirtyLockName() const { return taken(toResourceID((root + "/.dirty").c_str(), "")); }

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
  return mount(index) + "/" + taken(createHash(name.c_str()));
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

std::string TestRepository::listOfMounts() const {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : "\\") + name;
  return list;
}
