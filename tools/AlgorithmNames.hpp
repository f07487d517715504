// The algorithm names that corvane-checksum accepts on its command line.
//
// Each algorithm has a short lower-case name for -a ("sha256"), an upper-case tag for the
// multi-algorithm output ("SHA256 (path) = ...") and the library's ChecksumType. The table is
// fixed and lives for the whole program, so the entries can be handed around by pointer.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "corvane/ChecksumType.hpp"

namespace corvane::tool {

struct AlgorithmName {
  std::string_view cliName;  // as typed after -a, e.g. "xxh3"
  std::string_view tag;      // as printed in tag-style lines, e.g. "XXH3"
  ChecksumType type;
  // Processor time per byte, relative (MD5 is the slowest here): decides which algorithms of a
  // file get a processor of their own.
  int relativeCost;
};

// Every algorithm the tool knows, in the order the help text lists them.
std::span<const AlgorithmName> knownAlgorithms();

// The entry whose cliName equals `name`, compared without regard to ASCII case; null if none.
const AlgorithmName* findAlgorithm(std::string_view name);

// The names joined by ", " for messages and help ("md5, sha1, ...").
std::string knownAlgorithmNames();

// The algorithm list used when -a is not given: xxh64 alone.
std::vector<const AlgorithmName*> defaultAlgorithms();

// Turns the values given to -a into an algorithm list. Each value may itself be a comma list
// and values may repeat; the order is kept and a repeated algorithm is dropped after its first
// occurrence. An empty `values` gives defaultAlgorithms(). On an unknown or empty name the
// result is the message to show the user instead.
struct AlgorithmListError {
  std::string message;
};
std::variant<std::vector<const AlgorithmName*>, AlgorithmListError> parseAlgorithmList(
    const std::vector<std::string>& values);

}  // namespace corvane::tool
