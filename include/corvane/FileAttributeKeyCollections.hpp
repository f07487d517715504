// Operations on sets and lists of file-attribute keys: find, add and strip the checksum keys.
//
// What a validation compares is described by a collection of file-attribute keys: ordinary ones
// (size, dates, ...) mixed with the ten checksum keys (FileAttributeKey.hpp). Keys travel in two
// shapes, an unordered FileAttributeKeySet and an ordered std::vector<FileAttributeKey> that may
// hold duplicates; every operation below exists for both shapes where it makes sense.
//
// The checksum keys are always walked in ascending flag order (MD5, xxHash64, CRC-32, SHA-1,
// SHA-256, SHA-512, SR Sum, C4, XXH3 64-bit, XXH3 128-bit); a key's algorithm is the first in
// that order whose key equals it.
//
// Thread safety: every function works on values owned by the caller and shares nothing; calls
// on different collections may run concurrently. Failure: only addChecksumKeys can fail, and
// only by a programming error (see there); a search that finds nothing answers with nothing or
// false.
#pragma once

#include <optional>
#include <unordered_set>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"
#include "corvane/FileAttributeKey.hpp"

namespace corvane {

// ---- Sets of keys ------------------------------------------------------------------------------

// The algorithms whose keys are in `keys`; nothing when the set holds no checksum key.
CORVANE_API std::optional<std::unordered_set<ChecksumType>> representedChecksumsAlgorithms(
    const FileAttributeKeySet& keys);

// True when at least one checksum key is in `keys`.
CORVANE_API bool containsChecksumKeys(const FileAttributeKeySet& keys);

// Inserts the key of each algorithm of `forAlgorithms` (a key already present stays once). An
// empty list changes nothing. An algorithm that is not one of the ten single flags is a
// programming error: one diagnostic line naming "ChecksumType" and the raw value, then abort.
CORVANE_API void addChecksumKeys(FileAttributeKeySet& keys,
                                 const std::vector<ChecksumType>& forAlgorithms);

// `keys` without any checksum key; `keys` itself is unchanged.
CORVANE_API FileAttributeKeySet trimmingChecksumAttributes(const FileAttributeKeySet& keys);

// Removes every checksum key from `keys`.
CORVANE_API void removeAllChecksumKeys(FileAttributeKeySet& keys);

// ---- Lists of keys -----------------------------------------------------------------------------

// One algorithm per checksum key of `keys`, in list order; a checksum key that occurs twice
// gives its algorithm twice. Nothing when the list holds no checksum key (or is empty).
CORVANE_API std::optional<std::vector<ChecksumType>> representedChecksumsAlgorithms(
    const std::vector<FileAttributeKey>& keys);

// True when at least one checksum key occurs in `keys`.
CORVANE_API bool containsChecksumKeys(const std::vector<FileAttributeKey>& keys);

// For each algorithm of `forAlgorithms`, in order: appends its key unless `keys` already holds
// it. The list never gains a duplicate checksum key. Fatal for a value that is not one of the
// ten single flags, as the set overload.
CORVANE_API void addChecksumKeys(std::vector<FileAttributeKey>& keys,
                                 const std::vector<ChecksumType>& forAlgorithms);

// A copy of `keys` from which, for each element of `removing` in order, the first equal element
// is removed; later equal elements stay. An element of `removing` named twice removes two
// occurrences. Elements of `removing` not in the list are ignored.
CORVANE_API std::vector<FileAttributeKey> trimming(const std::vector<FileAttributeKey>& keys,
                                                   const std::vector<FileAttributeKey>& removing);

// trimming(keys, allFileAttributesKeys()): removes the FIRST occurrence of each checksum key
// only, so a checksum key that occurs twice keeps its second occurrence. This is deliberate.
CORVANE_API std::vector<FileAttributeKey> trimmingChecksumAttributes(
    const std::vector<FileAttributeKey>& keys);

// trimmingChecksumAttributes() in place: the first occurrence of each checksum key is removed.
CORVANE_API void removeAllChecksumKeys(std::vector<FileAttributeKey>& keys);

// The distinct elements of `keys` that are not in `removing`, in no defined order (duplicates
// collapse).
CORVANE_API std::vector<FileAttributeKey> subtracting(
    const std::vector<FileAttributeKey>& keys, const std::vector<FileAttributeKey>& removing);

}  // namespace corvane
