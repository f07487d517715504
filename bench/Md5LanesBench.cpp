// Lane-parallel MD5 and SHA-1 on one core against OpenSSL's single stream (for SHA-1, with the
// processor's SHA extensions): 16 streams of 64 MiB (in memory) hashed through Md5Lanes and
// Sha1Lanes on every path the processor runs, fed 64 KiB per lane per run() as the file-set
// engine feeds them, beside EVP_Digest of the same 16 streams one after the other. Every digest
// is checked against OpenSSL's before any figure is printed.
//
// Also measured: what one vector step costs against one OpenSSL block (with 1 to 16 lanes in
// use, data in cache), which sets the point below which the lanes hand streams to OpenSSL, and
// tells whether a path pays at all (a step that costs more OpenSSL blocks than it has lanes
// never does).
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
#include "checksum/Sha1Lanes.hpp"
#include "checksum/Sha1LanesKernels.hpp"

namespace {

using corvane::detail::LanePath;
using corvane::detail::Md5Lanes;
using corvane::detail::Sha1Lanes;

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

template <class Lanes>
std::vector<std::vector<std::uint8_t>> withLanes(LanePath path,
                                                 const std::vector<std::uint8_t>& data,
                                                 std::size_t streamBytes) {
  Lanes lanes(path);
  std::vector<std::vector<std::uint8_t>> digests(kStreams);
  std::vector<std::size_t> offset(kStreams, 0);
  std::array<std::size_t, Lanes::kMaximumLanes> streamOf{};
  std::array<bool, Lanes::kMaximumLanes> busy{};
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
      const typename Lanes::Digest digest = lanes.takeDigest(lane);
      digests[streamOf[lane]].assign(digest.begin(), digest.end());
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

  std::vector<LanePath> paths;
  for (const LanePath path : {LanePath::scalar, LanePath::avx2, LanePath::avx512}) {
    if (corvane::detail::lanePathSupported(path)) paths.push_back(path);
  }

  // One algorithm's cases: the OpenSSL reference and every path of its lanes.
  struct Algorithm {
    const char* name;
    const char* managerName;
    const EVP_MD* md;
    std::function<std::vector<std::vector<std::uint8_t>>(LanePath)> lanes;
    corvane::detail::LaneKernel avx2;
    corvane::detail::LaneKernel avx512;
    Best openSsl;
    std::map<LanePath, Best> best;
  };
  std::vector<Algorithm> algorithms;
  algorithms.push_back({"MD5",
                        "Md5Lanes",
                        EVP_md5(),
                        [&](LanePath path) { return withLanes<Md5Lanes>(path, data, streamBytes); },
                        corvane::detail::md5LanesAvx2,
                        corvane::detail::md5LanesAvx512,
                        {},
                        {}});
  algorithms.push_back(
      {"SHA-1",
       "Sha1Lanes",
       EVP_sha1(),
       [&](LanePath path) { return withLanes<Sha1Lanes>(path, data, streamBytes); },
       corvane::detail::sha1LanesAvx2,
       corvane::detail::sha1LanesAvx512,
       {},
       {}});

  // Exactness first.
  for (const Algorithm& algorithm : algorithms) {
    const auto reference = openSslDigests(algorithm.md, data, streamBytes);
    for (const LanePath path : paths) {
      if (algorithm.lanes(path) != reference) {
        std::fprintf(stderr, "%s differs on the %s path\n", algorithm.name,
                     std::string(corvane::detail::lanePathName(path)).c_str());
        return 1;
      }
    }
  }

  for (int round = 0; round < repeats; ++round) {
    for (Algorithm& algorithm : algorithms) {
      timed(algorithm.openSsl, [&] { openSslDigests(algorithm.md, data, streamBytes); });
      for (const LanePath path : paths) {
        timed(algorithm.best[path], [&] { algorithm.lanes(path); });
      }
    }
  }

  const double bytes = double(data.size());
  std::printf("16 streams of %zu MiB, one thread, best of %d (GB/s of CPU time / wall time)\n\n",
              mib, repeats);
  std::printf("| Case | GB/s (CPU) | GB/s (wall) | Against OpenSSL single stream (CPU) |\n");
  std::printf("|---|---:|---:|---:|\n");
  for (Algorithm& algorithm : algorithms) {
    std::printf("| %s, OpenSSL EVP, one stream at a time | %.2f | %.2f | 1.00x |\n", algorithm.name,
                bytes / algorithm.openSsl.cpu / 1e9, bytes / algorithm.openSsl.wall / 1e9);
    for (const LanePath path : paths) {
      const Best& best = algorithm.best[path];
      std::printf("| %s, %s %s (%u lanes) | %.2f | %.2f | %.2fx |\n", algorithm.name,
                  algorithm.managerName, std::string(corvane::detail::lanePathName(path)).c_str(),
                  corvane::detail::laneCount(path), bytes / best.cpu / 1e9, bytes / best.wall / 1e9,
                  algorithm.openSsl.cpu / best.cpu);
    }
  }

  // One vector step against one OpenSSL block, data in cache (16 KiB per lane).
  std::vector<std::uint8_t> cached(16 * 16384);
  std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(cached.size()),
            cached.begin());
  std::printf(
      "\nOne kernel step (one block on every active lane) in OpenSSL blocks, data cached:\n\n");
  std::printf("| Kernel | 1 lane | 2 lanes | 4 lanes | 8 lanes | all lanes |\n");
  std::printf("|---|---:|---:|---:|---:|---:|\n");
  for (const Algorithm& algorithm : algorithms) {
    Best block;
    for (int round = 0; round < repeats; ++round) {
      timed(block, [&] {
        for (int k = 0; k < 200; ++k) openSslDigests(algorithm.md, cached, 16384);
      });
    }
    const double blockSeconds = block.cpu / (200.0 * 16 * 256);
    for (const LanePath path : paths) {
      if (path == LanePath::scalar) continue;
      const unsigned count = corvane::detail::laneCount(path);
      const corvane::detail::LaneKernel kernel =
          path == LanePath::avx512 ? algorithm.avx512 : algorithm.avx2;
      std::printf("| %s %s", algorithm.name,
                  std::string(corvane::detail::lanePathName(path)).c_str());
      for (const unsigned active : {1U, 2U, 4U, 8U, count}) {
        alignas(64) std::uint32_t state[5][16] = {};
        const std::uint8_t* pointers[16];
        for (unsigned l = 0; l < 16; ++l) pointers[l] = cached.data() + l * 16384;
        const std::uint32_t mask = (1U << active) - 1;
        Best step;
        for (int round = 0; round < repeats; ++round) {
          timed(step, [&] {
            for (int k = 0; k < 200; ++k) kernel(state, pointers, 256, mask);
          });
        }
        std::printf(" | %.2f", step.cpu / (200.0 * 256) / blockSeconds);
      }
      std::printf(" |\n");
    }
  }
  return 0;
}
