// Steps shared by the composite generators (internal).
#pragma once

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"

namespace corvane::composite {

// The first occurrence of each text, in the order of first occurrence (case-sensitive equality).
inline std::vector<std::string> removingDuplicates(const std::vector<std::string>& checksums) {
  std::vector<std::string> unique;
  unique.reserve(checksums.size());
  std::unordered_set<std::string> seen;
  seen.reserve(checksums.size());
  for (const auto& checksum : checksums) {
    if (seen.insert(checksum).second) {
      unique.push_back(checksum);
    }
  }
  return unique;
}

// The checksum of `bytes` for `algorithm`, as the one-algorithm buffer form of ChecksumGenerator
// computes it; absent when the algorithm has no generator.
inline std::optional<std::string> hashBytes(const Bytes& bytes, ChecksumType algorithm) {
  return ChecksumGenerator::generateChecksumForData(bytes, algorithm);
}

}  // namespace corvane::composite
