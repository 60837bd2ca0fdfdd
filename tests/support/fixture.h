// The ground of the tests of whole operations: a repository, and what they place in it.

#ifndef TESTS_SUPPORT_FIXTURE_H
#define TESTS_SUPPORT_FIXTURE_H

#include <gtest/gtest.h>

#include "fakes/fakes.h"
#include "support/repository.h"

constexpr int kUntouched = -77;  // in an out argument: nothing was stored
constexpr time_t kLongAgo = 1000000;

// The hashed places of the resources that most tests use.
const std::string k2009 = "/FP/IA/L3/2009";
const std::string kAbc = "/1W/H6/HW/abc";
const std::string k12345 = "/DM/_O/HX/12345";

// A repository each of whose mounts is a disk of its own that is a tenth full.
class RepositoryFixture : public testing::Test {
 protected:
  explicit RepositoryFixture(const std::vector<std::string>& mountNames) : repository(mountNames) {
    for (size_t i = 0; i < mountNames.size(); ++i) disks.setUsed(repository.mount(i), 10);
  }

  std::string at(size_t index, const std::string& hashed) const { return repository.mount(index) + hashed; }
  // Makes a directory with one file, which holds its own name.
  std::string place(size_t index, const std::string& hashed, const std::string& file = "file",
                    time_t used = kLongAgo) const {
    const std::string path = at(index, hashed);
    writeFile(path + "/" + file, file);
    setTimes(path + "/" + file, used);
    setTimes(path, used);
    return path;
  }

  std::string legacy(const std::string& name) const { return repository.scratch() + "/legacy/" + name; }
  void useLegacy() {
    const std::string directory = repository.scratch() + "/legacy";
    makeDirectories(directory);
    repository.configure("legacyDir=" + directory + "\n");
    disks.setUsed(directory, 10);
  }

  TestRepository repository;
  FakeDisks disks;
  FakeSyslog log;
};

#endif
