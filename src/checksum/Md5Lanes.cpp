// OpenSSL's low-level MD5 interface (deprecated in 3.0, still exported) is the only one that
// hands out the state between blocks: a lane left alone continues through OpenSSL's own block
// function, so one stream costs what it costs with the EVP interface.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "checksum/Md5Lanes.hpp"

#include <openssl/md5.h>

#include "checksum/Md5LanesKernels.hpp"

namespace corvane::detail {
namespace {

// Fewest lanes with blocks left for which one vector step beats hashing them one by one with
// OpenSSL. Measured with bench/Md5LanesBench (docs/PERFORMANCE.md, "MD5 and SHA-1 over many
// streams"): a 16-lane AVX-512 step costs as much as 1.7 OpenSSL blocks, an 8-lane AVX2 step 2.4,
// however many lanes are in use.
constexpr unsigned kAvx512VectorThreshold = 2;
constexpr unsigned kAvx2VectorThreshold = 3;

}  // namespace

LanePath md5LanePathInUse() {
  return lanePathFromEnvironment(kMd5LanesEnvironmentVariable, LanePath::avx512,
                                 {LanePath::avx512, LanePath::avx2});
}

const LaneKernel Md5LaneAlgorithm::kAvx512Kernel = md5LanesAvx512;
const LaneKernel Md5LaneAlgorithm::kAvx2Kernel = md5LanesAvx2;
const unsigned Md5LaneAlgorithm::kAvx512Threshold = kAvx512VectorThreshold;
const unsigned Md5LaneAlgorithm::kAvx2Threshold = kAvx2VectorThreshold;

// Whole blocks of one stream through OpenSSL's block function: a context holding the state with
// nothing buffered hashes whole blocks straight from the caller's bytes.
void Md5LaneAlgorithm::hashAlone(std::uint32_t (*state)[16], unsigned lane,
                                 const std::uint8_t* bytes, std::size_t blocks) {
  MD5_CTX context{};
  context.A = state[0][lane];
  context.B = state[1][lane];
  context.C = state[2][lane];
  context.D = state[3][lane];
  MD5_Update(&context, bytes, blocks * 64);
  state[0][lane] = context.A;
  state[1][lane] = context.B;
  state[2][lane] = context.C;
  state[3][lane] = context.D;
}

}  // namespace corvane::detail
