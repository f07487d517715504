#include "ChecksumListParser.hpp"

#include <algorithm>

#include "NameEscaping.hpp"

namespace corvane::tool {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
constexpr std::string_view kBase58Digits =
    "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
constexpr std::size_t kC4Length = 90;
constexpr std::size_t kCrc32Digits = 8;

char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isHex(std::string_view text) {
  return !text.empty() && text.find_first_not_of(kHexDigits) == std::string_view::npos;
}

bool isC4Id(std::string_view text) {
  return text.size() == kC4Length && text.starts_with("c4") &&
         text.substr(2).find_first_not_of(kBase58Digits) == std::string_view::npos;
}

// Hex digits of the algorithm's checksum; 0 for C4, which is not hex.
std::size_t hexDigitsOf(const AlgorithmName& algorithm) {
  struct Length {
    std::string_view name;
    std::size_t digits;
  };
  static constexpr Length kLengths[] = {{"md5", 32},     {"sha1", 40},           {"sha256", 64},
                                        {"sha512", 128}, {"xxh64", 16},          {"xxh3", 16},
                                        {"xxh128", 32},  {"crc32", kCrc32Digits}};
  for (const Length& length : kLengths) {
    if (length.name == algorithm.cliName) return length.digits;
  }
  return 0;
}

// Whether `text` is a checksum of `algorithm`. A CRC-32 may be shorter than 8 digits (leading
// zeros are not printed).
bool fitsAlgorithm(const AlgorithmName& algorithm, std::string_view text) {
  if (algorithm.type == ChecksumTypeC4) return isC4Id(text);
  if (!isHex(text)) return false;
  if (algorithm.type == ChecksumTypeCRC32) return text.size() <= kCrc32Digits;
  return text.size() == hexDigitsOf(algorithm);
}

// The algorithms whose checksums have the form of `text`, for a GNU line that nothing else
// settles; empty if none fits.
std::vector<const AlgorithmName*> candidatesOf(std::string_view text) {
  if (isC4Id(text)) return {findAlgorithm("c4")};
  std::vector<const AlgorithmName*> candidates;
  if (!isHex(text)) return candidates;
  // A CRC-32 is taken from the length only with its 8 digits: shorter ones need -a or a tag.
  for (const std::string_view name :
       {"md5", "xxh128", "sha1", "sha256", "sha512", "crc32", "xxh64", "xxh3"}) {
    const AlgorithmName* algorithm = findAlgorithm(name);
    if (text.size() == hexDigitsOf(*algorithm)) candidates.push_back(algorithm);
  }
  return candidates;
}

const AlgorithmName* findTag(std::string_view tag) {
  for (const AlgorithmName& algorithm : knownAlgorithms()) {
    if (algorithm.tag == tag) return &algorithm;
  }
  return nullptr;
}

std::string normalizedChecksum(const AlgorithmName& algorithm, std::string_view text) {
  std::string checksum(text);
  if (algorithm.type != ChecksumTypeC4) {
    std::ranges::transform(checksum, checksum.begin(), asciiLower);
  }
  return checksum;
}

// "<TAG> (<name>) = <checksum>"; null when the line does not start with a known tag and " (".
std::optional<ChecksumListEntry> parseTagLine(std::string_view line) {
  const auto open = line.find(" (");
  if (open == std::string_view::npos) return std::nullopt;
  const AlgorithmName* algorithm = findTag(line.substr(0, open));
  if (algorithm == nullptr) return std::nullopt;
  // The name may itself hold ") = ", the checksum cannot.
  const auto close = line.rfind(") = ");
  if (close == std::string_view::npos || close < open + 2) return std::nullopt;
  const std::string_view checksum = line.substr(close + 4);
  if (!fitsAlgorithm(*algorithm, checksum)) return std::nullopt;
  return ChecksumListEntry{{algorithm},
                           normalizedChecksum(*algorithm, checksum),
                           std::string(line.substr(open + 2, close - open - 2))};
}

// "<checksum>  <name>" or "<checksum> *<name>".
std::optional<ChecksumListEntry> parseGnuLine(std::string_view line,
                                              const GnuLineContext& context) {
  const auto space = line.find(' ');
  if (space == std::string_view::npos || space + 2 >= line.size()) return std::nullopt;
  if (line[space + 1] != ' ' && line[space + 1] != '*') return std::nullopt;
  const std::string_view checksum = line.substr(0, space);
  std::vector<const AlgorithmName*> candidates;
  if (context.forced != nullptr) {
    if (!fitsAlgorithm(*context.forced, checksum)) return std::nullopt;
    candidates = {context.forced};
  } else if (context.listSuffix != nullptr && fitsAlgorithm(*context.listSuffix, checksum)) {
    candidates = {context.listSuffix};
  } else {
    candidates = candidatesOf(checksum);
    if (candidates.empty()) return std::nullopt;
  }
  // Every candidate of one line writes its checksum the same way (hex, or C4 for C4 alone).
  std::string normalized = normalizedChecksum(*candidates.front(), checksum);
  return ChecksumListEntry{std::move(candidates), std::move(normalized),
                           std::string(line.substr(space + 2))};
}

std::string_view withoutLeadingZeros(std::string_view hex) {
  const auto first = hex.find_first_not_of('0');
  return first == std::string_view::npos ? std::string_view() : hex.substr(first);
}

}  // namespace

ParsedChecksumLine parseChecksumLine(std::string_view line, const GnuLineContext& context) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.empty() || line.front() == '#') return IgnoredLine{};
  const bool escaped = line.front() == '\\';
  if (escaped) line.remove_prefix(1);

  std::optional<ChecksumListEntry> entry = parseTagLine(line);
  if (!entry) entry = parseGnuLine(line, context);
  if (!entry || entry->path.empty()) return ImproperLine{};
  if (escaped) {
    std::optional<std::string> name = unescapeName(entry->path);
    if (!name) return ImproperLine{};
    entry->path = std::move(*name);
  }
  // No file name holds a NUL byte.
  if (entry->path.find('\0') != std::string::npos) return ImproperLine{};
  return std::move(*entry);
}

const AlgorithmName* listSuffixAlgorithm(std::string_view listPath) {
  const auto dot = listPath.rfind('.');
  if (dot == std::string_view::npos) return nullptr;
  std::string suffix(listPath.substr(dot + 1));
  std::ranges::transform(suffix, suffix.begin(), asciiLower);
  for (const std::string_view name : {"md5", "xxh128", "xxh3", "xxh64"}) {
    if (suffix == name) return findAlgorithm(name);
  }
  return nullptr;
}

bool checksumsMatch(const AlgorithmName& algorithm, std::string_view expected,
                    std::string_view computed) {
  if (algorithm.type == ChecksumTypeC4) return expected == computed;
  const auto sameDigit = [](char a, char b) { return asciiLower(a) == asciiLower(b); };
  if (algorithm.type == ChecksumTypeCRC32) {
    expected = withoutLeadingZeros(expected);
    computed = withoutLeadingZeros(computed);
  }
  return std::ranges::equal(expected, computed, sameDigit);
}

}  // namespace corvane::tool
