#include <utility>

#include "corvane/CompositeChecksumMethod.hpp"

namespace corvane {

void CompositeChecksumSorter::add(const std::string& checksum, const std::string& sortCriteria) {
  lookup_.insert_or_assign(sortCriteria, checksum);
}

std::vector<std::string> CompositeChecksumSorter::sortedChecksums() const {
  std::vector<std::string> sorted;
  sorted.reserve(lookup_.size());
  // The map keeps its criteria in ascending byte order already.
  if (ascending_) {
    for (const auto& [criterion, checksum] : lookup_) {
      sorted.push_back(checksum);
    }
  } else {
    for (auto it = lookup_.rbegin(); it != lookup_.rend(); ++it) {
      sorted.push_back(it->second);
    }
  }
  return sorted;
}

}  // namespace corvane
