// Base-58 arithmetic of C4 IDs on a fixed array of 32-bit words.
//
// A C4 number is at most 88 base-58 digits (under 2^516), so 17 words always suffice; working on
// plain words instead of a general big integer keeps the C4 ID of a digest in microseconds.
// Results equal those of BigInt arithmetic (radix-16 parse, mod/divide by 58, multiply-add).
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace corvane::detail {

struct C4Number {
  static constexpr int kWords = 18;
  std::array<std::uint32_t, kWords> words{};  // least significant first

  // Reads lowercase or uppercase hex digits (at most 144); other characters count as zero digits.
  static C4Number fromHex(const std::string& hex);
  bool isZero() const noexcept;
  // Divides by `divisor` in place and returns the remainder.
  std::uint32_t divideBy(std::uint32_t divisor) noexcept;
  // this = this * factor + addend.
  void multiplyAdd(std::uint32_t factor, std::uint32_t addend) noexcept;
  // Number of words in use (at least 1), as a trimmed big integer counts them.
  int wordCount() const noexcept;
};

}  // namespace corvane::detail
