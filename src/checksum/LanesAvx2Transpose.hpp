// The 8x8 transpose shared by the lane kernels compiled for AVX2: it turns rows (one lane's
// block) into columns (one word of every lane). Included only by those kernels' translation
// units, and with internal linkage, so that no copy built with AVX2 instructions can stand in
// for code of the rest of the library.
#pragma once

#include <immintrin.h>

namespace corvane::detail {
namespace {

// Eight rows (one lane's eight words each) to eight columns (one word of every lane): an 8x8
// transpose of 32-bit elements; the words go to words[0..3] and words[4..7].
inline __attribute__((always_inline)) void transpose(const __m256i* rows, __m256i* words) {
  __m256i t[8];
  __m256i u[8];
  for (int g = 0; g < 2; ++g) {
    const __m256i* r = rows + 4 * g;
    t[4 * g + 0] = _mm256_unpacklo_epi32(r[0], r[1]);
    t[4 * g + 1] = _mm256_unpackhi_epi32(r[0], r[1]);
    t[4 * g + 2] = _mm256_unpacklo_epi32(r[2], r[3]);
    t[4 * g + 3] = _mm256_unpackhi_epi32(r[2], r[3]);
  }
  // u[4g + m], 128-bit half k: word 4k + m of rows 4g to 4g + 3.
  for (int g = 0; g < 2; ++g) {
    u[4 * g + 0] = _mm256_unpacklo_epi64(t[4 * g + 0], t[4 * g + 2]);
    u[4 * g + 1] = _mm256_unpackhi_epi64(t[4 * g + 0], t[4 * g + 2]);
    u[4 * g + 2] = _mm256_unpacklo_epi64(t[4 * g + 1], t[4 * g + 3]);
    u[4 * g + 3] = _mm256_unpackhi_epi64(t[4 * g + 1], t[4 * g + 3]);
  }
  for (int m = 0; m < 4; ++m) {
    words[m] = _mm256_permute2x128_si256(u[m], u[4 + m], 0x20);
    words[4 + m] = _mm256_permute2x128_si256(u[m], u[4 + m], 0x31);
  }
}

}  // namespace
}  // namespace corvane::detail
