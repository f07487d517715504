// Runs `corvane-checksum compare` (and the shared options of `composite`) on scratch folders and
// checks its report against answers worked out here: the expected lines are built from the two
// trees written by the test, with checksums from OpenSSL and the xxHash library
// (support/References.hpp) or from the md5sum, sha256sum and xxhsum programs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::bytesOf;
using corvane::testsupport::haveProgram;
using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::runTool;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;

// ----- independent references --------------------------------------------------------------

// An algorithm as the tool names it: the -a name, the tag of its report lines, the key of its
// checksum in the library's attribute dictionaries, and a reference implementation.
struct Algorithm {
  std::string name;
  std::string tag;
  std::string attributeKey;
  std::function<std::string(const std::string&)> checksum;
};

std::string evpHex(const EVP_MD* md, const std::string& data) {
  return corvane::testsupport::hexEncode(corvane::testsupport::evpDigest(md, bytesOf(data)));
}

const std::vector<Algorithm>& algorithms() {
  static const std::vector<Algorithm> table = {
      {"md5", "MD5", "md5Checksum", [](const std::string& d) { return evpHex(EVP_md5(), d); }},
      {"sha1", "SHA1", "sha1Checksum", [](const std::string& d) { return evpHex(EVP_sha1(), d); }},
      {"sha256", "SHA256", "sha2_256Checksum",
       [](const std::string& d) { return evpHex(EVP_sha256(), d); }},
      {"sha512", "SHA512", "sha2_512Checksum",
       [](const std::string& d) { return evpHex(EVP_sha512(), d); }},
      {"crc32", "CRC32", "crc32Checksum",
       [](const std::string& d) { return corvane::testsupport::crc32Reference(bytesOf(d)); }},
      {"xxh64", "XXH64", "xxhash64Checksum",
       [](const std::string& d) { return corvane::testsupport::xxHash64Reference(bytesOf(d)); }},
      {"xxh3", "XXH3", "xxhashH3_64Checksum",
       [](const std::string& d) { return corvane::testsupport::xxHash3_64Reference(bytesOf(d)); }},
      {"xxh128", "XXH128", "xxhashH3_128Checksum",
       [](const std::string& d) { return corvane::testsupport::xxHash3_128Reference(bytesOf(d)); }},
      {"c4", "C4", "c4Checksum",
       [](const std::string& d) { return corvane::testsupport::c4Reference(bytesOf(d)); }},
  };
  return table;
}

const Algorithm& algorithm(const std::string& name) {
  for (const Algorithm& entry : algorithms()) {
    if (entry.name == name) return entry;
  }
  ADD_FAILURE() << "no reference for " << name;
  return algorithms().front();
}

// The checksum a program such as md5sum prints for the bytes of the file at `path` (read from
// standard input, so that the name plays no part): the first word of its line.
std::string checksumFromProgram(const std::string& program, const std::string& path) {
  const std::string line = runShell(program + " < " + shellQuote(path) + " 2>/dev/null").out;
  return line.substr(0, line.find(' '));
}

// ----- the expected report -------------------------------------------------------------------

// Relative path -> content. std::map keeps the paths in byte order.
using Tree = std::map<std::string, std::string>;

std::string summaryLine(std::size_t files, std::size_t matched, std::size_t missing,
                        std::size_t added, std::size_t sizeDiffers, std::size_t checksumDiffers,
                        std::size_t unreadable) {
  return "compared " + std::to_string(files) + " files: " + std::to_string(matched) + " matched, " +
         std::to_string(missing) + " missing, " + std::to_string(added) + " new, " +
         std::to_string(sizeDiffers) + " size differs, " + std::to_string(checksumDiffers) +
         " checksum differs, " + std::to_string(unreadable) + " unreadable\n";
}

struct ExpectedRun {
  std::string out;
  int status = 0;
};

// What compare prints for two trees of readable regular files, worked out from their contents.
ExpectedRun expectedComparison(const Tree& source, const Tree& destination,
                               const std::vector<std::string>& algorithmNames, bool verbose) {
  std::set<std::string> paths;
  for (const auto& [path, content] : source) paths.insert(path);
  for (const auto& [path, content] : destination) paths.insert(path);
  // Folders are the parents of the files; one present on one side only is reported at the top
  // of its branch.
  const auto foldersOf = [](const Tree& tree) {
    std::set<std::string> folders;
    for (const auto& [path, content] : tree) {
      for (auto slash = path.find('/'); slash != std::string::npos;
           slash = path.find('/', slash + 1)) {
        folders.insert(path.substr(0, slash));
      }
    }
    return folders;
  };
  const std::set<std::string> sourceFolders = foldersOf(source);
  const std::set<std::string> destinationFolders = foldersOf(destination);
  std::set<std::string> entries = paths;
  entries.insert(sourceFolders.begin(), sourceFolders.end());
  entries.insert(destinationFolders.begin(), destinationFolders.end());
  std::size_t matched = 0, missing = 0, added = 0, sizeDiffers = 0, checksumDiffers = 0;
  std::size_t missingFolders = 0, newFolders = 0;
  std::vector<std::string> oneSideBranches;
  ExpectedRun expected;
  for (const std::string& path : entries) {
    const bool sourceFolder = sourceFolders.contains(path);
    const bool destinationFolder = destinationFolders.contains(path);
    if (sourceFolder || destinationFolder) {
      if (sourceFolder && destinationFolder) continue;
      const bool inside =
          std::any_of(oneSideBranches.begin(), oneSideBranches.end(),
                      [&path](const std::string& branch) { return path.rfind(branch, 0) == 0; });
      if (inside) continue;
      oneSideBranches.push_back(path + "/");
      expected.out += (sourceFolder ? "missing folder: " : "new folder: ") + path + "\n";
      ++(sourceFolder ? missingFolders : newFolders);
      continue;
    }
    const auto inSource = source.find(path);
    const auto inDestination = destination.find(path);
    if (inDestination == destination.end()) {
      expected.out += "missing: " + path + "\n";
      ++missing;
    } else if (inSource == source.end()) {
      expected.out += "new: " + path + "\n";
      ++added;
    } else if (inSource->second.size() != inDestination->second.size()) {
      expected.out += "size differs: " + path + " (" + std::to_string(inSource->second.size()) +
                      " != " + std::to_string(inDestination->second.size()) + " bytes)\n";
      ++sizeDiffers;
    } else {
      std::string lines;
      for (const std::string& name : algorithmNames) {
        const Algorithm& reference = algorithm(name);
        const std::string a = reference.checksum(inSource->second);
        const std::string b = reference.checksum(inDestination->second);
        if (a != b) {
          lines +=
              "checksum differs: " + path + " (" + reference.tag + " " + a + " != " + b + ")\n";
        }
      }
      if (lines.empty()) {
        ++matched;
        if (verbose) expected.out += "ok: " + path + "\n";
      } else {
        ++checksumDiffers;
        expected.out += lines;
      }
    }
  }
  std::string summary =
      summaryLine(paths.size(), matched, missing, added, sizeDiffers, checksumDiffers, 0);
  summary.pop_back();
  if (missingFolders != 0) {
    summary += ", " + std::to_string(missingFolders) +
               (missingFolders == 1 ? " missing folder" : " missing folders");
  }
  if (newFolders != 0) {
    summary +=
        ", " + std::to_string(newFolders) + (newFolders == 1 ? " new folder" : " new folders");
  }
  expected.out += summary + "\n";
  expected.status = sizeDiffers + checksumDiffers + missingFolders + newFolders != 0
                        ? 1
                        : (missing + added != 0 ? 3 : 0);
  return expected;
}

// ----- running as a user that file permissions apply to ----------------------------------------

// The prefix that makes the tool run without root's right to read any file: nothing when the
// tests do not run as root, setpriv to the user "nobody" (65534) when they do. Nothing at all
// when that is not possible.
std::optional<std::string> unprivilegedPrefix() {
  if (::geteuid() != 0) return std::string();
  if (!haveProgram("setpriv")) return std::nullopt;
  return std::string("setpriv --reuid=65534 --regid=65534 --clear-groups ");
}

// Lets everyone read every file and enter every folder under `root` (root included).
void openToEveryone(const fs::path& root) {
  const auto directoryPermissions = fs::perms::owner_all | fs::perms::group_read |
                                    fs::perms::group_exec | fs::perms::others_read |
                                    fs::perms::others_exec;
  const auto filePermissions = fs::perms::owner_read | fs::perms::owner_write |
                               fs::perms::group_read | fs::perms::others_read;
  fs::permissions(root, directoryPermissions);
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_symlink()) continue;
    fs::permissions(entry.path(), entry.is_directory() ? directoryPermissions : filePermissions);
  }
}

// ----- the fixture: a source and a destination folder in one scratch folder -------------------

class CompareCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_TOOL();
    fs::create_directories(source());
    fs::create_directories(destination());
  }

  std::string source() const { return scratch_.file("src"); }
  std::string destination() const { return scratch_.file("dst"); }
  std::string sourceFile(const std::string& relative) const { return source() + "/" + relative; }
  std::string destinationFile(const std::string& relative) const {
    return destination() + "/" + relative;
  }

  void write(const Tree& sourceTree, const Tree& destinationTree) const {
    for (const auto& [path, content] : sourceTree) scratch_.writeText("src/" + path, content);
    for (const auto& [path, content] : destinationTree) scratch_.writeText("dst/" + path, content);
  }

  // compare [options...] SRC DST
  RunResult compare(std::vector<std::string> options, const std::string& prefix = "") const {
    options.insert(options.begin(), "compare");
    options.push_back(source());
    options.push_back(destination());
    return runTool(options, prefix);
  }

  ScratchDirectory scratch_;
};

// A tree whose paths sort differently in byte order than by components or case: a blank and a
// dash sort before "/", upper case before lower case.
const Tree kNestedTree = {
    {"B.txt", "upper\n"}, {"a b/c", "blank"},
    {"a-x", "dash"},      {"a/z", std::string("\0\1\2\3", 4)},
    {"ab", "ab"},         {"top/mid/deep file.txt", "deep down\n"},
};

// ----- identical trees -------------------------------------------------------------------------

TEST_F(CompareCommand, IdenticalTreesPrintOnlyTheSummaryAndExitZero) {
  write(kNestedTree, kNestedTree);
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, summaryLine(6, 6, 0, 0, 0, 0, 0));
  EXPECT_EQ(run.err, "");
}

TEST_F(CompareCommand, VerboseListsEveryMatchedFileInByteOrder) {
  write(kNestedTree, kNestedTree);
  const RunResult run = compare({"-v"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "ok: B.txt\n"
            "ok: a b/c\n"
            "ok: a-x\n"
            "ok: a/z\n"
            "ok: ab\n"
            "ok: top/mid/deep file.txt\n" +
                summaryLine(6, 6, 0, 0, 0, 0, 0));
  EXPECT_EQ(compare({"--verbose"}).out, run.out);
}

// ----- missing, new, size and checksum differences ---------------------------------------------

TEST_F(CompareCommand, FileMissingInDestinationExitsThree) {
  Tree copy = kNestedTree;
  copy.erase("a-x");
  write(kNestedTree, copy);
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out, "missing: a-x\n" + summaryLine(6, 5, 1, 0, 0, 0, 0));
  EXPECT_EQ(run.err, "");
}

TEST_F(CompareCommand, NewFileInDestinationExitsThree) {
  Tree copy = kNestedTree;
  copy["top/extra"] = "extra";
  write(kNestedTree, copy);
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out, "new: top/extra\n" + summaryLine(7, 6, 0, 1, 0, 0, 0));
  EXPECT_EQ(run.err, "");
}

TEST_F(CompareCommand, MissingAndNewTogetherStillExitThree) {
  Tree copy = kNestedTree;
  copy.erase("B.txt");
  copy["zz"] = "new";
  write(kNestedTree, copy);
  const RunResult run = compare({"-v"});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_EQ(run.out, expectedComparison(kNestedTree, copy, {"xxh64"}, true).out);
  EXPECT_NE(run.out.find("missing: B.txt\n"), std::string::npos);
  EXPECT_NE(run.out.find("new: zz\n"), std::string::npos);
}

TEST_F(CompareCommand, TruncatedFileIsASizeDifferenceAndExitsOne) {
  Tree copy = kNestedTree;
  copy["top/mid/deep file.txt"] = "deep";
  write(kNestedTree, copy);
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out, "size differs: top/mid/deep file.txt (10 != 4 bytes)\n" +
                         summaryLine(6, 5, 0, 0, 1, 0, 0));
  EXPECT_EQ(run.err, "");
}

TEST_F(CompareCommand, SizeDifferenceIsReportedWithoutReadingEitherFile) {
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  // "shrunk" differs in size, "same-size" does not; the source of both cannot be read.
  write({{"shrunk", "0123456789"}, {"same-size", "abc"}, {"fine", "ok"}},
        {{"shrunk", "01234"}, {"same-size", "abc"}, {"fine", "ok"}});
  openToEveryone(scratch_.path());
  fs::permissions(sourceFile("shrunk"), fs::perms::none);
  fs::permissions(sourceFile("same-size"), fs::perms::none);
  const RunResult run = compare({}, *prefix);
  EXPECT_EQ(run.status, 1);
  // The same-size pair shows that the locked file really cannot be read by the tool; the
  // size-mismatched pair is reported as such, not as unreadable, and no read error is printed
  // for its source.
  EXPECT_EQ(run.out,
            "unreadable: same-size\n"
            "size differs: shrunk (10 != 5 bytes)\n" +
                summaryLine(3, 1, 0, 0, 1, 0, 1));
  EXPECT_EQ(run.err, "corvane-checksum: " + sourceFile("same-size") + ": Permission denied\n");
  EXPECT_EQ(run.err.find("shrunk"), std::string::npos);
}

TEST_F(CompareCommand, CorruptedFileOfEqualSizeReportsEachDifferingAlgorithm) {
  if (!haveProgram("md5sum") || !haveProgram("sha256sum") || !haveProgram("xxhsum")) {
    GTEST_SKIP() << "md5sum, sha256sum or xxhsum not installed";
  }
  Tree copy = kNestedTree;
  copy["a b/c"] = "blanK";
  write(kNestedTree, copy);
  const RunResult run = compare({"-a", "md5,sha256,xxh64"});
  EXPECT_EQ(run.status, 1) << run.err;
  const std::string src = sourceFile("a b/c");
  const std::string dst = destinationFile("a b/c");
  EXPECT_EQ(run.out, "checksum differs: a b/c (MD5 " + checksumFromProgram("md5sum", src) +
                         " != " + checksumFromProgram("md5sum", dst) +
                         ")\n"
                         "checksum differs: a b/c (SHA256 " +
                         checksumFromProgram("sha256sum", src) +
                         " != " + checksumFromProgram("sha256sum", dst) +
                         ")\n"
                         "checksum differs: a b/c (XXH64 " +
                         checksumFromProgram("xxhsum -H1", src) +
                         " != " + checksumFromProgram("xxhsum -H1", dst) + ")\n" +
                         summaryLine(6, 5, 0, 0, 0, 1, 0));
  EXPECT_EQ(run.err, "");
  // The lines follow the order of -a, however it is given.
  const RunResult reordered = compare({"-a", "xxh64", "-a", "SHA256,md5"});
  EXPECT_EQ(reordered.status, 1);
  EXPECT_EQ(reordered.out,
            expectedComparison(kNestedTree, copy, {"xxh64", "sha256", "md5"}, false).out);
}

TEST_F(CompareCommand, EveryAlgorithmMatchesItsReference) {
  Tree copy = kNestedTree;
  copy["B.txt"] = "UPPER\n";
  copy["top/mid/deep file.txt"] = "deep-down\n";
  write(kNestedTree, copy);
  std::vector<std::string> names;
  for (const Algorithm& entry : algorithms()) names.push_back(entry.name);
  const RunResult run = compare({"-v", "-a", "md5,sha1,sha256,sha512,crc32,xxh64,xxh3,xxh128,c4"});
  const ExpectedRun expected = expectedComparison(kNestedTree, copy, names, true);
  EXPECT_EQ(run.status, expected.status) << run.err;
  EXPECT_EQ(run.out, expected.out);
}

TEST_F(CompareCommand, ChecksumDifferenceWithMissingFileExitsOneNotThree) {
  Tree copy = kNestedTree;
  copy.erase("ab");
  copy["a/z"] = std::string("\0\1\2\4", 4);
  write(kNestedTree, copy);
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  const ExpectedRun expected = expectedComparison(kNestedTree, copy, {"xxh64"}, false);
  EXPECT_EQ(expected.status, 1);
  EXPECT_EQ(run.out, expected.out);
  EXPECT_NE(run.out.find("missing: ab\n"), std::string::npos);
  EXPECT_NE(run.out.find("checksum differs: a/z (XXH64 "), std::string::npos);
}

TEST_F(CompareCommand, UnreadableDestinationFileIsReportedAndExitsOne) {
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  write(kNestedTree, kNestedTree);
  openToEveryone(scratch_.path());
  fs::permissions(destinationFile("a-x"), fs::perms::none);
  const RunResult run = compare({"-v"}, *prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "ok: B.txt\n"
            "ok: a b/c\n"
            "unreadable: a-x\n"
            "ok: a/z\n"
            "ok: ab\n"
            "ok: top/mid/deep file.txt\n" +
                summaryLine(6, 5, 0, 0, 0, 0, 1));
  EXPECT_EQ(run.err, "corvane-checksum: " + destinationFile("a-x") + ": Permission denied\n");
}

// ----- names, empty folders and empty files ---------------------------------------------------

TEST_F(CompareCommand, NestedFoldersAndUnusualNamesArePairedByRelativePath) {
  const Tree tree = {
      {"deep/er/still deeper/file with  two blanks", "1"},
      {"\xc3\xa9t\xc3\xa9/na\xc3\xafve.txt", "utf-8"},     // été/naïve.txt
      {"raw-\xff\xfe-bytes", "not utf-8"},                 // sorts last: 0xff
      {"line\nbreak/inside", "newline in a folder name"},  // newline in a name
      {"tab\there", "tab"},
  };
  write(tree, tree);
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, summaryLine(5, 5, 0, 0, 0, 0, 0));
  EXPECT_EQ(run.err, "");

  // Change each of them in the copy: every name must be found and reported.
  Tree copy = tree;
  copy["deep/er/still deeper/file with  two blanks"] = "2";
  copy.erase("\xc3\xa9t\xc3\xa9/na\xc3\xafve.txt");
  copy["\xc3\xa9t\xc3\xa9/na\xc3\xafve.TXT"] = "utf-8";
  copy["raw-\xff\xfe-bytes"] = "not utf-8 at all";
  fs::remove_all(destination());
  write({}, copy);
  const RunResult changed = compare({});
  EXPECT_EQ(changed.status, 1) << changed.err;
  // The name whose extension alone changed case (.txt, .TXT) is one entry under both names (same
  // content), counted apart in the summary; the other changes are found as before.
  EXPECT_EQ(changed.out,
            "checksum differs: deep/er/still deeper/file with  two blanks (XXH64 " +
                algorithm("xxh64").checksum("1") + " != " + algorithm("xxh64").checksum("2") +
                ")\n"
                "size differs: raw-\xff\xfe-bytes (9 != 16 bytes)\n"
                "names differ only in case: \\u00e9t\\u00e9/na\\u00efve.txt != "
                "\\u00e9t\\u00e9/na\\u00efve.TXT\n"
                "compared 5 files: 3 matched, 0 missing, 0 new, 1 size differs, 1 checksum "
                "differs, 0 unreadable, 1 names differ\n");
}

TEST_F(CompareCommand, NewlineInANameIsKeptInTheJsonPath) {
  const Tree tree = {{"line\nbreak", "one"}, {"plain", "two"}};
  Tree copy = tree;
  copy["line\nbreak"] = "ONE";
  write(tree, copy);
  const RunResult run = compare({"--json"});
  EXPECT_EQ(run.status, 1) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  ASSERT_EQ(json["files"].size(), 2U);
  EXPECT_EQ(json["files"][0]["path"], "line\nbreak");
  EXPECT_EQ(json["files"][0]["status"], "checksum differs");
  EXPECT_EQ(json["files"][1]["path"], "plain");
  EXPECT_EQ(json["files"][1]["status"], "ok");
  // The text report counts it the same way.
  const RunResult text = compare({});
  EXPECT_EQ(text.status, 1);
  EXPECT_NE(text.out.find(summaryLine(2, 1, 0, 0, 0, 1, 0)), std::string::npos) << text.out;
}

TEST_F(CompareCommand, EmptyFoldersAreNotFilesAndEmptyFilesCompare) {
  // Two empty trees: nothing to compare, and nothing wrong.
  RunResult run = compare({});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, summaryLine(0, 0, 0, 0, 0, 0, 0));

  // Empty files on both sides, and a folder present on both: fine.
  fs::create_directories(sourceFile("both/empty-folder"));
  fs::create_directories(destinationFile("both/empty-folder"));
  write({{"empty", ""}, {"nested/empty", ""}}, {{"empty", ""}, {"nested/empty", ""}});
  run = compare({"-v"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "ok: empty\nok: nested/empty\n" + summaryLine(2, 2, 0, 0, 0, 0, 0));

  // An empty file against a filled one.
  scratch_.writeText("dst/empty", "now filled");
  run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out, "size differs: empty (0 != 10 bytes)\n" + summaryLine(2, 1, 0, 0, 1, 0, 0));
}

TEST_F(CompareCommand, FoldersOnOneSideOnlyAreReportedOnceAtTheirTopAndFail) {
  // A copy that lost a folder (even an empty one) is not a faithful copy. Only the topmost folder
  // of a missing branch is named; the files below it are missing one by one.
  fs::create_directories(sourceFile("only/in/source"));
  fs::create_directories(destinationFile("only-in-destination/deeper"));
  write({{"kept", "k"}, {"only/file", "f"}}, {{"kept", "k"}});
  RunResult run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  const std::string summary = summaryLine(2, 1, 1, 0, 0, 0, 0);
  EXPECT_EQ(run.out, "missing folder: only\nnew folder: only-in-destination\nmissing: only/file\n" +
                         summary.substr(0, summary.size() - 1) +
                         ", 1 missing folder, 1 new folder\n");
  EXPECT_EQ(run.err, "");

  const RunResult json = compare({"--json"});
  EXPECT_EQ(json.status, 1);
  const nlohmann::json document = nlohmann::json::parse(json.out);
  EXPECT_EQ(document["totals"]["missingFolders"], 1);
  EXPECT_EQ(document["totals"]["newFolders"], 1);
  const nlohmann::json& files = document["files"];
  ASSERT_EQ(files.size(), 4u) << json.out;
  EXPECT_EQ(files[1]["path"], "only");
  EXPECT_EQ(files[1]["status"], "missing folder");
  EXPECT_EQ(files[2]["path"], "only-in-destination");
  EXPECT_EQ(files[2]["status"], "new folder");
  EXPECT_EQ(files[3]["path"], "only/file");
  EXPECT_EQ(files[3]["status"], "missing");
}

TEST_F(CompareCommand, FolderAgainstFileIsATypeDifference) {
  fs::create_directories(sourceFile("thing"));
  write({}, {{"thing", "a file"}});
  const RunResult run = compare({});
  EXPECT_EQ(run.status, 1) << run.err;
  const std::string summary = summaryLine(1, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(run.out, "type differs: thing (folder != file)\n" +
                         summary.substr(0, summary.size() - 1) + ", 1 type differs\n");
}

// ----- two files, wrong operands and usage -----------------------------------------------------

TEST_F(CompareCommand, TwoFilesAreReportedUnderTheSourcesLastComponent) {
  const std::string original = scratch_.writeText("src/deeper/report.txt", "contents\n");
  const std::string copy = scratch_.writeText("dst/elsewhere/copy.bin", "contents\n");
  RunResult run = runTool({"compare", "-v", original, copy});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "ok: report.txt\n" + summaryLine(1, 1, 0, 0, 0, 0, 0));

  scratch_.writeText("dst/elsewhere/copy.bin", "Contents\n");
  run = runTool({"compare", "-a", "md5", original, copy});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out, expectedComparison({{"report.txt", "contents\n"}},
                                        {{"report.txt", "Contents\n"}}, {"md5"}, false)
                         .out);

  scratch_.writeText("dst/elsewhere/copy.bin", "contents");
  run = runTool({"compare", original, copy});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out,
            "size differs: report.txt (9 != 8 bytes)\n" + summaryLine(1, 0, 0, 0, 1, 0, 0));
}

TEST_F(CompareCommand, FolderAgainstFileIsAnError) {
  const std::string file = scratch_.writeText("plain-file", "x");
  write({{"a", "x"}}, {{"a", "x"}});
  const std::regex errorLine("corvane-checksum: [^\n]+: [^\n]+\n");
  for (const auto& [src, dst] : {std::pair{source(), file}, std::pair{file, destination()}}) {
    SCOPED_TRACE(src + " vs " + dst);
    const RunResult run = runTool({"compare", src, dst});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(std::regex_match(run.err, errorLine)) << run.err;
    const bool namesAnOperand = run.err.rfind("corvane-checksum: " + src + ": ", 0) == 0 ||
                                run.err.rfind("corvane-checksum: " + dst + ": ", 0) == 0;
    EXPECT_TRUE(namesAnOperand) << run.err;
  }
}

TEST_F(CompareCommand, MissingSourceOrDestinationIsAnError) {
  const std::string missing = scratch_.file("no-such-folder");
  RunResult run = runTool({"compare", missing, destination()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + missing + ": No such file or directory\n");
  run = runTool({"compare", source(), missing});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + missing + ": No such file or directory\n");
}

TEST_F(CompareCommand, UsageErrorsExitTwo) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"compare", "-a", "sha3", source(), destination()},
           {"compare", source()},
           {"compare"},
           {"compare", source(), destination(), destination()},
           {"compare", "--no-such-option", source(), destination()},
           {"compare", "-j", "0", source(), destination()},
           {"compare", "-j", "257", source(), destination()},
           {"compare", "-j", "many", source(), destination()}}) {
    std::string joined;
    for (const auto& argument : arguments) joined += argument + " ";
    SCOPED_TRACE(joined);
    const RunResult run = runTool(arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("corvane-checksum: ", 0), 0U) << run.err;
  }
  const RunResult help = runTool({"compare", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--no-cache"), std::string::npos);
}

// ----- JSON ------------------------------------------------------------------------------------

TEST_F(CompareCommand, JsonHoldsFilesTotalsAndTheValidationRecord) {
  const Tree original = {
      {"changed", "abcd"}, {"gone", "was here"}, {"same", "same"}, {"shrunk", "long content"}};
  const Tree copy = {
      {"added", "brand new"}, {"changed", "abce"}, {"same", "same"}, {"shrunk", "short"}};
  write(original, copy);
  const std::vector<std::string> names = {"md5", "sha256", "xxh64"};
  const RunResult run = compare({"--json", "-a", "md5,sha256,xxh64"});
  EXPECT_EQ(run.status, 1) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["source"], source());
  EXPECT_EQ(json["destination"], destination());
  EXPECT_EQ(json["algorithms"], nlohmann::json(names));

  const auto checksumsOf = [&names](const std::string& content) {
    nlohmann::json checksums = nlohmann::json::object();
    for (const std::string& name : names) checksums[name] = algorithm(name).checksum(content);
    return checksums;
  };
  const auto& files = json["files"];
  ASSERT_EQ(files.size(), 5U) << run.out;
  // In byte order of the paths.
  EXPECT_EQ(files[0]["path"], "added");
  EXPECT_EQ(files[0]["status"], "new");
  EXPECT_EQ(files[0]["destinationSize"], 9);
  EXPECT_FALSE(files[0].contains("sourceSize"));

  EXPECT_EQ(files[1]["path"], "changed");
  EXPECT_EQ(files[1]["status"], "checksum differs");
  EXPECT_EQ(files[1]["sourceSize"], 4);
  EXPECT_EQ(files[1]["destinationSize"], 4);
  EXPECT_EQ(files[1]["sourceChecksums"], checksumsOf("abcd"));
  EXPECT_EQ(files[1]["destinationChecksums"], checksumsOf("abce"));

  EXPECT_EQ(files[2]["path"], "gone");
  EXPECT_EQ(files[2]["status"], "missing");
  EXPECT_EQ(files[2]["sourceSize"], 8);
  EXPECT_FALSE(files[2].contains("destinationSize"));

  EXPECT_EQ(files[3]["path"], "same");
  EXPECT_EQ(files[3]["status"], "ok");
  EXPECT_EQ(files[3]["sourceChecksums"], checksumsOf("same"));
  EXPECT_EQ(files[3]["destinationChecksums"], checksumsOf("same"));

  EXPECT_EQ(files[4]["path"], "shrunk");
  EXPECT_EQ(files[4]["status"], "size differs");
  EXPECT_EQ(files[4]["sourceSize"], 12);
  EXPECT_EQ(files[4]["destinationSize"], 5);
  // Not read, so no checksums.
  EXPECT_FALSE(files[4].contains("sourceChecksums"));
  EXPECT_FALSE(files[4].contains("destinationChecksums"));

  EXPECT_EQ(json["totals"], nlohmann::json({{"compared", 5},
                                            {"ok", 1},
                                            {"missing", 1},
                                            {"new", 1},
                                            {"sizeDiffers", 1},
                                            {"checksumDiffers", 1},
                                            {"unreadable", 0},
                                            {"namesDiffer", 0},
                                            {"nameCollisions", 0},
                                            {"missingFolders", 0},
                                            {"newFolders", 0},
                                            {"typeDiffers", 0}}));

  // The library's serialised IOValidationAttributes: the key texts, sorted.
  EXPECT_EQ(json["validation"]["fileAttributes"],
            nlohmann::json({"NSFileSize", "md5Checksum", "sha2_256Checksum", "xxhash64Checksum"}));
  EXPECT_EQ(json["validation"]["forceChecksumSizeComparison"], true);
  EXPECT_EQ(json["validation"].size(), 2U) << json["validation"].dump();
}

TEST_F(CompareCommand, JsonValidationNamesTheKeyOfEveryAlgorithm) {
  write(kNestedTree, kNestedTree);
  std::string list;
  std::vector<std::string> keys = {"NSFileSize"};
  for (const Algorithm& entry : algorithms()) {
    list += (list.empty() ? "" : ",") + entry.name;
    keys.push_back(entry.attributeKey);
  }
  std::sort(keys.begin(), keys.end());
  const RunResult run = compare({"--json", "-a", list});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["validation"]["fileAttributes"], nlohmann::json(keys));
  EXPECT_EQ(json["validation"]["forceChecksumSizeComparison"], true);
  // The default algorithm alone.
  const auto byDefault = nlohmann::json::parse(compare({"--json"}).out);
  EXPECT_EQ(byDefault["algorithms"], nlohmann::json({"xxh64"}));
  EXPECT_EQ(byDefault["validation"]["fileAttributes"],
            nlohmann::json({"NSFileSize", "xxhash64Checksum"}));
}

// ----- --no-cache ------------------------------------------------------------------------------

// The bytes of `path` held in the page cache, from fincore; nothing when fincore fails.
std::optional<long long> cachedBytes(const std::string& path) {
  const RunResult run =
      runShell("fincore --bytes --noheadings --output RES " + shellQuote(path) + " 2>/dev/null");
  if (run.status != 0) return std::nullopt;
  try {
    return std::stoll(run.out);
  } catch (...) {
    return std::nullopt;
  }
}

void flushToDisk(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(descriptor, 0) << path;
  EXPECT_EQ(::fsync(descriptor), 0) << path;
  ::close(descriptor);
}

TEST_F(CompareCommand, NoCacheGivesTheSameReport) {
  Tree copy = kNestedTree;
  copy.erase("ab");
  copy["B.txt"] = "UPPER\n";
  copy["a-x"] = "da";
  write(kNestedTree, copy);
  for (const bool verbose : {false, true}) {
    std::vector<std::string> options = {"-a", "md5,xxh64"};
    if (verbose) options.push_back("-v");
    const RunResult cached = compare(options);
    options.push_back("--no-cache");
    const RunResult uncached = compare(options);
    EXPECT_EQ(uncached.status, 1);
    EXPECT_EQ(uncached.status, cached.status);
    EXPECT_EQ(uncached.out, cached.out);
    EXPECT_EQ(uncached.out, expectedComparison(kNestedTree, copy, {"md5", "xxh64"}, verbose).out);
    EXPECT_EQ(uncached.err, "");
  }
}

TEST_F(CompareCommand, NoCacheLeavesTheDestinationOutOfThePageCache) {
  if (!haveProgram("fincore")) GTEST_SKIP() << "fincore (util-linux) not installed";
  std::string content(4 << 20, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 131 % 251);
  write({{"big", content}}, {{"big", content}});
  const std::string copy = destinationFile("big");
  // Dirty pages cannot be dropped: write them out first, then read the file into the cache.
  flushToDisk(copy);
  ASSERT_EQ(readFile(copy).size(), content.size());
  const auto before = cachedBytes(copy);
  if (!before || *before == 0) GTEST_SKIP() << "the page cache of this file system is not seen";
  const RunResult run = compare({"--no-cache"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, summaryLine(1, 1, 0, 0, 0, 0, 0));
  EXPECT_EQ(cachedBytes(copy), 0LL);
}

// ----- symbolic links --------------------------------------------------------------------------

TEST_F(CompareCommand, SymbolicLinksAreSkippedByDefaultAndFollowedOnRequest) {
  write({{"target", "pointed at"}, {"plain", "p"}},
        {{"target", "pointed at"}, {"plain", "p"}, {"link", "pointed at"}});
  fs::create_symlink("target", sourceFile("link"));
  // A link on the source side, a regular file on the other: not verified, so unreadable.
  RunResult run = compare({"-v"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "unreadable: link\nok: plain\nok: target\n" + summaryLine(3, 2, 0, 0, 0, 0, 1));
  EXPECT_EQ(run.err, "corvane-checksum: " + sourceFile("link") +
                         ": symbolic link skipped (use --follow-symlinks)\n");

  run = compare({"-v", "--follow-symlinks"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "ok: link\nok: plain\nok: target\n" + summaryLine(3, 3, 0, 0, 0, 0, 0));
  EXPECT_EQ(run.err, "");
}

TEST_F(CompareCommand, LinksOnBothSidesAreReportedOrComparedThroughTheirTargets) {
  write({{"one", "1111"}, {"two", "2222"}}, {{"one", "1111"}, {"two", "2222"}});
  fs::create_symlink("one", sourceFile("link"));
  fs::create_symlink("two", destinationFile("link"));
  fs::create_directories(sourceFile("real-folder"));
  scratch_.writeText("src/real-folder/inside", "in");
  scratch_.writeText("dst/real-folder/inside", "in");
  fs::create_directory_symlink("real-folder", sourceFile("folder-link"));
  fs::create_directory_symlink("real-folder", destinationFile("folder-link"));

  RunResult run = compare({"-v"});
  for (const std::string& skipped : {sourceFile("link"), destinationFile("link"),
                                     sourceFile("folder-link"), destinationFile("folder-link")}) {
    EXPECT_NE(run.err.find("corvane-checksum: " + skipped +
                           ": symbolic link skipped (use --follow-symlinks)\n"),
              std::string::npos)
        << run.err;
  }
  EXPECT_EQ(run.out.find("ok: link"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("folder-link/"), std::string::npos) << run.out;

  // Followed, the links lead to files of equal size and different content.
  run = compare({"--follow-symlinks", "-v"});
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            "ok: folder-link/inside\n"
            "checksum differs: link (XXH64 " +
                algorithm("xxh64").checksum("1111") + " != " + algorithm("xxh64").checksum("2222") +
                ")\n"
                "ok: one\n"
                "ok: real-folder/inside\n"
                "ok: two\n" +
                summaryLine(5, 4, 0, 0, 0, 1, 0));
}

// ----- parallel runs and --summary ---------------------------------------------------------------

// About 300 files in nested folders, and a copy with every kind of difference that needs no
// permissions: missing, new, truncated, and corrupted files of the same size.
std::pair<Tree, Tree> manyFilesWithDifferences() {
  Tree original;
  Tree copy;
  for (int i = 0; i < 300; ++i) {
    std::string path = "d";
    path += std::to_string(i % 7) + "/s" + std::to_string(i % 3) + "/f" + std::to_string(i) +
            (i % 5 == 0 ? " spaced" : "") + ".bin";
    std::string content(static_cast<std::size_t>(i * 97 % 3001), '\0');
    for (std::size_t k = 0; k < content.size(); ++k) {
      content[k] = static_cast<char>((k * 31 + static_cast<std::size_t>(i)) % 256);
    }
    original[path] = content;
    if (i % 23 == 1) continue;                                                 // missing
    if (i % 17 == 2 && !content.empty()) content.pop_back();                   // truncated
    if (i % 13 == 3 && !content.empty()) content[content.size() / 2] ^= 0x40;  // corrupted
    copy[path] = content;
  }
  for (int i = 0; i < 9; ++i) {
    std::string path = "d";
    path += std::to_string(i) + "/added-" + std::to_string(i);
    copy[path] = "+";
  }
  return {original, copy};
}

TEST_F(CompareCommand, OneJobAndEightJobsGiveByteIdenticalOutput) {
  const auto [original, copy] = manyFilesWithDifferences();
  write(original, copy);
  const ExpectedRun expected = expectedComparison(original, copy, {"md5", "xxh64"}, true);
  ASSERT_EQ(expected.status, 1);
  for (const std::vector<std::string>& format :
       std::vector<std::vector<std::string>>{{"-v"}, {}, {"--json"}}) {
    std::vector<std::string> one = format;
    std::vector<std::string> eight = format;
    for (auto* options : {&one, &eight}) {
      options->insert(options->end(), {"-a", "md5,xxh64", "-j"});
    }
    one.push_back("1");
    eight.push_back("8");
    const RunResult serial = compare(one);
    const RunResult parallel = compare(eight);
    EXPECT_EQ(serial.status, 1) << serial.err;
    EXPECT_EQ(parallel.status, 1) << parallel.err;
    EXPECT_TRUE(serial.out == parallel.out) << "outputs of -j 1 and -j 8 differ";
    EXPECT_EQ(serial.err, parallel.err);
    if (format == std::vector<std::string>{"-v"}) {
      EXPECT_EQ(parallel.out, expected.out);
    }
  }
  // The long option, repeated runs: the same again.
  EXPECT_EQ(compare({"-v", "-a", "md5,xxh64", "--jobs", "8"}).out, expected.out);
}

TEST_F(CompareCommand, SummaryLineGoesToStandardError) {
  write(kNestedTree, kNestedTree);
  const RunResult plain = compare({});
  const RunResult run = compare({"--summary"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, plain.out);
  EXPECT_EQ(plain.err, "");
  const std::regex summary(
      R"(corvane-checksum: \d+ files, \d+ bytes in \d+(\.\d+)? s \(\d+\.\d (B|KiB|MiB|GiB)/s\), 0 errors\n)");
  EXPECT_TRUE(std::regex_match(run.err, summary)) << run.err;
  // --no-progress does not silence an asked-for summary.
  EXPECT_TRUE(std::regex_match(compare({"--summary", "--no-progress"}).err, summary));
}

// ----- the shared options of composite ---------------------------------------------------------

TEST_F(CompareCommand, CompositeAcceptsJobsAndGivesTheSameCompositeForAnyCount) {
  const auto [original, copy] = manyFilesWithDifferences();
  write(original, {});
  const RunResult byDefault = runTool({"composite", source()});
  ASSERT_EQ(byDefault.status, 0) << byDefault.err;
  for (const std::string jobs : {"1", "8"}) {
    SCOPED_TRACE("-j " + jobs);
    const RunResult run = runTool({"composite", "-j", jobs, source()});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, byDefault.out);
    const RunResult tree = runTool({"composite", "--jobs", jobs, "--scheme", "tree", source()});
    EXPECT_EQ(tree.status, 0) << tree.err;
    EXPECT_EQ(tree.out, runTool({"composite", "--scheme", "tree", source()}).out);
  }
  EXPECT_EQ(runTool({"composite", "-j", "0", source()}).status, 2);
}

TEST_F(CompareCommand, CompositeFollowsSymbolicLinksOnRequest) {
  // The source has a link where the destination has a copy of the linked file.
  write({{"target", "pointed at"}, {"x/y", "y"}},
        {{"target", "pointed at"}, {"x/y", "y"}, {"link", "pointed at"}});
  fs::create_symlink("target", sourceFile("link"));
  const RunResult withCopy = runTool({"composite", destination()});
  ASSERT_EQ(withCopy.status, 0) << withCopy.err;
  const RunResult followed = runTool({"composite", "--follow-symlinks", source()});
  EXPECT_EQ(followed.status, 0) << followed.err;
  EXPECT_EQ(followed.err, "");
  EXPECT_EQ(followed.out.substr(0, followed.out.find(' ')),
            withCopy.out.substr(0, withCopy.out.find(' ')));
  const RunResult jobsAndLinks = runTool({"composite", "-j", "1", "--follow-symlinks", source()});
  EXPECT_EQ(jobsAndLinks.status, 0) << jobsAndLinks.err;
  EXPECT_EQ(jobsAndLinks.out, followed.out);
}

}  // namespace
