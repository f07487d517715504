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

std::string normalizedChecksum(const AlgorithmName& algorithm, std::string_view text) {
  std::string checksum(text);
  if (algorithm.type != ChecksumTypeC4) {
    std::ranges::transform(checksum, checksum.begin(), asciiLower);
  }
  return checksum;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view withoutLeadingBlanks(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

// The algorithm of the tag that `text` starts with, followed by "(" or " (": then the line is a
// tag line, whatever follows. `afterOpen` gets the text after the "(". Null for any other text.
const AlgorithmName* tagLineStart(std::string_view text, std::string_view& afterOpen) {
  for (const AlgorithmName& algorithm : knownAlgorithms()) {
    const std::string_view tag = algorithm.tag;
    if (!text.starts_with(tag)) continue;
    std::string_view rest = text.substr(tag.size());
    if (rest.starts_with(' ')) rest.remove_prefix(1);
    if (!rest.starts_with('(')) continue;
    afterOpen = rest.substr(1);
    return &algorithm;
  }
  return nullptr;
}

// "<name>) = <checksum>", the rest of a tag line: the name runs to the last ')', which the
// checksum cannot hold; the '=' may have blanks on either side.
std::optional<ChecksumListEntry> parseTagLine(std::string_view afterOpen,
                                              const AlgorithmName& algorithm) {
  const auto close = afterOpen.rfind(')');
  if (close == std::string_view::npos) return std::nullopt;
  std::string_view rest = withoutLeadingBlanks(afterOpen.substr(close + 1));
  if (!rest.starts_with('=')) return std::nullopt;
  const std::string_view checksum = withoutLeadingBlanks(rest.substr(1));
  if (!fitsAlgorithm(algorithm, checksum)) return std::nullopt;
  return ChecksumListEntry{{&algorithm},
                           normalizedChecksum(algorithm, checksum),
                           std::string(afterOpen.substr(0, close))};
}

// "<checksum><blank><rest>": marked when the rest has two bytes or more and starts with ' ' (text)
// or '*' (binary), the name then being the rest without that mark; unmarked otherwise, the name
// being the whole rest. `form` is the form of the run (see GnuLineForm).
std::optional<ChecksumListEntry> parseGnuLine(std::string_view line, const GnuLineContext& context,
                                              GnuLineForm& form) {
  const auto blank = std::ranges::find_if(line, isBlank) - line.begin();
  if (static_cast<std::size_t>(blank) + 1 >= line.size()) return std::nullopt;
  const std::string_view checksum = line.substr(0, blank);
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

  // The form is settled by the first line with a proper checksum, before its name is looked at.
  std::string_view name = line.substr(blank + 1);
  const bool marked = name.size() >= 2 && (name.front() == ' ' || name.front() == '*');
  if (!marked) {
    if (form == GnuLineForm::kMarked) return std::nullopt;
    form = GnuLineForm::kUnmarked;
  } else if (form != GnuLineForm::kUnmarked) {
    form = GnuLineForm::kMarked;
    name.remove_prefix(1);
  }
  // Every candidate of one line writes its checksum the same way (hex, or C4 for C4 alone).
  std::string normalized = normalizedChecksum(*candidates.front(), checksum);
  return ChecksumListEntry{std::move(candidates), std::move(normalized), std::string(name)};
}

std::string_view withoutLeadingZeros(std::string_view hex) {
  const auto first = hex.find_first_not_of('0');
  return first == std::string_view::npos ? std::string_view() : hex.substr(first);
}

}  // namespace

ParsedChecksumLine parseChecksumLine(std::string_view line, const GnuLineContext& context,
                                     GnuLineForm* form) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.empty() || line.front() == '#') return IgnoredLine{};
  line = withoutLeadingBlanks(line);
  const bool escaped = line.starts_with('\\');
  if (escaped) line.remove_prefix(1);

  std::optional<ChecksumListEntry> entry;
  std::string_view afterOpen;
  if (const AlgorithmName* tag = tagLineStart(line, afterOpen)) {
    entry = parseTagLine(afterOpen, *tag);
  } else {
    GnuLineForm lineOnItsOwn = GnuLineForm::kUndecided;
    entry = parseGnuLine(line, context, form != nullptr ? *form : lineOnItsOwn);
  }
  if (!entry) return ImproperLine{};
  if (escaped) {
    std::optional<std::string> name = unescapeName(entry->path);
    if (!name) return ImproperLine{};
    entry->path = std::move(*name);
  }
  // No file name holds a NUL byte: a line with one is refused rather than cut short.
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
