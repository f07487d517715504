// HashLanes: one Merkle-Damgard hash (MD5, SHA-1) of many independent streams at once, one
// stream per 32-bit lane of a vector register. Md5Lanes and Sha1Lanes (Md5Lanes.hpp,
// Sha1Lanes.hpp) are this manager over their algorithm; everything that is the same for both
// (joining, feeding without copying, carrying partial blocks, padding, masking idle lanes, handing
// the last lanes to OpenSSL) is here once.
//
// One stream cannot go faster than its chain of blocks (each 64-byte block needs the state the
// previous one left). Independent streams can: the same rounds run on 16 streams in the lanes of
// an AVX-512 register, or 8 in AVX2. The kernel is chosen at run time from the processor's
// features; without one the manager has one lane, hashed by OpenSSL.
//
// Use: a stream takes a free lane with join(); its bytes are handed over with feed() as they
// come (any lengths, the partial block at the end of each feed is carried over); run() hashes
// everything fed so far on every lane together; close() ends a stream, and after the next run()
// takeDigest() gives its digest and frees the lane. Streams join and leave at any time and have
// any lengths: a lane without bytes in a run is masked (its state untouched), so no stream waits
// for another, and a run hashes every byte fed before it, so none starves. When fewer streams
// have blocks left than make the vector kernel pay, the rest is hashed stream by stream through
// OpenSSL's block function, so a stream alone costs what OpenSSL costs.
//
// Ownership: feed() does not copy; the bytes must stay valid and unchanged until the next run()
// (or the close() + run() of finish()) returns, after which nothing fed is referenced.
//
// Thread safety: none; one manager is used by one thread. Different objects are independent.
//
// Errors: a lane number that is not an occupied lane, or a lane used out of turn (fed after
// close(), a digest taken before the run that finishes it), is a programming error: one line on
// stderr and abort.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string_view>

#include "util/Fatal.hpp"

namespace corvane::detail {

// The kernels the processor may run, narrowest first.
enum class LanePath { scalar, avx2, avx512 };

// Whether this processor (and its operating system, which must save the wider registers) can run
// `path`; the scalar path always.
bool lanePathSupported(LanePath path);
// Streams hashed at once: 16, 8, or 1 (scalar).
unsigned laneCount(LanePath path);
// "scalar", "avx2", "avx512".
std::string_view lanePathName(LanePath path);
// Parses a name as lanePathName() gives it.
std::optional<LanePath> lanePathNamed(std::string_view name);
// The path named by the environment variable `variable` if it is set to a path's name, else
// `preferred`; a path the processor cannot run falls back to the next one of `fallbacks` (widest
// first) that it can, scalar at the end.
LanePath lanePathFromEnvironment(const char* variable, LanePath preferred,
                                 std::initializer_list<LanePath> fallbacks);

// A vector kernel: hashes `blocks` consecutive 64-byte blocks on every lane whose bit is set in
// `activeLanes`, lane l reading from lanes[l] on. The state is one row per word, one column per
// lane; the columns of other lanes are left as they were and their pointers are not read.
using LaneKernel = void (*)(std::uint32_t (*state)[16], const std::uint8_t* const* lanes,
                            std::size_t blocks, std::uint32_t activeLanes);

// What HashLanes needs of an algorithm (see Md5LaneAlgorithm, Sha1LaneAlgorithm):
//   kWords, kDigestSize, kBigEndian (the byte order of the length in the padding and of the
//   digest's words), kName and kPathName (for diagnostics), pathInUse() (the default path),
//   kInitialState, kAvx512Kernel and kAvx2Kernel, kAvx512Threshold and kAvx2Threshold (fewest
//   lanes with blocks for which a vector step beats OpenSSL), and hashAlone(state, lane, bytes,
//   blocks) (whole blocks of one lane through OpenSSL).
template <class Algorithm>
class HashLanes {
 public:
  static constexpr unsigned kMaximumLanes = 16;
  using Digest = std::array<std::uint8_t, Algorithm::kDigestSize>;

  // The kernel of `path`; null for the scalar path, which has none.
  static LaneKernel kernelOf(LanePath path) {
    switch (path) {
      case LanePath::avx512:
        return Algorithm::kAvx512Kernel;
      case LanePath::avx2:
        return Algorithm::kAvx2Kernel;
      case LanePath::scalar:
        break;
    }
    return nullptr;
  }
  // The fewest lanes with blocks for which `path`'s kernel is used; never for the scalar path.
  static unsigned vectorThresholdOf(LanePath path) {
    switch (path) {
      case LanePath::avx512:
        return Algorithm::kAvx512Threshold;
      case LanePath::avx2:
        return Algorithm::kAvx2Threshold;
      case LanePath::scalar:
        break;
    }
    return std::numeric_limits<unsigned>::max();
  }

  // A manager for `path`, which must be supported (lanePathSupported); a path the processor
  // lacks is a fatal programming error.
  explicit HashLanes(LanePath path = Algorithm::pathInUse())
      : path_(path),
        laneCount_(detail::laneCount(path)),
        vectorThreshold_(vectorThresholdOf(path)),
        kernel_(kernelOf(path)) {
    if (!lanePathSupported(path)) {
      fatalInvalidValue(Algorithm::kPathName, "not supported by this processor",
                        static_cast<std::uint64_t>(path));
    }
    if (kernel_ == nullptr) vectorThreshold_ = std::numeric_limits<unsigned>::max();
  }
  HashLanes(const HashLanes&) = delete;
  HashLanes& operator=(const HashLanes&) = delete;

  LanePath path() const { return path_; }
  unsigned laneCount() const { return laneCount_; }
  // Fewest lanes with blocks left for which the vector kernel is used (more than laneCount()
  // when it never is).
  unsigned vectorThreshold() const { return vectorThreshold_; }
  unsigned freeLanes() const {
    return static_cast<unsigned>(
        std::count_if(lanes_.begin(), lanes_.begin() + laneCount_,
                      [](const Lane& lane) { return lane.state == LaneState::free; }));
  }

  // Takes a free lane for a new stream (its state freshly initialised); nothing when every lane
  // is occupied.
  std::optional<unsigned> join();
  // Appends `length` bytes to the stream of `lane`. A lane fed a second time before run() is run
  // first (only the lanes with bytes waiting are hashed then).
  void feed(unsigned lane, const std::uint8_t* bytes, std::size_t length);
  // Ends the stream of `lane`: its padding is hashed by the next run(), after which its digest
  // can be taken.
  void close(unsigned lane);
  // Hashes every byte fed (and the padding of every closed lane) on all lanes together.
  void run();
  // The digest of a closed lane after the run that finished it; frees the lane.
  Digest takeDigest(unsigned lane);
  // close(), run() and takeDigest(): the other lanes' bytes waiting are hashed too.
  Digest finish(unsigned lane) {
    close(lane);
    run();
    return takeDigest(lane);
  }
  // Frees `lane` without a digest (a stream that failed); bytes fed are forgotten.
  void leave(unsigned lane) { occupied(lane, "leave of a lane that is not occupied") = {}; }

 private:
  enum class LaneState : std::uint8_t { free, open, closed, finished };

  // A run of consecutive blocks of one lane: where they are and how many.
  struct Segment {
    const std::uint8_t* bytes = nullptr;
    std::size_t blocks = 0;
  };

  struct Lane {
    LaneState state = LaneState::free;
    std::uint64_t length = 0;  // bytes fed since join(), for the padding
    const std::uint8_t* pending = nullptr;
    std::size_t pendingLength = 0;
    std::array<std::uint8_t, 64> carry{};  // the partial block after the last run
    std::size_t carryLength = 0;
    bool padded = false;                               // the padding is in `last` for this run
    alignas(64) std::array<std::uint8_t, 64> first{};  // the carry completed by new bytes
    alignas(64) std::array<std::uint8_t, 128> last{};  // the final one or two blocks
    std::array<Segment, 3> segments{};  // first, the pending bytes' whole blocks, last
    unsigned segment = 0;               // the segment being hashed
  };

  Lane& occupied(unsigned lane, const char* operation) {
    if (lane >= laneCount_ || lanes_[lane].state == LaneState::free) {
      fatalInvalidValue(Algorithm::kName, operation, lane);
    }
    return lanes_[lane];
  }
  // Lays out the blocks of one lane for a run; consumes its pending bytes into the carry.
  void prepare(Lane& lane);
  static void skipEmptySegments(Lane& lane) {
    while (lane.segment < lane.segments.size() && lane.segments[lane.segment].blocks == 0) {
      ++lane.segment;
    }
  }

  LanePath path_;
  unsigned laneCount_;
  unsigned vectorThreshold_;
  LaneKernel kernel_;
  // The state words of every lane, one row per word: the kernels' layout.
  alignas(64) std::uint32_t state_[Algorithm::kWords][kMaximumLanes] = {};
  std::array<Lane, kMaximumLanes> lanes_{};
};

template <class Algorithm>
std::optional<unsigned> HashLanes<Algorithm>::join() {
  for (unsigned index = 0; index < laneCount_; ++index) {
    Lane& lane = lanes_[index];
    if (lane.state != LaneState::free) continue;
    lane = Lane{};
    lane.state = LaneState::open;
    for (unsigned word = 0; word < Algorithm::kWords; ++word) {
      state_[word][index] = Algorithm::kInitialState[word];
    }
    return index;
  }
  return std::nullopt;
}

template <class Algorithm>
void HashLanes<Algorithm>::feed(unsigned lane, const std::uint8_t* bytes, std::size_t length) {
  Lane& target = occupied(lane, "feed of a lane that is not occupied");
  if (target.state != LaneState::open) {
    fatalInvalidValue(Algorithm::kName, "feed of a lane already closed", lane);
  }
  if (length == 0) return;
  if (target.pending != nullptr) run();
  target.pending = bytes;
  target.pendingLength = length;
  target.length += length;
}

template <class Algorithm>
void HashLanes<Algorithm>::close(unsigned lane) {
  Lane& target = occupied(lane, "close of a lane that is not occupied");
  if (target.state != LaneState::open) {
    fatalInvalidValue(Algorithm::kName, "close of a lane already closed", lane);
  }
  target.state = LaneState::closed;
}

template <class Algorithm>
void HashLanes<Algorithm>::prepare(Lane& lane) {
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
    // The same padding for both (RFC 1321, 3.1-3.2; FIPS 180-4, 5.1.1): a 1 bit, zeros up to 56
    // bytes modulo 64, then the length in bits as a 64-bit number, little-endian for MD5 and
    // big-endian for SHA-1.
    const std::size_t tail = lane.carryLength;
    const std::size_t total = tail + 1 + 8 <= 64 ? 64 : 128;
    std::memcpy(lane.last.data(), lane.carry.data(), tail);
    lane.last[tail] = 0x80;
    std::memset(lane.last.data() + tail + 1, 0, total - 8 - tail - 1);
    const std::uint64_t bits = lane.length * 8;
    for (int k = 0; k < 8; ++k) {
      const int shift = Algorithm::kBigEndian ? 8 * (7 - k) : 8 * k;
      lane.last[total - 8 + k] = static_cast<std::uint8_t>(bits >> shift);
    }
    lane.segments[2] = {lane.last.data(), total / 64};
    lane.carryLength = 0;
    lane.padded = true;
  }
  skipEmptySegments(lane);
}

template <class Algorithm>
void HashLanes<Algorithm>::run() {
  unsigned working = 0;
  for (unsigned index = 0; index < laneCount_; ++index) {
    Lane& lane = lanes_[index];
    if (lane.state == LaneState::open || lane.state == LaneState::closed) {
      prepare(lane);
      if (lane.segment < lane.segments.size()) ++working;
    }
  }
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
    kernel_(state_, next, blocks, active);
    working = 0;
    for (unsigned index = 0; index < laneCount_; ++index) {
      if (((active >> index) & 1U) == 0) continue;
      Lane& lane = lanes_[index];
      Segment& segment = lane.segments[lane.segment];
      segment.bytes += blocks * 64;
      segment.blocks -= blocks;
      skipEmptySegments(lane);
      if (lane.segment < lane.segments.size()) ++working;
    }
  }
  for (unsigned index = 0; index < laneCount_; ++index) {
    Lane& lane = lanes_[index];
    if (lane.state != LaneState::open && lane.state != LaneState::closed) continue;
    for (; lane.segment < lane.segments.size(); ++lane.segment) {
      const Segment& segment = lane.segments[lane.segment];
      if (segment.blocks != 0) Algorithm::hashAlone(state_, index, segment.bytes, segment.blocks);
    }
    if (lane.state == LaneState::closed) lane.state = LaneState::finished;
  }
}

template <class Algorithm>
typename HashLanes<Algorithm>::Digest HashLanes<Algorithm>::takeDigest(unsigned lane) {
  Lane& target = occupied(lane, "digest of a lane that is not occupied");
  if (target.state != LaneState::finished) {
    fatalInvalidValue(Algorithm::kName, "digest of a lane not closed and run", lane);
  }
  // The state words in order, each low-order byte first for MD5 (RFC 1321, 3.5) and high-order
  // byte first for SHA-1 (FIPS 180-4, 6.1.2, step 4).
  Digest digest{};
  for (unsigned word = 0; word < Algorithm::kWords; ++word) {
    for (unsigned k = 0; k < 4; ++k) {
      const unsigned shift = Algorithm::kBigEndian ? 8 * (3 - k) : 8 * k;
      digest[4 * word + k] = static_cast<std::uint8_t>(state_[word][lane] >> shift);
    }
  }
  target = Lane{};
  return digest;
}

}  // namespace corvane::detail
