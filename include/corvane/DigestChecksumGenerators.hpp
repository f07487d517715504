// The classic checksums: MD5, CRC-32, SHA-1, SHA-256 and SHA-512.
//
// Each follows the streaming protocol of CorvaneChecksumGenerator and prints lowercase
// hexadecimal, two digits per digest byte. CRC-32 is the variant whose register starts at zero
// (not all ones) and whose complemented result is printed with "%02x": without leading zeros
// beyond two digits, so empty input gives "ffffffff" and 0x0000000F gives "0f". Stored checksums
// depend on this short form.
#pragma once

#include <cstdint>
#include <memory>

#include "corvane/CorvaneChecksumGenerator.hpp"

namespace corvane {

namespace detail {
struct DigestContext;  // owns an OpenSSL EVP_MD_CTX
}

class CORVANE_API CorvaneChecksumGeneratorMD5 : public CorvaneStreamingChecksumGenerator {
 public:
  CorvaneChecksumGeneratorMD5();
  ~CorvaneChecksumGeneratorMD5() override;

  // A null or zero-length chunk calls `updateBlock` at once on the caller's thread.
  void addDataToChecksum(SharedBytes data, UpdateBlock updateBlock) override;
  // Absorbs on the caller's thread; no queue, no semaphore, `hasHadNonZero` unchanged.
  // Null is absorbed as zero bytes.
  void updateChecksumWithData(const Bytes* data) override;
  // Finishes on the caller's thread and returns the 32-digit text. Neither tests nor sets
  // isFinialized and does not store checksumValue. Do not mix with the streaming pair.
  std::optional<std::string> finalizeChecksum() override;

  // True once a non-empty chunk was absorbed by the streaming path (not "a non-zero byte").
  bool hasHadNonZero() const noexcept { return hasHadNonZero_.load(); }
  void setHasHadNonZero(bool value) noexcept { hasHadNonZero_.store(value); }

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;

 private:
  std::unique_ptr<detail::DigestContext> md5HashObject_;
  std::atomic<bool> hasHadNonZero_{false};
};

class CORVANE_API CorvaneChecksumGeneratorCRC32 : public CorvaneStreamingChecksumGenerator {
 public:
  CorvaneChecksumGeneratorCRC32();

  // The CRC register (starts at 0; the printed value is its complement).
  std::uint32_t crc32Value() const noexcept { return crc32Value_; }

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;

 private:
  std::uint32_t crc32Value_ = 0;
};

// Shared implementation of the three SHA generators (an EVP digest printed as hex).
class CORVANE_API CorvaneChecksumGeneratorEVPDigest : public CorvaneStreamingChecksumGenerator {
 public:
  enum class Algorithm { sha1, sha256, sha512 };
  ~CorvaneChecksumGeneratorEVPDigest() override;

 protected:
  explicit CorvaneChecksumGeneratorEVPDigest(Algorithm algorithm);

  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;
  // The raw digest bytes (used by C4, which prints them differently).
  Bytes finishDigestBytes();

 private:
  std::unique_ptr<detail::DigestContext> context_;
};

class CORVANE_API CorvaneChecksumGeneratorSHA1 : public CorvaneChecksumGeneratorEVPDigest {
 public:
  CorvaneChecksumGeneratorSHA1();
};

class CORVANE_API CorvaneChecksumGeneratorSHA256 : public CorvaneChecksumGeneratorEVPDigest {
 public:
  CorvaneChecksumGeneratorSHA256();
};

class CORVANE_API CorvaneChecksumGeneratorSHA512 : public CorvaneChecksumGeneratorEVPDigest {
 public:
  CorvaneChecksumGeneratorSHA512();
};

}  // namespace corvane
