// Known answers for the AES-128-ECB cipher under CorvaneCrypto, checked twice: on the raw
// cipher (no padding) and through the PKCS#7 framing of the public operations, where the key
// bytes are handed over as the key text.
//
// Vector files (tests/data/vectors, origins in SOURCES.md there):
//   - ECBVarKey128.rsp, ECBVarTxt128.rsp, ECBMMT128.rsp, ECBMCT128.rsp: NIST CAVP AESAVS
//     (CAVS 11.1) ECB known-answer, multi-block and Monte Carlo tests;
//   - CBCGFSbox128.rsp, CBCKeySbox128.rsp: AESAVS GFSbox and KeySbox. Every record has IV = 0
//     and one block, so CIPHERTEXT = AES-ECB(KEY, PLAINTEXT);
//   - aes128_ecb_nist_examples.json: NIST SP 800-38A, F.1.1 (ECB-AES128.Encrypt) and F.1.2
//     (ECB-AES128.Decrypt, the same values reversed).
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "corvane/CorvaneCrypto.hpp"
#include "support/Vectors.hpp"
#include "util/Aes128Ecb.hpp"

namespace {

using corvane::Bytes;
using corvane::CorvaneCrypto;
using corvane::detail::Aes128Key;
using corvane::testsupport::hexDecode;
using corvane::testsupport::hexEncode;

struct AesRecord {
  bool encrypt = true;  // from the [ENCRYPT] or [DECRYPT] section
  Bytes key;
  Bytes iv;
  Bytes plaintext;
  Bytes ciphertext;
  std::size_t line = 0;
};

Bytes decodeOrFail(const std::string& hex, std::size_t line) {
  auto bytes = hexDecode(hex);
  if (!bytes) {
    ADD_FAILURE() << "bad hex on line " << line;
    return {};
  }
  return *bytes;
}

// Every COUNT record of an AESAVS .rsp file; a record ends with its CIPHERTEXT or PLAINTEXT,
// whichever comes last in its section.
std::vector<AesRecord> readAesRecords(const std::string& fileName) {
  std::istringstream in(
      corvane::testsupport::readTextFile(corvane::testsupport::vectorFilePath(fileName)));
  std::vector<AesRecord> records;
  bool encrypt = true;
  bool open = false;
  AesRecord record;
  std::string line;
  std::size_t lineNumber = 0;
  auto finish = [&] {
    if (open) records.push_back(record);
    open = false;
  };
  while (std::getline(in, line)) {
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    if (line == "[ENCRYPT]" || line == "[DECRYPT]") {
      finish();
      encrypt = line == "[ENCRYPT]";
      continue;
    }
    const auto equals = line.find(" = ");
    if (equals == std::string::npos) {
      ADD_FAILURE() << fileName << ":" << lineNumber << ": unexpected line " << line;
      continue;
    }
    const std::string name = line.substr(0, equals);
    const std::string value = line.substr(equals + 3);
    if (name == "COUNT") {
      finish();
      record = AesRecord{};
      record.encrypt = encrypt;
      record.line = lineNumber;
      open = true;
    } else if (name == "KEY") {
      record.key = decodeOrFail(value, lineNumber);
    } else if (name == "IV") {
      record.iv = decodeOrFail(value, lineNumber);
    } else if (name == "PLAINTEXT") {
      record.plaintext = decodeOrFail(value, lineNumber);
    } else if (name == "CIPHERTEXT") {
      record.ciphertext = decodeOrFail(value, lineNumber);
    } else {
      ADD_FAILURE() << fileName << ":" << lineNumber << ": unknown field " << name;
    }
  }
  finish();
  return records;
}

Aes128Key keyOf(const Bytes& bytes) {
  Aes128Key key{};
  EXPECT_EQ(bytes.size(), key.size());
  std::copy_n(bytes.begin(), std::min(bytes.size(), key.size()), key.begin());
  return key;
}

std::string keyText(const Bytes& key) { return std::string(key.begin(), key.end()); }

Bytes rawCipher(bool encrypt, const Bytes& key, const Bytes& data) {
  auto result = corvane::detail::aes128Ecb(encrypt, keyOf(key), data, false);
  EXPECT_TRUE(result.has_value());
  return result.value_or(Bytes{});
}

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// One single-pass (known-answer or multi-block) record, both ways where it applies:
// - raw: the record's direction gives the other text;
// - framed: encryption gives the ciphertext followed by one block of padding (0x10 x 16, the
//   encryption of the empty buffer), and decrypting that gives the plaintext back.
void checkRecord(const std::string& file, const AesRecord& r) {
  SCOPED_TRACE(file + ":" + std::to_string(r.line));
  if (r.encrypt) {
    EXPECT_EQ(hexEncode(rawCipher(true, r.key, r.plaintext)), hexEncode(r.ciphertext));
  } else {
    EXPECT_EQ(hexEncode(rawCipher(false, r.key, r.ciphertext)), hexEncode(r.plaintext));
  }
  const std::string key = keyText(r.key);
  const auto padBlock = CorvaneCrypto::aes128EncryptionOfData({}, key, std::nullopt);
  ASSERT_TRUE(padBlock.has_value());
  ASSERT_EQ(padBlock->size(), 16u);
  EXPECT_EQ(hexEncode(*padBlock), hexEncode(rawCipher(true, r.key, Bytes(16, 0x10))));
  const Bytes framed = concat(r.ciphertext, *padBlock);
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData(r.plaintext, key, std::nullopt);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(hexEncode(*sealed), hexEncode(framed));
  const auto opened = CorvaneCrypto::aes128DecryptionOfData(framed, key, std::nullopt);
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(hexEncode(*opened), hexEncode(r.plaintext));
}

void checkFile(const std::string& file, std::size_t expectedRecords) {
  const auto records = readAesRecords(file);
  // Record counts as listed in SOURCES.md, so that a parser slip cannot skip records unnoticed.
  ASSERT_EQ(records.size(), expectedRecords);
  std::size_t encrypting = 0;
  for (const auto& record : records) {
    if (record.encrypt) ++encrypting;
    checkRecord(file, record);
  }
  EXPECT_EQ(encrypting * 2, expectedRecords);
}

TEST(AesKnownAnswer, EcbVarKeyRecordsMatchRawAndFramed) { checkFile("ECBVarKey128.rsp", 256); }

TEST(AesKnownAnswer, EcbVarTxtRecordsMatchRawAndFramed) { checkFile("ECBVarTxt128.rsp", 256); }

TEST(AesKnownAnswer, EcbMultiBlockRecordsMatchRawAndFramed) { checkFile("ECBMMT128.rsp", 20); }

TEST(AesKnownAnswer, GFSboxRecordsMatchRawAndFramed) { checkFile("CBCGFSbox128.rsp", 14); }

TEST(AesKnownAnswer, KeySboxRecordsMatchRawAndFramed) { checkFile("CBCKeySbox128.rsp", 42); }

TEST(AesKnownAnswer, SboxRecordsUseAZeroVector) {
  for (const char* file : {"CBCGFSbox128.rsp", "CBCKeySbox128.rsp"}) {
    for (const auto& record : readAesRecords(file)) {
      EXPECT_EQ(record.iv, Bytes(16, 0)) << file << ":" << record.line;
      EXPECT_EQ(record.plaintext.size(), 16u) << file << ":" << record.line;
    }
  }
}

// AESAVS Monte Carlo: each record is 1000 chained single-block operations under KEY, starting
// from PLAINTEXT (encrypt) or CIPHERTEXT (decrypt).
TEST(AesKnownAnswer, MonteCarloRecordsMatchRawAndFramed) {
  const auto records = readAesRecords("ECBMCT128.rsp");
  ASSERT_EQ(records.size(), 200u);
  for (const auto& r : records) {
    SCOPED_TRACE("ECBMCT128.rsp:" + std::to_string(r.line));
    const Aes128Key key = keyOf(r.key);
    const std::string text = keyText(r.key);
    const auto padBlock = CorvaneCrypto::aes128EncryptionOfData({}, text, std::nullopt);
    ASSERT_TRUE(padBlock.has_value());
    Bytes raw = r.encrypt ? r.plaintext : r.ciphertext;
    Bytes framed = raw;
    for (int i = 0; i < 1000; ++i) {
      raw = corvane::detail::aes128Ecb(r.encrypt, key, raw, false).value_or(Bytes{});
      if (r.encrypt) {
        auto out = CorvaneCrypto::aes128EncryptionOfData(framed, text, std::nullopt);
        ASSERT_TRUE(out.has_value());
        ASSERT_EQ(out->size(), 32u);
        EXPECT_TRUE(std::equal(padBlock->begin(), padBlock->end(), out->begin() + 16));
        framed.assign(out->begin(), out->begin() + 16);
      } else {
        auto out =
            CorvaneCrypto::aes128DecryptionOfData(concat(framed, *padBlock), text, std::nullopt);
        ASSERT_TRUE(out.has_value());
        framed = *out;
      }
    }
    const Bytes& expected = r.encrypt ? r.ciphertext : r.plaintext;
    EXPECT_EQ(hexEncode(raw), hexEncode(expected));
    EXPECT_EQ(hexEncode(framed), hexEncode(expected));
  }
}

// NIST SP 800-38A F.1.1 (encrypt) and F.1.2 (decrypt) over the four blocks, as one message.
TEST(AesKnownAnswer, Sp800_38aEcbExamplesMatchRawAndFramed) {
  const auto document = nlohmann::json::parse(corvane::testsupport::readTextFile(
      corvane::testsupport::vectorFilePath("aes128_ecb_nist_examples.json")));
  const auto& vectors = document.at("vectors");
  ASSERT_EQ(vectors.size(), 1u);
  for (const auto& vector : vectors) {
    AesRecord record;
    record.key = decodeOrFail(vector.at("key_hex").get<std::string>(), 0);
    for (const auto& block : vector.at("plaintext_blocks_hex")) {
      record.plaintext = concat(record.plaintext, decodeOrFail(block.get<std::string>(), 0));
    }
    for (const auto& block : vector.at("ciphertext_blocks_hex")) {
      record.ciphertext = concat(record.ciphertext, decodeOrFail(block.get<std::string>(), 0));
    }
    ASSERT_EQ(record.plaintext.size(), 64u);
    ASSERT_EQ(record.ciphertext.size(), 64u);
    record.encrypt = true;  // F.1.1
    checkRecord("aes128_ecb_nist_examples.json F.1.1", record);
    record.encrypt = false;  // F.1.2
    checkRecord("aes128_ecb_nist_examples.json F.1.2", record);
    // Block by block as well: ECB treats every block alone.
    for (std::size_t b = 0; b < 4; ++b) {
      const Bytes plain(record.plaintext.begin() + 16 * b, record.plaintext.begin() + 16 * (b + 1));
      const Bytes cipher(record.ciphertext.begin() + 16 * b,
                         record.ciphertext.begin() + 16 * (b + 1));
      EXPECT_EQ(hexEncode(rawCipher(true, record.key, plain)), hexEncode(cipher));
      EXPECT_EQ(hexEncode(rawCipher(false, record.key, cipher)), hexEncode(plain));
    }
  }
}

}  // namespace
