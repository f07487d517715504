// mhl create, verify and diff: the operations that settle an outcome per file, and their report
// (lines or one JSON document, problems on stderr, summary line, exit status).
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>

#include "EngineInput.hpp"
#include "ExitStatus.hpp"
#include "MhlCommand.hpp"
#include "OutputFormat.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/MhlHistory.hpp"
#include "corvane/MhlIgnorePatterns.hpp"

namespace corvane::tool {
namespace {

constexpr std::size_t kOutcomeCount = 6;

const char* outcomeName(MhlFileOutcome outcome) {
  switch (outcome) {
    case MhlFileOutcome::original:
      return "original";
    case MhlFileOutcome::verified:
      return "verified";
    case MhlFileOutcome::failed:
      return "failed";
    case MhlFileOutcome::missing:
      return "missing";
    case MhlFileOutcome::newFile:
      return "new";
    case MhlFileOutcome::unreadable:
      return "unreadable";
  }
  return "";
}

// The tool's tag of an ASC MHL format name ("xxh64" -> "XXH64"), or nothing.
std::optional<std::string_view> tagOfFormat(std::string_view format) {
  const std::optional<ChecksumType> type = checksumTypeForMhlFormat(format);
  if (!type) return std::nullopt;
  for (const AlgorithmName& algorithm : knownAlgorithms()) {
    if (algorithm.type == *type) return algorithm.tag;
  }
  return std::nullopt;
}

// A failure as the library words it: "<format> <recorded> != <computed>".
struct Mismatch {
  std::string format;
  std::string recorded;
  std::string computed;
};
std::optional<Mismatch> parseMismatch(const std::string& detail) {
  const std::size_t space = detail.find(' ');
  const std::size_t separator = detail.find(" != ");
  if (space == std::string::npos || separator == std::string::npos || separator <= space) {
    return std::nullopt;
  }
  Mismatch mismatch{detail.substr(0, space), detail.substr(space + 1, separator - space - 1),
                    detail.substr(separator + 4)};
  if (!tagOfFormat(mismatch.format)) return std::nullopt;
  return mismatch;
}

// The checksums of a file as JSON, keyed by ASC MHL format name in the schema's order.
nlohmann::ordered_json checksumsJson(const ChecksumLookup& checksums) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const ChecksumType type : mhlFormats()) {
    const auto found = checksums.find(type);
    if (found != checksums.end()) object[std::string(*mhlFormatName(type))] = found->second;
  }
  return object;
}

enum class Operation { kCreate, kVerify, kDiff };

const char* operationName(Operation operation) {
  switch (operation) {
    case Operation::kCreate:
      return "create";
    case Operation::kVerify:
      return "verify";
    case Operation::kDiff:
      return "diff";
  }
  return "";
}

// Prints the outcome of each file as it is settled, then the problems, the manifests written and
// the summary line (or collects everything into the JSON document).
class ReportOutput {
 public:
  ReportOutput(const MhlOptions& options, Operation operation, std::ostream& out,
               RunReporter& reporter)
      : options_(options), operation_(operation), out_(out), reporter_(reporter) {}

  void file(const MhlFileReport& file) {
    ++counts_[static_cast<std::size_t>(file.outcome)];
    const std::string path = file.history.empty() ? file.path : pathBelow(file.history, file.path);
    if (file.outcome == MhlFileOutcome::unreadable) {
      out_.flush();
      reporter_.error(pathBelow(options_.root, path), file.detail);
    }
    if (options_.json) {
      nlohmann::ordered_json entry = nlohmann::ordered_json::object();
      putName(entry, "path", path);
      putName(entry, "history", file.history);
      entry["outcome"] = outcomeName(file.outcome);
      if (file.outcome == MhlFileOutcome::failed) {
        entry["detail"] = file.detail;
        if (const std::optional<Mismatch> mismatch = parseMismatch(file.detail)) {
          entry["format"] = mismatch->format;
          entry["recorded"] = mismatch->recorded;
          entry["computed"] = mismatch->computed;
        }
      }
      if (file.outcome == MhlFileOutcome::unreadable) entry["error"] = file.detail;
      if (!file.checksums.empty()) entry["checksums"] = checksumsJson(file.checksums);
      files_.push_back(std::move(entry));
      return;
    }
    std::string line;
    switch (file.outcome) {
      case MhlFileOutcome::original:
      case MhlFileOutcome::verified:
        if (!options_.verbose) return;
        line = std::string(outcomeName(file.outcome)) + ": " + path + '\n';
        break;
      case MhlFileOutcome::failed:
        line = "failed: " + path + " (" + failureText(file.detail) + ")\n";
        break;
      case MhlFileOutcome::missing:
      case MhlFileOutcome::newFile:
      case MhlFileOutcome::unreadable:
        line = std::string(outcomeName(file.outcome)) + ": " + path + '\n';
        break;
    }
    reporter_.writeOutput(out_, [&] { out_ << line; });
  }

  // Reports what is not about one file and ends the run; returns the exit status.
  int finish(const MhlReport& report, const std::vector<ChecksumType>& formats) {
    out_.flush();
    for (const MhlError& problem : report.problems) {
      if (problem.source.empty()) {
        reporter_.message(problem.description());
      } else {
        reporter_.error(problem.line == 0 ? problem.source
                                          : problem.source + ':' + std::to_string(problem.line),
                        problem.message);
      }
    }
    if (options_.json) {
      writeJson(report, formats);
    } else {
      for (const std::string& manifest : report.manifestsWritten) {
        out_ << "created: " << manifest << '\n';
      }
      out_ << summaryLine(report) << '\n';
    }
    out_.flush();
    reporter_.finish();
    if (count(MhlFileOutcome::failed) + count(MhlFileOutcome::missing) +
                count(MhlFileOutcome::unreadable) + report.problems.size() +
                reporter_.errorCount() !=
            0 ||
        report.stopped) {
      return kExitFailed;
    }
    return count(MhlFileOutcome::newFile) != 0 ? kExitMissingOrNew : kExitOk;
  }

 private:
  std::size_t count(MhlFileOutcome outcome) const {
    return counts_[static_cast<std::size_t>(outcome)];
  }

  // "XXH64 <recorded> != <computed>": the library's wording with the tool's tag of the format.
  static std::string failureText(const std::string& detail) {
    const std::optional<Mismatch> mismatch = parseMismatch(detail);
    if (!mismatch) return detail;
    return std::string(*tagOfFormat(mismatch->format)) + ' ' + mismatch->recorded +
           " != " + mismatch->computed;
  }

  std::string summaryLine(const MhlReport& report) const {
    std::ostringstream line;
    const auto part = [&](MhlFileOutcome outcome) {
      return std::to_string(count(outcome)) + ' ' + outcomeName(outcome);
    };
    std::size_t files = 0;
    for (const std::size_t n : counts_) files += n;
    switch (operation_) {
      case Operation::kCreate:
        line << counted(files, "file", "files") << ": " << part(MhlFileOutcome::original) << ", "
             << part(MhlFileOutcome::verified) << ", " << part(MhlFileOutcome::failed) << ", "
             << part(MhlFileOutcome::missing) << ", " << part(MhlFileOutcome::unreadable);
        break;
      case Operation::kVerify:
        line << counted(files, "file", "files") << ": " << part(MhlFileOutcome::verified) << ", "
             << part(MhlFileOutcome::failed) << ", " << part(MhlFileOutcome::missing) << ", "
             << part(MhlFileOutcome::newFile) << ", " << part(MhlFileOutcome::unreadable);
        break;
      case Operation::kDiff:
        line << part(MhlFileOutcome::missing) << ", " << part(MhlFileOutcome::newFile) << ", "
             << part(MhlFileOutcome::unreadable);
        break;
    }
    if (!report.problems.empty()) {
      line << ", " << counted(report.problems.size(), "problem", "problems");
    }
    if (report.stopped) line << " (stopped)";
    return line.str();
  }

  void writeJson(const MhlReport& report, const std::vector<ChecksumType>& formats) {
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    document["command"] = operationName(operation_);
    putName(document, "root", options_.root);
    if (operation_ == Operation::kCreate) {
      nlohmann::ordered_json names = nlohmann::ordered_json::array();
      for (const ChecksumType type : formats) names.push_back(*mhlFormatName(type));
      document["formats"] = std::move(names);
    }
    document["files"] = std::move(files_);
    nlohmann::ordered_json problems = nlohmann::ordered_json::array();
    for (const MhlError& problem : report.problems) problems.push_back(problemJson(problem));
    document["problems"] = std::move(problems);
    if (operation_ == Operation::kCreate) {
      nlohmann::ordered_json written = nlohmann::ordered_json::array();
      for (const std::string& manifest : report.manifestsWritten) {
        nlohmann::ordered_json name = nlohmann::ordered_json::object();
        putName(name, "path", manifest);
        written.push_back(std::move(name));
      }
      document["manifestsWritten"] = std::move(written);
    }
    std::size_t files = 0;
    for (const std::size_t n : counts_) files += n;
    document["totals"] = {{"files", files},
                          {"original", count(MhlFileOutcome::original)},
                          {"verified", count(MhlFileOutcome::verified)},
                          {"failed", count(MhlFileOutcome::failed)},
                          {"missing", count(MhlFileOutcome::missing)},
                          {"new", count(MhlFileOutcome::newFile)},
                          {"unreadable", count(MhlFileOutcome::unreadable)},
                          {"problems", report.problems.size()}};
    document["stopped"] = report.stopped;
    out_ << dumpJson(document) << '\n';
  }

  const MhlOptions& options_;
  Operation operation_;
  std::ostream& out_;
  RunReporter& reporter_;
  std::array<std::size_t, kOutcomeCount> counts_{};
  nlohmann::ordered_json files_ = nlohmann::ordered_json::array();
};

// The patterns of --ignore-from: one per line, without a trailing carriage return; blank lines
// and comments skipped. Null (and `reason` set) when FILE cannot be read.
std::optional<std::vector<std::string>> readPatternFile(const std::string& path,
                                                        std::string& reason) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    reason = std::strerror(errno);
    return std::nullopt;
  }
  std::vector<std::string> patterns;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos || line.front() == '#') continue;
    patterns.push_back(std::move(line));
  }
  if (file.bad()) {
    reason = std::strerror(errno);
    return std::nullopt;
  }
  return patterns;
}

// Whether the creator information and patterns can be written into a manifest, checked before
// any file is hashed: the reason if not.
std::optional<std::string> manifestRefusal(const MhlCreateOptions& create) {
  MhlManifest manifest;
  manifest.creatorInfo.creationDate = MhlDateTime::fromTimePoint(std::chrono::system_clock::now());
  manifest.creatorInfo.hostName = "localhost";
  manifest.creatorInfo.tool = {std::string(kProgramName), std::nullopt};
  manifest.creatorInfo.authors = create.authors;
  manifest.creatorInfo.location = create.location;
  manifest.creatorInfo.comment = create.comment;
  manifest.processInfo.ignorePatterns = create.ignorePatterns;
  MhlHashEntry entry;
  entry.path = "file";
  entry.hashes.push_back(
      {"xxh64", "ef46db3751d8e999", MhlHashAction::original, std::nullopt, std::nullopt});
  manifest.hashes.push_back(std::move(entry));
  if (const std::optional<MhlError> error = checkMhlManifest(manifest)) return error->message;
  return std::nullopt;
}

}  // namespace

int runMhlCreate(const MhlOptions& options, std::ostream& out, std::ostream& err) {
  auto parsed = parseMhlFormats(options.formatValues);
  if (const auto* message = std::get_if<std::string>(&parsed)) return usageError(err, *message);
  MhlCreateOptions create;
  create.formats = std::get<std::vector<ChecksumType>>(std::move(parsed));
  create.directoryHashes = !options.noDirectoryHashes;

  create.ignorePatterns = options.ignorePatterns;
  if (!options.ignoreFrom.empty()) {
    std::string reason;
    auto patterns = readPatternFile(options.ignoreFrom, reason);
    if (!patterns) {
      err << kProgramName << ": " << options.ignoreFrom << ": " << reason << '\n';
      return kExitUsage;
    }
    create.ignorePatterns.insert(create.ignorePatterns.end(), patterns->begin(), patterns->end());
  }
  for (const std::string& pattern : create.ignorePatterns) {
    if (pattern.empty()) return usageError(err, "--ignore: empty pattern");
    if (pattern.find_first_of("\n\r") != std::string::npos) {
      return usageError(err, "--ignore: a pattern is one line");
    }
  }

  if (options.authorName) {
    create.authors.push_back(
        {*options.authorName, options.authorEmail, options.authorPhone, options.authorRole});
  } else if (options.authorEmail || options.authorPhone || options.authorRole) {
    return usageError(err, "--author-email, --author-phone and --author-role need --author-name");
  }
  create.location = options.location;
  create.comment = options.comment;
  if (const auto refusal = manifestRefusal(create)) {
    return usageError(err, "cannot be recorded in a manifest: " + *refusal);
  }

  const ReportSettings settings = options.common.reportSettings();
  RunReporter reporter(settings, err);
  std::optional<TotalsCounter> totals;
  if (settings.showProgress) {
    WalkOptions walk;
    walk.ignore =
        MhlIgnorePatterns(MhlIgnorePatterns::mergePatterns(MhlIgnorePatterns::defaultPatterns(),
                                                           create.ignorePatterns))
            .asWalkRule();
    totals.emplace(std::vector{options.root}, true, std::move(walk), reporter);
  }
  ReporterObserver observer(reporter);
  create.engine.filesInFlight = options.common.jobs;
  create.engine.observer = &observer;
  ReportOutput output(options, Operation::kCreate, out, reporter);
  create.onFile = [&](const MhlFileReport& file) {
    if (file.outcome != MhlFileOutcome::missing) reporter.fileDone();
    output.file(file);
  };
  const MhlReport report = createMhlGeneration(options.root, create);
  totals.reset();
  return output.finish(report, create.formats);
}

int runMhlVerify(const MhlOptions& options, std::ostream& out, std::ostream& err) {
  const ReportSettings settings = options.common.reportSettings();
  RunReporter reporter(settings, err);
  std::optional<TotalsCounter> totals;
  if (settings.showProgress) {
    WalkOptions walk;
    walk.ignore = MhlIgnorePatterns::defaults().asWalkRule();
    totals.emplace(std::vector{options.root}, true, std::move(walk), reporter);
  }
  ReporterObserver observer(reporter);
  MhlVerifyOptions verify;
  verify.directoryHashes = options.directoryHashes;
  verify.engine.filesInFlight = options.common.jobs;
  verify.engine.observer = &observer;
  ReportOutput output(options, Operation::kVerify, out, reporter);
  verify.onFile = [&](const MhlFileReport& file) {
    if (file.outcome != MhlFileOutcome::missing && file.outcome != MhlFileOutcome::newFile) {
      reporter.fileDone();
    }
    output.file(file);
  };
  const MhlReport report = verifyMhlHistory(options.root, verify);
  totals.reset();
  return output.finish(report, {});
}

int runMhlDiff(const MhlOptions& options, std::ostream& out, std::ostream& err) {
  RunReporter reporter(ReportSettings{}, err);
  ReportOutput output(options, Operation::kDiff, out, reporter);
  const MhlReport report = diffMhlHistory(options.root);
  for (const MhlFileReport& file : report.files) output.file(file);
  return output.finish(report, {});
}

}  // namespace corvane::tool
