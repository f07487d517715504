// FileHasher: all requested checksums of one file, in one pass, with a precise reason when a file
// cannot be checksummed.
//
// The library's file form reports no errors (a file it cannot open simply yields no checksum),
// so the file is examined first with stat() and open() to name the reason the way the coreutils
// tools do ("No such file or directory", "Permission denied", "Is a directory"). Then one
// corvane::ChecksumGenerator run reads the file once for every algorithm.
#pragma once

#include <string>
#include <vector>

#include "AlgorithmNames.hpp"

namespace corvane::tool {

struct FileChecksum {
  const AlgorithmName* algorithm;
  std::string checksum;
};

struct FileResult {
  std::string path;
  // In the order of the hasher's algorithms; only those that produced a checksum.
  std::vector<FileChecksum> checksums;
  // Human-readable reasons, empty when every algorithm produced a checksum.
  std::vector<std::string> errors;

  bool ok() const { return errors.empty(); }
};

class FileHasher {
 public:
  // `algorithms` must be non-empty and hold no duplicates (see parseAlgorithmList). Asks the
  // library once which of them have a generator.
  explicit FileHasher(std::vector<const AlgorithmName*> algorithms);

  const std::vector<const AlgorithmName*>& algorithms() const { return algorithms_; }

  // Checksums the file at `path`. Never throws for file problems; they end up in errors.
  FileResult hash(const std::string& path) const;

 private:
  std::vector<const AlgorithmName*> algorithms_;
  std::vector<bool> available_;  // parallel to algorithms_
};

}  // namespace corvane::tool
