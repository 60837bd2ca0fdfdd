// parseNatInt against a second implementation, which adds the digits up from the right.

#include "KTMountPointHandler.h"
#include "fuzzing.h"

namespace {

int natural(const std::string& text) {
  constexpr uint64_t kRange = uint64_t{1} << 32;  // values wrap around
  uint64_t value = 0;
  uint64_t weight = 1;
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit) {
    if (std::string("0123456789").find(*digit) == std::string::npos) return -1;
    value = (value + weight * static_cast<uint64_t>(*digit - '0')) % kRange;
    weight = weight * 10 % kRange;
  }
  const auto wrapped = static_cast<int64_t>(value);
  const auto range = static_cast<int64_t>(kRange);
  return text.empty() ? -1 : static_cast<int>(wrapped < range / 2 ? wrapped : wrapped - range);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string text = bytes.c_str();
  require(KTMountPointHandler::parseNatInt(text.c_str()) == natural(text), "parseNatInt");
  return 0;
}
