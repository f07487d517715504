#include "CompositeCommand.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <utility>
#include <variant>

#include "AlgorithmNames.hpp"
#include "FileHasher.hpp"
#include "corvane/CompositeChecksumGenerator.hpp"

namespace corvane::tool {
namespace {

namespace fs = std::filesystem;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Failure {
  std::string path;
  std::string reason;
};

// The regular files of a tree as paths relative to its root ("a/b.txt"), and the directories
// that could not be listed.
struct TreeListing {
  std::vector<std::string> files;
  std::vector<Failure> failures;
};

// Lists the regular files under `directory` into `listing`, descending into
// subdirectories. Symbolic links to directories are not followed, so a link cycle cannot trap
// the walk; links to regular files are checksummed like the files they name.
void listTree(const fs::path& directory, const std::string& relativePrefix, TreeListing& listing) {
  std::error_code error;
  fs::directory_iterator it(directory, error);
  if (error) {
    listing.failures.push_back({directory.string(), error.message()});
    return;
  }
  for (const fs::directory_iterator end; it != end; it.increment(error)) {
    const fs::directory_entry& entry = *it;
    const std::string relative = relativePrefix + entry.path().filename().string();
    std::error_code statusError;
    if (entry.is_directory(statusError) && !entry.is_symlink(statusError)) {
      listTree(entry.path(), relative + "/", listing);
    } else if (entry.is_regular_file(statusError)) {
      listing.files.push_back(relative);
    }
  }
  if (error) {
    listing.failures.push_back({directory.string(), error.message()});
  }
}

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

void reportFailure(std::ostream& err, const std::string& programName, const Failure& failure) {
  err << programName << ": " << failure.path << ": " << failure.reason << '\n';
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
  composite->add_option("DIR", options.directory, "Directory to checksum")
      ->required()
      ->type_name("");
  composite->footer(
      "Files are taken recursively in the byte order of their paths relative to DIR.\n"
      "Output: '<composite>  <DIR>'.\n"
      "Exit status: 0 composite printed, 1 a file failed, 2 usage error.");
  return composite;
}

int runCompositeCommand(const CompositeOptions& options, const std::string& programName,
                        std::ostream& out, std::ostream& err) {
  auto parsed = parseAlgorithmList(options.algorithmValues);
  if (const auto* error = std::get_if<AlgorithmListError>(&parsed)) {
    err << programName << ": " << error->message << "\nRun with --help for more information.\n";
    return kExitUsage;
  }
  const auto& algorithms = std::get<std::vector<const AlgorithmName*>>(parsed);
  if (algorithms.size() != 1) {
    err << programName << ": composite takes exactly one algorithm\n"
        << "Run with --help for more information.\n";
    return kExitUsage;
  }
  const AlgorithmName* algorithm = algorithms.front();
  const CompositeChecksumMethod method = options.method == "text"
                                             ? CompositeChecksumMethod::checksumsAsText()
                                             : CompositeChecksumMethod::checksumsAsData(true);
  const bool tree = options.scheme == "tree";

  int status = kExitOk;
  TreeListing listing;
  if (auto reason = reasonNotADirectory(options.directory)) {
    reportFailure(err, programName, {options.directory, *reason});
    return kExitFailed;
  }
  listTree(fs::path(options.directory), "", listing);
  for (const Failure& failure : listing.failures) {
    reportFailure(err, programName, failure);
    status = kExitFailed;
  }
  // std::string compares as unsigned bytes: the stable byte order of the paths.
  std::sort(listing.files.begin(), listing.files.end());

  const FileHasher hasher({algorithm});
  std::vector<std::string> checksums;
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  for (const std::string& relative : listing.files) {
    const std::string path = (fs::path(options.directory) / relative).string();
    const FileResult result = hasher.hash(path);
    for (const auto& reason : result.errors) {
      reportFailure(err, programName, {path, reason});
    }
    if (!result.ok() || result.checksums.empty()) {
      status = kExitFailed;
      continue;
    }
    checksums.push_back(result.checksums.front().checksum);
    files.push_back({{"path", relative}, {"checksum", checksums.back()}});
  }

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
      reportFailure(err, programName,
                    {options.directory,
                     checksums.empty() ? "no files to combine" : "no composite checksum produced"});
      status = kExitFailed;
    }
  }

  if (options.json) {
    nlohmann::ordered_json object = {
        {"directory", options.directory},
        {"algorithm", algorithm->type.name()},
        {"method", options.method},
        {"scheme", options.scheme},
        {"composite", composite ? nlohmann::ordered_json(*composite) : nlohmann::ordered_json()},
        {"files", std::move(files)}};
    // Paths are bytes, not necessarily UTF-8; replace what cannot be encoded instead of failing.
    out << object.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
  } else if (composite) {
    out << *composite << "  " << options.directory << '\n';
  }
  out.flush();
  return status;
}

}  // namespace corvane::tool
