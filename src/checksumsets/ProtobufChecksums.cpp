#include "corvane/ProtobufChecksums.hpp"

#include <algorithm>
#include <cstddef>
#include <string>

#include "cloud_checksum.pb.h"
#include "corvane/CorvaneLog.hpp"
#include "util/Fatal.hpp"

namespace corvane {
namespace {

[[noreturn]] void fatalUnexpectedValue(ChecksumType type) noexcept {
  detail::fatalInvalidValue("ChecksumType", "unexpected enumeration value", type.rawValue());
}

// Index of the message field that holds `type`, in the message's declaration order.
std::size_t fieldIndex(ChecksumType type) noexcept {
  switch (type.rawValue()) {
    case 2:
      return 0;
    case 1:
      return 1;
    case 16:
      return 2;
    case 32:
      return 3;
    case 4:
      return 4;
    case 8:
      return 5;
    case 64:
      return 6;
    case 128:
      return 7;
    case 256:
      return 8;
    case 512:
      return 9;
    default:
      fatalUnexpectedValue(type);
  }
}

// The generated message's fields in the same declaration order.
using ConstField = const std::string& (wire::Cloud_Checksum::*)() const;
using MutableField = std::string* (wire::Cloud_Checksum::*)();
constexpr std::array<ConstField, 10> kGetters = {
    &wire::Cloud_Checksum::xxhash64,   &wire::Cloud_Checksum::md5,
    &wire::Cloud_Checksum::sha256,     &wire::Cloud_Checksum::sha512,
    &wire::Cloud_Checksum::crc32,      &wire::Cloud_Checksum::sha1,
    &wire::Cloud_Checksum::sr_sum,     &wire::Cloud_Checksum::c4,
    &wire::Cloud_Checksum::xxhash3_64, &wire::Cloud_Checksum::xxhash3_128};
constexpr std::array<MutableField, 10> kMutators = {
    &wire::Cloud_Checksum::mutable_xxhash64,   &wire::Cloud_Checksum::mutable_md5,
    &wire::Cloud_Checksum::mutable_sha256,     &wire::Cloud_Checksum::mutable_sha512,
    &wire::Cloud_Checksum::mutable_crc32,      &wire::Cloud_Checksum::mutable_sha1,
    &wire::Cloud_Checksum::mutable_sr_sum,     &wire::Cloud_Checksum::mutable_c4,
    &wire::Cloud_Checksum::mutable_xxhash3_64, &wire::Cloud_Checksum::mutable_xxhash3_128};

void warnUnrecognised(Cloud_ChecksumType type) {
  CorvaneLog::defaultLogger().logWarning(
      "CS-Could not convert to local ChecksumType for type with raw value: " +
      std::to_string(wireNumber(type)));
}

Bytes toBytes(const std::string& wireText) { return Bytes(wireText.begin(), wireText.end()); }

}  // namespace

bool isRecognized(Cloud_ChecksumType type) noexcept {
  const std::int32_t number = wireNumber(type);
  if (number == 0) return true;
  return number > 0 && ChecksumType(static_cast<std::uint64_t>(number)).isKnownAlgorithm();
}

Cloud_ChecksumType cloudChecksumType(std::optional<ChecksumType> local) {
  if (!local) return Cloud_ChecksumType::notSet;
  if (!local->isKnownAlgorithm()) fatalUnexpectedValue(*local);
  return static_cast<Cloud_ChecksumType>(static_cast<std::int32_t>(local->rawValue()));
}

std::optional<ChecksumType> checksumTypeFromProto(Cloud_ChecksumType proto) {
  if (!isRecognized(proto)) {
    warnUnrecognised(proto);
    return std::nullopt;
  }
  if (proto == Cloud_ChecksumType::notSet) return std::nullopt;
  return ChecksumType(static_cast<std::uint64_t>(wireNumber(proto)));
}

std::vector<ChecksumType> listAsLocalTypes(const std::vector<Cloud_ChecksumType>& types) {
  std::vector<ChecksumType> result;
  for (const Cloud_ChecksumType type : types) {
    const std::optional<ChecksumType> local = checksumTypeFromProto(type);
    if (local && std::find(result.begin(), result.end(), *local) == result.end()) {
      result.push_back(*local);
    }
  }
  return result;
}

std::vector<Cloud_ChecksumType> listAsProtoTypes(const std::vector<ChecksumType>& types) {
  std::vector<Cloud_ChecksumType> result;
  for (const ChecksumType type : types) {
    const Cloud_ChecksumType proto = cloudChecksumType(type);
    if (std::find(result.begin(), result.end(), proto) == result.end()) result.push_back(proto);
  }
  return result;
}

Bytes serializeChecksumTypeList(const std::vector<Cloud_ChecksumType>& types) {
  wire::Cloud_ChecksumTypeList message;
  for (const Cloud_ChecksumType type : types) {
    message.add_types(static_cast<wire::Cloud_ChecksumType>(wireNumber(type)));
  }
  return toBytes(message.SerializeAsString());
}

std::optional<std::vector<Cloud_ChecksumType>> parseChecksumTypeList(const Bytes& bytes) {
  wire::Cloud_ChecksumTypeList message;
  if (!message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return std::nullopt;
  std::vector<Cloud_ChecksumType> types;
  types.reserve(static_cast<std::size_t>(message.types_size()));
  for (int i = 0; i < message.types_size(); ++i) {
    types.push_back(static_cast<Cloud_ChecksumType>(static_cast<std::int32_t>(message.types(i))));
  }
  return types;
}

Cloud_Checksum::Cloud_Checksum(const ChecksumLookup& fromLookup) {
  for (const auto& [type, text] : fromLookup) {
    if (text.empty()) continue;
    fields_[fieldIndex(type)] = text;
  }
}

const std::string& Cloud_Checksum::value(ChecksumType forType) const {
  return fields_[fieldIndex(forType)];
}

void Cloud_Checksum::setValue(ChecksumType forType, std::string value) {
  fields_[fieldIndex(forType)] = std::move(value);
}

Bytes Cloud_Checksum::serializeAsBytes() const {
  wire::Cloud_Checksum message;
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    if (!fields_[i].empty()) *(message.*kMutators[i])() = fields_[i];
  }
  return toBytes(message.SerializeAsString());
}

std::optional<Cloud_Checksum> Cloud_Checksum::parseFromBytes(const Bytes& bytes) {
  wire::Cloud_Checksum message;
  if (!message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return std::nullopt;
  Cloud_Checksum result;
  for (std::size_t i = 0; i < result.fields_.size(); ++i)
    result.fields_[i] = (message.*kGetters[i])();
  return result;
}

}  // namespace corvane
