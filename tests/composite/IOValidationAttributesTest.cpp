// Tests of IOValidationAttributes: factories, the size rule, the accessors, merging and the
// keyed serialisation (lenient decoding of hand-written documents, the fatal checksum numbers,
// and strict decoding of documents from outside).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvane/Exception.hpp"
#include "corvane/IOValidationAttributes.hpp"

namespace corvane {
namespace {

using nlohmann::json;
using ::testing::UnorderedElementsAre;

using Key = FileAttributeKey;
using KeySet = FileAttributeKeySet;
using Types = std::vector<ChecksumType>;

const Key& md5() { return Key::md5Checksum(); }
const Key& sha256() { return Key::sha2_256Checksum(); }
const Key& size() { return Key::NSFileSize(); }
const Key kModificationDate("NSFileModificationDate");

// --- factories ---------------------------------------------------------------------------------

TEST(IOValidationAttributes, AlgorithmsWithForceAddSizeKey) {
  const auto record = IOValidationAttributes::create({}, Types{ChecksumTypeMD5}, true);
  EXPECT_EQ(record->attributeSet(), (KeySet{md5(), size()}));
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, AlgorithmsWithoutForceHaveNoSizeKeyAndFlagFalse) {
  const auto record = IOValidationAttributes::create({}, Types{ChecksumTypeMD5}, false);
  EXPECT_EQ(record->attributeSet(), KeySet{md5()});
  EXPECT_FALSE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, ChecksumKeyAmongFileAttributesAlsoGetsSizeKey) {
  const auto record = IOValidationAttributes::create({md5()}, std::nullopt, true);
  EXPECT_EQ(record->attributeSet(), (KeySet{md5(), size()}));
}

TEST(IOValidationAttributes, NoChecksumKeysNeverGetSizeKey) {
  for (bool force : {true, false}) {
    EXPECT_EQ(IOValidationAttributes::create({kModificationDate}, Types{}, force)->attributeSet(),
              KeySet{kModificationDate});
    EXPECT_EQ(
        IOValidationAttributes::create({kModificationDate}, std::nullopt, force)->attributeSet(),
        KeySet{kModificationDate});
    EXPECT_TRUE(IOValidationAttributes::create(Types{}, force)->attributeSet().empty());
    EXPECT_EQ(IOValidationAttributes::create(KeySet{kModificationDate}, force)->attributeSet(),
              KeySet{kModificationDate});
  }
}

TEST(IOValidationAttributes, FileAttributesDuplicatesCollapseAndUniteWithAlgorithms) {
  const auto record =
      IOValidationAttributes::create({kModificationDate, kModificationDate, md5()},
                                     Types{ChecksumTypeSHA256, ChecksumTypeMD5}, false);
  EXPECT_EQ(record->attributeSet(), (KeySet{kModificationDate, md5(), sha256()}));
}

TEST(IOValidationAttributes, AlgorithmsOnlyFactoryMatchesFullFactory) {
  const auto record = IOValidationAttributes::create(Types{ChecksumTypeSHA256}, true);
  EXPECT_EQ(record->attributeSet(), (KeySet{sha256(), size()}));
}

TEST(IOValidationAttributes, AttributeSetFactoryAppliesSizeRule) {
  EXPECT_EQ(IOValidationAttributes::create(KeySet{md5()}, true)->attributeSet(),
            (KeySet{md5(), size()}));
  EXPECT_EQ(IOValidationAttributes::create(KeySet{md5()}, false)->attributeSet(), KeySet{md5()});
}

TEST(IOValidationAttributesDeathTest, FactoryWithCombinedAlgorithmIsFatal) {
  EXPECT_DEATH((void)IOValidationAttributes::create(Types{ChecksumType(3)}, true),
               "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

// --- accessors ---------------------------------------------------------------------------------

TEST(IOValidationAttributes, SettingChecksumAttributesReplacesChecksumKeysOnly) {
  const auto record =
      IOValidationAttributes::create(KeySet{md5(), kModificationDate, size()}, true);
  record->setChecksumAttributes(Types{ChecksumTypeSHA256});
  EXPECT_EQ(record->attributeSet(), (KeySet{sha256(), kModificationDate, size()}));
  record->setChecksumAttributes(std::nullopt);
  EXPECT_EQ(record->attributeSet(), (KeySet{kModificationDate, size()}));
}

TEST(IOValidationAttributes, SettingEmptyChecksumAttributesOnlyRemovesChecksumKeys) {
  const auto record = IOValidationAttributes::create(KeySet{md5(), kModificationDate}, true);
  record->setChecksumAttributes(Types{});
  EXPECT_EQ(record->attributeSet(), (KeySet{kModificationDate, size()}));
}

TEST(IOValidationAttributes, SettingChecksumAttributesAddsSizeOnlyWhenRequired) {
  const auto record = IOValidationAttributes::create(KeySet{kModificationDate}, false);
  record->setChecksumAttributes(Types{ChecksumTypeC4});
  EXPECT_EQ(record->attributeSet(), (KeySet{kModificationDate, Key::c4Checksum()}));
  record->setChecksumsRequireMatchingSize(true);
  record->setChecksumAttributes(Types{ChecksumTypeC4, ChecksumTypeMD5});
  EXPECT_EQ(record->attributeSet(), (KeySet{kModificationDate, Key::c4Checksum(), md5(), size()}));
}

TEST(IOValidationAttributesDeathTest, SettingChecksumAttributesWithZeroIsFatal) {
  const auto record = IOValidationAttributes::create(KeySet{}, true);
  EXPECT_DEATH(record->setChecksumAttributes(Types{ChecksumTypeNone}),
               "ChecksumType[^\n]*[^0-9]0([^0-9]|$)");
}

TEST(IOValidationAttributes, SettingFileAttributesDropsChecksumKeys) {
  const auto record = IOValidationAttributes::create({}, Types{ChecksumTypeMD5}, true);
  record->setFileAttributes({kModificationDate});
  EXPECT_EQ(record->attributeSet(), KeySet{kModificationDate});
  EXPECT_EQ(record->checksumAttributes(), std::nullopt);
}

TEST(IOValidationAttributes, SettingFileAttributesAppliesSizeRule) {
  const auto record = IOValidationAttributes::create(KeySet{}, true);
  record->setFileAttributes({sha256(), sha256()});
  EXPECT_EQ(record->attributeSet(), (KeySet{sha256(), size()}));
}

TEST(IOValidationAttributes, ChecksumAttributesWithoutChecksumKeysIsAbsent) {
  const auto record = IOValidationAttributes::create(KeySet{size(), kModificationDate}, true);
  EXPECT_EQ(record->checksumAttributes(), std::nullopt);
  EXPECT_EQ(IOValidationAttributes::create(KeySet{}, true)->checksumAttributes(), std::nullopt);
}

TEST(IOValidationAttributes, ChecksumAttributesListsRepresentedAlgorithms) {
  const auto record =
      IOValidationAttributes::create({}, Types{ChecksumTypeMD5, ChecksumTypeC4}, true);
  const auto algorithms = record->checksumAttributes();
  ASSERT_TRUE(algorithms.has_value());
  EXPECT_THAT(*algorithms, UnorderedElementsAre(ChecksumTypeMD5, ChecksumTypeC4));
}

TEST(IOValidationAttributes, FileAttributesAndCombinedAttributesListWholeSet) {
  const auto record =
      IOValidationAttributes::create({kModificationDate}, Types{ChecksumTypeMD5}, true);
  EXPECT_THAT(record->fileAttributes(), UnorderedElementsAre(kModificationDate, md5(), size()));
  EXPECT_THAT(record->combinedAttributes(), UnorderedElementsAre(kModificationDate, md5(), size()));
}

TEST(IOValidationAttributes, SettingAttributeSetAppliesSizeRuleWithCurrentFlag) {
  const auto record = IOValidationAttributes::create(KeySet{}, false);
  record->setAttributeSet(KeySet{md5()});
  EXPECT_EQ(record->attributeSet(), KeySet{md5()});
  record->setChecksumsRequireMatchingSize(true);
  record->setAttributeSet(KeySet{md5()});
  EXPECT_EQ(record->attributeSet(), (KeySet{md5(), size()}));
}

TEST(IOValidationAttributes, SettingFlagDoesNotRevisitSet) {
  const auto record = IOValidationAttributes::create(KeySet{md5()}, false);
  record->setChecksumsRequireMatchingSize(true);
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
  EXPECT_EQ(record->attributeSet(), KeySet{md5()});
  const auto forced = IOValidationAttributes::create(KeySet{md5()}, true);
  forced->setChecksumsRequireMatchingSize(false);
  EXPECT_EQ(forced->attributeSet(), (KeySet{md5(), size()}));
}

TEST(IOValidationAttributes, ModifyAttributeSetWritesBackThroughSetter) {
  const auto record = IOValidationAttributes::create(KeySet{kModificationDate}, true);
  record->modifyAttributeSet([](KeySet& set) { set.insert(Key::xxhash64Checksum()); });
  EXPECT_EQ(record->attributeSet(), (KeySet{kModificationDate, Key::xxhash64Checksum(), size()}));
  // The callback runs outside the record's queue, so it may read the record itself.
  record->modifyAttributeSet([&record](KeySet& set) {
    EXPECT_EQ(record->attributeSet(), set);
    set.erase(kModificationDate);
  });
  EXPECT_EQ(record->attributeSet(), (KeySet{Key::xxhash64Checksum(), size()}));
}

// --- merging -----------------------------------------------------------------------------------

TEST(IOValidationAttributes, MergingFlagFalseMD5WithFlagTrueEmptyGivesSizeAndLeavesInputs) {
  const auto a = IOValidationAttributes::create(KeySet{md5()}, false);
  const auto b = IOValidationAttributes::create(KeySet{}, true);
  const auto merged = a->mergedAttributes(*b);
  EXPECT_TRUE(merged->checksumsRequireMatchingSize());
  EXPECT_EQ(merged->attributeSet(), (KeySet{md5(), size()}));
  EXPECT_NE(merged, a);
  EXPECT_FALSE(a->checksumsRequireMatchingSize());
  EXPECT_EQ(a->attributeSet(), KeySet{md5()});
  EXPECT_TRUE(b->checksumsRequireMatchingSize());
  EXPECT_TRUE(b->attributeSet().empty());
}

TEST(IOValidationAttributes, MergingTwoFlagFalseRecordsUnitesWithoutSize) {
  const auto a = IOValidationAttributes::create(KeySet{md5()}, false);
  const auto b = IOValidationAttributes::create(KeySet{kModificationDate}, false);
  const auto merged = b->mergedAttributes(*a);
  EXPECT_FALSE(merged->checksumsRequireMatchingSize());
  EXPECT_EQ(merged->attributeSet(), (KeySet{md5(), kModificationDate}));
}

TEST(IOValidationAttributes, MergingRecordWithItselfCopiesIt) {
  const auto a = IOValidationAttributes::create(KeySet{kModificationDate}, true);
  const auto merged = a->mergedAttributes(*a);
  EXPECT_EQ(merged->attributeSet(), KeySet{kModificationDate});
  EXPECT_TRUE(merged->checksumsRequireMatchingSize());
}

// --- serialisation -----------------------------------------------------------------------------

TEST(IOValidationAttributes, EncodedFormHasExactlyTwoKeys) {
  const auto record =
      IOValidationAttributes::create({kModificationDate}, Types{ChecksumTypeMD5}, true);
  const json encoded = record->encode();
  ASSERT_TRUE(encoded.is_object());
  EXPECT_EQ(encoded.size(), 2u);
  ASSERT_TRUE(encoded.contains("fileAttributes"));
  ASSERT_TRUE(encoded.contains("forceChecksumSizeComparison"));
  EXPECT_FALSE(encoded.contains("checksumAttributes"));
  EXPECT_THAT(encoded["fileAttributes"].get<std::vector<std::string>>(),
              UnorderedElementsAre("NSFileModificationDate", "md5Checksum", "NSFileSize"));
  EXPECT_EQ(encoded["forceChecksumSizeComparison"], json(true));
  EXPECT_EQ(json(*record), encoded);
}

TEST(IOValidationAttributes, EncodeThenDecodeKeepsSetAndFlag) {
  for (bool force : {true, false}) {
    const auto record = IOValidationAttributes::create(
        {kModificationDate, Key("custom")}, Types{ChecksumTypeSHA256, ChecksumTypeC4}, force);
    const auto decoded = IOValidationAttributes::fromJSON(record->encode());
    EXPECT_EQ(decoded->attributeSet(), record->attributeSet());
    EXPECT_EQ(decoded->checksumsRequireMatchingSize(), force);
  }
}

TEST(IOValidationAttributes, EncodeThenDecodeThroughTextAndCBOR) {
  const auto record = IOValidationAttributes::create({size()}, Types{ChecksumTypeXXHash64}, false);
  const auto fromText = IOValidationAttributes::fromJSON(json::parse(record->encode().dump()));
  const auto fromCBOR = IOValidationAttributes::fromJSON(json::from_cbor(json::to_cbor(*record)));
  EXPECT_EQ(fromText->attributeSet(), (KeySet{size(), Key::xxhash64Checksum()}));
  EXPECT_FALSE(fromText->checksumsRequireMatchingSize());
  EXPECT_EQ(fromCBOR->attributeSet(), fromText->attributeSet());
  EXPECT_FALSE(fromCBOR->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, DecodingListWithChecksumAttributesAndForceAddsKeysAndSize) {
  const auto record = IOValidationAttributes::fromJSON(json::parse(R"({
    "fileAttributes": ["NSFileModificationDate", "NSFilePosixPermissions"],
    "checksumAttributes": [1, 16],
    "forceChecksumSizeComparison": true
  })"));
  EXPECT_EQ(record->attributeSet(),
            (KeySet{kModificationDate, Key("NSFilePosixPermissions"), md5(), sha256(), size()}));
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, DecodingEmptyObjectGivesEmptySetAndFlagTrue) {
  const auto record = IOValidationAttributes::fromJSON(json::object());
  EXPECT_TRUE(record->attributeSet().empty());
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, DecodingWithoutFlagKeepsFlagTrueButSkipsSizeRule) {
  const auto record = IOValidationAttributes::fromJSON(json::parse(R"({
    "fileAttributes": ["md5Checksum"], "checksumAttributes": [4]
  })"));
  EXPECT_EQ(record->attributeSet(), (KeySet{md5(), Key::crc32Checksum()}));
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
  // The flag is in force for later writes.
  record->setAttributeSet(record->attributeSet());
  EXPECT_EQ(record->attributeSet(), (KeySet{md5(), Key::crc32Checksum(), size()}));
}

TEST(IOValidationAttributes, DecodingFlagOfWrongTypeIsIgnored) {
  const auto record = IOValidationAttributes::fromJSON(json::parse(R"({
    "fileAttributes": ["md5Checksum"], "forceChecksumSizeComparison": "no"
  })"));
  EXPECT_EQ(record->attributeSet(), KeySet{md5()});
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, DecodingFlagFalseKeepsSetWithoutSize) {
  const auto record = IOValidationAttributes::fromJSON(json::parse(R"({
    "fileAttributes": ["md5Checksum"], "forceChecksumSizeComparison": false
  })"));
  EXPECT_EQ(record->attributeSet(), KeySet{md5()});
  EXPECT_FALSE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, DecodingFileAttributesOfWrongTypeGivesEmptySet) {
  for (const char* value :
       {R"("md5Checksum")", "5", "null", R"({"a": 1})", R"(["md5Checksum", 5])"}) {
    const auto record = IOValidationAttributes::fromJSON(json::parse(
        std::string(R"({"forceChecksumSizeComparison": false, "fileAttributes": )") + value + "}"));
    EXPECT_TRUE(record->attributeSet().empty()) << value;
    EXPECT_FALSE(record->checksumsRequireMatchingSize()) << value;
  }
}

TEST(IOValidationAttributes, DecodingChecksumAttributesOfWrongTypeIsIgnored) {
  for (const char* value : {R"("1")", "1", R"([1, "16"])", "[1, -16]", "[1.5]", "null"}) {
    const auto record = IOValidationAttributes::fromJSON(
        json::parse(std::string(R"({"fileAttributes": ["NSFileSize"], "checksumAttributes": )") +
                    value + R"(, "forceChecksumSizeComparison": true})"));
    EXPECT_EQ(record->attributeSet(), KeySet{size()}) << value;
  }
}

TEST(IOValidationAttributes, DecodingEmptyChecksumAttributesAddsNothing) {
  const auto record = IOValidationAttributes::fromJSON(
      json::parse(R"({"checksumAttributes": [], "forceChecksumSizeComparison": true})"));
  EXPECT_TRUE(record->attributeSet().empty());
}

TEST(IOValidationAttributes, DecodingIgnoresExtraKeys) {
  const auto record = IOValidationAttributes::fromJSON(json::parse(R"({
    "fileAttributes": ["sha1Checksum"], "forceChecksumSizeComparison": true,
    "version": 7, "comment": "hand written", "attributeSet": ["NSFileModificationDate"]
  })"));
  EXPECT_EQ(record->attributeSet(), (KeySet{Key::sha1Checksum(), size()}));
}

TEST(IOValidationAttributes, DecodingNonObjectIsTypeMismatch) {
  for (const json& document : {json::array(), json(5), json("text"), json(nullptr), json(true)}) {
    try {
      (void)IOValidationAttributes::fromJSON(document);
      ADD_FAILURE() << "decoded " << document.dump();
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch) << document.dump();
    }
  }
}

// A checksum number names an algorithm: one that is not a single flag stops the process, as it
// does in the factories, even beside valid numbers.
TEST(IOValidationAttributesDeathTest, DecodingChecksumNumberThatIsNoSingleFlagIsFatal) {
  const std::pair<const char*, const char*> cases[] = {
      {"[3]", "3"}, {"[0]", "0"}, {"[1024]", "1024"}, {"[1, 3]", "3"}, {"[16, 1, 96]", "96"}};
  for (const auto& [numbers, raw] : cases) {
    SCOPED_TRACE(numbers);
    const json document = json::parse(std::string(R"({"checksumAttributes": )") + numbers +
                                      R"(, "forceChecksumSizeComparison": true})");
    EXPECT_DEATH((void)IOValidationAttributes::fromJSON(document),
                 std::string("ChecksumType[^\n]*[^0-9]") + raw + "([^0-9]|$)");
  }
}

TEST(IOValidationAttributesDeathTest, DecodingThroughCBORIsFatalToo) {
  const json document = json::parse(R"({"checksumAttributes": [3]})");
  EXPECT_DEATH((void)IOValidationAttributes::fromJSON(json::from_cbor(json::to_cbor(document))),
               "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

// The diagnostic is the one line every fatal programming error prints.
TEST(IOValidationAttributesDeathTest, DecodingFatalErrorPrintsOneLineNamingTypeAndValue) {
  const json document = json::parse(R"({"checksumAttributes": [1024]})");
  EXPECT_DEATH((void)IOValidationAttributes::fromJSON(document),
               "^Fatal error: ChecksumType: [^\n]*\\(raw value 1024\\)\n$");
}

// --- decoding documents from outside -------------------------------------------------------------

// The error fromUntrustedJSON reports for `text`; fails the test if it decodes.
DecodingError untrustedError(const std::string& text) {
  std::optional<DecodingError> error;
  const auto record = IOValidationAttributes::fromUntrustedJSON(json::parse(text), &error);
  EXPECT_EQ(record, nullptr) << text;
  EXPECT_TRUE(error.has_value()) << text;
  return error.value_or(DecodingError(DecodingError::Kind::keyNotFound, "<none>", ""));
}

TEST(IOValidationAttributes, UntrustedDecodingReportsChecksumNumbersThatAreNoSingleFlag) {
  for (const char* numbers :
       {"[3]", "[0]", "[1024]", "[1, 3]", "[-16]", "[16, 18446744073709551615]"}) {
    const DecodingError error = untrustedError(std::string(R"({"checksumAttributes": )") + numbers +
                                               R"(, "forceChecksumSizeComparison": true})");
    EXPECT_EQ(error.kind(), DecodingError::Kind::dataCorrupted) << numbers;
    EXPECT_EQ(error.key(), "checksumAttributes") << numbers;
  }
  const DecodingError error = untrustedError(R"({"checksumAttributes": [1, 3]})");
  EXPECT_NE(std::string(error.what()).find(" 3,"), std::string::npos) << error.what();
}

TEST(IOValidationAttributes, UntrustedDecodingReportsValuesOfWrongType) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"fileAttributes": "md5Checksum"})", "fileAttributes"},
      {R"({"fileAttributes": ["md5Checksum", 5]})", "fileAttributes"},
      {R"({"fileAttributes": {"a": 1}})", "fileAttributes"},
      {R"({"checksumAttributes": 1})", "checksumAttributes"},
      {R"({"checksumAttributes": [1, "16"]})", "checksumAttributes"},
      {R"({"checksumAttributes": [1.5]})", "checksumAttributes"},
      {R"({"checksumAttributes": [[1]]})", "checksumAttributes"},
      {R"({"forceChecksumSizeComparison": "no"})", "forceChecksumSizeComparison"},
      {R"({"forceChecksumSizeComparison": 1})", "forceChecksumSizeComparison"},
  };
  for (const auto& [text, key] : cases) {
    const DecodingError error = untrustedError(text);
    EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch) << text;
    EXPECT_EQ(error.key(), key) << text;
  }
}

TEST(IOValidationAttributes, UntrustedDecodingReportsNonObjectWithoutThrowing) {
  for (const json& document : {json::array(), json(5), json("text"), json(nullptr), json(true)}) {
    std::optional<DecodingError> error;
    EXPECT_EQ(IOValidationAttributes::fromUntrustedJSON(document, &error), nullptr);
    ASSERT_TRUE(error.has_value()) << document.dump();
    EXPECT_EQ(error->kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(error->key(), "");
  }
}

TEST(IOValidationAttributes, UntrustedDecodingWithoutErrorPointerOnlyReturnsNull) {
  EXPECT_EQ(IOValidationAttributes::fromUntrustedJSON(json::parse(R"({"checksumAttributes": [3]})"),
                                                      nullptr),
            nullptr);
  EXPECT_EQ(IOValidationAttributes::fromUntrustedJSON(json(5), nullptr), nullptr);
  EXPECT_NE(IOValidationAttributes::fromUntrustedJSON(json::object(), nullptr), nullptr);
}

// Well-formed documents decode exactly as fromJSON decodes them; the error is left alone.
TEST(IOValidationAttributes, UntrustedDecodingOfWellFormedDocumentsEqualsDecoding) {
  for (const char* text : {
           R"({})",
           R"({"fileAttributes": ["NSFileModificationDate"], "checksumAttributes": [1, 16],
               "forceChecksumSizeComparison": true})",
           R"({"fileAttributes": ["md5Checksum"], "checksumAttributes": [4]})",
           R"({"fileAttributes": ["md5Checksum"], "forceChecksumSizeComparison": false})",
           R"({"checksumAttributes": [], "forceChecksumSizeComparison": true, "version": 7})",
           R"({"checksumAttributes": [512, 256, 128, 64, 32, 16, 8, 4, 2, 1]})",
       }) {
    const json document = json::parse(text);
    std::optional<DecodingError> error;
    const auto untrusted = IOValidationAttributes::fromUntrustedJSON(document, &error);
    ASSERT_NE(untrusted, nullptr) << text << ": " << (error ? error->what() : "");
    EXPECT_FALSE(error.has_value());
    const auto lenient = IOValidationAttributes::fromJSON(document);
    EXPECT_EQ(untrusted->attributeSet(), lenient->attributeSet()) << text;
    EXPECT_EQ(untrusted->checksumsRequireMatchingSize(), lenient->checksumsRequireMatchingSize())
        << text;
  }
}

TEST(IOValidationAttributes, UntrustedDecodingReadsNullAsAbsent) {
  std::optional<DecodingError> error;
  const auto record = IOValidationAttributes::fromUntrustedJSON(
      json::parse(R"({"fileAttributes": null, "checksumAttributes": null,
                      "forceChecksumSizeComparison": null})"),
      &error);
  ASSERT_NE(record, nullptr);
  EXPECT_TRUE(record->attributeSet().empty());
  EXPECT_TRUE(record->checksumsRequireMatchingSize());
}

TEST(IOValidationAttributes, UntrustedDecodingReadsEncodedRecordsBack) {
  for (bool force : {true, false}) {
    const auto record = IOValidationAttributes::create(
        {kModificationDate, Key("custom")}, Types{ChecksumTypeSHA256, ChecksumTypeC4}, force);
    std::optional<DecodingError> error;
    const auto decoded = IOValidationAttributes::fromUntrustedJSON(
        json::from_cbor(json::to_cbor(record->encode())), &error);
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(decoded->attributeSet(), record->attributeSet());
    EXPECT_EQ(decoded->checksumsRequireMatchingSize(), force);
  }
}

}  // namespace
}  // namespace corvane
