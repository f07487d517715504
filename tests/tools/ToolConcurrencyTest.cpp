// corvane-checksum with many jobs at once: the ordered parallel run, the progress line drawn by
// its own thread, parallel algorithms per file and the blocking hand-offs, all busy together.
// Built with ThreadSanitizer this program runs a TSan build of the tool, which then reports any
// data race on stderr and exits non-zero.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

namespace corvane::testsupport {
namespace {

// Files of mixed sizes in two folders: below one read chunk, at it, and several chunks long.
void writeTree(const ScratchDirectory& scratch, const std::string& folder, unsigned seed) {
  const std::vector<std::size_t> sizes = {0,      1,       4096,          131072,
                                          131073, 1 << 20, (1 << 20) + 1, 3 << 20};
  for (int i = 0; i < 40; ++i) {
    const std::string content =
        pseudoRandomBytes(sizes[static_cast<std::size_t>(i) % sizes.size()], seed * 100 + i);
    scratch.writeText(folder + "/d" + std::to_string(i % 5) + "/f" + std::to_string(i), content);
  }
}

std::string inScratch(const ScratchDirectory& scratch, const std::vector<std::string>& arguments) {
  return "cd " + shellQuote(scratch.path().string()) + " && " + toolCommand(arguments);
}

// Runs under a pseudo-terminal when `script` is there, so that the progress thread draws.
RunResult runWithTerminal(const std::string& command) {
  if (haveProgram("script")) return runShell("script -qec " + shellQuote(command) + " /dev/null");
  return runShell(command + " 2>&1");
}

TEST(ToolConcurrency, HashWithManyJobsAndAlgorithmsIsRaceFreeAndOrdered) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, "tree", 1);
  const std::vector<std::string> arguments = {
      "hash", "-r", "-a", "md5,sha1,sha256,crc32,xxh64", "--summary", "tree"};
  auto serial = arguments;
  serial.insert(serial.begin() + 1, {"-j", "1", "--no-progress"});
  auto parallel = arguments;
  parallel.insert(parallel.begin() + 1, {"-j", "8"});
  const RunResult one = runShell(inScratch(scratch, serial) + " 2>/dev/null");
  const RunResult eight = runWithTerminal(inScratch(scratch, parallel));
  ASSERT_EQ(one.status, 0);
  ASSERT_EQ(eight.status, 0) << eight.out;
  EXPECT_EQ(eight.out.find("ThreadSanitizer"), std::string::npos) << eight.out;
  // On the terminal every line ends in "\r\n" and the progress line comes and goes; the
  // checksum lines themselves are the serial run's, in its order.
  std::string lines;
  for (std::size_t at = 0; at < eight.out.size();) {
    const std::size_t end = eight.out.find('\n', at);
    std::string line = eight.out.substr(at, end - at);
    at = end == std::string::npos ? eight.out.size() : end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (const auto cleared = line.rfind("\033[K"); cleared != std::string::npos) {
      line.erase(0, cleared + 3);
    }
    if (line.rfind("MD5 (", 0) == 0 || line.rfind("SHA", 0) == 0 || line.rfind("CRC32", 0) == 0 ||
        line.rfind("XXH64", 0) == 0) {
      lines += line + "\n";
    }
  }
  EXPECT_EQ(lines, one.out);
}

TEST(ToolConcurrency, CompareAndCheckWithManyJobsAreRaceFree) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  writeTree(scratch, "source", 2);
  writeTree(scratch, "copy", 2);
  scratch.writeText("copy/d1/f6", "changed");
  const RunResult compare = runWithTerminal(
      inScratch(scratch, {"compare", "-j", "8", "-a", "md5,xxh3", "--summary", "source", "copy"}));
  EXPECT_EQ(compare.status, 1) << compare.out;
  EXPECT_NE(compare.out.find("size differs: d1/f6"), std::string::npos) << compare.out;
  EXPECT_EQ(compare.out.find("ThreadSanitizer"), std::string::npos) << compare.out;

  const RunResult list = runShell(inScratch(scratch, {"hash", "-r", "-a", "sha512", "source"}) +
                                  " > " + shellQuote(scratch.file("list")));
  ASSERT_EQ(list.status, 0);
  const RunResult check =
      runWithTerminal(inScratch(scratch, {"check", "-j", "8", "--quiet", "--summary", "list"}));
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_EQ(check.out.find("ThreadSanitizer"), std::string::npos) << check.out;
}

}  // namespace
}  // namespace corvane::testsupport
