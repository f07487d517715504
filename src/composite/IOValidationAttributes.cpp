#include "corvane/IOValidationAttributes.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <variant>

#include "corvane/Exception.hpp"
#include "corvane/FileAttributeKeyCollections.hpp"
#include "dispatch/SerialQueue.hpp"

namespace corvane {
namespace {

constexpr const char* kQueueLabel = "com.corvane.security.attributes.mutex";

constexpr const char* kFileAttributesKey = "fileAttributes";
constexpr const char* kChecksumAttributesKey = "checksumAttributes";
constexpr const char* kForceSizeKey = "forceChecksumSizeComparison";

// An array whose elements are all strings, as keys; nothing for anything else. Decoding is
// all-or-nothing, as a list of keys is decoded as a whole.
std::optional<std::vector<FileAttributeKey>> decodeKeyList(const nlohmann::json& json) {
  if (!json.is_array()) return std::nullopt;
  std::vector<FileAttributeKey> keys;
  keys.reserve(json.size());
  for (const nlohmann::json& element : json) {
    if (!element.is_string()) return std::nullopt;
    keys.emplace_back(element.get<std::string>());
  }
  return keys;
}

// An array whose elements are all non-negative integers; nothing for anything else.
std::optional<std::vector<std::uint64_t>> decodeNumberList(const nlohmann::json& json) {
  if (!json.is_array()) return std::nullopt;
  std::vector<std::uint64_t> numbers;
  numbers.reserve(json.size());
  for (const nlohmann::json& element : json) {
    if (element.is_number_unsigned()) {
      numbers.push_back(element.get<std::uint64_t>());
    } else if (element.is_number_integer() && element.get<std::int64_t>() >= 0) {
      numbers.push_back(element.get<std::uint64_t>());
    } else {
      return std::nullopt;
    }
  }
  return numbers;
}

// The value under `key`; null when the key is missing or holds JSON null.
const nlohmann::json* presentValue(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return nullptr;
  return &*found;
}

// What a document says: the set before the size rule, and the flag if it holds a boolean.
struct DecodedDocument {
  FileAttributeKeySet set;
  std::optional<bool> force;
};

DecodingError notAnObject(const nlohmann::json& json) {
  return DecodingError(
      DecodingError::Kind::typeMismatch, "",
      "IOValidationAttributes: expected an object, found " + std::string(json.type_name()));
}

DecodingError typeMismatch(const char* key, const char* expected, const nlohmann::json& found) {
  return DecodingError(DecodingError::Kind::typeMismatch, key,
                       std::string("IOValidationAttributes: \"") + key + "\" must be " + expected +
                           ", found " + found.type_name());
}

// Reads an object strictly: the first malformed value is the error.
std::variant<DecodedDocument, DecodingError> decodeStrictly(const nlohmann::json& json) {
  DecodedDocument document;
  if (const nlohmann::json* value = presentValue(json, kFileAttributesKey)) {
    const auto keys = decodeKeyList(*value);
    if (!keys) return typeMismatch(kFileAttributesKey, "an array of strings", *value);
    document.set.insert(keys->begin(), keys->end());
  }

  if (const nlohmann::json* value = presentValue(json, kChecksumAttributesKey)) {
    if (!value->is_array()) {
      return typeMismatch(kChecksumAttributesKey, "an array of integers", *value);
    }
    for (const nlohmann::json& element : *value) {
      if (!element.is_number_integer()) {
        return typeMismatch(kChecksumAttributesKey, "an array of integers", element);
      }
      const bool negative = !element.is_number_unsigned() && element.get<std::int64_t>() < 0;
      if (negative || !ChecksumType(element.get<std::uint64_t>()).isKnownAlgorithm()) {
        return DecodingError(DecodingError::Kind::dataCorrupted, kChecksumAttributesKey,
                             "IOValidationAttributes: \"checksumAttributes\" holds " +
                                 element.dump() + ", which is not one of the ten algorithm flags");
      }
      document.set.insert(fileAttributeKey(ChecksumType(element.get<std::uint64_t>())));
    }
  }

  if (const nlohmann::json* value = presentValue(json, kForceSizeKey)) {
    if (!value->is_boolean()) return typeMismatch(kForceSizeKey, "a boolean", *value);
    document.force = value->get<bool>();
  }
  return document;
}

}  // namespace

IOValidationAttributes::IOValidationAttributes()
    : mutex_(dispatch::SerialQueue::create(kQueueLabel)) {}

IOValidationAttributes::~IOValidationAttributes() = default;

void IOValidationAttributes::applySizeRule(FileAttributeKeySet& set, bool requireSize) {
  if (requireSize && containsChecksumKeys(set)) set.insert(FileAttributeKey::NSFileSize());
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::create(
    const std::vector<FileAttributeKey>& fileAttributes,
    const std::optional<std::vector<ChecksumType>>& checksumAlgorithms,
    bool forceChecksumSizeComparison) {
  FileAttributeKeySet set(fileAttributes.begin(), fileAttributes.end());
  if (checksumAlgorithms && !checksumAlgorithms->empty()) {
    // Fatal here, before any record exists, for a value that is not a single flag.
    const std::vector<FileAttributeKey> keys = fileAttributeKeys(*checksumAlgorithms);
    set.insert(keys.begin(), keys.end());
  }
  return create(std::move(set), forceChecksumSizeComparison);
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::create(
    const std::vector<ChecksumType>& checksumAlgorithms, bool forceChecksumSizeComparison) {
  return create(std::vector<FileAttributeKey>{}, checksumAlgorithms, forceChecksumSizeComparison);
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::create(
    FileAttributeKeySet attributeSet, bool forceChecksumSizeComparison) {
  std::shared_ptr<IOValidationAttributes> record(new IOValidationAttributes());
  applySizeRule(attributeSet, forceChecksumSizeComparison);
  // Not yet shared with any other thread: no need for the queue.
  record->attributeSet_ = std::move(attributeSet);
  record->checksumsRequireMatchingSize_.store(forceChecksumSizeComparison);
  return record;
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::fromJSON(
    const nlohmann::json& json) {
  if (!json.is_object()) throw notAnObject(json);
  DecodedDocument document;

  // A list of keys, or failing that a set of keys: in JSON both are the same array of strings.
  if (const auto found = json.find(kFileAttributesKey); found != json.end()) {
    if (auto keys = decodeKeyList(*found)) document.set.insert(keys->begin(), keys->end());
  }

  if (const auto found = json.find(kChecksumAttributesKey); found != json.end()) {
    if (const auto numbers = decodeNumberList(*found)) {
      // The numbers name algorithms: one that is not a single flag stops the process here, as in
      // create(), before any record exists.
      const std::vector<FileAttributeKey> keys = fileAttributeKeys(checksumAlgorithms(*numbers));
      document.set.insert(keys.begin(), keys.end());
    }
  }

  if (const auto found = json.find(kForceSizeKey); found != json.end() && found->is_boolean()) {
    document.force = found->get<bool>();
  }
  return makeDecoded(std::move(document.set), document.force);
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::fromUntrustedJSON(
    const nlohmann::json& json, std::optional<DecodingError>* error) {
  if (!json.is_object()) {
    if (error != nullptr) error->emplace(notAnObject(json));
    return nullptr;
  }
  std::variant<DecodedDocument, DecodingError> decoded = decodeStrictly(json);
  if (auto* failure = std::get_if<DecodingError>(&decoded)) {
    if (error != nullptr) error->emplace(std::move(*failure));
    return nullptr;
  }
  DecodedDocument& document = std::get<DecodedDocument>(decoded);
  return makeDecoded(std::move(document.set), document.force);
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::makeDecoded(
    FileAttributeKeySet set, std::optional<bool> force) {
  std::shared_ptr<IOValidationAttributes> record(new IOValidationAttributes());
  // Without a readable flag the flag stays true, but the size rule is not applied.
  if (force) {
    record->checksumsRequireMatchingSize_.store(*force);
    applySizeRule(set, *force);
  }
  record->attributeSet_ = std::move(set);
  return record;
}

bool IOValidationAttributes::checksumsRequireMatchingSize() const noexcept {
  return checksumsRequireMatchingSize_.load();
}

void IOValidationAttributes::setChecksumsRequireMatchingSize(bool value) noexcept {
  checksumsRequireMatchingSize_.store(value);
}

FileAttributeKeySet IOValidationAttributes::attributeSet() const {
  FileAttributeKeySet copy;
  mutex_->sync([this, &copy] { copy = attributeSet_; });
  return copy;
}

void IOValidationAttributes::setAttributeSet(FileAttributeKeySet attributeSet) {
  mutex_->sync([this, &attributeSet] {
    applySizeRule(attributeSet, checksumsRequireMatchingSize_.load());
    attributeSet_ = std::move(attributeSet);
  });
}

void IOValidationAttributes::modifyAttributeSet(
    const std::function<void(FileAttributeKeySet&)>& modify) {
  FileAttributeKeySet copy = attributeSet();
  modify(copy);
  setAttributeSet(std::move(copy));
}

std::vector<FileAttributeKey> IOValidationAttributes::fileAttributes() const {
  std::vector<FileAttributeKey> keys;
  mutex_->sync([this, &keys] { keys.assign(attributeSet_.begin(), attributeSet_.end()); });
  return keys;
}

void IOValidationAttributes::setFileAttributes(
    const std::vector<FileAttributeKey>& fileAttributes) {
  setAttributeSet(FileAttributeKeySet(fileAttributes.begin(), fileAttributes.end()));
}

std::optional<std::vector<ChecksumType>> IOValidationAttributes::checksumAttributes() const {
  std::optional<std::unordered_set<ChecksumType>> algorithms;
  mutex_->sync([this, &algorithms] { algorithms = representedChecksumsAlgorithms(attributeSet_); });
  if (!algorithms) return std::nullopt;
  return std::vector<ChecksumType>(algorithms->begin(), algorithms->end());
}

void IOValidationAttributes::setChecksumAttributes(
    const std::optional<std::vector<ChecksumType>>& checksumAttributes) {
  // Map to keys first, so that a value that is not a single flag stops the process on the
  // caller's thread rather than inside the queue.
  std::vector<FileAttributeKey> keys;
  if (checksumAttributes) keys = fileAttributeKeys(*checksumAttributes);
  mutex_->sync([this, &keys] {
    removeAllChecksumKeys(attributeSet_);
    if (keys.empty()) return;
    attributeSet_.insert(keys.begin(), keys.end());
    if (checksumsRequireMatchingSize_.load()) attributeSet_.insert(FileAttributeKey::NSFileSize());
  });
}

std::vector<FileAttributeKey> IOValidationAttributes::combinedAttributes() const {
  return fileAttributes();
}

std::shared_ptr<IOValidationAttributes> IOValidationAttributes::mergedAttributes(
    const IOValidationAttributes& other) const {
  // One queue after the other, never nested: two threads merging in opposite directions cannot
  // wait for each other.
  FileAttributeKeySet merged = other.attributeSet();
  const FileAttributeKeySet mine = attributeSet();
  merged.insert(mine.begin(), mine.end());
  const bool force = other.checksumsRequireMatchingSize() || checksumsRequireMatchingSize();
  applySizeRule(merged, force);
  return create(std::move(merged), force);
}

nlohmann::json IOValidationAttributes::encode() const {
  std::vector<std::string> texts;
  mutex_->sync([this, &texts] {
    texts.reserve(attributeSet_.size());
    for (const FileAttributeKey& key : attributeSet_) texts.push_back(key.text());
  });
  // The set has no order; sorting makes equal records encode to equal documents.
  std::sort(texts.begin(), texts.end());
  nlohmann::json json = nlohmann::json::object();
  json[kFileAttributesKey] = std::move(texts);
  json[kForceSizeKey] = checksumsRequireMatchingSize();
  return json;
}

void to_json(nlohmann::json& json, const IOValidationAttributes& attributes) {
  json = attributes.encode();
}

}  // namespace corvane
