// The one-shot helpers of CorvaneChecksumGenerator: checksumData (the synchronous pair, MD5
// only), generateDataChecksum, generateFileChecksum with its read sizes, and dataFromHexString.
//
// Results are checked against the streaming generators and against references written
// independently of the library (support/References.hpp): OpenSSL EVP for MD5 and SHA, the xxHash
// library's one-call functions, a byte-at-a-time table CRC of our CRC-32 variant, and SHA-512 in
// base 58 for C4. Fixed known answers name their source where they are used.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "support/References.hpp"
#include "support/ScratchDirectory.hpp"
#include "support/UnprivilegedUser.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::bytesOf;
using testsupport::describeType;
using testsupport::referenceChecksum;
using testsupport::ScratchDirectory;
using testsupport::share;
using testsupport::typesWithAGenerator;

using Factory = CorvaneChecksumGenerator;

// Values without a generator: none, a mask, SR Sum, unknown bits.
const std::vector<ChecksumType>& typesWithoutAGenerator() {
  static const std::vector<ChecksumType> types{ChecksumTypeNone, ChecksumType(3), ChecksumTypeSRSum,
                                               ChecksumType(1024), ChecksumType(0xFFFF)};
  return types;
}

constexpr std::int64_t kDefaultReadSize = 8388608;  // 8 MiB, the documented default

// ----- checksumData -------------------------------------------------------------------------

TEST(OneShotChecksumData, Md5OfEmptyBufferIsTheKnownDigest) {
  // MD5("") from RFC 1321, appendix A.5.
  const Bytes empty;
  EXPECT_EQ(Factory::checksumData(&empty, ChecksumTypeMD5), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(OneShotChecksumData, Md5MatchesTheReference) {
  // MD5("abc") from RFC 1321, appendix A.5.
  const Bytes abc = bytesOf("abc");
  EXPECT_EQ(Factory::checksumData(&abc, ChecksumTypeMD5), "900150983cd24fb0d6963f7d28e17f72");
  std::mt19937_64 random(testsupport::randomTestSeed());
  for (std::size_t length : {1u, 55u, 56u, 63u, 64u, 65u, 1000u, 100000u}) {
    const Bytes data = testsupport::randomBytes(random, length);
    EXPECT_EQ(Factory::checksumData(&data, ChecksumTypeMD5),
              referenceChecksum(ChecksumTypeMD5, data))
        << "length " << length;
  }
}

TEST(OneShotChecksumData, Sha256GivesNull) {
  const Bytes empty;
  EXPECT_FALSE(Factory::checksumData(&empty, ChecksumTypeSHA256).has_value());
  const Bytes abc = bytesOf("abc");
  EXPECT_FALSE(Factory::checksumData(&abc, ChecksumTypeSHA256).has_value());
}

TEST(OneShotChecksumData, EveryTypeButMd5GivesNull) {
  const Bytes data = bytesOf("only MD5 implements the synchronous pair");
  for (ChecksumType type : typesWithAGenerator()) {
    if (type == ChecksumTypeMD5) continue;
    EXPECT_FALSE(Factory::checksumData(&data, type).has_value()) << describeType(type);
  }
  for (ChecksumType type : typesWithoutAGenerator()) {
    EXPECT_FALSE(Factory::checksumData(&data, type).has_value()) << describeType(type);
  }
}

TEST(OneShotChecksumData, NullBufferGivesNull) {
  EXPECT_FALSE(Factory::checksumData(nullptr, ChecksumTypeMD5).has_value());
  EXPECT_FALSE(Factory::checksumData(nullptr, ChecksumTypeSHA256).has_value());
  EXPECT_FALSE(Factory::checksumData(nullptr, ChecksumTypeSRSum).has_value());
}

// ----- generateDataChecksum -----------------------------------------------------------------

TEST(OneShotDataChecksum, SRSumGivesNull) {
  EXPECT_FALSE(Factory::generateDataChecksum(share(bytesOf("data")), ChecksumTypeSRSum));
  EXPECT_FALSE(Factory::generateDataChecksum(nullptr, ChecksumTypeSRSum));
}

TEST(OneShotDataChecksum, TypesWithoutAGeneratorGiveNull) {
  for (ChecksumType type : typesWithoutAGenerator()) {
    EXPECT_FALSE(Factory::generateDataChecksum(share(bytesOf("data")), type).has_value())
        << describeType(type);
  }
}

TEST(OneShotDataChecksum, NullBufferWithXXHash64GivesTheEmptyChecksum) {
  // xxHash64 of empty input, seed 0: xxhash_sanity_vectors.json ("XXH64", len 0, seed 0).
  EXPECT_EQ(Factory::generateDataChecksum(nullptr, ChecksumTypeXXHash64), "ef46db3751d8e999");
}

TEST(OneShotDataChecksum, NullOrEmptyBufferGivesTheEmptyChecksumValue) {
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_EQ(Factory::generateDataChecksum(nullptr, type), type.emptyChecksumValue());
    EXPECT_EQ(Factory::generateDataChecksum(share({}), type), type.emptyChecksumValue());
    EXPECT_EQ(type.emptyChecksumValue(), referenceChecksum(type, {}));
  }
}

TEST(OneShotDataChecksum, EveryAlgorithmMatchesStreamingAndReferences) {
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  for (std::size_t length : {0u, 1u, 3u, 64u, 1000u, 65537u, 1048589u}) {
    const Bytes data = testsupport::randomBytes(random, length);
    SCOPED_TRACE("length " + std::to_string(length));
    const auto chunks =
        testsupport::randomSplit(data, random, std::max<std::size_t>(length / 6, 1));
    for (ChecksumType type : typesWithAGenerator()) {
      SCOPED_TRACE(describeType(type));
      const auto oneShot = Factory::generateDataChecksum(share(data), type);
      ASSERT_TRUE(oneShot.has_value());
      EXPECT_EQ(*oneShot, referenceChecksum(type, data));
      EXPECT_EQ(testsupport::checksumOfChunks(type, chunks), oneShot);
    }
  }
}

TEST(OneShotDataChecksum, KnownAnswersOfAbc) {
  const auto abc = share(bytesOf("abc"));
  // RFC 1321, appendix A.5.
  EXPECT_EQ(Factory::generateDataChecksum(abc, ChecksumTypeMD5),
            "900150983cd24fb0d6963f7d28e17f72");
  // FIPS 180-2, appendix A.1 (SHA-1) and B.1 (SHA-256).
  EXPECT_EQ(Factory::generateDataChecksum(abc, ChecksumTypeSHA1),
            "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(Factory::generateDataChecksum(abc, ChecksumTypeSHA256),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(OneShotDataChecksum, C4GivesTheIdNotTheSha512Hex) {
  // The ID of "foo" from c4_id_vectors.json ("identify").
  EXPECT_EQ(
      Factory::generateDataChecksum(share(bytesOf("foo")), ChecksumTypeC4),
      "c45xZeXwMSpqXjpDumcHMA6mhoAmGHkUo7r9WmN2UgSEQzj9KjgseaQdkEJ11fGb5S1WEENcV3q8RFWwEeVpC7Fjk2");
}

TEST(OneShotDataChecksum, CallerMayDropTheBufferAtOnce) {
  // The helper keeps its own reference until the chunk is absorbed.
  const Bytes data = testsupport::seededRandomBytes(50000);
  EXPECT_EQ(Factory::generateDataChecksum(std::make_shared<const Bytes>(data), ChecksumTypeSHA512),
            referenceChecksum(ChecksumTypeSHA512, data));
}

// ----- generateFileChecksum -----------------------------------------------------------------

TEST(OneShotFileChecksum, EmptyFileGivesTheEmptyChecksumValue) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("empty", {});
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_EQ(Factory::generateFileChecksum(path, type), type.emptyChecksumValue());
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 1), type.emptyChecksumValue());
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 4096), type.emptyChecksumValue());
  }
}

TEST(OneShotFileChecksum, MissingFileGivesNull) {
  ScratchDirectory directory;
  const std::string path = directory.file("does-not-exist");
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_FALSE(Factory::generateFileChecksum(path, type).has_value());
    EXPECT_FALSE(Factory::generateFileChecksum(path, type, 4096).has_value());
  }
  EXPECT_FALSE(Factory::generateFileChecksum("", ChecksumTypeMD5).has_value());
}

TEST(OneShotFileChecksum, DirectoryGivesNull) {
  ScratchDirectory directory;
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_FALSE(Factory::generateFileChecksum(directory.path().string(), type).has_value());
    EXPECT_FALSE(Factory::generateFileChecksum(directory.path().string(), type, 1).has_value());
  }
}

TEST(OneShotFileChecksum, PathBelowARegularFileGivesNull) {
  ScratchDirectory directory;
  const std::string file = directory.writeFile("plain", bytesOf("content"));
  // A path that continues below a regular file cannot be opened (ENOTDIR), whoever asks.
  EXPECT_FALSE(Factory::generateFileChecksum(file + "/child", ChecksumTypeMD5).has_value());
  EXPECT_FALSE(Factory::generateFileChecksum(file + "/child", ChecksumTypeC4, 1).has_value());
}

TEST(OneShotFileChecksum, UnreadableFileGivesNull) {
  ScratchDirectory directory;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0711), 0);  // others may pass, not list
  const std::string path = directory.writeFile("unreadable", bytesOf("secret"));
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  std::optional<std::string> result;
  {
    testsupport::EffectiveUserWithoutPrivileges unprivileged;
    if (!unprivileged.active()) GTEST_SKIP() << "cannot give up root to test permissions";
    const int probe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (probe >= 0) {
      ::close(probe);
      GTEST_SKIP() << "permissions do not stop this user from opening the file";
    }
    result = Factory::generateFileChecksum(path, ChecksumTypeMD5);
  }
  EXPECT_FALSE(result.has_value());
  ::chmod(path.c_str(), 0600);
}

TEST(OneShotFileChecksum, TypesWithoutAGeneratorGiveNull) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("data", bytesOf("some content"));
  for (ChecksumType type : typesWithoutAGenerator()) {
    EXPECT_FALSE(Factory::generateFileChecksum(path, type).has_value()) << describeType(type);
    EXPECT_FALSE(Factory::generateFileChecksum(path, type, 4).has_value()) << describeType(type);
  }
}

TEST(OneShotFileChecksum, ExactMultipleOfTheReadSizeEqualsOtherSplits) {
  SCOPED_TRACE(testsupport::describeSeed(testsupport::randomTestSeed()));
  const Bytes contents = testsupport::seededRandomBytes(3 * 4096);
  ScratchDirectory directory;
  const std::string path = directory.writeFile("three-blocks", contents);
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    const std::string expected = referenceChecksum(type, contents);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 4096), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 3 * 4096), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 1), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 7), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 4095), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 4097), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type), expected);
    EXPECT_EQ(Factory::generateDataChecksum(share(contents), type), expected);
  }
}

TEST(OneShotFileChecksum, ReadSizeZeroReadsNothing) {
  ScratchDirectory directory;
  const std::string path = directory.writeFile("data", bytesOf("not read at all"));
  for (ChecksumType type : typesWithAGenerator()) {
    EXPECT_EQ(Factory::generateFileChecksum(path, type, 0), type.emptyChecksumValue())
        << describeType(type);
  }
}

TEST(OneShotFileChecksum, NegativeReadSizeReadsTheWholeFile) {
  const Bytes contents = testsupport::seededRandomBytes(10000);
  ScratchDirectory directory;
  const std::string path = directory.writeFile("data", contents);
  for (ChecksumType type : {ChecksumTypeMD5, ChecksumTypeCRC32, ChecksumTypeXXHashH3128}) {
    EXPECT_EQ(Factory::generateFileChecksum(path, type, -1), referenceChecksum(type, contents))
        << describeType(type);
  }
}

TEST(OneShotFileChecksum, DefaultReadSizeHandlesSeveralChunks) {
  // 9 MiB: one full 8 MiB chunk and a 1 MiB rest.
  SCOPED_TRACE(testsupport::describeSeed(testsupport::randomTestSeed()));
  const Bytes contents = testsupport::seededRandomBytes(9 * 1024 * 1024);
  ScratchDirectory directory;
  const std::string path = directory.writeFile("nine-mebibytes", contents);
  for (ChecksumType type : typesWithAGenerator()) {
    SCOPED_TRACE(describeType(type));
    const std::string expected = referenceChecksum(type, contents);
    EXPECT_EQ(Factory::generateFileChecksum(path, type), expected);
    EXPECT_EQ(Factory::generateFileChecksum(path, type, kDefaultReadSize), expected);
  }
}

TEST(OneShotFileChecksum, C4GivesTheId) {
  // The ID of "foo" from c4_id_vectors.json ("identify").
  ScratchDirectory directory;
  const std::string path = directory.writeFile("foo", bytesOf("foo"));
  EXPECT_EQ(
      Factory::generateFileChecksum(path, ChecksumTypeC4, 2),
      "c45xZeXwMSpqXjpDumcHMA6mhoAmGHkUo7r9WmN2UgSEQzj9KjgseaQdkEJ11fGb5S1WEENcV3q8RFWwEeVpC7Fjk2");
}

// ----- dataFromHexString --------------------------------------------------------------------

TEST(OneShotHexString, LittleEndianPutsTheLastPairFirst) {
  EXPECT_EQ(Factory::dataFromHexString("0a0b"), Bytes({0x0b, 0x0a}));
  EXPECT_EQ(Factory::dataFromHexString("0a0b", true), Bytes({0x0b, 0x0a}));
  EXPECT_EQ(Factory::dataFromHexString("00010203"), Bytes({0x03, 0x02, 0x01, 0x00}));
}

TEST(OneShotHexString, BigEndianKeepsTheTextOrder) {
  EXPECT_EQ(Factory::dataFromHexString("0a0b", false), Bytes({0x0a, 0x0b}));
  EXPECT_EQ(Factory::dataFromHexString("00010203", false), Bytes({0x00, 0x01, 0x02, 0x03}));
}

TEST(OneShotHexString, OddLengthIsPaddedAtTheFrontOrTheEnd) {
  // "abc" reads as "0abc" (little endian) or "abc0" (big endian).
  EXPECT_EQ(Factory::dataFromHexString("abc"), Bytes({0xbc, 0x0a}));
  EXPECT_EQ(Factory::dataFromHexString("abc", true), Bytes({0xbc, 0x0a}));
  EXPECT_EQ(Factory::dataFromHexString("abc", false), Bytes({0xab, 0xc0}));
  EXPECT_EQ(Factory::dataFromHexString("f", true), Bytes({0x0f}));
  EXPECT_EQ(Factory::dataFromHexString("f", false), Bytes({0xf0}));
}

TEST(OneShotHexString, EmptyTextGivesAnEmptyBuffer) {
  EXPECT_TRUE(Factory::dataFromHexString("").empty());
  EXPECT_TRUE(Factory::dataFromHexString("", true).empty());
  EXPECT_TRUE(Factory::dataFromHexString("", false).empty());
}

TEST(OneShotHexString, OverlongUtf8NeverSpellsADigit) {
  // "\xC0\xB1" is an overlong form of "1": not UTF-8, so its two bytes are two units of their own
  // (0xC0 and 0xB1), neither a hex digit; each pair reads as 0, as strtol reads "zz".
  EXPECT_EQ(Factory::dataFromHexString("\xC0\xB1\xC0\xB1", false), Bytes({0x00, 0x00}));
  // The same for an encoded surrogate and a value past U+10FFFF.
  EXPECT_EQ(Factory::dataFromHexString("\xED\xA0\x80", false).size(), 2u);
  EXPECT_EQ(Factory::dataFromHexString("\xF4\x90\x80\x80", false).size(), 2u);
}

TEST(OneShotHexString, InvalidCharactersReadAsStrtolReadsThem) {
  // Each pair is read like strtol(pair, nullptr, 16) and keeps its low 8 bits.
  const std::vector<std::pair<std::string, std::uint8_t>> pairs{
      {"zz", 0x00},                               // no hex digit at all
      {"-1", 0xff},                               // a sign is accepted: -1 keeps its low 8 bits
      {" f", 0x0f},                               // leading white space is skipped
      {"\tf", 0x0f}, {"f ", 0x0f},                // conversion stops at the first non-digit
      {"+f", 0x0f},  {"1z", 0x01}, {"z1", 0x00},  // a pair without a leading digit gives 0
      {"0x", 0x00},                               // "0x" without digits after it reads as the "0"
      {"-f", 0xf1},  {"--", 0x00}, {"g0", 0x00},
  };
  for (const auto& [pair, byte] : pairs) {
    SCOPED_TRACE("pair \"" + pair + "\"");
    EXPECT_EQ(Factory::dataFromHexString(pair, true), Bytes({byte}));
    EXPECT_EQ(Factory::dataFromHexString(pair, false), Bytes({byte}));
  }
  // Bad pairs do not disturb their neighbours.
  EXPECT_EQ(Factory::dataFromHexString("zz-1ab", false), Bytes({0x00, 0xff, 0xab}));
  EXPECT_EQ(Factory::dataFromHexString("zz-1ab", true), Bytes({0xab, 0xff, 0x00}));
}

TEST(OneShotHexString, UpperCaseDigitsAreAccepted) {
  EXPECT_EQ(Factory::dataFromHexString("ABCDEF", false), Bytes({0xab, 0xcd, 0xef}));
  EXPECT_EQ(Factory::dataFromHexString("aBcD", false), Bytes({0xab, 0xcd}));
  EXPECT_EQ(Factory::dataFromHexString("ABC", true), Bytes({0xbc, 0x0a}));
}

TEST(OneShotHexString, EveryByteValueReadsBack) {
  for (unsigned value = 0; value < 256; ++value) {
    char lower[3];
    char upper[3];
    std::snprintf(lower, sizeof lower, "%02x", value);
    std::snprintf(upper, sizeof upper, "%02X", value);
    EXPECT_EQ(Factory::dataFromHexString(lower), Bytes({static_cast<std::uint8_t>(value)}))
        << lower;
    EXPECT_EQ(Factory::dataFromHexString(upper, false), Bytes({static_cast<std::uint8_t>(value)}))
        << upper;
  }
}

TEST(OneShotHexString, ChecksumTextGivesTheDigestBytes) {
  const Bytes data = bytesOf("checksum text back to bytes");
  const Bytes digest = testsupport::sha512Digest(data);
  const auto text = Factory::generateDataChecksum(share(data), ChecksumTypeSHA512);
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(Factory::dataFromHexString(*text, false), digest);
  EXPECT_EQ(Factory::dataFromHexString(*text, true), Bytes(digest.rbegin(), digest.rend()));
}

}  // namespace
}  // namespace corvane
