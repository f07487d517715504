// Test helper: the text of the lines sent to the default logger while alive.
#pragma once

#include <string>
#include <vector>

#include "corvane/CorvaneLog.hpp"

namespace corvane::testsupport {

// Captures the lines sent to the default logger while alive.
class CapturedLog {
 public:
  CapturedLog() {
    CorvaneLog::defaultLogger().setSink(
        [this](LogLevel, const std::string& text) { lines.push_back(text); });
  }
  ~CapturedLog() { CorvaneLog::defaultLogger().setSink(nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;
  std::vector<std::string> lines;
};

}  // namespace corvane::testsupport
