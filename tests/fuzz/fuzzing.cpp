#include "fuzzing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>

namespace fs = std::filesystem;

namespace {

bool safeMode = false;

class WorkDirectory {
 public:
  WorkDirectory() {
    const char* base = getenv("TMPDIR");
    path = std::string(base ? base : "/tmp") + "/kt-fuzz-XXXXXX";
    require(mkdtemp(path.data()) != nullptr, "no directory for the run at " + path);
  }
  ~WorkDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

  std::string path;
};

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }

}  // namespace

void require(bool holds, const std::string& what) {
  if (holds) return;
  fprintf(stderr, "FINDING: %s\n", what.c_str());
  abort();
}

void setSafeMode(bool on) {
  safeMode = on;
  setenv("KT_SAFE", on ? "1" : "0", 1);
}

bool isSafeMode() { return safeMode; }

const std::string& workDirectory() {
  static const WorkDirectory directory;
  return directory.path;
}

std::vector<std::string> fieldsOf(const uint8_t* data, size_t size) {
  std::vector<std::string> fields(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0x1E)
      fields.emplace_back();
    else
      fields.back() += static_cast<char>(data[i]);
  }
  return fields;
}

void writeFile(const std::string& path, const std::string& content) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0) return;
  require(write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()), "a file is not written");
  close(file);
}

std::string readFile(const std::string& path) {
  std::string content;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return content;
  char bytes[4096];
  for (ssize_t size; (size = read(file, bytes, sizeof bytes)) > 0;) content.append(bytes, static_cast<size_t>(size));
  close(file);
  return content;
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  DIR* entries = opendir(directory.c_str());
  require(entries != nullptr, "no directory to list");
  while (const dirent* entry = readdir(entries)) names.emplace_back(entry->d_name);
  closedir(entries);
  std::sort(names.begin(), names.end());
  std::erase_if(names, [](const std::string& name) { return name == "." || name == ".."; });
  return names;
}

MemoryFile::MemoryFile() : descriptor(memfd_create("fuzzed", MFD_CLOEXEC)) {
  require(descriptor >= 0, "no file in memory");
}

MemoryFile::~MemoryFile() { close(descriptor); }

void MemoryFile::write(const std::string& content) const {
  require(ftruncate(descriptor, 0) == 0, "the file in memory is not emptied");
  require(pwrite(descriptor, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
          "the file in memory is not written");
}

std::string MemoryFile::path() const { return "/proc/self/fd/" + std::to_string(descriptor); }

std::vector<std::string> piecesOf(const std::string& content) {
  constexpr size_t kMost = 1023;
  std::vector<std::string> pieces;
  for (size_t begin = 0; begin < content.size();) {
    const std::string_view rest = std::string_view(content).substr(begin, kMost);
    const size_t feed = rest.find('\n');
    const std::string_view line = rest.substr(0, feed);
    pieces.emplace_back(line.substr(0, line.find('\0')));
    begin += feed == std::string_view::npos ? line.size() : line.size() + 1;
  }
  return pieces;
}

std::string hashed(const std::string& name) {
  const std::string alphabet = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
  std::string path;
  for (size_t cell = 0; cell < 6; ++cell) {
    uint64_t sum = 0;
    for (size_t i = 0; i < name.size(); ++i)
      sum += static_cast<uint64_t>(static_cast<unsigned char>(name[i])) * (i + cell + 1) * (i + cell + 1);
    path += alphabet[sum % 256 % alphabet.size()];
    if (cell % 2 == 1) path += '/';
  }
  return path + name;
}

// What the fuzzers put in place of libc's.
extern "C" {

// No power is cut here: nothing has to reach a disk.
int fsync(int) { return 0; }
int syncfs(int) noexcept { return 0; }

void openlog(const char*, int, int) {}
void closelog() {}

void vsyslog(int, const char* format, va_list args) {
  if (!safeMode) return;  // a format of the default mode may hold anything
  require(strcmp(format, "%s") == 0, "a log text is a format");
  const std::string text = va_arg(args, const char*);
  require(std::none_of(text.begin(), text.end(), isControl), "a log line holds a control character");
}

// The fuzzer's own threads may sleep.
int nanosleep(const timespec* pause, timespec* rest) {
  require(gettid() != getpid(), "a lock is waited for");
  return clock_nanosleep(CLOCK_REALTIME, 0, pause, rest) == 0 ? 0 : -1;
}
}
