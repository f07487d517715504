#include "checksum/TextUnits.hpp"

namespace corvane::detail {

std::u16string utf16Units(const std::string& text) {
  std::u16string units;
  units.reserve(text.size());
  forEachCodePoint(text, [&units](char32_t codePoint, bool) {
    if (codePoint >= 0x10000) {
      codePoint -= 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (codePoint >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(codePoint));
    }
  });
  return units;
}

}  // namespace corvane::detail
