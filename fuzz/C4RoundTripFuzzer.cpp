// Any 64-byte digest: its C4 ID is 90 characters and converts back to the digest's bytes
// (without leading zero words); arbitrary texts never crash the decoder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "corvane/C4Identifier.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvane;
  (void)CorvaneC4DataUtility::convertC4ChecksumToData(
      std::string(reinterpret_cast<const char*>(data), size), size % 2 == 0);
  if (size < 64) return 0;
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (std::size_t i = 0; i < 64; ++i) {
    hex += kDigits[data[i] >> 4];
    hex += kDigits[data[i] & 15];
  }
  const std::string id = CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hex);
  if (static_cast<std::int32_t>(id.size()) != c4IdLength) std::abort();
  const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(id, true);
  if (!bytes) std::abort();
  std::size_t leading = 0;
  while (leading + 4 <= 64 && data[leading] == 0 && data[leading + 1] == 0 &&
         data[leading + 2] == 0 && data[leading + 3] == 0 && leading + 4 < 64) {
    leading += 4;
  }
  if (bytes->size() != 64 - leading) std::abort();
  for (std::size_t i = 0; i < bytes->size(); ++i) {
    if ((*bytes)[i] != data[leading + i]) std::abort();
  }
  return 0;
}
