#include "checksum/C4Base58.hpp"

namespace corvane::detail {

namespace {
std::uint32_t hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<std::uint32_t>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<std::uint32_t>(c - 'A' + 10);
  return 0;
}
}  // namespace

C4Number C4Number::fromHex(const std::string& hex) {
  C4Number number;
  // The last digit is the least significant nibble.
  std::size_t nibble = 0;
  for (auto it = hex.rbegin(); it != hex.rend() && nibble < kWords * 8u; ++it, ++nibble) {
    number.words[nibble / 8] |= hexDigitValue(*it) << (4 * (nibble % 8));
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
