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

// a[0, la) -= b[0, lb) with la >= lb and a >= b; returns the trimmed length (la may exceed the
// capacity by the spare words of a division buffer).
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
  while (la > 1 && a[la - 1] == 0) --la;
  return la;
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

// --- modPow on 64-bit limbs ------------------------------------------------------------------
//
// When the Barrett constant is exact (mu = floor(2^(64k) / n)) and the running values are below
// n, every reduction of the exponentiation returns exactly x mod n, and no product can come near
// the capacity (for k <= 63 words every product stays below 2^4064). The loop then runs on
// 64-bit limbs: the same Barrett reduction with digits of 64 bits (constant floor(B^(2K) / n) for
// K = ceil(k / 2) limbs), the square of the running value with each cross product taken once, and
// q1 * mu without the columns below K - 1, which can only lower q3 by one and costs one more
// subtraction at the end. The results are those of the word-by-word steps, with a quarter of
// the multiplications.

__extension__ typedef unsigned __int128 Wide;

// Limb counts: K <= 32 for a modulus of at most 63 words; products need 2K + 2 limbs.
constexpr int kMaxLimbs = 2 * (kBigIntWords / 4) + 4;

struct Limbs {
  std::array<std::uint64_t, kMaxLimbs> v;
  int length = 0;  // trimmed; 0 for zero
};

void trimLimbs(Limbs& a) {
  while (a.length > 0 && a.v[a.length - 1] == 0) --a.length;
}

Limbs limbsOf(const BigInt& value) {
  Limbs out;
  const std::uint32_t* w = value.getData();
  const std::int32_t words = trimmedLength(w, value.dataLength());
  out.length = (words + 1) / 2;
  for (int i = 0; i < out.length; ++i) {
    const std::uint64_t high = 2 * i + 1 < words ? w[2 * i + 1] : 0;
    out.v[i] = w[2 * i] | (high << 32);
  }
  trimLimbs(out);
  return out;
}

BigInt bigIntOf(const Limbs& a) {
  BigInt out;
  std::uint32_t* w = out.getData();
  for (int i = 0; i < a.length; ++i) {
    w[2 * i] = static_cast<std::uint32_t>(a.v[i]);
    w[2 * i + 1] = static_cast<std::uint32_t>(a.v[i] >> 32);
  }
  out.setDataLength(std::max(trimmedLength(w, 2 * a.length), 1));
  return out;
}

int compareLimbs(const std::uint64_t* a, int la, const std::uint64_t* b, int lb) {
  if (la != lb) return la < lb ? -1 : 1;
  for (int i = la - 1; i >= 0; --i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

// a -= b for a >= b; a keeps its length field trimmed.
void subtractLimbs(Limbs& a, const Limbs& b) {
  std::uint64_t borrow = 0;
  for (int i = 0; i < a.length; ++i) {
    const std::uint64_t bi = i < b.length ? b.v[i] : 0;
    const std::uint64_t d = a.v[i] - bi;
    const std::uint64_t borrowOut = (a.v[i] < bi) | (d < borrow);
    a.v[i] = d - borrow;
    borrow = borrowOut;
  }
  trimLimbs(a);
}

// out = a * b (schoolbook on limbs).
void multiplyLimbs(const Limbs& a, const Limbs& b, Limbs& out) {
  const int length = a.length + b.length;
  std::fill_n(out.v.begin(), length, 0u);
  for (int i = 0; i < a.length; ++i) {
    const std::uint64_t ai = a.v[i];
    if (ai == 0) continue;
    std::uint64_t carry = 0;
    std::uint64_t* row = out.v.data() + i;
    for (int j = 0; j < b.length; ++j) {
      const Wide t = Wide{ai} * b.v[j] + row[j] + carry;
      row[j] = static_cast<std::uint64_t>(t);
      carry = static_cast<std::uint64_t>(t >> 64);
    }
    row[b.length] = carry;
  }
  out.length = length;
  trimLimbs(out);
}

// out = a * a: cross products once, doubled, then the squares on the diagonal.
void squareLimbs(const Limbs& a, Limbs& out) {
  const int n = a.length;
  const int length = 2 * n;
  std::fill_n(out.v.begin(), length, 0u);
  for (int i = 0; i < n; ++i) {
    const std::uint64_t ai = a.v[i];
    if (ai == 0) continue;
    std::uint64_t carry = 0;
    std::uint64_t* row = out.v.data() + i;
    for (int j = i + 1; j < n; ++j) {
      const Wide t = Wide{ai} * a.v[j] + row[j] + carry;
      row[j] = static_cast<std::uint64_t>(t);
      carry = static_cast<std::uint64_t>(t >> 64);
    }
    row[n] = carry;
  }
  std::uint64_t topBit = 0;
  for (int i = 0; i < length; ++i) {
    const std::uint64_t word = out.v[i];
    out.v[i] = (word << 1) | topBit;
    topBit = word >> 63;
  }
  std::uint64_t carry = 0;
  for (int i = 0; i < n; ++i) {
    const Wide square = Wide{a.v[i]} * a.v[i];
    Wide t = Wide{out.v[2 * i]} + static_cast<std::uint64_t>(square) + carry;
    out.v[2 * i] = static_cast<std::uint64_t>(t);
    t = Wide{out.v[2 * i + 1]} + static_cast<std::uint64_t>(square >> 64) +
        static_cast<std::uint64_t>(t >> 64);
    out.v[2 * i + 1] = static_cast<std::uint64_t>(t);
    carry = static_cast<std::uint64_t>(t >> 64);
  }
  out.length = length;
  trimLimbs(out);
}

struct LimbBarrett {
  Limbs n;   // K limbs
  Limbs mu;  // floor(B^(2K) / n)
  int k = 0;
};

// out = x mod n for x < B^(2K), by Barrett's steps on limbs.
void barrettLimbs(const Limbs& x, const LimbBarrett& m, Limbs& out) {
  const int k = m.k;
  const std::uint64_t* nv = m.n.v.data();
  const std::uint64_t* mu = m.mu.v.data();
  const int lm = m.mu.length;

  // q2 = q1 * mu, columns K - 1 and up; q1 = x without its lowest K - 1 limbs.
  const int lq1 = x.length - (k - 1);
  std::array<std::uint64_t, kMaxLimbs + 2> q2;
  int lq3 = 0;
  const std::uint64_t* q3 = q2.data() + (k + 1);
  if (lq1 > 0 && lm > 0) {
    const std::uint64_t* q1 = x.v.data() + (k - 1);
    std::fill_n(q2.begin(), lq1 + lm, 0u);
    for (int i = 0; i < lq1; ++i) {
      const std::uint64_t qi = q1[i];
      if (qi == 0) continue;
      std::uint64_t carry = 0;
      for (int j = std::max(0, k - 1 - i); j < lm; ++j) {
        const Wide t = Wide{qi} * mu[j] + q2[i + j] + carry;
        q2[i + j] = static_cast<std::uint64_t>(t);
        carry = static_cast<std::uint64_t>(t >> 64);
      }
      q2[i + lm] = carry;
    }
    lq3 = lq1 + lm - (k + 1);
  }

  // r2 = q3 * n mod B^(K+1); r = (r1 - r2) mod B^(K+1), r1 = x mod B^(K+1).
  const int kPlusOne = k + 1;
  std::array<std::uint64_t, kMaxLimbs> r2;
  for (int i = 0; i < kPlusOne; ++i) r2[i] = 0;
  for (int i = 0; i < lq3 && i < kPlusOne; ++i) {
    const std::uint64_t qi = q3[i];
    if (qi == 0) continue;
    std::uint64_t carry = 0;
    const int stop = std::min(k, kPlusOne - i);
    for (int j = 0; j < stop; ++j) {
      const Wide t = Wide{qi} * nv[j] + r2[i + j] + carry;
      r2[i + j] = static_cast<std::uint64_t>(t);
      carry = static_cast<std::uint64_t>(t >> 64);
    }
    if (i + stop < kPlusOne) r2[i + stop] += carry;
  }
  std::uint64_t borrow = 0;
  for (int i = 0; i < kPlusOne; ++i) {
    const std::uint64_t xi = i < x.length ? x.v[i] : 0;
    const std::uint64_t d = xi - r2[i];
    const std::uint64_t borrowOut = (xi < r2[i]) | (d < borrow);
    out.v[i] = d - borrow;
    borrow = borrowOut;
  }
  out.length = kPlusOne;
  trimLimbs(out);
  while (compareLimbs(out.v.data(), out.length, nv, k) >= 0) subtractLimbs(out, m.n);
}

// The Barrett constants of n on limbs. mu is checked to be floor(2^(64k) / n), as our division
// gives it; the limb loop relies on that, so anything else goes the word-by-word way.
bool limbBarrettOf(const BigInt& n, const BigInt& mu, LimbBarrett& out) {
  const std::int32_t k = n.dataLength();
  // rho = 2^(64k) - mu * n must lie in [0, n).
  BigInt power;
  power.getData()[2 * k] = 1;
  power.setDataLength(2 * k + 1);
  BigInt rho;
  try {
    rho = power.subtract(mu.multiply(n));
  } catch (const Exception&) {
    return false;
  }
  if (rho.isNegative() || !rho.lessThan(n)) return false;

  out.n = limbsOf(n);
  out.k = out.n.length;
  out.mu = limbsOf(mu);
  if (k % 2 != 0) {
    // B^(2K) = 2^(64k) * 2^64: mu * 2^64 + floor(rho * 2^64 / n), the low limb bit by bit.
    Limbs rem = limbsOf(rho);
    std::uint64_t low = 0;
    for (int bit = 63; bit >= 0; --bit) {
      std::uint64_t carry = 0;
      for (int i = 0; i < rem.length; ++i) {
        const std::uint64_t word = rem.v[i];
        rem.v[i] = (word << 1) | carry;
        carry = word >> 63;
      }
      if (carry != 0) rem.v[rem.length++] = carry;
      if (compareLimbs(rem.v.data(), rem.length, out.n.v.data(), out.k) >= 0) {
        subtractLimbs(rem, out.n);
        low |= std::uint64_t{1} << bit;
      }
    }
    for (int i = out.mu.length; i > 0; --i) out.mu.v[i] = out.mu.v[i - 1];
    out.mu.v[0] = low;
    ++out.mu.length;
    trimLimbs(out.mu);
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

  std::array<std::uint32_t, kBigIntWords> quotientWords{};
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
  // A divisor whose top word in use is zero cannot be normalised; its zero words do not count.
  const std::int32_t k = trimmedLength(bi2.data_.data(), bi2.dataLength_);
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
  const int shift = std::countl_zero(bi2.data_[k - 1]);
  shiftLeft(buffer.data(), size, shift);
  BigInt divisor(bi2);
  divisor.dataLength_ = shiftLeft(divisor.data_.data(), k, shift);
  const std::uint32_t* dv = divisor.data_.data();
  const std::uint64_t d1 = dv[k - 1];
  const std::uint64_t d2 = dv[k - 2];

  std::array<std::uint32_t, kBigIntWords + 1> quotientWords;
  std::int32_t count = 0;
  for (std::int32_t pos = lx; pos >= k; --pos) {
    const std::uint64_t u = (std::uint64_t{buffer[pos]} << 32) | buffer[pos - 1];
    std::uint64_t qHat = wordQuotient(u, d1);
    std::uint64_t rHat = wordRemainder(u, d1);
    // The estimate correction. Its bound 0x10000000 (2^28, where the textbook has 2^32) is ours
    // and stays. Arithmetic wraps modulo 2^64 as it always has.
    for (;;) {
      if (qHat == 0x10000000u || qHat * d2 > ((rHat << 32) + buffer[pos - 2])) {
        --qHat;
        rHat += d1;
        if (rHat < 0x10000000u) continue;
      }
      break;
    }

    // Multiply back: product = divisor * q^ (k + 2 words, since q^ may still exceed a word),
    // lowered while it exceeds the part (the k + 1 words buffer[pos - k .. pos]), then
    // subtracted from the part in place.
    std::uint32_t* part = buffer.data() + (pos - k);
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
    // A first estimate of exactly 2^28 is lowered by the correction even when it was right; the
    // part then still holds a whole divisor, which goes back into the quotient word here. With
    // that the quotient and remainder are exact whatever the estimate did.
    auto partHoldsDivisor = [&]() {
      if (part[k] != 0) return true;
      for (std::int32_t i = k - 1; i >= 0; --i) {
        if (part[i] != dv[i]) return part[i] > dv[i];
      }
      return true;
    };
    while (partHoldsDivisor()) {
      ++qHat;
      subtractInPlace(part, k + 1, dv, k);
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

  // Bits from the lowest up: multiply the result in for every set bit, square t every time.
  const std::int32_t exponentLength = trimmedLength(exponent.data_.data(), exponent.dataLength_);
  const std::int32_t totalBits = detail::bitLength(exponent.data_.data(), exponent.dataLength_);
  const bool negateResult = negative && (exponent.data_[0] & 1u) != 0;

  LimbBarrett limbModulus;
  if (isBarrettModulus(n) && !detail::isNormalZero(n) && t.lessThan(n) &&
      limbBarrettOf(n, mu, limbModulus)) {
    Limbs resultLimbs;
    resultLimbs.v[0] = 1;
    resultLimbs.length = 1;
    Limbs tLimbs = limbsOf(t);
    Limbs productLimbs;
    std::int32_t count = 0;
    for (std::int32_t pos = 0; pos < exponentLength; ++pos) {
      const std::uint32_t word = exponent.data_[pos];
      for (int index = 0; index < 32; ++index) {
        if (((word >> index) & 1u) != 0) {
          multiplyLimbs(resultLimbs, tLimbs, productLimbs);
          barrettLimbs(productLimbs, limbModulus, resultLimbs);
        }
        squareLimbs(tLimbs, productLimbs);
        barrettLimbs(productLimbs, limbModulus, tLimbs);
        if (tLimbs.length == 1 && tLimbs.v[0] == 1) {
          const BigInt value = bigIntOf(resultLimbs);
          return negateResult ? value.negate() : value;
        }
        if (++count == totalBits) break;
      }
    }
    const BigInt value = bigIntOf(resultLimbs);
    return negateResult ? value.negate() : value;
  }

  // Otherwise the steps run word by word: with a modulus in normal form the running values stay
  // non-negative and products and reductions go into preallocated values; anything else takes
  // the value operations.
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
  // After a few rounds the rest of the subtractions is one exact remainder by the words of n in
  // use, the same result without up to 2^32 rounds (which a wrong constant can call for).
  BigInt modulus(andN);
  modulus.dataLength_ = trimmedLength(modulus.data_.data(), modulus.dataLength_);
  if (!andN.isNegative() && modulus.dataLength_ >= 1 && !detail::isNormalZero(modulus)) {
    for (int round = 0; r.greaterThanOrEqualTo(andN); ++round) {
      if (round == 4 && !r.isNegative()) {
        r.dataLength_ =
            remainderBitByBit(r.data_.data(), trimmedLength(r.data_.data(), r.dataLength_),
                              modulus.data_.data(), modulus.dataLength_);
        break;
      }
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
  // Zero is tested by value, not only in normal form: a zero with another dataLength (such as
  // the root of 0) taken for non-zero would make the loop cycle.
  auto isZero = [](const BigInt& value) {
    const std::int32_t length = boundedLength(value.dataLength_);
    for (std::int32_t i = 0; i < length; ++i) {
      if (value.data_[i] != 0) return false;
    }
    return true;
  };
  while (!isZero(x)) {
    g = x;
    x = y.mod(x);
    y = g;
  }
  return g;
}

}  // namespace corvane
