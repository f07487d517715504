// FileAttributeKey: the keys of file-attribute dictionaries, and the ten checksum keys.
//
// Files are described by attribute dictionaries that map a key (the file size, dates, ...) to a
// value of some type. A FileAttributeKey is an immutable text; two keys are the same key when
// their texts are equal byte for byte (case-sensitive). Besides the size key "NSFileSize" the
// library defines one key per checksum algorithm, so that checksums travel in the same
// dictionaries as sizes and dates:
//
//   md5Checksum (1)        xxhash64Checksum (2)     crc32Checksum (4)        sha1Checksum (8)
//   sha2_256Checksum (16)  sha2_512Checksum (32)    srSumChecksum (64)       c4Checksum (128)
//   xxhashH3_64Checksum (256)                       xxhashH3_128Checksum (512)
//
// Each key's text equals its name. The mapping between these keys and the single-flag
// ChecksumType values is one-to-one; combined and unknown ChecksumType values have no key.
//
// Thread safety: the key constants are created once, on first use, safely from any number of
// threads, and are immutable afterwards. Every other function here is a pure function of its
// arguments and may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {
class FileAttributeKey;
}

// Hashing by text; declared before any container of FileAttributeKey is named.
template <>
struct std::hash<corvane::FileAttributeKey> {
  std::size_t operator()(const corvane::FileAttributeKey& key) const noexcept;
};

namespace corvane {

class CORVANE_API FileAttributeKey {
 public:
  // The empty key. It names no attribute; it exists so that keys can be decoded in place and
  // held in containers that need a default value.
  FileAttributeKey() = default;
  explicit FileAttributeKey(std::string text) : text_(std::move(text)) {}

  const std::string& text() const noexcept { return text_; }

  // True when the text equals the text of one of the ten checksum keys (exact comparison).
  bool isChecksum() const noexcept;

  // The file-size key, text "NSFileSize". Its value in a dictionary is the size in bytes.
  static const FileAttributeKey& NSFileSize();

  // The ten checksum keys; each text equals the function's name. The returned references stay
  // valid for the life of the program.
  static const FileAttributeKey& md5Checksum();
  static const FileAttributeKey& xxhash64Checksum();
  static const FileAttributeKey& crc32Checksum();
  static const FileAttributeKey& sha1Checksum();
  static const FileAttributeKey& sha2_256Checksum();
  static const FileAttributeKey& sha2_512Checksum();
  // The key of ChecksumTypeSRSum, which has a key but no generator.
  static const FileAttributeKey& srSumChecksum();
  static const FileAttributeKey& c4Checksum();
  static const FileAttributeKey& xxhashH3_64Checksum();
  static const FileAttributeKey& xxhashH3_128Checksum();

  friend bool operator==(const FileAttributeKey& a, const FileAttributeKey& b) noexcept {
    return a.text_ == b.text_;
  }

 private:
  std::string text_;
};

// An unordered set of keys (no ordering is defined on keys).
using FileAttributeKeySet = std::unordered_set<FileAttributeKey>;

// The value under a key of an attribute dictionary. A checksum is recognised only as text
// (std::string); sizes are integers, dates time points.
using FileAttributeValue = std::variant<std::string, std::int64_t, std::uint64_t, double, bool,
                                        std::chrono::system_clock::time_point, Bytes>;

// An attribute dictionary. Its iteration order is not defined, and no function here depends on
// it.
using FileAttributes = std::unordered_map<FileAttributeKey, FileAttributeValue>;

// Same as key.isChecksum().
inline bool isChecksum(const FileAttributeKey& key) noexcept { return key.isChecksum(); }

// The key of a single-flag algorithm. Any other value (0, a combination such as 3, an unknown
// bit) is a programming error: prints one line naming "ChecksumType" and the raw value to
// stderr and aborts.
CORVANE_API const FileAttributeKey& fileAttributeKey(ChecksumType type);

// The algorithm whose key equals `key` (the ten flags are tried in ascending order), or nothing.
// Never fails.
CORVANE_API std::optional<ChecksumType> checksumTypeForFileAttributeKey(
    const FileAttributeKey& key);

// The ten checksum keys in ascending flag order: MD5's key first, XXH3 128-bit's key last.
CORVANE_API const std::vector<FileAttributeKey>& allFileAttributesKeys();

// The ten checksum keys as a set.
CORVANE_API const FileAttributeKeySet& fileAttributeKeySet();

// The checksum lookup found in `attributes`: every checksum key whose value is text, stored
// under its algorithm. Values of any other type under a checksum key are skipped without
// conversion; texts are taken as they are. Nothing when no text checksum is present (never an
// empty lookup). Never fails.
CORVANE_API std::optional<ChecksumLookup> checksumLookup(const FileAttributes& attributes);

// The ChecksumType values with the given raw numbers, same order, duplicates kept. No number is
// rejected: combined and unknown values pass through unchanged.
CORVANE_API std::vector<ChecksumType> checksumAlgorithms(const std::vector<std::uint64_t>& numbers);

// The raw numbers of `types`, same order, duplicates kept. Inverse of checksumAlgorithms.
CORVANE_API std::vector<std::uint64_t> encodableChecksums(const std::vector<ChecksumType>& types);

// The keys of `types`, same order, duplicates kept. Fatal (as fileAttributeKey) for a value
// that is not one of the ten single flags.
CORVANE_API std::vector<FileAttributeKey> fileAttributeKeys(const std::vector<ChecksumType>& types);

// fileAttributeKeys(types) followed by NSFileSize once (for an empty list: just NSFileSize).
// Fatal as fileAttributeKeys.
CORVANE_API std::vector<FileAttributeKey> fileAttributeKeysWithSize(
    const std::vector<ChecksumType>& types);

// JSON coding: a key is its text. Decoding anything but a JSON string throws
// DecodingError(typeMismatch).
CORVANE_API void to_json(nlohmann::json& json, const FileAttributeKey& key);
CORVANE_API void from_json(const nlohmann::json& json, FileAttributeKey& key);

}  // namespace corvane

inline std::size_t std::hash<corvane::FileAttributeKey>::operator()(
    const corvane::FileAttributeKey& key) const noexcept {
  return std::hash<std::string>{}(key.text());
}
