#include "NameEscaping.hpp"

#include <utf8proc.h>

namespace corvane::tool {

bool nameNeedsEscaping(std::string_view name) {
  return name.find_first_of("\\\n\r") != std::string_view::npos;
}

std::string escapeName(std::string_view name) {
  std::string escaped;
  escaped.reserve(name.size() + 8);
  for (const char c : name) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::optional<std::string> unescapeName(std::string_view escaped) {
  std::string name;
  name.reserve(escaped.size());
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '\\') {
      name += escaped[i];
      continue;
    }
    if (++i == escaped.size()) return std::nullopt;
    switch (escaped[i]) {
      case '\\':
        name += '\\';
        break;
      case 'n':
        name += '\n';
        break;
      case 'r':
        name += '\r';
        break;
      default:
        return std::nullopt;
    }
  }
  return name;
}

void forEachCodePoint(std::string_view name,
                      const std::function<void(std::int32_t, std::string_view)>& visit) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(name.data());
  auto left = static_cast<utf8proc_ssize_t>(name.size());
  while (left > 0) {
    utf8proc_int32_t codePoint = 0;
    utf8proc_ssize_t length = utf8proc_iterate(bytes, left, &codePoint);
    if (length <= 0) {
      codePoint = -1;
      length = 1;
    }
    visit(codePoint, {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)});
    bytes += length;
    left -= length;
  }
}

bool isValidUtf8(std::string_view text) {
  bool valid = true;
  forEachCodePoint(text, [&valid](std::int32_t codePoint, std::string_view) {
    if (codePoint < 0) valid = false;
  });
  return valid;
}

void appendHex(std::string& out, std::uint32_t value, int digits) {
  static constexpr char kHexDigits[] = "0123456789abcdef";
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    out += kHexDigits[(value >> shift) & 15];
}

}  // namespace corvane::tool
