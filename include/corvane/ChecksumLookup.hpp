// Checksum lookups, pairs and stores: the shapes in which a set of checksums travels.
//
// - ChecksumLookup: one checksum text per algorithm (unordered).
// - ChecksumPair: one (value, algorithm) element, serialised with the keys "value" and
//   "algorithm" (the latter as the raw number).
// - ChecksumStore: anything that owns checksums; its non-virtual operations compare two stores.
// Texts are compared exactly, byte for byte and case-sensitively ("AB" differs from "ab");
// nothing here parses or normalises a checksum. Checksum texts are plain ASCII, so byte equality
// is the same as Unicode canonical equivalence for every text the generators produce.
// Every function is pure, never fails and runs on the caller's thread; callbacks are called
// synchronously and are not kept. Lookups and pairs are values and may be shared between threads.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// One checksum text per algorithm. Keys are meant to be single flags; other keys are tolerated
// and handled as each function below states.
using ChecksumLookup = std::unordered_map<ChecksumType, std::string>;

// One checksum with the algorithm that produced it. Not hashable and not ordered.
struct CORVANE_API ChecksumPair {
  std::string value;
  ChecksumType algorithm;

  ChecksumPair(std::string value, ChecksumType algorithm)
      : value(std::move(value)), algorithm(algorithm) {}

  // Equal when both the algorithm and the exact text agree.
  friend bool operator==(const ChecksumPair& a, const ChecksumPair& b) {
    return a.algorithm == b.algorithm && a.value == b.value;
  }
};

// Anything that owns checksums. Implementations supply the three requirements and must stay
// unchanged during one operation (the operations read them several times). The operations work
// between stores of different implementations.
class CORVANE_API ChecksumStore {
 public:
  virtual ~ChecksumStore() = default;
  // Algorithms for which the store holds a checksum, in the store's own order.
  virtual std::vector<ChecksumType> storedChecksumAlgorithms() const = 0;
  // The stored text for `type`, or nothing.
  virtual std::optional<std::string> checksumValue(ChecksumType type) const = 0;
  // Calls `block(text, type)` once per stored checksum, in the store's own order.
  virtual void enumerateStoredChecksums(
      const std::function<void(const std::string&, ChecksumType)>& block) const = 0;

  // Pairs of this store whose algorithm the other store holds with the same text, in this
  // store's enumeration order. Algorithms held on one side only or with different texts are
  // left out.
  std::vector<ChecksumPair> checksumIntersection(const ChecksumStore& other) const;
  // Pairs of this store whose algorithm the other store does not hold at all, in this store's
  // enumeration order. The test is on the algorithm alone: one the other store holds with a
  // different text is left out too.
  std::vector<ChecksumPair> subtractingChecksums(const ChecksumStore& fromOther) const;
  // Calls `block(type, thisText, otherText)` for every algorithm both hold with different texts,
  // in this store's enumeration order. Algorithms missing on either side are never reported.
  void enumerateChecksumCollisions(
      const ChecksumStore& withOther,
      const std::function<void(ChecksumType, const std::string&, const std::string&)>& block) const;
  // Full outer walk, equal texts included: first every checksum of this store in its enumeration
  // order as `block(type, thisText, otherTextOrNothing)`, then every algorithm of the other
  // store's storedChecksumAlgorithms() that this store did not enumerate and for which the other
  // store returns a text, as `block(type, nothing, otherText)`, in that list's order.
  void enumerateAlgorithmEntries(
      const ChecksumStore& other,
      const std::function<void(ChecksumType, const std::optional<std::string>&,
                               const std::optional<std::string>&)>& block) const;
};

// The lookup as pairs in ChecksumType::defaultOrdering(). Keys outside the ten single flags
// (combined or unknown values) are left out; an empty lookup gives an empty list.
CORVANE_API std::vector<ChecksumPair> pairs(const ChecksumLookup& lookup);
// Calls `block` with each pair of pairs(lookup), in that order.
CORVANE_API void enumerateSortedEntries(const ChecksumLookup& lookup,
                                        const std::function<void(const ChecksumPair&)>& block);
// Calls `didEncounterConflict(type, thisText, otherText)` for every key both lookups hold with
// different texts, in the lookup's own (undefined) order. Keys on one side only are not
// conflicts. Every key is compared, combined and unknown values included.
CORVANE_API void enumerateConflictingEntries(
    const ChecksumLookup& lookup, const ChecksumLookup& other,
    const std::function<void(ChecksumType, const std::string&, const std::string&)>&
        didEncounterConflict);
// For each of the ten flags in ascending raw value: when two or more lookups hold it and they
// hold at least two distinct texts, calls `didEncounterCollision(type, distinctTexts)` once, with
// each distinct text once, in no defined order. Keys outside the ten flags are ignored; fewer than
// two lookups never collide.
CORVANE_API void enumerateCollisions(
    const std::vector<ChecksumLookup>& lookups,
    const std::function<void(ChecksumType, const std::vector<std::string>&)>&
        didEncounterCollision);

}  // namespace corvane

// JSON coding of ChecksumPair: an object with exactly the keys "value" (text) and "algorithm"
// (the raw number, as ChecksumType encodes itself). Decoding ignores any other key and throws
// corvane::DecodingError naming the key: keyNotFound when "value" or "algorithm" is missing,
// typeMismatch when "value" is not a text or "algorithm" not an unsigned integer ("value" is
// checked first). A value that is not an object throws typeMismatch with an empty key. The
// algorithm number is taken as is, without checking that it is a known flag.
template <>
struct CORVANE_API nlohmann::adl_serializer<corvane::ChecksumPair> {
  static corvane::ChecksumPair from_json(const nlohmann::json& json);
  static void to_json(nlohmann::json& json, const corvane::ChecksumPair& pair);
};
