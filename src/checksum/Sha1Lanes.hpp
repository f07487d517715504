// Sha1Lanes: SHA-1 of many independent streams at once, one stream per lane of a vector register
// (the manager is HashLanes, HashLanes.hpp, which states the contract).
//
// OpenSSL hashes one SHA-1 stream with the processor's SHA extensions at about 2.2 GB/s per core
// here; 16 streams in the lanes of an AVX-512 register reach 2.7 to 2.9 times that, 8 in AVX2 only
// 1.12 to 1.14 times (docs/PERFORMANCE.md, "MD5 and SHA-1 over many streams"): lanes pay for SHA-1
// far less than for MD5, and a lane hands over to OpenSSL as soon as fewer lanes are busy.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "checksum/HashLanes.hpp"

namespace corvane::detail {

// The environment variable that forces a path for the whole process (tests, measurements):
// "scalar", "avx2" or "avx512". A path the processor cannot run falls back to the widest one it
// can below it; anything else means the processor's widest.
inline constexpr const char* kSha1LanesEnvironmentVariable = "CORVANE_SHA1_LANES";

// The widest path the processor supports, narrowed by CORVANE_SHA1_LANES when it is set. Read on
// every call, so that tests can change the variable between runs.
LanePath sha1LanePathInUse();

// SHA-1 for HashLanes (FIPS 180-4, 6.1).
struct Sha1LaneAlgorithm {
  static constexpr unsigned kWords = 5;
  static constexpr std::size_t kDigestSize = 20;
  static constexpr bool kBigEndian = true;
  static constexpr const char* kName = "Sha1Lanes";
  static constexpr const char* kPathName = "Sha1LanePath";
  // FIPS 180-4, 5.3.1: H0 to H4.
  static constexpr std::array<std::uint32_t, kWords> kInitialState = {
      0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
  static LanePath pathInUse() { return sha1LanePathInUse(); }
  // The vector kernels and the fewest lanes with blocks for which each pays (Sha1Lanes.cpp).
  static const LaneKernel kAvx512Kernel;
  static const LaneKernel kAvx2Kernel;
  static const unsigned kAvx512Threshold;
  static const unsigned kAvx2Threshold;
  static void hashAlone(std::uint32_t (*state)[16], unsigned lane, const std::uint8_t* bytes,
                        std::size_t blocks);
};

using Sha1Lanes = HashLanes<Sha1LaneAlgorithm>;
using Sha1Digest = Sha1Lanes::Digest;

}  // namespace corvane::detail
