// Texts seen as sequences of UTF-16 code units, the unit in which checksum texts are measured
// and indexed (a character taken "by its low 8 bits" is the low byte of its code unit).
#pragma once

#include <string>

namespace corvane::detail {

// Decodes UTF-8 into UTF-16 code units. A byte that does not start a valid sequence counts as one
// unit holding that byte's value.
std::u16string utf16Units(const std::string& text);

}  // namespace corvane::detail
