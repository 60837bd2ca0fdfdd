#include "support/scratch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

ScratchDirectory::ScratchDirectory() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base ? base : "/tmp") + "/kt-test-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("no scratch directory at " + pattern);
  directory = pattern;
}

ScratchDirectory::~ScratchDirectory() {
  if (testing::Test::HasFailure()) return;
  std::error_code ignored;
  fs::remove_all(directory, ignored);
}

EnvironmentVariable::EnvironmentVariable(const std::string& variable, const std::optional<std::string>& value)
    : name(variable) {
  if (const char* old = getenv(name.c_str())) before = old;
  if (value)
    setenv(name.c_str(), value->c_str(), 1);
  else
    unsetenv(name.c_str());
}

EnvironmentVariable::~EnvironmentVariable() {
  if (before)
    setenv(name.c_str(), before->c_str(), 1);
  else
    unsetenv(name.c_str());
}

WorkingDirectory::WorkingDirectory(const std::string& path) : before(fs::current_path()) { fs::current_path(path); }
WorkingDirectory::~WorkingDirectory() { fs::current_path(before); }

void writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void makeDirectories(const std::string& path) { fs::create_directories(path); }

bool isThere(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

bool isDirectoryThere(const std::string& path) { return fs::is_directory(path); }

void makeLink(const std::string& target, const std::string& link) { fs::create_symlink(target, link); }

void setTimes(const std::string& path, time_t access, time_t modification) {
  const utimbuf times = {access, modification};
  if (utime(path.c_str(), &times) != 0) throw std::runtime_error("no times for " + path);
}

void setTimes(const std::string& path, time_t both) { setTimes(path, both, both); }

namespace {

struct stat statusOf(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw std::runtime_error("no status of " + path);
  return status;
}

}  // namespace

time_t accessTime(const std::string& path) { return statusOf(path).st_atime; }
time_t modificationTime(const std::string& path) { return statusOf(path).st_mtime; }

std::vector<std::string> treeOf(const std::string& path) {
  std::vector<std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    const std::string name = fs::relative(entry.path(), path).string();
    tree.push_back(entry.is_directory() ? name + "/" : name + "=" + readFile(entry.path().string()));
  }
  std::sort(tree.begin(), tree.end());
  return tree;
}

long openDescriptors() {
  const fs::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

DescriptorLimit::DescriptorLimit(int more) {
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = dup(STDIN_FILENO);
  close(next);
  const rlimit limit = {static_cast<rlim_t>(next + more), before.rlim_max};
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

DescriptorLimit::~DescriptorLimit() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0); }

CapturedOutput::CapturedOutput() {
  fflush(stdout);
  saved = dup(STDOUT_FILENO);
  file = memfd_create("output", 0);
  dup2(file, STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput() {
  if (saved >= 0) text();
}

std::string CapturedOutput::text() {
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  saved = -1;
  std::string result;
  char buffer[4096];
  lseek(file, 0, SEEK_SET);
  for (ssize_t got = 0; (got = read(file, buffer, sizeof buffer)) > 0;) result.append(buffer, static_cast<size_t>(got));
  close(file);
  return result;
}
