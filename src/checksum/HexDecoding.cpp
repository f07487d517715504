#include "checksum/HexDecoding.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>

#include "checksum/TextUnits.hpp"

namespace corvane::detail {
namespace {

// Value of each byte as a hex digit, or -1.
constexpr std::array<std::int8_t, 256> kHexDigitValues = [] {
  std::array<std::int8_t, 256> values{};
  values.fill(-1);
  for (int c = '0'; c <= '9'; ++c)
    values[static_cast<std::size_t>(c)] = static_cast<std::int8_t>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c)
    values[static_cast<std::size_t>(c)] = static_cast<std::int8_t>(c - 'a' + 10);
  for (int c = 'A'; c <= 'F'; ++c)
    values[static_cast<std::size_t>(c)] = static_cast<std::int8_t>(c - 'A' + 10);
  return values;
}();

// Two hex digits are the common case; anything else (spaces, a sign, a "0x" prefix, other
// characters) goes through strtol itself, which stops at the first non-digit.
inline std::uint8_t byteFromPair(char high, char low) {
  const int highValue = hexDigitValue(high);
  const int lowValue = hexDigitValue(low);
  if (highValue >= 0 && lowValue >= 0) return static_cast<std::uint8_t>(highValue * 16 + lowValue);
  const char pair[3] = {high, low, '\0'};
  return static_cast<std::uint8_t>(std::strtol(pair, nullptr, 16) & 0xFF);
}

template <typename Units>
void appendFromUnits(const Units& units, bool storeAsLittleEndian, Bytes& out) {
  const std::size_t count = units.size();
  const bool odd = count % 2 != 0;
  // "abc" reads as "0abc" (little endian) or "abc0" (big endian).
  auto unitAt = [&](std::size_t paddedIndex) -> char {
    if (odd && storeAsLittleEndian) {
      return paddedIndex == 0 ? '0' : static_cast<char>(units[paddedIndex - 1] & 0xFF);
    }
    return paddedIndex < count ? static_cast<char>(units[paddedIndex] & 0xFF) : '0';
  };
  const std::size_t start = out.size();
  const std::size_t byteCount = (count + (odd ? 1 : 0)) / 2;
  out.resize(start + byteCount);
  if (!odd) {
    for (std::size_t i = 0; i < byteCount; ++i) {
      out[start + i] = byteFromPair(static_cast<char>(units[2 * i] & 0xFF),
                                    static_cast<char>(units[2 * i + 1] & 0xFF));
    }
  } else {
    for (std::size_t i = 0; i < byteCount; ++i) {
      out[start + i] = byteFromPair(unitAt(2 * i), unitAt(2 * i + 1));
    }
  }
  // Little endian: the last pair of the text becomes the first byte.
  if (storeAsLittleEndian)
    std::reverse(out.begin() + static_cast<std::ptrdiff_t>(start), out.end());
}

bool isAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

int hexDigitValue(char c) noexcept { return kHexDigitValues[static_cast<unsigned char>(c)]; }

void appendBytesFromHexText(const std::string& text, bool storeAsLittleEndian, Bytes& out) {
  // ASCII texts are their own UTF-16 units; others are measured and read unit by unit.
  if (isAscii(text)) {
    appendFromUnits(text, storeAsLittleEndian, out);
  } else {
    appendFromUnits(utf16Units(text), storeAsLittleEndian, out);
  }
}

}  // namespace corvane::detail
