// The xxHash family generators: xxHash64, XXH3-64 and XXH3-128 with seed 0. Known answers come
// from the xxHash sanity table (tests/data/vectors/xxhash_sanity_vectors.json, see SOURCES.md)
// and from the xxhsum command-line tool.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <nlohmann/json.hpp>

#define XXH_STATIC_LINKING_ONLY  // for sizeof the streaming states
#include <xxhash.h>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/XXHashChecksumGenerators.hpp"
#include "corvane/XXHashImplementation.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using testsupport::bytesOf;
using testsupport::checksumOf;
using testsupport::checksumOfChunks;
using testsupport::describeType;
using testsupport::share;

const std::vector<ChecksumType>& xxHashTypes() {
  static const std::vector<ChecksumType> types{ChecksumTypeXXHash64, ChecksumTypeXXHashH364,
                                               ChecksumTypeXXHashH3128};
  return types;
}

std::size_t textWidth(ChecksumType type) { return type == ChecksumTypeXXHashH3128 ? 32 : 16; }

// ----- the sanity table ---------------------------------------------------------------------

struct SanityVector {
  ChecksumType type;
  std::size_t length;
  std::string hash;
};

// The 2367-byte sanity buffer, regenerated as the JSON file describes it: a 64-bit generator
// starting at PRIME32 = 2654435761; byte i is the top 8 bits of the state, after which the state
// is multiplied by PRIME64 = 11400714785074694797 (mod 2^64).
const Bytes& sanityBuffer() {
  static const Bytes buffer = [] {
    Bytes bytes(2367);
    std::uint64_t generator = 2654435761ULL;
    for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(generator >> 56);
      generator *= 11400714785074694797ULL;
    }
    return bytes;
  }();
  return buffer;
}

// The seed-0 entries for xxHash64, XXH3-64 and XXH3-128 with the default secret. Seeded entries
// and the "withSecret" tables do not apply: our generators always use seed 0 and the default
// secret.
const std::vector<SanityVector>& sanityVectors() {
  static const std::vector<SanityVector> vectors = [] {
    std::vector<SanityVector> result;
    const auto json = nlohmann::json::parse(
        testsupport::readTextFile(testsupport::vectorFilePath("xxhash_sanity_vectors.json")),
        nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) {
      ADD_FAILURE() << "xxhash_sanity_vectors.json does not parse";
      return result;
    }
    const std::map<std::string, ChecksumType> tables{{"XXH64", ChecksumTypeXXHash64},
                                                     {"XXH3_64", ChecksumTypeXXHashH364},
                                                     {"XXH3_128", ChecksumTypeXXHashH3128}};
    for (const auto& [table, type] : tables) {
      for (const auto& entry : json.at(table)) {
        if (entry.at("seed").get<std::uint64_t>() != 0) continue;
        result.push_back(
            {type, entry.at("len").get<std::size_t>(), entry.at("hash").get<std::string>()});
      }
    }
    return result;
  }();
  return vectors;
}

Bytes sanityInput(std::size_t length) {
  return Bytes(sanityBuffer().begin(),
               sanityBuffer().begin() + static_cast<std::ptrdiff_t>(length));
}

// Selects an xxHash build for the duration of a scope and restores the previous one after.
class ForcedImplementation {
 public:
  explicit ForcedImplementation(XXHashImplementation variant)
      : previous_(activeXXHashImplementation()), forced_(forceXXHashImplementation(variant)) {}
  ~ForcedImplementation() { forceXXHashImplementation(previous_); }
  bool forced() const { return forced_; }

 private:
  XXHashImplementation previous_;
  bool forced_;
};

// ----- tests ----------------------------------------------------------------------------------

TEST(XXHashChecksumGenerators, FinalizingWithoutDataGivesTheEmptyInputTexts) {
  // Seed-0 entries of length 0 in the xxHash sanity table.
  EXPECT_EQ(checksumOfChunks(ChecksumTypeXXHash64, {}), "ef46db3751d8e999");
  EXPECT_EQ(checksumOfChunks(ChecksumTypeXXHashH364, {}), "2d06800538d394c2");
  EXPECT_EQ(checksumOfChunks(ChecksumTypeXXHashH3128, {}), "99aa06d3014798d86001c324468d497f");
}

TEST(XXHashChecksumGenerators, ZeroLengthChunksGiveTheEmptyInputTexts) {
  for (ChecksumType type : xxHashTypes()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_EQ(checksumOfChunks(type, {share({}), nullptr, share({})}), type.emptyChecksumValue());
  }
}

TEST(XXHashChecksumGenerators, DigestsWithZeroUpperBitsKeepTheirLeadingZeros) {
  // Inputs (ASCII decimal numbers) found by searching for digests with zero high digits; each
  // value was computed with xxhsum 0.8.1: `printf 14754 | xxhsum -H1` (xxHash64),
  // `-H3` (XXH3-64) and `-H2` (XXH3-128).
  struct Case {
    ChecksumType type;
    const char* input;
    const char* text;
  };
  const Case cases[] = {
      // xxHash64: zero high digits, and zeros at the start of the lower 32 bits ("%08x%08x").
      {ChecksumTypeXXHash64, "14754", "000245515fa5fc5d"},
      {ChecksumTypeXXHash64, "11", "228d3fa5008c9ec2"},
      {ChecksumTypeXXHashH364, "1624", "00070b727c57632b"},
      // XXH3-128: zero high digits of the upper half, and of the lower half.
      {ChecksumTypeXXHashH3128, "1296", "000f60c102db3a8a36d104f5ffbf067e"},
      {ChecksumTypeXXHashH3128, "2716", "ecc01b5451421c2f00030a0597cd8af6"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(describeType(c.type) + " input " + c.input);
    const auto text = checksumOf(c.type, std::string_view(c.input));
    EXPECT_EQ(text, c.text);
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(text->size(), textWidth(c.type));
  }
}

TEST(XXHashChecksumGenerators, TextsAreAlwaysFullWidthLowercaseHex) {
  const auto seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 200; ++round) {
    const Bytes input = testsupport::randomBytes(random, static_cast<std::size_t>(round % 40));
    for (ChecksumType type : xxHashTypes()) {
      const auto text = checksumOf(type, input);
      ASSERT_TRUE(text.has_value());
      EXPECT_EQ(text->size(), textWidth(type)) << describeType(type) << " " << *text;
      EXPECT_EQ(text->find_first_not_of("0123456789abcdef"), std::string::npos) << *text;
    }
  }
}

TEST(XXHashChecksumGenerators, SanityTableHasTheSeedZeroEntries) {
  // 5 xxHash64, 14 XXH3-64 and 13 XXH3-128 entries use seed 0 (SOURCES.md).
  std::map<std::uint64_t, int> counts;
  for (const auto& vector : sanityVectors()) ++counts[vector.type.rawValue()];
  EXPECT_EQ(counts[ChecksumTypeXXHash64.rawValue()], 5);
  EXPECT_EQ(counts[ChecksumTypeXXHashH364.rawValue()], 14);
  EXPECT_EQ(counts[ChecksumTypeXXHashH3128.rawValue()], 13);
}

TEST(XXHashChecksumGenerators, SanityVectorsMatchAsOneChunkRandomChunksAndByteAtATime) {
  const auto seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  ASSERT_FALSE(sanityVectors().empty());
  for (const auto& vector : sanityVectors()) {
    SCOPED_TRACE(describeType(vector.type) + " len " + std::to_string(vector.length));
    const Bytes input = sanityInput(vector.length);
    EXPECT_EQ(checksumOf(vector.type, input), vector.hash);
    EXPECT_EQ(checksumOfChunks(vector.type, testsupport::randomSplit(input, random, 300)),
              vector.hash);
    EXPECT_EQ(checksumOfChunks(vector.type, testsupport::byteAtATime(input)), vector.hash);
  }
}

TEST(XXHashChecksumGenerators, ResultsDoNotDependOnHowTheInputIsSplit) {
  // Lengths around the 240-byte short-input limit, the 256-byte internal buffer and the
  // 1024-byte stripe block of XXH3, and the 32-byte stripe of xxHash64.
  testsupport::expectSplitsGiveTheOneChunkResult(
      xxHashTypes(), {0,   1,   3,   4,   8,   9,   16,   17,   31,   32,   33,    128,
                      129, 240, 241, 255, 256, 257, 1023, 1024, 1025, 4096, 20000, 100003},
      {.maxChunk = 64, .largeMaxChunk = 3000, .largeEmptyOneIn = 3, .byteAtATimeUpTo = 1025});
}

TEST(XXHashImplementation, NamesAndSupportAreReported) {
  EXPECT_EQ(xxHashImplementationName(XXHashImplementation::sse2), "sse2");
  EXPECT_EQ(xxHashImplementationName(XXHashImplementation::avx2), "avx2");
  EXPECT_EQ(xxHashImplementationName(XXHashImplementation::avx512), "avx512");
#if defined(__x86_64__)
  EXPECT_TRUE(isXXHashImplementationSupported(XXHashImplementation::sse2));  // x86-64 baseline
#endif
  EXPECT_TRUE(isXXHashImplementationSupported(activeXXHashImplementation()));
}

TEST(XXHashImplementation, ForcingAnUnsupportedVariantChangesNothing) {
  const auto active = activeXXHashImplementation();
  for (auto variant :
       {XXHashImplementation::sse2, XXHashImplementation::avx2, XXHashImplementation::avx512}) {
    if (isXXHashImplementationSupported(variant)) continue;
    EXPECT_FALSE(forceXXHashImplementation(variant)) << xxHashImplementationName(variant);
    EXPECT_EQ(activeXXHashImplementation(), active);
  }
}

TEST(XXHashImplementation, EverySupportedVariantGivesIdenticalResults) {
  const auto seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  // Inputs: the sanity vectors and random data of lengths that reach every code path.
  std::mt19937_64 random(seed);
  std::vector<Bytes> inputs;
  for (std::size_t length : {0, 7, 100, 240, 241, 1024, 5000, 65536 + 17}) {
    inputs.push_back(testsupport::randomBytes(random, length));
  }
  // A fixed split per input, so that streaming paths are compared too.
  std::vector<std::vector<SharedBytes>> splits;
  for (const auto& input : inputs) splits.push_back(testsupport::randomSplit(input, random, 700));

  std::optional<std::vector<std::optional<std::string>>> baseline;
  int variantsRun = 0;
  for (auto variant :
       {XXHashImplementation::sse2, XXHashImplementation::avx2, XXHashImplementation::avx512}) {
    if (!isXXHashImplementationSupported(variant)) {
      std::cout << "[  SKIPPED ] xxHash variant " << xxHashImplementationName(variant)
                << " is not supported on this CPU\n";
      continue;
    }
    SCOPED_TRACE("variant " + xxHashImplementationName(variant));
    ForcedImplementation forced(variant);
    ASSERT_TRUE(forced.forced());
    ASSERT_EQ(activeXXHashImplementation(), variant);
    ++variantsRun;

    for (const auto& vector : sanityVectors()) {
      EXPECT_EQ(checksumOf(vector.type, sanityInput(vector.length)), vector.hash)
          << describeType(vector.type) << " len " << vector.length;
    }
    std::vector<std::optional<std::string>> results;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      for (ChecksumType type : xxHashTypes()) {
        results.push_back(checksumOf(type, inputs[i]));
        EXPECT_EQ(checksumOfChunks(type, splits[i]), results.back())
            << describeType(type) << " input " << i;
      }
    }
    if (!baseline) {
      baseline = results;
    } else {
      EXPECT_EQ(results, *baseline);
    }
  }
  EXPECT_GE(variantsRun, 1);
}

TEST(XXHashChecksumGenerators, GeneratorOwnsAStateFromConstruction) {
  CorvaneChecksumGeneratorXXHash64 xxh64;
  CorvaneChecksumGeneratorXXHashH364 xxh3;
  CorvaneChecksumGeneratorXXHashH3128 xxh128;
  EXPECT_NE(xxh64.checksumState(), nullptr);
  EXPECT_NE(xxh3.checksumState(), nullptr);
  EXPECT_NE(xxh128.checksumState(), nullptr);
  EXPECT_EQ(xxh64.checksumType(), ChecksumTypeXXHash64);
  EXPECT_EQ(xxh3.checksumType(), ChecksumTypeXXHashH364);
  EXPECT_EQ(xxh128.checksumType(), ChecksumTypeXXHashH3128);
}

// Feeds `generator` one chunk and waits until it was absorbed, without finalizing.
void feedAndWait(const std::shared_ptr<CorvaneChecksumGenerator>& generator, SharedBytes chunk) {
  auto promise = std::make_shared<std::promise<void>>();
  auto future = promise->get_future();
  generator->addDataToChecksum(std::move(chunk), [promise] { promise->set_value(); });
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
}

TEST(XXHashChecksumGenerators, DestroyingAnUnfinalizedGeneratorFreesItsState) {
  // A leak shows up under the sanitizer builds; here the main heap arena must not grow by the
  // states of thousands of dropped generators.
  const auto chunk = share(Bytes(1000, 0xA5));
  const std::map<std::uint64_t, std::size_t> stateSizes{
      {ChecksumTypeXXHash64.rawValue(), sizeof(XXH64_state_t)},
      {ChecksumTypeXXHashH364.rawValue(), sizeof(XXH3_state_t)},
      {ChecksumTypeXXHashH3128.rawValue(), sizeof(XXH3_state_t)}};
  for (ChecksumType type : xxHashTypes()) {
    SCOPED_TRACE(describeType(type));
    // Warm up lazily created process-wide objects before measuring.
    for (int i = 0; i < 50; ++i) {
      auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
      feedAndWait(generator, chunk);
    }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
    const auto before = mallinfo2().uordblks;
#endif
    constexpr int kGenerators = 3000;
    for (int i = 0; i < kGenerators; ++i) {
      std::weak_ptr<CorvaneChecksumGenerator> weak;
      {
        auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
        ASSERT_NE(generator, nullptr);
        feedAndWait(generator, chunk);
        EXPECT_FALSE(generator->isFinialized());
        weak = generator;
      }
      // The queued task may hold the last reference for a moment after its callback.
      for (int spin = 0; spin < 100000 && !weak.expired(); ++spin) std::this_thread::yield();
      ASSERT_TRUE(weak.expired());
    }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
    const auto after = mallinfo2().uordblks;
    const auto leakedIfNotFreed = kGenerators * stateSizes.at(type.rawValue());
    if (after > before) {
      EXPECT_LT(after - before, leakedIfNotFreed / 2)
          << "heap grew by " << (after - before) << " bytes over " << kGenerators
          << " dropped generators";
    }
#endif
  }
}

// Takes the state away from a fresh `Generator`, destroys the generator, and frees the state with
// `freeState`, which succeeds only if the destructor left it alone.
template <typename Generator, typename State>
void expectTakenStateOutlivesTheGenerator(XXH_errorcode (*freeState)(State*)) {
  auto generator = std::make_unique<Generator>();
  auto* state = static_cast<State*>(generator->checksumState());
  ASSERT_NE(state, nullptr);
  generator->setChecksumState(nullptr);
  generator.reset();
  EXPECT_EQ(freeState(state), XXH_OK);
}

TEST(XXHashChecksumGenerators, DestroyingAGeneratorWhoseStateWasTakenAwayFreesNothing) {
  // The destructor frees only a state it still holds.
  ASSERT_NO_FATAL_FAILURE(
      (expectTakenStateOutlivesTheGenerator<CorvaneChecksumGeneratorXXHash64>(XXH64_freeState)));
  ASSERT_NO_FATAL_FAILURE(
      (expectTakenStateOutlivesTheGenerator<CorvaneChecksumGeneratorXXHashH364>(XXH3_freeState)));
  ASSERT_NO_FATAL_FAILURE(
      (expectTakenStateOutlivesTheGenerator<CorvaneChecksumGeneratorXXHashH3128>(XXH3_freeState)));
}

TEST(XXHashChecksumGenerators, DestroyingAFreshGeneratorIsHarmless) {
  for (ChecksumType type : xxHashTypes()) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
    ASSERT_NE(generator, nullptr) << describeType(type);
    generator.reset();
  }
}

}  // namespace
}  // namespace corvane
