#include "engine/FileReader.hpp"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace corvane::engine {

namespace {

// The read that confirms the end of a regular file once its size at open was read. It goes into
// a small buffer of the reader, so confirming the end never needs a chunk buffer.
constexpr std::size_t kProbeLength = 4096;

// O_DIRECT wants the buffer address, the file offset and the length aligned to the device's
// logical block; 4096 covers the 512-byte and 4 KiB devices in use.
constexpr std::size_t kDirectAlignment = 4096;

// The cache line, the unit in which the kernel's copy to a read buffer is aligned or not.
constexpr std::size_t kCopyLine = 64;

// Buffers a reader keeps for itself: one per chunk its consumers hold at once (the hashing
// queues take a handful), plus the one being filled. Beyond this, chunks are not tracked for
// reuse (they are freed by whoever releases them last).
constexpr std::size_t kMaximumPooledBuffers = 64;

// Buffers left over when a reader ends stay with the thread for its next reader, so a thread
// that reads many files allocates (and the kernel faults in) its buffers once. Bounded, so an
// idle thread holds little memory: larger buffers (the 8 MiB reads of ChecksumGenerator) are
// freed, as are buffers beyond the total.
constexpr std::size_t kKeptBufferCapacity = std::max(kDefaultChunkSize, std::size_t{1} << 20);
constexpr std::size_t kKeptBytesPerThread = std::size_t{8} << 20;

// A pooled buffer. A chunk handed out is a SharedBytes of `bytes` whose deleter, run by the last
// holder, clears `lent` with release order; the reader refills the buffer only after seeing it
// clear with acquire order, so the holders' last reads happen before the next write. (A
// use_count() of 1 would tell the same, but it is a relaxed load and would need a fence, which
// ThreadSanitizer cannot follow.)
struct Slot {
  Bytes bytes;
  std::atomic<bool> lent = false;
  bool free() const { return !lent.load(std::memory_order_acquire); }
};

struct KeptBuffers {
  std::vector<std::shared_ptr<Slot>> slots;
  std::size_t bytes = 0;
};
thread_local KeptBuffers keptBuffers;

SharedBytes lend(const std::shared_ptr<Slot>& slot) {
  slot->lent.store(true, std::memory_order_relaxed);
  return SharedBytes(&slot->bytes,
                     [slot](const Bytes*) { slot->lent.store(false, std::memory_order_release); });
}

// How often a wait on a stream looks at the stop token.
constexpr int kStopPollMilliseconds = 50;

FileError systemError(FileErrorKind kind, int code) {
  return FileError{kind, code, std::strerror(code)};
}

FileError stoppedError() { return FileError{FileErrorKind::stopped, ECANCELED, "stopped"}; }

// File systems whose files report a size that is not their content (0 or one page for every
// file): procfs, sysfs and their kin. Their files are read to their end like any other, but the
// byte count cannot be held against the size.
bool sizesAreNotContent(int descriptor) {
  struct statfs system {};
  int result;
  do {
    result = ::fstatfs(descriptor, &system);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return false;
  switch (static_cast<unsigned long>(system.f_type)) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case BPF_FS_MAGIC:
      return true;
    default:
      return false;
  }
}

struct FreeDeleter {
  void operator()(std::uint8_t* pointer) const { std::free(pointer); }
};

}  // namespace

struct FileReader::State {
  ReadOptions options;
  int descriptor = -1;
  FileError error;
  struct stat status {};
  bool regular = false;
  bool ownDescriptor = true;  // opened here (adopted descriptors share their file position)

  std::uint64_t startOffset = 0;
  std::uint64_t expected = 0;   // bytes from startOffset to the size at open
  std::uint64_t remaining = 0;  // of `expected`, not read yet
  std::uint64_t position = 0;   // file offset of the next read (regular files)
  std::uint64_t read = 0;
  std::uint64_t readDirect = 0;
  bool confirmEnd = false;  // once `remaining` is read, one small read must find the end
  bool atEnd = false;
  bool finished = false;
  bool diskReadAnnounced = false;  // options.beforeDiskRead was called

  // Bypassing the cache.
  bool direct = false;          // O_DIRECT is set on the descriptor
  int statusFlags = 0;          // the descriptor's file status flags (F_GETFL) as we set them
  std::size_t directChunk = 0;  // chunk size rounded down to the alignment
  std::unique_ptr<std::uint8_t, FreeDeleter> staging;

  std::vector<std::shared_ptr<Slot>> buffers;
  std::array<std::uint8_t, kProbeLength> probe{};

  ~State() {
    if (descriptor >= 0) ::close(descriptor);
    keepFreeBuffers();
  }

  void keepFreeBuffers() {
    for (std::shared_ptr<Slot>& slot : buffers) {
      if (!slot->free()) continue;  // its last holder frees it
      const std::size_t capacity = slot->bytes.capacity();
      if (capacity > kKeptBufferCapacity || keptBuffers.bytes + capacity > kKeptBytesPerThread) {
        continue;
      }
      keptBuffers.bytes += capacity;
      keptBuffers.slots.push_back(std::move(slot));
    }
    buffers.clear();
  }

  void closeDescriptor() {
    // Never retried: Linux releases the descriptor even when close() reports EINTR.
    if (descriptor >= 0) ::close(descriptor);
    descriptor = -1;
  }

  void fail(FileError failure) {
    if (!error) error = std::move(failure);
  }

  // A buffer nobody else holds: one of ours, one the thread kept, or a new one.
  std::shared_ptr<Slot> acquireBuffer() {
    for (const std::shared_ptr<Slot>& slot : buffers) {
      if (slot->free()) return slot;
    }
    std::shared_ptr<Slot> slot;
    if (!keptBuffers.slots.empty()) {
      slot = std::move(keptBuffers.slots.back());
      keptBuffers.slots.pop_back();
      keptBuffers.bytes -= slot->bytes.capacity();
    } else {
      slot = std::make_shared<Slot>();
    }
    if (buffers.size() < kMaximumPooledBuffers) buffers.push_back(slot);
    return slot;
  }

  // Sets the descriptor's status flags; false (errno set) when the file system refuses them.
  bool setStatusFlags(int flags) {
    int result;
    do {
      result = ::fcntl(descriptor, F_SETFL, flags);
    } while (result != 0 && errno == EINTR);
    if (result != 0) return false;
    statusFlags = flags;
    return true;
  }

  // Plain reads from here on (the tail, the end probe, a file system that refused an aligned
  // read). False after recording a read error.
  bool leaveDirectMode() {
    if (!direct) return true;
    direct = false;
    if (!setStatusFlags(statusFlags & ~O_DIRECT)) {
      fail(systemError(FileErrorKind::read, errno));
      return false;
    }
    return true;
  }

  bool stoppable() const { return options.stop.stop_possible(); }

  // Tells the caller (once) that the device is about to be read; false with errno ECANCELED when
  // the caller says stop.
  bool announceDiskRead() {
    diskReadAnnounced = true;
    if (options.beforeDiskRead()) return true;
    errno = ECANCELED;
    return false;
  }

  // Waits until the descriptor has data or its end (for a FIFO: a writer came). False when the
  // stop was requested first. Without a stop token it waits as long as it takes.
  bool waitUntilReadable() {
    const int timeout = stoppable() ? kStopPollMilliseconds : -1;
    for (;;) {
      if (options.stop.stop_requested()) return false;
      struct pollfd wait {
        descriptor, POLLIN, 0
      };
      const int result = ::poll(&wait, 1, timeout);
      if (result > 0) return true;
      if (result < 0 && errno != EINTR) return true;  // the read that follows tells what is wrong
    }
  }

  // One read(2), retried on EINTR. On a stream that can be stopped, data is waited for with
  // poll() first, so the read never blocks past a stop; a descriptor handed over in non-blocking
  // mode (standard input can be) is waited on too. -1 with errno on failure (ECANCELED: stopped).
  ssize_t readOnce(std::uint8_t* into, std::size_t length) {
    if (regular && !diskReadAnnounced && options.beforeDiskRead) {
      // Bytes in the page cache come without waiting (RWF_NOWAIT); only when the device has to
      // be read is the caller told, once.
      iovec vector{into, length};
      for (;;) {
        const ssize_t cached = ::preadv2(descriptor, &vector, 1, -1, RWF_NOWAIT);
        if (cached >= 0) return cached;
        if (errno == EINTR) continue;
        break;  // EAGAIN: not cached; anything else (no RWF_NOWAIT here): count it as the disk
      }
      if (!announceDiskRead()) return -1;
    }
    for (;;) {
      if (!regular && stoppable() && !waitUntilReadable()) {
        errno = ECANCELED;
        return -1;
      }
      const ssize_t count = ::read(descriptor, into, length);
      if (count >= 0) return count;
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (waitUntilReadable()) continue;
        errno = ECANCELED;
      }
      return -1;
    }
  }

  // Fills `into` with up to `length` bytes by plain reads; fewer only at the end of the file.
  // -1 after recording a read error.
  std::int64_t readPlain(std::uint8_t* into, std::size_t length) {
    std::size_t filled = 0;
    while (filled < length) {
      const ssize_t count = readOnce(into + filled, length - filled);
      if (count < 0) {
        const bool stopped = errno == ECANCELED && options.stop.stop_requested();
        fail(stopped ? stoppedError() : systemError(FileErrorKind::read, errno));
        return -1;
      }
      if (count == 0) {
        atEnd = true;
        break;
      }
      filled += static_cast<std::size_t>(count);
    }
    return static_cast<std::int64_t>(filled);
  }

  // Reads `length` bytes (a multiple of the alignment) past the page cache into the staging
  // buffer and copies them to `into`. Stops early at the end of the file, and leaves direct mode
  // wherever an aligned read is not possible any more (a short read) or is refused; the caller
  // then goes on with plain reads. -1 after recording a read error.
  std::int64_t readDirectly(std::uint8_t* into, std::size_t length) {
    if (!diskReadAnnounced && options.beforeDiskRead && !announceDiskRead()) {
      fail(stoppedError());
      return -1;
    }
    if (!staging) {
      void* memory = nullptr;
      if (::posix_memalign(&memory, kDirectAlignment, directChunk) != 0) {
        return leaveDirectMode() ? 0 : -1;
      }
      staging.reset(static_cast<std::uint8_t*>(memory));
    }
    std::size_t filled = 0;
    while (filled < length) {
      const ssize_t count = ::read(descriptor, staging.get() + filled, length - filled);
      if (count < 0) {
        if (errno == EINTR) continue;
        if (errno == EINVAL) {  // the file system takes O_DIRECT but not these reads
          if (!leaveDirectMode()) return -1;
          break;
        }
        fail(systemError(FileErrorKind::read, errno));
        return -1;
      }
      filled += static_cast<std::size_t>(count);
      if (count == 0 || static_cast<std::size_t>(count) % kDirectAlignment != 0) {
        // The end, or a file shorter than it was: the offset is no longer aligned, and the plain
        // read that follows confirms where the file ends.
        if (!leaveDirectMode()) return -1;
        break;
      }
    }
    std::memcpy(into, staging.get(), filled);
    readDirect += filled;
    return static_cast<std::int64_t>(filled);
  }

  // Fills `into` with up to `length` bytes, through O_DIRECT where possible.
  std::int64_t readChunk(std::uint8_t* into, std::size_t length) {
    std::size_t filled = 0;
    if (direct) {
      const std::size_t aligned = length - length % kDirectAlignment;
      if (aligned > 0) {
        const std::int64_t count = readDirectly(into, aligned);
        if (count < 0) return -1;
        filled = static_cast<std::size_t>(count);
        if (direct && filled == aligned && filled == length) return count;
      }
      if (!leaveDirectMode()) return -1;  // the unaligned tail
    }
    if (filled < length && !atEnd) {
      const std::int64_t count = readPlain(into + filled, length - filled);
      if (count < 0) return -1;
      filled += static_cast<std::size_t>(count);
      dropCachedPages(position + filled - static_cast<std::size_t>(count),
                      static_cast<std::uint64_t>(count));
    }
    return static_cast<std::int64_t>(filled);
  }

  void dropCachedPages(std::uint64_t offset, std::uint64_t length) {
    if (!options.bypassCache || !regular || length == 0) return;
    ::posix_fadvise(descriptor, static_cast<off_t>(offset), static_cast<off_t>(length),
                    POSIX_FADV_DONTNEED);
  }

  // After the open: status, size and how to read.
  void prepare(bool mayUseDirect) {
    if (options.chunkSize == 0) options.chunkSize = kDefaultChunkSize;
    int result;
    do {
      result = ::fstat(descriptor, &status);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
      fail(systemError(FileErrorKind::open, errno));
      closeDescriptor();
      return;
    }
    const bool folder = S_ISDIR(status.st_mode);
    regular = S_ISREG(status.st_mode);
    if (options.regularOnly && !regular) {
      fail(FileError{FileErrorKind::notRegularFile, 0, "not a regular file"});
      closeDescriptor();
      return;
    }
    if (folder) {
      // open(2) takes a folder and read(2) fails later; refusing it here keeps a folder from
      // passing for an empty file.
      fail(systemError(FileErrorKind::open, EISDIR));
      closeDescriptor();
      return;
    }
    if (!regular) {
      // FIFOs and devices: read until their end, no size to hold them to. A FIFO opened
      // non-blocking so that a stop can end the wait has not seen a writer yet: until one came,
      // a read would report the end at once.
      if (S_ISFIFO(status.st_mode) && ownDescriptor && (statusFlags & O_NONBLOCK) != 0 &&
          !waitUntilReadable()) {
        fail(stoppedError());
        closeDescriptor();
      }
      return;
    }
    // O_NONBLOCK was only wanted for the open (a FIFO must not wait); some network file systems
    // would honour it on reads of a regular file.
    if ((statusFlags & O_NONBLOCK) != 0 && !setStatusFlags(statusFlags & ~O_NONBLOCK)) {
      fail(systemError(FileErrorKind::open, errno));
      closeDescriptor();
      return;
    }

    if (!ownDescriptor) {
      const off_t offset = ::lseek(descriptor, 0, SEEK_CUR);
      if (offset > 0) startOffset = static_cast<std::uint64_t>(offset);
    }
    const auto size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
    expected = size > startOffset ? size - startOffset : 0;
    remaining = expected;
    position = startOffset;
    confirmEnd = true;

    if (!options.bypassCache) {
      ::posix_fadvise(descriptor, static_cast<off_t>(startOffset), 0, POSIX_FADV_SEQUENTIAL);
      return;
    }
    // Whatever is cached now goes, so that plain reads (the tail, or file systems without
    // O_DIRECT) come from the device too.
    ::posix_fadvise(descriptor, static_cast<off_t>(startOffset), 0, POSIX_FADV_DONTNEED);
    // O_DIRECT changes the open file description, which an adopted descriptor shares with its
    // previous owners (standard input of a shell): only descriptors opened here get it.
    if (mayUseDirect && options.chunkSize >= kDirectAlignment) {
      if (setStatusFlags(statusFlags | O_DIRECT)) {
        direct = true;
        directChunk = options.chunkSize - options.chunkSize % kDirectAlignment;
      }
    }
  }
};

FileReader::FileReader(std::unique_ptr<State> state) : state_(std::move(state)) {}
FileReader::FileReader(FileReader&&) noexcept = default;
FileReader& FileReader::operator=(FileReader&&) noexcept = default;
FileReader::~FileReader() = default;

FileReader FileReader::open(const std::string& path, const ReadOptions& options) {
  auto state = std::make_unique<State>();
  state->options = options;
  // Entries of a walk must never wait on a FIFO: opened non-blocking and refused after fstat.
  // A named path opens as `cat` opens it, waiting for a FIFO's writer: blocking in open(), or,
  // when a stop may end the wait, opened non-blocking and waited for with poll().
  const bool nonBlocking = options.regularOnly || options.stop.stop_possible();
  const int flags = O_RDONLY | O_CLOEXEC | (nonBlocking ? O_NONBLOCK : 0);
  int descriptor;
  do {
    descriptor = ::open(path.c_str(), flags);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) {
    state->fail(systemError(FileErrorKind::open, errno));
    return FileReader(std::move(state));
  }
  state->descriptor = descriptor;
  state->statusFlags = flags & ~(O_CLOEXEC | O_RDONLY);
  state->prepare(/*mayUseDirect=*/true);
  return FileReader(std::move(state));
}

FileReader FileReader::adopt(int descriptor, const ReadOptions& options) {
  auto state = std::make_unique<State>();
  state->options = options;
  state->ownDescriptor = false;
  if (descriptor < 0) {
    state->fail(systemError(FileErrorKind::open, EBADF));
    return FileReader(std::move(state));
  }
  state->descriptor = descriptor;
  state->prepare(/*mayUseDirect=*/false);
  return FileReader(std::move(state));
}

const FileError& FileReader::error() const { return state_->error; }

const struct stat& FileReader::statusAtOpen() const { return state_->status; }

bool FileReader::isRegular() const { return state_->regular; }

std::uint64_t FileReader::expectedSize() const { return state_->expected; }

std::uint64_t FileReader::bytesRead() const { return state_->read; }

std::uint64_t FileReader::bytesReadDirectly() const { return state_->readDirect; }

SharedBytes FileReader::next() {
  State& s = *state_;
  if (s.descriptor < 0 || s.error || s.atEnd || s.finished) return nullptr;
  if (s.options.stop.stop_requested()) {
    s.fail(stoppedError());
    return nullptr;
  }
  const std::size_t chunkSize = s.direct ? s.directChunk : s.options.chunkSize;

  std::size_t length = chunkSize;
  std::size_t fromProbe = 0;
  if (s.regular && s.remaining > 0) {
    // Sized by what is left of the size at open, so a small file costs a small buffer.
    length = static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, s.remaining));
  } else if (s.regular && s.confirmEnd) {
    if (!s.leaveDirectMode()) return nullptr;
    const std::int64_t count = s.readPlain(s.probe.data(), s.probe.size());
    if (count <= 0) return nullptr;  // the end as expected, or a read error
    // The file grew since it was opened: read on in whole chunks.
    s.confirmEnd = false;
    fromProbe = static_cast<std::size_t>(count);
    s.dropCachedPages(s.position, fromProbe);
  }

  const std::shared_ptr<Slot> slot = s.acquireBuffer();
  Bytes* buffer = &slot->bytes;
  if (buffer->capacity() < length) buffer->clear();  // nothing worth copying on reallocation
  buffer->resize(length);
  if (s.options.flexibleChunks && s.regular && !s.direct && fromProbe == 0 &&
      s.remaining > length && length > kCopyLine) {
    // The kernel copies from the page cache fastest when source and destination agree modulo a
    // cache line (about 15 % faster on 128 KiB pieces here); large buffers start 16 bytes into a
    // page. One shorter read brings the file offset in step with the buffer, after which every
    // full read stays in step.
    const std::size_t skew =
        (reinterpret_cast<std::uintptr_t>(buffer->data()) - s.position) & (kCopyLine - 1);
    if (skew != 0) {
      length -= kCopyLine - skew;
      buffer->resize(length);
    }
  }
  if (fromProbe > 0) std::memcpy(buffer->data(), s.probe.data(), fromProbe);
  std::size_t filled = fromProbe;
  s.position += fromProbe;
  if (filled < length && !s.atEnd) {
    const std::int64_t count = s.readChunk(buffer->data() + filled, length - filled);
    if (count < 0) return nullptr;  // the chunk is abandoned; earlier chunks stay valid
    filled += static_cast<std::size_t>(count);
    s.position += static_cast<std::uint64_t>(count);
  }
  if (s.regular) {
    const std::uint64_t counted = std::min<std::uint64_t>(s.remaining, filled);
    s.remaining -= counted;
    if (s.atEnd) s.remaining = 0;  // the file ended before its size at open
  }
  if (filled == 0) return nullptr;
  s.read += filled;
  buffer->resize(filled);
  return lend(slot);
}

const FileError& FileReader::finish() {
  State& s = *state_;
  if (s.finished) return s.error;
  s.finished = true;
  if (s.descriptor >= 0 && !s.error && s.regular) {
    struct stat now {};
    int result;
    do {
      result = ::fstat(s.descriptor, &now);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
      s.fail(systemError(FileErrorKind::read, errno));
    } else {
      const bool sameSize = now.st_size == s.status.st_size;
      const bool sameTime = now.st_mtim.tv_sec == s.status.st_mtim.tv_sec &&
                            now.st_mtim.tv_nsec == s.status.st_mtim.tv_nsec;
      bool sameLength = s.read == s.expected;
      if (sameSize && sameTime && !sameLength) {
        // A size of 0 that stayed 0 while bytes came is a file system without sizes (procfs and
        // the like, FUSE file systems); so are the pseudo file systems that report one page.
        sameLength = s.status.st_size == 0 || sizesAreNotContent(s.descriptor);
      }
      if (!sameSize || !sameTime || !sameLength) {
        s.fail(FileError{FileErrorKind::changedWhileRead, 0, "file changed while being read"});
      }
    }
  }
  if (s.descriptor >= 0 && s.regular && s.options.bypassCache) {
    // Pages that plain reads brought in (the tail, the end probe) leave with the rest.
    ::posix_fadvise(s.descriptor, static_cast<off_t>(s.startOffset), 0, POSIX_FADV_DONTNEED);
  }
  s.closeDescriptor();
  return s.error;
}

}  // namespace corvane::engine
