// Ordered views of a checksum lookup and the comparisons between lookups.
#include "corvane/ChecksumLookup.hpp"

#include <unordered_set>

namespace corvane {

std::vector<ChecksumPair> pairs(const ChecksumLookup& lookup) {
  std::vector<ChecksumPair> result;
  result.reserve(lookup.size());
  enumerateSortedEntries(lookup, [&](const ChecksumPair& pair) { result.push_back(pair); });
  return result;
}

void enumerateSortedEntries(const ChecksumLookup& lookup,
                            const std::function<void(const ChecksumPair&)>& block) {
  // Walking the fixed ordering rather than the map gives a stable order and leaves out every key
  // that is not one of the ten flags without having to test for it.
  for (const ChecksumType type : ChecksumType::defaultOrdering()) {
    const auto entry = lookup.find(type);
    if (entry != lookup.end()) {
      block(ChecksumPair(entry->second, type));
    }
  }
}

void enumerateConflictingEntries(
    const ChecksumLookup& lookup, const ChecksumLookup& other,
    const std::function<void(ChecksumType, const std::string&, const std::string&)>&
        didEncounterConflict) {
  if (other.empty()) {
    return;
  }
  // Every key is compared as it stands, combined and unknown values included: a lookup that
  // carries such a key on both sides disagrees about it as much as about a known algorithm.
  for (const auto& [type, text] : lookup) {
    const auto otherEntry = other.find(type);
    if (otherEntry != other.end() && otherEntry->second != text) {
      didEncounterConflict(type, text, otherEntry->second);
    }
  }
}

void enumerateCollisions(const std::vector<ChecksumLookup>& lookups,
                         const std::function<void(ChecksumType, const std::vector<std::string>&)>&
                             didEncounterCollision) {
  for (const ChecksumType type : ChecksumType::allCases()) {
    std::size_t holders = 0;
    // The set answers "seen before?" in constant time for long lists of copies; the list keeps
    // the texts in first-seen order, so the report is the same from run to run.
    std::unordered_set<std::string> seenTexts;
    std::vector<std::string> distinctTexts;
    for (const ChecksumLookup& lookup : lookups) {
      const auto entry = lookup.find(type);
      if (entry == lookup.end()) {
        continue;
      }
      ++holders;
      if (seenTexts.insert(entry->second).second) {
        distinctTexts.push_back(entry->second);
      }
    }
    if (holders < 2 || distinctTexts.size() < 2) {
      continue;
    }
    didEncounterCollision(type, distinctTexts);
  }
}

}  // namespace corvane
