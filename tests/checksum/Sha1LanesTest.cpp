// Lane-parallel SHA-1 against OpenSSL's one-shot EVP_Digest on every path this processor can run
// (scalar, AVX2, AVX-512; a path the processor lacks is skipped with a message): the FIPS 180-4
// examples and the NIST CAVP SHAVS byte-oriented messages on every lane, random lengths up to
// 10,000 bytes fed in random pieces, lengths around every multiple of 64 (the padding's edge
// cases), lanes of very different lengths, streams joining while others finish, and one stream
// alone. Then the path selection and the programming errors.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "checksum/Md5Lanes.hpp"
#include "checksum/Sha1Lanes.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace {

using corvane::Bytes;
using corvane::detail::LanePath;
using corvane::detail::Sha1Digest;
using corvane::detail::Sha1Lanes;
using corvane::testsupport::describeSeed;
using corvane::testsupport::evpDigest;
using corvane::testsupport::hexEncode;
using corvane::testsupport::randomBytes;
using corvane::testsupport::randomTestSeed;

std::string hexOf(const Sha1Digest& digest) {
  return hexEncode(Bytes(digest.begin(), digest.end()));
}

std::string openSslSha1(const Bytes& data) { return hexEncode(evpDigest(EVP_sha1(), data)); }

// Sets CORVANE_SHA1_LANES for the life of the object, then restores what was there.
class ScopedLanesVariable {
 public:
  explicit ScopedLanesVariable(const char* value) {
    const char* before = std::getenv(corvane::detail::kSha1LanesEnvironmentVariable);
    if (before != nullptr) previous_ = before;
    ::setenv(corvane::detail::kSha1LanesEnvironmentVariable, value, 1);
  }
  ~ScopedLanesVariable() {
    if (previous_) {
      ::setenv(corvane::detail::kSha1LanesEnvironmentVariable, previous_->c_str(), 1);
    } else {
      ::unsetenv(corvane::detail::kSha1LanesEnvironmentVariable);
    }
  }
  ScopedLanesVariable(const ScopedLanesVariable&) = delete;
  ScopedLanesVariable& operator=(const ScopedLanesVariable&) = delete;

 private:
  std::optional<std::string> previous_;
};

// One stream of a test: its bytes and how much of them was fed.
struct Stream {
  Bytes data;
  std::size_t fed = 0;
  unsigned lane = 0;
};

// Hashes `streams` on `lanes`: streams take free lanes in order as others finish; every turn
// feeds each occupied lane a random piece (empty ones included) of at most `maxPiece` bytes and
// runs the lanes; finished streams are closed, and their digests taken after the next run.
// Returns the digests in the order of `streams`.
std::vector<std::string> hashAll(Sha1Lanes& lanes, std::vector<Stream>& streams,
                                 std::mt19937_64& random, std::size_t maxPiece) {
  std::vector<std::string> digests(streams.size());
  std::deque<std::size_t> waiting;
  for (std::size_t k = 0; k < streams.size(); ++k) waiting.push_back(k);
  std::vector<std::size_t> active;
  std::vector<std::size_t> closing;
  while (!waiting.empty() || !active.empty() || !closing.empty()) {
    while (!waiting.empty()) {
      const std::optional<unsigned> lane = lanes.join();
      if (!lane) break;
      streams[waiting.front()].lane = *lane;
      active.push_back(waiting.front());
      waiting.pop_front();
    }
    std::vector<std::size_t> stillActive;
    for (const std::size_t k : active) {
      Stream& stream = streams[k];
      const std::size_t piece =
          std::min<std::size_t>(random() % (maxPiece + 1), stream.data.size() - stream.fed);
      lanes.feed(stream.lane, stream.data.data() + stream.fed, piece);
      stream.fed += piece;
      if (stream.fed == stream.data.size() && random() % 2 == 0) {
        lanes.close(stream.lane);
        closing.push_back(k);
      } else {
        stillActive.push_back(k);
      }
    }
    active = std::move(stillActive);
    lanes.run();
    for (const std::size_t k : closing) digests[k] = hexOf(lanes.takeDigest(streams[k].lane));
    closing.clear();
  }
  return digests;
}

class Sha1LanesPath : public testing::TestWithParam<LanePath> {
 protected:
  void SetUp() override {
    if (!corvane::detail::lanePathSupported(GetParam())) {
      GTEST_SKIP() << "this processor cannot run the " << corvane::detail::lanePathName(GetParam())
                   << " path";
    }
  }
};

TEST_P(Sha1LanesPath, HasTheLaneCountOfItsRegisterWidth) {
  const Sha1Lanes lanes(GetParam());
  const unsigned expected = GetParam() == LanePath::avx512 ? 16
                            : GetParam() == LanePath::avx2 ? 8
                                                           : 1;
  EXPECT_EQ(lanes.laneCount(), expected);
  EXPECT_EQ(lanes.freeLanes(), expected);
}

// The examples of FIPS 180-4 (NIST's "SHA1.pdf" example values, also RFC 3174, 7.3): "abc",
// the 448-bit message, and one million times "a"; and RFC 3174's fourth test, "01234567" 80
// times.
struct KnownAnswer {
  Bytes message;
  std::string digest;
};
std::vector<KnownAnswer> fips180Examples() {
  const std::string abc = "abc";
  const std::string twoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  std::string eighty;
  for (int k = 0; k < 80; ++k) eighty += "01234567";
  return {{Bytes(abc.begin(), abc.end()), "a9993e364706816aba3e25717850c26c9cd0d89d"},
          {Bytes(twoBlocks.begin(), twoBlocks.end()), "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
          {Bytes(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
          {Bytes(eighty.begin(), eighty.end()), "dea356a2cddd90c7a7ecedc5ebb563934f460452"}};
}

// Hashes each of `answers` on every lane of `lanes` (in round r, lane i takes answer (i + r)
// modulo their number) and checks the digests.
void checkOnEveryLane(Sha1Lanes& lanes, const std::vector<KnownAnswer>& answers) {
  const unsigned rounds = std::max<unsigned>(lanes.laneCount(), unsigned(answers.size()));
  for (unsigned round = 0; round < rounds; ++round) {
    std::vector<std::pair<unsigned, std::size_t>> fed;
    while (const std::optional<unsigned> lane = lanes.join()) {
      const std::size_t v = (*lane + round) % answers.size();
      lanes.feed(*lane, answers[v].message.data(), answers[v].message.size());
      lanes.close(*lane);
      fed.emplace_back(*lane, v);
    }
    lanes.run();
    for (const auto& [lane, v] : fed) {
      EXPECT_EQ(hexOf(lanes.takeDigest(lane)), answers[v].digest)
          << "answer " << v << " (" << answers[v].message.size() << " bytes) on lane " << lane;
    }
    ASSERT_EQ(lanes.freeLanes(), lanes.laneCount());
  }
}

TEST_P(Sha1LanesPath, Fips180ExamplesGiveTheirDigestsOnEveryLane) {
  Sha1Lanes lanes(GetParam());
  checkOnEveryLane(lanes, fips180Examples());
}

TEST_P(Sha1LanesPath, ShavsByteMessagesGiveTheirDigestsOnEveryLane) {
  std::vector<KnownAnswer> answers;
  for (const char* file : {"SHA1ShortMsg.rsp", "SHA1LongMsg.rsp"}) {
    for (auto& vector : corvane::testsupport::readMessageDigestVectors(
             corvane::testsupport::vectorFilePath(file))) {
      vector.message.resize(vector.lengthInBits / 8);  // Len = 0 carries one byte "00"
      answers.push_back({std::move(vector.message), vector.digest});
    }
  }
  ASSERT_EQ(answers.size(), 129U);
  Sha1Lanes lanes(GetParam());
  checkOnEveryLane(lanes, answers);
}

TEST_P(Sha1LanesPath, RandomLengthsUpTo10000BytesEqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Sha1Lanes lanes(GetParam());
  std::vector<Stream> streams(300);
  for (Stream& stream : streams) stream.data = randomBytes(random, random() % 10001);
  const std::vector<std::string> digests = hashAll(lanes, streams, random, 1500);
  for (std::size_t k = 0; k < streams.size(); ++k) {
    EXPECT_EQ(digests[k], openSslSha1(streams[k].data)) << streams[k].data.size() << " bytes";
  }
  EXPECT_EQ(lanes.freeLanes(), lanes.laneCount());
}

TEST_P(Sha1LanesPath, LengthsAroundEveryMultipleOf64EqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Sha1Lanes lanes(GetParam());
  std::vector<Stream> streams;
  for (std::size_t multiple = 0; multiple <= 10000; multiple += 64) {
    // 55 and 56 bytes past a multiple are where the padding needs a second block.
    for (const std::size_t offset : {0, 1, 55, 56, 57, 63, 65, 127}) {
      if (multiple + offset >= 2) streams.push_back({randomBytes(random, multiple + offset - 2)});
      if (multiple + offset >= 1) streams.push_back({randomBytes(random, multiple + offset - 1)});
      streams.push_back({randomBytes(random, multiple + offset)});
    }
  }
  const std::vector<std::string> digests = hashAll(lanes, streams, random, 4096);
  for (std::size_t k = 0; k < streams.size(); ++k) {
    EXPECT_EQ(digests[k], openSslSha1(streams[k].data)) << streams[k].data.size() << " bytes";
  }
}

TEST_P(Sha1LanesPath, LanesOfVeryDifferentLengthsEqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Sha1Lanes lanes(GetParam());
  const std::size_t lengths[] = {0,   1 << 20, 1,    63,     64, 65, 3 << 17, 119,
                                 120, 1000,    4096, 100000, 55, 56, 57,      777777};
  std::vector<Stream> streams;
  for (std::size_t k = 0; k < lanes.laneCount(); ++k) {
    streams.push_back({randomBytes(random, lengths[k % std::size(lengths)])});
  }
  // Everything in one feed per lane: one run hashes the common blocks on all lanes, then the
  // longer lanes go on with the others masked.
  std::vector<unsigned> lane(streams.size());
  for (std::size_t k = 0; k < streams.size(); ++k) {
    lane[k] = *lanes.join();
    lanes.feed(lane[k], streams[k].data.data(), streams[k].data.size());
    lanes.close(lane[k]);
  }
  lanes.run();
  for (std::size_t k = 0; k < streams.size(); ++k) {
    EXPECT_EQ(hexOf(lanes.takeDigest(lane[k])), openSslSha1(streams[k].data))
        << streams[k].data.size() << " bytes";
  }
}

TEST_P(Sha1LanesPath, StreamsJoiningWhileOthersFinishEqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Sha1Lanes lanes(GetParam());
  // Many more streams than lanes, of lengths that end at very different turns: streams join
  // lanes freed by others throughout.
  std::vector<Stream> streams(5 * lanes.laneCount() + 3);
  for (Stream& stream : streams) {
    stream.data = randomBytes(random, random() % 4 == 0 ? random() % 200000 : random() % 3000);
  }
  const std::vector<std::string> digests = hashAll(lanes, streams, random, 8192);
  for (std::size_t k = 0; k < streams.size(); ++k) {
    EXPECT_EQ(digests[k], openSslSha1(streams[k].data)) << streams[k].data.size() << " bytes";
  }
}

TEST_P(Sha1LanesPath, StreamAloneEqualsOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  for (const std::size_t length : {0, 1, 64, 1000, 65536 + 17, 5 << 20}) {
    Sha1Lanes lanes(GetParam());
    std::vector<Stream> streams(1);
    streams[0].data = randomBytes(random, length);
    EXPECT_EQ(hashAll(lanes, streams, random, 70000)[0], openSslSha1(streams[0].data))
        << length << " bytes";
  }
}

TEST_P(Sha1LanesPath, FeedingALaneTwiceBeforeARunKeepsBothPieces) {
  const Bytes data = corvane::testsupport::seededRandomBytes(1000);
  Sha1Lanes lanes(GetParam());
  const unsigned lane = *lanes.join();
  Bytes first(data.begin(), data.begin() + 300);
  lanes.feed(lane, first.data(), first.size());
  lanes.feed(lane, data.data() + 300, 700);
  first.assign(first.size(), 0);  // not referenced any more: the second feed ran the first
  EXPECT_EQ(hexOf(lanes.finish(lane)), openSslSha1(data));
}

TEST_P(Sha1LanesPath, LeftLaneIsFreeAndTheOthersAreUnaffected) {
  const Bytes data = corvane::testsupport::seededRandomBytes(5000);
  Sha1Lanes lanes(GetParam());
  std::vector<unsigned> occupied;
  while (const std::optional<unsigned> lane = lanes.join()) occupied.push_back(*lane);
  EXPECT_EQ(lanes.freeLanes(), 0U);
  for (const unsigned lane : occupied) lanes.feed(lane, data.data(), 3000);
  lanes.leave(occupied.front());
  EXPECT_EQ(lanes.freeLanes(), 1U);
  lanes.run();
  const unsigned rejoined = *lanes.join();
  lanes.feed(rejoined, data.data(), data.size());
  for (std::size_t k = 1; k < occupied.size(); ++k)
    lanes.feed(occupied[k], data.data() + 3000, 2000);
  for (std::size_t k = 1; k < occupied.size(); ++k) {
    EXPECT_EQ(hexOf(lanes.finish(occupied[k])), openSslSha1(data));
  }
  EXPECT_EQ(hexOf(lanes.finish(rejoined)), openSslSha1(data));
}

INSTANTIATE_TEST_SUITE_P(EveryPath, Sha1LanesPath,
                         testing::Values(LanePath::scalar, LanePath::avx2, LanePath::avx512),
                         [](const testing::TestParamInfo<LanePath>& info) {
                           return std::string(corvane::detail::lanePathName(info.param));
                         });

TEST(Sha1LanePath, VariableLeavesTheMd5PathAlone) {
  const corvane::detail::LanePath md5 = corvane::detail::md5LanePathInUse();
  const ScopedLanesVariable variable("scalar");
  EXPECT_EQ(corvane::detail::sha1LanePathInUse(), LanePath::scalar);
  EXPECT_EQ(corvane::detail::md5LanePathInUse(), md5);
}

TEST(Sha1LanePath, WidestSupportedPathIsUsedUnlessTheVariableNarrowsIt) {
  using corvane::detail::lanePathSupported;
  using corvane::detail::sha1LanePathInUse;
  const LanePath widest = lanePathSupported(LanePath::avx512) ? LanePath::avx512
                          : lanePathSupported(LanePath::avx2) ? LanePath::avx2
                                                              : LanePath::scalar;
  {
    const ScopedLanesVariable variable("not-a-path");
    EXPECT_EQ(sha1LanePathInUse(), widest);
  }
  {
    const ScopedLanesVariable variable("scalar");
    EXPECT_EQ(sha1LanePathInUse(), LanePath::scalar);
  }
  {
    // Forcing a path the processor lacks falls back to the widest one below it.
    const ScopedLanesVariable variable("avx2");
    EXPECT_EQ(sha1LanePathInUse(),
              lanePathSupported(LanePath::avx2) ? LanePath::avx2 : LanePath::scalar);
  }
  {
    const ScopedLanesVariable variable("avx512");
    EXPECT_EQ(sha1LanePathInUse(), widest);
  }
}

TEST(Sha1LanesDeathTest, DigestOfALaneNotClosedAborts) {
  EXPECT_DEATH(
      {
        Sha1Lanes lanes(LanePath::scalar);
        const unsigned lane = *lanes.join();
        lanes.run();
        (void)lanes.takeDigest(lane);
      },
      "Sha1Lanes: digest of a lane not closed and run");
}

TEST(Sha1LanesDeathTest, FeedOfAFreeLaneAborts) {
  EXPECT_DEATH(
      {
        Sha1Lanes lanes(LanePath::scalar);
        const std::uint8_t byte = 0;
        lanes.feed(0, &byte, 1);
      },
      "Sha1Lanes: feed of a lane that is not occupied");
}

TEST(Sha1LanesDeathTest, FeedAfterCloseAborts) {
  EXPECT_DEATH(
      {
        Sha1Lanes lanes(LanePath::scalar);
        const unsigned lane = *lanes.join();
        lanes.close(lane);
        const std::uint8_t byte = 0;
        lanes.feed(lane, &byte, 1);
      },
      "Sha1Lanes: feed of a lane already closed");
}

TEST(Sha1LanesDeathTest, PathTheProcessorLacksAborts) {
  std::optional<LanePath> missing;
  for (const LanePath path : {LanePath::avx2, LanePath::avx512}) {
    if (!corvane::detail::lanePathSupported(path)) missing = path;
  }
  if (!missing) GTEST_SKIP() << "this processor runs every path";
  EXPECT_DEATH({ Sha1Lanes lanes(*missing); }, "LanePath: not supported by this processor");
}

}  // namespace
