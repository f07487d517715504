// Md5Lanes: MD5 of many independent streams at once, one stream per lane of a vector register
// (the manager is HashLanes, HashLanes.hpp, which states the contract).
//
// One MD5 stream stops at about 0.9 GB/s per core with OpenSSL; 16 streams in the 32-bit lanes
// of an AVX-512 register, or 8 in AVX2, reach a few times that (docs/PERFORMANCE.md).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "checksum/HashLanes.hpp"

namespace corvane::detail {

using Md5LanePath = LanePath;

// The environment variable that forces a path for the whole process (tests, measurements):
// "scalar", "avx2" or "avx512". A path the processor cannot run falls back to the widest one it
// can below it; anything else means the processor's widest.
inline constexpr const char* kMd5LanesEnvironmentVariable = "CORVANE_MD5_LANES";

// The widest path the processor supports, narrowed by CORVANE_MD5_LANES when it is set. Read on
// every call, so that tests can change the variable between runs.
LanePath md5LanePathInUse();

// The MD5 names of the paths' helpers (HashLanes.hpp).
inline bool md5LanePathSupported(LanePath path) { return lanePathSupported(path); }
inline unsigned md5LaneCount(LanePath path) { return laneCount(path); }
inline std::string_view md5LanePathName(LanePath path) { return lanePathName(path); }
inline std::optional<LanePath> md5LanePathNamed(std::string_view name) {
  return lanePathNamed(name);
}

// MD5 for HashLanes (RFC 1321).
struct Md5LaneAlgorithm {
  static constexpr unsigned kWords = 4;
  static constexpr std::size_t kDigestSize = 16;
  static constexpr bool kBigEndian = false;
  static constexpr const char* kName = "Md5Lanes";
  static constexpr const char* kPathName = "Md5LanePath";
  // RFC 1321, 3.3: A, B, C, D (the words 01 23 45 67 ... read little-endian).
  static constexpr std::array<std::uint32_t, kWords> kInitialState = {0x67452301, 0xefcdab89,
                                                                      0x98badcfe, 0x10325476};
  static LanePath pathInUse() { return md5LanePathInUse(); }
  // The vector kernels and the fewest lanes with blocks for which each pays (Md5Lanes.cpp).
  static const LaneKernel kAvx512Kernel;
  static const LaneKernel kAvx2Kernel;
  static const unsigned kAvx512Threshold;
  static const unsigned kAvx2Threshold;
  static void hashAlone(std::uint32_t (*state)[16], unsigned lane, const std::uint8_t* bytes,
                        std::size_t blocks);
};

using Md5Lanes = HashLanes<Md5LaneAlgorithm>;
using Md5Digest = Md5Lanes::Digest;

}  // namespace corvane::detail
