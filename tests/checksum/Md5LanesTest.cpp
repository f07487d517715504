// Lane-parallel MD5 against OpenSSL's one-shot EVP_Digest on every path this processor can run
// (scalar, AVX2, AVX-512; a path the processor lacks is skipped with a message): the RFC 1321
// suite (appendix A.5) on every lane, random lengths up to 10,000 bytes fed in random pieces,
// lengths around every multiple of 64 (the padding's edge cases), lanes of very different
// lengths, streams joining while others finish, and one stream alone. Then the path selection
// and the programming errors.
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
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace {

using corvane::Bytes;
using corvane::detail::Md5Digest;
using corvane::detail::Md5LanePath;
using corvane::detail::Md5Lanes;
using corvane::testsupport::describeSeed;
using corvane::testsupport::evpDigest;
using corvane::testsupport::hexEncode;
using corvane::testsupport::randomBytes;
using corvane::testsupport::randomTestSeed;

std::string hexOf(const Md5Digest& digest) {
  return hexEncode(Bytes(digest.begin(), digest.end()));
}

std::string openSslMd5(const Bytes& data) { return hexEncode(evpDigest(EVP_md5(), data)); }

// Sets CORVANE_MD5_LANES for the life of the object, then restores what was there.
class ScopedLanesVariable {
 public:
  explicit ScopedLanesVariable(const char* value) {
    const char* before = std::getenv(corvane::detail::kMd5LanesEnvironmentVariable);
    if (before != nullptr) previous_ = before;
    ::setenv(corvane::detail::kMd5LanesEnvironmentVariable, value, 1);
  }
  ~ScopedLanesVariable() {
    if (previous_) {
      ::setenv(corvane::detail::kMd5LanesEnvironmentVariable, previous_->c_str(), 1);
    } else {
      ::unsetenv(corvane::detail::kMd5LanesEnvironmentVariable);
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
std::vector<std::string> hashAll(Md5Lanes& lanes, std::vector<Stream>& streams,
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

class Md5LanesPath : public testing::TestWithParam<Md5LanePath> {
 protected:
  void SetUp() override {
    if (!corvane::detail::md5LanePathSupported(GetParam())) {
      GTEST_SKIP() << "this processor cannot run the "
                   << corvane::detail::md5LanePathName(GetParam()) << " path";
    }
  }
};

TEST_P(Md5LanesPath, HasTheLaneCountOfItsRegisterWidth) {
  const Md5Lanes lanes(GetParam());
  const unsigned expected = GetParam() == Md5LanePath::avx512 ? 16
                            : GetParam() == Md5LanePath::avx2 ? 8
                                                              : 1;
  EXPECT_EQ(lanes.laneCount(), expected);
  EXPECT_EQ(lanes.freeLanes(), expected);
}

TEST_P(Md5LanesPath, Rfc1321SuiteGivesItsDigestsOnEveryLane) {
  const auto vectors = corvane::testsupport::readMessageDigestVectors(
      corvane::testsupport::vectorFilePath("rfc-1321.txt"));
  ASSERT_EQ(vectors.size(), 7U);
  Md5Lanes lanes(GetParam());
  // In round r, lane i hashes vector (i + r) modulo 7: every vector visits every lane.
  const unsigned rounds = std::max<unsigned>(lanes.laneCount(), 7);
  for (unsigned round = 0; round < rounds; ++round) {
    std::vector<std::pair<unsigned, std::size_t>> fed;
    while (const std::optional<unsigned> lane = lanes.join()) {
      const std::size_t v = (*lane + round) % vectors.size();
      lanes.feed(*lane, vectors[v].message.data(), vectors[v].lengthInBits / 8);
      lanes.close(*lane);
      fed.emplace_back(*lane, v);
    }
    lanes.run();
    for (const auto& [lane, v] : fed) {
      EXPECT_EQ(hexOf(lanes.takeDigest(lane)), vectors[v].digest)
          << "vector of line " << vectors[v].line << " on lane " << lane;
    }
    ASSERT_EQ(lanes.freeLanes(), lanes.laneCount());
  }
}

TEST_P(Md5LanesPath, RandomLengthsUpTo10000BytesEqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Md5Lanes lanes(GetParam());
  std::vector<Stream> streams(300);
  for (Stream& stream : streams) stream.data = randomBytes(random, random() % 10001);
  const std::vector<std::string> digests = hashAll(lanes, streams, random, 1500);
  for (std::size_t k = 0; k < streams.size(); ++k) {
    EXPECT_EQ(digests[k], openSslMd5(streams[k].data)) << streams[k].data.size() << " bytes";
  }
  EXPECT_EQ(lanes.freeLanes(), lanes.laneCount());
}

TEST_P(Md5LanesPath, LengthsAroundEveryMultipleOf64EqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Md5Lanes lanes(GetParam());
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
    EXPECT_EQ(digests[k], openSslMd5(streams[k].data)) << streams[k].data.size() << " bytes";
  }
}

TEST_P(Md5LanesPath, LanesOfVeryDifferentLengthsEqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Md5Lanes lanes(GetParam());
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
    EXPECT_EQ(hexOf(lanes.takeDigest(lane[k])), openSslMd5(streams[k].data))
        << streams[k].data.size() << " bytes";
  }
}

TEST_P(Md5LanesPath, StreamsJoiningWhileOthersFinishEqualOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  Md5Lanes lanes(GetParam());
  // Many more streams than lanes, of lengths that end at very different turns: streams join
  // lanes freed by others throughout.
  std::vector<Stream> streams(5 * lanes.laneCount() + 3);
  for (Stream& stream : streams) {
    stream.data = randomBytes(random, random() % 4 == 0 ? random() % 200000 : random() % 3000);
  }
  const std::vector<std::string> digests = hashAll(lanes, streams, random, 8192);
  for (std::size_t k = 0; k < streams.size(); ++k) {
    EXPECT_EQ(digests[k], openSslMd5(streams[k].data)) << streams[k].data.size() << " bytes";
  }
}

TEST_P(Md5LanesPath, StreamAloneEqualsOpenSsl) {
  const std::uint64_t seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  for (const std::size_t length : {0, 1, 64, 1000, 65536 + 17, 5 << 20}) {
    Md5Lanes lanes(GetParam());
    std::vector<Stream> streams(1);
    streams[0].data = randomBytes(random, length);
    EXPECT_EQ(hashAll(lanes, streams, random, 70000)[0], openSslMd5(streams[0].data))
        << length << " bytes";
  }
}

TEST_P(Md5LanesPath, FeedingALaneTwiceBeforeARunKeepsBothPieces) {
  const Bytes data = corvane::testsupport::seededRandomBytes(1000);
  Md5Lanes lanes(GetParam());
  const unsigned lane = *lanes.join();
  Bytes first(data.begin(), data.begin() + 300);
  lanes.feed(lane, first.data(), first.size());
  lanes.feed(lane, data.data() + 300, 700);
  first.assign(first.size(), 0);  // not referenced any more: the second feed ran the first
  EXPECT_EQ(hexOf(lanes.finish(lane)), openSslMd5(data));
}

TEST_P(Md5LanesPath, LeftLaneIsFreeAndTheOthersAreUnaffected) {
  const Bytes data = corvane::testsupport::seededRandomBytes(5000);
  Md5Lanes lanes(GetParam());
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
    EXPECT_EQ(hexOf(lanes.finish(occupied[k])), openSslMd5(data));
  }
  EXPECT_EQ(hexOf(lanes.finish(rejoined)), openSslMd5(data));
}

INSTANTIATE_TEST_SUITE_P(EveryPath, Md5LanesPath,
                         testing::Values(Md5LanePath::scalar, Md5LanePath::avx2,
                                         Md5LanePath::avx512),
                         [](const testing::TestParamInfo<Md5LanePath>& info) {
                           return std::string(corvane::detail::md5LanePathName(info.param));
                         });

TEST(Md5LanePath, NamesRoundTrip) {
  for (const Md5LanePath path : {Md5LanePath::scalar, Md5LanePath::avx2, Md5LanePath::avx512}) {
    EXPECT_EQ(corvane::detail::md5LanePathNamed(corvane::detail::md5LanePathName(path)), path);
  }
  EXPECT_EQ(corvane::detail::md5LanePathNamed("sse2"), std::nullopt);
}

TEST(Md5LanePath, WidestSupportedPathIsUsedUnlessTheVariableNarrowsIt) {
  using corvane::detail::md5LanePathInUse;
  using corvane::detail::md5LanePathSupported;
  const Md5LanePath widest = md5LanePathSupported(Md5LanePath::avx512) ? Md5LanePath::avx512
                             : md5LanePathSupported(Md5LanePath::avx2) ? Md5LanePath::avx2
                                                                       : Md5LanePath::scalar;
  {
    const ScopedLanesVariable variable("not-a-path");
    EXPECT_EQ(md5LanePathInUse(), widest);
  }
  {
    const ScopedLanesVariable variable("scalar");
    EXPECT_EQ(md5LanePathInUse(), Md5LanePath::scalar);
  }
  {
    // Forcing a path the processor lacks falls back to the widest one below it.
    const ScopedLanesVariable variable("avx2");
    EXPECT_EQ(md5LanePathInUse(),
              md5LanePathSupported(Md5LanePath::avx2) ? Md5LanePath::avx2 : Md5LanePath::scalar);
  }
  {
    const ScopedLanesVariable variable("avx512");
    EXPECT_EQ(md5LanePathInUse(), widest);
  }
}

TEST(Md5LanesDeathTest, DigestOfALaneNotClosedAborts) {
  EXPECT_DEATH(
      {
        Md5Lanes lanes(Md5LanePath::scalar);
        const unsigned lane = *lanes.join();
        lanes.run();
        (void)lanes.takeDigest(lane);
      },
      "Md5Lanes: digest of a lane not closed and run");
}

TEST(Md5LanesDeathTest, FeedOfAFreeLaneAborts) {
  EXPECT_DEATH(
      {
        Md5Lanes lanes(Md5LanePath::scalar);
        const std::uint8_t byte = 0;
        lanes.feed(0, &byte, 1);
      },
      "Md5Lanes: feed of a lane that is not occupied");
}

TEST(Md5LanesDeathTest, FeedAfterCloseAborts) {
  EXPECT_DEATH(
      {
        Md5Lanes lanes(Md5LanePath::scalar);
        const unsigned lane = *lanes.join();
        lanes.close(lane);
        const std::uint8_t byte = 0;
        lanes.feed(lane, &byte, 1);
      },
      "Md5Lanes: feed of a lane already closed");
}

TEST(Md5LanesDeathTest, PathTheProcessorLacksAborts) {
  std::optional<Md5LanePath> missing;
  for (const Md5LanePath path : {Md5LanePath::avx2, Md5LanePath::avx512}) {
    if (!corvane::detail::md5LanePathSupported(path)) missing = path;
  }
  if (!missing) GTEST_SKIP() << "this processor runs every path";
  EXPECT_DEATH({ Md5Lanes lanes(*missing); }, "Md5LanePath: not supported by this processor");
}

}  // namespace
