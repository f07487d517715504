#include <algorithm>
#include <utility>

#include "composite/CompositeChecksumSupport.hpp"
#include "corvane/CompositeChecksumGenerator.hpp"
#include "corvane/CorvaneLog.hpp"

namespace corvane {
namespace {

// Two neighbouring checksums of one level, hashed first then second.
struct Pair {
  const std::string& first;
  const std::string& second;
};

std::string algorithmNameForLog(ChecksumType algorithm) {
  return algorithm.isKnownAlgorithm() ? algorithm.name() : std::to_string(algorithm.rawValue());
}

}  // namespace

std::vector<std::string> Smpte2144Colon2017CompositeChecksumGenerator::sortChecksums(
    std::vector<std::string> unorderedChecksums) {
  // std::string compares as unsigned bytes: byte order, case-sensitive.
  std::sort(unorderedChecksums.begin(), unorderedChecksums.end());
  return unorderedChecksums;
}

std::optional<std::string> Smpte2144Colon2017CompositeChecksumGenerator::generate(
    const std::vector<std::string>& checksums, ChecksumType algorithm,
    bool sortChecksumList) const {
  std::vector<std::string> level =
      removeDuplicates_ ? composite::removingDuplicates(checksums) : checksums;
  if (sortChecksumList) {
    level = sortChecksums(std::move(level));
  }
  // A single checksum is the composite as it is, without hashing; none gives none.
  while (level.size() > 1) {
    std::optional<std::string> carried;
    if (level.size() % 2 != 0) {
      carried = std::move(level.back());
      level.pop_back();
    }
    std::vector<std::string> next;
    next.reserve(level.size() / 2 + 1);
    for (std::size_t i = 0; i < level.size(); i += 2) {
      const Pair pair{level[i], level[i + 1]};
      std::optional<std::string> hash;
      if (const std::optional<Bytes> bytes = method_.data({pair.first, pair.second}, algorithm)) {
        hash = composite::hashBytes(*bytes, algorithm);
      }
      if (!hash) {
        CorvaneLog::defaultLogger().logError("CS_CC - Failed to hash checksum pairs '" +
                                             pair.first + "' & '" + pair.second + "' of type '" +
                                             algorithmNameForLog(algorithm) + "' ");
        return std::nullopt;
      }
      next.push_back(std::move(*hash));
    }
    // The hashes of a level are always sorted; the carried item stays last, unsorted.
    next = sortChecksums(std::move(next));
    if (carried) {
      next.push_back(std::move(*carried));
    }
    level = std::move(next);
  }
  if (level.empty()) {
    return std::nullopt;
  }
  return std::move(level.front());
}

}  // namespace corvane
