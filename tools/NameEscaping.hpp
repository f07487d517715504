// File names in checksum lines, escaped the way coreutils' sha256sum writes and reads them.
//
// A name holding a backslash, newline or carriage return is written with "\\", "\n" and "\r" in
// place of those bytes, and the whole line then starts with a backslash so that readers know to
// undo it. Other names are written as they are.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::tool {

// Whether `name` must be escaped in a line.
bool nameNeedsEscaping(std::string_view name);

// `name` with backslash, newline and carriage return replaced by their two-character forms.
std::string escapeName(std::string_view name);

// The inverse of escapeName; null when `escaped` holds a backslash that is not followed by one of
// '\\', 'n' or 'r' (such a line is improperly formatted).
std::optional<std::string> unescapeName(std::string_view escaped);

// Walks `name` as UTF-8: calls `visit(codePoint, bytes)` for every valid sequence and
// `visit(-1, byte)` for every byte that is not part of one (names are bytes, not text).
void forEachCodePoint(std::string_view name,
                      const std::function<void(std::int32_t, std::string_view)>& visit);

// Whether `text` is valid UTF-8 (no overlong forms, surrogates or code points past U+10FFFF).
bool isValidUtf8(std::string_view text);

// Appends `digits` lower-case hex digits of `value` to `out`.
void appendHex(std::string& out, std::uint32_t value, int digits);

}  // namespace corvane::tool
