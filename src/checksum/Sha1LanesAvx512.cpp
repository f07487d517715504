// The 16-lane SHA-1 kernel (AVX-512F): one stream per 32-bit lane of a 512-bit register.
// Compiled with -mavx512f (src/CMakeLists.txt) and only called after the processor was found to
// have it.
//
// Rounds as in FIPS 180-4, 6.1.2. Each of Ch, Parity and Maj is one ternary-logic instruction,
// each rotation one VPROLD, and the schedule's three-way exclusive or one more ternary logic, so
// a step's chain from a to the next a is a rotation and an addition.
#include <immintrin.h>

// GCC 12 takes the self-initialised placeholder of _mm512_undefined_epi32() inside its own
// intrinsics for an uninitialised read once they are inlined (the instructions never read it).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "checksum/LanesAvx512Transpose.hpp"
#include "checksum/Sha1LanesKernels.hpp"

namespace corvane::detail {
namespace {

// The truth tables of Ch, Parity and Maj (FIPS 180-4, 4.1.1) for VPTERNLOGD with b, c, d as
// its operands: the function of the three bit patterns 0xF0, 0xCC, 0xAA.
constexpr int kCh = 0xCA;      // (b & c) ^ (~b & d)
constexpr int kParity = 0x96;  // b ^ c ^ d
constexpr int kMaj = 0xE8;     // (b & c) ^ (b & d) ^ (c & d)

// The message words are big-endian (FIPS 180-4, 3.1): each 32-bit element's bytes reversed
// with two rotations and a bitwise select, which needs nothing beyond AVX-512F.
inline __attribute__((always_inline)) __m512i byteSwapped(__m512i row) {
  // Bytes 3 2 1 0 rotated by 8 are 2 1 0 3 and by 24 are 0 3 2 1: bytes 0 and 2 of the result come
  // from the first, 1 and 3 from the second (Ch's table is the bitwise select).
  const __m512i evenBytes = _mm512_set1_epi32(0x00FF00FF);
  return _mm512_ternarylogic_epi32(evenBytes, _mm512_rol_epi32(row, 8), _mm512_rol_epi32(row, 24),
                                   kCh);
}

template <int kLogic>
inline __attribute__((always_inline)) void step(__m512i& a, __m512i& b, __m512i& c, __m512i& d,
                                                __m512i& e, __m512i word, __m512i constant) {
  // T = ROTL5(a) + f(b, c, d) + e + K + W; what does not involve a goes first, so it overlaps
  // the previous step.
  const __m512i sum = _mm512_add_epi32(_mm512_add_epi32(e, constant), word);
  const __m512i t = _mm512_add_epi32(
      _mm512_add_epi32(sum, _mm512_ternarylogic_epi32(b, c, d, kLogic)), _mm512_rol_epi32(a, 5));
  e = d;
  d = c;
  c = _mm512_rol_epi32(b, 30);
  b = a;
  a = t;
}

// What masked lanes read instead of their pointers.
alignas(64) constexpr std::uint8_t kZeroBlock[64] = {};

}  // namespace

void sha1LanesAvx512(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                     std::size_t blocks, std::uint32_t activeLanes) {
  const std::uint8_t* next[16];
  std::size_t stride[16];
  for (int l = 0; l < 16; ++l) {
    const bool active = ((activeLanes >> l) & 1U) != 0;
    next[l] = active ? lanes[l] : kZeroBlock;
    stride[l] = active ? 64 : 0;
  }
  const auto mask = static_cast<__mmask16>(activeLanes);
  const __m512i k0 = _mm512_set1_epi32(static_cast<int>(kSha1RoundConstants[0]));
  const __m512i k1 = _mm512_set1_epi32(static_cast<int>(kSha1RoundConstants[1]));
  const __m512i k2 = _mm512_set1_epi32(static_cast<int>(kSha1RoundConstants[2]));
  const __m512i k3 = _mm512_set1_epi32(static_cast<int>(kSha1RoundConstants[3]));
  __m512i h[5];
  for (int i = 0; i < 5; ++i) h[i] = _mm512_loadu_si512(state[i]);
  for (std::size_t n = 0; n < blocks; ++n) {
    __m512i rows[16];
    for (int l = 0; l < 16; ++l) {
      rows[l] = byteSwapped(_mm512_loadu_si512(next[l]));
      next[l] += stride[l];
    }
    __m512i w[16];
    transpose(rows, w);
    __m512i a = h[0];
    __m512i b = h[1];
    __m512i c = h[2];
    __m512i d = h[3];
    __m512i e = h[4];
#pragma GCC unroll 80
    for (int t = 0; t < 80; ++t) {
      if (t >= 16) {
        // FIPS 180-4, 6.1.2, step 1: W[t] = ROTL1(W[t-3] ^ W[t-8] ^ W[t-14] ^ W[t-16]), in a
        // ring of sixteen.
        w[t & 15] = _mm512_rol_epi32(
            _mm512_ternarylogic_epi32(_mm512_xor_si512(w[(t - 3) & 15], w[(t - 8) & 15]),
                                      w[(t - 14) & 15], w[t & 15], kParity),
            1);
      }
      if (t < 20) {
        step<kCh>(a, b, c, d, e, w[t & 15], k0);
      } else if (t < 40) {
        step<kParity>(a, b, c, d, e, w[t & 15], k1);
      } else if (t < 60) {
        step<kMaj>(a, b, c, d, e, w[t & 15], k2);
      } else {
        step<kParity>(a, b, c, d, e, w[t & 15], k3);
      }
    }
    // Masked lanes keep the state they had: their blocks were the zero block.
    h[0] = _mm512_mask_add_epi32(h[0], mask, h[0], a);
    h[1] = _mm512_mask_add_epi32(h[1], mask, h[1], b);
    h[2] = _mm512_mask_add_epi32(h[2], mask, h[2], c);
    h[3] = _mm512_mask_add_epi32(h[3], mask, h[3], d);
    h[4] = _mm512_mask_add_epi32(h[4], mask, h[4], e);
  }
  for (int i = 0; i < 5; ++i) _mm512_storeu_si512(state[i], h[i]);
}

}  // namespace corvane::detail
