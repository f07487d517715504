// FileReader: the one way the library reads a file, chunk by chunk. ChecksumGenerator, the
// one-shot helpers and the file-set engine all read through it, so every caller gets the same
// rules:
//
// - Opening: O_RDONLY | O_CLOEXEC. A named path is read as `cat` reads it: a FIFO or character
//   device is opened blocking (the open waits for a writer) and read until its writer closes it;
//   a folder is refused (kind open, EISDIR). With `regularOnly` (entries of a walk) the open is
//   non-blocking, so a FIFO is never waited for, and anything that is not a regular file at open,
//   folders included, is refused with kind notRegularFile (the walk reports it instead).
// - Examining: fstat on the open descriptor gives the size and modification time of exactly what
//   is read.
// - Reading: chunks of `chunkSize` bytes (default kDefaultChunkSize) into buffers reused from a
//   pool (a buffer is refilled once every consumer released it; what is left when a reader ends
//   stays with the thread for its next reader, up to a few MiB), so a run of many files
//   allocates them once. Reads are sized by the size at open, so a small file costs a small
//   buffer; then one small read confirms the end, and a file that grew is read on to its new end
//   (finish() then tells it changed). Read errors: kind read with the errno.
//   posix_fadvise(SEQUENTIAL) doubles the kernel's read-ahead.
// - Bypassing the cache: O_DIRECT (4096-aligned staging buffer, aligned lengths, copied into the
//   chunk) where the file system allows it, plain reads for the unaligned tail, the end probe and
//   where O_DIRECT is refused (procfs, sysfs, ...); plus posix_fadvise(DONTNEED) before, while
//   and after reading, so the bytes come from the device and leave no pages cached. Adopted
//   descriptors only get DONTNEED: O_DIRECT would change a file description shared with others.
//   Results never differ. With chunkSize below 4096 no O_DIRECT is tried; with O_DIRECT, chunks
//   are chunkSize rounded down to a multiple of 4096.
// - Change detection: after the end, finish() compares the file with what fstat said at open
//   (size and modification time) and the number of bytes read with its size; a difference is
//   FileErrorKind::changedWhileRead ("file changed while being read"). Files whose size is not
//   their content (size 0 that stays 0 while bytes come, procfs/sysfs pages) are held to size and
//   time only.
//
// Never throws for file problems: error() tells. One reader is used by one thread. A moved-from
// reader may only be destroyed or assigned to.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>

#include "corvane/Bytes.hpp"
#include "corvane/FileSetHasher.hpp"

namespace corvane::engine {

// Bytes per read unless told otherwise: large enough that a system call per chunk costs nothing,
// small enough that a chunk is still in the processor's cache when it is hashed. Measured from
// 64 KiB to 8 MiB (docs/PERFORMANCE.md, "File reading: system time per byte"): reading costs the
// same at every size; handing chunks to another thread costs least from 512 KiB to 2 MiB.
inline constexpr std::size_t kDefaultChunkSize = std::size_t{1} << 20;

struct ReadOptions {
  std::size_t chunkSize = kDefaultChunkSize;  // 0: kDefaultChunkSize
  bool bypassCache = false;
  // Refuse anything that is not a regular file at open, without waiting on a FIFO.
  bool regularOnly = false;
  // Ends a wait on a stream (a FIFO's writer at open, data of a FIFO, pipe or device) within
  // about 50 ms, and next() once asked: error kind stopped (ECANCELED, "stopped"). With a token
  // that can be stopped, a FIFO is opened non-blocking and its writer waited for with poll();
  // without one, open and reads block as `cat`'s do.
  std::stop_token stop{};
  // Called once, before the first read of a regular file that has to wait for the storage device
  // (the bytes are not in the page cache, or the cache is bypassed): the caller takes its slot of
  // the device there, so that bytes already in memory are never held back by a device limit.
  // False ends reading as stopped. Empty: nothing to call.
  std::function<bool()> beforeDiskRead{};
  // Chunk lengths may differ from chunkSize (never beyond it): the first read of a regular file
  // may be shorter so that the kernel's copies from the page cache are cache-line aligned. For
  // consumers that do not count chunks.
  bool flexibleChunks = false;
};

class FileReader {
 public:
  // Opens `path`. Check error() before reading.
  static FileReader open(const std::string& path, const ReadOptions& options);
  // Reads from `descriptor` where it stands (standard input); takes ownership of it (closed by
  // finish() or the destructor). Rules as for open(); a non-blocking descriptor is waited on.
  static FileReader adopt(int descriptor, const ReadOptions& options);

  FileReader(FileReader&&) noexcept;
  FileReader& operator=(FileReader&&) noexcept;
  ~FileReader();

  // The first failure: open, read, stopped or (after finish()) a change; kind none while all is
  // well.
  const FileError& error() const;
  // fstat of the open descriptor (valid when the open succeeded).
  const struct stat& statusAtOpen() const;
  bool isRegular() const;
  // Bytes still expected at open (regular files: size minus the starting offset).
  std::uint64_t expectedSize() const;

  // The next chunk (never empty), or null at the end or after an error (error() tells which).
  // The buffer is not reused until every holder has released it. A read error abandons the chunk
  // it happened in; chunks handed out before stay valid.
  SharedBytes next();
  std::uint64_t bytesRead() const;
  // Of bytesRead(), those that came through O_DIRECT (bypassCache on a file system that allows
  // it); for tests and instrumentation.
  std::uint64_t bytesReadDirectly() const;

  // Call once next() returned null without an error: checks that the file did not change while it
  // was read (regular files only) and closes the descriptor. Returns error(). Called before the
  // end, bytes not read yet count as a change. Later calls return the same verdict. Callers that
  // want a file's bytes whatever happened to it meanwhile simply never call it (the destructor
  // closes).
  const FileError& finish();

 private:
  struct State;
  explicit FileReader(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace corvane::engine
