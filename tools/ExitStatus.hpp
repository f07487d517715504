// The exit statuses shared by every command of corvane-checksum.
#pragma once

namespace corvane::tool {

inline constexpr int kExitOk = 0;
// A checksum mismatch, or a file that is missing or cannot be read.
inline constexpr int kExitFailed = 1;
// Bad usage, or (check) a list without properly formatted lines.
inline constexpr int kExitUsage = 2;
// (compare) Files missing in or new in the destination, and nothing worse.
inline constexpr int kExitMissingOrNew = 3;

inline constexpr const char* kProgramName = "corvane-checksum";

}  // namespace corvane::tool
