// Lowercase hexadecimal texts of digests and integers.
#pragma once

#include <cstdint>
#include <string>

#include "corvane/Bytes.hpp"

namespace corvane::detail {

// Two lowercase digits per byte, in order, no separators ("%02x" per byte).
std::string hexText(const Bytes& bytes);
// `value` as lowercase hex, zero-filled to at least `minimumDigits` ("%0Nx").
std::string hexText(std::uint64_t value, int minimumDigits);

}  // namespace corvane::detail
