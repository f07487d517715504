// The `composite` subcommand of corvane-checksum: one checksum over every regular file of a
// directory tree.
//
//   corvane-checksum composite [-a ALGO] [--method text|data] [--scheme flat|tree] [--json] DIR
//
// Every regular file under DIR (recursively; symbolic links are skipped and reported unless
// --follow-symlinks) is checksummed with ALGO (default xxh64). The files are taken in
// the byte order of their paths relative to DIR. The per-file checksums are then combined:
// - flat (default): CorvaneStandardCompositeChecksumGenerator, duplicates kept, over the
//   checksums in path order;
// - tree: Smpte2144Colon2017CompositeChecksumGenerator's pairwise scheme with the checksums
//   sorted (duplicates removed, its default).
// --method data (default) decodes each checksum to its bytes (big-endian); text joins the texts.
//
// Output: "<composite>  <DIR>", or with --json one object {"directory", "algorithm", "method",
// "scheme", "composite", "files": [{"path", "checksum"}...]} where paths are relative to DIR.
// A file that cannot be checksummed is reported on stderr as "corvane-checksum: <path>: <reason>"
// (as `hash` does); then no composite is printed (JSON: "composite" is null) and the exit status
// is 1. A tree composite of an empty directory does not exist and is reported the same way.
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "CommonOptions.hpp"

namespace corvane::tool {

struct CompositeOptions {
  std::vector<std::string> algorithmValues;
  std::string method = "data";
  std::string scheme = "flat";
  bool json = false;
  bool followSymlinks = false;
  bool strict = false;
  std::string directory;
  CommonOptions common;
};

// Adds the subcommand to `app`; parsed values land in `options`, which must outlive `app`.
CLI::App* addCompositeSubcommand(CLI::App& app, CompositeOptions& options);

// Runs the subcommand. Returns the exit status: 0 success, 1 a file (or the directory) failed,
// 2 bad usage (unknown or several algorithms). Messages go to `err`, prefixed with `programName`.
int runCompositeCommand(const CompositeOptions& options, const std::string& programName,
                        std::ostream& out, std::ostream& err);

}  // namespace corvane::tool
