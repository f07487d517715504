// Tests of the file-attribute keys, their mapping to ChecksumType, the extraction of a checksum
// lookup from an attribute dictionary and the list conversions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "corvane/Exception.hpp"
#include "corvane/FileAttributeKey.hpp"

namespace corvane {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;

using Key = FileAttributeKey;

// The ten keys with their exact texts and flags, in ascending flag order.
struct Row {
  const Key& key;
  const char* text;
  std::uint64_t flag;
};

std::vector<Row> table() {
  return {
      {Key::md5Checksum(), "md5Checksum", 1},
      {Key::xxhash64Checksum(), "xxhash64Checksum", 2},
      {Key::crc32Checksum(), "crc32Checksum", 4},
      {Key::sha1Checksum(), "sha1Checksum", 8},
      {Key::sha2_256Checksum(), "sha2_256Checksum", 16},
      {Key::sha2_512Checksum(), "sha2_512Checksum", 32},
      {Key::srSumChecksum(), "srSumChecksum", 64},
      {Key::c4Checksum(), "c4Checksum", 128},
      {Key::xxhashH3_64Checksum(), "xxhashH3_64Checksum", 256},
      {Key::xxhashH3_128Checksum(), "xxhashH3_128Checksum", 512},
  };
}

// --- key texts ---------------------------------------------------------------------------------

TEST(FileAttributeKey, TenKeyTextsAreExact) {
  for (const Row& row : table()) EXPECT_EQ(row.key.text(), row.text);
  // Underscores, and lower-case "xxhash" against upper-case "H3".
  EXPECT_EQ(Key::sha2_256Checksum().text(), "sha2_256Checksum");
  EXPECT_EQ(Key::sha2_512Checksum().text(), "sha2_512Checksum");
  EXPECT_EQ(Key::xxhashH3_64Checksum().text(), "xxhashH3_64Checksum");
  EXPECT_EQ(Key::xxhashH3_128Checksum().text(), "xxhashH3_128Checksum");
}

TEST(FileAttributeKey, SizeKeyTextIsNSFileSize) {
  EXPECT_EQ(Key::NSFileSize().text(), "NSFileSize");
}

TEST(FileAttributeKey, KeysWithEqualTextsAreEqualAndHashEqual) {
  EXPECT_EQ(Key("md5Checksum"), Key::md5Checksum());
  EXPECT_NE(Key("MD5Checksum"), Key::md5Checksum());
  EXPECT_EQ(std::hash<Key>{}(Key("md5Checksum")), std::hash<Key>{}(Key::md5Checksum()));
  const FileAttributeKeySet set{Key("a"), Key("a"), Key("b")};
  EXPECT_EQ(set.size(), 2u);
}

TEST(FileAttributeKey, ConstantsAreCreatedOnceAcrossThreads) {
  std::vector<const Key*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = &Key::xxhashH3_128Checksum(); });
  }
  for (auto& thread : threads) thread.join();
  for (const Key* key : seen) EXPECT_EQ(key, seen.front());
}

// --- mapping to ChecksumType -------------------------------------------------------------------

TEST(FileAttributeKey, EachSingleFlagMapsToItsKeyAndBack) {
  for (const Row& row : table()) {
    EXPECT_EQ(&fileAttributeKey(ChecksumType(row.flag)), &row.key) << row.text;
    EXPECT_EQ(checksumTypeForFileAttributeKey(Key(row.text)), ChecksumType(row.flag));
    EXPECT_TRUE(Key(row.text).isChecksum());
  }
}

TEST(FileAttributeKey, SRSumFlagHasKeySrSumChecksum) {
  EXPECT_EQ(fileAttributeKey(ChecksumTypeSRSum).text(), "srSumChecksum");
  EXPECT_EQ(checksumTypeForFileAttributeKey(Key("srSumChecksum")), ChecksumTypeSRSum);
}

TEST(FileAttributeKey, KeyDifferingOnlyInCaseHasNoChecksumType) {
  EXPECT_EQ(checksumTypeForFileAttributeKey(Key("MD5Checksum")), std::nullopt);
  EXPECT_EQ(checksumTypeForFileAttributeKey(Key("md5checksum")), std::nullopt);
  EXPECT_EQ(checksumTypeForFileAttributeKey(Key("md5Checksum")), ChecksumTypeMD5);
  EXPECT_FALSE(Key("MD5Checksum").isChecksum());
}

TEST(FileAttributeKey, SizeKeyIsNotAChecksum) {
  EXPECT_FALSE(Key::NSFileSize().isChecksum());
  EXPECT_FALSE(isChecksum(Key::NSFileSize()));
  EXPECT_EQ(checksumTypeForFileAttributeKey(Key::NSFileSize()), std::nullopt);
  EXPECT_FALSE(Key("").isChecksum());
}

TEST(FileAttributeKeyDeathTest, KeyOfCombinedValueIsFatal) {
  EXPECT_DEATH((void)fileAttributeKey(ChecksumType(3)), "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

TEST(FileAttributeKeyDeathTest, KeyOfZeroIsFatal) {
  EXPECT_DEATH((void)fileAttributeKey(ChecksumTypeNone), "ChecksumType[^\n]*[^0-9]0([^0-9]|$)");
}

TEST(FileAttributeKeyDeathTest, KeyOfUnknownBitIsFatal) {
  EXPECT_DEATH((void)fileAttributeKey(ChecksumType(1024)),
               "ChecksumType[^\n]*[^0-9]1024([^0-9]|$)");
}

TEST(FileAttributeKey, AllFileAttributesKeysHasTenInFlagOrder) {
  const std::vector<Key>& keys = allFileAttributesKeys();
  ASSERT_EQ(keys.size(), 10u);
  EXPECT_EQ(keys.front(), Key::md5Checksum());
  EXPECT_EQ(keys.back(), Key::xxhashH3_128Checksum());
  const std::vector<Row> rows = table();
  for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(keys[i], rows[i].key);
}

TEST(FileAttributeKey, FileAttributeKeySetHoldsTheTenKeys) {
  const FileAttributeKeySet& set = fileAttributeKeySet();
  EXPECT_EQ(set.size(), 10u);
  for (const Row& row : table()) EXPECT_TRUE(set.contains(row.key)) << row.text;
  EXPECT_FALSE(set.contains(Key::NSFileSize()));
}

// --- checksumLookup ----------------------------------------------------------------------------

TEST(FileAttributeKey, ChecksumLookupTakesTextChecksumAndIgnoresSize) {
  const FileAttributes attributes{{Key("md5Checksum"), std::string("ab")},
                                  {Key::NSFileSize(), std::int64_t{12}}};
  const auto lookup = checksumLookup(attributes);
  ASSERT_TRUE(lookup.has_value());
  EXPECT_EQ(*lookup, (ChecksumLookup{{ChecksumTypeMD5, "ab"}}));
}

TEST(FileAttributeKey, ChecksumLookupOfNumberUnderChecksumKeyIsNothing) {
  EXPECT_EQ(checksumLookup({{Key("md5Checksum"), std::int64_t{5}}}), std::nullopt);
  EXPECT_EQ(checksumLookup({{Key("md5Checksum"), std::uint64_t{5}}}), std::nullopt);
  EXPECT_EQ(checksumLookup({{Key("md5Checksum"), 5.0}}), std::nullopt);
}

TEST(FileAttributeKey, ChecksumLookupOfEmptyDictionaryIsNothing) {
  EXPECT_EQ(checksumLookup({}), std::nullopt);
}

TEST(FileAttributeKey, ChecksumLookupSkipsNonTextValuesAndKeepsTextsAsTheyAre) {
  const FileAttributes attributes{
      {Key::sha1Checksum(), Bytes{0xab, 0xcd}},
      {Key::crc32Checksum(), std::chrono::system_clock::time_point{}},
      {Key::xxhash64Checksum(), true},
      {Key::c4Checksum(), std::string(" C4 not validated ")},
      {Key::sha2_256Checksum(), std::string("")},
      {Key("modificationDate"), std::string("2024")},
  };
  const auto lookup = checksumLookup(attributes);
  ASSERT_TRUE(lookup.has_value());
  EXPECT_EQ(*lookup,
            (ChecksumLookup{{ChecksumTypeC4, " C4 not validated "}, {ChecksumTypeSHA256, ""}}));
}

// --- list conversions --------------------------------------------------------------------------

TEST(FileAttributeKey, FileAttributeKeysWithSizeOfEmptyListIsSizeKeyOnly) {
  EXPECT_THAT(fileAttributeKeysWithSize({}), ElementsAre(Key::NSFileSize()));
}

TEST(FileAttributeKey, FileAttributeKeysWithSizeKeepsOrderAndAppendsSize) {
  EXPECT_THAT(fileAttributeKeysWithSize({ChecksumTypeSHA1, ChecksumTypeMD5}),
              ElementsAre(Key("sha1Checksum"), Key("md5Checksum"), Key("NSFileSize")));
}

TEST(FileAttributeKey, FileAttributeKeysKeepsOrderAndDuplicates) {
  EXPECT_THAT(fileAttributeKeys({ChecksumTypeC4, ChecksumTypeMD5, ChecksumTypeC4}),
              ElementsAre(Key::c4Checksum(), Key::md5Checksum(), Key::c4Checksum()));
  EXPECT_TRUE(fileAttributeKeys({}).empty());
}

TEST(FileAttributeKey, ChecksumAlgorithmsPassesCombinedValueThrough) {
  EXPECT_THAT(checksumAlgorithms({3}), ElementsAre(ChecksumType(3)));
  EXPECT_THAT(checksumAlgorithms({16, 1, 16, 0, 1024}),
              ElementsAre(ChecksumTypeSHA256, ChecksumTypeMD5, ChecksumTypeSHA256, ChecksumTypeNone,
                          ChecksumType(1024)));
}

TEST(FileAttributeKeyDeathTest, FileAttributeKeysOfCombinedValueIsFatal) {
  const std::vector<ChecksumType> algorithms = checksumAlgorithms({3});
  EXPECT_DEATH((void)fileAttributeKeys(algorithms), "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
  EXPECT_DEATH((void)fileAttributeKeysWithSize(algorithms), "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

TEST(FileAttributeKey, EncodableChecksumsIsInverseOfChecksumAlgorithms) {
  const std::vector<std::uint64_t> numbers{512, 1, 3, 1, 0};
  EXPECT_EQ(encodableChecksums(checksumAlgorithms(numbers)), numbers);
  EXPECT_THAT(encodableChecksums({ChecksumTypeXXHash64, ChecksumTypeCRC32}), ElementsAre(2u, 4u));
  EXPECT_TRUE(encodableChecksums({}).empty());
}

// --- JSON ----------------------------------------------------------------------------------------

TEST(FileAttributeKey, JsonOfKeyIsItsText) {
  EXPECT_EQ(json(Key::sha2_256Checksum()), json("sha2_256Checksum"));
  EXPECT_EQ(json("xxhashH3_64Checksum").get<Key>(), Key::xxhashH3_64Checksum());
}

TEST(FileAttributeKey, JsonRoundTripOfKeyListKeepsOrder) {
  const std::vector<Key> keys{Key::NSFileSize(), Key::md5Checksum(), Key("custom")};
  const json encoded = keys;
  EXPECT_EQ(encoded, json::parse(R"(["NSFileSize", "md5Checksum", "custom"])"));
  EXPECT_EQ(encoded.get<std::vector<Key>>(), keys);
}

TEST(FileAttributeKey, JsonDecodingOfNonStringIsTypeMismatch) {
  for (const json& encoded : {json(5), json(nullptr), json::array(), json::object()}) {
    try {
      (void)encoded.get<Key>();
      ADD_FAILURE() << "decoded " << encoded.dump();
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
    }
  }
}

}  // namespace
}  // namespace corvane
