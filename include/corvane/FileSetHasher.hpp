// FileSetHasher: checksums of many files at once, each file read once for all its algorithms,
// results handed back in input order on the caller's thread while the work overlaps.
//
// This is the library's fast path for applications that verify or replicate folder trees:
//   FileSetHasher hasher({.algorithms = {ChecksumTypeXXHash64, ChecksumTypeMD5}});
//   hasher.run(FileSetInput::walk("/Volumes/CARD"), [](FileSetResult result) { ... });
// or, pulling results one by one (and reading progress from another thread meanwhile):
//   FileSetRun run = hasher.start(FileSetInput::paths({"a.mov", "b.mov"}));
//   while (std::optional<FileSetResult> result = run.next()) { ... }
//
// How it works: up to `filesInFlight` files are read at once, by threads of the run; each file is
// read once in chunks, and its algorithms hash every chunk in parallel on the library's worker
// pool. At most `readersPerDevice` files are read at once from one storage device (by default
// one for a rotational disk, several for SSD/NVMe, read from sysfs), so a spinning disk is read
// sequentially while two SSDs are read at full speed together. Results wait in a bounded window
// until every earlier one was delivered, so memory does not grow with the number of files.
//
// Errors: a file that cannot be opened or read, or that changed while it was read (its size or
// modification time differs after the read from what fstat said at open, or fewer or more bytes
// were read than its size), is a result with an error and no checksums. Nothing here throws for
// file problems. No path ever gets the checksum of bytes that were not read from it.
//
// Stop: a stop request (std::stop_token passed to run()/start(), or FileSetRun::requestStop())
// ends the run within about 100 ms, also in the middle of a very large file: files not finished
// are delivered with FileErrorKind::stopped, files never started are not delivered, and every
// thread of the run has ended when run() returns or the FileSetRun is destroyed.
//
// Thread safety: a FileSetHasher is immutable once built and may start any number of runs, also
// concurrently. A FileSetRun is used by one thread (next()), except progress() and requestStop(),
// which any thread may call at any time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/DirectoryWalk.hpp"
#include "corvane/Export.hpp"

namespace corvane {

// What went wrong with one file of a run.
enum class FileErrorKind {
  none,
  open,              // could not be opened or examined (errno: ENOENT, EACCES, EISDIR, ...)
  read,              // a read failed (errno: EIO, ...)
  changedWhileRead,  // size, modification time or length read differ from the file at open
  notRegularFile,    // a walk entry that is not read: special file, skipped link (see walk)
  walk,              // a walk entry that could not be examined: unreadable folder, bad link
  stopped,           // the run was stopped before the file was finished
};

struct CORVANE_API FileError {
  FileErrorKind kind = FileErrorKind::none;
  int code = 0;         // the errno when the system reported one, else 0
  std::string message;  // "No such file or directory", "file changed while being read", ...
  explicit operator bool() const { return kind != FileErrorKind::none; }
};

// One item of input: a file to read, or (from a walk) an entry to report in its place.
struct CORVANE_API FileSetItem {
  // The walk's view of the entry; kind `file` for explicit paths.
  WalkEntry entry;
  // Algorithms for this file only; empty: the hasher's. (A verifier whose list names different
  // algorithms per file reads each file once with all of them.)
  std::vector<ChecksumType> algorithms;
  // Read past the page cache for this file only (or for all, see FileSetSettings).
  bool bypassCache = false;
  // Refuse anything that is not a regular file when it is opened, without waiting on a FIFO: set
  // for the entries of a walk, which were regular files when they were walked.
  bool regularOnly = false;
  // An open descriptor to read instead of opening entry.path (e.g. a duplicate of standard
  // input); the run takes ownership and closes it. -1: open entry.path.
  int descriptor = -1;

  // A named file, read to its end as `cat` would read it: a FIFO or character device is read
  // until its writer closes it (open waits for a writer), a folder is an error (EISDIR).
  static FileSetItem path(std::string path);
};

// Where the files of a run come from.
class CORVANE_API FileSetInput {
 public:
  // Produces the next item, or nothing at the end. Called on one thread at a time, ahead of the
  // results (bounded by the run's window).
  using Generator = std::function<std::optional<FileSetItem>()>;

  // Named paths in the order given (see FileSetItem::path).
  static FileSetInput paths(std::vector<std::string> paths);
  // Every entry of the tree below `root` in byte order of relative paths (see DirectoryWalk);
  // files are read, everything else is delivered as a result with its walk error or notice.
  static FileSetInput walk(std::string root, WalkOptions options = {});
  // Anything else: a caller-supplied generator.
  static FileSetInput generator(Generator next);

  explicit FileSetInput(Generator next) : next_(std::move(next)) {}
  std::optional<FileSetItem> next() { return next_ ? next_() : std::nullopt; }

 private:
  Generator next_;
};

// The outcome for one item, in input order.
struct CORVANE_API FileSetResult {
  std::size_t index = 0;              // position in the input, from 0
  WalkEntry entry;                    // as given or walked; path and relativePath name the file
  std::optional<std::uint64_t> size;  // bytes read (files that were read), else the walk's size
  std::optional<FileTime> modified;   // from fstat at open
  // One text per algorithm; empty unless the file was read to its end without error.
  ChecksumLookup checksums;
  FileError error;

  // Hashed without error (an entry that is not a file is never ok()).
  bool ok() const { return !error && entry.kind == WalkEntry::Kind::file; }
  // The checksums as the library's lookup (the same map).
  const ChecksumLookup& checksumLookup() const { return checksums; }
};

// Something that receives the chunks of a file as they are read, beside the hashing: a writer
// of a copy, a second hasher. The engine creates one per file through
// FileSetSettings::sinkFactory and calls it on the reading thread, in order; a sink must not keep
// the reader waiting longer than it needs to absorb the chunk (queue the work, keep the buffer
// reference: the bytes do not change).
class CORVANE_API ChunkSink {
 public:
  virtual ~ChunkSink() = default;
  // Called once before the first chunk, with the file as opened (size and time from fstat).
  virtual void begin(const FileSetItem& item, std::uint64_t sizeAtOpen) {
    (void)item, (void)sizeAtOpen;
  }
  // Every chunk in file order; never empty.
  virtual void chunk(const SharedBytes& bytes) = 0;
  // The end: `error` is empty when the whole file was read unchanged. Return an error to fail
  // the file (e.g. the copy could not be written); the result then carries it.
  virtual FileError finish(const FileError& error) = 0;
};

// Observes reading, for progress display and instrumentation. Called on reading threads, often
// (once per chunk): keep it cheap and thread-safe.
class CORVANE_API ReadObserver {
 public:
  virtual ~ReadObserver() = default;
  virtual void readStarted(const std::string& path, std::uint64_t device) {
    (void)path, (void)device;
  }
  virtual void bytesRead(std::uint64_t count) { (void)count; }
  virtual void readFinished(const std::string& path) { (void)path; }
};

struct CORVANE_API FileSetSettings {
  // Any ChecksumTypes with a generator; default xxHash64.
  std::vector<ChecksumType> algorithms = {ChecksumTypeXXHash64};
  // Files read at once; 0: the number of processors.
  unsigned filesInFlight = 0;
  // Files read at once from one storage device; 0: by the device's kind (1 rotational, 4 SSD or
  // NVMe, filesInFlight for anything that is not a block device, such as tmpfs).
  unsigned readersPerDevice = 0;
  // Read every file past the page cache: O_DIRECT with aligned buffers where the file system
  // allows it, otherwise the file's cached pages are dropped before and while reading. Results
  // are the same either way.
  bool bypassCache = false;
  // Bytes per read; 0: the default, which suits every device (users should never need to tune
  // it).
  std::size_t chunkSize = 0;
  // Extra consumers of each file's chunks; empty: none.
  std::function<std::unique_ptr<ChunkSink>(const FileSetItem&)> sinkFactory = {};
  // Progress and instrumentation; may be null. Must outlive the runs.
  ReadObserver* observer = nullptr;
  // Hash MD5 one file at a time (OpenSSL) even where the processor could hash several files in
  // its vector lanes at once. The checksums are the same either way; this is for comparisons and
  // for tests. The environment variable CORVANE_MD5_LANES=scalar does the same for a process.
  bool forceScalarMd5 = false;
  // The same for SHA-1 (OpenSSL, with the processor's SHA extensions where it has them);
  // CORVANE_SHA1_LANES=scalar does the same for a process.
  bool forceScalarSha1 = false;
};

// A consistent picture of a run, readable from any thread at any time.
struct CORVANE_API FileSetProgress {
  std::uint64_t filesDone = 0;  // results produced (read, failed or reported)
  std::uint64_t bytesDone = 0;  // bytes read so far
  // Known once the input was exhausted (always at the end); before that, what was seen so far.
  std::uint64_t filesTotal = 0;
  std::uint64_t bytesTotal = 0;  // sum of the sizes seen in the input (walk or fstat)
  bool totalsKnown = false;
  double bytesPerSecond = 0;  // over the last seconds
  double elapsedSeconds = 0;
};

class FileSetRunState;

// One run, pulled result by result.
class CORVANE_API FileSetRun {
 public:
  FileSetRun(FileSetRun&&) noexcept;
  FileSetRun& operator=(FileSetRun&&) noexcept;
  // Stops the run if it is not finished and waits for its threads.
  ~FileSetRun();

  // The next result in input order; blocks until it is ready. Nothing at the end, or once the
  // results of a stopped run are exhausted.
  std::optional<FileSetResult> next();
  // Any thread, any time.
  FileSetProgress progress() const;
  void requestStop();
  bool stopRequested() const;

 private:
  friend class FileSetHasher;
  explicit FileSetRun(std::shared_ptr<FileSetRunState> state);
  std::shared_ptr<FileSetRunState> state_;
};

// Totals of a finished run(): what was delivered and whether it was stopped.
struct CORVANE_API FileSetSummary {
  std::uint64_t results = 0;
  std::uint64_t hashed = 0;  // results that are ok()
  std::uint64_t failed = 0;  // results with an error, stopped ones included (not skipped ones)
  std::uint64_t bytes = 0;
  bool stopped = false;
};

class CORVANE_API FileSetHasher {
 public:
  explicit FileSetHasher(FileSetSettings settings = {});

  const FileSetSettings& settings() const { return settings_; }

  // Starts a run over `input`; results come from FileSetRun::next().
  FileSetRun start(FileSetInput input, std::stop_token stop = {}) const;

  // Runs over `input`, calling `deliver` on this thread for every result in input order, and
  // returns when all were delivered (or the run was stopped). An exception thrown by `deliver`
  // stops the run and is rethrown here after its threads ended.
  FileSetSummary run(FileSetInput input, const std::function<void(FileSetResult&&)>& deliver,
                     std::stop_token stop = {}) const;

 private:
  FileSetSettings settings_;
};

// The number of concurrent readers suited to the storage device `device` (an st_dev value): 1
// for a rotational disk, 4 for SSD and NVMe, 0 ("no limit") when it is not a block device or its
// kind cannot be read. From /sys/dev/block/<major>:<minor>/queue/rotational (a partition's
// parent disk is used).
CORVANE_API unsigned suggestedReadersForDevice(std::uint64_t device);

}  // namespace corvane
