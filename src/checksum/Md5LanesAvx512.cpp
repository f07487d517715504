// The 16-lane MD5 kernel (AVX-512F): one stream per 32-bit lane of a 512-bit register. Compiled
// with -mavx512f (src/CMakeLists.txt) and only called after the processor was found to have it.
//
// Every round function of RFC 1321, 3.4 is one ternary-logic instruction and every rotation one
// VPROLD, so a step's dependency chain (F, add, rotate, add) is four single-cycle instructions;
// the kernel is bound by that chain, 64 steps per block, whatever the number of lanes in use.
#include <immintrin.h>

// GCC 12 takes the self-initialised placeholder of _mm512_undefined_epi32() inside its own
// intrinsics for an uninitialised read once they are inlined (the instructions never read it).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "checksum/LanesAvx512Transpose.hpp"
#include "checksum/Md5LanesKernels.hpp"

namespace corvane::detail {
namespace {

// The truth tables of F, G, H and I (RFC 1321, 3.4) for VPTERNLOGD with b, c, d as its operands:
// the function of the three bit patterns 0xF0, 0xCC, 0xAA.
constexpr int kF = 0xCA;  // (b & c) | (~b & d)
constexpr int kG = 0xE4;  // (b & d) | (c & ~d)
constexpr int kH = 0x96;  // b ^ c ^ d
constexpr int kI = 0x39;  // c ^ (b | ~d)

// The sine table repeated across the lanes, so that each constant is one memory operand: set1
// of a constant known to the compiler becomes a move into a general register and a broadcast,
// two instructions more per step.
struct SineRows {
  alignas(64) std::uint32_t row[64][16];
};
constexpr SineRows broadcastSineTable() {
  SineRows rows{};
  for (int i = 0; i < 64; ++i) {
    for (int l = 0; l < 16; ++l) rows.row[i][l] = kMd5SineTable[i];
  }
  return rows;
}
constexpr SineRows kSineRows = broadcastSineTable();

// The order in which each round takes the sixteen message words (RFC 1321, 3.4).
constexpr int kOrder[4][16] = {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
                               {1, 6, 11, 0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12},
                               {5, 8, 11, 14, 1, 4, 7, 10, 13, 0, 3, 6, 9, 12, 15, 2},
                               {0, 7, 14, 5, 12, 3, 10, 1, 8, 15, 6, 13, 4, 11, 2, 9}};

// A sum the compiler must compute as written. Left free, it reassociates a + (X[k] + T[i]) + f
// into (a + f) + (X[k] + T[i]), which puts one more addition on the chain from b to the next
// step.
inline __attribute__((always_inline)) __m512i settled(__m512i value) {
  __asm__("" : "+v"(value));
  return value;
}

// a = b + ((a + f(b, c, d) + X[k] + T[i]) <<< s); the sum that does not involve b goes first, so
// it overlaps the previous step.
// The table as the compiler cannot see through: otherwise it folds the loads back into
// constants and broadcasts them again.
inline const SineRows& opaque(const SineRows& rows) {
  const SineRows* pointer = &rows;
  __asm__("" : "+r"(pointer));
  return *pointer;
}

template <int kLogic, int kShift>
inline __attribute__((always_inline)) __m512i step(__m512i a, __m512i b, __m512i c, __m512i d,
                                                   __m512i word, const std::uint32_t* sine) {
  a = settled(_mm512_add_epi32(a, _mm512_add_epi32(word, _mm512_load_si512(sine))));
  a = _mm512_add_epi32(a, _mm512_ternarylogic_epi32(b, c, d, kLogic));
  return _mm512_add_epi32(_mm512_rol_epi32(a, kShift), b);
}

template <int kLogic, int kS0, int kS1, int kS2, int kS3>
inline __attribute__((always_inline)) void round(int number, __m512i& a, __m512i& b, __m512i& c,
                                                 __m512i& d, const __m512i* words) {
  const int* order = kOrder[number];
  const SineRows& sines = opaque(kSineRows);
  const int base = 16 * number;
#pragma GCC unroll 4
  for (int j = 0; j < 16; j += 4) {
    a = step<kLogic, kS0>(a, b, c, d, words[order[j]], sines.row[base + j]);
    d = step<kLogic, kS1>(d, a, b, c, words[order[j + 1]], sines.row[base + j + 1]);
    c = step<kLogic, kS2>(c, d, a, b, words[order[j + 2]], sines.row[base + j + 2]);
    b = step<kLogic, kS3>(b, c, d, a, words[order[j + 3]], sines.row[base + j + 3]);
  }
}

// What masked lanes read instead of their pointers.
alignas(64) constexpr std::uint8_t kZeroBlock[64] = {};

}  // namespace

void md5LanesAvx512(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                    std::size_t blocks, std::uint32_t activeLanes) {
  const std::uint8_t* next[16];
  std::size_t stride[16];
  for (int l = 0; l < 16; ++l) {
    const bool active = ((activeLanes >> l) & 1U) != 0;
    next[l] = active ? lanes[l] : kZeroBlock;
    stride[l] = active ? 64 : 0;
  }
  const auto mask = static_cast<__mmask16>(activeLanes);
  __m512i a = _mm512_loadu_si512(state[0]);
  __m512i b = _mm512_loadu_si512(state[1]);
  __m512i c = _mm512_loadu_si512(state[2]);
  __m512i d = _mm512_loadu_si512(state[3]);
  for (std::size_t n = 0; n < blocks; ++n) {
    __m512i rows[16];
    for (int l = 0; l < 16; ++l) {
      rows[l] = _mm512_loadu_si512(next[l]);
      next[l] += stride[l];
    }
    __m512i words[16];
    transpose(rows, words);
    const __m512i a0 = a;
    const __m512i b0 = b;
    const __m512i c0 = c;
    const __m512i d0 = d;
    round<kF, 7, 12, 17, 22>(0, a, b, c, d, words);
    round<kG, 5, 9, 14, 20>(1, a, b, c, d, words);
    round<kH, 4, 11, 16, 23>(2, a, b, c, d, words);
    round<kI, 6, 10, 15, 21>(3, a, b, c, d, words);
    // Masked lanes keep the state they had: their blocks were the zero block.
    a = _mm512_mask_add_epi32(a0, mask, a, a0);
    b = _mm512_mask_add_epi32(b0, mask, b, b0);
    c = _mm512_mask_add_epi32(c0, mask, c, c0);
    d = _mm512_mask_add_epi32(d0, mask, d, d0);
  }
  _mm512_storeu_si512(state[0], a);
  _mm512_storeu_si512(state[1], b);
  _mm512_storeu_si512(state[2], c);
  _mm512_storeu_si512(state[3], d);
}

}  // namespace corvane::detail
