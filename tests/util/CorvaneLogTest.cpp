#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "corvane/CorvaneLog.hpp"
#include "corvane/Version.hpp"

namespace corvane {
namespace {

// Captures every line sent to the default logger while alive.
class CapturedLog {
 public:
  CapturedLog() {
    CorvaneLog::defaultLogger().setSink(
        [this](LogLevel level, const std::string& text) { lines.emplace_back(level, text); });
  }
  ~CapturedLog() { CorvaneLog::defaultLogger().setSink(nullptr); }
  std::vector<std::pair<LogLevel, std::string>> lines;
};

TEST(CorvaneLog, DefaultLoggerIsOneSharedInstance) {
  EXPECT_EQ(&CorvaneLog::defaultLogger(), &CorvaneLog::defaultLogger());
}

TEST(CorvaneLog, ErrorAndWarningReachTheSinkWithTheirLevel) {
  CapturedLog log;
  CorvaneLog::defaultLogger().logError("CS_CC - something failed");
  CorvaneLog::defaultLogger().logWarning("CS- something odd");
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[0].first, LogLevel::error);
  EXPECT_EQ(log.lines[0].second, "CS_CC - something failed");
  EXPECT_EQ(log.lines[1].first, LogLevel::warning);
  EXPECT_EQ(log.lines[1].second, "CS- something odd");
}

TEST(CorvaneLog, CVNLogErrorFormatsLikePrintf) {
  CapturedLog log;
  CVNLogError("value %d of %s.  Done", 42, "forty-two");
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].first, LogLevel::error);
  EXPECT_EQ(log.lines[0].second, "value 42 of forty-two.  Done");
}

TEST(CorvaneLog, CVNLogErrorHandlesLongLines) {
  CapturedLog log;
  const std::string longText(10000, 'x');
  CVNLogError("%s", longText.c_str());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].second, longText);
}

TEST(CorvaneLog, DefaultSinkWritesOneLineToStderr) {
  CorvaneLog::defaultLogger().setSink(nullptr);
  testing::internal::CaptureStderr();
  CorvaneLog::defaultLogger().logWarning("CS- to stderr");
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_NE(written.find("CS- to stderr"), std::string::npos);
  EXPECT_EQ(written.back(), '\n');
  EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 1);
}

TEST(Version, NumberAndTextAreOnePointZero) {
  EXPECT_DOUBLE_EQ(CorvaneSecurityVersionNumber, 1.0);
  EXPECT_STREQ(CorvaneSecurityVersionString, "1.0");
}

}  // namespace
}  // namespace corvane
