// Hexadecimal checksum texts to bytes (the rules of CorvaneChecksumGenerator::dataFromHexString).
#pragma once

#include <string>

#include "corvane/Bytes.hpp"

namespace corvane::detail {

// Value of a hexadecimal digit (0-9, a-f, A-F), or -1 for any other character.
int hexDigitValue(char c) noexcept;

// Appends the bytes of `text` to `out`: an odd text gets a "0" at the front (little endian) or
// at the end (big endian); each pair of characters (each the low 8 bits of its UTF-16 unit) is
// read as strtol reads it in base 16, keeping the low 8 bits; with `storeAsLittleEndian` the
// last pair of the text comes first. No allocation besides `out`'s growth.
void appendBytesFromHexText(const std::string& text, bool storeAsLittleEndian, Bytes& out);

}  // namespace corvane::detail
