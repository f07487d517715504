// ItemHasher: one item of a file-set run, from open to checksums. The file is read once through
// FileReader; every chunk goes to one streaming generator per algorithm (and to the run's extra
// sinks) and the checksums are taken only when the whole file was read and did not change.
//
// The algorithms of one file hash in parallel on the library's worker pool: the heaviest ones
// take each chunk without the reader waiting, the lightest are absorbed on the reading thread
// (see AlgorithmPlan). A small file is hashed entirely on the reading thread in cache-sized
// pieces: handing it to other threads would cost more in wake-ups than it gains, and the run
// keeps other processors busy with other files.
//
// Files whose heavy algorithms are MD5 and/or SHA-1 are hashed in groups when the processor has
// vector lanes for them (checksum/HashLanes.hpp): one thread reads up to a lane count of files in
// turn, a modest piece of each at a time, and hashes all of them together (each algorithm in its
// own lanes); files join the group as others leave it. Results, errors, change detection, stop,
// progress and device limits are those of a file hashed alone (see hashGroup()).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

#include "checksum/Md5Lanes.hpp"
#include "checksum/Sha1Lanes.hpp"
#include "corvane/FileSetHasher.hpp"
#include "engine/DeviceReaderLimits.hpp"

namespace corvane::engine {

// In which order a chunk is handed to the generators of a file, and how many of them (the first
// ones) take it without the reader waiting.
struct AlgorithmPlan {
  std::vector<ChecksumType> algorithms;   // as asked
  std::vector<std::size_t> handOffOrder;  // indices into algorithms, heaviest first
  std::size_t unwaitedCount = 1;
};

AlgorithmPlan planAlgorithms(std::vector<ChecksumType> algorithms, unsigned processors);

// Counters a run shares with its progress snapshots.
struct RunCounters {
  std::atomic<std::uint64_t> bytesRead{0};
  std::atomic<std::uint64_t> bytesSeen{0};  // sizes of the items known so far
};

// Where the files of a group come from and where their results go: the run's input and its
// window of results. Called on the group's thread only.
class GroupSource {
 public:
  virtual ~GroupSource() = default;
  // The next item of the input with its index, or nothing when none may be taken now (input
  // exhausted, window full, run stopped, or results waiting for this thread to deliver them).
  virtual std::optional<std::pair<FileSetItem, std::size_t>> take() = 0;
  // An item taken that the group does not hash: any thread of the run hashes it alone.
  virtual void handBack(FileSetItem item, std::size_t index) = 0;
  // The result of an item taken (its index is result.index).
  virtual void deliver(FileSetResult result) = 0;
};

// Whether the file of `item` is a regular file, as far as can be told before opening it: entries
// of a walk are (they are refused at open otherwise, without waiting); a named path is asked with
// stat(); nothing when stat cannot tell (the open will say why).
std::optional<bool> isRegularFileItem(const FileSetItem& item);

class ItemHasher {
 public:
  ItemHasher(const FileSetSettings& settings, DeviceReaderLimits& limits, RunCounters& counters);

  // Never throws for file problems; a stop ends reading within one chunk.
  FileSetResult hash(FileSetItem item, std::size_t index, const std::stop_token& stop);

  // Whether this run hashes MD5 or SHA-1 in groups: the processor has vector lanes for it and
  // neither FileSetSettings (forceScalarMd5, forceScalarSha1) nor the environment
  // (CORVANE_MD5_LANES=scalar, CORVANE_SHA1_LANES=scalar) says otherwise.
  bool groupsEnabled() const { return md5Lanes_ || sha1Lanes_; }
  // Whether `item` may join a group: a file by path (not a descriptor) that is regular as far as
  // can be told before opening it, with MD5 or SHA-1 (or both) among its algorithms, each of them
  // with lanes in this run, and no other algorithm heavier than CRC-32 and the xxHash family
  // (those are hashed on the group's thread beside it).
  bool groupable(const FileSetItem& item);
  // Hashes `first` (groupable, at position `index`) together with further items taken from
  // `source` while lanes are free; every item taken is delivered or handed back. When fewer
  // files come than make a group pay (half the lanes, and enough for SHA-1's kernel to pay), they
  // are handed back and `first` is hashed alone. Each file gets exactly the result hash() would
  // give it: the same checksums (MD5 and SHA-1 from the lanes equal OpenSSL's), errors, sizes,
  // sink and observer calls. A group counts as one reader of each storage device it reads from
  // (DeviceReaderLimits); before it waits for a device's slot, the files holding its other slots
  // are read to their end, so that a group never waits while holding a slot, like a thread reading
  // one file.
  void hashGroup(FileSetItem first, std::size_t index, const std::stop_token& stop,
                 GroupSource& source);

 private:
  friend class LaneGroup;

  const AlgorithmPlan& planFor(const std::vector<ChecksumType>& algorithms);

  const FileSetSettings& settings_;
  DeviceReaderLimits& limits_;
  RunCounters& counters_;
  unsigned processors_;
  // The lane paths of the run; nothing for an algorithm hashed one file at a time.
  std::optional<detail::LanePath> md5Lanes_;
  std::optional<detail::LanePath> sha1Lanes_;
  std::mutex plansMutex_;
  std::map<std::vector<std::uint64_t>, AlgorithmPlan> plans_;  // by raw algorithm values
};

}  // namespace corvane::engine
