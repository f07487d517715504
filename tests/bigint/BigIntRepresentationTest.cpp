// BigInt storage, constructors, factories, word accessors and radix conversion.
//
// Expected word patterns are written out by hand from the 4096-bit two's complement layout
// (least significant word first, sign in bit 31 of word 127); larger expected values come from
// GMP through the helpers of BigIntTestSupport.hpp.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bigint/BigIntTestSupport.hpp"
#include "corvane/BigInt.hpp"

namespace corvane {
namespace {

using bigint_test::allWords;
using bigint_test::holds;
using bigint_test::holdsHex;
using bigint_test::isNormalForm;
using bigint_test::kWords;
using bigint_test::mostNegative;
using bigint_test::mostPositive;
using bigint_test::Mpz;
using bigint_test::mpzPowerOfTwo;

constexpr const char* kArithmetic = "ArithmeticException";

// --- construction ------------------------------------------------------------------------------

TEST(BigIntRepresentation, DefaultConstructedValueIsZeroWithOneWord) {
  const BigInt zero;
  EXPECT_EQ(zero.dataLength(), 1);
  EXPECT_EQ(allWords(zero), std::vector<std::uint32_t>(kWords, 0));
}

TEST(BigIntRepresentation, CreateIsZeroWithOneWord) {
  const BigInt zero = BigInt::create();
  EXPECT_EQ(zero.dataLength(), 1);
  EXPECT_EQ(allWords(zero), std::vector<std::uint32_t>(kWords, 0));
  EXPECT_FALSE(zero.isNegative());
}

TEST(BigIntRepresentation, CreateFromLongZeroHasOneWord) {
  const BigInt zero = BigInt::createFromLong(0);
  EXPECT_EQ(zero.dataLength(), 1);
  EXPECT_EQ(allWords(zero), std::vector<std::uint32_t>(kWords, 0));
}

TEST(BigIntRepresentation, CreateFromLongMinusOneFillsAllWordsWithOnes) {
  const BigInt minusOne = BigInt::createFromLong(-1);
  EXPECT_EQ(minusOne.dataLength(), 128);
  EXPECT_EQ(allWords(minusOne), std::vector<std::uint32_t>(kWords, 0xFFFFFFFFu));
  EXPECT_TRUE(minusOne.isNegative());
}

TEST(BigIntRepresentation, CreateFromIntMinusOneFillsAllWordsWithOnes) {
  const BigInt minusOne = BigInt::createFromInt(-1);
  EXPECT_EQ(minusOne.dataLength(), 128);
  EXPECT_EQ(allWords(minusOne), std::vector<std::uint32_t>(kWords, 0xFFFFFFFFu));
}

TEST(BigIntRepresentation, CreateFromIntSignExtends) {
  // INT32_MIN = -2^31: word 0 is 0x80000000 and every word above is 0xFFFFFFFF.
  const BigInt smallest = BigInt::createFromInt(std::numeric_limits<std::int32_t>::min());
  std::vector<std::uint32_t> expected(kWords, 0xFFFFFFFFu);
  expected[0] = 0x80000000u;
  EXPECT_EQ(allWords(smallest), expected);
  EXPECT_EQ(smallest.dataLength(), 128);

  const BigInt largest = BigInt::createFromInt(std::numeric_limits<std::int32_t>::max());
  EXPECT_TRUE(holds(largest, 0x7FFFFFFFL));
  EXPECT_EQ(largest.dataLength(), 1);
}

TEST(BigIntRepresentation, CreateFromLongPositiveTakesOneOrTwoWords) {
  const BigInt oneWord = BigInt::createFromLong(0xFFFFFFFFLL);
  EXPECT_EQ(oneWord.dataLength(), 1);
  EXPECT_EQ(oneWord.getDataAtIndex(0), 0xFFFFFFFFu);
  EXPECT_FALSE(oneWord.isNegative());

  const BigInt twoWords = BigInt::createFromLong(0x123456789ABCDEF0LL);
  EXPECT_EQ(twoWords.dataLength(), 2);
  EXPECT_EQ(twoWords.getDataAtIndex(0), 0x9ABCDEF0u);
  EXPECT_EQ(twoWords.getDataAtIndex(1), 0x12345678u);
  EXPECT_TRUE(isNormalForm(twoWords));

  const BigInt largest = BigInt::createFromLong(std::numeric_limits<std::int64_t>::max());
  EXPECT_TRUE(holdsHex(largest, "7fffffffffffffff"));
}

TEST(BigIntRepresentation, CreateFromLongMostNegative64BitValueSucceeds) {
  // -2^63: word 0 is 0, word 1 is 0x80000000, words 2..127 are the sign extension.
  BigInt value;
  ASSERT_NO_THROW(value = BigInt::createFromLong(std::numeric_limits<std::int64_t>::min()));
  std::vector<std::uint32_t> expected(kWords, 0xFFFFFFFFu);
  expected[0] = 0;
  expected[1] = 0x80000000u;
  EXPECT_EQ(allWords(value), expected);
  EXPECT_EQ(value.dataLength(), 128);
  EXPECT_TRUE(value.isNegative());
}

TEST(BigIntRepresentation, CreateFromLongSmallNegativeIsSignExtended) {
  // -255 = ...FFFFFF01 in two's complement.
  const BigInt value = BigInt::createFromLong(-255);
  std::vector<std::uint32_t> expected(kWords, 0xFFFFFFFFu);
  expected[0] = 0xFFFFFF01u;
  EXPECT_EQ(allWords(value), expected);
  EXPECT_EQ(value.dataLength(), 128);
}

TEST(BigIntRepresentation, CreateFromULongMaximumIsTwoFullWordsAndPositive) {
  const BigInt value = BigInt::createFromULong(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(value.dataLength(), 2);
  EXPECT_EQ(value.getDataAtIndex(0), 0xFFFFFFFFu);
  EXPECT_EQ(value.getDataAtIndex(1), 0xFFFFFFFFu);
  for (int i = 2; i < kWords; ++i) EXPECT_EQ(value.getDataAtIndex(i), 0u) << "word " << i;
  EXPECT_FALSE(value.isNegative());
}

TEST(BigIntRepresentation, CreateFromULongTopBitStaysPositive) {
  const BigInt value = BigInt::createFromULong(0x8000000000000000ULL);
  EXPECT_TRUE(holdsHex(value, "8000000000000000"));
  EXPECT_EQ(value.dataLength(), 2);
  EXPECT_TRUE(BigInt::createFromULong(0).equals(BigInt::create()));
}

TEST(BigIntRepresentation, CopyTakesOnlyWordsBelowDataLength) {
  // A one-word value with a stray word above its dataLength: copies take dataLength words only.
  BigInt source = BigInt::createFromInt(5);
  source.setData(0xABCD, 3);

  const BigInt copied(source);
  EXPECT_EQ(copied.dataLength(), 1);
  EXPECT_EQ(copied.getDataAtIndex(0), 5u);
  EXPECT_EQ(copied.getDataAtIndex(3), 0u);

  const BigInt created = BigInt::createFromBigInt(source);
  EXPECT_EQ(created.dataLength(), 1);
  EXPECT_EQ(created.getDataAtIndex(0), 5u);
  EXPECT_EQ(created.getDataAtIndex(3), 0u);

  EXPECT_EQ(source.getDataAtIndex(3), 0xABCDu) << "the source is not modified";
}

TEST(BigIntRepresentation, CopyOfNegativeValueKeepsAllWords) {
  const BigInt source = BigInt::createFromLong(-123456789012345LL);
  const BigInt copied = BigInt::createFromBigInt(source);
  EXPECT_TRUE(bigint_test::sameRepresentation(copied, source));
}

TEST(BigIntRepresentation, CreateFromUIntArrayReadsMostSignificantWordFirst) {
  const std::uint32_t words[] = {0x11111111u, 0x22222222u, 0x33333333u};
  const BigInt value = BigInt::createFromUIntArray(words, 3);
  EXPECT_EQ(value.dataLength(), 3);
  EXPECT_EQ(value.getDataAtIndex(0), 0x33333333u);
  EXPECT_EQ(value.getDataAtIndex(1), 0x22222222u);
  EXPECT_EQ(value.getDataAtIndex(2), 0x11111111u);
  EXPECT_TRUE(isNormalForm(value));
}

TEST(BigIntRepresentation, CreateFromUIntArrayOf129WordsThrowsByteOverflow) {
  const std::vector<std::uint32_t> words(129, 1u);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromUIntArray(words.data(), 129), "ArithmaticException",
                           "Byte overflow in constructor");
}

TEST(BigIntRepresentation, CreateFromUIntArrayOfSizeZeroLeavesDataLengthZero) {
  const std::uint32_t words[] = {7u};
  const BigInt value = BigInt::createFromUIntArray(words, 0);
  EXPECT_EQ(value.dataLength(), 0);
  EXPECT_EQ(allWords(value), std::vector<std::uint32_t>(kWords, 0));
}

TEST(BigIntRepresentation, CreateFromUIntArrayOfNegativeSizeKeepsThatSize) {
  const std::uint32_t words[] = {7u};
  const BigInt value = BigInt::createFromUIntArray(words, -3);
  EXPECT_EQ(value.dataLength(), -3);
  EXPECT_EQ(allWords(value), std::vector<std::uint32_t>(kWords, 0));
}

TEST(BigIntRepresentation, CreateFromUIntArrayTrimsLeadingZeroWords) {
  const std::uint32_t words[] = {0u, 0u, 0u, 0x12345678u, 0x9ABCDEF0u};
  const BigInt value = BigInt::createFromUIntArray(words, 5);
  EXPECT_EQ(value.dataLength(), 2);
  EXPECT_TRUE(holdsHex(value, "123456789abcdef0"));

  const std::vector<std::uint32_t> zeros(128, 0u);
  const BigInt zero = BigInt::createFromUIntArray(zeros.data(), 128);
  EXPECT_EQ(zero.dataLength(), 1);
  EXPECT_TRUE(zero.equals(BigInt::create()));
}

TEST(BigIntRepresentation, CreateFromUIntArrayOf128WordsWithTopBitSetIsNegative) {
  // The words are a plain magnitude; with 128 of them the first lands on the sign word.
  std::vector<std::uint32_t> words(128, 0u);
  words[0] = 0x80000000u;  // most significant first: this becomes word 127
  words[127] = 5u;
  const BigInt value = BigInt::createFromUIntArray(words.data(), 128);
  EXPECT_TRUE(value.isNegative());
  EXPECT_EQ(value.dataLength(), 128);
  EXPECT_EQ(value.getDataAtIndex(127), 0x80000000u);
  EXPECT_EQ(value.getDataAtIndex(0), 5u);
  // -2^4095 + 5 read as two's complement.
  Mpz expected = mpzPowerOfTwo(4095);
  mpz_neg(expected, expected);
  mpz_add_ui(expected, expected, 5);
  EXPECT_TRUE(holds(value, expected));
}

TEST(BigIntRepresentation, CreateFromUIntArrayOfFewerWordsWithTopBitSetIsPositive) {
  std::vector<std::uint32_t> words(127, 0xFFFFFFFFu);
  const BigInt value = BigInt::createFromUIntArray(words.data(), 127);
  EXPECT_FALSE(value.isNegative());
  EXPECT_EQ(value.dataLength(), 127);
  Mpz expected = mpzPowerOfTwo(127 * 32);
  mpz_sub_ui(expected, expected, 1);
  EXPECT_TRUE(holds(value, expected));
}

// --- accessors ---------------------------------------------------------------------------------

TEST(BigIntRepresentation, GetDataIsAMutableViewOfAllWords) {
  BigInt value = BigInt::createFromInt(1);
  std::uint32_t* words = value.getData();
  words[0] = 0xCAFEu;
  words[127] = 0x80000000u;
  EXPECT_EQ(value.getDataAtIndex(0), 0xCAFEu);
  EXPECT_EQ(value.getDataAtIndex(127), 0x80000000u);
  EXPECT_TRUE(value.isNegative());
}

TEST(BigIntRepresentation, SetDataAndSetDataLengthDoNotNormalise) {
  BigInt value = BigInt::createFromInt(9);
  value.setData(0, 0);
  value.setData(0x55u, 2);
  value.setDataLength(7);
  EXPECT_EQ(value.dataLength(), 7) << "no trimming";
  EXPECT_EQ(value.getDataAtIndex(0), 0u);
  EXPECT_EQ(value.getDataAtIndex(2), 0x55u);
  value.setDataLength(-2);
  EXPECT_EQ(value.dataLength(), -2) << "no check";
}

TEST(BigIntRepresentation, IntValueOfMultiWordValueIsItsLowestWord) {
  // 0x00000001_00000005 -> 5; 0x00000007_FFFFFFFF -> word 0 read as signed is -1.
  EXPECT_EQ(BigInt::createFromLong(0x100000005LL).intValue(), 5);
  EXPECT_EQ(BigInt::createFromLong(0x7FFFFFFFFLL).intValue(), -1);
  EXPECT_EQ(bigint_test::fromHex("123456789abcdef0123456789abcdef0").intValue(),
            static_cast<std::int32_t>(0x9ABCDEF0u));
  EXPECT_EQ(mostNegative().intValue(), 0);
}

TEST(BigIntRepresentation, IntValueOfNegativeValuesIsTheirLowestWord) {
  EXPECT_EQ(BigInt::createFromInt(-1).intValue(), -1);
  EXPECT_EQ(BigInt::createFromInt(-123).intValue(), -123);
  // -2^32 has word 0 equal to 0.
  EXPECT_EQ(BigInt::createFromLong(-0x100000000LL).intValue(), 0);
}

TEST(BigIntRepresentation, IsNegativeReadsBit31OfWord127) {
  EXPECT_TRUE(mostNegative().isNegative());
  EXPECT_FALSE(mostPositive().isNegative());
  BigInt value = BigInt::create();
  value.setData(0x80000000u, 127);
  EXPECT_TRUE(value.isNegative());
}

// --- reading text --------------------------------------------------------------------------

TEST(BigIntRadixConversion, ReadsHexadecimalInEitherCase) {
  EXPECT_TRUE(holds(BigInt::createFromString("ff", 16), 255));
  EXPECT_TRUE(holds(BigInt::createFromString("FF", 16), 255));
  EXPECT_TRUE(holds(BigInt::createFromString("fF", 16), 255));
  EXPECT_TRUE(holds(BigInt::createFromString("-ff", 16), -255));
}

TEST(BigIntRadixConversion, ReadsDecimal) {
  EXPECT_TRUE(holds(BigInt::createFromString("0", 10), 0));
  EXPECT_TRUE(holds(BigInt::createFromString("1234567890", 10), 1234567890L));
  EXPECT_TRUE(holds(BigInt::createFromString("-255", 10), -255));
  EXPECT_TRUE(holds(BigInt::createFromString("4294967296", 10), 4294967296L));
  EXPECT_EQ(BigInt::createFromString("0", 10).dataLength(), 1);
}

TEST(BigIntRadixConversion, ReadsLeadingZeros) {
  const BigInt value = BigInt::createFromString("0000000000000000000000000123", 10);
  EXPECT_TRUE(holds(value, 123));
  EXPECT_EQ(value.dataLength(), 1);
}

TEST(BigIntRadixConversion, ReadsEveryDigitUpToRadix36) {
  const std::string digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  for (std::size_t v = 0; v < digits.size(); ++v) {
    SCOPED_TRACE(digits.substr(v, 1));
    EXPECT_TRUE(holds(BigInt::createFromString(digits.substr(v, 1), 36), static_cast<long>(v)));
    const std::string lower(1, static_cast<char>(std::tolower(digits[v])));
    EXPECT_TRUE(holds(BigInt::createFromString(lower, 36), static_cast<long>(v)));
  }
  for (long radix = 2; radix <= 36; ++radix) {
    EXPECT_TRUE(holds(BigInt::createFromString("10", radix), radix)) << "radix " << radix;
  }
}

TEST(BigIntRadixConversion, ReadsHexDigestAsPositiveValueOfSixteenWords) {
  // SHA-512("abc") from FIPS 180-2, appendix C.1: 128 hexadecimal digits, top bit set.
  const std::string digest =
      "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
      "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f";
  const BigInt value = BigInt::createFromString(digest, 16);
  EXPECT_FALSE(value.isNegative());
  EXPECT_EQ(value.dataLength(), 16);
  for (int j = 0; j < 16; ++j) {
    // Word j holds hex digits [8*(15-j), 8*(15-j)+8).
    const auto expected =
        static_cast<std::uint32_t>(std::stoul(digest.substr(8 * (15 - j), 8), nullptr, 16));
    EXPECT_EQ(value.getDataAtIndex(j), expected) << "word " << j;
  }
  EXPECT_TRUE(isNormalForm(value));
}

TEST(BigIntRadixConversion, MinusZeroThrowsNegativeUnderflow) {
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("-0", 10), kArithmetic,
                           "Negative underflow in constructor.");
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("-000", 16), kArithmetic,
                           "Negative underflow in constructor.");
}

TEST(BigIntRadixConversion, LoneMinusThrowsNegativeUnderflow) {
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("-", 10), kArithmetic,
                           "Negative underflow in constructor.");
}

TEST(BigIntRadixConversion, DigitNotBelowRadixThrowsInvalidString) {
  const char* kInvalid = "Invalid string in constructor.";
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("12", 2), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("1G", 16), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("9A", 10), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("-19", 8), kArithmetic, kInvalid);
}

TEST(BigIntRadixConversion, CharacterOutsideDigitsThrowsInvalidString) {
  const char* kInvalid = "Invalid string in constructor.";
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("12 3", 10), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("1.5", 10), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("5-", 10), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("--5", 10), kArithmetic, kInvalid);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("0x1F", 16), kArithmetic, kInvalid);
}

TEST(BigIntRadixConversion, PlusSignIsRejectedAsInvalidDigit) {
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("+5", 10), kArithmetic,
                           "Invalid string in constructor.");
}

TEST(BigIntRadixConversion, EmptyTextThrowsInvalidString) {
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("", 10), kArithmetic,
                           "Invalid string in constructor.");
}

TEST(BigIntRadixConversion, RadixIsNotValidatedWhenReading) {
  // Digits are accepted whenever their value is below the radix, whatever the radix.
  EXPECT_TRUE(holds(BigInt::createFromString("10", 40), 40));
  EXPECT_TRUE(holds(BigInt::createFromString("Z", 100), 35));
  EXPECT_TRUE(holds(BigInt::createFromString("0", 1), 0));
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("1", 1), kArithmetic,
                           "Invalid string in constructor.");
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("0", 0), kArithmetic,
                           "Invalid string in constructor.");
}

TEST(BigIntRadixConversion, ForeignCharacterHasSentinelDigitValue) {
  // A character outside 0-9 and A-Z stands for the digit 9999999; it is rejected only because
  // that is not below the radix, so a radix of 10^7 lets it through.
  EXPECT_TRUE(holds(BigInt::createFromString("*", 10000000), 9999999));
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("*", 9999999), kArithmetic,
                           "Invalid string in constructor.");
}

TEST(BigIntRadixConversion, LargestPowerOfTenThatFitsIsRead) {
  // 10^1232 < 2^4093 (log2 10^1232 = 4092.6), so it fits; the value comes from GMP.
  const std::string text = "1" + std::string(1232, '0');
  Mpz expected;
  mpz_ui_pow_ui(expected, 10, 1232);
  EXPECT_TRUE(holds(BigInt::createFromString(text, 10), expected));
}

TEST(BigIntRadixConversion, TextBeyondCapacityPassesOnMultiplyOverflow) {
  // "1" and 1233 zeros: the multiplier reaches 10^1233, which has bit 4095 set
  // (2^4095 <= 10^1233 < 2^4096), so the multiplication raises "overflow.".
  {
    Mpz power;
    mpz_ui_pow_ui(power, 10, 1233);
    ASSERT_EQ(mpz_sizeinbase(power, 2), 4096u);
    EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("1" + std::string(1233, '0'), 10),
                             kArithmetic, "overflow.");
  }
  // "1" and 793 zeros in radix 36: 36^792 < 2^4095 but 36^793 >= 2^4096, so the multiplier's
  // product needs a 129th word: "Multiplication overflow.".
  {
    Mpz below;
    Mpz above;
    mpz_ui_pow_ui(below, 36, 792);
    mpz_ui_pow_ui(above, 36, 793);
    ASSERT_LE(mpz_sizeinbase(below, 2), 4095u);
    ASSERT_GT(mpz_sizeinbase(above, 2), 4096u);
    EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("1" + std::string(793, '0'), 36), kArithmetic,
                             "Multiplication overflow.");
  }
}

TEST(BigIntRadixConversion, TextBeyondCapacityPassesOnAddOverflow) {
  // "5" and 1232 nines = 6*10^1232 - 1 > 2^4095, while 5*10^1232 and 10^1232 - 1 both fit: the
  // digits' products fit, and only the final addition overflows.
  Mpz top;
  Mpz total;
  mpz_ui_pow_ui(top, 10, 1232);
  mpz_mul_ui(total, top, 6);
  mpz_sub_ui(total, total, 1);
  mpz_mul_ui(top, top, 5);
  ASSERT_LE(mpz_sizeinbase(top, 2), 4095u);
  ASSERT_EQ(mpz_sizeinbase(total, 2), 4096u);
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("5" + std::string(1232, '9'), 10), kArithmetic,
                           "Overflow");
}

// --- writing text --------------------------------------------------------------------------

TEST(BigIntRadixConversion, WritesUpperCaseHexadecimal) {
  EXPECT_EQ(BigInt::createFromInt(255).toStringWithRadix(16), "FF");
  EXPECT_EQ(BigInt::createFromLong(0xABCDEF0123LL).toStringWithRadix(16), "ABCDEF0123");
}

TEST(BigIntRadixConversion, WritesNegativeDecimalWithMinusSign) {
  EXPECT_EQ(BigInt::createFromInt(-255).toStringWithRadix(10), "-255");
  EXPECT_EQ(BigInt::createFromInt(-1).toStringWithRadix(2), "-1");
  EXPECT_EQ(BigInt::createFromLong(std::numeric_limits<std::int64_t>::min()).toStringWithRadix(10),
            "-9223372036854775808");
}

TEST(BigIntRadixConversion, WritesZeroAsSingleDigit) {
  for (std::uint32_t radix : {2u, 8u, 10u, 16u, 36u}) {
    EXPECT_EQ(BigInt::create().toStringWithRadix(radix), "0") << "radix " << radix;
  }
}

TEST(BigIntRadixConversion, WritesRadix36WithLettersUpToZ) {
  EXPECT_EQ(BigInt::createFromInt(35).toStringWithRadix(36), "Z");
  EXPECT_EQ(BigInt::createFromInt(36).toStringWithRadix(36), "10");
  EXPECT_EQ(BigInt::createFromInt(10).toStringWithRadix(11), "A");
  // 1295 = 35*36 + 35.
  EXPECT_EQ(BigInt::createFromInt(1295).toStringWithRadix(36), "ZZ");
  EXPECT_EQ(BigInt::createFromInt(5).toStringWithRadix(2), "101");
}

TEST(BigIntRadixConversion, RadixOutsideTwoTo36ThrowsArgumentException) {
  const BigInt value = BigInt::createFromInt(255);
  for (std::uint32_t radix : {0u, 1u, 37u, 0xFFFFFFFFu}) {
    EXPECT_CORVANE_EXCEPTION(value.toStringWithRadix(radix), "ArgumentException",
                             "Radix must be >= 2 and <= 36")
        << "radix " << radix;
  }
}

TEST(BigIntRadixConversion, WritesMostNegativeValue) {
  // Its negation fails, so the digits come from the un-negated words read as 2^4095.
  const Mpz magnitude = mpzPowerOfTwo(4095);
  EXPECT_EQ(mostNegative().toStringWithRadix(10), "-" + magnitude.toString(10));
  EXPECT_EQ(mostNegative().toStringWithRadix(16), "-8" + std::string(1023, '0'));
  EXPECT_EQ(mostNegative().toStringWithRadix(2), "-1" + std::string(4095, '0'));
}

TEST(BigIntRadixConversion, WritesMostPositiveValue) {
  EXPECT_EQ(mostPositive().toStringWithRadix(16), "7" + std::string(1023, 'F'));
  EXPECT_EQ(mostPositive().toStringWithRadix(2), std::string(4095, '1'));
}

TEST(BigIntRadixConversion, ExtremesRoundTrip) {
  for (std::uint32_t radix : {2u, 10u, 16u, 36u}) {
    SCOPED_TRACE("radix " + std::to_string(radix));
    const std::string text = mostPositive().toStringWithRadix(radix);
    EXPECT_TRUE(bigint_test::sameRepresentation(
        BigInt::createFromString(text, static_cast<std::int64_t>(radix)), mostPositive()));
  }
  // In decimal the top digit of 2^4095 times its place value stays below 2^4095, so the
  // most negative value is read back by adding negative products.
  const std::string text = mostNegative().toStringWithRadix(10);
  EXPECT_TRUE(bigint_test::sameRepresentation(BigInt::createFromString(text, 10), mostNegative()));
}

TEST(BigIntRadixConversion, MostNegativeValueInHexadecimalCannotBeReadBack) {
  // "-8" followed by 1023 zeros: the top digit's product 16^1023 * -8 has magnitude 2^4095,
  // and every product with bit 4095 set raises "overflow.", the representable one included.
  EXPECT_CORVANE_EXCEPTION(BigInt::createFromString("-8" + std::string(1023, '0'), 16), kArithmetic,
                           "overflow.");
}

TEST(BigIntRadixConversion, WritingLeavesTheValueUnchanged) {
  const BigInt value = BigInt::createFromLong(-987654321987LL);
  const BigInt before = value;
  EXPECT_EQ(value.toStringWithRadix(7), "-" + Mpz("987654321987", 10).toString(7));
  EXPECT_TRUE(bigint_test::sameRepresentation(value, before));
}

}  // namespace
}  // namespace corvane
