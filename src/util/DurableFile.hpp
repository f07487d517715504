// DurableFile: files the library writes (ASC MHL manifests and chains, copies) reach their final
// name complete or not at all, and stay there after a crash or a power cut.
//
// The bytes go to a hidden temporary name in the same folder, are flushed to the disk (fsync),
// and only then is the temporary renamed to the final name, after which the folder itself is
// flushed so that the rename survives too. A crash at any moment leaves either the old state
// (no file, or the old file) or the new one, plus at worst a temporary that
// removeStaleTemporaries() clears on the next run.
#pragma once

#include <string>
#include <string_view>

namespace corvane::detail {

enum class ReplacePolicy {
  replace,       // the final name may exist and is replaced atomically (a chain file)
  neverReplace,  // an existing final name is an error (EEXIST), never touched (a manifest)
};

struct DurableWriteError {
  int code = 0;         // errno; 0 when the write succeeded
  std::string message;  // "<path>: <strerror>" naming the step that failed
  explicit operator bool() const { return code != 0; }
};

// Writes `bytes` to `path` as described above. On failure nothing is left at `path` that was not
// there before, and the temporary is removed.
DurableWriteError writeFileDurably(const std::string& path, std::string_view bytes,
                                   ReplacePolicy policy);

// The prefix of the temporaries writeFileDurably() leaves behind when it is killed.
inline constexpr std::string_view kTemporaryPrefix = ".corvane-tmp-";

// Removes the temporaries a killed writer left in `folder`; the number removed.
int removeStaleTemporaries(const std::string& folder);

// fsync of a folder, so that names created or renamed in it are on the disk.
DurableWriteError syncFolder(const std::string& folder);

}  // namespace corvane::detail
