// Lane-parallel MD5 on one core against OpenSSL's single-stream MD5: 16 streams of 64 MiB (in
// memory) hashed through Md5Lanes on every path the processor runs, fed 64 KiB per lane per
// run() as the file-set engine feeds it, beside EVP_Digest of the same 16 streams one after the
// other. Every digest is checked against OpenSSL's before any figure is printed.
//
// Also measured: what one vector step costs against one OpenSSL block (with 1 to 16 lanes in
// use, data in cache), which sets the point below which Md5Lanes hands lanes to OpenSSL; and
// OpenSSL's SHA-1 (SHA extensions) beside a 16-lane AVX-512 SHA-1 prototype
// (Md5LanesSha1Prototype.cpp), to decide whether SHA-1 should get lanes too.
//
// Usage: Md5LanesBench [MIB_PER_STREAM (64)] [REPEATS (5)]. Rates are GB/s (10^9 bytes) of
// process CPU time and of wall time, best of REPEATS rounds; the cases of a round run one after
// the other, so load from other work hits them alike.
#include <openssl/evp.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "checksum/Md5Lanes.hpp"
#include "checksum/Md5LanesKernels.hpp"

void sha1LanesAvx512Prototype(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                              std::size_t blocks);

namespace {

using corvane::detail::Md5Digest;
using corvane::detail::Md5LanePath;
using corvane::detail::Md5Lanes;

constexpr std::size_t kStreams = 16;
constexpr std::size_t kPiece = std::size_t{64} << 10;

double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Best {
  double cpu = 1e30;
  double wall = 1e30;
};

void timed(Best& best, const std::function<void()>& work) {
  const double cpu0 = cpuSeconds();
  const double wall0 = wallSeconds();
  work();
  best.cpu = std::min(best.cpu, cpuSeconds() - cpu0);
  best.wall = std::min(best.wall, wallSeconds() - wall0);
}

std::vector<Md5Digest> md5WithLanes(Md5LanePath path, const std::vector<std::uint8_t>& data,
                                    std::size_t streamBytes) {
  Md5Lanes lanes(path);
  std::vector<Md5Digest> digests(kStreams);
  std::vector<std::size_t> offset(kStreams, 0);
  std::array<std::size_t, Md5Lanes::kMaximumLanes> streamOf{};
  std::array<bool, Md5Lanes::kMaximumLanes> busy{};
  std::size_t next = 0;
  std::size_t done = 0;
  while (done < kStreams) {
    while (next < kStreams) {
      const auto lane = lanes.join();
      if (!lane) break;
      streamOf[*lane] = next++;
      busy[*lane] = true;
    }
    std::vector<unsigned> closing;
    for (unsigned lane = 0; lane < lanes.laneCount(); ++lane) {
      if (!busy[lane]) continue;
      const std::size_t s = streamOf[lane];
      const std::size_t piece = std::min(kPiece, streamBytes - offset[s]);
      lanes.feed(lane, data.data() + s * streamBytes + offset[s], piece);
      offset[s] += piece;
      if (offset[s] == streamBytes) {
        lanes.close(lane);
        closing.push_back(lane);
      }
    }
    lanes.run();
    for (const unsigned lane : closing) {
      digests[streamOf[lane]] = lanes.takeDigest(lane);
      busy[lane] = false;
      ++done;
    }
  }
  return digests;
}

std::vector<std::vector<std::uint8_t>> openSslDigests(const EVP_MD* md,
                                                      const std::vector<std::uint8_t>& data,
                                                      std::size_t streamBytes) {
  std::vector<std::vector<std::uint8_t>> digests;
  for (std::size_t s = 0; s < kStreams; ++s) {
    std::vector<std::uint8_t> digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_Digest(data.data() + s * streamBytes, streamBytes, digest.data(), &length, md, nullptr);
    digest.resize(length);
    digests.push_back(std::move(digest));
  }
  return digests;
}

// SHA-1 of the 16 streams with the prototype: whole blocks, then one padding block (the streams
// are a multiple of 64 bytes long).
std::vector<std::vector<std::uint8_t>> sha1WithPrototype(const std::vector<std::uint8_t>& data,
                                                         std::size_t streamBytes) {
  alignas(64) std::uint32_t state[5][16];
  const std::uint32_t initial[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
  for (int i = 0; i < 5; ++i) std::fill(state[i], state[i] + 16, initial[i]);
  const std::uint8_t* lanes[16];
  for (std::size_t offset = 0; offset < streamBytes; offset += kPiece) {
    for (std::size_t s = 0; s < 16; ++s) lanes[s] = data.data() + s * streamBytes + offset;
    sha1LanesAvx512Prototype(state, lanes, std::min(kPiece, streamBytes - offset) / 64);
  }
  std::uint8_t padding[64] = {0x80};
  const std::uint64_t bits = std::uint64_t{streamBytes} * 8;
  for (int k = 0; k < 8; ++k) padding[63 - k] = static_cast<std::uint8_t>(bits >> (8 * k));
  for (auto& lane : lanes) lane = padding;
  sha1LanesAvx512Prototype(state, lanes, 1);
  std::vector<std::vector<std::uint8_t>> digests(16);
  for (std::size_t s = 0; s < 16; ++s) {
    for (int i = 0; i < 5; ++i) {
      for (int k = 3; k >= 0; --k)
        digests[s].push_back(static_cast<std::uint8_t>(state[i][s] >> (8 * k)));
    }
  }
  return digests;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 64;
  const int repeats = argc > 2 ? std::atoi(argv[2]) : 5;
  const std::size_t streamBytes = mib << 20;
  std::vector<std::uint8_t> data(kStreams * streamBytes);
  std::uint64_t x = 0x9e3779b97f4a7c15;  // xorshift64: fast, and every stream differs
  for (std::size_t i = 0; i + 8 <= data.size(); i += 8) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    std::memcpy(&data[i], &x, 8);
  }

  std::vector<Md5LanePath> paths;
  for (const Md5LanePath path : {Md5LanePath::scalar, Md5LanePath::avx2, Md5LanePath::avx512}) {
    if (corvane::detail::md5LanePathSupported(path)) paths.push_back(path);
  }
  const bool sha1Prototype =
      __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");

  // Exactness first.
  const auto md5Reference = openSslDigests(EVP_md5(), data, streamBytes);
  for (const Md5LanePath path : paths) {
    const std::vector<Md5Digest> digests = md5WithLanes(path, data, streamBytes);
    for (std::size_t s = 0; s < kStreams; ++s) {
      if (!std::equal(digests[s].begin(), digests[s].end(), md5Reference[s].begin())) {
        std::fprintf(stderr, "MD5 of stream %zu differs on the %s path\n", s,
                     std::string(corvane::detail::md5LanePathName(path)).c_str());
        return 1;
      }
    }
  }
  if (sha1Prototype &&
      sha1WithPrototype(data, streamBytes) != openSslDigests(EVP_sha1(), data, streamBytes)) {
    std::fprintf(stderr, "the SHA-1 prototype is wrong\n");
    return 1;
  }

  Best openSslMd5;
  Best openSslSha1;
  Best prototypeSha1;
  std::map<Md5LanePath, Best> lanes;
  for (int round = 0; round < repeats; ++round) {
    timed(openSslMd5, [&] { openSslDigests(EVP_md5(), data, streamBytes); });
    for (const Md5LanePath path : paths) {
      timed(lanes[path], [&] { md5WithLanes(path, data, streamBytes); });
    }
    timed(openSslSha1, [&] { openSslDigests(EVP_sha1(), data, streamBytes); });
    if (sha1Prototype) timed(prototypeSha1, [&] { sha1WithPrototype(data, streamBytes); });
  }

  const double bytes = double(data.size());
  std::printf("16 streams of %zu MiB, one thread, best of %d (GB/s of CPU time / wall time)\n\n",
              mib, repeats);
  std::printf("| Case | GB/s (CPU) | GB/s (wall) | Against OpenSSL single stream (CPU) |\n");
  std::printf("|---|---:|---:|---:|\n");
  std::printf("| MD5, OpenSSL EVP, one stream at a time | %.2f | %.2f | 1.00x |\n",
              bytes / openSslMd5.cpu / 1e9, bytes / openSslMd5.wall / 1e9);
  for (const Md5LanePath path : paths) {
    std::printf("| MD5, Md5Lanes %s (%u lanes) | %.2f | %.2f | %.2fx |\n",
                std::string(corvane::detail::md5LanePathName(path)).c_str(),
                corvane::detail::md5LaneCount(path), bytes / lanes[path].cpu / 1e9,
                bytes / lanes[path].wall / 1e9, openSslMd5.cpu / lanes[path].cpu);
  }
  std::printf(
      "| SHA-1, OpenSSL EVP (SHA extensions), one stream at a time | %.2f | %.2f | 1.00x |\n",
      bytes / openSslSha1.cpu / 1e9, bytes / openSslSha1.wall / 1e9);
  if (sha1Prototype) {
    std::printf("| SHA-1, 16-lane AVX-512 prototype | %.2f | %.2f | %.2fx |\n",
                bytes / prototypeSha1.cpu / 1e9, bytes / prototypeSha1.wall / 1e9,
                openSslSha1.cpu / prototypeSha1.cpu);
  }

  // One vector step against one OpenSSL block, data in cache (16 KiB per lane).
  std::vector<std::uint8_t> cached(16 * 16384);
  std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(cached.size()),
            cached.begin());
  Best block;
  for (int round = 0; round < repeats; ++round) {
    timed(block, [&] {
      for (int k = 0; k < 200; ++k) openSslDigests(EVP_md5(), cached, 16384);
    });
  }
  const double blockSeconds = block.cpu / (200.0 * 16 * 256);
  std::printf(
      "\nOne kernel step (one block on every active lane) in OpenSSL blocks, data cached:\n\n");
  std::printf("| Path | 1 lane | 2 lanes | 4 lanes | all lanes |\n|---|---:|---:|---:|---:|\n");
  for (const Md5LanePath path : paths) {
    if (path == Md5LanePath::scalar) continue;
    const unsigned count = corvane::detail::md5LaneCount(path);
    std::printf("| %s", std::string(corvane::detail::md5LanePathName(path)).c_str());
    for (const unsigned active : {1U, 2U, 4U, count}) {
      alignas(64) std::uint32_t state[4][16] = {};
      const std::uint8_t* pointers[16];
      for (unsigned l = 0; l < 16; ++l) pointers[l] = cached.data() + l * 16384;
      const std::uint32_t mask = active == 32 ? ~0U : (1U << active) - 1;
      Best step;
      for (int round = 0; round < repeats; ++round) {
        timed(step, [&] {
          for (int k = 0; k < 200; ++k) {
            if (path == Md5LanePath::avx512) {
              corvane::detail::md5LanesAvx512(state, pointers, 256, mask);
            } else {
              corvane::detail::md5LanesAvx2(state, pointers, 256, mask);
            }
          }
        });
      }
      std::printf(" | %.2f", step.cpu / (200.0 * 256) / blockSeconds);
    }
    std::printf(" |\n");
  }
  return 0;
}
