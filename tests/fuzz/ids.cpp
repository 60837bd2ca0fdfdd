// A resource's life, whatever its id: made, looked up, listed, moved, looked up again, removed, in both modes. The
// input is "d" (default) or "s" (safe), then "p" (moved by a pass) or "f" (moved by freeing the mount), then the id. An
// id that names one resource must live that life; any other may be refused, but nothing outside the mounts may change,
// no lock may stay, and every answer must be one of those described.
//
// No shell sees an id of the default mode. The commands are taken apart here, for the safe mode by the shell's rules of
// quoting, and done by this process. A command that names anything outside the mounts is a finding. In the safe mode
// the first run, that of an input which is looked at alone, and some of the later ones do it all again with the shell.

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include <dlfcn.h>

#include "KTException.h"
#include "entrypoints.h"
#include "fuzzing.h"

namespace fs = std::filesystem;

namespace {

using Words = std::vector<std::string>;

constexpr size_t kLongestName = 255;
constexpr int kUntouched = -77;
const std::string kContent = "content";
const std::string kMountConfig = "repositorypart.cfg";

struct Ground {
  std::string root = workDirectory() + "/rep";
  std::string first = root + "/m1";
  std::string second = root + "/m2";
  std::string locks = workDirectory() + "/locks";
  std::string current = workDirectory() + "/current";
};

Ground prepared() {
  Ground made;
  for (const std::string& directory : {made.root, made.first, made.second, made.locks, made.current})
    require(mkdir(directory.c_str(), 0755) == 0, "no directory for the run");
  writeFile(made.root + "/repository.cfg", "mountPoints=m1\\m2\nnomoveTime=0\n");
  for (const std::string& mount : {made.first, made.second}) writeFile(mount + "/" + kMountConfig, "");
  require(chdir(made.current.c_str()) == 0, "no current directory");
  setenv("LOCK_VAR", made.locks.c_str(), 1);
  return made;
}

const Ground& ground() {
  static const Ground made = prepared();
  return made;
}

bool firstIsFull = false;
bool realShell = false;

bool isOnMount(const std::string& path) {
  return path.rfind(ground().first + "/", 0) == 0 || path.rfind(ground().second + "/", 0) == 0;
}

// By the rules of POSIX: single quotes keep everything, a backslash one character; nothing else may need keeping.
Words wordsOf(const std::string& command) {
  Words words;
  bool inWord = false;
  for (size_t i = 0; i < command.size(); ++i) {
    const char c = command[i];
    if (c == ' ') {
      inWord = false;
      continue;
    }
    if (!inWord) words.emplace_back();
    inWord = true;
    if (c == '\'') {
      const size_t end = command.find('\'', i + 1);
      require(end != std::string::npos, "a quote is not closed");
      words.back() += command.substr(i + 1, end - i - 1);
      i = end;
    } else if (c == '\\') {
      require(++i < command.size(), "a backslash at the end");
      words.back() += command[i];
    } else {
      require(isalnum(static_cast<unsigned char>(c)) || c == '-', "the shell reads a character of its own");
      words.back() += c;
    }
  }
  return words;
}

std::optional<std::string> after(const std::string& start, const std::string& text) {
  if (text.rfind(start, 0) != 0) return std::nullopt;
  return text.substr(start.size());
}

// The two paths that stand in a command without quotes: they are equally long and differ in their mounts alone.
Words pairOf(const std::string& text) {
  const size_t length = text.size() / 2;
  const std::string origin = text.substr(0, length);
  const std::string copy = text.substr(length + 1);
  require(origin.size() == copy.size() && text[length] == ' ', "a command of two different paths");
  require(origin.substr(ground().first.size()) == copy.substr(ground().second.size()), "a move to another place");
  return {origin, copy};
}

Words wordsOfDefault(const std::string& command) {
  Words words;
  if (const auto paths = after("cp -r ", command)) words = pairOf(*paths);
  if (const auto paths = after("diff -q -r ", command)) words = pairOf(*paths);
  if (const auto path = after("rm -fr ", command)) words = {*path};
  words.insert(words.begin(), command.substr(0, command.find(' ')));
  return words;
}

Words wordsOfSafe(const std::string& command) {
  Words words = wordsOf(command);
  const auto end = std::find(words.begin(), words.end(), "--");
  require(end != words.end(), "a command without --");
  words.erase(words.begin() + 1, end + 1);
  return words;
}

int done(const Words& words) {
  if (words[0] == "cp")
    fs::copy(words[1], words[2], fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  else if (words[0] == "diff")
    return readFile(words[1] + "/" + kContent) == readFile(words[2] + "/" + kContent) ? 0 : 1 << 8;
  else if (words[0] == "rm")
    fs::remove_all(words[1]);
  else
    require(false, "a command that nobody knows");
  return 0;
}

// Those of the fuzzer are among them: it may start a program that names functions.
std::string children() {
  const std::string self = std::to_string(getpid());
  return readFile("/proc/" + self + "/task/" + self + "/children");
}

// Whether the id names a resource: one component, that is none of the file system's own, with a lock that can be made.
bool namesOne(const std::string& id, std::string& name) {
  const size_t begin = id.find_first_not_of('/');
  if (begin == std::string::npos) return false;
  name = id.substr(begin, id.find_last_not_of('/') - begin + 1);
  const size_t lockName = strlen("semaphore_KTRepositoryHandler--") + ground().root.size() + id.size();
  return name.find('/') == std::string::npos && name != "." && name != ".." && name.size() <= kLongestName &&
         lockName <= kLongestName;
}

std::string takenOver(char* path) {
  std::string copy = path ? path : "";
  release(path);
  return copy;
}

Words listed() {
  long count = 0;
  char** names = listDirs_(ground().root.c_str(), &count, true);
  Words list;
  for (long i = 0; i < count; ++i) list.push_back(takenOver(names[i]));
  delete[] names;
  return list;
}

std::string place(const std::string& id) {
  int status = kUntouched;
  std::string path = takenOver(getLocation_(ground().root.c_str(), id.c_str(), &status));
  require(status == kUntouched || (status & ~(1 | 2 | 4 | 8)) == 0, "the status of a look-up");
  return path;
}

std::string make(const std::string& id) {
  int status = kUntouched;
  std::string path = takenOver(createDirectory_(ground().root.c_str(), id.c_str(), &status, false));
  require(status == kUntouched || status == 0 || status == 1 || status == 8, "the status of a creation");
  return path;
}

void move(bool byPass) {
  firstIsFull = byPass;
  if (byPass)
    checkOverload_(ground().root.c_str(), false);
  else
    freeMount_(ground().root.c_str(), "m1");
  firstIsFull = false;
}

void live(const std::string& id, const std::string& name, bool byPass) {
  const char* root = ground().root.c_str();
  const std::string there = ground().first + "/" + hashed(name);
  const std::string moved = ground().second + "/" + hashed(name);
  require(place(id).empty(), "a resource is found before it is made");
  require(make(id) == there, "where it is made");
  writeFile(there + "/" + kContent, id);
  require(place(id) == there, "where it is found");
  require(listed() == Words{name}, "the list");
  utimbuf times = {1000, 2000};
  require(setTimeProperties_(root, id.c_str(), &times) == 1, "its times are not set");
  times = {};
  require(getTimeProperties_(root, id.c_str(), &times) == 1 && times.modtime == 2000, "its times");
  move(byPass);
  require(place(id) == moved, "where it is found after a move");
  require(readFile(moved + "/" + kContent) == id, "what it holds after a move");
  require(!fs::exists(fs::symlink_status(there)), "a copy is left after a move");
  require(removeResource_(root, id.c_str()) == 0, "it is not removed");
  require(checkResourceStatus_(root, id.c_str()) == 4 && listed().empty(), "it is there after it was removed");
}

void tryToLive(const std::string& id, bool byPass) {
  try {
    const std::string made = make(id);
    require(made.empty() || isOnMount(made), "a place outside the mounts");
    if (!made.empty()) writeFile(made + "/" + kContent, id);
    const std::string found = place(id);
    require(found.empty() || isOnMount(found), "something is found outside the mounts");
  } catch (const KTException&) {
  }
  listed();
  move(byPass);
  const int removed = removeResource_(ground().root.c_str(), id.c_str());
  require((removed & ~(1 | 4 | 8 | 16)) == 0, "the result of a removal");
}

// But for the directory where safe moves stand.
void requireEmpty(const std::string& mount) {
  Words names = namesIn(mount);
  std::erase(names, "lost+found");
  require(names == Words{kMountConfig}, "something is left on " + mount);
  const std::string moves = mount + "/lost+found/kt-moves";
  require(!fs::exists(moves) || fs::is_empty(moves), "a move left something behind");
}

void clear(const std::string& mount) {
  for (const std::string& name : namesIn(mount))
    if (name != kMountConfig) fs::remove_all(mount + "/" + name);
}

void requireNothingElse() {
  require(namesIn(workDirectory()) == Words{"current", "locks", "rep"}, "something stands outside the repository");
  require(namesIn(ground().current).empty(), "something stands in the current directory");
  require(namesIn(ground().locks).empty(), "a lock is left");
  Words names = namesIn(ground().root);
  std::erase(names, ".dirty");
  require(names == Words{"m1", "m2", "repository.cfg"}, "something stands beside the mounts");
  require(readFile(ground().root + "/.dirty").empty(), "a mark is left");
}

}  // namespace

extern "C" int system(const char* command) {
  const Words words = isSafeMode() ? wordsOfSafe(command) : wordsOfDefault(command);
  require(words.size() > 1, "a command without a path");
  require(std::all_of(words.begin() + 1, words.end(), isOnMount), "a command reaches outside the mounts");
  if (!realShell) return done(words);
  static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
  return real(command);
}

// A tenth of each disk is used, or the first is full.
extern "C" int statvfs(const char* path, struct statvfs* out) noexcept {
  *out = {};
  out->f_frsize = 1;
  out->f_blocks = 1000;
  out->f_bfree = firstIsFull && ground().first == path ? 1 : 900;
  out->f_bavail = out->f_bfree;
  return 0;
}

namespace {

void tryOnce(const std::string& id, bool byPass) {
  std::string name;
  if (namesOne(id, name)) {
    live(id, name, byPass);
    requireEmpty(ground().first);
    requireEmpty(ground().second);
  } else {
    tryToLive(id, byPass);
    clear(ground().first);
    clear(ground().second);
  }
  requireNothingElse();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr int kRunsBetweenShells = 100;
  static int runs = 0;
  if (size < 2) return 0;
  setSafeMode(data[0] != 'd');
  const bool byPass = data[1] == 'p';
  const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const std::string id = bytes.c_str();
  ground();
  tryOnce(id, byPass);
  if (!isSafeMode() || runs++ % kRunsBetweenShells != 0) return 0;
  const std::string before = children();
  realShell = true;
  tryOnce(id, byPass);
  realShell = false;
  require(children() == before, "a child is left");
  return 0;
}
