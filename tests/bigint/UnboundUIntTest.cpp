// UnboundUInt: construction, comparison and arithmetic on binary digit texts, checked against
// unsigned __int128 and GMP.
#include <gmp.h>
#include <gtest/gtest.h>

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_set>

#include "BigIntTestSupport.hpp"
#include "corvane/UnboundUInt.hpp"

namespace corvane {
namespace {

using bigint_test::Mpz;
using bigint_test::RandomSource;
using bigint_test::seedTrace;
using bigint_test::testSeed;

__extension__ typedef unsigned __int128 U128;

// Digits of a value without leading zeros ("0" for zero).
std::string binaryOf(U128 value) {
  if (value == 0) return "0";
  std::string digits;
  while (value != 0) {
    digits.insert(digits.begin(), (value & 1) != 0 ? '1' : '0');
    value >>= 1;
  }
  return digits;
}

std::string hexOf(U128 value) {
  static const char* kDigits = "0123456789abcdef";
  std::string digits;
  do {
    digits.insert(digits.begin(), kDigits[static_cast<int>(value & 15)]);
    value >>= 4;
  } while (value != 0);
  return digits;
}

// Normalised digits of a stored text: from the first '1', or "0".
std::string normalisedOf(const std::string& text) {
  const std::size_t first = text.find('1');
  return first == std::string::npos ? "0" : text.substr(first);
}

// The value of an UnboundUInt's digits as an Mpz.
Mpz mpzOf(const UnboundUInt& value) {
  return Mpz(normalisedOf(value.binaryRepresentation()).c_str(), 2);
}

// An UnboundUInt of the value, through hexadecimal text with `zeros` leading zero digits.
UnboundUInt fromMpzHex(const Mpz& value, int zeros) {
  return UnboundUInt(std::string(static_cast<std::size_t>(zeros), '0') + value.toString(16));
}

U128 random128(RandomSource& random, int bits) {
  U128 value = 0;
  for (int i = 0; i < bits; ++i) value = (value << 1) | (random.coin() ? 1 : 0);
  return value;
}

// --- construction --------------------------------------------------------------------------

TEST(UnboundUInt, DefaultConstructorIsUnavailable) {
  static_assert(!std::is_default_constructible_v<UnboundUInt>);
}

TEST(UnboundUInt, HexStringZeroFStoresEightDigitsWithLeadingZeros) {
  EXPECT_EQ(UnboundUInt(std::string("0f")).binaryRepresentation(), "00001111");
  EXPECT_EQ(UnboundUInt::hexadecimalToBinary("0F"), "00001111");
  EXPECT_EQ(UnboundUInt::hexadecimalToBinary("5a"), "01011010");
}

TEST(UnboundUInt, HexStringWithPrefixFailsWithInvalidFormat) {
  try {
    UnboundUInt value(std::string("0x1F"));
    ADD_FAILURE() << "no error for 0x1F, got " << value.binaryRepresentation();
  } catch (const UnboundIntError& error) {
    EXPECT_EQ(error.value(), UnboundIntError::invalidFormat);
  }
  EXPECT_THROW(UnboundUInt::hexadecimalToBinary("12 3"), UnboundIntError);
  EXPECT_FALSE(UnboundUInt::isHexadecimal("0x1F"));
  EXPECT_TRUE(UnboundUInt::isHexadecimal("09afAF"));
}

TEST(UnboundUInt, ObjectFormReportsInvalidFormatThroughErrorAndReturnsNull) {
  std::optional<UnboundIntError> error;
  EXPECT_EQ(UnboundUInt::initWithHexString("0x1F", &error), nullptr);
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(*error, UnboundIntError(UnboundIntError::invalidFormat));
  EXPECT_EQ(UnboundUInt::initWithHexString("zz", nullptr), nullptr);

  std::optional<UnboundIntError> noError;
  const auto value = UnboundUInt::initWithHexString("1f", &noError);
  ASSERT_NE(value, nullptr);
  EXPECT_FALSE(noError.has_value());
  EXPECT_EQ(value->binaryRepresentation(), "00011111");
  EXPECT_EQ(UnboundUInt::initWithNumber(6)->binaryRepresentation(), "110");
}

TEST(UnboundUInt, ErrorIsEquatableAndHashable) {
  const UnboundIntError a(UnboundIntError::invalidFormat);
  const UnboundIntError b(UnboundIntError::invalidFormat);
  EXPECT_EQ(a, b);
  std::unordered_set<UnboundIntError> set{a, b};
  EXPECT_EQ(set.size(), 1u);
}

TEST(UnboundUInt, EmptyHexStringStoresEmptyTextThatByteFillsToEightZeros) {
  const UnboundUInt empty{std::string()};
  EXPECT_EQ(empty.binaryRepresentation(), "");
  EXPECT_EQ(empty.byteFilledRepresentation(), "00000000");
  EXPECT_EQ(empty.numericValue(), std::optional<std::uint64_t>(0));
  EXPECT_TRUE(empty.isEqual(UnboundUInt(std::uint64_t{0})));
}

TEST(UnboundUInt, NumberZeroStoresZeroAndSixStores110) {
  EXPECT_EQ(UnboundUInt(std::uint64_t{0}).binaryRepresentation(), "0");
  EXPECT_EQ(UnboundUInt(std::uint64_t{6}).binaryRepresentation(), "110");
  EXPECT_EQ(UnboundUInt(UINT64_MAX).binaryRepresentation(), std::string(64, '1'));
}

TEST(UnboundUInt, ByteFilledRepresentationPadsToWholeBytes) {
  EXPECT_EQ(UnboundUInt(std::uint64_t{6}).byteFilledRepresentation(), "00000110");
  EXPECT_EQ(UnboundUInt(std::uint64_t{256}).byteFilledRepresentation(), "0000000100000000");
  EXPECT_EQ(UnboundUInt(std::string("ff")).byteFilledRepresentation(), "11111111");
}

// --- numericValue ---------------------------------------------------------------------------

TEST(UnboundUInt, SixtyFiveOrMoreDigitsHaveNoNumericValueEvenWhenSmall) {
  // 17 hex digits are 68 binary digits, all leading zeros but the last.
  const UnboundUInt one(std::string("00000000000000001"));
  EXPECT_EQ(one.binaryRepresentation().size(), 68u);
  EXPECT_FALSE(one.numericValue().has_value());
  EXPECT_FALSE(one.isEqual(std::uint64_t{1}));
  EXPECT_TRUE(one.isEqual(UnboundUInt(std::uint64_t{1})));
  // Exactly 64 digits still have one.
  EXPECT_EQ(UnboundUInt(std::string("0000000000000001")).numericValue(),
            std::optional<std::uint64_t>(1));
}

// --- comparison ---------------------------------------------------------------------------

TEST(UnboundUInt, LeadingZerosDoNotChangeTheValue) {
  const UnboundUInt padded(std::string("1"));  // "0001"
  ASSERT_EQ(padded.binaryRepresentation(), "0001");
  const UnboundUInt one(std::uint64_t{1});  // "1"
  EXPECT_TRUE(padded.isEqual(one));
  EXPECT_TRUE(one.isEqual(padded));
  EXPECT_FALSE(padded.isGreaterThan(one));
  EXPECT_FALSE(padded.isLessThan(one));
  EXPECT_TRUE(padded.isGreaterThanOrEqual(one));
  EXPECT_TRUE(padded.isLessThanOrEqual(one));
}

TEST(UnboundUInt, TenIsGreaterThanZeroOne) {
  const UnboundUInt two(std::uint64_t{2});           // "10"
  const UnboundUInt oneWithZeros(std::string("1"));  // "0001"
  EXPECT_TRUE(two.isGreaterThan(oneWithZeros));
  EXPECT_TRUE(oneWithZeros.isLessThan(two));
  EXPECT_FALSE(two.isLessThan(oneWithZeros));
  EXPECT_TRUE(two.isGreaterThanOrEqual(oneWithZeros));
  EXPECT_FALSE(two.isLessThanOrEqual(oneWithZeros));
}

TEST(UnboundUInt, NumberEqualToNumericValueIsEqualButNotOrdered) {
  const UnboundUInt six(std::uint64_t{6});
  EXPECT_TRUE(six.isEqual(std::uint64_t{6}));
  EXPECT_TRUE(six.isEqual(6));
  EXPECT_TRUE(six.isEqual(std::any(6)));
  EXPECT_FALSE(six.isEqual(std::uint64_t{7}));
  EXPECT_FALSE(six.isGreaterThan(std::any(5)));
  EXPECT_FALSE(six.isGreaterThan(std::any(std::uint64_t{5})));
  EXPECT_FALSE(six.isLessThan(std::any(7)));
  EXPECT_FALSE(six.isGreaterThanOrEqual(std::any(6)));
  EXPECT_FALSE(six.isLessThanOrEqual(std::any(6)));
}

TEST(UnboundUInt, ValuesOfOtherKindsAndNullAreNeverEqual) {
  const UnboundUInt six(std::uint64_t{6});
  EXPECT_FALSE(six.isEqual(std::any()));
  EXPECT_FALSE(six.isEqual(std::any(std::string("110"))));
  EXPECT_FALSE(six.isEqual(std::any(static_cast<const UnboundUInt*>(nullptr))));
  EXPECT_FALSE(six.isGreaterThan(std::any()));
  const auto five = std::make_shared<UnboundUInt>(std::uint64_t{5});
  EXPECT_TRUE(six.isGreaterThan(std::any(five)));
  EXPECT_TRUE(six.isEqual(std::any(UnboundUInt(std::uint64_t{6}))));
}

// --- subtraction ------------------------------------------------------------------------------

TEST(UnboundUInt, SubtractionIsSymmetric) {
  const UnboundUInt five(std::uint64_t{5});   // "101"
  const UnboundUInt three(std::uint64_t{3});  // "11"
  EXPECT_EQ(five.subtract(three).binaryRepresentation(), "10");
  EXPECT_EQ(three.subtract(five).binaryRepresentation(), "10");
  EXPECT_EQ(three.subtractWithNumber(five)->binaryRepresentation(), "10");
}

TEST(UnboundUInt, SubtractingEqualValuesGivesEmptyText) {
  const UnboundUInt six(std::uint64_t{6});
  const UnboundUInt difference = six.subtract(UnboundUInt(std::uint64_t{6}));
  EXPECT_EQ(difference.binaryRepresentation(), "");
  EXPECT_TRUE(difference.isEqual(UnboundUInt(std::uint64_t{0})));
  EXPECT_EQ(UnboundUInt(std::string("06")).subtract(six).binaryRepresentation(), "");
}

// --- addition and division ----------------------------------------------------------------

TEST(UnboundUInt, OnePlusOneIsTen) {
  const UnboundUInt one(std::uint64_t{1});
  EXPECT_EQ(one.add(one).binaryRepresentation(), "10");
  EXPECT_EQ(one.addWithNumber(one)->binaryRepresentation(), "10");
  // Leading zeros are dropped before adding.
  EXPECT_EQ(UnboundUInt(std::string("01")).add(one).binaryRepresentation(), "10");
}

TEST(UnboundUInt, SevenDividedByTwoIsThreeRemainderOne) {
  const UnboundUInt seven(std::uint64_t{7});
  const UnboundUInt two(std::uint64_t{2});
  ASSERT_TRUE(seven.divide(two).has_value());
  EXPECT_EQ(seven.divide(two)->binaryRepresentation(), "11");
  EXPECT_EQ(seven.mod(two)->binaryRepresentation(), "1");
  EXPECT_EQ(seven.divideWithDivisor(two)->binaryRepresentation(), "11");
  EXPECT_EQ(seven.modWithDivisor(two)->binaryRepresentation(), "1");
  bool called = false;
  seven.divide(two, [&](std::optional<UnboundUInt> q, std::optional<UnboundUInt> r) {
    called = true;
    ASSERT_TRUE(q && r);
    EXPECT_EQ(q->binaryRepresentation(), "11");
    EXPECT_EQ(r->binaryRepresentation(), "1");
  });
  EXPECT_TRUE(called);
}

TEST(UnboundUInt, DivisionByZeroGivesNil) {
  const UnboundUInt zero(std::uint64_t{0});
  for (std::uint64_t n : {1ULL, 7ULL, 123456789ULL}) {
    const UnboundUInt value(n);
    EXPECT_FALSE(value.divide(zero).has_value());
    EXPECT_FALSE(value.mod(zero).has_value());
    EXPECT_EQ(value.divideWithDivisor(zero), nullptr);
    EXPECT_EQ(value.modWithDivisor(UnboundUInt(std::string("000"))), nullptr);
    bool called = false;
    value.divide(zero, [&](std::optional<UnboundUInt> q, std::optional<UnboundUInt> r) {
      called = true;
      EXPECT_FALSE(q.has_value());
      EXPECT_FALSE(r.has_value());
    });
    EXPECT_TRUE(called);
    called = false;
    value.divideWithDivisor(zero,
                            [&](std::shared_ptr<UnboundUInt> q, std::shared_ptr<UnboundUInt> r) {
                              called = true;
                              EXPECT_EQ(q, nullptr);
                              EXPECT_EQ(r, nullptr);
                            });
    EXPECT_TRUE(called);
  }
  // Equality is checked before the zero divisor: 0 / 0 is 1.
  EXPECT_EQ(zero.divide(zero)->binaryRepresentation(), "1");
  EXPECT_EQ(zero.mod(zero)->binaryRepresentation(), "0");
}

TEST(UnboundUInt, ThreeDividedByFiveIsZeroRemainderThree) {
  const UnboundUInt three(std::uint64_t{3});
  const UnboundUInt five(std::uint64_t{5});
  EXPECT_EQ(three.divide(five)->binaryRepresentation(), "0");
  EXPECT_EQ(three.mod(five)->binaryRepresentation(), "11");
  EXPECT_EQ(UnboundUInt(std::uint64_t{0}).divide(five)->binaryRepresentation(), "0");
  EXPECT_EQ(five.divide(five)->binaryRepresentation(), "1");
  EXPECT_EQ(five.mod(five)->binaryRepresentation(), "0");
}

// --- differential -----------------------------------------------------------------------------

TEST(UnboundUInt, MatchesUnsigned128ForRandomValues) {
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (int i = 0; i < 2000; ++i) {
    const U128 a = random128(random, static_cast<int>(random.between(0, 127)));
    const U128 b = random128(random, static_cast<int>(random.between(0, 127)));
    const int zerosA = static_cast<int>(random.below(3));
    const UnboundUInt x(std::string(static_cast<std::size_t>(zerosA), '0') + hexOf(a));
    const UnboundUInt yy(hexOf(b));
    ASSERT_EQ(x.isEqual(yy), a == b);
    ASSERT_EQ(x.isGreaterThan(yy), a > b);
    ASSERT_EQ(x.isLessThan(yy), a < b);
    ASSERT_EQ(x.isGreaterThanOrEqual(yy), a >= b);
    ASSERT_EQ(x.isLessThanOrEqual(yy), a <= b);
    ASSERT_EQ(normalisedOf(x.add(yy).binaryRepresentation()), binaryOf(a + b));
    const U128 difference = a > b ? a - b : b - a;
    const std::string expectedDifference = difference == 0 ? "" : binaryOf(difference);
    ASSERT_EQ(x.subtract(yy).binaryRepresentation(), expectedDifference);
    if (b != 0) {
      ASSERT_EQ(normalisedOf(x.divide(yy)->binaryRepresentation()), binaryOf(a / b));
      ASSERT_EQ(normalisedOf(x.mod(yy)->binaryRepresentation()), binaryOf(a % b));
    }
    const std::optional<std::uint64_t> numeric = x.numericValue();
    ASSERT_EQ(numeric.has_value(), x.binaryRepresentation().size() <= 64);
    if (numeric) {
      ASSERT_EQ(*numeric, static_cast<std::uint64_t>(a));
    }
  }
}

TEST(UnboundUInt, MatchesGmpBeyond128Bits) {
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (int i = 0; i < 200; ++i) {
    const Mpz a = random.magnitude(random.between(1, 700));
    const Mpz b = random.magnitude(random.between(1, 400));
    const UnboundUInt x = fromMpzHex(a, static_cast<int>(random.below(4)));
    const UnboundUInt y = fromMpzHex(b, static_cast<int>(random.below(4)));
    ASSERT_EQ(mpz_cmp(mpzOf(x), a), 0);
    Mpz expected;
    mpz_add(expected, a, b);
    ASSERT_EQ(mpz_cmp(mpzOf(x.add(y)), expected), 0);
    mpz_sub(expected, a, b);
    mpz_abs(expected, expected);
    ASSERT_EQ(mpz_cmp(mpzOf(y.subtract(x)), expected), 0);
    Mpz quotient;
    Mpz remainder;
    mpz_tdiv_qr(quotient, remainder, a, b);
    ASSERT_EQ(mpz_cmp(mpzOf(*x.divide(y)), quotient), 0);
    ASSERT_EQ(mpz_cmp(mpzOf(*x.mod(y)), remainder), 0);
    const int order = mpz_cmp(a, b);
    ASSERT_EQ(x.isGreaterThan(y), order > 0);
    ASSERT_EQ(x.isLessThan(y), order < 0);
  }
}

}  // namespace
}  // namespace corvane
