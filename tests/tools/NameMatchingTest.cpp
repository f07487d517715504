// The name keys of compare --match-names and the visible form of names, checked against names
// written out byte by byte here and against Python's unicodedata (NFC, and NFC of the full case
// folding of NFD) as an independent reference.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "NameMatching.hpp"
#include "support/ToolRunner.hpp"

namespace {

using corvane::testsupport::haveProgram;
using corvane::testsupport::runShell;
using corvane::testsupport::shellQuote;
using corvane::tool::NameDifference;
using corvane::tool::nameDifference;
using corvane::tool::nameDifferenceName;
using corvane::tool::nameKey;
using corvane::tool::NameMatching;
using corvane::tool::nameMatchingName;
using corvane::tool::parseNameMatching;
using corvane::tool::visibleName;

std::string hexOf(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    hex += kDigits[static_cast<unsigned char>(c) >> 4];
    hex += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return hex;
}

// Valid UTF-8 names of every kind the keys must handle: decomposed and composed letters, marks
// out of canonical order, singletons (Kelvin and Angstrom signs), conjoining Hangul jamo, full
// case foldings that change the length (sharp s, ligatures, Greek with ypogegrammeni, dotted
// capital I), final sigma, titlecase digraphs, and characters past the BMP.
const std::vector<std::string>& sampleNames() {
  static const std::vector<std::string> names = {
      "plain.txt",
      "cafe\xcc\x81.txt",
      "caf\xc3\xa9.txt",
      "\xc3\x89"
      "cole",
      "E\xcc\x81"
      "cole",
      "a\xcc\x81\xcc\xa3",                     // a, acute, dot below: reordered
      "\xe2\x84\xaa",                          // KELVIN SIGN
      "\xe2\x84\xab",                          // ANGSTROM SIGN
      "\xe1\x84\x92\xe1\x85\xa1\xe1\x86\xab",  // conjoining jamo of U+D55C
      "Stra\xc3\x9f"
      "e",                                                         // Straße
      "\xe1\xba\x9e",                                              // LATIN CAPITAL LETTER SHARP S
      "\xef\xac\x81le",                                            // fi ligature
      "\xe1\xbe\xb3",                                              // alpha with ypogegrammeni
      "\xc4\xb0stanbul",                                           // dotted capital I
      "\xce\xa3\xce\x99\xce\xa3\xce\xa5\xce\xa6\xce\x9f\xce\xa3",  // SISYPHOS, capitals
      "\xc7\x84"
      "ebel",  // DZ with caron
      "Ha\xcc\x88"
      "user",
      "\xf0\x9f\x98\x80 smile",  // U+1F600
      "\xf0\x90\x90\x80",        // DESERET CAPITAL LONG I
  };
  return names;
}

// Python's answer for each name: its NFC form and its caseless key, NFC(casefold(NFD(name))).
std::vector<std::pair<std::string, std::string>> pythonKeys(const std::vector<std::string>& names) {
  std::string command =
      "python3 -c 'import sys, unicodedata as u\n"
      "for h in sys.argv[1:]:\n"
      "    s = bytes.fromhex(h).decode()\n"
      "    c = u.normalize(\"NFC\", u.normalize(\"NFD\", s).casefold())\n"
      "    print(u.normalize(\"NFC\", s).encode().hex(), c.encode().hex())'";
  for (const std::string& name : names) command += " " + shellQuote(hexOf(name));
  const std::string out = runShell(command).out;
  std::vector<std::pair<std::string, std::string>> keys;
  std::size_t start = 0;
  while (start < out.size()) {
    const std::size_t end = out.find('\n', start);
    const std::string line = out.substr(start, end - start);
    const std::size_t blank = line.find(' ');
    keys.emplace_back(line.substr(0, blank), line.substr(blank + 1));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return keys;
}

TEST(NameMatching, ParsesTheThreeModesAndNothingElse) {
  EXPECT_EQ(parseNameMatching("exact"), NameMatching::kExact);
  EXPECT_EQ(parseNameMatching("nfc"), NameMatching::kNfc);
  EXPECT_EQ(parseNameMatching("NFC"), NameMatching::kNfc);
  EXPECT_EQ(parseNameMatching("case-insensitive"), NameMatching::kCaseInsensitive);
  for (const char* text : {"", "nfd", "nfkc", "case", "insensitive", "exact ", " nfc"}) {
    EXPECT_EQ(parseNameMatching(text), std::nullopt) << text;
  }
  for (const NameMatching matching :
       {NameMatching::kExact, NameMatching::kNfc, NameMatching::kCaseInsensitive}) {
    EXPECT_EQ(parseNameMatching(nameMatchingName(matching)), matching);
  }
}

TEST(NameMatching, ExactKeyIsTheBytes) {
  for (const std::string& name : sampleNames())
    EXPECT_EQ(nameKey(name, NameMatching::kExact), name);
  EXPECT_EQ(nameKey("bad\xff/x", NameMatching::kExact), "bad\xff/x");
  EXPECT_EQ(nameKey("", NameMatching::kExact), "");
}

TEST(NameMatching, KeysAgreeWithPythonUnicodedata) {
  if (!haveProgram("python3")) GTEST_SKIP() << "python3 not installed";
  const auto& names = sampleNames();
  const auto expected = pythonKeys(names);
  ASSERT_EQ(expected.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    SCOPED_TRACE(visibleName(names[i]));
    EXPECT_EQ(hexOf(nameKey(names[i], NameMatching::kNfc)), expected[i].first);
    EXPECT_EQ(hexOf(nameKey(names[i], NameMatching::kCaseInsensitive)), expected[i].second);
  }
}

TEST(NameMatching, SpellingsOfOneNameShareTheirKey) {
  const std::string decomposed = "cafe\xcc\x81.txt";
  const std::string composed = "caf\xc3\xa9.txt";
  EXPECT_NE(nameKey(decomposed, NameMatching::kExact), nameKey(composed, NameMatching::kExact));
  EXPECT_EQ(nameKey(decomposed, NameMatching::kNfc), composed);
  EXPECT_EQ(nameKey(composed, NameMatching::kNfc), composed);
  EXPECT_EQ(nameKey("CAFE\xcc\x81.TXT", NameMatching::kCaseInsensitive), composed);
  EXPECT_NE(nameKey("CAFE\xcc\x81.TXT", NameMatching::kNfc), composed);
  // Full case folding: the sharp s is "ss", the Kelvin sign a "k".
  EXPECT_EQ(nameKey("STRASSE", NameMatching::kCaseInsensitive),
            nameKey("stra\xc3\x9f"
                    "e",
                    NameMatching::kCaseInsensitive));
  EXPECT_EQ(nameKey("\xe2\x84\xaa", NameMatching::kCaseInsensitive), "k");
  EXPECT_EQ(nameKey("\xe2\x84\xaa", NameMatching::kNfc), "K");
}

TEST(NameMatching, PathsAreKeyedComponentByComponent) {
  // Normalisation never reaches across a '/': a combining mark at the start of a component stays.
  EXPECT_EQ(nameKey("e/\xcc\x81", NameMatching::kNfc), "e/\xcc\x81");
  EXPECT_EQ(nameKey("A\xcc\x8a/x/\xe2\x84\xaa", NameMatching::kNfc), "\xc3\x85/x/K");
  EXPECT_EQ(nameKey("A\xcc\x8a/X/\xe2\x84\xaa", NameMatching::kCaseInsensitive), "\xc3\xa5/x/k");
  // A component that is not UTF-8 is its own key; the others are still normalised.
  EXPECT_EQ(nameKey("Mu\xcc\x88"
                    "nchen/bad\xff/cafe\xcc\x81",
                    NameMatching::kNfc),
            "M\xc3\xbc"
            "nchen/bad\xff/caf\xc3\xa9");
  EXPECT_EQ(nameKey("BAD\xff/Cafe\xcc\x81", NameMatching::kCaseInsensitive), "BAD\xff/caf\xc3\xa9");
  // So invalid names that differ only in case stay apart.
  EXPECT_NE(nameKey("BAD\xff", NameMatching::kCaseInsensitive),
            nameKey("bad\xff", NameMatching::kCaseInsensitive));
  // Every kind of invalid sequence: a lone continuation byte, a truncated sequence, an overlong
  // form, an encoded surrogate and a code point past U+10FFFF.
  for (const std::string invalid :
       {"\x80", "\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "A\xcc\x8a\xff"}) {
    EXPECT_EQ(nameKey(invalid, NameMatching::kNfc), invalid) << visibleName(invalid);
    EXPECT_EQ(nameKey(invalid, NameMatching::kCaseInsensitive), invalid) << visibleName(invalid);
  }
  // Empty components (leading, doubled or trailing slashes) are kept.
  EXPECT_EQ(nameKey("/A//B/", NameMatching::kCaseInsensitive), "/a//b/");
}

TEST(NameMatching, DifferenceSaysNormalisationCaseOrBoth) {
  EXPECT_EQ(nameDifference("same", "same"), NameDifference::kNone);
  EXPECT_EQ(nameDifference("cafe\xcc\x81", "caf\xc3\xa9"), NameDifference::kNormalisation);
  EXPECT_EQ(nameDifference("\xe2\x84\xaa", "K"), NameDifference::kNormalisation);
  EXPECT_EQ(nameDifference("Report.TXT", "report.txt"), NameDifference::kCase);
  EXPECT_EQ(nameDifference("\xc3\x89"
                           "cole",
                           "\xc3\xa9"
                           "cole"),
            NameDifference::kCase);
  EXPECT_EQ(nameDifference("E\xcc\x81"
                           "cole",
                           "e\xcc\x81"
                           "cole"),
            NameDifference::kCase);
  EXPECT_EQ(nameDifference("E\xcc\x81"
                           "cole",
                           "\xc3\xa9"
                           "cole"),
            NameDifference::kCaseAndNormalisation);
  EXPECT_EQ(nameDifference("Dir/cafe\xcc\x81", "dir/caf\xc3\xa9"),
            NameDifference::kCaseAndNormalisation);
  EXPECT_EQ(nameDifferenceName(NameDifference::kNormalisation), "normalisation");
  EXPECT_EQ(nameDifferenceName(NameDifference::kCase), "case");
  EXPECT_EQ(nameDifferenceName(NameDifference::kCaseAndNormalisation), "case and normalisation");
}

TEST(NameMatching, VisibleNameEscapesEverythingButPrintableAscii) {
  EXPECT_EQ(visibleName("plain name/with-slash.txt"), "plain name/with-slash.txt");
  EXPECT_EQ(visibleName("cafe\xcc\x81"), "cafe\\u0301");
  EXPECT_EQ(visibleName("caf\xc3\xa9"), "caf\\u00e9");
  EXPECT_EQ(visibleName("\xef\xac\x81"), "\\ufb01");
  EXPECT_EQ(visibleName("\xf0\x9f\x98\x80!"), "\\U0001f600!");
  EXPECT_EQ(visibleName("bad\xff"), "bad\\xff");
  EXPECT_EQ(visibleName("\xc3"), "\\xc3");
  EXPECT_EQ(visibleName("\xed\xa0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(visibleName("\xc0\xaf"
                        "A"),
            "\\xc0\\xafA");
  EXPECT_EQ(visibleName("caf\xc3\xa9\xff"), "caf\\u00e9\\xff");
  EXPECT_EQ(visibleName("back\\slash"), "back\\\\slash");
  EXPECT_EQ(visibleName("tab\there\nline\rret\x01\x7f"), "tab\\there\\nline\\rret\\x01\\x7f");
  EXPECT_EQ(visibleName(""), "");
}

TEST(NameMatching, VisibleSpellingsOfOneNameDiffer) {
  // Every sample against every other differs visibly, even where the keys are equal; so do a
  // backslash escape written out and the character it stands for.
  std::vector<std::string> names = sampleNames();
  names.insert(names.end(), {"caf\\u00e9.txt", "bad\xff", "bad\\xff", "Report.TXT"});
  for (std::size_t i = 0; i < names.size(); ++i) {
    for (std::size_t j = i + 1; j < names.size(); ++j) {
      EXPECT_NE(visibleName(names[i]), visibleName(names[j]))
          << visibleName(names[i]) << " / " << visibleName(names[j]);
    }
  }
}

}  // namespace
