#include "checksum/TextUnits.hpp"

#include <cstdint>

namespace corvane::detail {

namespace {
bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }
}  // namespace

std::u16string utf16Units(const std::string& text) {
  std::u16string units;
  units.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 0;
    std::uint32_t codePoint = 0;
    if (lead < 0x80) {
      length = 1;
      codePoint = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      codePoint = lead & 0x07;
    }
    bool valid = length != 0 && i + length <= text.size();
    for (std::size_t k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if (!isContinuation(next)) valid = false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    if (!valid) {
      units.push_back(static_cast<char16_t>(lead));
      ++i;
      continue;
    }
    if (codePoint >= 0x10000) {
      codePoint -= 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (codePoint >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(codePoint));
    }
    i += length;
  }
  return units;
}

}  // namespace corvane::detail
