// The vector kernels of Md5Lanes and the constants they share. Each kernel lives in a
// translation unit of its own, compiled for its instruction set (src/CMakeLists.txt); nothing
// here may pull in code that the compiler could emit with those instructions for the rest of the
// library, so these files include no standard library headers beyond the integer types.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane::detail {

// The sine table T[1..64] of RFC 1321, 3.4: the integer part of 4294967296 * abs(sin(i)).
inline constexpr std::uint32_t kMd5SineTable[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

// Hashes `blocks` consecutive 64-byte blocks on every lane whose bit is set in `activeLanes`,
// lane l reading from lanes[l] on. The state is one row per word (a, b, c, d), one column per
// lane; the columns of other lanes are left as they were and their pointers are not read.
void md5LanesAvx2(std::uint32_t (*state)[16], const std::uint8_t* const* lanes, std::size_t blocks,
                  std::uint32_t activeLanes);  // lanes 0 to 7
void md5LanesAvx512(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                    std::size_t blocks, std::uint32_t activeLanes);  // lanes 0 to 15

}  // namespace corvane::detail
