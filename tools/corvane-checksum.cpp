// corvane-checksum: prints, checks and compares checksums of files computed by libCorvaneSecurity.
//
//   corvane-checksum hash      [OPTIONS] PATH...        checksums of files
//   corvane-checksum check     [OPTIONS] LISTFILE...    verify files against checksum lists
//   corvane-checksum compare   [OPTIONS] SRC DST        verify a copy of a folder or file
//   corvane-checksum composite [OPTIONS] DIR            one checksum for a folder
//   corvane-checksum copy      [OPTIONS] SRC DST...     copy to several destinations, verified
//   corvane-checksum mhl COMMAND [OPTIONS] ROOT         ASC MHL histories: create, verify, diff,
//                                                       info, flatten
//   corvane-checksum                                    checksums a built-in sample
//
// docs/corvane-checksum.md describes every option, output and exit status.
#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "BuiltinSample.hpp"
#include "CheckCommand.hpp"
#include "CompareCommand.hpp"
#include "CompositeCommand.hpp"
#include "CopyCommand.hpp"
#include "ExitStatus.hpp"
#include "HashCommand.hpp"
#include "MhlCommand.hpp"
#include "StandardOutput.hpp"
#include "corvane/Version.hpp"

namespace {

using namespace corvane::tool;

// The algorithms of the no-argument run, in the order they are printed.
constexpr const char* kSampleAlgorithms = "md5,sha1,sha256,sha512,crc32,xxh64,xxh3,xxh128,c4";

int runBuiltinSample() {
  std::cout << "# No arguments given: checksumming a built-in sample with every algorithm.\n";
  int status = kExitOk;
  std::string directory;
  {
    const auto sample = BuiltinSample::create(std::cout);
    directory = sample->directory().string();
    std::cout << "# Running: " << kProgramName << " hash -a " << kSampleAlgorithms
              << " <the files above>\n";
    std::cout.flush();
    HashOptions options;
    options.algorithmValues = {kSampleAlgorithms};
    options.paths = sample->paths();
    options.common.noProgress = true;
    status = runHashCommand(options, std::cout, std::cerr);
  }
  std::cout << "# Removed " << directory << "\n";
  std::cout << "# Try: " << kProgramName << " hash -a sha256,xxh3 FILE... or " << kProgramName
            << " --help\n";
  return status;
}

int run(int argc, char** argv) {
  CLI::App app{
      "Prints, checks and compares checksums of files computed by libCorvaneSecurity.\n"
      "Without a command it checksums a small built-in sample with every algorithm.",
      kProgramName};
  app.set_version_flag("--version", std::string(corvane::CorvaneSecurityVersionString),
                       "Print the library version and exit");
  app.require_subcommand(0, 1);
  app.footer(
      "Run '" + std::string(kProgramName) +
      " COMMAND --help' for the options of a command; docs/corvane-checksum.md has them all.\n"
      "'" +
      std::string(kProgramName) +
      " mhl create|verify|diff|info|flatten' keeps and checks the ASC MHL history (ascmhl folder) "
      "of a folder tree.\n"
      "Exit status: 0 success, 1 mismatch or missing/unreadable file (mhl: also a broken history "
      "or a manifest not written), 2 usage error (or a malformed checksum list), 3 files missing "
      "or new (or names differing only in normalisation or case) in the destination of compare, "
      "or (mhl verify, diff) new files only, 4 standard output could not be written (a closed "
      "pipe ends the run by SIGPIPE, 141 in a shell).");

  HashOptions hashOptions;
  CLI::App* hash = addHashCommand(app, hashOptions);
  CheckOptions checkOptions;
  CLI::App* check = addCheckCommand(app, checkOptions);
  CompareOptions compareOptions;
  CLI::App* compare = addCompareCommand(app, compareOptions);
  CompositeOptions compositeOptions;
  CLI::App* composite = addCompositeSubcommand(app, compositeOptions);
  CopyOptions copyOptions;
  CLI::App* copy = addCopyCommand(app, copyOptions);
  MhlOptions mhlOptions;
  CLI::App* mhl = addMhlCommand(app, mhlOptions);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      return app.exit(error);  // --help, --version
    }
    return usageError(std::cerr, error.what());
  }

  if (hash->parsed()) return runHashCommand(hashOptions, std::cout, std::cerr);
  if (check->parsed()) return runCheckCommand(checkOptions, std::cout, std::cerr);
  if (compare->parsed()) return runCompareCommand(compareOptions, std::cout, std::cerr);
  if (composite->parsed()) {
    return runCompositeCommand(compositeOptions, kProgramName, std::cout, std::cerr);
  }
  if (mhl->parsed()) return runMhlCommand(mhlOptions, std::cout, std::cerr);
  if (copy->parsed()) return runCopyCommand(copyOptions, std::cout, std::cerr);
  return runBuiltinSample();
}

}  // namespace

int main(int argc, char** argv) {
  // Writes to a reader that went away fail with EPIPE, which StandardOutput turns into a quiet
  // end by SIGPIPE; with the signal ignored until then, no other write (stderr) can kill us.
  std::signal(SIGPIPE, SIG_IGN);
  StandardOutput output;
  int status = kExitFailed;
  try {
    status = run(argc, argv);
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << kProgramName << ": " << error.what() << '\n';
  }
  return output.finish(status);
}
