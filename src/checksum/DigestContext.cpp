#include "checksum/DigestContext.hpp"

#include "util/Fatal.hpp"

namespace corvane::detail {

DigestContext::DigestContext(const EVP_MD* md) : context(EVP_MD_CTX_new()) {
  // The digests cannot fail on any input; a failing OpenSSL is a broken installation.
  if (context == nullptr || EVP_DigestInit_ex(context, md, nullptr) != 1) {
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
