// A file that changes while the tool reads it gets no checksum: hash, check, compare and
// composite report "<path>: file changed while being read" and fail, because a checksum of bytes
// read before and after a change describes a file that never existed on disk.
//
// The change is made at a known moment: the test starts the tool in the background, waits until
// /proc shows the tool's descriptor of the file past its first bytes, and then truncates, extends
// or touches the file. The file is a 4 GiB sparse file hashed with MD5, so the read is far from
// its end (seconds away) when the change lands. xxHash would read it in a fraction of a second,
// faster than the watching shell can act on a slow machine; every run here therefore uses MD5.
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

constexpr const char* kBigSize = "4G";

struct ChangedRun {
  std::string out;
  std::string err;
  std::string status;   // the tool's exit status, as the shell printed it
  bool caught = false;  // the change landed while the tool was reading `target`
};

// Runs the tool with `arguments` in `scratch`; once it is reading the file `target` (a name in
// `scratch`), runs the shell command `change` there.
ChangedRun runChangingFile(const ScratchDirectory& scratch,
                           const std::vector<std::string>& arguments, const std::string& target,
                           const std::string& change) {
  const std::string script =
      "cd " + shellQuote(scratch.path().string()) + " || exit 9\n" + toolCommand(arguments) +
      " >out.txt 2>err.txt &\n"
      "pid=$!\n"
      "target=\"$PWD/" +
      target +
      "\"\n"
      "caught=no\n"
      "for i in $(seq 1 200000); do\n"
      "  kill -0 $pid 2>/dev/null || break\n"
      "  for fd in /proc/$pid/fd/*; do\n"
      "    [ \"$(readlink \"$fd\" 2>/dev/null)\" = \"$target\" ] || continue\n"
      "    pos=$(sed -n 's/^pos:[[:space:]]*//p' /proc/$pid/fdinfo/${fd##*/} 2>/dev/null)\n"
      "    if [ -n \"$pos\" ] && [ \"$pos\" -gt 0 ]; then caught=yes; break 2; fi\n"
      "  done\n"
      "done\n"
      "[ $caught = yes ] && { " +
      change +
      "; }\n"
      "wait $pid\n"
      "echo \"$? $caught\"\n";
  const RunResult run = runShell("bash -c " + shellQuote(script));
  ChangedRun result;
  result.out = readFile(scratch.path() / "out.txt");
  result.err = readFile(scratch.path() / "err.txt");
  const auto space = run.out.find(' ');
  result.status = run.out.substr(0, space);
  result.caught = space != std::string::npos && run.out.substr(space + 1) == "yes\n";
  return result;
}

void makeBigSparseFile(const ScratchDirectory& scratch, const std::string& name,
                       const std::string& size = kBigSize) {
  const std::string path = scratch.file(name);
  ASSERT_EQ(runShell("mkdir -p \"$(dirname " + shellQuote(path) + ")\" && truncate -s " + size +
                     " " + shellQuote(path))
                .status,
            0);
}

const std::string kChanged = ": file changed while being read\n";

TEST(FileChangedWhileRead, HashOfAFileTruncatedWhileReadPrintsNoChecksumAndFails) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeBigSparseFile(scratch, "big");
  scratch.writeText("small", "steady");
  const ChangedRun run = runChangingFile(scratch, {"hash", "-a", "md5", "small", "big"}, "big",
                                         "truncate -s 1000 big");
  ASSERT_TRUE(run.caught) << "the change did not land while the file was read";
  EXPECT_EQ(run.status, "1");
  // The other file keeps its checksum (MD5 of "steady", from md5sum).
  EXPECT_EQ(run.out, "4f997f546b68779b58e9f6f19dc2b9e5  small\n");
  EXPECT_EQ(run.err, "corvane-checksum: big" + kChanged);
}

TEST(FileChangedWhileRead, HashOfAFileThatGrowsOrIsTouchedWhileReadFails) {
  SKIP_WITHOUT_TOOL();
  for (const std::string change : {"echo more >> big", "touch -d '2001-01-01 00:00' big"}) {
    SCOPED_TRACE(change);
    ScratchDirectory scratch;
    makeBigSparseFile(scratch, "big");
    const ChangedRun run = runChangingFile(scratch, {"hash", "-a", "md5", "big"}, "big", change);
    ASSERT_TRUE(run.caught);
    EXPECT_EQ(run.status, "1");
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "corvane-checksum: big" + kChanged);
  }
}

TEST(FileChangedWhileRead, HashJsonListsTheChangeAsTheFilesError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeBigSparseFile(scratch, "big");
  const ChangedRun run =
      runChangingFile(scratch, {"hash", "--json", "-a", "md5", "big"}, "big", "truncate -s 0 big");
  ASSERT_TRUE(run.caught);
  EXPECT_EQ(run.status, "1");
  EXPECT_NE(run.out.find("\"error\": \"file changed while being read\""), std::string::npos)
      << run.out;
  EXPECT_EQ(run.out.find("\"checksums\""), std::string::npos) << run.out;
}

TEST(FileChangedWhileRead, CheckReportsTheChangedFileAsFailedOpenOrRead) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeBigSparseFile(scratch, "big");
  // The list holds md5sum's line for 4 GiB of zero bytes, the file's true checksum before the
  // change; the change must neither pass nor fail as a content mismatch.
  scratch.writeText("list.md5", "c9a5a6878d97b48cc965c1e41859f034  big\n");
  const ChangedRun run =
      runChangingFile(scratch, {"check", "list.md5"}, "big", "truncate -s 1000 big");
  ASSERT_TRUE(run.caught);
  EXPECT_EQ(run.status, "1");
  EXPECT_EQ(run.out, "big: FAILED open or read\n");
  EXPECT_EQ(run.err, "corvane-checksum: big" + std::string(kChanged) +
                         "corvane-checksum: WARNING: 1 listed file could not be read\n");
}

TEST(FileChangedWhileRead, CompareReportsTheChangedSourceAsUnreadable) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeBigSparseFile(scratch, "source/big");
  makeBigSparseFile(scratch, "copy/big");
  const ChangedRun run = runChangingFile(scratch, {"compare", "-a", "md5", "-j", "1", "source", "copy"},
                                         "source/big", "truncate -s 1000 source/big");
  ASSERT_TRUE(run.caught);
  EXPECT_EQ(run.status, "1");
  EXPECT_NE(run.out.find("unreadable: big\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.err, "corvane-checksum: source/big" + kChanged);
}

TEST(FileChangedWhileRead, CompositeOfATreeWithAChangedFileIsNotPrinted) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeBigSparseFile(scratch, "tree/big");
  scratch.writeText("tree/small", "steady");
  const ChangedRun run = runChangingFile(scratch, {"composite", "-a", "md5", "tree"}, "tree/big",
                                         "truncate -s 1000 tree/big");
  ASSERT_TRUE(run.caught);
  EXPECT_EQ(run.status, "1");
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "corvane-checksum: tree/big" + kChanged);
}

TEST(FileChangedWhileRead, UnchangedBigFileStillGetsItsChecksum) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeBigSparseFile(scratch, "big", "256M");
  // Nothing changes: the run reads to the end and prints the checksum md5sum prints.
  const ChangedRun run = runChangingFile(scratch, {"hash", "-a", "md5", "big"}, "big", "true");
  ASSERT_TRUE(run.caught);
  EXPECT_EQ(run.status, "0");
  const RunResult reference =
      runShell("cd " + shellQuote(scratch.path().string()) + " && md5sum big");
  EXPECT_EQ(run.out, reference.out);
  EXPECT_EQ(run.err, "");
}

}  // namespace
