// BigInt division and what is built on it: truncating divide and mod over a single-word and a
// multi-word path, modular exponentiation with Barrett reduction, square root and gcd.

#include <algorithm>
#include <array>
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

namespace {

// Word division as the processor of our reference platform does it: no trap on a zero divisor,
// which gives quotient 0 and leaves the dividend as the remainder. That is why x / 0 is 0 and
// x % 0 keeps the lowest word of x; nothing in this class reports a division by zero.
inline std::uint64_t wordQuotient(std::uint64_t value, std::uint64_t divisor) {
  return divisor == 0 ? 0 : value / divisor;
}
inline std::uint64_t wordRemainder(std::uint64_t value, std::uint64_t divisor) {
  return divisor == 0 ? value : value % divisor;
}

// Quotient words produced most significant first, stored least significant first; a quotient
// without words is zero.
void storeQuotient(const std::uint32_t* mostSignificantFirst, std::int32_t count, BigInt& out) {
  BigInt quotient;
  std::uint32_t* words = quotient.getData();
  for (std::int32_t j = 0; j < count; ++j) words[j] = mostSignificantFirst[count - 1 - j];
  std::int32_t length = trimmedLength(words, std::max(count, 0));
  quotient.setDataLength(length == 0 ? 1 : length);
  out = quotient;
}

// -1, 0 or 1 as a[0, la) compares with b[0, lb); both trimmed.
int compareTrimmed(const std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                   std::int32_t lb) {
  if (la != lb) return la < lb ? -1 : 1;
  for (std::int32_t i = la - 1; i >= 0; --i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

// a[0, la) -= b[0, lb) with la >= lb and a >= b; returns the trimmed length.
std::int32_t subtractInPlace(std::uint32_t* a, std::int32_t la, const std::uint32_t* b,
                             std::int32_t lb) {
  std::uint64_t borrow = 0;
  std::int32_t i = 0;
  for (; i < lb; ++i) {
    const std::uint64_t diff = std::uint64_t{a[i]} - b[i] - borrow;
    a[i] = static_cast<std::uint32_t>(diff);
    borrow = diff >> 63;
  }
  for (; borrow != 0 && i < la; ++i) {
    borrow = a[i] == 0 ? 1 : 0;
    --a[i];
  }
  return trimmedLength(a, la);
}

// r[0, lr) mod n[0, k) for a non-zero n, bit by bit; returns the trimmed length. The end of
// Barrett's method subtracts n while the remainder is at least n, which with the right constant
// takes at most two rounds; this exact remainder stands in for the rounds beyond a few, which
// only a constant other than 2^(64k) / n can call for. The result is the same either way.
std::int32_t remainderBitByBit(std::uint32_t* r, std::int32_t lr, const std::uint32_t* n,
                               std::int32_t k) {
  std::array<std::uint32_t, kBigIntWords + 2> rem{};
  std::int32_t remLength = 1;
  for (std::int32_t bit = 32 * lr - 1; bit >= 0; --bit) {
    // rem = rem * 2 + next bit of r
    std::uint32_t carry = (r[bit / 32] >> (bit % 32)) & 1u;
    for (std::int32_t i = 0; i < remLength; ++i) {
      const std::uint32_t word = rem[i];
      rem[i] = (word << 1) | carry;
      carry = word >> 31;
    }
    if (carry != 0) rem[remLength++] = carry;
    if (compareTrimmed(rem.data(), remLength, n, k) >= 0) {
      remLength = subtractInPlace(rem.data(), remLength, n, k);
    }
  }
  std::fill_n(r, lr, 0u);
  std::copy_n(rem.begin(), remLength, r);
  return remLength;
}

// Barrett's reduction in base 2^32 on words, for the common case: x, mu with bit 4095 clear, n
// in normal form with 1 <= k <= 126 words. The steps and their products are those of the
// description (q1, q2 = q1 * mu with multiply()'s failures, q3, r1, r2 = q3 * n mod b^(k+1),
// r = r1 - r2 mod b^(k+1), then subtract n while r >= n), done in stack buffers.
void barrettWords(const BigInt& x, const BigInt& n, const BigInt& mu, BigInt& out) {
  const std::int32_t k = n.dataLength();
  const std::uint32_t* xw = x.getData();
  const std::uint32_t* nw = n.getData();
  const std::int32_t lx = boundedLength(x.dataLength());

  // q2 = q1 * mu, q1 = x without its lowest k - 1 words (at least one word).
  const std::int32_t lq1 = std::max(lx - (k - 1), 1);
  BigInt q2;
  detail::multiplyNonNegative(xw + (k - 1), lq1, mu.getData(), mu.dataLength(), q2);
  // q3 = q2 without its lowest k + 1 words (at least one word).
  const std::uint32_t* q3 = q2.getData() + (k + 1);
  const std::int32_t lq3 = std::max(q2.dataLength() - (k + 1), 1);

  // r2 = q3 * n, only the words below k + 1.
  const std::int32_t kPlusOne = k + 1;
  std::array<std::uint32_t, kBigIntWords> r2{};
  for (std::int32_t i = 0; i < lq3 && i < kPlusOne; ++i) {
    const std::uint64_t qi = q3[i];
    if (qi == 0) continue;
    std::uint64_t carry = 0;
    const std::int32_t stop = std::min(k, kPlusOne - i);
    for (std::int32_t j = 0; j < stop; ++j) {
      const std::uint64_t v = qi * nw[j] + r2[i + j] + carry;
      r2[i + j] = static_cast<std::uint32_t>(v);
      carry = v >> 32;
    }
    if (i + stop < kPlusOne) r2[i + stop] = static_cast<std::uint32_t>(carry);
  }

  // r = r1 - r2 modulo b^(k+1), r1 = the lowest min(len(x), k + 1) words of x.
  BigInt r;
  std::uint32_t* rw = r.getData();
  const std::int32_t lr1 = std::min(lx, kPlusOne);
  std::uint64_t borrow = 0;
  for (std::int32_t i = 0; i < kPlusOne; ++i) {
    const std::uint64_t diff = std::uint64_t{i < lr1 ? xw[i] : 0u} - r2[i] - borrow;
    rw[i] = static_cast<std::uint32_t>(diff);
    borrow = diff >> 63;
  }
  std::int32_t lr = trimmedLength(rw, kPlusOne);

  // A zero modulus would keep this loop going for ever; it is left out.
  if (!(k == 1 && nw[0] == 0)) {
    for (int round = 0; compareTrimmed(rw, lr, nw, k) >= 0; ++round) {
      if (round == 4) {
        lr = remainderBitByBit(rw, lr, nw, k);
        break;
      }
      lr = subtractInPlace(rw, lr, nw, k);
    }
  }
  r.setDataLength(lr);
  out = r;
}

// n in normal form, short enough for barrettWords.
bool isBarrettModulus(const BigInt& n) {
  const std::int32_t k = n.dataLength();
  if (k < 1 || k > kBigIntWords - 2) return false;
  if (k > 1 && n.getDataAtIndex(k - 1) == 0) return false;
  for (std::int32_t i = k; i < kBigIntWords; ++i) {
    if (n.getDataAtIndex(i) != 0) return false;
  }
  return true;
}

}  // namespace

// --- divide and mod ------------------------------------------------------------------------

BigInt BigInt::divide(const BigInt& divisor) const {
  BigInt quotient;
  BigInt remainder;
  const bool negative = isNegative();
  const bool divisorNegative = divisor.isNegative();
  const BigInt dividendMagnitude = negative ? negate() : *this;
  const BigInt divisorMagnitude = divisorNegative ? divisor.negate() : divisor;

  if (dividendMagnitude.lessThan(divisorMagnitude)) return quotient;
  // A zero divisor is one word long and goes the single-word way. So does one without any word
  // in use, which the multi-word division cannot take.
  if (divisorMagnitude.dataLength_ <= 1) {
    singleByteDivide(dividendMagnitude, divisorMagnitude, quotient, remainder);
  } else {
    multiByteDivide(dividendMagnitude, divisorMagnitude, quotient, remainder);
  }
  return negative != divisorNegative ? quotient.negate() : quotient;
}

BigInt BigInt::mod(const BigInt& divisor) const {
  BigInt quotient;
  BigInt remainder(*this);
  const bool negative = isNegative();
  const BigInt dividendMagnitude = negative ? negate() : *this;
  const BigInt divisorMagnitude = divisor.isNegative() ? divisor.negate() : divisor;

  if (dividendMagnitude.lessThan(divisorMagnitude)) return remainder;
  if (divisorMagnitude.dataLength_ <= 1) {
    singleByteDivide(dividendMagnitude, divisorMagnitude, quotient, remainder);
  } else {
    multiByteDivide(dividendMagnitude, divisorMagnitude, quotient, remainder);
  }
  return negative ? remainder.negate() : remainder;
}

// --- division primitives -------------------------------------------------------------------

void BigInt::singleByteDivide(const BigInt& bi1, const BigInt& bi2, BigInt& outQuotient,
                              BigInt& outRemainder) {
  std::array<std::uint32_t, kBigIntWords> rem = bi1.data_;
  const std::int32_t length = trimmedLength(rem.data(), bi1.dataLength_);
  const std::uint64_t divisor = bi2.data_[0];

  std::array<std::uint32_t, kBigIntWords> quotientWords;
  std::int32_t count = 0;
  std::int32_t pos = length - 1;
  if (pos >= 0) {
    const std::uint64_t top = rem[pos];
    if (top >= divisor) {
      quotientWords[count++] = static_cast<std::uint32_t>(wordQuotient(top, divisor));
      rem[pos] = static_cast<std::uint32_t>(wordRemainder(top, divisor));
    }
    for (--pos; pos >= 0; --pos) {
      const std::uint64_t value = (std::uint64_t{rem[pos + 1]} << 32) | rem[pos];
      quotientWords[count++] = static_cast<std::uint32_t>(wordQuotient(value, divisor));
      rem[pos + 1] = 0;
      rem[pos] = static_cast<std::uint32_t>(wordRemainder(value, divisor));
    }
  }

  storeQuotient(quotientWords.data(), count, outQuotient);
  outRemainder.data_ = rem;
  outRemainder.dataLength_ = trimmedLength(rem.data(), length);
}

void BigInt::multiByteDivide(const BigInt& bi1, const BigInt& bi2, BigInt& outQuotient,
                             BigInt& outRemainder) {
  const std::int32_t k = boundedLength(bi2.dataLength_);
  if (k < 2) {
    singleByteDivide(bi1, bi2, outQuotient, outRemainder);
    return;
  }
  const std::int32_t lx = std::max(boundedLength(bi1.dataLength_), 0);
  const std::int32_t size = lx + 1;

  // Working remainder: x's words and one spare word on top, normalised so that the divisor's
  // top bit is bit 31 of its top word.
  std::array<std::uint32_t, kBigIntWords + 1> buffer{};
  std::copy_n(bi1.data_.begin(), lx, buffer.begin());
  const std::uint32_t divisorTop = bi2.data_[k - 1];
  const int shift = divisorTop == 0 ? 0 : std::countl_zero(divisorTop);
  shiftLeft(buffer.data(), size, shift);
  const BigInt divisor = bi2.shiftLeft(shift);
  const std::uint32_t* dv = divisor.data_.data();
  const std::uint64_t d1 = dv[k - 1];
  const std::uint64_t d2 = dv[k - 2];

  std::array<std::uint32_t, kBigIntWords + 1> quotientWords;
  std::int32_t count = 0;
  for (std::int32_t pos = lx; pos >= k; --pos) {
    const std::uint64_t u = (std::uint64_t{buffer[pos]} << 32) | buffer[pos - 1];
    std::uint64_t qHat = wordQuotient(u, d1);
    std::uint64_t rHat = wordRemainder(u, d1);
    // The estimate correction. The bound 0x10000000 (2^28) where the textbook has 2^32 is ours
    // and stays: the multiply-back step below brings q^ down to the quotient word regardless.
    // Arithmetic wraps modulo 2^64 as it always has.
    for (;;) {
      if (qHat == 0x10000000u || qHat * d2 > ((rHat << 32) + buffer[pos - 2])) {
        --qHat;
        rHat += d1;
        if (rHat < 0x10000000u) continue;
      }
      break;
    }

    std::uint32_t* part = buffer.data() + (pos - k);  // k + 1 words, least significant first
    if (k <= kBigIntWords - 2) {
      // product = divisor * q^ (k + 2 words; q^ may exceed a word), lowered while it exceeds
      // the part, then subtracted from it in place.
      std::array<std::uint32_t, kBigIntWords + 2> product;
      const std::uint64_t qLow = qHat & 0xFFFFFFFFu;
      const std::uint64_t qHigh = qHat >> 32;
      std::uint64_t carry = 0;
      for (std::int32_t j = 0; j < k; ++j) {
        const std::uint64_t v = qLow * dv[j] + carry;
        product[j] = static_cast<std::uint32_t>(v);
        carry = v >> 32;
      }
      product[k] = static_cast<std::uint32_t>(carry);
      product[k + 1] = 0;
      if (qHigh != 0) {
        carry = 0;
        for (std::int32_t j = 0; j < k; ++j) {
          const std::uint64_t v = qHigh * dv[j] + product[j + 1] + carry;
          product[j + 1] = static_cast<std::uint32_t>(v);
          carry = v >> 32;
        }
        product[k + 1] = static_cast<std::uint32_t>(carry);
      }
      auto productExceedsPart = [&]() {
        if (product[k + 1] != 0) return true;
        for (std::int32_t i = k; i >= 0; --i) {
          if (product[i] != part[i]) return product[i] > part[i];
        }
        return false;
      };
      while (productExceedsPart()) {
        --qHat;
        subtractInPlace(product.data(), k + 2, dv, k);
      }
      std::uint64_t borrow = 0;
      for (std::int32_t i = 0; i <= k; ++i) {
        const std::uint64_t diff = std::uint64_t{part[i]} - product[i] - borrow;
        part[i] = static_cast<std::uint32_t>(diff);
        borrow = diff >> 63;
      }
    } else {
      // A divisor of 127 or 128 words: the part and the product reach the sign word (or, at 128
      // words, the part does not fit at all), so they go through the value operations with
      // their sign rules and exceptions.
      std::array<std::uint32_t, kBigIntWords + 1> mostSignificantFirst;
      for (std::int32_t h = 0; h <= k; ++h) mostSignificantFirst[h] = buffer[pos - h];
      const BigInt partValue = createFromUIntArray(mostSignificantFirst.data(), k + 1);
      BigInt product = divisor.multiply(createFromULong(qHat));
      while (product.greaterThan(partValue)) {
        --qHat;
        product = product.subtract(divisor);
      }
      const BigInt difference = partValue.subtract(product);
      for (std::int32_t h = 0; h <= k; ++h) buffer[pos - h] = difference.data_[k - h];
    }
    quotientWords[count++] = static_cast<std::uint32_t>(qHat);
  }

  storeQuotient(quotientWords.data(), count, outQuotient);
  const std::int32_t remainderLength = shiftRight(buffer.data(), size, shift);
  BigInt remainder;
  std::copy_n(buffer.begin(), boundedLength(remainderLength), remainder.data_.begin());
  remainder.dataLength_ = remainderLength;
  outRemainder = remainder;
}

// --- modular exponentiation ------------------------------------------------------------------

BigInt BigInt::modPow(const BigInt& exponent, const BigInt& withMod) const {
  if (exponent.isNegative()) detail::throwArithmetic("Positive exponents only.");

  BigInt result = createFromLong(1);
  const bool negative = isNegative();
  BigInt t = negative ? negate().mod(withMod) : mod(withMod);
  const BigInt n = withMod.isNegative() ? withMod.negate() : withMod;

  // Barrett constant 2^(64k) / n. Its dividend has word 2k set, which must lie inside the
  // capacity: moduli of 64 words or more cannot be served.
  const std::int32_t k = std::max(n.dataLength_, 0);
  if (2 * k >= kBigIntWords) detail::throwArithmetic("Overflow");
  BigInt constant;
  constant.data_[2 * k] = 1;
  constant.dataLength_ = 2 * k + 1;
  const BigInt mu = constant.divide(n);

  // With a modulus in normal form the running values stay non-negative, and products and
  // reductions run on words into preallocated values; anything else takes the value operations.
  const bool wordPath = isBarrettModulus(n) && !mu.isNegative();
  BigInt product;
  auto multiplyReduce = [&](const BigInt& a, const BigInt& b, BigInt& target) {
    if (wordPath) {
      detail::multiplyNonNegative(a.data_.data(), a.dataLength_, b.data_.data(), b.dataLength_,
                                  product);
      barrettWords(product, n, mu, target);
    } else {
      target = barrettReduction(a.multiply(b), n, mu);
    }
  };

  // Bits from the lowest up: multiply the result in for every set bit, square t every time.
  const std::int32_t exponentLength = trimmedLength(exponent.data_.data(), exponent.dataLength_);
  const std::int32_t totalBits = detail::bitLength(exponent.data_.data(), exponent.dataLength_);
  const bool negateResult = negative && (exponent.data_[0] & 1u) != 0;
  std::int32_t count = 0;
  for (std::int32_t pos = 0; pos < exponentLength; ++pos) {
    const std::uint32_t word = exponent.data_[pos];
    for (int index = 0; index < 32; ++index) {
      if (((word >> index) & 1u) != 0) multiplyReduce(result, t, result);
      multiplyReduce(t, t, t);
      // Once the running square is 1 every further factor is 1: stop at once.
      if (t.dataLength_ == 1 && t.data_[0] == 1) return negateResult ? result.negate() : result;
      if (++count == totalBits) break;
    }
  }
  return negateResult ? result.negate() : result;
}

BigInt BigInt::barrettReduction(const BigInt& x, const BigInt& andN, const BigInt& andConstant) {
  if (!x.isNegative() && !andConstant.isNegative() && isBarrettModulus(andN)) {
    BigInt r;
    barrettWords(x, andN, andConstant, r);
    return r;
  }

  // Everything else (a negative x or constant, a modulus not in normal form or of 127 or 128
  // words) runs the steps with the value operations. Words the steps would place at or beyond
  // the capacity raise "Overflow".
  const std::int32_t k = std::max(boundedLength(andN.dataLength_), 1);
  const std::int32_t kPlusOne = k + 1;
  const std::int32_t lx = boundedLength(x.dataLength_);

  BigInt q1;
  const std::int32_t lq1 = std::max(lx - (k - 1), 1);
  for (std::int32_t j = 0; j < lq1 && j + k - 1 < kBigIntWords; ++j) {
    q1.data_[j] = x.data_[j + k - 1];
  }
  q1.dataLength_ = lq1;
  const BigInt q2 = q1.multiply(andConstant);

  BigInt q3;
  const std::int32_t lq3 = std::max(boundedLength(q2.dataLength_) - kPlusOne, 1);
  for (std::int32_t j = 0; j < lq3 && j + kPlusOne < kBigIntWords; ++j) {
    q3.data_[j] = q2.data_[j + kPlusOne];
  }
  q3.dataLength_ = lq3;

  BigInt r1;
  const std::int32_t lr1 = std::min(lx, kPlusOne);
  std::copy_n(x.data_.begin(), std::max(lr1, 0), r1.data_.begin());
  r1.dataLength_ = trimmedLength(r1.data_.data(), lr1);

  BigInt r2;
  for (std::int32_t i = 0; i < lq3; ++i) {
    const std::uint64_t qi = q3.data_[i];
    if (qi == 0) continue;
    std::uint64_t carry = 0;
    std::int32_t t = i;
    for (std::int32_t j = 0; j < k && t < kPlusOne; ++j, ++t) {
      if (t >= kBigIntWords) detail::throwArithmetic("Overflow");
      const std::uint64_t v = qi * andN.data_[j] + r2.data_[t] + carry;
      r2.data_[t] = static_cast<std::uint32_t>(v);
      carry = v >> 32;
    }
    if (t < kPlusOne) {
      if (t >= kBigIntWords) detail::throwArithmetic("Overflow");
      r2.data_[t] = static_cast<std::uint32_t>(carry);
    }
  }
  r2.dataLength_ = trimmedLength(r2.data_.data(), kPlusOne);

  BigInt r = r1.subtract(r2);
  if (r.isNegative()) {
    if (kPlusOne >= kBigIntWords) detail::throwArithmetic("Overflow");
    BigInt wrap;
    wrap.data_[kPlusOne] = 1;
    wrap.dataLength_ = kPlusOne + 1;
    r = r.add(wrap);
  }

  // Subtracting a zero or negative modulus would never bring r below it; that loop is left out.
  if (!andN.isNegative()) {
    for (;;) {
      const std::int32_t span =
          std::max(boundedLength(r.dataLength_), boundedLength(andN.dataLength_));
      bool modulusIsZero = true;
      for (std::int32_t i = 0; i < span && modulusIsZero; ++i) {
        modulusIsZero = andN.data_[i] == 0;
      }
      if (modulusIsZero || !r.greaterThanOrEqualTo(andN)) break;
      r = r.subtract(andN);
    }
  }
  return r;
}

// --- square root and gcd -------------------------------------------------------------------

BigInt BigInt::sqrt() const {
  // Bit by bit from the top: keep a bit when the square stays within the receiver.
  const std::int32_t bits = detail::bitLength(data_.data(), dataLength_);
  const std::int32_t half = (bits & 1) != 0 ? (bits >> 1) + 1 : bits >> 1;
  std::int32_t words = half >> 5;
  const int bitPos = half & 31;
  std::uint32_t mask = 0x80000000u;
  if (bitPos != 0) {
    mask = 1u << bitPos;
    ++words;
  }

  BigInt result;
  result.dataLength_ = words;  // not trimmed afterwards: the root of 0 keeps dataLength 0
  BigInt square;
  for (std::int32_t i = words - 1; i >= 0; --i) {
    for (; mask != 0; mask >>= 1) {
      result.data_[i] ^= mask;
      detail::multiplyNonNegative(result.data_.data(), words, result.data_.data(), words, square);
      if (square.greaterThan(*this)) result.data_[i] ^= mask;
    }
    mask = 0x80000000u;
  }
  return result;
}

BigInt BigInt::gcd(const BigInt& other) const {
  BigInt x = isNegative() ? negate() : *this;
  BigInt y = other.isNegative() ? other.negate() : other;
  BigInt g = y;
  // A value without any word in use counts as zero here too (such as the root of 0); taking it
  // for non-zero would make the loop cycle.
  while (!(x.dataLength_ < 1 || (x.dataLength_ == 1 && x.data_[0] == 0))) {
    g = x;
    x = y.mod(x);
    y = g;
  }
  return g;
}

}  // namespace corvane
