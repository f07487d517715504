#include "CheckCommand.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_map>
#include <variant>

#include "ChecksumListParser.hpp"
#include "EngineInput.hpp"
#include "ExitStatus.hpp"
#include "NameEscaping.hpp"
#include "OutputFormat.hpp"

namespace corvane::tool {
namespace {

// How a list read from standard input is named in messages, as coreutils names it.
constexpr const char* kStandardInputName = "standard input";

// A file name as `sha256sum -c` prints it in its result lines: as it is, unless it holds a
// newline, which would break the line; then escaped with a leading backslash.
std::string displayName(const std::string& path) {
  if (path.find('\n') == std::string::npos) return path;
  return '\\' + escapeName(path);
}

// "MD5 or XXH128": the tags of a line's candidate algorithms.
std::string candidateTags(const std::vector<const AlgorithmName*>& candidates) {
  std::string tags;
  for (const AlgorithmName* algorithm : candidates) {
    if (!tags.empty()) tags += " or ";
    tags += algorithm->tag;
  }
  return tags;
}

// Reads a list line by line, so that a list of millions of lines never sits in memory whole.
class LineReader {
 public:
  // "-": standard input, read from where it stands.
  explicit LineReader(const std::string& listPath) : standardInput_(listPath == "-") {
    descriptor_ = standardInput_ ? STDIN_FILENO : ::open(listPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0) error_ = errno;
  }
  ~LineReader() {
    if (!standardInput_ && descriptor_ >= 0) ::close(descriptor_);
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line without its '\n'; false at the end or after a read error (error() tells).
  bool next(std::string& line) {
    while (true) {
      const auto end = buffer_.find('\n', start_);
      if (end != std::string::npos) {
        line.assign(buffer_, start_, end - start_);
        start_ = end + 1;
        return true;
      }
      if (ended_) {
        if (start_ >= buffer_.size()) return false;
        line.assign(buffer_, start_, std::string::npos);  // a last line without '\n'
        start_ = buffer_.size();
        return true;
      }
      fill();
    }
  }

  int error() const { return error_; }

 private:
  void fill() {
    buffer_.erase(0, start_);
    start_ = 0;
    if (descriptor_ < 0) {
      ended_ = true;
      return;
    }
    char chunk[65536];
    ssize_t got;
    do {
      got = ::read(descriptor_, chunk, sizeof chunk);
    } while (got < 0 && errno == EINTR);
    if (got < 0) error_ = errno;
    if (got <= 0) {
      ended_ = true;
      return;
    }
    buffer_.append(chunk, static_cast<std::size_t>(got));
  }

  bool standardInput_;
  int descriptor_ = -1;
  int error_ = 0;
  bool ended_ = false;
  std::string buffer_;
  std::size_t start_ = 0;
};

// What the printer meets, in list order: the start of a list, its lines, its end.
struct ListEvent {
  enum class Kind { kListBegin, kLine, kListEnd };
  Kind kind = Kind::kLine;
  std::size_t list = 0;  // index into the list names
  std::optional<std::string> readError =
      {};                  // kListBegin (cannot be opened) or kListEnd (read failed)
  std::size_t number = 0;  // kLine: from 1
  std::optional<ChecksumListEntry> entry = {};  // kLine: null when improperly formatted
  std::size_t job = 0;                          // kLine with an entry: the file read for it
  std::size_t blockFirstJob = 0;  // kLine with an entry: no earlier job is referred to
};

// One distinct file to read, with every candidate algorithm of its lines.
struct FileJob {
  std::string path;
  std::vector<const AlgorithmName*> algorithms;
};

// Reads the lists block by block, ahead of the results but bounded by the engine's window, and
// turns each block into file jobs: a file named by several lines of one block is read once, with
// the candidates of all those lines. Called by the engine for its next item; the events it
// produces are taken by the printer on the caller's thread.
class ListStream {
 public:
  // Lines per block: files named again within a block are read once.
  static constexpr std::size_t kBlockLines = 4096;

  ListStream(std::vector<std::string> listPaths, const AlgorithmName* forced)
      : listPaths_(std::move(listPaths)), forced_(forced) {}

  // The name of a list whose kListBegin event was taken.
  std::string listName(std::size_t list) const {
    const std::lock_guard lock(mutex_);
    return listNames_.at(list);
  }

  // The next file to read, or nothing once every list was read.
  std::optional<FileSetItem> nextJob() {
    while (jobsTaken_ == jobs_.size()) {
      if (!readBlock()) return std::nullopt;
    }
    const FileJob& job = jobs_[jobsTaken_++];
    FileSetItem item = FileSetItem::path(job.path);
    item.algorithms = checksumTypesOf(job.algorithms);
    return item;
  }

  // Moves the events produced so far into `into`.
  void takeEvents(std::deque<ListEvent>& into) {
    const std::lock_guard lock(mutex_);
    std::move(events_.begin(), events_.end(), std::back_inserter(into));
    events_.clear();
  }

 private:
  // Reads up to kBlockLines lines (crossing into the next lists as needed); false when nothing
  // was left to read.
  bool readBlock() {
    // Every job of the previous block was taken: only this block's are kept.
    jobBase_ += jobs_.size();
    jobs_.clear();
    jobsTaken_ = 0;
    std::vector<ListEvent> block;
    std::unordered_map<std::string, std::size_t> jobOfPath;
    std::size_t lines = 0;
    std::string text;
    while (lines < kBlockLines) {
      if (!reader_) {
        if (nextList_ >= listPaths_.size()) break;
        openList(block);
        continue;
      }
      if (!reader_->next(text)) {
        ListEvent end{.kind = ListEvent::Kind::kListEnd, .list = currentList_};
        if (reader_->error() != 0) end.readError = std::strerror(reader_->error());
        block.push_back(std::move(end));
        reader_.reset();
        continue;
      }
      ++lineNumber_;
      ParsedChecksumLine parsed = parseChecksumLine(text, context_, &gnuLineForm_);
      if (std::holds_alternative<IgnoredLine>(parsed)) continue;
      ++lines;
      ListEvent& line = block.emplace_back();
      line.list = currentList_;
      line.number = lineNumber_;
      if (auto* entry = std::get_if<ChecksumListEntry>(&parsed)) {
        const auto [found, added] = jobOfPath.try_emplace(entry->path, jobs_.size());
        if (added) jobs_.push_back({entry->path, {}});
        std::vector<const AlgorithmName*>& algorithms = jobs_[found->second].algorithms;
        for (const AlgorithmName* candidate : entry->candidates) {
          if (std::ranges::find(algorithms, candidate) == algorithms.end()) {
            algorithms.push_back(candidate);
          }
        }
        line.job = jobBase_ + found->second;
        line.blockFirstJob = jobBase_;
        line.entry = std::move(*entry);
      }
    }
    const bool any = !block.empty();
    {
      const std::lock_guard lock(mutex_);
      std::move(block.begin(), block.end(), std::back_inserter(events_));
    }
    return any;
  }

  void openList(std::vector<ListEvent>& block) {
    currentList_ = nextList_++;
    const std::string& path = listPaths_[currentList_];
    const bool standardInput = path == "-";
    {
      const std::lock_guard lock(mutex_);
      listNames_.push_back(standardInput ? kStandardInputName : path);
    }
    // Standard input has no name whose suffix could settle its lines.
    context_ = GnuLineContext{.forced = forced_,
                              .listSuffix = standardInput ? nullptr : listSuffixAlgorithm(path)};
    lineNumber_ = 0;
    reader_.emplace(path);
    ListEvent begin{.kind = ListEvent::Kind::kListBegin, .list = currentList_};
    if (reader_->error() != 0) {
      begin.readError = std::strerror(reader_->error());
      reader_.reset();
      block.push_back(std::move(begin));
      block.push_back({.kind = ListEvent::Kind::kListEnd, .list = currentList_});
      return;
    }
    block.push_back(std::move(begin));
  }

  const std::vector<std::string> listPaths_;
  const AlgorithmName* forced_;
  std::size_t nextList_ = 0;
  std::size_t currentList_ = 0;
  std::optional<LineReader> reader_;
  GnuLineContext context_;
  // Settled by the first GNU line of the run and kept across lists, as sha256sum -c does.
  GnuLineForm gnuLineForm_ = GnuLineForm::kUndecided;
  std::size_t lineNumber_ = 0;
  std::vector<FileJob> jobs_;  // of the current block
  std::size_t jobsTaken_ = 0;
  std::size_t jobBase_ = 0;  // the number of the first job in jobs_

  mutable std::mutex mutex_;  // guards events_ and listNames_ (read by the printer)
  std::deque<ListEvent> events_;
  std::deque<std::string> listNames_;
};

// Prints the result of every list line, in list order, as the files are read, and the closing
// messages of each list. With --json the document is written as it goes, a line at a time.
class ResultPrinter {
 public:
  ResultPrinter(const CheckOptions& options, ListStream& stream, RunReporter& reporter,
                std::ostream& out)
      : options_(options), stream_(stream), reporter_(reporter), out_(out) {}

  // A file was read: results arrive in job order.
  void fileRead(FileSetResult&& result) {
    results_.push_back(std::move(result));
    printReady();
  }

  // Prints every event whose file has been read.
  void printReady() {
    stream_.takeEvents(events_);
    while (!events_.empty()) {
      const ListEvent& event = events_.front();
      if (event.kind == ListEvent::Kind::kLine && event.entry &&
          event.job >= resultBase_ + results_.size()) {
        return;
      }
      print(event);
      events_.pop_front();
      // A line refers to a job of its own block, never to one before the block's first; the
      // results of jobs that no later line can refer to are let go.
      const std::size_t oldestNeeded = oldestJobNeeded();
      while (!results_.empty() && resultBase_ < oldestNeeded) {
        results_.pop_front();
        ++resultBase_;
      }
    }
  }

  // After the run: the end of the JSON document.
  void finish() {
    printReady();
    if (!options_.json) return;
    if (!listsOpened_) out_ << "{\"lists\": [";
    nlohmann::ordered_json totals = {{"lists", listCount_}};
    totals.update(countsJson(totals_));
    reporter_.writeOutput(out_,
                          [&] { out_ << "\n], \"totals\": " << dumpJson(totals, -1) << "}\n"; });
  }

  int exitStatus() const {
    if (malformed_) return kExitUsage;
    return failed_ ? kExitFailed : kExitOk;
  }

 private:
  struct Counts {
    std::uint64_t entries = 0;  // properly formatted lines
    std::uint64_t improper = 0;
    std::uint64_t matched = 0;
    std::uint64_t mismatched = 0;
    std::uint64_t unreadable = 0;
    std::uint64_t missing = 0;  // skipped by --ignore-missing

    void add(const Counts& other) {
      entries += other.entries;
      improper += other.improper;
      matched += other.matched;
      mismatched += other.mismatched;
      unreadable += other.unreadable;
      missing += other.missing;
    }
  };

  std::size_t oldestJobNeeded() const {
    for (const ListEvent& event : events_) {
      if (event.kind == ListEvent::Kind::kLine && event.entry) {
        return std::min(event.blockFirstJob, resultBase_ + results_.size());
      }
    }
    return resultBase_ + results_.size();
  }

  static nlohmann::ordered_json countsJson(const Counts& counts) {
    return {{"lines", counts.entries + counts.improper},
            {"ok", counts.matched},
            {"failed", counts.mismatched},
            {"unreadable", counts.unreadable},
            {"missing", counts.missing},
            {"improper", counts.improper}};
  }

  // The --json record of a properly formatted line.
  static nlohmann::ordered_json entryJson(const ListEvent& line, const AlgorithmName* matched,
                                          const char* result, const FileSetResult& file) {
    const ChecksumListEntry& entry = *line.entry;
    nlohmann::ordered_json record = {{"line", line.number}};
    putName(record, "path", entry.path);
    record["expected"] = entry.checksum;
    nlohmann::ordered_json candidates = nlohmann::ordered_json::array();
    for (const AlgorithmName* algorithm : entry.candidates) {
      candidates.push_back(algorithm->cliName);
    }
    record["candidates"] = std::move(candidates);
    record["matched"] = matched != nullptr ? nlohmann::ordered_json(matched->cliName) : nullptr;
    record["result"] = result;
    if (file.error) record["error"] = file.error.message;
    return record;
  }

  // The first candidate of `entry` whose checksum of the file equals the expected one; null when
  // none does.
  static const AlgorithmName* matchingCandidate(const ChecksumListEntry& entry,
                                                const FileSetResult& result) {
    for (const AlgorithmName* algorithm : entry.candidates) {
      const auto computed = result.checksums.find(algorithm->type);
      if (computed != result.checksums.end() &&
          checksumsMatch(*algorithm, entry.checksum, computed->second)) {
        return algorithm;
      }
    }
    return nullptr;
  }

  void print(const ListEvent& event) {
    switch (event.kind) {
      case ListEvent::Kind::kListBegin:
        beginList(event);
        return;
      case ListEvent::Kind::kLine:
        printLine(event);
        return;
      case ListEvent::Kind::kListEnd:
        finishList(event);
        return;
    }
  }

  void writeJsonRecord(const nlohmann::ordered_json& record) {
    reporter_.writeOutput(
        out_, [&] { out_ << (firstLineOfList_ ? "\n" : ",\n") << dumpJson(record, -1); });
    firstLineOfList_ = false;
  }

  void beginList(const ListEvent& event) {
    ++listCount_;
    counts_ = {};
    readError_ = event.readError;
    if (!options_.json) return;
    nlohmann::ordered_json head = nlohmann::ordered_json::object();
    putName(head, "name", stream_.listName(event.list));
    if (event.readError) head["error"] = *event.readError;
    std::string text = dumpJson(head, -1);
    text.pop_back();  // the closing brace: the lines follow
    reporter_.writeOutput(out_, [&] {
      out_ << (listsOpened_ ? ",\n" : "{\"lists\": [\n") << text << ", \"lines\": [";
    });
    listsOpened_ = true;
    firstLineOfList_ = true;
  }

  void printLine(const ListEvent& line) {
    const std::string listName = stream_.listName(line.list);
    if (!line.entry) {
      ++counts_.improper;
      if (options_.json) {
        writeJsonRecord({{"line", line.number}, {"result", "improperly formatted"}});
      }
      if (options_.warn) {
        out_.flush();
        reporter_.message(listName + ": " + std::to_string(line.number) +
                          ": improperly formatted checksum line");
      }
      return;
    }
    ++counts_.entries;
    const ChecksumListEntry& entry = *line.entry;
    const FileSetResult& result = results_.at(line.job - resultBase_);
    const std::string name = displayName(entry.path);
    if (!result.ok()) {
      if (options_.ignoreMissing && result.error.kind == FileErrorKind::open &&
          result.error.code == ENOENT) {
        ++counts_.missing;
        if (options_.json) writeJsonRecord(entryJson(line, nullptr, "missing", result));
        return;
      }
      ++counts_.unreadable;
      out_.flush();
      reporter_.error(name, result.error.message);
      if (options_.json) {
        writeJsonRecord(entryJson(line, nullptr, "FAILED open or read", result));
      } else if (!options_.status) {
        printResult(name, "FAILED open or read");
      }
      return;
    }
    const AlgorithmName* matched = matchingCandidate(entry, result);
    if (matched != nullptr) {
      ++counts_.matched;
    } else {
      ++counts_.mismatched;
    }
    const char* outcome = matched != nullptr ? "OK" : "FAILED";
    if (options_.json) {
      writeJsonRecord(entryJson(line, matched, outcome, result));
      return;
    }
    if (options_.status || (matched != nullptr && options_.quiet)) return;
    if (!options_.verbose) {
      printResult(name, outcome);
    } else if (matched != nullptr) {
      printResult(name, "OK (" + std::string(matched->tag) + ')');
    } else {
      printResult(name, "FAILED (" + candidateTags(entry.candidates) + ')');
    }
  }

  // "<name>: <result>" on stdout, kept apart from the progress line.
  void printResult(const std::string& name, const std::string& result) {
    reporter_.writeOutput(out_, [&] { out_ << name << ": " << result << '\n'; });
  }

  void finishList(const ListEvent& event) {
    const std::string listName = stream_.listName(event.list);
    if (!readError_ && event.readError) readError_ = event.readError;
    out_.flush();
    totals_.add(counts_);
    if (options_.json) {
      reporter_.writeOutput(out_, [&] {
        out_ << (firstLineOfList_ ? "]" : "\n]")
             << ", \"totals\": " << dumpJson(countsJson(counts_), -1) << '}';
      });
    }
    if (readError_) {
      reporter_.error(listName, *readError_);
      failed_ = true;
      return;
    }
    if (counts_.entries == 0) {
      reporter_.message(listName + ": no properly formatted checksum lines found");
      malformed_ = true;
      return;
    }
    // In the order coreutils prints them.
    if (!options_.status) {
      if (counts_.improper != 0) {
        reporter_.message("WARNING: " + counted(counts_.improper, "line is", "lines are") +
                          " improperly formatted");
      }
      if (counts_.unreadable != 0) {
        reporter_.message("WARNING: " + counted(counts_.unreadable, "listed file", "listed files") +
                          " could not be read");
      }
      if (counts_.mismatched != 0) {
        reporter_.message(
            "WARNING: " + counted(counts_.mismatched, "computed checksum", "computed checksums") +
            " did NOT match");
      }
    }
    if (counts_.unreadable != 0 || counts_.mismatched != 0) failed_ = true;
    if (options_.ignoreMissing && counts_.matched == 0) {
      reporter_.message(listName + ": no file was verified");
      failed_ = true;
    }
    if (options_.strict && counts_.improper != 0) malformed_ = true;
  }

  const CheckOptions& options_;
  ListStream& stream_;
  RunReporter& reporter_;
  std::ostream& out_;
  std::deque<ListEvent> events_;
  std::deque<FileSetResult> results_;  // of jobs resultBase_, resultBase_ + 1, ...
  std::size_t resultBase_ = 0;
  Counts counts_;
  Counts totals_;
  std::optional<std::string> readError_;
  std::size_t listCount_ = 0;
  bool listsOpened_ = false;
  bool firstLineOfList_ = true;
  bool failed_ = false;
  bool malformed_ = false;
};

}  // namespace

CLI::App* addCheckCommand(CLI::App& app, CheckOptions& options) {
  CLI::App* check = app.add_subcommand("check", "Verify files against checksum lists");
  check
      ->add_option("-a,--algorithm", options.algorithm,
                   "Algorithm of untagged '<checksum>  <path>' lines (default: from the list's "
                   "name suffix or the length of the checksum). Known: " +
                       knownAlgorithmNames())
      ->type_name("ALGO");
  check->add_flag("-v,--verbose", options.verbose,
                  "Name the algorithm in result lines: the one that matched, or every one tried");
  CLI::Option* quiet = check->add_flag("--quiet", options.quiet, "Do not print OK lines");
  CLI::Option* status = check->add_flag(
      "--status", options.status, "Print nothing on stdout and no warnings; the exit status tells");
  check
      ->add_flag("--json", options.json,
                 "Write one JSON document with every line, its candidate algorithms and result, "
                 "instead of result lines")
      ->excludes(quiet)
      ->excludes(status);
  check->add_flag("--strict", options.strict, "Fail (exit 2) when a line is improperly formatted");
  check->add_flag("-w,--warn", options.warn, "Report each improperly formatted line");
  check->add_flag("--ignore-missing", options.ignoreMissing,
                  "Neither report nor count files that do not exist");
  check
      ->add_option("LISTFILE", options.lists,
                   "Checksum lists ('-': standard input), as written by hash, sha*sum, md5sum "
                   "or xxhsum")
      ->required()
      ->type_name("");
  addCommonOptions(*check, options.common);
  check->footer(
      "Lines: '<checksum>  <path>', '<checksum> *<path>', '<checksum> <path>' or "
      "'<checksum><TAB><path>' (leading blanks skipped; the first GNU line of a run settles "
      "which of the two-character and one-character separators the run uses, as in "
      "sha256sum -c) or '<TAG> (<path>) = <checksum>', escaped when they start with '\\'; "
      "'#' comments and empty lines are ignored. The "
      "algorithm of an untagged line comes from -a, else from the list's name ending in .md5, "
      ".xxh128, .xxh3 or .xxh64 (when the length fits), else from the length: 32 hex digits are "
      "MD5 or XXH128, 16 are XXH64 or XXH3, and the line is OK when either matches.\n"
      "Output per line: '<path>: OK', '<path>: FAILED' or '<path>: FAILED open or read'; with "
      "-v 'OK (XXH128)' names the algorithm that matched and 'FAILED (MD5 or XXH128)' every one "
      "tried.\n"
      "Exit status: 0 every listed file matched, 1 a mismatch, a missing or unreadable file or "
      "list, or nothing verified, 2 usage error, a list without properly formatted lines or "
      "(--strict) an improperly formatted line.");
  return check;
}

int runCheckCommand(const CheckOptions& options, std::ostream& out, std::ostream& err) {
  const AlgorithmName* gnuAlgorithm = nullptr;
  if (!options.algorithm.empty()) {
    auto parsed = parseAlgorithmList({options.algorithm});
    if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
      return usageError(err, error->message);
    }
    const auto& algorithms = std::get<std::vector<const AlgorithmName*>>(parsed);
    if (algorithms.size() != 1) return usageError(err, "check takes one algorithm with -a");
    gnuAlgorithm = algorithms.front();
  }
  if (options.lists.empty()) return usageError(err, "no LISTFILE given");

  RunReporter reporter(options.common.reportSettings(), err);
  ReporterObserver observer(reporter);
  const FileSetHasher hasher(
      {.algorithms = {}, .filesInFlight = options.common.jobs, .observer = &observer});
  // The lists are read as the files are: memory does not grow with the number of lines.
  ListStream stream(options.lists, gnuAlgorithm);
  ResultPrinter printer(options, stream, reporter, out);
  hasher.run(FileSetInput::generator([&stream] { return stream.nextJob(); }),
             [&](FileSetResult&& result) {
               reporter.fileDone();
               printer.fileRead(std::move(result));
             });
  printer.finish();

  out.flush();
  reporter.finish();
  return printer.exitStatus();
}

}  // namespace corvane::tool
