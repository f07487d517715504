// NameMatching: when two file names count as the same name, and how to show two spellings of one.
//
// File names are bytes. Copies made through some file systems come back with other bytes for the
// same name: one that stores names decomposed (NFD) turns "\u00e9" into "e\u0301", one that
// ignores case keeps whichever spelling was written first. A name key maps every spelling that
// such a file system treats as one name to the same bytes:
//
//   kExact            the name's bytes;
//   kNfc              the name in Unicode Normalisation Form C;
//   kCaseInsensitive  the name case-folded (full Unicode case folding, so "\u00df" matches "ss"),
//                     then in NFC.
//
// A relative path ('/'-separated) is keyed one component at a time, so a component that is not
// valid UTF-8 keeps its bytes as its key while the others are still normalised. Keys of valid
// components are valid UTF-8 and keys of invalid ones are not, so the two never meet.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::tool {

// From strictest to loosest: a name equal under one mode is equal under every later one.
enum class NameMatching { kExact, kNfc, kCaseInsensitive };

// "exact", "nfc", "case-insensitive" (ASCII case ignored); null for anything else.
std::optional<NameMatching> parseNameMatching(std::string_view text);

// The name of `matching` as parseNameMatching takes it.
std::string_view nameMatchingName(NameMatching matching);

// The key of the name or relative path `name` under `matching`: two names are the same under
// `matching` exactly when their keys are equal.
std::string nameKey(std::string_view name, NameMatching matching);

// How two names that are the same under kCaseInsensitive differ.
enum class NameDifference {
  kNone,                  // same bytes
  kNormalisation,         // same under kNfc
  kCase,                  // the same once case-folded, without any normalisation
  kCaseAndNormalisation,  // both are needed to make them equal (or they differ otherwise)
};

// How `a` and `b` differ; meant for names with equal kCaseInsensitive keys.
NameDifference nameDifference(std::string_view a, std::string_view b);

// "normalisation", "case", "case and normalisation" (and "" for kNone).
std::string_view nameDifferenceName(NameDifference difference);

// `name` in printable ASCII, so that two spellings of one name differ visibly: every code point
// past ASCII as "\uXXXX" (or "\UXXXXXXXX" past U+FFFF), every byte that is not part of valid
// UTF-8 as "\xHH", a backslash as "\\", tab, newline and carriage return as "\t", "\n", "\r" and
// other control characters as "\xHH" (hexadecimal digits in lower case). Printable ASCII is
// kept as it is.
std::string visibleName(std::string_view name);

}  // namespace corvane::tool
