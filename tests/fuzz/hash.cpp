// createHash and convertToHashed_ against a second implementation: what a path is hashed to decides what is found.

#include "fuzzing.h"
#include "hashlayout.h"
#include "paths.h"

namespace {

std::string taken(char* handedOut) {
  require(handedOut != nullptr, "nothing was handed out");
  std::string copy(handedOut);
  release(handedOut);
  return copy;
}

// Each component that a "/" closes is hashed, empty ones are dropped, the last one stays.
std::string converted(const std::string& path) {
  std::string result;
  size_t begin = 0;
  for (size_t end = path.find('/'); end != std::string::npos; end = path.find('/', begin)) {
    if (end > begin) result += hashed(path.substr(begin, end - begin)) + "/";
    begin = end + 1;
  }
  return result + path.substr(begin);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string text = bytes.c_str();
  require(taken(createHash(text.c_str())) == hashed(text), "createHash");
  require(taken(convertToHashed_(text.c_str())) == converted(text), "convertToHashed_");
  require(taken(convertToHashed(text.c_str())) == converted(text), "convertToHashed");
  return 0;
}
