// Logging sink of the library.
//
// Every event is one line of text at error or warning level. By default a line goes to stderr;
// a host application replaces the sink with setSink() to route lines into its own log.
// All functions are thread-safe; the sink may be called from any thread, one call at a time.
#pragma once

#include <functional>
#include <string>

#include "corvane/Export.hpp"

namespace corvane {

enum class LogLevel { error, warning };

class CORVANE_API CorvaneLog {
 public:
  using Sink = std::function<void(LogLevel, const std::string&)>;

  // The shared logger. Never null; lives for the whole process.
  static CorvaneLog& defaultLogger();

  void logError(const std::string& message);
  void logWarning(const std::string& message);

  // Replaces the sink; an empty function restores the default stderr sink.
  void setSink(Sink sink);

 private:
  CorvaneLog() = default;
  void write(LogLevel level, const std::string& message);
};

// printf-style error line through the default logger.
CORVANE_API void CVNLogError(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace corvane
