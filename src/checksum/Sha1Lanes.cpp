// OpenSSL's low-level SHA-1 interface (deprecated in 3.0, still exported) is the only one that
// hands out the state between blocks: a lane left alone continues through OpenSSL's own block
// function (with the SHA extensions where the processor has them), so one stream costs what it
// costs with the EVP interface.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "checksum/Sha1Lanes.hpp"

#include <openssl/sha.h>

#include "checksum/Sha1LanesKernels.hpp"

namespace corvane::detail {
namespace {

// Fewest lanes with blocks left for which one vector step beats hashing them one by one with
// OpenSSL's SHA extensions. Measured with bench/Md5LanesBench (docs/PERFORMANCE.md, "MD5 and
// SHA-1 over many streams"): a 16-lane AVX-512 step costs as much as 5.0 to 5.4 OpenSSL blocks,
// an 8-lane AVX2 step 6.6 to 6.9, however many lanes are in use.
constexpr unsigned kAvx512VectorThreshold = 6;
constexpr unsigned kAvx2VectorThreshold = 7;

}  // namespace

LanePath sha1LanePathInUse() {
  return lanePathFromEnvironment(kSha1LanesEnvironmentVariable, LanePath::avx512,
                                 {LanePath::avx512, LanePath::avx2});
}

const LaneKernel Sha1LaneAlgorithm::kAvx512Kernel = sha1LanesAvx512;
const LaneKernel Sha1LaneAlgorithm::kAvx2Kernel = sha1LanesAvx2;
const unsigned Sha1LaneAlgorithm::kAvx512Threshold = kAvx512VectorThreshold;
const unsigned Sha1LaneAlgorithm::kAvx2Threshold = kAvx2VectorThreshold;

// Whole blocks of one stream through OpenSSL's block function: a context holding the state with
// nothing buffered hashes whole blocks straight from the caller's bytes.
void Sha1LaneAlgorithm::hashAlone(std::uint32_t (*state)[16], unsigned lane,
                                  const std::uint8_t* bytes, std::size_t blocks) {
  SHA_CTX context{};
  context.h0 = state[0][lane];
  context.h1 = state[1][lane];
  context.h2 = state[2][lane];
  context.h3 = state[3][lane];
  context.h4 = state[4][lane];
  SHA1_Update(&context, bytes, blocks * 64);
  state[0][lane] = context.h0;
  state[1][lane] = context.h1;
  state[2][lane] = context.h2;
  state[3][lane] = context.h3;
  state[4][lane] = context.h4;
}

}  // namespace corvane::detail
