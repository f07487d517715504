// The `check` command of corvane-checksum: verifies files against checksum lists written by this
// tool, by sha*sum/md5sum (GNU and --tag lines) and by xxhsum.
//
//   corvane-checksum check [-a ALGO] [-v] [--json] [--quiet] [--status] [--strict] [-w]
//                          [--ignore-missing] [-j N] [--no-progress] [--summary] LISTFILE...
//
// See docs/corvane-checksum.md for the line forms, messages and exit statuses.
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "CommonOptions.hpp"

namespace corvane::tool {

struct CheckOptions {
  std::string algorithm;  // empty: from the tag, the list's name or the checksum length
  bool verbose = false;   // name the algorithm in result lines
  bool json = false;      // one JSON document instead of result lines
  bool quiet = false;
  bool status = false;
  bool strict = false;
  bool warn = false;
  bool ignoreMissing = false;
  std::vector<std::string> lists;
  CommonOptions common;
};

// Adds the command to `app`; parsed values land in `options`, which must outlive `app`.
CLI::App* addCheckCommand(CLI::App& app, CheckOptions& options);

// Runs the command; returns the exit status.
int runCheckCommand(const CheckOptions& options, std::ostream& out, std::ostream& err);

}  // namespace corvane::tool
