// The exit statuses shared by every command of corvane-checksum.
#pragma once

#include <ostream>
#include <string>

namespace corvane::tool {

inline constexpr int kExitOk = 0;
// A checksum mismatch, or a file that is missing or cannot be read.
inline constexpr int kExitFailed = 1;
// Bad usage, or (check) a list without properly formatted lines.
inline constexpr int kExitUsage = 2;
// (compare) Files missing in or new in the destination, and nothing worse.
inline constexpr int kExitMissingOrNew = 3;
// Standard output could not be written (a full disk, say): what was printed is incomplete,
// whatever the run found. A reader that goes away ends the process by SIGPIPE instead.
inline constexpr int kExitWriteError = 4;

inline constexpr const char* kProgramName = "corvane-checksum";

// Reports a usage error the same way for every command; returns kExitUsage.
inline int usageError(std::ostream& err, const std::string& message) {
  err << kProgramName << ": " << message << "\nRun with --help for more information.\n";
  return kExitUsage;
}

}  // namespace corvane::tool
