// Unit tests of the checksum list line parser of corvane-checksum check: the GNU and tag line
// forms with every blank sha256sum -c takes, escaped names, comments, CRLF endings, the form the
// GNU lines of a run share, what settles the algorithm of a line (tag, -a, the list's name, the
// length) and checksum comparison.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ChecksumListParser.hpp"

namespace {

using corvane::tool::AlgorithmName;
using corvane::tool::ChecksumListEntry;
using corvane::tool::checksumsMatch;
using corvane::tool::findAlgorithm;
using corvane::tool::GnuLineContext;
using corvane::tool::GnuLineForm;
using corvane::tool::IgnoredLine;
using corvane::tool::ImproperLine;
using corvane::tool::listSuffixAlgorithm;
using corvane::tool::parseChecksumLine;

using Candidates = std::vector<const AlgorithmName*>;

const std::string kMd5 = "d41d8cd98f00b204e9800998ecf8427e";
const std::string kSha1 = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
const std::string kSha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const std::string kSha512 =
    "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
    "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e";
const std::string kXxh64 = "ef46db3751d8e999";
const std::string kCrc32 = "d202d277";
const std::string kC4 =
    "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sFT";

const AlgorithmName* algorithm(const char* name) { return findAlgorithm(name); }

Candidates only(const char* name) { return {algorithm(name)}; }

// The entry of `line`, or null when it is ignored or improperly formatted.
std::optional<ChecksumListEntry> entryOf(std::string_view line,
                                         const GnuLineContext& context = {}) {
  auto parsed = parseChecksumLine(line, context);
  if (auto* entry = std::get_if<ChecksumListEntry>(&parsed)) return *entry;
  return std::nullopt;
}

// With the algorithm of GNU lines forced (-a).
std::optional<ChecksumListEntry> entryOf(std::string_view line, const AlgorithmName* forced) {
  return entryOf(line, GnuLineContext{.forced = forced});
}

// The path of `line`'s entry; "<not an entry>" when it is ignored or improperly formatted.
std::string pathOf(std::string_view line, const GnuLineContext& context = {}) {
  const auto entry = entryOf(line, context);
  return entry ? entry->path : "<not an entry>";
}

// The candidates of `line`; empty when it is not an entry.
Candidates candidatesOf(std::string_view line, const GnuLineContext& context = {}) {
  const auto entry = entryOf(line, context);
  return entry ? entry->candidates : Candidates{};
}

// Settled by the suffix of the list's name only.
GnuLineContext listNamed(const char* suffixAlgorithm) {
  return {.listSuffix = algorithm(suffixAlgorithm)};
}

bool isImproper(std::string_view line, const AlgorithmName* forced = nullptr) {
  return std::holds_alternative<ImproperLine>(parseChecksumLine(line, {.forced = forced}));
}

bool isIgnored(std::string_view line) {
  return std::holds_alternative<IgnoredLine>(parseChecksumLine(line));
}

TEST(ChecksumListParser, GnuLineAlgorithmComesFromChecksumLength) {
  const std::pair<std::string, const char*> cases[] = {
      {kSha1, "sha1"}, {kSha256, "sha256"}, {kSha512, "sha512"}, {kCrc32, "crc32"}, {kC4, "c4"},
  };
  for (const auto& [checksum, name] : cases) {
    SCOPED_TRACE(name);
    const auto entry = entryOf(checksum + "  some file.txt");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->candidates, only(name));
    EXPECT_EQ(entry->checksum, checksum);
    EXPECT_EQ(entry->path, "some file.txt");
  }
}

TEST(ChecksumListParser, LengthOfSeveralAlgorithmsGivesEveryCandidate) {
  const auto md5OrXxh128 = entryOf(kMd5 + "  some file.txt");
  ASSERT_TRUE(md5OrXxh128.has_value());
  EXPECT_EQ(md5OrXxh128->candidates, Candidates({algorithm("md5"), algorithm("xxh128")}));
  EXPECT_EQ(md5OrXxh128->checksum, kMd5);
  EXPECT_EQ(md5OrXxh128->path, "some file.txt");

  const auto xxh64OrXxh3 = entryOf("EF46DB3751D8E999 *f");
  ASSERT_TRUE(xxh64OrXxh3.has_value());
  EXPECT_EQ(xxh64OrXxh3->candidates, Candidates({algorithm("xxh64"), algorithm("xxh3")}));
  EXPECT_EQ(xxh64OrXxh3->checksum, kXxh64);
  EXPECT_EQ(xxh64OrXxh3->path, "f");
}

TEST(ChecksumListParser, BinaryMarkIsNotPartOfTheName) {
  const auto entry = entryOf(kSha256 + " *file.bin");
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->path, "file.bin");
  EXPECT_EQ(entry->candidates, only("sha256"));
}

TEST(ChecksumListParser, NameStartsRightAfterTheTwoCharacterSeparator) {
  EXPECT_EQ(entryOf(kMd5 + "   leading space")->path, " leading space");
  EXPECT_EQ(entryOf(kMd5 + "  *star")->path, "*star");
  EXPECT_EQ(entryOf(kMd5 + " **two")->path, "*two");
  EXPECT_EQ(entryOf(kMd5 + "  trailing space ")->path, "trailing space ");
}

TEST(ChecksumListParser, UnescapedNamesAreTakenByteForByte) {
  EXPECT_EQ(entryOf(kMd5 + "  back\\slash")->path, "back\\slash");
  EXPECT_EQ(entryOf(kMd5 + "  caf\xc3\xa9 \xff.bin")->path, "caf\xc3\xa9 \xff.bin");
  EXPECT_EQ(entryOf("MD5 (tab\there) = " + kMd5)->path, "tab\there");
}

TEST(ChecksumListParser, HexDigitsInUpperCaseAreLowerCased) {
  const auto gnu = entryOf("D41D8CD98F00B204E9800998ECF8427E  f");
  ASSERT_TRUE(gnu.has_value());
  EXPECT_EQ(gnu->checksum, kMd5);
  const auto tag = entryOf("XXH64 (f) = EF46DB3751D8E999");
  ASSERT_TRUE(tag.has_value());
  EXPECT_EQ(tag->checksum, kXxh64);
}

TEST(ChecksumListParser, TagLinesOfEveryAlgorithmAreRead) {
  const std::pair<std::string, std::string> cases[] = {
      {"MD5", kMd5},       {"SHA1", kSha1},   {"SHA256", kSha256},
      {"SHA512", kSha512}, {"CRC32", kCrc32}, {"XXH64", kXxh64},
      {"XXH3", kXxh64},    {"XXH128", kMd5},  {"C4", kC4},
  };
  for (const auto& [tag, checksum] : cases) {
    SCOPED_TRACE(tag);
    const auto entry = entryOf(tag + " (dir/a b.txt) = " + checksum);
    ASSERT_TRUE(entry.has_value());
    ASSERT_EQ(entry->candidates.size(), 1u);
    EXPECT_EQ(entry->candidates.front()->tag, tag);
    EXPECT_EQ(entry->checksum, checksum);
    EXPECT_EQ(entry->path, "dir/a b.txt");
  }
}

TEST(ChecksumListParser, TagLineNameMayHoldParenthesesAndEquals) {
  const auto entry = entryOf("SHA1 (a) = b (c) = d) = " + kSha1);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->path, "a) = b (c) = d");
  EXPECT_EQ(entry->checksum, kSha1);
}

TEST(ChecksumListParser, TagLinesIgnoreTheForcedAlgorithm) {
  const auto entry = entryOf("SHA256 (f) = " + kSha256, algorithm("md5"));
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->candidates, only("sha256"));
}

TEST(ChecksumListParser, TagLinesIgnoreTheListSuffix) {
  EXPECT_EQ(candidatesOf("XXH128 (f) = " + kMd5, listNamed("md5")), only("xxh128"));
  EXPECT_EQ(candidatesOf("XXH64 (f) = " + kXxh64, listNamed("xxh3")), only("xxh64"));
  EXPECT_EQ(candidatesOf("MD5 (f) = " + kMd5,
                         {.forced = algorithm("xxh128"), .listSuffix = algorithm("xxh128")}),
            only("md5"));
}

TEST(ChecksumListParser, TagLineChecksumMustFitItsTag) {
  EXPECT_TRUE(isImproper("SHA256 (f) = " + kMd5));
  EXPECT_TRUE(isImproper("MD5 (f) = " + kMd5 + "0"));
  EXPECT_TRUE(isImproper("XXH128 (f) = " + kXxh64));
  EXPECT_TRUE(isImproper("C4 (f) = " + kSha256));
  EXPECT_TRUE(isImproper("MD5 (f) = " + kMd5 + " "));
}

TEST(ChecksumListParser, EscapedLinesHaveTheirNamesUnescaped) {
  const auto gnu = entryOf("\\" + kMd5 + "  new\\nline\\\\back\\rreturn");
  ASSERT_TRUE(gnu.has_value());
  EXPECT_EQ(gnu->path, "new\nline\\back\rreturn");
  const auto tag = entryOf("\\SHA1 (a\\\\b) = " + kSha1);
  ASSERT_TRUE(tag.has_value());
  EXPECT_EQ(tag->path, "a\\b");
  EXPECT_EQ(tag->candidates, only("sha1"));
}

TEST(ChecksumListParser, EscapedLineWithAnUnknownEscapeIsImproper) {
  EXPECT_TRUE(isImproper("\\" + kMd5 + "  a\\tb"));
  EXPECT_TRUE(isImproper("\\" + kMd5 + "  trailing\\"));
}

TEST(ChecksumListParser, CommentsAndEmptyLinesAreIgnored) {
  EXPECT_TRUE(isIgnored(""));
  EXPECT_TRUE(isIgnored("\r"));
  EXPECT_TRUE(isIgnored("# " + kMd5 + "  f"));
  EXPECT_TRUE(isIgnored("#\r"));
  EXPECT_FALSE(isIgnored(" "));
}

TEST(ChecksumListParser, OneTrailingCarriageReturnIsDroppedEscapedOrNot) {
  EXPECT_EQ(entryOf(kMd5 + "  crlf\r")->path, "crlf");
  EXPECT_EQ(entryOf(kMd5 + "  two\r\r")->path, "two\r");
  EXPECT_EQ(entryOf("\\" + kMd5 + "  a\\\\b\r")->path, "a\\b");
  EXPECT_EQ(entryOf("\\" + kMd5 + "  cr\\r\r")->path, "cr\r");
  EXPECT_EQ(entryOf("MD5 (f) = " + kMd5 + "\r")->checksum, kMd5);
}

TEST(ChecksumListParser, ForcedAlgorithmDecidesGnuLines) {
  const auto xxh3 = entryOf(kXxh64 + "  f", algorithm("xxh3"));
  ASSERT_TRUE(xxh3.has_value());
  EXPECT_EQ(xxh3->candidates, only("xxh3"));
  const auto xxh128 = entryOf(kMd5 + "  f", algorithm("xxh128"));
  ASSERT_TRUE(xxh128.has_value());
  EXPECT_EQ(xxh128->candidates, only("xxh128"));
  EXPECT_EQ(entryOf(kMd5 + "  f", algorithm("md5"))->candidates, only("md5"));
  EXPECT_EQ(entryOf(kXxh64 + "  f", algorithm("xxh64"))->candidates, only("xxh64"));
  EXPECT_EQ(entryOf(kC4 + "  f", algorithm("c4"))->candidates, only("c4"));
}

TEST(ChecksumListParser, ForcedAlgorithmRejectsChecksumsOfAnotherLength) {
  EXPECT_TRUE(isImproper(kMd5 + "  f", algorithm("sha256")));
  EXPECT_TRUE(isImproper(kSha256 + "  f", algorithm("xxh3")));
  EXPECT_TRUE(isImproper(kSha512 + "  f", algorithm("c4")));
  EXPECT_TRUE(isImproper(kC4 + "  f", algorithm("sha512")));
}

TEST(ChecksumListParser, ListSuffixSettlesGnuLinesOfItsLength) {
  EXPECT_EQ(candidatesOf(kMd5 + "  f", listNamed("md5")), only("md5"));
  EXPECT_EQ(candidatesOf(kMd5 + "  f", listNamed("xxh128")), only("xxh128"));
  EXPECT_EQ(candidatesOf(kXxh64 + "  f", listNamed("xxh3")), only("xxh3"));
  EXPECT_EQ(candidatesOf(kXxh64 + "  f", listNamed("xxh64")), only("xxh64"));
}

TEST(ChecksumListParser, ListSuffixLeavesOtherLengthsToTheirOwnDetection) {
  EXPECT_EQ(candidatesOf(kSha256 + "  f", listNamed("md5")), only("sha256"));
  EXPECT_EQ(candidatesOf(kXxh64 + "  f", listNamed("md5")),
            Candidates({algorithm("xxh64"), algorithm("xxh3")}));
  EXPECT_EQ(candidatesOf(kMd5 + "  f", listNamed("xxh3")),
            Candidates({algorithm("md5"), algorithm("xxh128")}));
  EXPECT_EQ(candidatesOf(kCrc32 + "  f", listNamed("xxh64")), only("crc32"));
  // Unlike -a, a suffix that does not fit never makes a line improper.
  EXPECT_TRUE(isImproper("c103d73  f"));
  EXPECT_TRUE(candidatesOf("c103d73  f", listNamed("md5")).empty());
}

TEST(ChecksumListParser, ForcedAlgorithmGoesBeforeTheListSuffix) {
  EXPECT_EQ(
      candidatesOf(kMd5 + "  f", {.forced = algorithm("md5"), .listSuffix = algorithm("xxh128")}),
      only("md5"));
  EXPECT_EQ(
      candidatesOf(kXxh64 + "  f", {.forced = algorithm("xxh64"), .listSuffix = algorithm("xxh3")}),
      only("xxh64"));
  // A forced algorithm that does not fit makes the line improper, whatever the suffix.
  EXPECT_TRUE(std::holds_alternative<ImproperLine>(parseChecksumLine(
      kMd5 + "  f", {.forced = algorithm("sha256"), .listSuffix = algorithm("md5")})));
}

TEST(ChecksumListParser, ListSuffixIsTakenFromTheEndOfTheNameInAnyCase) {
  EXPECT_EQ(listSuffixAlgorithm("list.md5"), algorithm("md5"));
  EXPECT_EQ(listSuffixAlgorithm("dir/sums.MD5"), algorithm("md5"));
  EXPECT_EQ(listSuffixAlgorithm("card.xxh128"), algorithm("xxh128"));
  EXPECT_EQ(listSuffixAlgorithm("card.XXH3"), algorithm("xxh3"));
  EXPECT_EQ(listSuffixAlgorithm("card.Xxh64"), algorithm("xxh64"));
  EXPECT_EQ(listSuffixAlgorithm("list"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm("list.md5sum"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm("list.md5.txt"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm("list.sha256"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm("list.xxh32"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm("sums.md5/list"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm("md5"), nullptr);
  EXPECT_EQ(listSuffixAlgorithm(""), nullptr);
}

TEST(ChecksumListParser, ShortCrc32IsReadOnlyWhereTheAlgorithmIsKnown) {
  // Leading zeros of CRC-32 checksums are not printed, so "c103d73" is a whole checksum.
  EXPECT_TRUE(isImproper("c103d73  f"));
  const auto forced = entryOf("c103d73  f", algorithm("crc32"));
  ASSERT_TRUE(forced.has_value());
  EXPECT_EQ(forced->candidates, only("crc32"));
  EXPECT_EQ(forced->checksum, "c103d73");
  EXPECT_EQ(entryOf("0  f", algorithm("crc32"))->checksum, "0");
  EXPECT_EQ(entryOf("CRC32 (f) = C103D73")->checksum, "c103d73");
  EXPECT_TRUE(isImproper("CRC32 (f) = 1d202d277"));
  EXPECT_TRUE(isImproper("1d202d277  f", algorithm("crc32")));
}

TEST(ChecksumListParser, C4IdMustBeBase58AfterItsPrefix) {
  std::string withZero = kC4;
  withZero[10] = '0';
  EXPECT_TRUE(isImproper(withZero + "  f"));
  EXPECT_TRUE(isImproper("C4 (f) = " + withZero));
  std::string withCapitalPrefix = kC4;
  withCapitalPrefix[0] = 'C';
  EXPECT_TRUE(isImproper(withCapitalPrefix + "  f"));
  // Case matters in base 58: the ID is kept as written.
  EXPECT_EQ(entryOf("C4 (f) = " + kC4)->checksum, kC4);
}

TEST(ChecksumListParser, MalformedLinesAreImproper) {
  EXPECT_TRUE(isImproper(kMd5 + " "));     // no name
  EXPECT_TRUE(isImproper(kMd5 + "\t"));    // no name
  EXPECT_TRUE(isImproper(kMd5));           // nothing after the checksum
  EXPECT_TRUE(isImproper(kMd5 + "0  f"));  // 33 digits
  EXPECT_TRUE(isImproper(kMd5 + "*f"));    // no blank after the checksum
  std::string notHex = kMd5;
  notHex[0] = 'g';
  EXPECT_TRUE(isImproper(notHex + "  f"));
  EXPECT_TRUE(isImproper("abc  f"));                   // no algorithm has 3 digits
  EXPECT_TRUE(isImproper("sha256 (f) = " + kSha256));  // tags are upper case
  EXPECT_TRUE(isImproper("SHA384 (f) = " + kSha256));  // unknown tag
  EXPECT_TRUE(isImproper("junk"));
  EXPECT_TRUE(isImproper(kMd5 + std::string("  nul\0byte", 10)));
}

// --- blanks, as sha256sum -c reads them (coreutils 9.1) -------------------------------------

TEST(ChecksumListParser, OneSpaceOrTabMaySeparateChecksumAndName) {
  EXPECT_EQ(pathOf(kMd5 + " f"), "f");
  EXPECT_EQ(pathOf(kMd5 + "\tf"), "f");
  EXPECT_EQ(pathOf(kSha256 + " some file.txt"), "some file.txt");
  const auto tab = entryOf(kSha256 + "\tf");
  ASSERT_TRUE(tab.has_value());
  EXPECT_EQ(tab->candidates, only("sha256"));
  EXPECT_EQ(tab->checksum, kSha256);
  EXPECT_EQ(candidatesOf(kXxh64 + "\tf", {.forced = algorithm("xxh3")}), only("xxh3"));
  EXPECT_EQ(pathOf(kMd5 + " f\r"), "f");
  EXPECT_EQ(pathOf(kMd5 + "\tf\r"), "f");
}

TEST(ChecksumListParser, TextOrBinaryMarkMayFollowATab) {
  EXPECT_EQ(pathOf(kMd5 + "\t f"), "f");
  EXPECT_EQ(pathOf(kMd5 + "\t*f"), "f");
}

TEST(ChecksumListParser, BlankAfterTheSeparatorThatIsNoMarkBelongsToTheName) {
  EXPECT_EQ(pathOf(kMd5 + " \tf"), "\tf");
  EXPECT_EQ(pathOf(kMd5 + "\t\tf"), "\tf");
  EXPECT_EQ(pathOf(kMd5 + "  \tf"), "\tf");
}

TEST(ChecksumListParser, LeadingBlanksAreSkipped) {
  for (const std::string blanks : {" ", "  ", "\t", "\t ", " \t \t"}) {
    SCOPED_TRACE(testing::PrintToString(blanks));
    EXPECT_EQ(pathOf(blanks + kMd5 + "  f"), "f");
    EXPECT_EQ(pathOf(blanks + kMd5 + " *f"), "f");
    EXPECT_EQ(pathOf(blanks + kMd5 + " f"), "f");
    EXPECT_EQ(pathOf(blanks + kMd5 + "\tf"), "f");
    EXPECT_EQ(pathOf(blanks + "SHA256 (f) = " + kSha256), "f");
    EXPECT_EQ(pathOf(blanks + "\\" + kMd5 + "  a\\\\b"), "a\\b");
    EXPECT_EQ(pathOf(blanks + "\\SHA1 (a\\nb) = " + kSha1), "a\nb");
  }
}

TEST(ChecksumListParser, BlanksAfterTheEscapeMarkAreNotSkipped) {
  EXPECT_TRUE(isImproper("\\ " + kMd5 + "  f"));
  EXPECT_TRUE(isImproper("\\\t" + kMd5 + "  f"));
  EXPECT_TRUE(isImproper("\\ SHA1 (f) = " + kSha1));
}

TEST(ChecksumListParser, CommentsStartAtTheFirstByteOnly) {
  EXPECT_TRUE(isImproper(" # comment"));
  EXPECT_TRUE(isImproper("\t#"));
  EXPECT_TRUE(isImproper("\\# comment"));
  EXPECT_TRUE(isImproper(" "));
  EXPECT_TRUE(isImproper("\t\r"));
}

TEST(ChecksumListParser, OtherWhiteSpaceIsNoBlank) {
  EXPECT_TRUE(isImproper("\v" + kMd5 + "  f"));
  EXPECT_TRUE(isImproper("\f" + kMd5 + "  f"));
  EXPECT_TRUE(isImproper(kMd5 + "\vf"));
  EXPECT_TRUE(isImproper(kMd5 + "\r f"));
}

// "<checksum>   a" is the two-space form of " a", never the one-space form of "  a".
TEST(ChecksumListParser, TwoSpaceFormWinsForNamesBeginningWithASpaceOrStar) {
  EXPECT_EQ(pathOf(kMd5 + "   a"), " a");
  EXPECT_EQ(pathOf(kMd5 + "    a"), "  a");
  EXPECT_EQ(pathOf(kMd5 + "  *a"), "*a");
  EXPECT_EQ(pathOf(kMd5 + " **a"), "*a");
  EXPECT_EQ(pathOf(kMd5 + " * a"), " a");
  EXPECT_EQ(pathOf(kMd5 + "\t  a"), " a");
  EXPECT_EQ(pathOf(kMd5 + "  a "), "a ");
  EXPECT_EQ(pathOf(kMd5 + " a "), "a ");
  EXPECT_EQ(pathOf(kMd5 + "  a\t"), "a\t");
}

// A single byte after the separator cannot be a mark followed by a name: it is the name.
TEST(ChecksumListParser, SingleByteAfterTheSeparatorIsTheName) {
  EXPECT_EQ(pathOf(kMd5 + "  "), " ");
  EXPECT_EQ(pathOf(kMd5 + " *"), "*");
  EXPECT_EQ(pathOf(kMd5 + "\t "), " ");
  EXPECT_EQ(pathOf(kMd5 + "\t\t"), "\t");
  EXPECT_EQ(pathOf(kMd5 + "   "), " ");
  EXPECT_EQ(pathOf(kMd5 + " **"), "*");
}

TEST(ChecksumListParser, EscapedLinesTakeEverySeparator) {
  EXPECT_EQ(pathOf("\\" + kMd5 + " a\\\\b"), "a\\b");
  EXPECT_EQ(pathOf("\\" + kMd5 + "\ta\\nb"), "a\nb");
  EXPECT_EQ(pathOf("\\" + kMd5 + "\t *a\\rb"), "*a\rb");
  EXPECT_EQ(pathOf("\\" + kMd5 + " *\\\\"), "\\");
  EXPECT_EQ(pathOf("\\" + kMd5 + "   a"), " a");
  EXPECT_TRUE(isImproper("\\" + kMd5 + " a\\tb"));
}

TEST(ChecksumListParser, TagLineTakesBlanksAroundTheEqualsSign) {
  for (const std::string middle : {") = ", ")= ", ") =", ")=", ")   =   ", ")\t=\t", ") \t= \t"}) {
    SCOPED_TRACE(testing::PrintToString(middle));
    const auto entry = entryOf("SHA256 (f" + middle + kSha256);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->path, "f");
    EXPECT_EQ(entry->checksum, kSha256);
  }
}

TEST(ChecksumListParser, TagMayTouchTheParenthesis) {
  EXPECT_EQ(pathOf("SHA256(f) = " + kSha256), "f");
  EXPECT_EQ(candidatesOf("XXH64(f)=" + kXxh64), only("xxh64"));
  EXPECT_EQ(pathOf("\\MD5(a\\\\b) = " + kMd5), "a\\b");
}

TEST(ChecksumListParser, TagLineNameRunsToTheLastParenthesis) {
  EXPECT_EQ(pathOf("SHA256 ( f) = " + kSha256), " f");
  EXPECT_EQ(pathOf("SHA256 (  f) = " + kSha256), "  f");
  EXPECT_EQ(pathOf("SHA256 (f ) = " + kSha256), "f ");
  EXPECT_EQ(pathOf("SHA256 (\tf\t) = " + kSha256), "\tf\t");
  EXPECT_EQ(pathOf("SHA256 (a) x) = " + kSha256), "a) x");
  EXPECT_EQ(pathOf("SHA256 (a)(b) = " + kSha256), "a)(b");
}

// sha256sum -c takes such a line and then fails to open "".
TEST(ChecksumListParser, TagLineMayHaveAnEmptyName) {
  const auto entry = entryOf("SHA256 () = " + kSha256);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->path, "");
  EXPECT_EQ(entry->candidates, only("sha256"));
}

TEST(ChecksumListParser, MalformedTagLinesStayImproper) {
  EXPECT_TRUE(isImproper("SHA256  (f) = " + kSha256));  // two spaces after the tag
  EXPECT_TRUE(isImproper("SHA256\t(f) = " + kSha256));  // tab after the tag
  EXPECT_TRUE(isImproper("SHA256 (f) = " + kSha256 + " "));
  EXPECT_TRUE(isImproper("SHA256 (f) = " + kSha256 + "\t"));
  EXPECT_TRUE(isImproper("SHA256 (f) = = " + kSha256));
  EXPECT_TRUE(isImproper("SHA256 (f) x = " + kSha256));
  EXPECT_TRUE(isImproper("SHA256 (f = " + kSha256));
  EXPECT_TRUE(isImproper("SHA256 f) = " + kSha256));
  EXPECT_TRUE(isImproper("SHA256 (f) = " + kSha256 + ")"));
  EXPECT_TRUE(isImproper("SHA256 (f) " + kSha256));
  EXPECT_TRUE(isImproper("SHA256x (f) = " + kSha256));
  EXPECT_TRUE(isImproper("SHA256 (f) = " + kSha256.substr(1)));
  EXPECT_TRUE(isImproper("SHA256 (f)\v= " + kSha256));
  EXPECT_TRUE(isImproper(std::string("SHA256 (f\0) = ", 14) + kSha256));
}

// --- the form of the GNU lines of a run ----------------------------------------------------

// Parses `lines` in order as one run, giving the path of each entry ("<not an entry>" for the
// others).
std::vector<std::string> pathsOfRun(const std::vector<std::string>& lines,
                                    GnuLineForm* form = nullptr) {
  GnuLineForm own = GnuLineForm::kUndecided;
  if (form == nullptr) form = &own;
  std::vector<std::string> paths;
  for (const std::string& line : lines) {
    auto parsed = parseChecksumLine(line, {}, form);
    auto* entry = std::get_if<ChecksumListEntry>(&parsed);
    paths.push_back(entry != nullptr ? entry->path : "<not an entry>");
  }
  return paths;
}

using Paths = std::vector<std::string>;
const std::string kNoEntry = "<not an entry>";

TEST(ChecksumListParser, FirstProperGnuLineDecidesTheFormOfTheRun) {
  GnuLineForm form = GnuLineForm::kUndecided;
  pathsOfRun({kMd5 + "  a"}, &form);
  EXPECT_EQ(form, GnuLineForm::kMarked);
  form = GnuLineForm::kUndecided;
  pathsOfRun({kMd5 + " a"}, &form);
  EXPECT_EQ(form, GnuLineForm::kUnmarked);
  form = GnuLineForm::kUndecided;
  pathsOfRun({kMd5 + "\t*a"}, &form);
  EXPECT_EQ(form, GnuLineForm::kMarked);
  form = GnuLineForm::kUndecided;
  pathsOfRun({kMd5 + " *"}, &form);
  EXPECT_EQ(form, GnuLineForm::kUnmarked);
}

TEST(ChecksumListParser, UnmarkedLinesAfterAMarkedOneAreImproper) {
  EXPECT_EQ(pathsOfRun({kMd5 + "  a", kMd5 + " b", kMd5 + "\tc", kMd5 + " *", kMd5 + "  ",
                        kMd5 + " *d", kMd5 + "\t e"}),
            Paths({"a", kNoEntry, kNoEntry, kNoEntry, kNoEntry, "d", "e"}));
}

// After an unmarked line a leading ' ' or '*' is part of the name: in such a list "<checksum>  a"
// names " a", as the single-blank writer meant.
TEST(ChecksumListParser, AfterAnUnmarkedLineMarksBelongToTheName) {
  EXPECT_EQ(pathsOfRun({kMd5 + " a", kMd5 + "  b", kMd5 + " *c", kMd5 + "\t d", kMd5 + "\t*e",
                        kMd5 + "   f", kMd5 + " g"}),
            Paths({"a", " b", "*c", " d", "*e", "  f", "g"}));
  EXPECT_EQ(pathsOfRun({kMd5 + "\ta", kMd5 + " * b"}), Paths({"a", "* b"}));
}

// The first line cannot tell a name beginning with a blank from a mark: it is read marked.
TEST(ChecksumListParser, UnmarkedListWhoseFirstNameBeginsWithASpaceIsReadMarked) {
  EXPECT_EQ(pathsOfRun({kMd5 + "  a", kMd5 + " b"}), Paths({"a", kNoEntry}));
}

TEST(ChecksumListParser, TagCommentAndImproperLinesLeaveTheFormOpen) {
  GnuLineForm form = GnuLineForm::kUndecided;
  EXPECT_EQ(pathsOfRun({"# " + kMd5 + "  a", "", "MD5 (t) = " + kMd5, "junk", kMd5 + "0  x",
                        "abc  x", "\\ " + kMd5 + "  x"},
                       &form),
            Paths({kNoEntry, kNoEntry, "t", kNoEntry, kNoEntry, kNoEntry, kNoEntry}));
  EXPECT_EQ(form, GnuLineForm::kUndecided);
  EXPECT_EQ(pathsOfRun({"MD5 (t) = " + kMd5, kMd5 + " b", kMd5 + "  c"}), Paths({"t", "b", " c"}));
}

// A line with a proper checksum decides even when its escaped name is then found improper.
TEST(ChecksumListParser, GnuLineWithABadEscapeStillDecidesTheForm) {
  EXPECT_EQ(pathsOfRun({"\\" + kMd5 + "  a\\q", kMd5 + " b"}), Paths({kNoEntry, kNoEntry}));
  EXPECT_EQ(pathsOfRun({"\\" + kMd5 + " a\\q", kMd5 + "  b"}), Paths({kNoEntry, " b"}));
}

// A forced algorithm that the checksum does not fit makes the line improper before the form.
TEST(ChecksumListParser, LineWhoseChecksumDoesNotFitLeavesTheFormOpen) {
  GnuLineForm form = GnuLineForm::kUndecided;
  EXPECT_TRUE(std::holds_alternative<ImproperLine>(
      parseChecksumLine(kMd5 + "  a", {.forced = algorithm("sha256")}, &form)));
  EXPECT_EQ(form, GnuLineForm::kUndecided);
}

TEST(ChecksumListParser, WithoutAFormEveryLineIsReadAsTheFirstOfItsRun) {
  EXPECT_EQ(pathOf(kMd5 + " a"), "a");
  EXPECT_EQ(pathOf(kMd5 + "  b"), "b");
  EXPECT_EQ(pathOf(kMd5 + " c"), "c");
  GnuLineForm marked = GnuLineForm::kMarked;
  EXPECT_TRUE(std::holds_alternative<ImproperLine>(parseChecksumLine(kMd5 + " c", {}, &marked)));
  GnuLineForm unmarked = GnuLineForm::kUnmarked;
  const auto parsed = parseChecksumLine(kMd5 + "  d", {}, &unmarked);
  ASSERT_TRUE(std::holds_alternative<ChecksumListEntry>(parsed));
  EXPECT_EQ(std::get<ChecksumListEntry>(parsed).path, " d");
}

TEST(ChecksumListParser, HexChecksumsMatchWithoutRegardToCase) {
  const AlgorithmName& md5 = *algorithm("md5");
  EXPECT_TRUE(checksumsMatch(md5, kMd5, kMd5));
  EXPECT_TRUE(checksumsMatch(md5, "D41D8CD98F00B204E9800998ECF8427E", kMd5));
  EXPECT_FALSE(checksumsMatch(md5, kMd5, "d41d8cd98f00b204e9800998ecf8427f"));
  EXPECT_FALSE(checksumsMatch(md5, kMd5, kMd5.substr(1)));
}

TEST(ChecksumListParser, Crc32ChecksumsMatchAsNumbers) {
  const AlgorithmName& crc32 = *algorithm("crc32");
  EXPECT_TRUE(checksumsMatch(crc32, "0c103d73", "c103d73"));
  EXPECT_TRUE(checksumsMatch(crc32, "c103d73", "c103d73"));
  EXPECT_TRUE(checksumsMatch(crc32, "00000000", "0"));
  EXPECT_TRUE(checksumsMatch(crc32, "0", "0"));
  EXPECT_FALSE(checksumsMatch(crc32, "c103d730", "c103d73"));
  EXPECT_FALSE(checksumsMatch(crc32, "1", "0"));
}

TEST(ChecksumListParser, C4IdsMatchOnlyExactly) {
  const AlgorithmName& c4 = *algorithm("c4");
  EXPECT_TRUE(checksumsMatch(c4, kC4, kC4));
  std::string otherCase = kC4;
  otherCase[4] = 'D';  // 'd' in kC4
  EXPECT_FALSE(checksumsMatch(c4, otherCase, kC4));
}

}  // namespace
