// The vector kernels of Sha1Lanes and the constants they share. Each kernel lives in a
// translation unit of its own, compiled for its instruction set (src/CMakeLists.txt); nothing
// here may pull in code that the compiler could emit with those instructions for the rest of the
// library, so these files include no standard library headers beyond the integer types.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane::detail {

// The constants K of FIPS 180-4, 4.2.1, one per twenty rounds.
inline constexpr std::uint32_t kSha1RoundConstants[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc,
                                                         0xca62c1d6};

// Hashes `blocks` consecutive 64-byte blocks on every lane whose bit is set in `activeLanes`,
// lane l reading from lanes[l] on. The state is one row per word (H0 to H4), one column per
// lane; the columns of other lanes are left as they were and their pointers are not read.
void sha1LanesAvx2(std::uint32_t (*state)[16], const std::uint8_t* const* lanes, std::size_t blocks,
                   std::uint32_t activeLanes);  // lanes 0 to 7
void sha1LanesAvx512(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                     std::size_t blocks, std::uint32_t activeLanes);  // lanes 0 to 15

}  // namespace corvane::detail
