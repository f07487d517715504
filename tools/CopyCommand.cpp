#include "CopyCommand.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iomanip>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <variant>

#include "AlgorithmNames.hpp"
#include "EngineInput.hpp"
#include "ExitStatus.hpp"
#include "NameEscaping.hpp"
#include "OutputFormat.hpp"
#include "RunReporter.hpp"
#include "corvane/MhlHashFormat.hpp"
#include "corvane/OffloadJob.hpp"

namespace corvane::tool {
namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::optional<OffloadVerification> parseVerification(const std::string& value) {
  if (value == "read-back") return OffloadVerification::readBack;
  if (value == "size") return OffloadVerification::size;
  if (value == "none") return OffloadVerification::none;
  return std::nullopt;
}

// How a status reads: in -v lines and the summary, and as a key of the JSON document.
struct StatusNames {
  const char* word;
  const char* key;
};

StatusNames namesOf(OffloadCopyStatus status) {
  switch (status) {
    case OffloadCopyStatus::verified:
      return {"verified", "verified"};
    case OffloadCopyStatus::alreadyPresent:
      return {"already present", "alreadyPresent"};
    case OffloadCopyStatus::written:
      return {"written", "written"};
    case OffloadCopyStatus::failed:
      return {"failed", "failed"};
    case OffloadCopyStatus::skipped:
      return {"skipped", "skipped"};
  }
  return {"", ""};
}

const char* kindKey(WalkEntry::Kind kind) {
  switch (kind) {
    case WalkEntry::Kind::file:
      return "file";
    case WalkEntry::Kind::directory:
      return "folder";
    case WalkEntry::Kind::skipped:
      return "skipped";
    case WalkEntry::Kind::unreadable:
      return "unreadable";
  }
  return "";
}

std::string joined(const std::string& root, const std::string& relative) {
  if (relative.empty()) return root;
  return root.ends_with('/') ? root + relative : root + "/" + relative;
}

// "<word>: <path>" for stdout; a name that would break the line is escaped as in checksum lines
// (the line then starts with a backslash), so that every line stays one record.
std::string statusLine(const char* word, const std::string& path) {
  if (!nameNeedsEscaping(path)) return std::string(word) + ": " + path + '\n';
  return "\\" + std::string(word) + ": " + escapeName(path) + '\n';
}

std::string seconds(double value) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(2) << value << " s";
  return text.str();
}


// The progress line: redrawn on stderr from the job's own picture of itself, on a thread of its
// own, and cleared before anything else is written there.
class ProgressLine {
 public:
  ProgressLine(const OffloadJob& job, const std::vector<std::string>& destinations,
               std::ostream& err)
      : job_(job), destinations_(destinations), err_(err), thread_([this] { drawLoop(); }) {}
  ~ProgressLine() { stop(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void stop() {
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) return;
      stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    if (shown_) {
      err_ << "\r\033[K";
      err_.flush();
    }
  }

 private:
  std::string line() const {
    const OffloadProgress progress = job_.progress();
    std::ostringstream text;
    const auto bytes = [](std::uint64_t count) { return RunReporter::humanBytes(double(count)); };
    switch (progress.phase) {
      case OffloadPhase::preparing:
        text << "preparing";
        break;
      case OffloadPhase::copying: {
        const double rate =
            progress.elapsedSeconds > 0 ? double(progress.bytesRead) / progress.elapsedSeconds : 0;
        text << "copying " << progress.filesCopied << '/' << progress.filesTotal << " files, "
             << bytes(progress.bytesRead) << '/' << bytes(progress.bytesTotal) << ", "
             << bytes(std::uint64_t(rate)) << "/s";
        if (rate > 0 && progress.bytesRead <= progress.bytesTotal) {
          text << ", " << formatDuration(double(progress.bytesTotal - progress.bytesRead) / rate)
               << " left";
        }
        break;
      }
      case OffloadPhase::verifying:
        text << "reading back";
        break;
      case OffloadPhase::recording:
        text << "recording ASC MHL";
        break;
      case OffloadPhase::done:
        text << "done";
        break;
    }
    if (progress.phase == OffloadPhase::copying || progress.phase == OffloadPhase::verifying) {
      for (std::size_t d = 0; d < progress.destinations.size() && d < destinations_.size(); ++d) {
        const OffloadDestinationProgress& destination = progress.destinations[d];
        text << " | " << destinations_[d] << ' ';
        if (destination.failed) {
          text << "FAILED";
        } else if (progress.phase == OffloadPhase::copying) {
          text << bytes(destination.bytesWritten);
        } else {
          text << bytes(destination.bytesVerified) << '/' << bytes(destination.bytesWritten);
        }
      }
    }
    return text.str();
  }

  void drawLoop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      wake_.wait_for(lock, kRedrawInterval, [this] { return stopping_; });
      if (stopping_) break;
      err_ << '\r' << line() << "\033[K";
      err_.flush();
      shown_ = true;
    }
  }

  const OffloadJob& job_;
  const std::vector<std::string>& destinations_;
  std::ostream& err_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  bool shown_ = false;
  std::thread thread_;
};

nlohmann::ordered_json checksumsJson(const std::vector<const AlgorithmName*>& algorithms,
                                     const ChecksumLookup& checksums) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const AlgorithmName* algorithm : algorithms) {
    const auto found = checksums.find(algorithm->type);
    if (found != checksums.end()) object[std::string(algorithm->cliName)] = found->second;
  }
  return object;
}

nlohmann::ordered_json errorJson(const std::string& error) {
  return error.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(error);
}

nlohmann::ordered_json manifestsJson(const std::string& root,
                                     const std::vector<std::string>& manifests) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const std::string& manifest : manifests) {
    nlohmann::ordered_json item = nlohmann::ordered_json::object();
    putName(item, "path", joined(root, manifest));
    list.push_back(std::move(item));
  }
  return list;
}

nlohmann::ordered_json problemsJson(const std::vector<MhlError>& problems) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const MhlError& problem : problems) list.push_back(problem.description());
  return list;
}

}  // namespace

CLI::App* addCopyCommand(CLI::App& app, CopyOptions& options) {
  CLI::App* copy = app.add_subcommand(
      "copy",
      "Copy SRC (a folder or a file) into every DST, read every copy back from the disk and "
      "record it in an ASC MHL history (an offload)");
  addAlgorithmListOption(
      *copy, options.algorithmValues, "to compute and check",
      ". Recorded in the ASC MHL histories: md5, sha1, xxh64, xxh3, xxh128, c4 (others need "
      "--no-mhl)");
  copy->add_option("--verify", options.verify,
                   "How the copies are checked: 'read-back' (default: every copy read back past "
                   "the page cache and its checksums compared), 'size' (sizes only) or 'none'")
      ->type_name("read-back|size|none");
  copy->add_flag("--overwrite", options.overwrite,
                 "Replace the files at the targets: each is written again and replaces the old "
                 "one once complete (default: a file that differs from the source is left as it "
                 "is and the copy reported as failed)");
  copy->add_flag("--no-mhl", options.noMhl,
                 "Record no ASC MHL generation, neither in the destinations nor in the source");
  copy->add_flag("--no-source-mhl", options.noSourceMhl,
                 "Record no ASC MHL generation in the source (by default it gets one when it is "
                 "writable)");
  const auto into = [](std::optional<std::string>& target) {
    return [&target](const std::string& value) { target = value; };
  };
  copy->add_option_function<std::string>("--author-name", into(options.authorName),
                                         "Name of the person responsible, recorded as the author")
      ->type_name("NAME");
  copy->add_option_function<std::string>("--author-email", into(options.authorEmail),
                                         "The author's e-mail address (name@host.tld)")
      ->type_name("EMAIL");
  copy->add_option_function<std::string>("--author-phone", into(options.authorPhone),
                                         "The author's phone number")
      ->type_name("PHONE");
  copy->add_option_function<std::string>("--author-role", into(options.authorRole),
                                         "The author's role (\"DIT\", \"Data Wrangler\", ...)")
      ->type_name("ROLE");
  copy->add_option_function<std::string>("--location", into(options.location),
                                         "Where the copy was made, recorded in the manifests")
      ->type_name("TEXT");
  copy->add_option_function<std::string>("--comment", into(options.comment),
                                         "A comment recorded in the manifests")
      ->type_name("TEXT");
  copy->add_flag("-v,--verbose", options.verbose,
                 "Print a line for every file on every destination: 'verified: <copy>', 'already "
                 "present: <copy>', 'written: <copy>', 'failed: <copy>', 'skipped: <source>'");
  copy->add_flag("--json", options.json,
                 "Write one JSON document: the destinations' totals and every file's source "
                 "checksums and status on every destination");
  copy->add_option("SRC", options.source, "The folder or file to copy")->required()->type_name("");
  copy->add_option("DST", options.destinations,
                   "Folders that receive SRC under its own name (DST/<name of SRC>)")
      ->required()
      ->type_name("");
  addCommonOptions(*copy, options.common);
  copy->footer(
      "Failed copies are reported on stderr as 'corvane-checksum: <copy>: <reason>', problems of "
      "the source once as 'corvane-checksum: <source file>: <reason>'; the summary gives one "
      "line per destination: '<DST>/<name>: <v> verified, <a> already present, <w> written, <f> "
      "failed, <s> skipped, <bytes> written, <bytes> read back'. Symbolic links and special files "
      "in SRC are not copied: they are reported as skipped.\n"
      "Run again after an interruption (even kill -9), the same command finishes the job without "
      "copying verified files again.\n"
      "Exit status: 0 every file verified (or, with --verify size|none, written) on every "
      "destination and every history recorded, 1 anything failed or was skipped, 2 usage error "
      "or refused paths (a DST that is not a folder, is SRC, lies inside SRC or is named twice).");
  return copy;
}

int runCopyCommand(const CopyOptions& options, std::ostream& out, std::ostream& err) {
  auto parsed = parseAlgorithmList(options.algorithmValues);
  if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
    return usageError(err, error->message);
  }
  const auto algorithms = std::get<std::vector<const AlgorithmName*>>(std::move(parsed));
  if (!options.noMhl) {
    for (const AlgorithmName* algorithm : algorithms) {
      const auto format = checkMhlFormat(algorithm->type);
      if (const auto* refusal = std::get_if<MhlFormatRefusal>(&format)) {
        return usageError(err, "-a " + std::string(algorithm->cliName) + ": " + refusal->message +
                                   " (add --no-mhl to copy without ASC MHL records)");
      }
    }
  }
  const std::optional<OffloadVerification> verification = parseVerification(options.verify);
  if (!verification) {
    return usageError(
        err, "--verify: unknown value '" + options.verify + "' (known: read-back, size, none)");
  }
  OffloadSettings settings;
  if (options.authorName) {
    settings.authors.push_back(
        {*options.authorName, options.authorEmail, options.authorPhone, options.authorRole});
  } else if (options.authorEmail || options.authorPhone || options.authorRole) {
    return usageError(err, "--author-email, --author-phone and --author-role need --author-name");
  }
  // Refused before anything is written: the job would refuse them too, but as a usage error they
  // tell the user to change the command, not to retry it.
  if (const std::optional<std::string> refusal =
          checkOffloadPaths(options.source, options.destinations)) {
    err << kProgramName << ": " << *refusal << '\n';
    return kExitUsage;
  }

  settings.algorithms = checksumTypesOf(algorithms);
  settings.verification = *verification;
  settings.overwrite = options.overwrite;
  settings.recordMhl = !options.noMhl;
  settings.recordSourceMhl = !options.noSourceMhl;
  settings.location = options.location;
  settings.comment = options.comment;
  settings.engine.filesInFlight = options.common.jobs;
  std::vector<OffloadFileResult> results;
  settings.onFile = [&results](const OffloadFileResult& result) { results.push_back(result); };

  const ReportSettings report = options.common.reportSettings();
  OffloadJob job(options.source, options.destinations, std::move(settings));
  OffloadSummary summary;
  {
    std::optional<ProgressLine> progress;
    if (report.showProgress) progress.emplace(job, options.destinations, err);
    summary = job.run();
  }
  const double elapsed = job.progress().elapsedSeconds;

  if (!summary.refusal.empty()) {
    err << kProgramName << ": " << summary.refusal << '\n';
    return kExitFailed;
  }

  // stderr: the source's problems once, the copies' problems each; a destination that failed as
  // a whole once, not once per file it did not receive.
  for (const OffloadFileResult& result : results) {
    const std::string sourcePath = joined(options.source, result.relativePath);
    if (!result.sourceError.empty()) {
      err << kProgramName << ": " << sourcePath << ": " << result.sourceError
          << (result.kind == WalkEntry::Kind::skipped ? " (not copied)" : "") << '\n';
      continue;
    }
    for (std::size_t d = 0; d < result.copies.size(); ++d) {
      const OffloadCopyResult& copy = result.copies[d];
      if (copy.status != OffloadCopyStatus::failed) continue;
      if (d < summary.destinations.size() && !summary.destinations[d].error.empty() &&
          copy.error == summary.destinations[d].error) {
        continue;
      }
      err << kProgramName << ": " << copy.path << ": " << copy.error << '\n';
    }
  }
  for (const OffloadDestinationSummary& destination : summary.destinations) {
    if (!destination.error.empty()) {
      err << kProgramName << ": " << destination.root << ": " << destination.error
          << " (the destination failed: " << counted(destination.failed, "file", "files")
          << " not copied)\n";
    }
    for (const MhlError& problem : destination.mhlProblems) {
      err << kProgramName << ": " << problem.description() << '\n';
    }
  }
  for (const MhlError& problem : summary.sourceMhlProblems) {
    err << kProgramName << ": " << problem.description() << '\n';
  }
  if (summary.stopped) err << kProgramName << ": stopped\n";
  err.flush();

  if (options.json) {
    nlohmann::ordered_json document = nlohmann::ordered_json::object();
    putName(document, "source", options.source);
    nlohmann::ordered_json algorithmNames = nlohmann::ordered_json::array();
    for (const AlgorithmName* algorithm : algorithms) algorithmNames.push_back(algorithm->cliName);
    document["algorithms"] = std::move(algorithmNames);
    document["verify"] = options.verify;
    nlohmann::ordered_json destinations = nlohmann::ordered_json::array();
    for (const OffloadDestinationSummary& destination : summary.destinations) {
      nlohmann::ordered_json item = nlohmann::ordered_json::object();
      putName(item, "root", destination.root);
      item["verified"] = destination.verified;
      item["alreadyPresent"] = destination.alreadyPresent;
      item["written"] = destination.written;
      item["failed"] = destination.failed;
      item["skipped"] = destination.skipped;
      item["bytesWritten"] = destination.bytesWritten;
      item["bytesVerified"] = destination.bytesVerified;
      item["error"] = errorJson(destination.error);
      item["manifests"] = manifestsJson(destination.root, destination.manifestsWritten);
      item["mhlProblems"] = problemsJson(destination.mhlProblems);
      destinations.push_back(std::move(item));
    }
    document["destinations"] = std::move(destinations);
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (const OffloadFileResult& result : results) {
      nlohmann::ordered_json file = nlohmann::ordered_json::object();
      putName(file, "path", result.relativePath);
      file["kind"] = kindKey(result.kind);
      if (result.kind == WalkEntry::Kind::file) {
        file["size"] = result.size;
        file["checksums"] = checksumsJson(algorithms, result.sourceChecksums);
      }
      file["error"] = errorJson(result.sourceError);
      nlohmann::ordered_json copies = nlohmann::ordered_json::array();
      for (std::size_t d = 0; d < result.copies.size(); ++d) {
        const OffloadCopyResult& copy = result.copies[d];
        nlohmann::ordered_json item = nlohmann::ordered_json::object();
        putName(item, "destination",
                d < summary.destinations.size() ? summary.destinations[d].root : "");
        putName(item, "path", copy.path);
        item["status"] = namesOf(copy.status).key;
        item["error"] = errorJson(copy.error);
        copies.push_back(std::move(item));
      }
      file["copies"] = std::move(copies);
      files.push_back(std::move(file));
    }
    document["files"] = std::move(files);
    document["sourceManifests"] = manifestsJson(options.source, summary.sourceManifestsWritten);
    document["sourceMhlProblems"] = problemsJson(summary.sourceMhlProblems);
    document["stopped"] = summary.stopped;
    document["ok"] = summary.ok();
    out << dumpJson(document) << '\n';
  } else if (options.verbose) {
    for (const OffloadFileResult& result : results) {
      if (result.kind == WalkEntry::Kind::directory) continue;
      if (result.kind != WalkEntry::Kind::file) {
        out << statusLine(result.kind == WalkEntry::Kind::skipped ? "skipped" : "failed",
                          joined(options.source, result.relativePath));
        continue;
      }
      for (const OffloadCopyResult& copy : result.copies) {
        out << statusLine(namesOf(copy.status).word, copy.path);
      }
    }
    for (const OffloadDestinationSummary& destination : summary.destinations) {
      for (const std::string& manifest : destination.manifestsWritten) {
        out << statusLine("recorded", joined(destination.root, manifest));
      }
    }
    for (const std::string& manifest : summary.sourceManifestsWritten) {
      out << statusLine("recorded", joined(options.source, manifest));
    }
  }
  out.flush();

  if (report.showSummary) {
    const auto bytes = [](std::uint64_t count) { return RunReporter::humanBytes(double(count)); };
    for (const OffloadDestinationSummary& destination : summary.destinations) {
      err << kProgramName << ": " << destination.root << ": " << destination.verified
          << " verified, " << destination.alreadyPresent << " already present, "
          << destination.written << " written, " << destination.failed << " failed, "
          << destination.skipped << " skipped, " << bytes(destination.bytesWritten) << " written, "
          << bytes(destination.bytesVerified) << " read back\n";
    }
    err << kProgramName << ": " << counted(summary.files, "file", "files") << ", "
        << counted(summary.folders, "folder", "folders") << ", " << bytes(summary.bytes) << " to "
        << counted(summary.destinations.size(), "destination", "destinations") << " in "
        << seconds(elapsed) << " ("
        << bytes(elapsed > 0 ? std::uint64_t(double(summary.bytes) / elapsed) : 0)
        << "/s): " << (summary.ok() ? "ok" : "FAILED") << '\n';
    err.flush();
  }
  return summary.ok() ? kExitOk : kExitFailed;
}

}  // namespace corvane::tool
