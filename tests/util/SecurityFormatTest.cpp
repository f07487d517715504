// SecurityFormat: sealing and unsealing texts and buffers under the carried key text, and the
// JSON record with the keys "ofk" and "fkt".
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "corvane/CorvaneCrypto.hpp"
#include "corvane/Exception.hpp"
#include "corvane/SecurityFormat.hpp"
#include "support/Vectors.hpp"

namespace {

using corvane::Bytes;
using corvane::DecodingError;
using corvane::SecurityFormat;

const std::string kKey = "format key text";

TEST(SecurityFormat, SealedTextUnsealsToTheSameText) {
  const SecurityFormat format(kKey);
  for (const std::string text : {"a", "hello, world", "exactly sixteen!",
                                 "Grüße aus Zürich \xF0\x9F\x94\x92 and more than one block"}) {
    const auto sealed = format.formatSecurityText(text);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_EQ(format.unformatSecurityTextData(*sealed), text);
  }
}

TEST(SecurityFormat, SealedEmptyTextUnsealsToEmptyText) {
  const SecurityFormat format(kKey);
  const auto sealed = format.formatSecurityText("");
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->size(), 16u);
  EXPECT_EQ(format.unformatSecurityTextData(*sealed), std::string());
}

TEST(SecurityFormat, SealingTheSameTextTwiceGivesIdenticalBytes) {
  const SecurityFormat format(kKey);
  const auto first = format.formatSecurityText("sealed twice");
  const auto second = format.formatSecurityText("sealed twice");
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first, second);
  // A second value with the same key text seals the same way.
  EXPECT_EQ(SecurityFormat(kKey).formatSecurityText("sealed twice"), first);
}

TEST(SecurityFormat, SealedOutputIsAMultipleOfSixteenBytes) {
  const SecurityFormat format(kKey);
  for (std::size_t n = 0; n <= 100; ++n) {
    const auto sealedText = format.formatSecurityText(std::string(n, 'x'));
    ASSERT_TRUE(sealedText.has_value());
    EXPECT_EQ(sealedText->size() % 16, 0u) << n;
    EXPECT_GT(sealedText->size(), n);
    const auto sealedData = format.formatSecurityData(Bytes(n, 0xab));
    ASSERT_TRUE(sealedData.has_value());
    EXPECT_EQ(sealedData->size() % 16, 0u) << n;
  }
}

TEST(SecurityFormat, UnsealingMisalignedBytesGivesNil) {
  const SecurityFormat format(kKey);
  const auto sealed = format.formatSecurityText("some text to cut short");
  ASSERT_TRUE(sealed.has_value());
  for (std::size_t cut = 1; cut < sealed->size(); ++cut) {
    if (cut % 16 == 0) continue;
    const Bytes misaligned(sealed->begin(), sealed->begin() + cut);
    EXPECT_FALSE(format.unformatSecurityData(misaligned).has_value()) << cut;
    EXPECT_FALSE(format.unformatSecurityTextData(misaligned).has_value()) << cut;
  }
  Bytes longer = *sealed;
  longer.push_back(0);
  EXPECT_FALSE(format.unformatSecurityData(longer).has_value());
  EXPECT_FALSE(format.unformatSecurityData({}).has_value());
}

TEST(SecurityFormat, UnsealingBrokenPaddingGivesNil) {
  const SecurityFormat format(kKey);
  // A block that decrypts to a last byte of 0x00 (never valid padding), made by sealing 16 bytes
  // ending in 0x00 and dropping the padding block that follows them.
  Bytes plain(16, 0x33);
  plain.back() = 0x00;
  const auto sealed = format.formatSecurityData(plain);
  ASSERT_TRUE(sealed.has_value());
  ASSERT_EQ(sealed->size(), 32u);
  const Bytes firstBlock(sealed->begin(), sealed->begin() + 16);
  EXPECT_FALSE(format.unformatSecurityData(firstBlock).has_value());
  EXPECT_FALSE(format.unformatSecurityTextData(firstBlock).has_value());
}

TEST(SecurityFormat, SealedDataUnsealsToTheSameData) {
  const SecurityFormat format(kKey);
  for (std::size_t n : {0u, 1u, 15u, 16u, 17u, 255u}) {
    const Bytes data = corvane::testsupport::seededRandomBytes(n);
    const auto sealed = format.formatSecurityData(data);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_EQ(format.unformatSecurityData(*sealed), data) << n;
  }
}

TEST(SecurityFormat, SealingIsCorvaneCryptoUnderTheKeyText) {
  const SecurityFormat format(kKey);
  const Bytes data = corvane::testsupport::bytesOf("same as CorvaneCrypto");
  const auto sealed = format.formatSecurityData(data);
  EXPECT_EQ(sealed, corvane::CorvaneCrypto::aes128EncryptionOfData(data, kKey));
  EXPECT_EQ(format.formatSecurityText("same as CorvaneCrypto"), sealed);
  // Bytes sealed elsewhere with the key text open here.
  EXPECT_EQ(format.unformatSecurityData(*sealed), data);
}

TEST(SecurityFormat, UnsealingWithAnotherKeyDoesNotGiveTheData) {
  const auto sealed = SecurityFormat("first key").formatSecurityData(Bytes(20, 0x44));
  ASSERT_TRUE(sealed.has_value());
  EXPECT_NE(SecurityFormat("second key").unformatSecurityData(*sealed), Bytes(20, 0x44));
}

TEST(SecurityFormatDeathTest, UnsealingTextThatIsNotUtf8IsFatal) {
  const SecurityFormat format(kKey);
  const auto sealed = format.formatSecurityData(Bytes{0x61, 0xff, 0x62});
  ASSERT_TRUE(sealed.has_value());
  EXPECT_DEATH(static_cast<void>(format.unformatSecurityTextData(*sealed)),
               "SecurityFormat: unsealed bytes are not valid UTF-8 text");
}

TEST(SecurityFormatDeathTest, UnsealingOverlongOrSurrogateUtf8IsFatal) {
  const SecurityFormat format(kKey);
  for (const Bytes& bad : {Bytes{0xc0, 0xaf}, Bytes{0xed, 0xa0, 0x80},
                           Bytes{0xf4, 0x90, 0x80, 0x80}, Bytes{0xe2, 0x82}}) {
    const auto sealed = format.formatSecurityData(bad);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_DEATH(static_cast<void>(format.unformatSecurityTextData(*sealed)), "not valid UTF-8");
  }
}

// ----- JSON record -----------------------------------------------------------------------------

TEST(SecurityFormat, ArchiveWritesExactlyOfkAndFkt) {
  const nlohmann::json json = SecurityFormat(kKey);
  ASSERT_TRUE(json.is_object());
  EXPECT_EQ(json.size(), 2u);
  ASSERT_TRUE(json.contains("ofk"));
  ASSERT_TRUE(json.contains("fkt"));
  EXPECT_TRUE(json.at("ofk").is_array());
  for (const auto& element : json.at("ofk")) {
    EXPECT_TRUE(element.is_number_unsigned());
    EXPECT_LE(element.get<std::uint64_t>(), 255u);
  }
  EXPECT_EQ(json.at("fkt"), kKey);
}

TEST(SecurityFormat, ArchiveRoundTripsThroughJsonAndCbor) {
  const SecurityFormat format(kKey);
  const nlohmann::json json = format;
  EXPECT_EQ(json.get<SecurityFormat>(), format);
  EXPECT_EQ(nlohmann::json::from_cbor(nlohmann::json::to_cbor(json)).get<SecurityFormat>(), format);
}

TEST(SecurityFormat, DecodedValueSealsWithTheDecodedKeyAndKeepsOfk) {
  const nlohmann::json json = {{"ofk", {1, 2, 3}}, {"fkt", "decoded key"}, {"extra", true}};
  const auto format = json.get<SecurityFormat>();
  const nlohmann::json back = format;
  EXPECT_EQ(back.at("ofk"), nlohmann::json({1, 2, 3}));
  EXPECT_EQ(back.at("fkt"), "decoded key");
  EXPECT_EQ(back.size(), 2u);
  EXPECT_EQ(format.formatSecurityText("x"), SecurityFormat("decoded key").formatSecurityText("x"));
  EXPECT_NE(format, SecurityFormat("decoded key"));  // ofk differs from the default
}

void expectDecodingError(const nlohmann::json& json, DecodingError::Kind kind,
                         const std::string& key) {
  try {
    static_cast<void>(json.get<SecurityFormat>());
    ADD_FAILURE() << "decoded " << json.dump();
  } catch (const DecodingError& error) {
    EXPECT_EQ(error.kind(), kind) << json.dump();
    EXPECT_EQ(error.key(), key) << json.dump();
  }
}

TEST(SecurityFormat, DecodingWithoutBothKeysFails) {
  using Kind = DecodingError::Kind;
  expectDecodingError(nlohmann::json::object(), Kind::keyNotFound, "ofk");
  expectDecodingError({{"fkt", "k"}}, Kind::keyNotFound, "ofk");
  expectDecodingError({{"ofk", nlohmann::json::array()}}, Kind::keyNotFound, "fkt");
}

TEST(SecurityFormat, DecodingWrongTypesFails) {
  using Kind = DecodingError::Kind;
  expectDecodingError({{"ofk", "text"}, {"fkt", "k"}}, Kind::typeMismatch, "ofk");
  expectDecodingError({{"ofk", {1, "2"}}, {"fkt", "k"}}, Kind::typeMismatch, "ofk");
  expectDecodingError({{"ofk", {1, 2}}, {"fkt", 5}}, Kind::typeMismatch, "fkt");
  expectDecodingError({{"ofk", {256}}, {"fkt", "k"}}, Kind::dataCorrupted, "ofk");
  expectDecodingError({{"ofk", {-1}}, {"fkt", "k"}}, Kind::dataCorrupted, "ofk");
  expectDecodingError({{"ofk", {1.5}}, {"fkt", "k"}}, Kind::dataCorrupted, "ofk");
  expectDecodingError(nlohmann::json::array(), Kind::typeMismatch, "");
}

}  // namespace
