// Durable writes: complete at the final name or absent, never a torn file, also when the writer
// is killed at any moment or a write fails halfway.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "support/ScratchDirectory.hpp"
#include "support/ToolRunner.hpp"
#include "util/DurableFile.hpp"

namespace {

namespace fs = std::filesystem;
using corvane::detail::removeStaleTemporaries;
using corvane::detail::ReplacePolicy;
using corvane::detail::writeFileDurably;
using corvane::testsupport::readFile;
using corvane::testsupport::ScratchDirectory;

// Every file name in `folder`.
std::set<std::string> namesIn(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

TEST(DurableFile, WritesTheBytesUnderTheFinalNameAndLeavesNoTemporary) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("manifest.mhl");
  const std::string bytes(100000, 'x');
  EXPECT_FALSE(writeFileDurably(path, bytes, ReplacePolicy::neverReplace));
  EXPECT_EQ(readFile(path), bytes);
  EXPECT_EQ(namesIn(scratch.path()), std::set<std::string>{"manifest.mhl"});
}

TEST(DurableFile, NeverReplaceRefusesAnExistingFileAndLeavesItAlone) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeText("0001.mhl", "the first generation");
  const auto error = writeFileDurably(path, "something else", ReplacePolicy::neverReplace);
  ASSERT_TRUE(error);
  EXPECT_EQ(error.code, EEXIST);
  EXPECT_NE(error.message.find("0001.mhl: File exists"), std::string::npos) << error.message;
  EXPECT_EQ(readFile(path), "the first generation");
  EXPECT_EQ(namesIn(scratch.path()), std::set<std::string>{"0001.mhl"});
}

TEST(DurableFile, ReplaceSwapsTheWholeFile) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeText("chain.xml", "old chain, longer than the new one");
  EXPECT_FALSE(writeFileDurably(path, "new chain", ReplacePolicy::replace));
  EXPECT_EQ(readFile(path), "new chain");
  EXPECT_EQ(namesIn(scratch.path()), std::set<std::string>{"chain.xml"});
}

TEST(DurableFile, MissingFolderIsAnErrorNamingThePath) {
  ScratchDirectory scratch;
  const auto error =
      writeFileDurably(scratch.file("no/such/folder/f"), "x", ReplacePolicy::replace);
  ASSERT_TRUE(error);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_NE(error.message.find("No such file or directory"), std::string::npos);
}

TEST(DurableFile, FailingWriteLeavesNothingBehind) {
  // A file-size limit makes write() fail with EFBIG halfway, as a full disk would with ENOSPC.
  ScratchDirectory scratch;
  const std::string path = scratch.file("big.mhl");
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const auto error = writeFileDurably(path, std::string(100000, 'y'), ReplacePolicy::replace);
    ::_exit(error.code == EFBIG ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the write did not fail with EFBIG";
  EXPECT_TRUE(namesIn(scratch.path()).empty());
}

TEST(DurableFile, KilledWriterLeavesTheOldOrTheNewFileNeverATornOne) {
  // A child rewrites the file over and over with contents of different lengths; it is killed at
  // random moments. Whatever is under the final name is always one complete content, and the
  // temporaries it left are cleared by removeStaleTemporaries().
  ScratchDirectory scratch;
  const std::string path = scratch.file("ascmhl_chain.xml");
  const auto contentOf = [](int generation) {
    return "generation " + std::to_string(generation) + " " +
           std::string(static_cast<std::size_t>(1000 + (generation * 7919) % 200000), 'g');
  };
  ASSERT_FALSE(writeFileDurably(path, contentOf(0), ReplacePolicy::replace));
  std::mt19937 random(12345);
  for (int round = 0; round < 40; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int generation = 1;; ++generation) {
        writeFileDurably(path, contentOf(generation), ReplacePolicy::replace);
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    const std::string found = readFile(path);
    const auto space = found.find(' ', 11);
    ASSERT_NE(space, std::string::npos) << "round " << round;
    const int generation = std::stoi(found.substr(11, space - 11));
    EXPECT_EQ(found, contentOf(generation)) << "round " << round;
    removeStaleTemporaries(scratch.path().string());
    EXPECT_EQ(namesIn(scratch.path()), std::set<std::string>{"ascmhl_chain.xml"})
        << "round " << round;
  }
}

}  // namespace
