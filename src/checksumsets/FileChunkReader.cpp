#include "checksumsets/FileChunkReader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace corvane::detail {

std::optional<FileChunkReader> FileChunkReader::open(const std::string& path) {
  int descriptor;
  do {
    descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return std::nullopt;
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode)) {
    ::close(descriptor);
    return std::nullopt;
  }
  return FileChunkReader(descriptor);
}

FileChunkReader::FileChunkReader(FileChunkReader&& other) noexcept
    : descriptor_(other.descriptor_),
      failed_(other.failed_),
      errorNumber_(other.errorNumber_),
      buffer_(std::move(other.buffer_)) {
  other.descriptor_ = -1;
}

FileChunkReader::~FileChunkReader() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

std::shared_ptr<const Bytes> FileChunkReader::readChunk(std::size_t length) {
  if (descriptor_ < 0 || failed_ || length == 0) return nullptr;
  // Reuse the previous chunk's memory when every consumer has released it: avoids faulting in
  // fresh pages for each chunk.
  if (!buffer_ || buffer_.use_count() != 1) buffer_ = std::make_shared<Bytes>();
  buffer_->resize(length);
  std::size_t filled = 0;
  while (filled < length) {
    const ssize_t count = ::read(descriptor_, buffer_->data() + filled, length - filled);
    if (count < 0) {
      if (errno == EINTR) continue;
      errorNumber_ = errno;
      failed_ = true;  // the chunk is abandoned; what earlier chunks delivered stays valid
      return nullptr;
    }
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  if (filled == 0) return nullptr;
  buffer_->resize(filled);
  return buffer_;
}

std::uint64_t fileSizeAtPath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || status.st_size < 0) return 0;
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace corvane::detail
