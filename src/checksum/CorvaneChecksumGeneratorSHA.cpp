#include <openssl/evp.h>

#include "checksum/DigestContext.hpp"
#include "checksum/HexText.hpp"
#include "corvane/DigestChecksumGenerators.hpp"

namespace corvane {

namespace {
detail::DigestAlgorithm digestFor(CorvaneChecksumGeneratorEVPDigest::Algorithm algorithm) {
  switch (algorithm) {
    case CorvaneChecksumGeneratorEVPDigest::Algorithm::sha1:
      return detail::DigestAlgorithm::sha1;
    case CorvaneChecksumGeneratorEVPDigest::Algorithm::sha256:
      return detail::DigestAlgorithm::sha256;
    default:
      return detail::DigestAlgorithm::sha512;
  }
}
}  // namespace

CorvaneChecksumGeneratorEVPDigest::CorvaneChecksumGeneratorEVPDigest(Algorithm algorithm)
    : context_(std::make_unique<detail::DigestContext>(digestFor(algorithm))) {}

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
