// Calls every flat entry on a repository of its own and gives back all that it gets: a program to be run under a leak
// checker. It makes its files below the directory that it is given, and removes them when all went well.
// Exit status: 0, or 1 when an answer was not the expected one, which it then names.

#include <utime.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "entrypoints.h"
#include "hashlayout.h"
#include "paths.h"

namespace fs = std::filesystem;

namespace {

int unexpected = 0;

void expectAt(int line, bool isAsExpected, const char* text) {
  if (isAsExpected) return;
  ++unexpected;
  fprintf(stderr, "allentries.cpp:%d: not so: %s\n", line, text);
}

#define EXPECT(condition) expectAt(__LINE__, condition, #condition)

struct Found {
  bool operator==(const Found& other) const = default;

  std::string path;  // empty: null
  int status;
};

std::string taken(char* text) {
  const std::string copy = text ? text : "";
  release(text);
  return copy;
}

void writeFile(const fs::path& path, const std::string& content) { std::ofstream(path, std::ios::binary) << content; }

class Repository {
 public:
  // Limits that no fill of the disk below reaches, so that the answers are the same on every machine.
  explicit Repository(const fs::path& directory) : root((directory / "rep").string()) {
    fs::create_directories(root + "/d1");
    fs::create_directories(root + "/d2");
    fs::create_directories(root + "/legacy");
    fs::create_directories(directory / "locks");
    writeFile(root + "/d1/repositorypart.cfg", "");
    writeFile(root + "/d2/repositorypart.cfg", "");
    writeFile(root + "/repository.cfg", "mountPoints=d1\\d2\nlegacyDir=" + root +
                                            "/legacy\nremindLimit=0\nwarnLimit=0\nwarn2Limit=0\nwarn3Limit=0\n"
                                            "switchLimit=101\nfullLimit=0\ncleanLimit=0\nmoveLimit=0\n");
    setenv("LOCK_VAR", (directory / "locks").c_str(), 1);
  }

  const char* id() const { return root.c_str(); }

  std::string place(const std::string& mount, const std::string& name) const {
    return root + "/" + mount + "/" + taken(createHash(name.c_str()));
  }
  Found find(const char* name) const {
    int status = -1;
    const std::string path = taken(getLocation_(id(), name, &status));
    return {path, status};
  }
  Found createLocation(const char* name) const {
    int status = -1;
    const std::string path = taken(createLocation_(id(), name, &status, false));
    return {path, status};
  }
  Found createDirectory(const char* name) const {
    int status = -1;
    const std::string path = taken(createDirectory_(id(), name, &status, false));
    return {path, status};
  }
  std::vector<std::string> directories() const { return listed(listDirs_); }
  std::vector<std::string> files() const { return listed(listFiles_); }

 private:
  std::vector<std::string> listed(char** (*list)(const char*, long*, bool)) const {
    long count = -1;
    char** names = list(id(), &count, true);
    std::vector<std::string> result;
    for (long i = 0; i < count; ++i) result.push_back(taken(names[i]));
    delete[] names;
    return result;
  }

  std::string root;
};

void makeResources(const Repository& repository) {
  EXPECT((repository.createLocation("file") == Found{repository.place("d1", "file"), 0}));
  writeFile(repository.place("d1", "file"), "content");
  EXPECT((repository.createDirectory("directory") == Found{repository.place("d1", "directory"), 0}));
  writeFile(repository.place("d1", "directory") + "/file", "content");
  EXPECT(fs::is_directory(repository.place("d1", "directory")));
  const std::string legacy = taken(createToLegacy_(repository.id(), "old"));
  EXPECT(legacy == std::string(repository.id()) + "/legacy/old");
  EXPECT(fs::is_directory(legacy));
  // On either mount: both are on the file system of the legacy directory, and which of them is seen to be depends on
  // what others write there between two looks.
  const Found imported = repository.find("old");
  EXPECT(imported.status == 0);
  EXPECT(imported.path == repository.place("d1", "old") || imported.path == repository.place("d2", "old"));
}

void look(const Repository& repository) {
  EXPECT((repository.find("directory") == Found{repository.place("d1", "directory"), 0}));
  EXPECT((repository.find("absent") == Found{"", 4}));
  EXPECT(checkResourceStatus_(repository.id(), "file") == 0);
  EXPECT(checkResourceStatus_(repository.id(), "absent") == 4);
  EXPECT((repository.directories() == std::vector<std::string>{"directory", "old"}));
  EXPECT(repository.files() == std::vector<std::string>{"file"});
  utimbuf times = {1000000000, 1000000001};
  EXPECT(setTimeProperties_(repository.id(), "directory", &times) == 1);
  EXPECT(setTimeProperties_(repository.id(), "absent", &times) == 0);
  utimbuf read = {};
  EXPECT(getTimeProperties_(repository.id(), "directory", &read) == 1);
  EXPECT(read.actime == 1000000000 && read.modtime == 1000000001);
  EXPECT(getTimeProperties_(repository.id(), "absent", &read) == 0);
}

void takeMountsOut(const Repository& repository) {
  EXPECT(getRepositoryStatus_(repository.id()) == 0);
  EXPECT(MountUnmount_(repository.id(), 0, false) == 0);
  EXPECT(MountUnmount_(repository.id(), 2, false) == -1);
  EXPECT(getRepositoryStatus_(repository.id()) == 0x80);
  EXPECT((repository.createDirectory("directory") == Found{repository.place("d2", "directory"), 0}));
  writeFile(repository.place("d2", "directory") + "/second", "content");
  EXPECT((repository.find("directory") == Found{repository.place("d2", "directory"), 1}));
  EXPECT(removeResource_(repository.id(), "directory") == 1);
  EXPECT(MountUnmount_(repository.id(), 0, true) == 0);
  EXPECT((repository.find("directory") == Found{repository.place("d2", "directory"), 0}));
  EXPECT(fs::exists(repository.place("d2", "directory") + "/file"));
  rndMount_(repository.id());
  EXPECT(getRepositoryStatus_(repository.id()) == 0x80);
  EXPECT(giveBackMounts_(repository.id()) == 0);
}

void moveResources(const Repository& repository) {
  EXPECT(freeMount_(repository.id(), "d1") == 0);
  EXPECT(freeMount_(repository.id(), "absent") == 1);
  EXPECT((repository.find("file") == Found{repository.place("d2", "file"), 0}));
  EXPECT((repository.find("old") == Found{repository.place("d2", "old"), 0}));
  checkOverload_(repository.id(), false);
  const std::list<std::string>* deleted = getDeletedDirs_(repository.id());
  EXPECT(deleted && deleted->empty());
  setup_(repository.id());
  EXPECT((repository.find("file") == Found{repository.place("d2", "file"), 0}));
}

void removeResources(const Repository& repository) {
  EXPECT(removeResource_(repository.id(), "old") == 0);
  EXPECT(removeResource_(repository.id(), "old") == 4);
  makeEmpty_(repository.id());
  EXPECT(repository.directories().empty());
  EXPECT(repository.files().empty());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 1;
  }
  std::string directory = std::string(argv[1]) + "/allentries-XXXXXX";
  if (!mkdtemp(directory.data())) {
    perror(directory.c_str());
    return 1;
  }
  const Repository repository(directory);
  makeResources(repository);
  look(repository);
  takeMountsOut(repository);
  moveResources(repository);
  removeResources(repository);
  EXPECT(fs::is_empty(directory + "/locks"));
  if (unexpected > 0) return 1;
  fs::remove_all(directory);
  return 0;
}
