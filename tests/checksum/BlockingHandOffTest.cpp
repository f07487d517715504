// The blocking hand-off of the streaming generators: addDataToChecksumAndWait and
// finalizeChecksumAndWait give the same texts as the asynchronous calls, return only once the work
// is done, and mix with asynchronous hand-offs to the same generator in order.
#include <gtest/gtest.h>

#include <atomic>
#include <random>

#include "corvane/CorvaneChecksumGenerator.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::describeType;
using testsupport::referenceChecksum;
using testsupport::share;
using testsupport::typesWithAGenerator;

Bytes randomBytes(std::size_t count, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  return testsupport::randomBytes(random, count);
}

TEST(BlockingHandOff, ChunksHandedOverAndWaitedForGiveTheReferenceText) {
  const Bytes data = randomBytes(300007, 1);
  for (ChecksumType type : typesWithAGenerator()) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
    ASSERT_TRUE(generator);
    for (std::size_t at = 0; at < data.size(); at += 65536) {
      const std::size_t end = std::min(data.size(), at + 65536);
      generator->addDataToChecksumAndWait(share(Bytes(data.begin() + at, data.begin() + end)));
    }
    EXPECT_EQ(generator->finalizeChecksumAndWait(), referenceChecksum(type, data))
        << describeType(type);
    EXPECT_TRUE(generator->isFinialized());
  }
}

TEST(BlockingHandOff, NoInputGivesTheEmptyInputText) {
  for (ChecksumType type : typesWithAGenerator()) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
    EXPECT_EQ(generator->finalizeChecksumAndWait(), referenceChecksum(type, Bytes{}))
        << describeType(type);
  }
}

TEST(BlockingHandOff, ReturnsOnlyAfterTheChunkWasAbsorbed) {
  // A chunk queued asynchronously before, then a blocking one: when the blocking call returns,
  // both are absorbed, in order, so the value is the checksum of both.
  const Bytes first = randomBytes(5 << 20, 2);
  const Bytes second = randomBytes(1000, 3);
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA256);
  std::atomic<bool> firstAbsorbed{false};
  generator->addDataToChecksum(share(first), [&firstAbsorbed] { firstAbsorbed = true; });
  generator->addDataToChecksumAndWait(share(second));
  EXPECT_TRUE(firstAbsorbed.load());
  Bytes both = first;
  both.insert(both.end(), second.begin(), second.end());
  EXPECT_EQ(generator->finalizeChecksumAndWait(), referenceChecksum(ChecksumTypeSHA256, both));
}

TEST(BlockingHandOff, NullBufferReturnsAtOnce) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeMD5);
  generator->addDataToChecksumAndWait(nullptr);
  EXPECT_EQ(generator->finalizeChecksumAndWait(), referenceChecksum(ChecksumTypeMD5, Bytes{}));
}

}  // namespace
}  // namespace corvane
