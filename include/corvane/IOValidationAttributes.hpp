// IOValidationAttributes: which file attributes a copy-and-verify step compares.
//
// A record holds one set of file-attribute keys: ordinary attributes (size, dates, ...) and
// checksum keys (FileAttributeKey.hpp) together. It keeps one rule, the size rule: when
// checksumsRequireMatchingSize() is true and the set holds at least one checksum key, the
// file-size key NSFileSize is in the set too. The rule is applied by the factories, by
// setAttributeSet() (and everything that writes through it) and by setChecksumAttributes().
//
// Ownership: records are shared between threads and live in std::shared_ptr; create them with
// the static factories. A record owns a private serial queue labelled
// "com.corvane.security.attributes.mutex" that lives and dies with it.
//
// Thread safety: every read and write of the key set runs synchronously on the record's queue
// (the caller waits), so accesses of one record never overlap; any method may be called from any
// thread. No caller code ever runs on that queue (modifyAttributeSet() runs its callback on the
// calling thread, outside the queue), so the callback may use the record freely.
// checksumsRequireMatchingSize is a plain atomic flag read and written without the queue.
//
// Serialised form (JSON object, through encode()/fromJSON() or to_json):
//   "fileAttributes":              array of key texts (the whole set, checksum keys included)
//   "forceChecksumSizeComparison": boolean
// Decoding also reads "checksumAttributes", an array of algorithm flag numbers, which encoding
// never writes. There are two decoders:
// - fromJSON() is lenient about types (missing or malformed entries are skipped) but treats a
//   checksum number that is not one of the ten single flags as the programming error it is in
//   create(): the process stops. Use it for documents the application wrote itself.
// - fromUntrustedJSON() never stops the process and never throws DecodingError: any malformed
//   entry, such a number included, makes it return null with the error. Use it for documents
//   read from files or peers the application does not control.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/Exception.hpp"
#include "corvane/Export.hpp"
#include "corvane/FileAttributeKey.hpp"

namespace corvane {

namespace dispatch {
class SerialQueue;
}

class CORVANE_API IOValidationAttributes {
 public:
  // The set holds the keys of `fileAttributes` (duplicates collapse) and the keys of
  // `checksumAlgorithms`; if `forceChecksumSizeComparison` is true and the set holds a checksum
  // key (from either argument), NSFileSize is added. checksumsRequireMatchingSize() becomes
  // `forceChecksumSizeComparison`. An algorithm that is not one of the ten single flags is a
  // programming error: one diagnostic line naming "ChecksumType" and the raw value, then abort.
  static std::shared_ptr<IOValidationAttributes> create(
      const std::vector<FileAttributeKey>& fileAttributes,
      const std::optional<std::vector<ChecksumType>>& checksumAlgorithms,
      bool forceChecksumSizeComparison);

  // create({}, checksumAlgorithms, forceChecksumSizeComparison). Fatal as above.
  static std::shared_ptr<IOValidationAttributes> create(
      const std::vector<ChecksumType>& checksumAlgorithms, bool forceChecksumSizeComparison);

  // The given set, plus NSFileSize when `forceChecksumSizeComparison` is true and the set holds a
  // checksum key.
  static std::shared_ptr<IOValidationAttributes> create(FileAttributeKeySet attributeSet,
                                                        bool forceChecksumSizeComparison);

  // Reads the serialised form, leniently:
  // - "fileAttributes": an array of strings becomes the set; if it is missing or anything else
  //   (including an array holding a non-string), the set starts empty.
  // - "checksumAttributes": an array of non-negative integers; their keys are added to the set.
  //   Missing or malformed (not an array, or an element that is not a non-negative integer): the
  //   whole list is ignored. A number of a well-formed list that is not one of the ten single
  //   flags (0, 3, 1024, ...) is a programming error as in create(): one diagnostic line naming
  //   "ChecksumType" and the raw value, then abort. Documents from outside go through
  //   fromUntrustedJSON() instead.
  // - "forceChecksumSizeComparison": a boolean; when present it becomes the flag and, if true,
  //   the size rule is applied. Missing or not a boolean: the flag stays true and the size rule
  //   is NOT applied.
  // Other keys are ignored. Throws DecodingError(typeMismatch) only when `json` is not an object.
  static std::shared_ptr<IOValidationAttributes> fromJSON(const nlohmann::json& json);

  // Reads the serialised form strictly, for documents the application does not control. Returns
  // null when the document is malformed, and then sets *error (when `error` is not null) to a
  // DecodingError naming the key:
  // - typeMismatch, key "": `json` is not an object;
  // - typeMismatch, key "fileAttributes": not an array of strings;
  // - typeMismatch, key "checksumAttributes": not an array of integers;
  // - dataCorrupted, key "checksumAttributes": an integer that is not one of the ten single
  //   flags (0, 3, 1024, -16, ...);
  // - typeMismatch, key "forceChecksumSizeComparison": not a boolean.
  // A key that is missing or null is absent, with the defaults of fromJSON(); other keys are
  // ignored. A document that decodes gives the same record as fromJSON(). Never throws
  // DecodingError and never stops the process; on success *error is left untouched.
  static std::shared_ptr<IOValidationAttributes> fromUntrustedJSON(
      const nlohmann::json& json, std::optional<DecodingError>* error);

  IOValidationAttributes(const IOValidationAttributes&) = delete;
  IOValidationAttributes& operator=(const IOValidationAttributes&) = delete;
  ~IOValidationAttributes();

  // When true, any set that holds a checksum key also gets NSFileSize. Setting the flag stores it
  // only; the current set is not revisited.
  bool checksumsRequireMatchingSize() const noexcept;
  void setChecksumsRequireMatchingSize(bool value) noexcept;

  // A copy of the whole set.
  FileAttributeKeySet attributeSet() const;
  // Replaces the set, applying the size rule with the current flag.
  void setAttributeSet(FileAttributeKeySet attributeSet);
  // Reads the set, lets `modify` change the copy (outside the queue), then writes it back with
  // setAttributeSet(). Each half is atomic, the whole is not: two threads modifying one record at
  // once can lose one change.
  void modifyAttributeSet(const std::function<void(FileAttributeKeySet&)>& modify);

  // All keys of the set (checksum keys included), in no defined order.
  std::vector<FileAttributeKey> fileAttributes() const;
  // Replaces the whole set by the keys of `fileAttributes` through setAttributeSet(); checksum
  // keys not in the list are dropped.
  void setFileAttributes(const std::vector<FileAttributeKey>& fileAttributes);

  // The algorithms whose keys are in the set, in no defined order; nothing (not an empty list)
  // when the set holds no checksum key.
  std::optional<std::vector<ChecksumType>> checksumAttributes() const;
  // Removes all checksum keys; then, if `checksumAttributes` is present and not empty, inserts
  // the key of each algorithm and, if checksumsRequireMatchingSize(), NSFileSize. Setting nothing
  // or an empty list only removes the checksum keys (NSFileSize stays if it was there). Fatal for
  // an algorithm that is not one of the ten single flags.
  void setChecksumAttributes(const std::optional<std::vector<ChecksumType>>& checksumAttributes);

  // All keys of the set, in no defined order; the same content as fileAttributes().
  std::vector<FileAttributeKey> combinedAttributes() const;

  // A new record holding the union of both sets, whose flag is true when either flag is true
  // (with the size rule applied). Reads `other`'s set and then this set, each on its own queue,
  // never one inside the other, so merging a with b while another thread merges b with a cannot
  // deadlock. Neither input changes.
  std::shared_ptr<IOValidationAttributes> mergedAttributes(
      const IOValidationAttributes& other) const;

  // The serialised form: {"fileAttributes": [key texts, sorted], "forceChecksumSizeComparison":
  // flag}. "checksumAttributes" is never written; checksum keys travel in "fileAttributes".
  nlohmann::json encode() const;

 private:
  IOValidationAttributes();

  // Size rule on `set` with `requireSize`.
  static void applySizeRule(FileAttributeKeySet& set, bool requireSize);
  // A decoded record: `force`, when present, becomes the flag and applies the size rule; absent,
  // the flag stays true and the set is kept as it is.
  static std::shared_ptr<IOValidationAttributes> makeDecoded(FileAttributeKeySet set,
                                                             std::optional<bool> force);

  std::atomic<bool> checksumsRequireMatchingSize_{true};
  std::shared_ptr<dispatch::SerialQueue> mutex_;
  FileAttributeKeySet attributeSet_;  // read and written only on mutex_
};

// Same as json = attributes.encode().
CORVANE_API void to_json(nlohmann::json& json, const IOValidationAttributes& attributes);

}  // namespace corvane
