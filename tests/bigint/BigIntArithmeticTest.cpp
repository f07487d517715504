// BigInt addition, subtraction, multiplication, negation, complement, shifts, bitwise
// operations, bit length, absolute value and comparisons.
//
// Operands are built word by word (BigIntTestSupport.hpp) rather than with the constructors.
// Small expected values are hand computations shown next to them; large ones come from GMP.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "bigint/BigIntTestSupport.hpp"
#include "corvane/BigInt.hpp"

namespace corvane {
namespace {

using bigint_test::allWords;
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

constexpr const char* kArithmetic = "ArithmeticException";

std::vector<std::uint32_t> allOnes() { return std::vector<std::uint32_t>(kWords, 0xFFFFFFFFu); }

// --- add ---------------------------------------------------------------------------------------

TEST(BigIntArithmetic, AddSmallValues) {
  EXPECT_TRUE(holds(fromLong(2).add(fromLong(3)), 5));
  EXPECT_TRUE(holds(fromLong(-2).add(fromLong(3)), 1));
  EXPECT_TRUE(holds(fromLong(2).add(fromLong(-3)), -1));
  EXPECT_TRUE(holds(fromLong(-2).add(fromLong(-3)), -5));
  EXPECT_TRUE(holds(fromLong(0).add(fromLong(0)), 0));
}

TEST(BigIntArithmetic, AddCarriesIntoANewWord) {
  // 0xFFFFFFFF + 1 = 0x1_00000000.
  const BigInt sum = fromLong(0xFFFFFFFFL).add(fromLong(1));
  EXPECT_TRUE(holdsHex(sum, "100000000"));
  EXPECT_EQ(sum.dataLength(), 2);
}

TEST(BigIntArithmetic, AddPropagatesCarryAcrossManyWords) {
  // (2^1920 - 1) + 1 = 2^1920: sixty words of ones all carry.
  Mpz allOnesValue = mpzPowerOfTwo(1920);
  mpz_sub_ui(allOnesValue, allOnesValue, 1);
  const BigInt sum = fromMpz(allOnesValue).add(fromLong(1));
  EXPECT_TRUE(holds(sum, mpzPowerOfTwo(1920)));
  EXPECT_EQ(sum.dataLength(), 61);
}

TEST(BigIntArithmetic, AddOneToMostPositiveValueThrowsOverflow) {
  EXPECT_CORVANE_EXCEPTION(mostPositive().add(fromLong(1)), kArithmetic, "Overflow");
  EXPECT_CORVANE_EXCEPTION(fromLong(1).add(mostPositive()), kArithmetic, "Overflow");
  EXPECT_CORVANE_EXCEPTION(mostPositive().add(mostPositive()), kArithmetic, "Overflow");
}

TEST(BigIntArithmetic, AddBelowMostNegativeValueThrowsOverflow) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().add(fromLong(-1)), kArithmetic, "Overflow");
  EXPECT_CORVANE_EXCEPTION(mostNegative().add(mostNegative()), kArithmetic, "Overflow");
}

TEST(BigIntArithmetic, AddOfOppositeSignsNeverThrows) {
  // mostNegative + mostPositive = -2^4095 + 2^4095 - 1 = -1.
  EXPECT_TRUE(holds(mostNegative().add(mostPositive()), -1));
  EXPECT_TRUE(holds(mostPositive().add(mostNegative()), -1));
  // (2^4095 - 1) + (-1) = 2^4095 - 2.
  Mpz expected = mpzPowerOfTwo(4095);
  mpz_sub_ui(expected, expected, 2);
  EXPECT_TRUE(holds(mostPositive().add(fromLong(-1)), expected));
  EXPECT_TRUE(holds(fromLong(1).add(mostNegative()), [] {
    Mpz v = mpzPowerOfTwo(4095);
    mpz_neg(v, v);
    mpz_add_ui(v, v, 1);
    return v;
  }()));
}

TEST(BigIntArithmetic, AddReachingTheExtremesExactlySucceeds) {
  // (2^4095 - 2) + 1 and (-2^4095 + 1) + (-1) land exactly on the extremes.
  EXPECT_TRUE(
      sameRepresentation(mostPositive().add(fromLong(-1)).add(fromLong(1)), mostPositive()));
  EXPECT_TRUE(
      sameRepresentation(mostNegative().add(fromLong(1)).add(fromLong(-1)), mostNegative()));
}

TEST(BigIntArithmetic, AddDropsCarryOutOfWord127) {
  // -1 + 1: every word carries and the carry out of word 127 is dropped, leaving zero.
  const BigInt zero = fromLong(-1).add(fromLong(1));
  EXPECT_EQ(zero.dataLength(), 1);
  EXPECT_EQ(allWords(zero), std::vector<std::uint32_t>(kWords, 0));
  // -1 + -1 = -2.
  std::vector<std::uint32_t> minusTwo = allOnes();
  minusTwo[0] = 0xFFFFFFFEu;
  const BigInt sum = fromLong(-1).add(fromLong(-1));
  EXPECT_EQ(allWords(sum), minusTwo);
  EXPECT_EQ(sum.dataLength(), 128);
}

TEST(BigIntArithmetic, AddLeavesOperandsUnchanged) {
  const BigInt a = mostPositive();
  const BigInt b = fromLong(1);
  EXPECT_ANY_THROW((void)a.add(b));
  EXPECT_TRUE(sameRepresentation(a, mostPositive()));
  EXPECT_TRUE(sameRepresentation(b, fromLong(1)));
  const BigInt c = fromLong(-7);
  (void)c.add(b);
  EXPECT_TRUE(sameRepresentation(c, fromLong(-7)));
}

// --- subtract -------------------------------------------------------------------------------

TEST(BigIntArithmetic, SubtractOneFromZeroGivesAllOnes) {
  const BigInt minusOne = fromLong(0).subtract(fromLong(1));
  EXPECT_EQ(allWords(minusOne), allOnes());
  EXPECT_EQ(minusOne.dataLength(), 128);
}

TEST(BigIntArithmetic, SubtractGivingNegativeFillsTheUpperWords) {
  // 5 - 7 = -2 = ...FFFFFFFE.
  std::vector<std::uint32_t> expected = allOnes();
  expected[0] = 0xFFFFFFFEu;
  const BigInt difference = fromLong(5).subtract(fromLong(7));
  EXPECT_EQ(allWords(difference), expected);
  EXPECT_EQ(difference.dataLength(), 128);
}

TEST(BigIntArithmetic, SubtractBorrowsAcrossWords) {
  // 2^64 - 1 = 0xFFFFFFFF_FFFFFFFF; 2^64 - 2^64 = 0.
  EXPECT_TRUE(holdsHex(powerOfTwo(64).subtract(fromLong(1)), "ffffffffffffffff"));
  EXPECT_TRUE(holds(powerOfTwo(64).subtract(powerOfTwo(64)), 0));
  EXPECT_EQ(powerOfTwo(64).subtract(powerOfTwo(64)).dataLength(), 1);
}

TEST(BigIntArithmetic, SubtractOfNegativesCanGivePositive) {
  EXPECT_TRUE(holds(fromLong(-1).subtract(fromLong(-2)), 1));
  EXPECT_TRUE(holds(fromLong(1).subtract(fromLong(-1)), 2));
  EXPECT_TRUE(holds(fromLong(-5).subtract(fromLong(-5)), 0));
}

TEST(BigIntArithmetic, SubtractPastTheExtremesThrowsOverflow) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().subtract(fromLong(1)), kArithmetic, "Overflow");
  EXPECT_CORVANE_EXCEPTION(mostPositive().subtract(fromLong(-1)), kArithmetic, "Overflow");
  EXPECT_CORVANE_EXCEPTION(fromLong(0).subtract(mostNegative()), kArithmetic, "Overflow");
  EXPECT_CORVANE_EXCEPTION(mostPositive().subtract(mostNegative()), kArithmetic, "Overflow");
}

TEST(BigIntArithmetic, SubtractOfSameSignsNeverThrows) {
  EXPECT_TRUE(holds(mostPositive().subtract(mostPositive()), 0));
  EXPECT_TRUE(holds(mostNegative().subtract(mostNegative()), 0));
  // -2^4095 - (-1) = -2^4095 + 1; 0 - (2^4095 - 1) = -2^4095 + 1.
  Mpz expected = mpzPowerOfTwo(4095);
  mpz_neg(expected, expected);
  mpz_add_ui(expected, expected, 1);
  EXPECT_TRUE(holds(mostNegative().subtract(fromLong(-1)), expected));
  EXPECT_TRUE(holds(fromLong(0).subtract(mostPositive()), expected));
  // -1 - (2^4095 - 1) = -2^4095 exactly.
  EXPECT_TRUE(sameRepresentation(fromLong(-1).subtract(mostPositive()), mostNegative()));
}

// --- multiply ------------------------------------------------------------------------------

TEST(BigIntArithmetic, MultiplySmallValuesWithEverySign) {
  EXPECT_TRUE(holds(fromLong(6).multiply(fromLong(7)), 42));
  EXPECT_TRUE(holds(fromLong(-6).multiply(fromLong(7)), -42));
  EXPECT_TRUE(holds(fromLong(6).multiply(fromLong(-7)), -42));
  EXPECT_TRUE(holds(fromLong(-6).multiply(fromLong(-7)), 42));
}

TEST(BigIntArithmetic, MultiplyByZeroGivesZero) {
  EXPECT_TRUE(holds(fromLong(123456).multiply(fromLong(0)), 0));
  EXPECT_TRUE(holds(fromLong(0).multiply(fromLong(-5)), 0));
  EXPECT_TRUE(holds(mostPositive().multiply(fromLong(0)), 0));
  // The most negative value is used un-negated: its magnitude 2^4095 times 0 is 0.
  EXPECT_TRUE(holds(mostNegative().multiply(fromLong(0)), 0));
}

TEST(BigIntArithmetic, MultiplyFullWords) {
  // (2^64 - 1)^2 = 2^128 - 2^65 + 1 = 0xFFFFFFFF_FFFFFFFE_00000000_00000001.
  const BigInt square = fromHex("ffffffffffffffff").multiply(fromHex("ffffffffffffffff"));
  EXPECT_TRUE(holdsHex(square, "fffffffffffffffe0000000000000001"));
  EXPECT_EQ(square.dataLength(), 4);
  // (2^32 - 1) * -(2^32 - 1) = -(2^64 - 2^33 + 1).
  EXPECT_TRUE(holdsHex(fromHex("ffffffff").multiply(fromHex("-ffffffff")), "-fffffffe00000001"));
}

TEST(BigIntArithmetic, MultiplyLargestProductsBelowBit4095Succeed) {
  // 2^2047 * 2^2047 = 2^4094; -2^2047 * 2^2047 = -2^4094.
  EXPECT_TRUE(holds(powerOfTwo(2047).multiply(powerOfTwo(2047)), mpzPowerOfTwo(4094)));
  Mpz negative = mpzPowerOfTwo(4094);
  mpz_neg(negative, negative);
  EXPECT_TRUE(holds(powerOfTwo(2047, true).multiply(powerOfTwo(2047)), negative));
  EXPECT_TRUE(sameRepresentation(mostPositive().multiply(fromLong(1)), mostPositive()));
  // -(2^4095 - 1) = -2^4095 + 1.
  Mpz minusMostPositive = mpzPowerOfTwo(4095);
  mpz_neg(minusMostPositive, minusMostPositive);
  mpz_add_ui(minusMostPositive, minusMostPositive, 1);
  EXPECT_TRUE(holds(mostPositive().multiply(fromLong(-1)), minusMostPositive));
}

TEST(BigIntArithmetic, MultiplyReachingBit4095ThrowsOverflow) {
  // 2^4094 * 2 = 2^4095: bit 4095 set.
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(4094).multiply(fromLong(2)), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(fromLong(2).multiply(powerOfTwo(4094)), kArithmetic, "overflow.");
  // 2^2047 * 2^2048 = 2^4095.
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(2047).multiply(powerOfTwo(2048)), kArithmetic, "overflow.");
  // (2^4095 - 1) * 2 = 2^4096 - 2 < 2^4096: still 128 words, bit 4095 set.
  EXPECT_CORVANE_EXCEPTION(mostPositive().multiply(fromLong(2)), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(mostPositive().multiply(fromLong(-2)), kArithmetic, "overflow.");
}

TEST(BigIntArithmetic, MultiplyGivingMostNegativeValueThrowsOverflowToo) {
  // -2^4094 * 2 = -2^4095 is representable, yet every product with bit 4095 set fails.
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(4094, true).multiply(fromLong(2)), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(fromLong(2).multiply(powerOfTwo(4094, true)), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(4094).multiply(fromLong(-2)), kArithmetic, "overflow.");
  // The most negative value times 1 or -1: its un-negated magnitude 2^4095 has bit 4095 set.
  EXPECT_CORVANE_EXCEPTION(mostNegative().multiply(fromLong(1)), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(fromLong(1).multiply(mostNegative()), kArithmetic, "overflow.");
  EXPECT_CORVANE_EXCEPTION(mostNegative().multiply(fromLong(-1)), kArithmetic, "overflow.");
}

TEST(BigIntArithmetic, MultiplyNeedingMoreThan128WordsThrowsMultiplicationOverflow) {
  const char* kReason = "Multiplication overflow.";
  // 2^2048 * 2^2048 = 2^4096: 129 words.
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(2048).multiply(powerOfTwo(2048)), kArithmetic, kReason);
  // (2^4095 - 1) * 3 = 2^4096 + 2^4095 - 3: 129 words.
  EXPECT_CORVANE_EXCEPTION(mostPositive().multiply(fromLong(3)), kArithmetic, kReason);
  EXPECT_CORVANE_EXCEPTION(fromLong(3).multiply(mostPositive()), kArithmetic, kReason);
  EXPECT_CORVANE_EXCEPTION(mostPositive().multiply(mostPositive()), kArithmetic, kReason);
  EXPECT_CORVANE_EXCEPTION(mostPositive().multiply(mostNegative()), kArithmetic, kReason);
  // 2 * 2^4095 (the un-negated most negative value) = 2^4096.
  EXPECT_CORVANE_EXCEPTION(fromLong(2).multiply(mostNegative()), kArithmetic, kReason);
  EXPECT_CORVANE_EXCEPTION(powerOfTwo(3000, true).multiply(powerOfTwo(2000)), kArithmetic, kReason);
}

TEST(BigIntArithmetic, MultiplyLeavesOperandsUnchangedWhenItThrows) {
  const BigInt a = powerOfTwo(2048);
  const BigInt b = powerOfTwo(4094, true);
  EXPECT_ANY_THROW((void)a.multiply(a));
  EXPECT_ANY_THROW((void)b.multiply(fromLong(2)));
  EXPECT_TRUE(sameRepresentation(a, powerOfTwo(2048)));
  EXPECT_TRUE(sameRepresentation(b, powerOfTwo(4094, true)));
}

// --- negate, not, abs -----------------------------------------------------------------------

TEST(BigIntArithmetic, NegateZeroGivesZero) {
  const BigInt zero = fromLong(0).negate();
  EXPECT_EQ(zero.dataLength(), 1);
  EXPECT_EQ(allWords(zero), std::vector<std::uint32_t>(kWords, 0));
}

TEST(BigIntArithmetic, NegateMostNegativeValueThrows) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().negate(), kArithmetic, "Overflow in negation.");
}

TEST(BigIntArithmetic, NegateOfZeroNotInNormalFormThrows) {
  // Zero words with dataLength 2: complement and +1 wrap back to zero, whose sign equals the
  // receiver's.
  const BigInt oddZero = rawBigInt({0, 0}, 2);
  EXPECT_CORVANE_EXCEPTION(oddZero.negate(), kArithmetic, "Overflow in negation.");
}

TEST(BigIntArithmetic, NegateFlipsTheSign) {
  std::vector<std::uint32_t> minusFive = allOnes();
  minusFive[0] = 0xFFFFFFFBu;
  EXPECT_EQ(allWords(fromLong(5).negate()), minusFive);
  EXPECT_TRUE(holds(fromLong(-5).negate(), 5));
  EXPECT_TRUE(holdsHex(fromHex("-100000000").negate(), "100000000"));
  // -(2^4095 - 1) is one above the most negative value.
  EXPECT_TRUE(sameRepresentation(mostPositive().negate(), mostNegative().add(fromLong(1))));
  EXPECT_TRUE(sameRepresentation(mostPositive().negate().negate(), mostPositive()));
}

TEST(BigIntArithmetic, NotComplementsAllWords) {
  EXPECT_EQ(allWords(fromLong(0).not_()), allOnes());
  EXPECT_EQ(fromLong(0).not_().dataLength(), 128);
  EXPECT_TRUE(holds(fromLong(-1).not_(), 0));
  EXPECT_EQ(fromLong(-1).not_().dataLength(), 1);
  EXPECT_TRUE(holds(fromLong(5).not_(), -6));  // ~x = -x - 1
  EXPECT_TRUE(sameRepresentation(mostPositive().not_(), mostNegative()));
  EXPECT_TRUE(sameRepresentation(mostNegative().not_(), mostPositive()));
}

TEST(BigIntArithmetic, AbsOfNegativeValueIsItsMagnitude) {
  EXPECT_TRUE(holds(fromLong(-42).abs(), 42));
  EXPECT_TRUE(holds(fromLong(42).abs(), 42));
  EXPECT_TRUE(holds(fromLong(0).abs(), 0));
  EXPECT_TRUE(sameRepresentation(mostPositive().abs(), mostPositive()));
  EXPECT_TRUE(sameRepresentation(mostPositive().negate().abs(), mostPositive()));
}

TEST(BigIntArithmetic, AbsOfMostNegativeValueThrows) {
  EXPECT_CORVANE_EXCEPTION(mostNegative().abs(), kArithmetic, "Overflow in negation.");
}

// --- shifts ---------------------------------------------------------------------------------

TEST(BigIntArithmetic, ShiftLeftNeverGrowsTheWordCount) {
  EXPECT_TRUE(holds(fromLong(1).shiftLeft(31), 0x80000000L));
  const BigInt lost = fromLong(1).shiftLeft(32);
  EXPECT_TRUE(holds(lost, 0));
  EXPECT_EQ(lost.dataLength(), 1);
  EXPECT_TRUE(holds(fromLong(0xFFFFFFFFL).shiftLeft(4), 0xFFFFFFF0L));
  // 0x00000001_00000001 << 40 keeps two words: (2^72 + 2^40) mod 2^64 = 2^40.
  EXPECT_TRUE(holdsHex(fromHex("100000001").shiftLeft(40), "10000000000"));
}

TEST(BigIntArithmetic, ShiftLeftWithinTheWordCount) {
  // 0x0000FFFF_FFFFFFFF << 16 = 0xFFFFFFFF_FFFF0000.
  EXPECT_TRUE(holdsHex(fromHex("ffffffffffff").shiftLeft(16), "ffffffffffff0000"));
  // 2^100 (4 words) << 27 = 2^127, still 4 words.
  EXPECT_TRUE(holds(powerOfTwo(100).shiftLeft(27), mpzPowerOfTwo(127)));
}

TEST(BigIntArithmetic, ShiftLeftOfNegativeValueDropsBitsOutOfWord127) {
  EXPECT_TRUE(holds(fromLong(-1).shiftLeft(1), -2));
  EXPECT_TRUE(holds(fromLong(-3).shiftLeft(4), -48));
  EXPECT_TRUE(holds(fromLong(-1).shiftLeft(100), [] {
    Mpz v = mpzPowerOfTwo(100);
    mpz_neg(v, v);
    return v;
  }()));
}

TEST(BigIntArithmetic, ShiftLeftByNegativeCountReturnsEqualCopy) {
  const BigInt value = fromHex("123456789abcdef");
  EXPECT_TRUE(sameRepresentation(value.shiftLeft(-5), value));
  EXPECT_TRUE(sameRepresentation(value.shiftLeft(0), value));
  EXPECT_TRUE(sameRepresentation(fromLong(-9).shiftLeft(-1), fromLong(-9)));
}

TEST(BigIntArithmetic, ShiftRightIsLogicalOnNegativeValues) {
  // -2 >> 1: words 0..126 0xFFFFFFFF and word 127 0x7FFFFFFF, the most positive value.
  const BigInt shifted = fromLong(-2).shiftRight(1);
  std::vector<std::uint32_t> expected = allOnes();
  expected[127] = 0x7FFFFFFFu;
  EXPECT_EQ(allWords(shifted), expected);
  EXPECT_EQ(shifted.dataLength(), 128);
  EXPECT_FALSE(shifted.isNegative());
  // -1 >> 32 = 2^4064 - 1: 127 words of ones.
  const BigInt wordShift = fromLong(-1).shiftRight(32);
  Mpz expectedValue = mpzPowerOfTwo(4064);
  mpz_sub_ui(expectedValue, expectedValue, 1);
  EXPECT_TRUE(holds(wordShift, expectedValue));
  EXPECT_EQ(wordShift.dataLength(), 127);
}

TEST(BigIntArithmetic, ShiftRightTrimsTheWordCount) {
  // 2^64 >> 33 = 2^31.
  const BigInt shifted = powerOfTwo(64).shiftRight(33);
  EXPECT_TRUE(holds(shifted, 0x80000000L));
  EXPECT_EQ(shifted.dataLength(), 1);
  EXPECT_TRUE(holds(powerOfTwo(100).shiftRight(100), 1));
  EXPECT_TRUE(holds(fromLong(1).shiftRight(1), 0));
  // 0x123_456789AB_CDEF0123 >> 4 = 0x12_3456789A_BCDEF012 (one hex digit fewer).
  EXPECT_TRUE(holdsHex(fromHex("123456789abcdef0123").shiftRight(4), "123456789abcdef012"));
  // 0x1_00000000_00000000 >> 1 = 0x80000000_00000000: three words become two.
  EXPECT_EQ(powerOfTwo(64).shiftRight(1).dataLength(), 2);
}

TEST(BigIntArithmetic, ShiftRightByNegativeCountReturnsEqualCopy) {
  const BigInt value = fromHex("fedcba9876543210");
  EXPECT_TRUE(sameRepresentation(value.shiftRight(-5), value));
  EXPECT_TRUE(sameRepresentation(value.shiftRight(0), value));
}

TEST(BigIntArithmetic, BufferShiftLeftGrowsUpToTheGivenSize) {
  std::uint32_t buffer[4] = {0x80000000u, 0, 0, 0xDEADBEEFu};
  EXPECT_EQ(BigInt::shiftLeft(buffer, 3, 1), 2);
  EXPECT_EQ(buffer[0], 0u);
  EXPECT_EQ(buffer[1], 1u);
  EXPECT_EQ(buffer[2], 0u);
  EXPECT_EQ(buffer[3], 0xDEADBEEFu) << "words beyond the size are not touched";

  // 33 bits: one whole-word pass, then one more bit.
  std::uint32_t twoPasses[3] = {1u, 0, 0};
  EXPECT_EQ(BigInt::shiftLeft(twoPasses, 3, 33), 2);
  EXPECT_EQ(twoPasses[0], 0u);
  EXPECT_EQ(twoPasses[1], 2u);
  EXPECT_EQ(twoPasses[2], 0u);
}

TEST(BigIntArithmetic, BufferShiftLeftLosesBitsBeyondTheGivenSize) {
  // The used length was 2 before the shift and is returned as it is.
  std::uint32_t buffer[3] = {0u, 0x80000001u, 0xDEADBEEFu};
  EXPECT_EQ(BigInt::shiftLeft(buffer, 2, 1), 2);
  EXPECT_EQ(buffer[0], 0u);
  EXPECT_EQ(buffer[1], 2u);
  EXPECT_EQ(buffer[2], 0xDEADBEEFu);
}

TEST(BigIntArithmetic, BufferShiftLeftByLessThanOneReturnsUsedLength) {
  std::uint32_t buffer[3] = {5u, 0, 0};
  EXPECT_EQ(BigInt::shiftLeft(buffer, 3, 0), 1);
  EXPECT_EQ(BigInt::shiftLeft(buffer, 3, -4), 1);
  EXPECT_EQ(buffer[0], 5u);
}

TEST(BigIntArithmetic, BufferShiftRightTrimsAndReturnsUsedLength) {
  // 2^64 >> 33 = 2^31.
  std::uint32_t buffer[4] = {0, 0, 1u, 0xDEADBEEFu};
  EXPECT_EQ(BigInt::shiftRight(buffer, 3, 33), 1);
  EXPECT_EQ(buffer[0], 0x80000000u);
  EXPECT_EQ(buffer[1], 0u);
  EXPECT_EQ(buffer[2], 0u);
  EXPECT_EQ(buffer[3], 0xDEADBEEFu);

  std::uint32_t zeros[3] = {0, 0, 0};
  EXPECT_EQ(BigInt::shiftRight(zeros, 3, 5), 1) << "never below 1";

  std::uint32_t untouched[3] = {7u, 0, 0};
  EXPECT_EQ(BigInt::shiftRight(untouched, 3, 0), 1);
  EXPECT_EQ(untouched[0], 7u);
}

// --- and, or, xOr ---------------------------------------------------------------------------

TEST(BigIntArithmetic, AndOfMinusOneAndFFIsFF) {
  const BigInt result = fromLong(-1).and_(fromLong(0xFF));
  EXPECT_TRUE(holds(result, 0xFF));
  EXPECT_EQ(result.dataLength(), 1);
  EXPECT_TRUE(holds(fromLong(0xFF).and_(fromLong(-1)), 0xFF));
}

TEST(BigIntArithmetic, OrOfOneWordValuesStaysOneWord) {
  const BigInt result = fromLong(0xF0).or_(fromLong(0x0F));
  EXPECT_TRUE(holds(result, 0xFF));
  EXPECT_EQ(result.dataLength(), 1);
}

TEST(BigIntArithmetic, BitwiseOperationsOnMultiWordValues) {
  // Hand computation, four hex digits at a time:
  //   a = ffff 0000 0000 ff00 ff00
  //   b = 0000 ffff ffff 0ff0 0ff0
  const BigInt a = fromHex("ffff00000000ff00ff00");
  const BigInt b = fromHex("0000ffffffff0ff00ff0");
  EXPECT_TRUE(holdsHex(a.and_(b), "0f000f00"));             // 0000 0000 0000 0f00 0f00
  EXPECT_TRUE(holdsHex(a.or_(b), "fffffffffffffff0fff0"));  // ffff ffff ffff fff0 fff0
  EXPECT_TRUE(holdsHex(a.xOr(b), "fffffffffffff0f0f0f0"));  // ffff ffff ffff f0f0 f0f0
  // Words equal in both operands cancel and the result is trimmed to one word.
  const BigInt cancelled = a.xOr(fromHex("ffff00000000ff000000"));
  EXPECT_TRUE(holds(cancelled, 0xff00));
  EXPECT_EQ(cancelled.dataLength(), 1);
}

TEST(BigIntArithmetic, BitwiseOperationsWithNegativeOperandsCoverAllWords) {
  EXPECT_TRUE(holds(fromLong(-2).and_(fromLong(-3)), -4));  // ...110 & ...101 = ...100
  EXPECT_TRUE(holds(fromLong(-2).or_(fromLong(1)), -1));
  EXPECT_TRUE(holds(fromLong(-1).xOr(fromLong(5)), -6));  // ~5
  EXPECT_TRUE(holds(fromLong(-1).xOr(fromLong(-1)), 0));
  EXPECT_TRUE(holds(fromLong(5).xOr(fromLong(3)), 6));
  EXPECT_TRUE(sameRepresentation(mostNegative().or_(mostPositive()), fromLong(-1)));
}

// --- bitCount -------------------------------------------------------------------------------

TEST(BigIntArithmetic, BitCountOfSmallValues) {
  BigInt zero = fromLong(0);
  BigInt one = fromLong(1);
  BigInt ff = fromLong(255);
  BigInt topBit = fromLong(0x80000000L);
  BigInt twoWords = fromHex("100000000");
  EXPECT_EQ(zero.bitCount(), 0);
  EXPECT_EQ(one.bitCount(), 1);
  EXPECT_EQ(ff.bitCount(), 8);
  EXPECT_EQ(topBit.bitCount(), 32);
  EXPECT_EQ(twoWords.bitCount(), 33);
}

TEST(BigIntArithmetic, BitCountOfNegativeValueIs4096) {
  BigInt minusOne = fromLong(-1);
  BigInt smallest = mostNegative();
  EXPECT_EQ(minusOne.bitCount(), 4096);
  EXPECT_EQ(smallest.bitCount(), 4096);
}

TEST(BigIntArithmetic, BitCountOfMostPositiveValueIs4095) {
  BigInt largest = mostPositive();
  EXPECT_EQ(largest.bitCount(), 4095);
}

TEST(BigIntArithmetic, BitCountTrimsTheReceiverInPlace) {
  // 255 with dataLength 4 (words 1..3 zero): bitCount trims it to one word first.
  BigInt value = rawBigInt({255, 0, 0, 0}, 4);
  EXPECT_EQ(value.bitCount(), 8);
  EXPECT_EQ(value.dataLength(), 1);
  EXPECT_EQ(value.getDataAtIndex(0), 255u);

  BigInt zero = rawBigInt({0, 0, 0}, 3);
  EXPECT_EQ(zero.bitCount(), 0);
  EXPECT_EQ(zero.dataLength(), 1);
}

// --- comparisons -----------------------------------------------------------------------------

TEST(BigIntArithmetic, GreaterThanOfEqualValuesIsFalse) {
  EXPECT_FALSE(fromLong(7).greaterThan(fromLong(7)));
  EXPECT_FALSE(fromLong(-7).greaterThan(fromLong(-7)));
  EXPECT_FALSE(mostPositive().greaterThan(mostPositive()));
  EXPECT_FALSE(fromLong(7).lessThan(fromLong(7)));
}

TEST(BigIntArithmetic, GreaterThanOrEqualToOfEqualValuesIsTrue) {
  EXPECT_TRUE(fromLong(7).greaterThanOrEqualTo(fromLong(7)));
  EXPECT_TRUE(fromLong(-7).greaterThanOrEqualTo(fromLong(-7)));
  EXPECT_TRUE(fromLong(7).lessThanOrEqualTo(fromLong(7)));
  EXPECT_TRUE(mostNegative().lessThanOrEqualTo(mostNegative()));
}

TEST(BigIntArithmetic, ComparisonsOrderMixedSigns) {
  EXPECT_TRUE(fromLong(0).greaterThan(fromLong(-1)));
  EXPECT_TRUE(fromLong(-1).lessThan(fromLong(0)));
  EXPECT_TRUE(mostNegative().lessThan(mostPositive()));
  EXPECT_FALSE(mostNegative().greaterThan(fromLong(0)));
  EXPECT_TRUE(fromLong(1).greaterThanOrEqualTo(mostNegative()));
  EXPECT_FALSE(fromLong(1).lessThanOrEqualTo(mostNegative()));
}

TEST(BigIntArithmetic, ComparisonsOrderNegativeValues) {
  EXPECT_TRUE(fromLong(-1).greaterThan(fromLong(-2)));
  EXPECT_TRUE(fromLong(-2).lessThan(fromLong(-1)));
  EXPECT_TRUE(mostNegative().lessThan(fromLong(-1)));
  EXPECT_TRUE(fromHex("-100000000").lessThan(fromHex("-ffffffff")));
}

TEST(BigIntArithmetic, ComparisonsOrderValuesOfDifferentLengths) {
  EXPECT_TRUE(fromHex("100000000").greaterThan(fromHex("ffffffff")));
  EXPECT_TRUE(fromHex("ffffffff").lessThan(fromHex("100000000")));
  EXPECT_TRUE(powerOfTwo(4000).greaterThan(fromLong(1)));
  EXPECT_TRUE(fromHex("1fffffffe").lessThan(fromHex("1ffffffff")));
}

TEST(BigIntArithmetic, EqualsComparesDataLengthAndWordsInUse) {
  EXPECT_TRUE(fromLong(5).equals(fromLong(5)));
  EXPECT_FALSE(fromLong(5).equals(fromLong(6)));
  // Same value, different dataLength: not equal.
  EXPECT_FALSE(fromLong(5).equals(rawBigInt({5, 0}, 2)));
  // Words at or above dataLength are not looked at.
  EXPECT_TRUE(fromLong(5).equals(rawBigInt({5, 0, 99}, 1)));
}

TEST(BigIntArithmetic, EqualsTreatsLengthsOfZeroOrLessAsEqual) {
  EXPECT_TRUE(rawBigInt({1}, 0).equals(rawBigInt({2}, 0)));
  EXPECT_TRUE(rawBigInt({1}, -1).equals(rawBigInt({2}, -1)));
  EXPECT_FALSE(rawBigInt({1}, 0).equals(rawBigInt({1}, -1)));
}

}  // namespace
}  // namespace corvane
