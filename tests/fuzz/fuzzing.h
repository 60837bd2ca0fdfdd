// What the fuzzers share. Each fuzzer is a libFuzzer target that runs a room beside a second, plain implementation of
// what the room promises; a difference ends the run as a finding. The log goes nowhere: in the safe mode each line is
// checked on its way. A lock that is waited for is a finding, since nobody else is there.

#ifndef TESTS_FUZZ_FUZZING_H
#define TESTS_FUZZ_FUZZING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Ends the process as a finding of that name when it does not hold.
void require(bool holds, const std::string& what);

// The mode of every following call of the library.
void setSafeMode(bool on);
bool isSafeMode();

// This process's directory below TMPDIR, removed at the end of a process without finding.
const std::string& workDirectory();

// The parts of an input: what stands between its bytes 0x1E, which text editors show as ^^.
std::vector<std::string> fieldsOf(const uint8_t* data, size_t size);

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);  // empty when there is none
std::vector<std::string> namesIn(const std::string& directory);

// A file that never touches a disk.
class MemoryFile {
 public:
  MemoryFile();
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  void write(const std::string& content) const;
  std::string path() const;

 private:
  int descriptor;
};

// Second implementations. A small text file is read line by line, a line in pieces of 1023 bytes; a piece ends at a
// NUL.
std::vector<std::string> piecesOf(const std::string& content);
// Three levels of two characters, and the name.
std::string hashed(const std::string& name);

#endif
