// The algorithm vocabulary: names, empty-input texts, orderings, descriptions, value behaviour
// and serialisation of ChecksumType.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/Exception.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::checksumOfChunks;

std::vector<std::uint64_t> rawValues(const std::vector<ChecksumType>& types) {
  std::vector<std::uint64_t> raw;
  for (ChecksumType type : types) raw.push_back(type.rawValue());
  return raw;
}

TEST(ChecksumType, EnumeratorsAreTheTenSingleBits) {
  EXPECT_EQ(ChecksumTypeNone.rawValue(), 0u);
  EXPECT_EQ(ChecksumTypeMD5.rawValue(), 1u);
  EXPECT_EQ(ChecksumTypeXXHash64.rawValue(), 2u);
  EXPECT_EQ(ChecksumTypeCRC32.rawValue(), 4u);
  EXPECT_EQ(ChecksumTypeSHA1.rawValue(), 8u);
  EXPECT_EQ(ChecksumTypeSHA256.rawValue(), 16u);
  EXPECT_EQ(ChecksumTypeSHA512.rawValue(), 32u);
  EXPECT_EQ(ChecksumTypeSRSum.rawValue(), 64u);
  EXPECT_EQ(ChecksumTypeC4.rawValue(), 128u);
  EXPECT_EQ(ChecksumTypeXXHashH364.rawValue(), 256u);
  EXPECT_EQ(ChecksumTypeXXHashH3128.rawValue(), 512u);
}

TEST(ChecksumType, NamesAreTheExactDisplayNames) {
  // Shown to users and compared as stored: the spaces, the hyphen in "CRC-32" and the asymmetry
  // between "xxHash3-64" and "xxHash-128" are part of the contract.
  EXPECT_EQ(ChecksumTypeMD5.name(), "MD5");
  EXPECT_EQ(ChecksumTypeXXHash64.name(), "xxHash64");
  EXPECT_EQ(ChecksumTypeCRC32.name(), "CRC-32");
  EXPECT_EQ(ChecksumTypeSHA1.name(), "SHA-1");
  EXPECT_EQ(ChecksumTypeSHA256.name(), "SHA-2 256");
  EXPECT_EQ(ChecksumTypeSHA512.name(), "SHA-2 512");
  EXPECT_EQ(ChecksumTypeSRSum.name(), "SR Sum");
  EXPECT_EQ(ChecksumTypeC4.name(), "C4");
  EXPECT_EQ(ChecksumTypeXXHashH364.name(), "xxHash3-64");
  EXPECT_EQ(ChecksumTypeXXHashH3128.name(), "xxHash-128");
}

TEST(ChecksumType, EmptyChecksumValuesAreTheEmptyInputTexts) {
  // MD5: RFC 1321 appendix A.5, MD5 ("").
  EXPECT_EQ(ChecksumTypeMD5.emptyChecksumValue(), "d41d8cd98f00b204e9800998ecf8427e");
  // xxHash64 of empty input, seed 0: xxHash sanity table (tests/data/vectors/SOURCES.md).
  EXPECT_EQ(ChecksumTypeXXHash64.emptyChecksumValue(), "ef46db3751d8e999");
  // Our CRC-32 variant: register starts at 0, so zero bytes give the complement of 0.
  EXPECT_EQ(ChecksumTypeCRC32.emptyChecksumValue(), "ffffffff");
  // SHA-1, SHA-256 and SHA-512 of "": NIST CAVP ShortMsg files, record Len = 0.
  EXPECT_EQ(ChecksumTypeSHA1.emptyChecksumValue(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(ChecksumTypeSHA256.emptyChecksumValue(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(ChecksumTypeSHA512.emptyChecksumValue(),
            "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff83"
            "18d2877eec2f63b931bd47417a81a538327af927da3e");
  EXPECT_EQ(ChecksumTypeSRSum.emptyChecksumValue(), "");
  // C4 ID of empty input: the C4 ID test suite (c4_id_vectors.json, SOURCES.md).
  EXPECT_EQ(ChecksumTypeC4.emptyChecksumValue(),
            "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmT"
            "c1sFT");
  EXPECT_EQ(ChecksumTypeC4.emptyChecksumValue().size(), 90u);
  // XXH3-64 and XXH3-128 of empty input, seed 0: xxHash sanity table.
  EXPECT_EQ(ChecksumTypeXXHashH364.emptyChecksumValue(), "2d06800538d394c2");
  EXPECT_EQ(ChecksumTypeXXHashH3128.emptyChecksumValue(), "99aa06d3014798d86001c324468d497f");
}

TEST(ChecksumType, AllCasesAreTheTenFlagsInAscendingOrder) {
  EXPECT_EQ(rawValues(ChecksumType::allCases()),
            (std::vector<std::uint64_t>{1, 2, 4, 8, 16, 32, 64, 128, 256, 512}));
}

TEST(ChecksumType, DefaultChecksumTypeIsXXHash64) {
  EXPECT_EQ(ChecksumType::defaultChecksumType(), ChecksumTypeXXHash64);
}

TEST(ChecksumType, DefaultOrderingHoldsEveryMemberOnceAndBeginsWithTheXXHashFamily) {
  const auto& ordering = ChecksumType::defaultOrdering();
  ASSERT_EQ(ordering.size(), 10u);
  EXPECT_EQ(ordering[0], ChecksumTypeXXHash64);
  EXPECT_EQ(ordering[1], ChecksumTypeXXHashH364);
  EXPECT_EQ(ordering[2], ChecksumTypeXXHashH3128);
  const auto raw = rawValues(ordering);
  const std::set<std::uint64_t> distinct(raw.begin(), raw.end());
  EXPECT_EQ(distinct.size(), 10u);
  for (ChecksumType member : ChecksumType::allCases()) {
    EXPECT_EQ(std::count(ordering.begin(), ordering.end(), member), 1)
        << "ChecksumType " << member.rawValue();
  }
}

TEST(ChecksumType, DefaultOrderingIsTheListingOrderOfLookups) {
  EXPECT_EQ(rawValues(ChecksumType::defaultOrdering()),
            (std::vector<std::uint64_t>{2, 256, 512, 1, 8, 16, 32, 64, 128, 4}));
}

TEST(ChecksumType, SetOfAllCasesHoldsTheTenMembers) {
  const auto& set = ChecksumType::setOfAllCases();
  EXPECT_EQ(set.size(), 10u);
  for (ChecksumType member : ChecksumType::allCases()) EXPECT_EQ(set.count(member), 1u);
  EXPECT_EQ(set.count(ChecksumTypeNone), 0u);
  EXPECT_EQ(set.count(ChecksumType(3)), 0u);
}

TEST(ChecksumType, EmptyHashLookupHasTenEntriesWithEmptySRSumAndFfffffffForCRC32) {
  const auto& lookup = ChecksumType::emptyHashLookup();
  EXPECT_EQ(lookup.size(), 10u);
  ASSERT_EQ(lookup.count(ChecksumTypeSRSum), 1u);
  EXPECT_EQ(lookup.at(ChecksumTypeSRSum), "");
  ASSERT_EQ(lookup.count(ChecksumTypeCRC32), 1u);
  EXPECT_EQ(lookup.at(ChecksumTypeCRC32), "ffffffff");
  for (ChecksumType member : ChecksumType::allCases()) {
    ASSERT_EQ(lookup.count(member), 1u) << "ChecksumType " << member.rawValue();
    EXPECT_EQ(lookup.at(member), member.emptyChecksumValue());
  }
}

TEST(ChecksumType, UserPresentableDescriptionOfEmptyListIsEmptyText) {
  EXPECT_EQ(userPresentableDescription({}), "");
}

TEST(ChecksumType, UserPresentableDescriptionOfSRSumAloneIsItsName) {
  EXPECT_EQ(userPresentableDescription({ChecksumTypeSRSum}), "SR Sum");
}

TEST(ChecksumType, UserPresentableDescriptionFollowsAllCasesOrderNotListOrder) {
  EXPECT_EQ(userPresentableDescription({ChecksumTypeCRC32, ChecksumTypeXXHash64}),
            "xxHash64,CRC-32");
}

TEST(ChecksumType, UserPresentableDescriptionNamesEachAlgorithmOnce) {
  EXPECT_EQ(userPresentableDescription(
                {ChecksumTypeXXHashH3128, ChecksumTypeMD5, ChecksumTypeSHA256, ChecksumTypeMD5}),
            "MD5,SHA-2 256,xxHash-128");
}

TEST(ChecksumType, UserPresentableDescriptionIgnoresValuesThatAreNotAlgorithms) {
  EXPECT_EQ(userPresentableDescription({ChecksumType(1024), ChecksumType(0)}), "");
  EXPECT_EQ(userPresentableDescription({ChecksumType(3), ChecksumTypeSHA1, ChecksumType(1024)}),
            "SHA-1");
}

TEST(ChecksumType, UserPresentableDescriptionOfAllCasesNamesAllTen) {
  EXPECT_EQ(userPresentableDescription(ChecksumType::allCases()),
            "MD5,xxHash64,CRC-32,SHA-1,SHA-2 256,SHA-2 512,SR Sum,C4,xxHash3-64,xxHash-128");
}

TEST(ChecksumType, ConstructionFromAnyRawValueKeepsIt) {
  for (std::uint64_t raw : {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{1024},
                            std::uint64_t{0xFFFF}, ~std::uint64_t{0}}) {
    EXPECT_EQ(ChecksumType(raw).rawValue(), raw);
  }
}

TEST(ChecksumType, EqualityAndHashUseTheRawValueAlone) {
  EXPECT_EQ(ChecksumType(16), ChecksumTypeSHA256);
  EXPECT_FALSE(ChecksumType(17) == ChecksumTypeSHA256);
  EXPECT_EQ(std::hash<ChecksumType>{}(ChecksumType(16)),
            std::hash<ChecksumType>{}(ChecksumTypeSHA256));
  std::unordered_set<ChecksumType> set{ChecksumType(3), ChecksumType(3), ChecksumTypeMD5};
  EXPECT_EQ(set.size(), 2u);
}

TEST(ChecksumType, IsKnownAlgorithmOnlyForTheTenFlags) {
  for (ChecksumType member : ChecksumType::allCases()) EXPECT_TRUE(member.isKnownAlgorithm());
  for (std::uint64_t raw : {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{1024},
                            std::uint64_t{0xFFFF}, ~std::uint64_t{0}}) {
    EXPECT_FALSE(ChecksumType(raw).isKnownAlgorithm()) << raw;
  }
}

TEST(ChecksumType, EncodesAsItsRawNumber) {
  const nlohmann::json json = ChecksumTypeSHA256;
  EXPECT_EQ(json.dump(), "16");
  const nlohmann::json mask = ChecksumType(3);
  EXPECT_EQ(mask.dump(), "3");
}

TEST(ChecksumType, DecodedFromTheIntegerThreeHoldsThree) {
  const auto type = nlohmann::json::parse("3").get<ChecksumType>();
  EXPECT_EQ(type.rawValue(), 3u);
  EXPECT_FALSE(type.isKnownAlgorithm());
}

TEST(ChecksumType, DecodingAcceptsAnyUnsignedInteger) {
  EXPECT_EQ(nlohmann::json::parse("0").get<ChecksumType>().rawValue(), 0u);
  EXPECT_EQ(nlohmann::json::parse("512").get<ChecksumType>(), ChecksumTypeXXHashH3128);
  EXPECT_EQ(nlohmann::json::parse("18446744073709551615").get<ChecksumType>().rawValue(),
            ~std::uint64_t{0});
}

TEST(ChecksumType, RoundTripsThroughJsonForEveryMember) {
  for (ChecksumType member : ChecksumType::allCases()) {
    const nlohmann::json json = member;
    EXPECT_EQ(json.get<ChecksumType>(), member);
  }
}

TEST(ChecksumType, DecodingTextIsATypeMismatch) {
  try {
    (void)nlohmann::json::parse(R"("MD5")").get<ChecksumType>();
    ADD_FAILURE() << "decoding a text did not throw";
  } catch (const DecodingError& error) {
    EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
  }
}

TEST(ChecksumType, DecodingANegativeNumberIsATypeMismatch) {
  try {
    (void)nlohmann::json::parse("-1").get<ChecksumType>();
    ADD_FAILURE() << "decoding -1 did not throw";
  } catch (const DecodingError& error) {
    EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
  }
}

TEST(ChecksumTypeDeathTest, NameOfDecodedThreeIsFatalAndNamesTypeAndValue) {
  const auto type = nlohmann::json::parse("3").get<ChecksumType>();
  EXPECT_DEATH((void)type.name(), "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

TEST(ChecksumTypeDeathTest, NameOfNoneIsFatal) {
  EXPECT_DEATH((void)ChecksumTypeNone.name(), "ChecksumType[^\n]*[^0-9]0([^0-9]|$)");
}

TEST(ChecksumTypeDeathTest, NameOfUnknownBitIsFatal) {
  EXPECT_DEATH((void)ChecksumType(1024).name(), "ChecksumType[^\n]*[^0-9]1024([^0-9]|$)");
}

TEST(ChecksumTypeDeathTest, EmptyChecksumValueOfMaskIsFatal) {
  EXPECT_DEATH((void)ChecksumType(3).emptyChecksumValue(), "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

TEST(ChecksumTypeDeathTest, EmptyChecksumValueOfUnknownBitIsFatal) {
  EXPECT_DEATH((void)ChecksumType(0xFFFF).emptyChecksumValue(),
               "ChecksumType[^\n]*[^0-9]65535([^0-9]|$)");
}

TEST(ChecksumType, EmptyChecksumValueEqualsWhatEachGeneratorProducesWithoutData) {
  for (ChecksumType member : ChecksumType::allCases()) {
    if (member == ChecksumTypeSRSum) continue;  // named, but no generator exists for it
    SCOPED_TRACE("ChecksumType " + std::to_string(member.rawValue()));
    EXPECT_EQ(checksumOfChunks(member, {}), member.emptyChecksumValue());
  }
}

TEST(ChecksumType, SRSumHasNoGenerator) {
  EXPECT_EQ(CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeSRSum), nullptr);
}

}  // namespace
}  // namespace corvane
