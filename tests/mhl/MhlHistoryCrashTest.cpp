// ASC MHL histories survive a writer that is killed at any moment or whose writes fail: the
// history read afterwards is the old state or the new one, never a manifest the chain lists but
// that is incomplete, and the next create cleans up and succeeds.
//
// The writer runs in a child process. The library's worker pool has threads a plain fork() would
// not copy (the child would wait forever for workers it believes idle), so the child re-executes
// this test program, as GoogleTest's "threadsafe" death tests do: the same test runs again in the
// child, finds kChildVariable in its environment and plays the writer instead.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/MhlHistory.hpp"
#include "corvane/MhlXml.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

extern char** environ;

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::ScratchDirectory;

// "<mode> <root> <argument>" in the environment of a child: mode "writer" (argument unused) or
// "fsize" (argument: the file size limit in bytes).
constexpr const char* kChildVariable = "CORVANE_MHL_HISTORY_CRASH_CHILD";
// The descriptor on which a child reports to the parent.
constexpr int kChildReportDescriptor = 47;
constexpr std::string_view kTemporaryPrefix = ".corvane-tmp-";
constexpr int kTreeFiles = 300;

std::string historyFolder(const std::string& root) { return root + "/ascmhl"; }

std::set<std::string> namesIn(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// Name and bytes of every file in the history folder.
std::map<std::string, std::string> historyContents(const std::string& root) {
  std::map<std::string, std::string> contents;
  for (const std::string& name : namesIn(historyFolder(root))) {
    contents[name] = readFile(historyFolder(root) + "/" + name);
  }
  return contents;
}

// ~300 small files in ten folders.
void makeTree(const std::string& root) {
  for (int index = 0; index < kTreeFiles; ++index) {
    const std::string path =
        root + "/folder" + std::to_string(index % 10) + "/file" + std::to_string(index) + ".txt";
    fs::create_directories(fs::path(path).parent_path());
    testsupport::writeFile(path, testsupport::bytesOf("content of file " + std::to_string(index)));
  }
}

void reportToParent(const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = ::write(kChildReportDescriptor, text.data() + done, text.size() - done);
    if (written <= 0) return;
    done += static_cast<std::size_t>(written);
  }
}

// The child's part; never returns.
[[noreturn]] void runChild(const std::string& mode, const std::string& root,
                           const std::string& argument) {
  if (mode == "writer") {
    // Generation after generation, one file changed before each, until killed.
    for (std::uint64_t round = 0;; ++round) {
      const std::string path = root + "/folder" + std::to_string(round % 10) + "/file" +
                               std::to_string(round % kTreeFiles) + ".txt";
      testsupport::writeFile(path,
                             testsupport::bytesOf("changed in round " + std::to_string(round)));
      if (round == 0) reportToParent("ready");
      createMhlGeneration(root, {});
    }
  }
  if (mode == "fsize") {
    ::signal(SIGXFSZ, SIG_IGN);  // a write beyond the limit fails with EFBIG instead
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::stoull(argument);
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const MhlReport report = createMhlGeneration(root, {});
    std::string text = std::to_string(report.problems.size()) + " " +
                       std::to_string(report.manifestsWritten.size()) + "\n";
    for (const MhlError& problem : report.problems) text += problem.description() + "\n";
    reportToParent(text);
    ::_exit(0);
  }
  ::_exit(3);
}

// Runs the child's part if this process is a child; returns otherwise.
void becomeTheChildIfAsked() {
  const char* request = std::getenv(kChildVariable);
  if (request == nullptr) return;
  const std::string text = request;
  const auto first = text.find(' ');
  const auto last = text.rfind(' ');
  runChild(text.substr(0, first), text.substr(first + 1, last - first - 1), text.substr(last + 1));
}

struct Child {
  pid_t pid = -1;
  int report = -1;  // the parent's end of the report pipe
};

// Starts this program again, running only the current test, as a child in `mode` on `root`.
Child startChild(const std::string& mode, const std::string& root, const std::string& argument) {
  const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter =
      std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
  // Everything prepared before fork(): the child only calls async-signal-safe functions.
  std::vector<std::string> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    // No sharding, output files or repeats of the parent's run.
    if (std::strncmp(*variable, "GTEST_", 6) != 0) environment.emplace_back(*variable);
  }
  environment.push_back(std::string(kChildVariable) + "=" + mode + " " + root + " " + argument);
  std::vector<char*> envp;
  for (std::string& variable : environment) envp.push_back(variable.data());
  envp.push_back(nullptr);
  std::string program = "/proc/self/exe";
  std::string brief = "--gtest_brief=1";
  char* argv[] = {program.data(), const_cast<char*>(filter.c_str()), brief.data(), nullptr};

  int pipe[2];
  EXPECT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int devNull = ::open("/dev/null", O_WRONLY);
    ::dup2(devNull, STDOUT_FILENO);
    if (pipe[1] == kChildReportDescriptor) {
      ::fcntl(pipe[1], F_SETFD, 0);
    } else {
      ::dup2(pipe[1], kChildReportDescriptor);
    }
    ::execve(program.c_str(), argv, envp.data());
    ::_exit(127);
  }
  ::close(pipe[1]);
  EXPECT_GT(pid, 0);
  return {pid, pipe[0]};
}

// What the child reported until `text` arrived, it closed the pipe, or `timeout` passed.
std::string readReport(const Child& child, std::chrono::milliseconds timeout,
                       std::string_view until = {}) {
  std::string text;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (until.empty() || text.find(until) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd wanted{child.report, POLLIN, 0};
    if (::poll(&wanted, 1, static_cast<int>(left.count())) <= 0) break;
    char buffer[4096];
    const ssize_t got = ::read(child.report, buffer, sizeof buffer);
    if (got <= 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

int waitFor(Child& child) {
  int status = 0;
  ::waitpid(child.pid, &status, 0);
  ::close(child.report);
  child.pid = -1;
  return status;
}

// The checks after every interruption: the history reads (every manifest the chain lists exists
// and matches its C4 ID), holds `minimum` generations or more, and nothing but manifests, the
// chain and temporaries is in the folder.
std::size_t expectIntactHistory(const std::string& root, std::size_t minimum) {
  MhlResult<MhlHistory> history = readMhlHistory(root);
  EXPECT_TRUE(history.ok()) << history.error().description();
  if (!history.ok()) return 0;
  EXPECT_GE(history->generations.size(), minimum);
  for (const MhlGeneration& generation : history->generations) {
    const std::string bytes = readFile(historyFolder(root) + "/" + generation.fileName);
    EXPECT_EQ(ChecksumGenerator::generateChecksumForData(Bytes(bytes.begin(), bytes.end()),
                                                         ChecksumTypeC4),
              generation.c4)
        << generation.fileName;
    EXPECT_EQ(generation.manifest.hashes.size(), static_cast<std::size_t>(kTreeFiles));
  }
  for (const std::string& name : namesIn(historyFolder(root))) {
    EXPECT_TRUE(name == "ascmhl_chain.xml" || name.ends_with(".mhl") ||
                name.starts_with(kTemporaryPrefix))
        << name;
  }
  return history->generations.size();
}

TEST(MhlHistoryCrash, WriterKilledAtRandomMomentsLeavesAHistoryThatVerifies) {
  becomeTheChildIfAsked();
  std::mt19937 random(20240501);
  // The kill comes 0 to 30 ms after the writer started its first generation, or within two
  // generations' time when one takes longer here (a loaded machine, a sanitizer build), so that
  // the moments fall on every step of a generation: reading, hashing, writing.
  int longestPause = 30;
  constexpr int kRounds = 6;  // fresh trees, so that histories stay short and reading quick
  constexpr int kKillsPerRound = 8;
  int childGenerations = 0;
  int killsLeavingLeftovers = 0;
  for (int round = 0; round < kRounds; ++round) {
    ScratchDirectory scratch;
    const std::string root = scratch.file("Card");
    makeTree(root);
    ASSERT_TRUE(createMhlGeneration(root, {}).clean());
    std::size_t generations = 1;
    std::chrono::milliseconds generationTime{0};
    for (int kill = 0; kill < kKillsPerRound; ++kill) {
      SCOPED_TRACE("round " + std::to_string(round) + ", kill " + std::to_string(kill));
      Child child = startChild("writer", root, "-");
      ASSERT_EQ(readReport(child, std::chrono::seconds(30), "ready"), "ready");
      longestPause = std::max(30, static_cast<int>(2 * generationTime.count()));
      std::this_thread::sleep_for(
          std::chrono::milliseconds(std::uniform_int_distribution<int>(0, longestPause)(random)));
      ::kill(child.pid, SIGKILL);
      const int status = waitFor(child);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

      const std::size_t after = expectIntactHistory(root, generations);
      childGenerations += static_cast<int>(after - generations);
      const std::set<std::string> names = namesIn(historyFolder(root));
      if (names.size() != after + 1) ++killsLeavingLeftovers;

      // The next create succeeds and leaves only the chain and the manifests it lists.
      const auto started = std::chrono::steady_clock::now();
      const MhlReport report = createMhlGeneration(root, {});
      generationTime = std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::steady_clock::now() - started);
      ASSERT_TRUE(report.problems.empty()) << report.problems[0].description();
      ASSERT_EQ(report.manifestsWritten.size(), 1U);
      generations = expectIntactHistory(root, after + 1);
      EXPECT_EQ(generations, after + 1);
      std::set<std::string> expected = {"ascmhl_chain.xml"};
      const MhlResult<MhlHistory> history = readMhlHistory(root);
      ASSERT_TRUE(history.ok());
      for (const MhlGeneration& generation : history->generations) {
        expected.insert(generation.fileName);
      }
      EXPECT_EQ(namesIn(historyFolder(root)), expected);
    }
  }
  std::printf(
      "[ info     ] %d kills (the last within %d ms): the writers appended %d generations; %d "
      "kills left a temporary or an unlisted manifest\n",
      kRounds * kKillsPerRound, longestPause, childGenerations, killsLeavingLeftovers);
}

TEST(MhlHistoryCrash, ManifestWriteFailureLeavesTheHistoryUnchanged) {
  becomeTheChildIfAsked();
  ScratchDirectory scratch;
  const std::string root = scratch.file("Card");
  makeTree(root);
  ASSERT_TRUE(createMhlGeneration(root, {}).clean());
  const std::map<std::string, std::string> before = historyContents(root);
  const std::size_t chainSize = before.at("ascmhl_chain.xml").size();
  std::size_t manifestSize = 0;
  for (const auto& [name, bytes] : before) {
    if (name.ends_with(".mhl")) manifestSize = bytes.size();
  }
  // A limit the chain fits in and the next manifest does not.
  ASSERT_LT(chainSize * 4, manifestSize);
  const std::size_t limit = chainSize * 4;

  Child child = startChild("fsize", root, std::to_string(limit));
  const std::string text = readReport(child, std::chrono::seconds(60));
  const int status = waitFor(child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << ": " << text;
  // One problem, no manifest written; the problem names the manifest and the reason.
  EXPECT_TRUE(text.starts_with("1 0\n")) << text;
  EXPECT_NE(text.find("cannot write the manifest"), std::string::npos) << text;
  EXPECT_NE(text.find(std::strerror(EFBIG)), std::string::npos) << text;
  EXPECT_NE(text.find(".mhl"), std::string::npos) << text;

  EXPECT_EQ(historyContents(root), before);
  EXPECT_EQ(expectIntactHistory(root, 1), 1U);
  // Without the limit, the next generation is the second.
  const MhlReport report = createMhlGeneration(root, {});
  EXPECT_TRUE(report.clean());
  EXPECT_EQ(expectIntactHistory(root, 2), 2U);
}

}  // namespace
}  // namespace corvane
