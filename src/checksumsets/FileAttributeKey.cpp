#include "corvane/FileAttributeKey.hpp"

#include <array>
#include <nlohmann/json.hpp>

#include "corvane/Exception.hpp"
#include "util/Fatal.hpp"

namespace corvane {
namespace {

// The keys in ascending flag order; index i belongs to the flag 1 << i. The texts are stored in
// users' attribute dictionaries: keep them exactly (underscores, lower-case "xxhash" against
// upper-case "H3").
const std::array<FileAttributeKey, 10>& checksumKeys() {
  static const std::array<FileAttributeKey, 10> keys{{
      FileAttributeKey("md5Checksum"),
      FileAttributeKey("xxhash64Checksum"),
      FileAttributeKey("crc32Checksum"),
      FileAttributeKey("sha1Checksum"),
      FileAttributeKey("sha2_256Checksum"),
      FileAttributeKey("sha2_512Checksum"),
      FileAttributeKey("srSumChecksum"),
      FileAttributeKey("c4Checksum"),
      FileAttributeKey("xxhashH3_64Checksum"),
      FileAttributeKey("xxhashH3_128Checksum"),
  }};
  return keys;
}

}  // namespace

bool FileAttributeKey::isChecksum() const noexcept {
  return checksumTypeForFileAttributeKey(*this).has_value();
}

const FileAttributeKey& FileAttributeKey::NSFileSize() {
  static const FileAttributeKey key("NSFileSize");
  return key;
}

const FileAttributeKey& FileAttributeKey::md5Checksum() { return checksumKeys()[0]; }
const FileAttributeKey& FileAttributeKey::xxhash64Checksum() { return checksumKeys()[1]; }
const FileAttributeKey& FileAttributeKey::crc32Checksum() { return checksumKeys()[2]; }
const FileAttributeKey& FileAttributeKey::sha1Checksum() { return checksumKeys()[3]; }
const FileAttributeKey& FileAttributeKey::sha2_256Checksum() { return checksumKeys()[4]; }
const FileAttributeKey& FileAttributeKey::sha2_512Checksum() { return checksumKeys()[5]; }
const FileAttributeKey& FileAttributeKey::srSumChecksum() { return checksumKeys()[6]; }
const FileAttributeKey& FileAttributeKey::c4Checksum() { return checksumKeys()[7]; }
const FileAttributeKey& FileAttributeKey::xxhashH3_64Checksum() { return checksumKeys()[8]; }
const FileAttributeKey& FileAttributeKey::xxhashH3_128Checksum() { return checksumKeys()[9]; }

const FileAttributeKey& fileAttributeKey(ChecksumType type) {
  const std::uint64_t raw = type.rawValue();
  for (std::size_t i = 0; i < checksumKeys().size(); ++i) {
    if (raw == (std::uint64_t{1} << i)) return checksumKeys()[i];
  }
  detail::fatalInvalidValue("ChecksumType",
                            "unexpected enumeration value has no file-attribute key", raw);
}

std::optional<ChecksumType> checksumTypeForFileAttributeKey(const FileAttributeKey& key) {
  for (std::size_t i = 0; i < checksumKeys().size(); ++i) {
    if (checksumKeys()[i] == key) return ChecksumType(std::uint64_t{1} << i);
  }
  return std::nullopt;
}

const std::vector<FileAttributeKey>& allFileAttributesKeys() {
  static const std::vector<FileAttributeKey> keys(checksumKeys().begin(), checksumKeys().end());
  return keys;
}

const FileAttributeKeySet& fileAttributeKeySet() {
  static const FileAttributeKeySet set(allFileAttributesKeys().begin(),
                                       allFileAttributesKeys().end());
  return set;
}

std::optional<ChecksumLookup> checksumLookup(const FileAttributes& attributes) {
  ChecksumLookup lookup;
  for (const auto& [key, value] : attributes) {
    const auto type = checksumTypeForFileAttributeKey(key);
    if (!type) continue;
    // Only text counts as a checksum; numbers, buffers and dates are skipped, not converted.
    if (const auto* text = std::get_if<std::string>(&value)) lookup[*type] = *text;
  }
  if (lookup.empty()) return std::nullopt;
  return lookup;
}

std::vector<ChecksumType> checksumAlgorithms(const std::vector<std::uint64_t>& numbers) {
  std::vector<ChecksumType> types;
  types.reserve(numbers.size());
  for (std::uint64_t number : numbers) types.emplace_back(number);
  return types;
}

std::vector<std::uint64_t> encodableChecksums(const std::vector<ChecksumType>& types) {
  std::vector<std::uint64_t> numbers;
  numbers.reserve(types.size());
  for (ChecksumType type : types) numbers.push_back(type.rawValue());
  return numbers;
}

std::vector<FileAttributeKey> fileAttributeKeys(const std::vector<ChecksumType>& types) {
  std::vector<FileAttributeKey> keys;
  keys.reserve(types.size() + 1);
  for (ChecksumType type : types) keys.push_back(fileAttributeKey(type));
  return keys;
}

std::vector<FileAttributeKey> fileAttributeKeysWithSize(const std::vector<ChecksumType>& types) {
  std::vector<FileAttributeKey> keys = fileAttributeKeys(types);
  keys.push_back(FileAttributeKey::NSFileSize());
  return keys;
}

void to_json(nlohmann::json& json, const FileAttributeKey& key) { json = key.text(); }

void from_json(const nlohmann::json& json, FileAttributeKey& key) {
  if (!json.is_string()) {
    throw DecodingError(
        DecodingError::Kind::typeMismatch, "",
        "FileAttributeKey: expected a string, found " + std::string(json.type_name()));
  }
  key = FileAttributeKey(json.get<std::string>());
}

}  // namespace corvane
