// The file-set engine hashing SHA-1 in vector lanes, several files on one thread, alone and beside
// MD5 in the same group: every result equals that of the single-stream path
// (FileSetSettings::forceScalarSha1, forceScalarMd5) and OpenSSL's, on every lane path the
// processor has (CORVANE_SHA1_LANES), with files that change while read or are cut short by a stop
// in the middle of a group; the settings and the variable that force the single-stream path.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "checksum/Md5Lanes.hpp"
#include "checksum/Sha1Lanes.hpp"
#include "corvane/FileSetHasher.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/Vectors.hpp"

namespace {

using namespace corvane;
using corvane::detail::LanePath;
using testsupport::ScratchDirectory;

// Sets an environment variable for the life of the object, then restores what was there.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    const char* before = std::getenv(name);
    if (before != nullptr) previous_ = before;
    ::setenv(name, value, 1);
  }
  ~ScopedVariable() {
    if (previous_) {
      ::setenv(name_, previous_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

// Sizes that cover the padding's edges, pieces of a group turn (64 KiB) and chunks (1 MiB).
const std::vector<std::size_t> kSizes = {
    0,    1,     55,    56,    63,    64,      65,      119,           120,    1000,
    4096, 65535, 65536, 65537, 99999, 3 << 16, 1 << 20, (1 << 20) + 3, 2500000};

struct Tree {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  std::map<std::string, Bytes> contents;
};

// `count` files of the sizes above in turn, random bytes.
void fillTree(Tree& tree, std::size_t count, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  for (std::size_t k = 0; k < count; ++k) {
    Bytes content = testsupport::randomBytes(random, kSizes[k % kSizes.size()]);
    char name[32];
    std::snprintf(name, sizeof name, "f%03zu.bin", k);
    tree.paths.push_back(tree.scratch.writeFile(name, content));
    tree.contents[tree.paths.back()] = std::move(content);
  }
}

std::vector<FileSetResult> runAll(const FileSetHasher& hasher, FileSetInput input) {
  std::vector<FileSetResult> results;
  hasher.run(std::move(input),
             [&results](FileSetResult&& result) { results.push_back(std::move(result)); });
  return results;
}

void expectSameResults(const std::vector<FileSetResult>& actual,
                       const std::vector<FileSetResult>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t k = 0; k < actual.size(); ++k) {
    SCOPED_TRACE("result " + std::to_string(k) + ": " + expected[k].entry.path);
    EXPECT_EQ(actual[k].index, expected[k].index);
    EXPECT_EQ(actual[k].entry.path, expected[k].entry.path);
    EXPECT_EQ(actual[k].size, expected[k].size);
    EXPECT_EQ(actual[k].checksums, expected[k].checksums);
    EXPECT_EQ(actual[k].error.kind, expected[k].error.kind);
    EXPECT_EQ(actual[k].error.code, expected[k].error.code);
    EXPECT_EQ(actual[k].error.message, expected[k].error.message);
  }
}

std::string openSsl(const EVP_MD* md, const Bytes& bytes) {
  return testsupport::hexEncode(testsupport::evpDigest(md, bytes));
}

// The lane paths this processor has, for CORVANE_SHA1_LANES and CORVANE_MD5_LANES.
std::vector<const char*> supportedLanePaths() {
  std::vector<const char*> paths;
  if (detail::lanePathSupported(LanePath::avx2)) paths.push_back("avx2");
  if (detail::lanePathSupported(LanePath::avx512)) paths.push_back("avx512");
  return paths;
}

// Records how many reads were open at once.
class OverlapObserver : public ReadObserver {
 public:
  void readStarted(const std::string&, std::uint64_t) override {
    const std::lock_guard lock(mutex_);
    maximum_ = std::max(maximum_, ++open_);
  }
  void readFinished(const std::string&) override {
    const std::lock_guard lock(mutex_);
    --open_;
  }
  int maximum() {
    const std::lock_guard lock(mutex_);
    return maximum_;
  }

 private:
  std::mutex mutex_;
  int open_ = 0;
  int maximum_ = 0;
};

int mostFilesReadAtOnce(const Tree& tree, FileSetSettings settings) {
  OverlapObserver observer;
  settings.filesInFlight = 1;
  settings.observer = &observer;
  runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
  return observer.maximum();
}

TEST(FileSetHasherSha1Lanes, GroupedChecksumsEqualTheSingleStreamPathAndOpenSsl) {
  const std::vector<const char*> paths = supportedLanePaths();
  if (paths.empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 60, testsupport::randomTestSeed());
  for (const std::vector<ChecksumType>& algorithms :
       {std::vector<ChecksumType>{ChecksumTypeSHA1},
        std::vector<ChecksumType>{ChecksumTypeXXHash64, ChecksumTypeSHA1, ChecksumTypeCRC32},
        std::vector<ChecksumType>{ChecksumTypeMD5, ChecksumTypeSHA1}}) {
    for (const unsigned filesInFlight : {1U, 2U}) {
      FileSetSettings settings{.algorithms = algorithms, .filesInFlight = filesInFlight};
      settings.forceScalarMd5 = true;
      settings.forceScalarSha1 = true;
      const std::vector<FileSetResult> single =
          runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
      ASSERT_EQ(single.size(), tree.paths.size());
      for (const FileSetResult& result : single) {
        ASSERT_TRUE(result.ok()) << result.entry.path << ": " << result.error.message;
        EXPECT_EQ(result.checksums.at(ChecksumTypeSHA1),
                  openSsl(EVP_sha1(), tree.contents.at(result.entry.path)));
      }
      settings.forceScalarMd5 = false;
      settings.forceScalarSha1 = false;
      for (const char* path : paths) {
        SCOPED_TRACE(std::string(path) + ", " + std::to_string(algorithms.size()) +
                     " algorithms, filesInFlight " + std::to_string(filesInFlight));
        const ScopedVariable sha1(detail::kSha1LanesEnvironmentVariable, path);
        const ScopedVariable md5(detail::kMd5LanesEnvironmentVariable, path);
        expectSameResults(runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths)), single);
      }
      // One algorithm in lanes, the other alone.
      settings.forceScalarMd5 = true;
      expectSameResults(runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths)), single);
      settings.forceScalarMd5 = false;
      settings.forceScalarSha1 = true;
      expectSameResults(runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths)), single);
    }
  }
}

TEST(FileSetHasherSha1Lanes, WalkedTreeGivesTheSameResultsGroupedAsAlone) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 40, testsupport::randomTestSeed() + 1);
  tree.scratch.writeText("sub/inner.txt", "inside");
  FileSetSettings settings{.algorithms = {ChecksumTypeSHA1, ChecksumTypeXXHashH3128}};
  settings.forceScalarSha1 = true;
  const std::vector<FileSetResult> single =
      runAll(FileSetHasher(settings), FileSetInput::walk(tree.scratch.path().string()));
  settings.forceScalarSha1 = false;
  expectSameResults(
      runAll(FileSetHasher(settings), FileSetInput::walk(tree.scratch.path().string())), single);
}

TEST(FileSetHasherSha1Lanes, OneThreadReadsSeveralSha1FilesAtOnce) {
  if (detail::laneCount(detail::sha1LanePathInUse()) == 1) {
    GTEST_SKIP() << "no SHA-1 lanes in use: the processor has neither AVX2 nor AVX-512, or "
                 << detail::kSha1LanesEnvironmentVariable << " says scalar";
  }
  Tree tree;
  fillTree(tree, 30, 7);
  EXPECT_GE(mostFilesReadAtOnce(tree, {.algorithms = {ChecksumTypeSHA1}}), 4)
      << "files were not read together";
}

TEST(FileSetHasherSha1Lanes, Md5AndSha1FilesAreReadTogether) {
  if (detail::laneCount(detail::sha1LanePathInUse()) == 1 ||
      detail::laneCount(detail::md5LanePathInUse()) == 1) {
    GTEST_SKIP() << "MD5 or SHA-1 has no lanes in use here";
  }
  Tree tree;
  fillTree(tree, 30, 7);
  EXPECT_GE(mostFilesReadAtOnce(tree, {.algorithms = {ChecksumTypeMD5, ChecksumTypeSHA1}}), 4)
      << "files were not read together";
}

TEST(FileSetHasherSha1Lanes, ForcedScalarSha1ReadsOneFileAtATime) {
  Tree tree;
  fillTree(tree, 30, 7);
  FileSetSettings settings{.algorithms = {ChecksumTypeSHA1}};
  settings.forceScalarSha1 = true;
  EXPECT_EQ(mostFilesReadAtOnce(tree, settings), 1);
  // With MD5 beside it, one algorithm without lanes keeps the file out of groups.
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeSHA1};
  EXPECT_EQ(mostFilesReadAtOnce(tree, settings), 1);
  settings.forceScalarSha1 = false;
  settings.forceScalarMd5 = true;
  EXPECT_EQ(mostFilesReadAtOnce(tree, settings), 1);
}

TEST(FileSetHasherSha1Lanes, ForcedScalarMd5LeavesSha1Grouped) {
  if (detail::laneCount(detail::sha1LanePathInUse()) == 1) {
    GTEST_SKIP() << "no SHA-1 lanes in use here";
  }
  Tree tree;
  fillTree(tree, 30, 7);
  FileSetSettings settings{.algorithms = {ChecksumTypeSHA1}};
  settings.forceScalarMd5 = true;
  EXPECT_GE(mostFilesReadAtOnce(tree, settings), 4);
}

TEST(FileSetHasherSha1Lanes, ScalarEnvironmentVariableReadsOneFileAtATime) {
  Tree tree;
  fillTree(tree, 30, 7);
  const ScopedVariable variable(detail::kSha1LanesEnvironmentVariable, "scalar");
  EXPECT_EQ(mostFilesReadAtOnce(tree, {.algorithms = {ChecksumTypeSHA1}}), 1);
}

// Appends to one file once its read started (its first bytes were hashed with the others').
class AppendingObserver : public ReadObserver {
 public:
  explicit AppendingObserver(std::string victim) : victim_(std::move(victim)) {}
  void readStarted(const std::string& path, std::uint64_t) override {
    if (path != victim_ || fired_.exchange(true)) return;
    std::ofstream(path, std::ios::app) << "more";
  }
  bool fired() const { return fired_; }

 private:
  std::string victim_;
  std::atomic<bool> fired_{false};
};

TEST(FileSetHasherSha1Lanes, FileChangedInTheMiddleOfAGroupHasNoChecksumsAndTheOthersDo) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 20, 13);
  const std::string victim = tree.paths[16];  // 1 MiB: read in many pieces
  ASSERT_EQ(tree.contents.at(victim).size(), std::size_t{1} << 20);
  AppendingObserver observer(victim);
  FileSetSettings settings{
      .algorithms = {ChecksumTypeMD5, ChecksumTypeSHA1}, .filesInFlight = 1, .observer = &observer};
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
  EXPECT_TRUE(observer.fired());
  ASSERT_EQ(results.size(), tree.paths.size());
  for (const FileSetResult& result : results) {
    if (result.entry.path == victim) {
      EXPECT_EQ(result.error.kind, FileErrorKind::changedWhileRead);
      EXPECT_TRUE(result.checksums.empty());
      continue;
    }
    ASSERT_TRUE(result.ok()) << result.entry.path << ": " << result.error.message;
    EXPECT_EQ(result.checksums.at(ChecksumTypeSHA1),
              openSsl(EVP_sha1(), tree.contents.at(result.entry.path)));
    EXPECT_EQ(result.checksums.at(ChecksumTypeMD5),
              openSsl(EVP_md5(), tree.contents.at(result.entry.path)));
  }
}

// Requests a stop once a number of bytes was read.
class StoppingObserver : public ReadObserver {
 public:
  StoppingObserver(std::stop_source& stop, std::uint64_t after) : stop_(stop), after_(after) {}
  void bytesRead(std::uint64_t count) override {
    if ((read_ += count) >= after_) stop_.request_stop();
  }

 private:
  std::stop_source& stop_;
  std::uint64_t after_;
  std::atomic<std::uint64_t> read_{0};
};

TEST(FileSetHasherSha1Lanes, StopInTheMiddleOfAGroupGivesFinishedOrStoppedResults) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 60, 17);
  std::stop_source stop;
  StoppingObserver observer(stop, 3 << 20);
  const FileSetSettings settings{.algorithms = {ChecksumTypeSHA1, ChecksumTypeXXHash64},
                                 .observer = &observer};
  std::vector<FileSetResult> results;
  const FileSetSummary summary = FileSetHasher(settings).run(
      FileSetInput::paths(tree.paths),
      [&results](FileSetResult&& result) { results.push_back(std::move(result)); },
      stop.get_token());
  EXPECT_TRUE(summary.stopped);
  EXPECT_LE(results.size(), tree.paths.size());
  std::size_t stopped = 0;
  for (std::size_t k = 0; k < results.size(); ++k) {
    EXPECT_EQ(results[k].index, k);
    if (results[k].ok()) {
      EXPECT_EQ(results[k].checksums.at(ChecksumTypeSHA1),
                openSsl(EVP_sha1(), tree.contents.at(results[k].entry.path)));
    } else {
      EXPECT_EQ(results[k].error.kind, FileErrorKind::stopped) << results[k].error.message;
      EXPECT_TRUE(results[k].checksums.empty());
      ++stopped;
    }
  }
  EXPECT_GE(stopped, 1U);
}

}  // namespace
