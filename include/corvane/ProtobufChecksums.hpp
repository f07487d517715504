// Conversions between the library's checksum vocabulary (ChecksumType, ChecksumLookup) and the
// Cloud protocol-buffer messages that carry algorithms and checksums to and from the service.
//
// The messages are defined in proto/cloud_checksum.proto (package corvane.wire) and compiled with
// protoc into the library. The generated classes stay internal, so users of these headers need no
// protobuf headers and no protobuf package: this header declares mirror types that hold the same
// data and convert to and from the wire bytes.
//
// Failures: an unrecognised wire number of Cloud_ChecksumType is the only input error; it is
// reported as one warning line through CorvaneLog::defaultLogger() and the element is dropped.
// Passing a local value that is not one of the ten single ChecksumType flags where one is required
// is a programming error that prints a diagnostic and aborts. Everything here is a pure function
// of its arguments and may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// The algorithm enumeration of the Cloud messages. Open, as protocol-buffer enumerations are: any
// 32-bit wire number can be held, and numbers other than the eleven named cases are
// "unrecognised" (see isRecognized). The known wire numbers equal the ChecksumType flags.
enum class Cloud_ChecksumType : std::int32_t {
  notSet = 0,
  md5 = 1,
  xxHash64 = 2,
  crc32 = 4,
  sha1 = 8,
  sha256 = 16,
  sha512 = 32,
  srSum = 64,
  c4 = 128,
  xxHash3_64 = 256,
  xxHash3_128 = 512,
};

// True for the eleven declared cases (0 and the ten flags).
CORVANE_API bool isRecognized(Cloud_ChecksumType type) noexcept;

// The wire number of `type`.
constexpr std::int32_t wireNumber(Cloud_ChecksumType type) noexcept {
  return static_cast<std::int32_t>(type);
}

// No value gives notSet; each single flag gives its case. Fatal for any other value (0, a mask,
// an unknown bit).
CORVANE_API Cloud_ChecksumType cloudChecksumType(std::optional<ChecksumType> local);

// The flag of a known case; null for notSet (silently) and for an unrecognised number (with the
// warning "CS-Could not convert to local ChecksumType for type with raw value: <number>").
CORVANE_API std::optional<ChecksumType> checksumTypeFromProto(Cloud_ChecksumType proto);

// The flags of `types` in order of first appearance, each once; notSet is skipped silently and
// each unrecognised number is skipped with one warning line.
CORVANE_API std::vector<ChecksumType> listAsLocalTypes(
    const std::vector<Cloud_ChecksumType>& types);

// The cases of `types` in order of first appearance, each once. Fatal for a value that is not one
// of the ten single flags.
CORVANE_API std::vector<Cloud_ChecksumType> listAsProtoTypes(
    const std::vector<ChecksumType>& types);

// Wire bytes of a Cloud_ChecksumTypeList message holding `types` (unrecognised numbers included).
CORVANE_API Bytes serializeChecksumTypeList(const std::vector<Cloud_ChecksumType>& types);

// The types of a Cloud_ChecksumTypeList message, unrecognised numbers kept as received; null when
// the bytes are not a valid message.
CORVANE_API std::optional<std::vector<Cloud_ChecksumType>> parseChecksumTypeList(
    const Bytes& bytes);

// The checksum message of the Cloud protocol: ten text fields, one per algorithm, empty when not
// set. An empty value and a missing value are the same on the wire. Unknown fields met when
// parsing are not kept.
class CORVANE_API Cloud_Checksum {
 public:
  // All ten fields empty.
  Cloud_Checksum() = default;

  // Every non-empty text of `fromLookup` in the field of its algorithm; empty texts are skipped.
  // Fatal for a key that is not one of the ten single flags.
  explicit Cloud_Checksum(const ChecksumLookup& fromLookup);

  // The field of `forType` as it stands (empty when unset). Fatal for anything but a single flag.
  const std::string& value(ChecksumType forType) const;

  // Replaces the field of `forType`. Fatal for anything but a single flag.
  void setValue(ChecksumType forType, std::string value);

  // The message's wire bytes.
  Bytes serializeAsBytes() const;

  // The message held by `bytes`, or null when they are not a valid Cloud_Checksum.
  static std::optional<Cloud_Checksum> parseFromBytes(const Bytes& bytes);

  friend bool operator==(const Cloud_Checksum&, const Cloud_Checksum&) = default;

 private:
  // In the message's declaration order: xxHash64, MD5, SHA-256, SHA-512, CRC-32, SHA-1, SR Sum,
  // C4, XXH3-64, XXH3-128.
  std::array<std::string, 10> fields_;
};

}  // namespace corvane
