// Streaming a buffer in chunks (sizes taken from the input, empty chunks included) gives the
// same checksum as handing it over in one piece, for every algorithm.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "FuzzCheck.hpp"
#include "checksum/BlockingHandOff.hpp"
#include "corvane/ChecksumGenerator.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvane;
  if (size < 2) return 0;
  const std::size_t algorithm = data[0] % ChecksumType::allCases().size();
  const ChecksumType type = ChecksumType::allCases()[algorithm];
  const std::uint8_t step = data[1];  // chunk size pattern
  const Bytes input(data + 2, data + size);

  const auto whole = ChecksumGenerator::generateChecksumForData(input, type);
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
  if (!generator) {
    CORVANE_FUZZ_CHECK(!whole);
    return 0;
  }
  dispatch::Group group;
  std::size_t offset = 0;
  std::size_t index = 0;
  while (offset < input.size()) {
    const std::size_t length = std::min<std::size_t>((step + index++) % 64, input.size() - offset);
    auto chunk =
        std::make_shared<const Bytes>(input.begin() + static_cast<std::ptrdiff_t>(offset),
                                      input.begin() + static_cast<std::ptrdiff_t>(offset + length));
    detail::addAndWait(*generator, group, chunk);
    offset += length;
  }
  CORVANE_FUZZ_CHECK(detail::finalizeAndWait(*generator, group) == whole);
  return 0;
}
