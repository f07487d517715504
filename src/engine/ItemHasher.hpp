// ItemHasher: one item of a file-set run, from open to checksums. The file is read once through
// FileReader; every chunk goes to one streaming generator per algorithm (and to the run's extra
// sinks) and the checksums are taken only when the whole file was read and did not change.
//
// The algorithms of one file hash in parallel on the library's worker pool: the heaviest ones
// take each chunk without the reader waiting, the lightest are absorbed on the reading thread
// (see AlgorithmPlan). A small file is hashed entirely on the reading thread in cache-sized
// pieces: handing it to other threads would cost more in wake-ups than it gains, and the run
// keeps other processors busy with other files.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <stop_token>
#include <vector>

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

class ItemHasher {
 public:
  ItemHasher(const FileSetSettings& settings, DeviceReaderLimits& limits, RunCounters& counters);

  // Never throws for file problems; a stop ends reading within one chunk.
  FileSetResult hash(FileSetItem item, std::size_t index, const std::stop_token& stop);

 private:
  const AlgorithmPlan& planFor(const std::vector<ChecksumType>& algorithms);

  const FileSetSettings& settings_;
  DeviceReaderLimits& limits_;
  RunCounters& counters_;
  unsigned processors_;
  std::mutex plansMutex_;
  std::map<std::vector<std::uint64_t>, AlgorithmPlan> plans_;  // by raw algorithm values
};

}  // namespace corvane::engine
