#include "RunReporter.hpp"

#include <cstdio>
#include <iomanip>
#include <sstream>

#include "ExitStatus.hpp"

namespace corvane::tool {
namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

}  // namespace

std::string formatDuration(double seconds) {
  if (seconds < 0) seconds = 0;
  const auto total = static_cast<long long>(seconds + 0.5);
  char text[32];
  if (total >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", total / 3600, (total / 60) % 60,
                  total % 60);
  } else {
    std::snprintf(text, sizeof text, "%lld:%02lld", total / 60, total % 60);
  }
  return text;
}

ReportSettings reportSettingsFor(bool noProgress, bool summary, bool stderrIsTerminal) {
  ReportSettings settings;
  settings.showProgress = stderrIsTerminal && !noProgress;
  settings.showSummary = summary || settings.showProgress;
  return settings;
}

std::string RunReporter::humanBytes(double bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024.0 && unit < 4) {
    bytes /= 1024.0;
    ++unit;
  }
  std::ostringstream text;
  if (unit == 0) {
    text << static_cast<unsigned long long>(bytes) << " B";
  } else {
    text << std::fixed << std::setprecision(1) << bytes << ' ' << kUnits[unit];
  }
  return text.str();
}

RunReporter::RunReporter(ReportSettings settings, std::ostream& err)
    : settings_(settings), err_(err), start_(std::chrono::steady_clock::now()) {
  if (settings_.showProgress) drawer_ = std::thread([this] { drawLoop(); });
}

RunReporter::~RunReporter() { finish(); }

void RunReporter::setTotals(std::uint64_t files, std::uint64_t bytes) {
  filesTotal_.store(files);
  bytesTotal_.store(bytes);
}

void RunReporter::error(const std::string& path, const std::string& reason) {
  errors_.fetch_add(1);
  notice(path, reason);
}

void RunReporter::notice(const std::string& path, const std::string& text) {
  message(path + ": " + text);
}

void RunReporter::message(const std::string& text) {
  const std::lock_guard lock(mutex_);
  clearLineLocked();
  err_ << kProgramName << ": " << text << '\n';
  err_.flush();
}

void RunReporter::clearLineLocked() {
  if (lineShown_) {
    err_ << "\r\033[K";
    lineShown_ = false;
  }
}

std::string RunReporter::progressLine() const {
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const auto bytes = bytesDone_.load(std::memory_order_relaxed);
  const auto bytesTotal = bytesTotal_.load();
  const double rate = elapsed > 0 ? double(bytes) / elapsed : 0.0;
  std::ostringstream line;
  line << filesDone_.load(std::memory_order_relaxed);
  if (const auto total = filesTotal_.load(); total != 0) line << '/' << total;
  line << " files, " << humanBytes(double(bytes));
  if (bytesTotal != 0) line << '/' << humanBytes(double(bytesTotal));
  line << ", " << humanBytes(rate) << "/s";
  if (bytesTotal != 0 && rate > 0 && bytes <= bytesTotal) {
    line << ", " << formatDuration(double(bytesTotal - bytes) / rate) << " left";
  }
  return line.str();
}

void RunReporter::drawLoop() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    wake_.wait_for(lock, kRedrawInterval, [this] { return stopping_; });
    if (stopping_) break;
    err_ << '\r' << progressLine() << "\033[K";
    err_.flush();
    lineShown_ = true;
  }
}

void RunReporter::finish() {
  {
    const std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = true;
    stopping_ = true;
  }
  wake_.notify_all();
  if (drawer_.joinable()) drawer_.join();

  const std::lock_guard lock(mutex_);
  clearLineLocked();
  if (settings_.showSummary) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const auto bytes = bytesDone_.load();
    std::ostringstream line;
    const auto files = filesDone_.load();
    const auto errors = errors_.load();
    line << kProgramName << ": " << files << (files == 1 ? " file, " : " files, ") << bytes
         << (bytes == 1 ? " byte in " : " bytes in ") << std::fixed << std::setprecision(2)
         << elapsed << " s (" << humanBytes(elapsed > 0 ? double(bytes) / elapsed : 0.0) << "/s), "
         << errors << (errors == 1 ? " error" : " errors");
    if (const auto skipped = skipped_.load(); skipped != 0) line << ", " << skipped << " skipped";
    line << '\n';
    err_ << line.str();
  }
  err_.flush();
}

}  // namespace corvane::tool
