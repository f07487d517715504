// The 8-lane SHA-1 kernel (AVX2): one stream per 32-bit lane of a 256-bit register. Compiled with
// -mavx2 (src/CMakeLists.txt) and only called after the processor was found to have it.
//
// Rounds as in FIPS 180-4, 6.1.2. AVX2 has neither a ternary-logic instruction nor a rotation,
// so each round function takes two to four instructions and each rotation three.
#include <immintrin.h>

#include "checksum/LanesAvx2Transpose.hpp"
#include "checksum/Sha1LanesKernels.hpp"

namespace corvane::detail {
namespace {

enum class Function { ch, parity, maj };

template <int kShift>
inline __attribute__((always_inline)) __m256i rotated(__m256i x) {
  return _mm256_or_si256(_mm256_slli_epi32(x, kShift), _mm256_srli_epi32(x, 32 - kShift));
}

// sum + f(b, c, d) for the functions of FIPS 180-4, 4.1.1, in forms equal to them bit for bit.
template <Function kFunction>
inline __attribute__((always_inline)) __m256i addFunction(__m256i sum, __m256i b, __m256i c,
                                                          __m256i d) {
  if constexpr (kFunction == Function::ch) {  // (b & c) ^ (~b & d) = d ^ (b & (c ^ d))
    return _mm256_add_epi32(sum, _mm256_xor_si256(d, _mm256_and_si256(b, _mm256_xor_si256(c, d))));
  } else if constexpr (kFunction == Function::parity) {
    return _mm256_add_epi32(sum, _mm256_xor_si256(b, _mm256_xor_si256(c, d)));
  } else {
    // (b & c) ^ (b & d) ^ (c & d) = (c & d) | (b & (c ^ d)): the two halves share no bit, so
    // they can be added one after the other.
    sum = _mm256_add_epi32(sum, _mm256_and_si256(c, d));
    return _mm256_add_epi32(sum, _mm256_and_si256(b, _mm256_xor_si256(c, d)));
  }
}

template <Function kFunction>
inline __attribute__((always_inline)) void step(__m256i& a, __m256i& b, __m256i& c, __m256i& d,
                                                __m256i& e, __m256i word, __m256i constant) {
  const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(e, constant), word);
  const __m256i t = _mm256_add_epi32(addFunction<kFunction>(sum, b, c, d), rotated<5>(a));
  e = d;
  d = c;
  c = rotated<30>(b);
  b = a;
  a = t;
}

// What masked lanes read instead of their pointers.
alignas(64) constexpr std::uint8_t kZeroBlock[64] = {};

}  // namespace

void sha1LanesAvx2(std::uint32_t (*state)[16], const std::uint8_t* const* lanes, std::size_t blocks,
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
  // The message words are big-endian (FIPS 180-4, 3.1): reverse the bytes of each element.
  const __m256i byteSwap = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12, 3,
                                            2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  const __m256i k0 = _mm256_set1_epi32(static_cast<int>(kSha1RoundConstants[0]));
  const __m256i k1 = _mm256_set1_epi32(static_cast<int>(kSha1RoundConstants[1]));
  const __m256i k2 = _mm256_set1_epi32(static_cast<int>(kSha1RoundConstants[2]));
  const __m256i k3 = _mm256_set1_epi32(static_cast<int>(kSha1RoundConstants[3]));
  __m256i h[5];
  for (int i = 0; i < 5; ++i) h[i] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state[i]));
  for (std::size_t n = 0; n < blocks; ++n) {
    __m256i low[8];
    __m256i high[8];
    for (int l = 0; l < 8; ++l) {
      low[l] = _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(next[l])),
                                   byteSwap);
      high[l] = _mm256_shuffle_epi8(
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(next[l] + 32)), byteSwap);
      next[l] += stride[l];
    }
    __m256i w[16];
    transpose(low, w);
    transpose(high, w + 8);
    __m256i a = h[0];
    __m256i b = h[1];
    __m256i c = h[2];
    __m256i d = h[3];
    __m256i e = h[4];
#pragma GCC unroll 80
    for (int t = 0; t < 80; ++t) {
      if (t >= 16) {
        // FIPS 180-4, 6.1.2, step 1, in a ring of sixteen.
        w[t & 15] = rotated<1>(_mm256_xor_si256(_mm256_xor_si256(w[(t - 3) & 15], w[(t - 8) & 15]),
                                                _mm256_xor_si256(w[(t - 14) & 15], w[t & 15])));
      }
      if (t < 20) {
        step<Function::ch>(a, b, c, d, e, w[t & 15], k0);
      } else if (t < 40) {
        step<Function::parity>(a, b, c, d, e, w[t & 15], k1);
      } else if (t < 60) {
        step<Function::maj>(a, b, c, d, e, w[t & 15], k2);
      } else {
        step<Function::parity>(a, b, c, d, e, w[t & 15], k3);
      }
    }
    // Masked lanes keep the state they had: their blocks were the zero block.
    h[0] = _mm256_add_epi32(h[0], _mm256_and_si256(mask, a));
    h[1] = _mm256_add_epi32(h[1], _mm256_and_si256(mask, b));
    h[2] = _mm256_add_epi32(h[2], _mm256_and_si256(mask, c));
    h[3] = _mm256_add_epi32(h[3], _mm256_and_si256(mask, d));
    h[4] = _mm256_add_epi32(h[4], _mm256_and_si256(mask, e));
  }
  for (int i = 0; i < 5; ++i) _mm256_storeu_si256(reinterpret_cast<__m256i*>(state[i]), h[i]);
}

}  // namespace corvane::detail
