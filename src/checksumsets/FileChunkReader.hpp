// Sequential chunked reads of one file with POSIX I/O.
//
// A directory is refused at open (it would otherwise "read" as an error or as empty content and
// could pass for an empty file). A read error ends reading: readChunk() returns null, exactly as
// at end of file, and the caller keeps what it has already read.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "corvane/Bytes.hpp"

namespace corvane::detail {

class FileChunkReader {
 public:
  // Opens `path` for reading; nullopt when it cannot be opened or is a directory.
  static std::optional<FileChunkReader> open(const std::string& path);

  FileChunkReader(FileChunkReader&& other) noexcept;
  FileChunkReader& operator=(FileChunkReader&&) = delete;
  ~FileChunkReader();

  // Reads up to `length` bytes (fewer at end of file, or where the size seen at open ends).
  // Null at end of file or on error.
  // The returned buffer is reused for the next chunk when nobody else holds it any more.
  std::shared_ptr<const Bytes> readChunk(std::size_t length);

  // True once a read failed (as opposed to reaching end of file).
  bool failed() const noexcept { return failed_; }
  // The errno of the failed read (0 when none failed).
  int errorNumber() const noexcept { return errorNumber_; }

 private:
  explicit FileChunkReader(int descriptor) : descriptor_(descriptor) {}

  // The read that confirms the end of a regular file once its size at open was read.
  static constexpr std::size_t kEndProbeLength = 4096;

  int descriptor_ = -1;
  bool failed_ = false;
  std::uint64_t expectedRemaining_ = 0;  // of the size at open, not read yet
  bool expectingEnd_ = false;            // the next read should find the end
  int errorNumber_ = 0;
  std::shared_ptr<Bytes> buffer_;
};

// Size of the item at `path` from its attributes; 0 when unavailable.
std::uint64_t fileSizeAtPath(const std::string& path);

}  // namespace corvane::detail
