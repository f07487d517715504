// ChecksumListParser: reads one line of a checksum list, as written by `hash`, by sha*sum/md5sum
// (plain and --tag) and by xxhsum (plain and --tag).
//
// Line forms:
//   <checksum>  <path>            GNU ("<checksum> *<path>" with the binary mark)
//   <TAG> (<path>) = <checksum>   tag, TAG one of the tags of AlgorithmNames.hpp
// Either form may start with a backslash: the name is then escaped (see NameEscaping.hpp). Lines
// starting with '#' and empty lines are ignored. One trailing carriage return is dropped from
// every line (CRLF lists), as `sha256sum -c` does, escaped or not.
//
// The algorithm of a line is settled by, in this order:
//   1. its tag (tag lines);
//   2. the algorithm forced with -a: every GNU line is of it, and a GNU line whose checksum does
//      not fit it is improper;
//   3. the suffix of the list's file name (.md5, .xxh128, .xxh3, .xxh64, in any case), for the
//      GNU lines whose checksum fits that algorithm;
//   4. the form of the checksum: 40 hex digits SHA-1, 64 SHA-256, 128 SHA-512, 8 CRC-32, 90
//      characters starting with "c4" a C4 ID. Two lengths fit two algorithms each: 32 digits
//      MD5 or XXH128, 16 digits xxHash64 or XXH3. Such a line is left with both candidates and
//      matches when the file's checksum of either one equals it.
// CRC-32 checksums are printed without leading zeros, so a CRC-32 checksum has 1 to 8 hex
// digits where the algorithm is known (a CRC32 tag or -a crc32) and exactly 8 when it comes
// from the length.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "AlgorithmNames.hpp"

namespace corvane::tool {

// A properly formatted line: the file to read and the checksum it should have.
struct ChecksumListEntry {
  // The algorithms the checksum may be of: one when the line is settled, otherwise every
  // algorithm its length fits (MD5 then XXH128; xxHash64 then XXH3).
  std::vector<const AlgorithmName*> candidates;
  std::string checksum;  // hex in lower case, or a C4 ID as written
  std::string path;      // unescaped
};

// A comment or an empty line.
struct IgnoredLine {};
// A line that is neither an entry nor ignored.
struct ImproperLine {};

using ParsedChecksumLine = std::variant<ChecksumListEntry, IgnoredLine, ImproperLine>;

// What, besides the checksum itself, settles the algorithm of a GNU line; either may be null.
struct GnuLineContext {
  const AlgorithmName* forced = nullptr;      // given with -a
  const AlgorithmName* listSuffix = nullptr;  // named by the list's file name (listSuffixAlgorithm)
};

// Parses one line, without its '\n'. Tag lines always use their tag.
ParsedChecksumLine parseChecksumLine(std::string_view line, const GnuLineContext& context = {});

// The algorithm named by the suffix of a list's file name: ".md5", ".xxh128", ".xxh3" or
// ".xxh64", without regard to ASCII case; null for any other name.
const AlgorithmName* listSuffixAlgorithm(std::string_view listPath);

// Whether `computed` (as FileHasher prints it) equals `expected` (as parsed). CRC-32 checksums
// are compared as numbers, so that leading zeros do not matter.
bool checksumsMatch(const AlgorithmName& algorithm, std::string_view expected,
                    std::string_view computed);

}  // namespace corvane::tool
