// BigInt division and remainder (single-word and multi-word long division), modular
// exponentiation, Barrett reduction, integer square root and gcd.
//
// Small expected values are hand computations shown next to them; large ones come from GMP
// (mpz_tdiv_qr, mpz_powm, mpz_sqrt, mpz_gcd) through BigIntTestSupport.hpp.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bigint/BigIntTestSupport.hpp"
#include "corvane/BigInt.hpp"

namespace corvane {
namespace {

using bigint_test::allWords;
using bigint_test::describe;
using bigint_test::fromHex;
using bigint_test::fromLong;
using bigint_test::fromMpz;
using bigint_test::holds;
using bigint_test::holdsHex;
using bigint_test::kWords;
using bigint_test::mostNegative;
using bigint_test::mostPositive;
using bigint_test::Mpz;
using bigint_test::mpzPowerOfTwo;
using bigint_test::powerOfTwo;
using bigint_test::rawBigInt;
using bigint_test::sameRepresentation;
using bigint_test::toMpz;

constexpr const char* kArithmetic = "ArithmeticException";
constexpr const char* kNegationOverflow = "Overflow in negation.";

// A value whose 128 words are all 0x5A5A5A5A, to show that output objects are overwritten.
BigInt garbage() { return rawBigInt(std::vector<std::uint32_t>(kWords, 0x5A5A5A5Au), 77); }

// Checks divide and mod of x by d against GMP's truncating division, plus the identity
// quotient * divisor + remainder == dividend computed with BigInt itself.
::testing::AssertionResult dividesLikeGmpUnguarded(const Mpz& x, const Mpz& d) {
  Mpz q;
  Mpz r;
  mpz_tdiv_qr(q, r, x, d);
  const BigInt dividend = fromMpz(x);
  const BigInt divisor = fromMpz(d);
  const BigInt quotient = dividend.divide(divisor);
  const BigInt remainder = dividend.mod(divisor);
  const std::string operands = bigint_test::hexOf(x) + " / " + bigint_test::hexOf(d);
  if (auto ok = holds(quotient, q); !ok) return ok << " (quotient of " << operands << ")";
  if (auto ok = holds(remainder, r); !ok) return ok << " (remainder of " << operands << ")";
  const BigInt back = quotient.multiply(divisor).add(remainder);
  if (!sameRepresentation(back, dividend)) {
    return ::testing::AssertionFailure() << "quotient * divisor + remainder = " << describe(back)
                                         << " differs from the dividend " << describe(dividend);
  }
  return ::testing::AssertionSuccess();
}

// The same, with an exception reported as a failure of this case rather than of the whole test.
::testing::AssertionResult dividesLikeGmp(const Mpz& x, const Mpz& d) {
  try {
    return dividesLikeGmpUnguarded(x, d);
  } catch (const Exception& e) {
    return ::testing::AssertionFailure()
           << "threw \"" << e.name() << "\" / \"" << e.reason() << "\" dividing "
           << bigint_test::hexOf(x) << " by " << bigint_test::hexOf(d);
  }
}

::testing::AssertionResult dividesLikeGmp(const char* xHex, const char* dHex) {
  return dividesLikeGmp(Mpz(xHex, 16), Mpz(dHex, 16));
}

// The first quotient-digit estimate of the last long-division round, for a divisor whose top
// word already has bit 31 set (no normalising shift) and a dividend x < d * 2^32, so that the
// last round produces the whole quotient: (top two of x's k+1 words) / (top word of d).
Mpz lastDigitEstimate(const Mpz& x, const Mpz& d) {
  const std::size_t k = (mpz_sizeinbase(d, 2) + 31) / 32;
  Mpz u;
  Mpz d1;
  mpz_fdiv_q_2exp(u, x, 32 * (k - 1));
  mpz_fdiv_q_2exp(d1, d, 32 * (k - 1));
  Mpz estimate;
  mpz_fdiv_q(estimate, u, d1);
  return estimate;
}

// --- divide and mod: signs and small values ---------------------------------------------------

TEST(BigIntDivision, DivideTruncatesTowardZero) {
  EXPECT_TRUE(holds(fromLong(7).divide(fromLong(-2)), -3));
  EXPECT_TRUE(holds(fromLong(-7).divide(fromLong(2)), -3));
  EXPECT_TRUE(holds(fromLong(-7).divide(fromLong(-2)), 3));
  EXPECT_TRUE(holds(fromLong(7).divide(fromLong(2)), 3));
  EXPECT_TRUE(holds(fromLong(6).divide(fromLong(-2)), -3));
}

TEST(BigIntDivision, ModHasTheSignOfTheDividend) {
  EXPECT_TRUE(holds(fromLong(-7).mod(fromLong(2)), -1));
  EXPECT_TRUE(holds(fromLong(7).mod(fromLong(-2)), 1));
  EXPECT_TRUE(holds(fromLong(-7).mod(fromLong(-2)), -1));
  EXPECT_TRUE(holds(fromLong(7).mod(fromLong(2)), 1));
  EXPECT_TRUE(holds(fromLong(-6).mod(fromLong(2)), 0));
}

TEST(BigIntDivision, ModOfSmallerMagnitudeReturnsTheDividend) {
  EXPECT_TRUE(holds(fromLong(3).mod(fromLong(5)), 3));
  EXPECT_TRUE(holds(fromLong(-3).mod(fromLong(5)), -3));
  EXPECT_TRUE(holds(fromLong(3).mod(fromLong(-5)), 3));
  EXPECT_TRUE(holds(fromLong(-3).mod(fromLong(-5)), -3));
  EXPECT_TRUE(sameRepresentation(fromLong(-3).mod(powerOfTwo(3000)), fromLong(-3)));
}

TEST(BigIntDivision, DivideOfSmallerMagnitudeIsZero) {
  EXPECT_TRUE(holds(fromLong(3).divide(fromLong(5)), 0));
  EXPECT_TRUE(holds(fromLong(-3).divide(fromLong(5)), 0));
  EXPECT_TRUE(holds(fromLong(3).divide(fromLong(-5)), 0));
  EXPECT_TRUE(holds(fromLong(0).divide(fromLong(5)), 0));
}

TEST(BigIntDivision, DivideByZeroGivesZero) {
  EXPECT_TRUE(holds(fromLong(10).divide(fromLong(0)), 0));
  EXPECT_TRUE(holds(fromLong(-10).divide(fromLong(0)), 0));
  EXPECT_TRUE(holds(fromHex("aaaaaaaabbbbbbbbcccccccc").divide(fromLong(0)), 0));
  EXPECT_TRUE(holds(fromLong(0).divide(fromLong(0)), 0));
}

TEST(BigIntDivision, ModByZeroGivesOneWordDividend) {
  EXPECT_TRUE(holds(fromLong(10).mod(fromLong(0)), 10));
  EXPECT_TRUE(holds(fromLong(-10).mod(fromLong(0)), -10));
  EXPECT_TRUE(holds(fromLong(0).mod(fromLong(0)), 0));
}

TEST(BigIntDivision, ModByZeroKeepsOnlyTheLowestWordOfALongerDividend) {
  // Every higher word is cleared during the single-word pass: 0xAAAAAAAA_BBBBBBBB_CCCCCCCC
  // becomes 0xCCCCCCCC.
  EXPECT_TRUE(holds(fromHex("aaaaaaaabbbbbbbbcccccccc").mod(fromLong(0)), 0xCCCCCCCCL));
  // -(0x5_00000007) mod 0: the magnitude's lowest word 7, negated.
  EXPECT_TRUE(holds(fromHex("-500000007").mod(fromLong(0)), -7));
}

TEST(BigIntDivision, DivisionLeavesOperandsUnchanged) {
  const BigInt dividend = fromHex("-123456789abcdef0123456789abcdef");
  const BigInt divisor = fromHex("fedcba987");
  (void)dividend.divide(divisor);
  (void)dividend.mod(divisor);
  (void)dividend.gcd(divisor);
  EXPECT_TRUE(sameRepresentation(dividend, fromHex("-123456789abcdef0123456789abcdef")));
  EXPECT_TRUE(sameRepresentation(divisor, fromHex("fedcba987")));
}

TEST(BigIntDivision, DivideAndModOfMostNegativeValueThrow) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().divide(fromLong(3)), kArithmetic, kNegationOverflow);
  EXPECT_CORVANE_EXCEPTION(fromLong(3).divide(mostNegative()), kArithmetic, kNegationOverflow);
  EXPECT_CORVANE_EXCEPTION(mostNegative().mod(fromLong(3)), kArithmetic, kNegationOverflow);
  EXPECT_CORVANE_EXCEPTION(fromLong(3).mod(mostNegative()), kArithmetic, kNegationOverflow);
}

// --- single-word division ------------------------------------------------------------------

TEST(BigIntDivision, DivideByOneWordDivisor) {
  // 2^32 + 5 = 4294967301 = 7 * 613566757 + 2.
  EXPECT_TRUE(holds(fromHex("100000005").divide(fromLong(7)), 613566757L));
  EXPECT_TRUE(holds(fromHex("100000005").mod(fromLong(7)), 2));
  EXPECT_TRUE(dividesLikeGmp("123456789abcdef0123456789abcdef0123456789abcdef", "fffffffb"));
  EXPECT_TRUE(dividesLikeGmp("-123456789abcdef0123456789abcdef0123456789abcdef", "3"));
}

TEST(BigIntDivision, SingleByteDivideFillsQuotientAndRemainder) {
  BigInt quotient = garbage();
  BigInt remainder = garbage();
  BigInt::singleByteDivide(fromHex("100000005"), fromLong(7), quotient, remainder);
  EXPECT_TRUE(holds(quotient, 613566757L));
  EXPECT_TRUE(holds(remainder, 2));

  // Top word 3 is below the divisor 0x10: 0x3_00000000 / 0x10 = 0x30000000, remainder 0.
  quotient = garbage();
  remainder = garbage();
  BigInt::singleByteDivide(fromHex("300000000"), fromLong(0x10), quotient, remainder);
  EXPECT_TRUE(holds(quotient, 0x30000000L));
  EXPECT_TRUE(holds(remainder, 0));
}

// --- multi-word division -------------------------------------------------------------------

TEST(BigIntDivision, MultiByteDivideFillsQuotientAndRemainder) {
  // 2^96 / (2^95 + 1) = 1, remainder 2^95 - 1.
  BigInt quotient = garbage();
  BigInt remainder = garbage();
  BigInt::multiByteDivide(powerOfTwo(96), fromHex("800000000000000000000001"), quotient, remainder);
  EXPECT_TRUE(holds(quotient, 1));
  EXPECT_TRUE(holdsHex(remainder, "7fffffffffffffffffffffff"));
}

TEST(BigIntDivision, SixtyFourWordDividendByTwoWordDivisorMultipliesBack) {
  // The dividend's words follow a fixed pattern (word i = i * 0x9E3779B9 mod 2^32, top word
  // forced non-zero); the divisors cover a normalised top word, a top word of 1 (largest shift)
  // and an all-ones divisor.
  std::vector<std::uint32_t> words(64);
  for (std::uint32_t i = 0; i < 64; ++i) words[i] = i * 0x9E3779B9u;
  words[63] |= 0x40000000u;
  const BigInt dividend = bigint_test::wordsBigInt(words);
  ASSERT_EQ(dividend.dataLength(), 64);
  const Mpz x = toMpz(dividend);
  for (const char* divisorHex :
       {"8000000000000001", "1ffffffff", "ffffffffffffffff", "123456789", "deadbeefcafebabe"}) {
    SCOPED_TRACE(divisorHex);
    const BigInt divisor = fromHex(divisorHex);
    ASSERT_EQ(divisor.dataLength(), 2);
    const BigInt quotient = dividend.divide(divisor);
    const BigInt remainder = dividend.mod(divisor);
    EXPECT_TRUE(sameRepresentation(quotient.multiply(divisor).add(remainder), dividend));
    EXPECT_TRUE(remainder.lessThan(divisor));
    EXPECT_FALSE(remainder.isNegative());
    EXPECT_TRUE(dividesLikeGmp(x, Mpz(divisorHex, 16)));
  }
}

TEST(BigIntDivision, MultiWordEstimateOneTooBigIsCorrectedByTheSecondDivisorWord) {
  // d = 0x80000000_FFFFFFFF, x = d * 0xFFFFFFF0 = 0x7FFFFFF8_FFFFFFEF_00000010.
  // Estimate: 0x7FFFFFF8_FFFFFFEF / 0x80000000 = 0xFFFFFFF1, one above the true digit; the test
  // 0xFFFFFFF1 * 0xFFFFFFFF > (0x7FFFFFEF << 32) + 0x10 brings it down to 0xFFFFFFF0.
  const Mpz x("7ffffff8ffffffef00000010", 16);
  const Mpz d("80000000ffffffff", 16);
  ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz("fffffff1", 16)), 0);
  EXPECT_TRUE(holdsHex(fromMpz(x).divide(fromMpz(d)), "fffffff0"));
  EXPECT_TRUE(holds(fromMpz(x).mod(fromMpz(d)), 0));
  EXPECT_TRUE(dividesLikeGmp(x, d));
}

TEST(BigIntDivision, MultiWordEstimateTwoTooBigIsFinishedByTheProductCheck) {
  // The estimate loop stops after one correction (r̂ + d1 is far above the 2^28 bound), so the
  // second excess is removed by comparing the product with the dividend's words.
  // d = 0x80000000_FFFFFFFF, x = d * 0xFFFFFFF0 + (d - 1) = 0x7FFFFFF9_7FFFFFF0_0000000E.
  // Estimate: 0x7FFFFFF9_7FFFFFF0 / 0x80000000 = 0xFFFFFFF2 (remainder 0x7FFFFFF0), two above
  // the true digit 0xFFFFFFF0.
  const Mpz x("7ffffff97ffffff00000000e", 16);
  const Mpz d("80000000ffffffff", 16);
  ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz("fffffff2", 16)), 0);
  EXPECT_TRUE(holdsHex(fromMpz(x).divide(fromMpz(d)), "fffffff0"));
  EXPECT_TRUE(holdsHex(fromMpz(x).mod(fromMpz(d)), "80000000fffffffe"));
  EXPECT_TRUE(dividesLikeGmp(x, d));
}

TEST(BigIntDivision, MultiWordEstimateOfAtLeastTwoTo32IsCorrected) {
  // The dividend's top word equals the divisor's top word, so the estimate reaches 2^32.
  // d = 0x80000000_FFFFFFFE, x = d * 0xFFFFFFFF = 0x80000000_7FFFFFFD_00000002: estimate
  // 0x80000000_7FFFFFFD / 0x80000000 = 0x1_00000000, true digit 0xFFFFFFFF, remainder 0.
  {
    const Mpz x("800000007ffffffd00000002", 16);
    const Mpz d("80000000fffffffe", 16);
    ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz("100000000", 16)), 0);
    EXPECT_TRUE(holdsHex(fromMpz(x).divide(fromMpz(d)), "ffffffff"));
    EXPECT_TRUE(holds(fromMpz(x).mod(fromMpz(d)), 0));
  }
  // Estimate 2^32, true digit 2^32 - 2 (from GMP): both correction stages are needed.
  {
    const Mpz x("800000177fffffe6ffffffff", 16);
    const Mpz d("80000017ffffffff", 16);
    ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz("100000000", 16)), 0);
    EXPECT_TRUE(holdsHex(fromMpz(x).divide(fromMpz(d)), "fffffffe"));
    EXPECT_TRUE(dividesLikeGmp(x, d));
  }
  // x = 0x80000000_80000000_00000000, d = 0x80000000_FFFFFFFF: estimate 2^32 + 1.
  {
    const Mpz x("800000008000000000000000", 16);
    const Mpz d("80000000ffffffff", 16);
    ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz("100000001", 16)), 0);
    EXPECT_TRUE(dividesLikeGmp(x, d));
  }
}

TEST(BigIntDivision, MultiWordEstimatePassingTheSecondWordTestIsCorrectedByTheThirdWord) {
  // d = 2^95 + 1 = 0x80000000_00000000_00000001, x = 2^96.
  // Estimate: 0x1_00000000 / 0x80000000 = 2; the second divisor word is 0 so the estimate test
  // passes, but 2 * d = 2^96 + 2 > x: the product check lowers the digit to 1.
  // 2^96 = 1 * (2^95 + 1) + (2^95 - 1).
  const Mpz x = mpzPowerOfTwo(96);
  const Mpz d("800000000000000000000001", 16);
  ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz(2)), 0);
  EXPECT_TRUE(holds(fromMpz(x).divide(fromMpz(d)), 1));
  EXPECT_TRUE(holdsHex(fromMpz(x).mod(fromMpz(d)), "7fffffffffffffffffffffff"));
}

TEST(BigIntDivision, MultiWordQuotientDigitEqualToTheCorrectionBoundIsExact) {
  // A quotient digit of exactly 0x10000000 (2^28, the bound of the estimate correction) with an
  // estimate that is already right must stay 0x10000000.
  // d = 0x80000000_00000001, x = d * 2^28 = 0x08000000_00000000_10000000: estimate
  // 0x08000000_00000000 / 0x80000000 = 0x10000000, which is the true digit; remainder 0.
  {
    const Mpz d("8000000000000001", 16);
    const Mpz x("80000000000000010000000", 16);
    ASSERT_EQ(mpz_cmp(lastDigitEstimate(x, d), Mpz(0x10000000L)), 0);
    EXPECT_TRUE(holds(fromMpz(x).divide(fromMpz(d)), 0x10000000L));
    EXPECT_TRUE(holds(fromMpz(x).mod(fromMpz(d)), 0));
  }
  // The same digit in the middle of a longer quotient:
  // x = d * 0x10000000_00000005 + 7.
  {
    const Mpz d("8000000000000001", 16);
    Mpz x;
    mpz_mul(x, d, Mpz("1000000000000005", 16));
    mpz_add_ui(x, x, 7);
    EXPECT_TRUE(holdsHex(fromMpz(x).divide(fromMpz(d)), "1000000000000005"));
    EXPECT_TRUE(holds(fromMpz(x).mod(fromMpz(d)), 7));
  }
}

TEST(BigIntDivision, MultiWordDivisionWithLargestNormalisingShift) {
  // The divisor's top word is 1 (shift 31) and the dividend's top word 0x7FFFFFFF, so the
  // shifted working remainder grows by a word. Expected values from GMP.
  EXPECT_TRUE(dividesLikeGmp("7fffffffffffffffffffffffffffffff", "10000000000000001"));
  EXPECT_TRUE(dividesLikeGmp("7fffffff00000000ffffffff00000000", "1ffffffffffffffff"));
  EXPECT_TRUE(dividesLikeGmp("-7fffffff00000000ffffffff00000000", "-100000000"));
}

TEST(BigIntDivision, MultiWordDivisionOfEqualAndNearlyEqualValues) {
  EXPECT_TRUE(dividesLikeGmp("123456789abcdef0123456789", "123456789abcdef0123456789"));
  EXPECT_TRUE(dividesLikeGmp("123456789abcdef0123456789", "123456789abcdef0123456788"));
  EXPECT_TRUE(dividesLikeGmp("123456789abcdef0123456788", "123456789abcdef0123456789"));
  EXPECT_TRUE(dividesLikeGmp("-123456789abcdef0123456789", "123456789abcdef0123456789"));
}

TEST(BigIntDivision, DivisorsOf65To126WordsGiveExactQuotients) {
  // The largest dividend, the most positive value, by divisors longer than 64 words; GMP gives
  // the expected values.
  const Mpz x = toMpz(mostPositive());
  for (unsigned long bits : {2049ul, 3000ul, 4000ul, 4001ul, 4017ul, 4032ul}) {
    SCOPED_TRACE("divisor of " + std::to_string(bits) + " bits");
    Mpz d = mpzPowerOfTwo(bits - 1);
    mpz_add_ui(d, d, 12345);
    EXPECT_TRUE(dividesLikeGmp(x, d));
  }
}

TEST(BigIntDivision, DivisorsOf127WordsGiveExactQuotients) {
  // Divisors of 4033 to 4064 bits; with the most positive value as dividend the quotient has up
  // to 63 bits, spread over two quotient words. GMP gives the expected values.
  const Mpz x = toMpz(mostPositive());
  for (unsigned long bits : {4033ul, 4040ul, 4049ul, 4063ul, 4064ul}) {
    SCOPED_TRACE("divisor of " + std::to_string(bits) + " bits");
    Mpz d = mpzPowerOfTwo(bits - 1);
    mpz_add_ui(d, d, 12345);
    EXPECT_TRUE(dividesLikeGmp(x, d));
    mpz_setbit(d, bits - 2);
    EXPECT_TRUE(dividesLikeGmp(x, d));
  }
  // d = 0xFFFF * 2^4032 + 1 (127 words, top word 0xFFFF) and x = d * 0x5_FFFFFFFF + 7: the
  // second quotient word is 0xFFFFFFFF, the largest there is.
  Mpz d(0xFFFFL);
  mpz_mul_2exp(d, d, 4032);
  mpz_add_ui(d, d, 1);
  ASSERT_EQ(fromMpz(d).dataLength(), 127);
  Mpz largeDigits;
  mpz_mul(largeDigits, d, Mpz("5ffffffff", 16));
  mpz_add_ui(largeDigits, largeDigits, 7);
  EXPECT_TRUE(dividesLikeGmp(largeDigits, d));
}

TEST(BigIntDivision, DivisorsOf128WordsGiveExactQuotients) {
  // A divisor of 128 words (and so a dividend of 128 words) is the longest division there is.
  const Mpz x = toMpz(mostPositive());
  for (unsigned long bits : {4065ul, 4094ul, 4095ul}) {
    SCOPED_TRACE("divisor of " + std::to_string(bits) + " bits");
    Mpz d = mpzPowerOfTwo(bits - 1);
    mpz_add_ui(d, d, 12345);
    EXPECT_TRUE(dividesLikeGmp(x, d));
  }
  EXPECT_TRUE(dividesLikeGmp(x, x));
  Mpz belowX;
  mpz_sub_ui(belowX, x, 1);
  EXPECT_TRUE(dividesLikeGmp(belowX, x));  // |a| < |b|: no long division at all
}

// --- modPow and Barrett reduction -------------------------------------------------------------

TEST(BigIntDivision, ModPowKnownAnswer) {
  // 4^13 = 67108864 = 497 * 135027 + 445.
  EXPECT_TRUE(holds(fromLong(4).modPow(fromLong(13), fromLong(497)), 445));
  // 1000 = 7 * 142 + 6, and 6^3 = 216 = 7 * 30 + 6.
  EXPECT_TRUE(holds(fromLong(1000).modPow(fromLong(3), fromLong(7)), 6));
  // 2^10 = 1024 = 1000 + 24.
  EXPECT_TRUE(holds(fromLong(2).modPow(fromLong(10), fromLong(1000)), 24));
}

TEST(BigIntDivision, ModPowWithZeroExponentGivesOne) {
  for (long base : {0L, 1L, 5L, -5L, 496L, 123456789L}) {
    for (long modulus : {497L, 2L, 1L, -7L}) {
      EXPECT_TRUE(holds(fromLong(base).modPow(fromLong(0), fromLong(modulus)), 1))
          << base << "^0 mod " << modulus;
    }
  }
  EXPECT_TRUE(holds(powerOfTwo(1500).modPow(fromLong(0), fromHex("fffffffffffffffffffffffb")), 1));
}

TEST(BigIntDivision, ModPowWithNegativeExponentThrows) {
  EXPECT_CORVANE_EXCEPTION(fromLong(4).modPow(fromLong(-1), fromLong(497)), kArithmetic,
                           "Positive exponents only.");
  EXPECT_CORVANE_EXCEPTION(fromLong(4).modPow(mostNegative(), fromLong(497)), kArithmetic,
                           "Positive exponents only.");
}

TEST(BigIntDivision, ModPowOfNegativeBaseWithOddExponentIsNegated) {
  // (-2)^3 mod 5: 2^3 = 8 = 5 + 3, negated: -3.
  EXPECT_TRUE(holds(fromLong(-2).modPow(fromLong(3), fromLong(5)), -3));
  // Even exponent: 2^2 = 4, not negated.
  EXPECT_TRUE(holds(fromLong(-2).modPow(fromLong(2), fromLong(5)), 4));
  // The base is reduced first: 1000 mod 7 = 6, 6^3 mod 7 = 6, negated: -6.
  EXPECT_TRUE(holds(fromLong(-1000).modPow(fromLong(3), fromLong(7)), -6));
  // 10 mod 5 = 0: -0 is 0.
  EXPECT_TRUE(holds(fromLong(-10).modPow(fromLong(3), fromLong(5)), 0));
}

TEST(BigIntDivision, ModPowWithNegativeModulusUsesItsMagnitude) {
  EXPECT_TRUE(holds(fromLong(4).modPow(fromLong(13), fromLong(-497)), 445));
  EXPECT_TRUE(holds(fromLong(-2).modPow(fromLong(3), fromLong(-5)), -3));
}

TEST(BigIntDivision, ModPowByModulusOneIsZero) {
  EXPECT_TRUE(holds(fromLong(5).modPow(fromLong(3), fromLong(1)), 0));
  EXPECT_TRUE(holds(fromLong(5).modPow(fromLong(1), fromLong(1)), 0));
}

TEST(BigIntDivision, ModPowStopsEarlyWhenTheRunningSquareIsOne) {
  // 496 = -1 mod 497: its square is 1 after the first bit, so the walk stops there; the result
  // is the same as the full exponentiation, 496 for odd and 1 for even exponents (GMP agrees).
  Mpz oddExponent = mpzPowerOfTwo(200);
  mpz_setbit(oddExponent, 100);
  mpz_setbit(oddExponent, 0);
  Mpz evenExponent = mpzPowerOfTwo(200);
  mpz_setbit(evenExponent, 1);
  EXPECT_TRUE(holds(fromLong(496).modPow(fromMpz(oddExponent), fromLong(497)), 496));
  EXPECT_TRUE(holds(fromLong(496).modPow(fromMpz(evenExponent), fromLong(497)), 1));
  EXPECT_TRUE(holds(fromLong(1).modPow(fromMpz(oddExponent), fromLong(497)), 1));
  // 2 has order 8 modulo 17 (2^8 = 256 = 15 * 17 + 1) and order 64 modulo 2^32 + 1
  // (2^32 = -1): the running square becomes 1 after 3 and 6 squarings, long before the
  // exponent's 84 bits are used up. Expected values from mpz_powm.
  const Mpz exponent("fffffffffffffffffffff", 16);
  for (const char* modulusHex : {"11", "100000001"}) {
    SCOPED_TRACE(modulusHex);
    const Mpz modulus(modulusHex, 16);
    Mpz expected;
    mpz_powm(expected, Mpz(2), exponent, modulus);
    EXPECT_TRUE(holds(fromLong(2).modPow(fromMpz(exponent), fromMpz(modulus)), expected));
    Mpz lessOne;
    mpz_sub_ui(lessOne, exponent, 1);
    mpz_powm(expected, Mpz(3), lessOne, modulus);
    EXPECT_TRUE(holds(fromLong(3).modPow(fromMpz(lessOne), fromMpz(modulus)), expected));
  }
}

TEST(BigIntDivision, ModPowOfMostNegativeBaseThrows) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().modPow(fromLong(3), fromLong(7)), kArithmetic,
                           kNegationOverflow);
}

TEST(BigIntDivision, ModPowWithMultiWordModulus) {
  // Expected values from mpz_powm.
  const Mpz modulus("f123456789abcdef0123456789abcdef0123456789abcdef1", 16);
  const Mpz base("123456789abcdef0fedcba9876543210", 16);
  const Mpz exponent("10001", 16);
  Mpz expected;
  mpz_powm(expected, base, exponent, modulus);
  EXPECT_TRUE(holds(fromMpz(base).modPow(fromMpz(exponent), fromMpz(modulus)), expected));
}

TEST(BigIntDivision, BarrettReductionReducesBelowTheModulus) {
  // 67108864 = 4^13 mod 497 = 445 (see ModPowKnownAnswer); mu = floor(2^64 / 497).
  Mpz mu = mpzPowerOfTwo(64);
  mpz_fdiv_q_ui(mu, mu, 497);
  EXPECT_TRUE(holds(BigInt::barrettReduction(fromLong(67108864), fromLong(497), fromMpz(mu)), 445));
  EXPECT_TRUE(holds(BigInt::barrettReduction(fromLong(496), fromLong(497), fromMpz(mu)), 496));
  EXPECT_TRUE(holds(BigInt::barrettReduction(fromLong(497), fromLong(497), fromMpz(mu)), 0));

  // A six-word modulus (k = 6) and x = (n - 1)^2, the largest product modPow reduces;
  // mu = floor(2^(64k) / n); GMP gives x mod n.
  const Mpz n("fedcba9876543210fedcba9876543210fedcba9876543211", 16);
  ASSERT_EQ(fromMpz(n).dataLength(), 6);
  Mpz x;
  mpz_sub_ui(x, n, 1);
  mpz_mul(x, x, x);
  Mpz bigMu = mpzPowerOfTwo(64 * 6);
  mpz_fdiv_q(bigMu, bigMu, n);
  Mpz expected;
  mpz_mod(expected, x, n);
  EXPECT_TRUE(holds(BigInt::barrettReduction(fromMpz(x), fromMpz(n), fromMpz(bigMu)), expected));
}

// --- sqrt ------------------------------------------------------------------------------------

TEST(BigIntDivision, SqrtOfPerfectSquare) {
  EXPECT_TRUE(holds(fromLong(16).sqrt(), 4));
  EXPECT_TRUE(holds(fromLong(1).sqrt(), 1));
  EXPECT_TRUE(holds(powerOfTwo(4092).sqrt(), mpzPowerOfTwo(2046)));
  // (2^1000 + 3)^2 has root 2^1000 + 3.
  Mpz root = mpzPowerOfTwo(1000);
  mpz_add_ui(root, root, 3);
  Mpz square;
  mpz_mul(square, root, root);
  EXPECT_TRUE(holds(fromMpz(square).sqrt(), root));
}

TEST(BigIntDivision, SqrtRoundsDown) {
  EXPECT_TRUE(holds(fromLong(17).sqrt(), 4));
  EXPECT_TRUE(holds(fromLong(15).sqrt(), 3));
  EXPECT_TRUE(holds(fromLong(2).sqrt(), 1));
  // floor(sqrt(2^64 - 1)) = 2^32 - 1.
  EXPECT_TRUE(holds(fromHex("ffffffffffffffff").sqrt(), 0xFFFFFFFFL));
  // floor(sqrt(2^4094 - 1)) = 2^2047 - 1, the largest root that can be computed.
  Mpz x = mpzPowerOfTwo(4094);
  mpz_sub_ui(x, x, 1);
  Mpz expected = mpzPowerOfTwo(2047);
  mpz_sub_ui(expected, expected, 1);
  EXPECT_TRUE(holds(fromMpz(x).sqrt(), expected));
}

TEST(BigIntDivision, SqrtFromTwoTo4094UpThrowsOverflow) {
  // From 2^4094 on, bit 2047 of the root is kept, and the next trial root 2^2047 + 2^2046
  // squares to 2^4095 + 2^4092, whose bit 4095 makes multiply raise "overflow.".
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(4094).sqrt(), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(mostPositive().sqrt(), kArithmetic, "overflow.");
}

TEST(BigIntDivision, SqrtOfZeroHasDataLengthZero) {
  const BigInt root = fromLong(0).sqrt();
  EXPECT_EQ(root.dataLength(), 0);
  EXPECT_EQ(allWords(root), std::vector<std::uint32_t>(kWords, 0));
  EXPECT_FALSE(root.equals(BigInt::create()));
  EXPECT_FALSE(BigInt::create().equals(root));
}

// --- gcd -------------------------------------------------------------------------------------

TEST(BigIntDivision, GcdIgnoresSigns) {
  EXPECT_TRUE(holds(fromLong(-12).gcd(fromLong(18)), 6));
  EXPECT_TRUE(holds(fromLong(12).gcd(fromLong(-18)), 6));
  EXPECT_TRUE(holds(fromLong(-12).gcd(fromLong(-18)), 6));
  EXPECT_TRUE(holds(fromLong(18).gcd(fromLong(12)), 6));
}

TEST(BigIntDivision, GcdOfZeroAndZeroIsZero) {
  EXPECT_TRUE(holds(fromLong(0).gcd(fromLong(0)), 0));
}

TEST(BigIntDivision, GcdWithZeroIsTheOtherMagnitude) {
  EXPECT_TRUE(holds(fromLong(0).gcd(fromLong(-7)), 7));
  EXPECT_TRUE(holds(fromLong(-7).gcd(fromLong(0)), 7));
  EXPECT_TRUE(holds(fromHex("123456789abcdef01").gcd(fromLong(0)), Mpz("123456789abcdef01", 16)));
}

TEST(BigIntDivision, GcdOfCoprimeAndMultiWordValues) {
  EXPECT_TRUE(holds(fromLong(17).gcd(fromLong(31)), 1));
  // gcd(2^200 * 3^5, 2^100 * 3^7 * 5) = 2^100 * 3^5, from GMP.
  Mpz a;
  Mpz b;
  mpz_ui_pow_ui(a, 3, 5);
  mpz_mul_2exp(a, a, 200);
  mpz_ui_pow_ui(b, 3, 7);
  mpz_mul_ui(b, b, 5);
  mpz_mul_2exp(b, b, 100);
  Mpz expected;
  mpz_gcd(expected, a, b);
  EXPECT_TRUE(holds(fromMpz(a).gcd(fromMpz(b)), expected));
}

TEST(BigIntDivision, GcdOfMostNegativeValueThrows) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().gcd(fromLong(6)), kArithmetic, kNegationOverflow);
  EXPECT_CORVANE_EXCEPTION(fromLong(6).gcd(mostNegative()), kArithmetic, kNegationOverflow);
}

}  // namespace
}  // namespace corvane
