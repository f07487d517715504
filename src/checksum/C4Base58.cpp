#include "checksum/C4Base58.hpp"

#include <algorithm>

#include "checksum/HexDecoding.hpp"

namespace corvane::detail {

C4Number C4Number::fromHex(const std::string& hex) {
  C4Number number;
  // The last digit is the least significant nibble.
  std::size_t nibble = 0;
  for (auto it = hex.rbegin(); it != hex.rend() && nibble < kWords * 8u; ++it, ++nibble) {
    // Other characters count as zero digits.
    const int value = std::max(hexDigitValue(*it), 0);
    number.words[nibble / 8] |= static_cast<std::uint32_t>(value) << (4 * (nibble % 8));
  }
  return number;
}

bool C4Number::isZero() const noexcept {
  for (std::uint32_t word : words) {
    if (word != 0) return false;
  }
  return true;
}

std::uint32_t C4Number::divideBy(std::uint32_t divisor) noexcept {
  std::uint64_t remainder = 0;
  for (int i = kWords - 1; i >= 0; --i) {
    const std::uint64_t part = (remainder << 32) | words[static_cast<std::size_t>(i)];
    words[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>(part / divisor);
    remainder = part % divisor;
  }
  return static_cast<std::uint32_t>(remainder);
}

void C4Number::multiplyAdd(std::uint32_t factor, std::uint32_t addend) noexcept {
  std::uint64_t carry = addend;
  for (std::uint32_t& word : words) {
    const std::uint64_t value = std::uint64_t{word} * factor + carry;
    word = static_cast<std::uint32_t>(value);
    carry = value >> 32;
  }
}

int C4Number::wordCount() const noexcept {
  int count = kWords;
  while (count > 1 && words[static_cast<std::size_t>(count - 1)] == 0) --count;
  return count;
}

}  // namespace corvane::detail
