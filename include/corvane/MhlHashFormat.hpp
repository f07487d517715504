// MhlHashFormat: the hash formats of ASC MHL (Media Hash List v2.0) and their texts.
//
// ASC MHL records hashes in six formats, each an XML element named after it: c4, md5, sha1,
// xxh128, xxh3, xxh64 (ASC MHL Appendix D). Each maps to one of our ChecksumTypes, and our
// checksum texts already are the ASC MHL texts: lowercase hex for md5 and sha1, the xxHash values
// (seed 0) as big-endian hex exactly as xxhsum prints them, and C4 IDs ("c4" + 88 base-58 digits).
// Every other algorithm of the library (SHA-256, SHA-512, CRC-32, SR Sum) has no place in a
// manifest; checkMhlFormat() says so in words a user can act on.
//
// Every function here is pure and thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// The six formats in the order in which ASCMHL.xsd lists their elements (c4, md5, sha1, xxh128,
// xxh3, xxh64). The schema declares them as a sequence, so a manifest that holds several hashes
// of one file must write them in this order to validate.
CORVANE_API const std::vector<ChecksumType>& mhlFormats();

// The ChecksumType of an ASC MHL element name ("md5" -> ChecksumTypeMD5, "xxh3" ->
// ChecksumTypeXXHashH364, ...). Names are matched exactly, as XML element names are
// case-sensitive; anything else (also "sha256", "MD5") gives nothing.
CORVANE_API std::optional<ChecksumType> checksumTypeForMhlFormat(std::string_view name);

// The ASC MHL element name of `type`; nothing for a type that has no ASC MHL format (including
// masks and unknown values, which are never fatal here).
CORVANE_API std::optional<std::string_view> mhlFormatName(ChecksumType type);

// True for the six types of mhlFormats().
CORVANE_API bool isMhlFormat(ChecksumType type);

// Why an algorithm or name cannot be used as an ASC MHL hash format. `message` is a complete
// sentence for a user: it names the algorithm (or repeats the name) and lists the allowed
// formats, e.g. "SHA-2 256 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128,
// xxh3 and xxh64".
struct CORVANE_API MhlFormatRefusal {
  std::string message;
  friend bool operator==(const MhlFormatRefusal&, const MhlFormatRefusal&) = default;
};

// The ASC MHL element name of `type`, or the refusal for SHA-256, SHA-512, CRC-32, SR Sum,
// ChecksumTypeNone, masks and unknown values.
CORVANE_API std::variant<std::string_view, MhlFormatRefusal> checkMhlFormat(ChecksumType type);

// The ChecksumType of an ASC MHL element name, or the refusal naming the text that was given.
CORVANE_API std::variant<ChecksumType, MhlFormatRefusal> checkMhlFormatName(std::string_view name);

// ----- hash texts -------------------------------------------------------------------------------

// Characters in a hash text of `type`: md5 32, sha1 40, xxh64 16, xxh3 16, xxh128 32, c4 90;
// 0 for a type without an ASC MHL format.
CORVANE_API std::size_t mhlHashTextLength(ChecksumType type);

// True when `text` is a hash of `type` as ASC MHL writes it: for the hex formats exactly
// mhlHashTextLength(type) hex digits (ASC MHL and this library write lowercase; uppercase digits
// are accepted, they spell the same bytes); for c4 "c4" followed by 88 base-58 digits whose number
// fits in 512 bits, the size of the SHA-512 digest it encodes.
CORVANE_API bool isWellFormedMhlHash(ChecksumType type, std::string_view text);

// The bytes a hash text stands for, which ASC MHL hashes when it hashes hashes (directory hashes,
// ASC MHL Appendix G):
// - md5, sha1, xxh64, xxh3, xxh128: each pair of hex digits (either case) is one byte, in text
//   order (for xxHash values that is the big-endian form, as ASC MHL Appendix D asks). Any even
//   number of digits is accepted, also none: the length is not checked against the format (use
//   isWellFormedMhlHash for that), so lists of short test values can be hashed as given.
// - c4: the 512-bit number of the 88 base-58 digits after "c4", big-endian, always 64 bytes
//   (leading zero bytes kept): the SHA-512 digest the ID was made from.
// Nothing for an odd number of digits, a character outside the format's alphabet, a C4 ID that is
// not 90 characters, does not start with "c4" or exceeds 512 bits, and for a type without an ASC
// MHL format.
CORVANE_API std::optional<Bytes> mhlHashBytes(ChecksumType type, std::string_view text);

}  // namespace corvane
