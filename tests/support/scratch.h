// Directories, files and environment for one test.

#ifndef TESTS_SUPPORT_SCRATCH_H
#define TESTS_SUPPORT_SCRATCH_H

#include <sys/resource.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

// A fresh directory, removed at the end unless the test failed. Its path holds no blank.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return directory; }
  std::string operator/(const std::string& name) const { return directory + "/" + name; }

 private:
  std::string directory;
};

// An environment variable for as long as this lives; nullopt: not set.
class EnvironmentVariable {
 public:
  EnvironmentVariable(const std::string& name, const std::optional<std::string>& value);
  ~EnvironmentVariable();
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

 private:
  std::string name;
  std::optional<std::string> before;
};

// The process's working directory for as long as this lives.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path);
  ~WorkingDirectory();
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  std::string before;
};

// Makes the directories above the file as well.
void writeFile(const std::string& path, const std::string& content);
// Empty when the file cannot be read.
std::string readFile(const std::string& path);
void makeDirectories(const std::string& path);
bool isThere(const std::string& path);  // links not followed
bool isDirectoryThere(const std::string& path);
void makeLink(const std::string& target, const std::string& link);  // symbolic
void setTimes(const std::string& path, time_t access, time_t modification);
void setTimes(const std::string& path, time_t both);
time_t accessTime(const std::string& path);
time_t modificationTime(const std::string& path);
// Every file below `path`, as "relative/path=content"; directories as "relative/path/". Sorted.
std::vector<std::string> treeOf(const std::string& path);

// The descriptors that this process holds, and the one that counts them.
long openDescriptors();

// Lets this process open `more` descriptors, as long as this lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int more);
  ~DescriptorLimit();
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before;
};

// What a function prints on standard output, through stdio or a child process.
template <typename Body>
std::string outputOf(const Body& body);

// The machinery behind outputOf.
class CapturedOutput {
 public:
  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  std::string text();  // ends the capture

 private:
  int saved;
  int file;
};

template <typename Body>
std::string outputOf(const Body& body) {
  CapturedOutput captured;
  body();
  return captured.text();
}

#endif
