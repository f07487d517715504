// Primality, random values, Jacobi symbols and Lucas sequences of BigInt, checked against GMP.
#include <gmp.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "BigIntTestSupport.hpp"
#include "corvane/BigInt.hpp"

namespace corvane {
namespace {

using bigint_test::fromLong;
using bigint_test::fromMpz;
using bigint_test::holds;
using bigint_test::Mpz;
using bigint_test::RandomSource;
using bigint_test::seedTrace;
using bigint_test::testSeed;
using bigint_test::toMpz;

// Largest value a random word can take: trunc(u * 2^32) for u = (2^32 - 1) / 1e10.
constexpr std::uint32_t kRandomWordBound = 1844674406u;

// Bit length of a non-negative value.
std::size_t bitLengthOf(const BigInt& value) {
  const Mpz v = toMpz(value);
  return mpz_sgn(v.get()) == 0 ? 0 : mpz_sizeinbase(v, 2);
}

bool gmpSaysPrime(const Mpz& value) { return mpz_probab_prime_p(value, 30) > 0; }

// Strong probable prime to base 2, computed with GMP alone (for odd n > 2).
bool gmpStrongBase2(const Mpz& n) {
  Mpz nMinusOne;
  mpz_sub_ui(nMinusOne, n, 1);
  const mp_bitcnt_t s = mpz_scan1(nMinusOne, 0);
  Mpz t;
  mpz_tdiv_q_2exp(t, nMinusOne, s);
  Mpz y;
  const Mpz two(2);
  mpz_powm(y, two, t, n);
  if (mpz_cmp_ui(y.get(), 1) == 0 || mpz_cmp(y, nMinusOne) == 0) return true;
  for (mp_bitcnt_t j = 1; j < s; ++j) {
    mpz_powm_ui(y, y, 2, n);
    if (mpz_cmp(y, nMinusOne) == 0) return true;
  }
  return false;
}

// --- a GMP model of the deterministic test ---------------------------------------------------
//
// The strong Lucas steps double values with BigInt::shiftLeft(1), which never adds a word: a
// non-negative value whose top word in use has bit 31 set loses that bit. The model applies the
// same rule, so the deterministic test can be checked for every candidate, primes whose doubling
// drops a bit included (for those it answers false).

// 2x as shiftLeft(1) gives it: modulo 2^(32 * words in use) for x >= 0 (zero uses one word);
// negative values use all 128 words, which their doubling here never leaves.
Mpz doubledAsShift(const Mpz& x) {
  Mpz result;
  mpz_mul_2exp(result, x, 1);
  if (mpz_sgn(x.get()) >= 0) {
    const std::size_t bits = mpz_sgn(x.get()) == 0 ? 1 : mpz_sizeinbase(x, 2);
    mpz_tdiv_r_2exp(result, result, 32 * ((bits + 31) / 32));
  }
  return result;
}

// x mod n with the sign of x, as BigInt::mod.
Mpz modOf(const Mpz& x, const Mpz& n) {
  Mpz result;
  mpz_tdiv_r(result, x, n);
  return result;
}

Mpz productOf(const Mpz& a, const Mpz& b) {
  Mpz result;
  mpz_mul(result, a, b);
  return result;
}

Mpz differenceOf(const Mpz& a, const Mpz& b) {
  Mpz result;
  mpz_sub(result, a, b);
  return result;
}

// The strong Lucas test with Selfridge's parameters, step by step as BigInt runs it, for odd
// n > 3 below 2^2016.
bool modelLucasStrongTest(const Mpz& n) {
  long d = 5;
  int rejections = 0;
  for (;;) {
    const Mpz dValue(d);
    const int j = mpz_jacobi(dValue, n);
    if (j == -1) break;
    if (j == 0 && mpz_cmp_ui(n.get(), static_cast<unsigned long>(d < 0 ? -d : d)) > 0) {
      return false;
    }
    if (++rejections == 20 && mpz_perfect_square_p(n)) return false;
    d = d > 0 ? -(d + 2) : -d + 2;
  }
  const Mpz q((1 - d) >> 2);
  const Mpz p(1);

  Mpz t;
  mpz_add_ui(t, n, 1);
  const mp_bitcnt_t s = mpz_scan1(t, 0);
  mpz_tdiv_q_2exp(t, t, s);

  // The Lucas sequence for k = t (t is odd) and no further doublings.
  Mpz v = modOf(Mpz(2), n);
  Mpz qk = modOf(Mpz(1), n);
  Mpz v1 = modOf(p, n);
  Mpz u1 = qk;
  bool first = true;
  for (mp_bitcnt_t bit = mpz_sizeinbase(t, 2) - 1; bit >= 1; --bit) {
    if (mpz_tstbit(t, bit)) {
      u1 = modOf(productOf(u1, v1), n);
      v = modOf(differenceOf(productOf(v, v1), productOf(p, qk)), n);
      v1 = modOf(productOf(v1, v1), n);
      v1 = modOf(differenceOf(v1, doubledAsShift(productOf(qk, q))), n);
      if (!first) qk = modOf(productOf(qk, qk), n);
      first = false;
      qk = modOf(productOf(qk, q), n);
    } else {
      u1 = modOf(differenceOf(productOf(u1, v), qk), n);
      v1 = modOf(differenceOf(productOf(v, v1), productOf(p, qk)), n);
      v = modOf(productOf(v, v), n);
      v = modOf(differenceOf(v, doubledAsShift(qk)), n);
      qk = first ? modOf(q, n) : modOf(productOf(qk, qk), n);
      first = false;
    }
  }
  u1 = modOf(differenceOf(productOf(u1, v), qk), n);
  v = modOf(differenceOf(productOf(v, v1), productOf(p, qk)), n);
  if (!first) qk = modOf(productOf(qk, qk), n);
  qk = modOf(productOf(qk, q), n);

  bool probablyPrime = mpz_sgn(u1.get()) == 0 || mpz_sgn(v.get()) == 0;
  for (mp_bitcnt_t i = 1; i < s; ++i) {
    if (!probablyPrime) {
      v = modOf(productOf(v, v), n);
      v = modOf(differenceOf(v, doubledAsShift(qk)), n);
      if (mpz_sgn(v.get()) == 0) probablyPrime = true;
    }
    qk = modOf(productOf(qk, qk), n);
  }
  if (probablyPrime) {
    Mpz g;
    mpz_gcd(g, n, q);
    if (mpz_cmp_ui(g.get(), 1) == 0) {
      if (mpz_sgn(qk.get()) < 0) mpz_add(qk, qk, n);
      Mpz temp = modOf(productOf(q, Mpz(mpz_jacobi(q, n))), n);
      if (mpz_sgn(temp.get()) < 0) mpz_add(temp, temp, n);
      if (mpz_cmp(qk, temp) != 0) probablyPrime = false;
    }
  }
  return probablyPrime;
}

// isProbablePrime as designed, for odd n > 3 below 2^2016.
bool modelIsProbablePrime(const Mpz& n) {
  for (const std::uint32_t prime : BigInt::primesBelow2000()) {
    if (mpz_cmp_ui(n.get(), prime) <= 0) break;
    if (mpz_divisible_ui_p(n, prime)) return false;
  }
  return gmpStrongBase2(n) && modelLucasStrongTest(n);
}

// --- the prime table ----------------------------------------------------------------------------

TEST(BigIntPrimality, PrimesBelow2000AreThe303PrimesInOrder) {
  const auto& primes = BigInt::primesBelow2000();
  ASSERT_EQ(primes.size(), 303u);
  Mpz p(2);
  for (const std::uint32_t prime : primes) {
    EXPECT_EQ(mpz_cmp_ui(p.get(), prime), 0) << prime;
    mpz_nextprime(p, p);
  }
  EXPECT_GT(mpz_cmp_ui(p.get(), 2000), 0);
  EXPECT_EQ(primes.front(), 2u);
  EXPECT_EQ(primes.back(), 1999u);
}

// --- getRandomBits --------------------------------------------------------------------------

TEST(BigIntPrimality, GetRandomBitsOneGivesOne) {
  for (int i = 0; i < 20; ++i) {
    BigInt value = fromLong(12345);
    value.getRandomBits(1);
    EXPECT_TRUE(holds(value, 1));
  }
}

TEST(BigIntPrimality, GetRandomBits32GivesOneWordWithBit31Set) {
  for (int i = 0; i < 20; ++i) {
    BigInt value;
    value.getRandomBits(32);
    EXPECT_EQ(value.dataLength(), 1);
    EXPECT_NE(value.getDataAtIndex(0) & 0x80000000u, 0u);
    EXPECT_TRUE(bigint_test::isNormalForm(value));
  }
}

TEST(BigIntPrimality, GetRandomBits33GivesTwoWordsWithWordOneEqualToOne) {
  for (int i = 0; i < 20; ++i) {
    BigInt value;
    value.getRandomBits(33);
    EXPECT_EQ(value.dataLength(), 2);
    EXPECT_EQ(value.getDataAtIndex(1), 1u);
    EXPECT_LE(value.getDataAtIndex(0), kRandomWordBound);
  }
}

TEST(BigIntPrimality, GetRandomBits4097RaisesRequiredBitsAboveMaxLength) {
  BigInt value;
  EXPECT_CORVANE_EXCEPTION(value.getRandomBits(4097), "ArithmeticException",
                           "Number of required bits > maxLength.");
  BigInt full;
  full.getRandomBits(4096);  // the whole capacity is allowed
  EXPECT_EQ(full.dataLength(), 128);
}

TEST(BigIntPrimality, GetRandomBitsZeroGivesZeroAndClearsHigherWords) {
  BigInt value = bigint_test::mostPositive();
  value.getRandomBits(0);
  EXPECT_TRUE(holds(value, 0));
  value.getRandomBits(40);
  for (int i = 2; i < BigInt::maxLength; ++i) EXPECT_EQ(value.getDataAtIndex(i), 0u);
}

TEST(BigIntPrimality, GetRandomBitsGivesExactBitLengthAndBoundedWords) {
  for (int bits = 1; bits <= 300; ++bits) {
    BigInt value;
    value.getRandomBits(bits);
    ASSERT_EQ(bitLengthOf(value), static_cast<std::size_t>(bits));
    ASSERT_TRUE(bigint_test::isNormalForm(value));
    // Below the top word every word comes straight from the mapping.
    for (int i = 0; i < value.dataLength() - 1; ++i) {
      ASSERT_LE(value.getDataAtIndex(i), kRandomWordBound);
    }
  }
}

// --- isProbablePrime ------------------------------------------------------------------------

TEST(BigIntPrimality, IsProbablePrimeTrueForSmallPrimes) {
  for (long p : {2L, 3L, 7L, 1999L, 2003L}) {
    EXPECT_TRUE(fromLong(p).isProbablePrime()) << p;
  }
}

TEST(BigIntPrimality, IsProbablePrimeFalseForZeroOneAndTrialDivisionComposites) {
  for (long n : {0L, 1L, 4L, 2001L, 2047L}) {
    EXPECT_FALSE(fromLong(n).isProbablePrime()) << n;
  }
}

TEST(BigIntPrimality, IsProbablePrimeTestsTheMagnitudeOfANegativeValue) {
  EXPECT_TRUE(fromLong(-7).isProbablePrime());
  EXPECT_TRUE(fromLong(-2003).isProbablePrime());
  EXPECT_FALSE(fromLong(-2047).isProbablePrime());
  EXPECT_TRUE(fromLong(-2003).isProbablePrimeWithConfidence(5));
}

TEST(BigIntPrimality, IsProbablePrimeMatchesGmpForOddNumbersBelow100000) {
  for (long n = 1; n < 100000; n += 2) {
    const Mpz expected(n);
    ASSERT_EQ(fromLong(n).isProbablePrime(), gmpSaysPrime(expected)) << n;
  }
}

// Carmichael numbers and strong base-2 pseudoprimes: composites that fool simpler tests.
std::vector<Mpz> pseudoprimes() {
  std::vector<Mpz> values;
  // Strong pseudoprimes to base 2 below 100,000 (each is re-checked below with GMP).
  for (long n : {2047L, 3277L, 4033L, 4681L, 8321L, 15841L, 29341L, 42799L, 49141L, 52633L, 65281L,
                 74665L, 80581L, 85489L, 88357L, 90751L}) {
    values.emplace_back(n);
  }
  // Carmichael numbers.
  for (long n : {561L,    1105L,   1729L,   2465L,   2821L,   6601L,   8911L,   10585L,  15841L,
                 29341L,  41041L,  46657L,  52633L,  62745L,  63973L,  75361L,  101101L, 115921L,
                 126217L, 162401L, 172081L, 188461L, 252601L, 278545L, 294409L, 314821L, 334153L,
                 340561L, 399001L, 410041L, 449065L, 488881L, 512461L}) {
    values.emplace_back(n);
  }
  // Strong base-2 pseudoprimes from 100,001 to 1,000,000, computed here with GMP.
  for (long n = 100001; n < 1000000; n += 2) {
    const Mpz candidate(n);
    if (gmpStrongBase2(candidate) && !gmpSaysPrime(candidate)) values.push_back(candidate);
  }
  // Strong pseudoprime to every prime base up to 23 and one to every prime base up to 37.
  values.emplace_back("3825123056546413051", 10);
  values.emplace_back("318665857834031151167461", 10);
  return values;
}

TEST(BigIntPrimality, PseudoprimesAreRejected) {
  const std::vector<Mpz> values = pseudoprimes();
  ASSERT_GT(values.size(), 60u);
  for (const Mpz& n : values) {
    ASSERT_FALSE(gmpSaysPrime(n)) << n.toString(10);
    const BigInt candidate = fromMpz(n);
    EXPECT_FALSE(candidate.isProbablePrime()) << n.toString(10);
    EXPECT_FALSE(candidate.isProbablePrimeWithConfidence(20)) << n.toString(10);
  }
}

TEST(BigIntPrimality, LargePrimesMatchGmpWhenTheirTopWordIsPartlyUsed) {
  // Bit lengths of 28 mod 32: a value below n with n's word count keeps bit 31 of its top word
  // clear, and so do its small multiples Q^k * Q here, so the Lucas doublings (see the next test)
  // drop no bit and these primes are accepted.
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (unsigned long bits : {252UL, 508UL, 1020UL, 1500UL, 2012UL}) {
    Mpz p = random.magnitude(bits);
    mpz_nextprime(p, p);
    ASSERT_EQ(mpz_sizeinbase(p, 2), bits);
    EXPECT_TRUE(fromMpz(p).isProbablePrime()) << bits;
    EXPECT_TRUE(fromMpz(p).isProbablePrimeWithConfidence(3)) << bits;
  }
}

TEST(BigIntPrimality, LucasDoublingOfAFullTopWordDropsItsTopBit) {
  // The doubling of Q^k in the Lucas steps is shiftLeft(1), which never adds a word: a Q^k whose
  // top word has bit 31 set loses that bit. For primes whose top word is full this happens often
  // and the strong Lucas test then answers false; this prime (2016 bits, GMP's Mersenne Twister
  // seeded with 2016) is one of them. The Rabin-Miller path has no doubling and accepts it.
  gmp_randstate_t state;
  gmp_randinit_mt(state);
  gmp_randseed_ui(state, 2016);
  Mpz p;
  mpz_urandomb(p, state, 2016);
  gmp_randclear(state);
  mpz_setbit(p, 2015);
  mpz_nextprime(p, p);
  ASSERT_EQ(mpz_sizeinbase(p, 2), 2016u);
  ASSERT_TRUE(gmpSaysPrime(p));
  EXPECT_FALSE(fromMpz(p).isProbablePrime());
  EXPECT_FALSE(BigInt::lucasStrongTest(fromMpz(p)));
  EXPECT_TRUE(fromMpz(p).isProbablePrimeWithConfidence(2));
}

TEST(BigIntPrimality, LargeSemiprimesAreRejected) {
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (unsigned long bits : {256UL, 512UL, 1024UL, 2016UL}) {
    Mpz q = random.magnitude(bits / 2);
    mpz_nextprime(q, q);
    Mpz r = random.magnitude(bits / 2 - 1);
    mpz_nextprime(r, r);
    Mpz product;
    mpz_mul(product, q, r);
    EXPECT_FALSE(fromMpz(product).isProbablePrime()) << bits;
    EXPECT_FALSE(fromMpz(product).isProbablePrimeWithConfidence(3)) << bits;
  }
}

TEST(BigIntPrimality, IsProbablePrimePassesOnModPowOverflowBeyond63Words) {
  // The exponentiation serves moduli of at most 63 words; a 2048-bit candidate that survives
  // trial division reaches it and its "Overflow" passes through.
  Mpz p = bigint_test::mpzPowerOfTwo(2047);
  mpz_nextprime(p, p);
  EXPECT_CORVANE_EXCEPTION(fromMpz(p).isProbablePrime(), "ArithmeticException", "Overflow");
}

// --- isProbablePrimeWithConfidence / rabinMillerTestWithConfidence -------------------------

TEST(BigIntPrimality, ConfidenceZeroOnOddValueWithLargeFactorsReturnsTrueWithoutWitness) {
  const BigInt n = fromLong(2003L * 2011L);  // both factors above 2000
  EXPECT_TRUE(n.isProbablePrimeWithConfidence(0));
  EXPECT_TRUE(n.isProbablePrimeWithConfidence(-3));
  EXPECT_FALSE(n.isProbablePrime());
  EXPECT_FALSE(n.isProbablePrimeWithConfidence(10));
}

TEST(BigIntPrimality, RabinMillerSmallCases) {
  EXPECT_FALSE(fromLong(0).rabinMillerTestWithConfidence(5));
  EXPECT_FALSE(fromLong(1).rabinMillerTestWithConfidence(5));
  EXPECT_TRUE(fromLong(2).rabinMillerTestWithConfidence(5));
  EXPECT_TRUE(fromLong(3).rabinMillerTestWithConfidence(5));
  EXPECT_FALSE(fromLong(1000).rabinMillerTestWithConfidence(5));
  EXPECT_TRUE(fromLong(-3).rabinMillerTestWithConfidence(5));
}

TEST(BigIntPrimality, RandomValuesMatchGmp) {
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (int i = 0; i < 400; ++i) {
    const unsigned long bits = random.between(16, 96);
    Mpz n = random.magnitude(bits);
    mpz_setbit(n, 0);
    if (random.coin()) mpz_nextprime(n, n);
    const bool prime = gmpSaysPrime(n);
    // Rabin-Miller never rejects a prime (witnesses are shorter than the candidate), and with
    // ten rounds a composite passing is vanishingly rare.
    EXPECT_EQ(fromMpz(n).isProbablePrimeWithConfidence(10), prime) << n.toString(10);
    if (!prime) {
      EXPECT_FALSE(fromMpz(n).isProbablePrime()) << n.toString(10);
    }
    EXPECT_EQ(fromMpz(n).isProbablePrime(), modelIsProbablePrime(n)) << n.toString(10);
    EXPECT_EQ(BigInt::lucasStrongTest(fromMpz(n)), modelLucasStrongTest(n)) << n.toString(10);
  }
}

TEST(BigIntPrimality, LargeCandidatesMatchTheModel) {
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (unsigned long bits : {256UL, 333UL, 512UL, 1024UL, 1500UL, 2016UL}) {
    Mpz p = random.magnitude(bits);
    mpz_nextprime(p, p);
    if (mpz_sizeinbase(p, 2) > 2016) continue;
    EXPECT_EQ(fromMpz(p).isProbablePrime(), modelIsProbablePrime(p)) << bits;
  }
}

// --- generatePseudoPrimeWithBits:andConfidence: --------------------------------------------

TEST(BigIntPrimality, GeneratePseudoPrimeGivesOddValuesOfExactBitLength) {
  for (int bits : {12, 16, 31, 32, 33, 64, 100, 256}) {
    const BigInt prime = BigInt::generatePseudoPrimeWithBits(bits, 5);
    EXPECT_EQ(bitLengthOf(prime), static_cast<std::size_t>(bits));
    EXPECT_EQ(prime.getDataAtIndex(0) & 1u, 1u);
    EXPECT_TRUE(bigint_test::isNormalForm(prime));
    EXPECT_TRUE(gmpSaysPrime(toMpz(prime))) << bits;
  }
}

// --- jacobi:andB: -----------------------------------------------------------------------------

TEST(BigIntPrimality, JacobiOfSmallValues) {
  EXPECT_EQ(BigInt::jacobi(fromLong(2), fromLong(7)), 1);
  EXPECT_EQ(BigInt::jacobi(fromLong(3), fromLong(7)), -1);
  EXPECT_EQ(BigInt::jacobi(fromLong(7), fromLong(7)), 0);
  EXPECT_EQ(BigInt::jacobi(fromLong(0), fromLong(7)), 0);
  EXPECT_EQ(BigInt::jacobi(fromLong(1), fromLong(7)), 1);
  EXPECT_EQ(BigInt::jacobi(fromLong(-1), fromLong(7)), -1);
}

TEST(BigIntPrimality, JacobiByOneIsZero) {
  // a >= 1 is first reduced modulo 1 to zero, and a negative a is turned into -a >= 1.
  for (long a : {-5L, -1L, 0L, 1L, 2L, 99L}) {
    EXPECT_EQ(BigInt::jacobi(fromLong(a), fromLong(1)), 0) << a;
  }
}

TEST(BigIntPrimality, JacobiWithEvenBRaises) {
  EXPECT_CORVANE_EXCEPTION(BigInt::jacobi(fromLong(3), fromLong(8)), "ArgumentException",
                           "Jacobi defined only for odd integers.");
  EXPECT_CORVANE_EXCEPTION(BigInt::jacobi(fromLong(3), fromLong(0)), "ArgumentException",
                           "Jacobi defined only for odd integers.");
}

TEST(BigIntPrimality, JacobiMatchesGmpForRandomPairs) {
  RandomSource random(testSeed());
  SCOPED_TRACE(seedTrace(random.seed()));
  for (int i = 0; i < 2000; ++i) {
    Mpz b = random.magnitude(random.between(2, 600));
    mpz_setbit(b, 0);
    const Mpz a = random.signedValue(0, 700);
    ASSERT_EQ(BigInt::jacobi(fromMpz(a), fromMpz(b)), mpz_jacobi(a, b))
        << bigint_test::hexOf(a) << " / " << bigint_test::hexOf(b);
  }
}

// --- lucasSequence / lucasStrongTest -----------------------------------------------------

BigInt barrettConstantOf(const BigInt& n) {
  const Mpz value = bigint_test::mpzPowerOfTwo(64UL * static_cast<unsigned long>(n.dataLength()));
  Mpz mu;
  const Mpz nValue = toMpz(n);
  mpz_tdiv_q(mu, value, nValue);
  return fromMpz(mu);
}

TEST(BigIntPrimality, LucasSequenceWithEvenKRaises) {
  const BigInt n = fromLong(1000003);
  EXPECT_CORVANE_EXCEPTION(
      BigInt::lucasSequence(fromLong(1), fromLong(-1), fromLong(10), n, barrettConstantOf(n), 0),
      "ArgumentException", "Argument k must be odd.");
}

TEST(BigIntPrimality, LucasSequenceGivesFibonacciAndLucasNumbers) {
  // P = 1, Q = -1: U_k is the Fibonacci number F_k and V_k the Lucas number L_k.
  Mpz n("340282366920938463463374607431768211297", 10);  // the largest prime below 2^128
  const BigInt modulus = fromMpz(n);
  const BigInt constant = barrettConstantOf(modulus);
  for (unsigned long k = 1; k < 400; k += 2) {
    for (int s = 0; s < 3; ++s) {
      const auto result = BigInt::lucasSequence(
          fromLong(1), fromLong(-1), fromLong(static_cast<long>(k)), modulus, constant, s);
      const unsigned long index = k << s;
      Mpz u;
      Mpz v;
      mpz_fib_ui(u, index);
      mpz_lucnum_ui(v, index);
      Mpz qk(index % 2 == 1 ? -1 : 1);
      const Mpz* expected[3] = {&u, &v, &qk};
      for (int i = 0; i < 3; ++i) {
        Mpz actual = toMpz(result[i]);
        Mpz difference;
        mpz_sub(difference, actual, *expected[i]);
        EXPECT_TRUE(mpz_divisible_p(difference, n)) << "k=" << k << " s=" << s << " i=" << i;
      }
    }
  }
}

TEST(BigIntPrimality, LucasStrongTestAcceptsPrimesAndRejectsSquares) {
  for (long p : {5L, 7L, 11L, 13L, 1999L, 2003L, 1000003L}) {
    EXPECT_TRUE(BigInt::lucasStrongTest(fromLong(p))) << p;
  }
  for (long n : {0L, 1L, 4L, 9L, 15L, 25L, 1000003L * 1000003L, 1009L * 1013L}) {
    EXPECT_FALSE(BigInt::lucasStrongTest(fromLong(n))) << n;
  }
  EXPECT_TRUE(BigInt::lucasStrongTest(fromLong(2)));
  EXPECT_TRUE(BigInt::lucasStrongTest(fromLong(-3)));
}

}  // namespace
}  // namespace corvane
