// How the tool's commands drive the library's file-set engine: operands turned into its input,
// the run's bytes fed to the progress line, and the tool's wording of what a walk skipped.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "AlgorithmNames.hpp"
#include "RunReporter.hpp"
#include "corvane/FileSetHasher.hpp"

namespace corvane::tool {

// The library's algorithm values of `algorithms`, in the same order.
std::vector<ChecksumType> checksumTypesOf(const std::vector<const AlgorithmName*>& algorithms);

// The walk options of --follow-symlinks.
WalkOptions walkOptions(bool followSymlinks);

// The operands of hash: each folder walked when `recursive`, everything else read as named ("-"
// is standard input, read from where it stands); in the order given.
FileSetInput operandInput(std::vector<std::string> operands, bool recursive,
                          const WalkOptions& options);

// Whether `path` names a folder (following links).
bool isDirectory(const std::string& path);

// How the tool reports an entry a walk did not read: "symbolic link skipped (use
// --follow-symlinks)", "not a regular file, skipped", ...
std::string skipNotice(const WalkEntry& entry);

// Feeds the bytes read by a run to the reporter's progress line.
class ReporterObserver : public ReadObserver {
 public:
  explicit ReporterObserver(RunReporter& reporter) : reporter_(reporter) {}
  void bytesRead(std::uint64_t count) override { reporter_.addBytes(count); }

 private:
  RunReporter& reporter_;
};

// Counts the files and bytes the operands hold, on a thread of its own, and gives the reporter
// its totals when done: the progress line then shows "done/total" and the time left. Only worth
// it when a progress line is shown; the walk reads metadata only.
class TotalsCounter {
 public:
  TotalsCounter(std::vector<std::string> operands, bool recursive, WalkOptions options,
                RunReporter& reporter);
  ~TotalsCounter();

 private:
  std::jthread thread_;
};

}  // namespace corvane::tool
