// The `copy` command of corvane-checksum: offloads a folder (a camera card, say) or a file to one
// or more destinations, a thin layer of options and output over corvane::OffloadJob.
//
//   corvane-checksum copy [-a ALGO[,ALGO...]] [--verify read-back|size|none] [--overwrite]
//                         [--no-mhl] [--no-source-mhl] [--author-name NAME [--author-email E]
//                         [--author-phone P] [--author-role R]] [--location TEXT]
//                         [--comment TEXT] [-v] [--json] [-j N] [--no-progress] [--summary]
//                         SRC DST...
//
// Every DST receives SRC under SRC's own name (DST/<name of SRC>), as `cp -r SRC DST` does. The
// source is read once; every copy is written under a temporary name, flushed and renamed, then
// read back from the disk; each destination gets an ASC MHL generation. Failed copies are reported
// on stderr as "corvane-checksum: <copy>: <reason>", a problem of the source once as
// "corvane-checksum: <source file>: <reason>"; with -v every copy also gets a line on stdout; the
// closing summary gives one line per destination. See docs/corvane-checksum.md.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "CommonOptions.hpp"

namespace corvane::tool {

struct CopyOptions {
  std::vector<std::string> algorithmValues;
  std::string verify = "read-back";  // checked when the command runs
  bool overwrite = false;
  bool noMhl = false;
  bool noSourceMhl = false;
  std::optional<std::string> authorName;
  std::optional<std::string> authorEmail;
  std::optional<std::string> authorPhone;
  std::optional<std::string> authorRole;
  std::optional<std::string> location;
  std::optional<std::string> comment;
  bool verbose = false;
  bool json = false;
  std::string source;
  std::vector<std::string> destinations;
  CommonOptions common;
};

// Adds the command to `app`; parsed values land in `options`, which must outlive `app`.
CLI::App* addCopyCommand(CLI::App& app, CopyOptions& options);

// Runs the command; returns the exit status.
int runCopyCommand(const CopyOptions& options, std::ostream& out, std::ostream& err);

}  // namespace corvane::tool
