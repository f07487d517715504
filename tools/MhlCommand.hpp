// The `mhl` command of corvane-checksum: ASC MHL histories (the `ascmhl/` folder at the top of a
// folder tree), a thin layer of options and output over corvane/MhlHistory.hpp.
//
//   corvane-checksum mhl create  [-a FORMAT[,FORMAT...]] [--ignore PATTERN]... [--ignore-from FILE]
//                                [--no-directory-hashes] [--author-name NAME [--author-email E]
//                                [--author-phone P] [--author-role R]] [--location TEXT]
//                                [--comment TEXT] [-v] [--json] [-j N] [--no-progress]
//                                [--summary] ROOT
//   corvane-checksum mhl verify  [--directory-hashes] [-v] [--json] [-j N] [--no-progress]
//                                [--summary] ROOT
//   corvane-checksum mhl diff    [--json] ROOT
//   corvane-checksum mhl info    [--file PATH] [--json] ROOT
//   corvane-checksum mhl flatten [--json] ROOT DEST
//
// create, verify and diff print one line per file that needs attention (every file with -v), the
// problems of the history on stderr, and a summary line; see docs/corvane-checksum.md.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "CommonOptions.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/MhlXml.hpp"

namespace corvane::tool {

enum class MhlSubcommand { kNone, kCreate, kVerify, kDiff, kInfo, kFlatten };

// The options of every mhl subcommand; each subcommand reads those it declares.
struct MhlOptions {
  MhlSubcommand command = MhlSubcommand::kNone;
  std::string root;
  bool json = false;
  bool verbose = false;
  CommonOptions common;
  // create
  std::vector<std::string> formatValues;
  std::vector<std::string> ignorePatterns;
  std::string ignoreFrom;
  bool noDirectoryHashes = false;
  std::optional<std::string> authorName;
  std::optional<std::string> authorEmail;
  std::optional<std::string> authorPhone;
  std::optional<std::string> authorRole;
  std::optional<std::string> location;
  std::optional<std::string> comment;
  // verify
  bool directoryHashes = false;
  // info
  std::optional<std::string> file;
  // flatten
  std::string destination;
};

// Adds `mhl` and its subcommands to `app`; parsed values land in `options`, which must outlive
// `app`.
CLI::App* addMhlCommand(CLI::App& app, MhlOptions& options);

// Runs the subcommand that was parsed; returns the exit status.
int runMhlCommand(const MhlOptions& options, std::ostream& out, std::ostream& err);

// --- the pieces, for MhlCommand.cpp ------------------------------------------------------------

// The ASC MHL formats named by the values of -a (comma lists and/or repeated; names without
// regard to case; a repeat counts once), or the message of the usage error. Empty values give
// xxh64.
std::variant<std::vector<ChecksumType>, std::string> parseMhlFormats(
    const std::vector<std::string>& values);

// `root` + "/" + `relative` for messages; `root` alone when `relative` is empty.
std::string pathBelow(const std::string& root, const std::string& relative);

// A problem of a history as JSON: {"source", "line", "kind", "message"} ("source" lossless as
// putName writes names; "line" 0 when unknown).
nlohmann::ordered_json problemJson(const MhlError& problem);

// MhlReportCommands.cpp: the operations that hash or compare files and report each one.
int runMhlCreate(const MhlOptions& options, std::ostream& out, std::ostream& err);
int runMhlVerify(const MhlOptions& options, std::ostream& out, std::ostream& err);
int runMhlDiff(const MhlOptions& options, std::ostream& out, std::ostream& err);

// MhlInfoCommand.cpp: what a history holds, and the records of one file.
int runMhlInfo(const MhlOptions& options, std::ostream& out, std::ostream& err);

}  // namespace corvane::tool
