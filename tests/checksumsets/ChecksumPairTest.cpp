// Tests of ChecksumPair equality and its keyed serialisation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "corvane/ChecksumLookup.hpp"
#include "corvane/Exception.hpp"

namespace corvane {
namespace {

using nlohmann::json;

// Decodes `encoded` as a ChecksumPair and returns the DecodingError it must throw.
DecodingError decodingErrorOf(const json& encoded) {
  try {
    (void)encoded.get<ChecksumPair>();
  } catch (const DecodingError& error) {
    return error;
  }
  ADD_FAILURE() << "decoding succeeded: " << encoded.dump();
  return DecodingError(DecodingError::Kind::dataCorrupted, "<none>", "no error");
}

// The SHA-256 of empty input, a realistic value to carry around.
const std::string kSHA256Empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

// --- value behaviour --------------------------------------------------------------------------

TEST(ChecksumPair, ConstructorKeepsBothFields) {
  const ChecksumPair pair("abc", ChecksumTypeSHA1);

  EXPECT_EQ(pair.value, "abc");
  EXPECT_EQ(pair.algorithm, ChecksumTypeSHA1);
}

TEST(ChecksumPair, PairsWithSameTextAndDifferentAlgorithmsAreNotEqual) {
  EXPECT_FALSE(ChecksumPair("abc", ChecksumTypeMD5) == ChecksumPair("abc", ChecksumTypeSHA1));
  EXPECT_TRUE(ChecksumPair("abc", ChecksumTypeMD5) != ChecksumPair("abc", ChecksumTypeSHA1));
}

TEST(ChecksumPair, PairsWithSameAlgorithmAndTextAreEqual) {
  EXPECT_TRUE(ChecksumPair("abc", ChecksumTypeMD5) == ChecksumPair("abc", ChecksumTypeMD5));
  EXPECT_TRUE(ChecksumPair("", ChecksumType{3}) == ChecksumPair("", ChecksumType{3}));
}

TEST(ChecksumPair, TextEqualityIsCaseSensitive) {
  EXPECT_NE(ChecksumPair("ABC", ChecksumTypeMD5), ChecksumPair("abc", ChecksumTypeMD5));
}

// --- encoding ---------------------------------------------------------------------------------

TEST(ChecksumPair, EncodedFormHasExactlyValueAndAlgorithmKeys) {
  const json encoded = ChecksumPair(kSHA256Empty, ChecksumTypeSHA256);

  ASSERT_TRUE(encoded.is_object());
  EXPECT_EQ(encoded.size(), 2u);
  ASSERT_TRUE(encoded.contains("value"));
  ASSERT_TRUE(encoded.contains("algorithm"));
  EXPECT_TRUE(encoded["value"].is_string());
  EXPECT_EQ(encoded["value"], kSHA256Empty);
  EXPECT_TRUE(encoded["algorithm"].is_number_unsigned());
  EXPECT_EQ(encoded["algorithm"].get<std::uint64_t>(), 16u);
  EXPECT_EQ(encoded.dump(), R"({"algorithm":16,"value":")" + kSHA256Empty + R"("})");
}

TEST(ChecksumPair, EncodingReplacesWhateverTheTargetHeld) {
  json encoded = {{"stale", true}, {"value", 7}};

  encoded = ChecksumPair("x", ChecksumTypeMD5);

  EXPECT_EQ(encoded, json::parse(R"({"value":"x","algorithm":1})"));
}

// --- round trips ------------------------------------------------------------------------------

TEST(ChecksumPair, JsonRoundTripGivesEqualPair) {
  for (const ChecksumType type : ChecksumType::allCases()) {
    const ChecksumPair pair(ChecksumType::emptyHashLookup().at(type), type);

    const json encoded = pair;
    EXPECT_EQ(encoded.get<ChecksumPair>(), pair);
    EXPECT_EQ(json::parse(encoded.dump()).get<ChecksumPair>(), pair);
  }
}

TEST(ChecksumPair, RoundTripKeepsAlgorithmNumberAsIs) {
  for (const std::uint64_t raw : {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{1024},
                                  std::numeric_limits<std::uint64_t>::max()}) {
    const ChecksumPair pair("text", ChecksumType{raw});

    const json encoded = pair;
    EXPECT_EQ(encoded["algorithm"].get<std::uint64_t>(), raw);
    EXPECT_EQ(json::parse(encoded.dump()).get<ChecksumPair>(), pair);
  }
}

TEST(ChecksumPair, RoundTripKeepsNonAsciiText) {
  const ChecksumPair pair("caf\xc3\xa9 \xe2\x9c\x93", ChecksumTypeC4);

  EXPECT_EQ(json::parse(json(pair).dump()).get<ChecksumPair>(), pair);
}

TEST(ChecksumPair, CborAndMessagePackRoundTrip) {
  const ChecksumPair pair(kSHA256Empty, ChecksumTypeSHA256);

  EXPECT_EQ(json::from_cbor(json::to_cbor(json(pair))).get<ChecksumPair>(), pair);
  EXPECT_EQ(json::from_msgpack(json::to_msgpack(json(pair))).get<ChecksumPair>(), pair);
}

// --- decoding ---------------------------------------------------------------------------------

TEST(ChecksumPair, DecodesFromJsonText) {
  EXPECT_EQ(json::parse(R"({"value":"ef46db3751d8e999","algorithm":2})").get<ChecksumPair>(),
            ChecksumPair("ef46db3751d8e999", ChecksumTypeXXHash64));
}

TEST(ChecksumPair, DecodeIgnoresExtraKeys) {
  const json encoded =
      json::parse(R"({"algorithm":1,"comment":"copy 2","value":"abc","Value":"ignored","x":[1]})");

  EXPECT_EQ(encoded.get<ChecksumPair>(), ChecksumPair("abc", ChecksumTypeMD5));
}

TEST(ChecksumPair, DecodeWithoutValueThrowsKeyNotFound) {
  const DecodingError error = decodingErrorOf(json::parse(R"({"algorithm":1})"));

  EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(error.key(), "value");
}

TEST(ChecksumPair, DecodeWithoutAlgorithmThrowsKeyNotFound) {
  const DecodingError error = decodingErrorOf(json::parse(R"({"value":"abc"})"));

  EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(error.key(), "algorithm");
}

TEST(ChecksumPair, DecodeMatchesKeysCaseSensitively) {
  const DecodingError error = decodingErrorOf(json::parse(R"({"Value":"abc","Algorithm":1})"));

  EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(error.key(), "value");
}

TEST(ChecksumPair, DecodeOfEmptyObjectReportsValueFirst) {
  const DecodingError error = decodingErrorOf(json::object());

  EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(error.key(), "value");
}

TEST(ChecksumPair, DecodeValueOfWrongTypeThrowsTypeMismatch) {
  for (const char* text : {R"({"value":16,"algorithm":1})", R"({"value":null,"algorithm":1})",
                           R"({"value":["abc"],"algorithm":1})", R"({"value":true,"algorithm":1})",
                           R"({"value":{"v":"abc"},"algorithm":1})"}) {
    SCOPED_TRACE(text);
    const DecodingError error = decodingErrorOf(json::parse(text));

    EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(error.key(), "value");
  }
}

TEST(ChecksumPair, DecodeAlgorithmOfWrongTypeThrowsTypeMismatch) {
  for (const char* text :
       {R"({"value":"abc","algorithm":"16"})", R"({"value":"abc","algorithm":-1})",
        R"({"value":"abc","algorithm":1.5})", R"({"value":"abc","algorithm":null})",
        R"({"value":"abc","algorithm":true})", R"({"value":"abc","algorithm":[16]})",
        R"({"value":"abc","algorithm":{"rawValue":16}})"}) {
    SCOPED_TRACE(text);
    const DecodingError error = decodingErrorOf(json::parse(text));

    EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(error.key(), "algorithm");
  }
}

TEST(ChecksumPair, DecodeOfValueWithWrongTypeWinsOverMissingAlgorithm) {
  const DecodingError error = decodingErrorOf(json::parse(R"({"value":1})"));

  EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
  EXPECT_EQ(error.key(), "value");
}

TEST(ChecksumPair, DecodeOfNonObjectThrowsTypeMismatch) {
  for (const json& encoded : {json(nullptr), json("abc"), json(16), json::array({"abc", 16})}) {
    SCOPED_TRACE(encoded.dump());
    const DecodingError error = decodingErrorOf(encoded);

    EXPECT_EQ(error.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(error.key(), "");
  }
}

}  // namespace
}  // namespace corvane
