#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvane/CorvaneLog.hpp"
#include "corvane/ProtobufChecksums.hpp"
#include "support/ScratchDirectory.hpp"

namespace corvane {
namespace {

// Collects the lines of the default logger for the lifetime of the object.
struct CapturedLog {
  CapturedLog() {
    CorvaneLog::defaultLogger().setSink(
        [this](LogLevel level, const std::string& text) { lines.emplace_back(level, text); });
  }
  ~CapturedLog() { CorvaneLog::defaultLogger().setSink(nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;
  std::vector<std::pair<LogLevel, std::string>> lines;
};

const std::string kWarning1000 =
    "CS-Could not convert to local ChecksumType for type with raw value: 1000";

// The message's field names (proto/cloud_checksum.proto) by algorithm.
const std::map<std::uint64_t, std::string>& fieldNames() {
  static const std::map<std::uint64_t, std::string> names = {
      {2, "xxhash64"}, {1, "md5"},     {16, "sha256"}, {32, "sha512"},      {4, "crc32"},
      {8, "sha1"},     {64, "sr_sum"}, {128, "c4"},    {256, "xxhash3_64"}, {512, "xxhash3_128"}};
  return names;
}

// Runs the installed protoc on `bytes` with --decode and returns its text output, or null when
// protoc could not be run.
std::optional<std::string> decodeWithProtoc(const Bytes& bytes, const std::string& messageName) {
  testsupport::ScratchDirectory scratch;
  const std::string input = scratch.writeFile("message.bin", bytes);
  const std::string protoDir = std::string(CORVANE_TEST_DATA_DIR) + "/../../proto";
  const std::string command = "protoc --decode=" + messageName + " -I '" + protoDir + "' '" +
                              protoDir + "/cloud_checksum.proto' < '" + input + "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return std::nullopt;
  std::string output;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
  const int status = pclose(pipe);
  if (status != 0) {
    ADD_FAILURE() << "protoc failed: " << output;
    return std::nullopt;
  }
  return output;
}

// Splits protoc's text format output ("name: \"value\"" per line) into name -> value.
std::map<std::string, std::string> textFields(const std::string& text) {
  std::map<std::string, std::string> fields;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    const std::size_t colon = line.find(": \"");
    if (colon == std::string::npos || line.back() != '"') {
      ADD_FAILURE() << "unexpected protoc line: " << line;
      continue;
    }
    fields[line.substr(0, colon)] = line.substr(colon + 3, line.size() - colon - 4);
  }
  return fields;
}

TEST(ProtobufChecksums, DeclaredCasesCarryTheFlagValuesAsWireNumbers) {
  const std::vector<std::pair<Cloud_ChecksumType, std::int32_t>> cases = {
      {Cloud_ChecksumType::notSet, 0},       {Cloud_ChecksumType::md5, 1},
      {Cloud_ChecksumType::xxHash64, 2},     {Cloud_ChecksumType::crc32, 4},
      {Cloud_ChecksumType::sha1, 8},         {Cloud_ChecksumType::sha256, 16},
      {Cloud_ChecksumType::sha512, 32},      {Cloud_ChecksumType::srSum, 64},
      {Cloud_ChecksumType::c4, 128},         {Cloud_ChecksumType::xxHash3_64, 256},
      {Cloud_ChecksumType::xxHash3_128, 512}};
  for (const auto& [type, number] : cases) {
    EXPECT_EQ(wireNumber(type), number);
    EXPECT_TRUE(isRecognized(type)) << number;
  }
  for (const std::int32_t number : {3, 1000, 1024, -1, -512}) {
    EXPECT_FALSE(isRecognized(static_cast<Cloud_ChecksumType>(number))) << number;
  }
}

TEST(ProtobufChecksums, NoLocalValueGivesNotSetAndNotSetGivesNothingSilently) {
  EXPECT_EQ(cloudChecksumType(std::nullopt), Cloud_ChecksumType::notSet);
  CapturedLog log;
  EXPECT_FALSE(checksumTypeFromProto(Cloud_ChecksumType::notSet).has_value());
  EXPECT_TRUE(log.lines.empty());
}

TEST(ProtobufChecksums, UnrecognisedNumberGivesNothingAndLogsOneWarning) {
  CapturedLog log;
  EXPECT_FALSE(checksumTypeFromProto(static_cast<Cloud_ChecksumType>(1000)).has_value());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].first, LogLevel::warning);
  EXPECT_EQ(log.lines[0].second, kWarning1000);
}

TEST(ProtobufChecksums, ListAsLocalTypesDropsDuplicatesNotSetAndUnrecognisedNumbers) {
  CapturedLog log;
  const std::vector<Cloud_ChecksumType> proto = {
      Cloud_ChecksumType::md5, Cloud_ChecksumType::md5, Cloud_ChecksumType::notSet,
      static_cast<Cloud_ChecksumType>(1000), Cloud_ChecksumType::xxHash3_128};
  const std::vector<ChecksumType> expected = {ChecksumTypeMD5, ChecksumTypeXXHashH3128};
  EXPECT_EQ(listAsLocalTypes(proto), expected);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].first, LogLevel::warning);
  EXPECT_EQ(log.lines[0].second, kWarning1000);
}

TEST(ProtobufChecksums, ListAsLocalTypesWarnsOncePerUnrecognisedElement) {
  CapturedLog log;
  const std::vector<Cloud_ChecksumType> proto = {
      static_cast<Cloud_ChecksumType>(1000), Cloud_ChecksumType::sha1,
      static_cast<Cloud_ChecksumType>(1000), static_cast<Cloud_ChecksumType>(-3)};
  EXPECT_EQ(listAsLocalTypes(proto), std::vector<ChecksumType>{ChecksumTypeSHA1});
  ASSERT_EQ(log.lines.size(), 3u);
  EXPECT_EQ(log.lines[0].second, kWarning1000);
  EXPECT_EQ(log.lines[1].second, kWarning1000);
  EXPECT_EQ(log.lines[2].second,
            "CS-Could not convert to local ChecksumType for type with raw value: -3");
}

TEST(ProtobufChecksums, ListAsProtoTypesKeepsFirstAppearanceOfEachCase) {
  const std::vector<Cloud_ChecksumType> expected = {Cloud_ChecksumType::sha1,
                                                    Cloud_ChecksumType::md5};
  EXPECT_EQ(listAsProtoTypes({ChecksumTypeSHA1, ChecksumTypeMD5, ChecksumTypeSHA1}), expected);
  EXPECT_TRUE(listAsProtoTypes({}).empty());
}

TEST(ProtobufChecksums, FromLookupSkipsEmptyTextsAndUnsetFieldsReadEmpty) {
  const Cloud_Checksum message(ChecksumLookup{{ChecksumTypeMD5, "ab"}, {ChecksumTypeSHA1, ""}});
  EXPECT_EQ(message.value(ChecksumTypeMD5), "ab");
  EXPECT_EQ(message.value(ChecksumTypeSHA1), "");
  EXPECT_EQ(message.value(ChecksumTypeSHA256), "");
  // Empty and missing are the same on the wire: only the MD5 field is written.
  EXPECT_EQ(message, Cloud_Checksum(ChecksumLookup{{ChecksumTypeMD5, "ab"}}));
  const Bytes expectedWire = {0x12, 0x02, 'a', 'b'};  // field 2, length-delimited, "ab"
  EXPECT_EQ(message.serializeAsBytes(), expectedWire);
}

TEST(ProtobufChecksums, LocalToProtoAndBackGivesEachFlag) {
  CapturedLog log;
  for (const ChecksumType type : ChecksumType::allCases()) {
    const Cloud_ChecksumType proto = cloudChecksumType(type);
    EXPECT_EQ(static_cast<std::uint64_t>(wireNumber(proto)), type.rawValue());
    const std::optional<ChecksumType> back = checksumTypeFromProto(proto);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(*back, type);
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(ProtobufChecksums, EachFlagHasItsOwnField) {
  Cloud_Checksum message;
  for (const ChecksumType type : ChecksumType::allCases()) {
    message.setValue(type, fieldNames().at(type.rawValue()));
  }
  for (const ChecksumType type : ChecksumType::allCases()) {
    EXPECT_EQ(message.value(type), fieldNames().at(type.rawValue()));
  }
}

TEST(ProtobufChecksums, WireBytesFromLookupDecodeWithProtocToTheSameFields) {
  ChecksumLookup lookup = ChecksumType::emptyHashLookup();  // SR Sum maps to "", left out
  lookup[ChecksumTypeSRSum] = "";
  const Cloud_Checksum message(lookup);
  const std::optional<std::string> decoded =
      decodeWithProtoc(message.serializeAsBytes(), "corvane.wire.Cloud_Checksum");
  ASSERT_TRUE(decoded.has_value());

  std::map<std::string, std::string> expected;
  for (const auto& [type, text] : lookup) {
    if (!text.empty()) expected[fieldNames().at(type.rawValue())] = text;
  }
  EXPECT_EQ(expected.size(), 9u);
  EXPECT_EQ(textFields(*decoded), expected);

  // protoc prints fields in field-number order, which is the declaration order.
  EXPECT_EQ(decoded->rfind("xxhash64: \"ef46db3751d8e999\"\nmd5: ", 0), 0u) << *decoded;
}

TEST(ProtobufChecksums, WireBytesParseBackToTheSameMessage) {
  const Cloud_Checksum message(ChecksumLookup{{ChecksumTypeC4, ChecksumTypeC4.emptyChecksumValue()},
                                              {ChecksumTypeCRC32, "1c291ca3"}});
  const std::optional<Cloud_Checksum> parsed =
      Cloud_Checksum::parseFromBytes(message.serializeAsBytes());
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(*parsed, message);
  EXPECT_EQ(parsed->value(ChecksumTypeCRC32), "1c291ca3");
}

TEST(ProtobufChecksums, MalformedBytesGiveNoMessage) {
  // Field 2 announces five bytes but holds one.
  EXPECT_FALSE(Cloud_Checksum::parseFromBytes(Bytes{0x12, 0x05, 'a'}).has_value());
  EXPECT_FALSE(parseChecksumTypeList(Bytes{0x0A, 0x04, 0x01}).has_value());
  ASSERT_TRUE(Cloud_Checksum::parseFromBytes(Bytes{}).has_value());
  EXPECT_EQ(*Cloud_Checksum::parseFromBytes(Bytes{}), Cloud_Checksum());
}

TEST(ProtobufChecksums, ParserKeepsUnrecognisedEnumNumbersAndEachWarnsOnce) {
  // Cloud_ChecksumTypeList, field 1 packed: 1, 1000 (0xE8 0x07), 0, 512 (0x80 0x04), 1000.
  const Bytes packed = {0x0A, 0x08, 0x01, 0xE8, 0x07, 0x00, 0x80, 0x04, 0xE8, 0x07};
  const std::optional<std::vector<Cloud_ChecksumType>> types = parseChecksumTypeList(packed);
  ASSERT_TRUE(types.has_value());
  const std::vector<Cloud_ChecksumType> expected = {
      Cloud_ChecksumType::md5, static_cast<Cloud_ChecksumType>(1000), Cloud_ChecksumType::notSet,
      Cloud_ChecksumType::xxHash3_128, static_cast<Cloud_ChecksumType>(1000)};
  EXPECT_EQ(*types, expected);

  // The same list unpacked (one tag per element) parses alike.
  const Bytes unpacked = {0x08, 0x01, 0x08, 0xE8, 0x07, 0x08, 0x00,
                          0x08, 0x80, 0x04, 0x08, 0xE8, 0x07};
  EXPECT_EQ(parseChecksumTypeList(unpacked), types);

  CapturedLog log;
  const std::vector<ChecksumType> local = listAsLocalTypes(*types);
  EXPECT_EQ(local, (std::vector<ChecksumType>{ChecksumTypeMD5, ChecksumTypeXXHashH3128}));
  ASSERT_EQ(log.lines.size(), 2u);
  for (const auto& [level, text] : log.lines) {
    EXPECT_EQ(level, LogLevel::warning);
    EXPECT_EQ(text, kWarning1000);
  }
}

TEST(ProtobufChecksums, TypeListRoundTripsThroughWireBytesAndProtoc) {
  const std::vector<Cloud_ChecksumType> types = {
      Cloud_ChecksumType::sha256, static_cast<Cloud_ChecksumType>(1000), Cloud_ChecksumType::c4};
  const Bytes bytes = serializeChecksumTypeList(types);
  EXPECT_EQ(parseChecksumTypeList(bytes), types);
  const std::optional<std::string> decoded =
      decodeWithProtoc(bytes, "corvane.wire.Cloud_ChecksumTypeList");
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(*decoded,
            "types: CLOUD_CHECKSUM_TYPE_SHA256\ntypes: 1000\ntypes: CLOUD_CHECKSUM_TYPE_C4\n");
}

TEST(ProtobufChecksumsDeathTest, LocalValueOtherThanASingleFlagIsFatal) {
  EXPECT_DEATH(cloudChecksumType(ChecksumType(3)), "ChecksumType");
  EXPECT_DEATH(cloudChecksumType(ChecksumTypeNone), "ChecksumType");
  EXPECT_DEATH(cloudChecksumType(ChecksumType(1024)), "ChecksumType");
  EXPECT_DEATH(listAsProtoTypes({ChecksumTypeMD5, ChecksumType(6)}), "ChecksumType");
  EXPECT_DEATH(Cloud_Checksum(ChecksumLookup{{ChecksumType(3), "ab"}}), "ChecksumType");
  EXPECT_DEATH(Cloud_Checksum().value(ChecksumType(2048)), "ChecksumType");
}

}  // namespace
}  // namespace corvane
