// BigInt: a signed integer of fixed capacity, 128 words of 32 bits (4096 bits), kept in two's
// complement across the whole capacity.
//
// Storage: `data` holds the words least significant first, inside the value (no heap
// allocation). `dataLength` counts the words in use. A value is negative exactly when bit 31 of
// word 127 is set; negative values always have dataLength 128 (all words above the magnitude are
// 0xFFFFFFFF). Normal form, kept by every factory and operation: words at or above dataLength are
// zero for a non-negative value, dataLength >= 1, and the top word in use is non-zero unless
// dataLength is 1.
//
// Every operation returns a new value and leaves its operands unchanged, except the word
// accessors (setData, setDataLength, getData) and bitCount(), which trims the receiver's own
// dataLength. Failures are thrown as corvane::Exception with fixed names and reasons:
// "ArithmeticException" (overflow, invalid text, negative exponent), "ArgumentException" (radix)
// and "ArithmaticException" (word array too long; the spelling is part of the interface).
// Division by zero raises nothing, as a hardware word division would not: divide() gives 0, and
// mod() gives a one-word dividend back unchanged and of a longer dividend only its lowest word
// (with the dividend's sign).
//
// Arithmetic beyond the capacity raises: sums and differences "Overflow", products "overflow."
// or "Multiplication overflow." (shifts, by design, drop the bits they push out). modPow() needs
// its Barrett constant 2^(64k) (k = words of the modulus) inside the capacity, so it serves
// moduli of at most 63 words (2016 bits).
//
// Not synchronised: distinct values may be used on distinct threads, and a value may be shared
// read-only; bitCount() and the mutating accessors must not race with other users.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API BigInt {
 public:
  // Capacity in 32-bit words.
  static constexpr std::int32_t maxLength = 128;

  // --- construction (init / initWith... / create...) -----------------------------------------
  // Zero (dataLength 1).
  BigInt() noexcept;
  // initWithBigInt: copies dataLength and the words below it; every other word becomes zero.
  BigInt(const BigInt& other) noexcept;
  BigInt& operator=(const BigInt& other) noexcept;

  static BigInt create();                              // zero
  static BigInt createFromInt(std::int32_t value);     // initWithInt:, sign-extended
  static BigInt createFromLong(std::int64_t value);    // initWithLong:
  static BigInt createFromULong(std::uint64_t value);  // initWithULong:
  static BigInt createFromBigInt(const BigInt& other);
  // initWithUIntArray:withSize: — `words` most significant first; throws "ArithmaticException" /
  // "Byte overflow in constructor" when size > 128; size < 1 leaves dataLength = size unchanged.
  static BigInt createFromUIntArray(const std::uint32_t* words, std::int32_t size);
  // initWithString:andRadix: — digits 0-9, A-Z (case-insensitive), optional leading "-".
  // Throws "ArithmeticException" with "Invalid string in constructor." (bad digit or empty text),
  // "Negative underflow in constructor." ("-0", "-") or "Positive overflow in constructor.", and
  // passes on the overflow exceptions of multiply/add for values beyond the capacity.
  static BigInt createFromString(const std::string& text, std::int64_t radix);

  // --- accessors -------------------------------------------------------------------------------
  // Word 0 of the value's own storage (all 128 words, mutable in place).
  std::uint32_t* getData() noexcept { return data_.data(); }
  const std::uint32_t* getData() const noexcept { return data_.data(); }
  // Unchecked: callers keep index within 0..127.
  std::uint32_t getDataAtIndex(std::int32_t index) const noexcept { return data_[index]; }
  void setData(std::uint32_t word, std::int32_t atIndex) noexcept { data_[atIndex] = word; }
  std::int32_t dataLength() const noexcept { return dataLength_; }
  // No trimming, no check.
  void setDataLength(std::int32_t length) noexcept { dataLength_ = length; }
  // Word 0 as a signed 32-bit number (higher words ignored).
  std::int32_t intValue() const noexcept { return static_cast<std::int32_t>(data_[0]); }
  // Text in radix 2..36, upper-case digits, "-" for negatives. Throws "ArgumentException" /
  // "Radix must be >= 2 and <= 36".
  std::string toStringWithRadix(std::uint32_t radix) const;

  // --- arithmetic, bitwise, comparison -----------------------------------------------------------
  BigInt add(const BigInt& other) const;       // "ArithmeticException" / "Overflow"
  BigInt subtract(const BigInt& other) const;  // "ArithmeticException" / "Overflow"
  // "ArithmeticException" / "overflow." when bit 4095 of the product is set (even for the
  // representable most negative value), "Multiplication overflow." when the product needs more
  // than 128 words.
  BigInt multiply(const BigInt& other) const;
  BigInt negate() const;  // "ArithmeticException" / "Overflow in negation."
  BigInt not_() const;    // `not`: complement of all 128 words
  // Shifts over dataLength words: shiftLeft never adds a word; shiftRight is logical (no sign
  // extension). Counts below 1 return an equal copy.
  BigInt shiftLeft(std::int32_t bits) const;
  BigInt shiftRight(std::int32_t bits) const;
  // In-place buffer shifts over `withSizeOf` words; return the new used word count.
  static std::int32_t shiftLeft(std::uint32_t* buffer, std::int32_t withSizeOf, std::int32_t bits);
  static std::int32_t shiftRight(std::uint32_t* buffer, std::int32_t withSizeOf, std::int32_t bits);
  BigInt and_(const BigInt& other) const;  // `and:`
  BigInt or_(const BigInt& other) const;   // `or:`
  BigInt xOr(const BigInt& other) const;
  // Bit length; trims the receiver's dataLength first. Negative values give 4096, a value
  // without any word in use (dataLength below 1) gives 0.
  std::int32_t bitCount();
  BigInt abs() const;  // "Overflow in negation." for the most negative value

  bool equals(const BigInt& other) const noexcept;
  bool greaterThan(const BigInt& other) const noexcept;
  bool lessThan(const BigInt& other) const noexcept;
  bool greaterThanOrEqualTo(const BigInt& other) const noexcept;
  bool lessThanOrEqualTo(const BigInt& other) const noexcept;

  // --- division and modular arithmetic --------------------------------------------------------
  BigInt divide(const BigInt& divisor) const;  // truncated toward zero; by zero gives 0
  BigInt mod(const BigInt& divisor) const;     // sign of the dividend
  // Division primitives for non-negative operands with dividend >= divisor; fill both outputs
  // (which may be the operands themselves). singleByteDivide divides by word 0 of bi2 (a zero
  // word gives quotient 0 and keeps the lowest word of bi1 as the remainder). multiByteDivide
  // takes a divisor of two to 128 words (zero words at its top do not count; a divisor left with
  // one word goes to singleByteDivide); quotient and remainder are exact.
  static void singleByteDivide(const BigInt& bi1, const BigInt& bi2, BigInt& outQuotient,
                               BigInt& outRemainder);
  static void multiByteDivide(const BigInt& bi1, const BigInt& bi2, BigInt& outQuotient,
                              BigInt& outRemainder);
  // "ArithmeticException" / "Positive exponents only." for a negative exponent; "Overflow" when
  // the modulus is 64 words or longer (its Barrett constant 2^(64k) does not fit). The sign of
  // the modulus is ignored; a negative receiver gives a negative result for an odd exponent. A
  // zero modulus, whose reduction loop would never end, leaves each step reduced modulo 2^64.
  BigInt modPow(const BigInt& exponent, const BigInt& withMod) const;
  // x mod n by Barrett's method in base 2^32, with andConstant = 2^(64k) / n (k = words of n)
  // and x below 2^(64k). Products pass on multiply()'s exceptions; for an n of 127 or 128 words
  // the steps need words beyond the capacity and raise "Overflow" where they would. For a zero or
  // negative n the final subtraction loop is skipped (it would never end).
  static BigInt barrettReduction(const BigInt& x, const BigInt& andN, const BigInt& andConstant);
  // Integer square root, bit by bit from the top; the result is not trimmed, so the root of 0
  // has dataLength 0 (kept as is). Trial squares pass on multiply()'s "overflow." (receivers
  // from 2^4094 up); a negative receiver gives zero with dataLength 64.
  BigInt sqrt() const;
  BigInt gcd(const BigInt& other) const;

  // True when bit 31 of word 127 is set.
  bool isNegative() const noexcept { return (data_[maxLength - 1] & 0x80000000u) != 0; }

  // --- primality and random numbers -------------------------------------------------------------
  // Random words come from a cryptographic uniform 32-bit source r, always read through the
  // mapping u = ((r + 1) mod 2^32) / 1e10, a double in [0, ~0.4295). This bound is part of the
  // design: random words never have bit 31 set and witness sizes stay below ~0.43 of the
  // candidate's bit length. The source is thread-safe; the operations below that mutate their
  // receiver (getRandomBits) must not race with other users of that value.

  // The 303 primes below 2000 in ascending order (2, 3, 5, ..., 1999).
  static const std::array<std::uint32_t, 303>& primesBelow2000() noexcept;

  // getRandomBits: — fills the receiver in place with a value of exactly `bits` bits (top bit
  // set); lower words are random per the mapping above, words above are cleared. 0 gives zero;
  // negative counts are outside the contract. Throws "ArithmeticException" / "Number of required
  // bits > maxLength." for more than 4096 bits.
  void getRandomBits(std::int32_t bits);

  // isProbablePrimeWithConfidence: — tests |receiver| by trial division with primesBelow2000
  // (stopping at the first prime >= the candidate), then rabinMillerTestWithConfidence.
  // WARNING: a candidate of 4 bits or fewer that reaches the random witness loop (5, 7, 11, 13)
  // never returns, because the witness bit count trunc(u * bits) cannot reach 2. This is a
  // consequence of the random mapping and is kept as designed.
  bool isProbablePrimeWithConfidence(std::int32_t confidence) const;
  // Deterministic: small cases, trial division, a base-2 strong probable-prime test, then
  // lucasStrongTest. Candidates up to 63 words (the modPow limit).
  // Note: the Lucas steps double with shiftLeft(1), which never adds a word, so a value whose
  // top word in use has bit 31 set loses that bit. By design this is kept; for such primes
  // (often those whose top word is full, and some one-word primes above 2^29) both
  // lucasStrongTest and isProbablePrime answer false.
  bool isProbablePrime() const;
  // rabinMillerTestWithConfidence: — `confidence` rounds with random witnesses on |receiver|;
  // fewer than 1 round answers true after the small cases (0, 1 false; 2, 3 true; even false).
  // Same non-termination as above for odd one-word values 5 to 15.
  bool rabinMillerTestWithConfidence(std::int32_t confidence) const;
  // generatePseudoPrimeWithBits:andConfidence: — draws random odd values of exactly `bits` bits
  // until one passes isProbablePrimeWithConfidence. No limit on attempts; use at least 5 bits.
  static BigInt generatePseudoPrimeWithBits(std::int32_t bits, std::int32_t andConfidence);
  // jacobi:andB: — the Jacobi symbol (a / b): -1, 0 or 1. Throws "ArgumentException" /
  // "Jacobi defined only for odd integers." when b is even.
  static std::int32_t jacobi(const BigInt& a, const BigInt& andB);
  // lucasStrongTest: — strong Lucas probable-prime test of |candidate| with Selfridge's
  // parameters (D = 5, -7, 9, ...; P = 1, Q = (1 - D) / 4).
  static bool lucasStrongTest(const BigInt& candidate);
  // lucasSequence:andQ:andk:andn:andConstant:ands: — (U_k, V_k, Q^k) modulo n, each further
  // doubled `ands` times, with andConstant the Barrett constant of n. Reductions use mod(), so
  // intermediate values keep the sign of their dividend. Throws "ArgumentException" /
  // "Argument k must be odd." for an even k.
  static std::array<BigInt, 3> lucasSequence(const BigInt& p, const BigInt& andQ,
                                             const BigInt& andk, const BigInt& andn,
                                             const BigInt& andConstant, std::int32_t ands);

 private:
  // Every constructor writes all 128 words itself.
  std::array<std::uint32_t, maxLength> data_;
  std::int32_t dataLength_;
};

}  // namespace corvane
