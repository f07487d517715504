// Composite checksums: the pairwise scheme over 100,000 SHA-256 checksums and the flat scheme
// over 1,000,000 xxHash64 checksums, each beside a plain loop that does the same work with the
// hash libraries directly (decode the hex, hash, print hex; for the tree also sort each level).
//
//   build/release/bench/CompositeBench
//
// The per-hashing cost of the pairwise scheme is its time divided by n - 1 hashings.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <xxhash.h>

#include <algorithm>
#include <corvane/CompositeChecksumGenerator.hpp>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

using corvane::CompositeChecksumMethod;

std::string hexOf(const unsigned char* bytes, std::size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text(length * 2, '0');
  for (std::size_t i = 0; i < length; ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  return text;
}

void appendBytesOfHex(const std::string& hex, std::vector<unsigned char>& out) {
  auto value = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(value(hex[i]) * 16 + value(hex[i + 1])));
  }
}

std::vector<std::string> randomHexTexts(std::size_t count, std::size_t bytes, unsigned seed) {
  std::mt19937_64 random(seed);
  std::vector<std::string> texts;
  texts.reserve(count);
  std::vector<unsigned char> buffer(bytes);
  for (std::size_t i = 0; i < count; ++i) {
    for (auto& b : buffer) b = static_cast<unsigned char>(random());
    texts.push_back(hexOf(buffer.data(), buffer.size()));
  }
  return texts;
}

const std::vector<std::string>& sha256Texts() {
  static const auto texts = randomHexTexts(100000, 32, 1);
  return texts;
}

const std::vector<std::string>& xxh64Texts() {
  static const auto texts = randomHexTexts(1000000, 8, 2);
  return texts;
}

void BM_PairwiseSha256_100k(benchmark::State& state) {
  const corvane::Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true));
  for (auto _ : state) {
    benchmark::DoNotOptimize(generator.generate(sha256Texts(), corvane::ChecksumTypeSHA256, true));
  }
  state.counters["ns_per_hashing"] = benchmark::Counter(
      static_cast<double>(sha256Texts().size() - 1) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_PairwiseSha256_100k)->Unit(benchmark::kMillisecond);

// The same tree with OpenSSL directly.
void BM_PlainPairsSha256_100k(benchmark::State& state) {
  const EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  for (auto _ : state) {
    std::vector<std::string> level = sha256Texts();
    std::sort(level.begin(), level.end());
    level.erase(std::unique(level.begin(), level.end()), level.end());
    std::vector<unsigned char> pair;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    while (level.size() > 1) {
      std::vector<std::string> next;
      const bool odd = level.size() % 2 != 0;
      for (std::size_t i = 0; i + 1 < level.size(); i += 2) {
        pair.clear();
        appendBytesOfHex(level[i], pair);
        appendBytesOfHex(level[i + 1], pair);
        EVP_Digest(pair.data(), pair.size(), digest, &length, sha256, nullptr);
        next.push_back(hexOf(digest, length));
      }
      std::sort(next.begin(), next.end());
      if (odd) next.push_back(level.back());
      level = std::move(next);
    }
    benchmark::DoNotOptimize(level);
  }
  state.counters["ns_per_hashing"] = benchmark::Counter(
      static_cast<double>(sha256Texts().size() - 1) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_PlainPairsSha256_100k)->Unit(benchmark::kMillisecond);

void BM_FlatXXHash64_1M(benchmark::State& state) {
  const corvane::CorvaneStandardCompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true), false,
      corvane::CompositeChecksumLexicalOrdering::pathName);
  for (auto _ : state) {
    benchmark::DoNotOptimize(generator.generate(xxh64Texts(), corvane::ChecksumTypeXXHash64));
  }
}
BENCHMARK(BM_FlatXXHash64_1M)->Unit(benchmark::kMillisecond);

// Decode every text and hash the joined bytes once with xxHash directly.
void BM_PlainFlatXXHash64_1M(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<unsigned char> joined;
    joined.reserve(xxh64Texts().size() * 8);
    for (const auto& text : xxh64Texts()) appendBytesOfHex(text, joined);
    const XXH64_hash_t hash = XXH64(joined.data(), joined.size(), 0);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_PlainFlatXXHash64_1M)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
