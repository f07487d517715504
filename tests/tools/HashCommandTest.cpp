// End-to-end tests of `corvane-checksum hash` and of the behaviour it shares with the other
// commands (-j, --no-progress, --summary, error reports, exit status): the built tool runs as a
// subprocess on files in a scratch folder, and its output is compared byte for byte with what the
// coreutils md5sum/sha1sum/sha256sum/sha512sum programs and xxhsum write for the same files, and
// read back by their -c modes.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using corvane::testsupport::haveProgram;
using corvane::testsupport::readFile;
using corvane::testsupport::RunResult;
using corvane::testsupport::runShell;
using corvane::testsupport::runToolWithInput;
using corvane::testsupport::ScratchDirectory;
using corvane::testsupport::shellQuote;
using corvane::testsupport::toolCommand;

#define SKIP_WITHOUT_REFERENCES()                                                        \
  do {                                                                                   \
    SKIP_WITHOUT_TOOL();                                                                 \
    if (!haveProgram("xxhsum") || !haveProgram("sha256sum") || !haveProgram("md5sum")) { \
      GTEST_SKIP() << "reference programs xxhsum / coreutils not installed";             \
    }                                                                                    \
  } while (false)

// ----- running the tool and the reference programs -------------------------------------------

// Runs the tool in `directory`, standard input empty.
RunResult runIn(const fs::path& directory, const std::vector<std::string>& arguments) {
  return runToolWithInput(directory, arguments, "");
}

// What `program` (e.g. "sha256sum --tag") writes for `names`, run in `directory`.
std::string referenceOutput(const fs::path& directory, const std::string& program,
                            const std::vector<std::string>& names) {
  std::string command = "cd " + shellQuote(directory.string()) + " && " + program;
  for (const auto& name : names) {
    command += ' ';
    command += shellQuote(name);
  }
  return runShell(command + " 2>/dev/null").out;
}

// The checksum `program` gives for one file with a plain name.
std::string referenceChecksum(const fs::path& directory, const std::string& program,
                              const std::string& name) {
  const std::string line = referenceOutput(directory, program, {name});
  if (const auto equals = line.find(") = "); equals != std::string::npos) {
    return line.substr(equals + 4, line.find('\n') - equals - 4);
  }
  return line.substr(0, line.find(' '));
}

// Path -> checksum, from the GNU lines of a reference program over plain names.
std::map<std::string, std::string> checksumsByName(const std::string& gnuLines) {
  std::map<std::string, std::string> checksums;
  std::istringstream lines(gnuLines);
  for (std::string line; std::getline(lines, line);) {
    const auto gap = line.find("  ");
    if (gap != std::string::npos) checksums[line.substr(gap + 2)] = line.substr(0, gap);
  }
  return checksums;
}

std::string tagLine(const std::string& tag, const std::string& name, const std::string& checksum) {
  return tag + " (" + name + ") = " + checksum + "\n";
}

// One line of the tool on stderr about `path`.
std::string report(const std::string& path, const std::string& text) {
  return "corvane-checksum: " + path + ": " + text + "\n";
}

const std::string kLinkSkipped = "symbolic link skipped (use --follow-symlinks)";

// The number of non-overlapping occurrences of `needle` in `text`.
std::size_t countOf(const std::string& text, const std::string& needle) {
  std::size_t count = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

// Deterministic bytes that are not a short repeating pattern.
std::string randomText(std::mt19937_64& random, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    const std::uint64_t word = random();
    for (int b = 0; b < 8; ++b) bytes[i + b] = static_cast<char>(word >> (8 * b));
  }
  for (; i < size; ++i) bytes[i] = static_cast<char>(random());
  return bytes;
}

// Root reads every file: to meet "Permission denied" the tool then runs as user 65534 through
// setpriv. Empty prefix when not root; nullopt when root and setpriv is missing.
std::optional<std::vector<std::string>> unprivilegedPrefix() {
  if (::geteuid() != 0) return std::vector<std::string>{};
  if (!haveProgram("setpriv")) return std::nullopt;
  return std::vector<std::string>{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
}

std::string joinedForShell(const std::vector<std::string>& words) {
  std::string line;
  for (const auto& word : words) line += shellQuote(word) + " ";
  return line;
}

// The tool started with a pipe as its standard input, stdout and stderr going to files: the test
// writes to the pipe, waits until the tool has read what was written (so it is busy with
// standard input) and changes files meanwhile.
class ToolReadingAPipe {
 public:
  ToolReadingAPipe(const std::vector<std::string>& prefix,
                   const std::vector<std::string>& arguments, bool othersMayReopen = true)
      : out_(files_.file("stdout")), err_(files_.file("stderr")) {
    ::sigaction(SIGPIPE, nullptr, &previousSigpipe_);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, nullptr);  // a tool that ends early must not end the test

    std::vector<std::string> command = prefix;
    command.push_back(corvane::testsupport::kToolPath);
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2 failed";
      return;
    }
    // A pipe is its creator's; this lets another user open it again (as /dev/stdin).
    if (othersMayReopen) ::fchmod(ends[0], 0666);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, ends[0], 0);
    ::posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0644);
    ::posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0644);
    const int spawned = ::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[0]);
    input_ = ends[1];
    if (spawned != 0) {
      ADD_FAILURE() << "cannot start " << command[0];
      pid_ = -1;
    }
  }

  ~ToolReadingAPipe() {
    finish();
    ::sigaction(SIGPIPE, &previousSigpipe_, nullptr);
  }
  ToolReadingAPipe(const ToolReadingAPipe&) = delete;
  ToolReadingAPipe& operator=(const ToolReadingAPipe&) = delete;

  // Writes `bytes` and returns once the tool has read them all (false when it ended first, or
  // after a minute).
  bool writeAndWaitUntilRead(const std::string& bytes) {
    if (input_ < 0 ||
        ::write(input_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      return false;
    }
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < limit && !ended()) {
      int unread = 0;
      if (::ioctl(input_, FIONREAD, &unread) != 0) return false;
      if (unread == 0) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  // Closes the pipe and waits for the tool (killed after two minutes).
  RunResult finish() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (!ended()) {
      if (std::chrono::steady_clock::now() > limit) {
        ::kill(pid_, SIGKILL);
        ADD_FAILURE() << "the tool did not end";
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result_.out = readFile(out_);
    result_.err = readFile(err_);
    return result_;
  }

 private:
  // Whether the tool has ended; its exit status is then in result_.
  bool ended() {
    if (pid_ <= 0) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == 0) return false;
    pid_ = -1;
    result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return true;
  }

  ScratchDirectory files_;
  std::string out_;
  std::string err_;
  pid_t pid_ = -1;
  int input_ = -1;
  RunResult result_;
  struct sigaction previousSigpipe_ {};
};

// ----- algorithms ------------------------------------------------------------------------------

TEST(HashCommand, DefaultAlgorithmIsXxh64) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("fox.txt", "The quick brown fox jumps over the lazy dog");
  scratch.writeText("empty", "");
  const std::vector<std::string> names = {"fox.txt", "empty"};

  const RunResult gnu = runIn(scratch.path(), {"hash", "fox.txt", "empty"});
  EXPECT_EQ(gnu.status, 0);
  EXPECT_EQ(gnu.err, "");
  EXPECT_EQ(gnu.out, referenceOutput(scratch.path(), "xxhsum -H1", names));
  EXPECT_EQ(gnu.out, runIn(scratch.path(), {"hash", "-a", "xxh64", "fox.txt", "empty"}).out);

  const RunResult tag = runIn(scratch.path(), {"hash", "--tag", "fox.txt", "empty"});
  EXPECT_EQ(tag.status, 0);
  EXPECT_EQ(tag.out, referenceOutput(scratch.path(), "xxhsum --tag -H1", names));
}

TEST(HashCommand, AlgorithmListsAreCommaSeparatedRepeatedCaseInsensitiveAndCountedOnce) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string contents = "algorithm list\n";
  scratch.writeText("one", contents);
  scratch.writeText("two", "second file");
  const RunResult run = runIn(scratch.path(), {"hash", "-a", "SHA256,md5", "-a", "Xxh3,MD5",
                                               "--algorithm", "sha256,CRC32", "one", "two"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  std::string expected;
  for (const std::string name : {"one", "two"}) {
    expected += tagLine("SHA256", name, referenceChecksum(scratch.path(), "sha256sum", name));
    expected += tagLine("MD5", name, referenceChecksum(scratch.path(), "md5sum", name));
    expected += tagLine("XXH3", name, referenceChecksum(scratch.path(), "xxhsum -H3", name));
    expected += tagLine("CRC32", name,
                        corvane::testsupport::crc32Reference(
                            corvane::testsupport::bytesOf(readFile(scratch.path() / name))));
  }
  EXPECT_EQ(run.out, expected);

  // The same list in JSON: the -a names, each once, in the order given.
  const RunResult json = runIn(scratch.path(), {"hash", "--json", "-a", "SHA256,md5", "-a",
                                                "Xxh3,MD5", "--algorithm", "sha256,CRC32", "one"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(nlohmann::json::parse(json.out).at("algorithms"),
            nlohmann::json({"sha256", "md5", "xxh3", "crc32"}));
}

TEST(HashCommand, OneAlgorithmNamedTwiceWritesGnuLines) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("file", "twice");
  const RunResult run = runIn(scratch.path(), {"hash", "-a", "md5,MD5", "-a", "Md5", "file"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "md5sum", {"file"}));
}

TEST(HashCommand, UnknownAlgorithmIsUsageError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("file", "x");
  for (const std::vector<std::string>& list :
       {std::vector<std::string>{"-a", "md5,whirlpool"},
        std::vector<std::string>{"-a", "sha256", "-a", "whirlpool"},
        std::vector<std::string>{"--algorithm", "WHIRLPOOL"}}) {
    std::vector<std::string> arguments = {"hash"};
    arguments.insert(arguments.end(), list.begin(), list.end());
    arguments.push_back("file");
    SCOPED_TRACE(list.back());
    const RunResult run = runIn(scratch.path(), arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("corvane-checksum: "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(list.back() == "WHIRLPOOL" ? "WHIRLPOOL" : "whirlpool"),
              std::string::npos)
        << run.err;
  }
}

TEST(HashCommand, EmptyNameInAlgorithmListIsUsageError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("file", "x");
  // "-a , md5 file" must not take "md5" as the list and hash "file" with it.
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"hash", "-a", "md5,", "file"},
        std::vector<std::string>{"hash", "-a", ",md5", "file"},
        std::vector<std::string>{"hash", "-a", "md5,,sha1", "file"},
        std::vector<std::string>{"hash", "-a", ",", "md5", "file"},
        std::vector<std::string>{"hash", "-a", "", "file"},
        std::vector<std::string>{"hash", "-a", " ", "file"},
        std::vector<std::string>{"compare", "-a", "md5,", "file", "file"}}) {
    SCOPED_TRACE(arguments[2]);
    const RunResult run = runIn(scratch.path(), arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("corvane-checksum: "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("algorithm"), std::string::npos) << run.err;
  }
}

// ----- line formats ----------------------------------------------------------------------------

TEST(HashCommand, GnuAndTagLinesEqualThoseOfTheReferencePrograms) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  std::mt19937_64 random(corvane::testsupport::randomTestSeed());
  scratch.writeText("empty", "");
  scratch.writeText("a b.txt", "abc");
  scratch.writeText("random.bin", randomText(random, 300001));
  const std::vector<std::string> names = {"empty", "a b.txt", "random.bin"};
  const std::map<std::string, std::string> programs = {
      {"md5", "md5sum"},       {"sha1", "sha1sum"},     {"sha256", "sha256sum"},
      {"sha512", "sha512sum"}, {"xxh64", "xxhsum -H1"}, {"xxh128", "xxhsum -H2"}};
  for (const auto& [algorithm, program] : programs) {
    SCOPED_TRACE(algorithm);
    std::vector<std::string> arguments = {"hash", "-a", algorithm};
    arguments.insert(arguments.end(), names.begin(), names.end());
    const RunResult gnu = runIn(scratch.path(), arguments);
    EXPECT_EQ(gnu.status, 0);
    EXPECT_EQ(gnu.err, "");
    EXPECT_EQ(gnu.out, referenceOutput(scratch.path(), program, names));

    arguments.insert(arguments.begin() + 1, "--tag");
    const RunResult tag = runIn(scratch.path(), arguments);
    EXPECT_EQ(tag.status, 0);
    EXPECT_EQ(tag.err, "");
    const std::string tagProgram =
        program.starts_with("xxhsum") ? "xxhsum --tag" + program.substr(6) : program + " --tag";
    EXPECT_EQ(tag.out, referenceOutput(scratch.path(), tagProgram, names));
  }
  // XXH3 has only the tag form in xxhsum.
  const RunResult xxh3 = runIn(scratch.path(), {"hash", "--tag", "-a", "xxh3", "empty", "a b.txt"});
  EXPECT_EQ(xxh3.out, referenceOutput(scratch.path(), "xxhsum --tag -H3", {"empty", "a b.txt"}));
}

TEST(HashCommand, SeveralAlgorithmsWriteTagLinesPerFileInTheOrderGiven) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("first", "first file\n");
  scratch.writeText("second", std::string(70000, 's'));
  const RunResult run = runIn(scratch.path(), {"hash", "-a", "xxh128,sha1,md5", "first", "second"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  std::string expected;
  for (const std::string name : {"first", "second"}) {
    expected += tagLine("XXH128", name, referenceChecksum(scratch.path(), "xxhsum -H2", name));
    expected += tagLine("SHA1", name, referenceChecksum(scratch.path(), "sha1sum", name));
    expected += tagLine("MD5", name, referenceChecksum(scratch.path(), "md5sum", name));
  }
  EXPECT_EQ(run.out, expected);
  // --tag changes nothing when the lines are tag lines already.
  EXPECT_EQ(
      runIn(scratch.path(), {"hash", "--tag", "-a", "xxh128,sha1,md5", "first", "second"}).out,
      expected);
}

// Names that need care: blanks, escaped bytes, non-ASCII (valid and invalid UTF-8), punctuation.
const std::vector<std::string> kAwkwardNames = {
    "sp ace",      "two  blanks", " leading",    "trailing ",      "new\nline",
    "back\\slash", "cr\rreturn",  "all\\\n\r3",  "caf\xc3\xa9",    "\xff\xfe-not-utf8",
    "tab\tname",   "star*",       "(paren) = x", "dos-name.txt\r", "\xe6\x97\xa5\xe6\x9c\xac"};

// Writes one small distinct file per awkward name into `scratch`.
void writeAwkwardFiles(const ScratchDirectory& scratch) {
  for (std::size_t i = 0; i < kAwkwardNames.size(); ++i) {
    scratch.writeText(kAwkwardNames[i], "content " + std::to_string(i) + "\n");
  }
}

TEST(HashCommand, AwkwardNamesAreWrittenExactlyAsSha256sumWritesThem) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeAwkwardFiles(scratch);
  for (const std::string program : {"sha256sum", "md5sum"}) {
    const std::string algorithm = program == "sha256sum" ? "sha256" : "md5";
    for (const bool tag : {false, true}) {
      SCOPED_TRACE(program + (tag ? " --tag" : ""));
      std::vector<std::string> arguments = {"hash", "-a", algorithm};
      if (tag) arguments.push_back("--tag");
      arguments.insert(arguments.end(), kAwkwardNames.begin(), kAwkwardNames.end());
      const RunResult run = runIn(scratch.path(), arguments);
      EXPECT_EQ(run.status, 0);
      EXPECT_EQ(run.err, "");
      const std::string expected =
          referenceOutput(scratch.path(), program + (tag ? " --tag" : ""), kAwkwardNames);
      EXPECT_EQ(countOf(expected, "\n"), kAwkwardNames.size());  // the reference saw every file
      EXPECT_EQ(run.out, expected);
    }
  }
  // An escaped line, spelt out: a leading backslash, then \\, \n and \r in the name.
  const RunResult one = runIn(scratch.path(), {"hash", "-a", "sha256", "all\\\n\r3"});
  EXPECT_EQ(one.out, "\\" + referenceChecksum(scratch.path(), "sha256sum <", "all\\\n\r3") +
                         "  all\\\\\\n\\r3\n");
}

TEST(HashCommand, ZeroEndsLinesWithNulAndDoesNotEscape) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeAwkwardFiles(scratch);
  const RunResult gnu = runIn(scratch.path(), [] {
    std::vector<std::string> arguments = {"hash", "-z", "-a", "sha256"};
    arguments.insert(arguments.end(), kAwkwardNames.begin(), kAwkwardNames.end());
    return arguments;
  }());
  EXPECT_EQ(gnu.status, 0);
  EXPECT_EQ(gnu.err, "");
  EXPECT_EQ(gnu.out, referenceOutput(scratch.path(), "sha256sum -z", kAwkwardNames));
  EXPECT_EQ(countOf(gnu.out, std::string(1, '\0')), kAwkwardNames.size());
  EXPECT_EQ(gnu.out.find("  \\"), std::string::npos);

  const RunResult tag = runIn(scratch.path(), {"hash", "--zero", "--tag", "-a", "sha256",
                                               "new\nline", "back\\slash", "cr\rreturn"});
  EXPECT_EQ(tag.status, 0);
  EXPECT_EQ(tag.out, referenceOutput(scratch.path(), "sha256sum -z --tag",
                                     {"new\nline", "back\\slash", "cr\rreturn"}));

  const RunResult several =
      runIn(scratch.path(), {"hash", "-z", "-a", "md5,sha256", "new\nline", "sp ace"});
  EXPECT_EQ(several.status, 0);
  std::string expected;
  for (const std::string name : {"new\nline", "sp ace"}) {
    expected += "MD5 (" + name + ") = " + referenceChecksum(scratch.path(), "md5sum <", name) +
                std::string(1, '\0');
    expected += "SHA256 (" + name +
                ") = " + referenceChecksum(scratch.path(), "sha256sum <", name) +
                std::string(1, '\0');
  }
  EXPECT_EQ(several.out, expected);
}

// ----- round trips through the reference programs' check modes ----------------------------------

// Runs `program -c list` in `directory`; the status, and the number of OK / FAILED lines.
struct CheckOutcome {
  int status = -1;
  std::size_t ok = 0;
  std::size_t failed = 0;
  std::string out;
};
CheckOutcome checkWith(const fs::path& directory, const std::string& program,
                       const std::string& listText) {
  ScratchDirectory lists;
  const std::string list = lists.writeText("list", listText);
  const RunResult run = runShell("cd " + shellQuote(directory.string()) + " && " + program +
                                 " -c " + shellQuote(list) + " 2>/dev/null");
  return {run.status, countOf(run.out, ": OK\n"), countOf(run.out, ": FAILED\n"), run.out};
}

TEST(HashCommand, GnuAndTagLinesAreVerifiedByCoreutils) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeAwkwardFiles(scratch);
  const std::map<std::string, std::string> programs = {
      {"md5", "md5sum"}, {"sha1", "sha1sum"}, {"sha256", "sha256sum"}, {"sha512", "sha512sum"}};
  std::map<std::string, std::string> lists;  // "<algorithm> <form>" -> the tool's lines
  for (const auto& [algorithm, program] : programs) {
    for (const bool tag : {false, true}) {
      SCOPED_TRACE(program + (tag ? " -c of --tag lines" : " -c of GNU lines"));
      std::vector<std::string> arguments = {"hash", "-a", algorithm};
      if (tag) arguments.push_back("--tag");
      arguments.insert(arguments.end(), kAwkwardNames.begin(), kAwkwardNames.end());
      const RunResult run = runIn(scratch.path(), arguments);
      ASSERT_EQ(run.status, 0);
      const CheckOutcome checked = checkWith(scratch.path(), program, run.out);
      EXPECT_EQ(checked.status, 0) << checked.out;
      EXPECT_EQ(checked.ok, kAwkwardNames.size()) << checked.out;
      lists[algorithm + (tag ? " tag" : " gnu")] = run.out;
    }
  }
  // The checks are real: after one file changes, each list reports exactly that file.
  scratch.writeText("sp ace", "changed");
  for (const auto& [key, list] : lists) {
    SCOPED_TRACE(key + " after a change");
    const CheckOutcome checked =
        checkWith(scratch.path(), programs.at(key.substr(0, key.find(' '))), list);
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.ok, kAwkwardNames.size() - 1) << checked.out;
    EXPECT_EQ(checked.failed, 1u) << checked.out;
    EXPECT_NE(checked.out.find("sp ace: FAILED\n"), std::string::npos) << checked.out;
  }
}

TEST(HashCommand, XxhashLinesAreVerifiedByXxhsum) {
  SKIP_WITHOUT_REFERENCES();
  // xxhsum 0.8.1 reads GNU and tag lines of XXH64 and XXH128 and tag lines of XXH3 (it takes a
  // 16-digit GNU line for XXH64), and no escaped lines: plain, blank and non-ASCII names only.
  ScratchDirectory scratch;
  std::mt19937_64 random(corvane::testsupport::randomTestSeed());
  const std::vector<std::string> names = {"plain", "sp ace", "caf\xc3\xa9", "empty", "big.bin"};
  scratch.writeText("plain", "plain");
  scratch.writeText("sp ace", "blank");
  scratch.writeText("caf\xc3\xa9", "accent");
  scratch.writeText("empty", "");
  scratch.writeText("big.bin", randomText(random, 3 * 65536 + 17));
  const std::vector<std::vector<std::string>> forms = {
      {"-a", "xxh64"},           {"--tag", "-a", "xxh64"}, {"-a", "xxh128"},
      {"--tag", "-a", "xxh128"}, {"--tag", "-a", "xxh3"},  {"-a", "xxh64,xxh128,xxh3"}};
  std::vector<std::string> lists;
  for (const auto& form : forms) {
    std::vector<std::string> arguments = {"hash"};
    arguments.insert(arguments.end(), form.begin(), form.end());
    arguments.insert(arguments.end(), names.begin(), names.end());
    SCOPED_TRACE(joinedForShell(arguments));
    const RunResult run = runIn(scratch.path(), arguments);
    ASSERT_EQ(run.status, 0);
    const std::size_t lines = countOf(run.out, "\n");
    const CheckOutcome checked = checkWith(scratch.path(), "xxhsum", run.out);
    EXPECT_EQ(checked.status, 0) << checked.out;
    EXPECT_EQ(checked.ok, lines) << checked.out;
    EXPECT_GE(lines, names.size());
    lists.push_back(run.out);
  }
  scratch.writeText("sp ace", "changed");
  for (std::size_t i = 0; i < forms.size(); ++i) {
    SCOPED_TRACE("after a change, list " + std::to_string(i));
    const CheckOutcome checked = checkWith(scratch.path(), "xxhsum", lists[i]);
    EXPECT_EQ(checked.status, 1) << checked.out;
    EXPECT_EQ(checked.failed, countOf(lists[i], "(sp ace)") + countOf(lists[i], "  sp ace\n"))
        << checked.out;
  }
}

// ----- recursion, directories and links --------------------------------------------------------

TEST(HashCommand, RecursiveListsFilesInByteOrderOfTheirPaths) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  // In byte order; a locale's collation would order them otherwise.
  const std::vector<std::string> inByteOrder = {
      "tree/B",   "tree/Z",        "tree/a-b",      "tree/a.b", "tree/a/B",
      "tree/a/b", "tree/a0",       "tree/ab",       "tree/b",   "tree/zz/\xc3\xa9",
      "tree/~",   "tree/\xc3\xa9", "tree/\xc3\xa9x"};
  // Written in another order, so that creation order does not give the answer.
  for (auto it = inByteOrder.rbegin(); it != inByteOrder.rend(); ++it) {
    scratch.writeText(*it, "contents of " + *it);
  }
  const RunResult run = runIn(scratch.path(), {"hash", "-r", "-a", "sha256", "tree"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha256sum", inByteOrder));
  for (const std::string jobs : {"1", "8"}) {
    EXPECT_EQ(
        runIn(scratch.path(), {"hash", "--recursive", "-j", jobs, "-a", "sha256", "tree"}).out,
        run.out)
        << "-j " << jobs;
  }
  // A folder inside the tree, given as PATH, lists its own files.
  EXPECT_EQ(runIn(scratch.path(), {"hash", "-r", "-a", "sha256", "tree/a"}).out,
            referenceOutput(scratch.path(), "sha256sum", {"tree/a/B", "tree/a/b"}));
}

TEST(HashCommand, DirectoryWithoutRecursiveIsAnErrorAndOtherFilesStillPrint) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("before", "before");
  scratch.writeText("dir/inside", "inside");
  scratch.writeText("after", "after");
  const RunResult run = runIn(scratch.path(), {"hash", "-a", "sha1", "before", "dir", "after"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, report("dir", "Is a directory"));
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha1sum", {"before", "after"}));
}

// tree/file, tree/dir/inner, and links to both and to nothing.
void writeTreeWithLinks(const ScratchDirectory& scratch) {
  scratch.writeText("tree/file", "file");
  scratch.writeText("tree/dir/inner", "inner");
  fs::create_symlink("file", scratch.path() / "tree/link-file");
  fs::create_directory_symlink("dir", scratch.path() / "tree/link-dir");
}

TEST(HashCommand, SymbolicLinksMetWhileDescendingAreSkippedWithANotice) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeTreeWithLinks(scratch);
  fs::create_symlink("nowhere", scratch.path() / "tree/dangling");
  const RunResult run = runIn(scratch.path(), {"hash", "-r", "-a", "md5", "tree"});
  EXPECT_EQ(run.status, 0);  // a notice, not an error
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "md5sum", {"tree/dir/inner", "tree/file"}));
  EXPECT_EQ(run.err, report("tree/dangling", kLinkSkipped) + report("tree/link-dir", kLinkSkipped) +
                         report("tree/link-file", kLinkSkipped));
}

TEST(HashCommand, FollowSymlinksHashesLinkedFilesAndDirectories) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeTreeWithLinks(scratch);
  const RunResult run =
      runIn(scratch.path(), {"hash", "-r", "--follow-symlinks", "-a", "md5", "tree"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(
                         scratch.path(), "md5sum",
                         {"tree/dir/inner", "tree/file", "tree/link-dir/inner", "tree/link-file"}));
}

TEST(HashCommand, SymbolicLinkLoopIsReportedAndDoesNotHang) {
  SKIP_WITHOUT_REFERENCES();
  if (!haveProgram("timeout")) GTEST_SKIP() << "timeout (coreutils) not installed";
  ScratchDirectory scratch;
  scratch.writeText("tree/top", "top");
  scratch.writeText("tree/sub/low", "low");
  fs::create_directory_symlink("..", scratch.path() / "tree/sub/up");
  fs::create_directory_symlink(scratch.path() / "tree", scratch.path() / "tree/sub/root");
  const RunResult run =
      runShell("cd " + shellQuote(scratch.path().string()) + " && timeout 60 " +
                   toolCommand({"hash", "-r", "--follow-symlinks", "-a", "md5", "tree"}),
               scratch.path() / "stderr.txt");
  ASSERT_NE(run.status, 124) << "the run did not end within a minute";
  EXPECT_TRUE(run.status == 0 || run.status == 1) << run.status;
  // Each real file once; the cycle is not walked into.
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "md5sum", {"tree/sub/low", "tree/top"}));
  EXPECT_NE(run.err.find("corvane-checksum: tree/sub/root: "), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("corvane-checksum: tree/sub/up: "), std::string::npos) << run.err;
  EXPECT_EQ(countOf(run.err, "\n"), 2u) << run.err;
}

TEST(HashCommand, SymbolicLinkGivenAsPathIsFollowed) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeTreeWithLinks(scratch);
  const RunResult file = runIn(scratch.path(), {"hash", "-a", "sha256", "tree/link-file"});
  EXPECT_EQ(file.status, 0);
  EXPECT_EQ(file.err, "");
  EXPECT_EQ(file.out, referenceOutput(scratch.path(), "sha256sum", {"tree/link-file"}));

  const RunResult directory =
      runIn(scratch.path(), {"hash", "-r", "-a", "sha256", "tree/link-dir"});
  EXPECT_EQ(directory.status, 0);
  EXPECT_EQ(directory.err, "");
  EXPECT_EQ(directory.out, referenceOutput(scratch.path(), "sha256sum", {"tree/link-dir/inner"}));
}

// ----- --files-from, -0 and standard input -----------------------------------------------------

TEST(HashCommand, FilesFromReadsPathsFromAFileAfterTheOperands) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  for (const std::string name : {"op", "one", "two words", "three", "last"}) {
    scratch.writeText(name, "file " + name);
  }
  scratch.writeText("list.txt", "one\n\ntwo words\nthree\n\n\nlast");  // no final newline
  const RunResult run =
      runIn(scratch.path(), {"hash", "-a", "md5", "--files-from", "list.txt", "op"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            referenceOutput(scratch.path(), "md5sum", {"op", "one", "two words", "three", "last"}));
}

TEST(HashCommand, FilesFromDashReadsPathsFromStandardInput) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  for (const std::string name : {"a", "b", "c"}) scratch.writeText(name, "file " + name);
  const RunResult run = runToolWithInput(
      scratch.path(), {"hash", "-a", "sha1", "b", "--files-from", "-", "a"}, "c\n\na\n");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha1sum", {"b", "a", "c", "a"}));
}

TEST(HashCommand, FilesFromKeepsATrailingCarriageReturnInTheName) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("dos", "without carriage return");
  scratch.writeText("dos\r", "with carriage return");
  const RunResult run =
      runToolWithInput(scratch.path(), {"hash", "-a", "sha256", "--files-from", "-"}, "dos\r\n");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha256sum", {"dos\r"}));
  EXPECT_EQ(run.out.front(), '\\');  // escaped, as the name holds a carriage return
}

TEST(HashCommand, NullSeparatedFilesFromReadsNamesHoldingNewlines) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  writeAwkwardFiles(scratch);
  std::string list;
  for (const auto& name : kAwkwardNames) list += name + std::string(2, '\0');  // and empty ones
  scratch.writeText("list0", list);
  const RunResult fromFile =
      runIn(scratch.path(), {"hash", "-a", "sha256", "-0", "--files-from", "list0", "sp ace"});
  EXPECT_EQ(fromFile.status, 0);
  EXPECT_EQ(fromFile.err, "");
  std::vector<std::string> expected = {"sp ace"};
  expected.insert(expected.end(), kAwkwardNames.begin(), kAwkwardNames.end());
  EXPECT_EQ(fromFile.out, referenceOutput(scratch.path(), "sha256sum", expected));

  const RunResult fromInput = runToolWithInput(
      scratch.path(), {"hash", "-a", "sha256", "--null", "--files-from", "-", "sp ace"}, list);
  EXPECT_EQ(fromInput.status, 0);
  EXPECT_EQ(fromInput.out, fromFile.out);
}

TEST(HashCommand, NullWithoutFilesFromIsUsageError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("file", "x");
  for (const std::string option : {"-0", "--null"}) {
    const RunResult run = runIn(scratch.path(), {"hash", option, "file"});
    EXPECT_EQ(run.status, 2) << option;
    EXPECT_EQ(run.out, "") << option;
    EXPECT_NE(run.err.find("corvane-checksum: "), std::string::npos) << run.err;
  }
}

TEST(HashCommand, DashAsPathReadsStandardInput) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  std::mt19937_64 random(corvane::testsupport::randomTestSeed());
  const std::string input = randomText(random, 3 * 1024 * 1024 + 5);
  const std::string inputPath = scratch.writeText("input.bin", input);
  scratch.writeText("file", "file");
  const std::string sha256OfInput =
      runShell("sha256sum <" + shellQuote(inputPath)).out;  // "<checksum>  -\n"
  const RunResult run =
      runToolWithInput(scratch.path(), {"hash", "-a", "sha256", "file", "-"}, input);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha256sum", {"file"}) + sha256OfInput);

  const RunResult tag =
      runToolWithInput(scratch.path(), {"hash", "--tag", "-a", "sha256", "-"}, input);
  EXPECT_EQ(tag.out, runShell("sha256sum --tag <" + shellQuote(inputPath)).out);
}

TEST(HashCommand, DashReadsStandardInputFromWhereItStands) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("ten", "0123456789");
  // `head -c 5` leaves the shared offset of standard input at byte 5; what is left is "56789".
  const std::string command = "{ head -c 5 >/dev/null; " +
                              toolCommand({"hash", "-a", "sha256", "-"}) + "; } <" +
                              shellQuote(file);
  const RunResult run = runShell(command, scratch.path() / "stderr.txt");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, runShell("printf 56789 | sha256sum").out);
  EXPECT_EQ(run.out, runShell("{ head -c 5 >/dev/null; sha256sum -; } <" + shellQuote(file)).out);
}

TEST(HashCommand, DashReadsAPipeOfAnotherUser) {
  SKIP_WITHOUT_REFERENCES();
  if (::geteuid() != 0 || !haveProgram("setpriv")) {
    GTEST_SKIP() << "needs root and setpriv to run the tool as another user";
  }
  // The pipe belongs to this (root) process; the tool, running as user 65534, can read it from
  // its standard input as sha256sum does.
  ToolReadingAPipe tool(*unprivilegedPrefix(), {"hash", "-a", "sha256", "-"},
                        /*othersMayReopen=*/false);
  EXPECT_TRUE(tool.writeAndWaitUntilRead("x"));
  const RunResult run = tool.finish();
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  const std::string expected = runShell("printf x | sha256sum").out;
  EXPECT_EQ(run.out, expected);
  // sha256sum, run the same way, reads it.
  EXPECT_EQ(runShell("printf x | " + joinedForShell(*unprivilegedPrefix()) + "sha256sum -").out,
            expected);
}

// ----- JSON ------------------------------------------------------------------------------------

// Sets the modification time of `path` to `seconds`.`nanoseconds` after the epoch.
void setModified(const std::string& path, std::int64_t seconds, long nanoseconds) {
  const std::chrono::sys_time<std::chrono::nanoseconds> when{std::chrono::seconds(seconds) +
                                                             std::chrono::nanoseconds(nanoseconds)};
  std::error_code error;
  fs::last_write_time(path, std::chrono::file_clock::from_sys(when), error);
  ASSERT_FALSE(error) << path << ": " << error.message();
}

// Checks an ISO 8601 UTC time text against the expected date and time and nanoseconds.
void expectUtcTime(const std::string& text, const std::string& dateAndTime, long nanoseconds) {
  std::smatch fields;
  ASSERT_TRUE(std::regex_match(text, fields,
                               std::regex("([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2})"
                                          "(\\.([0-9]{1,9}))?Z")))
      << text;
  EXPECT_EQ(fields[1].str(), dateAndTime) << text;
  std::string fraction = fields[3].str();
  fraction.resize(9, '0');
  EXPECT_EQ(std::stol(fraction), nanoseconds) << text;
}

TEST(HashCommand, JsonDocumentHoldsFilesErrorsAndTotals) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  std::mt19937_64 random(corvane::testsupport::randomTestSeed());
  scratch.writeText("a.txt", "hello");
  scratch.writeText("big.bin", randomText(random, 1024 * 1024 + 3));
  scratch.writeText("bad\xff", "invalid UTF-8 name");
  scratch.writeText("dir/inside", "x");
  setModified(scratch.file("a.txt"), 1614834367, 123456789);    // 2021-03-04T05:06:07.123456789Z
  setModified(scratch.file("big.bin"), 951782400, 0);           // 2000-02-29T00:00:00Z
  setModified(scratch.file("bad\xff"), 4102444799, 999999999);  // 2099-12-31T23:59:59.999999999Z
  const RunResult run = runIn(scratch.path(), {"hash", "--json", "-a", "sha256,xxh128", "a.txt",
                                               "gone", "big.bin", "dir", "bad\xff"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, report("gone", "No such file or directory") + report("dir", "Is a directory"));
  const nlohmann::json document = nlohmann::json::parse(run.out);
  ASSERT_TRUE(document.is_object());
  EXPECT_EQ(document.size(), 3u) << run.out;
  EXPECT_EQ(document.at("algorithms"), nlohmann::json({"sha256", "xxh128"}));

  const nlohmann::json& files = document.at("files");
  ASSERT_TRUE(files.is_array());
  ASSERT_EQ(files.size(), 5u) << run.out;
  const auto expectFile = [&](const nlohmann::json& entry, const std::string& name,
                              const std::string& shownPath, std::uint64_t size,
                              const std::string& dateAndTime, long nanoseconds,
                              const std::string& pathHex = "") {
    SCOPED_TRACE(shownPath);
    EXPECT_EQ(entry.size(), pathHex.empty() ? 4u : 5u) << entry.dump();
    EXPECT_EQ(entry.at("path"), shownPath);
    if (!pathHex.empty()) EXPECT_EQ(entry.at("pathHex"), pathHex);
    EXPECT_EQ(entry.at("size"), size);
    expectUtcTime(entry.at("modified").get<std::string>(), dateAndTime, nanoseconds);
    EXPECT_EQ(
        entry.at("checksums"),
        nlohmann::json({{"sha256", referenceChecksum(scratch.path(), "sha256sum <", name)},
                        {"xxh128", referenceChecksum(scratch.path(), "xxhsum -H2 <", name)}}));
  };
  expectFile(files[0], "a.txt", "a.txt", 5, "2021-03-04T05:06:07", 123456789);
  EXPECT_EQ(files[1], nlohmann::json({{"path", "gone"}, {"error", "No such file or directory"}}));
  expectFile(files[2], "big.bin", "big.bin", 1024 * 1024 + 3, "2000-02-29T00:00:00", 0);
  EXPECT_EQ(files[3], nlohmann::json({{"path", "dir"}, {"error", "Is a directory"}}));
  // A name that is not UTF-8: readable with the bad byte written out, and its bytes in hex.
  expectFile(files[4], "bad\xff", "bad\\xff", 18, "2099-12-31T23:59:59", 999999999, "626164ff");

  EXPECT_EQ(document.at("totals"),
            nlohmann::json(
                {{"files", 5}, {"hashed", 3}, {"errors", 2}, {"skipped", 0}, {"bytes", 5 + 1024 * 1024 + 3 + 18}}));
}

TEST(HashCommand, JsonKeepsNamesThatAreNotUtf8ApartAndRecoverable) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  // Two names that a lossy conversion (U+FFFD) would collapse into one, a name whose text already
  // looks like the escaped form of the first, a backslash beside a bad byte, and valid UTF-8.
  const std::vector<std::string> names = {"bad\xff",  "bad\xfe",     "bad\\xff",
                                          "a\\b\x80", "caf\xc3\xa9", "over\xc0\xaflong"};
  for (const std::string& name : names) scratch.writeText(name, "x");
  std::vector<std::string> arguments = {"hash", "--json"};
  arguments.insert(arguments.end(), names.begin(), names.end());
  const RunResult run = runIn(scratch.path(), arguments);
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json files = nlohmann::json::parse(run.out).at("files");
  ASSERT_EQ(files.size(), names.size());
  EXPECT_EQ(files[0].at("path"), "bad\\xff");
  EXPECT_EQ(files[0].at("pathHex"), "626164ff");
  EXPECT_EQ(files[1].at("path"), "bad\\xfe");
  EXPECT_EQ(files[1].at("pathHex"), "626164fe");
  EXPECT_EQ(files[2].at("path"), "bad\\xff");  // valid UTF-8: as it is, no hex
  EXPECT_FALSE(files[2].contains("pathHex"));
  EXPECT_EQ(files[3].at("path"), "a\\\\b\\x80");
  EXPECT_EQ(files[3].at("pathHex"), "615c6280");
  EXPECT_EQ(files[4].at("path"), "caf\xc3\xa9");
  EXPECT_FALSE(files[4].contains("pathHex"));
  EXPECT_EQ(files[5].at("path"), "over\\xc0\\xaflong");  // an overlong '/' is not UTF-8
  // Every name is recovered from the report: as it is, or from its hex bytes.
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::string recovered = files[i].at("path").get<std::string>();
    if (files[i].contains("pathHex")) {
      const std::string hex = files[i].at("pathHex").get<std::string>();
      recovered.clear();
      for (std::size_t k = 0; k < hex.size(); k += 2) {
        recovered += static_cast<char>(std::stoi(hex.substr(k, 2), nullptr, 16));
      }
    }
    EXPECT_EQ(recovered, names[i]) << i;
  }
}

TEST(HashCommand, JsonModifiedTimeEqualsTheFilesModificationTime) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  const std::string file = scratch.writeText("now", "written now");
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  struct tm fields {};
  ::gmtime_r(&status.st_mtim.tv_sec, &fields);
  char dateAndTime[32];
  std::strftime(dateAndTime, sizeof dateAndTime, "%Y-%m-%dT%H:%M:%S", &fields);
  const RunResult run = runIn(scratch.path(), {"hash", "--json", "now"});
  EXPECT_EQ(run.status, 0);
  const nlohmann::json document = nlohmann::json::parse(run.out);
  expectUtcTime(document.at("files").at(0).at("modified").get<std::string>(), dateAndTime,
                status.st_mtim.tv_nsec);
}

// ----- errors and exit status ------------------------------------------------------------------

TEST(HashCommand, EveryFileHashedExitsZeroWithNothingOnStderr) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("one", "1");
  scratch.writeText("dir/two", "2");
  const RunResult run = runIn(scratch.path(), {"hash", "-r", "-a", "sha512", "one", "dir"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha512sum", {"one", "dir/two"}));
}

TEST(HashCommand, MissingFileIsReportedAndTheRunGoesOn) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  scratch.writeText("first", "first");
  scratch.writeText("last", "last");
  const RunResult run = runIn(
      scratch.path(), {"hash", "-a", "sha256,md5", "first", "missing", "no/such/dir/file", "last"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, report("missing", "No such file or directory") +
                         report("no/such/dir/file", "No such file or directory"));
  std::string expected;
  for (const std::string name : {"first", "last"}) {
    expected += tagLine("SHA256", name, referenceChecksum(scratch.path(), "sha256sum", name));
    expected += tagLine("MD5", name, referenceChecksum(scratch.path(), "md5sum", name));
  }
  EXPECT_EQ(run.out, expected);
}

TEST(HashCommand, UnreadableFilesAndFoldersAreReportedAndTheRunGoesOn) {
  SKIP_WITHOUT_REFERENCES();
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0755), 0);  // searchable by the unprivileged user
  scratch.writeText("tree/a", "a");
  scratch.writeText("tree/b-secret", "b");
  scratch.writeText("tree/c/locked", "c");
  scratch.writeText("tree/d", "d");
  scratch.writeText("single", "single");
  ASSERT_EQ(::chmod(scratch.file("tree/b-secret").c_str(), 0), 0);
  ASSERT_EQ(::chmod(scratch.file("tree/c").c_str(), 0), 0);
  const RunResult run =
      runShell("cd " + shellQuote(scratch.path().string()) + " && " +
                   toolCommand({"hash", "-a", "sha256", "tree/b-secret", "single", "-r", "tree"},
                               joinedForShell(*prefix)),
               scratch.path() / "stderr.txt");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, report("tree/b-secret", "Permission denied") +
                         report("tree/b-secret", "Permission denied") +
                         report("tree/c", "Permission denied"));
  EXPECT_EQ(run.out, referenceOutput(scratch.path(), "sha256sum", {"single", "tree/a", "tree/d"}));
}

TEST(HashCommand, FileRemovedOrMadeUnreadableDuringTheRunIsReported) {
  SKIP_WITHOUT_REFERENCES();
  const auto prefix = unprivilegedPrefix();
  if (!prefix) GTEST_SKIP() << "running as root and setpriv is not available";
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0755), 0);
  for (const std::string name : {"a", "b", "c", "d"}) scratch.writeText("tree/" + name, name);
  const std::string tree = scratch.file("tree");
  const std::string expectedOut =
      runShell("printf x | sha256sum").out +
      referenceOutput(scratch.path(), "sha256sum", {tree + "/a", tree + "/d"});

  // One job: standard input is hashed first, and while the tool waits for the rest of it, b goes
  // away and c loses its permissions. (The files are named: a folder is walked only when the run
  // gets to it, and a file gone by then is simply not there to be listed.)
  ToolReadingAPipe tool(*prefix, {"hash", "-j", "1", "-a", "sha256", "-", tree + "/a", tree + "/b",
                                  tree + "/c", tree + "/d"});
  ASSERT_TRUE(tool.writeAndWaitUntilRead("x"));
  ASSERT_TRUE(fs::remove(tree + "/b"));
  ASSERT_EQ(::chmod((tree + "/c").c_str(), 0), 0);
  const RunResult run = tool.finish();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, report(tree + "/b", "No such file or directory") +
                         report(tree + "/c", "Permission denied"));
  EXPECT_EQ(run.out, expectedOut);
}

TEST(HashCommand, JobsOutsideOneTo256IsUsageError) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("file", "x");
  for (const std::string jobs : {"0", "257", "-1", "many"}) {
    const RunResult run = runIn(scratch.path(), {"hash", "-j", jobs, "file"});
    EXPECT_EQ(run.status, 2) << jobs;
    EXPECT_EQ(run.out, "") << jobs;
    EXPECT_FALSE(run.err.empty()) << jobs;
  }
  for (const std::string jobs : {"1", "256"}) {
    const RunResult run = runIn(scratch.path(), {"hash", "--jobs", jobs, "file"});
    EXPECT_EQ(run.status, 0) << jobs;
    EXPECT_EQ(run.err, "") << jobs;
  }
}

// ----- deterministic output --------------------------------------------------------------------

TEST(HashCommand, ManyFilesGiveTheSameOutputWithOneAndEightJobsEqualToReferences) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  const std::uint64_t seed = corvane::testsupport::randomTestSeed();
  SCOPED_TRACE(corvane::testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  constexpr std::size_t kKiB = 1024;
  constexpr std::size_t kMiB = 1024 * kKiB;
  // Sizes at the edges of read chunks first, then random ones: mostly small, some up to 3 MiB.
  std::vector<std::size_t> sizes = {
      0,        1,    64 * kKiB - 1, 64 * kKiB, 64 * kKiB + 1,        128 * kKiB, 192 * kKiB,
      kMiB - 1, kMiB, kMiB + 1,      2 * kMiB,  3 * kMiB - 64 * kKiB, 3 * kMiB};
  while (sizes.size() < 300) {
    sizes.push_back(random() % 8 == 0 ? random() % (3 * kMiB + 1) : random() % (160 * kKiB));
  }
  const std::vector<std::string> folders = {"", "A/", "a/", "a/b/", "a-b/", "z/"};
  std::vector<std::string> names;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "%06llx-%zu", static_cast<unsigned long long>(random() >> 40),
                  i);
    names.push_back("tree/" + folders[random() % folders.size()] + name);
    scratch.writeText(names.back(), randomText(random, sizes[i]));
  }
  std::sort(names.begin(), names.end());  // byte order, as the walk lists them

  const std::string sha256 = referenceOutput(scratch.path(), "sha256sum", names);
  const std::string md5 = referenceOutput(scratch.path(), "md5sum", names);
  const std::string xxh64 = referenceOutput(scratch.path(), "xxhsum -H1", names);
  ASSERT_EQ(countOf(sha256, "\n"), names.size());
  ASSERT_EQ(countOf(md5, "\n"), names.size());
  ASSERT_EQ(countOf(xxh64, "\n"), names.size());
  const auto sha256ByName = checksumsByName(sha256);
  const auto md5ByName = checksumsByName(md5);
  const auto xxh64ByName = checksumsByName(xxh64);
  std::string expected;
  for (const auto& name : names) {
    expected += tagLine("SHA256", name, sha256ByName.at(name)) +
                tagLine("MD5", name, md5ByName.at(name)) +
                tagLine("XXH64", name, xxh64ByName.at(name));
  }

  const RunResult serial =
      runIn(scratch.path(), {"hash", "-r", "-j", "1", "-a", "sha256,md5,xxh64", "tree"});
  const RunResult parallel =
      runIn(scratch.path(), {"hash", "-r", "-j", "8", "-a", "sha256,md5,xxh64", "tree"});
  EXPECT_EQ(serial.status, 0);
  EXPECT_EQ(parallel.status, 0);
  EXPECT_EQ(serial.err, "");
  EXPECT_EQ(parallel.err, "");
  EXPECT_TRUE(serial.out == parallel.out) << "-j 1 and -j 8 differ";
  EXPECT_TRUE(serial.out == expected) << "-j 1 differs from the reference programs";

  for (const auto& [algorithm, reference] :
       {std::pair{"sha256", sha256}, std::pair{"md5", md5}, std::pair{"xxh64", xxh64}}) {
    const RunResult one = runIn(scratch.path(), {"hash", "-r", "-j", "8", "-a", algorithm, "tree"});
    EXPECT_EQ(one.status, 0) << algorithm;
    EXPECT_TRUE(one.out == reference) << algorithm << " -j 8 differs from its reference program";
  }
}

TEST(HashCommand, LargeFileOverSeveralReadChunksEqualsReferences) {
  SKIP_WITHOUT_REFERENCES();
  ScratchDirectory scratch;
  std::mt19937_64 random(corvane::testsupport::randomTestSeed());
  scratch.writeText("large.bin", randomText(random, 20 * 1024 * 1024 + 7));
  const RunResult sha256 = runIn(scratch.path(), {"hash", "-a", "sha256", "large.bin"});
  EXPECT_EQ(sha256.status, 0);
  EXPECT_EQ(sha256.out, referenceOutput(scratch.path(), "sha256sum", {"large.bin"}));
  const RunResult both = runIn(scratch.path(), {"hash", "-a", "xxh128,sha256", "large.bin"});
  EXPECT_EQ(both.status, 0);
  EXPECT_EQ(both.out, tagLine("XXH128", "large.bin",
                              referenceChecksum(scratch.path(), "xxhsum -H2", "large.bin")) +
                          tagLine("SHA256", "large.bin",
                                  referenceChecksum(scratch.path(), "sha256sum", "large.bin")));
}

// ----- progress and summary --------------------------------------------------------------------

// "<F> files, <B> bytes in <S> s (<R>/s), <E> errors" with the given F, B and E; a count of one
// takes the singular ("1 file", "1 byte", "1 error"). S has two decimals.
std::regex summaryLine(std::size_t files, std::size_t bytes, std::size_t errors,
                       const std::string& lineEnd = "\n") {
  const auto counted = [](std::size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
  };
  return std::regex("corvane-checksum: " + counted(files, "file") + ", " + counted(bytes, "byte") +
                    " in [0-9]+\\.[0-9]{2} s \\(([0-9]+ B|[0-9]+\\.[0-9] "
                    "(KiB|MiB|GiB))/s\\), " +
                    counted(errors, "error") + lineEnd);
}

TEST(HashCommand, SummaryLineCountsFilesBytesAndErrors) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("four", "4444");
  scratch.writeText("five", "55555");
  const RunResult clean = runIn(scratch.path(), {"hash", "--summary", "four", "five"});
  EXPECT_EQ(clean.status, 0);
  EXPECT_EQ(countOf(clean.out, "\n"), 2u);
  EXPECT_TRUE(std::regex_match(clean.err, summaryLine(2, 9, 0))) << clean.err;

  // A missing file counts as a file, and as an error.
  const RunResult failed =
      runIn(scratch.path(), {"hash", "--summary", "--no-progress", "four", "gone", "five"});
  EXPECT_EQ(failed.status, 1);
  const std::string error = report("gone", "No such file or directory");
  ASSERT_EQ(failed.err.rfind(error, 0), 0u) << failed.err;
  EXPECT_TRUE(std::regex_match(failed.err.substr(error.size()), summaryLine(3, 9, 1)))
      << failed.err;

  // Without --summary, and stderr a file: nothing.
  EXPECT_EQ(runIn(scratch.path(), {"hash", "four", "five"}).err, "");
}

TEST(HashCommand, NoProgressLineWhenStderrIsAFile) {
  SKIP_WITHOUT_TOOL();
  ScratchDirectory scratch;
  scratch.writeText("file", "file");
  // Standard input arrives after a second, so that a progress line would have been drawn.
  const RunResult run =
      runShell("cd " + shellQuote(scratch.path().string()) + " && (sleep 1; printf abc) | " +
                   toolCommand({"hash", "file", "-"}),
               scratch.path() / "stderr.txt");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(countOf(run.out, "\n"), 2u);
  EXPECT_EQ(run.err, "");
}

TEST(HashCommand, ProgressLineAndSummaryWhenStderrIsATerminal) {
  SKIP_WITHOUT_TOOL();
  if (!haveProgram("script") || runShell("script -qec true /dev/null </dev/null").status != 0) {
    GTEST_SKIP() << "util-linux script is not available";
  }
  ScratchDirectory scratch;
  scratch.writeText("file", "file");
  // Under `script` stdout and stderr are both the terminal; standard input of the tool is a pipe
  // whose data arrives after a second and a half, while the progress line is redrawn.
  const auto underTerminal = [&](const std::vector<std::string>& arguments) {
    const std::string command = "cd " + shellQuote(scratch.path().string()) +
                                " && (sleep 1.5; printf abc) | " + toolCommand(arguments);
    return runShell("timeout 60 script -qec " + shellQuote(command) + " /dev/null </dev/null");
  };
  const auto start = std::chrono::steady_clock::now();
  const RunResult shown = underTerminal({"hash", "-a", "md5", "file", "-"});
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(shown.status, 0);
  // Redraws: a carriage return not followed by the newline of a finished line.
  const std::size_t redraws = countOf(shown.out, "\r") - countOf(shown.out, "\r\n");
  EXPECT_GE(redraws, 3u) << shown.out;
  EXPECT_LE(redraws, static_cast<std::size_t>(seconds * 10) + 2) << shown.out;
  // With files done/total (1 of 2 while standard input is awaited).
  EXPECT_NE(shown.out.find("\r1/2"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("/s"), std::string::npos) << shown.out;
  // The checksum lines are all there, and the summary comes last though --summary was not given.
  EXPECT_NE(shown.out.find("  file\r\n"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("  -\r\n"), std::string::npos) << shown.out;
  const auto summary = shown.out.rfind("corvane-checksum: ");
  ASSERT_NE(summary, std::string::npos) << shown.out;
  EXPECT_TRUE(std::regex_match(shown.out.substr(summary), summaryLine(2, 7, 0, "\r\n")))
      << shown.out;

  const RunResult hidden = underTerminal({"hash", "--no-progress", "-a", "md5", "file", "-"});
  EXPECT_EQ(hidden.status, 0);
  // Only the checksum lines, with the terminal's line ends.
  std::string lines =
      referenceOutput(scratch.path(), "md5sum", {"file"}) + runShell("printf abc | md5sum").out;
  lines = std::regex_replace(lines, std::regex("\n"), "\r\n");
  EXPECT_EQ(hidden.out, lines);
  EXPECT_EQ(hidden.out.find("corvane-checksum"), std::string::npos) << hidden.out;
  EXPECT_EQ(countOf(hidden.out, "\r"), 2u) << hidden.out;

  const RunResult summaryOnly =
      underTerminal({"hash", "--no-progress", "--summary", "-a", "md5", "file", "-"});
  EXPECT_EQ(summaryOnly.status, 0);
  EXPECT_EQ(countOf(summaryOnly.out, "\r") - countOf(summaryOnly.out, "\r\n"), 0u)
      << summaryOnly.out;
  const auto last = summaryOnly.out.rfind("corvane-checksum: ");
  ASSERT_NE(last, std::string::npos) << summaryOnly.out;
  EXPECT_TRUE(std::regex_match(summaryOnly.out.substr(last), summaryLine(2, 7, 0, "\r\n")))
      << summaryOnly.out;
}

}  // namespace
