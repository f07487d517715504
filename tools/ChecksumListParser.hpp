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
// The algorithm of a GNU line comes from the length of its checksum unless one is forced (-a).
// CRC-32 checksums are printed without leading zeros, so a CRC-32 checksum has 1 to 8 hex
// digits where the algorithm is known (a CRC32 tag or -a crc32) and exactly 8 when it is guessed
// from the length.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "AlgorithmNames.hpp"

namespace corvane::tool {

// A properly formatted line: the file to read and the checksum it should have.
struct ChecksumListEntry {
  const AlgorithmName* algorithm = nullptr;
  std::string checksum;  // hex in lower case, or a C4 ID as written
  std::string path;      // unescaped
};

// A comment or an empty line.
struct IgnoredLine {};
// A line that is neither an entry nor ignored.
struct ImproperLine {};

using ParsedChecksumLine = std::variant<ChecksumListEntry, IgnoredLine, ImproperLine>;

// Parses one line, without its '\n'. `gnuAlgorithm` (may be null) is the algorithm of GNU lines
// given with -a; tag lines always use their tag.
ParsedChecksumLine parseChecksumLine(std::string_view line, const AlgorithmName* gnuAlgorithm);

// Whether `computed` (as FileHasher prints it) equals `expected` (as parsed). CRC-32 checksums
// are compared as numbers, so that leading zeros do not matter.
bool checksumsMatch(const AlgorithmName& algorithm, std::string_view expected,
                    std::string_view computed);

}  // namespace corvane::tool
