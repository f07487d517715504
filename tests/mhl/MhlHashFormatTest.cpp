// The ASC MHL hash formats: names and order, the refusal of algorithms ASC MHL does not record,
// the texts (our checksum texts are ASC MHL's own) and the bytes a hash text stands for.
//
// Known answers for the ASCII text "media-hash-list" were computed outside the library: md5sum
// (md5), Python 3 hashlib (sha1), xxhsum 0.8.1 -H1/-H3/-H2 (xxh64, xxh3, xxh128) and, for c4,
// Python's hashlib.sha512 written in base 58 with the C4 alphabet. C4 IDs of chosen numbers
// come from testsupport::c4IdOfNumber, a long division written independently of the library.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::bytesOf;
using testsupport::c4IdOfNumber;
using testsupport::hexDecode;

struct FormatCase {
  std::string_view name;
  ChecksumType type;
  std::size_t textLength;
};

// ASC MHL Appendix D and ASCMHL.xsd.
const std::vector<FormatCase>& formatCases() {
  static const std::vector<FormatCase> cases{
      {"c4", ChecksumTypeC4, 90},           {"md5", ChecksumTypeMD5, 32},
      {"sha1", ChecksumTypeSHA1, 40},       {"xxh128", ChecksumTypeXXHashH3128, 32},
      {"xxh3", ChecksumTypeXXHashH364, 16}, {"xxh64", ChecksumTypeXXHash64, 16},
  };
  return cases;
}

const std::vector<ChecksumType>& typesWithoutAFormat() {
  static const std::vector<ChecksumType> types{
      ChecksumTypeSHA256, ChecksumTypeSHA512, ChecksumTypeCRC32,  ChecksumTypeSRSum,
      ChecksumTypeNone,   ChecksumType(3),    ChecksumType(1024), ChecksumType(0xFFFFFFFF)};
  return types;
}

std::string refusalOf(ChecksumType type) {
  const auto checked = checkMhlFormat(type);
  const auto* refusal = std::get_if<MhlFormatRefusal>(&checked);
  return refusal == nullptr ? std::string("(accepted)") : refusal->message;
}

// ----- names
// ----------------------------------------------------------------------------------------

TEST(MhlHashFormat, FormatsAreTheSixOfTheSchemaInItsElementOrder) {
  std::vector<ChecksumType> expected;
  for (const FormatCase& format : formatCases()) expected.push_back(format.type);
  EXPECT_EQ(mhlFormats(), expected);
}

TEST(MhlHashFormat, ElementNamesMapToChecksumTypesAndBack) {
  for (const FormatCase& format : formatCases()) {
    SCOPED_TRACE(std::string(format.name));
    EXPECT_EQ(checksumTypeForMhlFormat(format.name), format.type);
    EXPECT_EQ(mhlFormatName(format.type), format.name);
    EXPECT_TRUE(isMhlFormat(format.type));
    const auto checked = checkMhlFormat(format.type);
    ASSERT_TRUE(std::holds_alternative<std::string_view>(checked));
    EXPECT_EQ(std::get<std::string_view>(checked), format.name);
    const auto byName = checkMhlFormatName(format.name);
    ASSERT_TRUE(std::holds_alternative<ChecksumType>(byName));
    EXPECT_EQ(std::get<ChecksumType>(byName), format.type);
  }
}

TEST(MhlHashFormat, ElementNamesAreMatchedExactly) {
  for (std::string_view name : {"MD5", "Md5", " md5", "md5 ", "xxh3_64", "xxh3-128", "xxhash64",
                                "sha-1", "C4", "sha256", "sha512", "crc32", ""}) {
    SCOPED_TRACE(std::string(name));
    EXPECT_EQ(checksumTypeForMhlFormat(name), std::nullopt);
  }
}

TEST(MhlHashFormat, AlgorithmsOutsideAscMhlHaveNoFormat) {
  for (ChecksumType type : typesWithoutAFormat()) {
    SCOPED_TRACE(type.rawValue());
    EXPECT_EQ(mhlFormatName(type), std::nullopt);
    EXPECT_FALSE(isMhlFormat(type));
    EXPECT_EQ(mhlHashTextLength(type), 0u);
  }
}

TEST(MhlHashFormat, RefusalNamesTheAlgorithmAndTheAllowedFormats) {
  EXPECT_EQ(refusalOf(ChecksumTypeSHA256),
            "SHA-2 256 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, "
            "xxh3 and xxh64");
  EXPECT_EQ(refusalOf(ChecksumTypeSHA512),
            "SHA-2 512 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, "
            "xxh3 and xxh64");
  EXPECT_EQ(refusalOf(ChecksumTypeCRC32),
            "CRC-32 is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, xxh3 "
            "and xxh64");
  EXPECT_EQ(refusalOf(ChecksumTypeSRSum),
            "SR Sum is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, xxh3 "
            "and xxh64");
}

TEST(MhlHashFormat, RefusalOfMasksAndUnknownValuesNamesTheRawValueAndDoesNotStop) {
  // ChecksumType::name() stops the process for these; the refusal must not ask for it.
  EXPECT_EQ(refusalOf(ChecksumType(3)),
            "The checksum type value 3 is not an ASC MHL hash format; ASC MHL records c4, md5, "
            "sha1, xxh128, xxh3 and xxh64");
  EXPECT_EQ(refusalOf(ChecksumTypeNone),
            "No algorithm (ChecksumTypeNone) is not an ASC MHL hash format; ASC MHL records c4, "
            "md5, sha1, xxh128, xxh3 and xxh64");
  EXPECT_NE(refusalOf(ChecksumType(1024)).find("1024"), std::string::npos);
}

TEST(MhlHashFormat, RefusalOfAnUnknownNameRepeatsIt) {
  const auto checked = checkMhlFormatName("sha256");
  ASSERT_TRUE(std::holds_alternative<MhlFormatRefusal>(checked));
  EXPECT_EQ(std::get<MhlFormatRefusal>(checked).message,
            "\"sha256\" is not an ASC MHL hash format; ASC MHL records c4, md5, sha1, xxh128, "
            "xxh3 and xxh64");
}

// ----- texts
// --------------------------------------------------------------------------------------

TEST(MhlHashFormat, OurChecksumTextsOfMediaHashListAreTheAscMhlTexts) {
  // Known answers: see the top of this file.
  const Bytes data = bytesOf("media-hash-list");
  const std::vector<std::pair<ChecksumType, std::string>> expected{
      {ChecksumTypeMD5, "9db0fc9f30f5ee70041a7538809e2858"},
      {ChecksumTypeSHA1, "7b57673ac5633937a55b59009ad0c57ee08188b7"},
      {ChecksumTypeXXHash64, "584b2ea1974f2b7c"},
      {ChecksumTypeXXHashH364, "6d4cbd75905c81aa"},
      {ChecksumTypeXXHashH3128, "61a67c014f703a456ee7a776fd8c06bd"},
      {ChecksumTypeC4,
       "c456LycWwpMMS7VDZEKvYv2L1uJS6s4qAFnaJdnQiy5JVbBFZMA8aLDS6SPaJjLqxXH4qZdnbuktopMt9frtC2qL1"
       "R"},
  };
  for (const auto& [type, text] : expected) {
    SCOPED_TRACE(std::string(*mhlFormatName(type)));
    const std::optional<std::string> computed =
        ChecksumGenerator::generateChecksumForData(data, type);
    ASSERT_TRUE(computed.has_value());
    EXPECT_EQ(*computed, text);
    EXPECT_TRUE(isWellFormedMhlHash(type, *computed));
    EXPECT_EQ(computed->size(), mhlHashTextLength(type));
  }
}

TEST(MhlHashFormat, TextLengthsAreThoseOfAppendixD) {
  for (const FormatCase& format : formatCases()) {
    SCOPED_TRACE(std::string(format.name));
    EXPECT_EQ(mhlHashTextLength(format.type), format.textLength);
  }
}

TEST(MhlHashFormat, WellFormedHexHashesHaveTheFormatsLengthAndHexDigits) {
  EXPECT_TRUE(isWellFormedMhlHash(ChecksumTypeXXHash64, "584b2ea1974f2b7c"));
  EXPECT_TRUE(isWellFormedMhlHash(ChecksumTypeXXHash64, "584B2EA1974F2B7C"));  // same bytes
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeXXHash64, "584b2ea1974f2b7"));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeXXHash64, "584b2ea1974f2b7c0"));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeXXHash64, "584b2ea1974f2b7g"));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeXXHash64, " 584b2ea1974f2b7"));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeXXHash64, ""));
  // An MD5 text is not an xxh64 text, nor an xxh128 text a sha1 one.
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeXXHash64, "9db0fc9f30f5ee70041a7538809e2858"));
  EXPECT_TRUE(isWellFormedMhlHash(ChecksumTypeXXHashH3128, "9db0fc9f30f5ee70041a7538809e2858"));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeSHA1, "9db0fc9f30f5ee70041a7538809e2858"));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeSHA256, std::string(64, 'a')));
}

TEST(MhlHashFormat, WellFormedC4IdsAreC4AndEightyEightBase58Digits) {
  const std::string id =
      "c456LycWwpMMS7VDZEKvYv2L1uJS6s4qAFnaJdnQiy5JVbBFZMA8aLDS6SPaJjLqxXH4qZ"
      "dnbuktopMt9frtC2qL1R";
  EXPECT_TRUE(isWellFormedMhlHash(ChecksumTypeC4, id));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, "C4" + id.substr(2)));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, "x4" + id.substr(2)));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, id.substr(0, 89)));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, id + "1"));
  // '0', 'O', 'I' and 'l' are not base-58 digits.
  for (char outside : {'0', 'O', 'I', 'l', '+', ' '}) {
    std::string broken = id;
    broken[40] = outside;
    EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, broken)) << outside;
  }
}

TEST(MhlHashFormat, C4IdsAboveFiveHundredTwelveBitsAreRefused) {
  // 2^512 - 1 and 2^512 in base 58 (Python: the C4 alphabet, left-filled with '1').
  const std::string largest =
      "c467rpwLCuS5DGA8KGZXKsVQ7dnPb9goRLoKfgGbLfQg9WoLUgNY77E2jT11fem3"
      "coV9nAkguBACzrU1iyZM4B8roQ";
  const std::string tooLarge =
      "c467rpwLCuS5DGA8KGZXKsVQ7dnPb9goRLoKfgGbLfQg9WoLUgNY77E2jT11fem3"
      "coV9nAkguBACzrU1iyZM4B8roR";
  EXPECT_EQ(c4IdOfNumber(Bytes(64, 0xFF)), largest);
  EXPECT_TRUE(isWellFormedMhlHash(ChecksumTypeC4, largest));
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, largest), Bytes(64, 0xFF));
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, tooLarge));
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, tooLarge), std::nullopt);
  EXPECT_FALSE(isWellFormedMhlHash(ChecksumTypeC4, "c4" + std::string(88, 'z')));
}

// ----- bytes
// ----------------------------------------------------------------------------------------

TEST(MhlHashFormat, HexHashBytesArePairsOfDigitsInTextOrder) {
  EXPECT_EQ(mhlHashBytes(ChecksumTypeXXHash64, "584b2ea1974f2b7c"), hexDecode("584b2ea1974f2b7c"));
  EXPECT_EQ(mhlHashBytes(ChecksumTypeXXHash64, "584B2EA1974F2B7C"), hexDecode("584b2ea1974f2b7c"));
  EXPECT_EQ(mhlHashBytes(ChecksumTypeMD5, "aa10"), (Bytes{0xAA, 0x10}));
  // The length is not checked here: short test lists are hashed as given.
  EXPECT_EQ(mhlHashBytes(ChecksumTypeSHA1, "bb"), (Bytes{0xBB}));
  EXPECT_EQ(mhlHashBytes(ChecksumTypeMD5, ""), Bytes{});
  EXPECT_EQ(mhlHashBytes(ChecksumTypeMD5, "abc"), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeMD5, "zz"), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeMD5, "0x12"), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeSHA256, "aa"), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeCRC32, "aa"), std::nullopt);
}

TEST(MhlHashFormat, C4HashBytesAreTheSha512DigestItWasMadeFrom) {
  const Bytes data = bytesOf("media-hash-list");
  const std::optional<std::string> id =
      ChecksumGenerator::generateChecksumForData(data, ChecksumTypeC4);
  ASSERT_TRUE(id.has_value());
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, *id), testsupport::sha512Digest(data));
}

TEST(MhlHashFormat, C4HashBytesKeepLeadingZeroBytesToSixtyFourBytes) {
  // Numbers with zero bytes and whole zero 32-bit words in front, which a plain number
  // conversion drops.
  for (std::size_t zeros : {1u, 3u, 4u, 5u, 8u, 17u, 63u, 64u}) {
    Bytes digest(64, 0);
    for (std::size_t i = zeros; i < 64; ++i) digest[i] = static_cast<std::uint8_t>(i * 37 + 1);
    const std::string id = c4IdOfNumber(digest);
    SCOPED_TRACE(id);
    ASSERT_EQ(id.size(), 90u);
    EXPECT_TRUE(isWellFormedMhlHash(ChecksumTypeC4, id));
    const std::optional<Bytes> bytes = mhlHashBytes(ChecksumTypeC4, id);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(bytes->size(), 64u);
    EXPECT_EQ(*bytes, digest);
  }
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, "c4" + std::string(88, '1')), Bytes(64, 0));
}

TEST(MhlHashFormat, C4HashBytesRefuseTextsThatAreNoC4Id) {
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, ""), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, "9db0fc9f30f5ee70041a7538809e2858"), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, "xy" + std::string(88, '2')), std::nullopt);
  EXPECT_EQ(mhlHashBytes(ChecksumTypeC4, "c4" + std::string(87, '2') + "0"), std::nullopt);
}

}  // namespace
}  // namespace corvane
