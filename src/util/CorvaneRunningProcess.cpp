#include "corvane/CorvaneRunningProcess.hpp"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace corvane {
namespace {

// Size of the path buffer, as for the platform's PATH_MAX-sized path queries.
constexpr std::size_t kPathBufferSize = 4096;

// The ids of the numeric entries of /proc, ascending. Entries that are not all digits ("self",
// "sys", ...) are not processes. An unreadable /proc gives an empty list.
std::vector<std::int32_t> listProcessIds() {
  std::vector<std::int32_t> pids;
  std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc"), closedir);
  if (!directory) return pids;
  while (const dirent* entry = readdir(directory.get())) {
    const char* name = entry->d_name;
    if (*name == '\0') continue;
    std::int64_t value = 0;
    bool numeric = true;
    for (const char* c = name; *c != '\0'; ++c) {
      if (*c < '0' || *c > '9' || value > INT32_MAX) {
        numeric = false;
        break;
      }
      value = value * 10 + (*c - '0');
    }
    if (numeric && value > 0 && value <= INT32_MAX)
      pids.push_back(static_cast<std::int32_t>(value));
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

// The command name from /proc/<pid>/comm without its line feed, or null when it cannot be read.
std::optional<std::string> commandName(std::int32_t pid) {
  char fileName[64];
  std::snprintf(fileName, sizeof fileName, "/proc/%d/comm", static_cast<int>(pid));
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(fileName, "re"), std::fclose);
  if (!file) return std::nullopt;
  char buffer[256] = {};
  if (std::fgets(buffer, sizeof buffer, file.get()) == nullptr) return std::nullopt;
  std::string name(buffer);
  if (!name.empty() && name.back() == '\n') name.pop_back();
  return name;
}

}  // namespace

std::optional<std::string> CorvaneRunningProcess::processPathForPid(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  char linkName[64];
  std::snprintf(linkName, sizeof linkName, "/proc/%d/exe", static_cast<int>(pid));
  // Zeroed buffer, one byte kept for the terminator; an empty result counts as no path.
  char buffer[kPathBufferSize] = {};
  const ssize_t length = readlink(linkName, buffer, sizeof buffer - 1);
  if (length <= 0 || buffer[0] == '\0') return std::nullopt;
  return std::string(buffer, static_cast<std::size_t>(length));
}

void CorvaneRunningProcess::enumerateRunningProcessPaths(const PathBlock& block) {
  const std::vector<std::int32_t> pids = listProcessIds();
  bool stop = false;
  for (const std::int32_t pid : pids) {
    if (pid == 0) continue;
    std::optional<std::string> path = processPathForPid(pid);
    if (path) path = "path: " + *path + "\n";
    block(pid, path, &stop);
    if (stop) return;
  }
}

void CorvaneRunningProcess::enumerateRunningProcesses(const ProcessBlock& block) {
  const std::vector<std::int32_t> pids = listProcessIds();
  bool stop = false;
  for (const std::int32_t pid : pids) {
    const std::optional<std::string> name = commandName(pid);
    if (!name) continue;  // ended since the listing
    block(pid, *name, processPathForPid(pid), &stop);
    if (stop) return;
  }
}

}  // namespace corvane
