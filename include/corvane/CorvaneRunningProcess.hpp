// CorvaneRunningProcess: lists the processes running on the machine with their ids, command names
// and executable paths.
//
// On Linux the lists come from the process file system: one numeric entry of /proc per process,
// its "comm" file for the command name and its "exe" link for the executable path. The class
// keeps no state; every call takes a fresh snapshot and reports the processes one by one, in
// ascending id order, to a caller-supplied block on the calling thread. The block may end the
// walk by setting the stop flag it is handed (owned by the enumerator, false before the walk).
//
// No operation reports errors: a process whose executable path cannot be read (a kernel thread,
// a process of another user without the right to look, one that ended meanwhile) has a null path,
// and a /proc that cannot be read gives an empty walk. All operations may run on any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "corvane/Export.hpp"

namespace corvane {

class CORVANE_API CorvaneRunningProcess {
 public:
  // (process id, "path: <path>\n" or null, stop flag).
  using PathBlock =
      std::function<void(std::int32_t pid, const std::optional<std::string>& path, bool* stop)>;
  // (process id, command name, bare path or null, stop flag).
  using ProcessBlock = std::function<void(std::int32_t pid, const std::string& name,
                                          const std::optional<std::string>& path, bool* stop)>;

  CorvaneRunningProcess() = delete;

  // Calls `block` once per running process. The path text carries the label "path: " and a
  // trailing line feed; it is null when the path is unknown. Process id 0 is never reported.
  static void enumerateRunningProcessPaths(const PathBlock& block);

  // The bare executable path of process `pid` (at most 4095 bytes), or null when the process does
  // not exist or its path cannot be read.
  static std::optional<std::string> processPathForPid(std::int32_t pid);

  // Calls `block` once per running process with its id, its command name (the kernel's short
  // name, at most 15 bytes on Linux) and its bare path from processPathForPid(). A process that
  // ends before its name is read is left out.
  static void enumerateRunningProcesses(const ProcessBlock& block);
};

}  // namespace corvane
