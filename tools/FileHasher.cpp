#include "FileHasher.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <numeric>
#include <thread>

#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/Exception.hpp"

namespace corvane::tool {

namespace {

// Bytes asked of the file per read of a large file. Large enough that a system call and a
// hand-off per chunk cost nothing, small enough that a chunk stays in the cache between the read
// and the hashing.
constexpr std::size_t kChunkSize = std::size_t{1} << 20;
// Pieces in which a file of at most one chunk is read and hashed on the calling thread: small
// enough to stay in the processor's own cache between the read and the hashing.
constexpr std::size_t kCachedPieceSize = std::size_t{128} << 10;
// The read that confirms the end of a file whose size at open was read.
constexpr std::size_t kEndProbeSize = 4096;
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

std::string noChecksumReason(const AlgorithmName& algorithm) {
  return "no " + std::string(algorithm.cliName) + " checksum produced";
}

constexpr const char* kChangedWhileRead = "file changed while being read";

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Whether the file seen as `before` is still the same file, of the same size and modification
// time, as `after`. A checksum of a file that changed meanwhile describes bytes that never
// existed together on disk.
bool unchanged(const struct stat& before, const struct stat& after) {
  return before.st_dev == after.st_dev && before.st_ino == after.st_ino &&
         before.st_size == after.st_size && sameTime(before.st_mtim, after.st_mtim);
}

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

namespace {

// One open file read chunk by chunk. The size seen by fstat sizes the reads, so a small file
// costs one read of its size plus one short read that confirms the end; a file that grows or
// shrinks meanwhile is still read to its real end.
class ChunkedFile {
 public:
  ChunkedFile(int descriptor, const struct stat& status, bool bypassCache, ChunkPool& pool,
              FileResult& result)
      : descriptor_(descriptor),
        regular_(S_ISREG(status.st_mode)),
        expected_(regular_ ? static_cast<std::uint64_t>(status.st_size) : 0),
        bypassCache_(bypassCache),
        pool_(pool),
        result_(result) {}

  // The next chunk of at most `limit` bytes, an empty buffer at the end, or null after a read
  // error (recorded in the result).
  SharedBytes next(std::size_t limit) {
    if (regular_ && expected_ == 0 && !grew_) return probeEnd();
    const std::size_t wanted =
        expected_ == 0 ? limit
                       : static_cast<std::size_t>(std::min<std::uint64_t>(expected_, limit));
    std::shared_ptr<Bytes> chunk = pool_.take(wanted);
    const ssize_t got = readFully(descriptor_, chunk->data(), wanted);
    if (got < 0) return failed();
    chunk->resize(static_cast<std::size_t>(got));
    counted(static_cast<std::uint64_t>(got));
    return chunk;
  }

  std::uint64_t bytesRead() const { return bytesRead_; }

 private:
  // The size at open was read: a short read into a small local buffer confirms the end. Bytes
  // found there mean the file grew; it is then read on in full chunks.
  SharedBytes probeEnd() {
    std::uint8_t probe[kEndProbeSize];
    const ssize_t got = readFully(descriptor_, probe, sizeof probe);
    if (got < 0) return failed();
    std::shared_ptr<Bytes> chunk = pool_.take(static_cast<std::size_t>(got));
    std::memcpy(chunk->data(), probe, static_cast<std::size_t>(got));
    counted(static_cast<std::uint64_t>(got));
    grew_ = got != 0;
    return chunk;
  }

  SharedBytes failed() {
    result_.addSystemError(errno);
    return nullptr;
  }

  void counted(std::uint64_t count) {
    if (count == 0) return;
    expected_ -= std::min(expected_, count);
    if (bypassCache_) {
      ::posix_fadvise(descriptor_, static_cast<off_t>(bytesRead_), static_cast<off_t>(count),
                      POSIX_FADV_DONTNEED);
    }
    bytesRead_ += count;
  }

  int descriptor_;
  bool regular_;
  std::uint64_t expected_;  // bytes of the size at open not read yet
  bool grew_ = false;
  bool bypassCache_;
  ChunkPool& pool_;
  FileResult& result_;
  std::uint64_t bytesRead_ = 0;
};

// The descriptor of `path` ("-": a duplicate of standard input), or -1 with errno.
int openForReading(const std::string& path) {
  // "-" names standard input, as for the coreutils tools: read from where it stands (reopening
  // /dev/stdin would start a regular file over and fails on another user's pipe). O_NONBLOCK
  // keeps the open from hanging on a FIFO without a writer; it is cleared again for anything but
  // a regular file (where it has no effect).
  if (path == "-") return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

}  // namespace

void FileResult::addSystemError(int error) {
  if (systemError == 0) systemError = error;
  errors.push_back(std::strerror(error));
}

void FileResult::markChanged() {
  errors.push_back(kChangedWhileRead);
  checksums.clear();
}

const std::string* FileResult::checksumOf(const AlgorithmName* algorithm) const {
  for (const FileChecksum& entry : checksums) {
    if (entry.algorithm == algorithm) return &entry.checksum;
  }
  return nullptr;
}

FileHasher::~FileHasher() = default;

FileResult FileHasher::hash(const std::string& path, const ByteCounter& onBytesRead) const {
  FileResult result;
  result.path = path;
  // A file of at most one chunk is hashed on this thread: handing it to other threads costs more
  // in wake-ups than it gains, and -j keeps the processors busy with other files. With one
  // algorithm the library's file form reads and hashes it in cache-sized pieces, and a stat()
  // here is all the examining it needs (a failing open is diagnosed afterwards).
  if (path != "-" && !settings_.bypassCache && algorithms_.size() == 1) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<std::uint64_t>(status.st_size) <= kChunkSize) {
      result.size = static_cast<std::uint64_t>(status.st_size);
      result.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
      hashSmallFileInPieces(result);
      // The file is opened by path here, so the same path must still name the same, unchanged
      // file after the read.
      struct stat after {};
      if (result.ok() && (::stat(path.c_str(), &after) != 0 || !unchanged(status, after))) {
        result.markChanged();
      }
      if (onBytesRead) onBytesRead(*result.size);
      return result;
    }
  }

  const int descriptor = openForReading(path);
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
  // Standard input may stand anywhere in a regular file: what is left to read starts there.
  const off_t startOffset = regular ? std::max<off_t>(0, ::lseek(descriptor, 0, SEEK_CUR)) : 0;
  if (!regular) ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  result.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
  ::posix_fadvise(descriptor, 0, 0,
                  settings_.bypassCache ? POSIX_FADV_DONTNEED : POSIX_FADV_SEQUENTIAL);

  std::vector<std::shared_ptr<CorvaneChecksumGenerator>> generators;
  generators.reserve(algorithms_.size());
  for (const AlgorithmName* algorithm : algorithms_) {
    generators.push_back(CorvaneChecksumGenerator::checksumGeneratorForType(algorithm->type));
    if (!generators.back()) {
      result.errors.push_back("algorithm not available: " + std::string(algorithm->cliName));
      return result;
    }
  }

  // A small file (several algorithms, or a pipe's first chunk) is absorbed piece by piece on this
  // thread; a large one is handed to the generators as chosen in the constructor.
  const bool small = regular && static_cast<std::uint64_t>(status.st_size) <= kChunkSize;
  const std::size_t unwaited = small ? 0 : unwaitedCount_;
  ChunkedFile file(descriptor, status, settings_.bypassCache, *pool_, result);
  while (SharedBytes chunk = file.next(small ? kCachedPieceSize : kChunkSize)) {
    if (chunk->empty()) break;
    for (std::size_t k = 0; k < handOffOrder_.size(); ++k) {
      CorvaneChecksumGenerator& generator = *generators[handOffOrder_[k]];
      if (k < unwaited) {
        generator.addDataToChecksum(chunk, [] {});
      } else {
        // Absorbed on this thread while the generator's queue is idle: no thread is woken.
        generator.addDataToChecksumAndWait(chunk);
      }
    }
    if (onBytesRead) onBytesRead(chunk->size());
  }
  result.size = file.bytesRead();
  // What was read must be what fstat saw at open: as many bytes as its size, and neither size nor
  // modification time changed meanwhile (a pipe or device has no size to hold it to).
  if (regular && result.ok()) {
    struct stat after {};
    if (::fstat(descriptor, &after) != 0 || !unchanged(status, after) ||
        file.bytesRead() != static_cast<std::uint64_t>(status.st_size - startOffset)) {
      result.markChanged();
    }
  }

  // Finalising also after a read error lets every queued chunk drain before the run goes on.
  std::vector<std::optional<std::string>> texts;
  texts.reserve(generators.size());
  for (const auto& generator : generators) texts.push_back(generator->finalizeChecksumAndWait());
  if (!result.errors.empty()) return result;
  for (std::size_t i = 0; i < algorithms_.size(); ++i) {
    if (!texts[i]) {
      result.errors.push_back(noChecksumReason(*algorithms_[i]));
      result.checksums.clear();
      return result;
    }
    result.checksums.push_back({algorithms_[i], std::move(*texts[i])});
  }
  return result;
}

void FileHasher::hashSmallFileInPieces(FileResult& result) const {
  const AlgorithmName* algorithm = algorithms_.front();
  std::optional<std::string> text;
  try {
    text = CorvaneChecksumGenerator::generateFileChecksum(
        result.path, algorithm->type, static_cast<std::int64_t>(kCachedPieceSize));
  } catch (const Exception& readError) {
    // "<path>: <reason>"; the path is printed by the caller.
    const std::string& reason = readError.reason();
    const bool prefixed = reason.rfind(result.path + ": ", 0) == 0;
    result.errors.push_back(prefixed ? reason.substr(result.path.size() + 2) : reason);
    return;
  }
  if (!text) {
    // Seen by stat() a moment ago but not opened: find the reason the way an open sees it.
    const int descriptor = openForReading(result.path);
    if (descriptor >= 0) {
      ::close(descriptor);
      result.errors.push_back(noChecksumReason(*algorithm));
    } else {
      result.addSystemError(errno);
    }
    return;
  }
  result.checksums.push_back({algorithm, std::move(*text)});
}

FileHasher::FileHasher(std::vector<const AlgorithmName*> algorithms, HashSettings settings)
    : algorithms_(std::move(algorithms)),
      settings_(settings),
      pool_(std::make_shared<ChunkPool>()) {
  // Either every algorithm hashes each chunk on its own without the reader waiting, or only the
  // heaviest ones (one fewer than there are processors) do and the reader hands the chunk to the
  // rest one after another, waiting for each. The second keeps the slowest algorithm from
  // sharing a processor with light ones (MD5 beside SHA-1, SHA-256 and CRC-32 then runs at its
  // own speed); the first wins when the light ones together outweigh it. The choice goes by the
  // estimated time of each, where sharing processors costs about a tenth.
  handOffOrder_.resize(algorithms_.size());
  std::iota(handOffOrder_.begin(), handOffOrder_.end(), std::size_t{0});
  std::stable_sort(handOffOrder_.begin(), handOffOrder_.end(),
                   [this](std::size_t a, std::size_t b) {
                     return algorithms_[a]->relativeCost > algorithms_[b]->relativeCost;
                   });
  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  const std::size_t unwaited =
      std::min(handOffOrder_.size(), std::max<std::size_t>(1, processors - 1));
  double heaviest = 0;
  double total = 0;
  double waitedChain = 0;
  for (std::size_t k = 0; k < handOffOrder_.size(); ++k) {
    const double cost = algorithms_[handOffOrder_[k]]->relativeCost;
    heaviest = std::max(heaviest, cost);
    total += cost;
    if (k >= unwaited) waitedChain += cost;
  }
  const double withWaits = std::max(heaviest, waitedChain);
  const double allAtOnce = 1.1 * std::max(heaviest, total / double(processors));
  unwaitedCount_ = withWaits <= allAtOnce ? unwaited : handOffOrder_.size();
}

}  // namespace corvane::tool
