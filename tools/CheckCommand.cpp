#include "CheckCommand.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_map>
#include <variant>

#include "ChecksumListParser.hpp"
#include "ExitStatus.hpp"
#include "FileHasher.hpp"
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

// The whole content of the list at `listPath` ("-": standard input); null with `reason` when it
// cannot be read (a directory gives "Is a directory").
std::optional<std::string> readList(const std::string& listPath, std::string& reason) {
  const bool standardInput = listPath == "-";
  const int descriptor =
      standardInput ? STDIN_FILENO : ::open(listPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    reason = std::strerror(errno);
    return std::nullopt;
  }
  std::string content;
  char buffer[65536];
  int error = 0;
  while (true) {
    const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error = errno;
    if (got <= 0) break;
    content.append(buffer, static_cast<std::size_t>(got));
  }
  if (!standardInput) ::close(descriptor);
  if (error != 0) {
    reason = std::strerror(error);
    return std::nullopt;
  }
  return content;
}

// One line of a list that is not ignored.
struct ListLine {
  std::size_t number = 0;                  // from 1
  std::optional<ChecksumListEntry> entry;  // null: improperly formatted
  std::size_t job = 0;                     // the FileJob that reads entry->path
};

struct ChecksumList {
  std::string name;  // as shown in messages
  std::optional<std::string> readError;
  std::vector<ListLine> lines;
};

// One distinct file to read, with every candidate algorithm of its lines.
struct FileJob {
  std::string path;
  std::vector<const AlgorithmName*> algorithms;
  const FileHasher* hasher = nullptr;
  FileResult result;
};

// Reads and parses every list, and gathers the distinct files they name: a file named by
// several lines (of any list) is read once, with the candidates of all those lines.
class ListLoader {
 public:
  explicit ListLoader(const AlgorithmName* gnuAlgorithm) : gnuAlgorithm_(gnuAlgorithm) {}

  void load(const std::string& listPath) {
    ChecksumList& list = lists_.emplace_back();
    const bool standardInput = listPath == "-";
    list.name = standardInput ? kStandardInputName : listPath;
    // Standard input has no name whose suffix could settle its lines.
    const GnuLineContext context{
        .forced = gnuAlgorithm_,
        .listSuffix = standardInput ? nullptr : listSuffixAlgorithm(listPath)};
    std::string reason;
    const std::optional<std::string> content = readList(listPath, reason);
    if (!content) {
      list.readError = reason;
      return;
    }
    std::string_view rest = *content;
    for (std::size_t number = 1; !rest.empty(); ++number) {
      const auto end = rest.find('\n');
      const std::string_view text = rest.substr(0, end);
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
      ParsedChecksumLine parsed = parseChecksumLine(text, context);
      if (std::holds_alternative<IgnoredLine>(parsed)) continue;
      ListLine& line = list.lines.emplace_back();
      line.number = number;
      if (auto* entry = std::get_if<ChecksumListEntry>(&parsed)) {
        line.job = jobFor(*entry);
        line.entry = std::move(*entry);
      }
    }
  }

  // Gives every job the hasher of its algorithm set; jobs with the same set share one.
  void assignHashers() {
    for (FileJob& job : jobs_) {
      std::ranges::sort(job.algorithms, std::less<>());
      auto& hasher = hashers_[job.algorithms];
      if (!hasher) hasher = std::make_unique<FileHasher>(job.algorithms);
      job.hasher = hasher.get();
    }
  }

  std::vector<ChecksumList>& lists() { return lists_; }
  std::vector<FileJob>& jobs() { return jobs_; }

 private:
  std::size_t jobFor(const ChecksumListEntry& entry) {
    const auto [found, added] = jobIndex_.try_emplace(entry.path, jobs_.size());
    if (added) jobs_.emplace_back().path = entry.path;
    FileJob& job = jobs_[found->second];
    for (const AlgorithmName* algorithm : entry.candidates) {
      if (std::ranges::find(job.algorithms, algorithm) == job.algorithms.end()) {
        job.algorithms.push_back(algorithm);
      }
    }
    return found->second;
  }

  const AlgorithmName* gnuAlgorithm_;
  std::vector<ChecksumList> lists_;
  std::vector<FileJob> jobs_;
  std::unordered_map<std::string, std::size_t> jobIndex_;
  std::map<std::vector<const AlgorithmName*>, std::unique_ptr<FileHasher>> hashers_;
};

// Prints the result of every list line, in list order, as the files are read, and the closing
// messages of each list. With --json the results go into one document, written at the end.
class ResultPrinter {
 public:
  ResultPrinter(const CheckOptions& options, const std::vector<ChecksumList>& lists,
                const std::vector<FileJob>& jobs, RunReporter& reporter, std::ostream& out)
      : options_(options), lists_(lists), jobs_(jobs), reporter_(reporter), out_(out) {}

  // Prints what can be printed once the jobs before `jobsDone` have been read. Jobs are numbered
  // in the order their files first appear, so the lines come out in list order.
  void printReady(std::size_t jobsDone) {
    for (; list_ < lists_.size(); ++list_, line_ = 0, counts_ = {}) {
      const ChecksumList& list = lists_[list_];
      for (; line_ < list.lines.size(); ++line_) {
        const ListLine& line = list.lines[line_];
        if (line.entry && line.job >= jobsDone) return;
        printLine(list, line);
      }
      finishList(list);
    }
  }

  int exitStatus() const {
    if (malformed_) return kExitUsage;
    return failed_ ? kExitFailed : kExitOk;
  }

  // The --json document of the lists printed so far.
  nlohmann::ordered_json jsonDocument() const {
    nlohmann::ordered_json totals = {{"lists", lists_.size()}};
    totals.update(countsJson(totals_));
    return {{"lists", jsonLists_}, {"totals", std::move(totals)}};
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

  static nlohmann::ordered_json countsJson(const Counts& counts) {
    return {{"lines", counts.entries + counts.improper},
            {"ok", counts.matched},
            {"failed", counts.mismatched},
            {"unreadable", counts.unreadable},
            {"missing", counts.missing},
            {"improper", counts.improper}};
  }

  // The --json record of a properly formatted line.
  static nlohmann::ordered_json entryJson(const ListLine& line, const AlgorithmName* matched,
                                          const char* result, const FileResult& file) {
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
    if (!file.ok()) {
      std::string reasons;
      for (const std::string& reason : file.errors) {
        if (!reasons.empty()) reasons += "; ";
        reasons += reason;
      }
      record["error"] = std::move(reasons);
    }
    return record;
  }

  // The first candidate of `entry` whose checksum of the file equals the expected one; null when
  // none does.
  static const AlgorithmName* matchingCandidate(const ChecksumListEntry& entry,
                                                const FileResult& result) {
    for (const AlgorithmName* algorithm : entry.candidates) {
      const std::string* computed = result.checksumOf(algorithm);
      if (computed != nullptr && checksumsMatch(*algorithm, entry.checksum, *computed)) {
        return algorithm;
      }
    }
    return nullptr;
  }

  void printLine(const ChecksumList& list, const ListLine& line) {
    if (!line.entry) {
      ++counts_.improper;
      if (options_.json) {
        jsonLines_.push_back({{"line", line.number}, {"result", "improperly formatted"}});
      }
      if (options_.warn) {
        out_.flush();
        reporter_.message(list.name + ": " + std::to_string(line.number) +
                          ": improperly formatted checksum line");
      }
      return;
    }
    ++counts_.entries;
    const ChecksumListEntry& entry = *line.entry;
    const FileResult& result = jobs_[line.job].result;
    const std::string name = displayName(entry.path);
    if (!result.ok()) {
      if (options_.ignoreMissing && result.systemError == ENOENT) {
        ++counts_.missing;
        if (options_.json) jsonLines_.push_back(entryJson(line, nullptr, "missing", result));
        return;
      }
      ++counts_.unreadable;
      out_.flush();
      for (const std::string& reason : result.errors) reporter_.error(name, reason);
      if (options_.json) {
        jsonLines_.push_back(entryJson(line, nullptr, "FAILED open or read", result));
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
      jsonLines_.push_back(entryJson(line, matched, outcome, result));
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

  void finishList(const ChecksumList& list) {
    out_.flush();
    totals_.add(counts_);
    if (options_.json) {
      nlohmann::ordered_json record = nlohmann::ordered_json::object();
      putName(record, "name", list.name);
      if (list.readError) record["error"] = *list.readError;
      record["lines"] = std::move(jsonLines_);
      record["totals"] = countsJson(counts_);
      jsonLists_.push_back(std::move(record));
      jsonLines_ = nlohmann::ordered_json::array();
    }
    if (list.readError) {
      reporter_.error(list.name, *list.readError);
      failed_ = true;
      return;
    }
    if (counts_.entries == 0) {
      reporter_.message(list.name + ": no properly formatted checksum lines found");
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
      reporter_.message(list.name + ": no file was verified");
      failed_ = true;
    }
    if (options_.strict && counts_.improper != 0) malformed_ = true;
  }

  const CheckOptions& options_;
  const std::vector<ChecksumList>& lists_;
  const std::vector<FileJob>& jobs_;
  RunReporter& reporter_;
  std::ostream& out_;
  std::size_t list_ = 0;
  std::size_t line_ = 0;
  Counts counts_;
  Counts totals_;
  nlohmann::ordered_json jsonLines_ = nlohmann::ordered_json::array();
  nlohmann::ordered_json jsonLists_ = nlohmann::ordered_json::array();
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
      "Lines: '<checksum>  <path>', '<checksum> *<path>' or '<TAG> (<path>) = <checksum>', "
      "escaped when they start with '\\'; '#' comments and empty lines are ignored. The "
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

  ListLoader loader(gnuAlgorithm);
  for (const std::string& list : options.lists) loader.load(list);
  loader.assignHashers();
  std::vector<FileJob>& jobs = loader.jobs();

  const ReportSettings reportSettings = options.common.reportSettings();
  RunReporter reporter(reportSettings, err);
  // The byte total only serves the progress line; without one, no file is examined twice.
  std::uint64_t byteCount = 0;
  if (reportSettings.showProgress) {
    for (const FileJob& job : jobs) {
      struct stat status {};
      if (::stat(job.path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        byteCount += static_cast<std::uint64_t>(status.st_size);
      }
    }
  }
  reporter.setTotals(jobs.size(), byteCount);

  ResultPrinter printer(options, loader.lists(), jobs, reporter, out);
  runOrderedInParallel(
      jobs.size(), options.common.jobs,
      [&](std::size_t i) {
        jobs[i].result = jobs[i].hasher->hash(jobs[i].path, reporter.byteCounter());
        reporter.fileDone();
      },
      [&](std::size_t i) { printer.printReady(i + 1); });
  printer.printReady(jobs.size());
  if (options.json) {
    reporter.writeOutput(out, [&] { out << dumpJson(printer.jsonDocument()) << '\n'; });
  }

  out.flush();
  reporter.finish();
  return printer.exitStatus();
}

}  // namespace corvane::tool
