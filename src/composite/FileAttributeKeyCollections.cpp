#include "corvane/FileAttributeKeyCollections.hpp"

#include <algorithm>

namespace corvane {

// ---- Sets of keys ------------------------------------------------------------------------------

std::optional<std::unordered_set<ChecksumType>> representedChecksumsAlgorithms(
    const FileAttributeKeySet& keys) {
  std::unordered_set<ChecksumType> algorithms;
  for (const FileAttributeKey& key : keys) {
    if (const auto type = checksumTypeForFileAttributeKey(key)) algorithms.insert(*type);
  }
  if (algorithms.empty()) return std::nullopt;
  return algorithms;
}

bool containsChecksumKeys(const FileAttributeKeySet& keys) {
  return std::any_of(allFileAttributesKeys().begin(), allFileAttributesKeys().end(),
                     [&keys](const FileAttributeKey& key) { return keys.contains(key); });
}

void addChecksumKeys(FileAttributeKeySet& keys, const std::vector<ChecksumType>& forAlgorithms) {
  for (ChecksumType type : forAlgorithms) keys.insert(fileAttributeKey(type));
}

FileAttributeKeySet trimmingChecksumAttributes(const FileAttributeKeySet& keys) {
  FileAttributeKeySet trimmed = keys;
  removeAllChecksumKeys(trimmed);
  return trimmed;
}

void removeAllChecksumKeys(FileAttributeKeySet& keys) {
  if (keys.empty()) return;
  for (const FileAttributeKey& key : allFileAttributesKeys()) keys.erase(key);
}

// ---- Lists of keys -----------------------------------------------------------------------------

std::optional<std::vector<ChecksumType>> representedChecksumsAlgorithms(
    const std::vector<FileAttributeKey>& keys) {
  std::vector<ChecksumType> algorithms;
  for (const FileAttributeKey& key : keys) {
    if (const auto type = checksumTypeForFileAttributeKey(key)) algorithms.push_back(*type);
  }
  if (algorithms.empty()) return std::nullopt;
  return algorithms;
}

bool containsChecksumKeys(const std::vector<FileAttributeKey>& keys) {
  return std::any_of(keys.begin(), keys.end(),
                     [](const FileAttributeKey& key) { return key.isChecksum(); });
}

void addChecksumKeys(std::vector<FileAttributeKey>& keys,
                     const std::vector<ChecksumType>& forAlgorithms) {
  for (ChecksumType type : forAlgorithms) {
    const FileAttributeKey& key = fileAttributeKey(type);
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
  }
}

std::vector<FileAttributeKey> trimming(const std::vector<FileAttributeKey>& keys,
                                       const std::vector<FileAttributeKey>& removing) {
  std::vector<FileAttributeKey> trimmed = keys;
  for (const FileAttributeKey& key : removing) {
    const auto found = std::find(trimmed.begin(), trimmed.end(), key);
    if (found != trimmed.end()) trimmed.erase(found);
  }
  return trimmed;
}

std::vector<FileAttributeKey> trimmingChecksumAttributes(
    const std::vector<FileAttributeKey>& keys) {
  return trimming(keys, allFileAttributesKeys());
}

void removeAllChecksumKeys(std::vector<FileAttributeKey>& keys) {
  keys = trimmingChecksumAttributes(keys);
}

std::vector<FileAttributeKey> subtracting(const std::vector<FileAttributeKey>& keys,
                                          const std::vector<FileAttributeKey>& removing) {
  FileAttributeKeySet remaining(keys.begin(), keys.end());
  for (const FileAttributeKey& key : removing) remaining.erase(key);
  return {remaining.begin(), remaining.end()};
}

}  // namespace corvane
