// Texts seen as code points and as UTF-16 code units, the units in which checksum texts are
// measured and indexed (a character taken "by its low 8 bits" is the low byte of its unit).
#pragma once

#include <cstddef>
#include <string>

namespace corvane::detail {

// Calls visit(codePoint, wellFormed) for each code point of UTF-8 `text`, in order. A byte that
// does not start a well-formed sequence (overlong forms, surrogates and values past U+10FFFF are
// not well formed) is reported alone as (that byte's value, false).
template <typename Visit>
void forEachCodePoint(const std::string& text, Visit visit) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    const unsigned char lead = bytes[i];
    std::size_t length = 0;
    char32_t codePoint = 0;
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
    bool wellFormed = length != 0 && i + length <= size;
    for (std::size_t k = 1; wellFormed && k < length; ++k) {
      const unsigned char next = bytes[i + k];
      if ((next & 0xC0) != 0x80) wellFormed = false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    // Overlong forms, encoded surrogates and values past U+10FFFF are not UTF-8: without this a
    // text that is not UTF-8 could spell checksum digits ("\xC0\xB1" for "1").
    static constexpr char32_t kSmallestOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
    if (wellFormed && (codePoint < kSmallestOfLength[length] || codePoint > 0x10FFFF ||
                       (codePoint >= 0xD800 && codePoint <= 0xDFFF))) {
      wellFormed = false;
    }
    if (!wellFormed) {
      visit(char32_t{lead}, false);
      ++i;
      continue;
    }
    visit(codePoint, true);
    i += length;
  }
}

// Decodes UTF-8 into UTF-16 code units. A byte that does not start a valid sequence counts as one
// unit holding that byte's value.
std::u16string utf16Units(const std::string& text);

}  // namespace corvane::detail
