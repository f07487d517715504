// Runs the built corvane-checksum program on scratch files and compares its output with
// independent answers: the coreutils md5sum/sha1sum/sha256sum/sha512sum and xxhsum programs, and
// the byte-at-a-time table CRC and base-58 C4 conversion of support/References.hpp.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "corvane/Version.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::haveProgram;
using corvane::testsupport::pseudoRandomBytes;
using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::runTool;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;

// The checksum a reference program prints for one file: the first word of "<sum>  <path>", or
// the text after " = " of a tag line "<ALGO> (<path>) = <sum>".
std::string referenceFromProgram(const std::string& program, const std::string& path) {
  const std::string line = runShell(program + " " + shellQuote(path) + " 2>/dev/null").out;
  const std::string firstLine = line.substr(0, line.find('\n'));
  if (const auto equals = firstLine.rfind(" = "); equals != std::string::npos) {
    return firstLine.substr(equals + 3);
  }
  return firstLine.substr(0, firstLine.find(' '));
}

// Our CRC-32 variant of `bytes`: the byte-at-a-time table CRC of support/References.hpp.
std::string referenceCrc32(const std::string& bytes) {
  return corvane::testsupport::crc32Reference(corvane::testsupport::bytesOf(bytes));
}

// The C4 ID of a SHA-512 digest given as hex text: the base-58 reference of
// support/References.hpp.
std::string referenceC4FromSha512Hex(const std::string& hex) {
  return corvane::testsupport::c4IdOfNumber(
      corvane::testsupport::hexDecode(hex).value_or(corvane::Bytes{}));
}

// The reference checksum of the file at `path` for one command-line algorithm name.
std::string reference(const std::string& algorithm, const std::string& path) {
  static const std::map<std::string, std::string> kPrograms = {
      {"md5", "md5sum"},       {"sha1", "sha1sum"},     {"sha256", "sha256sum"},
      {"sha512", "sha512sum"}, {"xxh64", "xxhsum -H1"}, {"xxh128", "xxhsum -H2"},
      {"xxh3", "xxhsum -H3"},
  };
  if (algorithm == "crc32") {
    return referenceCrc32(readFile(path));
  }
  if (algorithm == "c4") {
    return referenceC4FromSha512Hex(referenceFromProgram("sha512sum", path));
  }
  return referenceFromProgram(kPrograms.at(algorithm), path);
}

const std::vector<std::string> kAllAlgorithms = {"md5",   "sha1", "sha256", "sha512", "crc32",
                                                 "xxh64", "xxh3", "xxh128", "c4"};
const std::map<std::string, std::string> kTags = {
    {"md5", "MD5"},       {"sha1", "SHA1"},     {"sha256", "SHA256"},
    {"sha512", "SHA512"}, {"crc32", "CRC32"},   {"xxh64", "XXH64"},
    {"xxh3", "XXH3"},     {"xxh128", "XXH128"}, {"c4", "C4"}};
#define SKIP_WITHOUT_REFERENCES()                                            \
  do {                                                                       \
    SKIP_WITHOUT_TOOL();                                                     \
    if (!haveProgram("xxhsum") || !haveProgram("sha256sum")) {               \
      GTEST_SKIP() << "reference programs xxhsum / coreutils not installed"; \
    }                                                                        \
  } while (false)

TEST(CorvaneChecksumTool, DefaultAlgorithmIsXxh64InSumFormat) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string file =
      scratch.writeText("fox.txt", "The quick brown fox jumps over the lazy dog");
  const RunResult run = runTool({"hash", file});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, reference("xxh64", file) + "  " + file + "\n");
}

TEST(CorvaneChecksumTool, SingleAlgorithmOutputEqualsReferenceProgramOutput) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::vector<std::string> files = {
      scratch.writeText("empty", ""), scratch.writeText("a b.txt", "abc"),
      scratch.writeText("random.bin", pseudoRandomBytes(300000, 7))};
  const std::map<std::string, std::string> programs = {
      {"md5", "md5sum"},       {"sha1", "sha1sum"},     {"sha256", "sha256sum"},
      {"sha512", "sha512sum"}, {"xxh64", "xxhsum -H1"}, {"xxh128", "xxhsum -H2"}};
  std::string quotedFiles;
  for (const auto& file : files) {
    quotedFiles += ' ';
    quotedFiles += shellQuote(file);
  }
  for (const auto& [algorithm, program] : programs) {
    SCOPED_TRACE(algorithm);
    std::vector<std::string> arguments = {"hash", "-a", algorithm};
    arguments.insert(arguments.end(), files.begin(), files.end());
    const RunResult run = runTool(arguments);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, runShell(program + quotedFiles + " 2>/dev/null").out);
  }
}

TEST(CorvaneChecksumTool, Xxh3AndCrc32MatchReferences) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  for (const auto& contents : {std::string(), std::string("abc"), pseudoRandomBytes(5000, 3)}) {
    const std::string file = scratch.writeText("input", contents);
    for (const std::string algorithm : {"xxh3", "crc32"}) {
      SCOPED_TRACE(algorithm + " over " + std::to_string(contents.size()) + " bytes");
      const RunResult run = runTool({"hash", "-a", algorithm, file});
      EXPECT_EQ(run.status, 0);
      EXPECT_EQ(run.out, reference(algorithm, file) + "  " + file + "\n");
    }
  }
}

TEST(CorvaneChecksumTool, Crc32IsPrintedWithoutLeadingZeros) {
  SKIP_WITHOUT_REFERENCES();
  // Find a short input whose complemented register is below 0x10000000 (about one in sixteen).
  std::string contents;
  for (std::uint32_t n = 0;; ++n) {
    contents = std::to_string(n);
    if (referenceCrc32(contents).size() < 8) {
      break;
    }
  }
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("short-crc", contents);
  const RunResult run = runTool({"hash", "-a", "crc32", file});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, referenceCrc32(contents) + "  " + file + "\n");
  EXPECT_LT(run.out.find("  "), 8u);
}

TEST(CorvaneChecksumTool, SeveralAlgorithmsUseTagLinesInGivenOrderWithoutDuplicates) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string first = scratch.writeText("first.txt", "first file\n");
  const std::string second = scratch.writeText("second.bin", pseudoRandomBytes(70000, 11));
  const RunResult run = runTool(
      {"hash", "-a", "sha256,md5", "-a", "xxh3,md5", "--algorithm", "SHA256,crc32", first, second});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  std::string expected;
  for (const auto& file : {first, second}) {
    for (const std::string algorithm : {"sha256", "md5", "xxh3", "crc32"}) {
      expected += kTags.at(algorithm) + " (" + file + ") = " + reference(algorithm, file) + "\n";
    }
  }
  EXPECT_EQ(run.out, expected);
}

TEST(CorvaneChecksumTool, AllAlgorithmsMatchReferencesAcrossReadChunks) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  // 9 MiB + 5 bytes: more than one 8 MiB read.
  const std::vector<std::string> files = {
      scratch.writeText("empty", ""),
      scratch.writeText("fox.txt", "The quick brown fox jumps over the lazy dog"),
      scratch.writeText("large.bin", pseudoRandomBytes(9 * 1024 * 1024 + 5, 42))};
  std::vector<std::string> arguments = {"hash", "-a",
                                        "md5,sha1,sha256,sha512,crc32,xxh64,xxh3,xxh128,c4"};
  arguments.insert(arguments.end(), files.begin(), files.end());
  const RunResult run = runTool(arguments);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  std::string expected;
  for (const auto& file : files) {
    for (const auto& algorithm : kAllAlgorithms) {
      expected += kTags.at(algorithm) + " (" + file + ") = " + reference(algorithm, file) + "\n";
    }
  }
  EXPECT_EQ(run.out, expected);
}

TEST(CorvaneChecksumTool, JsonDocumentListsAlgorithmsFilesChecksumsAndTotals) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::vector<std::string> files = {scratch.writeText("one", "1"),
                                          scratch.writeText("two", "22")};
  const std::vector<std::string> algorithms = {"xxh64", "sha256", "crc32"};
  const RunResult run = runTool({"hash", "--json", "-a", "xxh64,sha256,crc32", files[0], files[1]});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  const nlohmann::json parsed = nlohmann::json::parse(run.out);
  ASSERT_TRUE(parsed.is_object());
  EXPECT_EQ(parsed.size(), 3u);
  EXPECT_EQ(parsed.at("algorithms"), nlohmann::json(algorithms));
  const nlohmann::json& entries = parsed.at("files");
  ASSERT_TRUE(entries.is_array());
  ASSERT_EQ(entries.size(), files.size());
  for (std::size_t index = 0; index < files.size(); ++index) {
    const nlohmann::json& entry = entries[index];
    ASSERT_TRUE(entry.is_object());
    EXPECT_EQ(entry.at("path"), files[index]);
    EXPECT_EQ(entry.at("size"), index + 1);
    EXPECT_TRUE(entry.at("modified").is_string());
    EXPECT_FALSE(entry.contains("error"));
    const nlohmann::json& checksums = entry.at("checksums");
    ASSERT_TRUE(checksums.is_object());
    EXPECT_EQ(checksums.size(), algorithms.size());
    for (const auto& algorithm : algorithms) {
      EXPECT_EQ(checksums.at(algorithm), reference(algorithm, files[index])) << algorithm;
    }
  }
  EXPECT_EQ(parsed.at("totals"),
            nlohmann::json({{"files", 2}, {"hashed", 2}, {"errors", 0}, {"skipped", 0}, {"bytes", 3}}));
  // Pretty-printed with two spaces of indentation.
  EXPECT_EQ(run.out.rfind("{\n  \"", 0), 0u) << run.out;
}

TEST(CorvaneChecksumTool, JsonOfOnlyFailedFilesHasOnlyErrorEntries) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string missing = (scratch.path() / "missing").string();
  const RunResult run = runTool({"hash", "--json", missing});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + missing + ": No such file or directory\n");
  const nlohmann::json expected = {
      {"algorithms", {"xxh64"}},
      {"files",
       nlohmann::json::array({{{"path", missing}, {"error", "No such file or directory"}}})},
      {"totals", {{"files", 1}, {"hashed", 0}, {"errors", 1}, {"skipped", 0}, {"bytes", 0}}}};
  EXPECT_EQ(nlohmann::json::parse(run.out), expected) << run.out;
}

TEST(CorvaneChecksumTool, MissingFileIsReportedAndOtherFilesStillPrinted) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string before = scratch.writeText("before", "before");
  const std::string missing = (scratch.path() / "no-such-file").string();
  const std::string after = scratch.writeText("after", "after");
  const RunResult run = runTool({"hash", "-a", "sha256", before, missing, after});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + missing + ": No such file or directory\n");
  EXPECT_EQ(run.out, reference("sha256", before) + "  " + before + "\n" +
                         reference("sha256", after) + "  " + after + "\n");
}

TEST(CorvaneChecksumTool, DirectoryIsReported) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("file", "x");
  const std::string directory = scratch.path().string();
  const RunResult run = runTool({"hash", "-a", "md5,xxh64", directory, file});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + directory + ": Is a directory\n");
  EXPECT_EQ(run.out, "MD5 (" + file + ") = " + reference("md5", file) + "\nXXH64 (" + file +
                         ") = " + reference("xxh64", file) + "\n");
}

TEST(CorvaneChecksumTool, UnreadableFileIsReported) {
  SKIP_WITHOUT_TOOL();
  // Root reads any file, so as root the tool runs as the unprivileged user "nobody" (65534).
  std::string prefix;
  if (::geteuid() == 0) {
    if (!haveProgram("setpriv")) {
      GTEST_SKIP() << "running as root and setpriv is not available";
    }
    prefix = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
  }
  ScratchDirectory scratch;
  // The directory itself must be searchable, so that only the file is unreadable.
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0755), 0);
  const std::string file = scratch.writeText("secret", "secret");
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  const RunResult run = runTool({"hash", file}, prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "corvane-checksum: " + file + ": Permission denied\n");
  EXPECT_EQ(run.out, "");
}

TEST(CorvaneChecksumTool, C4PrintsTheC4IdOfTheFile) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("file", "c4 input");
  const std::string empty = scratch.writeText("empty", "");
  const RunResult run = runTool({"hash", "-a", "sha512,c4", file, empty});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  const std::string c4 = reference("c4", file);
  EXPECT_EQ(c4.size(), 90u);
  EXPECT_EQ(run.out, "SHA512 (" + file + ") = " + reference("sha512", file) + "\n" + "C4 (" + file +
                         ") = " + c4 + "\n" + "SHA512 (" + empty +
                         ") = " + reference("sha512", empty) + "\n" + "C4 (" + empty +
                         ") = c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQ"
                         "stpDuni4Hirj75GEmTc1sFT\n");
}

TEST(CorvaneChecksumTool, UnknownAlgorithmIsUsageError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("file", "x");
  const RunResult run = runTool({"hash", "-a", "md5,whirlpool", file});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("unknown algorithm 'whirlpool'"), std::string::npos) << run.err;
}

TEST(CorvaneChecksumTool, UnknownOptionIsUsageError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("file", "x");
  const RunResult run = runTool({"hash", "--no-such-option", file});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("--no-such-option"), std::string::npos) << run.err;
}

TEST(CorvaneChecksumTool, UnknownSubcommandIsUsageError) {
  SKIP_WITHOUT_TOOL();
  const RunResult run = runTool({"frobnicate"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("frobnicate"), std::string::npos) << run.err;
}

TEST(CorvaneChecksumTool, HashWithoutPathsIsUsageError) {
  SKIP_WITHOUT_TOOL();
  const RunResult run = runTool({"hash", "-a", "md5"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_FALSE(run.err.empty());
}

TEST(CorvaneChecksumTool, HelpDescribesHashAndExitsZero) {
  SKIP_WITHOUT_TOOL();
  const RunResult run = runTool({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("hash"), std::string::npos) << run.out;
  const RunResult hashHelp = runTool({"hash", "--help"});
  EXPECT_EQ(hashHelp.status, 0);
  EXPECT_NE(hashHelp.out.find("--json"), std::string::npos) << hashHelp.out;
  EXPECT_NE(hashHelp.out.find("xxh128"), std::string::npos) << hashHelp.out;
}

TEST(CorvaneChecksumTool, VersionPrintsLibraryVersionText) {
  SKIP_WITHOUT_TOOL();
  const RunResult run = runTool({"--version"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, std::string(corvane::CorvaneSecurityVersionString) + "\n");
}

// The options each command documents, as they must appear in its --help text.
const std::map<std::string, std::vector<std::string>> kDocumentedOptions = {
    {"hash",
     {"-a", "--algorithm", "-r", "--recursive", "--follow-symlinks", "--files-from", "-0", "--null",
      "--tag", "--json", "-z", "--zero"}},
    {"check",
     {"-a", "--algorithm", "--quiet", "--status", "--strict", "-w", "--warn", "--ignore-missing"}},
    {"compare",
     {"-a", "--algorithm", "--follow-symlinks", "--no-cache", "-v", "--verbose", "--json"}},
    {"composite", {"-a", "--algorithm", "--method", "--scheme", "--json", "--follow-symlinks"}},
};
const std::vector<std::string> kCommonOptions = {"-j",        "--jobs", "--no-progress",
                                                 "--summary", "-h",     "--help"};

TEST(CorvaneChecksumTool, HelpOfToolNamesEveryCommandAndExitsZero) {
  SKIP_WITHOUT_TOOL();
  for (const auto& arguments :
       {std::vector<std::string>{"--help"}, std::vector<std::string>{"-h"}}) {
    const RunResult run = runTool(arguments);
    EXPECT_EQ(run.status, 0) << arguments[0];
    EXPECT_EQ(run.err, "") << arguments[0];
    for (const auto& [command, options] : kDocumentedOptions) {
      EXPECT_NE(run.out.find(command), std::string::npos) << command << " in\n" << run.out;
    }
    EXPECT_NE(run.out.find("--version"), std::string::npos) << run.out;
  }
}

TEST(CorvaneChecksumTool, HelpOfEveryCommandNamesItsOptionsAndExitsZero) {
  SKIP_WITHOUT_TOOL();
  for (const auto& [command, options] : kDocumentedOptions) {
    SCOPED_TRACE(command + " --help");
    const RunResult run = runTool({command, "--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    std::vector<std::string> expected = options;
    expected.insert(expected.end(), kCommonOptions.begin(), kCommonOptions.end());
    for (const auto& option : expected) {
      // An option stands as a word of its own: not followed by another letter of a longer name.
      const std::regex word("(^|[^-A-Za-z0-9])" + option + "([^-A-Za-z0-9]|$)");
      EXPECT_TRUE(std::regex_search(run.out, word)) << option << " in\n" << run.out;
    }
  }
}

// The built-in sample's 1 MiB file: the top byte of a 32-bit LCG with the Numerical Recipes
// constants, starting from state 1 (as the tool documents it).
std::string samplePattern() {
  std::string bytes(1024 * 1024, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

TEST(CorvaneChecksumTool, NoArgumentsChecksumsBuiltinSampleWithEveryAlgorithm) {
  SKIP_WITHOUT_REFERENCES();
  const RunResult run = runTool({});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");

  // Recreate the sample's contents here to compute the reference values.
  ScratchDirectory scratch;
  const std::map<std::string, std::string> samplePaths = {
      {"empty", scratch.writeText("empty", "")},
      {"quick-brown-fox.txt",
       scratch.writeText("quick-brown-fox.txt", "The quick brown fox jumps over the lazy dog")},
      {"pattern-1MiB.bin", scratch.writeText("pattern-1MiB.bin", samplePattern())}};

  std::istringstream lines(run.out);
  std::string line;
  std::vector<std::pair<std::string, std::string>> seen;  // (file name, tag)
  std::set<std::string> directories;
  std::map<std::string, std::string> algorithmByTag;
  for (const auto& [algorithm, tag] : kTags) {
    algorithmByTag[tag] = algorithm;
  }
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const auto open = line.find(" (");
    const auto close = line.rfind(") = ");
    ASSERT_NE(open, std::string::npos) << line;
    ASSERT_NE(close, std::string::npos) << line;
    const std::string tag = line.substr(0, open);
    const fs::path path = line.substr(open + 2, close - open - 2);
    const std::string checksum = line.substr(close + 4);
    ASSERT_TRUE(algorithmByTag.count(tag)) << line;
    ASSERT_TRUE(samplePaths.count(path.filename().string())) << line;
    EXPECT_EQ(checksum, reference(algorithmByTag.at(tag), samplePaths.at(path.filename().string())))
        << line;
    seen.emplace_back(path.filename().string(), tag);
    directories.insert(path.parent_path().string());
  }
  // Every file with every algorithm, in file order and then algorithm order.
  std::vector<std::pair<std::string, std::string>> expected;
  for (const std::string name : {"empty", "quick-brown-fox.txt", "pattern-1MiB.bin"}) {
    for (const auto& algorithm : kAllAlgorithms) {
      expected.emplace_back(name, kTags.at(algorithm));
    }
  }
  EXPECT_EQ(seen, expected);
  // One temporary directory, removed at the end.
  ASSERT_EQ(directories.size(), 1u);
  EXPECT_FALSE(fs::exists(*directories.begin()));
}

}  // namespace
