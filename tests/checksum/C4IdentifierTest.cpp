// C4 IDs: the streaming C4 generator (SHA-512 written as 88 base-58 digits behind "c4") and
// CorvaneC4DataUtility, which turns an ID back into the bytes of its number.
//
// Known answers come from tests/data/vectors/c4_id_vectors.json (origin in SOURCES.md beside
// it). Everything else is checked against references written from scratch, with the alphabet
// spelt out rather than taken from the library: IDs from support/References.hpp (SHA-512 from
// OpenSSL EVP, written in base 58), and the bytes of an ID's number from GMP, below.
#include <gmp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "corvane/C4Identifier.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/CorvaneLog.hpp"
#include "corvane/DigestChecksumGenerators.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using testsupport::bytesOf;
using testsupport::c4IdOfNumber;
using testsupport::c4Reference;
using testsupport::hexDecode;
using testsupport::hexEncode;
using testsupport::kC4DigitCount;
using testsupport::kC4ReferenceAlphabet;
using testsupport::sha512Digest;
using testsupport::share;

// C4 ID of empty input, from c4_id_vectors.json ("identify", input "").
constexpr char kEmptyInputId[] =
    "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sFT";

// ----- independent reference: from an ID back to bytes ------------------------------------------

// RAII holder for one GMP integer.
class Mpz {
 public:
  Mpz() { mpz_init(value_); }
  ~Mpz() { mpz_clear(value_); }
  Mpz(const Mpz&) = delete;
  Mpz& operator=(const Mpz&) = delete;
  mpz_ptr get() { return value_; }

 private:
  mpz_t value_;
};

// The bytes CorvaneC4DataUtility gives with storeAsBigEndian true: the number encoded by the 88
// digits as 32-bit words, most significant first, each most significant byte first; leading
// zero words dropped, but at least one word.
Bytes referenceBigEndianWords(const std::string& c4Id) {
  Mpz number;
  for (std::size_t i = 2; i < c4Id.size(); ++i) {
    const std::string alphabet = kC4ReferenceAlphabet;
    const auto position = alphabet.find(c4Id[i]);
    EXPECT_NE(position, std::string::npos) << "not a C4 digit: " << c4Id[i];
    mpz_mul_ui(number.get(), number.get(), 58);
    mpz_add_ui(number.get(), number.get(), static_cast<unsigned long>(position));
  }
  const std::size_t byteCount = (mpz_sizeinbase(number.get(), 2) + 7) / 8;
  Bytes bytes(byteCount);
  std::size_t written = 0;
  if (mpz_sgn(number.get()) != 0) mpz_export(bytes.data(), &written, 1, 1, 1, 0, number.get());
  bytes.resize(written);
  const std::size_t words = std::max<std::size_t>((written + 3) / 4, 1);
  bytes.insert(bytes.begin(), words * 4 - written, 0);
  return bytes;
}

// Each group of four bytes reversed in place; the order of the groups is kept.
Bytes reverseBytesWithinWords(const Bytes& bytes) {
  Bytes reversed = bytes;
  for (std::size_t i = 0; i + 4 <= reversed.size(); i += 4) {
    std::reverse(reversed.begin() + static_cast<std::ptrdiff_t>(i),
                 reversed.begin() + static_cast<std::ptrdiff_t>(i + 4));
  }
  return reversed;
}

// ----- driving the library ------------------------------------------------------------------

std::optional<std::string> libraryC4Id(const Bytes& data) {
  return CorvaneChecksumGenerator::generateDataChecksum(share(data), ChecksumTypeC4);
}

std::optional<std::string> streamedC4Id(const std::vector<SharedBytes>& chunks) {
  return testsupport::checksumOfChunks(ChecksumTypeC4, chunks);
}

// Captures every line sent to the default logger while alive.
class CapturedLog {
 public:
  CapturedLog() {
    CorvaneLog::defaultLogger().setSink([this](LogLevel level, const std::string& text) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(level, text);
    });
  }
  ~CapturedLog() { CorvaneLog::defaultLogger().setSink(nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<std::pair<LogLevel, std::string>> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<LogLevel, std::string>> lines_;
};

std::string invalidCharacterLine(char character) {
  return std::string("C4 calculation encountered invalid character '") + character +
         "'.  Halting C4 calculation";
}

struct IdentifyVector {
  Bytes input;
  std::string c4Id;
};

struct DigestVector {
  std::string digestHex;
  std::string c4Id;
};

const nlohmann::json& c4VectorFile() {
  static const nlohmann::json file = nlohmann::json::parse(
      testsupport::readTextFile(testsupport::vectorFilePath("c4_id_vectors.json")));
  return file;
}

std::vector<IdentifyVector> identifyVectors() {
  std::vector<IdentifyVector> vectors;
  for (const auto& entry : c4VectorFile().at("identify")) {
    const auto input = hexDecode(entry.at("input_hex").get<std::string>());
    EXPECT_TRUE(input.has_value());
    // The UTF-8 and hex forms of each input must agree.
    EXPECT_EQ(*input, bytesOf(entry.at("input_utf8").get<std::string>()));
    vectors.push_back({input.value_or(Bytes{}), entry.at("c4id").get<std::string>()});
  }
  return vectors;
}

std::vector<DigestVector> digestVectors() {
  std::vector<DigestVector> vectors;
  for (const auto& entry : c4VectorFile().at("digest_to_id")) {
    vectors.push_back(
        {entry.at("digest_hex").get<std::string>(), entry.at("c4id").get<std::string>()});
  }
  return vectors;
}

std::string hexOfSha512(const Bytes& data) { return hexEncode(sha512Digest(data)); }

// ----- constants ----------------------------------------------------------------------------

TEST(C4Identifier, AlphabetIsTheBase58AlphabetWithoutLookAlikes) {
  EXPECT_EQ(std::string(kC4CharacterString), kC4ReferenceAlphabet);
  EXPECT_EQ(CorvaneChecksumGeneratorC4::base58String(), kC4ReferenceAlphabet);
  const std::string alphabet = kC4CharacterString;
  EXPECT_EQ(alphabet.size(), 58u);
  for (char lookAlike : {'0', 'O', 'I', 'l'}) {
    EXPECT_EQ(alphabet.find(lookAlike), std::string::npos) << lookAlike;
  }
}

TEST(C4Identifier, IdLengthIsNinety) { EXPECT_EQ(c4IdLength, 90); }

// ----- the generator ------------------------------------------------------------------------

TEST(C4Generator, FactoryGivesAC4GeneratorOfType128) {
  const auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeC4);
  ASSERT_NE(generator, nullptr);
  EXPECT_EQ(generator->checksumType(), ChecksumTypeC4);
  EXPECT_EQ(generator->checksumType().rawValue(), 128u);
  EXPECT_NE(std::dynamic_pointer_cast<CorvaneChecksumGeneratorC4>(generator), nullptr);
  // It streams as the SHA-512 generator does.
  EXPECT_NE(std::dynamic_pointer_cast<CorvaneChecksumGeneratorSHA512>(generator), nullptr);
  EXPECT_FALSE(generator->isFinialized());
  EXPECT_FALSE(generator->checksumValue().has_value());
}

TEST(C4Generator, EmptyInputGivesTheKnownId) {
  EXPECT_EQ(streamedC4Id({}), kEmptyInputId);
  EXPECT_EQ(streamedC4Id({share({})}), kEmptyInputId);
  EXPECT_EQ(libraryC4Id({}), kEmptyInputId);
  EXPECT_EQ(ChecksumTypeC4.emptyChecksumValue(), kEmptyInputId);
  EXPECT_EQ(c4Reference({}), kEmptyInputId);  // the reference agrees with the vector file
}

TEST(C4Generator, IdentifyVectorsGiveTheirIds) {
  const auto vectors = identifyVectors();
  ASSERT_EQ(vectors.size(), 12u);
  std::mt19937_64 random(testsupport::randomTestSeed());
  SCOPED_TRACE(testsupport::describeSeed(testsupport::randomTestSeed()));
  for (const auto& vector : vectors) {
    SCOPED_TRACE("input hex \"" + hexEncode(vector.input) + "\"");
    EXPECT_EQ(c4Reference(vector.input), vector.c4Id);
    EXPECT_EQ(libraryC4Id(vector.input), vector.c4Id);
    EXPECT_EQ(streamedC4Id({share(vector.input)}), vector.c4Id);
    EXPECT_EQ(streamedC4Id(testsupport::byteAtATime(vector.input)), vector.c4Id);
    EXPECT_EQ(streamedC4Id(testsupport::randomSplit(vector.input, random, 7)), vector.c4Id);
    EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexOfSha512(vector.input)),
              vector.c4Id);
  }
}

TEST(C4Generator, DigestVectorsGiveTheirIds) {
  const auto vectors = digestVectors();
  ASSERT_EQ(vectors.size(), 6u);
  for (const auto& vector : vectors) {
    SCOPED_TRACE("digest " + vector.digestHex);
    EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(vector.digestHex), vector.c4Id);
    const auto digest = hexDecode(vector.digestHex);
    ASSERT_TRUE(digest.has_value());
    EXPECT_EQ(c4IdOfNumber(*digest), vector.c4Id);
  }
}

TEST(C4Generator, UpperCaseDigestHexGivesTheSameId) {
  // SHA-512 of "foo" in upper case; its ID from c4_id_vectors.json ("identify", input "foo").
  std::string hex = hexOfSha512(bytesOf("foo"));
  for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(
      CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hex),
      "c45xZeXwMSpqXjpDumcHMA6mhoAmGHkUo7r9WmN2UgSEQzj9KjgseaQdkEJ11fGb5S1WEENcV3q8RFWwEeVpC7Fjk2");
}

TEST(C4Generator, IdsOfRandomDataMatchTheIndependentReference) {
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::size_t> size(0, 100 * 1024);
  std::vector<std::size_t> sizes{0, 1, 111, 112, 127, 128, 129, 100 * 1024};
  for (int i = 0; i < 24; ++i) sizes.push_back(size(random));
  for (std::size_t length : sizes) {
    SCOPED_TRACE("length " + std::to_string(length));
    const Bytes data = testsupport::randomBytes(random, length);
    const std::string expected = c4Reference(data);
    ASSERT_EQ(expected.size(), 90u);
    EXPECT_EQ(libraryC4Id(data), expected);
    EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexOfSha512(data)), expected);
  }
}

TEST(C4Generator, EveryIdIsNinetyCharactersOfTheAlphabetBehindC4) {
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed ^ 0xC4);
  for (int i = 0; i < 200; ++i) {
    const auto id = libraryC4Id(testsupport::randomBytes(random, static_cast<std::size_t>(i)));
    ASSERT_TRUE(id.has_value());
    ASSERT_EQ(id->size(), 90u);
    EXPECT_EQ(id->substr(0, 2), "c4");
    EXPECT_EQ(id->find_first_not_of(kC4ReferenceAlphabet, 2), std::string::npos) << *id;
  }
}

TEST(C4Generator, ShortBase58FormIsLeftFilledWithOnes) {
  // The digest 1: base 58 "2" (digit value 1), left-filled with 87 zero digits "1".
  const std::string one = std::string(127, '0') + "1";
  EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(one), "c4" + std::string(87, '1') + "2");
  // The digest 0 is all fill; from c4_id_vectors.json ("digest_to_id", all zeros).
  EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(std::string(128, '0')),
            "c4" + std::string(88, '1'));
  // 57 is the largest one-digit value ("z"); 58 takes two digits ("21").
  EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(std::string(126, '0') + "39"),
            "c4" + std::string(87, '1') + "z");
  EXPECT_EQ(CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(std::string(126, '0') + "3a"),
            "c4" + std::string(86, '1') + "21");
  // Digests with a few leading zero bytes: the reference fills them the same way.
  std::mt19937_64 random(testsupport::randomTestSeed());
  for (std::size_t zeroBytes : {1u, 4u, 8u, 20u, 40u, 63u}) {
    Bytes digest = testsupport::randomBytes(random, 64);
    std::fill_n(digest.begin(), zeroBytes, 0);
    SCOPED_TRACE("digest " + hexEncode(digest));
    const std::string id = CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexEncode(digest));
    EXPECT_EQ(id, c4IdOfNumber(digest));
    EXPECT_EQ(id.size(), 90u);
    EXPECT_EQ(id[2], '1');
  }
}

TEST(C4Generator, ChecksumValueKeepsTheSha512HexWhileTheCallbackGetsTheId) {
  const Bytes data = bytesOf("foo");
  const auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeC4);
  ASSERT_NE(generator, nullptr);
  std::promise<void> absorbed;
  generator->addDataToChecksum(share(data), [&absorbed] { absorbed.set_value(); });
  ASSERT_EQ(absorbed.get_future().wait_for(60s), std::future_status::ready);
  std::promise<std::optional<std::string>> completed;
  generator->finalizeChecksumWithCompletionBlock(
      [&completed](const std::optional<std::string>& text) { completed.set_value(text); });
  auto future = completed.get_future();
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  // The callback's text: the ID from c4_id_vectors.json ("identify", input "foo").
  EXPECT_EQ(
      future.get(),
      "c45xZeXwMSpqXjpDumcHMA6mhoAmGHkUo7r9WmN2UgSEQzj9KjgseaQdkEJ11fGb5S1WEENcV3q8RFWwEeVpC7Fjk2");
  EXPECT_TRUE(generator->isFinialized());
  // The stored text: SHA-512 of "foo" from OpenSSL, 128 lowercase hex digits.
  EXPECT_EQ(generator->checksumValue(), hexOfSha512(data));
  EXPECT_EQ(generator->checksumValue()->size(), 128u);
}

TEST(C4Generator, ChecksumValueOfEmptyInputIsTheEmptySha512) {
  const auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeC4);
  ASSERT_NE(generator, nullptr);
  EXPECT_EQ(testsupport::runGenerator(generator, {}), kEmptyInputId);
  EXPECT_EQ(generator->checksumValue(), ChecksumTypeSHA512.emptyChecksumValue());
}

TEST(C4Generator, StreamingWithRandomSplitsEqualsOneShot) {
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed + 1);
  std::uniform_int_distribution<std::size_t> size(0, 100 * 1024);
  for (int round = 0; round < 12; ++round) {
    const Bytes data = testsupport::randomBytes(random, round == 0 ? 0 : size(random));
    SCOPED_TRACE("length " + std::to_string(data.size()));
    const auto oneShot = libraryC4Id(data);
    ASSERT_TRUE(oneShot.has_value());
    EXPECT_EQ(*oneShot, c4Reference(data));
    const std::size_t maxChunk = std::max<std::size_t>(data.size() / 5, 1);
    EXPECT_EQ(streamedC4Id(testsupport::randomSplit(data, random, maxChunk)), oneShot);
    EXPECT_EQ(streamedC4Id(testsupport::fixedSplit(data, 128)), oneShot);
  }
}

// ----- CorvaneC4DataUtility -----------------------------------------------------------------

TEST(CorvaneC4DataUtility, BigEndianRoundTripGivesTheSha512Bytes) {
  CapturedLog log;
  for (const auto& vector : identifyVectors()) {
    SCOPED_TRACE(vector.c4Id);
    const Bytes digest = sha512Digest(vector.input);
    ASSERT_NE(digest[0] | digest[1] | digest[2] | digest[3], 0);  // a full 16-word number
    EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData(vector.c4Id, true), digest);
  }
  std::mt19937_64 random(testsupport::randomTestSeed());
  for (int i = 0; i < 50; ++i) {
    const Bytes data = testsupport::randomBytes(random, static_cast<std::size_t>(i) * 37);
    const auto id = libraryC4Id(data);
    ASSERT_TRUE(id.has_value());
    SCOPED_TRACE(*id);
    const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(*id, true);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(*bytes, referenceBigEndianWords(*id));
    // A digest whose top 32 bits are zero (one in 2^32) would come back 4 bytes shorter.
    Bytes digest = sha512Digest(data);
    while (digest.size() > 4 && digest[0] == 0 && digest[1] == 0 && digest[2] == 0 &&
           digest[3] == 0) {
      digest.erase(digest.begin(), digest.begin() + 4);
    }
    EXPECT_EQ(*bytes, digest);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(CorvaneC4DataUtility, LeadingZeroWordsShortenTheBufferByFourBytesEach) {
  std::mt19937_64 random(testsupport::randomTestSeed());
  for (std::size_t zeroWords = 0; zeroWords <= 15; ++zeroWords) {
    Bytes digest = testsupport::randomBytes(random, 64);
    std::fill_n(digest.begin(), zeroWords * 4, 0);
    digest[zeroWords * 4] |= 0x01;  // the first word after the zeros is not zero
    SCOPED_TRACE("digest " + hexEncode(digest));
    const std::string id = CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexEncode(digest));
    const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(id, true);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(bytes->size(), 64 - 4 * zeroWords);
    EXPECT_EQ(*bytes,
              Bytes(digest.begin() + static_cast<std::ptrdiff_t>(zeroWords * 4), digest.end()));
  }
  // A top word that is not zero keeps its leading zero bytes: whole words only are dropped.
  Bytes digest = testsupport::randomBytes(random, 64);
  digest[0] = 0;
  digest[1] = 0;
  digest[2] = 0;
  digest[3] = 1;
  const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(
      CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(hexEncode(digest)), true);
  EXPECT_EQ(bytes, digest);
}

TEST(CorvaneC4DataUtility, SmallNumbersGiveOneWord) {
  // From c4_id_vectors.json ("digest_to_id"): the IDs of the numbers 0x3a, 0xd24, 0x2fa28 and
  // 0xacad10, which fit in one 32-bit word.
  for (const auto& vector : digestVectors()) {
    SCOPED_TRACE(vector.c4Id);
    const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(vector.c4Id, true);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(*bytes, referenceBigEndianWords(vector.c4Id));
  }
  // "c4" and 88 zero digits: the number zero, held in one word.
  EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData("c4" + std::string(88, '1'), true),
            Bytes({0, 0, 0, 0}));
  EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData("c4" + std::string(88, '1'), false),
            Bytes({0, 0, 0, 0}));
  // The digest 0x3a of the vector file: one word.
  EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData("c4" + std::string(86, '1') + "21", true),
            Bytes({0x00, 0x00, 0x00, 0x3a}));
}

TEST(CorvaneC4DataUtility, OverlongUtf8DigitIsNoDigit) {
  // A valid ID with its first digit "1" written as the overlong "\xC0\xB1": 91 bytes that are 91
  // units of their own, so the text is not a C4 ID.
  const std::string id = "c4\xC0\xB1" + std::string(87, '1');
  EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(id, true).has_value());
}

TEST(CorvaneC4DataUtility, LargestIdGivesSeventeenWords) {
  // 88 digits "z" stand for 58^88 - 1, above 2^512: 17 words.
  const std::string id = "c4" + std::string(88, 'z');
  const auto bytes = CorvaneC4DataUtility::convertC4ChecksumToData(id, true);
  ASSERT_TRUE(bytes.has_value());
  EXPECT_EQ(bytes->size(), 68u);
  EXPECT_EQ(*bytes, referenceBigEndianWords(id));
}

TEST(CorvaneC4DataUtility, ArbitraryDigitsConvertLikeTheReference) {
  const std::uint64_t seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<int> digit(0, 57);
  for (int i = 0; i < 100; ++i) {
    std::string id = "c4";
    for (std::size_t d = 0; d < kC4DigitCount; ++d)
      id.push_back(kC4ReferenceAlphabet[digit(random)]);
    // Some with leading zero digits, down to a number of one word.
    if (i % 4 == 1) std::fill_n(id.begin() + 2, static_cast<std::ptrdiff_t>(i % 88), '1');
    SCOPED_TRACE(id);
    const auto big = CorvaneC4DataUtility::convertC4ChecksumToData(id, true);
    ASSERT_TRUE(big.has_value());
    EXPECT_EQ(*big, referenceBigEndianWords(id));
    EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData(id, false),
              reverseBytesWithinWords(*big));
  }
}

TEST(CorvaneC4DataUtility, LittleEndianReversesBytesWithinEachWordOnly) {
  // Constructed: the two-word number 0x01020304_05060708.
  const std::string id =
      CorvaneChecksumGeneratorC4::c4IdFromSHA512Hex(std::string(112, '0') + "0102030405060708");
  EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData(id, true),
            Bytes({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
  EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData(id, false),
            Bytes({0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05}));
  // Full-size IDs: the words still run most significant first.
  for (const auto& vector : identifyVectors()) {
    SCOPED_TRACE(vector.c4Id);
    const auto little = CorvaneC4DataUtility::convertC4ChecksumToData(vector.c4Id, false);
    ASSERT_TRUE(little.has_value());
    EXPECT_EQ(*little, reverseBytesWithinWords(sha512Digest(vector.input)));
  }
}

TEST(CorvaneC4DataUtility, FirstTwoCharactersAreNotExamined) {
  CapturedLog log;
  const std::string digits = std::string(kEmptyInputId).substr(2);
  const auto expected = CorvaneC4DataUtility::convertC4ChecksumToData(kEmptyInputId, true);
  ASSERT_TRUE(expected.has_value());
  EXPECT_EQ(*expected, sha512Digest({}));
  for (const std::string prefix : {"xx", "C4", "00", "lO", "  ", "4c"}) {
    SCOPED_TRACE("prefix \"" + prefix + "\"");
    EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData(prefix + digits, true), expected);
    EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData(prefix + digits, false),
              reverseBytesWithinWords(*expected));
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(CorvaneC4DataUtility, LengthIsCountedInCharactersNotBytes) {
  // Texts are measured in characters (UTF-16 code units), as everywhere in the library. "é" is
  // one character of two UTF-8 bytes: "é4" and 88 digits is 90 characters (91 bytes) and valid.
  CapturedLog log;
  const std::string digits = std::string(kEmptyInputId).substr(2);
  EXPECT_EQ(CorvaneC4DataUtility::convertC4ChecksumToData("\xc3\xa9"
                                                          "4" +
                                                              digits,
                                                          true),
            sha512Digest({}));
  // "c4", 88 digits and "é" is 91 characters: null, silently.
  EXPECT_FALSE(
      CorvaneC4DataUtility::convertC4ChecksumToData("c4" + digits + "\xc3\xa9", true).has_value());
  EXPECT_TRUE(log.lines().empty());
}

TEST(CorvaneC4DataUtility, WrongLengthGivesNullWithoutLogging) {
  CapturedLog log;
  const std::string valid = kEmptyInputId;
  for (const std::string& text : {valid.substr(0, 89), valid + "1", std::string(),
                                  std::string("c4"), valid.substr(1), "1" + valid, valid + valid}) {
    SCOPED_TRACE("length " + std::to_string(text.size()));
    EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(text, true).has_value());
    EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(text, false).has_value());
  }
  // Wrong length is tested before the characters: 89 characters with a "0" log nothing either.
  EXPECT_FALSE(
      CorvaneC4DataUtility::convertC4ChecksumToData("c40" + valid.substr(3, 86), true).has_value());
  EXPECT_TRUE(log.lines().empty());
}

TEST(CorvaneC4DataUtility, ParseErrorVectorsGiveNull) {
  // c4_id_vectors.json "parse_errors": a "0" at position 3 (one log line), and an 89-character
  // text (no log line).
  const auto& errors = c4VectorFile().at("parse_errors");
  ASSERT_EQ(errors.size(), 2u);
  const std::string badCharacter = errors.at(0).at("input").get<std::string>();
  const std::string badLength = errors.at(1).at("input").get<std::string>();
  ASSERT_EQ(badCharacter.size(), 90u);
  ASSERT_EQ(badLength.size(), 89u);
  {
    CapturedLog log;
    EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(badCharacter, true).has_value());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].first, LogLevel::error);
    EXPECT_EQ(lines[0].second, invalidCharacterLine('0'));
  }
  {
    CapturedLog log;
    EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(badLength, true).has_value());
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(CorvaneC4DataUtility, CharacterOutsideTheAlphabetGivesNullAndOneLogLine) {
  const std::string valid = kEmptyInputId;
  for (char bad : {'0', 'O', 'I', 'l', '+', '/', ' ', '-'}) {
    for (std::size_t position : {2u, 3u, 45u, 88u, 89u}) {
      SCOPED_TRACE(std::string("character '") + bad + "' at " + std::to_string(position));
      std::string text = valid;
      text[position] = bad;
      for (bool bigEndian : {true, false}) {
        CapturedLog log;
        EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(text, bigEndian).has_value());
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].first, LogLevel::error);
        EXPECT_EQ(lines[0].second, invalidCharacterLine(bad));
      }
    }
  }
}

TEST(CorvaneC4DataUtility, FirstInvalidCharacterHaltsTheConversion) {
  // Two bad characters: only the first one is reported.
  std::string text = kEmptyInputId;
  text[10] = 'O';
  text[20] = '0';
  CapturedLog log;
  EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(text, true).has_value());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].second, invalidCharacterLine('O'));
}

TEST(CorvaneC4DataUtility, NulCharacterIsNotADigit) {
  std::string text = kEmptyInputId;
  text[30] = '\0';
  CapturedLog log;
  EXPECT_FALSE(CorvaneC4DataUtility::convertC4ChecksumToData(text, true).has_value());
  EXPECT_EQ(log.lines().size(), 1u);
}

}  // namespace
}  // namespace corvane
