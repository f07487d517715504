// An OpenSSL EVP message-digest context (MD5, SHA-1, SHA-256, SHA-512).
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>

#include "corvane/Bytes.hpp"

namespace corvane::detail {

struct DigestContext {
  // `md` is one of EVP_md5(), EVP_sha1(), EVP_sha256(), EVP_sha512().
  explicit DigestContext(const EVP_MD* md);
  ~DigestContext();
  DigestContext(const DigestContext&) = delete;
  DigestContext& operator=(const DigestContext&) = delete;

  void update(const std::uint8_t* bytes, std::size_t length);
  // Finishes the digest; the context must not be updated afterwards.
  Bytes finish();

  EVP_MD_CTX* context;
};

}  // namespace corvane::detail
