// Published known-answer tests for the digest generators, read from tests/data/vectors
// (SOURCES.md there names the origin of every file):
//   - NIST CAVP SHAVS byte-oriented ShortMsg, LongMsg and Monte Carlo files for SHA-1, SHA-256
//     and SHA-512;
//   - the MD5 test suite of RFC 1321 appendix A.5;
//   - the one-million-"a" message with the answers published in FIPS 180-2 (SHA) and the
//     well-known MD5 answer.
// Every message is checked as one chunk, as random chunk splits with empty chunks mixed in, and
// one byte at a time (the million-"a" message in 7-byte chunks instead).
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::checksumOf;
using testsupport::checksumOfChunks;
using testsupport::MessageDigestVector;

std::string traceFor(const std::string& file, const MessageDigestVector& vector) {
  return file + ":" + std::to_string(vector.line) +
         " (Len = " + std::to_string(vector.lengthInBits) + ")";
}

// Checks every record of `file` with a generator of `type`; returns the number of records.
std::size_t checkMessageDigestFile(ChecksumType type, const std::string& file) {
  const auto vectors = testsupport::readMessageDigestVectors(testsupport::vectorFilePath(file));
  const auto seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  for (const auto& vector : vectors) {
    SCOPED_TRACE(traceFor(file, vector));
    EXPECT_EQ(checksumOf(type, vector.message), vector.digest) << "as one chunk";
    EXPECT_EQ(checksumOfChunks(type, testsupport::randomSplit(vector.message, random, 200)),
              vector.digest)
        << "as random chunks";
    if (vector.message.size() > 300) {
      EXPECT_EQ(checksumOfChunks(type, testsupport::randomSplit(vector.message, random, 4000, 3)),
                vector.digest)
          << "as large random chunks";
    }
    EXPECT_EQ(checksumOfChunks(type, testsupport::byteAtATime(vector.message)), vector.digest)
        << "one byte at a time";
  }
  return vectors.size();
}

// SHAVS Monte Carlo: for each checkpoint j, MD0 = MD1 = MD2 = Seed; for i = 3 .. 1002,
// Mi = MDi-3 || MDi-2 || MDi-1 and MDi = SHA(Mi); the checkpoint is MD1002, which is also the
// seed of the next checkpoint.
void checkMonteCarloFile(ChecksumType type, const std::string& file) {
  const auto vectors = testsupport::readMonteCarloVectors(testsupport::vectorFilePath(file));
  ASSERT_EQ(vectors.checkpoints.size(), 100u) << file;
  Bytes seed = vectors.seed;
  ASSERT_FALSE(seed.empty());
  for (std::size_t j = 0; j < vectors.checkpoints.size(); ++j) {
    Bytes md[3] = {seed, seed, seed};
    for (int i = 3; i < 1003; ++i) {
      Bytes message;
      message.reserve(md[0].size() * 3);
      for (const auto& part : md) message.insert(message.end(), part.begin(), part.end());
      const auto text = checksumOf(type, message);
      ASSERT_TRUE(text.has_value()) << file << " checkpoint " << j << " iteration " << i;
      auto digest = testsupport::hexDecode(*text);
      ASSERT_TRUE(digest.has_value()) << *text;
      md[0] = std::move(md[1]);
      md[1] = std::move(md[2]);
      md[2] = std::move(*digest);
    }
    seed = md[2];
    ASSERT_EQ(testsupport::hexEncode(seed), vectors.checkpoints[j]) << file << " COUNT = " << j;
  }
}

// ----- SHA-1 --------------------------------------------------------------------------------

TEST(KnownAnswerVectors, SHA1ShortMessagesMatchInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeSHA1, "SHA1ShortMsg.rsp"), 65u);
}

TEST(KnownAnswerVectors, SHA1LongMessagesMatchInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeSHA1, "SHA1LongMsg.rsp"), 64u);
}

TEST(KnownAnswerVectors, SHA1MonteCarloCheckpointsMatch) {
  checkMonteCarloFile(ChecksumTypeSHA1, "SHA1Monte.rsp");
}

// ----- SHA-256 ------------------------------------------------------------------------------

TEST(KnownAnswerVectors, SHA256ShortMessagesMatchInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeSHA256, "SHA256ShortMsg.rsp"), 65u);
}

TEST(KnownAnswerVectors, SHA256LongMessagesMatchInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeSHA256, "SHA256LongMsg.rsp"), 64u);
}

TEST(KnownAnswerVectors, SHA256MonteCarloCheckpointsMatch) {
  checkMonteCarloFile(ChecksumTypeSHA256, "SHA256Monte.rsp");
}

// ----- SHA-512 ------------------------------------------------------------------------------

TEST(KnownAnswerVectors, SHA512ShortMessagesMatchInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeSHA512, "SHA512ShortMsg.rsp"), 129u);
}

TEST(KnownAnswerVectors, SHA512LongMessagesMatchInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeSHA512, "SHA512LongMsg.rsp"), 128u);
}

TEST(KnownAnswerVectors, SHA512MonteCarloCheckpointsMatch) {
  checkMonteCarloFile(ChecksumTypeSHA512, "SHA512Monte.rsp");
}

// ----- MD5 ----------------------------------------------------------------------------------

TEST(KnownAnswerVectors, MD5Rfc1321SuiteMatchesInOneChunkRandomChunksAndByteAtATime) {
  EXPECT_EQ(checkMessageDigestFile(ChecksumTypeMD5, "rfc-1321.txt"), 7u);
}

// ----- one million times "a" ----------------------------------------------------------------

struct MillionAAnswer {
  ChecksumType type;
  const char* digest;
};

const MillionAAnswer kMillionA[] = {
    // The well-known MD5 of 1,000,000 x "a" (for example in the NESSIE MD5 test vectors);
    // re-computed with Python hashlib.
    {ChecksumTypeMD5, "7707d6ae4e027c70eea2a935c2296f21"},
    // FIPS 180-2 appendix A.3 (also RFC 3174 TEST3).
    {ChecksumTypeSHA1, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    // FIPS 180-2 appendix B.3.
    {ChecksumTypeSHA256, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    // FIPS 180-2 appendix C.3.
    {ChecksumTypeSHA512,
     "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973ebde0ff244877ea60a4cb0432ce577"
     "c31beb009c5c2c49aa2e4eadb217ad8cc09b"},
};

// Checks every answer of kMillionA against what `checksumFor` gives for its algorithm.
void expectMillionAAnswers(
    const std::function<std::optional<std::string>(ChecksumType)>& checksumFor) {
  for (const auto& answer : kMillionA) {
    EXPECT_EQ(checksumFor(answer.type), answer.digest) << testsupport::describeType(answer.type);
  }
}

TEST(KnownAnswerVectors, MillionTimesAMatchesInOneChunk) {
  const Bytes message(1000000, 'a');
  expectMillionAAnswers([&](ChecksumType type) { return checksumOf(type, message); });
}

TEST(KnownAnswerVectors, MillionTimesAMatchesInRandomChunks) {
  const auto seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  const Bytes message(1000000, 'a');
  expectMillionAAnswers([&](ChecksumType type) {
    return checksumOfChunks(type, testsupport::randomSplit(message, random, 20000));
  });
}

TEST(KnownAnswerVectors, MillionTimesAMatchesInAThousandChunksOfAThousand) {
  // The way the FIPS 180-2 examples describe the message: 1000 updates of 1000 "a".
  const auto chunks = testsupport::fixedSplit(Bytes(1000000, 'a'), 1000);
  expectMillionAAnswers([&](ChecksumType type) { return checksumOfChunks(type, chunks); });
}

TEST(KnownAnswerVectors, MillionTimesAMatchesInSmallOddChunks) {
  // Chunks of 7 bytes cross every 64- and 128-byte block boundary at a different offset.
  const auto chunks = testsupport::fixedSplit(Bytes(1000000, 'a'), 7);
  expectMillionAAnswers([&](ChecksumType type) { return checksumOfChunks(type, chunks); });
}

}  // namespace
}  // namespace corvane
