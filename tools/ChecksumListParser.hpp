// ChecksumListParser: reads one line of a checksum list, as written by `hash`, by sha*sum/md5sum
// (plain and --tag) and by xxhsum (plain and --tag). Its grammar is that of `sha256sum -c`
// (coreutils 9.1), for the checksums of every algorithm here: it takes the lines that program
// takes, reads from each the name that program opens, and refuses the others.
//
// Grammar. "Blanks" are spaces and tabs, no other white space.
//   - One trailing carriage return is dropped (CRLF lists), escaped line or not.
//   - Empty lines and lines whose first byte is '#' are ignored (" #" is not a comment).
//   - Leading blanks are skipped. Then a backslash marks the line as escaped: its name is
//     unescaped (see NameEscaping.hpp), and a backslash followed by anything but '\\', 'n' or 'r'
//     makes the line improper. Blanks after that backslash are not skipped.
//   - Tag line, when what follows starts with a known TAG (AlgorithmNames.hpp) then "(" or " ("
//     (one space, not a tab):
//       <TAG>[ ](<name>)<blanks>=<blanks><checksum>
//     The name runs to the last ')' of the line; it may be empty or hold blanks and ')'. The
//     blanks around '=' may be none. The checksum runs to the end of the line and must fit TAG.
//   - GNU line, anything else:
//       <checksum><blank><rest>
//     The checksum runs to the first blank; the rest must not be empty. The line is "marked" when
//     the rest has two bytes or more and starts with ' ' (text) or '*' (binary): the name is the
//     rest without that first byte ("<checksum>  <name>", "<checksum> *<name>", and also
//     "<checksum>\t <name>", "<checksum>\t*<name>"). Otherwise it is "unmarked" and the name is
//     the whole rest ("<checksum> <name>", "<checksum>\t<name>"; "<checksum>  " names " ").
//     So "<checksum>   a" names " a": the two-space form wins. A name keeps its trailing blanks.
//   - GNU lines of one run take one form, as in `sha256sum -c` (see GnuLineForm): once a marked
//     line was read, unmarked lines are improper; once an unmarked one was, every GNU line is
//     read unmarked, a leading ' ' or '*' then being part of the name.
//   - A line holding a NUL byte is improper (sha256sum reads up to the NUL and may open a
//     shorter name).
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

// How the GNU lines of a run separate checksum and name. The first GNU line whose checksum is
// proper decides, even when its name is then found improper (a bad escape); tag lines and other
// improper lines do not. The form carries over from one list to the next of the same run.
enum class GnuLineForm {
  kUndecided,
  kMarked,    // "<checksum><blank><' ' or '*'><name>"
  kUnmarked,  // "<checksum><blank><name>"
};

// Parses one line, without its '\n'. Tag lines always use their tag. `form` is the form of the
// run so far, updated by GNU lines; null reads the line as the first GNU line of a run.
ParsedChecksumLine parseChecksumLine(std::string_view line, const GnuLineContext& context = {},
                                     GnuLineForm* form = nullptr);

// The algorithm named by the suffix of a list's file name: ".md5", ".xxh128", ".xxh3" or
// ".xxh64", without regard to ASCII case; null for any other name.
const AlgorithmName* listSuffixAlgorithm(std::string_view listPath);

// Whether `computed` (as the library prints it) equals `expected` (as parsed). CRC-32 checksums
// are compared as numbers, so that leading zeros do not matter.
bool checksumsMatch(const AlgorithmName& algorithm, std::string_view expected,
                    std::string_view computed);

}  // namespace corvane::tool
