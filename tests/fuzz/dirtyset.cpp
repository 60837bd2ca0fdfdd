// The dirty set and its file, in both modes: what a file of any bytes loads as, and what the file holds after each
// change. Two handlers stand for two processes. The input is fields between bytes 0x1E: "d" or "s" for the mode, the
// content of the file, and steps. A step is "1" or "2" for the handler, then "+id", "-id", "?id", or "!" for clearing;
// a step "@" loads both handlers afresh.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>
#include <utility>

#include "KTDirtyFlagHandler.h"
#include "fuzzing.h"

namespace {

using Set = std::set<std::string>;

Set loaded(const std::string& content) {
  const auto pieces = piecesOf(content);
  return {pieces.begin(), pieces.end()};
}

std::string written(const Set& set) {
  std::string content;
  for (const std::string& id : set) content += id + "\n";
  return content;
}

// The line that stands for an id: of the safe mode it is one line whatever the id, and slashes around it are no part of
// it.
std::string markOf(std::string id) {
  if (!isSafeMode()) return id;
  const size_t begin = id.find_first_not_of('/');
  if (begin != std::string::npos) id = id.substr(begin, id.find_last_not_of('/') - begin + 1);
  std::replace(id.begin(), id.end(), '\n', '/');
  return id;
}

struct Ground {
  std::string repository = workDirectory();
  std::string file = repository + "/.dirty";
};

const Ground& ground() {
  static const Ground made = [] {
    Ground fresh;
    setenv("LOCK_VAR", fresh.repository.c_str(), 1);
    return fresh;
  }();
  return made;
}

// One handler, and what it should know.
class Process {
 public:
  Process() : known(loaded(readFile(ground().file))) { handler.setRepository(ground().repository.c_str()); }

  // In the safe mode every step begins with what the file says.
  void take(const std::string& step) {
    if (isSafeMode()) known = loaded(readFile(ground().file));
    const std::string id = step.size() > 1 ? step.substr(1).c_str() : "";
    const std::string mark = markOf(id);
    const Set before = known;
    switch (step.empty() ? '?' : step[0]) {
      case '+':
        known.insert(mark);
        handler.setDirty(id.c_str(), true);
        break;
      case '-':
        known.erase(mark);
        handler.setDirty(id.c_str(), false);
        break;
      case '!':
        known.clear();
        handler.clearDirtySet();
        wrote = true;
        break;
      default:
        require(handler.isDirty(id.c_str()) == (known.count(mark) > 0), "isDirty");
        break;
    }
    wrote = wrote || known != before;
    require(handler.dirtySet == known, "the set");
  }

  bool hasWritten() { return std::exchange(wrote, false); }
  std::string content() const { return written(known); }

 private:
  KTDirtyFlagHandler handler;
  Set known;
  bool wrote = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kMostSteps = 16;
  const std::vector<std::string> fields = fieldsOf(data, size);
  if (fields.size() < 2) return 0;
  setSafeMode(fields[0] == "s");
  unlink(ground().file.c_str());
  std::string content = fields[1];
  writeFile(ground().file, content);

  std::unique_ptr<Process> processes[2] = {std::make_unique<Process>(), std::make_unique<Process>()};
  for (size_t i = 2; i < fields.size() && i < kMostSteps; ++i) {
    if (fields[i] == "@") {
      for (auto& process : processes) process = std::make_unique<Process>();
      continue;
    }
    Process& process = *processes[!fields[i].empty() && fields[i][0] == '2' ? 1 : 0];
    process.take(fields[i].empty() ? "" : fields[i].substr(1));
    if (process.hasWritten()) content = process.content();
    require(readFile(ground().file) == content, "the file after a step");
  }
  require(namesIn(ground().repository) == std::vector<std::string>{".dirty"}, "something is left beside the file");
  return 0;
}
