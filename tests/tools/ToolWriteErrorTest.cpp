// What every command of corvane-checksum does when its standard output cannot be written: a
// full disk (/dev/full), a closed descriptor, a reader that went away. A list saved to a full
// disk must never look complete.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

namespace {

using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;
using corvane::testsupport::toolCommand;

constexpr int kExitWriteError = 4;
const std::string kNoSpace = "corvane-checksum: write error: No space left on device\n";

// Runs the tool in `directory` with its standard output sent to `redirection` (e.g. ">/dev/full")
// and its standard error captured.
RunResult runWithOutput(const ScratchDirectory& directory,
                        const std::vector<std::string>& arguments, const std::string& redirection) {
  const std::string errPath = directory.file("stderr.txt");
  RunResult run =
      runShell("cd " + shellQuote(directory.path().string()) + " && " + toolCommand(arguments) +
               " " + redirection + " 2>" + shellQuote(errPath));
  run.err = readFile(errPath);
  return run;
}

// A folder "tree" of `count` small files and a checksum list "list.md5" of them.
void writeTree(const ScratchDirectory& scratch, int count) {
  for (int i = 0; i < count; ++i) {
    scratch.writeText("tree/file" + std::to_string(i), "content " + std::to_string(i));
  }
  runShell("cd " + shellQuote(scratch.path().string()) + " && md5sum tree/* > list.md5");
}

TEST(WriteErrors, EveryCommandReportsAFullDiskAndExitsFour) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, 5);
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"hash", "-r", "tree"},
                                             {"hash", "-r", "--json", "tree"},
                                             {"hash", "-a", "md5,sha1", "-r", "tree"},
                                             {"hash", "--tag", "-r", "tree"},
                                             {"check", "list.md5"},
                                             {"compare", "tree", "tree"},
                                             {"compare", "--json", "tree", "tree"},
                                             {"composite", "tree"},
                                             {"composite", "--json", "tree"},
                                             {"--help"},
                                             {}}) {
    SCOPED_TRACE(arguments.empty() ? "(no arguments)" : arguments.front() + " " + arguments.back());
    const RunResult run = runWithOutput(scratch, arguments, ">/dev/full");
    EXPECT_EQ(run.status, kExitWriteError);
    EXPECT_NE(run.err.find(kNoSpace), std::string::npos) << run.err;
  }
}

TEST(WriteErrors, FailureInTheMiddleOfALongOutputIsReportedOnce) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("f", "x");
  // 5,000 lines are far more than one buffer: the first write already fails, later ones are
  // dropped, and the reason is given once.
  std::vector<std::string> arguments = {"hash", "-j", "2"};
  arguments.insert(arguments.end(), 5000, "f");
  const RunResult run = runWithOutput(scratch, arguments, ">/dev/full");
  EXPECT_EQ(run.status, kExitWriteError);
  EXPECT_EQ(run.err, kNoSpace);
}

TEST(WriteErrors, WriteErrorOutranksOtherFailures) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("f", "x");
  const RunResult run = runWithOutput(scratch, {"hash", "f", "missing"}, ">/dev/full");
  EXPECT_EQ(run.status, kExitWriteError);
  EXPECT_NE(run.err.find("corvane-checksum: missing: No such file or directory\n"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find(kNoSpace), std::string::npos) << run.err;
}

TEST(WriteErrors, ClosedStandardOutputIsAWriteError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("f", "x");
  const RunResult run = runWithOutput(scratch, {"hash", "f"}, ">&-");
  EXPECT_EQ(run.status, kExitWriteError);
  EXPECT_EQ(run.err, "corvane-checksum: write error: Bad file descriptor\n");
}

TEST(WriteErrors, ClosedStandardOutputWithNothingToWriteIsNoError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, 2);
  const RunResult run = runWithOutput(scratch, {"check", "--status", "list.md5"}, ">&-");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
}

TEST(WriteErrors, ReaderThatGoesAwayEndsTheRunQuietlyBySigpipe) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("f", "x");
  std::string list;
  for (int i = 0; i < 20000; ++i) list += "f\n";  // far more output than a pipe holds
  scratch.writeText("list", list);
  const std::vector<std::string> arguments = {"hash", "--files-from", "list"};
  const std::string errPath = scratch.file("stderr.txt");
  // As `sha256sum ... | head -1` under pipefail: the status of a death by SIGPIPE (128 + 13).
  const RunResult run =
      runShell("cd " + shellQuote(scratch.path().string()) + " && bash -c " +
               shellQuote("set -o pipefail; " + toolCommand(arguments) + " 2>" +
                          shellQuote(errPath) + " | head -1 >/dev/null; echo $?"));
  EXPECT_EQ(run.out, "141\n");
  EXPECT_EQ(readFile(errPath), "");
}

TEST(WriteErrors, ReaderThatReadsEverythingSeesSuccess) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, 3);
  const RunResult run =
      runShell("cd " + shellQuote(scratch.path().string()) + " && bash -c " +
               shellQuote("set -o pipefail; " + toolCommand({"hash", "-r", "tree"}) +
                          " | cat >/dev/null; echo $?"));
  EXPECT_EQ(run.out, "0\n");
}

}  // namespace
