// A 16-lane SHA-1 kernel (AVX-512F/BW), written only to measure whether lane-parallel SHA-1 would
// beat OpenSSL's single-stream SHA-1, which uses the SHA extensions of the processor
// (docs/PERFORMANCE.md, "MD5 over many streams"). It is not part of the library; the benchmark
// checks its digests against OpenSSL before timing it. Rounds as in FIPS 180-4, 6.1.2.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // see src/checksum/Md5LanesAvx512.cpp
#endif

namespace {

template <int kLogic>
inline __attribute__((always_inline)) void step(__m512i& a, __m512i& b, __m512i& c, __m512i& d,
                                                __m512i& e, __m512i word, __m512i constant) {
  const __m512i sum = _mm512_add_epi32(_mm512_add_epi32(e, constant), word);
  const __m512i t = _mm512_add_epi32(
      _mm512_add_epi32(sum, _mm512_ternarylogic_epi32(b, c, d, kLogic)), _mm512_rol_epi32(a, 5));
  e = d;
  d = c;
  c = _mm512_rol_epi32(b, 30);
  b = a;
  a = t;
}

}  // namespace

// state[5][16]: h0..h4 of 16 lanes; lanes[l]: `blocks` consecutive blocks of lane l.
void sha1LanesAvx512Prototype(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                              std::size_t blocks) {
  const __m512i byteSwap = _mm512_set4_epi32(0x0c0d0e0f, 0x08090a0b, 0x04050607, 0x00010203);
  const __m512i k0 = _mm512_set1_epi32(0x5a827999);
  const __m512i k1 = _mm512_set1_epi32(0x6ed9eba1);
  const __m512i k2 = _mm512_set1_epi32(static_cast<int>(0x8f1bbcdcU));
  const __m512i k3 = _mm512_set1_epi32(static_cast<int>(0xca62c1d6U));
  __m512i h[5];
  for (int i = 0; i < 5; ++i) h[i] = _mm512_loadu_si512(state[i]);
  alignas(64) std::uint32_t rows[16][16];
  for (std::size_t n = 0; n < blocks; ++n) {
    // Gather word j of every lane (a transpose through memory: good enough for a measurement of
    // the rounds, which dominate).
    for (int l = 0; l < 16; ++l) {
      const __m512i row = _mm512_shuffle_epi8(_mm512_loadu_si512(lanes[l] + 64 * n), byteSwap);
      _mm512_store_si512(rows[l], row);
    }
    __m512i w[16];
    const __m512i index =
        _mm512_setr_epi32(0, 16, 32, 48, 64, 80, 96, 112, 128, 144, 160, 176, 192, 208, 224, 240);
    for (int j = 0; j < 16; ++j) w[j] = _mm512_i32gather_epi32(index, &rows[0][j], 4);
    __m512i a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
#pragma GCC unroll 80
    for (int t = 0; t < 80; ++t) {
      if (t >= 16) {
        w[t & 15] = _mm512_rol_epi32(
            _mm512_ternarylogic_epi32(_mm512_xor_si512(w[(t - 3) & 15], w[(t - 8) & 15]),
                                      w[(t - 14) & 15], w[t & 15], 0x96),
            1);
      }
      if (t < 20) {
        step<0xCA>(a, b, c, d, e, w[t & 15], k0);
      } else if (t < 40) {
        step<0x96>(a, b, c, d, e, w[t & 15], k1);
      } else if (t < 60) {
        step<0xE8>(a, b, c, d, e, w[t & 15], k2);
      } else {
        step<0x96>(a, b, c, d, e, w[t & 15], k3);
      }
    }
    h[0] = _mm512_add_epi32(h[0], a);
    h[1] = _mm512_add_epi32(h[1], b);
    h[2] = _mm512_add_epi32(h[2], c);
    h[3] = _mm512_add_epi32(h[3], d);
    h[4] = _mm512_add_epi32(h[4], e);
  }
  for (int i = 0; i < 5; ++i) _mm512_storeu_si512(state[i], h[i]);
}
