// BigInt addition, subtraction, multiplication, negation, shifts, bitwise operations, bit length
// and comparisons, all on the 128-word two's-complement storage.

#include <algorithm>
#include <bit>
#include <cstdint>

#include "bigint/BigIntWords.hpp"
#include "corvane/BigInt.hpp"
#include "corvane/Exception.hpp"

namespace corvane {

using detail::boundedLength;
using detail::kBigIntWords;
using detail::kSignBit;
using detail::trimmedLength;

namespace detail {

std::int32_t bitLength(const std::uint32_t* words, std::int32_t length) noexcept {
  length = trimmedLength(words, length);
  if (length < 1) return 0;
  const std::uint32_t top = words[length - 1];
  return 32 * (length - 1) + (top == 0 ? 0 : 32 - std::countl_zero(top));
}

void accumulateProduct(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                       std::int32_t lb, std::uint32_t* out) {
  for (std::int32_t i = 0; i < la; ++i) {
    const std::uint64_t ai = a[i];
    if (ai == 0) continue;
    // Row i writes positions i to i + lb - 1, then its carry at i + lb. The product has no word
    // beyond the capacity to go to, so a store there is the overflow.
    if (i + lb > kBigIntWords) throwArithmetic("Multiplication overflow.");
    std::uint32_t* row = out + i;
    std::uint64_t carry = 0;
    std::int32_t j = 0;
    for (; j + 4 <= lb; j += 4) {
      std::uint64_t v0 = ai * b[j] + row[j] + carry;
      row[j] = static_cast<std::uint32_t>(v0);
      std::uint64_t v1 = ai * b[j + 1] + row[j + 1] + (v0 >> 32);
      row[j + 1] = static_cast<std::uint32_t>(v1);
      std::uint64_t v2 = ai * b[j + 2] + row[j + 2] + (v1 >> 32);
      row[j + 2] = static_cast<std::uint32_t>(v2);
      std::uint64_t v3 = ai * b[j + 3] + row[j + 3] + (v2 >> 32);
      row[j + 3] = static_cast<std::uint32_t>(v3);
      carry = v3 >> 32;
    }
    for (; j < lb; ++j) {
      const std::uint64_t v = ai * b[j] + row[j] + carry;
      row[j] = static_cast<std::uint32_t>(v);
      carry = v >> 32;
    }
    if (carry != 0) {
      if (i + lb >= kBigIntWords) throwArithmetic("Multiplication overflow.");
      row[lb] = static_cast<std::uint32_t>(carry);
    }
  }
}

namespace {

// The product of two magnitudes with multiply()'s length rule and its bit-4095 check.
// `lengthBeforeTrim` is the receiver's dataLength as received plus the argument's magnitude
// length.
void productOfMagnitudes(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                         std::int32_t lb, std::int64_t lengthBeforeTrim, BigInt& result) {
  std::uint32_t* out = result.getData();
  std::fill_n(out, kBigIntWords, 0u);
  accumulateProduct(a, la, b, lb, out);
  const auto length =
      static_cast<std::int32_t>(std::min<std::int64_t>(lengthBeforeTrim, kBigIntWords));
  result.setDataLength(trimmedLength(out, length));
  // Every product that reaches bit 4095 fails, also -2^4095, which the sign-and-magnitude
  // method cannot tell from an overflow.
  if ((out[kBigIntWords - 1] & kSignBit) != 0) throwArithmetic("overflow.");
}

}  // namespace

void multiplyNonNegative(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                         std::int32_t lb, BigInt& result) {
  productOfMagnitudes(a, boundedLength(la), b, boundedLength(lb),
                      static_cast<std::int64_t>(la) + lb, result);
}

}  // namespace detail

// --- addition and subtraction ----------------------------------------------------------------

BigInt BigInt::add(const BigInt& other) const {
  BigInt result;
  std::int32_t length = std::max(boundedLength(dataLength_), boundedLength(other.dataLength_));
  std::uint64_t carry = 0;
  for (std::int32_t i = 0; i < length; ++i) {
    const std::uint64_t sum = std::uint64_t{data_[i]} + other.data_[i] + carry;
    result.data_[i] = static_cast<std::uint32_t>(sum);
    carry = sum >> 32;
  }
  // A carry out of word 127 is dropped; the sign rule below reports the overflow.
  if (carry != 0 && length < kBigIntWords) result.data_[length++] = 1;
  result.dataLength_ = trimmedLength(result.data_.data(), length);

  const bool negative = isNegative();
  if (negative == other.isNegative() && result.isNegative() != negative) {
    detail::throwArithmetic("Overflow");
  }
  return result;
}

BigInt BigInt::subtract(const BigInt& other) const {
  BigInt result;
  std::int32_t length = std::max(boundedLength(dataLength_), boundedLength(other.dataLength_));
  std::uint32_t borrow = 0;
  for (std::int32_t i = 0; i < length; ++i) {
    const std::int64_t diff =
        std::int64_t{data_[i]} - std::int64_t{other.data_[i]} - std::int64_t{borrow};
    result.data_[i] = static_cast<std::uint32_t>(diff);
    borrow = diff < 0 ? 1 : 0;
  }
  if (borrow != 0) {
    // The difference rolled over below zero: it is negative over the whole capacity.
    std::fill(result.data_.begin() + length, result.data_.end(), 0xFFFFFFFFu);
    length = kBigIntWords;
  }
  result.dataLength_ = trimmedLength(result.data_.data(), length);

  const bool negative = isNegative();
  if (negative != other.isNegative() && result.isNegative() != negative) {
    detail::throwArithmetic("Overflow");
  }
  return result;
}

// --- multiplication ----------------------------------------------------------------------------

BigInt BigInt::multiply(const BigInt& other) const {
  const bool negative = isNegative();
  const bool otherNegative = other.isNegative();
  BigInt result;
  if (!negative && !otherNegative) {
    detail::productOfMagnitudes(data_.data(), boundedLength(dataLength_), other.data_.data(),
                                boundedLength(other.dataLength_),
                                std::int64_t{dataLength_} + other.dataLength_, result);
    return result;
  }

  // Sign and magnitude. Only the most negative value cannot be negated; it then takes part with
  // its words as they are, which read as an unsigned number are its magnitude 2^4095.
  BigInt magnitude(*this);
  BigInt otherMagnitude(other);
  if (negative) {
    try {
      magnitude = negate();
    } catch (const Exception&) {
    }
  }
  if (otherNegative) {
    try {
      otherMagnitude = other.negate();
    } catch (const Exception&) {
    }
  }
  detail::productOfMagnitudes(magnitude.data_.data(), boundedLength(magnitude.dataLength_),
                              otherMagnitude.data_.data(),
                              boundedLength(otherMagnitude.dataLength_),
                              std::int64_t{dataLength_} + otherMagnitude.dataLength_, result);
  if (negative != otherNegative) return result.negate();
  return result;
}

// --- negation, complement, absolute value ------------------------------------------------------

BigInt BigInt::negate() const {
  if (dataLength_ == 1 && data_[0] == 0) return BigInt();

  BigInt result(*this);
  for (std::uint32_t& word : result.data_) word = ~word;
  for (std::int32_t i = 0; i < kBigIntWords; ++i) {
    if (++result.data_[i] != 0) break;  // carry upward only while the word wrapped to 0
  }
  // The most negative value (and a zero that is not in normal form) keeps its sign.
  if (result.isNegative() == isNegative()) detail::throwArithmetic("Overflow in negation.");
  result.dataLength_ = trimmedLength(result.data_.data(), kBigIntWords);
  return result;
}

BigInt BigInt::not_() const {
  BigInt result(*this);
  for (std::uint32_t& word : result.data_) word = ~word;
  result.dataLength_ = trimmedLength(result.data_.data(), kBigIntWords);
  return result;
}

BigInt BigInt::abs() const { return isNegative() ? negate() : BigInt(*this); }

// --- shifts ----------------------------------------------------------------------------------

std::int32_t BigInt::shiftLeft(std::uint32_t* buffer, std::int32_t withSizeOf, std::int32_t bits) {
  std::int32_t length = withSizeOf;
  while (length > 1 && buffer[length - 1] == 0) --length;
  // A count below 1 is no shift at all (not a shift the other way).
  while (bits > 0) {
    const int step = std::min(bits, 32);
    std::uint64_t carry = 0;
    for (std::int32_t i = 0; i < length; ++i) {
      const std::uint64_t value = std::uint64_t{buffer[i]} << step;
      buffer[i] = static_cast<std::uint32_t>(value) | static_cast<std::uint32_t>(carry);
      carry = value >> 32;
    }
    // The buffer grows up to its size and no further; bits pushed out of the top are lost.
    if (carry != 0 && length < withSizeOf) buffer[length++] = static_cast<std::uint32_t>(carry);
    bits -= step;
  }
  return length;
}

std::int32_t BigInt::shiftRight(std::uint32_t* buffer, std::int32_t withSizeOf, std::int32_t bits) {
  std::int32_t length = withSizeOf;
  while (length > 1 && buffer[length - 1] == 0) --length;
  while (bits > 0) {
    const int step = std::min(bits, 32);
    const int inverse = step < 32 ? 32 - step : 0;
    std::uint64_t carry = 0;
    for (std::int32_t i = length - 1; i >= 0; --i) {
      const std::uint64_t value = (step < 32 ? buffer[i] >> step : 0u) | carry;
      carry = std::uint64_t{buffer[i]} << inverse;
      buffer[i] = static_cast<std::uint32_t>(value);
    }
    bits -= step;
  }
  while (length > 1 && buffer[length - 1] == 0) --length;
  return length;
}

BigInt BigInt::shiftLeft(std::int32_t bits) const {
  BigInt result(*this);
  result.dataLength_ = shiftLeft(result.data_.data(), boundedLength(dataLength_), bits);
  return result;
}

BigInt BigInt::shiftRight(std::int32_t bits) const {
  BigInt result(*this);
  result.dataLength_ = shiftRight(result.data_.data(), boundedLength(dataLength_), bits);
  return result;
}

// --- bitwise operations --------------------------------------------------------------------

namespace {

// Word-by-word combination below the longer length; the words above stay zero, so the sign word
// is only computed when one operand is 128 words long.
template <typename Op>
BigInt combineWords(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                    std::int32_t lb, Op op) {
  BigInt result;
  std::uint32_t* out = result.getData();
  const std::int32_t length = std::max(boundedLength(la), boundedLength(lb));
  for (std::int32_t i = 0; i < length; ++i) out[i] = op(a[i], b[i]);
  result.setDataLength(trimmedLength(out, kBigIntWords));
  return result;
}

}  // namespace

BigInt BigInt::and_(const BigInt& other) const {
  return combineWords(data_.data(), dataLength_, other.data_.data(), other.dataLength_,
                      [](std::uint32_t x, std::uint32_t y) { return x & y; });
}

BigInt BigInt::or_(const BigInt& other) const {
  return combineWords(data_.data(), dataLength_, other.data_.data(), other.dataLength_,
                      [](std::uint32_t x, std::uint32_t y) { return x | y; });
}

BigInt BigInt::xOr(const BigInt& other) const {
  return combineWords(data_.data(), dataLength_, other.data_.data(), other.dataLength_,
                      [](std::uint32_t x, std::uint32_t y) { return x ^ y; });
}

// --- bit length ------------------------------------------------------------------------------

std::int32_t BigInt::bitCount() {
  // The one operation here that writes its receiver: the count is trimmed in place.
  dataLength_ = trimmedLength(data_.data(), dataLength_);
  return detail::bitLength(data_.data(), dataLength_);
}

// --- comparisons -------------------------------------------------------------------------------

bool BigInt::equals(const BigInt& other) const noexcept {
  if (dataLength_ != other.dataLength_) return false;
  const std::int32_t length = boundedLength(dataLength_);
  for (std::int32_t i = 0; i < length; ++i) {
    if (data_[i] != other.data_[i]) return false;
  }
  return true;
}

bool BigInt::greaterThan(const BigInt& other) const noexcept {
  const bool negative = isNegative();
  const bool otherNegative = other.isNegative();
  if (negative && !otherNegative) return false;
  if (!negative && otherNegative) return true;
  // Same sign: unsigned word comparison, which also orders two negatives correctly since both
  // are 128 words of two's complement.
  std::int32_t pos = std::max(boundedLength(dataLength_), boundedLength(other.dataLength_)) - 1;
  while (pos >= 0 && data_[pos] == other.data_[pos]) --pos;
  return pos >= 0 && data_[pos] > other.data_[pos];
}

bool BigInt::lessThan(const BigInt& other) const noexcept {
  const bool negative = isNegative();
  const bool otherNegative = other.isNegative();
  if (negative && !otherNegative) return true;
  if (!negative && otherNegative) return false;
  std::int32_t pos = std::max(boundedLength(dataLength_), boundedLength(other.dataLength_)) - 1;
  while (pos >= 0 && data_[pos] == other.data_[pos]) --pos;
  return pos >= 0 && data_[pos] < other.data_[pos];
}

bool BigInt::greaterThanOrEqualTo(const BigInt& other) const noexcept {
  return greaterThan(other) || equals(other);
}

bool BigInt::lessThanOrEqualTo(const BigInt& other) const noexcept {
  return lessThan(other) || equals(other);
}

}  // namespace corvane
