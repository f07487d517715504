#include "support/References.hpp"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdio>

#include "support/Vectors.hpp"

namespace corvane::testsupport {

namespace {

std::string hex64(std::uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

}  // namespace

Bytes evpDigest(const EVP_MD* md, const Bytes& data) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest.data(), &length, md, nullptr) != 1) {
    ADD_FAILURE() << "EVP_Digest failed";
    return {};
  }
  digest.resize(length);
  return digest;
}

Bytes sha512Digest(const Bytes& data) { return evpDigest(EVP_sha512(), data); }

const std::array<std::uint32_t, 256>& crc32ReferenceTable() {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> entries{};
    for (std::uint32_t n = 0; n < 256; ++n) {
      std::uint32_t value = n;
      for (int bit = 0; bit < 8; ++bit) {
        value = (value & 1) ? 0xEDB88320u ^ (value >> 1) : value >> 1;
      }
      entries[n] = value;
    }
    return entries;
  }();
  return table;
}

std::uint32_t crc32ReferenceRegister(const Bytes& data, std::uint32_t crcRegister) {
  const auto& table = crc32ReferenceTable();
  for (std::uint8_t byte : data) {
    crcRegister = table[(crcRegister ^ byte) & 0xFF] ^ (crcRegister >> 8);
  }
  return crcRegister;
}

std::string crc32Reference(const Bytes& data) {
  char text[16];
  std::snprintf(text, sizeof text, "%02x", static_cast<unsigned>(~crc32ReferenceRegister(data)));
  return text;
}

std::string xxHash64Reference(const Bytes& data) {
  return hex64(XXH64(data.data(), data.size(), 0));
}

std::string xxHash3_64Reference(const Bytes& data) {
  return hex64(XXH3_64bits(data.data(), data.size()));
}

std::string xxHash3_128Reference(const Bytes& data) {
  const XXH128_hash_t hash = XXH3_128bits(data.data(), data.size());
  return hex64(hash.high64) + hex64(hash.low64);
}

std::string c4IdOfNumber(const Bytes& bigEndian) {
  Bytes number = bigEndian;
  std::string digits;
  for (;;) {
    std::size_t first = 0;
    while (first < number.size() && number[first] == 0) ++first;
    if (first == number.size()) break;
    unsigned remainder = 0;
    for (std::size_t i = first; i < number.size(); ++i) {
      const unsigned value = remainder * 256 + number[i];
      number[i] = static_cast<std::uint8_t>(value / 58);
      remainder = value % 58;
    }
    digits.insert(digits.begin(), kC4ReferenceAlphabet[remainder]);
  }
  if (digits.size() < kC4DigitCount) digits.insert(0, kC4DigitCount - digits.size(), '1');
  return "c4" + digits;
}

std::string c4Reference(const Bytes& data) { return c4IdOfNumber(sha512Digest(data)); }

std::string referenceChecksum(ChecksumType type, const Bytes& data) {
  if (type == ChecksumTypeMD5) return hexEncode(evpDigest(EVP_md5(), data));
  if (type == ChecksumTypeXXHash64) return xxHash64Reference(data);
  if (type == ChecksumTypeCRC32) return crc32Reference(data);
  if (type == ChecksumTypeSHA1) return hexEncode(evpDigest(EVP_sha1(), data));
  if (type == ChecksumTypeSHA256) return hexEncode(evpDigest(EVP_sha256(), data));
  if (type == ChecksumTypeSHA512) return hexEncode(sha512Digest(data));
  if (type == ChecksumTypeC4) return c4Reference(data);
  if (type == ChecksumTypeXXHashH364) return xxHash3_64Reference(data);
  if (type == ChecksumTypeXXHashH3128) return xxHash3_128Reference(data);
  ADD_FAILURE() << "no reference for " << describeType(type);
  return {};
}

Bytes hexBytesByHand(const std::string& hex, bool bigEndian) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(
        static_cast<std::uint8_t>(hexDigitValue(hex[i]) * 16 + hexDigitValue(hex[i + 1])));
  }
  if (!bigEndian) {
    std::reverse(bytes.begin(), bytes.end());
  }
  return bytes;
}

Bytes c4BytesByHand(const std::string& c4, bool bigEndian) {
  const std::string alphabet = kC4ReferenceAlphabet;
  Bytes number;  // big-endian, grows at the front
  for (std::size_t i = 2; i < c4.size(); ++i) {
    unsigned carry = static_cast<unsigned>(alphabet.find(c4[i]));
    for (auto it = number.rbegin(); it != number.rend(); ++it) {
      const unsigned value = *it * 58u + carry;
      *it = static_cast<std::uint8_t>(value & 0xff);
      carry = value >> 8;
    }
    while (carry != 0) {
      number.insert(number.begin(), static_cast<std::uint8_t>(carry & 0xff));
      carry >>= 8;
    }
  }
  while (!number.empty() && number.front() == 0) {
    number.erase(number.begin());
  }
  while (number.empty() || number.size() % 4 != 0) {
    number.insert(number.begin(), 0);
  }
  if (!bigEndian) {
    for (std::size_t word = 0; word < number.size(); word += 4) {
      std::reverse(number.begin() + static_cast<std::ptrdiff_t>(word),
                   number.begin() + static_cast<std::ptrdiff_t>(word + 4));
    }
  }
  return number;
}

}  // namespace corvane::testsupport
