#include "HashCommand.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <variant>

#include "EngineInput.hpp"
#include "ExitStatus.hpp"
#include "OutputFormat.hpp"

namespace corvane::tool {
namespace {

// The paths listed in `listPath` ("-": standard input), separated by newlines or NULs; empty
// entries are skipped. Null when the list cannot be read.
std::optional<std::vector<std::string>> readPathList(const std::string& listPath, char separator,
                                                     std::string& reason) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (listPath != "-") {
    file.open(listPath, std::ios::binary);
    if (!file) {
      reason = std::strerror(errno);
      return std::nullopt;
    }
    in = &file;
  }
  std::vector<std::string> paths;
  for (std::string entry; std::getline(*in, entry, separator);) {
    if (!entry.empty()) paths.push_back(std::move(entry));
  }
  if (in->bad()) {
    reason = std::strerror(errno);
    return std::nullopt;
  }
  return paths;
}

}  // namespace

CLI::App* addHashCommand(CLI::App& app, HashOptions& options) {
  CLI::App* hash = app.add_subcommand("hash", "Print checksums of files");
  addAlgorithmListOption(*hash, options.algorithmValues, "to compute",
                         " (crc32 is this library's CRC-32 whose register starts at zero, not "
                         "cksum's)");
  hash->add_flag("-r,--recursive", options.recursive,
                 "Descend into directories; files come in the byte order of their paths");
  hash->add_flag("--follow-symlinks", options.followSymlinks,
                 "Follow symbolic links met while descending (default: skip and report them)");
  hash->add_flag("--strict", options.strict,
                 "Count entries of a walk that are not read (special files, links not followed) "
                 "as errors: exit 1");
  hash->add_option("--files-from", options.filesFrom,
                   "Also read the paths to checksum from FILE ('-': standard input), one per line")
      ->type_name("FILE");
  hash->add_flag("-0,--null", options.nulSeparatedList,
                 "With --files-from: the paths are separated by NUL bytes");
  auto* tag = hash->add_flag("--tag", options.tag,
                             "Write '<TAG> (<path>) = <checksum>' lines even for one algorithm");
  auto* json = hash->add_flag("--json", options.json,
                              "Write one JSON document: files, checksums, sizes, modification "
                              "times, errors and totals");
  auto* zero = hash->add_flag("-z,--zero", options.nulTerminatedLines,
                              "End each line with NUL, not newline, and do not escape names");
  json->excludes(tag)->excludes(zero);
  hash->add_option("PATH", options.paths, "Files (or directories with -r) to checksum")
      ->type_name("");
  addCommonOptions(*hash, options.common);
  hash->footer(
      "Output: '<checksum>  <path>' with one algorithm, '<TAG> (<path>) = <checksum>' with "
      "--tag or several algorithms (one line per algorithm). Names holding a backslash, newline "
      "or carriage return are escaped as coreutils does (the line starts with '\\').\n"
      "Exit status: 0 all files checksummed, 1 a file was missing, unreadable or changed while "
      "read "
      "(or, with --strict, an entry of a walk was skipped), 2 usage error.");
  return hash;
}

int runHashCommand(const HashOptions& options, std::ostream& out, std::ostream& err) {
  auto parsed = parseAlgorithmList(options.algorithmValues);
  if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
    return usageError(err, error->message);
  }
  const auto algorithms = std::get<std::vector<const AlgorithmName*>>(std::move(parsed));
  if (options.nulSeparatedList && options.filesFrom.empty()) {
    return usageError(err, "-0 needs --files-from");
  }

  std::vector<std::string> operands = options.paths;
  if (!options.filesFrom.empty()) {
    std::string reason;
    auto listed = readPathList(options.filesFrom, options.nulSeparatedList ? '\0' : '\n', reason);
    if (!listed) {
      err << kProgramName << ": " << options.filesFrom << ": " << reason << '\n';
      return kExitFailed;
    }
    std::move(listed->begin(), listed->end(), std::back_inserter(operands));
  }
  if (operands.empty()) return usageError(err, "no PATH given");

  const ReportSettings reportSettings = options.common.reportSettings();
  RunReporter reporter(reportSettings, err);
  const WalkOptions walk = walkOptions(options.followSymlinks);
  std::optional<TotalsCounter> totals;
  if (reportSettings.showProgress) totals.emplace(operands, options.recursive, walk, reporter);

  ReporterObserver observer(reporter);
  const FileSetHasher hasher({.algorithms = checksumTypesOf(algorithms),
                              .filesInFlight = options.common.jobs,
                              .observer = &observer});
  const LineSettings lines{
      .style = options.tag || algorithms.size() > 1 ? LineStyle::kTag : LineStyle::kGnu,
      .nulTerminated = options.nulTerminatedLines};
  std::optional<HashJsonDocument> document;
  if (options.json) document.emplace(algorithms);

  hasher.run(operandInput(std::move(operands), options.recursive, walk),
             [&](FileSetResult&& result) {
               const WalkEntry& entry = result.entry;
               if (entry.kind == WalkEntry::Kind::directory) return;
               if (entry.kind == WalkEntry::Kind::skipped) {
                 // Not read and not an error, unless --strict says every entry must be read.
                 reporter.skipped();
                 out.flush();
                 const std::string notice = skipNotice(entry);
                 if (options.strict) {
                   reporter.error(entry.path, notice);
                 } else {
                   reporter.notice(entry.path, notice);
                 }
                 if (document) document->addSkipped(entry.path, notice);
                 return;
               }
               reporter.fileDone();
               if (document) {
                 document->addFile(result);
               } else if (result.ok()) {
                 reporter.writeOutput(out, [&] {
                   for (const AlgorithmName* algorithm : algorithms) {
                     writeChecksumLine(out, lines, *algorithm, entry.path,
                                       result.checksums.at(algorithm->type));
                   }
                 });
               }
               if (result.error) {
                 out.flush();
                 reporter.error(entry.path, result.error.message);
               }
             });

  if (document) document->write(out);
  out.flush();
  totals.reset();
  reporter.finish();
  return reporter.errorCount() == 0 ? kExitOk : kExitFailed;
}

}  // namespace corvane::tool
