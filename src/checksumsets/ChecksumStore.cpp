// The comparisons every ChecksumStore gets on top of its three requirements. Each one walks this
// store with enumerateStoredChecksums() and asks the other store one algorithm at a time, so both
// stores may be of different implementations and neither needs an index of its own.
#include <algorithm>

#include "corvane/ChecksumLookup.hpp"

namespace corvane {

std::vector<ChecksumPair> ChecksumStore::checksumIntersection(const ChecksumStore& other) const {
  std::vector<ChecksumPair> result;
  enumerateStoredChecksums([&](const std::string& text, ChecksumType type) {
    const std::optional<std::string> otherText = other.checksumValue(type);
    if (otherText && *otherText == text) {
      result.emplace_back(text, type);
    }
  });
  return result;
}

std::vector<ChecksumPair> ChecksumStore::subtractingChecksums(
    const ChecksumStore& fromOther) const {
  std::vector<ChecksumPair> result;
  enumerateStoredChecksums([&](const std::string& text, ChecksumType type) {
    // Only the presence of the algorithm matters here; a differing text is a collision, which
    // enumerateChecksumCollisions reports, not something this store holds alone.
    if (!fromOther.checksumValue(type)) {
      result.emplace_back(text, type);
    }
  });
  return result;
}

void ChecksumStore::enumerateChecksumCollisions(
    const ChecksumStore& withOther,
    const std::function<void(ChecksumType, const std::string&, const std::string&)>& block) const {
  enumerateStoredChecksums([&](const std::string& text, ChecksumType type) {
    const std::optional<std::string> otherText = withOther.checksumValue(type);
    if (otherText && *otherText != text) {
      block(type, text, *otherText);
    }
  });
}

void ChecksumStore::enumerateAlgorithmEntries(
    const ChecksumStore& other,
    const std::function<void(ChecksumType, const std::optional<std::string>&,
                             const std::optional<std::string>&)>& block) const {
  // A store holds a handful of algorithms, so a list with linear search is cheaper than a set and
  // keeps the walk free of any assumption about the keys (unknown values are compared too).
  std::vector<ChecksumType> seen;
  enumerateStoredChecksums([&](const std::string& text, ChecksumType type) {
    seen.push_back(type);
    block(type, std::optional<std::string>(text), other.checksumValue(type));
  });
  for (const ChecksumType type : other.storedChecksumAlgorithms()) {
    if (std::find(seen.begin(), seen.end(), type) != seen.end()) {
      continue;
    }
    // The list and the values are separate requirements; an algorithm listed without a value
    // has nothing to report.
    const std::optional<std::string> otherText = other.checksumValue(type);
    if (otherText) {
      block(type, std::nullopt, otherText);
    }
  }
}

}  // namespace corvane
