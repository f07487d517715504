// FileHasher: all requested checksums of one file from one read of it, with a precise reason when
// a file cannot be checksummed.
//
// The file is opened and examined once (fstat on the open descriptor gives the size and
// modification time of exactly what is read). Its chunks are handed to one library streaming
// generator per algorithm without waiting between hand-offs, so the algorithms of one file hash
// in parallel on their own queues while the next chunk is read; each generator's queue bound
// (eight chunks) makes the reader wait for the slowest algorithm. Chunk buffers come from a pool
// shared by every file of the hasher, so a run allocates them once.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AlgorithmNames.hpp"

namespace corvane::tool {

struct FileChecksum {
  const AlgorithmName* algorithm;
  std::string checksum;
};

struct FileTime {
  std::int64_t seconds = 0;      // since the epoch, UTC
  std::int64_t nanoseconds = 0;  // 0 ... 999,999,999
};

struct FileResult {
  std::string path;
  std::optional<std::uint64_t> size;  // bytes read; known once the file was opened
  std::optional<FileTime> modified;
  // In the order of the hasher's algorithms; empty when the file could not be read to the end.
  std::vector<FileChecksum> checksums;
  // Human-readable reasons ("No such file or directory", "Input/output error").
  std::vector<std::string> errors;
  // The errno of the first failure that came from the system (ENOENT for a missing file), or 0.
  int systemError = 0;

  bool ok() const { return errors.empty(); }
  // Records a failure of the system with its strerror() text.
  void addSystemError(int error);
  // Records that the file changed while it was read ("file changed while being read") and drops
  // its checksums: they would describe bytes that never were on disk together.
  void markChanged();
  // The checksum of `algorithm`, or null.
  const std::string* checksumOf(const AlgorithmName* algorithm) const;
};

struct HashSettings {
  // Drop the file's pages from the page cache before and while reading it, so that the bytes
  // come from the disk (posix_fadvise DONTNEED).
  bool bypassCache = false;
};

class ChunkPool;

class FileHasher {
 public:
  // Called from the hashing thread with the number of bytes just read.
  using ByteCounter = std::function<void(std::uint64_t)>;

  // `algorithms` must be non-empty and hold no duplicates (see parseAlgorithmList).
  explicit FileHasher(std::vector<const AlgorithmName*> algorithms, HashSettings settings = {});
  ~FileHasher();

  const std::vector<const AlgorithmName*>& algorithms() const { return algorithms_; }

  // Checksums the file at `path`. Never throws for file problems; they end up in errors. May be
  // called from several threads at once.
  FileResult hash(const std::string& path, const ByteCounter& onBytesRead = {}) const;

 private:
  // One algorithm over a regular file of at most one chunk whose size and time are in `result`.
  void hashSmallFileInPieces(FileResult& result) const;

  std::vector<const AlgorithmName*> algorithms_;
  HashSettings settings_;
  // Indices into algorithms_, heaviest first, and how many of them hash without the reader
  // waiting (the rest are waited for one after another).
  std::vector<std::size_t> handOffOrder_;
  std::size_t unwaitedCount_ = 1;
  std::shared_ptr<ChunkPool> pool_;
};

}  // namespace corvane::tool
