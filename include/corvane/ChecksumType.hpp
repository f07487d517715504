// ChecksumType: the checksum algorithms the library knows.
//
// A small value type over an unsigned 64-bit raw value whose named members are single bits, so
// that several algorithms can be combined in one mask. Any raw value can be held (masks and
// unknown bits pass through unchanged); only the ten single flags below are algorithms.
// Equality and hashing use the raw value alone. Serialised as its raw number.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "corvane/Export.hpp"

namespace corvane {
class ChecksumType;
}

// Hashing by raw value; declared before any container of ChecksumType is named.
template <>
struct std::hash<corvane::ChecksumType> {
  std::size_t operator()(corvane::ChecksumType type) const noexcept;
};

namespace corvane {

class CORVANE_API ChecksumType {
 public:
  constexpr ChecksumType() noexcept = default;
  constexpr explicit ChecksumType(std::uint64_t rawValue) noexcept : raw_(rawValue) {}

  constexpr std::uint64_t rawValue() const noexcept { return raw_; }

  // Display name ("MD5", "SHA-2 256", "xxHash-128", ...). Fatal for anything but the ten flags.
  const std::string& name() const;
  // Checksum text of empty input in the exact form the generator prints. Fatal for anything but
  // the ten flags.
  const std::string& emptyChecksumValue() const;

  // Every member mapped to its empty-input text (SR Sum to "").
  static const std::unordered_map<ChecksumType, std::string>& emptyHashLookup();
  // xxHash64.
  static ChecksumType defaultChecksumType() noexcept;
  // The ten members in ascending raw value: 1, 2, 4, ..., 512.
  static const std::vector<ChecksumType>& allCases();
  // The order in which lookups are listed: xxHash64, XXH3-64, XXH3-128, MD5, SHA-1, SHA-256,
  // SHA-512, SR Sum, C4, CRC-32.
  static const std::vector<ChecksumType>& defaultOrdering();
  static const std::unordered_set<ChecksumType>& setOfAllCases();

  // True for the ten single flags.
  bool isKnownAlgorithm() const noexcept;

  friend constexpr bool operator==(ChecksumType a, ChecksumType b) noexcept {
    return a.raw_ == b.raw_;
  }

 private:
  std::uint64_t raw_ = 0;
};

inline constexpr ChecksumType ChecksumTypeNone{0};
inline constexpr ChecksumType ChecksumTypeMD5{1};
inline constexpr ChecksumType ChecksumTypeXXHash64{2};
inline constexpr ChecksumType ChecksumTypeCRC32{4};
inline constexpr ChecksumType ChecksumTypeSHA1{8};
inline constexpr ChecksumType ChecksumTypeSHA256{16};
inline constexpr ChecksumType ChecksumTypeSHA512{32};
inline constexpr ChecksumType ChecksumTypeSRSum{64};
inline constexpr ChecksumType ChecksumTypeC4{128};
inline constexpr ChecksumType ChecksumTypeXXHashH364{256};
inline constexpr ChecksumType ChecksumTypeXXHashH3128{512};

// The names of the algorithms that occur in `types`, each once, in allCases order, joined by
// "," without spaces. Unknown values are ignored; no known value gives "".
CORVANE_API std::string userPresentableDescription(const std::vector<ChecksumType>& types);

// JSON coding: the raw value as one unsigned number. Decoding accepts any unsigned integer and
// throws DecodingError(typeMismatch) for anything else.
CORVANE_API void to_json(nlohmann::json& json, const ChecksumType& type);
CORVANE_API void from_json(const nlohmann::json& json, ChecksumType& type);

}  // namespace corvane

inline std::size_t std::hash<corvane::ChecksumType>::operator()(
    corvane::ChecksumType type) const noexcept {
  return std::hash<std::uint64_t>{}(type.rawValue());
}
