// Blocking hand-offs made from several threads at once, each thread with generators of its own,
// while the shared worker pool serves everything.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "corvane/CorvaneChecksumGenerator.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::referenceChecksum;
using testsupport::share;

Bytes randomBytes(std::size_t count, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  return testsupport::randomBytes(random, count);
}

TEST(BlockingHandOffConcurrency, GeneratorsDrivenFromSeveralThreadsAtOnceStayExact) {
  const Bytes data = randomBytes(1 << 20, 4);
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&data, &mismatches] {
      for (int round = 0; round < 5; ++round) {
        auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeXXHash64);
        for (std::size_t at = 0; at < data.size(); at += 100000) {
          const std::size_t end = std::min(data.size(), at + 100000);
          generator->addDataToChecksumAndWait(share(Bytes(data.begin() + at, data.begin() + end)));
        }
        if (generator->finalizeChecksumAndWait() != referenceChecksum(ChecksumTypeXXHash64, data)) {
          ++mismatches;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace corvane
