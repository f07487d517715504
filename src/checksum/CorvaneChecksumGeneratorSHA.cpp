#include <openssl/evp.h>

#include "checksum/DigestContext.hpp"
#include "checksum/HexText.hpp"
#include "corvane/DigestChecksumGenerators.hpp"

namespace corvane {

namespace {
const EVP_MD* digestFor(int algorithm) {
  switch (algorithm) {
    case 0:
      return EVP_sha1();
    case 1:
      return EVP_sha256();
    default:
      return EVP_sha512();
  }
}
}  // namespace

CorvaneChecksumGeneratorEVPDigest::CorvaneChecksumGeneratorEVPDigest(Algorithm algorithm)
    : context_(std::make_unique<detail::DigestContext>(digestFor(static_cast<int>(algorithm)))) {}

CorvaneChecksumGeneratorEVPDigest::~CorvaneChecksumGeneratorEVPDigest() = default;

void CorvaneChecksumGeneratorEVPDigest::absorb(const std::uint8_t* bytes, std::size_t length) {
  context_->update(bytes, length);
}

std::optional<std::string> CorvaneChecksumGeneratorEVPDigest::finishChecksumText() {
  return detail::hexText(finishDigestBytes());
}

Bytes CorvaneChecksumGeneratorEVPDigest::finishDigestBytes() { return context_->finish(); }

CorvaneChecksumGeneratorSHA1::CorvaneChecksumGeneratorSHA1()
    : CorvaneChecksumGeneratorEVPDigest(Algorithm::sha1) {
  setChecksumType(ChecksumTypeSHA1);
}

CorvaneChecksumGeneratorSHA256::CorvaneChecksumGeneratorSHA256()
    : CorvaneChecksumGeneratorEVPDigest(Algorithm::sha256) {
  setChecksumType(ChecksumTypeSHA256);
}

CorvaneChecksumGeneratorSHA512::CorvaneChecksumGeneratorSHA512()
    : CorvaneChecksumGeneratorEVPDigest(Algorithm::sha512) {
  setChecksumType(ChecksumTypeSHA512);
}

}  // namespace corvane
