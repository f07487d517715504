#include "FileHasher.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/Exception.hpp"

namespace corvane::tool {

namespace {

// Bytes asked of the file per read. Large enough that a system call per chunk costs nothing,
// small enough that a chunk stays in the cache between the read and the hashing.
constexpr std::size_t kChunkSize = std::size_t{1} << 20;
// The read that confirms the end of a file whose size was reached.
constexpr std::size_t kEndProbeSize = std::size_t{64} << 10;
// Pieces in which a small file is read and hashed on the calling thread: small enough to stay
// in the processor's own cache between the read and the hashing.
constexpr std::int64_t kCachedPieceSize = std::int64_t{128} << 10;
// Free buffers kept for reuse; more are released.
constexpr std::size_t kPooledBufferLimit = 64;

// Reads until `length` bytes arrived or the end of the file; the count read, or -1 with errno.
ssize_t readFully(int descriptor, std::uint8_t* into, std::size_t length) {
  std::size_t done = 0;
  while (done < length) {
    const ssize_t got = ::read(descriptor, into + done, length - done);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

// The texts of several finalisations, handed over from the generators' queues.
class FinalTexts {
 public:
  explicit FinalTexts(std::size_t count) : texts_(count), remaining_(count) {}

  void deliver(std::size_t index, const std::optional<std::string>& text) {
    {
      const std::lock_guard lock(mutex_);
      texts_[index] = text;
      --remaining_;
    }
    arrived_.notify_all();
  }

  std::vector<std::optional<std::string>> wait() {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [this] { return remaining_ == 0; });
    return std::move(texts_);
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::optional<std::string>> texts_;
  std::size_t remaining_;
};

}  // namespace

// Chunk buffers reused across files. A buffer keeps its capacity, so resizing it to a chunk's
// length writes (zeroes) only what grows beyond its previous length.
class ChunkPool : public std::enable_shared_from_this<ChunkPool> {
 public:
  std::shared_ptr<Bytes> take(std::size_t length) {
    std::unique_ptr<Bytes> buffer;
    {
      const std::lock_guard lock(mutex_);
      if (!free_.empty()) {
        buffer = std::move(free_.back());
        free_.pop_back();
      }
    }
    if (!buffer) {
      buffer = std::make_unique<Bytes>();
      buffer->reserve(kChunkSize);
    }
    buffer->resize(length);
    return {buffer.release(), [pool = shared_from_this()](Bytes* returned) {
              pool->giveBack(std::unique_ptr<Bytes>(returned));
            }};
  }

 private:
  void giveBack(std::unique_ptr<Bytes> buffer) {
    const std::lock_guard lock(mutex_);
    if (free_.size() < kPooledBufferLimit) free_.push_back(std::move(buffer));
  }

  std::mutex mutex_;
  std::vector<std::unique_ptr<Bytes>> free_;
};

void FileResult::addSystemError(int error) {
  if (systemError == 0) systemError = error;
  errors.push_back(std::strerror(error));
}

const std::string* FileResult::checksumOf(const AlgorithmName* algorithm) const {
  for (const FileChecksum& entry : checksums) {
    if (entry.algorithm == algorithm) return &entry.checksum;
  }
  return nullptr;
}

FileHasher::FileHasher(std::vector<const AlgorithmName*> algorithms, HashSettings settings)
    : algorithms_(std::move(algorithms)),
      settings_(settings),
      pool_(std::make_shared<ChunkPool>()) {}

FileHasher::~FileHasher() = default;

FileResult FileHasher::hash(const std::string& path, const ByteCounter& onBytesRead) const {
  FileResult result;
  result.path = path;
  // A small file is hashed on this thread: handing a single chunk to other threads costs more in
  // wake-ups than it gains, and -j keeps the processors busy with other files. With one
  // algorithm the library's file form reads and hashes it in cache-sized pieces, and a stat()
  // here is all the examining it needs (a failing open is diagnosed afterwards).
  if (path != "-" && !settings_.bypassCache && algorithms_.size() == 1) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<std::uint64_t>(status.st_size) <= kChunkSize) {
      result.size = static_cast<std::uint64_t>(status.st_size);
      result.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
      hashSmallFileInPieces(result);
      if (onBytesRead) onBytesRead(*result.size);
      return result;
    }
  }

  // O_NONBLOCK keeps the open from hanging on a FIFO without a writer; it is cleared below for
  // anything but a regular file (where it has no effect).
  // "-" names standard input, as for the coreutils tools: read from where it stands (reopening
  // /dev/stdin would start a regular file over and fails on another user's pipe).
  const int descriptor = path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                     : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    result.addSystemError(errno);
    return result;
  }
  struct DescriptorCloser {
    int descriptor;
    ~DescriptorCloser() { ::close(descriptor); }
  } closer{descriptor};

  struct stat status {};
  if (::fstat(descriptor, &status) != 0) {
    result.addSystemError(errno);
    return result;
  }
  if (S_ISDIR(status.st_mode)) {
    result.addSystemError(EISDIR);
    return result;
  }
  const bool regular = S_ISREG(status.st_mode);
  if (!regular) ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  result.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
  ::posix_fadvise(descriptor, 0, 0,
                  settings_.bypassCache ? POSIX_FADV_DONTNEED : POSIX_FADV_SEQUENTIAL);

  // The size is a hint for the length of each read: a file that grows or shrinks meanwhile is
  // still read to its end.
  std::uint64_t remaining = regular ? static_cast<std::uint64_t>(status.st_size) : 0;
  std::uint64_t bytesRead = 0;
  // Reads the next chunk: its bytes, an empty buffer at the end, or null after a read error
  // (recorded in the result).
  auto readChunk = [&]() -> std::shared_ptr<Bytes> {
    const std::size_t wanted =
        remaining == 0 ? (regular ? kEndProbeSize : kChunkSize)
                       : static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kChunkSize));
    std::shared_ptr<Bytes> chunk = pool_->take(wanted);
    const ssize_t got = readFully(descriptor, chunk->data(), wanted);
    if (got < 0) {
      result.addSystemError(errno);
      return nullptr;
    }
    chunk->resize(static_cast<std::size_t>(got));
    const auto count = static_cast<std::uint64_t>(got);
    remaining = remaining > count ? remaining - count : 0;
    if (settings_.bypassCache && got > 0) {
      ::posix_fadvise(descriptor, static_cast<off_t>(bytesRead), got, POSIX_FADV_DONTNEED);
    }
    bytesRead += count;
    if (onBytesRead && count != 0) onBytesRead(count);
    return chunk;
  };

  // A file of at most one chunk is hashed on this thread (see above); with several algorithms it
  // is read once into one buffer that every algorithm hashes.
  std::vector<SharedBytes> chunks;
  if (regular && remaining <= kChunkSize) {
    auto whole = readChunk();
    if (!whole) return result;
    auto end = whole->empty() ? whole : readChunk();
    if (!end) return result;
    if (end->empty()) {
      result.size = bytesRead;
      const SharedBytes bytes = std::move(whole);
      for (const AlgorithmName* algorithm : algorithms_) {
        auto text = CorvaneChecksumGenerator::generateDataChecksum(bytes, algorithm->type);
        if (!text) {
          result.errors.push_back("no " + std::string(algorithm->cliName) + " checksum produced");
          result.checksums.clear();
          return result;
        }
        result.checksums.push_back({algorithm, std::move(*text)});
      }
      return result;
    }
    // The file grew while it was read: stream it like a large one.
    chunks = {std::move(whole), std::move(end)};
  }

  std::vector<std::shared_ptr<CorvaneChecksumGenerator>> generators;
  generators.reserve(algorithms_.size());
  for (const AlgorithmName* algorithm : algorithms_) {
    generators.push_back(CorvaneChecksumGenerator::checksumGeneratorForType(algorithm->type));
    if (!generators.back()) {
      result.errors.push_back("algorithm not available: " + std::string(algorithm->cliName));
      return result;
    }
  }
  auto handOver = [&generators](const SharedBytes& chunk) {
    for (const auto& generator : generators) generator->addDataToChecksum(chunk, [] {});
  };
  for (const SharedBytes& chunk : chunks) handOver(chunk);
  chunks.clear();
  while (auto chunk = readChunk()) {
    if (chunk->empty()) break;
    handOver(std::move(chunk));
  }
  result.size = bytesRead;

  // Finalising also after a read error lets every queued chunk drain before the run goes on.
  auto texts = std::make_shared<FinalTexts>(generators.size());
  for (std::size_t i = 0; i < generators.size(); ++i) {
    generators[i]->finalizeChecksumWithCompletionBlock(
        [texts, i](const std::optional<std::string>& text) { texts->deliver(i, text); });
  }
  auto finalTexts = texts->wait();
  if (!result.errors.empty()) return result;
  for (std::size_t i = 0; i < algorithms_.size(); ++i) {
    if (finalTexts[i]) {
      result.checksums.push_back({algorithms_[i], std::move(*finalTexts[i])});
    } else {
      result.errors.push_back("no " + std::string(algorithms_[i]->cliName) + " checksum produced");
      result.checksums.clear();
      return result;
    }
  }
  return result;
}

void FileHasher::hashSmallFileInPieces(FileResult& result) const {
  const AlgorithmName* algorithm = algorithms_.front();
  std::optional<std::string> text;
  try {
    text = CorvaneChecksumGenerator::generateFileChecksum(result.path, algorithm->type,
                                                          kCachedPieceSize);
  } catch (const Exception& readError) {
    // "<path>: <reason>"; the path is printed by the caller.
    const std::string& reason = readError.reason();
    const bool prefixed = reason.rfind(result.path + ": ", 0) == 0;
    result.errors.push_back(prefixed ? reason.substr(result.path.size() + 2) : reason);
    return;
  }
  if (!text) {
    // Opened a moment ago, gone now: find the reason the way the next open sees it.
    const int descriptor = ::open(result.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor >= 0) {
      ::close(descriptor);
      result.errors.push_back("no " + std::string(algorithm->cliName) + " checksum produced");
    } else {
      result.addSystemError(errno);
    }
    return;
  }
  result.checksums.push_back({algorithm, std::move(*text)});
}

}  // namespace corvane::tool
