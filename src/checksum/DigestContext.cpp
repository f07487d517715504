#include "checksum/DigestContext.hpp"

#include "util/Fatal.hpp"

namespace corvane::detail {

namespace {

// Fetched once and kept for the life of the process: initialising a context with EVP_sha256()
// and friends would look the implementation up again for every generator.
const EVP_MD* fetchedDigest(DigestAlgorithm algorithm) {
  static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static const EVP_MD* const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  static const EVP_MD* const sha512 = EVP_MD_fetch(nullptr, "SHA512", nullptr);
  switch (algorithm) {
    case DigestAlgorithm::md5:
      return md5;
    case DigestAlgorithm::sha1:
      return sha1;
    case DigestAlgorithm::sha256:
      return sha256;
    case DigestAlgorithm::sha512:
      return sha512;
  }
  return nullptr;
}

}  // namespace

DigestContext::DigestContext(DigestAlgorithm algorithm) : context(EVP_MD_CTX_new()) {
  const EVP_MD* md = fetchedDigest(algorithm);
  // The digests cannot fail on any input; a failing OpenSSL is a broken installation.
  if (md == nullptr || context == nullptr || EVP_DigestInit_ex(context, md, nullptr) != 1) {
    fatalError("OpenSSL could not initialise a message digest");
  }
}

DigestContext::~DigestContext() { EVP_MD_CTX_free(context); }

void DigestContext::update(const std::uint8_t* bytes, std::size_t length) {
  if (length == 0) return;
  EVP_DigestUpdate(context, bytes, length);
}

Bytes DigestContext::finish() {
  Bytes digest(static_cast<std::size_t>(EVP_MD_CTX_get_size(context)));
  unsigned int written = 0;
  EVP_DigestFinal_ex(context, digest.data(), &written);
  digest.resize(written);
  return digest;
}

}  // namespace corvane::detail
