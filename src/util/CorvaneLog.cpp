#include "corvane/CorvaneLog.hpp"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace corvane {
namespace {

// One lock serialises sink replacement and sink calls, so a host's sink sees one line at a time.
std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

CorvaneLog::Sink& currentSink() {
  static CorvaneLog::Sink sink;
  return sink;
}

void writeToStderr(LogLevel level, const std::string& message) {
  std::fprintf(stderr, "%s %s\n", level == LogLevel::error ? "[error]" : "[warning]",
               message.c_str());
  std::fflush(stderr);
}

}  // namespace

CorvaneLog& CorvaneLog::defaultLogger() {
  static CorvaneLog logger;
  return logger;
}

void CorvaneLog::logError(const std::string& message) { write(LogLevel::error, message); }

void CorvaneLog::logWarning(const std::string& message) { write(LogLevel::warning, message); }

void CorvaneLog::setSink(Sink sink) {
  std::lock_guard lock(sinkMutex());
  currentSink() = std::move(sink);
}

void CorvaneLog::write(LogLevel level, const std::string& message) {
  std::lock_guard lock(sinkMutex());
  if (currentSink()) {
    currentSink()(level, message);
  } else {
    writeToStderr(level, message);
  }
}

void CVNLogError(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string text;
  if (length > 0) {
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    text.assign(buffer.data(), static_cast<std::size_t>(length));
  }
  va_end(args);
  CorvaneLog::defaultLogger().logError(text);
}

}  // namespace corvane
