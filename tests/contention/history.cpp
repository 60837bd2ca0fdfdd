#include "history.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <sstream>
#include <tuple>
#include <utility>

namespace {

// Which of the operations that are under way have taken effect, and whether the resource is there.
using State = std::pair<std::set<size_t>, bool>;

bool fits(const Operation& operation, bool isThere) {
  if (!operation.isCertain || operation.sight == Operation::kAnything) return true;
  return isThere == (operation.sight == Operation::kIsThere);
}

bool after(const Operation& operation, bool isThere) {
  return operation.effect == Operation::kNone ? isThere : operation.effect == Operation::kMakes;
}

// Adds every state that is reached when operations under way take effect.
void close(std::set<State>& states, const std::set<size_t>& underWay, const std::vector<Operation>& operations) {
  std::vector<State> left(states.begin(), states.end());
  while (!left.empty()) {
    const State state = left.back();
    left.pop_back();
    for (const size_t i : underWay) {
      if (state.first.contains(i) || !fits(operations[i], state.second)) continue;
      State next = {state.first, after(operations[i], state.second)};
      next.first.insert(i);
      if (states.insert(next).second) left.push_back(next);
    }
  }
}

// An operation ends: of those that certainly took effect only the states remain in which it did.
std::set<State> ended(const std::set<State>& states, size_t i, bool isCertain) {
  std::set<State> left;
  for (State state : states)
    if (state.first.erase(i) > 0 || !isCertain) left.insert(state);
  return left;
}

constexpr long long kNever = std::numeric_limits<long long>::max();
constexpr int kNotThere = 99;  // see contender.cpp

Operation operationOf(const std::string& what, long long begin, long long end, int result) {
  Operation operation = {begin, end, true, Operation::kAnything, Operation::kNone};
  if (what == "create") {
    operation.effect = Operation::kMakes;
    operation.isCertain = result == 0;
  } else if (what == "remove") {
    operation.effect = result == 4 ? Operation::kNone : Operation::kRemoves;
    operation.sight = result == 4 ? Operation::kIsAbsent : Operation::kIsThere;
    operation.isCertain = result == 0 || result == 4;
  } else if (what == "find") {
    operation.sight = result == 4 ? Operation::kIsAbsent : Operation::kIsThere;
    operation.isCertain = result >= 0;
  } else {  // times, without a lock: what is not found may be on its way
    operation.sight = Operation::kIsThere;
    operation.isCertain = result == 1;
  }
  return operation;
}

bool isDescribed(const std::string& what, int result) {
  if (what == "create") return result == -1 || result == 0 || result == kNotThere;
  if (what == "remove") return result == 0 || result == 1 || result == 4 || result == 8 || result == 16;
  if (what == "find") return result == -1 || result == 0 || result == 2 || result == 4 || result == 8;
  return result == 0 || result == 1;
}

}  // namespace

std::set<bool> possibleEnds(const std::vector<Operation>& operations) {
  struct Event {
    long long time;
    bool isEnd;
    size_t operation;
    bool operator<(const Event& other) const {
      return std::tie(time, isEnd, operation) < std::tie(other.time, other.isEnd, other.operation);
    }
  };
  std::vector<Event> events;
  for (size_t i = 0; i < operations.size(); ++i) {
    events.push_back({operations[i].begin, false, i});
    events.push_back({operations[i].end, true, i});
  }
  std::sort(events.begin(), events.end());
  std::set<State> states = {{{}, false}};
  std::set<size_t> underWay;
  for (const Event& event : events) {
    if (!event.isEnd) {
      underWay.insert(event.operation);
      continue;
    }
    close(states, underWay, operations);
    states = ended(states, event.operation, operations[event.operation].isCertain);
    underWay.erase(event.operation);
  }
  std::set<bool> ends;
  for (const State& state : states) ends.insert(state.second);
  return ends;
}

void Histories::noteKill(const std::string& file, long long time) { kills[file].push_back(time); }

void Histories::read(const std::string& file) {
  std::ifstream lines(file);
  const std::vector<long long>& killed = kills[file];
  long long begin = kNever;
  std::string what;
  std::string name;
  const auto cutOff = [&] {
    if (begin == kNever) return;
    const auto kill = std::lower_bound(killed.begin(), killed.end(), begin);
    Operation operation = operationOf(what, begin, kill == killed.end() ? kNever : *kill, 0);
    operation.isCertain = false;
    operations[name].push_back(operation);
    begin = kNever;
  };
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    if (kind == "B") {
      cutOff();
      words >> begin >> what >> name;
      if (what == "remove") generations.erase(name);
      ++made;
    } else if (kind == "E") {
      long long end = 0;
      int result = 0;
      words >> end >> result;
      if (!isDescribed(what, result)) undescribed.push_back(what + " " + name + " gave " + std::to_string(result));
      const Operation operation = operationOf(what, begin, end, result);
      if (operation.effect != Operation::kNone && !operation.isCertain) ++unknown;
      operations[name].push_back(operation);
      begin = kNever;
    } else if (kind == "M") {
      unsigned int generation = 0;
      words >> name >> generation;
      generations[name] = generation;
    } else {
      complaints.push_back(line);
    }
  }
  cutOff();
}
