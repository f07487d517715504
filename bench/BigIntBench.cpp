// BigInt and C4 costs, each beside the same operation in GMP (assembly) where one exists.
//
//   build/release/bench/BigIntBench --benchmark_min_time=0.5
//
// Pairs: BM_BigInt_Multiply32x32 / BM_Gmp_Multiply32x32, BM_BigInt_Divide64By32 /
// BM_Gmp_Divide64By32, BM_BigInt_ModPow/<bits> / BM_Gmp_ModPow/<bits>. The largest modulus
// modPow accepts is 63 words (2016 bits): its Barrett constant 2^(64k) needs word 2k.
// BM_C4IdOf64Bytes / BM_SHA512Of64Bytes shows the base-58 conversion; BM_C4IdOf8MiB /
// BM_SHA512Of8MiB the C4 overhead on a large input.
#include <benchmark/benchmark.h>
#include <gmp.h>

#include <corvane/BigInt.hpp>
#include <corvane/C4Identifier.hpp>
#include <corvane/CorvaneChecksumGenerator.hpp>
#include <corvane/UnboundUInt.hpp>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace {

using corvane::BigInt;

// A positive value of exactly `words` random words (top word non-zero, sign bit clear).
BigInt randomValue(int words, std::mt19937& random) {
  std::vector<std::uint32_t> mostSignificantFirst(static_cast<std::size_t>(words));
  for (auto& word : mostSignificantFirst) word = static_cast<std::uint32_t>(random());
  mostSignificantFirst[0] |= 0x40000000u;
  mostSignificantFirst[0] &= 0x7FFFFFFFu;
  return BigInt::createFromUIntArray(mostSignificantFirst.data(), words);
}

void toGmp(const BigInt& value, mpz_t out) {
  mpz_import(out, static_cast<std::size_t>(value.dataLength()), -1, sizeof(std::uint32_t), 0, 0,
             value.getData());
}

struct GmpValue {
  mpz_t value;
  GmpValue() { mpz_init(value); }
  explicit GmpValue(const BigInt& from) : GmpValue() { toGmp(from, value); }
  ~GmpValue() { mpz_clear(value); }
};

void BM_BigInt_Multiply32x32(benchmark::State& state) {
  std::mt19937 random(1);
  const BigInt a = randomValue(32, random), b = randomValue(32, random);
  for (auto _ : state) benchmark::DoNotOptimize(a.multiply(b));
}
BENCHMARK(BM_BigInt_Multiply32x32);

void BM_Gmp_Multiply32x32(benchmark::State& state) {
  std::mt19937 random(1);
  GmpValue a(randomValue(32, random)), b(randomValue(32, random)), product;
  for (auto _ : state) {
    mpz_mul(product.value, a.value, b.value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Gmp_Multiply32x32);

void BM_BigInt_Divide64By32(benchmark::State& state) {
  std::mt19937 random(2);
  const BigInt a = randomValue(64, random), b = randomValue(32, random);
  for (auto _ : state) benchmark::DoNotOptimize(a.divide(b));
}
BENCHMARK(BM_BigInt_Divide64By32);

void BM_Gmp_Divide64By32(benchmark::State& state) {
  std::mt19937 random(2);
  GmpValue a(randomValue(64, random)), b(randomValue(32, random)), quotient;
  for (auto _ : state) {
    mpz_tdiv_q(quotient.value, a.value, b.value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Gmp_Divide64By32);

void BM_BigInt_ModPow(benchmark::State& state) {
  std::mt19937 random(3);
  const int words = static_cast<int>(state.range(0)) / 32;
  const BigInt base = randomValue(words, random), exponent = randomValue(words, random),
               modulus = randomValue(words, random);
  for (auto _ : state) benchmark::DoNotOptimize(base.modPow(exponent, modulus));
}
BENCHMARK(BM_BigInt_ModPow)->Arg(1024)->Arg(2016)->Unit(benchmark::kMillisecond);

void BM_Gmp_ModPow(benchmark::State& state) {
  std::mt19937 random(3);
  const int words = static_cast<int>(state.range(0)) / 32;
  GmpValue base(randomValue(words, random)), exponent(randomValue(words, random)),
      modulus(randomValue(words, random)), result;
  for (auto _ : state) {
    mpz_powm(result.value, base.value, exponent.value, modulus.value);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Gmp_ModPow)->Arg(1024)->Arg(2016)->Unit(benchmark::kMillisecond);

void checksumOf(benchmark::State& state, corvane::ChecksumType type, std::size_t size) {
  auto data = std::make_shared<const corvane::Bytes>(size, std::uint8_t{0x5A});
  for (auto _ : state) {
    benchmark::DoNotOptimize(corvane::CorvaneChecksumGenerator::generateDataChecksum(data, type));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

void BM_C4IdOf64Bytes(benchmark::State& state) { checksumOf(state, corvane::ChecksumTypeC4, 64); }
BENCHMARK(BM_C4IdOf64Bytes);
void BM_SHA512Of64Bytes(benchmark::State& state) {
  checksumOf(state, corvane::ChecksumTypeSHA512, 64);
}
BENCHMARK(BM_SHA512Of64Bytes);
void BM_C4IdOf8MiB(benchmark::State& state) {
  checksumOf(state, corvane::ChecksumTypeC4, 8u << 20);
}
BENCHMARK(BM_C4IdOf8MiB)->Unit(benchmark::kMillisecond);
void BM_SHA512Of8MiB(benchmark::State& state) {
  checksumOf(state, corvane::ChecksumTypeSHA512, 8u << 20);
}
BENCHMARK(BM_SHA512Of8MiB)->Unit(benchmark::kMillisecond);

void BM_ConvertC4ChecksumToData(benchmark::State& state) {
  const std::string id =
      "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sFT";
  for (auto _ : state) {
    benchmark::DoNotOptimize(corvane::CorvaneC4DataUtility::convertC4ChecksumToData(id, true));
  }
}
BENCHMARK(BM_ConvertC4ChecksumToData);

// A fixed prime of `bits` bits (the next prime after a seeded random value, found with GMP).
BigInt primeOfBits(int bits) {
  gmp_randstate_t state;
  gmp_randinit_default(state);
  gmp_randseed_ui(state, static_cast<unsigned long>(bits));
  GmpValue candidate;
  do {
    mpz_urandomb(candidate.value, state, static_cast<mp_bitcnt_t>(bits));
    mpz_setbit(candidate.value, static_cast<mp_bitcnt_t>(bits - 1));
    mpz_nextprime(candidate.value, candidate.value);
  } while (mpz_sizeinbase(candidate.value, 2) != static_cast<std::size_t>(bits));
  gmp_randclear(state);
  std::vector<std::uint32_t> words((static_cast<std::size_t>(bits) + 31) / 32);
  std::size_t count = 0;
  mpz_export(words.data(), &count, 1, sizeof(std::uint32_t), 0, 0, candidate.value);
  return BigInt::createFromUIntArray(words.data(), static_cast<std::int32_t>(count));
}

// isProbablePrime at 1024 bits and at 2016 bits (2048-bit candidates exceed modPow's modulus
// limit of 63 words).
void BM_BigInt_IsProbablePrime(benchmark::State& state) {
  const BigInt prime = primeOfBits(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(prime.isProbablePrime());
}
BENCHMARK(BM_BigInt_IsProbablePrime)->Arg(1024)->Arg(2016)->Unit(benchmark::kMillisecond);

void BM_Gmp_ProbabPrime(benchmark::State& state) {
  GmpValue prime(primeOfBits(static_cast<int>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(mpz_probab_prime_p(prime.value, 25));
}
BENCHMARK(BM_Gmp_ProbabPrime)->Arg(1024)->Arg(2016)->Unit(benchmark::kMillisecond);

void BM_BigInt_GeneratePseudoPrime512(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BigInt::generatePseudoPrimeWithBits(512, 5));
}
BENCHMARK(BM_BigInt_GeneratePseudoPrime512)->Unit(benchmark::kMillisecond);

void BM_Gmp_NextPrime512(benchmark::State& state) {
  gmp_randstate_t random;
  gmp_randinit_default(random);
  GmpValue candidate;
  for (auto _ : state) {
    mpz_urandomb(candidate.value, random, 512);
    mpz_setbit(candidate.value, 511);
    mpz_nextprime(candidate.value, candidate.value);
    benchmark::ClobberMemory();
  }
  gmp_randclear(random);
}
BENCHMARK(BM_Gmp_NextPrime512)->Unit(benchmark::kMillisecond);

// UnboundUInt division of two 1000-bit values (given as hex texts of 250 digits).
void BM_UnboundUInt_Divide1000Bits(benchmark::State& state) {
  std::mt19937 random(4);
  std::string dividend = "c", divisor = "8";  // dividend > divisor: a real division
  const char* digits = "0123456789abcdef";
  while (dividend.size() < 250) dividend += digits[random() % 16];
  while (divisor.size() < 250) divisor += digits[random() % 16];
  const corvane::UnboundUInt a(dividend), b(divisor);
  for (auto _ : state) benchmark::DoNotOptimize(a.divide(b));
}
BENCHMARK(BM_UnboundUInt_Divide1000Bits);

}  // namespace

BENCHMARK_MAIN();
