#include "NameMatching.hpp"

#include <utf8proc.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "NameEscaping.hpp"

namespace corvane::tool {
namespace {

// `component` mapped by utf8proc with `options`; its own bytes when it is not valid UTF-8.
std::string mapComponent(std::string_view component, utf8proc_option_t options) {
  if (component.empty()) return {};
  utf8proc_uint8_t* mapped = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(component.data()),
                   static_cast<utf8proc_ssize_t>(component.size()), &mapped, options);
  if (length == UTF8PROC_ERROR_NOMEM) throw std::bad_alloc();
  if (length < 0) return std::string(component);
  std::string result(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length));
  std::free(mapped);
  return result;
}

// `name` with every '/'-separated component mapped by utf8proc with `options`.
std::string mapPath(std::string_view name, utf8proc_option_t options) {
  std::string result;
  result.reserve(name.size());
  while (true) {
    const std::size_t slash = name.find('/');
    result += mapComponent(name.substr(0, slash), options);
    if (slash == std::string_view::npos) return result;
    result += '/';
    name.remove_prefix(slash + 1);
  }
}

constexpr auto kComposeOptions = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE);
constexpr auto kFoldOptions = static_cast<utf8proc_option_t>(UTF8PROC_CASEFOLD);
constexpr auto kFoldAndComposeOptions =
    static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_CASEFOLD);

}  // namespace

std::optional<NameMatching> parseNameMatching(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  for (const NameMatching matching :
       {NameMatching::kExact, NameMatching::kNfc, NameMatching::kCaseInsensitive}) {
    if (lower == nameMatchingName(matching)) return matching;
  }
  return std::nullopt;
}

std::string_view nameMatchingName(NameMatching matching) {
  switch (matching) {
    case NameMatching::kExact:
      return "exact";
    case NameMatching::kNfc:
      return "nfc";
    case NameMatching::kCaseInsensitive:
      return "case-insensitive";
  }
  return "";
}

std::string nameKey(std::string_view name, NameMatching matching) {
  switch (matching) {
    case NameMatching::kExact:
      break;
    case NameMatching::kNfc:
      return mapPath(name, kComposeOptions);
    case NameMatching::kCaseInsensitive:
      return mapPath(name, kFoldAndComposeOptions);
  }
  return std::string(name);
}

NameDifference nameDifference(std::string_view a, std::string_view b) {
  if (a == b) return NameDifference::kNone;
  if (nameKey(a, NameMatching::kNfc) == nameKey(b, NameMatching::kNfc)) {
    return NameDifference::kNormalisation;
  }
  if (mapPath(a, kFoldOptions) == mapPath(b, kFoldOptions)) return NameDifference::kCase;
  return NameDifference::kCaseAndNormalisation;
}

std::string_view nameDifferenceName(NameDifference difference) {
  switch (difference) {
    case NameDifference::kNone:
      return "";
    case NameDifference::kNormalisation:
      return "normalisation";
    case NameDifference::kCase:
      return "case";
    case NameDifference::kCaseAndNormalisation:
      return "case and normalisation";
  }
  return "";
}

std::string visibleName(std::string_view name) {
  std::string visible;
  visible.reserve(name.size() + 8);
  forEachCodePoint(name, [&visible](std::int32_t codePoint, std::string_view bytes) {
    if (codePoint < 0) {
      visible += "\\x";
      appendHex(visible, static_cast<unsigned char>(bytes.front()), 2);
    } else if (codePoint == '\\') {
      visible += "\\\\";
    } else if (codePoint == '\t') {
      visible += "\\t";
    } else if (codePoint == '\n') {
      visible += "\\n";
    } else if (codePoint == '\r') {
      visible += "\\r";
    } else if (codePoint < 0x20 || codePoint == 0x7f) {
      visible += "\\x";
      appendHex(visible, static_cast<std::uint32_t>(codePoint), 2);
    } else if (codePoint < 0x80) {
      visible += static_cast<char>(codePoint);
    } else if (codePoint <= 0xffff) {
      visible += "\\u";
      appendHex(visible, static_cast<std::uint32_t>(codePoint), 4);
    } else {
      visible += "\\U";
      appendHex(visible, static_cast<std::uint32_t>(codePoint), 8);
    }
  });
  return visible;
}

}  // namespace corvane::tool
