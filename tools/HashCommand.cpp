#include "HashCommand.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <variant>

#include "ExitStatus.hpp"
#include "FileHasher.hpp"
#include "OutputFormat.hpp"
#include "PathWalker.hpp"

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
      "Exit status: 0 all files checksummed, 1 a file was missing or unreadable, 2 usage error.");
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

  const std::vector<WalkItem> items = walkOperands(
      operands, {.recursive = options.recursive, .followSymlinks = options.followSymlinks});

  RunReporter reporter(options.common.reportSettings(), err);
  const WalkTotals totals = totalsOf(items);
  reporter.setTotals(totals.files, totals.bytes);

  const FileHasher hasher(algorithms);
  const LineSettings lines{
      .style = options.tag || algorithms.size() > 1 ? LineStyle::kTag : LineStyle::kGnu,
      .nulTerminated = options.nulTerminatedLines};
  std::optional<HashJsonDocument> document;
  if (options.json) document.emplace(algorithms);

  std::vector<FileResult> results(items.size());
  runOrderedInParallel(
      items.size(), options.common.jobs,
      [&](std::size_t i) {
        if (items[i].kind != WalkItem::Kind::kFile) return;
        results[i] = hasher.hash(items[i].path, reporter.byteCounter());
        reporter.fileDone();
      },
      [&](std::size_t i) {
        const WalkItem& item = items[i];
        FileResult result = std::move(results[i]);
        if (item.kind != WalkItem::Kind::kFile) {
          out.flush();
          if (item.kind == WalkItem::Kind::kError) {
            reporter.error(item.path, item.message);
            if (document) document->addError(item.path, item.message);
          } else {
            reporter.notice(item.path, item.message);
          }
          return;
        }
        if (document) {
          document->addFile(result);
        } else if (!result.checksums.empty()) {
          reporter.writeOutput(out, [&] {
            for (const FileChecksum& entry : result.checksums) {
              writeChecksumLine(out, lines, *entry.algorithm, item.path, entry.checksum);
            }
          });
        }
        if (!result.ok()) {
          out.flush();
          for (const std::string& reason : result.errors) reporter.error(item.path, reason);
        }
      });

  if (document) document->write(out);
  out.flush();
  reporter.finish();
  return reporter.errorCount() == 0 ? kExitOk : kExitFailed;
}

}  // namespace corvane::tool
