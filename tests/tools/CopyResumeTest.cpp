// `corvane-checksum copy` killed with SIGKILL at twenty moments (a fixed seed picks them, so a
// failure can be replayed) and run again with the same command each time: the last run must end
// as an uninterrupted run does. The copies are compared with the source by diff -r, the histories
// checked by `mhl verify`, and the destinations searched for temporaries with find.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::pseudoRandomBytes;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;
using corvane::testsupport::toolCommand;
using Json = nlohmann::json;

constexpr int kKills = 20;
// Runs started at most to get kKills of them killed.
constexpr int kMaxAttempts = 80;
constexpr std::uint32_t kSeed = 20261125;

// A card of a few hundred files in fifteen folders: mostly small, every thirtieth of 1 to 3 MiB,
// a few empty ones and an empty folder (about 25 MiB).
void makeCard(const ScratchDirectory& scratch) {
  std::mt19937 sizes(kSeed);
  for (int k = 0; k < 300; ++k) {
    const std::size_t size = k % 30 == 0   ? std::size_t{1 << 20} + sizes() % (std::size_t{2} << 20)
                             : k % 50 == 7 ? 0
                                           : sizes() % 32768;
    scratch.writeText("CARD/CLIP" + std::to_string(k / 20) + "/F" + std::to_string(k) + ".bin",
                      pseudoRandomBytes(size, static_cast<std::uint64_t>(k) + 1));
  }
  fs::create_directories(scratch.file("CARD/EMPTY"));
}

// path -> "<source checksum> <status>..." of every file of a copy's report.
std::map<std::string, std::string> outcomes(const Json& document) {
  std::map<std::string, std::string> files;
  for (const Json& file : document["files"]) {
    if (file["kind"] != "file") continue;
    std::string line = file["checksums"]["xxh64"].get<std::string>();
    for (const Json& copy : file["copies"]) {
      // Found complete from an earlier run or written now: both are proven copies.
      const std::string status = copy["status"];
      line += ' ';
      line += status == "alreadyPresent" ? std::string("verified") : status;
    }
    files[file["path"]] = line;
  }
  return files;
}

TEST(CopyResume, KilledTwentyTimesAndRunAgainEndsAsAnUninterruptedRun) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  makeCard(scratch);
  const std::string card = scratch.file("CARD");
  for (const char* name : {"reference", "one", "two"}) fs::create_directories(scratch.file(name));

  // The uninterrupted run everything is compared with; its duration bounds the kill moments.
  const auto started = std::chrono::steady_clock::now();
  const RunResult reference =
      runShell(toolCommand({"copy", "--json", "--no-source-mhl", card, scratch.file("reference")}));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ASSERT_EQ(reference.status, 0);
  const std::map<std::string, std::string> expected = outcomes(Json::parse(reference.out));
  ASSERT_EQ(expected.size(), 300U);

  const std::string command = toolCommand({"copy", card, scratch.file("one"), scratch.file("two")});
  // A moment past the end of a run kills nothing: that run simply finished, and the next one
  // is started, until twenty runs were killed. Each moment is a seeded fraction of the length of
  // the last run that finished (at first the uninterrupted one): later runs are shorter, as they
  // mostly find and read back what earlier ones wrote, and the flushes of a shared disk make
  // every length vary, so a fixed bound would miss most runs on one machine and hit all on
  // another.
  std::mt19937 moments(kSeed);
  std::uniform_real_distribution<double> fraction(0.0, 1.0);
  double runSeconds = seconds;
  int killed = 0;
  for (int attempt = 0; killed < kKills && attempt < kMaxAttempts; ++attempt) {
    char pause[32];
    std::snprintf(pause, sizeof pause, "%.3f", fraction(moments) * runSeconds);
    const auto begun = std::chrono::steady_clock::now();
    // The shell's own "Killed" notice goes to the file, not into the test's output.
    const RunResult run = runShell("( exec " + command + " >/dev/null 2>&1 ) & pid=$!; sleep " +
                                       pause + "; kill -9 $pid 2>/dev/null; wait $pid; echo $?",
                                   scratch.file("shell.txt"));
    // 137: killed (128 + SIGKILL); 0: it finished first. Anything else is a failure of a run.
    ASSERT_TRUE(run.out == "137\n" || run.out == "0\n") << "run " << attempt << ": " << run.out;
    if (run.out == "137\n") {
      ++killed;
    } else {
      runSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    }
  }
  ASSERT_EQ(killed, kKills) << "too few moments fell inside a run";

  const RunResult last =
      runShell(toolCommand({"copy", "--json", card, scratch.file("one"), scratch.file("two")}),
               scratch.file("stderr.txt"));
  ASSERT_EQ(last.status, 0) << last.err;
  const Json document = Json::parse(last.out);
  EXPECT_EQ(document["ok"], true);
  std::map<std::string, std::string> twoDestinations;
  for (const auto& [path, line] : expected) {
    // The reference went to one destination; the resumed job to two.
    twoDestinations[path] = line + line.substr(line.find(' '));
  }
  EXPECT_EQ(outcomes(document), twoDestinations);

  for (const char* name : {"one", "two"}) {
    SCOPED_TRACE(name);
    const std::string root = scratch.file(name);
    const RunResult diff = runShell("diff -r -x ascmhl " + shellQuote(card) + " " +
                                    shellQuote(root + "/CARD") + " 2>&1");
    EXPECT_EQ(diff.status, 0) << diff.out;
    EXPECT_EQ(runShell("find " + shellQuote(root) + " -name '.corvane-tmp-*'").out, "");
    const RunResult verify = runShell(toolCommand({"mhl", "verify", root + "/CARD"}) + " 2>&1");
    EXPECT_EQ(verify.status, 0) << verify.out;
  }
  // The source's own history, written by the runs that got that far, is whole too.
  EXPECT_EQ(runShell("find " + shellQuote(card) + " -name '.corvane-tmp-*'").out, "");
  const RunResult verifySource = runShell(toolCommand({"mhl", "verify", card}) + " 2>&1");
  EXPECT_EQ(verifySource.status, 0) << verifySource.out;
}

}  // namespace
