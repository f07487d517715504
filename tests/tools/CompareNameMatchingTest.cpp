// Runs `corvane-checksum compare` on trees whose names differ only in Unicode normalisation or in
// case, as copies made through macOS or exFAT volumes come back, and on names that are not UTF-8:
// such pairs are one entry under both names, compared like any pair; names that a --match-names
// mode merges on one side are collisions. The expected reports are written out by hand from the
// bytes of the names (the NFC and NFD spellings are checked against Python's unicodedata in
// NameMatchingTest.cpp).
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::bytesOf;
using corvane::testsupport::RunResult;
using corvane::testsupport::runTool;
using corvane::testsupport::ScratchDirectory;

// Relative path -> content.
using Tree = std::map<std::string, std::string>;

// "café.txt" decomposed (as macOS writes it) and composed, and how the reports show them.
const std::string kDecomposed = "cafe\xcc\x81.txt";
const std::string kComposed = "caf\xc3\xa9.txt";
const std::string kDecomposedVisible = "cafe\\u0301.txt";
const std::string kComposedVisible = "caf\\u00e9.txt";

std::string summaryLine(std::size_t files, std::size_t matched, std::size_t missing,
                        std::size_t added, std::size_t sizeDiffers, std::size_t checksumDiffers,
                        std::size_t unreadable, std::size_t namesDiffer = 0,
                        std::size_t collisions = 0) {
  std::string line = "compared " + std::to_string(files) + " files: " + std::to_string(matched) +
                     " matched, " + std::to_string(missing) + " missing, " + std::to_string(added) +
                     " new, " + std::to_string(sizeDiffers) + " size differs, " +
                     std::to_string(checksumDiffers) + " checksum differs, " +
                     std::to_string(unreadable) + " unreadable";
  if (namesDiffer != 0) line += ", " + std::to_string(namesDiffer) + " names differ";
  if (collisions != 0) line += ", " + std::to_string(collisions) + " name collisions";
  return line + "\n";
}

std::string xxh64(const std::string& content) {
  return corvane::testsupport::xxHash64Reference(bytesOf(content));
}

std::string hexOf(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    hex += kDigits[static_cast<unsigned char>(c) >> 4];
    hex += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return hex;
}

class CompareNameMatching : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_TOOL();
    fs::create_directories(source());
    fs::create_directories(destination());
  }

  std::string source() const { return scratch_.file("src"); }
  std::string destination() const { return scratch_.file("dst"); }

  // Writes both trees, replacing whatever the folders held.
  void write(const Tree& sourceTree, const Tree& destinationTree) const {
    for (const std::string& root : {source(), destination()}) {
      fs::remove_all(root);
      fs::create_directories(root);
    }
    for (const auto& [path, content] : sourceTree) scratch_.writeText("src/" + path, content);
    for (const auto& [path, content] : destinationTree) scratch_.writeText("dst/" + path, content);
  }

  // compare [options...] SRC DST
  RunResult compare(std::vector<std::string> options) const {
    options.insert(options.begin(), "compare");
    options.push_back(source());
    options.push_back(destination());
    return runTool(options);
  }

  ScratchDirectory scratch_;
};

// ----- names that differ only in Unicode normalisation ------------------------------------------

TEST_F(CompareNameMatching, NormalisationOnlyDifferenceIsOneEntryThatExitsThree) {
  write({{kDecomposed, "same content"}, {"plain", "p"}},
        {{kComposed, "same content"}, {"plain", "p"}});
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out, "names differ only in Unicode normalisation: " + kDecomposedVisible +
                         " != " + kComposedVisible + "\n" + summaryLine(2, 2, 0, 0, 0, 0, 0, 1));
  EXPECT_EQ(run.err, "");

  const RunResult verbose = compare({"-v"});
  EXPECT_EQ(verbose.status, 3) << verbose.err;
  EXPECT_EQ(verbose.out, "names differ only in Unicode normalisation: " + kDecomposedVisible +
                             " != " + kComposedVisible + "\nok: " + kDecomposed + "\nok: plain\n" +
                             summaryLine(2, 2, 0, 0, 0, 0, 0, 1));
  // The same default spelled out.
  EXPECT_EQ(compare({"--match-names", "exact"}).out, run.out);
}

TEST_F(CompareNameMatching, NormalisationPairWithOtherContentsIsComparedAndExitsOne) {
  write({{kDecomposed, "same"}}, {{kComposed, "sane"}});
  RunResult run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  const std::string namesLine =
      "names differ only in Unicode normalisation: " + kDecomposedVisible +
      " != " + kComposedVisible + "\n";
  EXPECT_EQ(run.out, namesLine + "checksum differs: " + kDecomposed + " (XXH64 " + xxh64("same") +
                         " != " + xxh64("sane") + ")\n" + summaryLine(1, 0, 0, 0, 0, 1, 0, 1));
  EXPECT_EQ(run.err, "");

  write({{kDecomposed, "same"}}, {{kComposed, "same!"}});
  run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out, namesLine + "size differs: " + kDecomposed + " (4 != 5 bytes)\n" +
                         summaryLine(1, 0, 0, 0, 1, 0, 0, 1));
}

TEST_F(CompareNameMatching, MatchNamesNfcAcceptsNormalisationVariants) {
  write({{kDecomposed, "same content"}, {"plain", "p"}},
        {{kComposed, "same content"}, {"plain", "p"}});
  const RunResult run = compare({"--match-names", "nfc"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, summaryLine(2, 2, 0, 0, 0, 0, 0, 1));
  EXPECT_EQ(run.err, "");

  // Still shown with -v.
  const RunResult verbose = compare({"--match-names", "nfc", "-v"});
  EXPECT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_EQ(verbose.out, "names differ only in Unicode normalisation: " + kDecomposedVisible +
                             " != " + kComposedVisible + "\nok: " + kDecomposed + "\nok: plain\n" +
                             summaryLine(2, 2, 0, 0, 0, 0, 0, 1));

  // Contents are still compared, and a difference names both spellings.
  write({{kDecomposed, "same"}}, {{kComposed, "sane"}});
  const RunResult changed = compare({"--match-names", "nfc"});
  EXPECT_EQ(changed.status, 1) << changed.err;
  EXPECT_EQ(changed.out, "names differ only in Unicode normalisation: " + kDecomposedVisible +
                             " != " + kComposedVisible + "\nchecksum differs: " + kDecomposed +
                             " (XXH64 " + xxh64("same") + " != " + xxh64("sane") + ")\n" +
                             summaryLine(1, 0, 0, 0, 0, 1, 0, 1));
}

TEST_F(CompareNameMatching, FoldersWhoseNamesDifferInNormalisationPairTheirFiles) {
  const std::string decomposedFolder =
      "Mu\xcc\x88"
      "nchen";  // München, decomposed
  const std::string composedFolder =
      "M\xc3\xbc"
      "nchen";
  write({{decomposedFolder + "/a.jpg", "a"}, {decomposedFolder + "/b.jpg", "bb"}},
        {{composedFolder + "/a.jpg", "a"}, {composedFolder + "/b.jpg", "bb"}});
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out,
            "names differ only in Unicode normalisation: Mu\\u0308nchen/a.jpg != "
            "M\\u00fcnchen/a.jpg\n"
            "names differ only in Unicode normalisation: Mu\\u0308nchen/b.jpg != "
            "M\\u00fcnchen/b.jpg\n" +
                summaryLine(2, 2, 0, 0, 0, 0, 0, 2));
  const RunResult nfc = compare({"--match-names", "nfc"});
  EXPECT_EQ(nfc.status, 0) << nfc.err;
  EXPECT_EQ(nfc.out, summaryLine(2, 2, 0, 0, 0, 0, 0, 2));
}

// ----- names that differ in case ----------------------------------------------------------------

TEST_F(CompareNameMatching, CaseOnlyDifferenceIsReportedUnlessCaseIsIgnored) {
  write({{"Report.TXT", "r"}, {"same", "s"}}, {{"report.txt", "r"}, {"same", "s"}});
  const std::string namesLine = "names differ only in case: Report.TXT != report.txt\n";
  for (const std::string mode : {"exact", "nfc"}) {
    SCOPED_TRACE(mode);
    const RunResult run = compare({"--match-names", mode});
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_EQ(run.out, namesLine + summaryLine(2, 2, 0, 0, 0, 0, 0, 1));
    EXPECT_EQ(run.err, "");
  }
  RunResult run = compare({"--match-names", "case-insensitive"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, summaryLine(2, 2, 0, 0, 0, 0, 0, 1));
  run = compare({"--match-names", "case-insensitive", "-v"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            namesLine + "ok: Report.TXT\nok: same\n" + summaryLine(2, 2, 0, 0, 0, 0, 0, 1));
}

TEST_F(CompareNameMatching, CaseAndNormalisationDifferenceIsNamedAsBoth) {
  // "École" with a decomposed capital against "école" composed.
  write({{"E\xcc\x81"
          "cole",
          "x"}},
        {{"\xc3\xa9"
          "cole",
          "x"}});
  const std::string namesLine =
      "names differ in case and Unicode normalisation: E\\u0301cole != \\u00e9cole\n";
  for (const std::string mode : {"exact", "nfc"}) {
    SCOPED_TRACE(mode);
    const RunResult run = compare({"--match-names", mode});
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_EQ(run.out, namesLine + summaryLine(1, 1, 0, 0, 0, 0, 0, 1));
  }
  const RunResult run = compare({"--match-names", "case-insensitive", "-v"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, namesLine +
                         "ok: E\xcc\x81"
                         "cole\n" +
                         summaryLine(1, 1, 0, 0, 0, 0, 0, 1));
}

// ----- collisions -------------------------------------------------------------------------------

TEST_F(CompareNameMatching, SourceCollisionIsReportedAgainstAnyCopyAndExitsOne) {
  write({{"A.txt", "upper"}, {"a.txt", "lower"}, {"b", "b"}}, {{"a.txt", "lower"}, {"b", "b"}});
  RunResult run = compare({"--match-names", "case-insensitive"});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out,
            "name collision: A.txt (source)\n"
            "name collision: a.txt (source)\n"
            "name collision: a.txt (destination)\n" +
                summaryLine(4, 1, 0, 0, 0, 0, 0, 0, 3));
  EXPECT_EQ(run.err, "");

  // Exact names need no guess: the copy lacks A.txt.
  run = compare({});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out, "missing: A.txt\n" + summaryLine(3, 2, 1, 0, 0, 0, 0));

  // Against an empty copy.
  write({{"A.txt", "upper"}, {"a.txt", "lower"}, {"b", "b"}}, {});
  run = compare({"--match-names", "case-insensitive"});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out,
            "name collision: A.txt (source)\n"
            "name collision: a.txt (source)\n"
            "missing: b\n" +
                summaryLine(3, 0, 1, 0, 0, 0, 0, 0, 2));

  // Both spellings of one name under NFC.
  write({{kDecomposed, "1"}, {kComposed, "2"}}, {{kComposed, "2"}});
  run = compare({"--match-names", "nfc"});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out, "name collision: " + kDecomposedVisible + " (source)\nname collision: " +
                         kComposedVisible + " (source)\nname collision: " + kComposedVisible +
                         " (destination)\n" + summaryLine(3, 0, 0, 0, 0, 0, 0, 0, 3));
}

TEST_F(CompareNameMatching, DestinationCollisionIsReportedAndExitsOne) {
  write({{"notes.txt", "n"}}, {{"notes.txt", "n"}, {"NOTES.txt", "n"}});
  RunResult run = compare({"--match-names", "case-insensitive"});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out,
            "name collision: NOTES.txt (destination)\n"
            "name collision: notes.txt (source)\n"
            "name collision: notes.txt (destination)\n" +
                summaryLine(3, 0, 0, 0, 0, 0, 0, 0, 3));
  run = compare({});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out, "new: NOTES.txt\n" + summaryLine(2, 1, 0, 1, 0, 0, 0));
}

TEST_F(CompareNameMatching, AmbiguousNearMatchInExactModeIsACollisionNotAGuess) {
  write({{"FOO", "1"}, {"Foo", "2"}}, {{"foo", "1"}});
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out,
            "name collision: FOO (source)\n"
            "name collision: Foo (source)\n"
            "name collision: foo (destination)\n" +
                summaryLine(3, 0, 0, 0, 0, 0, 0, 0, 3));
}

TEST_F(CompareNameMatching, OrdinaryTreesReportTheSameInEveryMode) {
  write({{"a", "1"}, {"b/c", "2"}, {"gone", "3"}, {"\xc3\xa9t\xc3\xa9", "4"}},
        {{"a", "1"}, {"b/c", "X"}, {"added", "5"}, {"\xc3\xa9t\xc3\xa9", "4"}});
  const RunResult exact = compare({"-v"});
  EXPECT_EQ(exact.status, 1);
  EXPECT_EQ(exact.out, "ok: a\nnew: added\nchecksum differs: b/c (XXH64 " + xxh64("2") +
                           " != " + xxh64("X") + ")\nmissing: gone\nok: \xc3\xa9t\xc3\xa9\n" +
                           summaryLine(5, 2, 1, 1, 0, 1, 0));
  for (const std::string mode : {"nfc", "case-insensitive"}) {
    SCOPED_TRACE(mode);
    const RunResult run = compare({"-v", "--match-names", mode});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, exact.out);
    const auto json = nlohmann::json::parse(compare({"--json", "--match-names", mode}).out);
    EXPECT_EQ(json["matchNames"], mode);
    EXPECT_EQ(json["totals"]["namesDiffer"], 0);
    EXPECT_EQ(json["totals"]["nameCollisions"], 0);
  }
}

// ----- JSON -------------------------------------------------------------------------------------

TEST_F(CompareNameMatching, JsonShowsBothNamesAndHowTheyDiffer) {
  write({{kDecomposed, "same"}, {"Report.TXT", "r"}, {"gone", "g"}},
        {{kComposed, "same"}, {"report.txt", "r"}});
  const RunResult run = compare({"--json"});
  EXPECT_EQ(run.status, 3) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["matchNames"], "exact");
  const auto& files = json["files"];
  ASSERT_EQ(files.size(), 3U) << run.out;
  // In byte order of the source's names.
  EXPECT_EQ(files[0]["path"], "Report.TXT");
  EXPECT_EQ(files[0]["destinationPath"], "report.txt");
  EXPECT_EQ(files[0]["nameDifference"], "case");
  EXPECT_EQ(files[0]["status"], "ok");
  EXPECT_EQ(files[0]["sourceSize"], 1);
  EXPECT_EQ(files[0]["destinationSize"], 1);
  EXPECT_EQ(files[0]["sourceChecksums"], nlohmann::json({{"xxh64", xxh64("r")}}));
  EXPECT_EQ(files[0]["destinationChecksums"], nlohmann::json({{"xxh64", xxh64("r")}}));

  EXPECT_EQ(files[1]["path"], kDecomposed);
  EXPECT_EQ(files[1]["destinationPath"], kComposed);
  EXPECT_EQ(files[1]["nameDifference"], "normalisation");
  EXPECT_EQ(files[1]["status"], "ok");
  EXPECT_FALSE(files[1].contains("pathHex"));

  EXPECT_EQ(files[2]["path"], "gone");
  EXPECT_EQ(files[2]["status"], "missing");
  EXPECT_FALSE(files[2].contains("destinationPath"));
  EXPECT_FALSE(files[2].contains("nameDifference"));

  EXPECT_EQ(json["totals"], nlohmann::json({{"compared", 3},
                                            {"ok", 2},
                                            {"missing", 1},
                                            {"new", 0},
                                            {"sizeDiffers", 0},
                                            {"checksumDiffers", 0},
                                            {"unreadable", 0},
                                            {"namesDiffer", 2},
                                            {"nameCollisions", 0}, {"missingFolders", 0}, {"newFolders", 0}, {"typeDiffers", 0}}));
}

TEST_F(CompareNameMatching, JsonReportsCollisionsWithTheirSide) {
  write({{"A.txt", "upper"}, {"a.txt", "lower"}}, {{"a.txt", "lower"}});
  const RunResult run = compare({"--json", "--match-names", "case-insensitive"});
  EXPECT_EQ(run.status, 1) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["matchNames"], "case-insensitive");
  const auto& files = json["files"];
  ASSERT_EQ(files.size(), 3U) << run.out;
  EXPECT_EQ(files[0], nlohmann::json({{"path", "A.txt"},
                                      {"status", "name collision"},
                                      {"side", "source"},
                                      {"sourceSize", 5}}));
  EXPECT_EQ(files[1], nlohmann::json({{"path", "a.txt"},
                                      {"status", "name collision"},
                                      {"side", "source"},
                                      {"sourceSize", 5}}));
  EXPECT_EQ(files[2], nlohmann::json({{"path", "a.txt"},
                                      {"status", "name collision"},
                                      {"side", "destination"},
                                      {"destinationSize", 5}}));
  EXPECT_EQ(json["totals"]["compared"], 3);
  EXPECT_EQ(json["totals"]["nameCollisions"], 3);
  EXPECT_EQ(json["totals"]["ok"], 0);
}

TEST_F(CompareNameMatching, JsonKeepsNamesThatAreNotUtf8Apart) {
  const std::string left = scratch_.file("left\xff");
  const std::string right = scratch_.file("right");
  const std::string folder = "dir\xfe";
  for (const std::string& root : {left, right}) {
    scratch_.writeText(fs::path(root).filename().string() + "/bad\xff", "one");
    scratch_.writeText(fs::path(root).filename().string() + "/bad\xfe", "two");
  }
  scratch_.writeText("left\xff/" + folder + "/" + kDecomposed, "three");
  scratch_.writeText("right/" + folder + "/" + kComposed, "three");

  const RunResult run = runTool({"compare", "--json", left, right});
  EXPECT_EQ(run.status, 3) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  const std::string scratchPath = scratch_.path().string();
  EXPECT_EQ(json["source"], scratchPath + "/left\\xff");
  EXPECT_EQ(json["sourceHex"], hexOf(left));
  EXPECT_EQ(json["destination"], right);
  EXPECT_FALSE(json.contains("destinationHex"));

  const auto& files = json["files"];
  ASSERT_EQ(files.size(), 3U) << run.out;
  EXPECT_EQ(files[0]["path"], "bad\\xfe");
  EXPECT_EQ(files[0]["pathHex"], "626164fe");
  EXPECT_EQ(files[0]["status"], "ok");
  EXPECT_EQ(files[1]["path"], "bad\\xff");
  EXPECT_EQ(files[1]["pathHex"], "626164ff");
  EXPECT_EQ(files[1]["status"], "ok");
  // A folder whose name is not UTF-8 does not keep the names inside it from being matched.
  EXPECT_EQ(files[2]["path"], "dir\\xfe/" + kDecomposed);
  EXPECT_EQ(files[2]["pathHex"], hexOf(folder + "/" + kDecomposed));
  EXPECT_EQ(files[2]["destinationPath"], "dir\\xfe/" + kComposed);
  EXPECT_EQ(files[2]["destinationPathHex"], hexOf(folder + "/" + kComposed));
  EXPECT_EQ(files[2]["nameDifference"], "normalisation");
  EXPECT_EQ(files[2]["status"], "ok");

  const RunResult text = runTool({"compare", left, right});
  EXPECT_EQ(text.status, 3);
  EXPECT_EQ(text.out, "names differ only in Unicode normalisation: dir\\xfe/" + kDecomposedVisible +
                          " != dir\\xfe/" + kComposedVisible + "\n" +
                          summaryLine(3, 3, 0, 0, 0, 0, 0, 1));
}

// ----- parallel runs ----------------------------------------------------------------------------

TEST_F(CompareNameMatching, OneJobAndEightJobsPrintTheSame) {
  Tree original;
  Tree copy;
  for (int i = 0; i < 240; ++i) {
    std::string folder = "d";
    folder += std::to_string(i % 6) + "/";
    const std::string number = std::to_string(i);
    const std::string content(static_cast<std::size_t>(i * 37 % 1500), static_cast<char>(i));
    std::string sourceName = folder + "f" + number;
    std::string copyName = sourceName;
    if (i % 5 == 0) {  // decomposed in the source, composed in the copy
      sourceName = folder + "e\xcc\x81-" + number;
      copyName = folder + "\xc3\xa9-" + number;
    } else if (i % 7 == 0) {  // case changed in the copy
      sourceName = folder + "Upper-" + number;
      copyName = folder + "upper-" + number;
    } else if (i % 11 == 0) {  // two source names that differ only in case
      original[folder + "TWIN-" + number] = content;
      sourceName = folder + "twin-" + number;
      copyName = sourceName;
    }
    original[sourceName] = content;
    std::string copied = content;
    if (i % 13 == 0 && !copied.empty()) copied[0] ^= 1;
    if (i % 17 == 0) continue;
    copy[copyName] = copied;
  }
  write(original, copy);
  for (const std::string mode : {"exact", "nfc", "case-insensitive"}) {
    for (const std::string format : {"-v", "--json", "--no-progress"}) {
      SCOPED_TRACE(mode + " " + format);
      const RunResult serial = compare({format, "--match-names", mode, "-j", "1"});
      const RunResult parallel = compare({format, "--match-names", mode, "-j", "8"});
      EXPECT_EQ(serial.status, 1) << serial.err;
      EXPECT_EQ(parallel.status, serial.status);
      EXPECT_TRUE(serial.out == parallel.out) << "outputs of -j 1 and -j 8 differ";
      EXPECT_EQ(serial.err, parallel.err);
      if (format == "-v") {
        EXPECT_NE(serial.out.find("names differ only in Unicode normalisation: "),
                  std::string::npos);
        EXPECT_NE(serial.out.find("names differ only in case: "), std::string::npos);
      }
      if (format == "-v" && mode == "case-insensitive") {
        EXPECT_NE(serial.out.find("name collision: "), std::string::npos);
      }
    }
  }
}

// ----- usage ------------------------------------------------------------------------------------

TEST_F(CompareNameMatching, UnknownMatchNamesValueIsAUsageError) {
  write({{"a", "1"}}, {{"a", "1"}});
  for (const std::vector<std::string>& options : std::vector<std::vector<std::string>>{
           {"--match-names", "fuzzy"}, {"--match-names", ""}, {"--match-names", "nfd"}}) {
    SCOPED_TRACE(options[1]);
    const RunResult run = compare(options);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("corvane-checksum: ", 0), 0U) << run.err;
  }
  const RunResult missingValue = runTool({"compare", source(), destination(), "--match-names"});
  EXPECT_EQ(missingValue.status, 2);
  EXPECT_EQ(missingValue.out, "");

  const RunResult help = runTool({"compare", "--help"});
  EXPECT_EQ(help.status, 0);
  for (const std::string word : {"--match-names", "exact", "nfc", "case-insensitive"}) {
    EXPECT_NE(help.out.find(word), std::string::npos) << word;
  }
}

}  // namespace
