// An OpenSSL EVP message-digest context (MD5, SHA-1, SHA-256, SHA-512).
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>

#include "corvane/Bytes.hpp"

namespace corvane::detail {

enum class DigestAlgorithm { md5, sha1, sha256, sha512 };

struct DigestContext {
  explicit DigestContext(DigestAlgorithm algorithm);
  ~DigestContext();
  DigestContext(const DigestContext&) = delete;
  DigestContext& operator=(const DigestContext&) = delete;

  void update(const std::uint8_t* bytes, std::size_t length);
  // Finishes the digest; the context must not be updated afterwards.
  Bytes finish();

  EVP_MD_CTX* context;
};

}  // namespace corvane::detail
