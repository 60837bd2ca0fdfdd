#include "support/content.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// File by file.
std::map<std::string, std::string> contentOf(const std::string& name, unsigned int generation) {
  const std::string mark = name + "." + std::to_string(generation) + "\n";
  std::string longer;
  while (longer.size() < 3000) longer += mark;
  return {{"head", mark}, {"body", longer}, {"sub/part", "part of " + mark}};
}

}  // namespace

bool writeContent(const std::string& path, const std::string& name, unsigned int generation) {
  for (const auto& [file, content] : contentOf(name, generation)) {
    std::error_code failed;
    if (file.starts_with("sub/")) fs::create_directory(path + "/sub", failed);
    std::ofstream out(path + "/" + file, std::ios::binary);
    out << content;
    if (!out.flush()) return false;
  }
  return true;
}

std::vector<std::string> treeOfContent(const std::string& name, unsigned int generation) {
  std::vector<std::string> tree = {"sub/"};
  for (const auto& [file, content] : contentOf(name, generation)) tree.push_back(file + "=" + content);
  std::sort(tree.begin(), tree.end());
  return tree;
}
