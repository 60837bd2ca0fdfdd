// KTProperties: what a file of any bytes gives, against a second implementation of its reading; that the pairs written
// out and loaded again are the same; and that a file loaded over them replaces values and keeps the rest. The input is
// two files, the second behind a byte 0x1E.

#include "KTProperties.h"

#include <map>

#include "fuzzing.h"

namespace {

using Pairs = std::map<std::string, std::string>;

const std::string kBlanks = " \t\n\v\f\r";

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void addPair(const std::string& line, Pairs& pairs) {
  const size_t sign = line.find('=');
  const std::string name = trimmed(line.substr(0, sign));
  if (sign == std::string::npos || name.empty() || name[0] == '#') return;
  std::string value = line.substr(sign + 1);
  for (char& c : value)
    if (c == '"') c = ' ';
  pairs[name] = trimmed(value);
}

void addFile(const std::string& content, Pairs& pairs) {
  for (const std::string& piece : piecesOf(content)) addPair(piece, pairs);
}

void requireSame(KTProperties& properties, const Pairs& pairs, const char* when) {
  for (const auto& [name, value] : pairs) {
    const char* found = properties.getProperty(name.c_str());
    require(found && value == found, std::string("a value ") + when);
  }
}

std::string written(const Pairs& pairs) {
  std::string content;
  for (const auto& [name, value] : pairs) content += name + "=" + value + "\n";
  return content;
}

void load(KTProperties& properties, const std::string& content) {
  static const MemoryFile file;
  file.write(content);
  require(properties.load(file.path().c_str()), "load");
}

// Names that only a slip would make of the file.
void requireNoOther(KTProperties& properties, const std::string& content, const Pairs& pairs) {
  for (const std::string& piece : piecesOf(content)) {
    const std::string name = trimmed(piece);
    require(pairs.count(name) > 0 || !properties.getProperty(name.c_str()), "a pair that is in no line");
  }
  require(!properties.getProperty(""), "a pair without a name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> files = fieldsOf(data, size);
  Pairs pairs;
  addFile(files[0], pairs);
  KTProperties properties;
  load(properties, files[0]);
  requireSame(properties, pairs, "of a loaded file");
  requireNoOther(properties, files[0], pairs);

  KTProperties again;
  load(again, written(pairs));
  requireSame(again, pairs, "after writing and loading again");

  if (files.size() < 2) return 0;
  addFile(files[1], pairs);
  load(again, files[1]);
  requireSame(again, pairs, "of two files");
  for (const auto& pair : pairs) again.remove(pair.first.c_str());
  for (const auto& pair : pairs) require(!again.getProperty(pair.first.c_str()), "a removed pair");
  return 0;
}
