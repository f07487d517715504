#include "support/ScratchDirectory.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

namespace corvane::testsupport {

ScratchDirectory::ScratchDirectory() {
  std::string pattern = ::testing::TempDir() + "corvane-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed: " << std::strerror(errno);
    return;
  }
  path_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
  if (path_.empty()) return;
  std::error_code ignored;
  // A test may have taken permissions away; the owner needs them back to remove the content.
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDirectory::file(const std::string& name) const {
  return (path_ / name).string();
}

std::string ScratchDirectory::writeFile(const std::string& name, const Bytes& content) const {
  const std::string path = file(name);
  testsupport::writeFile(path, content);
  return path;
}

void writeFile(const std::string& path, const Bytes& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(content.data()),
            static_cast<std::streamsize>(content.size()));
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
}

}  // namespace corvane::testsupport
