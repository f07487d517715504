#include <cstring>

#include "checksum/C4Base58.hpp"
#include "checksum/TextUnits.hpp"
#include "corvane/C4Identifier.hpp"
#include "corvane/CorvaneLog.hpp"

namespace corvane {

const char* const kC4CharacterString = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
const std::int32_t c4IdLength = 90;

namespace {
constexpr std::int32_t kC4DigitCount = 88;  // c4IdLength minus the "c4" prefix
}

CorvaneChecksumGeneratorC4::CorvaneChecksumGeneratorC4() { setChecksumType(ChecksumTypeC4); }

std::string CorvaneChecksumGeneratorC4::base58String() { return kC4CharacterString; }

std::string CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(const std::string& sha512Hex) {
  detail::C4Number number = detail::C4Number::fromHex(sha512Hex);
  // Digits come least significant first and are written from the end backwards; unused leading
  // places keep "1", the digit zero.
  std::string digits(kC4DigitCount, '1');
  std::int32_t position = kC4DigitCount;
  std::string overflow;  // digits beyond 88 (unreachable for a 512-bit digest)
  while (!number.isZero()) {
    const char digit = kC4CharacterString[number.divideBy(58)];
    if (position > 0) {
      digits[static_cast<std::size_t>(--position)] = digit;
    } else {
      overflow.insert(overflow.begin(), digit);
    }
  }
  return "c4" + overflow + digits;
}

void CorvaneChecksumGeneratorC4::finalizeChecksumWithCompletionBlock(
    CompletionBlock completionBlock) {
  // checksumValue keeps the SHA-512 hex; only the callback receives the C4 ID.
  CorvaneChecksumGeneratorSHA512::finalizeChecksumWithCompletionBlock(
      [block = std::move(completionBlock)](const std::optional<std::string>& sha512Hex) {
        block(c4IdFromSHA512Hex(sha512Hex.value_or("")));
      });
}

std::optional<Bytes> CorvaneC4DataUtility::convertC4ChecksumToData(const std::string& c4Checksum,
                                                                   bool storeAsBigEndian) {
  const std::u16string units = detail::utf16Units(c4Checksum);
  if (static_cast<std::int32_t>(units.size()) != c4IdLength) return std::nullopt;

  detail::C4Number value;
  for (std::size_t i = 2; i < units.size(); ++i) {
    // A character is taken by its low 8 bits.
    const char character = static_cast<char>(units[i] & 0xFF);
    const char* found = character == '\0' ? nullptr : std::strchr(kC4CharacterString, character);
    if (found == nullptr) {
      const std::string shown(1, character);
      CVNLogError("%s", ("C4 calculation encountered invalid character '" + shown +
                         "'.  Halting C4 calculation")
                            .c_str());
      return std::nullopt;
    }
    value.multiplyAdd(58, static_cast<std::uint32_t>(found - kC4CharacterString));
  }

  // Most significant word first; within a word the byte order depends on storeAsBigEndian.
  const int wordCount = value.wordCount();
  Bytes bytes;
  bytes.reserve(static_cast<std::size_t>(wordCount) * 4);
  for (int index = wordCount - 1; index >= 0; --index) {
    const std::uint32_t word = value.words[static_cast<std::size_t>(index)];
    for (int b = 0; b < 4; ++b) {
      const int shift = storeAsBigEndian ? 24 - 8 * b : 8 * b;
      bytes.push_back(static_cast<std::uint8_t>(word >> shift));
    }
  }
  return bytes;
}

}  // namespace corvane
