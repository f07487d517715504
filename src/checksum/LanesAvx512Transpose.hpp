// The 16x16 transpose shared by the lane kernels compiled for AVX-512F: it turns rows (one lane's
// block) into columns (one word of every lane). Included only by those kernels' translation
// units, and with internal linkage, so that no copy built with AVX-512F instructions can stand in
// for code of the rest of the library.
#pragma once

#include <immintrin.h>

namespace corvane::detail {
namespace {

// Rows (one lane's block, sixteen words) to columns (one word of every lane): a
// 16x16 transpose of 32-bit elements in four passes of two-source shuffles.
inline __attribute__((always_inline)) void transpose(const __m512i* rows, __m512i* words) {
  __m512i t[16];
  __m512i u[16];
  for (int g = 0; g < 4; ++g) {
    const __m512i* r = rows + 4 * g;
    t[4 * g + 0] = _mm512_unpacklo_epi32(r[0], r[1]);
    t[4 * g + 1] = _mm512_unpackhi_epi32(r[0], r[1]);
    t[4 * g + 2] = _mm512_unpacklo_epi32(r[2], r[3]);
    t[4 * g + 3] = _mm512_unpackhi_epi32(r[2], r[3]);
  }
  // u[4g + m], 128-bit block k: word 4k + m of rows 4g to 4g + 3.
  for (int g = 0; g < 4; ++g) {
    u[4 * g + 0] = _mm512_unpacklo_epi64(t[4 * g + 0], t[4 * g + 2]);
    u[4 * g + 1] = _mm512_unpackhi_epi64(t[4 * g + 0], t[4 * g + 2]);
    u[4 * g + 2] = _mm512_unpacklo_epi64(t[4 * g + 1], t[4 * g + 3]);
    u[4 * g + 3] = _mm512_unpackhi_epi64(t[4 * g + 1], t[4 * g + 3]);
  }
  for (int m = 0; m < 4; ++m) {
    const __m512i x0 = _mm512_shuffle_i32x4(u[m], u[4 + m], 0x88);
    const __m512i x1 = _mm512_shuffle_i32x4(u[m], u[4 + m], 0xdd);
    const __m512i y0 = _mm512_shuffle_i32x4(u[8 + m], u[12 + m], 0x88);
    const __m512i y1 = _mm512_shuffle_i32x4(u[8 + m], u[12 + m], 0xdd);
    words[m] = _mm512_shuffle_i32x4(x0, y0, 0x88);
    words[8 + m] = _mm512_shuffle_i32x4(x0, y0, 0xdd);
    words[4 + m] = _mm512_shuffle_i32x4(x1, y1, 0x88);
    words[12 + m] = _mm512_shuffle_i32x4(x1, y1, 0xdd);
  }
}

}  // namespace
}  // namespace corvane::detail
