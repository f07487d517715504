// OpenSSL's low-level MD5 interface (deprecated in 3.0, still exported) is the only one that
// hands out the state between blocks: a lane left alone continues through OpenSSL's own block
// function, so one stream costs what it costs with the EVP interface.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "checksum/Md5Lanes.hpp"

#include <openssl/md5.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "checksum/Md5LanesKernels.hpp"
#include "util/Fatal.hpp"

namespace corvane::detail {
namespace {

using Kernel = void (*)(std::uint32_t (*)[16], const std::uint8_t* const*, std::size_t,
                        std::uint32_t);

// Fewest lanes with blocks left for which one vector step beats hashing them one by one with
// OpenSSL. Measured with bench/Md5LanesBench (docs/PERFORMANCE.md, "MD5 over many streams"): a
// 16-lane AVX-512 step costs as much as 1.7 OpenSSL blocks, an 8-lane AVX2 step 2.4, however
// many lanes are in use.
constexpr unsigned kAvx512VectorThreshold = 2;
constexpr unsigned kAvx2VectorThreshold = 3;

Kernel kernelFor(Md5LanePath path) {
  switch (path) {
    case Md5LanePath::avx512:
      return md5LanesAvx512;
    case Md5LanePath::avx2:
      return md5LanesAvx2;
    case Md5LanePath::scalar:
      break;
  }
  return nullptr;
}

// `blocks` whole blocks of one stream through OpenSSL's block function: a context holding the
// state with nothing buffered hashes whole blocks straight from the caller's bytes.
void hashBlocksWithOpenSsl(std::uint32_t (*state)[16], unsigned lane, const std::uint8_t* bytes,
                           std::size_t blocks) {
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

}  // namespace

bool md5LanePathSupported(Md5LanePath path) {
  // __builtin_cpu_supports also checks (XGETBV) that the operating system saves the registers.
  switch (path) {
    case Md5LanePath::scalar:
      return true;
    case Md5LanePath::avx2:
      return __builtin_cpu_supports("avx2") != 0;
    case Md5LanePath::avx512:
      return __builtin_cpu_supports("avx512f") != 0;
  }
  return false;
}

Md5LanePath md5LanePathInUse() {
  Md5LanePath wanted = Md5LanePath::avx512;
  if (const char* forced = std::getenv(kMd5LanesEnvironmentVariable)) {
    if (const std::optional<Md5LanePath> named = md5LanePathNamed(forced)) wanted = *named;
  }
  while (wanted != Md5LanePath::scalar && !md5LanePathSupported(wanted)) {
    wanted = wanted == Md5LanePath::avx512 ? Md5LanePath::avx2 : Md5LanePath::scalar;
  }
  return wanted;
}

unsigned md5LaneCount(Md5LanePath path) {
  switch (path) {
    case Md5LanePath::avx512:
      return 16;
    case Md5LanePath::avx2:
      return 8;
    case Md5LanePath::scalar:
      break;
  }
  return 1;
}

std::string_view md5LanePathName(Md5LanePath path) {
  switch (path) {
    case Md5LanePath::avx512:
      return "avx512";
    case Md5LanePath::avx2:
      return "avx2";
    case Md5LanePath::scalar:
      break;
  }
  return "scalar";
}

std::optional<Md5LanePath> md5LanePathNamed(std::string_view name) {
  for (const Md5LanePath path : {Md5LanePath::scalar, Md5LanePath::avx2, Md5LanePath::avx512}) {
    if (name == md5LanePathName(path)) return path;
  }
  return std::nullopt;
}

Md5Lanes::Md5Lanes(Md5LanePath path)
    : path_(path),
      laneCount_(md5LaneCount(path)),
      vectorThreshold_(path == Md5LanePath::avx512 ? kAvx512VectorThreshold
                       : path == Md5LanePath::avx2 ? kAvx2VectorThreshold
                                                   : std::numeric_limits<unsigned>::max()) {
  if (!md5LanePathSupported(path)) {
    fatalInvalidValue("Md5LanePath", "not supported by this processor",
                      static_cast<std::uint64_t>(path));
  }
}

unsigned Md5Lanes::freeLanes() const {
  return static_cast<unsigned>(
      std::count_if(lanes_.begin(), lanes_.begin() + laneCount_,
                    [](const Lane& lane) { return lane.state == LaneState::free; }));
}

std::optional<unsigned> Md5Lanes::join() {
  for (unsigned index = 0; index < laneCount_; ++index) {
    Lane& lane = lanes_[index];
    if (lane.state != LaneState::free) continue;
    lane = Lane{};
    lane.state = LaneState::open;
    for (int word = 0; word < 4; ++word) state_[word][index] = kMd5InitialState[word];
    return index;
  }
  return std::nullopt;
}

Md5Lanes::Lane& Md5Lanes::occupied(unsigned lane, const char* operation) {
  if (lane >= laneCount_ || lanes_[lane].state == LaneState::free) {
    fatalInvalidValue("Md5Lanes", operation, lane);
  }
  return lanes_[lane];
}

void Md5Lanes::feed(unsigned lane, const std::uint8_t* bytes, std::size_t length) {
  Lane& target = occupied(lane, "feed of a lane that is not occupied");
  if (target.state != LaneState::open) {
    fatalInvalidValue("Md5Lanes", "feed of a lane already closed", lane);
  }
  if (length == 0) return;
  if (target.pending != nullptr) run();
  target.pending = bytes;
  target.pendingLength = length;
  target.length += length;
}

void Md5Lanes::close(unsigned lane) {
  Lane& target = occupied(lane, "close of a lane that is not occupied");
  if (target.state != LaneState::open) {
    fatalInvalidValue("Md5Lanes", "close of a lane already closed", lane);
  }
  target.state = LaneState::closed;
}

void Md5Lanes::prepare(Lane& lane) {
  lane.segments = {};
  lane.segment = 0;
  const std::uint8_t* bytes = lane.pending;
  std::size_t length = lane.pendingLength;
  lane.pending = nullptr;
  lane.pendingLength = 0;
  if (lane.carryLength > 0 && length > 0) {
    const std::size_t taken = std::min(64 - lane.carryLength, length);
    std::memcpy(lane.carry.data() + lane.carryLength, bytes, taken);
    lane.carryLength += taken;
    bytes += taken;
    length -= taken;
    if (lane.carryLength == 64) {
      lane.first = lane.carry;
      lane.segments[0] = {lane.first.data(), 1};
      lane.carryLength = 0;
    }
  }
  if (length > 0) {  // the carry is empty here: it was, or it was completed
    lane.segments[1] = {bytes, length / 64};
    lane.carryLength = length % 64;
    std::memcpy(lane.carry.data(), bytes + length - lane.carryLength, lane.carryLength);
  }
  if (lane.state == LaneState::closed && !lane.padded) {
    // RFC 1321, 3.1 and 3.2: a 1 bit, zeros up to 56 bytes modulo 64, then the length in bits
    // as a little-endian 64-bit number.
    const std::size_t tail = lane.carryLength;
    const std::size_t total = tail + 1 + 8 <= 64 ? 64 : 128;
    std::memcpy(lane.last.data(), lane.carry.data(), tail);
    lane.last[tail] = 0x80;
    std::memset(lane.last.data() + tail + 1, 0, total - 8 - tail - 1);
    const std::uint64_t bits = lane.length * 8;
    for (int k = 0; k < 8; ++k) {
      lane.last[total - 8 + k] = static_cast<std::uint8_t>(bits >> (8 * k));
    }
    lane.segments[2] = {lane.last.data(), total / 64};
    lane.carryLength = 0;
    lane.padded = true;
  }
  while (lane.segment < lane.segments.size() && lane.segments[lane.segment].blocks == 0) {
    ++lane.segment;
  }
}

void Md5Lanes::hashAlone(unsigned index) {
  Lane& lane = lanes_[index];
  for (; lane.segment < lane.segments.size(); ++lane.segment) {
    const Segment& segment = lane.segments[lane.segment];
    if (segment.blocks != 0) hashBlocksWithOpenSsl(state_, index, segment.bytes, segment.blocks);
  }
}

void Md5Lanes::run() {
  unsigned working = 0;
  for (unsigned index = 0; index < laneCount_; ++index) {
    Lane& lane = lanes_[index];
    if (lane.state == LaneState::open || lane.state == LaneState::closed) {
      prepare(lane);
      if (lane.segment < lane.segments.size()) ++working;
    }
  }
  const Kernel kernel = kernelFor(path_);
  // Lanes only ever run out of blocks, so once too few are left for the vector kernel to pay,
  // the rest go through OpenSSL one lane after another.
  while (working >= vectorThreshold_) {
    std::size_t blocks = std::numeric_limits<std::size_t>::max();
    std::uint32_t active = 0;
    const std::uint8_t* next[kMaximumLanes] = {};
    for (unsigned index = 0; index < laneCount_; ++index) {
      const Lane& lane = lanes_[index];
      if (lane.state == LaneState::free || lane.state == LaneState::finished ||
          lane.segment >= lane.segments.size()) {
        continue;
      }
      const Segment& segment = lane.segments[lane.segment];
      active |= 1U << index;
      next[index] = segment.bytes;
      blocks = std::min(blocks, segment.blocks);
    }
    kernel(state_, next, blocks, active);
    working = 0;
    for (unsigned index = 0; index < laneCount_; ++index) {
      if (((active >> index) & 1U) == 0) continue;
      Lane& lane = lanes_[index];
      Segment& segment = lane.segments[lane.segment];
      segment.bytes += blocks * 64;
      segment.blocks -= blocks;
      while (lane.segment < lane.segments.size() && lane.segments[lane.segment].blocks == 0) {
        ++lane.segment;
      }
      if (lane.segment < lane.segments.size()) ++working;
    }
  }
  for (unsigned index = 0; index < laneCount_; ++index) {
    Lane& lane = lanes_[index];
    if (lane.state != LaneState::open && lane.state != LaneState::closed) continue;
    hashAlone(index);
    if (lane.state == LaneState::closed) lane.state = LaneState::finished;
  }
}

Md5Digest Md5Lanes::takeDigest(unsigned lane) {
  Lane& target = occupied(lane, "digest of a lane that is not occupied");
  if (target.state != LaneState::finished) {
    fatalInvalidValue("Md5Lanes", "digest of a lane not closed and run", lane);
  }
  // RFC 1321, 3.5: A, B, C, D, each low-order byte first.
  Md5Digest digest{};
  for (int word = 0; word < 4; ++word) {
    for (int k = 0; k < 4; ++k) {
      digest[4 * word + k] = static_cast<std::uint8_t>(state_[word][lane] >> (8 * k));
    }
  }
  target = Lane{};
  return digest;
}

Md5Digest Md5Lanes::finish(unsigned lane) {
  close(lane);
  run();
  return takeDigest(lane);
}

void Md5Lanes::leave(unsigned lane) { occupied(lane, "leave of a lane that is not occupied") = {}; }

}  // namespace corvane::detail
