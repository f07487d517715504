// The 8-lane MD5 kernel (AVX2): one stream per 32-bit lane of a 256-bit register. Compiled with
// -mavx2 (src/CMakeLists.txt) and only called after the processor was found to have it.
//
// AVX2 has neither a ternary-logic instruction nor a rotation, so each round function takes two
// or three instructions and each rotation three; the round functions are written so that b, the
// word the previous step produced, enters last (the rest overlaps that step).
#include <immintrin.h>

#include "checksum/LanesAvx2Transpose.hpp"
#include "checksum/Md5LanesKernels.hpp"

namespace corvane::detail {
namespace {

// The sine table repeated across the lanes, so that each constant is one memory operand: set1
// of a constant known to the compiler becomes a move into a general register and a broadcast,
// two instructions more per step.
struct SineRows {
  alignas(64) std::uint32_t row[64][8];
};
constexpr SineRows broadcastSineTable() {
  SineRows rows{};
  for (int i = 0; i < 64; ++i) {
    for (int l = 0; l < 8; ++l) rows.row[i][l] = kMd5SineTable[i];
  }
  return rows;
}
constexpr SineRows kSineRows = broadcastSineTable();

// The order in which each round takes the sixteen message words (RFC 1321, 3.4).
constexpr int kOrder[4][16] = {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
                               {1, 6, 11, 0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12},
                               {5, 8, 11, 14, 1, 4, 7, 10, 13, 0, 3, 6, 9, 12, 15, 2},
                               {0, 7, 14, 5, 12, 3, 10, 1, 8, 15, 6, 13, 4, 11, 2, 9}};

enum class Function { f, g, h, i };

// a + f(b, c, d) for the round functions of RFC 1321, 3.4, in forms equal to them bit for bit.
// The table as the compiler cannot see through: otherwise it folds the loads back into
// constants and broadcasts them again.
inline const SineRows& opaque(const SineRows& rows) {
  const SineRows* pointer = &rows;
  __asm__("" : "+r"(pointer));
  return *pointer;
}

template <Function kFunction>
inline __attribute__((always_inline)) __m256i addFunction(__m256i a, __m256i b, __m256i c,
                                                          __m256i d) {
  if constexpr (kFunction == Function::f) {  // (b & c) | (~b & d) = d ^ (b & (c ^ d))
    return _mm256_add_epi32(a, _mm256_xor_si256(d, _mm256_and_si256(b, _mm256_xor_si256(c, d))));
  } else if constexpr (kFunction == Function::g) {
    // (b & d) | (c & ~d): the two halves share no bit, so they can be added one after the other,
    // and the one without b goes first.
    a = _mm256_add_epi32(a, _mm256_andnot_si256(d, c));
    return _mm256_add_epi32(a, _mm256_and_si256(b, d));
  } else if constexpr (kFunction == Function::h) {
    return _mm256_add_epi32(a, _mm256_xor_si256(b, _mm256_xor_si256(c, d)));
  } else {  // c ^ (b | ~d)
    const __m256i notD = _mm256_xor_si256(d, _mm256_set1_epi32(-1));
    return _mm256_add_epi32(a, _mm256_xor_si256(c, _mm256_or_si256(b, notD)));
  }
}

// A sum the compiler must compute as written. Left free, it reassociates a + (X[k] + T[i]) + f
// into (a + f) + (X[k] + T[i]), which puts one more addition on the chain from b to the next
// step.
inline __attribute__((always_inline)) __m256i settled(__m256i value) {
  __asm__("" : "+x"(value));
  return value;
}

// a = b + ((a + f(b, c, d) + X[k] + T[i]) <<< s).
template <Function kFunction, int kShift>
inline __attribute__((always_inline)) __m256i step(__m256i a, __m256i b, __m256i c, __m256i d,
                                                   __m256i word, const std::uint32_t* sine) {
  a = settled(_mm256_add_epi32(
      a, _mm256_add_epi32(word, _mm256_load_si256(reinterpret_cast<const __m256i*>(sine)))));
  a = addFunction<kFunction>(a, b, c, d);
  a = _mm256_or_si256(_mm256_slli_epi32(a, kShift), _mm256_srli_epi32(a, 32 - kShift));
  return _mm256_add_epi32(a, b);
}

template <Function kFunction, int kS0, int kS1, int kS2, int kS3>
inline __attribute__((always_inline)) void round(int number, __m256i& a, __m256i& b, __m256i& c,
                                                 __m256i& d, const __m256i* words) {
  const int* order = kOrder[number];
  const SineRows& sines = opaque(kSineRows);
  const int base = 16 * number;
#pragma GCC unroll 4
  for (int j = 0; j < 16; j += 4) {
    a = step<kFunction, kS0>(a, b, c, d, words[order[j]], sines.row[base + j]);
    d = step<kFunction, kS1>(d, a, b, c, words[order[j + 1]], sines.row[base + j + 1]);
    c = step<kFunction, kS2>(c, d, a, b, words[order[j + 2]], sines.row[base + j + 2]);
    b = step<kFunction, kS3>(b, c, d, a, words[order[j + 3]], sines.row[base + j + 3]);
  }
}

// What masked lanes read instead of their pointers.
alignas(64) constexpr std::uint8_t kZeroBlock[64] = {};

}  // namespace

void md5LanesAvx2(std::uint32_t (*state)[16], const std::uint8_t* const* lanes, std::size_t blocks,
                  std::uint32_t activeLanes) {
  const std::uint8_t* next[8];
  std::size_t stride[8];
  alignas(32) std::int32_t laneMask[8];
  for (int l = 0; l < 8; ++l) {
    const bool active = ((activeLanes >> l) & 1U) != 0;
    next[l] = active ? lanes[l] : kZeroBlock;
    stride[l] = active ? 64 : 0;
    laneMask[l] = active ? -1 : 0;
  }
  const __m256i mask = _mm256_load_si256(reinterpret_cast<const __m256i*>(laneMask));
  __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state[0]));
  __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state[1]));
  __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state[2]));
  __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state[3]));
  for (std::size_t n = 0; n < blocks; ++n) {
    __m256i low[8];
    __m256i high[8];
    for (int l = 0; l < 8; ++l) {
      low[l] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(next[l]));
      high[l] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(next[l] + 32));
      next[l] += stride[l];
    }
    __m256i words[16];
    transpose(low, words);
    transpose(high, words + 8);
    const __m256i a0 = a;
    const __m256i b0 = b;
    const __m256i c0 = c;
    const __m256i d0 = d;
    round<Function::f, 7, 12, 17, 22>(0, a, b, c, d, words);
    round<Function::g, 5, 9, 14, 20>(1, a, b, c, d, words);
    round<Function::h, 4, 11, 16, 23>(2, a, b, c, d, words);
    round<Function::i, 6, 10, 15, 21>(3, a, b, c, d, words);
    // Masked lanes keep the state they had: their blocks were the zero block.
    a = _mm256_add_epi32(a0, _mm256_and_si256(mask, a));
    b = _mm256_add_epi32(b0, _mm256_and_si256(mask, b));
    c = _mm256_add_epi32(c0, _mm256_and_si256(mask, c));
    d = _mm256_add_epi32(d0, _mm256_and_si256(mask, d));
  }
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(state[0]), a);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(state[1]), b);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(state[2]), c);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(state[3]), d);
}

}  // namespace corvane::detail
