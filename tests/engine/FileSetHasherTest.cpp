// The file-set engine seen from outside: what a run delivers for each kind of input, that its
// checksums are the library's serial ones, how it reports files that cannot be read or that
// change while they are read, the chunk sinks and the read observer, and stopping a run from
// the thread that consumes it. Tests that drive a run from several threads at once are in
// FileSetHasherConcurrencyTest.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/FileSetHasher.hpp"
#include "dispatch/WorkerPool.hpp"
#include "engine/FileReader.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/SlowStartObserver.hpp"
#include "support/ToolRunner.hpp"
#include "support/UnprivilegedUser.hpp"
#include "support/Vectors.hpp"

namespace {

using namespace corvane;
using testsupport::bytesOf;
using testsupport::describeType;
using testsupport::EffectiveUserWithoutPrivileges;
using testsupport::runShell;
using testsupport::ScratchDirectory;
using testsupport::shellQuote;

constexpr std::size_t kChunk = engine::kDefaultChunkSize;

// The nine algorithms with a generator.
const std::vector<ChecksumType> kEveryAlgorithm = {
    ChecksumTypeMD5,        ChecksumTypeSHA1,        ChecksumTypeSHA256,
    ChecksumTypeSHA512,     ChecksumTypeCRC32,       ChecksumTypeXXHash64,
    ChecksumTypeXXHashH364, ChecksumTypeXXHashH3128, ChecksumTypeC4};

// "<prefix><number>", for file names.
std::string numbered(const char* prefix, std::uint64_t number) {
  std::string name(prefix);
  name += std::to_string(number);
  return name;
}

Bytes contentOf(std::size_t size, std::uint64_t seed) {
  const std::string text = testsupport::pseudoRandomBytes(size, seed);
  return Bytes(text.begin(), text.end());
}

// Every result of running `hasher` over `input`, in the order delivered.
std::vector<FileSetResult> runAll(const FileSetHasher& hasher, FileSetInput input,
                                  FileSetSummary* summary = nullptr) {
  std::vector<FileSetResult> results;
  const FileSetSummary totals = hasher.run(std::move(input), [&results](FileSetResult&& result) {
    results.push_back(std::move(result));
  });
  if (summary != nullptr) *summary = totals;
  return results;
}

// Threads of this process that are not idle or busy workers of the library's shared pool (which
// outlive runs and retire on their own).
std::size_t threadsOutsideThePool() {
  std::size_t tasks = 0;
  std::error_code ignored;
  for (std::filesystem::directory_iterator it("/proc/self/task", ignored), end; it != end;
       it.increment(ignored)) {
    ++tasks;
  }
  const std::size_t workers = dispatch::WorkerPool::shared().workerCount();
  return tasks > workers ? tasks - workers : 0;
}

// Waits (three seconds at most) until no more threads run outside the pool than `baseline`: a
// retiring pool worker leaves the pool's count a moment before its thread is gone.
std::size_t threadsOutsideThePoolSettled(std::size_t baseline) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  std::size_t now = threadsOutsideThePool();
  while (now > baseline && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    now = threadsOutsideThePool();
  }
  return now;
}

std::string serialChecksum(const std::string& path, ChecksumType type) {
  return ChecksumGenerator::generateChecksumForFile(path, type).value_or("<none>");
}

std::string dataChecksum(const Bytes& data, ChecksumType type) {
  return ChecksumGenerator::generateChecksumForData(data, type).value_or("<none>");
}

// Files of sizes around the chunk size: 0, 1, chunk-1, chunk, chunk+1 and several chunks plus a
// tail.
std::vector<std::string> writeChunkBoundaryFiles(const ScratchDirectory& scratch,
                                                 std::size_t chunk) {
  const std::vector<std::size_t> sizes = {0, 1, chunk - 1, chunk, chunk + 1, 3 * chunk + 4321};
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    paths.push_back(scratch.writeFile(numbered("size-", sizes[i]), contentOf(sizes[i], i)));
  }
  return paths;
}

void expectEveryAlgorithmEqualsTheSerialPath(
    const FileSetSettings& settings, const std::vector<std::string>& paths,
    const std::vector<ChecksumType>& algorithms = kEveryAlgorithm) {
  const FileSetHasher hasher(settings);
  const std::vector<FileSetResult> results = runAll(hasher, FileSetInput::paths(paths));
  ASSERT_EQ(results.size(), paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    SCOPED_TRACE(paths[i]);
    const FileSetResult& result = results[i];
    EXPECT_EQ(result.index, i);
    EXPECT_EQ(result.entry.path, paths[i]);
    ASSERT_TRUE(result.ok()) << result.error.message;
    EXPECT_EQ(result.size, std::filesystem::file_size(paths[i]));
    EXPECT_EQ(result.checksums.size(), algorithms.size());
    for (const ChecksumType type : algorithms) {
      SCOPED_TRACE(describeType(type));
      const auto found = result.checksums.find(type);
      ASSERT_NE(found, result.checksums.end());
      EXPECT_EQ(found->second, serialChecksum(paths[i], type));
    }
    EXPECT_EQ(&result.checksumLookup(), &result.checksums);
  }
}

// The checksum text a standard tool prints for `path`: "<hex>  <name>" or a tag line
// "ALGO (<name>) = <hex>".
std::string toolChecksum(const std::string& command, const std::string& path) {
  const std::string out = runShell(command + " " + shellQuote(path) + " 2>/dev/null").out;
  const auto equals = out.find(" = ");
  if (equals != std::string::npos) {
    const auto end = out.find('\n', equals);
    return out.substr(equals + 3, end - equals - 3);
  }
  return out.substr(0, out.find(' '));
}

// Records what the observer is told, per file (each reading thread reads one file at a time).
class RecordingObserver : public ReadObserver {
 public:
  struct FileRecord {
    int started = 0;
    int finished = 0;
    bool finishedBeforeStarted = false;
    std::uint64_t bytes = 0;
    std::uint64_t device = 0;
  };

  void readStarted(const std::string& path, std::uint64_t device) override {
    const std::lock_guard lock(mutex_);
    FileRecord& record = files[path];
    ++record.started;
    record.device = device;
    current_[std::this_thread::get_id()] = path;
  }
  void bytesRead(std::uint64_t count) override {
    const std::lock_guard lock(mutex_);
    total += count;
    const auto reading = current_.find(std::this_thread::get_id());
    if (reading == current_.end()) {
      ++bytesOutsideAFile;
      return;
    }
    files[reading->second].bytes += count;
    if (count == 0) ++emptyReports;
  }
  void readFinished(const std::string& path) override {
    const std::lock_guard lock(mutex_);
    FileRecord& record = files[path];
    ++record.finished;
    if (record.started < record.finished) record.finishedBeforeStarted = true;
    current_.erase(std::this_thread::get_id());
  }

  std::map<std::string, FileRecord> files;
  std::uint64_t total = 0;
  int bytesOutsideAFile = 0;
  int emptyReports = 0;

 private:
  std::mutex mutex_;
  std::map<std::thread::id, std::string> current_;
};

// Runs `action` the first time bytes of a file are reported, on the reading thread.
class FirstBytesObserver : public ReadObserver {
 public:
  explicit FirstBytesObserver(std::function<void()> action) : action_(std::move(action)) {}
  void bytesRead(std::uint64_t) override {
    if (!fired_.exchange(true)) action_();
  }
  bool fired() const { return fired_; }

 private:
  std::function<void()> action_;
  std::atomic<bool> fired_{false};
};

using testsupport::SlowStartObserver;

// ----- checksums ------------------------------------------------------------------------------

TEST(FileSetHasher, EveryAlgorithmEqualsTheSerialGeneratorAroundTheDefaultChunk) {
  ScratchDirectory scratch;
  const std::vector<std::string> paths = writeChunkBoundaryFiles(scratch, kChunk);
  FileSetSettings settings;
  settings.algorithms = kEveryAlgorithm;
  settings.filesInFlight = 3;
  expectEveryAlgorithmEqualsTheSerialPath(settings, paths);
}

TEST(FileSetHasher, EveryAlgorithmEqualsTheSerialGeneratorWithSmallChunks) {
  ScratchDirectory scratch;
  const std::size_t chunk = 4096;
  std::vector<std::string> paths = writeChunkBoundaryFiles(scratch, chunk);
  // Many chunks of one file, and a file larger than the default chunk read in small ones.
  paths.push_back(scratch.writeFile("many-chunks", contentOf(200 * chunk + 17, 77)));
  paths.push_back(scratch.writeFile("above-default-chunk", contentOf(kChunk + 5000, 78)));
  FileSetSettings settings;
  settings.algorithms = kEveryAlgorithm;
  settings.chunkSize = chunk;
  settings.filesInFlight = 3;
  expectEveryAlgorithmEqualsTheSerialPath(settings, paths);
}

TEST(FileSetHasher, BypassingTheCacheGivesTheSameChecksums) {
  ScratchDirectory scratch;
  std::vector<std::string> paths = writeChunkBoundaryFiles(scratch, kChunk);
  for (const std::size_t size : {4095, 4096, 4097, 3 * 4096, 10000 + 4096 * 5}) {
    paths.push_back(scratch.writeFile(numbered("aligned-", size), contentOf(size, size)));
  }
  for (const std::size_t chunk : {std::size_t{0}, std::size_t{10000}}) {
    SCOPED_TRACE("chunk size " + std::to_string(chunk));
    FileSetSettings settings;
    settings.algorithms = {ChecksumTypeMD5, ChecksumTypeXXHash64, ChecksumTypeCRC32};
    settings.bypassCache = true;
    settings.chunkSize = chunk;
    expectEveryAlgorithmEqualsTheSerialPath(settings, paths, settings.algorithms);
  }
}

TEST(FileSetHasher, ItemBypassingTheCacheGivesTheSameChecksums) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeFile("file", contentOf(2 * kChunk + 12345, 9));
  bool given = false;
  FileSetInput input = FileSetInput::generator([&]() -> std::optional<FileSetItem> {
    if (std::exchange(given, true)) return std::nullopt;
    FileSetItem item = FileSetItem::path(path);
    item.bypassCache = true;
    return item;
  });
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeSHA256};
  const std::vector<FileSetResult> results = runAll(FileSetHasher(settings), std::move(input));
  ASSERT_EQ(results.size(), 1U);
  ASSERT_TRUE(results[0].ok()) << results[0].error.message;
  EXPECT_EQ(results[0].checksums.at(ChecksumTypeSHA256), serialChecksum(path, ChecksumTypeSHA256));
}

TEST(FileSetHasher, ChecksumsMatchTheStandardTools) {
  for (const char* tool : {"md5sum", "sha256sum", "xxhsum"}) {
    if (!testsupport::haveProgram(tool)) GTEST_SKIP() << tool << " is not installed";
  }
  ScratchDirectory scratch;
  const std::vector<std::string> paths = writeChunkBoundaryFiles(scratch, kChunk);
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeSHA256, ChecksumTypeXXHash64,
                         ChecksumTypeXXHashH364, ChecksumTypeXXHashH3128};
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths(paths));
  ASSERT_EQ(results.size(), paths.size());
  const std::vector<std::pair<ChecksumType, std::string>> tools = {
      {ChecksumTypeMD5, "md5sum"},
      {ChecksumTypeSHA256, "sha256sum"},
      {ChecksumTypeXXHash64, "xxhsum -H1"},
      {ChecksumTypeXXHashH364, "xxhsum -H3"},
      {ChecksumTypeXXHashH3128, "xxhsum -H2"}};
  for (std::size_t i = 0; i < paths.size(); ++i) {
    SCOPED_TRACE(paths[i]);
    ASSERT_TRUE(results[i].ok()) << results[i].error.message;
    for (const auto& [type, command] : tools) {
      SCOPED_TRACE(command);
      EXPECT_EQ(results[i].checksums.at(type), toolChecksum(command, paths[i]));
    }
  }
}

// ----- input forms ----------------------------------------------------------------------------

TEST(FileSetHasherInput, PathsAreDeliveredInTheOrderGiven) {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  for (const char* name : {"z", "b", "a", "m"}) {
    paths.push_back(scratch.writeText(name, std::string("content of ") + name));
  }
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  settings.filesInFlight = 4;
  FileSetSummary summary;
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths(paths), &summary);
  ASSERT_EQ(results.size(), paths.size());
  std::uint64_t bytes = 0;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    EXPECT_EQ(results[i].index, i);
    EXPECT_EQ(results[i].entry.path, paths[i]);
    EXPECT_EQ(results[i].entry.kind, WalkEntry::Kind::file);
    ASSERT_TRUE(results[i].ok()) << results[i].error.message;
    EXPECT_EQ(results[i].checksums.at(ChecksumTypeMD5), serialChecksum(paths[i], ChecksumTypeMD5));
    struct stat status {};
    ASSERT_EQ(::stat(paths[i].c_str(), &status), 0);
    ASSERT_TRUE(results[i].modified.has_value());
    EXPECT_EQ(results[i].modified->seconds, status.st_mtim.tv_sec);
    EXPECT_EQ(results[i].modified->nanoseconds, status.st_mtim.tv_nsec);
    bytes += static_cast<std::uint64_t>(status.st_size);
  }
  EXPECT_EQ(summary.results, 4U);
  EXPECT_EQ(summary.hashed, 4U);
  EXPECT_EQ(summary.failed, 0U);
  EXPECT_EQ(summary.bytes, bytes);
  EXPECT_FALSE(summary.stopped);
}

TEST(FileSetHasherInput, MissingPathIsAnOpenErrorWithENOENT) {
  ScratchDirectory scratch;
  const std::string before = scratch.writeText("before", "1");
  const std::string missing = scratch.file("missing");
  const std::string after = scratch.writeText("after", "2");
  FileSetSummary summary;
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(), FileSetInput::paths({before, missing, after}), &summary);
  ASSERT_EQ(results.size(), 3U);
  EXPECT_TRUE(results[0].ok());
  EXPECT_TRUE(results[2].ok());
  const FileSetResult& result = results[1];
  EXPECT_EQ(result.entry.path, missing);
  EXPECT_FALSE(result.ok());
  EXPECT_TRUE(static_cast<bool>(result.error));
  EXPECT_EQ(result.error.kind, FileErrorKind::open);
  EXPECT_EQ(result.error.code, ENOENT);
  EXPECT_EQ(result.error.message, "No such file or directory");
  EXPECT_TRUE(result.checksums.empty());
  EXPECT_EQ(summary.results, 3U);
  EXPECT_EQ(summary.hashed, 2U);
  EXPECT_EQ(summary.failed, 1U);
}

TEST(FileSetHasherInput, FolderPathIsAnOpenErrorWithEISDIR) {
  ScratchDirectory scratch;
  scratch.writeText("folder/inside", "x");
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(), FileSetInput::paths({scratch.file("folder")}));
  ASSERT_EQ(results.size(), 1U);
  EXPECT_FALSE(results[0].ok());
  EXPECT_EQ(results[0].error.kind, FileErrorKind::open);
  EXPECT_EQ(results[0].error.code, EISDIR);
  EXPECT_EQ(results[0].error.message, "Is a directory");
  EXPECT_TRUE(results[0].checksums.empty());
}

TEST(FileSetHasherInput, WalkDeliversEveryEntryInByteOrderOfRelativePaths) {
  ScratchDirectory scratch;
  const std::string root = scratch.path().string();
  scratch.writeText("a.txt", "lower a");
  scratch.writeText("A.txt", "upper A");
  scratch.writeText("a b/c", "c in a b");
  scratch.writeText("a/z", "z in a");
  std::filesystem::create_directory(scratch.file("empty"));
  std::filesystem::create_symlink("a.txt", scratch.file("link"));

  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeSHA1, ChecksumTypeCRC32};
  settings.filesInFlight = 4;
  FileSetSummary summary;
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::walk(root), &summary);

  using Kind = WalkEntry::Kind;
  // A folder comes where its contents begin (its name sorts as name + "/").
  const std::vector<std::pair<std::string, Kind>> expected = {
      {"A.txt", Kind::file},      {"a b", Kind::directory}, {"a b/c", Kind::file},
      {"a.txt", Kind::file},      {"a", Kind::directory},   {"a/z", Kind::file},
      {"empty", Kind::directory}, {"link", Kind::skipped}};
  ASSERT_EQ(results.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const FileSetResult& result = results[i];
    SCOPED_TRACE(result.entry.relativePath);
    EXPECT_EQ(result.index, i);
    EXPECT_EQ(result.entry.relativePath, expected[i].first);
    EXPECT_EQ(result.entry.path, root + "/" + expected[i].first);
    EXPECT_EQ(result.entry.kind, expected[i].second);
    switch (expected[i].second) {
      case Kind::file:
        ASSERT_TRUE(result.ok()) << result.error.message;
        EXPECT_EQ(result.checksums.at(ChecksumTypeSHA1),
                  serialChecksum(result.entry.path, ChecksumTypeSHA1));
        EXPECT_EQ(result.checksums.at(ChecksumTypeCRC32),
                  serialChecksum(result.entry.path, ChecksumTypeCRC32));
        EXPECT_EQ(result.size, result.entry.size);
        break;
      case Kind::directory:
        EXPECT_FALSE(static_cast<bool>(result.error));
        EXPECT_EQ(result.error.kind, FileErrorKind::none);
        EXPECT_FALSE(result.ok());
        EXPECT_TRUE(result.checksums.empty());
        break;
      default:
        EXPECT_FALSE(result.ok());
        EXPECT_EQ(result.error.kind, FileErrorKind::notRegularFile);
        EXPECT_EQ(result.error.message, "symbolic link skipped");
        EXPECT_TRUE(result.checksums.empty());
        break;
    }
  }
  EXPECT_EQ(summary.results, expected.size());
  EXPECT_EQ(summary.hashed, 4U);
  EXPECT_EQ(summary.failed, 0U);  // a skipped entry is not a failure
}

TEST(FileSetHasherInput, WalkDeliversUnreadableEntriesInPlace) {
  ScratchDirectory scratch;
  scratch.writeText("a.txt", "a");
  std::filesystem::create_symlink("no-such-target", scratch.file("dangling"));
  scratch.writeText("z.txt", "z");
  WalkOptions options;
  options.symlinks = SymlinkPolicy::follow;
  FileSetSummary summary;
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(), FileSetInput::walk(scratch.path().string(), options), &summary);
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].entry.relativePath, "a.txt");
  EXPECT_TRUE(results[0].ok());
  EXPECT_EQ(results[1].entry.relativePath, "dangling");
  EXPECT_EQ(results[1].entry.kind, WalkEntry::Kind::unreadable);
  EXPECT_EQ(results[1].error.kind, FileErrorKind::walk);
  EXPECT_EQ(results[1].error.message, "dangling symbolic link");
  EXPECT_TRUE(results[1].checksums.empty());
  EXPECT_FALSE(results[1].ok());
  EXPECT_EQ(results[2].entry.relativePath, "z.txt");
  EXPECT_TRUE(results[2].ok());
  EXPECT_EQ(summary.failed, 1U);
}

TEST(FileSetHasherInput, GeneratorItemsAreDeliveredInTheirOrder) {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  for (int i = 0; i < 20; ++i) {
    paths.push_back(
        scratch.writeFile(numbered("f", static_cast<std::uint64_t>(i)), contentOf(1000 * i, i)));
  }
  std::size_t calls = 0;
  FileSetInput input = FileSetInput::generator([&paths, &calls]() -> std::optional<FileSetItem> {
    // Backwards, to be sure nothing sorts them.
    if (calls == paths.size()) return std::nullopt;
    return FileSetItem::path(paths[paths.size() - 1 - calls++]);
  });
  FileSetSettings settings;
  settings.filesInFlight = 4;
  const std::vector<FileSetResult> results = runAll(FileSetHasher(settings), std::move(input));
  ASSERT_EQ(results.size(), paths.size());
  for (std::size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].index, i);
    EXPECT_EQ(results[i].entry.path, paths[paths.size() - 1 - i]);
    ASSERT_TRUE(results[i].ok());
    EXPECT_EQ(results[i].checksums.at(ChecksumTypeXXHash64),
              serialChecksum(results[i].entry.path, ChecksumTypeXXHash64));
  }
}

TEST(FileSetHasherInput, ItemAlgorithmsOverrideTheSettings) {
  ScratchDirectory scratch;
  const std::string a = scratch.writeFile("a", contentOf(70000, 1));
  const std::string b = scratch.writeFile("b", contentOf(3 * kChunk + 1, 2));
  const std::string c = scratch.writeFile("c", contentOf(5, 3));
  std::vector<FileSetItem> items;
  items.push_back(FileSetItem::path(a));
  items.back().algorithms = {ChecksumTypeMD5};
  items.push_back(FileSetItem::path(b));
  items.back().algorithms = {ChecksumTypeSHA256, ChecksumTypeCRC32, ChecksumTypeC4};
  items.push_back(FileSetItem::path(c));  // the settings' algorithms
  std::size_t next = 0;
  FileSetInput input = FileSetInput::generator([&]() -> std::optional<FileSetItem> {
    if (next == items.size()) return std::nullopt;
    return items[next++];
  });
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeXXHash64, ChecksumTypeSHA1};
  const std::vector<FileSetResult> results = runAll(FileSetHasher(settings), std::move(input));
  ASSERT_EQ(results.size(), 3U);
  const std::vector<std::vector<ChecksumType>> expected = {
      {ChecksumTypeMD5},
      {ChecksumTypeSHA256, ChecksumTypeCRC32, ChecksumTypeC4},
      {ChecksumTypeXXHash64, ChecksumTypeSHA1}};
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(results[i].entry.path);
    ASSERT_TRUE(results[i].ok()) << results[i].error.message;
    EXPECT_EQ(results[i].checksums.size(), expected[i].size());
    for (const ChecksumType type : expected[i]) {
      SCOPED_TRACE(describeType(type));
      ASSERT_EQ(results[i].checksums.count(type), 1U);
      EXPECT_EQ(results[i].checksums.at(type), serialChecksum(results[i].entry.path, type));
    }
  }
}

TEST(FileSetHasherInput, ItemDescriptorIsReadFromWhereItStands) {
  ScratchDirectory scratch;
  const Bytes content = contentOf(2 * kChunk + 999, 11);
  const std::string path = scratch.writeFile("whole", content);
  const std::size_t middle = content.size() / 2;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  ASSERT_EQ(::lseek(descriptor, static_cast<off_t>(middle), SEEK_SET), static_cast<off_t>(middle));
  FileSetItem item = FileSetItem::path(path);
  item.descriptor = descriptor;
  bool given = false;
  FileSetInput input = FileSetInput::generator([&]() -> std::optional<FileSetItem> {
    if (std::exchange(given, true)) return std::nullopt;
    return std::move(item);
  });
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeXXHashH3128};
  const std::vector<FileSetResult> results = runAll(FileSetHasher(settings), std::move(input));
  ASSERT_EQ(results.size(), 1U);
  ASSERT_TRUE(results[0].ok()) << results[0].error.message;
  const Bytes rest(content.begin() + static_cast<std::ptrdiff_t>(middle), content.end());
  EXPECT_EQ(results[0].size, rest.size());
  EXPECT_EQ(results[0].checksums.at(ChecksumTypeMD5), dataChecksum(rest, ChecksumTypeMD5));
  EXPECT_EQ(results[0].checksums.at(ChecksumTypeXXHashH3128),
            dataChecksum(rest, ChecksumTypeXXHashH3128));
  // The run took the descriptor and closed it.
  errno = 0;
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(FileSetHasherInput, ItemDescriptorOfAPipeIsReadUntilItsWriterCloses) {
  // A non-blocking read end, as standard input can be handed over: reads wait for data.
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(::fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  std::thread writer([writeEnd = ends[1]] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(::write(writeEnd, "hel", 3), 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(::write(writeEnd, "lo", 2), 2);
    ::close(writeEnd);
  });
  bool given = false;
  FileSetInput input = FileSetInput::generator([&]() -> std::optional<FileSetItem> {
    if (std::exchange(given, true)) return std::nullopt;
    FileSetItem item = FileSetItem::path("-");
    item.descriptor = ends[0];
    return item;
  });
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  const std::vector<FileSetResult> results = runAll(FileSetHasher(settings), std::move(input));
  writer.join();
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].entry.path, "-");
  ASSERT_TRUE(results[0].ok()) << results[0].error.message;
  EXPECT_EQ(results[0].size, 5U);
  EXPECT_EQ(results[0].checksums.at(ChecksumTypeMD5), "5d41402abc4b2a76b9719d911017c592");
}

// ----- FIFOs ----------------------------------------------------------------------------------

TEST(FileSetHasherInput, FifoGivenByPathIsReadUntilItsWriterCloses) {
  ScratchDirectory scratch;
  const std::string fifo = scratch.file("pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::atomic<bool> written{false};
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    // Non-blocking until a reader is there, so that a run that never opens the FIFO cannot hang
    // this thread; then blocking writes.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int descriptor = -1;
    while (descriptor < 0 && std::chrono::steady_clock::now() < deadline) {
      descriptor = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (descriptor < 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (descriptor < 0) return;
    ::fcntl(descriptor, F_SETFL, 0);
    written = ::write(descriptor, "hello", 5) == 5;
    ::close(descriptor);
  });
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths({fifo}));
  writer.join();
  EXPECT_TRUE(written);
  ASSERT_EQ(results.size(), 1U);
  ASSERT_TRUE(results[0].ok()) << results[0].error.message;
  EXPECT_EQ(results[0].size, 5U);
  EXPECT_EQ(results[0].checksums.at(ChecksumTypeMD5), "5d41402abc4b2a76b9719d911017c592");
}

TEST(FileSetHasherInput, FileBeforeAWaitingFifoIsDeliveredWhileTheFifoWaits) {
  // The caller's thread must not be the one that waits for the FIFO's writer while the file's
  // result is ready: a progress display counting delivered results would stand still. With MD5,
  // the file also goes through a lane group, which hands the FIFO back to the run.
  for (const ChecksumType type : {ChecksumTypeMD5, ChecksumTypeXXHash64}) {
    SCOPED_TRACE(describeType(type));
    ScratchDirectory scratch;
    // Big enough that the caller's thread finds the file unfinished and looks for other work.
    const std::string file = scratch.writeFile("file", testsupport::seededRandomBytes(64 << 20));
    const std::string fifo = scratch.file("pipe");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::atomic<bool> delivered{false};
    std::atomic<bool> writtenBeforeDelivery{false};
    std::thread writer([&] {
      // Writes once the file was delivered, or after five seconds at the latest.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while (!delivered && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      writtenBeforeDelivery = !delivered;
      const int descriptor = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
      if (descriptor < 0) return;
      EXPECT_EQ(::write(descriptor, "hello", 5), 5);
      ::close(descriptor);
    });
    FileSetSettings settings;
    settings.algorithms = {type};
    settings.filesInFlight = 2;
    FileSetRun run = FileSetHasher(settings).start(FileSetInput::paths({file, fifo}));
    // The run's own thread takes the first items while this one is busy elsewhere.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    std::optional<FileSetResult> first = run.next();
    delivered = true;
    std::optional<FileSetResult> second = run.next();
    writer.join();
    EXPECT_FALSE(writtenBeforeDelivery) << "the file's result waited for the FIFO's writer";
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(first->ok());
    EXPECT_EQ(first->entry.path, file);
    ASSERT_TRUE(second->ok()) << second->error.message;
    EXPECT_EQ(second->size, 5U);
  }
}

// Opens `fifo` for writing (and closes it again) if `finished` has not become true within five
// seconds, so that a run blocked on opening or reading the FIFO ends; `unblocked` tells.
class FifoWatchdog {
 public:
  explicit FifoWatchdog(std::string fifo) : fifo_(std::move(fifo)), thread_([this] { watch(); }) {}
  ~FifoWatchdog() {
    finish();
    thread_.join();
  }
  void finish() {
    const std::lock_guard lock(mutex_);
    finished_ = true;
    changed_.notify_all();
  }
  bool unblocked() const { return unblocked_; }

 private:
  void watch() {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, std::chrono::seconds(5), [this] { return finished_; })) return;
    unblocked_ = true;
    const int descriptor = ::open(fifo_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor >= 0) ::close(descriptor);
  }

  std::string fifo_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool finished_ = false;
  std::atomic<bool> unblocked_{false};
  std::thread thread_;
};

TEST(FileSetHasherInput, FifoMetInAWalkIsSkippedWithoutBlocking) {
  ScratchDirectory scratch;
  scratch.writeText("a.txt", "a");
  const std::string fifo = scratch.file("b.pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  scratch.writeText("c.txt", "c");
  std::vector<FileSetResult> results;
  bool unblocked = false;
  {
    FifoWatchdog watchdog(fifo);
    results = runAll(FileSetHasher(), FileSetInput::walk(scratch.path().string()));
    watchdog.finish();
    unblocked = watchdog.unblocked();
  }
  EXPECT_FALSE(unblocked) << "the run waited on the FIFO";
  ASSERT_EQ(results.size(), 3U);
  EXPECT_TRUE(results[0].ok());
  EXPECT_EQ(results[1].entry.relativePath, "b.pipe");
  EXPECT_EQ(results[1].entry.kind, WalkEntry::Kind::skipped);
  EXPECT_EQ(results[1].error.kind, FileErrorKind::notRegularFile);
  EXPECT_EQ(results[1].error.message, "not a regular file, skipped");
  EXPECT_TRUE(results[1].checksums.empty());
  EXPECT_TRUE(results[2].ok());
}

TEST(FileSetHasherInput, FifoInPlaceOfAWalkedFileIsRefusedWithoutBlocking) {
  // The walk saw a regular file; by the time it is opened, a FIFO stands there.
  ScratchDirectory scratch;
  const std::string fifo = scratch.file("was-a-file");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  bool given = false;
  FileSetInput input = FileSetInput::generator([&]() -> std::optional<FileSetItem> {
    if (std::exchange(given, true)) return std::nullopt;
    FileSetItem item = FileSetItem::path(fifo);
    item.entry.relativePath = "was-a-file";
    item.entry.size = 10;
    item.regularOnly = true;
    return item;
  });
  std::vector<FileSetResult> results;
  bool unblocked = false;
  {
    FifoWatchdog watchdog(fifo);
    results = runAll(FileSetHasher(), std::move(input));
    watchdog.finish();
    unblocked = watchdog.unblocked();
  }
  EXPECT_FALSE(unblocked) << "the run waited on the FIFO";
  ASSERT_EQ(results.size(), 1U);
  EXPECT_FALSE(results[0].ok());
  EXPECT_EQ(results[0].error.kind, FileErrorKind::notRegularFile);
  EXPECT_TRUE(results[0].checksums.empty());
}

// ----- files that change or vanish ------------------------------------------------------------

// Hashes the 1 MiB file `path` in 4 KiB chunks and runs `change` when its first bytes were read.
FileSetResult hashWhileChanging(const std::string& path, std::function<void()> change) {
  FirstBytesObserver observer(std::move(change));
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeXXHash64};
  settings.chunkSize = 4096;
  settings.filesInFlight = 1;
  settings.observer = &observer;
  std::vector<FileSetResult> results = runAll(FileSetHasher(settings), FileSetInput::paths({path}));
  EXPECT_TRUE(observer.fired());
  EXPECT_EQ(results.size(), 1U);
  return results.empty() ? FileSetResult{} : std::move(results[0]);
}

void expectChangedWhileRead(const FileSetResult& result) {
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(result.error.kind, FileErrorKind::changedWhileRead);
  EXPECT_EQ(result.error.message, "file changed while being read");
  EXPECT_TRUE(result.checksums.empty());
}

TEST(FileSetHasherChanges, FileTruncatedWhileReadHasNoChecksums) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeFile("file", contentOf(1 << 20, 1));
  expectChangedWhileRead(
      hashWhileChanging(path, [&path] { EXPECT_EQ(::truncate(path.c_str(), 1 << 19), 0); }));
}

TEST(FileSetHasherChanges, FileExtendedWhileReadHasNoChecksums) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeFile("file", contentOf(1 << 20, 2));
  expectChangedWhileRead(hashWhileChanging(path, [&path] {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    const std::string more = testsupport::pseudoRandomBytes(100000, 3);
    out.write(more.data(), static_cast<std::streamsize>(more.size()));
    EXPECT_TRUE(out.good());
  }));
}

TEST(FileSetHasherChanges, FileTouchedWhileReadHasNoChecksums) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeFile("file", contentOf(1 << 20, 4));
  expectChangedWhileRead(hashWhileChanging(path, [&path] {
    // A fixed time far from now: "now" could fall in the same clock tick as the write.
    const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }));
}

TEST(FileSetHasherChanges, FileDeletedWhileReadIsStillReadToItsEnd) {
  // Finding: unlinking a file while it is read changes neither its size nor its modification
  // time (only the link count and change time), and the open descriptor goes on reading the old
  // content to its end. The run therefore delivers the file as read without error, with the
  // checksums of the whole content it had at open: the bytes hashed are exactly the file's.
  ScratchDirectory scratch;
  const Bytes content = contentOf(1 << 20, 5);
  const std::string path = scratch.writeFile("file", content);
  const FileSetResult result =
      hashWhileChanging(path, [&path] { EXPECT_EQ(::unlink(path.c_str()), 0); });
  EXPECT_FALSE(std::filesystem::exists(path));
  ASSERT_TRUE(result.ok()) << result.error.message;
  EXPECT_EQ(result.size, content.size());
  EXPECT_EQ(result.checksums.at(ChecksumTypeMD5),
            testsupport::referenceChecksum(ChecksumTypeMD5, content));
  EXPECT_EQ(result.checksums.at(ChecksumTypeXXHash64),
            testsupport::referenceChecksum(ChecksumTypeXXHash64, content));
}

TEST(FileSetHasherChanges, FileVanishingBetweenWalkAndReadIsAnOpenError) {
  ScratchDirectory scratch;
  scratch.writeText("a.txt", "a");
  scratch.writeText("b.txt", "b");
  scratch.writeText("c.txt", "c");
  auto walk = std::make_shared<FileSetInput>(FileSetInput::walk(scratch.path().string()));
  FileSetInput input = FileSetInput::generator([walk]() -> std::optional<FileSetItem> {
    std::optional<FileSetItem> item = walk->next();
    if (item && item->entry.relativePath == "b.txt") ::unlink(item->entry.path.c_str());
    return item;
  });
  const std::vector<FileSetResult> results = runAll(FileSetHasher(), std::move(input));
  ASSERT_EQ(results.size(), 3U);
  EXPECT_TRUE(results[0].ok());
  EXPECT_EQ(results[1].entry.relativePath, "b.txt");
  EXPECT_FALSE(results[1].ok());
  EXPECT_EQ(results[1].error.kind, FileErrorKind::open);
  EXPECT_EQ(results[1].error.code, ENOENT);
  EXPECT_EQ(results[1].error.message, "No such file or directory");
  EXPECT_TRUE(results[1].checksums.empty());
  EXPECT_TRUE(results[2].ok());
}

TEST(FileSetHasherChanges, FileVanishingBetweenWalkAndReadKeepsTheWalkSize) {
  // A result that was not read carries the size the walk saw.
  ScratchDirectory scratch;
  scratch.writeText("gone.txt", "twelve bytes");
  auto walk = std::make_shared<FileSetInput>(FileSetInput::walk(scratch.path().string()));
  FileSetInput input = FileSetInput::generator([walk]() -> std::optional<FileSetItem> {
    std::optional<FileSetItem> item = walk->next();
    if (item) ::unlink(item->entry.path.c_str());
    return item;
  });
  const std::vector<FileSetResult> results = runAll(FileSetHasher(), std::move(input));
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].error.kind, FileErrorKind::open);
  EXPECT_EQ(results[0].entry.size, 12U);
  EXPECT_EQ(results[0].size, std::optional<std::uint64_t>(12));
}

TEST(FileSetHasherChanges, FileChangedBetweenWalkAndOpenIsReadAsOpened) {
  // A change before the open is not a change while reading: the file is hashed as it was opened,
  // whether the walk saw it smaller or larger than a chunk.
  ScratchDirectory scratch;
  scratch.writeText("grew", "small at walk time");
  scratch.writeFile("shrank", contentOf(3 * kChunk, 1));
  const Bytes grown = contentOf(3 * kChunk + 5, 2);
  const Bytes shrunk = bytesOf("small when opened");
  auto walk = std::make_shared<FileSetInput>(FileSetInput::walk(scratch.path().string()));
  FileSetInput input = FileSetInput::generator([&, walk]() -> std::optional<FileSetItem> {
    std::optional<FileSetItem> item = walk->next();
    if (item && item->entry.relativePath == "grew") testsupport::writeFile(item->entry.path, grown);
    if (item && item->entry.relativePath == "shrank") {
      testsupport::writeFile(item->entry.path, shrunk);
    }
    return item;
  });
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeSHA1, ChecksumTypeXXHashH364};
  const std::vector<FileSetResult> results = runAll(FileSetHasher(settings), std::move(input));
  ASSERT_EQ(results.size(), 2U);
  const std::vector<Bytes> expected = {grown, shrunk};
  for (std::size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(results[i].entry.relativePath);
    ASSERT_TRUE(results[i].ok()) << results[i].error.message;
    EXPECT_EQ(results[i].size, expected[i].size());
    for (const ChecksumType type : settings.algorithms) {
      EXPECT_EQ(results[i].checksums.at(type), dataChecksum(expected[i], type))
          << describeType(type);
    }
  }
}

TEST(FileSetHasherInput, UnreadableFolderInAWalkIsOneWalkResult) {
  ScratchDirectory scratch;
  scratch.writeText("a.txt", "a");
  scratch.writeText("locked/inside.txt", "hidden");
  scratch.writeText("locked/deeper/more.txt", "hidden too");
  scratch.writeText("z.txt", "z");
  // Others may pass through the scratch folder and read its files, but not list "locked".
  std::filesystem::permissions(
      scratch.path(), std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                          std::filesystem::perms::group_exec | std::filesystem::perms::others_read |
                          std::filesystem::perms::others_exec);
  std::filesystem::permissions(scratch.file("locked"), std::filesystem::perms::none);

  std::vector<FileSetResult> results;
  {
    EffectiveUserWithoutPrivileges nobody;
    if (!nobody.active()) GTEST_SKIP() << "cannot run without privileges";
    results = runAll(FileSetHasher(), FileSetInput::walk(scratch.path().string()));
  }
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].entry.relativePath, "a.txt");
  EXPECT_TRUE(results[0].ok()) << results[0].error.message;
  EXPECT_EQ(results[1].entry.relativePath, "locked");
  EXPECT_EQ(results[1].entry.kind, WalkEntry::Kind::unreadable);
  EXPECT_EQ(results[1].error.kind, FileErrorKind::walk);
  EXPECT_EQ(results[1].error.code, EACCES);
  EXPECT_EQ(results[1].error.message, "Permission denied");
  EXPECT_FALSE(results[1].ok());
  EXPECT_EQ(results[2].entry.relativePath, "z.txt");
  EXPECT_TRUE(results[2].ok()) << results[2].error.message;
  EXPECT_EQ(results[2].checksums.at(ChecksumTypeXXHash64),
            dataChecksum(bytesOf("z"), ChecksumTypeXXHash64));
}

// ----- observer and sinks ---------------------------------------------------------------------

TEST(FileSetHasher, ReadObserverSeesEveryBytePairedPerFile) {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  std::map<std::string, std::uint64_t> sizes;
  std::uint64_t total = 0;
  const std::vector<std::size_t> fileSizes = {
      0, 1, 4096, 100000, kChunk, kChunk + 1, 5 * kChunk / 2, 7, 300000, 0};
  for (std::size_t i = 0; i < fileSizes.size(); ++i) {
    paths.push_back(scratch.writeFile(numbered("f", static_cast<std::uint64_t>(i)),
                                      contentOf(fileSizes[i], i)));
    sizes[paths.back()] = fileSizes[i];
    total += fileSizes[i];
  }
  RecordingObserver observer;
  FileSetSettings settings;
  settings.filesInFlight = 4;
  settings.observer = &observer;
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths(paths));
  ASSERT_EQ(results.size(), paths.size());
  EXPECT_EQ(observer.total, total);
  EXPECT_EQ(observer.bytesOutsideAFile, 0);
  EXPECT_EQ(observer.emptyReports, 0);
  ASSERT_EQ(observer.files.size(), paths.size());
  struct stat status {};
  ASSERT_EQ(::stat(scratch.path().c_str(), &status), 0);
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const RecordingObserver::FileRecord& record = observer.files[path];
    EXPECT_EQ(record.started, 1);
    EXPECT_EQ(record.finished, 1);
    EXPECT_FALSE(record.finishedBeforeStarted);
    EXPECT_EQ(record.bytes, sizes[path]);
    EXPECT_EQ(record.device, static_cast<std::uint64_t>(status.st_dev));
  }
}

// Collects the chunks of every file by path, as a copying sink would receive them.
struct SinkRecord {
  std::uint64_t sizeAtOpen = 0;
  Bytes bytes;
  int begins = 0;
  int finishes = 0;
  int emptyChunks = 0;
  bool chunkBeforeBegin = false;
  bool chunkAfterFinish = false;
  FileError finishError;
};

class ConcatenatingSink : public ChunkSink {
 public:
  ConcatenatingSink(std::mutex& mutex, std::map<std::string, SinkRecord>& records, std::string path,
                    std::optional<FileError> failure)
      : mutex_(mutex), records_(records), path_(std::move(path)), failure_(std::move(failure)) {}

  void begin(const FileSetItem& item, std::uint64_t sizeAtOpen) override {
    EXPECT_EQ(item.entry.path, path_);
    ++record_.begins;
    record_.sizeAtOpen = sizeAtOpen;
  }
  void chunk(const SharedBytes& bytes) override {
    if (record_.begins == 0) record_.chunkBeforeBegin = true;
    if (record_.finishes != 0) record_.chunkAfterFinish = true;
    if (!bytes || bytes->empty()) {
      ++record_.emptyChunks;
      return;
    }
    record_.bytes.insert(record_.bytes.end(), bytes->begin(), bytes->end());
  }
  FileError finish(const FileError& error) override {
    ++record_.finishes;
    record_.finishError = error;
    const std::lock_guard lock(mutex_);
    records_[path_] = record_;
    return failure_.value_or(FileError{});
  }

 private:
  std::mutex& mutex_;
  std::map<std::string, SinkRecord>& records_;
  std::string path_;
  std::optional<FileError> failure_;
  SinkRecord record_;
};

TEST(FileSetHasherSinks, EverySinkSeesExactlyItsFileBytes) {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  std::map<std::string, Bytes> contents;
  const std::vector<std::size_t> fileSizes = {0,     1,         4095, 4096, 4097, 3 * 4096 + 7,
                                              70000, kChunk + 3};
  for (std::size_t i = 0; i < fileSizes.size(); ++i) {
    const Bytes content = contentOf(fileSizes[i], 100 + i);
    paths.push_back(scratch.writeFile(numbered("f", static_cast<std::uint64_t>(i)), content));
    contents[paths.back()] = content;
  }
  std::mutex mutex;
  std::map<std::string, SinkRecord> records;
  std::atomic<int> created{0};
  FileSetSettings settings;
  settings.chunkSize = 4096;
  settings.filesInFlight = 3;
  settings.sinkFactory = [&](const FileSetItem& item) -> std::unique_ptr<ChunkSink> {
    ++created;
    return std::make_unique<ConcatenatingSink>(mutex, records, item.entry.path, std::nullopt);
  };
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths(paths));
  ASSERT_EQ(results.size(), paths.size());
  EXPECT_EQ(created, static_cast<int>(paths.size()));
  ASSERT_EQ(records.size(), paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    SCOPED_TRACE(paths[i]);
    EXPECT_TRUE(results[i].ok()) << results[i].error.message;
    const SinkRecord& record = records[paths[i]];
    EXPECT_EQ(record.begins, 1);
    EXPECT_EQ(record.finishes, 1);
    EXPECT_EQ(record.sizeAtOpen, fileSizes[i]);
    EXPECT_EQ(record.emptyChunks, 0);
    EXPECT_FALSE(record.chunkBeforeBegin);
    EXPECT_FALSE(record.chunkAfterFinish);
    EXPECT_TRUE(record.bytes == contents[paths[i]]) << "the sink's bytes differ from the file";
    EXPECT_FALSE(static_cast<bool>(record.finishError)) << record.finishError.message;
  }
}

TEST(FileSetHasherSinks, SinkFinishErrorFailsThatFile) {
  ScratchDirectory scratch;
  const std::string a = scratch.writeFile("a", contentOf(50000, 1));
  const std::string b = scratch.writeFile("b", contentOf(50000, 2));
  const std::string c = scratch.writeFile("c", contentOf(50000, 3));
  const FileError copyFailed{FileErrorKind::read, EIO, "copy could not be written"};
  std::mutex mutex;
  std::map<std::string, SinkRecord> records;
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeSHA256};
  settings.sinkFactory = [&](const FileSetItem& item) -> std::unique_ptr<ChunkSink> {
    return std::make_unique<ConcatenatingSink>(
        mutex, records, item.entry.path,
        item.entry.path == b ? std::optional<FileError>(copyFailed) : std::nullopt);
  };
  FileSetSummary summary;
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths({a, b, c}), &summary);
  ASSERT_EQ(results.size(), 3U);
  EXPECT_TRUE(results[0].ok());
  EXPECT_TRUE(results[2].ok());
  EXPECT_FALSE(results[1].ok());
  EXPECT_EQ(results[1].error.kind, copyFailed.kind);
  EXPECT_EQ(results[1].error.code, copyFailed.code);
  EXPECT_EQ(results[1].error.message, copyFailed.message);
  EXPECT_TRUE(results[1].checksums.empty());
  EXPECT_EQ(summary.hashed, 2U);
  EXPECT_EQ(summary.failed, 1U);
}

TEST(FileSetHasherSinks, SinkIsToldWhenTheFileChangedWhileRead) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeFile("file", contentOf(1 << 20, 6));
  std::mutex mutex;
  std::map<std::string, SinkRecord> records;
  FirstBytesObserver observer([&path] { EXPECT_EQ(::truncate(path.c_str(), 1000), 0); });
  FileSetSettings settings;
  settings.chunkSize = 4096;
  settings.filesInFlight = 1;
  settings.observer = &observer;
  settings.sinkFactory = [&](const FileSetItem& item) -> std::unique_ptr<ChunkSink> {
    return std::make_unique<ConcatenatingSink>(mutex, records, item.entry.path, std::nullopt);
  };
  const std::vector<FileSetResult> results =
      runAll(FileSetHasher(settings), FileSetInput::paths({path}));
  ASSERT_EQ(results.size(), 1U);
  expectChangedWhileRead(results[0]);
  ASSERT_EQ(records.count(path), 1U);
  EXPECT_EQ(records[path].sizeAtOpen, 1U << 20);
  EXPECT_EQ(records[path].finishes, 1);
  EXPECT_EQ(records[path].finishError.kind, FileErrorKind::changedWhileRead);
}

// ----- stopping and exceptions ----------------------------------------------------------------

TEST(FileSetHasherStop, StopSourceMidTreeEndsTheRunWithFinishedOrStoppedResults) {
  ScratchDirectory scratch;
  for (int i = 0; i < 200; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "f%03d", i);
    scratch.writeFile(name, contentOf(4096, static_cast<std::uint64_t>(i)));
  }
  SlowStartObserver observer(std::chrono::milliseconds(2));
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  settings.filesInFlight = 4;
  settings.observer = &observer;
  std::stop_source source;
  std::vector<FileSetResult> results;
  const FileSetSummary summary = FileSetHasher(settings).run(
      FileSetInput::walk(scratch.path().string()),
      [&](FileSetResult&& result) {
        results.push_back(std::move(result));
        if (results.size() == 10) source.request_stop();
      },
      source.get_token());
  EXPECT_TRUE(summary.stopped);
  EXPECT_EQ(summary.results, results.size());
  EXPECT_GE(results.size(), 10U);
  EXPECT_LT(results.size(), 200U);
  std::size_t stopped = 0;
  for (std::size_t i = 0; i < results.size(); ++i) {
    SCOPED_TRACE(results[i].entry.relativePath);
    EXPECT_EQ(results[i].index, i);
    if (i < 10) {
      EXPECT_TRUE(results[i].ok());
    } else if (!results[i].ok()) {
      EXPECT_EQ(results[i].error.kind, FileErrorKind::stopped);
      EXPECT_TRUE(results[i].checksums.empty());
      ++stopped;
    }
    if (results[i].ok()) {
      EXPECT_EQ(results[i].checksums.at(ChecksumTypeMD5),
                serialChecksum(results[i].entry.path, ChecksumTypeMD5));
    }
  }
  EXPECT_EQ(summary.failed, stopped);
}

TEST(FileSetHasherStop, DeliverExceptionIsRethrownAfterTheRunEnded) {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  for (int i = 0; i < 50; ++i) {
    paths.push_back(
        scratch.writeFile(numbered("f", static_cast<std::uint64_t>(i)), contentOf(20000, i)));
  }
  const std::size_t baseline = threadsOutsideThePool();
  FileSetSettings settings;
  settings.filesInFlight = 4;
  std::size_t delivered = 0;
  EXPECT_THROW(FileSetHasher(settings).run(FileSetInput::paths(paths),
                                           [&delivered](FileSetResult&&) {
                                             if (++delivered == 5) {
                                               throw std::runtime_error("cannot take it");
                                             }
                                           }),
               std::runtime_error);
  EXPECT_EQ(delivered, 5U);
  EXPECT_LE(threadsOutsideThePoolSettled(baseline), baseline) << "a thread of the run remains";
}

TEST(FileSetHasherStop, StopRequestedBeforeTheRunDeliversNothing) {
  ScratchDirectory scratch;
  std::vector<std::string> paths;
  for (int i = 0; i < 10; ++i) {
    paths.push_back(
        scratch.writeFile(numbered("f", static_cast<std::uint64_t>(i)), contentOf(1000, i)));
  }
  std::stop_source source;
  source.request_stop();
  std::vector<FileSetResult> results;
  const FileSetSummary summary = FileSetHasher().run(
      FileSetInput::paths(paths),
      [&results](FileSetResult&& result) { results.push_back(std::move(result)); },
      source.get_token());
  EXPECT_TRUE(summary.stopped);
  EXPECT_TRUE(results.empty()) << "files never started are not delivered";
  EXPECT_EQ(summary.results, 0U);
}

// ----- devices --------------------------------------------------------------------------------

// What sysfs says the reader count of `device` should be: 1 rotational, 4 solid state, 0 when
// there is no block device (or no queue to ask) behind it. A partition asks its disk. A virtio
// disk's rotational flag is the driver's default, not the storage's: 4.
unsigned expectedReadersFromSysfs(dev_t device) {
  const std::filesystem::path link =
      "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
  std::error_code error;
  const std::filesystem::path node = std::filesystem::canonical(link, error);
  if (error) return 0;
  std::filesystem::path disk = node;
  if (!std::filesystem::exists(disk / "queue" / "rotational") &&
      std::filesystem::exists(node / "partition")) {
    disk = node.parent_path();
  }
  std::ifstream in(disk / "queue" / "rotational");
  char value = 0;
  if (!in.get(value)) return 0;
  const std::filesystem::path driver =
      std::filesystem::read_symlink(disk / "device" / "driver", error);
  if (value == '1' && !error && driver.filename() == "virtio_blk") return 4U;
  return value == '1' ? 1U : value == '0' ? 4U : 0U;
}

TEST(FileSetHasherDevices, SuggestedReadersFollowTheDeviceKind) {
  struct stat status {};
  ASSERT_EQ(::stat("/", &status), 0);
  const unsigned expected = expectedReadersFromSysfs(status.st_dev);
  SCOPED_TRACE("device " + std::to_string(major(status.st_dev)) + ":" +
               std::to_string(minor(status.st_dev)));
  EXPECT_EQ(suggestedReadersForDevice(status.st_dev), expected);

  ScratchDirectory scratch;
  ASSERT_EQ(::stat(scratch.path().c_str(), &status), 0);
  EXPECT_EQ(suggestedReadersForDevice(status.st_dev), expectedReadersFromSysfs(status.st_dev));

  if (::stat("/dev/shm", &status) == 0 && major(status.st_dev) == 0) {
    EXPECT_EQ(suggestedReadersForDevice(status.st_dev), 0U) << "tmpfs";
  }
  EXPECT_EQ(suggestedReadersForDevice(makedev(0, 9999)), 0U);
}

}  // namespace
