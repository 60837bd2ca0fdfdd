// ".count" of any bytes: which sizes countSize takes from it, which it measures, and what it writes back, in both
// modes. The input is "d" or "s" for the mode, a byte 0x1E, and the content of the file. Below the directory stand
// three resources that were last used at one time; measuring any gives one size, without du.

#include "sizeaccounting.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "fuzzing.h"

namespace {

constexpr long kUsed = 1000;   // seconds since the epoch
constexpr long kMeasured = 7;  // kilobytes
const std::vector<std::string> kNames = {"9", "2009", "12 a"};

struct Entry {
  long time;
  long size;
};

// As atoi reads: a number beyond 64 bits is the greatest of them, of which 32 bits are taken.
long number(const std::string& text) {
  constexpr auto kGreatest = static_cast<__int128>(INT64_MAX);
  size_t at = text.find_first_not_of(" \t\n\v\f\r");
  if (at == std::string::npos) return 0;
  const bool negative = text[at] == '-';
  if (text[at] == '-' || text[at] == '+') ++at;
  __int128 value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
    value = std::min(value * 10 + (text[at] - '0'), kGreatest + 1);
  value = negative ? -value : std::min(value, kGreatest);
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned __int128>(value)));
}

std::map<std::string, Entry> cacheIn(const std::string& content) {
  std::map<std::string, Entry> cache;
  const std::vector<std::string> pieces = piecesOf(content);
  for (size_t i = 0; i + 2 < pieces.size(); i += 3) cache[pieces[i]] = {number(pieces[i + 1]), number(pieces[i + 2])};
  return cache;
}

std::string prepared() {
  const std::string directory = workDirectory() + "/resources";
  require(mkdir(directory.c_str(), 0755) == 0, "no directory of resources");
  for (const std::string& name : kNames) {
    writeFile(directory + "/" + name, "");
    const utimbuf times = {kUsed, kUsed};
    require(utime((directory + "/" + name).c_str(), &times) == 0, "no times");
  }
  return directory;
}

int measurements = 0;

}  // namespace

// Measures for du.
extern "C" int system(const char* command) {
  const std::string text(command);
  require(text.rfind("du -sk ", 0) == 0, "a command other than du");
  ++measurements;
  writeFile(workDirectory() + "/resources/.countres", std::to_string(kMeasured) + "\tname\n");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> fields = fieldsOf(data, size);
  if (fields.size() < 2) return 0;
  static const std::string directory = prepared();
  setSafeMode(fields[0] == "s");
  writeFile(directory + "/.count", fields[1]);

  const auto cache = cacheIn(fields[1]);
  std::string content;
  long total = 0;
  int missing = 0;
  for (const std::string& name : kNames) {  // in the order of the file
    const auto cached = cache.find(name);
    const bool holds = cached != cache.end() && cached->second.time >= kUsed;
    const Entry entry = holds ? cached->second : Entry{kUsed, kMeasured};
    missing += holds ? 0 : 1;
    total += entry.size;
    content += name + "\n" + std::to_string(entry.time) + "\n" + std::to_string(entry.size) + "\n";
  }

  measurements = 0;
  require(countSize(directory.c_str(), true) == total, "the total");
  require(measurements == missing, "what is measured");
  require(readFile(directory + "/.count") == content, "the file");
  require(countSize(directory.c_str(), true) == total, "the total of what was written");
  require(measurements == missing, "something is measured twice");
  unlink((directory + "/.countres").c_str());
  return 0;
}
