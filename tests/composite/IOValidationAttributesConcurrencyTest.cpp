// Concurrency tests of IOValidationAttributes: one record read and written from many threads,
// and merges in opposite directions at once. Also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "corvane/IOValidationAttributes.hpp"

namespace corvane {
namespace {

using Key = FileAttributeKey;
using KeySet = FileAttributeKeySet;
using Types = std::vector<ChecksumType>;
using Clock = std::chrono::steady_clock;

// About two seconds of mixed reads and writes by eight threads. Every whole-set read must
// observe a set that obeys the size rule, since each write applies it atomically with the flag
// held true throughout.
TEST(IOValidationAttributes, EightThreadsReadingAndWritingKeepEverySetConsistent) {
  const auto record = IOValidationAttributes::create(KeySet{Key("NSFileModificationDate")}, true);
  const auto deadline = Clock::now() + std::chrono::seconds(2);
  std::atomic<std::size_t> operations{0};
  std::atomic<std::size_t> violations{0};

  auto checkSizeRule = [&violations](const KeySet& set) {
    bool hasChecksum = false;
    for (const Key& key : set) hasChecksum = hasChecksum || key.isChecksum();
    if (hasChecksum && !set.contains(Key::NSFileSize())) ++violations;
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      const Key own("custom" + std::to_string(t));
      const ChecksumType algorithm = ChecksumType::allCases()[static_cast<std::size_t>(t)];
      for (std::size_t i = 0; Clock::now() < deadline; ++i) {
        switch ((i + static_cast<std::size_t>(t)) % 8) {
          case 0:
            record->setAttributeSet(KeySet{own, fileAttributeKey(algorithm)});
            break;
          case 1:
            record->setChecksumAttributes(Types{algorithm});
            break;
          case 2:
            record->setChecksumAttributes(std::nullopt);
            break;
          case 3:
            record->modifyAttributeSet([&own](KeySet& set) { set.insert(own); });
            break;
          case 4:
            record->setFileAttributes({own, Key::md5Checksum()});
            break;
          case 5:
            (void)record->checksumAttributes();
            (void)record->combinedAttributes();
            break;
          case 6:
            (void)record->encode();
            (void)record->checksumsRequireMatchingSize();
            break;
          default:
            checkSizeRule(record->attributeSet());
            break;
        }
        ++operations;
      }
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(violations.load(), 0u);
  EXPECT_GT(operations.load(), 8u);
  checkSizeRule(record->attributeSet());
  EXPECT_EQ(violations.load(), 0u);
}

// Merging a with b while another thread merges b with a must finish: the two records' queues are
// taken one after the other, never nested.
TEST(IOValidationAttributes, MergingInOppositeDirectionsAtOnceDoesNotDeadlock) {
  const auto a = IOValidationAttributes::create(KeySet{Key::md5Checksum()}, false);
  const auto b = IOValidationAttributes::create(KeySet{Key("NSFileModificationDate")}, true);
  const KeySet expected{Key::md5Checksum(), Key("NSFileModificationDate"), Key::NSFileSize()};
  constexpr int kRounds = 2000;
  std::atomic<int> mismatches{0};

  auto merging = [&mismatches, &expected](const std::shared_ptr<IOValidationAttributes>& left,
                                          const std::shared_ptr<IOValidationAttributes>& right) {
    for (int i = 0; i < kRounds; ++i) {
      const auto merged = left->mergedAttributes(*right);
      if (merged->attributeSet() != expected || !merged->checksumsRequireMatchingSize()) {
        ++mismatches;
      }
    }
  };
  std::thread forward(merging, a, b);
  std::thread backward(merging, b, a);
  // Writers keep both queues busy while the merges run.
  std::thread writer([&a, &b] {
    for (int i = 0; i < kRounds; ++i) {
      a->setAttributeSet(KeySet{Key::md5Checksum()});
      b->setAttributeSet(KeySet{Key("NSFileModificationDate")});
    }
  });
  forward.join();
  backward.join();
  writer.join();

  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(a->attributeSet(), KeySet{Key::md5Checksum()});
  EXPECT_EQ(b->attributeSet(), KeySet{Key("NSFileModificationDate")});
}

}  // namespace
}  // namespace corvane
