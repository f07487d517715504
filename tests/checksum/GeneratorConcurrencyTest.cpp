// Streaming generators and the multi-algorithm ChecksumGenerator under concurrent use: many
// generators fed from several threads at once, the eight-task bound of a generator's queue,
// blocking one-shot calls made from inside a generator's callback, and concurrent runs over
// one file.
//
// Every checksum is compared with a reference computed independently of the library's generators
// (support/References.hpp): OpenSSL's one-shot EVP_Digest for MD5 and SHA, the one-shot xxHash
// functions XXH64 / XXH3_64bits / XXH3_128bits, a byte-at-a-time table CRC-32 and a base-58
// conversion of the SHA-512 digest for C4.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "dispatch/SerialQueue.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using testsupport::algorithmsWithAGenerator;
using testsupport::referenceChecksum;

// Generous bound after which a wait is declared a deadlock.
constexpr auto kDeadlockTimeout = 30s;
// How long a call must stay blocked to count as blocked.
constexpr auto kStillBlocked = 200ms;

// ---------------------------------------------------------------------------------------------
// The references themselves.

TEST(GeneratorConcurrencyReference, ReferencesGiveTheLibrarysEmptyInputTexts) {
  EXPECT_GE(algorithmsWithAGenerator().size(), 8u);  // only C4 may be missing
  for (ChecksumType type : algorithmsWithAGenerator()) {
    EXPECT_EQ(referenceChecksum(type, {}), type.emptyChecksumValue()) << type.name();
  }
}

// ---------------------------------------------------------------------------------------------
// Many generators, many threads.

TEST(GeneratorConcurrency, SixtyFourGeneratorsFedFromEightThreadsMatchTheirReferences) {
  constexpr int kGenerators = 64;
  constexpr int kThreads = 8;
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);

  struct Job {
    ChecksumType type;
    std::shared_ptr<CorvaneChecksumGenerator> generator;
    Bytes input;
    std::vector<SharedBytes> chunks;
    std::atomic<int> updates{0};
    std::promise<std::optional<std::string>> result;
    std::future<std::optional<std::string>> future = result.get_future();
  };
  std::vector<std::unique_ptr<Job>> jobs;
  for (int i = 0; i < kGenerators; ++i) {
    auto job = std::make_unique<Job>();
    job->type = algorithmsWithAGenerator()[i % algorithmsWithAGenerator().size()];
    job->generator = CorvaneChecksumGenerator::checksumGeneratorForType(job->type);
    ASSERT_NE(job->generator, nullptr);
    job->input = testsupport::randomBytes(random, random() % (96 * 1024));
    job->chunks = testsupport::randomSplit(job->input, random, 8 * 1024);
    jobs.push_back(std::move(job));
  }

  // Thread t feeds generators t, t + 8, ... one chunk of each in turn, so every thread keeps
  // several generators busy while the other threads do the same.
  std::vector<std::thread> feeders;
  for (int t = 0; t < kThreads; ++t) {
    feeders.emplace_back([&jobs, t] {
      std::vector<Job*> mine;
      for (int i = t; i < kGenerators; i += kThreads) mine.push_back(jobs[i].get());
      for (std::size_t round = 0;; ++round) {
        bool handedOver = false;
        for (Job* job : mine) {
          if (round >= job->chunks.size()) continue;
          job->generator->addDataToChecksum(job->chunks[round], [job] { job->updates++; });
          handedOver = true;
        }
        if (!handedOver) break;
      }
      for (Job* job : mine) {
        job->generator->finalizeChecksumWithCompletionBlock(
            [job](const std::optional<std::string>& text) { job->result.set_value(text); });
      }
    });
  }
  for (auto& feeder : feeders) feeder.join();

  for (int i = 0; i < kGenerators; ++i) {
    Job& job = *jobs[i];
    SCOPED_TRACE("generator " + std::to_string(i) + " (" + job.type.name() + ")");
    ASSERT_EQ(job.future.wait_for(kDeadlockTimeout), std::future_status::ready);
    EXPECT_EQ(job.future.get(), referenceChecksum(job.type, job.input));
    // Update callbacks all ran before the completion callback.
    EXPECT_EQ(job.updates.load(), int(job.chunks.size()));
  }
}

// ---------------------------------------------------------------------------------------------
// The eight-task bound.

TEST(GeneratorConcurrency, NinthHandOffBlocksWhileEightTasksWaitBehindAStalledQueue) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSHA256);
  ASSERT_NE(generator, nullptr);

  // A task of our own holds the generator's queue until released. It takes no semaphore slot.
  std::promise<void> stallStarted;
  std::future<void> stallStartedFuture = stallStarted.get_future();
  std::promise<void> releaseStall;
  std::shared_future<void> stallReleased = releaseStall.get_future().share();
  generator->checksummingQueue()->async([&stallStarted, stallReleased] {
    stallStarted.set_value();
    stallReleased.wait();
  });
  ASSERT_EQ(stallStartedFuture.wait_for(kDeadlockTimeout), std::future_status::ready);

  Bytes input;
  std::vector<SharedBytes> chunks;
  for (int i = 0; i < 9; ++i) {
    Bytes chunk(1000 + i, static_cast<std::uint8_t>('a' + i));
    input.insert(input.end(), chunk.begin(), chunk.end());
    chunks.push_back(testsupport::share(std::move(chunk)));
  }

  std::atomic<int> returned{0};
  std::atomic<int> updates{0};
  std::thread feeder([&] {
    for (const auto& chunk : chunks) {
      generator->addDataToChecksum(chunk, [&updates] { updates++; });
      returned++;
    }
  });

  // The first eight hand-offs take the eight slots and return without waiting.
  const auto deadline = std::chrono::steady_clock::now() + kDeadlockTimeout;
  while (returned.load() < 8 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_EQ(returned.load(), 8);
  // The ninth waits for a slot, which only a finished task returns.
  std::this_thread::sleep_for(kStillBlocked);
  EXPECT_EQ(returned.load(), 8);
  EXPECT_EQ(updates.load(), 0);

  releaseStall.set_value();
  feeder.join();
  EXPECT_EQ(returned.load(), 9);

  std::promise<std::optional<std::string>> result;
  auto future = result.get_future();
  generator->finalizeChecksumWithCompletionBlock(
      [&result](const std::optional<std::string>& text) { result.set_value(text); });
  ASSERT_EQ(future.wait_for(kDeadlockTimeout), std::future_status::ready);
  EXPECT_EQ(future.get(), referenceChecksum(ChecksumTypeSHA256, input));
  EXPECT_EQ(updates.load(), 9);
}

// ---------------------------------------------------------------------------------------------
// Blocking calls made from inside callbacks.

TEST(GeneratorConcurrency, BlockingOneShotInsideACompletionCallbackCompletes) {
  const Bytes outerInput = testsupport::bytesOf("outer generator input");
  const Bytes innerInput = testsupport::bytesOf("computed from inside the completion callback");
  auto outer = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeMD5);
  ASSERT_NE(outer, nullptr);

  struct Results {
    std::optional<std::string> outer;
    std::optional<std::string> inner;
  };
  auto promise = std::make_shared<std::promise<Results>>();
  auto future = promise->get_future();
  outer->addDataToChecksum(testsupport::share(outerInput), nullptr);
  outer->finalizeChecksumWithCompletionBlock(
      [promise, innerInput](const std::optional<std::string>& text) {
        Results results;
        results.outer = text;
        // Runs on the outer generator's queue and blocks until the inner run is done.
        results.inner = ChecksumGenerator::generateChecksumForData(innerInput, ChecksumTypeSHA256);
        promise->set_value(results);
      });
  ASSERT_EQ(future.wait_for(kDeadlockTimeout), std::future_status::ready);
  const Results results = future.get();
  EXPECT_EQ(results.outer, referenceChecksum(ChecksumTypeMD5, outerInput));
  EXPECT_EQ(results.inner, referenceChecksum(ChecksumTypeSHA256, innerInput));
}

TEST(GeneratorConcurrency, BlockingOneShotsInsideManyCallbacksAtOnceComplete) {
  // Sixteen generators finalize at the same time, each callback blocking on one-shot runs of
  // every algorithm: busy workers must not starve the queues those runs wait for.
  constexpr int kGenerators = 16;
  const Bytes innerInput = testsupport::bytesOf("nested one-shot input");
  std::vector<std::shared_ptr<CorvaneChecksumGenerator>> generators;
  std::vector<std::future<std::vector<std::optional<std::string>>>> futures;
  for (int i = 0; i < kGenerators; ++i) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(
        algorithmsWithAGenerator()[i % algorithmsWithAGenerator().size()]);
    auto promise = std::make_shared<std::promise<std::vector<std::optional<std::string>>>>();
    futures.push_back(promise->get_future());
    generator->addDataToChecksum(testsupport::share(testsupport::bytesOf("x")), [innerInput] {
      // The update callback blocks as well.
      (void)ChecksumGenerator::generateChecksumForData(innerInput, ChecksumTypeCRC32);
    });
    generator->finalizeChecksumWithCompletionBlock(
        [promise, innerInput](const std::optional<std::string>&) {
          std::vector<std::optional<std::string>> inner;
          for (ChecksumType type : algorithmsWithAGenerator()) {
            inner.push_back(ChecksumGenerator::generateChecksumForData(innerInput, type));
          }
          promise->set_value(inner);
        });
    generators.push_back(generator);
  }
  for (int i = 0; i < kGenerators; ++i) {
    ASSERT_EQ(futures[i].wait_for(kDeadlockTimeout), std::future_status::ready)
        << "generator " << i;
    const auto inner = futures[i].get();
    for (std::size_t a = 0; a < inner.size(); ++a) {
      const ChecksumType type = algorithmsWithAGenerator()[a];
      EXPECT_EQ(inner[a], referenceChecksum(type, innerInput)) << type.name();
    }
  }
}

// ---------------------------------------------------------------------------------------------
// ChecksumGenerator runs from several threads.

struct RunResult {
  std::vector<std::pair<float, std::uint64_t>> progress;
  std::vector<std::pair<std::string, ChecksumType>> supplied;
  bool offTheCallersThread = false;
};

TEST(GeneratorConcurrency, FileRunsFromEightThreadsGiveIdenticalResults) {
  constexpr int kThreads = 8;
  // Two chunks: one full 8 MiB read and a short one.
  const Bytes content = testsupport::seededRandomBytes(8388608 + 65537);
  const testsupport::ScratchDirectory directory;
  const std::string path = directory.writeFile("content", content);
  const std::vector<ChecksumType> algorithms = {ChecksumTypeXXHash64, ChecksumTypeMD5,
                                                ChecksumTypeCRC32};
  const ChecksumGenerator shared(algorithms);  // one value, used by every thread

  std::vector<RunResult> results(kThreads);
  std::vector<std::thread> runners;
  for (int t = 0; t < kThreads; ++t) {
    runners.emplace_back([&, t] {
      RunResult& result = results[t];
      const auto self = std::this_thread::get_id();
      shared.generateChecksumsForFile(
          path,
          [&result, self](float fraction, std::uint64_t bytes, bool*) {
            if (std::this_thread::get_id() != self) result.offTheCallersThread = true;
            result.progress.emplace_back(fraction, bytes);
          },
          [&result, self](const std::string& text, ChecksumType type) {
            if (std::this_thread::get_id() != self) result.offTheCallersThread = true;
            result.supplied.emplace_back(text, type);
          });
    });
  }
  for (auto& runner : runners) runner.join();

  for (int t = 0; t < kThreads; ++t) {
    SCOPED_TRACE("thread " + std::to_string(t));
    const RunResult& result = results[t];
    EXPECT_FALSE(result.offTheCallersThread);
    ASSERT_EQ(result.progress.size(), 2u);
    EXPECT_EQ(result.progress[0].second, 8388608u);
    EXPECT_EQ(result.progress[1].second, content.size());
    EXPECT_EQ(result.progress[1].first, 1.0f);
    ASSERT_EQ(result.supplied.size(), algorithms.size());
    // Identical to the first thread's run, and right.
    EXPECT_EQ(result.supplied, results[0].supplied);
    for (const auto& [text, type] : result.supplied) {
      EXPECT_EQ(text, referenceChecksum(type, content)) << type.name();
    }
  }
}

TEST(GeneratorConcurrency, BufferRunsFromEightThreadsOverOneValueMatchTheirReferences) {
  constexpr int kThreads = 8;
  constexpr int kRunsEach = 20;
  const ChecksumGenerator shared(algorithmsWithAGenerator());
  std::vector<Bytes> inputs;
  std::mt19937_64 random(testsupport::randomTestSeed());
  for (int t = 0; t < kThreads; ++t) inputs.push_back(testsupport::randomBytes(random, 4096 + t));

  std::vector<int> mismatches(kThreads, 0);
  std::vector<int> supplies(kThreads, 0);
  std::vector<std::thread> runners;
  for (int t = 0; t < kThreads; ++t) {
    runners.emplace_back([&, t] {
      for (int run = 0; run < kRunsEach; ++run) {
        shared.generateChecksumForData(
            inputs[t], [](float, std::uint64_t, bool*) {},
            [&, t](const std::string& text, ChecksumType type) {
              ++supplies[t];
              if (text != referenceChecksum(type, inputs[t])) ++mismatches[t];
            });
      }
    });
  }
  for (auto& runner : runners) runner.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(supplies[t], kRunsEach * int(algorithmsWithAGenerator().size())) << "thread " << t;
    EXPECT_EQ(mismatches[t], 0) << "thread " << t;
  }
}

}  // namespace
}  // namespace corvane
