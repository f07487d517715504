// Md5Lanes: MD5 of many independent streams at once, one stream per lane of a vector register.
//
// One MD5 stream cannot go faster than its chain of blocks (each 64-byte block needs the state
// the previous one left), about 0.9 GB/s per core with OpenSSL. Independent streams can: the same
// rounds run on 16 streams in the 32-bit lanes of an AVX-512 register, or 8 in AVX2, for a few
// times the throughput of one core. The kernel is chosen at run time from the processor's
// features; without AVX2 the manager has one lane, hashed by OpenSSL.
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
// Thread safety: none; one Md5Lanes is used by one thread. Different objects are independent.
//
// Errors: a lane number that is not an occupied lane, or a lane used out of turn (fed after
// close(), a digest taken before the run that finishes it), is a programming error: one line on
// stderr and abort.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane::detail {

// The kernels the processor may run, narrowest first.
enum class Md5LanePath { scalar, avx2, avx512 };

// The environment variable that forces a path for the whole process (tests, measurements):
// "scalar", "avx2" or "avx512". A path the processor cannot run falls back to the widest one it
// can below it; anything else means the processor's widest.
inline constexpr const char* kMd5LanesEnvironmentVariable = "CORVANE_MD5_LANES";

// Whether this processor (and its operating system, which must save the wider registers) can run
// `path`; the scalar path always.
bool md5LanePathSupported(Md5LanePath path);
// The widest path the processor supports, narrowed by CORVANE_MD5_LANES when it is set. Read on
// every call, so that tests can change the variable between runs.
Md5LanePath md5LanePathInUse();
// Streams hashed at once: 16, 8, or 1 (scalar).
unsigned md5LaneCount(Md5LanePath path);
// "scalar", "avx2", "avx512".
std::string_view md5LanePathName(Md5LanePath path);
// Parses a name as md5LanePathName() gives it.
std::optional<Md5LanePath> md5LanePathNamed(std::string_view name);

using Md5Digest = std::array<std::uint8_t, 16>;

class Md5Lanes {
 public:
  static constexpr unsigned kMaximumLanes = 16;

  // A manager for `path`, which must be supported (md5LanePathSupported); a path the processor
  // lacks is a fatal programming error.
  explicit Md5Lanes(Md5LanePath path = md5LanePathInUse());
  Md5Lanes(const Md5Lanes&) = delete;
  Md5Lanes& operator=(const Md5Lanes&) = delete;

  Md5LanePath path() const { return path_; }
  unsigned laneCount() const { return laneCount_; }
  unsigned freeLanes() const;

  // Takes a free lane for a new stream (its MD5 state freshly initialised); nothing when every
  // lane is occupied.
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
  Md5Digest takeDigest(unsigned lane);
  // close(), run() and takeDigest(): the other lanes' bytes waiting are hashed too.
  Md5Digest finish(unsigned lane);
  // Frees `lane` without a digest (a stream that failed); bytes fed are forgotten.
  void leave(unsigned lane);

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

  Lane& occupied(unsigned lane, const char* operation);
  // Lays out the blocks of one lane for a run; consumes its pending bytes into the carry.
  void prepare(Lane& lane);
  // Hashes every remaining segment of `index` alone, through OpenSSL.
  void hashAlone(unsigned index);

  Md5LanePath path_;
  unsigned laneCount_;
  unsigned vectorThreshold_;  // fewest lanes with blocks for which the vector kernel pays
  // The MD5 state words a, b, c, d of every lane, one row per word: the kernels' layout.
  alignas(64) std::uint32_t state_[4][kMaximumLanes] = {};
  std::array<Lane, kMaximumLanes> lanes_{};
};

}  // namespace corvane::detail
