// corvane-checksum: prints checksums of files computed by libCorvaneSecurity.
//
//   corvane-checksum hash [-a ALGO[,ALGO...]] [--json] PATH...
//   corvane-checksum composite [-a ALGO] [--method text|data] [--scheme flat|tree] [--json] DIR
//   corvane-checksum            (no arguments: checksums a built-in sample with every algorithm)
//
// Exit status: 0 when every file was checksummed, 1 when any file failed (each failure is
// reported on stderr and the remaining files are still processed), 2 for a usage error.
#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <variant>
#include <vector>

#include "AlgorithmNames.hpp"
#include "BuiltinSample.hpp"
#include "CompositeCommand.hpp"
#include "FileHasher.hpp"
#include "OutputFormat.hpp"
#include "corvane/Version.hpp"

namespace {

constexpr const char* kProgramName = "corvane-checksum";

constexpr int kExitOk = 0;
constexpr int kExitFileFailed = 1;
constexpr int kExitUsage = 2;

// The algorithms of the no-argument run, in the order they are printed.
constexpr const char* kSampleAlgorithms = "md5,sha1,sha256,sha512,crc32,xxh64,xxh3,xxh128,c4";

using corvane::tool::AlgorithmName;

int usageError(const std::string& message) {
  std::cerr << kProgramName << ": " << message << "\nRun with --help for more information.\n";
  return kExitUsage;
}

// The common path of `hash` and of the built-in sample.
int hashFiles(const std::vector<const AlgorithmName*>& algorithms,
              const std::vector<std::string>& paths, bool json) {
  const corvane::tool::FileHasher hasher(algorithms);
  corvane::tool::OutputWriter writer(corvane::tool::chooseOutputStyle(json, algorithms.size()),
                                     std::cout);
  int status = kExitOk;
  for (const auto& path : paths) {
    const corvane::tool::FileResult result = hasher.hash(path);
    writer.add(result);
    for (const auto& error : result.errors) {
      std::cerr << kProgramName << ": " << path << ": " << error << '\n';
    }
    if (!result.ok()) {
      status = kExitFileFailed;
    }
  }
  writer.finish();
  return status;
}

int runBuiltinSample() {
  // A reader that goes away early (`corvane-checksum | head`) must not kill the process before
  // the sample directory is removed; failed writes are harmless here.
  std::signal(SIGPIPE, SIG_IGN);
  std::cout << "# No arguments given: checksumming a built-in sample with every algorithm.\n";
  const auto parsed = corvane::tool::parseAlgorithmList({kSampleAlgorithms});
  const auto& algorithms = std::get<std::vector<const AlgorithmName*>>(parsed);
  int status = kExitOk;
  std::string directory;
  {
    const auto sample = corvane::tool::BuiltinSample::create(std::cout);
    directory = sample->directory().string();
    std::cout << "# Running: " << kProgramName << " hash -a " << kSampleAlgorithms
              << " <the files above>\n";
    std::cout.flush();
    status = hashFiles(algorithms, sample->paths(), /*json=*/false);
  }
  std::cout << "# Removed " << directory << "\n";
  std::cout << "# Try: " << kProgramName << " hash -a sha256,xxh3 FILE... or " << kProgramName
            << " --help\n";
  return status;
}

int run(int argc, char** argv) {
  CLI::App app{
      "Prints checksums of files computed by libCorvaneSecurity.\n"
      "Without arguments it checksums a small built-in sample with every algorithm.",
      kProgramName};
  app.set_version_flag("--version", std::string(corvane::CorvaneSecurityVersionString),
                       "Print the library version and exit");
  app.require_subcommand(0, 1);

  std::vector<std::string> algorithmValues;
  bool json = false;
  std::vector<std::string> paths;
  CLI::App* hash = app.add_subcommand("hash", "Print checksums of files");
  hash->add_option("-a,--algorithm", algorithmValues,
                   "Algorithms to compute, comma-separated and/or repeated, printed in the "
                   "order given (default: xxh64). Known: " +
                       corvane::tool::knownAlgorithmNames())
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("ALGO[,ALGO...]");
  hash->add_flag("--json", json, "Print one JSON array of {path, algorithm, checksum} objects");
  hash->add_option("PATH", paths, "Files to checksum")->required()->type_name("");
  hash->footer(
      "Output: '<checksum>  <path>' with one algorithm, '<ALGO> (<path>) = <checksum>' with "
      "several.\nExit status: 0 all files checksummed, 1 a file failed, 2 usage error.");

  corvane::tool::CompositeOptions compositeOptions;
  CLI::App* composite = corvane::tool::addCompositeSubcommand(app, compositeOptions);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      return app.exit(error);  // --help, --version
    }
    return usageError(error.what());
  }

  if (composite->parsed()) {
    return corvane::tool::runCompositeCommand(compositeOptions, kProgramName, std::cout, std::cerr);
  }
  if (!hash->parsed()) {
    return runBuiltinSample();
  }
  auto algorithms = corvane::tool::parseAlgorithmList(algorithmValues);
  if (const auto* error = std::get_if<corvane::tool::AlgorithmListError>(&algorithms)) {
    return usageError(error->message);
  }
  return hashFiles(std::get<std::vector<const AlgorithmName*>>(algorithms), paths, json);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << kProgramName << ": " << error.what() << '\n';
    return kExitFileFailed;
  }
}
