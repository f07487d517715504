// Lane-parallel MD5 and SHA-1 equal single-stream MD5 and SHA-1 (OpenSSL's EVP_Digest) for every
// stream, on every lane path this processor runs; each input is run on both. The input is a script:
// each byte picks what happens next to one lane (join, feed a piece whose length is the next byte,
// close, run, leave), and the bytes fed are taken from the input itself, so lengths, piece
// boundaries, joins while others finish and lanes left half-way all come from the fuzzer.
#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "FuzzCheck.hpp"
#include "checksum/Md5Lanes.hpp"
#include "checksum/Sha1Lanes.hpp"

namespace {

using corvane::detail::LanePath;
using corvane::detail::Md5Lanes;
using corvane::detail::Sha1Lanes;

template <class Lanes>
typename Lanes::Digest openSsl(const EVP_MD* md, const std::vector<std::uint8_t>& bytes) {
  typename Lanes::Digest digest{};
  unsigned int length = 0;
  CORVANE_FUZZ_CHECK(EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, md, nullptr) ==
                     1);
  CORVANE_FUZZ_CHECK(length == digest.size());
  return digest;
}

struct Stream {
  std::vector<std::uint8_t> fed;  // everything given to the lane, for the reference
  bool closed = false;
};

template <class Lanes>
void runScript(LanePath path, const EVP_MD* md, const std::uint8_t* data, std::size_t size) {
  Lanes lanes(path);
  std::array<std::optional<Stream>, Lanes::kMaximumLanes> streams;
  // Bytes fed stay valid until the next run(): they point into the input, which does.
  std::size_t source = 0;
  const auto finishClosed = [&] {
    lanes.run();
    for (unsigned lane = 0; lane < lanes.laneCount(); ++lane) {
      if (!streams[lane] || !streams[lane]->closed) continue;
      CORVANE_FUZZ_CHECK(lanes.takeDigest(lane) == openSsl<Lanes>(md, streams[lane]->fed));
      streams[lane].reset();
    }
  };
  for (std::size_t k = 0; k < size; ++k) {
    const std::uint8_t op = data[k];
    const unsigned lane = (op >> 3) % lanes.laneCount();
    switch (op & 7) {
      case 0:
      case 1:
        if (const std::optional<unsigned> joined = lanes.join()) streams[*joined].emplace();
        break;
      case 2:
      case 3:
      case 4: {  // a piece of up to 255 bytes (or up to 64 KiB), taken from the input cyclically
        if (!streams[lane] || streams[lane]->closed || size == 0) break;
        std::size_t length = k + 1 < size ? data[k + 1] : 0;
        if ((op & 7) == 4) length *= 257;
        length = std::min(length, size - source % size);
        const std::uint8_t* bytes = data + source % size;
        lanes.feed(lane, bytes, length);
        streams[lane]->fed.insert(streams[lane]->fed.end(), bytes, bytes + length);
        source += length + 1;
        break;
      }
      case 5:
        if (streams[lane] && !streams[lane]->closed) {
          lanes.close(lane);
          streams[lane]->closed = true;
        }
        break;
      case 6:
        finishClosed();
        break;
      case 7:
        if (streams[lane] && (op & 0x80) != 0) {
          lanes.leave(lane);
          streams[lane].reset();
        }
        break;
    }
  }
  for (unsigned lane = 0; lane < lanes.laneCount(); ++lane) {
    if (streams[lane] && !streams[lane]->closed) {
      lanes.close(lane);
      streams[lane]->closed = true;
    }
  }
  finishClosed();
  CORVANE_FUZZ_CHECK(lanes.freeLanes() == lanes.laneCount());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const LanePath path : {LanePath::scalar, LanePath::avx2, LanePath::avx512}) {
    if (!corvane::detail::lanePathSupported(path)) continue;
    runScript<Md5Lanes>(path, EVP_md5(), data, size);
    runScript<Sha1Lanes>(path, EVP_sha1(), data, size);
  }
  return 0;
}
