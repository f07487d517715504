// RunReporter: everything a command writes to stderr while it runs.
//
// - Per-file problems, "corvane-checksum: <path>: <reason>", counted as errors (or as notices,
//   which are not counted).
// - The progress line: on a terminal, one line rewritten at most ten times a second with files
//   done/total, bytes done/total, rate and time left. It is drawn by a thread of its own and
//   cleared before any message, so messages never mix with it.
// - The closing summary line (files, bytes, elapsed, rate, errors).
//
// Byte and file counters may be advanced from any thread; messages are written under a lock.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

namespace corvane::tool {

struct ReportSettings {
  bool showProgress = false;  // draw the progress line
  bool showSummary = false;   // print the summary line at the end
};

// The settings for --no-progress / --summary given whether stderr is a terminal.
ReportSettings reportSettingsFor(bool noProgress, bool summary, bool stderrIsTerminal);

// A time left or taken as the progress line shows it: "m:ss", or "h:mm:ss" from an hour on.
std::string formatDuration(double seconds);

class RunReporter {
 public:
  RunReporter(ReportSettings settings, std::ostream& err);
  ~RunReporter();
  RunReporter(const RunReporter&) = delete;
  RunReporter& operator=(const RunReporter&) = delete;

  // What the run is going to do, for "done/total" and the time left (0 = unknown).
  void setTotals(std::uint64_t files, std::uint64_t bytes);
  void addBytes(std::uint64_t count) { bytesDone_.fetch_add(count, std::memory_order_relaxed); }
  void fileDone() { filesDone_.fetch_add(1, std::memory_order_relaxed); }
  // An entry that was not read and is not an error (a special file met in a walk): counted in
  // the summary line when there was any.
  void skipped() { skipped_.fetch_add(1, std::memory_order_relaxed); }

  // "corvane-checksum: <path>: <reason>", counted as an error.
  void error(const std::string& path, const std::string& reason);
  // The same line, not counted.
  void notice(const std::string& path, const std::string& text);
  // "corvane-checksum: <text>", not counted.
  void message(const std::string& text);

  // Runs `write`, which writes standard output, with the progress line cleared
  // and kept from being redrawn meanwhile, so that output lines never run into it on a shared
  // terminal. Without a progress line it just runs `write`.
  // `write` writes to `out`, which is flushed while the line is held back, so that what was
  // written reaches a shared terminal before the line is drawn again.
  template <typename Write>
  void writeOutput(std::ostream& out, Write&& write) {
    if (!settings_.showProgress) {
      write();
      return;
    }
    const std::lock_guard lock(mutex_);
    clearLineLocked();
    write();
    out.flush();
  }

  std::uint64_t errorCount() const { return errors_.load(); }

  // Stops the progress line and prints the summary line if asked for. Called by the destructor
  // if not before.
  void finish();

  // "1.5 MiB"-style size with one decimal (bytes below 1 KiB as "123 B").
  static std::string humanBytes(double bytes);

 private:
  void drawLoop();
  void clearLineLocked();
  std::string progressLine() const;

  ReportSettings settings_;
  std::ostream& err_;
  std::chrono::steady_clock::time_point start_;
  std::atomic<std::uint64_t> filesTotal_{0};
  std::atomic<std::uint64_t> bytesTotal_{0};
  std::atomic<std::uint64_t> filesDone_{0};
  std::atomic<std::uint64_t> bytesDone_{0};
  std::atomic<std::uint64_t> errors_{0};
  std::atomic<std::uint64_t> skipped_{0};

  std::mutex mutex_;  // guards err_, lineShown_, stopping_
  std::condition_variable wake_;
  bool lineShown_ = false;
  bool stopping_ = false;
  bool finished_ = false;
  std::thread drawer_;
};

}  // namespace corvane::tool
