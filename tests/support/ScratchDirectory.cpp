#include "support/ScratchDirectory.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

#include "support/Vectors.hpp"

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
  // Each directory gets them back before the walk goes into it.
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::error_code walk;
  for (std::filesystem::recursive_directory_iterator entry(path_, walk), end; !walk && entry != end;
       entry.increment(walk)) {
    std::filesystem::permissions(entry->path(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
  }
  std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDirectory::file(const std::string& name) const {
  return (path_ / name).string();
}

std::string ScratchDirectory::writeFile(const std::string& name, const Bytes& content) const {
  const std::string path = file(name);
  std::error_code ignored;  // a failure to create them shows as a failed write
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  testsupport::writeFile(path, content);
  return path;
}

std::string ScratchDirectory::writeText(const std::string& name, std::string_view content) const {
  return writeFile(name, bytesOf(content));
}

void writeFile(const std::string& path, const Bytes& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(content.data()),
            static_cast<std::streamsize>(content.size()));
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
}

}  // namespace corvane::testsupport
