// C4 IDs: the SHA-512 digest of content written as a base-58 number, left-filled with "1" to 88
// digits and prefixed with "c4" (90 characters in all).
//
// CorvaneChecksumGeneratorC4 streams like the SHA-512 generator; only its completion callback
// receives the C4 ID. Its checksumValue() keeps the 128-digit SHA-512 hex text (callers that
// want the C4 ID take it from the callback). CorvaneC4DataUtility turns a C4 ID back into the
// bytes of the number it encodes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "corvane/Bytes.hpp"
#include "corvane/DigestChecksumGenerators.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// The base-58 alphabet: position p stands for digit value p ("1" is zero).
CORVANE_API extern const char* const kC4CharacterString;
// Length of a C4 ID including its "c4" prefix.
CORVANE_API extern const std::int32_t c4IdLength;

class CORVANE_API CorvaneChecksumGeneratorC4 : public CorvaneChecksumGeneratorSHA512 {
 public:
  CorvaneChecksumGeneratorC4();

  // Finalizes the SHA-512 and hands the C4 ID (not the hex) to `completionBlock`, on the queue.
  void finalizeChecksumWithCompletionBlock(CompletionBlock completionBlock) override;

  // kC4CharacterString.
  static std::string base58String();

  // The C4 ID of a SHA-512 digest given as 128 hex digits.
  static std::string c4IdFromSHA512Hex(const std::string& sha512Hex);
};

class CORVANE_API CorvaneC4DataUtility {
 public:
  // The bytes of the number a C4 ID encodes, most significant 32-bit word first; with
  // storeAsBigEndian each word is written most significant byte first (the plain big-endian
  // number), otherwise each word least significant byte first. The buffer holds 4 bytes per
  // word of the number (leading zero words are dropped).
  // Null when the text is not 90 characters long (silently) or holds a character outside the
  // alphabet at positions 2..89 (one error log line). The first two characters are not examined.
  static std::optional<Bytes> convertC4ChecksumToData(const std::string& c4Checksum,
                                                      bool storeAsBigEndian);
};

}  // namespace corvane
