// The file-set engine hashing MD5 in vector lanes, several files on one thread: every result
// equals that of the single-stream path (FileSetSettings::forceScalarMd5) and OpenSSL's, on
// every lane path the processor has (CORVANE_MD5_LANES), with files that fail, are not files,
// need other algorithms, change while read, or are cut short by a stop in the middle of a group.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

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
#include "corvane/FileSetHasher.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/Vectors.hpp"

namespace {

using namespace corvane;
using corvane::detail::Md5LanePath;
using testsupport::ScratchDirectory;

// Sets CORVANE_MD5_LANES for the life of the object, then restores what was there.
class ScopedLanesVariable {
 public:
  explicit ScopedLanesVariable(const char* value) {
    const char* before = std::getenv(detail::kMd5LanesEnvironmentVariable);
    if (before != nullptr) previous_ = before;
    ::setenv(detail::kMd5LanesEnvironmentVariable, value, 1);
  }
  ~ScopedLanesVariable() {
    if (previous_) {
      ::setenv(detail::kMd5LanesEnvironmentVariable, previous_->c_str(), 1);
    } else {
      ::unsetenv(detail::kMd5LanesEnvironmentVariable);
    }
  }
  ScopedLanesVariable(const ScopedLanesVariable&) = delete;
  ScopedLanesVariable& operator=(const ScopedLanesVariable&) = delete;

 private:
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

// The lane paths this processor has, for CORVANE_MD5_LANES.
std::vector<const char*> supportedLanePaths() {
  std::vector<const char*> paths;
  if (detail::md5LanePathSupported(Md5LanePath::avx2)) paths.push_back("avx2");
  if (detail::md5LanePathSupported(Md5LanePath::avx512)) paths.push_back("avx512");
  return paths;
}

// Records the order in which reads start and finish.
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

TEST(FileSetHasherMd5Lanes, GroupedChecksumsEqualTheSingleStreamPathAndOpenSsl) {
  const std::vector<const char*> paths = supportedLanePaths();
  if (paths.empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 60, testsupport::randomTestSeed());
  for (const std::vector<ChecksumType>& algorithms :
       {std::vector<ChecksumType>{ChecksumTypeMD5},
        std::vector<ChecksumType>{ChecksumTypeXXHash64, ChecksumTypeMD5, ChecksumTypeCRC32}}) {
    for (const unsigned filesInFlight : {1U, 2U}) {
      FileSetSettings settings{.algorithms = algorithms, .filesInFlight = filesInFlight};
      settings.forceScalarMd5 = true;
      const std::vector<FileSetResult> single =
          runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
      ASSERT_EQ(single.size(), tree.paths.size());
      for (const FileSetResult& result : single) {
        ASSERT_TRUE(result.ok()) << result.entry.path << ": " << result.error.message;
        EXPECT_EQ(result.checksums.at(ChecksumTypeMD5),
                  testsupport::hexEncode(
                      testsupport::evpDigest(EVP_md5(), tree.contents.at(result.entry.path))));
      }
      settings.forceScalarMd5 = false;
      for (const char* path : paths) {
        SCOPED_TRACE(std::string(path) + ", " + std::to_string(algorithms.size()) +
                     " algorithms, filesInFlight " + std::to_string(filesInFlight));
        const ScopedLanesVariable variable(path);
        expectSameResults(runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths)), single);
      }
    }
  }
}

TEST(FileSetHasherMd5Lanes, WalkedTreeGivesTheSameResultsGroupedAsAlone) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 40, testsupport::randomTestSeed() + 1);
  ASSERT_EQ(::symlink("f001.bin", tree.scratch.file("link").c_str()), 0);
  tree.scratch.writeText("sub/inner.txt", "inside");
  FileSetSettings settings{.algorithms = {ChecksumTypeMD5, ChecksumTypeXXHashH3128}};
  settings.forceScalarMd5 = true;
  const std::vector<FileSetResult> single =
      runAll(FileSetHasher(settings), FileSetInput::walk(tree.scratch.path().string()));
  settings.forceScalarMd5 = false;
  expectSameResults(
      runAll(FileSetHasher(settings), FileSetInput::walk(tree.scratch.path().string())), single);
}

TEST(FileSetHasherMd5Lanes, OneThreadReadsSeveralFilesAtOnce) {
  if (detail::md5LaneCount(detail::md5LanePathInUse()) == 1) {
    GTEST_SKIP() << "no lanes in use: the processor has neither AVX2 nor AVX-512, or "
                 << detail::kMd5LanesEnvironmentVariable << " says scalar";
  }
  Tree tree;
  fillTree(tree, 30, 7);
  OverlapObserver observer;
  FileSetSettings settings{
      .algorithms = {ChecksumTypeMD5}, .filesInFlight = 1, .observer = &observer};
  runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
  EXPECT_GE(observer.maximum(), 4) << "files were not read together";
}

TEST(FileSetHasherMd5Lanes, ForcedScalarSettingReadsOneFileAtATime) {
  Tree tree;
  fillTree(tree, 30, 7);
  OverlapObserver observer;
  FileSetSettings settings{
      .algorithms = {ChecksumTypeMD5}, .filesInFlight = 1, .observer = &observer};
  settings.forceScalarMd5 = true;
  runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
  EXPECT_EQ(observer.maximum(), 1);
}

TEST(FileSetHasherMd5Lanes, ScalarEnvironmentVariableReadsOneFileAtATime) {
  Tree tree;
  fillTree(tree, 30, 7);
  OverlapObserver observer;
  const FileSetSettings settings{
      .algorithms = {ChecksumTypeMD5}, .filesInFlight = 1, .observer = &observer};
  const ScopedLanesVariable variable("scalar");
  runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
  EXPECT_EQ(observer.maximum(), 1);
}

TEST(FileSetHasherMd5Lanes, ItemsOutsideAGroupKeepTheirPlacesAndResults) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 40, 11);
  tree.scratch.writeText("folder/x", "x");
  // Among the files: a missing one, a folder, a file with SHA-256 too (not grouped), a skipped
  // walk entry, and a file named with a different algorithm list.
  std::vector<FileSetItem> items;
  for (std::size_t k = 0; k < tree.paths.size(); ++k) {
    items.push_back(FileSetItem::path(tree.paths[k]));
    if (k % 9 == 2) items.push_back(FileSetItem::path(tree.scratch.file("missing")));
    if (k % 9 == 4) items.push_back(FileSetItem::path(tree.scratch.file("folder")));
    if (k % 9 == 5) {
      FileSetItem item = FileSetItem::path(tree.paths[k]);
      item.algorithms = {ChecksumTypeSHA256, ChecksumTypeMD5};
      items.push_back(std::move(item));
    }
    if (k % 9 == 7) {
      FileSetItem item;
      item.entry.kind = WalkEntry::Kind::skipped;
      item.entry.path = tree.scratch.file("device");
      items.push_back(std::move(item));
    }
    if (k % 9 == 8) {
      FileSetItem item = FileSetItem::path(tree.paths[k]);
      item.algorithms = {ChecksumTypeCRC32, ChecksumTypeMD5};
      items.push_back(std::move(item));
    }
  }
  const auto input = [&items] {
    return FileSetInput::generator(
        [&items, next = std::size_t{0}]() mutable -> std::optional<FileSetItem> {
          if (next == items.size()) return std::nullopt;
          return items[next++];
        });
  };
  for (const unsigned filesInFlight : {1U, 2U}) {
    FileSetSettings settings{.algorithms = {ChecksumTypeMD5}, .filesInFlight = filesInFlight};
    settings.forceScalarMd5 = true;
    const std::vector<FileSetResult> single = runAll(FileSetHasher(settings), input());
    ASSERT_EQ(single.size(), items.size());
    settings.forceScalarMd5 = false;
    expectSameResults(runAll(FileSetHasher(settings), input()), single);
  }
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

TEST(FileSetHasherMd5Lanes, FileChangedInTheMiddleOfAGroupHasNoChecksumsAndTheOthersDo) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 20, 13);
  const std::string victim = tree.paths[16];  // 1 MiB: read in many pieces
  ASSERT_EQ(tree.contents.at(victim).size(), std::size_t{1} << 20);
  AppendingObserver observer(victim);
  FileSetSettings settings{
      .algorithms = {ChecksumTypeMD5}, .filesInFlight = 1, .observer = &observer};
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
    EXPECT_EQ(result.checksums.at(ChecksumTypeMD5),
              testsupport::hexEncode(
                  testsupport::evpDigest(EVP_md5(), tree.contents.at(result.entry.path))));
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

TEST(FileSetHasherMd5Lanes, StopInTheMiddleOfAGroupGivesFinishedOrStoppedResults) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 60, 17);
  std::stop_source stop;
  StoppingObserver observer(stop, 3 << 20);
  const FileSetSettings settings{.algorithms = {ChecksumTypeMD5, ChecksumTypeXXHash64},
                                 .observer = &observer};
  std::vector<FileSetResult> results;
  const FileSetSummary summary = FileSetHasher(settings).run(
      FileSetInput::paths(tree.paths),
      [&results](FileSetResult&& result) { results.push_back(std::move(result)); },
      stop.get_token());
  EXPECT_TRUE(summary.stopped);
  // Files taken into groups before the stop are delivered, stopped; later ones are not.
  EXPECT_LE(results.size(), tree.paths.size());
  std::size_t stopped = 0;
  for (std::size_t k = 0; k < results.size(); ++k) {
    EXPECT_EQ(results[k].index, k);
    if (results[k].ok()) {
      EXPECT_EQ(results[k].checksums.at(ChecksumTypeMD5),
                testsupport::hexEncode(
                    testsupport::evpDigest(EVP_md5(), tree.contents.at(results[k].entry.path))));
    } else {
      EXPECT_EQ(results[k].error.kind, FileErrorKind::stopped) << results[k].error.message;
      EXPECT_TRUE(results[k].checksums.empty());
      ++stopped;
    }
  }
  EXPECT_GE(stopped, 1U);
}

// Collects the bytes every sink of a run was given, by path.
struct SinkRecord {
  std::mutex mutex;
  std::map<std::string, Bytes> bytes;
  std::map<std::string, int> finishes;
};

class RecordingSink : public ChunkSink {
 public:
  RecordingSink(SinkRecord& record, std::string path) : record_(record), path_(std::move(path)) {}
  void chunk(const SharedBytes& bytes) override {
    EXPECT_FALSE(bytes->empty());
    mine_.insert(mine_.end(), bytes->begin(), bytes->end());
  }
  FileError finish(const FileError& error) override {
    EXPECT_FALSE(error) << error.message;
    const std::lock_guard lock(record_.mutex);
    record_.bytes[path_] = std::move(mine_);
    ++record_.finishes[path_];
    return {};
  }

 private:
  SinkRecord& record_;
  std::string path_;
  Bytes mine_;
};

TEST(FileSetHasherMd5Lanes, SinksSeeExactlyTheBytesOfEveryGroupedFile) {
  if (supportedLanePaths().empty()) GTEST_SKIP() << "this processor has neither AVX2 nor AVX-512";
  Tree tree;
  fillTree(tree, 25, 19);
  SinkRecord record;
  FileSetSettings settings{.algorithms = {ChecksumTypeMD5}};
  settings.sinkFactory = [&record](const FileSetItem& item) {
    return std::make_unique<RecordingSink>(record, item.entry.path);
  };
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths(tree.paths));
  ASSERT_EQ(results.size(), tree.paths.size());
  for (const std::string& path : tree.paths) {
    EXPECT_EQ(record.finishes[path], 1) << path;
    EXPECT_TRUE(record.bytes[path] == tree.contents.at(path)) << path;
  }
}

}  // namespace
