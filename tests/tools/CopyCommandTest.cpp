// Runs `corvane-checksum copy` on scratch folder trees and checks the copies with tools that
// share no code with it: diff -r and cmp for the bytes, find -printf for times and permissions,
// xxhsum -H1, md5sum and sha256sum for the checksums the JSON report gives, xmllint with the
// ASC MHL schemas for the histories written (and the tool's own `mhl verify` for their chain).
// Destinations that fail mid-run are made with the fault shim of tests/support/faultshim; a
// source file that changes while it is read is truncated from a shell that watches the tool's
// descriptor of it in /proc.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/FaultShim.hpp"
#include "support/MhlTestData.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::FaultSettings;
using corvane::testsupport::faultShimEnvironment;
using corvane::testsupport::haveProgram;
using corvane::testsupport::pseudoRandomBytes;
using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;
using corvane::testsupport::shippedMhlSchema;
using corvane::testsupport::toolCommand;
using Json = nlohmann::json;

// A name with a newline and one beyond ASCII (NFC "é", a CJK name), which a copy must keep byte
// for byte.
const std::string kNewlineName = "two\nlines.txt";
const std::string kAccentName = "caf\xc3\xa9.txt";
const std::string kCjkName = "\xe7\xb4\xa0\xe6\x9d\x90.mov";

// A camera card: nested folders, an empty file, an empty folder, the names above, and files of
// a few sizes (one over the engine's chunks).
void makeCard(const ScratchDirectory& scratch, const std::string& card = "CARD") {
  scratch.writeText(card + "/a.txt", "hello");
  scratch.writeText(card + "/empty.bin", "");
  scratch.writeText(card + "/" + kNewlineName, "newline");
  scratch.writeText(card + "/" + kAccentName, "accent");
  scratch.writeText(card + "/CLIP/" + kCjkName, pseudoRandomBytes(300000, 7));
  scratch.writeText(card + "/CLIP/big.bin", pseudoRandomBytes(5 << 20, 11));
  scratch.writeText(card + "/CLIP/deeper/c.txt", "world");
  fs::create_directories(scratch.file(card + "/EMPTY/ALSO_EMPTY"));
}

std::vector<std::string> makeFolders(const ScratchDirectory& scratch,
                                     const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const std::string& name : names) {
    fs::create_directories(scratch.file(name));
    paths.push_back(scratch.file(name));
  }
  return paths;
}

// Runs the tool; stderr is captured through a file in `scratch`. `prefix` goes in front of the
// command (environment assignments).
RunResult copyTool(const ScratchDirectory& scratch, const std::vector<std::string>& arguments,
                   const std::string& prefix = "") {
  std::vector<std::string> full = {"copy"};
  full.insert(full.end(), arguments.begin(), arguments.end());
  return runShell(prefix + toolCommand(full), scratch.file("stderr.txt"));
}

Json parseJson(const RunResult& run) {
  Json document = Json::parse(run.out, nullptr, false);
  EXPECT_FALSE(document.is_discarded()) << run.out;
  return document;
}

// diff -r of the two trees, the source's ascmhl history left out; "" when equal.
std::string treeDifferences(const std::string& source, const std::string& copy) {
  const RunResult run =
      runShell("diff -r -x ascmhl " + shellQuote(source) + " " + shellQuote(copy) + " 2>&1");
  return run.status == 0 ? "" : run.out.empty() ? "diff failed" : run.out;
}

// Every temporary the copy may have left below `root` (find prints them).
std::string temporariesBelow(const std::string& root) {
  return runShell("find " + shellQuote(root) + " -name '.corvane-tmp-*'").out;
}

// The files below `root` (ascmhl left out) with their modification time and permissions, as
// find prints them, sorted.
std::string timesAndModes(const std::string& root) {
  return runShell("cd " + shellQuote(root) +
                  " && find . -path ./ascmhl -prune -o -type f -printf '%P %T@ %m\\n' | sort")
      .out;
}

std::string checksumFromProgram(const std::string& program, const std::string& path) {
  const std::string line = runShell(program + " < " + shellQuote(path) + " 2>/dev/null").out;
  return line.substr(0, line.find(' '));
}

// The report's entry for the source's relative path `path`.
const Json* fileEntry(const Json& document, const std::string& path) {
  for (const Json& file : document["files"]) {
    if (file["path"] == path) return &file;
  }
  return nullptr;
}

// The statuses of every file's copies in the report, "path -> status,status,...".
std::vector<std::string> statuses(const Json& document) {
  std::vector<std::string> lines;
  for (const Json& file : document["files"]) {
    if (file["kind"] != "file") continue;
    std::string line = file["path"].get<std::string>() + " ->";
    for (const Json& copy : file["copies"]) {
      line += ' ';
      line += copy["status"].get<std::string>();
    }
    lines.push_back(line);
  }
  return lines;
}

std::string xpathText(const std::string& expression, const std::string& file) {
  return runShell("xmllint --xpath " + shellQuote(expression) + " " + shellQuote(file) +
                  " 2>/dev/null")
      .out;
}

std::vector<fs::path> manifestsIn(const std::string& root) {
  std::vector<fs::path> manifests;
  std::error_code error;
  for (const auto& item : fs::directory_iterator(fs::path(root) / "ascmhl", error)) {
    if (item.path().extension() == ".mhl") manifests.push_back(item.path());
  }
  std::sort(manifests.begin(), manifests.end());
  return manifests;
}

TEST(CopyCommand, CopiesTheTreeIntoOneDestinationUnderTheSourceName) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"shuttle"});
  const RunResult run = copyTool(scratch, {scratch.file("CARD"), destinations[0]});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
  const std::string copy = destinations[0] + "/CARD";
  EXPECT_EQ(treeDifferences(scratch.file("CARD"), copy), "");
  EXPECT_TRUE(fs::is_directory(copy + "/EMPTY/ALSO_EMPTY"));
  EXPECT_EQ(fs::file_size(copy + "/empty.bin"), 0U);
  EXPECT_EQ(temporariesBelow(destinations[0]), "");
}

TEST(CopyCommand, CopiesTheTreeIntoThreeDestinationsWithALinePerCopy) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one", "two", "three"});
  const RunResult run = copyTool(
      scratch, {"-v", scratch.file("CARD"), destinations[0], destinations[1], destinations[2]});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  for (const std::string& destination : destinations) {
    SCOPED_TRACE(destination);
    EXPECT_EQ(treeDifferences(scratch.file("CARD"), destination + "/CARD"), "");
    EXPECT_EQ(temporariesBelow(destination), "");
    // One line per file and destination; a name with a newline is escaped as in checksum lines.
    EXPECT_NE(run.out.find("verified: " + destination + "/CARD/a.txt\n"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("verified: " + destination + "/CARD/CLIP/" + kCjkName + "\n"),
              std::string::npos);
    EXPECT_NE(run.out.find("\\verified: " + destination + "/CARD/two\\nlines.txt\n"),
              std::string::npos)
        << run.out;
  }
  std::size_t verifiedLines = 0;
  for (std::size_t at = 0; (at = run.out.find("verified: ", at)) != std::string::npos; ++at) {
    ++verifiedLines;
  }
  EXPECT_EQ(verifiedLines, 7U * 3U);
}

TEST(CopyCommand, KeepsModificationTimesAndPermissions) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  ASSERT_EQ(runShell("cd " + shellQuote(scratch.file("CARD")) +
                     " && touch -d '2001-02-03 04:05:06.123456789 UTC' a.txt && chmod 600 a.txt && "
                     "chmod 755 CLIP/big.bin && touch -d '1999-12-31 23:59:59 UTC' CLIP/big.bin")
                .status,
            0);
  const auto destinations = makeFolders(scratch, {"shuttle"});
  const RunResult run = copyTool(scratch, {scratch.file("CARD"), destinations[0]});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string source = timesAndModes(scratch.file("CARD"));
  // 2001-02-03 04:05:06 UTC is 981173106 s after the epoch (date -u -d ... +%s).
  EXPECT_NE(source.find("a.txt 981173106.123456789"), std::string::npos) << source;
  EXPECT_NE(source.find("CLIP/big.bin 946684799.0000000000 755\n"), std::string::npos) << source;
  EXPECT_EQ(timesAndModes(destinations[0] + "/CARD"), source);
}

TEST(CopyCommand, CopiesASingleFileIntoEveryDestination) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("A001C002.mov", pseudoRandomBytes(1 << 20, 3));
  ASSERT_EQ(runShell("touch -d '2020-05-06 07:08:09' " + shellQuote(file)).status, 0);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  const RunResult run = copyTool(scratch, {"-v", file, destinations[0], destinations[1]});
  EXPECT_EQ(run.status, 0) << run.err;
  for (const std::string& destination : destinations) {
    const std::string copy = destination + "/A001C002.mov";
    EXPECT_EQ(runShell("cmp " + shellQuote(file) + " " + shellQuote(copy)).status, 0);
    EXPECT_EQ(runShell("stat -c %Y " + shellQuote(copy)).out,
              runShell("stat -c %Y " + shellQuote(file)).out);
    EXPECT_NE(run.out.find("verified: " + copy + "\n"), std::string::npos) << run.out;
  }
}

TEST(CopyCommand, JsonGivesSourceChecksumsAndEveryDestinationsStatus) {
  SKIP_WITHOUT_TOOL();
  if (!haveProgram("xxhsum") || !haveProgram("md5sum")) GTEST_SKIP() << "xxhsum or md5sum";
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  const RunResult run = copyTool(scratch, {"--json", "-a", "xxh64,md5", scratch.file("CARD"),
                                           destinations[0], destinations[1]});
  EXPECT_EQ(run.status, 0) << run.err;
  const Json document = parseJson(run);
  EXPECT_EQ(document["algorithms"], Json::array({"xxh64", "md5"}));
  EXPECT_EQ(document["ok"], true);
  ASSERT_EQ(document["destinations"].size(), 2U);
  for (std::size_t d = 0; d < 2; ++d) {
    const Json& destination = document["destinations"][d];
    EXPECT_EQ(destination["root"], destinations[d] + "/CARD");
    EXPECT_EQ(destination["verified"], 7);
    EXPECT_EQ(destination["failed"], 0);
    EXPECT_EQ(destination["error"], nullptr);
    EXPECT_EQ(destination["bytesWritten"],
              fs::file_size(scratch.file("CARD/CLIP/big.bin")) + 300000 + 5 + 7 + 6 + 5);
    EXPECT_EQ(destination["bytesVerified"], destination["bytesWritten"]);
    ASSERT_EQ(destination["manifests"].size(), 1U);
  }
  for (const std::string& relative : std::vector<std::string>{"a.txt", "empty.bin", "CLIP/big.bin",
                                                              "CLIP/" + kCjkName, kNewlineName}) {
    SCOPED_TRACE(relative);
    const Json* file = fileEntry(document, relative);
    ASSERT_NE(file, nullptr);
    const std::string path = scratch.file("CARD/" + relative);
    EXPECT_EQ((*file)["size"], fs::file_size(path));
    EXPECT_EQ((*file)["checksums"]["xxh64"], checksumFromProgram("xxhsum -H1", path));
    EXPECT_EQ((*file)["checksums"]["md5"], checksumFromProgram("md5sum", path));
    EXPECT_EQ((*file)["error"], nullptr);
    ASSERT_EQ((*file)["copies"].size(), 2U);
    for (std::size_t d = 0; d < 2; ++d) {
      EXPECT_EQ((*file)["copies"][d]["destination"], destinations[d] + "/CARD");
      EXPECT_EQ((*file)["copies"][d]["path"], destinations[d] + "/CARD/" + relative);
      EXPECT_EQ((*file)["copies"][d]["status"], "verified");
    }
  }
  const Json* folder = fileEntry(document, "EMPTY/ALSO_EMPTY");
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ((*folder)["kind"], "folder");
}

TEST(CopyCommand, RerunCountsIdenticalFilesAsAlreadyPresentAndWritesNothing) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one"});
  ASSERT_EQ(copyTool(scratch, {scratch.file("CARD"), destinations[0]}).status, 0);
  const std::string before = timesAndModes(destinations[0] + "/CARD");
  const RunResult again = copyTool(scratch, {"--json", scratch.file("CARD"), destinations[0]});
  EXPECT_EQ(again.status, 0) << again.err;
  const Json document = parseJson(again);
  EXPECT_EQ(document["destinations"][0]["alreadyPresent"], 7);
  EXPECT_EQ(document["destinations"][0]["verified"], 0);
  EXPECT_EQ(document["destinations"][0]["bytesWritten"], 0);
  for (const std::string& line : statuses(document)) {
    EXPECT_TRUE(line.ends_with("-> alreadyPresent")) << line;
  }
  EXPECT_EQ(timesAndModes(destinations[0] + "/CARD"), before);
}

TEST(CopyCommand, NeverReplacesADifferentFileAtTheTarget) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one"});
  // Same size as the source's "hello", other bytes: only the checksums tell them apart.
  const std::string existing = scratch.writeText("one/CARD/a.txt", "HELLO");
  const RunResult run = copyTool(scratch, {scratch.file("CARD"), destinations[0]});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(readFile(existing), "HELLO");
  EXPECT_NE(run.err.find("corvane-checksum: " + existing +
                         ": a different file is at the target; not replaced"),
            std::string::npos)
      << run.err;
  // Everything else was copied.
  EXPECT_EQ(runShell("cmp " + shellQuote(scratch.file("CARD/CLIP/big.bin")) + " " +
                     shellQuote(destinations[0] + "/CARD/CLIP/big.bin"))
                .status,
            0);

  const RunResult overwrite =
      copyTool(scratch, {"--overwrite", "--json", scratch.file("CARD"), destinations[0]});
  EXPECT_EQ(overwrite.status, 0) << overwrite.err;
  EXPECT_EQ(readFile(existing), "hello");
  EXPECT_EQ(treeDifferences(scratch.file("CARD"), destinations[0] + "/CARD"), "");
  EXPECT_EQ(parseJson(overwrite)["ok"], true);
}

TEST(CopyCommand, SkipsSymbolicLinksAndSpecialFilesAndFails) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const std::string card = scratch.file("CARD");
  ASSERT_EQ(runShell("cd " + shellQuote(card) +
                     " && ln -s a.txt link.txt && ln -s CLIP folder-link && mkfifo pipe")
                .status,
            0);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  const RunResult run =
      copyTool(scratch, {"-v", "--summary", card, destinations[0], destinations[1]});
  EXPECT_EQ(run.status, 1);
  for (const std::string name : {"link.txt", "folder-link", "pipe"}) {
    SCOPED_TRACE(name);
    EXPECT_NE(run.out.find("skipped: " + card + "/" + name + "\n"), std::string::npos) << run.out;
    EXPECT_NE(run.err.find("corvane-checksum: " + card + "/" + name + ": "), std::string::npos)
        << run.err;
    for (const std::string& destination : destinations) {
      EXPECT_FALSE(fs::exists(fs::symlink_status(destination + "/CARD/" + name)));
    }
  }
  EXPECT_NE(run.err.find(card + "/link.txt: symbolic link skipped (not copied)\n"),
            std::string::npos)
      << run.err;
  // The regular files all arrived.
  EXPECT_EQ(runShell("cmp " + shellQuote(card + "/a.txt") + " " +
                     shellQuote(destinations[1] + "/CARD/a.txt"))
                .status,
            0);
  EXPECT_NE(run.err.find(destinations[0] + "/CARD: 7 verified, 0 already present, 0 written, 0 "
                                           "failed, 3 skipped, "),
            std::string::npos)
      << run.err;
}

TEST(CopyCommand, RefusesImpossibleDestinationsBeforeWritingAnything) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const std::string card = scratch.file("CARD");
  const auto destinations = makeFolders(scratch, {"one"});
  struct Refusal {
    std::vector<std::string> operands;
    std::string message;
  };
  const std::vector<Refusal> refusals = {
      {{card, destinations[0], card + "/CLIP"}, "a destination cannot lie inside the source"},
      {{card, card}, "the source itself cannot be a destination"},
      {{card, destinations[0], destinations[0] + "/./"}, "the same destination is named twice"},
      {{card, scratch.file("missing")}, "No such file or directory"},
      {{card, card + "/a.txt"}, "not a folder"},
      {{scratch.file("nothing"), destinations[0]}, "No such file or directory"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.message);
    const RunResult run = copyTool(scratch, refusal.operands);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(refusal.message), std::string::npos) << run.err;
    EXPECT_TRUE(run.err.starts_with("corvane-checksum: ")) << run.err;
  }
  // Nothing was written anywhere, not even a history in the source.
  EXPECT_TRUE(fs::is_empty(destinations[0]));
  EXPECT_FALSE(fs::exists(card + "/ascmhl"));
  EXPECT_FALSE(fs::exists(card + "/CLIP/CARD"));
}

TEST(CopyCommand, RejectsBadOptionsAsUsageErrors) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one"});
  const std::string card = scratch.file("CARD");
  const std::vector<std::vector<std::string>> usages = {
      {"--verify", "sometimes", card, destinations[0]},
      {"-a", "sha256", card, destinations[0]},  // no ASC MHL format: needs --no-mhl
      {"-a", "nosuch", card, destinations[0]},
      {"--author-email", "a@b.c", card, destinations[0]},
      {card},
  };
  for (const auto& arguments : usages) {
    const RunResult run = copyTool(scratch, arguments);
    EXPECT_EQ(run.status, 2) << arguments[0] << ": " << run.err;
    EXPECT_TRUE(run.err.starts_with("corvane-checksum: ")) << run.err;
  }
  EXPECT_TRUE(fs::is_empty(destinations[0]));
}

TEST(CopyCommand, NoMhlCopiesWithAnyAlgorithmAndRecordsNothing) {
  SKIP_WITHOUT_TOOL();
  if (!haveProgram("sha256sum")) GTEST_SKIP() << "sha256sum";
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one"});
  const RunResult run = copyTool(
      scratch, {"--no-mhl", "--json", "-a", "sha256", scratch.file("CARD"), destinations[0]});
  EXPECT_EQ(run.status, 0) << run.err;
  const Json document = parseJson(run);
  const Json* big = fileEntry(document, "CLIP/big.bin");
  ASSERT_NE(big, nullptr);
  EXPECT_EQ((*big)["checksums"]["sha256"],
            checksumFromProgram("sha256sum", scratch.file("CARD/CLIP/big.bin")));
  EXPECT_FALSE(fs::exists(destinations[0] + "/CARD/ascmhl"));
  EXPECT_FALSE(fs::exists(scratch.file("CARD/ascmhl")));
  EXPECT_EQ(treeDifferences(scratch.file("CARD"), destinations[0] + "/CARD"), "");
}

TEST(CopyCommand, VerifySizeOrNoneReportsCopiesAsWrittenWithoutReadingThemBack) {
  SKIP_WITHOUT_TOOL();
  for (const std::string mode : {"size", "none"}) {
    SCOPED_TRACE(mode);
    ScratchDirectory scratch;
    makeCard(scratch);
    const auto destinations = makeFolders(scratch, {"one"});
    const RunResult run =
        copyTool(scratch, {"--verify", mode, "--json", scratch.file("CARD"), destinations[0]});
    EXPECT_EQ(run.status, 0) << run.err;
    const Json document = parseJson(run);
    EXPECT_EQ(document["destinations"][0]["written"], 7);
    EXPECT_EQ(document["destinations"][0]["verified"], 0);
    EXPECT_EQ(document["destinations"][0]["bytesVerified"], 0);
    EXPECT_EQ(treeDifferences(scratch.file("CARD"), destinations[0] + "/CARD"), "");
  }
}

TEST(CopyCommand, SummaryGivesOneLinePerDestination) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  ASSERT_EQ(copyTool(scratch, {scratch.file("CARD"), destinations[0]}).status, 0);
  const RunResult run =
      copyTool(scratch, {"--summary", scratch.file("CARD"), destinations[0], destinations[1]});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  // 5 MiB + 300000 + 23 bytes = 5,542,903 bytes: 5.3 MiB.
  EXPECT_NE(run.err.find("corvane-checksum: " + destinations[0] +
                         "/CARD: 0 verified, 7 already present, 0 written, 0 failed, 0 skipped, "
                         "0 B written, 5.3 MiB read back\n"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("corvane-checksum: " + destinations[1] +
                         "/CARD: 7 verified, 0 already present, 0 written, 0 failed, 0 skipped, "
                         "5.3 MiB written, 5.3 MiB read back\n"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("corvane-checksum: 7 files, 4 folders, 5.3 MiB to 2 destinations in "),
            std::string::npos)
      << run.err;
  EXPECT_TRUE(run.err.ends_with(": ok\n")) << run.err;
}

TEST(CopyCommand, RecordsATransferGenerationValidAgainstTheSchemas) {
  SKIP_WITHOUT_TOOL();
  if (!haveProgram("xmllint")) GTEST_SKIP() << "xmllint";
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  const std::string card = scratch.file("CARD");
  const RunResult run = copyTool(scratch, {card, destinations[0], destinations[1]});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const std::string& root : {destinations[0] + "/CARD", destinations[1] + "/CARD", card}) {
    SCOPED_TRACE(root);
    const std::vector<fs::path> manifests = manifestsIn(root);
    ASSERT_EQ(manifests.size(), 1U);
    for (const auto& [file, schema] : {std::pair{manifests[0], std::string("ASCMHL.xsd")},
                                       std::pair{fs::path(root) / "ascmhl" / "ascmhl_chain.xml",
                                                 std::string("ASCMHLDirectory.xsd")}}) {
      const RunResult valid =
          runShell("xmllint --noout --schema " + shellQuote(shippedMhlSchema(schema)) + " " +
                   shellQuote(file.string()) + " 2>&1");
      EXPECT_EQ(valid.status, 0) << valid.out;
    }
    EXPECT_EQ(xpathText("string(//*[local-name()='processinfo']/*[local-name()='process'])",
                        manifests[0].string()),
              "transfer\n");
    // The recorded xxh64 of a file is what xxhsum computes.
    const std::string recorded = xpathText(
        "string(//*[local-name()='hash'][*[local-name()='path']='CLIP/big.bin']/"
        "*[local-name()='xxh64'])",
        manifests[0].string());
    if (haveProgram("xxhsum")) {
      EXPECT_EQ(recorded, checksumFromProgram("xxhsum -H1", card + "/CLIP/big.bin") + "\n");
    }
    const RunResult verify = runShell(toolCommand({"mhl", "verify", root}) + " 2>&1");
    EXPECT_EQ(verify.status, 0) << verify.out;
  }

  // Without the source's record: the next destination gets one, the source keeps its one.
  const auto third = makeFolders(scratch, {"three"});
  ASSERT_EQ(copyTool(scratch, {"--no-source-mhl", card, third[0]}).status, 0);
  EXPECT_EQ(manifestsIn(card).size(), 1U);
  EXPECT_FALSE(manifestsIn(third[0] + "/CARD").empty());
  EXPECT_EQ(
      runShell(toolCommand({"mhl", "verify", third[0] + "/CARD"}) + " >/dev/null 2>&1").status, 0);
}

// One of three destinations fails after `afterBytes` bytes with `errnoName`; the others must
// receive everything, the failed one only complete files, and a rerun without the fault must
// finish it.
void expectOnlyTheFailingDestinationFails(const std::string& errnoName, const std::string& reason) {
  ScratchDirectory scratch;
  makeCard(scratch);
  const std::string card = scratch.file("CARD");
  const auto destinations = makeFolders(scratch, {"one", "two", "three"});
  const std::string prefix = faultShimEnvironment(
      {.prefix = destinations[1], .afterBytes = 200000, .errnoName = errnoName});
  const RunResult run = copyTool(
      scratch, {"--json", card, destinations[0], destinations[1], destinations[2]}, prefix);
  EXPECT_EQ(run.status, 1) << run.err;
  const Json document = parseJson(run);
  EXPECT_EQ(document["ok"], false);
  const Json& failed = document["destinations"][1];
  ASSERT_TRUE(failed["error"].is_string()) << run.out;
  EXPECT_NE(failed["error"].get<std::string>().find(reason), std::string::npos) << failed;
  EXPECT_GT(failed["failed"].get<int>(), 0);
  EXPECT_NE(run.err.find("corvane-checksum: " + destinations[1] + "/CARD: "), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
  for (const std::size_t d : {0U, 2U}) {
    EXPECT_EQ(document["destinations"][d]["verified"], 7);
    EXPECT_EQ(document["destinations"][d]["error"], nullptr);
    EXPECT_EQ(treeDifferences(card, destinations[d] + "/CARD"), "");
  }
  for (const std::string& line : statuses(document)) {
    EXPECT_TRUE(line.find(" verified failed verified") != std::string::npos ||
                line.find(" verified verified verified") != std::string::npos)
        << line;
  }
  // What arrived under a final name in the failed destination is complete.
  for (const std::string& destination : destinations) {
    EXPECT_EQ(temporariesBelow(destination), "");
  }
  const RunResult partial = runShell("cd " + shellQuote(destinations[1] + "/CARD") +
                                     " && find . -path ./ascmhl -prune -o -type f -exec cmp {} " +
                                     shellQuote(card) + "/{} \\; 2>&1");
  EXPECT_EQ(partial.out, "");

  // The same command again, the fault gone: the failed destination is finished, the others are
  // found complete.
  const RunResult again =
      copyTool(scratch, {"--json", card, destinations[0], destinations[1], destinations[2]});
  EXPECT_EQ(again.status, 0) << again.err;
  const Json after = parseJson(again);
  EXPECT_EQ(after["destinations"][0]["alreadyPresent"], 7);
  EXPECT_EQ(after["destinations"][2]["alreadyPresent"], 7);
  EXPECT_EQ(treeDifferences(card, destinations[1] + "/CARD"), "");
  EXPECT_EQ(runShell(toolCommand({"mhl", "verify", destinations[1] + "/CARD"}) + " >/dev/null 2>&1")
                .status,
            0);
}

TEST(CopyCommand, ADestinationThatRunsOutOfSpaceFailsAndTheOthersGoOn) {
  SKIP_WITHOUT_TOOL();
  SKIP_WITHOUT_FAULT_SHIM();
  expectOnlyTheFailingDestinationFails("ENOSPC", "No space left on device");
}

TEST(CopyCommand, ADestinationThatBecomesUnwritableFailsAndTheOthersGoOn) {
  SKIP_WITHOUT_TOOL();
  SKIP_WITHOUT_FAULT_SHIM();
  // Root ignores permission bits, so the refusal comes from the shim, as a read-only remount
  // would give it.
  expectOnlyTheFailingDestinationFails("EROFS", "Read-only file system");
}

TEST(CopyCommand, ARemovedDestinationFailsAndTheOthersGoOn) {
  SKIP_WITHOUT_TOOL();
  SKIP_WITHOUT_FAULT_SHIM();
  expectOnlyTheFailingDestinationFails("EIO", "Input/output error");
}

TEST(CopyCommand, ASourceFileChangedWhileReadFailsOnEveryDestination) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string card = scratch.file("CARD");
  scratch.writeText("CARD/small.txt", "steady");
  // 1 GiB of zeros hashed with MD5 takes over a second here: the truncation lands mid-read.
  ASSERT_EQ(runShell("truncate -s 1G " + shellQuote(card + "/big.bin")).status, 0);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  // Once the tool's descriptor of big.bin is past its first bytes, the file shrinks to 1 MiB.
  const std::string script =
      "cd " + shellQuote(scratch.path().string()) + " || exit 9\n" +
      toolCommand({"copy", "--json", "-a", "md5", "--no-source-mhl", card, destinations[0],
                   destinations[1]}) +
      " >out.txt 2>err.txt &\n"
      "pid=$!\n"
      "target=\"$PWD/CARD/big.bin\"\n"
      "caught=no\n"
      "for i in $(seq 1 200000); do\n"
      "  kill -0 $pid 2>/dev/null || break\n"
      "  for fd in /proc/$pid/fd/*; do\n"
      "    [ \"$(readlink \"$fd\" 2>/dev/null)\" = \"$target\" ] || continue\n"
      "    pos=$(sed -n 's/^pos:[[:space:]]*//p' /proc/$pid/fdinfo/${fd##*/} 2>/dev/null)\n"
      "    if [ -n \"$pos\" ] && [ \"$pos\" -gt 0 ]; then caught=yes; break 2; fi\n"
      "  done\n"
      "done\n"
      "[ $caught = yes ] && truncate -s 1M CARD/big.bin\n"
      "wait $pid\n"
      "echo \"$? $caught\"\n";
  const RunResult shell = runShell("bash -c " + shellQuote(script));
  ASSERT_EQ(shell.out, "1 yes\n") << "the change did not land while the file was read";
  const std::string err = readFile(scratch.file("err.txt"));
  EXPECT_EQ(err, "corvane-checksum: " + card + "/big.bin: file changed while being read\n");
  RunResult out;
  out.out = readFile(scratch.file("out.txt"));
  const Json document = parseJson(out);
  const Json* big = fileEntry(document, "big.bin");
  ASSERT_NE(big, nullptr);
  EXPECT_EQ((*big)["error"], "file changed while being read");
  for (const std::string& destination : destinations) {
    EXPECT_FALSE(fs::exists(destination + "/CARD/big.bin"));
    EXPECT_EQ(temporariesBelow(destination), "");
    EXPECT_EQ(readFile(destination + "/CARD/small.txt"), "steady");
  }
  for (const Json& copy : (*big)["copies"]) EXPECT_EQ(copy["status"], "failed");
  EXPECT_EQ(statuses(document), (std::vector<std::string>{"big.bin -> failed failed",
                                                          "small.txt -> verified verified"}));
}

TEST(CopyCommand, ProgressLineAndSummaryWhenStderrIsATerminal) {
  SKIP_WITHOUT_TOOL();
  if (!haveProgram("script") || runShell("script -qec true /dev/null </dev/null").status != 0) {
    GTEST_SKIP() << "util-linux script is not available";
  }
  ScratchDirectory scratch;
  // 128 MiB hashed with MD5 twice (copy, read-back): long enough for a few redraws.
  ASSERT_EQ(runShell("mkdir -p " + shellQuote(scratch.file("CARD")) + " && truncate -s 128M " +
                     shellQuote(scratch.file("CARD/big.bin")))
                .status,
            0);
  const auto destinations = makeFolders(scratch, {"one", "two"});
  const auto underTerminal = [&](const std::vector<std::string>& extra) {
    std::vector<std::string> arguments = {"copy", "-a", "md5", "--no-mhl"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    arguments.insert(arguments.end(), {scratch.file("CARD"), destinations[0], destinations[1]});
    return runShell("timeout 60 script -qec " + shellQuote(toolCommand(arguments)) +
                    " /dev/null </dev/null");
  };
  const RunResult shown = underTerminal({});
  EXPECT_EQ(shown.status, 0) << shown.out;
  // A redraw: a carriage return that starts a line of the copy or the read-back, with a column
  // for each destination.
  EXPECT_TRUE(shown.out.find("\rcopying ") != std::string::npos ||
              shown.out.find("\rreading back | ") != std::string::npos)
      << shown.out;
  EXPECT_NE(shown.out.find(" | " + destinations[1] + " "), std::string::npos) << shown.out;
  // The summary comes though --summary was not given.
  EXPECT_NE(shown.out.find("corvane-checksum: " + destinations[0] +
                           "/CARD: 1 verified, 0 already present, "),
            std::string::npos)
      << shown.out;
  EXPECT_NE(shown.out.find(": ok\r\n"), std::string::npos) << shown.out;

  const RunResult hidden = underTerminal({"--no-progress"});
  EXPECT_EQ(hidden.status, 0) << hidden.out;
  EXPECT_EQ(hidden.out, "");
}

TEST(CopyCommand, AReportThatCannotBeWrittenGivesStatus4) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const auto destinations = makeFolders(scratch, {"one"});
  const RunResult run = runShell(
      toolCommand({"copy", "--json", scratch.file("CARD"), destinations[0]}) + " >/dev/full",
      scratch.file("stderr.txt"));
  EXPECT_EQ(run.status, 4);
  EXPECT_EQ(run.err, "corvane-checksum: write error: No space left on device\n");
  // The copy itself is complete: only the report was lost.
  EXPECT_EQ(treeDifferences(scratch.file("CARD"), destinations[0] + "/CARD"), "");
}

}  // namespace
