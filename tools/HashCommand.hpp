// The `hash` command of corvane-checksum: prints the checksums of files.
//
//   corvane-checksum hash [-a ALGO[,ALGO...]] [-r] [--follow-symlinks] [--files-from FILE [-0]]
//                         [--tag | --json] [-z] [-j N] [--no-progress] [--summary] [PATH...]
//
// See docs/corvane-checksum.md for the output formats and exit statuses.
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "CommonOptions.hpp"

namespace corvane::tool {

struct HashOptions {
  std::vector<std::string> algorithmValues;
  bool recursive = false;
  bool followSymlinks = false;
  bool strict = false;
  std::string filesFrom;
  bool nulSeparatedList = false;
  bool tag = false;
  bool json = false;
  bool nulTerminatedLines = false;
  std::vector<std::string> paths;
  CommonOptions common;
};

// Adds the command to `app`; parsed values land in `options`, which must outlive `app`.
CLI::App* addHashCommand(CLI::App& app, HashOptions& options);

// Runs the command; returns the exit status.
int runHashCommand(const HashOptions& options, std::ostream& out, std::ostream& err);

}  // namespace corvane::tool
