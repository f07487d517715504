// Shared helpers of the BigInt test suites.
//
// - Values are built and read word by word through the public accessors (setData, setDataLength,
//   getDataAtIndex), never through the constructors under test, so a broken constructor cannot
//   hide behind a broken helper.
// - GMP is the independent reference: toMpz / fromMpz convert through the 128-word two's
//   complement form (a negative BigInt v stands for the unsigned 4096-bit number v + 2^4096).
// - RandomSource draws signed values with GMP's Mersenne Twister from a fixed seed; every test
//   that uses it prints the seed on failure (SCOPED_TRACE), and CORVANE_BIGINT_SEED in the
//   environment replaces the default seed to explore or to reproduce another run.
// - expectException checks both the name and the reason of a corvane::Exception.
#pragma once

#include <gmp.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/BigInt.hpp"
#include "corvane/Exception.hpp"

namespace corvane::bigint_test {

inline constexpr int kWords = BigInt::maxLength;  // 128
inline constexpr int kBits = 32 * kWords;         // 4096

// --- GMP value holder ---------------------------------------------------------------------------

// An owned mpz_t, so that early returns of failing assertions do not leak.
class Mpz {
 public:
  Mpz() { mpz_init(value_); }
  explicit Mpz(long v) { mpz_init_set_si(value_, v); }
  Mpz(const char* text, int radix) {
    if (mpz_init_set_str(value_, text, radix) != 0) {
      ADD_FAILURE() << "bad test constant " << text;
    }
  }
  Mpz(const Mpz& other) { mpz_init_set(value_, other.value_); }
  Mpz& operator=(const Mpz& other) {
    mpz_set(value_, other.value_);
    return *this;
  }
  ~Mpz() { mpz_clear(value_); }

  mpz_ptr get() { return value_; }
  mpz_srcptr get() const { return value_; }
  operator mpz_ptr() { return value_; }           // NOLINT: passes straight to mpz_*
  operator mpz_srcptr() const { return value_; }  // NOLINT

  std::string toString(int radix = 16) const {
    std::vector<char> buffer(mpz_sizeinbase(value_, radix) + 2);
    mpz_get_str(buffer.data(), radix, value_);
    return buffer.data();
  }

 private:
  mpz_t value_;
};

// "0x1f", "-0x1f": a value for failure messages.
inline std::string hexOf(const Mpz& value) {
  const std::string digits = value.toString(16);
  return digits[0] == '-' ? "-0x" + digits.substr(1) : "0x" + digits;
}

// 2^bits as an Mpz.
inline Mpz mpzPowerOfTwo(unsigned long bits) {
  Mpz result;
  mpz_setbit(result, bits);
  return result;
}

// --- word-level construction and inspection ------------------------------------------------

// A BigInt holding exactly `words` (least significant first) and the given dataLength; every
// other word zero. No normalisation at all: for building both normal and deliberately odd values.
inline BigInt rawBigInt(const std::vector<std::uint32_t>& words, std::int32_t dataLength) {
  BigInt value;
  for (int i = 0; i < kWords; ++i) value.setData(0, i);
  for (std::size_t i = 0; i < words.size() && i < static_cast<std::size_t>(kWords); ++i) {
    value.setData(words[i], static_cast<std::int32_t>(i));
  }
  value.setDataLength(dataLength);
  return value;
}

// A BigInt in normal form from words least significant first: trailing zero words are dropped
// from dataLength (not below 1); a value with bit 31 of word 127 set gets dataLength 128.
inline BigInt wordsBigInt(std::vector<std::uint32_t> words) {
  words.resize(kWords, 0);
  std::int32_t length = kWords;
  if ((words[kWords - 1] & 0x80000000u) == 0) {
    while (length > 1 && words[length - 1] == 0) --length;
  }
  return rawBigInt(words, length);
}

// All 128 words of a value, least significant first.
inline std::vector<std::uint32_t> allWords(const BigInt& value) {
  std::vector<std::uint32_t> words(kWords);
  for (int i = 0; i < kWords; ++i) words[i] = value.getDataAtIndex(i);
  return words;
}

// The value of the 128 words read as a 4096-bit two's complement number. dataLength is not
// consulted: every word takes part in the value.
inline Mpz toMpz(const BigInt& value) {
  const std::vector<std::uint32_t> words = allWords(value);
  Mpz result;
  mpz_import(result, kWords, -1, sizeof(std::uint32_t), 0, 0, words.data());
  if ((words[kWords - 1] & 0x80000000u) != 0) {
    Mpz modulus = mpzPowerOfTwo(kBits);
    mpz_sub(result, result, modulus);
  }
  return result;
}

// True when -2^4095 <= v < 2^4095, the range a BigInt holds.
inline bool fitsBigInt(mpz_srcptr v) {
  if (mpz_sgn(v) >= 0) return mpz_sizeinbase(v, 2) <= static_cast<std::size_t>(kBits - 1);
  Mpz magnitude;
  mpz_neg(magnitude, v);
  Mpz limit = mpzPowerOfTwo(kBits - 1);
  return mpz_cmp(magnitude, limit) <= 0;
}

// The BigInt in normal form holding v (which must fit), built word by word.
inline BigInt fromMpz(mpz_srcptr v) {
  if (!fitsBigInt(v)) {
    ADD_FAILURE() << "test value does not fit 4096-bit two's complement";
    return BigInt();
  }
  Mpz unsignedForm(0);
  mpz_set(unsignedForm, v);
  if (mpz_sgn(v) < 0) {
    Mpz modulus = mpzPowerOfTwo(kBits);
    mpz_add(unsignedForm, unsignedForm, modulus);
  }
  std::vector<std::uint32_t> words(kWords, 0);
  std::size_t count = 0;
  mpz_export(words.data(), &count, -1, sizeof(std::uint32_t), 0, 0, unsignedForm);
  return wordsBigInt(words);
}

// The BigInt in normal form holding a small value.
inline BigInt fromLong(long v) {
  const Mpz value(v);
  return fromMpz(value);
}

inline BigInt fromHex(const char* hex) {
  const Mpz value(hex, 16);
  return fromMpz(value);
}

// The most positive value 2^4095 - 1: words 0..126 0xFFFFFFFF, word 127 0x7FFFFFFF.
inline BigInt mostPositive() {
  std::vector<std::uint32_t> words(kWords, 0xFFFFFFFFu);
  words[kWords - 1] = 0x7FFFFFFFu;
  return wordsBigInt(words);
}

// The most negative value -2^4095: words 0..126 zero, word 127 0x80000000.
inline BigInt mostNegative() {
  std::vector<std::uint32_t> words(kWords, 0);
  words[kWords - 1] = 0x80000000u;
  return wordsBigInt(words);
}

// 2^bits (bits <= 4094) or, with negative set, -2^bits (bits <= 4095).
inline BigInt powerOfTwo(unsigned long bits, bool negative = false) {
  Mpz value = mpzPowerOfTwo(bits);
  if (negative) mpz_neg(value, value);
  return fromMpz(value);
}

// Words of a value for failure messages: "len=3 [0x..., 0x..., 0x...] (+ 125 zero words)".
inline std::string describe(const BigInt& value) {
  std::ostringstream out;
  out << "len=" << value.dataLength() << " value=" << hexOf(toMpz(value)) << " words[";
  int shown = kWords;
  while (shown > 1 && value.getDataAtIndex(shown - 1) == 0) --shown;
  for (int i = 0; i < shown; ++i) {
    out << (i ? "," : "") << std::hex << value.getDataAtIndex(i) << std::dec;
  }
  out << "]";
  return out.str();
}

// Normal form: 1 <= dataLength <= 128; a negative value has dataLength 128; for a non-negative
// value words at or above dataLength are zero and the top word in use is not zero unless
// dataLength is 1.
inline ::testing::AssertionResult isNormalForm(const BigInt& value) {
  const std::int32_t length = value.dataLength();
  if (length < 1 || length > kWords) {
    return ::testing::AssertionFailure() << "dataLength out of range: " << describe(value);
  }
  if (value.isNegative()) {
    if (length != kWords) {
      return ::testing::AssertionFailure() << "negative value not 128 words: " << describe(value);
    }
    return ::testing::AssertionSuccess();
  }
  for (int i = length; i < kWords; ++i) {
    if (value.getDataAtIndex(i) != 0) {
      return ::testing::AssertionFailure()
             << "word " << i << " above dataLength not zero: " << describe(value);
    }
  }
  if (length > 1 && value.getDataAtIndex(length - 1) == 0) {
    return ::testing::AssertionFailure() << "untrimmed top word: " << describe(value);
  }
  return ::testing::AssertionSuccess();
}

// Value equal to `expected` and the representation in normal form.
inline ::testing::AssertionResult holds(const BigInt& actual, mpz_srcptr expected) {
  const Mpz actualValue = toMpz(actual);
  if (mpz_cmp(actualValue, expected) != 0) {
    Mpz expectedCopy;
    mpz_set(expectedCopy, expected);
    return ::testing::AssertionFailure()
           << "expected " << hexOf(expectedCopy) << ", got " << describe(actual);
  }
  return isNormalForm(actual);
}

inline ::testing::AssertionResult holds(const BigInt& actual, long expected) {
  const Mpz expectedValue(expected);
  return holds(actual, expectedValue);
}

inline ::testing::AssertionResult holds(const BigInt& actual, int expected) {
  return holds(actual, static_cast<long>(expected));
}

inline ::testing::AssertionResult holdsHex(const BigInt& actual, const char* expectedHex) {
  const Mpz expectedValue(expectedHex, 16);
  return holds(actual, expectedValue);
}

// Identical representation: same dataLength and all 128 words equal.
inline ::testing::AssertionResult sameRepresentation(const BigInt& a, const BigInt& b) {
  if (a.dataLength() != b.dataLength() || allWords(a) != allWords(b)) {
    return ::testing::AssertionFailure() << describe(a) << " differs from " << describe(b);
  }
  return ::testing::AssertionSuccess();
}

// --- exceptions -----------------------------------------------------------------------------

// Runs `action` and succeeds only if it throws corvane::Exception with this name and reason.
inline ::testing::AssertionResult throwsException(const std::function<void()>& action,
                                                  std::string_view name, std::string_view reason) {
  try {
    action();
  } catch (const Exception& e) {
    if (e.name() == name && e.reason() == reason) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "threw \"" << e.name() << "\" / \"" << e.reason() << "\", expected \"" << name
           << "\" / \"" << reason << "\"";
  } catch (const std::exception& e) {
    return ::testing::AssertionFailure() << "threw a non-corvane exception: " << e.what();
  } catch (...) {
    return ::testing::AssertionFailure() << "threw an unknown exception";
  }
  return ::testing::AssertionFailure()
         << "threw nothing, expected \"" << name << "\" / \"" << reason << "\"";
}

#define EXPECT_CORVANE_EXCEPTION(statement, name, reason)                                      \
  EXPECT_TRUE(                                                                                 \
      ::corvane::bigint_test::throwsException([&]() { (void)(statement); }, (name), (reason))) \
      << "statement: " #statement

// --- random values --------------------------------------------------------------------------

// Default seed of the random suites: an arbitrary fixed number.
inline constexpr unsigned long kDefaultSeed = 20240611UL;

inline unsigned long testSeed() {
  if (const char* text = std::getenv("CORVANE_BIGINT_SEED")) {
    return std::strtoul(text, nullptr, 10);
  }
  return kDefaultSeed;
}

// Deterministic generator of test values on GMP's Mersenne Twister.
class RandomSource {
 public:
  explicit RandomSource(unsigned long seed) : seed_(seed) {
    gmp_randinit_mt(state_);
    gmp_randseed_ui(state_, seed);
  }
  RandomSource(const RandomSource&) = delete;
  RandomSource& operator=(const RandomSource&) = delete;
  ~RandomSource() { gmp_randclear(state_); }

  unsigned long seed() const { return seed_; }

  // Uniform in [0, bound).
  unsigned long below(unsigned long bound) { return gmp_urandomm_ui(state_, bound); }
  // Uniform in [low, high].
  unsigned long between(unsigned long low, unsigned long high) {
    return low + below(high - low + 1);
  }
  bool coin() { return below(2) == 1; }

  // A non-negative value of exactly `bits` bits (top bit set; 0 bits gives 0). Half of the
  // values are uniform, half come from mpz_rrandomb, whose long runs of ones and zeros reach the
  // carry, borrow and correction paths that uniform words rarely touch.
  Mpz magnitude(unsigned long bits) {
    Mpz result;
    if (bits == 0) return result;
    if (coin()) {
      mpz_urandomb(result, state_, bits);
      mpz_setbit(result, bits - 1);
    } else {
      mpz_rrandomb(result, state_, bits);
    }
    return result;
  }

  // A value of `minBits` to `maxBits` bits with a random sign.
  Mpz signedValue(unsigned long minBits, unsigned long maxBits) {
    Mpz result = magnitude(between(minBits, maxBits));
    if (coin()) mpz_neg(result, result);
    return result;
  }

 private:
  unsigned long seed_;
  gmp_randstate_t state_;
};

// Text for SCOPED_TRACE: how to reproduce a random run.
inline std::string seedTrace(unsigned long seed) {
  return "random seed " + std::to_string(seed) + " (set CORVANE_BIGINT_SEED to reproduce)";
}

}  // namespace corvane::bigint_test
