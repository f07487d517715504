// BigInt storage, constructors and factories, and conversion from and to text.

#include <algorithm>
#include <cstdint>
#include <string>

#include "bigint/BigIntWords.hpp"
#include "checksum/TextUnits.hpp"
#include "corvane/BigInt.hpp"
#include "corvane/Exception.hpp"

namespace corvane {

using detail::boundedLength;
using detail::kBigIntWords;
using detail::kSignBit;
using detail::trimmedLength;

namespace detail {

[[noreturn]] void throwArithmetic(const char* reason) {
  throw Exception("ArithmeticException", reason);
}

[[noreturn]] void throwArgument(const char* reason) {
  throw Exception("ArgumentException", reason);
}

}  // namespace detail

namespace {

constexpr const char* kPositiveOverflow = "Positive overflow in constructor.";
constexpr const char* kNegativeUnderflow = "Negative underflow in constructor.";
constexpr const char* kInvalidString = "Invalid string in constructor.";

// The digit value of one character of the upper-cased text; anything that is not 0-9 or A-Z
// gets a sentinel that no radix up to 9,999,999 accepts.
constexpr std::int64_t kInvalidDigit = 9999999;

std::int64_t digitValue(char32_t c) {
  if (c >= U'0' && c <= U'9') return c - U'0';
  if (c >= U'A' && c <= U'Z') return c - U'A' + 10;
  return kInvalidDigit;
}

// Upper-cases UTF-8 text into the sequence of characters whose digits are read. ASCII letters
// map as usual. A handful of other characters upper-case to plain ASCII letters under the full
// Unicode case mapping (dotless i to "I", long s to "S", sharp s to "SS", the Latin ligatures
// U+FB00-U+FB06), and they count as those letters, as they would for any Unicode-aware
// upper-casing. Every other non-ASCII character stays one invalid character (two for those
// outside the Basic Multilingual Plane, which take two UTF-16 units); so does every byte that is
// not part of well-formed UTF-8.
std::u32string upperCasedCharacters(const std::string& text) {
  std::u32string out;
  out.reserve(text.size());
  detail::forEachCodePoint(text, [&out](char32_t cp, bool wellFormed) {
    if (!wellFormed) {
      out.push_back(0xFFFD);
      return;
    }
    if (cp < 0x80) {
      out.push_back(cp >= U'a' && cp <= U'z' ? char32_t(cp - U'a' + U'A') : cp);
      return;
    }
    switch (cp) {
      case 0x0131:  // dotless i
        out += U"I";
        break;
      case 0x017F:  // long s
        out += U"S";
        break;
      case 0x00DF:  // sharp s
        out += U"SS";
        break;
      case 0xFB00:
        out += U"FF";
        break;
      case 0xFB01:
        out += U"FI";
        break;
      case 0xFB02:
        out += U"FL";
        break;
      case 0xFB03:
        out += U"FFI";
        break;
      case 0xFB04:
        out += U"FFL";
        break;
      case 0xFB05:
      case 0xFB06:
        out += U"ST";
        break;
      default:
        out.push_back(cp);
        if (cp >= 0x10000) out.push_back(cp);
        break;
    }
  });
  return out;
}

}  // namespace

// --- construction ------------------------------------------------------------------------------

BigInt::BigInt() noexcept : data_{}, dataLength_(1) {}

BigInt::BigInt(const BigInt& other) noexcept : dataLength_(other.dataLength_) {
  const std::int32_t used = std::clamp(other.dataLength_, 0, kBigIntWords);
  std::copy_n(other.data_.begin(), used, data_.begin());
  std::fill(data_.begin() + used, data_.end(), 0u);
}

BigInt& BigInt::operator=(const BigInt& other) noexcept {
  if (this != &other) {
    const std::int32_t used = std::clamp(other.dataLength_, 0, kBigIntWords);
    std::copy_n(other.data_.begin(), used, data_.begin());
    std::fill(data_.begin() + used, data_.end(), 0u);
    dataLength_ = other.dataLength_;
  }
  return *this;
}

BigInt BigInt::create() { return createFromLong(0); }

BigInt BigInt::createFromInt(std::int32_t value) {
  return createFromLong(static_cast<std::int64_t>(value));
}

BigInt BigInt::createFromLong(std::int64_t value) {
  BigInt result;
  result.dataLength_ = 0;
  if (value == 0) {
    result.dataLength_ = 1;
    return result;
  }
  const bool negative = value < 0;
  std::int64_t rest = value;
  while (result.dataLength_ < kBigIntWords) {
    result.data_[result.dataLength_++] = static_cast<std::uint32_t>(rest);
    rest >>= 32;  // arithmetic: a negative value never reaches 0 and fills all 128 words
    if (rest == 0) break;
  }
  const bool signSet = (result.data_[kBigIntWords - 1] & kSignBit) != 0;
  // Neither check can fire for a 64-bit argument; they guard the word loop above.
  if (!negative && (rest != 0 || signSet)) detail::throwArithmetic(kPositiveOverflow);
  if (negative && !(rest == -1 && signSet)) detail::throwArithmetic(kNegativeUnderflow);
  if (result.dataLength_ == 0) result.dataLength_ = 1;
  return result;
}

BigInt BigInt::createFromULong(std::uint64_t value) {
  BigInt result;
  result.dataLength_ = 0;
  if (value == 0) {
    result.dataLength_ = 1;
    return result;
  }
  std::uint64_t rest = value;
  while (result.dataLength_ < kBigIntWords) {
    result.data_[result.dataLength_++] = static_cast<std::uint32_t>(rest);
    rest >>= 32;
    if (rest == 0) break;
  }
  if (rest != 0 || (result.data_[kBigIntWords - 1] & kSignBit) != 0) {
    detail::throwArithmetic(kPositiveOverflow);
  }
  if (result.dataLength_ == 0) result.dataLength_ = 1;
  return result;
}

BigInt BigInt::createFromBigInt(const BigInt& other) { return BigInt(other); }

BigInt BigInt::createFromUIntArray(const std::uint32_t* words, std::int32_t size) {
  BigInt result;
  result.dataLength_ = size;
  if (size > kBigIntWords) {
    // Name and reason are the interface's own, spelling and missing full stop included.
    throw Exception("ArithmaticException", "Byte overflow in constructor");
  }
  if (size < 1) return result;  // dataLength stays 0 or negative: no correction to 1
  for (std::int32_t j = 0; j < size; ++j) result.data_[j] = words[size - 1 - j];
  result.dataLength_ = trimmedLength(result.data_.data(), size);
  return result;
}

BigInt BigInt::createFromString(const std::string& text, std::int64_t radix) {
  // An empty text has no first character to look at; we refuse it like any other bad digit.
  if (text.empty()) detail::throwArithmetic(kInvalidString);

  const std::u32string characters = upperCasedCharacters(text);
  const bool negative = characters.front() == U'-';
  const std::size_t first = negative ? 1 : 0;

  // One multiply-and-add per digit, from the least significant digit up, with the ordinary
  // operations so that their overflow exceptions come out of here unchanged.
  BigInt result;
  BigInt multiplier = createFromLong(1);
  const BigInt radixValue = createFromLong(radix);
  for (std::size_t i = characters.size(); i > first; --i) {
    std::int64_t digit = digitValue(characters[i - 1]);
    if (digit >= radix) detail::throwArithmetic(kInvalidString);
    if (negative) digit = -digit;
    // A zero digit adds a zero product, which can neither fail nor change the sum.
    if (digit != 0) result = result.add(multiplier.multiply(createFromLong(digit)));
    // The multiplier is never advanced past the most significant digit.
    if (i - 1 > first) multiplier = multiplier.multiply(radixValue);
  }

  if (negative) {
    if (!result.isNegative()) detail::throwArithmetic(kNegativeUnderflow);
  } else if (result.isNegative()) {
    detail::throwArithmetic(kPositiveOverflow);
  }
  return result;
}

// --- text ----------------------------------------------------------------------------------

std::string BigInt::toStringWithRadix(std::uint32_t radix) const {
  if (radix < 2 || radix > 36) detail::throwArgument("Radix must be >= 2 and <= 36");

  const bool negative = isNegative();
  BigInt working(*this);
  if (negative) {
    try {
      working = negate();
    } catch (const Exception&) {
      // The most negative value has no positive counterpart; its words read as an unsigned
      // number are exactly its magnitude 2^4095, so the digits still come out right.
    }
  }
  if (working.dataLength_ == 1 && working.data_[0] == 0) return "0";

  // Repeated division by the radix, one digit per remainder. We divide by the largest power of
  // the radix that fits a word and split each remainder into that many digits; the digits are
  // the same as one division per digit, with a fraction of the passes over the words.
  std::uint32_t chunkDivisor = radix;
  int chunkDigits = 1;
  while (static_cast<std::uint64_t>(chunkDivisor) * radix <= 0xFFFFFFFFull) {
    chunkDivisor *= radix;
    ++chunkDigits;
  }

  std::uint32_t* words = working.data_.data();
  std::int32_t length = trimmedLength(words, working.dataLength_);
  std::string reversed;
  reversed.reserve(static_cast<std::size_t>(std::max(length, 1)) * 32 + 1);
  for (;;) {
    std::uint64_t remainder = 0;
    for (std::int32_t pos = length - 1; pos >= 0; --pos) {
      const std::uint64_t value = (remainder << 32) | words[pos];
      words[pos] = static_cast<std::uint32_t>(value / chunkDivisor);
      remainder = value % chunkDivisor;
    }
    length = length < 1 ? 1 : trimmedLength(words, length);
    const bool last = length == 1 && words[0] == 0;
    auto chunk = static_cast<std::uint32_t>(remainder);
    for (int d = 0; d < chunkDigits; ++d) {
      const std::uint32_t digit = chunk % radix;
      chunk /= radix;
      reversed.push_back(digit < 10 ? static_cast<char>('0' + digit)
                                    : "ABCDEFGHIJKLMNOPQRSTUVWXYZ"[digit - 10]);
      if (last && chunk == 0) break;  // no leading zeros in the most significant chunk
    }
    if (last) break;
  }
  if (negative) reversed.push_back('-');
  return std::string(reversed.rbegin(), reversed.rend());
}

}  // namespace corvane
