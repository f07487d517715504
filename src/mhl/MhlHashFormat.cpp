#include "corvane/MhlHashFormat.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#include "corvane/C4Identifier.hpp"

namespace corvane {
namespace {

struct FormatEntry {
  ChecksumType type;
  std::string_view name;
  std::size_t textLength;
};

// ASCMHL.xsd's element order. Text lengths from ASC MHL Appendix D: two hex digits per digest
// byte (MD5 16 bytes, SHA-1 20, XXH128 16, XXH64 and XXH3 8); C4 is "c4" + 88 base-58 digits.
constexpr std::array<FormatEntry, 6> kFormats{{
    {ChecksumTypeC4, "c4", 90},
    {ChecksumTypeMD5, "md5", 32},
    {ChecksumTypeSHA1, "sha1", 40},
    {ChecksumTypeXXHashH3128, "xxh128", 32},
    {ChecksumTypeXXHashH364, "xxh3", 16},
    {ChecksumTypeXXHash64, "xxh64", 16},
}};

constexpr std::size_t kC4DigestBytes = 64;  // a SHA-512 digest

const FormatEntry* entryFor(ChecksumType type) {
  for (const FormatEntry& entry : kFormats) {
    if (entry.type == type) return &entry;
  }
  return nullptr;
}

const std::string& allowedList() {
  static const std::string list = [] {
    std::string text;
    for (std::size_t i = 0; i < kFormats.size(); ++i) {
      if (i > 0) text += i + 1 == kFormats.size() ? " and " : ", ";
      text += kFormats[i].name;
    }
    return text;
  }();
  return list;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isBase58Digit(char c) { return c != '\0' && std::strchr(kC4CharacterString, c) != nullptr; }

// The C4 ID's 88 digits must all be base-58 digits and the ID must start with "c4": the library's
// own decoder does not look at the prefix and logs an error for a foreign character, neither of
// which suits checking text read from a manifest.
bool hasC4Shape(std::string_view text) {
  if (text.size() != static_cast<std::size_t>(c4IdLength) || text.substr(0, 2) != "c4") {
    return false;
  }
  for (std::size_t i = 2; i < text.size(); ++i) {
    if (!isBase58Digit(text[i])) return false;
  }
  return true;
}

std::optional<Bytes> c4Bytes(std::string_view text) {
  if (!hasC4Shape(text)) return std::nullopt;
  // convertC4ChecksumToData drops leading zero words; the digest always has 64 bytes, so the
  // number is put back at the end of a zero-filled buffer. 88 base-58 digits reach past 512 bits
  // (58^88 > 2^515), and such a number is no SHA-512 digest.
  const std::optional<Bytes> number =
      CorvaneC4DataUtility::convertC4ChecksumToData(std::string(text), /*storeAsBigEndian=*/true);
  if (!number || number->size() > kC4DigestBytes) return std::nullopt;
  Bytes digest(kC4DigestBytes - number->size(), 0);
  digest.insert(digest.end(), number->begin(), number->end());
  return digest;
}

std::optional<Bytes> hexBytes(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Bytes bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = hexValue(text[i]);
    const int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
  }
  return bytes;
}

std::string describe(ChecksumType type) {
  if (type.isKnownAlgorithm()) return type.name();
  if (type == ChecksumTypeNone) return "No algorithm (ChecksumTypeNone)";
  // A mask or unknown bits: ChecksumType::name() would stop the process, so the raw value it is.
  return "The checksum type value " + std::to_string(type.rawValue());
}

}  // namespace

const std::vector<ChecksumType>& mhlFormats() {
  static const std::vector<ChecksumType> formats = [] {
    std::vector<ChecksumType> types;
    for (const FormatEntry& entry : kFormats) types.push_back(entry.type);
    return types;
  }();
  return formats;
}

std::optional<ChecksumType> checksumTypeForMhlFormat(std::string_view name) {
  for (const FormatEntry& entry : kFormats) {
    if (entry.name == name) return entry.type;
  }
  return std::nullopt;
}

std::optional<std::string_view> mhlFormatName(ChecksumType type) {
  const FormatEntry* entry = entryFor(type);
  if (entry == nullptr) return std::nullopt;
  return entry->name;
}

bool isMhlFormat(ChecksumType type) { return entryFor(type) != nullptr; }

std::variant<std::string_view, MhlFormatRefusal> checkMhlFormat(ChecksumType type) {
  if (const FormatEntry* entry = entryFor(type)) return entry->name;
  return MhlFormatRefusal{describe(type) + " is not an ASC MHL hash format; ASC MHL records " +
                          allowedList()};
}

std::variant<ChecksumType, MhlFormatRefusal> checkMhlFormatName(std::string_view name) {
  if (std::optional<ChecksumType> type = checksumTypeForMhlFormat(name)) return *type;
  // Appended piece by piece: g++ 12 warns falsely (-Wrestrict) about "literal" + std::string.
  std::string message;
  message += '"';
  message += name;
  message += "\" is not an ASC MHL hash format; ASC MHL records ";
  message += allowedList();
  return MhlFormatRefusal{std::move(message)};
}

std::size_t mhlHashTextLength(ChecksumType type) {
  const FormatEntry* entry = entryFor(type);
  return entry == nullptr ? 0 : entry->textLength;
}

bool isWellFormedMhlHash(ChecksumType type, std::string_view text) {
  const FormatEntry* entry = entryFor(type);
  if (entry == nullptr || text.size() != entry->textLength) return false;
  return mhlHashBytes(type, text).has_value();
}

std::optional<Bytes> mhlHashBytes(ChecksumType type, std::string_view text) {
  if (!isMhlFormat(type)) return std::nullopt;
  if (type == ChecksumTypeC4) return c4Bytes(text);
  return hexBytes(text);
}

}  // namespace corvane
