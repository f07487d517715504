// OffloadJob: one read of the source feeding a writer per destination, then a read-back of every
// copy past the page cache, then the ASC MHL records.
#include "corvane/OffloadJob.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <unordered_map>

#include "corvane/MhlHashFormat.hpp"
#include "mhl/MhlHistorySupport.hpp"
#include "offload/CopyWriter.hpp"
#include "util/DurableFile.hpp"

namespace corvane {
namespace {

using offload::CopyWriter;
using offload::FileCopy;

// Bytes queued for one destination's writer at most: enough to ride out a slow flush, and with
// the readers' buffers well within the job's memory budget (256 MiB with three destinations).
constexpr std::size_t kDefaultQueueBytes = std::size_t{32} << 20;
// Reading back goes past the page cache: each read waits for the device, so copies are read in
// larger pieces than the engine's default.
constexpr std::size_t kReadBackChunkSize = std::size_t{4} << 20;
constexpr std::string_view kHistoryFolderName = "ascmhl";

std::string lastComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  const auto slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string below(const std::string& root, const std::string& relative) {
  return relative.empty() ? root : joinPath(root, relative);
}

// The checksums of `copy` that differ from `source`'s, in words; empty when all equal.
std::string differences(const std::vector<ChecksumType>& algorithms, const ChecksumLookup& source,
                        const ChecksumLookup& copy) {
  std::string text;
  for (const ChecksumType type : algorithms) {
    const auto a = source.find(type);
    const auto b = copy.find(type);
    const std::string left = a == source.end() ? "?" : a->second;
    const std::string right = b == copy.end() ? "?" : b->second;
    if (left == right) continue;
    if (!text.empty()) text += ", ";
    // The short names users know from the checksum tools where there is one (xxh64, md5).
    const std::optional<std::string_view> format = mhlFormatName(type);
    text += (format ? std::string(*format) : type.name()) + " " + left + " != " + right;
  }
  return text;
}

// One entry of the source and what became of it.
struct Entry {
  WalkEntry walk;
  std::optional<FileTime> modified;  // of the source as read
  ChecksumLookup checksums;
  std::string sourceError;
  std::vector<std::shared_ptr<FileCopy>> copies;  // one per destination (files only)
  std::vector<OffloadCopyResult> results;         // one per destination
};

}  // namespace

bool OffloadFileResult::ok() const {
  if (kind == WalkEntry::Kind::directory) {
    return std::all_of(copies.begin(), copies.end(), [](const OffloadCopyResult& copy) {
      return copy.status != OffloadCopyStatus::failed;
    });
  }
  if (kind != WalkEntry::Kind::file || !sourceError.empty()) return false;
  return std::all_of(copies.begin(), copies.end(), [](const OffloadCopyResult& copy) {
    return copy.status == OffloadCopyStatus::verified ||
           copy.status == OffloadCopyStatus::alreadyPresent ||
           copy.status == OffloadCopyStatus::written;
  });
}

bool OffloadSummary::ok() const {
  if (!refusal.empty() || stopped || failedFiles != 0 || skipped != 0 ||
      !sourceMhlProblems.empty()) {
    return false;
  }
  return std::all_of(destinations.begin(), destinations.end(),
                     [](const OffloadDestinationSummary& destination) {
                       return destination.error.empty() && destination.failed == 0 &&
                              destination.mhlProblems.empty();
                     });
}

class OffloadJobState {
 public:
  OffloadJobState(std::string source, std::vector<std::string> destinations,
                  OffloadSettings settings)
      : source_(std::move(source)),
        destinationFolders_(std::move(destinations)),
        settings_(std::move(settings)) {
    progress_.destinations.resize(destinationFolders_.size());
  }

  OffloadSummary run(std::stop_token outerStop);
  OffloadProgress progress() const;
  void requestStop() { stop_.request_stop(); }

 private:
  bool prepare(OffloadSummary& summary);
  void copyPhase();
  void readBackPhase();
  void recordPhase(OffloadSummary& summary);
  void settle(OffloadSummary& summary);
  bool stopped() const { return stop_.stop_requested(); }
  void setPhase(OffloadPhase phase) {
    const std::lock_guard lock(progressMutex_);
    progress_.phase = phase;
  }
  std::shared_ptr<FileCopy> plannedCopy(const Entry& entry, std::size_t destination) const;
  void copyHistoryFolder(const std::string& relative, std::size_t destination,
                         OffloadDestinationSummary& summary) const;

  const std::string source_;
  const std::vector<std::string> destinationFolders_;
  const OffloadSettings settings_;
  std::stop_source stop_;

  bool sourceIsFolder_ = true;
  std::vector<std::string> roots_;  // D/<name of S>
  std::vector<Entry> entries_;
  std::vector<std::string> historyFolders_;  // relative paths of the source's ascmhl folders
  std::vector<std::unique_ptr<CopyWriter>> writers_;
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();

  mutable std::mutex progressMutex_;
  OffloadProgress progress_;
  std::atomic<std::uint64_t> bytesRead_{0};
  std::atomic<std::uint64_t> filesCopied_{0};
  std::atomic<std::uint64_t> filesVerified_{0};
  std::unique_ptr<std::atomic<std::uint64_t>[]> bytesVerified_;
};

OffloadProgress OffloadJobState::progress() const {
  OffloadProgress snapshot;
  const std::lock_guard lock(progressMutex_);
  snapshot = progress_;
  snapshot.bytesRead = bytesRead_.load(std::memory_order_relaxed);
  snapshot.filesCopied = filesCopied_.load(std::memory_order_relaxed);
  snapshot.filesVerified = filesVerified_.load(std::memory_order_relaxed);
  for (std::size_t d = 0; d < snapshot.destinations.size(); ++d) {
    if (d < writers_.size() && writers_[d]) {
      snapshot.destinations[d].bytesWritten = writers_[d]->bytesWritten();
      snapshot.destinations[d].failed = !writers_[d]->failure().empty();
    }
    if (bytesVerified_) {
      snapshot.destinations[d].bytesVerified = bytesVerified_[d].load(std::memory_order_relaxed);
    }
  }
  snapshot.elapsedSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  return snapshot;
}

// Walks the source, makes the folders in every destination (clearing what a killed run left) and
// starts the writers. False when the job cannot start.
bool OffloadJobState::prepare(OffloadSummary& summary) {
  struct stat status {};
  if (::stat(source_.c_str(), &status) != 0) return false;
  sourceIsFolder_ = S_ISDIR(status.st_mode);
  const std::string name = lastComponent(source_);
  for (const std::string& folder : destinationFolders_) roots_.push_back(joinPath(folder, name));

  if (sourceIsFolder_) {
    WalkOptions options;
    // The source's ASC MHL histories are records, not data: each destination continues them
    // (recordPhase) instead of receiving a copy that its own records would then contradict.
    options.ignore = [this](std::string_view relativePath, bool isDirectory) {
      if (!isDirectory || lastComponent(std::string(relativePath)) != kHistoryFolderName) {
        return false;
      }
      historyFolders_.emplace_back(relativePath);
      return true;
    };
    DirectoryWalk walk(source_, std::move(options));
    Entry root;
    root.walk.kind = WalkEntry::Kind::directory;
    root.walk.path = source_;
    root.walk.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    entries_.push_back(std::move(root));
    while (std::optional<WalkEntry> entry = walk.next()) {
      if (entry->kind == WalkEntry::Kind::unreadable && entry->relativePath.empty()) {
        summary.refusal = source_ + ": " + entry->reason();
        return false;
      }
      Entry next;
      next.walk = std::move(*entry);
      entries_.push_back(std::move(next));
    }
  } else {
    Entry file;
    file.walk.kind = WalkEntry::Kind::file;
    file.walk.path = source_;
    file.walk.size = static_cast<std::uint64_t>(status.st_size);
    file.walk.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    entries_.push_back(std::move(file));
  }

  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  for (const Entry& entry : entries_) {
    if (entry.walk.kind != WalkEntry::Kind::file) continue;
    ++files;
    bytes += entry.walk.size;
  }
  {
    const std::lock_guard lock(progressMutex_);
    progress_.filesTotal = files;
    progress_.bytesTotal = bytes;
  }
  const std::size_t queueBytes =
      settings_.writeQueueBytes != 0 ? settings_.writeQueueBytes : kDefaultQueueBytes;
  {
    // progress() looks at the writers from other threads.
    const std::lock_guard lock(progressMutex_);
    bytesVerified_ = std::make_unique<std::atomic<std::uint64_t>[]>(roots_.size());
    for (const std::string& folder : destinationFolders_) {
      writers_.push_back(std::make_unique<CopyWriter>(folder, queueBytes));
    }
  }
  for (std::size_t d = 0; d < roots_.size(); ++d) {
    if (settings_.verifyOnly) continue;
    // The folders, before any file: also the empty ones, and those a killed run left
    // temporaries in.
    for (const Entry& entry : entries_) {
      if (entry.walk.kind != WalkEntry::Kind::directory) continue;
      const std::string folder = below(roots_[d], entry.walk.relativePath);
      if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        writers_[d]->fail(folder + ": cannot make the folder: " + std::strerror(errno));
        break;
      }
      struct stat made {};
      if (::stat(folder.c_str(), &made) != 0 || !S_ISDIR(made.st_mode)) {
        writers_[d]->fail(folder + ": something that is not a folder is in the way");
        break;
      }
      detail::removeStaleTemporaries(folder);
    }
    if (!sourceIsFolder_) detail::removeStaleTemporaries(destinationFolders_[d]);
  }
  return true;
}

// What to do with `entry` on `destination`: write it, check what is there, or nothing.
std::shared_ptr<FileCopy> OffloadJobState::plannedCopy(const Entry& entry,
                                                       std::size_t destination) const {
  auto copy = std::make_shared<FileCopy>();
  copy->target = below(roots_[destination], entry.walk.relativePath);
  const std::string failure = writers_[destination]->failure();
  if (!failure.empty()) {
    copy->state = FileCopy::State::failed;
    copy->error = failure;
    return copy;
  }
  struct stat existing {};
  if (::lstat(copy->target.c_str(), &existing) == 0) {
    if (!S_ISREG(existing.st_mode)) {
      copy->state = FileCopy::State::failed;
      copy->error = "something that is not a regular file is at the target";
    } else if (settings_.overwrite && !settings_.verifyOnly) {
      // Asked to replace: written again without reading the old file first (an identical file
      // costs one write; a different one of the same size would otherwise cost a second read of
      // the source).
      copy->replace = true;
    } else {
      // Checked against the source when the copies are read back.
      copy->state = FileCopy::State::committed;
      copy->existing = true;
    }
  } else if (settings_.verifyOnly) {
    copy->state = FileCopy::State::failed;
    copy->error = "the copy is missing";
  }
  return copy;
}

namespace {

// Hands the chunks of one source file to the writers of the destinations it goes to.
class CopySink final : public ChunkSink {
 public:
  CopySink(Entry& entry, std::vector<std::unique_ptr<CopyWriter>>& writers,
           std::atomic<std::uint64_t>& bytesRead)
      : entry_(entry), writers_(writers), bytesRead_(bytesRead) {}

  void begin(const FileSetItem& item, std::uint64_t) override {
    // The times and permissions the copies get: the file's as it is opened now (a change while
    // it is read fails the file anyway).
    if (::stat(item.entry.path.c_str(), &status_) != 0) status_ = {};
    for (std::size_t d = 0; d < writers_.size(); ++d) {
      FileCopy& copy = *entry_.copies[d];
      if (copy.state != FileCopy::State::pending) continue;
      copy.modified = status_.st_mtim;
      copy.mode = status_.st_mode;
      writers_[d]->open(entry_.copies[d]);
    }
  }

  void chunk(const SharedBytes& bytes) override {
    bytesRead_.fetch_add(bytes->size(), std::memory_order_relaxed);
    for (std::size_t d = 0; d < writers_.size(); ++d) {
      if (entry_.copies[d]->state == FileCopy::State::pending) {
        writers_[d]->write(entry_.copies[d], bytes);
      }
    }
  }

  FileError finish(const FileError& error) override {
    FileError verdict = error;
    struct stat after {};
    if (!verdict && (::stat(entry_.walk.path.c_str(), &after) != 0 ||
                     after.st_ino != status_.st_ino || after.st_dev != status_.st_dev ||
                     after.st_mtim.tv_sec != status_.st_mtim.tv_sec ||
                     after.st_mtim.tv_nsec != status_.st_mtim.tv_nsec ||
                     after.st_size != status_.st_size)) {
      // Replaced or touched between our look and the engine's open.
      verdict = FileError{FileErrorKind::changedWhileRead, 0, "file changed while being read"};
    }
    for (std::size_t d = 0; d < writers_.size(); ++d) {
      if (entry_.copies[d]->state == FileCopy::State::pending) {
        writers_[d]->close(entry_.copies[d], !verdict);
      }
    }
    return verdict;
  }

 private:
  Entry& entry_;
  std::vector<std::unique_ptr<CopyWriter>>& writers_;
  std::atomic<std::uint64_t>& bytesRead_;
  struct stat status_ {};
};

}  // namespace

void OffloadJobState::copyPhase() {
  setPhase(OffloadPhase::copying);
  std::vector<std::size_t> files;
  for (std::size_t k = 0; k < entries_.size(); ++k) {
    Entry& entry = entries_[k];
    if (entry.walk.kind != WalkEntry::Kind::file) continue;
    for (std::size_t d = 0; d < roots_.size(); ++d) entry.copies.push_back(plannedCopy(entry, d));
    files.push_back(k);
  }
  std::unordered_map<std::string, std::size_t> byPath;
  for (const std::size_t k : files) byPath[entries_[k].walk.path] = k;

  FileSetSettings settings = settings_.engine;
  settings.algorithms = settings_.algorithms;
  settings.bypassCache = false;
  settings.sinkFactory = [&](const FileSetItem& item) -> std::unique_ptr<ChunkSink> {
    return std::make_unique<CopySink>(entries_[byPath.at(item.entry.path)], writers_, bytesRead_);
  };
  std::size_t next = 0;
  FileSetHasher(settings).run(
      FileSetInput::generator([&]() -> std::optional<FileSetItem> {
        if (next >= files.size()) return std::nullopt;
        FileSetItem item;
        item.entry = entries_[files[next++]].walk;
        item.regularOnly = sourceIsFolder_;
        return item;
      }),
      [&](FileSetResult&& result) {
        Entry& entry = entries_[files[result.index]];
        if (result.ok()) {
          entry.checksums = std::move(result.checksums);
          entry.modified = result.modified;
          if (result.size) entry.walk.size = *result.size;
        } else {
          entry.sourceError = result.error.message;
        }
        filesCopied_.fetch_add(1, std::memory_order_relaxed);
      },
      stop_.get_token());
  for (const std::unique_ptr<CopyWriter>& writer : writers_) writer->drain();
}

void OffloadJobState::readBackPhase() {
  setPhase(OffloadPhase::verifying);
  // Every copy written (unless the settings say otherwise) and every file found at a target.
  struct Check {
    std::size_t entry;
    std::size_t destination;
  };
  std::vector<Check> checks;
  for (std::size_t k = 0; k < entries_.size(); ++k) {
    Entry& entry = entries_[k];
    if (entry.walk.kind != WalkEntry::Kind::file) continue;
    entry.results.resize(roots_.size());
    for (std::size_t d = 0; d < roots_.size(); ++d) {
      const FileCopy& copy = *entry.copies[d];
      OffloadCopyResult& result = entry.results[d];
      result.path = copy.target;
      const bool existing = copy.existing;
      if (!entry.sourceError.empty()) {
        result.status = OffloadCopyStatus::failed;
        result.error = entry.sourceError;
        continue;
      }
      switch (copy.state) {
        case FileCopy::State::failed:
        case FileCopy::State::pending:
          result.status = OffloadCopyStatus::failed;
          result.error = copy.error.empty() ? writers_[d]->failure() : copy.error;
          continue;
        case FileCopy::State::discarded:
          result.status = OffloadCopyStatus::failed;
          result.error = "stopped";
          continue;
        case FileCopy::State::committed:
          break;
      }
      if (!existing && settings_.verification != OffloadVerification::readBack) {
        struct stat written {};
        if (settings_.verification == OffloadVerification::size &&
            (::stat(copy.target.c_str(), &written) != 0 ||
             static_cast<std::uint64_t>(written.st_size) != entry.walk.size)) {
          result.status = OffloadCopyStatus::failed;
          result.error = "the copy's size differs from the source's";
        } else {
          result.status = OffloadCopyStatus::written;
        }
        continue;
      }
      checks.push_back({k, d});
    }
  }
  if (checks.empty() || stopped()) return;

  FileSetSettings settings = settings_.engine;
  settings.algorithms = settings_.algorithms;
  settings.bypassCache = true;
  settings.sinkFactory = nullptr;
  if (settings.chunkSize == 0) settings.chunkSize = kReadBackChunkSize;
  std::size_t next = 0;
  FileSetHasher(settings).run(
      FileSetInput::generator([&]() -> std::optional<FileSetItem> {
        if (next >= checks.size()) return std::nullopt;
        const Check& check = checks[next++];
        const std::string& path = entries_[check.entry].copies[check.destination]->target;
        if (settings_.beforeReadBack) settings_.beforeReadBack(path);
        FileSetItem item = FileSetItem::path(path);
        item.regularOnly = true;
        item.bypassCache = true;
        return item;
      }),
      [&](FileSetResult&& read) {
        const Check& check = checks[read.index];
        Entry& entry = entries_[check.entry];
        FileCopy& copy = *entry.copies[check.destination];
        OffloadCopyResult& result = entry.results[check.destination];
        const bool existing = copy.existing;
        if (!read.ok()) {
          result.status = OffloadCopyStatus::failed;
          result.error = "cannot read the copy back: " + read.error.message;
          return;
        }
        bytesVerified_[check.destination].fetch_add(read.size.value_or(0),
                                                    std::memory_order_relaxed);
        result.checksums = read.checksums;
        const std::string differs =
            read.size.value_or(0) != entry.walk.size
                ? std::string("sizes differ")
                : differences(settings_.algorithms, entry.checksums, read.checksums);
        if (differs.empty()) {
          result.status =
              existing ? OffloadCopyStatus::alreadyPresent : OffloadCopyStatus::verified;
          return;
        }
        result.status = OffloadCopyStatus::failed;
        if (existing) {
          result.error = settings_.verifyOnly
                             ? "the copy differs from the source: " + differs
                             : "a different file is at the target; not replaced (" + differs +
                                   ")";
          return;
        }
        // Damaged on its way to the disk: removed, so that the next run copies it again.
        ::unlink(copy.target.c_str());
        result.error = "the copy read back differs from the source (" + differs +
                       "); the copy was removed";
      },
      stop_.get_token());
  filesVerified_.store(checks.size(), std::memory_order_relaxed);
}

// Copies the source's history folder `relative` to a destination that has none there: into a
// temporary folder first, renamed when complete, so that a destination never holds half a
// history.
void OffloadJobState::copyHistoryFolder(const std::string& relative, std::size_t destination,
                                        OffloadDestinationSummary& summary) const {
  namespace fs = std::filesystem;
  const fs::path target = below(roots_[destination], relative);
  std::error_code error;
  if (fs::exists(target, error)) return;
  const fs::path parent = target.parent_path();
  // A killed run's temporary folders.
  for (const auto& item : fs::directory_iterator(parent, error)) {
    if (item.is_directory() &&
        item.path().filename().string().starts_with(std::string(detail::kTemporaryPrefix) +
                                                    "history-")) {
      fs::remove_all(item.path(), error);
    }
  }
  const fs::path temporary =
      parent / (std::string(detail::kTemporaryPrefix) + "history-" + std::to_string(::getpid()));
  fs::remove_all(temporary, error);
  const auto fail = [&](const std::string& what) {
    summary.mhlProblems.push_back(
        mhl::problem(MhlErrorKind::unreadable, target.string(), what + ": " + error.message()));
    fs::remove_all(temporary, error);
  };
  if (!fs::create_directory(temporary, error)) return fail("cannot make a folder");
  const fs::path from = below(source_, relative);
  for (const auto& item : fs::directory_iterator(from, error)) {
    if (!item.is_regular_file()) continue;
    std::string bytes;
    {
      const int descriptor = ::open(item.path().c_str(), O_RDONLY | O_CLOEXEC);
      if (descriptor < 0) return fail("cannot read " + item.path().string());
      char buffer[65536];
      ssize_t count;
      while ((count = ::read(descriptor, buffer, sizeof buffer)) > 0) bytes.append(buffer, count);
      ::close(descriptor);
      if (count < 0) return fail("cannot read " + item.path().string());
    }
    const auto written = detail::writeFileDurably((temporary / item.path().filename()).string(),
                                                  bytes, detail::ReplacePolicy::neverReplace);
    if (written) {
      summary.mhlProblems.push_back(
          mhl::problem(MhlErrorKind::unreadable, target.string(), written.message, written.code));
      fs::remove_all(temporary, error);
      return;
    }
  }
  if (error) return fail("cannot list " + from.string());
  if (::rename(temporary.c_str(), target.c_str()) != 0) {
    error = std::error_code(errno, std::generic_category());
    return fail("cannot rename the history folder");
  }
  detail::syncFolder(parent.string());
}

void OffloadJobState::recordPhase(OffloadSummary& summary) {
  if (!settings_.recordMhl || !sourceIsFolder_ || stopped()) return;
  setPhase(OffloadPhase::recording);
  std::vector<ChecksumType> formats;
  for (const ChecksumType type : settings_.algorithms) {
    if (std::holds_alternative<std::string_view>(checkMhlFormat(type))) formats.push_back(type);
  }
  if (formats.empty()) {
    summary.sourceMhlProblems.push_back(
        mhl::problem(MhlErrorKind::invalidContent, source_,
                   "no ASC MHL format among the algorithms (md5, sha1, xxh64, xxh3, xxh128, c4)"));
    return;
  }
  std::unordered_map<std::string, const Entry*> byPath;
  for (const Entry& entry : entries_) {
    if (entry.walk.kind == WalkEntry::Kind::file) byPath[entry.walk.relativePath] = &entry;
  }
  MhlCreateOptions options;
  options.formats = formats;
  options.process = MhlProcess::transfer;
  options.authors = settings_.authors;
  options.location = settings_.location;
  options.comment = settings_.comment;
  options.engine = settings_.engine;

  if (settings_.recordSourceMhl && !settings_.verifyOnly &&
      ::faccessat(AT_FDCWD, source_.c_str(), W_OK, AT_EACCESS) == 0) {
    options.knownChecksums = [&](const std::string& path) -> std::optional<MhlKnownFile> {
      const auto found = byPath.find(path);
      if (found == byPath.end() || !found->second->sourceError.empty() ||
          !found->second->modified) {
        return std::nullopt;
      }
      const Entry& entry = *found->second;
      return MhlKnownFile{entry.walk.size, *entry.modified, entry.checksums};
    };
    MhlReport report = createMhlGeneration(source_, options, stop_.get_token());
    summary.sourceManifestsWritten = std::move(report.manifestsWritten);
    summary.sourceMhlProblems = std::move(report.problems);
  }

  for (std::size_t d = 0; d < roots_.size(); ++d) {
    OffloadDestinationSummary& destination = summary.destinations[d];
    if (!destination.error.empty() || stopped()) continue;
    for (const std::string& history : historyFolders_) {
      copyHistoryFolder(history, d, destination);
    }
    options.knownChecksums = [&](const std::string& path) -> std::optional<MhlKnownFile> {
      const auto found = byPath.find(path);
      if (found == byPath.end() || !found->second->modified) return std::nullopt;
      const Entry& entry = *found->second;
      const OffloadCopyResult& copy = entry.results[d];
      // Read back: what the copy holds. Written without read-back: what was written to it.
      const ChecksumLookup* checksums = nullptr;
      if (copy.status == OffloadCopyStatus::verified ||
          copy.status == OffloadCopyStatus::alreadyPresent) {
        checksums = &copy.checksums;
      } else if (copy.status == OffloadCopyStatus::written) {
        checksums = &entry.checksums;
      }
      if (checksums == nullptr) return std::nullopt;
      return MhlKnownFile{entry.walk.size, *entry.modified, *checksums};
    };
    MhlReport report = createMhlGeneration(roots_[d], options, stop_.get_token());
    destination.manifestsWritten = std::move(report.manifestsWritten);
    destination.mhlProblems = std::move(report.problems);
  }
}

// Turns the entries into results, callbacks and counts.
void OffloadJobState::settle(OffloadSummary& summary) {
  for (Entry& entry : entries_) {
    if (entry.walk.kind == WalkEntry::Kind::directory && entry.walk.relativePath.empty()) continue;
    OffloadFileResult result;
    result.relativePath = entry.walk.relativePath;
    result.kind = entry.walk.kind;
    result.size = entry.walk.size;
    result.sourceChecksums = entry.checksums;
    result.sourceError = entry.sourceError;
    switch (entry.walk.kind) {
      case WalkEntry::Kind::file:
        ++summary.files;
        summary.bytes += entry.walk.size;
        result.copies = entry.results;
        if (result.copies.size() != roots_.size()) {  // stopped before the read-back
          result.copies.resize(roots_.size());
          for (std::size_t d = 0; d < roots_.size(); ++d) {
            result.copies[d].path = below(roots_[d], entry.walk.relativePath);
            result.copies[d].error = "stopped";
          }
        }
        if (!result.ok()) ++summary.failedFiles;
        break;
      case WalkEntry::Kind::directory:
        ++summary.folders;
        for (std::size_t d = 0; d < roots_.size(); ++d) {
          OffloadCopyResult copy;
          copy.path = below(roots_[d], entry.walk.relativePath);
          const std::string failure = writers_[d]->failure();
          copy.status = failure.empty() ? OffloadCopyStatus::verified : OffloadCopyStatus::failed;
          copy.error = failure;
          result.copies.push_back(std::move(copy));
        }
        break;
      case WalkEntry::Kind::skipped:
      case WalkEntry::Kind::unreadable:
        if (entry.walk.kind == WalkEntry::Kind::skipped) {
          ++summary.skipped;
        } else {
          ++summary.failedFiles;
        }
        result.sourceError = entry.walk.reason();
        for (std::size_t d = 0; d < roots_.size(); ++d) {
          OffloadCopyResult copy;
          copy.path = below(roots_[d], entry.walk.relativePath);
          copy.status = entry.walk.kind == WalkEntry::Kind::skipped ? OffloadCopyStatus::skipped
                                                                     : OffloadCopyStatus::failed;
          copy.error = result.sourceError;
          result.copies.push_back(std::move(copy));
        }
        break;
    }
    for (std::size_t d = 0; d < result.copies.size(); ++d) {
      OffloadDestinationSummary& destination = summary.destinations[d];
      if (entry.walk.kind != WalkEntry::Kind::file) {
        if (entry.walk.kind == WalkEntry::Kind::skipped) ++destination.skipped;
        continue;
      }
      switch (result.copies[d].status) {
        case OffloadCopyStatus::verified:
          ++destination.verified;
          break;
        case OffloadCopyStatus::alreadyPresent:
          ++destination.alreadyPresent;
          break;
        case OffloadCopyStatus::written:
          ++destination.written;
          break;
        case OffloadCopyStatus::failed:
          ++destination.failed;
          break;
        case OffloadCopyStatus::skipped:
          ++destination.skipped;
          break;
      }
    }
    if (settings_.onFile) settings_.onFile(result);
  }
}

OffloadSummary OffloadJobState::run(std::stop_token outerStop) {
  OffloadSummary summary;
  std::stop_callback forward(outerStop, [this] { stop_.request_stop(); });
  if (std::optional<std::string> refusal = checkOffloadPaths(source_, destinationFolders_)) {
    summary.refusal = *refusal;
    return summary;
  }
  if (settings_.algorithms.empty()) {
    summary.refusal = "no algorithm";
    return summary;
  }
  if (!prepare(summary)) {
    if (summary.refusal.empty()) summary.refusal = source_ + ": " + std::strerror(errno);
    return summary;
  }
  copyPhase();
  if (!stopped()) readBackPhase();
  summary.destinations.resize(roots_.size());
  for (std::size_t d = 0; d < roots_.size(); ++d) {
    summary.destinations[d].root = roots_[d];
    summary.destinations[d].error = writers_[d]->failure();
    summary.destinations[d].bytesWritten = writers_[d]->bytesWritten();
    summary.destinations[d].bytesVerified = bytesVerified_[d].load(std::memory_order_relaxed);
  }
  settle(summary);
  recordPhase(summary);
  summary.stopped = stopped();
  setPhase(OffloadPhase::done);
  return summary;
}

OffloadJob::OffloadJob(std::string source, std::vector<std::string> destinations,
                       OffloadSettings settings)
    : state_(std::make_unique<OffloadJobState>(std::move(source), std::move(destinations),
                                               std::move(settings))) {}

OffloadJob::~OffloadJob() = default;

OffloadSummary OffloadJob::run(std::stop_token stop) { return state_->run(std::move(stop)); }

OffloadProgress OffloadJob::progress() const { return state_->progress(); }

void OffloadJob::requestStop() { state_->requestStop(); }

}  // namespace corvane
