// A reference reading of texts as UTF-16 units, the units in which checksum texts are measured
// and indexed (a character is taken by the low 8 bits of its unit).
//
// Well-formed UTF-8 sequences (RFC 3629: no overlong forms, no surrogates, nothing past U+10FFFF)
// give their code point's units; a byte that does not start a well-formed sequence is one unit of
// its own value, so a text that is not UTF-8 never spells a digit it does not hold as a byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace corvane::fuzz {

inline bool isContinuationByte(std::uint8_t byte) { return (byte & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence starting at `at`, or 0.
inline std::size_t wellFormedLength(const std::string& text, std::size_t at) {
  auto byte = [&](std::size_t k) -> std::uint8_t {
    return at + k < text.size() ? static_cast<std::uint8_t>(text[at + k]) : 0;
  };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return isContinuationByte(byte(1)) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const std::uint8_t low = lead == 0xE0 ? 0xA0 : 0x80;
    const std::uint8_t high = lead == 0xED ? 0x9F : 0xBF;
    return byte(1) >= low && byte(1) <= high && isContinuationByte(byte(2)) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const std::uint8_t low = lead == 0xF0 ? 0x90 : 0x80;
    const std::uint8_t high = lead == 0xF4 ? 0x8F : 0xBF;
    const bool tail = isContinuationByte(byte(2)) && isContinuationByte(byte(3));
    return byte(1) >= low && byte(1) <= high && tail ? 4 : 0;
  }
  return 0;
}

// The UTF-16 units of `text`.
inline std::vector<std::uint16_t> utf16Units(const std::string& text) {
  std::vector<std::uint16_t> units;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = wellFormedLength(text, at);
    if (length == 0) {
      units.push_back(static_cast<std::uint8_t>(text[at]));
      ++at;
      continue;
    }
    const auto lead = static_cast<std::uint8_t>(text[at]);
    std::uint32_t codePoint = length == 1   ? lead
                              : length == 2 ? lead & 0x1Fu
                              : length == 3 ? lead & 0x0Fu
                                            : lead & 0x07u;
    for (std::size_t k = 1; k < length; ++k) {
      codePoint = (codePoint << 6) | (static_cast<std::uint8_t>(text[at + k]) & 0x3Fu);
    }
    if (codePoint >= 0x10000) {
      codePoint -= 0x10000;
      units.push_back(static_cast<std::uint16_t>(0xD800 + (codePoint >> 10)));
      units.push_back(static_cast<std::uint16_t>(0xDC00 + (codePoint & 0x3FF)));
    } else {
      units.push_back(static_cast<std::uint16_t>(codePoint));
    }
    at += length;
  }
  return units;
}

// Whether `text` is well-formed UTF-8.
inline bool isWellFormedUtf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = wellFormedLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

}  // namespace corvane::fuzz
