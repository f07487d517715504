// OffloadJob: copies a camera card (or any folder or file) to several destinations at once,
// reading the source once, proves every copy equal to the source by reading it back from the
// disk, and records the proof as an ASC MHL generation in every destination.
//
//   OffloadSettings settings;
//   settings.algorithms = {ChecksumTypeXXHash64, ChecksumTypeMD5};
//   OffloadJob job("/media/CARD/A001", {"/mnt/shuttle1", "/mnt/shuttle2"}, settings);
//   OffloadSummary summary = job.run();   // progress() from another thread meanwhile
//   if (summary.ok()) { /* every file verified on every destination: the card may be wiped */ }
//
// Each destination D receives the source S under S's own name, D/<name of S>, as `cp -r S D`
// does when D is a folder. How one file travels:
//   1. S is read once, in chunks, by the file-set engine (storage-aware, several files at once);
//      every chunk is hashed and handed to one writer per destination (bounded memory: a writer
//      that falls behind holds the reader back).
//   2. A writer writes the chunks to a hidden temporary name beside the target, gives it the
//      source's modification time and permissions, flushes it to the disk, renames it to its final
//      name (never replacing a file unless `overwrite`) and flushes the folder. A file under its
//      final name is therefore always complete; flushes are batched per file system.
//   3. Once every file was written, each copy is read back past the page cache and hashed; a copy
//      is verified when every algorithm gives the source's value. A copy that reads back
//      differently was damaged on its way to the disk: it is reported and removed, so that the
//      next run copies it again.
//   4. Every destination gets an ASC MHL generation (process "transfer") recording the verified
//      files; when a destination holds no history yet, the source's history is copied first, so
//      that the chain of custody continues. The source gets a generation too when it is writable.
//
// Existing files: a file at a target that equals the source (same size and checksums, read back
// from the disk) counts as already copied and is not written again; one that differs is never
// touched unless `overwrite` (reported as a failure). This makes a job resumable: run again after
// a crash or a kill, it removes the temporaries it left, skips what is already there and proven,
// and ends with the same result as an uninterrupted run.
//
// Faults: a source file that cannot be read, or that changes while it is read, fails on every
// destination and the job goes on. A destination that fails (disk full, permission, drive
// removed) is failed from then on, with the reason, and the job goes on with the others.
//
// What is copied: regular files and folders (empty folders included). Symbolic links and special
// files in a source folder are not copied: they are reported as skipped, and a job that skipped
// anything is not ok(). A source given as a symbolic link is followed.
//
// Thread safety: run() once per job; progress() and requestStop() from any thread at any time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "corvane/ChecksumLookup.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/DirectoryWalk.hpp"
#include "corvane/Export.hpp"
#include "corvane/FileSetHasher.hpp"
#include "corvane/MhlHistory.hpp"

namespace corvane {

// How the copies are checked once written.
enum class OffloadVerification {
  readBack,  // read every copy back from the disk and compare its checksums (the default)
  size,      // compare sizes only
  none,      // trust the writes
};

// What happened to one file on one destination.
enum class OffloadCopyStatus {
  verified,        // written and read back equal to the source
  alreadyPresent,  // an identical file was at the target already (read back equal)
  written,         // written; checked by size only, or not checked (verification size/none)
  failed,          // see `error`
  skipped,         // not a regular file or folder (a link, a special file): not copied
};

struct CORVANE_API OffloadCopyResult {
  std::string path;  // the target: D/<name of S>/<relative path>
  OffloadCopyStatus status = OffloadCopyStatus::failed;
  std::string error;          // why it failed or was skipped; empty otherwise
  ChecksumLookup checksums;   // read back from the copy (readBack and alreadyPresent only)
};

// One entry of the source (a file, a folder, or something skipped), in byte order of relative
// paths.
struct CORVANE_API OffloadFileResult {
  std::string relativePath;  // below the source ("" when the source is a single file)
  WalkEntry::Kind kind = WalkEntry::Kind::file;
  std::uint64_t size = 0;
  ChecksumLookup sourceChecksums;  // as read from the source; empty when it could not be read
  std::string sourceError;         // the source could not be read, or changed while read
  std::vector<OffloadCopyResult> copies;  // one per destination, in the order given

  // Every copy verified, already present or (without read-back) written.
  bool ok() const;
};

struct CORVANE_API OffloadDestinationSummary {
  std::string root;  // D/<name of S>
  std::uint64_t verified = 0;
  std::uint64_t alreadyPresent = 0;
  std::uint64_t written = 0;  // without read-back
  std::uint64_t failed = 0;
  std::uint64_t skipped = 0;
  std::uint64_t bytesWritten = 0;
  std::uint64_t bytesVerified = 0;
  std::string error;  // the destination failed as a whole (disk full, removed, ...); empty if not
  // The ASC MHL manifest written (relative to `root`) and what went wrong recording it.
  std::vector<std::string> manifestsWritten;
  std::vector<MhlError> mhlProblems;
};

struct CORVANE_API OffloadSummary {
  std::uint64_t files = 0;  // regular files of the source
  std::uint64_t folders = 0;
  std::uint64_t bytes = 0;  // bytes of the source files
  std::uint64_t failedFiles = 0;
  std::uint64_t skipped = 0;
  std::vector<OffloadDestinationSummary> destinations;
  std::vector<std::string> sourceManifestsWritten;
  std::vector<MhlError> sourceMhlProblems;
  // A job that could not start (see checkOffloadPaths) says why here and did nothing.
  std::string refusal;
  bool stopped = false;

  // Every file verified (or, without read-back, written) on every destination, nothing skipped or
  // refused, every history recorded.
  bool ok() const;
};

enum class OffloadPhase { preparing, copying, verifying, recording, done };

struct CORVANE_API OffloadDestinationProgress {
  std::uint64_t bytesWritten = 0;
  std::uint64_t bytesVerified = 0;
  bool failed = false;
};

// A consistent picture of a running job, readable from any thread at any time.
struct CORVANE_API OffloadProgress {
  OffloadPhase phase = OffloadPhase::preparing;
  std::uint64_t filesTotal = 0;  // regular files of the source (known once the copy started)
  std::uint64_t bytesTotal = 0;
  std::uint64_t filesCopied = 0;  // files whose copies were settled in the copy phase
  std::uint64_t bytesRead = 0;    // from the source
  std::uint64_t filesVerified = 0;
  std::vector<OffloadDestinationProgress> destinations;
  double elapsedSeconds = 0;
};

struct CORVANE_API OffloadSettings {
  // Any ChecksumTypes; for the ASC MHL records only the ASC MHL formats (md5, sha1, xxh64, xxh3,
  // xxh128, c4) are possible: with another one `recordMhl` must be false. Default xxHash64.
  std::vector<ChecksumType> algorithms = {ChecksumTypeXXHash64};
  OffloadVerification verification = OffloadVerification::readBack;
  // Replace the files at the targets: each is written again (identical ones too, as they are
  // not read first) and replaces the old one atomically once complete.
  bool overwrite = false;
  // Only check existing copies against the source: nothing is written (missing copies fail).
  bool verifyOnly = false;
  // An ASC MHL generation in every destination, and in the source when it is writable.
  bool recordMhl = true;
  bool recordSourceMhl = true;
  std::vector<MhlAuthor> authors;
  std::optional<std::string> location;
  std::optional<std::string> comment;
  // Engine settings for reading the source and the copies (filesInFlight, readersPerDevice,
  // chunkSize); the algorithms and the cache bypass are the job's.
  FileSetSettings engine;
  // Bytes waiting for one destination's writer at most; 0: 32 MiB.
  std::size_t writeQueueBytes = 0;
  // Called for every entry of the source once all its copies are settled, in byte order of
  // relative paths, on the thread that called run().
  std::function<void(const OffloadFileResult&)> onFile;
  // Called with the path of every copy just before it is read back (tests use it to damage a
  // copy on its way to the disk; applications to log).
  std::function<void(const std::string& copyPath)> beforeReadBack;
};

// Why `source` and `destinations` cannot make a job, or nothing: the source does not exist, a
// destination is not an existing folder, is the source, lies inside the source, or is named twice
// (after resolving links and "..").
CORVANE_API std::optional<std::string> checkOffloadPaths(
    const std::string& source, const std::vector<std::string>& destinations);

class OffloadJobState;

class CORVANE_API OffloadJob {
 public:
  OffloadJob(std::string source, std::vector<std::string> destinations,
             OffloadSettings settings = {});
  ~OffloadJob();
  OffloadJob(const OffloadJob&) = delete;
  OffloadJob& operator=(const OffloadJob&) = delete;

  // Runs the job to its end (or until stopped); file problems never throw.
  OffloadSummary run(std::stop_token stop = {});
  // Any thread, any time.
  OffloadProgress progress() const;
  void requestStop();

 private:
  std::unique_ptr<OffloadJobState> state_;
};

}  // namespace corvane
