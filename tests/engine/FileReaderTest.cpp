// FileReader: every byte of a file exactly once, in chunks from reused buffers; the open rules
// (named paths as `cat` opens them, walk entries regular only); cache bypass with identical
// results; and finish()'s verdict on a file that changed while it was read.
//
// The expected bytes are always the content the test wrote (or read with std::ifstream), never
// something the reader produced.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "engine/FileReader.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/UnprivilegedUser.hpp"
#include "support/Vectors.hpp"

namespace corvane::engine {
namespace {

using testsupport::ScratchDirectory;
using testsupport::seededRandomBytes;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * 1024;

Bytes patternBytes(std::size_t count, std::uint8_t seed) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
  return bytes;
}

Bytes slice(const Bytes& bytes, std::size_t from, std::size_t to) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

Bytes readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void append(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::app);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

void syncToDisk(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0) << std::strerror(errno);
  EXPECT_EQ(::fsync(descriptor), 0) << std::strerror(errno);
  ::close(descriptor);
}

// Every chunk until next() returns null, joined; each chunk must be non-empty and at most
// `chunkSize` long.
Bytes readAll(FileReader& reader, std::size_t chunkSize, std::size_t* chunkCount = nullptr) {
  Bytes all;
  std::size_t chunks = 0;
  while (SharedBytes chunk = reader.next()) {
    EXPECT_FALSE(chunk->empty());
    EXPECT_LE(chunk->size(), chunkSize);
    all.insert(all.end(), chunk->begin(), chunk->end());
    ++chunks;
  }
  if (chunkCount) *chunkCount = chunks;
  return all;
}

// The kind of the file system holding `path` (statfs f_type), if it can be examined.
std::optional<unsigned long> fileSystemType(const std::string& path) {
  struct statfs system {};
  if (::statfs(path.c_str(), &system) != 0) return std::nullopt;
  return static_cast<unsigned long>(system.f_type);
}

// Bytes of `path` in the page cache, from util-linux's fincore; nothing when fincore is missing.
std::optional<std::uint64_t> cachedBytes(const std::string& path) {
  const std::string command =
      "fincore --bytes --noheadings --output RES '" + path + "' 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return std::nullopt;
  char line[128] = {};
  const bool got = std::fgets(line, sizeof line, pipe) != nullptr;
  const int status = ::pclose(pipe);
  if (!got || status != 0) return std::nullopt;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(line, &end, 10);
  if (end == line) return std::nullopt;
  return value;
}

// Opens the writing end of the FIFO `path` once a reader has it open (non-blocking opens fail
// with ENXIO until then), writes `content` and closes. Gives up after `patience`, so a reader
// that never opens cannot hang the test.
void writeToFifo(const std::string& path, const Bytes& content,
                 std::chrono::milliseconds patience) {
  int descriptor = -1;
  const auto deadline = Clock::now() + patience;
  while (descriptor < 0 && Clock::now() < deadline) {
    descriptor = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (descriptor < 0) return;
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  std::size_t written = 0;
  while (written < content.size()) {
    const ssize_t count = ::write(descriptor, content.data() + written, content.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  ::close(descriptor);
}

// ---------------------------------------------------------------------------------------------
// Bytes and chunks.

TEST(FileReader, EmptyFileGivesNoChunkAndFinishesWithoutError) {
  ScratchDirectory scratch;
  FileReader reader = FileReader::open(scratch.writeFile("empty", {}), {});
  ASSERT_FALSE(reader.error()) << reader.error().message;
  EXPECT_TRUE(reader.isRegular());
  EXPECT_EQ(reader.expectedSize(), 0u);
  EXPECT_EQ(reader.next(), nullptr);
  EXPECT_EQ(reader.bytesRead(), 0u);
  EXPECT_FALSE(reader.finish());
}

TEST(FileReader, OneByteFileIsOneChunkOfOneByte) {
  ScratchDirectory scratch;
  FileReader reader = FileReader::open(scratch.writeFile("one", {0x5a}), {});
  ASSERT_FALSE(reader.error());
  std::size_t chunks = 0;
  EXPECT_EQ(readAll(reader, kDefaultChunkSize, &chunks), Bytes{0x5a});
  EXPECT_EQ(chunks, 1u);
  EXPECT_EQ(reader.bytesRead(), 1u);
  EXPECT_FALSE(reader.finish());
}

TEST(FileReader, FilesAroundTheChunkSizeGiveExactlyTheirBytes) {
  ScratchDirectory scratch;
  constexpr std::size_t kChunk = 64 * kKiB;
  struct Case {
    std::size_t size;
    std::size_t chunks;
  };
  int index = 0;
  for (const Case& c : {Case{kChunk - 1, 1}, Case{kChunk, 1}, Case{kChunk + 1, 2},
                        Case{5 * kChunk + 17, 6}, Case{7 * kChunk, 7}}) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    const Bytes content = seededRandomBytes(c.size);
    const std::string path = scratch.writeFile("file" + std::to_string(index++), content);
    FileReader reader = FileReader::open(path, {.chunkSize = kChunk});
    ASSERT_FALSE(reader.error());
    EXPECT_EQ(reader.expectedSize(), c.size);
    EXPECT_EQ(static_cast<std::size_t>(reader.statusAtOpen().st_size), c.size);
    std::size_t chunks = 0;
    EXPECT_EQ(readAll(reader, kChunk, &chunks), content);
    EXPECT_EQ(chunks, c.chunks);
    EXPECT_EQ(reader.bytesRead(), c.size);
    EXPECT_EQ(reader.bytesReadDirectly(), 0u);
    EXPECT_FALSE(reader.finish());
  }
}

TEST(FileReader, FlexibleChunksShortenOnlyTheFirstReadToAlignTheCopies) {
  ScratchDirectory scratch;
  constexpr std::size_t kChunk = 128 * kKiB;
  const Bytes content = seededRandomBytes(9 * kChunk + 333);
  const std::string path = scratch.writeFile("file", content);
  FileReader reader = FileReader::open(path, {.chunkSize = kChunk, .flexibleChunks = true});
  ASSERT_FALSE(reader.error());
  Bytes all;
  std::vector<std::size_t> lengths;
  std::uintptr_t firstAddress = 0;
  while (SharedBytes chunk = reader.next()) {
    if (lengths.empty()) firstAddress = reinterpret_cast<std::uintptr_t>(chunk->data());
    lengths.push_back(chunk->size());
    all.insert(all.end(), chunk->begin(), chunk->end());
  }
  EXPECT_EQ(all, content);
  EXPECT_FALSE(reader.finish());
  ASSERT_GE(lengths.size(), 10u);
  // The one buffer is reused; after the first read the file offset agrees with it modulo 64.
  EXPECT_LE(lengths[0], kChunk);
  EXPECT_EQ((firstAddress - lengths[0]) % 64, 0u);
  for (std::size_t k = 1; k + 1 < lengths.size(); ++k) EXPECT_EQ(lengths[k], kChunk) << k;
}

TEST(FileReader, DefaultChunkSizeApplies) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(2 * kDefaultChunkSize + 3);
  const std::string path = scratch.writeFile("three-chunks", content);
  for (std::size_t asked : {std::size_t{0}, kDefaultChunkSize}) {
    FileReader reader = FileReader::open(path, {.chunkSize = asked});
    std::size_t chunks = 0;
    EXPECT_EQ(readAll(reader, kDefaultChunkSize, &chunks), content);
    EXPECT_EQ(chunks, 3u);
  }
}

TEST(FileReader, SmallFileIsOneChunkOfItsOwnSize) {
  ScratchDirectory scratch;
  const Bytes content = patternBytes(1000, 3);
  const std::string path = scratch.writeFile("small", content);
  // On a fresh thread, which has no buffers kept from earlier readers.
  std::thread([&] {
    FileReader reader = FileReader::open(path, {.chunkSize = 8 * kMiB});
    ASSERT_FALSE(reader.error());
    SharedBytes chunk = reader.next();
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(*chunk, content);
    EXPECT_LT(chunk->capacity(), 64 * kKiB);  // sized by the file, not by the chunk size
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.finish());
  }).join();
}

TEST(FileReader, ReadersOneAfterAnotherOnOneThreadGiveEachFileExactly) {
  // The buffers kept between readers must never leak bytes of one file into the next.
  ScratchDirectory scratch;
  int index = 0;
  for (std::size_t size : {300000u, 10u, 70000u, 0u, 131072u, 1u, 4096u, 131073u}) {
    const Bytes content = patternBytes(size, static_cast<std::uint8_t>(size));
    const std::string name = std::string("file") + char('a' + index++);
    FileReader reader = FileReader::open(scratch.writeFile(name, content), {.chunkSize = 131072});
    ASSERT_FALSE(reader.error());
    EXPECT_EQ(readAll(reader, 131072), content) << size;
    EXPECT_FALSE(reader.finish());
  }
}

TEST(FileReader, ChunksHeldByTheCallerAreNotOverwritten) {
  ScratchDirectory scratch;
  const Bytes content = patternBytes(30000, 2);
  FileReader reader = FileReader::open(scratch.writeFile("held", content), {.chunkSize = 10000});
  const SharedBytes first = reader.next();
  const SharedBytes second = reader.next();
  const SharedBytes third = reader.next();
  ASSERT_TRUE(first && second && third);
  EXPECT_NE(first.get(), second.get());
  EXPECT_NE(second.get(), third.get());
  EXPECT_EQ(*first, slice(content, 0, 10000));
  EXPECT_EQ(*second, slice(content, 10000, 20000));
  EXPECT_EQ(*third, slice(content, 20000, 30000));
  EXPECT_EQ(reader.next(), nullptr);
}

TEST(FileReader, ReleasedChunkBufferIsReusedForTheNextChunk) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(4 * 65536);
  FileReader reader = FileReader::open(scratch.writeFile("reuse", content), {.chunkSize = 65536});
  SharedBytes chunk = reader.next();
  ASSERT_NE(chunk, nullptr);
  const Bytes* firstBuffer = chunk.get();
  const std::uint8_t* firstData = chunk->data();
  chunk.reset();
  chunk = reader.next();
  ASSERT_NE(chunk, nullptr);
  EXPECT_EQ(chunk.get(), firstBuffer);
  EXPECT_EQ(chunk->data(), firstData);  // no new allocation, no fresh pages to fault in
  EXPECT_EQ(*chunk, slice(content, 65536, 131072));
}

TEST(FileReader, FileThatGrewAfterOpenIsReadToItsNewEndAndReportedChanged) {
  ScratchDirectory scratch;
  const Bytes first = patternBytes(5000, 1);
  const Bytes appended = patternBytes(70000, 9);
  const std::string path = scratch.writeFile("growing", first);
  FileReader reader = FileReader::open(path, {.chunkSize = 16384});
  ASSERT_FALSE(reader.error());
  append(path, appended);
  Bytes expected = first;
  expected.insert(expected.end(), appended.begin(), appended.end());
  EXPECT_EQ(readAll(reader, 16384), expected);
  EXPECT_EQ(reader.bytesRead(), expected.size());
  EXPECT_EQ(reader.finish().kind, FileErrorKind::changedWhileRead);
}

TEST(FileReader, FileThatShrankAfterOpenEndsEarlyAndIsReportedChanged) {
  ScratchDirectory scratch;
  const Bytes content = patternBytes(50000, 5);
  const std::string path = scratch.writeFile("shrinking", content);
  FileReader reader = FileReader::open(path, {.chunkSize = 4096});
  ASSERT_FALSE(reader.error());
  std::filesystem::resize_file(path, 1234);
  EXPECT_EQ(readAll(reader, 4096), slice(content, 0, 1234));
  EXPECT_FALSE(reader.error());  // ending early is not a read error ...
  EXPECT_EQ(reader.finish().kind, FileErrorKind::changedWhileRead);  // ... but a change
}

TEST(FileReader, StatusAtOpenDescribesTheOpenedFile) {
  ScratchDirectory scratch;
  const std::string path = scratch.writeFile("status", seededRandomBytes(777));
  struct stat expected {};
  ASSERT_EQ(::stat(path.c_str(), &expected), 0);
  FileReader reader = FileReader::open(path, {});
  ASSERT_FALSE(reader.error());
  EXPECT_EQ(reader.statusAtOpen().st_ino, expected.st_ino);
  EXPECT_EQ(reader.statusAtOpen().st_size, 777);
  EXPECT_EQ(reader.statusAtOpen().st_mtim.tv_nsec, expected.st_mtim.tv_nsec);
}

// ---------------------------------------------------------------------------------------------
// Opening.

TEST(FileReaderOpen, MissingFileIsAnOpenErrorWithENOENT) {
  ScratchDirectory scratch;
  FileReader reader = FileReader::open(scratch.file("missing"), {});
  EXPECT_EQ(reader.error().kind, FileErrorKind::open);
  EXPECT_EQ(reader.error().code, ENOENT);
  EXPECT_EQ(reader.error().message, std::strerror(ENOENT));
  EXPECT_EQ(reader.next(), nullptr);
  EXPECT_EQ(reader.finish().kind, FileErrorKind::open);  // the first failure stays
}

TEST(FileReaderOpen, FolderIsAnOpenErrorWithEISDIR) {
  ScratchDirectory scratch;
  scratch.writeFile("inside", {1, 2, 3});
  FileReader reader = FileReader::open(scratch.path().string(), {});
  EXPECT_EQ(reader.error().kind, FileErrorKind::open);
  EXPECT_EQ(reader.error().code, EISDIR);
  EXPECT_EQ(reader.error().message, "Is a directory");
  EXPECT_EQ(reader.next(), nullptr);
}

TEST(FileReaderOpen, PathBelowARegularFileIsAnOpenErrorWithENOTDIR) {
  ScratchDirectory scratch;
  const std::string file = scratch.writeFile("plain", {1});
  FileReader reader = FileReader::open(file + "/child", {});
  EXPECT_EQ(reader.error().kind, FileErrorKind::open);
  EXPECT_EQ(reader.error().code, ENOTDIR);
}

TEST(FileReaderOpen, PermissionDeniedIsAnOpenErrorWithEACCES) {
  ScratchDirectory scratch;
  ASSERT_EQ(::chmod(scratch.path().c_str(), 0711), 0);  // others may pass, not list
  const std::string path = scratch.writeFile("unreadable", {1, 2, 3});
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);

  FileError error;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    const int probe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (probe >= 0) {
      ::close(probe);
      GTEST_SKIP() << "permissions do not stop this user from opening the file";
    }
    error = FileReader::open(path, {}).error();
  }
  ::chmod(path.c_str(), 0600);
  EXPECT_EQ(error.kind, FileErrorKind::open);
  EXPECT_EQ(error.code, EACCES);
  EXPECT_EQ(error.message, std::strerror(EACCES));
}

TEST(FileReaderOpen, NamedFifoWaitsForItsWriterAndIsReadToItsEnd) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  const Bytes content = seededRandomBytes(3 * kMiB + 17);  // far more than a pipe holds

  const auto started = Clock::now();
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    writeToFifo(path, content, std::chrono::seconds(20));
  });
  FileReader reader = FileReader::open(path, {.chunkSize = kMiB});
  const auto opened = Clock::now();
  ASSERT_FALSE(reader.error()) << reader.error().message;
  const Bytes read = readAll(reader, kMiB);
  writer.join();

  EXPECT_GE(opened - started, std::chrono::milliseconds(150));  // the open waited for the writer
  EXPECT_FALSE(reader.isRegular());
  EXPECT_EQ(reader.expectedSize(), 0u);
  EXPECT_EQ(read, content);
  EXPECT_EQ(reader.bytesRead(), content.size());
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderOpen, RegularOnlyRefusesAFifoAtOnceWithoutAWriter) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  // Should the open wait after all, a writer turns up after five seconds so that the test fails
  // instead of hanging.
  std::atomic<bool> done = false;
  std::thread rescue([&] {
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (!done && Clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!done) writeToFifo(path, {}, std::chrono::seconds(1));
  });

  const auto started = Clock::now();
  FileReader reader = FileReader::open(path, {.regularOnly = true});
  const auto elapsed = Clock::now() - started;
  done = true;
  rescue.join();

  EXPECT_LT(elapsed, std::chrono::seconds(1));
  EXPECT_EQ(reader.error().kind, FileErrorKind::notRegularFile);
  EXPECT_EQ(reader.error().code, 0);
  EXPECT_EQ(reader.error().message, "not a regular file");
  EXPECT_EQ(reader.next(), nullptr);
}

TEST(FileReaderOpen, RegularOnlyRefusesAFolderAndADevice) {
  ScratchDirectory scratch;
  for (const std::string& path : {scratch.path().string(), std::string("/dev/null")}) {
    FileReader reader = FileReader::open(path, {.regularOnly = true});
    EXPECT_EQ(reader.error().kind, FileErrorKind::notRegularFile) << path;
    EXPECT_EQ(reader.error().message, "not a regular file") << path;
  }
}

TEST(FileReaderOpen, RegularOnlyReadsARegularFile) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(100000);
  FileReader reader = FileReader::open(scratch.writeFile("plain", content),
                                       {.chunkSize = 30000, .regularOnly = true});
  ASSERT_FALSE(reader.error());
  EXPECT_EQ(readAll(reader, 30000), content);
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderOpen, NamedDeviceIsReadLikeAnyStream) {
  FileReader reader = FileReader::open("/dev/null", {});
  ASSERT_FALSE(reader.error()) << reader.error().message;
  EXPECT_FALSE(reader.isRegular());
  EXPECT_EQ(reader.next(), nullptr);
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderOpen, NamedFifoWithAStopTokenStillWaitsForItsWriterAndIsReadToItsEnd) {
  // With a stop token the FIFO is opened non-blocking and its writer waited for with poll(): the
  // same bytes, and no early end before the writer came.
  ScratchDirectory scratch;
  const std::string path = scratch.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  const Bytes content = seededRandomBytes(3 * kMiB + 17);
  std::stop_source never;

  const auto started = Clock::now();
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    writeToFifo(path, content, std::chrono::seconds(20));
  });
  FileReader reader = FileReader::open(path, {.chunkSize = kMiB, .stop = never.get_token()});
  const auto opened = Clock::now();
  ASSERT_FALSE(reader.error()) << reader.error().message;
  const Bytes read = readAll(reader, kMiB);
  writer.join();

  EXPECT_GE(opened - started, std::chrono::milliseconds(150));
  EXPECT_EQ(read, content);
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderOpen, NamedFifoWhoseWriterLeavesWithoutWritingIsEmpty) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  std::stop_source never;
  std::thread writer([&] { writeToFifo(path, {}, std::chrono::seconds(20)); });
  FileReader reader = FileReader::open(path, {.stop = never.get_token()});
  EXPECT_EQ(reader.next(), nullptr);
  writer.join();
  EXPECT_FALSE(reader.error()) << reader.error().message;
  EXPECT_FALSE(reader.finish());
}

// ---------------------------------------------------------------------------------------------
// Stopping waits on streams.

// Requests a stop after `delay`; join() before the source goes.
std::thread stopLater(std::stop_source& source, std::chrono::milliseconds delay) {
  return std::thread([&source, delay] {
    std::this_thread::sleep_for(delay);
    source.request_stop();
  });
}

void expectStopped(const FileError& error) {
  EXPECT_EQ(error.kind, FileErrorKind::stopped);
  EXPECT_EQ(error.code, ECANCELED);
  EXPECT_EQ(error.message, "stopped");
}

TEST(FileReaderStop, StopEndsTheWaitForAFifosWriter) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  std::stop_source source;
  std::thread stopper = stopLater(source, std::chrono::milliseconds(200));
  const auto started = Clock::now();
  FileReader reader = FileReader::open(path, {.stop = source.get_token()});
  const auto elapsed = Clock::now() - started;
  stopper.join();
  EXPECT_GE(elapsed, std::chrono::milliseconds(150));
  EXPECT_LT(elapsed, std::chrono::seconds(2));
  expectStopped(reader.error());
  EXPECT_EQ(reader.next(), nullptr);
}

TEST(FileReaderStop, StopEndsTheWaitForAFifosData) {
  ScratchDirectory scratch;
  const std::string path = scratch.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  std::atomic<bool> done = false;
  std::thread writer([&] {
    int descriptor = -1;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (descriptor < 0 && Clock::now() < deadline) {
      descriptor = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (descriptor < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (descriptor < 0) return;
    EXPECT_EQ(::write(descriptor, "he", 2), 2);
    // Keeps the FIFO open without writing more (at most 5 s, so a failing test still ends).
    const auto until = Clock::now() + std::chrono::seconds(5);
    while (!done && Clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ::close(descriptor);
  });
  std::stop_source source;
  FileReader reader = FileReader::open(path, {.stop = source.get_token()});
  ASSERT_FALSE(reader.error()) << reader.error().message;
  std::thread stopper = stopLater(source, std::chrono::milliseconds(200));
  const auto started = Clock::now();
  EXPECT_EQ(reader.next(), nullptr);  // the two bytes wait for a chunk that never fills
  const auto elapsed = Clock::now() - started;
  done = true;
  stopper.join();
  writer.join();
  EXPECT_LT(elapsed, std::chrono::seconds(2));
  expectStopped(reader.error());
}

TEST(FileReaderStop, StopEndsTheWaitOnAnAdoptedPipe) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::stop_source source;
  FileReader reader = FileReader::adopt(ends[0], {.stop = source.get_token()});
  std::thread stopper = stopLater(source, std::chrono::milliseconds(200));
  const auto started = Clock::now();
  EXPECT_EQ(reader.next(), nullptr);
  const auto elapsed = Clock::now() - started;
  stopper.join();
  ::close(ends[1]);
  EXPECT_LT(elapsed, std::chrono::seconds(2));
  expectStopped(reader.error());
}

TEST(FileReaderStop, NextAfterAStopGivesNothing) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(3 * 65536);
  std::stop_source source;
  FileReader reader = FileReader::open(scratch.writeFile("file", content),
                                       {.chunkSize = 65536, .stop = source.get_token()});
  ASSERT_NE(reader.next(), nullptr);
  source.request_stop();
  EXPECT_EQ(reader.next(), nullptr);
  expectStopped(reader.error());
  EXPECT_EQ(reader.bytesRead(), 65536u);
}

TEST(FileReaderStop, RegularFileWithAStopTokenReadsAsWithout) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(200000);
  std::stop_source never;
  FileReader reader = FileReader::open(scratch.writeFile("file", content),
                                       {.chunkSize = 65536, .stop = never.get_token()});
  ASSERT_FALSE(reader.error());
  EXPECT_EQ(readAll(reader, 65536), content);
  EXPECT_FALSE(reader.finish());
}

// ---------------------------------------------------------------------------------------------
// Adopted descriptors (standard input).

TEST(FileReaderAdopt, DescriptorPositionedMidFileReadsTheRest) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(200000);
  const std::string path = scratch.writeFile("middle", content);
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  ASSERT_EQ(::lseek(descriptor, 12345, SEEK_SET), 12345);

  FileReader reader = FileReader::adopt(descriptor, {.chunkSize = 65536});
  ASSERT_FALSE(reader.error());
  EXPECT_TRUE(reader.isRegular());
  EXPECT_EQ(reader.expectedSize(), 200000u - 12345u);
  EXPECT_EQ(readAll(reader, 65536), slice(content, 12345, 200000));
  EXPECT_EQ(reader.bytesRead(), 200000u - 12345u);
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderAdopt, PipeIsReadToItsEnd) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const Bytes content = seededRandomBytes(300000);
  std::thread writer([&] {
    std::size_t written = 0;
    while (written < content.size()) {
      const ssize_t count = ::write(ends[1], content.data() + written, content.size() - written);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) break;
      written += static_cast<std::size_t>(count);
    }
    ::close(ends[1]);
  });
  FileReader reader = FileReader::adopt(ends[0], {.chunkSize = 65536});
  ASSERT_FALSE(reader.error());
  EXPECT_FALSE(reader.isRegular());
  EXPECT_EQ(readAll(reader, 65536), content);
  writer.join();
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderAdopt, NonBlockingPipeIsWaitedOn) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const Bytes content = seededRandomBytes(1000);
  std::thread writer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(::write(ends[1], content.data(), content.size()), 1000);
    ::close(ends[1]);
  });
  FileReader reader = FileReader::adopt(ends[0], {});
  EXPECT_EQ(readAll(reader, kDefaultChunkSize), content);
  writer.join();
  EXPECT_FALSE(reader.error()) << reader.error().message;
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderAdopt, AdoptedFolderIsAnOpenErrorWithEISDIR) {
  ScratchDirectory scratch;
  const int descriptor = ::open(scratch.path().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  FileReader reader = FileReader::adopt(descriptor, {});
  EXPECT_EQ(reader.error().kind, FileErrorKind::open);
  EXPECT_EQ(reader.error().code, EISDIR);
}

TEST(FileReaderAdopt, InvalidDescriptorIsAnOpenErrorWithEBADF) {
  FileReader reader = FileReader::adopt(-1, {});
  EXPECT_EQ(reader.error().kind, FileErrorKind::open);
  EXPECT_EQ(reader.error().code, EBADF);
}

// ---------------------------------------------------------------------------------------------
// Changes while reading: each change is made between two next() calls.

class FileReaderChange : public ::testing::Test {
 protected:
  static constexpr std::size_t kChunk = 64 * kKiB;
  void SetUp() override {
    content_ = seededRandomBytes(4 * kChunk + 100);
    path_ = scratch_.writeFile("changing", content_);
  }
  // Opens the file and reads its first chunk.
  FileReader openAndReadFirstChunk() {
    FileReader reader = FileReader::open(path_, {.chunkSize = kChunk});
    EXPECT_FALSE(reader.error());
    SharedBytes first = reader.next();
    EXPECT_TRUE(first && *first == slice(content_, 0, kChunk));
    return reader;
  }

  ScratchDirectory scratch_;
  Bytes content_;
  std::string path_;
};

TEST_F(FileReaderChange, UnchangedFileFinishesWithoutError) {
  FileReader reader = openAndReadFirstChunk();
  EXPECT_EQ(readAll(reader, kChunk), slice(content_, kChunk, content_.size()));
  const FileError& verdict = reader.finish();
  EXPECT_EQ(verdict.kind, FileErrorKind::none) << verdict.message;
  EXPECT_EQ(reader.bytesRead(), content_.size());
}

TEST_F(FileReaderChange, TruncatedAfterTheFirstChunkIsChangedWhileRead) {
  FileReader reader = openAndReadFirstChunk();
  ASSERT_EQ(::truncate(path_.c_str(), kChunk + 500), 0);
  EXPECT_EQ(readAll(reader, kChunk), slice(content_, kChunk, kChunk + 500));
  const FileError& verdict = reader.finish();
  EXPECT_EQ(verdict.kind, FileErrorKind::changedWhileRead);
  EXPECT_EQ(verdict.code, 0);
  EXPECT_EQ(verdict.message, "file changed while being read");
}

TEST_F(FileReaderChange, ExtendedAfterTheFirstChunkIsChangedWhileRead) {
  FileReader reader = openAndReadFirstChunk();
  const Bytes more = seededRandomBytes(3 * kChunk);
  append(path_, more);
  Bytes expected = slice(content_, kChunk, content_.size());
  expected.insert(expected.end(), more.begin(), more.end());
  EXPECT_EQ(readAll(reader, kChunk), expected);  // read on to the new end
  EXPECT_EQ(reader.finish().kind, FileErrorKind::changedWhileRead);
}

TEST_F(FileReaderChange, TouchedAfterTheFirstChunkIsChangedWhileRead) {
  FileReader reader = openAndReadFirstChunk();
  const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  EXPECT_EQ(readAll(reader, kChunk), slice(content_, kChunk, content_.size()));
  EXPECT_EQ(reader.finish().kind, FileErrorKind::changedWhileRead);
}

TEST_F(FileReaderChange, FewerBytesThanTheSizeIsChangedEvenWhenSizeAndTimeAreBack) {
  // Cut short while read, then restored to its size and time before finish(): only the count
  // of bytes read tells.
  struct stat before {};
  ASSERT_EQ(::stat(path_.c_str(), &before), 0);
  FileReader reader = openAndReadFirstChunk();
  ASSERT_EQ(::truncate(path_.c_str(), 2 * kChunk), 0);
  EXPECT_EQ(readAll(reader, kChunk), slice(content_, kChunk, 2 * kChunk));
  ASSERT_EQ(::truncate(path_.c_str(), static_cast<off_t>(content_.size())), 0);
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  EXPECT_EQ(reader.finish().kind, FileErrorKind::changedWhileRead);
}

TEST_F(FileReaderChange, FinishBeforeTheEndCountsTheUnreadBytesAsAChange) {
  FileReader reader = openAndReadFirstChunk();
  EXPECT_EQ(reader.finish().kind, FileErrorKind::changedWhileRead);
  EXPECT_EQ(reader.next(), nullptr);  // closed
}

TEST_F(FileReaderChange, FinishTwiceGivesTheSameVerdict) {
  FileReader reader = openAndReadFirstChunk();
  readAll(reader, kChunk);
  EXPECT_FALSE(reader.finish());
  EXPECT_FALSE(reader.finish());
}

TEST(FileReaderPseudoFile, ProcFileWithoutASizeIsReadAndFinishesWithoutError) {
  const std::string path = "/proc/version";
  const Bytes content = readWholeFile(path);
  if (content.empty()) GTEST_SKIP() << "no " << path;
  FileReader reader = FileReader::open(path, {});
  ASSERT_FALSE(reader.error());
  EXPECT_TRUE(reader.isRegular());
  EXPECT_EQ(reader.expectedSize(), 0u);
  EXPECT_EQ(readAll(reader, kDefaultChunkSize), content);
  const FileError& verdict = reader.finish();
  EXPECT_FALSE(verdict) << verdict.message;
}

TEST(FileReaderPseudoFile, SysfsFileReportingAPageIsReadAndFinishesWithoutError) {
  const std::string path = "/sys/devices/system/cpu/online";
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) GTEST_SKIP() << "no " << path;
  const Bytes content = readWholeFile(path);
  ASSERT_FALSE(content.empty());
  ASSERT_NE(static_cast<std::size_t>(status.st_size), content.size());  // the premise
  FileReader reader = FileReader::open(path, {});
  ASSERT_FALSE(reader.error());
  EXPECT_EQ(readAll(reader, kDefaultChunkSize), content);
  const FileError& verdict = reader.finish();
  EXPECT_FALSE(verdict) << verdict.message;
}

// ---------------------------------------------------------------------------------------------
// Read errors.

TEST(FileReaderReadError, FailedReadIsAReadErrorWithItsErrno) {
  // /proc/self/mem opens and reports size 0, and reading offset 0 (never mapped) fails with EIO.
  const char* path = "/proc/self/mem";
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) GTEST_SKIP() << "cannot open " << path;
  char probe[16];
  const ssize_t probed = ::read(descriptor, probe, sizeof probe);
  const int probeError = errno;
  ::close(descriptor);
  if (probed >= 0) GTEST_SKIP() << path << " is readable at offset 0 here";
  ASSERT_EQ(probeError, EIO);

  FileReader reader = FileReader::open(path, {});
  ASSERT_FALSE(reader.error()) << reader.error().message;
  EXPECT_EQ(reader.next(), nullptr);
  EXPECT_EQ(reader.error().kind, FileErrorKind::read);
  EXPECT_EQ(reader.error().code, EIO);
  EXPECT_EQ(reader.error().message, std::strerror(EIO));
  EXPECT_EQ(reader.next(), nullptr);
  EXPECT_EQ(reader.finish().kind, FileErrorKind::read);  // the first failure stays
}

// ---------------------------------------------------------------------------------------------
// Reading past the page cache.

// Reads `path` with bypassCache and the given chunk size; returns the bytes.
Bytes readBypassingTheCache(const std::string& path, std::size_t chunkSize,
                            std::uint64_t* direct = nullptr) {
  FileReader reader = FileReader::open(path, {.chunkSize = chunkSize, .bypassCache = true});
  EXPECT_FALSE(reader.error()) << reader.error().message;
  const Bytes bytes = readAll(reader, chunkSize);
  if (direct) *direct = reader.bytesReadDirectly();
  const FileError& verdict = reader.finish();
  EXPECT_FALSE(verdict) << verdict.message;
  return bytes;
}

TEST(FileReaderBypass, SameBytesOnExt4ThroughDirectReads) {
  ScratchDirectory scratch;
  if (fileSystemType(scratch.path().string()) != static_cast<unsigned long>(EXT4_SUPER_MAGIC)) {
    GTEST_SKIP() << "the scratch folder is not on ext4";
  }
  int index = 0;
  // Unaligned tails, an exact multiple of the alignment, a file below one block, and a chunk
  // size that is not a multiple of the alignment.
  for (const auto& [size, chunk] : std::vector<std::pair<std::size_t, std::size_t>>{
           {3 * kMiB + 123, kMiB}, {2 * kMiB, kMiB}, {100, kMiB}, {1000000, 100000}, {0, kMiB}}) {
    SCOPED_TRACE("size " + std::to_string(size) + ", chunk " + std::to_string(chunk));
    const Bytes content = seededRandomBytes(size);
    const std::string path = scratch.writeFile("direct" + std::to_string(index++), content);
    syncToDisk(path);
    std::uint64_t direct = 0;
    EXPECT_EQ(readBypassingTheCache(path, chunk, &direct), content);
    EXPECT_EQ(direct, size - size % 4096);  // all but the unaligned tail past the cache
  }
}

TEST(FileReaderBypass, LeavesNoPagesOfTheFileCached) {
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(4 * kMiB + 1000);
  // tmpfs pages are the file itself and never leave.
  if (fileSystemType(scratch.path().string()) == static_cast<unsigned long>(TMPFS_MAGIC)) {
    GTEST_SKIP() << "the scratch folder is on tmpfs";
  }
  const std::string path = scratch.writeFile("cached", content);
  syncToDisk(path);
  EXPECT_EQ(readWholeFile(path), content);  // now in the cache
  const std::optional<std::uint64_t> before = cachedBytes(path);
  if (!before) GTEST_SKIP() << "fincore (util-linux) is not available";
  ASSERT_GT(*before, 0u);

  EXPECT_EQ(readBypassingTheCache(path, kMiB), content);
  EXPECT_EQ(cachedBytes(path), std::uint64_t{0});
}

TEST(FileReaderBypass, SameBytesOnTmpfs) {
  // tmpfs refused O_DIRECT until Linux 6.6 and takes it since; the bytes are the same either way.
  char pattern[] = "/dev/shm/corvane-test-XXXXXX";
  const int descriptor = ::mkstemp(pattern);
  if (descriptor < 0) GTEST_SKIP() << "no /dev/shm here";
  ::close(descriptor);
  const std::string path = pattern;
  const Bytes content = seededRandomBytes(2 * kMiB + 4097);
  testsupport::writeFile(path, content);
  std::uint64_t direct = 0;
  EXPECT_EQ(readBypassingTheCache(path, kMiB, &direct), content);
  RecordProperty("bytesReadDirectly", std::to_string(direct));
  ::unlink(path.c_str());
}

TEST(FileReaderBypass, SameBytesWhereTheFileSystemRefusesDirectReads) {
  // procfs refuses O_DIRECT (EINVAL): plain reads.
  const std::string path = "/proc/version";
  const Bytes plain = readWholeFile(path);
  if (plain.empty()) GTEST_SKIP() << "no " << path;
  const int probe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT);
  if (probe >= 0) {
    ::close(probe);
    GTEST_SKIP() << path << " takes O_DIRECT here";
  }
  std::uint64_t direct = 1;
  EXPECT_EQ(readBypassingTheCache(path, kMiB, &direct), plain);
  EXPECT_EQ(direct, 0u);
}

TEST(FileReaderBypass, AdoptedDescriptorIsNeverSwitchedToDirectReads) {
  // O_DIRECT would change the file description the descriptor shares with its other holders.
  ScratchDirectory scratch;
  const Bytes content = seededRandomBytes(300000);
  const std::string path = scratch.writeFile("adopted", content);
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  const int sharer = ::dup(descriptor);
  ASSERT_GE(sharer, 0);
  FileReader reader = FileReader::adopt(descriptor, {.chunkSize = 65536, .bypassCache = true});
  EXPECT_EQ(readAll(reader, 65536), content);
  EXPECT_EQ(reader.bytesReadDirectly(), 0u);
  EXPECT_EQ(::fcntl(sharer, F_GETFL) & O_DIRECT, 0);
  EXPECT_FALSE(reader.finish());
  ::close(sharer);
}

}  // namespace
}  // namespace corvane::engine
