// dataFromHexString, two ways:
// - round trip: the hex text of any bytes (lower or upper case) decodes to those bytes in text
//   order and to the reversed bytes in little-endian order; dropping a leading "0" of the text
//   changes nothing in little-endian order, where an odd text is padded at the front;
// - any text decodes exactly as a small reference decoder written from the documented rules:
//   the text is read as UTF-16 units (a byte that does not start a well-formed UTF-8 sequence
//   is one unit of its own value), each unit by its low 8 bits; an odd count gets a "0" at the
//   front (little endian) or at the end (big endian); each pair is read as strtol reads it in
//   base 16 (leading white space, a sign, digits up to the first non-digit) keeping the low 8
//   bits; little endian puts the last pair first.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzCheck.hpp"
#include "TextUnitsReference.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"

namespace {

using corvane::Bytes;

int hexValue(std::uint8_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// isspace() of the C locale.
bool isCSpace(std::uint8_t c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// strtol(pair, nullptr, 16) & 0xFF for a two-character string (a NUL ends it early, as in C).
std::uint8_t strtolPair(std::uint8_t first, std::uint8_t second) {
  const std::uint8_t characters[2] = {first, second};
  std::size_t i = 0;
  while (i < 2 && isCSpace(characters[i])) ++i;
  bool negative = false;
  if (i < 2 && (characters[i] == '+' || characters[i] == '-')) {
    negative = characters[i] == '-';
    ++i;
  }
  long value = 0;
  for (; i < 2 && hexValue(characters[i]) >= 0; ++i) value = value * 16 + hexValue(characters[i]);
  if (negative) value = -value;
  return static_cast<std::uint8_t>(value & 0xFF);
}

Bytes referenceDecode(std::vector<std::uint16_t> units, bool storeAsLittleEndian) {
  if (units.size() % 2 != 0) {
    if (storeAsLittleEndian) {
      units.insert(units.begin(), '0');
    } else {
      units.push_back('0');
    }
  }
  Bytes bytes;
  for (std::size_t i = 0; i < units.size(); i += 2) {
    bytes.push_back(strtolPair(static_cast<std::uint8_t>(units[i] & 0xFF),
                               static_cast<std::uint8_t>(units[i + 1] & 0xFF)));
  }
  if (storeAsLittleEndian) std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

std::string hexText(const Bytes& bytes, bool upperCase) {
  const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using corvane::CorvaneChecksumGenerator;
  if (size < 1) return 0;
  const bool upperCase = (data[0] & 1) != 0;
  const Bytes payload(data + 1, data + size);

  // Round trip of the hex text of arbitrary bytes.
  const std::string hex = hexText(payload, upperCase);
  Bytes reversed(payload.rbegin(), payload.rend());
  CORVANE_FUZZ_CHECK(CorvaneChecksumGenerator::dataFromHexString(hex, false) == payload);
  CORVANE_FUZZ_CHECK(CorvaneChecksumGenerator::dataFromHexString(hex, true) == reversed);
  CORVANE_FUZZ_CHECK(CorvaneChecksumGenerator::dataFromHexString(hex) == reversed);
  if (!hex.empty() && hex[0] == '0') {
    CORVANE_FUZZ_CHECK(CorvaneChecksumGenerator::dataFromHexString(hex.substr(1), true) ==
                       reversed);
  }

  // The payload as text, against the reference decoder.
  const std::string text(payload.begin(), payload.end());
  const Bytes littleEndian = CorvaneChecksumGenerator::dataFromHexString(text, true);
  const Bytes bigEndian = CorvaneChecksumGenerator::dataFromHexString(text, false);
  CORVANE_FUZZ_CHECK(CorvaneChecksumGenerator::dataFromHexString(text) == littleEndian);
  const std::vector<std::uint16_t> units = corvane::fuzz::utf16Units(text);
  CORVANE_FUZZ_CHECK(littleEndian == referenceDecode(units, true));
  CORVANE_FUZZ_CHECK(bigEndian == referenceDecode(units, false));
  return 0;
}
