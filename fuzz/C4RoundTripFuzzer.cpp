// C4 IDs, both directions:
// - any 64-byte digest: its C4 ID is 90 characters and converts back to the digest's bytes
//   (without leading zero words), in both byte orders;
// - any text: the decoder never crashes; it accepts exactly the texts of 90 UTF-16 units whose
//   units 2 to 89 are base-58 digits (each unit taken by its low 8 bits); what it accepts decodes
//   to whole 32-bit words (at most 17, no leading zero word) whose little-endian form is the
//   big-endian form with each word reversed, and, when the number fits in 512 bits, encodes back
//   to the same 88 digits.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.hpp"
#include "TextUnitsReference.hpp"
#include "corvane/C4Identifier.hpp"

namespace {

using namespace corvane;

std::string hexText(const std::uint8_t* bytes, std::size_t count) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (std::size_t i = 0; i < count; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 15];
  }
  return hex;
}

bool isWordSwapped(const Bytes& bigEndian, const Bytes& littleEndian) {
  if (bigEndian.size() != littleEndian.size() || bigEndian.size() % 4 != 0) return false;
  for (std::size_t i = 0; i < bigEndian.size(); ++i) {
    if (littleEndian[i] != bigEndian[i - i % 4 + 3 - i % 4]) return false;
  }
  return true;
}

void checkArbitraryText(const std::string& text) {
  const auto bigEndian = CorvaneC4DataUtility::convertC4ChecksumToData(text, true);
  const auto littleEndian = CorvaneC4DataUtility::convertC4ChecksumToData(text, false);
  CORVANE_FUZZ_CHECK(bigEndian.has_value() == littleEndian.has_value());
  const std::vector<std::uint16_t> units = fuzz::utf16Units(text);
  // Accepted exactly when the text is 90 units long and units 2 to 89 are base-58 digits, each
  // taken by its low 8 bits.
  std::string digits;
  if (units.size() == 90) {
    for (std::size_t i = 2; i < 90; ++i) {
      const char c = static_cast<char>(units[i] & 0xFF);
      if (c == '\0' || std::strchr(kC4CharacterString, c) == nullptr) break;
      digits += c;
    }
  }
  CORVANE_FUZZ_CHECK(bigEndian.has_value() == (digits.size() == 88));
  if (!bigEndian) return;
  CORVANE_FUZZ_CHECK(isWordSwapped(*bigEndian, *littleEndian));
  CORVANE_FUZZ_CHECK(bigEndian->size() <= 4 * 17);
  if (bigEndian->size() > 4) {
    CORVANE_FUZZ_CHECK((*bigEndian)[0] != 0 || (*bigEndian)[1] != 0 || (*bigEndian)[2] != 0 ||
                       (*bigEndian)[3] != 0);
  }
  if (bigEndian->size() > 64) return;
  std::uint8_t digest[64] = {};
  std::memcpy(digest + 64 - bigEndian->size(), bigEndian->data(), bigEndian->size());
  const std::string id = CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexText(digest, 64));
  CORVANE_FUZZ_CHECK(id.size() == 90 && id.compare(0, 2, "c4") == 0);
  CORVANE_FUZZ_CHECK(id.substr(2) == digits);
}

void checkDigest(const std::uint8_t* data) {
  const std::string id = CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexText(data, 64));
  CORVANE_FUZZ_CHECK(static_cast<std::int32_t>(id.size()) == c4IdLength);
  const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(id, true);
  CORVANE_FUZZ_CHECK(bytes.has_value());
  std::size_t leading = 0;
  while (leading + 4 < 64 && data[leading] == 0 && data[leading + 1] == 0 &&
         data[leading + 2] == 0 && data[leading + 3] == 0) {
    leading += 4;
  }
  CORVANE_FUZZ_CHECK(bytes->size() == 64 - leading);
  CORVANE_FUZZ_CHECK(std::memcmp(bytes->data(), data + leading, bytes->size()) == 0);
  const auto littleEndian = CorvaneC4DataUtility::convertC4ChecksumToData(id, false);
  CORVANE_FUZZ_CHECK(littleEndian.has_value() && isWordSwapped(*bytes, *littleEndian));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  corvane::fuzz::silenceLibraryLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkArbitraryText(std::string(reinterpret_cast<const char*>(data), size));
  if (size >= 64) checkDigest(data);
  return 0;
}
