#include "corvane/CompositeChecksumMethod.hpp"

#include "checksum/HexDecoding.hpp"
#include "corvane/C4Identifier.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"

namespace corvane {

std::optional<Bytes> CompositeChecksumMethod::data(const std::vector<std::string>& fromList,
                                                   std::optional<ChecksumType> algorithm) const {
  Bytes bytes;
  if (!isData_) {
    // Checksum texts are UTF-8 already: joining them is joining their bytes.
    std::size_t total = 0;
    for (const auto& checksum : fromList) {
      total += checksum.size();
    }
    bytes.reserve(total);
    for (const auto& checksum : fromList) {
      bytes.insert(bytes.end(), checksum.begin(), checksum.end());
    }
    return bytes;
  }

  const bool useC4Decoder = algorithm.has_value() && *algorithm == ChecksumTypeC4;
  if (!useC4Decoder && !fromList.empty()) bytes.reserve(fromList.size() * fromList[0].size() / 2);
  for (const auto& checksum : fromList) {
    if (useC4Decoder) {
      // The C4 decoder is asked for big-endian storage, the hexadecimal one below for
      // little-endian storage: both follow the one bigEndian switch.
      std::optional<Bytes> decoded =
          CorvaneC4DataUtility::convertC4ChecksumToData(checksum, bigEndian_);
      if (!decoded) {
        return std::nullopt;
      }
      bytes.insert(bytes.end(), decoded->begin(), decoded->end());
    } else {
      // As CorvaneChecksumGenerator::dataFromHexString(checksum, !bigEndian) decodes it,
      // appended in place.
      detail::appendBytesFromHexText(checksum, !bigEndian_, bytes);
    }
  }
  return bytes;
}

}  // namespace corvane
