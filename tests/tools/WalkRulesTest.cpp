// End-to-end tests of what corvane-checksum reads and what it only reports, whatever the command:
// named pipes and devices given by name are read to their end as sha256sum reads them; FIFOs,
// sockets and devices met in a walk are never opened; dangling links and link loops are blamed on
// the link itself; unreadable folders hide nothing as missing or new; folders present on one side
// of a compare are reported; a reader that goes away ends a long run by SIGPIPE. The built tool
// runs as a subprocess (under `timeout`, so that a run blocked on a FIFO fails instead of
// hanging); checksums come from md5sum.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::haveProgram;
using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;
using corvane::testsupport::toolCommand;

#define SKIP_WITHOUT_PROGRAMS()                                                      \
  do {                                                                               \
    SKIP_WITHOUT_TOOL();                                                             \
    if (!haveProgram("md5sum") || !haveProgram("timeout") || !haveProgram("bash")) { \
      GTEST_SKIP() << "md5sum, timeout (coreutils) or bash not installed";           \
    }                                                                                \
  } while (false)

// Longer than any run here takes; a run still going then is blocked (exit status 124).
const std::string kTimeout = "timeout 20 ";
constexpr int kTimedOut = 124;

const std::string kNotRegular = "not a regular file, skipped";
const std::string kLinkSkipped = "symbolic link skipped (use --follow-symlinks)";

// One line of the tool on stderr about `path`.
std::string report(const std::string& path, const std::string& text) {
  return "corvane-checksum: " + path + ": " + text + "\n";
}

// Runs the tool in `directory` under `timeout`, standard input empty; `prefix` goes between
// `timeout` and the tool (e.g. setpriv).
RunResult runIn(const ScratchDirectory& directory, const std::vector<std::string>& arguments,
                const std::string& prefix = "") {
  return runShell("cd " + shellQuote(directory.path().string()) + " && " +
                      toolCommand(arguments, kTimeout + prefix) + " </dev/null",
                  directory.path() / "stderr.txt");
}

// What md5sum prints for `names`, run in `directory`.
std::string md5sumOutput(const ScratchDirectory& directory, const std::vector<std::string>& names) {
  std::string command = "cd ";
  command += shellQuote(directory.path().string());
  command += " && md5sum";
  for (const std::string& name : names) {
    command += ' ';
    command += shellQuote(name);
  }
  return runShell(command + " 2>/dev/null").out;
}

// The MD5 md5sum gives for `bytes`.
std::string md5Of(const std::string& bytes) {
  const std::string line = runShell("printf %s " + shellQuote(bytes) + " | md5sum").out;
  return line.substr(0, line.find(' '));
}

// The closing line of --summary, with any time and rate.
std::regex summaryLine(const std::string& files, const std::string& bytes,
                       const std::string& errors, const std::string& skipped) {
  return std::regex("corvane-checksum: " + files + ", " + bytes +
                    " in [0-9]+\\.[0-9]{2} s \\([^)]*/s\\), " + errors +
                    (skipped.empty() ? "" : ", " + skipped) + "\n");
}

// The last line of `text` (which ends with a newline), newline included.
std::string lastLine(const std::string& text) {
  const auto end = text.size() >= 2 ? text.rfind('\n', text.size() - 2) : std::string::npos;
  return end == std::string::npos ? text : text.substr(end + 1);
}

// Everything of `text` but its last line.
std::string allButLastLine(const std::string& text) {
  return text.substr(0, text.size() - lastLine(text).size());
}

// The prefix that runs the tool without root's right to read any file: nothing when the tests do
// not run as root, setpriv to the user "nobody" (65534) when they do; nothing at all when that
// is not possible.
std::optional<std::string> unprivilegedPrefix() {
  if (::geteuid() != 0) return std::string();
  if (!haveProgram("setpriv")) return std::nullopt;
  return std::string("setpriv --reuid=65534 --regid=65534 --clear-groups ");
}

// Lets everyone read every file and enter every folder under `root` (root included).
void openToEveryone(const fs::path& root) {
  const auto folders = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                       fs::perms::others_read | fs::perms::others_exec;
  const auto files = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                     fs::perms::others_read;
  fs::permissions(root, folders);
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_symlink()) continue;
    fs::permissions(entry.path(), entry.is_directory() ? folders : files);
  }
}

// `folder`/a.txt and `folder`/z.txt around the special files: a FIFO that no one ever writes
// to, a socket and (when this process may create device nodes) a character device like
// /dev/null. Returns the names of the special files in walk order.
std::vector<std::string> writeTreeWithSpecialFiles(const ScratchDirectory& scratch,
                                                   const std::string& folder) {
  scratch.writeText(folder + "/a.txt", "first");
  scratch.writeText(folder + "/z.txt", "last");
  std::vector<std::string> specials;
  if (::mknod(scratch.file(folder + "/device").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) {
    specials.push_back(folder + "/device");
  }
  EXPECT_EQ(::mkfifo(scratch.file(folder + "/fifo").c_str(), 0644), 0);
  specials.push_back(folder + "/fifo");
  EXPECT_EQ(::mknod(scratch.file(folder + "/socket").c_str(), S_IFSOCK | 0644, 0), 0);
  specials.push_back(folder + "/socket");
  return specials;
}

// ----- named pipes and devices given by name ---------------------------------------------------

TEST(WalkRules, NamedPipeGivenByNameIsReadToItsEndAsMd5sumReadsIt) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  ASSERT_EQ(::mkfifo(scratch.file("p").c_str(), 0644), 0);
  const std::string expected = md5Of("hello") + "  p\n";
  ASSERT_EQ(expected, "5d41402abc4b2a76b9719d911017c592  p\n");
  // A name on the command line is read as it is, with or without -r, also from a list.
  for (const std::string& command :
       {toolCommand({"hash", "-a", "md5", "p"}, kTimeout),
        toolCommand({"hash", "-r", "-a", "md5", "p"}, kTimeout),
        "echo p | " + toolCommand({"hash", "-a", "md5", "--files-from", "-"}, kTimeout)}) {
    SCOPED_TRACE(command);
    // The writer opens the pipe a second after the tool started (and gives up when no one reads
    // it, so that a tool that never opens it cannot hang the test).
    const RunResult run = runShell("(cd " + shellQuote(scratch.path().string()) +
                                       " && { timeout 20 sh -c 'sleep 1; printf hello > p' "
                                       ">/dev/null 2>&1 & } && " +
                                       command + "; status=$?; wait; exit $status)",
                                   scratch.path() / "stderr.txt");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, expected);
    EXPECT_EQ(run.err, "");
  }
}

TEST(WalkRules, DashStaysStandardInput) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("-file", "not this");
  const RunResult run =
      runShell("cd " + shellQuote(scratch.path().string()) + " && printf hello | " +
                   toolCommand({"hash", "-a", "md5", "-"}, kTimeout),
               scratch.path() / "stderr.txt");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, runShell("printf hello | md5sum -").out);
  EXPECT_EQ(run.out, md5Of("hello") + "  -\n");
}

TEST(WalkRules, CharacterDeviceGivenByNameGivesTheChecksumOfItsBytes) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  const RunResult run = runIn(scratch, {"hash", "-a", "md5", "/dev/null"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, runShell("md5sum /dev/null").out);
  EXPECT_EQ(run.out, "d41d8cd98f00b204e9800998ecf8427e  /dev/null\n");
  EXPECT_EQ(run.err, "");
}

// ----- special files met in a walk -------------------------------------------------------------

TEST(WalkRules, SpecialFilesInARecursiveHashAreSkippedUnopenedWithANotice) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  const std::vector<std::string> specials = writeTreeWithSpecialFiles(scratch, "tree");
  std::string notices;
  for (const std::string& special : specials) notices += report(special, kNotRegular);
  const std::string skipped = std::to_string(specials.size()) + " skipped";

  const RunResult run = runIn(scratch, {"hash", "-r", "-a", "md5", "--summary", "tree"});
  ASSERT_NE(run.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(run.status, 0) << run.err;  // a notice, not an error
  EXPECT_EQ(run.out, md5sumOutput(scratch, {"tree/a.txt", "tree/z.txt"}));
  EXPECT_EQ(allButLastLine(run.err), notices);
  EXPECT_TRUE(
      std::regex_match(lastLine(run.err), summaryLine("2 files", "9 bytes", "0 errors", skipped)))
      << run.err;
}

TEST(WalkRules, StrictCountsSkippedSpecialFilesAsErrors) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  const std::vector<std::string> specials = writeTreeWithSpecialFiles(scratch, "tree");
  std::string notices;
  for (const std::string& special : specials) notices += report(special, kNotRegular);
  const std::string count = std::to_string(specials.size());

  const RunResult run =
      runIn(scratch, {"hash", "-r", "--strict", "-a", "md5", "--summary", "tree"});
  ASSERT_NE(run.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(run.status, 1) << run.err;
  EXPECT_EQ(run.out, md5sumOutput(scratch, {"tree/a.txt", "tree/z.txt"}));
  EXPECT_EQ(allButLastLine(run.err), notices);
  EXPECT_TRUE(std::regex_match(
      lastLine(run.err), summaryLine("2 files", "9 bytes", count + " errors", count + " skipped")))
      << run.err;
}

TEST(WalkRules, HashJsonListsSkippedSpecialFilesAndCountsThem) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  const std::vector<std::string> specials = writeTreeWithSpecialFiles(scratch, "tree");
  const RunResult run = runIn(scratch, {"hash", "-r", "--json", "-a", "md5", "tree"});
  ASSERT_NE(run.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(run.status, 0) << run.err;
  const nlohmann::json document = nlohmann::json::parse(run.out);
  const nlohmann::json& files = document.at("files");
  ASSERT_EQ(files.size(), 2 + specials.size()) << run.out;
  EXPECT_EQ(files.front().at("path"), "tree/a.txt");
  EXPECT_EQ(files.front().at("checksums").at("md5"), md5Of("first"));
  for (std::size_t i = 0; i < specials.size(); ++i) {
    EXPECT_EQ(files[1 + i], nlohmann::json({{"path", specials[i]}, {"skipped", kNotRegular}}));
  }
  EXPECT_EQ(files.back().at("path"), "tree/z.txt");
  EXPECT_EQ(files.back().at("checksums").at("md5"), md5Of("last"));
  const nlohmann::json& totals = document.at("totals");
  EXPECT_EQ(totals.at("skipped"), specials.size());
  EXPECT_EQ(totals.at("hashed"), 2);
  EXPECT_EQ(totals.at("errors"), 0);
  EXPECT_EQ(totals.at("bytes"), 9);
}

TEST(WalkRules, CompositeLeavesSpecialFilesOutUnopenedAndFailsWithStrict) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("tree/a.txt", "first");
  scratch.writeText("tree/z.txt", "last");
  const RunResult plain = runIn(scratch, {"composite", "-a", "md5", "tree"});
  ASSERT_EQ(plain.status, 0) << plain.err;
  fs::remove_all(scratch.path() / "tree");
  const std::vector<std::string> specials = writeTreeWithSpecialFiles(scratch, "tree");
  std::string notices;
  for (const std::string& special : specials) notices += report(special, kNotRegular);
  const std::string count = std::to_string(specials.size());

  // The same composite as without them.
  const RunResult run = runIn(scratch, {"composite", "-a", "md5", "--summary", "tree"});
  ASSERT_NE(run.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, plain.out);
  EXPECT_EQ(allButLastLine(run.err), notices);
  EXPECT_TRUE(std::regex_match(lastLine(run.err),
                               summaryLine("2 files", "9 bytes", "0 errors", count + " skipped")))
      << run.err;

  const RunResult strict = runIn(scratch, {"composite", "--strict", "-a", "md5", "tree"});
  ASSERT_NE(strict.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(strict.status, 1);
  EXPECT_EQ(strict.out, "");
  EXPECT_EQ(strict.err, notices);
}

TEST(WalkRules, CompareSkipsSpecialFilesOfBothTreesUnopened) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  const std::vector<std::string> sourceSpecials = writeTreeWithSpecialFiles(scratch, "src");
  const std::vector<std::string> copySpecials = writeTreeWithSpecialFiles(scratch, "dst");
  std::string notices;
  for (std::size_t i = 0; i < sourceSpecials.size(); ++i) {
    notices += report(sourceSpecials[i], kNotRegular);
    if (i < copySpecials.size()) notices += report(copySpecials[i], kNotRegular);
  }
  const RunResult run = runIn(scratch, {"compare", "-v", "src", "dst"});
  ASSERT_NE(run.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(
      run.out,
      "ok: a.txt\nok: z.txt\ncompared 2 files: 2 matched, 0 missing, 0 new, 0 size differs, 0 "
      "checksum differs, 0 unreadable\n");
  EXPECT_EQ(run.err, notices);
}

TEST(WalkRules, CompareCountsSkippedEntriesInTheSummaryLine) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("src/a.txt", "first");
  scratch.writeText("dst/a.txt", "first");
  ASSERT_EQ(::mkfifo(scratch.file("src/fifo").c_str(), 0644), 0);
  ASSERT_EQ(::mkfifo(scratch.file("dst/fifo").c_str(), 0644), 0);
  const RunResult run = runIn(scratch, {"compare", "--summary", "src", "dst"});
  ASSERT_NE(run.status, kTimedOut) << "the walk blocked on the FIFO";
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(allButLastLine(run.err),
            report("src/fifo", kNotRegular) + report("dst/fifo", kNotRegular));
  // Both files are read: 2 files, 10 bytes; one skipped entry on each side.
  EXPECT_TRUE(std::regex_match(lastLine(run.err),
                               summaryLine("2 files", "10 bytes", "0 errors", "2 skipped")))
      << run.err;
}

// ----- dangling links and link loops -----------------------------------------------------------

TEST(WalkRules, DanglingLinkIsOneErrorByItsOwnPathUnderFollowSymlinks) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("folder/real.txt", "real");
  fs::create_symlink("nowhere", scratch.path() / "folder/d");
  const RunResult hash = runIn(scratch, {"hash", "-r", "--follow-symlinks", "-a", "md5", "folder"});
  EXPECT_EQ(hash.status, 1);
  EXPECT_EQ(hash.out, md5sumOutput(scratch, {"folder/real.txt"}));
  EXPECT_EQ(hash.err, report("folder/d", "dangling symbolic link"));

  const RunResult composite = runIn(scratch, {"composite", "--follow-symlinks", "folder"});
  EXPECT_EQ(composite.status, 1);
  EXPECT_EQ(composite.out, "");
  EXPECT_EQ(composite.err, report("folder/d", "dangling symbolic link"));
}

TEST(WalkRules, LinkLoopIsReportedForEachLinkUnderFollowSymlinks) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("folder/real.txt", "real");
  fs::create_symlink("b", scratch.path() / "folder/a");
  fs::create_symlink("a", scratch.path() / "folder/b");
  const RunResult run = runIn(scratch, {"hash", "-r", "--follow-symlinks", "-a", "md5", "folder"});
  ASSERT_NE(run.status, kTimedOut);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, md5sumOutput(scratch, {"folder/real.txt"}));
  EXPECT_EQ(run.err,
            report("folder/a", "symbolic link loop") + report("folder/b", "symbolic link loop"));
}

TEST(WalkRules, LinksAreSkippedWithANoticeWithoutFollowSymlinks) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("folder/real.txt", "real");
  fs::create_symlink("b", scratch.path() / "folder/a");
  fs::create_symlink("a", scratch.path() / "folder/b");
  fs::create_symlink("nowhere", scratch.path() / "folder/d");
  const std::string notices = report("folder/a", kLinkSkipped) + report("folder/b", kLinkSkipped) +
                              report("folder/d", kLinkSkipped);
  const RunResult hash = runIn(scratch, {"hash", "-r", "-a", "md5", "folder"});
  EXPECT_EQ(hash.status, 0);
  EXPECT_EQ(hash.out, md5sumOutput(scratch, {"folder/real.txt"}));
  EXPECT_EQ(hash.err, notices);

  const RunResult composite = runIn(scratch, {"composite", "folder"});
  EXPECT_EQ(composite.status, 0);
  EXPECT_EQ(composite.err, notices);
}

TEST(WalkRules, CompareJsonNamesOnlyTheDanglingLinkNotItsFolder) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("folder/real.txt", "real");
  fs::create_symlink("nowhere", scratch.path() / "folder/d");
  const RunResult run =
      runIn(scratch, {"compare", "--json", "--follow-symlinks", "-a", "md5", "folder", "folder"});
  EXPECT_EQ(run.status, 1);
  // The link is unreadable on both sides, each reported once by its own path.
  EXPECT_EQ(run.err, report("folder/d", "dangling symbolic link") +
                         report("folder/d", "dangling symbolic link"));
  const nlohmann::json document = nlohmann::json::parse(run.out);
  const nlohmann::json& files = document.at("files");
  ASSERT_EQ(files.size(), 2u) << run.out;
  for (const nlohmann::json& file : files) EXPECT_NE(file.at("path"), "") << run.out;
  EXPECT_EQ(files[0].at("path"), "d");
  EXPECT_EQ(files[0].at("status"), "unreadable");
  EXPECT_EQ(files[1].at("path"), "real.txt");
  EXPECT_EQ(files[1].at("status"), "ok");
  EXPECT_EQ(files[1].at("sourceChecksums").at("md5"), md5Of("real"));
  EXPECT_EQ(document.at("totals").at("unreadable"), 1);
  EXPECT_EQ(document.at("totals").at("ok"), 1);

  const RunResult text =
      runIn(scratch, {"compare", "--follow-symlinks", "-a", "md5", "folder", "folder"});
  EXPECT_EQ(text.status, 1);
  EXPECT_EQ(text.out,
            "unreadable: d\ncompared 2 files: 1 matched, 0 missing, 0 new, 0 size differs, 0 "
            "checksum differs, 1 unreadable\n");
}

// ----- compare: unreadable folders and folders on one side ------------------------------------

// src and dst each holding "kept" and "locked/{a,b}"; the copy's "locked" also holds "c".
void writeTreesWithAFolderToLock(const ScratchDirectory& scratch) {
  for (const std::string side : {"src", "dst"}) {
    scratch.writeText(side + "/kept", "kept");
    scratch.writeText(side + "/locked/a", "a");
    scratch.writeText(side + "/locked/b", "b");
  }
  scratch.writeText("dst/locked/c", "c");
  openToEveryone(scratch.path());
}

TEST(WalkRules, CompareWithAnUnreadableFolderInTheCopyReportsNoFileBelowItAsMissing) {
  SKIP_WITHOUT_PROGRAMS();
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  ScratchDirectory scratch;
  writeTreesWithAFolderToLock(scratch);
  fs::permissions(scratch.path() / "dst/locked", fs::perms::none);
  const RunResult run = runIn(scratch, {"compare", "src", "dst"}, *prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "unreadable: locked\ncompared 2 files: 1 matched, 0 missing, 0 new, 0 size differs, 0 "
            "checksum differs, 1 unreadable\n");
  EXPECT_EQ(run.err, report("dst/locked", "Permission denied"));

  const RunResult json = runIn(scratch, {"compare", "--json", "src", "dst"}, *prefix);
  EXPECT_EQ(json.status, 1);
  const nlohmann::json document = nlohmann::json::parse(json.out);
  ASSERT_EQ(document.at("files").size(), 2u) << json.out;
  EXPECT_EQ(document.at("files")[1].at("path"), "locked");
  EXPECT_EQ(document.at("files")[1].at("status"), "unreadable");
  EXPECT_EQ(document.at("totals").at("missing"), 0);
  EXPECT_EQ(document.at("totals").at("missingFolders"), 0);
}

TEST(WalkRules, CompareWithAnUnreadableFolderInTheSourceReportsNoFileBelowItAsNew) {
  SKIP_WITHOUT_PROGRAMS();
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  ScratchDirectory scratch;
  writeTreesWithAFolderToLock(scratch);
  fs::permissions(scratch.path() / "src/locked", fs::perms::none);
  const RunResult run = runIn(scratch, {"compare", "src", "dst"}, *prefix);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "unreadable: locked\ncompared 2 files: 1 matched, 0 missing, 0 new, 0 size differs, 0 "
            "checksum differs, 1 unreadable\n");
  EXPECT_EQ(run.err, report("src/locked", "Permission denied"));
}

TEST(WalkRules, EmptyFolderMissingInTheCopyFailsTheComparison) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("src/kept", "kept");
  scratch.writeText("dst/kept", "kept");
  fs::create_directories(scratch.path() / "src/empty");
  const RunResult run = runIn(scratch, {"compare", "src", "dst"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "missing folder: empty\ncompared 1 files: 1 matched, 0 missing, 0 new, 0 size differs, "
            "0 checksum differs, 0 unreadable, 1 missing folder\n");
  EXPECT_EQ(run.err, "");

  const RunResult json = runIn(scratch, {"compare", "--json", "src", "dst"});
  EXPECT_EQ(json.status, 1);
  const nlohmann::json document = nlohmann::json::parse(json.out);
  ASSERT_EQ(document.at("files").size(), 2u) << json.out;
  EXPECT_EQ(document.at("files")[0].at("path"), "empty");
  EXPECT_EQ(document.at("files")[0].at("status"), "missing folder");
  EXPECT_EQ(document.at("totals").at("missingFolders"), 1);
  EXPECT_EQ(document.at("totals").at("newFolders"), 0);
}

TEST(WalkRules, FolderNewInTheCopyIsReportedOnlyAtItsTop) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  scratch.writeText("src/kept", "kept");
  scratch.writeText("dst/kept", "kept");
  scratch.writeText("dst/added/m", "m");
  scratch.writeText("dst/added/sub/n", "n");
  fs::create_directories(scratch.path() / "dst/added/sub/empty");
  const RunResult run = runIn(scratch, {"compare", "src", "dst"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out,
            "new folder: added\nnew: added/m\nnew: added/sub/n\ncompared 3 files: 1 matched, 0 "
            "missing, 2 new, 0 size differs, 0 checksum differs, 0 unreadable, 1 new folder\n");
  EXPECT_EQ(run.err, "");

  const RunResult json = runIn(scratch, {"compare", "--json", "src", "dst"});
  EXPECT_EQ(json.status, 1);
  const nlohmann::json document = nlohmann::json::parse(json.out);
  const nlohmann::json& files = document.at("files");
  ASSERT_EQ(files.size(), 4u) << json.out;
  EXPECT_EQ(files[0],
            nlohmann::json({{"path", "added"}, {"status", "new folder"}, {"destinationSize", 0}}));
  EXPECT_EQ(files[1].at("path"), "added/m");
  EXPECT_EQ(files[1].at("status"), "new");
  EXPECT_EQ(files[2].at("path"), "added/sub/n");
  EXPECT_EQ(files[2].at("status"), "new");
  EXPECT_EQ(document.at("totals").at("newFolders"), 1);
  EXPECT_EQ(document.at("totals").at("new"), 2);
}

// ----- a reader that goes away ----------------------------------------------------------------

// Runs `arguments` in `directory` as `... | head -1` under pipefail; returns what the shell says
// the pipeline's status is, and the tool's stderr in `err`.
std::string statusIntoHead(const ScratchDirectory& directory,
                           const std::vector<std::string>& arguments, std::string& err) {
  const std::string errPath = directory.file("pipeline-stderr.txt");
  const RunResult run =
      runShell("cd " + shellQuote(directory.path().string()) + " && bash -c " +
               shellQuote("set -o pipefail; " + toolCommand(arguments, kTimeout) + " 2>" +
                          shellQuote(errPath) + " | head -1 >/dev/null; echo $?"));
  err = readFile(errPath);
  return run.out;
}

// `count` small files in `folder`.
void writeSmallFiles(const ScratchDirectory& scratch, const std::string& folder, int count) {
  for (int i = 0; i < count; ++i) {
    scratch.writeText(folder + "/file" + std::to_string(i), "content " + std::to_string(i));
  }
}

TEST(WalkRules, RecursiveHashIntoAReaderThatGoesAwayEndsBySigpipe) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  writeSmallFiles(scratch, "tree", 3000);  // some 90 KB of lines: more than a pipe holds
  std::string err;
  EXPECT_EQ(statusIntoHead(scratch, {"hash", "-r", "tree"}, err), "141\n");
  EXPECT_EQ(err, "");
}

TEST(WalkRules, CheckOfALongListIntoAReaderThatGoesAwayEndsBySigpipe) {
  SKIP_WITHOUT_PROGRAMS();
  ScratchDirectory scratch;
  writeSmallFiles(scratch, "tree", 300);
  // Each file listed 80 times: 24,000 lines, some 350 KB of result lines.
  ASSERT_EQ(runShell("cd " + shellQuote(scratch.path().string()) +
                     " && md5sum tree/* > once.md5 && for i in $(seq 80); do cat once.md5; "
                     "done > list.md5")
                .status,
            0);
  std::string err;
  EXPECT_EQ(statusIntoHead(scratch, {"check", "list.md5"}, err), "141\n");
  EXPECT_EQ(err, "");
}

}  // namespace
