#include <openssl/evp.h>

#include "checksum/DigestContext.hpp"
#include "checksum/HexText.hpp"
#include "corvane/DigestChecksumGenerators.hpp"

namespace corvane {

CorvaneChecksumGeneratorMD5::CorvaneChecksumGeneratorMD5()
    : md5HashObject_(std::make_unique<detail::DigestContext>(detail::DigestAlgorithm::md5)) {
  setChecksumType(ChecksumTypeMD5);
}

CorvaneChecksumGeneratorMD5::~CorvaneChecksumGeneratorMD5() = default;

void CorvaneChecksumGeneratorMD5::addDataToChecksum(SharedBytes data, UpdateBlock updateBlock) {
  // Empty chunks change nothing in MD5, so they are acknowledged at once without queuing.
  if (!data || data->empty()) {
    if (updateBlock) updateBlock();
    return;
  }
  CorvaneStreamingChecksumGenerator::addDataToChecksum(std::move(data), std::move(updateBlock));
}

void CorvaneChecksumGeneratorMD5::absorb(const std::uint8_t* bytes, std::size_t length) {
  if (length != 0) setHasHadNonZero(true);
  md5HashObject_->update(bytes, length);
}

std::optional<std::string> CorvaneChecksumGeneratorMD5::finishChecksumText() {
  return detail::hexText(md5HashObject_->finish());
}

void CorvaneChecksumGeneratorMD5::updateChecksumWithData(const Bytes* data) {
  if (data) md5HashObject_->update(data->data(), data->size());
}

std::optional<std::string> CorvaneChecksumGeneratorMD5::finalizeChecksum() {
  return detail::hexText(md5HashObject_->finish());
}

}  // namespace corvane
