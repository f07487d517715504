// BuiltinSample: the small set of files corvane-checksum checksums when it is run without
// arguments, so that a plain run shows every algorithm at work.
//
// The files are written into a fresh directory under the system's temporary directory and
// removed again (directory included) when the BuiltinSample is destroyed:
// - "empty": zero bytes;
// - "quick-brown-fox.txt": the 43 bytes "The quick brown fox jumps over the lazy dog" (no
//   newline);
// - "pattern-1MiB.bin": 1,048,576 bytes from a 32-bit linear congruential generator
//   (state = state * 1664525 + 1013904223, the constants of Numerical Recipes, starting from
//   state 1); each byte is the top eight bits of the state after one step.
#pragma once

#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace corvane::tool {

class BuiltinSample {
 public:
  // Writes the sample files and describes them on `log`. Throws std::filesystem::filesystem_error
  // or std::runtime_error when the directory or a file cannot be written (after removing what
  // was written).
  static std::unique_ptr<BuiltinSample> create(std::ostream& log);

  ~BuiltinSample();
  BuiltinSample(const BuiltinSample&) = delete;
  BuiltinSample& operator=(const BuiltinSample&) = delete;

  const std::filesystem::path& directory() const { return directory_; }
  // The sample files in the order listed above.
  const std::vector<std::string>& paths() const { return paths_; }

 private:
  explicit BuiltinSample(std::filesystem::path directory) : directory_(std::move(directory)) {}

  std::filesystem::path directory_;
  std::vector<std::string> paths_;
};

}  // namespace corvane::tool
