// ChecksumGenerator: several checksums of one buffer or one file in a single pass.
//
// A small value type holding the list of algorithms. Each run creates one streaming generator
// per algorithm (see CorvaneChecksumGenerator), feeds them one after another, reports progress
// and finally supplies every result as (text, type). All callbacks run on the caller's thread.
// A value may run any number of times, also concurrently from several threads.
//
// Algorithms without a generator are skipped silently; if none is left, a run returns at once
// without any callback (and without opening the file). No run reports an error: failures show as
// missing results.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API ChecksumGenerator {
 public:
  // (fraction done, bytes counted so far, stop flag the callback may set to true)
  using ProgressBlock = std::function<void(float, std::uint64_t, bool*)>;
  using ChecksumSupplyBlock = std::function<void(const std::string&, ChecksumType)>;

  // Bytes requested from the file per read: 8 MiB.
  static constexpr std::int64_t kDefaultReadSize = 8388608;

  explicit ChecksumGenerator(std::vector<ChecksumType> algorithms);

  const std::vector<ChecksumType>& algorithms() const noexcept { return algorithms_; }
  std::int64_t readSize() const noexcept { return readSize_; }

  // Buffer form. Each generator receives the whole buffer in one piece. Progress is reported
  // once per algorithm with a cumulative count (1.0, 2.0, ... N.0 and count, 2*count, ...); an
  // empty buffer gives no progress call. A stop ends the feeding, yet every algorithm is still
  // finalized and supplied (the unfed ones with the empty-input checksum).
  void generateChecksumForData(const Bytes& data, const ProgressBlock& progressBlock,
                               const ChecksumSupplyBlock& checksumSupplyBlock) const;

  // File form. Reads `file` in chunks of readSize() bytes and hands every chunk to every
  // generator before the next read. Progress (bytes read / file size) follows every chunk when
  // the size is known. A stop ends reading and nothing is supplied. A file that cannot be opened
  // (missing, unreadable, a directory) gives no callback at all; a read error ends reading and
  // the checksums of the bytes read so far are supplied.
  void generateChecksumsForFile(const std::string& file, const ProgressBlock& progressBlock,
                                const ChecksumSupplyBlock& checksumSupplyBlock) const;

  // One checksum of a buffer; empty when `algorithm` has no generator.
  static std::optional<std::string> generateChecksumForData(const Bytes& data,
                                                            ChecksumType algorithm);
  // One checksum of a file; empty when `algorithm` has no generator or the file cannot be opened.
  static std::optional<std::string> generateChecksumForFile(const std::string& file,
                                                            ChecksumType algorithm);

 private:
  std::int64_t readSize_ = kDefaultReadSize;
  std::vector<ChecksumType> algorithms_;
};

}  // namespace corvane
