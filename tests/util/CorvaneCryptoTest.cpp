// CorvaneCrypto: digests of texts, random bytes, and the AES-128-ECB/PKCS#7 contract (key text
// bytes as the key, vectors ignored, null on any cipher failure).
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>

#include "corvane/CorvaneCrypto.hpp"
#include "support/Vectors.hpp"
#include "util/Aes128Ecb.hpp"

namespace {

using corvane::Bytes;
using corvane::CorvaneCrypto;
using corvane::testsupport::hexEncode;

// An arbitrary key text for tests that do not care about its value.
const std::string kKey = "test key text";

corvane::detail::Aes128Key rawKey(const std::string& text) {
  corvane::detail::Aes128Key key{};
  std::copy_n(text.begin(), std::min<std::size_t>(text.size(), 16), key.begin());
  return key;
}

// PKCS#7 as the reference: the last byte n must be 1..16 and the last n bytes all equal n.
std::optional<Bytes> unpadReference(const Bytes& padded) {
  if (padded.empty() || padded.size() % 16 != 0) return std::nullopt;
  const std::uint8_t n = padded.back();
  if (n < 1 || n > 16) return std::nullopt;
  for (std::size_t i = padded.size() - n; i < padded.size(); ++i) {
    if (padded[i] != n) return std::nullopt;
  }
  return Bytes(padded.begin(), padded.end() - n);
}

// ----- digests ------------------------------------------------------------------------------

// FIPS 180-4 SHA-256 of the empty message (NIST CAVP SHA256ShortMsg.rsp, Len = 0).
TEST(CorvaneCrypto, HashSha256OfEmptyTextIsTheEmptyDigest) {
  EXPECT_EQ(CorvaneCrypto::hashSha256(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

// FIPS 180-4 SHA-512 of the empty message (NIST CAVP SHA512ShortMsg.rsp, Len = 0).
TEST(CorvaneCrypto, HashSha512OfEmptyTextIsTheEmptyDigest) {
  EXPECT_EQ(CorvaneCrypto::hashSha512(""),
            "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
            "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
}

// The "abc" examples of NIST's FIPS 180 example documents (SHA256.pdf, SHA512.pdf).
TEST(CorvaneCrypto, HashesOfAbcMatchTheNistExamples) {
  EXPECT_EQ(CorvaneCrypto::hashSha256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(CorvaneCrypto::hashSha512("abc"),
            "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
            "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
}

// Every byte-oriented message of the NIST CAVP SHAVS short and long message files, as text.
TEST(CorvaneCrypto, HashesMatchTheShavsMessageFiles) {
  for (const char* file : {"SHA256ShortMsg.rsp", "SHA256LongMsg.rsp"}) {
    for (const auto& v : corvane::testsupport::readMessageDigestVectors(
             corvane::testsupport::vectorFilePath(file))) {
      const std::string text(v.message.begin(), v.message.end());
      EXPECT_EQ(CorvaneCrypto::hashSha256(text), v.digest) << file << ":" << v.line;
    }
  }
  for (const char* file : {"SHA512ShortMsg.rsp", "SHA512LongMsg.rsp"}) {
    for (const auto& v : corvane::testsupport::readMessageDigestVectors(
             corvane::testsupport::vectorFilePath(file))) {
      const std::string text(v.message.begin(), v.message.end());
      EXPECT_EQ(CorvaneCrypto::hashSha512(text), v.digest) << file << ":" << v.line;
    }
  }
}

TEST(CorvaneCrypto, HashesAreLowercaseHexOfFullWidth) {
  const std::string text = "Grüße, \xF0\x9F\x94\x92";  // UTF-8 beyond ASCII
  for (const std::string& hex :
       {CorvaneCrypto::hashSha256(text), CorvaneCrypto::hashSha512(text)}) {
    EXPECT_EQ(hex.find_first_not_of("0123456789abcdef"), std::string::npos) << hex;
  }
  EXPECT_EQ(CorvaneCrypto::hashSha256(text).size(), 64u);
  EXPECT_EQ(CorvaneCrypto::hashSha512(text).size(), 128u);
}

// ----- random bytes -------------------------------------------------------------------------

TEST(CorvaneCrypto, RandomDataHasTheRequestedLength) {
  for (std::uint64_t length : {0u, 1u, 15u, 16u, 17u, 1000u, 70000u}) {
    EXPECT_EQ(CorvaneCrypto::randomDataWithLength(length).size(), length);
  }
  EXPECT_EQ(CorvaneCrypto::randomInitializationVector().size(), 16u);
}

TEST(CorvaneCrypto, RandomDataDiffersBetweenCalls) {
  // Two equal 32-byte draws from a working secure generator have chance 2^-256.
  EXPECT_NE(CorvaneCrypto::randomDataWithLength(32), CorvaneCrypto::randomDataWithLength(32));
  EXPECT_NE(CorvaneCrypto::randomInitializationVector(),
            CorvaneCrypto::randomInitializationVector());
  // A long draw is not left zero-filled.
  const Bytes big = CorvaneCrypto::randomDataWithLength(4096);
  EXPECT_NE(big, Bytes(4096, 0));
}

// ----- AES: sizes and determinism -----------------------------------------------------------

TEST(CorvaneCrypto, EncryptingEmptyBufferGivesSixteenBytes) {
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData({}, kKey);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->size(), 16u);
}

TEST(CorvaneCrypto, EncryptingSixteenBytesGivesThirtyTwo) {
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData(Bytes(16, 0x41), kKey);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->size(), 32u);
}

TEST(CorvaneCrypto, EncryptedLengthIsInputRoundedUpToNextBlock) {
  for (std::size_t n = 0; n <= 64; ++n) {
    const auto sealed = CorvaneCrypto::aes128EncryptionOfData(Bytes(n, 0x5a), kKey);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_EQ(sealed->size(), (n / 16 + 1) * 16) << n;
  }
}

TEST(CorvaneCrypto, EncryptingTwiceWithRandomVectorGivesIdenticalResults) {
  const Bytes data = corvane::testsupport::bytesOf("the same buffer, sealed twice");
  const auto first = CorvaneCrypto::aes128EncryptionOfData(data, kKey);
  const auto second = CorvaneCrypto::aes128EncryptionOfData(data, kKey);
  ASSERT_TRUE(first.has_value());
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(*first, *second);
  // And the same as the three-argument form with any vector, or none.
  EXPECT_EQ(CorvaneCrypto::aes128EncryptionOfData(data, kKey, Bytes(16, 0xff)), first);
  EXPECT_EQ(CorvaneCrypto::aes128EncryptionOfData(data, kKey, std::nullopt), first);
}

TEST(CorvaneCrypto, EqualPlaintextBlocksGiveEqualCiphertextBlocks) {
  Bytes data = corvane::testsupport::bytesOf("0123456789abcdef");
  data.insert(data.end(), data.begin(), data.end());
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, kKey);
  ASSERT_TRUE(sealed.has_value());
  ASSERT_EQ(sealed->size(), 48u);
  EXPECT_TRUE(std::equal(sealed->begin(), sealed->begin() + 16, sealed->begin() + 16));
}

// ----- AES: the key text ---------------------------------------------------------------------

TEST(CorvaneCrypto, ThreeCharacterKeyIsZeroPaddedToSixteenBytes) {
  const Bytes data = corvane::testsupport::bytesOf("a short key is zero-filled");
  const std::string padded("abc\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
  const auto withShortKey = CorvaneCrypto::aes128EncryptionOfData(data, "abc");
  const auto withPaddedKey = CorvaneCrypto::aes128EncryptionOfData(data, padded);
  ASSERT_TRUE(withShortKey.has_value());
  EXPECT_EQ(withShortKey, withPaddedKey);
  // And both equal the cipher under the key bytes 'a' 'b' 'c' followed by thirteen zeros.
  corvane::detail::Aes128Key key{};
  key[0] = 'a';
  key[1] = 'b';
  key[2] = 'c';
  EXPECT_EQ(withShortKey, corvane::detail::aes128Ecb(true, key, data, true));
}

TEST(CorvaneCrypto, KeyTextIsUsedAsBytesNotBase64Decoded) {
  // "AAAAAAAAAAAAAAAAAAAAAA==" Base64-decodes to 16 zero bytes; the key is its first 16 characters.
  const std::string base64 = "AAAAAAAAAAAAAAAAAAAAAA==";
  const Bytes data = corvane::testsupport::bytesOf("not decoded");
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, base64);
  EXPECT_EQ(sealed, corvane::detail::aes128Ecb(true, rawKey(base64), data, true));
  EXPECT_NE(sealed, corvane::detail::aes128Ecb(true, corvane::detail::Aes128Key{}, data, true));
}

TEST(CorvaneCrypto, KeyLongerThanSixteenBytesUsesItsFirstSixteen) {
  const Bytes data = corvane::testsupport::bytesOf("long keys are cut");
  const std::string longKey = "0123456789abcdefTHE REST IS IGNORED";
  EXPECT_EQ(CorvaneCrypto::aes128EncryptionOfData(data, longKey),
            CorvaneCrypto::aes128EncryptionOfData(data, longKey.substr(0, 16)));
  // A multi-byte character straddling the 16th byte is cut inside its UTF-8 form.
  const std::string straddling = "0123456789abcde\xC3\xA9";  // "...e" + U+00E9
  EXPECT_EQ(CorvaneCrypto::aes128EncryptionOfData(data, straddling),
            CorvaneCrypto::aes128EncryptionOfData(data, straddling.substr(0, 16)));
}

TEST(CorvaneCrypto, EmptyKeyIsSixteenZeroBytes) {
  const Bytes data = corvane::testsupport::bytesOf("empty key");
  EXPECT_EQ(CorvaneCrypto::aes128EncryptionOfData(data, ""),
            corvane::detail::aes128Ecb(true, corvane::detail::Aes128Key{}, data, true));
}

// ----- AES: vectors and the core operation ---------------------------------------------------

TEST(CorvaneCrypto, DecryptionIgnoresTheVector) {
  const Bytes data = corvane::testsupport::bytesOf("any vector opens it");
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, kKey);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(CorvaneCrypto::aes128DecryptionOfData(*sealed, kKey, std::nullopt), data);
  EXPECT_EQ(CorvaneCrypto::aes128DecryptionOfData(*sealed, kKey, Bytes(16, 0x01)), data);
  EXPECT_EQ(CorvaneCrypto::aes128DecryptionOfData(*sealed, kKey,
                                                  CorvaneCrypto::randomInitializationVector()),
            data);
}

TEST(CorvaneCrypto, AES128OperationEncryptsAndDecryptsWithAnyVectorText) {
  const Bytes data = corvane::testsupport::bytesOf("core operation");
  const auto sealed =
      CorvaneCrypto::AES128Operation(CorvaneCrypto::kOperationEncrypt, data, kKey, std::nullopt);
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed, CorvaneCrypto::aes128EncryptionOfData(data, kKey, std::nullopt));
  EXPECT_EQ(CorvaneCrypto::AES128Operation(0, data, kKey, std::string("vector text")), sealed);
  EXPECT_EQ(CorvaneCrypto::AES128Operation(1, *sealed, kKey, std::string("another")), data);
}

TEST(CorvaneCrypto, AES128OperationWithUnknownOperationGivesNull) {
  const Bytes data(16, 0x11);
  EXPECT_FALSE(CorvaneCrypto::AES128Operation(2, data, kKey, std::nullopt).has_value());
  EXPECT_FALSE(CorvaneCrypto::AES128Operation(0xffffffffu, data, kKey, std::nullopt).has_value());
}

// ----- AES: failures ---------------------------------------------------------------------------

TEST(CorvaneCrypto, DecryptingFifteenBytesGivesNull) {
  EXPECT_FALSE(CorvaneCrypto::aes128DecryptionOfData(Bytes(15, 0x2a), kKey, std::nullopt));
}

TEST(CorvaneCrypto, DecryptingBrokenPaddingGivesNull) {
  // One block whose decryption ends in 0x00, never valid PKCS#7 padding.
  Bytes plain(16, 0x07);
  plain.back() = 0x00;
  const auto block = corvane::detail::aes128Ecb(true, rawKey(kKey), plain, false);
  ASSERT_TRUE(block.has_value());
  EXPECT_FALSE(CorvaneCrypto::aes128DecryptionOfData(*block, kKey, std::nullopt));
}

TEST(CorvaneCrypto, DecryptingEmptyInputGivesNull) {
  EXPECT_FALSE(CorvaneCrypto::aes128DecryptionOfData({}, kKey, std::nullopt));
}

// Every value of every byte of the padding run, for every message length from 0 to 32: the
// result is null exactly when the altered block no longer ends in valid PKCS#7 padding, and the
// shortened plaintext otherwise (for example a final 0x02 0x02 altered to 0x02 0x01).
TEST(CorvaneCrypto, DecryptingEveryCorruptionOfThePaddingGivesNullUnlessStillValid) {
  const auto key = rawKey(kKey);
  std::size_t nulls = 0;
  for (std::size_t length = 0; length <= 32; ++length) {
    const Bytes data = corvane::testsupport::seededRandomBytes(length);
    const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, kKey);
    ASSERT_TRUE(sealed.has_value());
    const auto padded = corvane::detail::aes128Ecb(false, key, *sealed, false);
    ASSERT_TRUE(padded.has_value());
    const std::size_t padLength = padded->size() - length;
    for (std::size_t position = padded->size() - padLength; position < padded->size(); ++position) {
      for (int value = 0; value < 256; ++value) {
        if (value == (*padded)[position]) continue;
        Bytes corrupt = *padded;
        corrupt[position] = static_cast<std::uint8_t>(value);
        const auto ciphertext = corvane::detail::aes128Ecb(true, key, corrupt, false);
        ASSERT_TRUE(ciphertext.has_value());
        const auto opened = CorvaneCrypto::aes128DecryptionOfData(*ciphertext, kKey, std::nullopt);
        const auto expected = unpadReference(corrupt);
        ASSERT_EQ(opened, expected)
            << "length " << length << " position " << position << " value " << value;
        if (!opened) ++nulls;
      }
    }
  }
  EXPECT_GT(nulls, 0u);
}

// Every truncation of sealed messages of 0 to 48 bytes: misaligned and empty ones give null;
// block-aligned ones decrypt to whatever PKCS#7 makes of their last block (nearly always null).
TEST(CorvaneCrypto, DecryptingTruncatedInputGivesNull) {
  const auto key = rawKey(kKey);
  for (std::size_t length = 0; length <= 48; ++length) {
    const Bytes data = corvane::testsupport::seededRandomBytes(length);
    const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, kKey);
    ASSERT_TRUE(sealed.has_value());
    for (std::size_t cut = 0; cut < sealed->size(); ++cut) {
      const Bytes truncated(sealed->begin(), sealed->begin() + cut);
      const auto opened = CorvaneCrypto::aes128DecryptionOfData(truncated, kKey, std::nullopt);
      if (cut % 16 != 0 || cut == 0) {
        EXPECT_FALSE(opened.has_value()) << "length " << length << " cut " << cut;
      } else {
        const auto raw = corvane::detail::aes128Ecb(false, key, truncated, false);
        ASSERT_TRUE(raw.has_value());
        EXPECT_EQ(opened, unpadReference(*raw)) << "length " << length << " cut " << cut;
      }
    }
  }
}

TEST(CorvaneCrypto, DecryptingWithWrongKeyNeverGivesThePlaintext) {
  const Bytes data = corvane::testsupport::bytesOf("sealed under one key");
  const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, "right key");
  ASSERT_TRUE(sealed.has_value());
  EXPECT_NE(CorvaneCrypto::aes128DecryptionOfData(*sealed, "wrong key", std::nullopt), data);
}

// 10,000 random buffers of 0 to 300 bytes under random key texts of 0 to 20 bytes: the sealed
// form is the raw cipher over the PKCS#7-padded buffer, and unsealing gives the buffer back.
TEST(CorvaneCrypto, RandomBuffersRoundTrip) {
  const std::uint64_t seed = corvane::testsupport::randomTestSeed();
  SCOPED_TRACE(corvane::testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::size_t> lengths(0, 300);
  std::uniform_int_distribution<std::size_t> keyLengths(0, 20);
  for (int i = 0; i < 10000; ++i) {
    const Bytes data = corvane::testsupport::randomBytes(random, lengths(random));
    const Bytes keyMaterial = corvane::testsupport::randomBytes(random, keyLengths(random));
    const std::string key(keyMaterial.begin(), keyMaterial.end());
    const auto sealed = CorvaneCrypto::aes128EncryptionOfData(data, key);
    ASSERT_TRUE(sealed.has_value()) << i;
    ASSERT_EQ(sealed->size(), (data.size() / 16 + 1) * 16) << i;
    Bytes padded = data;
    const std::size_t n = 16 - data.size() % 16;
    padded.insert(padded.end(), n, static_cast<std::uint8_t>(n));
    ASSERT_EQ(sealed, corvane::detail::aes128Ecb(true, rawKey(key), padded, false)) << i;
    ASSERT_EQ(CorvaneCrypto::aes128DecryptionOfData(*sealed, key, std::nullopt), data) << i;
  }
}

}  // namespace
