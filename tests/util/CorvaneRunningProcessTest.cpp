#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <optional>
#include <string>

#include "corvane/CorvaneRunningProcess.hpp"

namespace corvane {
namespace {

// The test program's own executable path, read independently of the library.
std::string ownExecutablePath() {
  char buffer[4096] = {};
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  EXPECT_GT(length, 0);
  return std::string(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
}

// The kernel keeps at most 15 bytes of a command name.
std::string expectedCommandName() {
  const std::string path = ownExecutablePath();
  return path.substr(path.rfind('/') + 1).substr(0, 15);
}

TEST(CorvaneRunningProcess, ProcessPathForOwnPidIsTheBareExecutablePath) {
  const std::optional<std::string> path = CorvaneRunningProcess::processPathForPid(getpid());
  ASSERT_TRUE(path.has_value());
  EXPECT_EQ(*path, ownExecutablePath());
  EXPECT_NE(path->rfind("path: ", 0), 0u);
  EXPECT_NE(path->back(), '\n');
}

TEST(CorvaneRunningProcess, ProcessPathForMissingPidIsNull) {
  // Linux process ids never exceed 2^22 (pid_max's upper bound), so these do not exist.
  EXPECT_FALSE(CorvaneRunningProcess::processPathForPid(INT32_MAX).has_value());
  EXPECT_FALSE(CorvaneRunningProcess::processPathForPid(4194305).has_value());
  EXPECT_FALSE(CorvaneRunningProcess::processPathForPid(0).has_value());
  EXPECT_FALSE(CorvaneRunningProcess::processPathForPid(-1).has_value());
}

TEST(CorvaneRunningProcess, EnumerateRunningProcessesFindsTheTestProcess) {
  const std::int32_t ownPid = getpid();
  int sightings = 0;
  std::int32_t previousPid = 0;
  CorvaneRunningProcess::enumerateRunningProcesses([&](std::int32_t pid, const std::string& name,
                                                       const std::optional<std::string>& path,
                                                       bool* stop) {
    EXPECT_NE(stop, nullptr);
    EXPECT_FALSE(*stop);
    EXPECT_GT(pid, previousPid);
    previousPid = pid;
    if (path) {
      EXPECT_NE(path->rfind("path: ", 0), 0u);
      EXPECT_NE(path->back(), '\n');
    }
    if (pid != ownPid) return;
    ++sightings;
    EXPECT_EQ(name, expectedCommandName());
    ASSERT_TRUE(path.has_value());
    EXPECT_EQ(*path, ownExecutablePath());
  });
  EXPECT_EQ(sightings, 1);
}

TEST(CorvaneRunningProcess, EnumerateRunningProcessPathsLabelsPathsAndEndsThemWithLineFeed) {
  const std::int32_t ownPid = getpid();
  int sightings = 0;
  int withPath = 0;
  CorvaneRunningProcess::enumerateRunningProcessPaths(
      [&](std::int32_t pid, const std::optional<std::string>& path, bool* stop) {
        EXPECT_NE(pid, 0);
        EXPECT_FALSE(*stop);
        if (path) {
          ++withPath;
          EXPECT_EQ(path->rfind("path: ", 0), 0u) << *path;
          EXPECT_EQ(path->back(), '\n');
        }
        if (pid != ownPid) return;
        ++sightings;
        ASSERT_TRUE(path.has_value());
        EXPECT_EQ(*path, "path: " + ownExecutablePath() + "\n");
      });
  EXPECT_EQ(sightings, 1);
  EXPECT_GE(withPath, 1);
}

TEST(CorvaneRunningProcess, StopOnFirstCallOfEnumerateRunningProcessesCallsBlockOnce) {
  int calls = 0;
  CorvaneRunningProcess::enumerateRunningProcesses(
      [&](std::int32_t, const std::string&, const std::optional<std::string>&, bool* stop) {
        ++calls;
        *stop = true;
      });
  EXPECT_EQ(calls, 1);
}

TEST(CorvaneRunningProcess, StopOnFirstCallOfEnumerateRunningProcessPathsCallsBlockOnce) {
  int calls = 0;
  CorvaneRunningProcess::enumerateRunningProcessPaths(
      [&](std::int32_t, const std::optional<std::string>&, bool* stop) {
        ++calls;
        *stop = true;
      });
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace corvane
