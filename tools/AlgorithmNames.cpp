#include "AlgorithmNames.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace corvane::tool {
namespace {

constexpr std::array<AlgorithmName, 9> kAlgorithms{{
    {"md5", "MD5", ChecksumTypeMD5, 11},
    {"sha1", "SHA1", ChecksumTypeSHA1, 5},
    {"sha256", "SHA256", ChecksumTypeSHA256, 5},
    {"sha512", "SHA512", ChecksumTypeSHA512, 8},
    {"crc32", "CRC32", ChecksumTypeCRC32, 1},
    {"xxh64", "XXH64", ChecksumTypeXXHash64, 1},
    {"xxh3", "XXH3", ChecksumTypeXXHashH364, 1},
    {"xxh128", "XXH128", ChecksumTypeXXHashH3128, 1},
    {"c4", "C4", ChecksumTypeC4, 8},
}};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

// Splits "a,b,c" at the commas; "a,,b" and a trailing comma give empty pieces on purpose, so that
// the caller can reject them.
std::vector<std::string_view> splitAtCommas(std::string_view text) {
  std::vector<std::string_view> pieces;
  while (true) {
    const auto comma = text.find(',');
    pieces.push_back(text.substr(0, comma));
    if (comma == std::string_view::npos) {
      return pieces;
    }
    text.remove_prefix(comma + 1);
  }
}

}  // namespace

std::span<const AlgorithmName> knownAlgorithms() { return kAlgorithms; }

const AlgorithmName* findAlgorithm(std::string_view name) {
  for (const auto& algorithm : kAlgorithms) {
    if (equalsIgnoringCase(algorithm.cliName, name)) {
      return &algorithm;
    }
  }
  return nullptr;
}

std::string knownAlgorithmNames() {
  std::string names;
  for (const auto& algorithm : kAlgorithms) {
    if (!names.empty()) {
      names += ", ";
    }
    names += algorithm.cliName;
  }
  return names;
}

std::vector<const AlgorithmName*> defaultAlgorithms() { return {findAlgorithm("xxh64")}; }

std::variant<std::vector<const AlgorithmName*>, AlgorithmListError> parseAlgorithmList(
    const std::vector<std::string>& values) {
  if (values.empty()) {
    return defaultAlgorithms();
  }
  std::vector<const AlgorithmName*> algorithms;
  for (const auto& value : values) {
    for (const auto piece : splitAtCommas(value)) {
      const AlgorithmName* algorithm = findAlgorithm(piece);
      if (piece.empty()) {
        return AlgorithmListError{"empty algorithm name in '" + value +
                                  "' (known: " + knownAlgorithmNames() + ")"};
      }
      if (algorithm == nullptr) {
        return AlgorithmListError{"unknown algorithm '" + std::string(piece) +
                                  "' (known: " + knownAlgorithmNames() + ")"};
      }
      if (std::ranges::find(algorithms, algorithm) == algorithms.end()) {
        algorithms.push_back(algorithm);
      }
    }
  }
  return algorithms;
}

}  // namespace corvane::tool
