#include <isa-l/crc.h>

#include "checksum/HexText.hpp"
#include "corvane/DigestChecksumGenerators.hpp"

namespace corvane {

// The register starts at zero (not all ones) and the printed value is its complement.
// ISA-L's crc32_gzip_refl(init, ...) runs the reflected CRC-32 with register ~init and returns
// the complemented register, so we keep the complement between chunks: init = ~register.

CorvaneChecksumGeneratorCRC32::CorvaneChecksumGeneratorCRC32() {
  setChecksumType(ChecksumTypeCRC32);
}

void CorvaneChecksumGeneratorCRC32::absorb(const std::uint8_t* bytes, std::size_t length) {
  if (length == 0) return;
  // ISA-L takes a 64-bit length; chunks never exceed it.
  crc32Value_ = ~crc32_gzip_refl(~crc32Value_, bytes, length);
}

std::optional<std::string> CorvaneChecksumGeneratorCRC32::finishChecksumText() {
  // "%02x": stored checksums depend on the short form ("0f", "ab12cd").
  return detail::hexText(static_cast<std::uint32_t>(~crc32Value_), 2);
}

}  // namespace corvane
