// A fresh directory for the files of one test, under the test temporary directory.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "corvane/Bytes.hpp"

namespace corvane::testsupport {

// Created (mkdtemp) on construction, removed with its content at the end (permissions a test took
// away given back first). A directory that cannot be created fails the calling test.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // The path of `name` in this directory; nothing is created.
  std::string file(const std::string& name) const;
  // Writes `content` to a new file `name` in this directory (a relative path; missing parent
  // directories are created) and returns its path. A failed write fails the calling test.
  std::string writeFile(const std::string& name, const Bytes& content) const;
  // writeFile with the bytes of `content` (any bytes, not only text).
  std::string writeText(const std::string& name, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

// Writes `content` to `path`, replacing what was there. A failed write fails the calling test.
void writeFile(const std::string& path, const Bytes& content);

}  // namespace corvane::testsupport
