// The generator base class, its factory and the streaming protocol every algorithm follows:
// queueing on the generator's own serial queue, the bound of eight queued tasks, callbacks,
// precalculated generators, the double-finalization error and the bare (algorithm-less) base.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/DigestChecksumGenerators.hpp"
#include "corvane/XXHashChecksumGenerators.hpp"
#include "dispatch/CountingSemaphore.hpp"
#include "dispatch/SerialQueue.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using testsupport::bytesOf;
using testsupport::checksumOf;
using testsupport::checksumOfChunks;
using testsupport::describeType;
using testsupport::finalizeAndWait;
using testsupport::finalizeLater;
using testsupport::QueueStall;
using testsupport::runGenerator;
using testsupport::share;
using testsupport::typesWithAGenerator;

// Polls `condition` until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// What `checksumValue` holds after finalization: the text the completion received, except for
// C4, which deliberately keeps the SHA-512 hex of the input there and hands only the C4 ID to
// the completion callback.
std::optional<std::string> storedValueFor(ChecksumType type,
                                          const std::optional<std::string>& completionText,
                                          const Bytes& input) {
  if (type == ChecksumTypeC4) return checksumOf(ChecksumTypeSHA512, input);
  return completionText;
}

// Whether the factory's generator for `type` is a `GeneratorClass` or derives from one.
template <typename GeneratorClass>
bool factoryGivesA(ChecksumType type) {
  return std::dynamic_pointer_cast<GeneratorClass>(
             CorvaneChecksumGenerator::checksumGeneratorForType(type)) != nullptr;
}

// Known answers used below, all from RFC 1321 appendix A.5 (MD5 test suite).
constexpr const char* kMessageDigestText = "message digest";
constexpr const char* kMD5OfMessageDigest = "f96b697d7cb7938d525a2f31aaf161d0";

// ----- factory --------------------------------------------------------------------------------

TEST(CorvaneChecksumGeneratorFactory, ReturnsNullForValuesWithoutAGenerator) {
  for (std::uint64_t raw :
       {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{64}, std::uint64_t{1024},
        std::uint64_t{0xFFFF}, std::uint64_t{1} << 40, ~std::uint64_t{0}}) {
    EXPECT_EQ(CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumType(raw)), nullptr)
        << "raw value " << raw;
  }
}

TEST(CorvaneChecksumGeneratorFactory, ReturnsNullForMasksOfSeveralAlgorithms) {
  EXPECT_EQ(CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumType(1 | 2)), nullptr);
  EXPECT_EQ(CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumType(16 | 32)), nullptr);
  EXPECT_EQ(CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumType(0x3BF)), nullptr);
}

TEST(CorvaneChecksumGeneratorFactory, ReturnsAGeneratorOfTheRequestedTypeForEachOfTheNine) {
  for (ChecksumType type : typesWithAGenerator()) {
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    EXPECT_EQ(generator->checksumType(), type) << describeType(type);
  }
}

TEST(CorvaneChecksumGeneratorFactory, PicksTheGeneratorClassOfEachAlgorithm) {
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorMD5>(ChecksumTypeMD5));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorXXHash64>(ChecksumTypeXXHash64));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorCRC32>(ChecksumTypeCRC32));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorSHA1>(ChecksumTypeSHA1));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorSHA256>(ChecksumTypeSHA256));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorSHA512>(ChecksumTypeSHA512));
  // The C4 generator builds on SHA-512.
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorSHA512>(ChecksumTypeC4));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorXXHashH364>(ChecksumTypeXXHashH364));
  EXPECT_TRUE(factoryGivesA<CorvaneChecksumGeneratorXXHashH3128>(ChecksumTypeXXHashH3128));
}

TEST(CorvaneChecksumGeneratorFactory, MakesANewGeneratorWithItsOwnQueueEachCall) {
  auto first = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA1);
  auto second = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA1);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  ASSERT_NE(first->checksummingQueue(), nullptr);
  EXPECT_NE(first->checksummingQueue(), second->checksummingQueue());
  EXPECT_NE(first->limitingSemaphore(), second->limitingSemaphore());
  // Every generator's queue carries the same label.
  EXPECT_EQ(first->checksummingQueue()->label(), "com.corvane.replication.checksum");
  EXPECT_EQ(second->checksummingQueue()->label(), first->checksummingQueue()->label());
}

// ----- fresh state ----------------------------------------------------------------------------

TEST(CorvaneChecksumGenerator, FreshGeneratorIsUnfinalizedWithoutValueAndLimited) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    EXPECT_FALSE(generator->isFinialized());
    EXPECT_EQ(generator->checksumValue(), std::nullopt);
    EXPECT_TRUE(generator->limitUsingSemaphore());
    EXPECT_NE(generator->checksummingQueue(), nullptr);
    EXPECT_NE(generator->limitingSemaphore(), nullptr);
  }
}

TEST(CorvaneChecksumGenerator, LimitingSemaphoreStartsWithEightSlots) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA256);
  ASSERT_NE(generator, nullptr);
  EXPECT_EQ(CorvaneChecksumGenerator::kQueuedTaskLimit, 8);
  ASSERT_NE(generator->limitingSemaphore(), nullptr);
  EXPECT_EQ(testsupport::freeSemaphoreSlots(generator), 8);
}

TEST(CorvaneChecksumGenerator, PropertySettersRoundTrip) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  generator->setChecksumValue(std::string("abc"));
  EXPECT_EQ(generator->checksumValue(), "abc");
  generator->setChecksumValue(std::nullopt);
  EXPECT_EQ(generator->checksumValue(), std::nullopt);
  generator->setIsFinialized(true);
  EXPECT_TRUE(generator->isFinialized());
  generator->setLimitUsingSemaphore(false);
  EXPECT_FALSE(generator->limitUsingSemaphore());
  generator->setChecksumType(ChecksumTypeSHA1);
  EXPECT_EQ(generator->checksumType(), ChecksumTypeSHA1);
  auto queue = dispatch::SerialQueue::create("test.queue");
  generator->setChecksummingQueue(queue);
  EXPECT_EQ(generator->checksummingQueue(), queue);
  auto semaphore = std::make_shared<dispatch::CountingSemaphore>(2);
  generator->setLimitingSemaphore(semaphore);
  EXPECT_EQ(generator->limitingSemaphore(), semaphore);
}

// ----- precalculated generators ---------------------------------------------------------------

TEST(CorvaneChecksumGeneratorPrecalculated, IsFinalizedWithTheGivenValueBeforeAnythingHappens) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator =
        CorvaneChecksumGenerator::checksumGeneratorForType(type, std::string("0123abcd"));
    if (generator == nullptr) {
      ADD_FAILURE() << "no generator";
      continue;
    }
    EXPECT_EQ(generator->checksumType(), type);
    EXPECT_TRUE(generator->isFinialized());
    EXPECT_EQ(generator->checksumValue(), "0123abcd");
  }
}

TEST(CorvaneChecksumGeneratorPrecalculated, MayHoldANullValue) {
  auto generator =
      CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeMD5, std::nullopt);
  ASSERT_NE(generator, nullptr);
  EXPECT_TRUE(generator->isFinialized());
  EXPECT_EQ(generator->checksumValue(), std::nullopt);
}

TEST(CorvaneChecksumGeneratorPrecalculated, IsNullForTypesWithoutAGenerator) {
  for (std::uint64_t raw : {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{64},
                            std::uint64_t{1024}, std::uint64_t{0xFFFF}}) {
    EXPECT_EQ(CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumType(raw),
                                                                 std::string("ffffffff")),
              nullptr)
        << "raw value " << raw;
  }
}

TEST(CorvaneChecksumGeneratorDeathTest, FinalizingAPrecalculatedGeneratorRaisesOnItsQueue) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    if (testsupport::newGenerator(type) == nullptr) continue;
    EXPECT_DEATH(
        {
          auto generator =
              CorvaneChecksumGenerator::checksumGeneratorForType(type, std::string("00"));
          QueueStall stall(generator);
          generator->finalizeChecksumWithCompletionBlock(
              [](const std::optional<std::string>&) { std::cerr << "completion called\n"; });
          std::cerr << "finalize returned\n";
          stall.release();
          std::this_thread::sleep_for(10s);
        },
        "finalize returned.*You may not finialize a checksum generator more than once: "
        "finalizeChecksumWithCompletionBlock:");
  }
}

// ----- streaming protocol ---------------------------------------------------------------------

TEST(CorvaneChecksumGenerator, NullBufferCallsUpdateBlockOnTheCallersThreadBeforeReturning) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    // With the queue stalled, a callback that ran before the call returned cannot have come
    // from the queue.
    QueueStall stall(generator);
    bool called = false;
    std::thread::id callbackThread;
    generator->addDataToChecksum(nullptr, [&] {
      called = true;
      callbackThread = std::this_thread::get_id();
    });
    EXPECT_TRUE(called);
    EXPECT_EQ(callbackThread, std::this_thread::get_id());
    stall.release();
    EXPECT_EQ(finalizeAndWait(generator), type.emptyChecksumValue());
  }
}

TEST(CorvaneChecksumGenerator, NullBufferTakesNoSemaphoreSlot) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    QueueStall stall(generator);
    // Twenty null chunks while nothing can drain: none of them may wait for a slot.
    int called = 0;
    for (int i = 0; i < 20; ++i) generator->addDataToChecksum(nullptr, [&] { ++called; });
    EXPECT_EQ(called, 20);
    EXPECT_EQ(testsupport::freeSemaphoreSlots(generator), 8);
  }
}

TEST(CorvaneChecksumGenerator, NullBufferWithoutUpdateBlockIsAccepted) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    generator->addDataToChecksum(nullptr, nullptr);
    EXPECT_EQ(finalizeAndWait(generator), type.emptyChecksumValue());
  }
}

TEST(CorvaneChecksumGenerator, FinalizingAFreshGeneratorYieldsTheEmptyChecksumValue) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    const auto checksum = finalizeAndWait(generator);
    EXPECT_EQ(checksum, type.emptyChecksumValue());
    EXPECT_TRUE(generator->isFinialized());
    EXPECT_EQ(generator->checksumValue(), storedValueFor(type, checksum, Bytes{}));
  }
}

TEST(CorvaneChecksumGenerator, CompletionReceivesTheStoredValueAfterEveryChunk) {
  const auto whole = bytesOf("The quick brown fox jumps over the lazy dog");
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    const auto oneChunk = checksumOf(type, whole);
    if (!oneChunk) continue;  // checksumOf reported the failure
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    // runGenerator checks that every update callback ran, in order, before the completion.
    const auto chunked = runGenerator(generator, testsupport::fixedSplit(whole, 5));
    EXPECT_EQ(chunked, oneChunk);
    EXPECT_TRUE(generator->isFinialized());
    EXPECT_EQ(generator->checksumValue(), storedValueFor(type, chunked, whole));
  }
}

TEST(CorvaneChecksumGenerator, ChunksAreAbsorbedInTheOrderTheyWereHandedOver) {
  // Swapping two chunks changes every one of these checksums.
  const auto ab = std::vector<SharedBytes>{share(bytesOf("first ")), share(bytesOf("second"))};
  const auto ba = std::vector<SharedBytes>{share(bytesOf("second")), share(bytesOf("first "))};
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_EQ(checksumOfChunks(type, ab), checksumOf(type, std::string_view("first second")));
    EXPECT_NE(checksumOfChunks(type, ab), checksumOfChunks(type, ba));
  }
}

TEST(CorvaneChecksumGenerator, UpdateAndCompletionCallbacksRunOnTheQueue) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    QueueStall stall(generator);
    std::atomic<bool> updated{false};
    generator->addDataToChecksum(share(bytesOf("abc")), [&] { updated = true; });
    std::atomic<bool> completed{false};
    generator->finalizeChecksumWithCompletionBlock(
        [&](const std::optional<std::string>&) { completed = true; });
    // Both calls returned while the queue was stalled: nothing has run yet.
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(updated.load());
    EXPECT_FALSE(completed.load());
    EXPECT_FALSE(generator->isFinialized());
    stall.release();
    EXPECT_TRUE(eventually([&] { return completed.load(); }));
    EXPECT_TRUE(updated.load());
  }
}

TEST(CorvaneChecksumGenerator, CallerMayDropBufferAndGeneratorRightAfterHandingThemOver) {
  std::weak_ptr<CorvaneChecksumGenerator> weakGenerator;
  std::weak_ptr<const Bytes> weakBuffer;
  std::future<std::optional<std::string>> future;
  {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeMD5);
    ASSERT_NE(generator, nullptr);
    weakGenerator = generator;
    QueueStall stall(generator);
    auto buffer = share(bytesOf(kMessageDigestText));
    weakBuffer = buffer;
    generator->addDataToChecksum(buffer, nullptr);
    buffer.reset();
    future = finalizeLater(generator);
    generator.reset();
    // The queued tasks keep both alive while they wait.
    EXPECT_FALSE(weakGenerator.expired());
    EXPECT_FALSE(weakBuffer.expired());
  }  // releases the stall
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(future.get(), kMD5OfMessageDigest);  // RFC 1321 appendix A.5
  EXPECT_TRUE(eventually([&] { return weakGenerator.expired() && weakBuffer.expired(); }));
}

TEST(CorvaneChecksumGenerator, QueuedChunkIsReferencedNotCopied) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA1);
  ASSERT_NE(generator, nullptr);
  QueueStall stall(generator);
  auto buffer = share(Bytes(1 << 16, 0x5A));
  generator->addDataToChecksum(buffer, nullptr);
  // The pending task holds a reference of its own to the caller's buffer.
  EXPECT_GE(buffer.use_count(), 2);
  stall.release();
  ASSERT_TRUE(finalizeAndWait(generator).has_value());
  EXPECT_TRUE(eventually([&] { return buffer.use_count() == 1; }));
}

TEST(CorvaneChecksumGenerator, NinthChunkBlocksWhileEightTasksWaitOnAStalledQueue) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA256);
  ASSERT_NE(generator, nullptr);
  QueueStall stall(generator);

  const auto chunk = share(bytesOf("0123456789abcdef"));
  std::atomic<int> returned{0};
  std::atomic<int> updates{0};
  std::thread feeder([&] {
    for (int i = 0; i < 9; ++i) {
      generator->addDataToChecksum(chunk, [&] { ++updates; });
      ++returned;
    }
  });
  ASSERT_TRUE(eventually([&] { return returned.load() >= 8; }));
  // Eight hand-overs returned; the ninth waits for a slot as long as the queue stays stalled.
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(returned.load(), 8);
  EXPECT_EQ(updates.load(), 0);

  stall.release();  // the first chunk task finishes and returns its slot
  feeder.join();
  EXPECT_EQ(returned.load(), 9);

  Bytes nine;
  for (int i = 0; i < 9; ++i) nine.insert(nine.end(), chunk->begin(), chunk->end());
  EXPECT_EQ(finalizeAndWait(generator), checksumOf(ChecksumTypeSHA256, nine));
  EXPECT_EQ(updates.load(), 9);
}

TEST(CorvaneChecksumGenerator, FinalizationWaitsForASlotLikeAChunk) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeXXHash64);
  ASSERT_NE(generator, nullptr);
  QueueStall stall(generator);
  const auto chunk = share(bytesOf("x"));
  for (int i = 0; i < 8; ++i) generator->addDataToChecksum(chunk, nullptr);

  std::atomic<bool> finalizeReturned{false};
  std::future<std::optional<std::string>> future;
  std::thread finalizer([&] {
    future = finalizeLater(generator);
    finalizeReturned = true;
  });
  std::this_thread::sleep_for(300ms);
  EXPECT_FALSE(finalizeReturned.load());
  stall.release();
  finalizer.join();
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(future.get(), checksumOf(ChecksumTypeXXHash64, std::string_view("xxxxxxxx")));
}

TEST(CorvaneChecksumGenerator, WithoutTheSemaphoreLimitHandOversNeverBlock) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeCRC32);
  ASSERT_NE(generator, nullptr);
  generator->setLimitUsingSemaphore(false);
  QueueStall stall(generator);
  const auto chunk = share(bytesOf("ab"));
  // Twenty chunks and the finalization all return although nothing can be absorbed yet.
  std::atomic<int> updates{0};
  for (int i = 0; i < 20; ++i) generator->addDataToChecksum(chunk, [&] { ++updates; });
  auto future = finalizeLater(generator);
  // The semaphore was never touched.
  EXPECT_EQ(testsupport::freeSemaphoreSlots(generator), 8);

  stall.release();
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  std::string forty;
  for (int i = 0; i < 20; ++i) forty += "ab";
  EXPECT_EQ(future.get(), checksumOf(ChecksumTypeCRC32, std::string_view(forty)));
  EXPECT_EQ(updates.load(), 20);
}

TEST(CorvaneChecksumGenerator, DifferentGeneratorsDoNotWaitForEachOther) {
  auto stalled = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA512);
  ASSERT_NE(stalled, nullptr);
  QueueStall stall(stalled);
  // Another generator of the same algorithm has a queue of its own and completes.
  EXPECT_EQ(checksumOf(ChecksumTypeSHA512, Bytes{}), ChecksumTypeSHA512.emptyChecksumValue());
  stall.release();
  EXPECT_EQ(finalizeAndWait(stalled), ChecksumTypeSHA512.emptyChecksumValue());
}

TEST(CorvaneChecksumGeneratorDeathTest, SecondFinalizationEndsTheProcessWithTheMisspelledMessage) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    if (testsupport::newGenerator(type) == nullptr) continue;
    EXPECT_DEATH(
        {
          auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
          QueueStall stall(generator);
          generator->finalizeChecksumWithCompletionBlock(
              [](const std::optional<std::string>&) { std::cerr << "first completion\n"; });
          generator->finalizeChecksumWithCompletionBlock(
              [](const std::optional<std::string>&) { std::cerr << "second completion\n"; });
          // The test is made on the queue: both calls return normally.
          std::cerr << "both finalize calls returned\n";
          stall.release();
          std::this_thread::sleep_for(10s);
        },
        "both finalize calls returned.*You may not finialize a checksum generator more than "
        "once: finalizeChecksumWithCompletionBlock:");
  }
}

TEST(CorvaneChecksumGeneratorDeathTest, SecondFinalizationIsAnInternalInconsistency) {
  EXPECT_DEATH(
      {
        auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeMD5);
        generator->finalizeChecksumWithCompletionBlock([](const std::optional<std::string>&) {});
        generator->finalizeChecksumWithCompletionBlock([](const std::optional<std::string>&) {});
        std::this_thread::sleep_for(10s);
      },
      "NSInternalInconsistencyException");
}

// ----- the bare base class --------------------------------------------------------------------

TEST(CorvaneChecksumGeneratorBase, HasNoAlgorithm) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  EXPECT_EQ(generator->checksumType(), ChecksumTypeNone);
  EXPECT_FALSE(generator->isFinialized());
  EXPECT_EQ(generator->checksumValue(), std::nullopt);
  EXPECT_TRUE(generator->limitUsingSemaphore());
  ASSERT_NE(generator->checksummingQueue(), nullptr);
  EXPECT_EQ(generator->checksummingQueue()->label(), "com.corvane.replication.checksum");
  EXPECT_NE(generator->limitingSemaphore(), nullptr);
}

TEST(CorvaneChecksumGeneratorBase, AddMarksItFinalizedAndCallsBackAtOnce) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  // Nothing may go through the queue: stall it to prove the callback is synchronous.
  QueueStall stall(generator);
  bool called = false;
  std::thread::id callbackThread;
  generator->addDataToChecksum(share(bytesOf("data")), [&] {
    called = true;
    callbackThread = std::this_thread::get_id();
  });
  EXPECT_TRUE(called);
  EXPECT_EQ(callbackThread, std::this_thread::get_id());
  EXPECT_TRUE(generator->isFinialized());
  EXPECT_EQ(generator->checksumValue(), std::nullopt);
}

TEST(CorvaneChecksumGeneratorBase, AddWithoutUpdateBlockStillMarksItFinalized) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  generator->addDataToChecksum(share(bytesOf("data")), nullptr);
  EXPECT_TRUE(generator->isFinialized());
}

TEST(CorvaneChecksumGeneratorBase, FinalizeCallsBackAtOnceWithNullAndLeavesTheFlag) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  QueueStall stall(generator);
  bool called = false;
  std::optional<std::string> received = std::string("not called");
  generator->finalizeChecksumWithCompletionBlock([&](const std::optional<std::string>& checksum) {
    called = true;
    received = checksum;
  });
  EXPECT_TRUE(called);
  EXPECT_EQ(received, std::nullopt);
  EXPECT_FALSE(generator->isFinialized());  // finalize neither reads nor sets the flag
  // Finalizing again is not an error for the bare generator, also after a chunk.
  generator->addDataToChecksum(share(bytesOf("data")), nullptr);
  ASSERT_TRUE(generator->isFinialized());
  called = false;
  received = std::string("not called");
  generator->finalizeChecksumWithCompletionBlock([&](const std::optional<std::string>& checksum) {
    called = true;
    received = checksum;
  });
  EXPECT_TRUE(called);
  EXPECT_EQ(received, std::nullopt);
  EXPECT_TRUE(generator->isFinialized());
}

TEST(CorvaneChecksumGeneratorBase, FinalizeWithoutCompletionBlockIsAccepted) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  generator->finalizeChecksumWithCompletionBlock(nullptr);
  EXPECT_FALSE(generator->isFinialized());
}

TEST(CorvaneChecksumGeneratorBase, SynchronousPairDoesNothing) {
  auto generator = std::make_shared<CorvaneChecksumGenerator>();
  const Bytes data = bytesOf("data");
  generator->updateChecksumWithData(&data);
  generator->updateChecksumWithData(nullptr);
  EXPECT_EQ(generator->finalizeChecksum(), std::nullopt);
  EXPECT_FALSE(generator->isFinialized());
  EXPECT_EQ(generator->checksumValue(), std::nullopt);
}

TEST(CorvaneChecksumGenerator, SynchronousPairOfNonMD5GeneratorsDoesNothing) {
  const Bytes data = bytesOf("data");
  for (ChecksumType type : typesWithAGenerator()) {
    if (type == ChecksumTypeMD5) continue;  // MD5 alone implements the synchronous pair
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    generator->updateChecksumWithData(&data);
    EXPECT_EQ(generator->finalizeChecksum(), std::nullopt);
    EXPECT_FALSE(generator->isFinialized());
    // The streaming state was not touched: it still gives the checksum of empty input.
    EXPECT_EQ(finalizeAndWait(generator), type.emptyChecksumValue());
  }
}

}  // namespace
}  // namespace corvane
