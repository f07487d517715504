#include "checksumsets/FileChunkReader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace corvane::detail {

namespace {

// A buffer kept by each thread between readers: reading many small files one after another then
// allocates nothing and zeroes (std::vector::resize) only what a buffer grows by. Buffers larger
// than this are not kept, so an idle thread holds little memory.
constexpr std::size_t kKeptBufferCapacity = std::size_t{1} << 20;
thread_local std::shared_ptr<Bytes> keptBuffer;

}  // namespace

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
  FileChunkReader reader(descriptor);
  if (S_ISREG(status.st_mode) && status.st_size > 0) {
    reader.expectedRemaining_ = static_cast<std::uint64_t>(status.st_size);
    reader.expectingEnd_ = true;
  }
  return reader;
}

FileChunkReader::FileChunkReader(FileChunkReader&& other) noexcept
    : descriptor_(other.descriptor_),
      failed_(other.failed_),
      expectedRemaining_(other.expectedRemaining_),
      expectingEnd_(other.expectingEnd_),
      errorNumber_(other.errorNumber_),
      buffer_(std::move(other.buffer_)) {
  other.descriptor_ = -1;
}

FileChunkReader::~FileChunkReader() {
  if (descriptor_ >= 0) ::close(descriptor_);
  if (buffer_ && buffer_.use_count() == 1 && buffer_->capacity() <= kKeptBufferCapacity) {
    keptBuffer = std::move(buffer_);
  }
}

std::shared_ptr<const Bytes> FileChunkReader::readChunk(std::size_t length) {
  if (descriptor_ < 0 || failed_ || length == 0) return nullptr;
  // Reuse the previous chunk's memory when every consumer has released it: avoids faulting in
  // fresh pages for each chunk.
  if (!buffer_ && keptBuffer) buffer_ = std::move(keptBuffer);
  if (!buffer_ || buffer_.use_count() != 1) buffer_ = std::make_shared<Bytes>();
  // The size seen at open bounds the first reads, so a small file does not cost a buffer of the
  // whole chunk length; once it is reached, a short read confirms the end (a file that grew is
  // still read on, in chunks of `length`).
  if (expectedRemaining_ > 0) {
    length = static_cast<std::size_t>(std::min<std::uint64_t>(length, expectedRemaining_));
  } else if (expectingEnd_) {
    length = std::min(length, kEndProbeLength);
  }
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
  if (expectedRemaining_ > 0) {
    expectedRemaining_ -= std::min<std::uint64_t>(expectedRemaining_, filled);
  } else {
    expectingEnd_ = false;  // the file grew past its size at open: plain chunks from here on
  }
  buffer_->resize(filled);
  return buffer_;
}

std::uint64_t fileSizeAtPath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || status.st_size < 0) return 0;
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace corvane::detail
