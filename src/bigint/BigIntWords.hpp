// Word-level helpers shared by the BigInt sources.
//
// BigInt keeps 128 words of 32 bits, least significant first, and a dataLength that callers may
// set to anything through setDataLength(). These helpers read a dataLength above the capacity as
// 128 so that no loop leaves the value's own storage; counts of 0 or less are passed through
// unchanged (the operations treat them as "no words in use").
#pragma once

#include <algorithm>
#include <cstdint>

#include "corvane/BigInt.hpp"

namespace corvane::detail {

inline constexpr std::int32_t kBigIntWords = BigInt::maxLength;
inline constexpr std::uint32_t kSignBit = 0x80000000u;

// dataLength as a loop bound: never above the capacity.
inline std::int32_t boundedLength(std::int32_t length) noexcept {
  return std::min(length, kBigIntWords);
}

// The trimming rule: drop zero words from the top while more than one word is in use.
inline std::int32_t trimmedLength(const std::uint32_t* words, std::int32_t length) noexcept {
  length = boundedLength(length);
  while (length > 1 && words[length - 1] == 0) --length;
  return length;
}

// "Zero in normal form": one word in use and that word zero.
inline bool isNormalZero(const BigInt& value) noexcept {
  return value.dataLength() == 1 && value.getDataAtIndex(0) == 0;
}

// Bit length of words[0, length) after trimming; a value without words in use has none.
std::int32_t bitLength(const std::uint32_t* words, std::int32_t length) noexcept;

[[noreturn]] void throwArithmetic(const char* reason);
[[noreturn]] void throwArgument(const char* reason);

// Schoolbook accumulation out += a * b over a[0, la) and b[0, lb), skipping zero words of a.
// `out` must hold zeros at every position the product reaches. The capacity is the whole guard:
// a word store at position 128 or above throws "ArithmeticException" / "Multiplication
// overflow.", exactly when the row-by-row product would have to write there.
void accumulateProduct(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                       std::int32_t lb, std::uint32_t* out);

// result = a * b for operands whose sign bit is clear, with every failure of BigInt::multiply:
// "Multiplication overflow." for a store beyond the capacity, "overflow." when bit 4095 of the
// product is set. dataLength is la + lb (limited to 128) before trimming, as multiply() sets it.
// `result` may not alias `a` or `b`.
void multiplyNonNegative(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                         std::int32_t lb, BigInt& result);

}  // namespace corvane::detail
