// For non-negative values read from the input: quotient * divisor + remainder == dividend and
// 0 <= remainder < divisor (divisor non-zero); add then subtract gives the value back.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "FuzzCheck.hpp"
#include "corvane/BigInt.hpp"
#include "corvane/Exception.hpp"

namespace {
corvane::BigInt valueFrom(const std::uint8_t* data, std::size_t bytes) {
  std::vector<std::uint32_t> words((bytes + 3) / 4, 0);
  for (std::size_t i = 0; i < bytes; ++i) {
    words[i / 4] = (words[i / 4] << 8) | data[i];
  }
  if (!words.empty()) words[0] &= 0x7FFFFFFFu;  // keep it non-negative
  return corvane::BigInt::createFromUIntArray(words.data(),
                                              static_cast<std::int32_t>(words.size()));
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using corvane::BigInt;
  if (size < 2 || size > 2 + 4 * 120) return 0;
  const std::size_t split = 1 + data[0] % (size - 1);
  const BigInt dividend = valueFrom(data + 1, split - 1 > 0 ? split - 1 : 0);
  const BigInt divisor = valueFrom(data + split, size - split);
  if (divisor.equals(BigInt::create()) || divisor.dataLength() < 1 || dividend.dataLength() < 1) {
    return 0;
  }
  try {
    const BigInt quotient = dividend.divide(divisor);
    const BigInt remainder = dividend.mod(divisor);
    CORVANE_FUZZ_CHECK(quotient.multiply(divisor).add(remainder).equals(dividend));
    CORVANE_FUZZ_CHECK(!remainder.isNegative() && remainder.lessThan(divisor));
    CORVANE_FUZZ_CHECK(dividend.add(divisor).subtract(divisor).equals(dividend));
  } catch (const corvane::Exception&) {
    // Products beyond the 4096-bit capacity raise; that is the documented outcome.
  }
  return 0;
}
