// BigInt against GMP on random values.
//
// Each test draws its operands from its own RandomSource seeded with testSeed() (fixed, printed
// in every failure message; CORVANE_BIGINT_SEED overrides it), so a test's cases do not depend
// on which other tests run. Signed operands have 1 to 2000 bits, half uniform and half with
// long runs of ones and zeros (mpz_rrandomb). Sums and products of such operands stay below
// 4001 bits and thus inside the 4096-bit two's complement capacity.
//
// GMP's truncating division (mpz_tdiv_q / mpz_tdiv_r) is the reference for divide and mod: the
// quotient rounds toward zero and the remainder takes the sign of the dividend.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "bigint/BigIntTestSupport.hpp"
#include "corvane/BigInt.hpp"

namespace corvane {
namespace {

using bigint_test::describe;
using bigint_test::fromMpz;
using bigint_test::hexOf;
using bigint_test::holds;
using bigint_test::kBits;
using bigint_test::Mpz;
using bigint_test::mpzPowerOfTwo;
using bigint_test::RandomSource;
using bigint_test::sameRepresentation;
using bigint_test::seedTrace;
using bigint_test::testSeed;
using bigint_test::throwsException;
using bigint_test::toMpz;

// Stop a random test after this many failing cases; one seed and case number reproduce it.
constexpr int kMaxReportedFailures = 5;

class BigIntGmpDifferential : public ::testing::Test {
 protected:
  // Records a failing case; returns false once enough failures were reported.
  bool check(const ::testing::AssertionResult& result, const std::string& what, int caseIndex) {
    if (result) return true;
    ADD_FAILURE() << what << ", case " << caseIndex << " (" << seedTrace(random.seed())
                  << "): " << result.message();
    return ++failures < kMaxReportedFailures;
  }

  // Runs body(i) for i in [0, count) while it returns true. An exception escaping a case ends
  // the run and is reported with the case number and the seed.
  template <typename Body>
  void forEachCase(int count, Body&& body) {
    int i = 0;
    try {
      for (; i < count; ++i) {
        if (!body(i)) return;
      }
    } catch (const Exception& e) {
      ADD_FAILURE() << "case " << i << " (" << seedTrace(random.seed()) << ") threw \"" << e.name()
                    << "\" / \"" << e.reason() << "\"";
    }
  }

  Mpz randomSigned() { return random.signedValue(1, 2000); }

  RandomSource random{testSeed()};
  int failures = 0;
};

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

// --- ring operations --------------------------------------------------------------------------

TEST_F(BigIntGmpDifferential, AddAndSubtractMatchGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(20000, [&](int i) {
    const Mpz a = randomSigned();
    const Mpz b = randomSigned();
    const BigInt x = fromMpz(a);
    const BigInt y = fromMpz(b);
    Mpz sum;
    Mpz difference;
    Mpz reverse;
    mpz_add(sum, a, b);
    mpz_sub(difference, a, b);
    mpz_sub(reverse, b, a);
    const std::string operands = hexOf(a) + " and " + hexOf(b);
    if (!check(holds(x.add(y), sum), "add of " + operands, i)) return false;
    if (!check(holds(x.subtract(y), difference), "subtract of " + operands, i)) return false;
    if (!check(holds(y.subtract(x), reverse), "reverse subtract of " + operands, i)) return false;
    return true;
  });
}

TEST_F(BigIntGmpDifferential, MultiplyMatchesGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(20000, [&](int i) {
    const Mpz a = randomSigned();
    const Mpz b = randomSigned();
    Mpz product;
    mpz_mul(product, a, b);
    if (!check(holds(fromMpz(a).multiply(fromMpz(b)), product),
               "multiply of " + hexOf(a) + " and " + hexOf(b), i)) {
      return false;
    }
    return true;
  });
}

TEST_F(BigIntGmpDifferential, MultiplyNearCapacityMatchesGmpOrThrows) {
  // Operand sizes chosen so that products land just below, on, or above 2^4095 and 2^4096.
  // Below 2^4095 the product is returned; with bit 4095 set (|product| < 2^4096) the
  // multiplication raises "overflow." whatever the signs; beyond, "Multiplication overflow.".
  SCOPED_TRACE(seedTrace(random.seed()));
  const Mpz bit4095 = mpzPowerOfTwo(4095);
  const Mpz bit4096 = mpzPowerOfTwo(4096);
  int seen[3] = {0, 0, 0};
  forEachCase(3000, [&](int i) {
    const unsigned long bitsA = random.between(1, 4094);
    const unsigned long bitsB =
        random.between(4094 - bitsA + 1, std::min(4095 - bitsA + 2, 4095ul));
    Mpz a = random.magnitude(bitsA);
    Mpz b = random.magnitude(bitsB);
    if (random.coin()) mpz_neg(a, a);
    if (random.coin()) mpz_neg(b, b);
    if (!bigint_test::fitsBigInt(a) || !bigint_test::fitsBigInt(b)) return true;
    Mpz product;
    mpz_mul(product, a, b);
    Mpz magnitude;
    mpz_abs(magnitude, product);
    const BigInt x = fromMpz(a);
    const BigInt y = fromMpz(b);
    const std::string what = "multiply of " + hexOf(a) + " and " + hexOf(b);
    if (mpz_cmp(magnitude, bit4095) < 0) {
      ++seen[0];
      if (!check(holds(x.multiply(y), product), what, i)) return false;
    } else if (mpz_cmp(magnitude, bit4096) < 0) {
      ++seen[1];
      if (!check(throwsException([&] { (void)x.multiply(y); }, "ArithmeticException", "overflow."),
                 what, i)) {
        return false;
      }
    } else {
      ++seen[2];
      if (!check(throwsException([&] { (void)x.multiply(y); }, "ArithmeticException",
                                 "Multiplication overflow."),
                 what, i)) {
        return false;
      }
    }
    return true;
  });
  // Each of the three outcomes must have been exercised.
  EXPECT_GT(seen[0], 20);
  EXPECT_GT(seen[1], 20);
  EXPECT_GT(seen[2], 20);
}

TEST_F(BigIntGmpDifferential, NegateNotAbsMatchGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(10000, [&](int i) {
    const Mpz a = randomSigned();
    const BigInt x = fromMpz(a);
    Mpz negated;
    Mpz complement;
    Mpz magnitude;
    mpz_neg(negated, a);
    mpz_com(complement, a);
    mpz_abs(magnitude, a);
    const std::string what = "of " + hexOf(a);
    if (!check(holds(x.negate(), negated), "negate " + what, i)) return false;
    if (!check(holds(x.not_(), complement), "not " + what, i)) return false;
    if (!check(holds(x.abs(), magnitude), "abs " + what, i)) return false;
    return true;
  });
}

// --- bits -------------------------------------------------------------------------------------

TEST_F(BigIntGmpDifferential, BitwiseOperationsMatchGmp) {
  // GMP's and/ior/xor work on infinite two's complement, which agrees with 4096-bit two's
  // complement for values inside the capacity.
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(10000, [&](int i) {
    const Mpz a = randomSigned();
    const Mpz b = randomSigned();
    const BigInt x = fromMpz(a);
    const BigInt y = fromMpz(b);
    Mpz conjunction;
    Mpz disjunction;
    Mpz exclusive;
    mpz_and(conjunction, a, b);
    mpz_ior(disjunction, a, b);
    mpz_xor(exclusive, a, b);
    const std::string operands = hexOf(a) + " and " + hexOf(b);
    if (!check(holds(x.and_(y), conjunction), "and of " + operands, i)) return false;
    if (!check(holds(x.or_(y), disjunction), "or of " + operands, i)) return false;
    if (!check(holds(x.xOr(y), exclusive), "xOr of " + operands, i)) return false;
    return true;
  });
}

TEST_F(BigIntGmpDifferential, ShiftsMatchTheirWordBufferDefinition) {
  // shiftLeft keeps the receiver's word count L: the result is (a * 2^k) mod 2^(32L), read as
  // 4096-bit two's complement (L = 128 for negatives). shiftRight is logical over the 128-word
  // form: a non-negative a gives floor(a / 2^k), a negative one (a + 2^4096) >> k.
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(10000, [&](int i) {
    const Mpz a = randomSigned();
    const BigInt x = fromMpz(a);
    const auto k =
        static_cast<std::int32_t>(random.coin() ? random.between(0, 70) : random.between(0, 4200));
    const unsigned long wordBits = 32ul * static_cast<unsigned long>(x.dataLength());
    Mpz unsignedForm;
    mpz_set(unsignedForm, a);
    if (mpz_sgn(a.get()) < 0) mpz_add(unsignedForm, unsignedForm, mpzPowerOfTwo(kBits));
    Mpz left;
    mpz_mul_2exp(left, unsignedForm, static_cast<unsigned long>(k));
    mpz_fdiv_r_2exp(left, left, wordBits);
    if (mpz_tstbit(left, kBits - 1)) mpz_sub(left, left, mpzPowerOfTwo(kBits));
    Mpz right;
    mpz_fdiv_q_2exp(right, unsignedForm, static_cast<unsigned long>(k));
    if (mpz_tstbit(right, kBits - 1)) mpz_sub(right, right, mpzPowerOfTwo(kBits));  // k = 0
    const std::string what = hexOf(a) + " by " + std::to_string(k);

    const BigInt shiftedLeft = x.shiftLeft(k);
    const Mpz leftValue = toMpz(shiftedLeft);
    if (!check(mpz_cmp(leftValue, left) == 0 ? ::testing::AssertionSuccess()
                                             : ::testing::AssertionFailure()
                                                   << "expected " << hexOf(left) << ", got "
                                                   << describe(shiftedLeft),
               "shiftLeft of " + what, i)) {
      return false;
    }
    if (!check(holds(x.shiftRight(k), right), "shiftRight of " + what, i)) return false;
    return true;
  });
}

TEST_F(BigIntGmpDifferential, BitCountMatchesGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(5000, [&](int i) {
    const Mpz a = randomSigned();
    BigInt x = fromMpz(a);
    const int expected = mpz_sgn(a.get()) < 0 ? 4096 : static_cast<int>(mpz_sizeinbase(a, 2));
    const int actual = x.bitCount();
    if (!check(actual == expected
                   ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << "expected " << expected << ", got " << actual,
               "bitCount of " + hexOf(a), i)) {
      return false;
    }
    return true;
  });
}

TEST_F(BigIntGmpDifferential, ComparisonsMatchGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(20000, [&](int i) {
    const Mpz a = randomSigned();
    Mpz b = randomSigned();
    if (i % 5 == 0) mpz_set(b, a);        // equal values
    if (i % 5 == 1) mpz_add_ui(b, a, 1);  // neighbours
    if (i % 5 == 2) mpz_neg(b, a);        // opposite signs, same magnitude
    const BigInt x = fromMpz(a);
    const BigInt y = fromMpz(b);
    const int order = mpz_cmp(a, b);
    const bool ok = x.equals(y) == (order == 0) && x.greaterThan(y) == (order > 0) &&
                    x.lessThan(y) == (order < 0) && x.greaterThanOrEqualTo(y) == (order >= 0) &&
                    x.lessThanOrEqualTo(y) == (order <= 0);
    if (!check(ok ? ::testing::AssertionSuccess()
                  : ::testing::AssertionFailure() << "GMP order " << order,
               "comparison of " + hexOf(a) + " and " + hexOf(b), i)) {
      return false;
    }
    return true;
  });
}

// --- construction and text ---------------------------------------------------------------------

TEST_F(BigIntGmpDifferential, FactoriesMatchGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(10000, [&](int i) {
    Mpz bits = random.magnitude(64);
    if (random.coin()) mpz_fdiv_q_2exp(bits, bits, random.between(0, 63));
    std::uint64_t word = 0;
    mpz_export(&word, nullptr, -1, sizeof word, 0, 0, bits);
    const auto signedWord = static_cast<std::int64_t>(word);
    Mpz unsignedValue;
    Mpz signedValue;
    mpz_import(unsignedValue, 1, -1, sizeof word, 0, 0, &word);
    mpz_set(signedValue, unsignedValue);
    if (signedWord < 0) mpz_sub(signedValue, signedValue, mpzPowerOfTwo(64));
    Mpz intValue(static_cast<long>(static_cast<std::int32_t>(word)));
    const std::string what = "of " + hexOf(unsignedValue);
    if (!check(holds(BigInt::createFromULong(word), unsignedValue), "createFromULong " + what, i)) {
      return false;
    }
    if (!check(holds(BigInt::createFromLong(signedWord), signedValue), "createFromLong " + what,
               i)) {
      return false;
    }
    if (!check(holds(BigInt::createFromInt(static_cast<std::int32_t>(word)), intValue),
               "createFromInt " + what, i)) {
      return false;
    }

    // A random word array, most significant word first.
    const auto size = static_cast<std::int32_t>(random.between(1, 127));
    Mpz arrayValue = random.magnitude(random.between(0, 32ul * static_cast<unsigned long>(size)));
    std::vector<std::uint32_t> leastFirst(static_cast<std::size_t>(size), 0);
    mpz_export(leastFirst.data(), nullptr, -1, sizeof(std::uint32_t), 0, 0, arrayValue);
    const std::vector<std::uint32_t> mostFirst(leastFirst.rbegin(), leastFirst.rend());
    if (!check(holds(BigInt::createFromUIntArray(mostFirst.data(), size), arrayValue),
               "createFromUIntArray of " + hexOf(arrayValue), i)) {
      return false;
    }
    return true;
  });
}

TEST_F(BigIntGmpDifferential, RadixConversionMatchesGmp) {
  // 500 values in each of the radixes 2, 10, 16 and 36. mpz_get_str writes lower case; BigInt
  // writes upper case and reads either.
  SCOPED_TRACE(seedTrace(random.seed()));
  const int radixes[] = {2, 10, 16, 36};
  forEachCase(4 * 500, [&](int i) {
    const int radix = radixes[i / 500];
    const Mpz a = randomSigned();
    const std::string lower = a.toString(radix);
    const BigInt x = fromMpz(a);
    const std::string what = "radix " + std::to_string(radix) + " of " + hexOf(a);
    const std::string written = x.toStringWithRadix(static_cast<std::uint32_t>(radix));
    if (!check(written == upper(lower)
                   ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << "wrote " << written << ", GMP " << lower,
               "toStringWithRadix " + what, i)) {
      return false;
    }
    if (!check(holds(BigInt::createFromString(lower, radix), a), "createFromString " + what, i)) {
      return false;
    }
    return check(holds(BigInt::createFromString(upper(lower), radix), a),
                 "createFromString (upper case) " + what, i);
  });
}

// --- division ----------------------------------------------------------------------------------

// divide and mod of a by b against mpz_tdiv_q / mpz_tdiv_r, and q * b + r == a in BigInt.
::testing::AssertionResult dividesLikeGmpUnguarded(const Mpz& a, const Mpz& b) {
  Mpz q;
  Mpz r;
  mpz_tdiv_q(q, a, b);
  mpz_tdiv_r(r, a, b);
  const BigInt x = fromMpz(a);
  const BigInt y = fromMpz(b);
  const BigInt quotient = x.divide(y);
  const BigInt remainder = x.mod(y);
  if (auto ok = holds(quotient, q); !ok) return ok << " (quotient)";
  if (auto ok = holds(remainder, r); !ok) return ok << " (remainder)";
  const BigInt back = quotient.multiply(y).add(remainder);
  if (!sameRepresentation(back, x)) {
    return ::testing::AssertionFailure() << "quotient * divisor + remainder = " << describe(back);
  }
  return ::testing::AssertionSuccess();
}

// The same, with an exception reported as a failure of this case rather than of the whole test.
::testing::AssertionResult dividesLikeGmp(const Mpz& a, const Mpz& b) {
  try {
    return dividesLikeGmpUnguarded(a, b);
  } catch (const Exception& e) {
    return ::testing::AssertionFailure()
           << "threw \"" << e.name() << "\" / \"" << e.reason() << "\" dividing "
           << bigint_test::hexOf(a) << " by " << bigint_test::hexOf(b);
  }
}

TEST_F(BigIntGmpDifferential, DivideAndModMatchTruncatingGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(20000, [&](int i) {
    const unsigned long dividendBits = random.between(1, 2000);
    // Mostly divisors no longer than the dividend (the interesting long divisions), a few
    // longer ones (quotient 0), and a share of one-word divisors.
    const unsigned long divisorBits =
        i % 4 == 0 ? random.between(1, 32) : random.between(1, dividendBits + 40);
    Mpz a = random.magnitude(dividendBits);
    Mpz b = random.magnitude(divisorBits);
    if (random.coin()) mpz_neg(a, a);
    if (random.coin()) mpz_neg(b, b);
    if (!check(dividesLikeGmp(a, b), "division of " + hexOf(a) + " by " + hexOf(b), i))
      return false;
    return true;
  });
}

TEST_F(BigIntGmpDifferential, MultiWordDivisionByDivisorsOfTwoTo64Words) {
  // For every divisor length from 2 to 64 words and five kinds of top word (high bit set, so no
  // normalising shift; all ones; a lone high bit; small, so a large shift; 1, the largest
  // shift), four random divisors with four dividends each: one as long as the divisor, one of any
  // length up to the full 4095 bits, one of 4095 bits, and one built as q * d + (d - 1), which has
  // the largest remainder. Each is checked through divide/mod with every sign combination and
  // through multiByteDivide.
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(4 * 63 * 5, [&](int i) {
    const int combination = i % (63 * 5);  // each combination four times
    const unsigned long words = 2 + static_cast<unsigned long>(combination / 5);
    const int kind = combination % 5;
    // Lower words: their top bit set in about a third of the divisors.
    Mpz d = random.magnitude(32 * (words - 1) - random.below(3));
    std::uint32_t top = 0;
    switch (kind) {
      case 0:
        top = 0x80000000u | static_cast<std::uint32_t>(random.below(0x80000000ul));
        break;
      case 1:
        top = 0xFFFFFFFFu;
        break;
      case 2:
        top = 0x80000000u;
        break;
      case 3:
        top = static_cast<std::uint32_t>(random.between(2, 0xFFFF));
        break;
      default:
        top = 1u;
        break;
    }
    Mpz topWord(static_cast<long>(top));
    mpz_mul_2exp(topWord, topWord, 32 * (words - 1));
    mpz_add(d, d, topWord);
    const unsigned long dBits = mpz_sizeinbase(d, 2);

    for (int variant = 0; variant < 4; ++variant) {
      Mpz x;
      switch (variant) {
        case 0:
          x = random.magnitude(dBits);
          break;
        case 1:
          x = random.magnitude(random.between(dBits, 4095));
          break;
        case 2:
          x = random.magnitude(4095);
          break;
        default: {
          const Mpz q = random.magnitude(random.between(1, 4094 - dBits));
          mpz_mul(x, q, d);
          mpz_add(x, x, d);
          mpz_sub_ui(x, x, 1);
          break;
        }
      }
      const std::string what =
          "variant " + std::to_string(variant) + ", division of " + hexOf(x) + " by " + hexOf(d);
      Mpz negX;
      Mpz negD;
      mpz_neg(negX, x);
      mpz_neg(negD, d);
      if (!check(dividesLikeGmp(x, d), what, i)) return false;
      if (!check(dividesLikeGmp(negX, d), "negative dividend, " + what, i)) return false;
      if (!check(dividesLikeGmp(x, negD), "negative divisor, " + what, i)) return false;
      if (!check(dividesLikeGmp(negX, negD), "both negative, " + what, i)) return false;
      if (mpz_cmp(x, d) >= 0) {
        Mpz q;
        Mpz r;
        mpz_tdiv_qr(q, r, x, d);
        BigInt quotient;
        BigInt remainder;
        BigInt::multiByteDivide(fromMpz(x), fromMpz(d), quotient, remainder);
        if (!check(holds(quotient, q), "multiByteDivide quotient, " + what, i)) return false;
        if (!check(holds(remainder, r), "multiByteDivide remainder, " + what, i)) return false;
      }
    }
    return true;
  });
}

TEST_F(BigIntGmpDifferential, MultiWordDivisionByDivisorsOf65To126Words) {
  // Long divisors against dividends of up to the full 4095 bits, with small and large
  // normalising shifts.
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(1000, [&](int i) {
    const unsigned long words = random.between(65, 126);
    Mpz d = random.magnitude(32 * (words - 1) - random.below(3));
    const auto top = static_cast<std::uint32_t>(
        i % 2 == 0 ? 0x80000000u | random.below(0x80000000ul) : random.between(1, 0xFFFF));
    Mpz topWord(static_cast<long>(top));
    mpz_mul_2exp(topWord, topWord, 32 * (words - 1));
    mpz_add(d, d, topWord);
    const Mpz x = random.magnitude(random.between(mpz_sizeinbase(d, 2), 4095));
    Mpz negX;
    mpz_neg(negX, x);
    const std::string what =
        std::to_string(words) + "-word divisor, division of " + hexOf(x) + " by " + hexOf(d);
    return check(dividesLikeGmp(x, d), what, i) &&
           check(dividesLikeGmp(negX, d), "negative dividend, " + what, i);
  });
}

// --- number theory -----------------------------------------------------------------------------

TEST_F(BigIntGmpDifferential, GcdMatchesGmp) {
  // Operands share a random factor of up to 600 bits, so the gcd is rarely 1.
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(1000, [&](int i) {
    const Mpz common = random.magnitude(random.between(1, 600));
    Mpz a = random.signedValue(1, 1400);
    Mpz b = random.signedValue(1, 1400);
    mpz_mul(a, a, common);
    mpz_mul(b, b, common);
    if (i % 50 == 0) mpz_set_ui(b, 0);
    Mpz expected;
    mpz_gcd(expected, a, b);
    if (!check(holds(fromMpz(a).gcd(fromMpz(b)), expected),
               "gcd of " + hexOf(a) + " and " + hexOf(b), i)) {
      return false;
    }
    return true;
  });
}

TEST_F(BigIntGmpDifferential, SqrtMatchesGmp) {
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(2000, [&](int i) {
    // Mostly 1 to 2000 bits, every tenth up to 4094 bits (from 2^4094 on the trial squares
    // overflow, see BigIntDivision.SqrtFromTwoTo4094UpThrowsOverflow); every third a perfect
    // square or one below it.
    Mpz a = random.magnitude(i % 10 == 0 ? random.between(1, 4094) : random.between(1, 2000));
    if (i % 3 == 0) {
      mpz_sqrt(a, a);
      mpz_mul(a, a, a);
      if (i % 2 == 0 && mpz_sgn(a.get()) > 0) mpz_sub_ui(a, a, 1);
    }
    Mpz expected;
    mpz_sqrt(expected, a);
    const BigInt root = fromMpz(a).sqrt();
    if (mpz_sgn(a.get()) == 0) {
      // The root of zero keeps dataLength 0.
      if (!check(root.dataLength() == 0 ? ::testing::AssertionSuccess()
                                        : ::testing::AssertionFailure() << describe(root),
                 "sqrt of 0", i)) {
        return false;
      }
      return true;
    }
    if (!check(holds(root, expected), "sqrt of " + hexOf(a), i)) return false;
    return true;
  });
}

// The value modPow must give for base a, exponent e >= 0 and modulus n != 0:
// - e = 0 gives 1 (even for |n| = 1);
// - otherwise |a|^e mod |n|, negated when a < 0 and e is odd (the base is reduced as |a| mod |n|,
//   and the sign of n never matters).
// The early stop when the running square t becomes 1 cannot change this value: from then on
// every remaining step multiplies the result by t = 1, and the result is already reduced below
// |n| (it starts at 1 < |n| when |n| >= 2; for |n| = 1, t is 0 and never becomes 1). So plain
// mpz_powm is the reference for every case.
Mpz expectedModPow(const Mpz& a, const Mpz& e, const Mpz& n) {
  if (mpz_sgn(e.get()) == 0) return Mpz(1);
  Mpz base;
  Mpz modulus;
  mpz_abs(base, a);
  mpz_abs(modulus, n);
  Mpz result;
  mpz_powm(result, base, e, modulus);
  if (mpz_sgn(a.get()) < 0 && mpz_odd_p(e.get())) mpz_neg(result, result);
  return result;
}

TEST_F(BigIntGmpDifferential, ModPowMatchesGmp) {
  // Moduli of up to 2000 bits (63 words): Barrett's constant 2^(64k) / n then needs at most 127
  // words, inside the capacity.
  SCOPED_TRACE(seedTrace(random.seed()));
  forEachCase(600, [&](int i) {
    const Mpz a = randomSigned();
    const bool longExponent = i % 16 == 0;
    const Mpz e =
        random.magnitude(longExponent ? random.between(1000, 2000) : random.between(0, 256));
    const Mpz n = longExponent ? random.signedValue(1, 512) : random.signedValue(1, 2000);
    const Mpz expected = expectedModPow(a, e, n);
    if (!check(holds(fromMpz(a).modPow(fromMpz(e), fromMpz(n)), expected),
               "modPow of " + hexOf(a) + " ^ " + hexOf(e) + " mod " + hexOf(n), i)) {
      return false;
    }
    return true;
  });
}

}  // namespace
}  // namespace corvane
