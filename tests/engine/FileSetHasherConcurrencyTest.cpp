// The file-set engine under concurrency: many files in flight at once still deliver in input
// order, device limits hold among the reading threads, progress and stop requests come from
// other threads while a run is consumed, several runs share one hasher, and destroying a run in
// the middle stops it and leaves no thread behind. This suite also runs under ThreadSanitizer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/FileSetHasher.hpp"
#include "dispatch/WorkerPool.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/SlowStartObserver.hpp"
#include "support/ToolRunner.hpp"
#include "support/Vectors.hpp"

namespace {

using namespace corvane;
using testsupport::ScratchDirectory;
using Clock = std::chrono::steady_clock;

// Threads of this process that are not workers of the library's shared pool (which outlive runs
// and retire on their own).
std::size_t threadsOutsideThePool() {
  // Runtimes may start a helper thread of their own with the first thread a process creates
  // (ThreadSanitizer's background thread): create one first, so that it is already counted in a
  // baseline taken before the run starts its threads.
  static const bool runtimeThreadsStarted = [] {
    std::thread([] {}).join();
    return true;
  }();
  (void)runtimeThreadsStarted;
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
  const auto deadline = Clock::now() + std::chrono::seconds(3);
  std::size_t now = threadsOutsideThePool();
  while (now > baseline && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    now = threadsOutsideThePool();
  }
  return now;
}

std::string serialChecksum(const std::string& path, ChecksumType type) {
  return ChecksumGenerator::generateChecksumForFile(path, type).value_or("<none>");
}

// Writes `count` files "f000", "f001", ... of `size` bytes each (distinct contents) into
// `folder` below `scratch`, and returns their sizes' sum.
std::uint64_t writeSmallFiles(const ScratchDirectory& scratch, const std::string& folder, int count,
                              std::size_t size) {
  const std::string pool = testsupport::pseudoRandomBytes(size + 4096, 99);
  for (int i = 0; i < count; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "f%03d", i);
    std::string content = pool.substr(static_cast<std::size_t>(i) % 4096, size);
    for (std::size_t k = 0; k < std::min<std::size_t>(4, content.size()); ++k) {
      content[k] = static_cast<char>(i >> (8 * k));
    }
    scratch.writeText(folder.empty() ? name : folder + "/" + name, content);
  }
  return static_cast<std::uint64_t>(count) * size;
}

void makeSparseFile(const std::string& path, std::uint64_t size) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(descriptor, 0);
  ASSERT_EQ(::ftruncate(descriptor, static_cast<off_t>(size)), 0);
  ::close(descriptor);
}

// What a result says, for comparing runs.
struct Delivered {
  std::size_t index = 0;
  std::string path;
  WalkEntry::Kind kind = WalkEntry::Kind::file;
  FileErrorKind error = FileErrorKind::none;
  std::map<std::uint64_t, std::string> checksums;  // by raw algorithm value
  friend bool operator==(const Delivered&, const Delivered&) = default;
};

Delivered describe(const FileSetResult& result) {
  Delivered delivered;
  delivered.index = result.index;
  delivered.path = result.entry.path;
  delivered.kind = result.entry.kind;
  delivered.error = result.error.kind;
  for (const auto& [type, text] : result.checksums) delivered.checksums[type.rawValue()] = text;
  return delivered;
}

using testsupport::SlowStartObserver;

// ----- order ----------------------------------------------------------------------------------

TEST(FileSetHasherConcurrency, ResultsArriveInInputOrderForAnyFilesInFlight) {
  ScratchDirectory scratch;
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  const std::size_t big = std::size_t{3} << 20;
  const std::string pool = testsupport::pseudoRandomBytes(big + (300 << 10), seed);
  std::vector<std::string> paths;
  for (int i = 0; i < 300; ++i) {
    const std::size_t size =
        i % 97 == 13 ? big : std::uniform_int_distribution<std::size_t>(0, 300 << 10)(random);
    std::string content =
        pool.substr(std::uniform_int_distribution<std::size_t>(0, 300 << 10)(random), size);
    for (std::size_t k = 0; k < std::min<std::size_t>(4, content.size()); ++k) {
      content[k] = static_cast<char>(i >> (8 * k));
    }
    char name[16];
    std::snprintf(name, sizeof name, "f%03d", i);
    paths.push_back(scratch.writeText(name, content));
  }
  std::shuffle(paths.begin(), paths.end(), random);  // the input order, not the names' order

  std::vector<Delivered> first;
  // Every file in flight reads at once (the scratch folder's device may allow only one reader),
  // and once with the device's own limit.
  for (const auto& [filesInFlight, readersPerDevice] :
       std::vector<std::pair<unsigned, unsigned>>{{1, 1}, {2, 2}, {8, 8}, {32, 32}, {8, 0}}) {
    SCOPED_TRACE("filesInFlight " + std::to_string(filesInFlight) + " readersPerDevice " +
                 std::to_string(readersPerDevice));
    FileSetSettings settings;
    settings.algorithms = {ChecksumTypeMD5, ChecksumTypeCRC32};
    settings.filesInFlight = filesInFlight;
    settings.readersPerDevice = readersPerDevice;
    std::vector<Delivered> delivered;
    FileSetHasher(settings).run(FileSetInput::paths(paths), [&delivered](FileSetResult&& result) {
      EXPECT_TRUE(result.ok()) << result.entry.path << ": " << result.error.message;
      delivered.push_back(describe(result));
    });
    ASSERT_EQ(delivered.size(), paths.size());
    for (std::size_t i = 0; i < delivered.size(); ++i) {
      ASSERT_EQ(delivered[i].index, i);
      ASSERT_EQ(delivered[i].path, paths[i]);
    }
    if (first.empty()) {
      first = delivered;
      for (std::size_t i = 0; i < paths.size(); ++i) {
        ASSERT_EQ(first[i].checksums[ChecksumTypeMD5.rawValue()],
                  serialChecksum(paths[i], ChecksumTypeMD5))
            << paths[i];
      }
    } else {
      EXPECT_TRUE(delivered == first) << "the delivered sequence differs from filesInFlight 1";
    }
  }
}

// ----- stop from another thread ---------------------------------------------------------------

// Tells once the first bytes of any file were read.
class FirstBytesSignal : public ReadObserver {
 public:
  void bytesRead(std::uint64_t) override {
    const std::lock_guard lock(mutex_);
    if (!seen_) {
      seen_ = true;
      changed_.notify_all();
    }
  }
  bool waitFor(std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return seen_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool seen_ = false;
};

TEST(FileSetHasherConcurrency, StopFromAnotherThreadEndsTheRunInTheMiddleOfAFile) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("sparse-2g");
  const std::uint64_t size = std::uint64_t{2} << 30;
  makeSparseFile(path, size);
  FirstBytesSignal signal;
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  settings.observer = &signal;
  const std::size_t baseline = threadsOutsideThePool();
  {
    FileSetRun run = FileSetHasher(settings).start(FileSetInput::paths({path}));
    Clock::time_point requestedAt;
    bool sawBytes = false;
    std::thread stopper([&] {
      sawBytes = signal.waitFor(std::chrono::seconds(30));
      requestedAt = Clock::now();
      run.requestStop();
    });
    std::optional<FileSetResult> result = run.next();
    const Clock::time_point deliveredAt = Clock::now();
    stopper.join();
    ASSERT_TRUE(sawBytes);
    EXPECT_TRUE(run.stopRequested());
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->entry.path, path);
    EXPECT_FALSE(result->ok());
    EXPECT_EQ(result->error.kind, FileErrorKind::stopped);
    EXPECT_TRUE(result->checksums.empty());
    EXPECT_LT(result->size.value_or(0), size) << "the file was read to its end";
    EXPECT_LT(deliveredAt - requestedAt, std::chrono::seconds(2))
        << "stopped "
        << std::chrono::duration_cast<std::chrono::milliseconds>(deliveredAt - requestedAt).count()
        << " ms after the request";
    EXPECT_FALSE(run.next().has_value());
  }
  EXPECT_LE(threadsOutsideThePoolSettled(baseline), baseline) << "a thread of the run remains";
}

// Opens `fifo` for writing (and closes it again) unless released within five seconds, so that
// a run blocked on opening the FIFO ends even when the stop does not reach it.
class FifoRescue {
 public:
  explicit FifoRescue(std::string fifo) : fifo_(std::move(fifo)), thread_([this] { watch(); }) {}
  ~FifoRescue() {
    release();
    thread_.join();
  }
  void release() {
    const std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

 private:
  void watch() {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, std::chrono::seconds(5), [this] { return released_; })) return;
    const int descriptor = ::open(fifo_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor >= 0) ::close(descriptor);
  }

  std::string fifo_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool released_ = false;
  std::thread thread_;
};

// Starts a run over the FIFO `fifo`, requests a stop from another thread after 200 ms and
// returns how long after the request the FIFO's result came.
std::chrono::milliseconds stopWhileWaitingOnFifo(const std::string& fifo,
                                                 std::optional<FileSetResult>& result) {
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  FileSetRun run = FileSetHasher(settings).start(FileSetInput::paths({fifo}));
  Clock::time_point requestedAt;
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    requestedAt = Clock::now();
    run.requestStop();
  });
  result = run.next();
  const Clock::time_point deliveredAt = Clock::now();
  stopper.join();
  return std::chrono::duration_cast<std::chrono::milliseconds>(deliveredAt - requestedAt);
}

TEST(FileSetHasherConcurrency, StopEndsARunWaitingForAFifoWriter) {
  // A FIFO named by path waits for its writer at open; a stop must not wait for one.
  ScratchDirectory scratch;
  const std::string fifo = scratch.file("pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::optional<FileSetResult> result;
  std::chrono::milliseconds late{};
  {
    FifoRescue rescue(fifo);
    late = stopWhileWaitingOnFifo(fifo, result);
  }
  EXPECT_LT(late, std::chrono::seconds(2)) << "the stop waited for the FIFO's writer";
  if (result) {
    EXPECT_EQ(result->error.kind, FileErrorKind::stopped);
    EXPECT_TRUE(result->checksums.empty());
  }
}

TEST(FileSetHasherConcurrency, StopEndsARunWaitingForFifoData) {
  // The writer opened the FIFO and wrote a little, then keeps it open without writing.
  ScratchDirectory scratch;
  const std::string fifo = scratch.file("pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::mutex mutex;
  std::condition_variable changed;
  bool finished = false;
  std::thread writer([&] {
    int descriptor = -1;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (descriptor < 0 && Clock::now() < deadline) {
      descriptor = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (descriptor < 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (descriptor < 0) return;
    EXPECT_EQ(::write(descriptor, "he", 2), 2);
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(5), [&] { return finished; });
    ::close(descriptor);  // ends the read if the stop did not
  });
  std::optional<FileSetResult> result;
  const std::chrono::milliseconds late = stopWhileWaitingOnFifo(fifo, result);
  {
    const std::lock_guard lock(mutex);
    finished = true;
    changed.notify_all();
  }
  writer.join();
  EXPECT_LT(late, std::chrono::seconds(2)) << "the stop waited for the FIFO's data";
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->error.kind, FileErrorKind::stopped);
  EXPECT_TRUE(result->checksums.empty());
}

TEST(FileSetHasherConcurrency, InputIsFetchedOnlyABoundedWindowAhead) {
  // An endless input and a consumer that takes nothing: the run fetches a bounded number of
  // items, from one thread at a time, and then waits.
  ScratchDirectory scratch;
  const std::string path = scratch.writeText("small", "a small file");
  std::atomic<int> calls{0};
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  FileSetSettings settings;
  settings.filesInFlight = 4;
  {
    FileSetRun run =
        FileSetHasher(settings).start(FileSetInput::generator([&]() -> std::optional<FileSetItem> {
          if (inside.fetch_add(1) != 0) overlapped = true;
          ++calls;
          std::this_thread::sleep_for(std::chrono::microseconds(20));
          inside.fetch_sub(1);
          return FileSetItem::path(path);
        }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int settled = calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(calls.load(), settled) << "the input is still being fetched";
    EXPECT_LT(settled, 2000);
    const std::optional<FileSetResult> first = run.next();
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->index, 0U);
    EXPECT_TRUE(first->ok());
  }
  EXPECT_FALSE(overlapped) << "the input was called from two threads at once";
}

// ----- progress -------------------------------------------------------------------------------

TEST(FileSetHasherConcurrency, ProgressReadFromAnotherThreadNeverGoesBack) {
  ScratchDirectory scratch;
  std::mt19937_64 random(testsupport::randomTestSeed());
  const std::string pool = testsupport::pseudoRandomBytes(64 << 10, 5);
  std::uint64_t bytes = 0;
  for (int i = 0; i < 100; ++i) {
    const std::size_t size = std::uniform_int_distribution<std::size_t>(0, 64 << 10)(random);
    char name[16];
    std::snprintf(name, sizeof name, "f%03d", i);
    scratch.writeText(name, pool.substr(0, size));
    bytes += size;
  }
  SlowStartObserver observer(std::chrono::milliseconds(3));
  FileSetSettings settings;
  settings.filesInFlight = 4;
  settings.observer = &observer;
  FileSetRun run = FileSetHasher(settings).start(FileSetInput::walk(scratch.path().string()));

  std::atomic<bool> done{false};
  int samples = 0;
  int filesWentBack = 0;
  int bytesWentBack = 0;
  std::thread reader([&] {
    FileSetProgress last;
    while (!done.load()) {
      const FileSetProgress now = run.progress();
      ++samples;
      if (now.filesDone < last.filesDone) ++filesWentBack;
      if (now.bytesDone < last.bytesDone) ++bytesWentBack;
      last = now;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  std::uint64_t results = 0;
  while (std::optional<FileSetResult> result = run.next()) {
    EXPECT_TRUE(result->ok()) << result->error.message;
    ++results;
  }
  done = true;
  reader.join();
  EXPECT_GT(samples, 2);
  EXPECT_EQ(filesWentBack, 0);
  EXPECT_EQ(bytesWentBack, 0);
  const FileSetProgress end = run.progress();
  EXPECT_EQ(results, 100U);
  EXPECT_EQ(end.filesDone, results);
  EXPECT_EQ(end.bytesDone, bytes);
  EXPECT_TRUE(end.totalsKnown);
  EXPECT_EQ(end.filesTotal, 100U);
  EXPECT_EQ(end.bytesTotal, bytes);
  EXPECT_GT(end.elapsedSeconds, 0.0);
}

// ----- device limits --------------------------------------------------------------------------

// Counts the files between readStarted and readFinished and remembers the most at once (every
// file of these runs is on one device); sleeps on every chunk so that reads overlap whenever the
// engine lets them.
class ConcurrentReadsObserver : public ReadObserver {
 public:
  void readStarted(const std::string&, std::uint64_t device) override {
    const std::lock_guard lock(mutex_);
    most_ = std::max(most_, ++active_);
    devices_.insert(device);
  }
  void bytesRead(std::uint64_t) override {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  void readFinished(const std::string&) override {
    const std::lock_guard lock(mutex_);
    --active_;
  }
  unsigned most() const {
    const std::lock_guard lock(mutex_);
    return most_;
  }
  std::set<std::uint64_t> devices() const {
    const std::lock_guard lock(mutex_);
    return devices_;
  }

 private:
  mutable std::mutex mutex_;
  unsigned active_ = 0;
  unsigned most_ = 0;
  std::set<std::uint64_t> devices_;
};

// Writes 40 files of 64 KiB into `folder` and reads them in 16 KiB chunks with 8 files in flight
// and `readersPerDevice`; returns the most files read at once.
unsigned mostConcurrentReads(const std::string& folder, unsigned readersPerDevice) {
  const std::string pool = testsupport::pseudoRandomBytes((64 << 10) + 40, 3);
  for (int i = 0; i < 40; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "f%03d", i);
    testsupport::writeFile(folder + "/" + name,
                           testsupport::bytesOf(std::string_view(pool).substr(i, 64 << 10)));
  }
  ConcurrentReadsObserver observer;
  FileSetSettings settings;
  settings.filesInFlight = 8;
  settings.readersPerDevice = readersPerDevice;
  settings.chunkSize = 16 << 10;
  settings.observer = &observer;
  // The limit is on reads of the device: files just written sit in the page cache and are read
  // from memory without a slot, so the cache is bypassed here to make every read a disk read.
  settings.bypassCache = true;
  std::size_t results = 0;
  FileSetHasher(settings).run(FileSetInput::walk(folder), [&results](FileSetResult&& result) {
    EXPECT_TRUE(result.ok()) << result.error.message;
    ++results;
  });
  EXPECT_EQ(results, 40U);
  struct stat status {};
  EXPECT_EQ(::stat(folder.c_str(), &status), 0);
  EXPECT_EQ(observer.devices(), std::set<std::uint64_t>{static_cast<std::uint64_t>(status.st_dev)});
  return observer.most();
}

TEST(FileSetHasherConcurrency, OneReaderPerDeviceReadsOneFileAtATime) {
  ScratchDirectory scratch;
  EXPECT_EQ(mostConcurrentReads(scratch.path().string(), 1), 1U);
}

TEST(FileSetHasherConcurrency, ThreeReadersPerDeviceReadUpToThreeFilesAtOnce) {
  ScratchDirectory scratch;
  const unsigned most = mostConcurrentReads(scratch.path().string(), 3);
  EXPECT_LE(most, 3U);
  EXPECT_GT(most, 1U);
}

// A folder on /dev/shm (tmpfs), removed at the end; empty path when there is none.
class TmpfsDirectory {
 public:
  TmpfsDirectory() {
    struct stat status {};
    if (::stat("/dev/shm", &status) != 0 || major(status.st_dev) != 0) return;
    std::string pattern = "/dev/shm/corvane-test-XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TmpfsDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TmpfsDirectory(const TmpfsDirectory&) = delete;
  TmpfsDirectory& operator=(const TmpfsDirectory&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(FileSetHasherConcurrency, DefaultReadersFollowTheDeviceOfTheFiles) {
  struct stat status {};
  ScratchDirectory scratch;
  ASSERT_EQ(::stat(scratch.path().c_str(), &status), 0);
  const unsigned suggested = suggestedReadersForDevice(status.st_dev);
  SCOPED_TRACE("suggested readers " + std::to_string(suggested));
  const unsigned limit = suggested != 0 ? suggested : 8;
  const unsigned most = mostConcurrentReads(scratch.path().string(), 0);
  EXPECT_LE(most, limit);
  if (limit > 1) {
    EXPECT_GT(most, 1U);
  }
}

TEST(FileSetHasherConcurrency, DefaultReadersOnTmpfsAreTheFilesInFlight) {
  TmpfsDirectory tmpfs;
  if (tmpfs.path().empty()) GTEST_SKIP() << "no tmpfs at /dev/shm";
  const unsigned most = mostConcurrentReads(tmpfs.path(), 0);
  EXPECT_LE(most, 8U);
  EXPECT_GT(most, 1U) << "a device without a limit of its own was read one file at a time";
}

// ----- several runs, progress and stop from other threads, destruction ------------------------

TEST(FileSetHasherConcurrency, ParallelRunsOverTheSameTreeGiveIdenticalResults) {
  ScratchDirectory scratch;
  writeSmallFiles(scratch, "one", 20, 5000);
  writeSmallFiles(scratch, "two/deeper", 20, 70000);
  writeSmallFiles(scratch, "three", 5, 0);
  scratch.writeText("large", testsupport::pseudoRandomBytes((2 << 20) + 77, 7));
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5, ChecksumTypeSHA1, ChecksumTypeCRC32};
  settings.filesInFlight = 3;
  const FileSetHasher hasher(settings);  // one hasher, shared by every run

  constexpr int kRuns = 4;
  std::vector<std::vector<Delivered>> delivered(kRuns);
  std::vector<std::thread> threads;
  for (int r = 0; r < kRuns; ++r) {
    threads.emplace_back([&, r] {
      hasher.run(
          FileSetInput::walk(scratch.path().string()),
          [&delivered, r](FileSetResult&& result) { delivered[r].push_back(describe(result)); });
    });
  }
  for (std::thread& thread : threads) thread.join();
  // 1 large file, 3 top folders + "two/deeper", 45 files below them.
  ASSERT_EQ(delivered[0].size(), 1U + 4U + 45U);
  for (int r = 1; r < kRuns; ++r) {
    EXPECT_TRUE(delivered[r] == delivered[0]) << "run " << r << " differs from run 0";
  }
  for (const Delivered& entry : delivered[0]) {
    if (entry.kind != WalkEntry::Kind::file) continue;
    EXPECT_EQ(entry.error, FileErrorKind::none) << entry.path;
    EXPECT_EQ(entry.checksums.at(ChecksumTypeSHA1.rawValue()),
              serialChecksum(entry.path, ChecksumTypeSHA1))
        << entry.path;
  }
}

TEST(FileSetHasherConcurrency, ProgressAndStopFromOtherThreadsWhileNextRuns) {
  ScratchDirectory scratch;
  writeSmallFiles(scratch, "", 200, 4096);
  SlowStartObserver observer(std::chrono::milliseconds(2));
  FileSetSettings settings;
  settings.algorithms = {ChecksumTypeMD5};
  settings.filesInFlight = 4;
  settings.observer = &observer;
  const std::size_t baseline = threadsOutsideThePool();
  {
    FileSetRun run = FileSetHasher(settings).start(FileSetInput::walk(scratch.path().string()));
    std::atomic<bool> done{false};
    std::atomic<bool> sawStopRequested{false};
    std::atomic<int> progressReads{0};
    std::thread progress([&] {
      while (!done.load()) {
        const FileSetProgress now = run.progress();
        EXPECT_LE(now.filesDone, 200U);
        ++progressReads;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
    std::thread stopper([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
      run.requestStop();
      sawStopRequested = run.stopRequested();
    });
    std::vector<FileSetResult> results;
    while (std::optional<FileSetResult> result = run.next()) results.push_back(std::move(*result));
    stopper.join();
    done = true;
    progress.join();

    EXPECT_TRUE(sawStopRequested);
    EXPECT_TRUE(run.stopRequested());
    EXPECT_GT(progressReads.load(), 0);
    EXPECT_LT(results.size(), 200U);
    for (std::size_t i = 0; i < results.size(); ++i) {
      EXPECT_EQ(results[i].index, i);
      if (!results[i].ok()) {
        EXPECT_EQ(results[i].error.kind, FileErrorKind::stopped);
      }
    }
    EXPECT_EQ(run.progress().filesDone, results.size());
  }
  EXPECT_LE(threadsOutsideThePoolSettled(baseline), baseline) << "a thread of the run remains";
}

TEST(FileSetHasherConcurrency, DestroyingARunMidRunStopsIt) {
  ScratchDirectory scratch;
  writeSmallFiles(scratch, "", 100, 8192);
  makeSparseFile(scratch.file("z-sparse"), std::uint64_t{256} << 20);
  const std::size_t baseline = threadsOutsideThePool();
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    FileSetSettings settings;
    settings.algorithms = {ChecksumTypeMD5};
    settings.filesInFlight = std::vector<unsigned>{1, 2, 4, 8}[round % 4];
    auto run = std::make_unique<FileSetRun>(
        FileSetHasher(settings).start(FileSetInput::walk(scratch.path().string())));
    for (int taken = 0; taken < round % 3; ++taken) {
      const std::optional<FileSetResult> result = run->next();
      ASSERT_TRUE(result.has_value());
      EXPECT_TRUE(result->ok());
    }
    if (round % 5 == 4) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const Clock::time_point before = Clock::now();
    run.reset();
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(2));
  }
  EXPECT_LE(threadsOutsideThePoolSettled(baseline), baseline) << "a thread of a run remains";
}

}  // namespace
