#include "NameEscaping.hpp"

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

}  // namespace corvane::tool
