// The tool's checksum-list line parser and its name escaping.
//
// Input: a context byte (low four bits: the algorithm forced with -a, if any; next three bits: the
// suffix of the list's name, if any; top bit: that suffix in upper case), then one line.
//
// Checked, besides never crashing:
// - a parsed entry has one to two candidates (one when the algorithm is forced; two only as
//   MD5/XXH128 or xxHash64/XXH3) and a checksum each candidate matches itself;
// - the entry written back with writeChecksumLine, for each candidate, as a tag line and as a GNU
//   line, parses again (the tag line under any context, the GNU line with that algorithm forced)
//   to the same path, checksum and that single algorithm; a GNU line read without context gives
//   the same path and checksum whenever it is an entry;
// - unescapeName(escapeName(x)) == x for any x, escapeName leaves no line break, and names that
//   need no escaping are left alone; an escaped text without line breaks that unescapes escapes
//   back to itself.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <variant>

#include "ChecksumListParser.hpp"
#include "FuzzCheck.hpp"
#include "NameEscaping.hpp"
#include "OutputFormat.hpp"

namespace {

using namespace corvane::tool;

std::string writtenLine(LineStyle style, const AlgorithmName& algorithm,
                        const ChecksumListEntry& entry) {
  std::ostringstream out;
  writeChecksumLine(out, LineSettings{style, false}, algorithm, entry.path, entry.checksum);
  std::string line = out.str();
  CORVANE_FUZZ_CHECK(!line.empty() && line.back() == '\n');
  line.pop_back();
  CORVANE_FUZZ_CHECK(line.find('\n') == std::string::npos);
  return line;
}

// Parses `line` and requires an entry of `algorithm` alone with the path and checksum of `entry`.
void checkReparsed(const std::string& line, const GnuLineContext& context,
                   const AlgorithmName& algorithm, const ChecksumListEntry& entry) {
  const ParsedChecksumLine parsed = parseChecksumLine(line, context);
  const auto* again = std::get_if<ChecksumListEntry>(&parsed);
  CORVANE_FUZZ_CHECK(again != nullptr);
  CORVANE_FUZZ_CHECK(again->path == entry.path);
  CORVANE_FUZZ_CHECK(again->checksum == entry.checksum);
  CORVANE_FUZZ_CHECK(again->candidates.size() == 1 && again->candidates[0] == &algorithm);
}

void checkEntry(const ChecksumListEntry& entry, const GnuLineContext& context) {
  CORVANE_FUZZ_CHECK(!entry.candidates.empty() && entry.candidates.size() <= 2);
  if (context.forced != nullptr) CORVANE_FUZZ_CHECK(entry.candidates.size() == 1);
  if (entry.candidates.size() == 2) {
    const std::string_view first = entry.candidates[0]->cliName;
    const std::string_view second = entry.candidates[1]->cliName;
    CORVANE_FUZZ_CHECK((first == "md5" && second == "xxh128" && entry.checksum.size() == 32) ||
                       (first == "xxh64" && second == "xxh3" && entry.checksum.size() == 16));
  }
  for (const AlgorithmName* algorithm : entry.candidates) {
    CORVANE_FUZZ_CHECK(algorithm != nullptr);
    CORVANE_FUZZ_CHECK(checksumsMatch(*algorithm, entry.checksum, entry.checksum));
  }
  // An entry without a name cannot be written back as a GNU line yet (see
  // fuzz/regressions/README.md).
  if (entry.path.empty()) return;
  for (const AlgorithmName* algorithm : entry.candidates) {
    const std::string tagLine = writtenLine(LineStyle::kTag, *algorithm, entry);
    checkReparsed(tagLine, GnuLineContext{}, *algorithm, entry);
    checkReparsed(tagLine, context, *algorithm, entry);

    const std::string gnuLine = writtenLine(LineStyle::kGnu, *algorithm, entry);
    checkReparsed(gnuLine, GnuLineContext{algorithm, context.listSuffix}, *algorithm, entry);
    const ParsedChecksumLine plain = parseChecksumLine(gnuLine);
    if (const auto* again = std::get_if<ChecksumListEntry>(&plain)) {
      CORVANE_FUZZ_CHECK(again->path == entry.path);
      CORVANE_FUZZ_CHECK(again->checksum == entry.checksum);
    }
  }
}

void checkEscaping(const std::string& name) {
  const bool special = name.find_first_of("\\\n\r") != std::string::npos;
  CORVANE_FUZZ_CHECK(nameNeedsEscaping(name) == special);
  const std::string escaped = escapeName(name);
  CORVANE_FUZZ_CHECK(escaped.find_first_of("\n\r") == std::string::npos);
  if (!special) CORVANE_FUZZ_CHECK(escaped == name);
  const auto unescaped = unescapeName(escaped);
  CORVANE_FUZZ_CHECK(unescaped.has_value() && *unescaped == name);

  // The same bytes read as an escaped text.
  const auto read = unescapeName(name);
  if (read && name.find_first_of("\n\r") == std::string::npos) {
    CORVANE_FUZZ_CHECK(escapeName(*read) == name);
  }
}

const AlgorithmName* forcedFrom(std::uint8_t byte) {
  const auto known = knownAlgorithms();
  const std::size_t index = byte & 0x0F;
  return index >= 1 && index <= known.size() ? &known[index - 1] : nullptr;
}

const AlgorithmName* suffixFrom(std::uint8_t byte) {
  static const char* const kSuffixes[] = {".md5", ".xxh128", ".xxh3", ".xxh64"};
  static const char* const kUpperSuffixes[] = {".MD5", ".XXH128", ".XXH3", ".XXH64"};
  static const char* const kNames[] = {"md5", "xxh128", "xxh3", "xxh64"};
  const std::size_t index = (byte >> 4) & 7;
  if (index == 0 || index > 4) {
    CORVANE_FUZZ_CHECK(listSuffixAlgorithm("card.sha256") == nullptr);
    return nullptr;
  }
  const bool upper = (byte & 0x80) != 0;
  const std::string listName =
      std::string("card") + (upper ? kUpperSuffixes : kSuffixes)[index - 1];
  const AlgorithmName* algorithm = listSuffixAlgorithm(listName);
  CORVANE_FUZZ_CHECK(algorithm != nullptr && algorithm->cliName == kNames[index - 1]);
  return algorithm;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const GnuLineContext context{forcedFrom(data[0]), suffixFrom(data[0])};
  std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  checkEscaping(std::string(rest));

  // One line, without its '\n'.
  const std::string line(rest.substr(0, rest.find('\n')));
  const ParsedChecksumLine parsed = parseChecksumLine(line, context);
  if (const auto* entry = std::get_if<ChecksumListEntry>(&parsed)) checkEntry(*entry, context);
  return 0;
}
