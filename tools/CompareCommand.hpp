// The `compare` command of corvane-checksum: verifies that DST is a copy of SRC.
//
//   corvane-checksum compare [-a ALGO[,ALGO...]] [--follow-symlinks] [--no-cache]
//                            [--match-names exact|nfc|case-insensitive] [-v] [--json]
//                            [-j N] [--no-progress] [--summary] SRC DST
//
// Both trees are walked and their files matched by relative path, under the name matching of
// --match-names (NameMatching.hpp); names left over that differ only in Unicode normalisation or
// case are still paired and reported as such, and names that one side holds twice under the
// matching are collisions. Sizes are compared first (a pair of different sizes is reported
// without reading it); the checksums of both sides then come from one read of each file. What
// was compared is recorded in an IOValidationAttributes. See docs/corvane-checksum.md for the
// output and exit statuses.
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "CommonOptions.hpp"

namespace corvane::tool {

struct CompareOptions {
  std::vector<std::string> algorithmValues;
  bool followSymlinks = false;
  bool noCache = false;
  std::string matchNames = "exact";  // a NameMatching name; checked when the command runs
  bool verbose = false;
  bool json = false;
  std::string source;
  std::string destination;
  CommonOptions common;
};

// Adds the command to `app`; parsed values land in `options`, which must outlive `app`.
CLI::App* addCompareCommand(CLI::App& app, CompareOptions& options);

// Runs the command; returns the exit status.
int runCompareCommand(const CompareOptions& options, std::ostream& out, std::ostream& err);

}  // namespace corvane::tool
