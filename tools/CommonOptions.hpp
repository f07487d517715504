// The options every command of corvane-checksum shares: -j, --no-progress, --summary.
#pragma once

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "AlgorithmNames.hpp"
#include "RunReporter.hpp"

namespace corvane::tool {

// The default of -j: the number of processors (at least 1).
inline unsigned defaultJobCount() { return std::max(1U, std::thread::hardware_concurrency()); }

struct CommonOptions {
  unsigned jobs = defaultJobCount();
  bool noProgress = false;
  bool summary = false;

  // What the reporter of this run shows, given where stderr goes.
  ReportSettings reportSettings() const {
    return reportSettingsFor(noProgress, summary, ::isatty(STDERR_FILENO) == 1);
  }
};

inline void addCommonOptions(CLI::App& command, CommonOptions& options) {
  command.add_option("-j,--jobs", options.jobs, "Files hashed at once (default: processors)")
      ->check(CLI::Range(1U, 256U))
      ->type_name("N");
  command.add_flag("--no-progress", options.noProgress,
                   "Never show the progress line (shown by default when stderr is a terminal)");
  command.add_flag("--summary", options.summary,
                   "Print a closing line with files, bytes, time, rate and errors to stderr");
}

// -a/--algorithm of the commands that take a list of algorithms (comma-separated and/or
// repeated); `what` says what is done with them ("to compute", "to compare").
inline void addAlgorithmListOption(CLI::App& command, std::vector<std::string>& values,
                                   const std::string& what, const std::string& note = "") {
  command
      .add_option("-a,--algorithm", values,
                  "Algorithms " + what +
                      ", comma-separated and/or repeated, in the order given (default: xxh64). "
                      "Known: " +
                      knownAlgorithmNames() + note)
      // Commas are split by parseAlgorithmList, not by the parser: it refuses empty names
      // ("md5,", ","), which the parser's own splitting would drop silently.
      ->allow_extra_args(false)
      ->type_name("ALGO[,ALGO...]");
}

}  // namespace corvane::tool
