// The multi-algorithm ChecksumGenerator: buffer form, file form and the single-algorithm
// conveniences. Every checksum is compared with a reference computed independently of the
// library's generators (support/References.hpp): OpenSSL's one-shot EVP_Digest for MD5 and SHA,
// the one-shot xxHash functions XXH64 / XXH3_64bits / XXH3_128bits, a byte-at-a-time table CRC-32
// and a base-58 conversion of the SHA-512 digest for C4.
//
// Whether the file form opened or read a file is observed with inotify (IN_OPEN, IN_ACCESS):
// the kernel queues those events synchronously with the open() and read() calls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/UnprivilegedUser.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kReadSize = 8388608;  // the file form's chunk size, 8 MiB

// C4 joins algorithmsWithAGenerator() once the factory offers it (see C4IsComputedOnceAvailable).
using testsupport::algorithmsWithAGenerator;
using testsupport::referenceChecksum;
using testsupport::ScratchDirectory;

// ---------------------------------------------------------------------------------------------
// Recording a run.

struct ProgressCall {
  float fraction;
  std::uint64_t bytes;
};

struct SuppliedChecksum {
  std::string text;
  ChecksumType type;
};

struct Recording {
  std::vector<ProgressCall> progress;
  std::vector<SuppliedChecksum> supplied;
  bool calledOffTheCallersThread = false;

  bool empty() const { return progress.empty() && supplied.empty(); }
  std::optional<std::string> textFor(ChecksumType type) const {
    std::optional<std::string> found;
    for (const auto& entry : supplied) {
      if (entry.type == type) found = entry.text;
    }
    return found;
  }
  int supplyCallsFor(ChecksumType type) const {
    int calls = 0;
    for (const auto& entry : supplied) calls += entry.type == type ? 1 : 0;
    return calls;
  }
};

// Sets the stop flag in progress call number `stopAtCall` (1-based; 0 never stops). `onProgress`
// runs inside every progress call before the flag is set.
struct RunOptions {
  int stopAtCall = 0;
  std::function<void()> onProgress;
};

// Options that stop the run in progress call number `call`.
RunOptions stoppingAtCall(int call) {
  RunOptions options;
  options.stopAtCall = call;
  return options;
}

ChecksumGenerator::ProgressBlock recordProgress(Recording& recording, const RunOptions& options) {
  const auto caller = std::this_thread::get_id();
  return [&recording, &options, caller](float fraction, std::uint64_t bytes, bool* stop) {
    if (std::this_thread::get_id() != caller) recording.calledOffTheCallersThread = true;
    recording.progress.push_back({fraction, bytes});
    if (options.onProgress) options.onProgress();
    if (options.stopAtCall != 0 && int(recording.progress.size()) == options.stopAtCall) {
      *stop = true;
    }
  };
}

ChecksumGenerator::ChecksumSupplyBlock recordSupply(Recording& recording) {
  const auto caller = std::this_thread::get_id();
  return [&recording, caller](const std::string& text, ChecksumType type) {
    if (std::this_thread::get_id() != caller) recording.calledOffTheCallersThread = true;
    recording.supplied.push_back({text, type});
  };
}

Recording runOnData(const std::vector<ChecksumType>& algorithms, const Bytes& data,
                    const RunOptions& options = {}) {
  Recording recording;
  ChecksumGenerator(algorithms)
      .generateChecksumForData(data, recordProgress(recording, options), recordSupply(recording));
  return recording;
}

Recording runOnFile(const std::vector<ChecksumType>& algorithms, const std::string& path,
                    const RunOptions& options = {}) {
  Recording recording;
  ChecksumGenerator(algorithms)
      .generateChecksumsForFile(path, recordProgress(recording, options), recordSupply(recording));
  return recording;
}

// Every algorithm of `algorithms` supplied exactly once with the reference checksum of `data`.
void expectReferenceChecksums(const Recording& recording,
                              const std::vector<ChecksumType>& algorithms, const Bytes& data) {
  EXPECT_EQ(recording.supplied.size(), algorithms.size());
  for (ChecksumType type : algorithms) {
    SCOPED_TRACE("algorithm " + type.name());
    EXPECT_EQ(recording.supplyCallsFor(type), 1);
    EXPECT_EQ(recording.textFor(type), referenceChecksum(type, data));
  }
}

// After a stop: the number of `algorithms` supplied the reference checksum of `data` (those fed
// before the stop); every other one must have been supplied the checksum of empty input.
int countFedAlgorithms(const Recording& recording, const std::vector<ChecksumType>& algorithms,
                       const Bytes& data) {
  int fed = 0;
  for (ChecksumType type : algorithms) {
    SCOPED_TRACE("algorithm " + type.name());
    const std::string text = recording.textFor(type).value_or("");
    if (text == referenceChecksum(type, data)) {
      ++fed;
    } else {
      EXPECT_EQ(text, type.emptyChecksumValue());
    }
  }
  return fed;
}

// ---------------------------------------------------------------------------------------------
// Files.

Bytes readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Counts the opens and reads of one file, as queued by the kernel since the last drain().
class FileAccessWatch {
 public:
  explicit FileAccessWatch(const std::string& path) {
    descriptor_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (descriptor_ >= 0 &&
        ::inotify_add_watch(descriptor_, path.c_str(), IN_OPEN | IN_ACCESS) < 0) {
      ::close(descriptor_);
      descriptor_ = -1;
    }
  }
  ~FileAccessWatch() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  FileAccessWatch(const FileAccessWatch&) = delete;
  FileAccessWatch& operator=(const FileAccessWatch&) = delete;

  bool usable() const { return descriptor_ >= 0; }

  struct Events {
    int opens = 0;
    int reads = 0;  // identical consecutive events are merged: "at least one read" only
  };
  Events drain() {
    Events events;
    alignas(struct inotify_event) char buffer[4096];
    for (;;) {
      const ssize_t length = ::read(descriptor_, buffer, sizeof buffer);
      if (length <= 0) break;
      for (ssize_t offset = 0; offset < length;) {
        const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
        if (event->mask & IN_OPEN) ++events.opens;
        if (event->mask & IN_ACCESS) ++events.reads;
        offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
      }
    }
    return events;
  }

 private:
  int descriptor_ = -1;
};

#define SKIP_UNLESS_USABLE(watch) \
  if (!(watch).usable()) GTEST_SKIP() << "inotify is not available here"

// ---------------------------------------------------------------------------------------------
// Self-checks of the references.

TEST(ChecksumGeneratorReference, ReferencesGiveTheLibrarysEmptyInputTexts) {
  // Only C4 may be missing from the factory; every other engine must be there.
  EXPECT_GE(algorithmsWithAGenerator().size(), 8u);
  // Checks the references themselves (formatting included) against the empty-input texts that
  // ChecksumType publishes for each algorithm.
  for (ChecksumType type : algorithmsWithAGenerator()) {
    SCOPED_TRACE("algorithm " + type.name());
    EXPECT_EQ(referenceChecksum(type, {}), type.emptyChecksumValue());
  }
  // MD5 of "" from RFC 1321, appendix A.5.
  EXPECT_EQ(referenceChecksum(ChecksumTypeMD5, {}), "d41d8cd98f00b204e9800998ecf8427e");
}

// ---------------------------------------------------------------------------------------------
// The value type.

TEST(ChecksumGenerator, KeepsTheAlgorithmListAndReadsEightMiBAtATime) {
  const std::vector<ChecksumType> list = {ChecksumTypeSHA256, ChecksumTypeMD5, ChecksumTypeSHA256};
  const ChecksumGenerator generator(list);
  EXPECT_EQ(generator.algorithms(), list);
  EXPECT_EQ(generator.readSize(), 8388608);
  EXPECT_EQ(ChecksumGenerator::kDefaultReadSize, 8388608);
}

TEST(ChecksumGenerator, ValueMayRunManyTimesWithTheSameResults) {
  const ChecksumGenerator generator({ChecksumTypeMD5, ChecksumTypeXXHash64});
  const Bytes data = testsupport::bytesOf("the same value, run twice");
  for (int run = 0; run < 3; ++run) {
    Recording recording;
    generator.generateChecksumForData(data, recordProgress(recording, {}), recordSupply(recording));
    expectReferenceChecksums(recording, {ChecksumTypeMD5, ChecksumTypeXXHash64}, data);
  }
}

// ---------------------------------------------------------------------------------------------
// Buffer form.

TEST(ChecksumGeneratorData, EmptyAlgorithmListGivesNoCallback) {
  EXPECT_TRUE(runOnData({}, testsupport::bytesOf("some bytes")).empty());
}

TEST(ChecksumGeneratorData, AlgorithmsWithoutAGeneratorGiveNoCallback) {
  // SR Sum (64) has a name but no generator; 0, masks (3, 0xFFFF) and unknown bits (1024) none.
  const std::vector<ChecksumType> noGenerator = {ChecksumTypeSRSum, ChecksumTypeNone,
                                                 ChecksumType(3), ChecksumType(1024),
                                                 ChecksumType(0xFFFF)};
  EXPECT_TRUE(runOnData(noGenerator, testsupport::bytesOf("some bytes")).empty());
  EXPECT_TRUE(runOnData({ChecksumTypeSRSum}, {}).empty());
}

TEST(ChecksumGeneratorData, AlgorithmsWithoutAGeneratorAreSkippedBesideOthers) {
  const Bytes data = testsupport::bytesOf("skip the ones without an engine");
  const Recording recording =
      runOnData({ChecksumTypeSRSum, ChecksumTypeMD5, ChecksumType(1024)}, data);
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  expectReferenceChecksums(recording, {ChecksumTypeMD5}, data);
}

TEST(ChecksumGeneratorData, SameAlgorithmTwiceGivesOneSupplyCall) {
  const Bytes data = testsupport::bytesOf("listed twice");
  const Recording recording = runOnData({ChecksumTypeSHA1, ChecksumTypeSHA1}, data);
  // One generator, so one hand-off and one progress call.
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  EXPECT_EQ(recording.progress[0].bytes, data.size());
  expectReferenceChecksums(recording, {ChecksumTypeSHA1}, data);
}

TEST(ChecksumGeneratorData, EmptyBufferGivesNoProgressAndTheEmptyInputChecksums) {
  const Recording recording = runOnData(algorithmsWithAGenerator(), {});
  EXPECT_TRUE(recording.progress.empty());
  expectReferenceChecksums(recording, algorithmsWithAGenerator(), {});
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(recording.textFor(type), type.emptyChecksumValue()) << type.name();
  }
}

TEST(ChecksumGeneratorData, ThreeAlgorithmsOverTenBytesReportCumulativeProgress) {
  const Bytes data = testsupport::bytesOf("0123456789");
  const std::vector<ChecksumType> three = {ChecksumTypeMD5, ChecksumTypeCRC32, ChecksumTypeSHA256};
  const Recording recording = runOnData(three, data);
  ASSERT_EQ(recording.progress.size(), 3u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  EXPECT_EQ(recording.progress[0].bytes, 10u);
  EXPECT_EQ(recording.progress[1].fraction, 2.0f);
  EXPECT_EQ(recording.progress[1].bytes, 20u);
  EXPECT_EQ(recording.progress[2].fraction, 3.0f);
  EXPECT_EQ(recording.progress[2].bytes, 30u);
  expectReferenceChecksums(recording, three, data);
}

TEST(ChecksumGeneratorData, StopAfterTheFirstAlgorithmStillSuppliesAllThree) {
  const Bytes data = testsupport::bytesOf("stopped after the first algorithm");
  const std::vector<ChecksumType> three = {ChecksumTypeSHA1, ChecksumTypeXXHash64,
                                           ChecksumTypeSHA512};
  const Recording recording = runOnData(three, data, stoppingAtCall(1));

  EXPECT_EQ(recording.progress.size(), 1u);
  ASSERT_EQ(recording.supplied.size(), 3u);
  for (ChecksumType type : three) {
    ASSERT_EQ(recording.supplyCallsFor(type), 1) << "algorithm " << type.name();
  }
  // Which generator is fed first is not defined: one of the three carries the checksum of the
  // data, the two unfed ones the checksum of empty input.
  const int fed = countFedAlgorithms(recording, three, data);
  const int unfed = int(three.size()) - fed;
  EXPECT_EQ(fed, 1);
  EXPECT_EQ(unfed, 2);
}

TEST(ChecksumGeneratorData, StopAfterTheSecondAlgorithmLeavesOneUnfed) {
  const Bytes data = testsupport::bytesOf("stopped after the second algorithm");
  const std::vector<ChecksumType> three = {ChecksumTypeMD5, ChecksumTypeXXHashH364,
                                           ChecksumTypeCRC32};
  const Recording recording = runOnData(three, data, stoppingAtCall(2));
  EXPECT_EQ(recording.progress.size(), 2u);
  ASSERT_EQ(recording.supplied.size(), 3u);
  EXPECT_EQ(countFedAlgorithms(recording, three, data), 2);
}

TEST(ChecksumGeneratorData, BufferLargerThanTheReadSizeIsHandedOverWhole) {
  const Bytes data = testsupport::seededRandomBytes(kReadSize + 4096);
  const Recording recording = runOnData({ChecksumTypeXXHash64}, data);
  // One hand-off of the whole buffer: a single progress call covering all of it.
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  EXPECT_EQ(recording.progress[0].bytes, data.size());
  expectReferenceChecksums(recording, {ChecksumTypeXXHash64}, data);
}

TEST(ChecksumGeneratorData, AllAlgorithmsInOneRunMatchIndependentReferences) {
  const Bytes data = testsupport::seededRandomBytes(1 * kMiB + 3);
  const Recording recording = runOnData(algorithmsWithAGenerator(), data);
  const std::size_t count = algorithmsWithAGenerator().size();
  ASSERT_EQ(recording.progress.size(), count);
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_EQ(recording.progress[i].fraction, float(i + 1));
    EXPECT_EQ(recording.progress[i].bytes, (i + 1) * data.size());
  }
  expectReferenceChecksums(recording, algorithmsWithAGenerator(), data);
}

TEST(ChecksumGeneratorData, C4IsComputedOnceAvailable) {
  if (!CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeC4)) {
    GTEST_SKIP() << "the factory has no C4 generator yet";
  }
  const Bytes data = testsupport::bytesOf("content identified by C4");
  const Recording recording = runOnData({ChecksumTypeC4, ChecksumTypeSHA512}, data);
  expectReferenceChecksums(recording, {ChecksumTypeC4, ChecksumTypeSHA512}, data);
  ASSERT_TRUE(recording.textFor(ChecksumTypeC4).has_value());
  EXPECT_EQ(recording.textFor(ChecksumTypeC4)->size(), 90u);
}

TEST(ChecksumGeneratorData, CallbacksRunOnTheCallersThread) {
  const Bytes data = testsupport::seededRandomBytes(64 * 1024);
  const Recording recording = runOnData(algorithmsWithAGenerator(), data);
  EXPECT_EQ(recording.supplied.size(), algorithmsWithAGenerator().size());
  EXPECT_FALSE(recording.calledOffTheCallersThread);
}

TEST(ChecksumGeneratorData, MissingCallbacksAreAccepted) {
  // Without a progress callback nobody can stop the run; without a supply callback the results
  // are dropped. Neither may crash.
  ChecksumGenerator(algorithmsWithAGenerator())
      .generateChecksumForData(testsupport::bytesOf("no callbacks"), nullptr, nullptr);
}

// ---------------------------------------------------------------------------------------------
// File form.

TEST(ChecksumGeneratorFile, EmptyAlgorithmListGivesNoCallbackAndDoesNotOpenTheFile) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("content", testsupport::bytesOf("never opened"));
  FileAccessWatch watch(path);
  SKIP_UNLESS_USABLE(watch);

  EXPECT_TRUE(runOnFile({}, path).empty());
  EXPECT_EQ(watch.drain().opens, 0);
}

TEST(ChecksumGeneratorFile, AlgorithmsWithoutAGeneratorGiveNoCallbackAndDoNotOpenTheFile) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("content", testsupport::bytesOf("never opened"));
  FileAccessWatch watch(path);
  SKIP_UNLESS_USABLE(watch);

  EXPECT_TRUE(runOnFile({ChecksumTypeSRSum}, path).empty());
  EXPECT_TRUE(runOnFile({ChecksumTypeNone, ChecksumType(3), ChecksumType(1024)}, path).empty());
  EXPECT_EQ(watch.drain().opens, 0);
}

TEST(ChecksumGeneratorFile, FileIsOpenedOnceAnAlgorithmHasAGenerator) {
  // The counterpart of the two tests above: the watch does see the run's open.
  ScratchDirectory directory;
  const Bytes content = testsupport::bytesOf("opened");
  const std::string path = directory.writeFile("content", content);
  FileAccessWatch watch(path);
  SKIP_UNLESS_USABLE(watch);

  const Recording recording = runOnFile({ChecksumTypeSRSum, ChecksumTypeMD5}, path);
  expectReferenceChecksums(recording, {ChecksumTypeMD5}, content);
  const auto events = watch.drain();
  EXPECT_EQ(events.opens, 1);
  EXPECT_GE(events.reads, 1);
}

TEST(ChecksumGeneratorFile, SameAlgorithmTwiceGivesOneSupplyCall) {
  ScratchDirectory directory;
  const Bytes content = testsupport::bytesOf("listed twice");
  const std::string path = directory.writeFile("content", content);
  const Recording recording = runOnFile({ChecksumTypeCRC32, ChecksumTypeCRC32}, path);
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  expectReferenceChecksums(recording, {ChecksumTypeCRC32}, content);
}

TEST(ChecksumGeneratorFile, EmptyFileGivesNoProgressAndTheEmptyInputChecksums) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("empty", {});
  const Recording recording = runOnFile(algorithmsWithAGenerator(), path);
  EXPECT_TRUE(recording.progress.empty());
  expectReferenceChecksums(recording, algorithmsWithAGenerator(), {});
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(recording.textFor(type), type.emptyChecksumValue()) << type.name();
  }
}

TEST(ChecksumGeneratorFile, OneByteFileGivesOneProgressCallOfTheWholeFile) {
  ScratchDirectory directory;
  const Bytes content = {0x61};
  const std::string path = directory.writeFile("one-byte", content);
  const Recording recording = runOnFile(algorithmsWithAGenerator(), path);
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  EXPECT_EQ(recording.progress[0].bytes, 1u);
  expectReferenceChecksums(recording, algorithmsWithAGenerator(), content);
}

TEST(ChecksumGeneratorFile, FileOfExactlyOneReadSizeGivesOneProgressCall) {
  ScratchDirectory directory;
  const Bytes content = testsupport::seededRandomBytes(kReadSize);
  const std::string path = directory.writeFile("eight-mib", content);
  const Recording recording = runOnFile({ChecksumTypeXXHashH3128}, path);
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  EXPECT_EQ(recording.progress[0].bytes, 8388608u);
  expectReferenceChecksums(recording, {ChecksumTypeXXHashH3128}, content);
}

TEST(ChecksumGeneratorFile, TwentyMiBFileIsReadInEightMiBChunks) {
  ScratchDirectory directory;
  const Bytes content = testsupport::seededRandomBytes(20 * kMiB);
  const std::string path = directory.writeFile("twenty-mib", content);
  const Recording recording = runOnFile({ChecksumTypeXXHash64}, path);
  // Reads of 8 MiB, 8 MiB and 4 MiB: fractions 8/20, 16/20 and 20/20 computed in double and
  // narrowed to float.
  ASSERT_EQ(recording.progress.size(), 3u);
  EXPECT_EQ(recording.progress[0].fraction, static_cast<float>(0.4));
  EXPECT_EQ(recording.progress[0].bytes, 8388608u);
  EXPECT_EQ(recording.progress[1].fraction, static_cast<float>(0.8));
  EXPECT_EQ(recording.progress[1].bytes, 16777216u);
  EXPECT_EQ(recording.progress[2].fraction, 1.0f);
  EXPECT_EQ(recording.progress[2].bytes, 20971520u);
  expectReferenceChecksums(recording, {ChecksumTypeXXHash64}, content);
}

TEST(ChecksumGeneratorFile, AllAlgorithmsInOneRunMatchIndependentReferences) {
  ScratchDirectory directory;
  // One full chunk and a short second one.
  const Bytes content = testsupport::seededRandomBytes(kReadSize + 12345);
  const std::string path = directory.writeFile("two-chunks", content);
  const Recording recording = runOnFile(algorithmsWithAGenerator(), path);
  ASSERT_EQ(recording.progress.size(), 2u);
  EXPECT_EQ(recording.progress[0].bytes, kReadSize);
  EXPECT_EQ(recording.progress[0].fraction,
            static_cast<float>(double(kReadSize) / double(content.size())));
  EXPECT_EQ(recording.progress[1].bytes, content.size());
  EXPECT_EQ(recording.progress[1].fraction, 1.0f);
  expectReferenceChecksums(recording, algorithmsWithAGenerator(), content);
  EXPECT_FALSE(recording.calledOffTheCallersThread);
}

TEST(ChecksumGeneratorFile, StopFromTheProgressCallbackEndsReadingWithoutSupply) {
  ScratchDirectory directory;
  const std::string path =
      directory.writeFile("twenty-mib", testsupport::seededRandomBytes(20 * kMiB));
  FileAccessWatch watch(path);
  SKIP_UNLESS_USABLE(watch);

  int readsBeforeStop = 0;
  const RunOptions options = {.stopAtCall = 1,
                              .onProgress = [&] { readsBeforeStop += watch.drain().reads; }};
  const Recording recording = runOnFile({ChecksumTypeMD5, ChecksumTypeXXHash64}, path, options);

  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, static_cast<float>(0.4));
  EXPECT_EQ(recording.progress[0].bytes, 8388608u);
  EXPECT_TRUE(recording.supplied.empty());
  EXPECT_GE(readsBeforeStop, 1);      // the watch sees the run's reads ...
  EXPECT_EQ(watch.drain().reads, 0);  // ... and none after the stop
}

TEST(ChecksumGeneratorFile, StopOnTheLastChunkStillSuppliesNothing) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("one-byte", {0x7a});
  const Recording recording = runOnFile(algorithmsWithAGenerator(), path, stoppingAtCall(1));
  ASSERT_EQ(recording.progress.size(), 1u);
  EXPECT_EQ(recording.progress[0].fraction, 1.0f);
  EXPECT_TRUE(recording.supplied.empty());
}

TEST(ChecksumGeneratorFile, MissingFileGivesNoCallback) {
  ScratchDirectory directory;
  EXPECT_TRUE(runOnFile(algorithmsWithAGenerator(), directory.file("does-not-exist")).empty());
}

TEST(ChecksumGeneratorFile, DirectoryIsRefusedWithoutCallbacks) {
  ScratchDirectory directory;
  directory.writeFile("inside", testsupport::bytesOf("a file in the directory"));
  EXPECT_TRUE(runOnFile(algorithmsWithAGenerator(), directory.path().string()).empty());
}

TEST(ChecksumGeneratorFile, UnreadableFileGivesNoCallback) {
  ScratchDirectory directory;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0711), 0);  // others may pass, not list
  const std::string path = directory.writeFile("unreadable", testsupport::bytesOf("secret"));
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);

  Recording recording;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    const int probe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (probe >= 0) {
      ::close(probe);
      GTEST_SKIP() << "permissions do not stop this user from opening the file";
    }
    recording = runOnFile(algorithmsWithAGenerator(), path);
  }
  EXPECT_TRUE(recording.empty());
  ::chmod(path.c_str(), 0600);
}

TEST(ChecksumGeneratorFile, ReadErrorEndsReadingAndFinalizesWhatWasRead) {
  // /proc/self/mem opens, reports size 0 and fails its first read (offset 0 is unmapped) with
  // EIO. Nothing was read, so every algorithm is supplied its empty-input checksum.
  const char* path = "/proc/self/mem";
  const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) GTEST_SKIP() << "cannot open " << path;
  char probe[16];
  const ssize_t probed = ::read(descriptor, probe, sizeof probe);
  const int probeError = errno;
  ::close(descriptor);
  if (probed >= 0) GTEST_SKIP() << path << " is readable at offset 0 here";
  EXPECT_EQ(probeError, EIO);

  const Recording recording = runOnFile(algorithmsWithAGenerator(), path);
  EXPECT_TRUE(recording.progress.empty());
  ASSERT_EQ(recording.supplied.size(), algorithmsWithAGenerator().size());
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(recording.textFor(type), type.emptyChecksumValue()) << type.name();
  }
}

TEST(ChecksumGeneratorFile, SizeUnavailableButFileOpensSuppliesWithoutProgress) {
  // A FIFO has no size (st_size 0) but reads like a file: the writer below feeds it 3 MiB.
  ScratchDirectory directory;
  const std::string path = directory.file("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << std::strerror(errno);
  const Bytes content = testsupport::seededRandomBytes(3 * kMiB + 17);

  std::thread writer([&] {
    // Non-blocking open fails with ENXIO until the run has opened the reading end; give up after
    // a while rather than hang if the run never opens it.
    int descriptor = -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (descriptor < 0 && std::chrono::steady_clock::now() < deadline) {
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
  });
  const std::vector<ChecksumType> two = {ChecksumTypeSHA256, ChecksumTypeXXHashH364};
  const Recording recording = runOnFile(two, path);
  writer.join();

  EXPECT_TRUE(recording.progress.empty());
  expectReferenceChecksums(recording, two, content);
}

TEST(ChecksumGeneratorFile, ProcFileWithoutSizeSuppliesWithoutProgress) {
  // Files under /proc report size 0 but have content.
  const std::string path = "/proc/version";
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) GTEST_SKIP() << "no " << path;
  ASSERT_EQ(status.st_size, 0);
  const Bytes content = readWholeFile(path);
  ASSERT_FALSE(content.empty());

  const std::vector<ChecksumType> two = {ChecksumTypeMD5, ChecksumTypeCRC32};
  const Recording recording = runOnFile(two, path);
  EXPECT_TRUE(recording.progress.empty());
  expectReferenceChecksums(recording, two, content);
}

// ---------------------------------------------------------------------------------------------
// Single-algorithm conveniences.

TEST(ChecksumGeneratorStatic, DataWithAnAlgorithmWithoutAGeneratorReturnsNothing) {
  const Bytes data = testsupport::bytesOf("abc");
  EXPECT_EQ(ChecksumGenerator::generateChecksumForData(data, ChecksumTypeSRSum), std::nullopt);
  EXPECT_EQ(ChecksumGenerator::generateChecksumForData(data, ChecksumTypeNone), std::nullopt);
  EXPECT_EQ(ChecksumGenerator::generateChecksumForData(data, ChecksumType(3)), std::nullopt);
  EXPECT_EQ(ChecksumGenerator::generateChecksumForData(data, ChecksumType(1024)), std::nullopt);
}

TEST(ChecksumGeneratorStatic, MD5OfEmptyDataIsTheEmptyInputDigest) {
  // MD5 ("") from RFC 1321, appendix A.5.
  EXPECT_EQ(ChecksumGenerator::generateChecksumForData({}, ChecksumTypeMD5),
            "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(ChecksumGeneratorStatic, DataMatchesTheReferenceForEveryAlgorithm) {
  const Bytes data = testsupport::seededRandomBytes(100003);
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(ChecksumGenerator::generateChecksumForData(data, type), referenceChecksum(type, data))
        << type.name();
  }
}

TEST(ChecksumGeneratorStatic, FileMatchesTheReferenceForEveryAlgorithm) {
  ScratchDirectory directory;
  const Bytes content = testsupport::seededRandomBytes(200001);
  const std::string path = directory.writeFile("content", content);
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(ChecksumGenerator::generateChecksumForFile(path, type),
              referenceChecksum(type, content))
        << type.name();
  }
}

TEST(ChecksumGeneratorStatic, FileWithAnAlgorithmWithoutAGeneratorReturnsNothing) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("content", testsupport::bytesOf("abc"));
  EXPECT_EQ(ChecksumGenerator::generateChecksumForFile(path, ChecksumTypeSRSum), std::nullopt);
  EXPECT_EQ(ChecksumGenerator::generateChecksumForFile(path, ChecksumType(6)), std::nullopt);
}

TEST(ChecksumGeneratorStatic, FileThatCannotBeOpenedReturnsNothing) {
  ScratchDirectory directory;
  EXPECT_EQ(ChecksumGenerator::generateChecksumForFile(directory.file("missing"), ChecksumTypeMD5),
            std::nullopt);
  EXPECT_EQ(ChecksumGenerator::generateChecksumForFile(directory.path().string(), ChecksumTypeMD5),
            std::nullopt);
}

TEST(ChecksumGeneratorStatic, EmptyFileGivesTheEmptyInputChecksum) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("empty", {});
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(ChecksumGenerator::generateChecksumForFile(path, type), type.emptyChecksumValue())
        << type.name();
  }
}

}  // namespace
}  // namespace corvane
