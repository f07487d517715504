#include "corvane/CompositeChecksumGenerator.hpp"

#include "composite/CompositeChecksumSupport.hpp"

namespace corvane {

std::optional<std::string> CompositeChecksumGenerator::generate(
    const std::vector<std::string>& checksums, ChecksumType algorithm) const {
  const CompositeChecksumMethod how = method();
  const std::optional<Bytes> bytes =
      removeDuplicates() ? how.data(composite::removingDuplicates(checksums), algorithm)
                         : how.data(checksums, algorithm);
  if (!bytes) {
    return std::nullopt;
  }
  return composite::hashBytes(*bytes, algorithm);
}

void CompositeChecksumGenerator::generate(
    const std::unordered_map<ChecksumType, std::vector<std::string>>& orderedChecksumLookup,
    const ChecksumWasGenerated& checksumWasGenerated) const {
  for (const auto& [algorithm, checksums] : orderedChecksumLookup) {
    if (std::optional<std::string> checksum = generate(checksums, algorithm)) {
      checksumWasGenerated(*checksum, algorithm);
    }
  }
}

}  // namespace corvane
