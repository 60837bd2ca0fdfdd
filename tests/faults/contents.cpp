#include "faults/contents.h"

#include <algorithm>
#include <filesystem>

#include "support/scratch.h"

namespace fs = std::filesystem;

Contents contentsOf(const std::string& path) {
  Contents contents;
  if (!fs::is_directory(path)) {
    if (fs::exists(path)) contents[""] = readFile(path);
    return contents;
  }
  for (const auto& entry : fs::recursive_directory_iterator(path))
    if (entry.is_regular_file()) contents[entry.path().string().substr(path.size() + 1)] = readFile(entry.path());
  return contents;
}

bool holds(const Contents& all, const Contents& wanted) {
  return std::all_of(wanted.begin(), wanted.end(), [&](const auto& file) {
    const auto found = all.find(file.first);
    return found != all.end() && found->second == file.second;
  });
}

bool isCompleteAt(const std::string& path, const Contents& wanted) {
  return !path.empty() && holds(contentsOf(path), wanted);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  size_t begin = 0;
  for (size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
    lines.push_back(text.substr(begin, end - begin));
  if (begin < text.size()) lines.push_back(text.substr(begin));
  return lines;
}
