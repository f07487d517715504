#include "CompositeCommand.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>
#include <variant>

#include "AlgorithmNames.hpp"
#include "EngineInput.hpp"
#include "ExitStatus.hpp"
#include "OutputFormat.hpp"
#include "corvane/CompositeChecksumGenerator.hpp"

namespace corvane::tool {
namespace {

// The reason `path` cannot be walked as a directory, or nothing.
std::optional<std::string> reasonNotADirectory(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return std::string(std::strerror(errno));
  }
  if (!S_ISDIR(status.st_mode)) {
    return std::string(std::strerror(ENOTDIR));
  }
  return std::nullopt;
}

}  // namespace

CLI::App* addCompositeSubcommand(CLI::App& app, CompositeOptions& options) {
  CLI::App* composite =
      app.add_subcommand("composite", "Print one composite checksum over every file of a tree");
  composite
      ->add_option("-a,--algorithm", options.algorithmValues,
                   "The one algorithm of the per-file and composite checksums (default: xxh64). "
                   "Known: " +
                       knownAlgorithmNames())
      ->allow_extra_args(false)
      ->type_name("ALGO");
  composite
      ->add_option("--method", options.method,
                   "How checksums become bytes: data decodes them (big-endian), text joins the "
                   "texts (default: data)")
      ->check(CLI::IsMember({"text", "data"}))
      ->type_name("text|data");
  composite
      ->add_option("--scheme", options.scheme,
                   "flat hashes the joined checksums in path order once; tree hashes the sorted "
                   "checksums pairwise, level by level (default: flat)")
      ->check(CLI::IsMember({"flat", "tree"}))
      ->type_name("flat|tree");
  composite->add_flag("--json", options.json,
                      "Print one JSON object with the settings, the composite and every file");
  composite->add_flag("--follow-symlinks", options.followSymlinks,
                      "Follow symbolic links met in the tree (default: skip and report them)");
  composite->add_flag("--strict", options.strict,
                      "Count entries that are not read (special files, links not followed) as "
                      "errors: no composite, exit 1");
  addCommonOptions(*composite, options.common);
  composite->add_option("DIR", options.directory, "Directory to checksum")
      ->required()
      ->type_name("");
  composite->footer(
      "Files are taken recursively in the byte order of their paths relative to DIR. flat "
      "combines every file's checksum (an empty folder gives the checksum of no bytes); tree "
      "combines each distinct checksum once (files with equal content count once; stderr says "
      "'N files, M distinct checksums'; an empty folder is an error: 'no files to combine').\n"
      "Output: '<composite>  <DIR>'.\n"
      "Exit status: 0 composite printed, 1 a file failed or nothing to combine, 2 usage error.");
  return composite;
}

int runCompositeCommand(const CompositeOptions& options, const std::string& programName,
                        std::ostream& out, std::ostream& err) {
  auto parsed = parseAlgorithmList(options.algorithmValues);
  if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
    return usageError(err, error->message);
  }
  const auto& algorithms = std::get<std::vector<const AlgorithmName*>>(parsed);
  if (algorithms.size() != 1) {
    return usageError(err, "composite takes exactly one algorithm");
  }
  const AlgorithmName* algorithm = algorithms.front();
  const CompositeChecksumMethod method = options.method == "text"
                                             ? CompositeChecksumMethod::checksumsAsText()
                                             : CompositeChecksumMethod::checksumsAsData(true);
  const bool tree = options.scheme == "tree";

  int status = kExitOk;
  if (auto reason = reasonNotADirectory(options.directory)) {
    err << programName << ": " << options.directory << ": " << *reason << '\n';
    return kExitFailed;
  }
  const ReportSettings reportSettings = options.common.reportSettings();
  RunReporter reporter(reportSettings, err);
  const WalkOptions walk = walkOptions(options.followSymlinks);
  std::optional<TotalsCounter> totals;
  if (reportSettings.showProgress)
    totals.emplace(std::vector{options.directory}, true, walk, reporter);

  ReporterObserver observer(reporter);
  const FileSetHasher hasher({.algorithms = {algorithm->type},
                              .filesInFlight = options.common.jobs,
                              .observer = &observer});
  std::vector<std::string> checksums;
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  hasher.run(FileSetInput::walk(options.directory, walk), [&](FileSetResult&& result) {
    const WalkEntry& entry = result.entry;
    switch (entry.kind) {
      case WalkEntry::Kind::directory:
        return;
      case WalkEntry::Kind::skipped:
        reporter.skipped();
        if (options.strict) {
          reporter.error(entry.path, skipNotice(entry));
        } else {
          reporter.notice(entry.path, skipNotice(entry));
        }
        return;
      case WalkEntry::Kind::unreadable:
        reporter.error(entry.path, entry.reason());
        return;
      case WalkEntry::Kind::file:
        break;
    }
    reporter.fileDone();
    if (!result.ok()) {
      reporter.error(entry.path, result.error.message);
      return;
    }
    checksums.push_back(result.checksums.at(algorithm->type));
    nlohmann::ordered_json file = nlohmann::ordered_json::object();
    putName(file, "path", entry.relativePath);
    file["checksum"] = checksums.back();
    files.push_back(std::move(file));
  });
  totals.reset();
  if (reporter.errorCount() != 0) status = kExitFailed;

  std::optional<std::string> composite;
  if (status == kExitOk) {
    if (tree) {
      composite = Smpte2144Colon2017CompositeChecksumGenerator(method).generate(
          checksums, algorithm->type, /*sortChecksumList=*/true);
    } else {
      composite =
          CorvaneStandardCompositeChecksumGenerator(method, /*removeDuplicates=*/false,
                                                    CompositeChecksumLexicalOrdering::pathName)
              .generate(checksums, algorithm->type);
    }
    if (!composite) {
      reporter.error(options.directory,
                     checksums.empty() ? "no files to combine" : "no composite checksum produced");
      status = kExitFailed;
    }
  }

  // The tree scheme combines each distinct checksum once (files with equal content count
  // once); say so, so that nobody takes it for a checksum over every file.
  const std::size_t distinct = std::set<std::string>(checksums.begin(), checksums.end()).size();
  if (options.json) {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    putName(object, "directory", options.directory);
    object["algorithm"] = algorithm->type.name();
    object["method"] = options.method;
    object["scheme"] = options.scheme;
    object["composite"] = composite ? nlohmann::ordered_json(*composite) : nlohmann::ordered_json();
    object["fileCount"] = checksums.size();
    object["distinctChecksums"] = distinct;
    object["combined"] = tree ? distinct : checksums.size();
    object["files"] = std::move(files);
    out << dumpJson(object) << '\n';
  } else if (composite) {
    out << *composite << "  " << options.directory << '\n';
    if (tree) {
      out.flush();
      reporter.message(options.directory + ": " + counted(checksums.size(), "file", "files") +
                       ", " + counted(distinct, "distinct checksum", "distinct checksums") +
                       " (the tree scheme combines each distinct checksum once)");
    }
  }
  out.flush();
  reporter.finish();
  return status;
}

}  // namespace corvane::tool
