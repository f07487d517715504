#include "FileHasher.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <unordered_map>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"

namespace corvane::tool {
namespace {

// The reason the file cannot be read, or nothing when it can. A directory opens fine with
// O_RDONLY, so it is named explicitly; O_NONBLOCK keeps the probe from hanging on a FIFO.
std::optional<std::string> reasonFileIsUnreadable(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return std::string(std::strerror(errno));
  }
  if (S_ISDIR(status.st_mode)) {
    return std::string(std::strerror(EISDIR));
  }
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    return std::string(std::strerror(errno));
  }
  ::close(descriptor);
  return std::nullopt;
}

}  // namespace

FileHasher::FileHasher(std::vector<const AlgorithmName*> algorithms)
    : algorithms_(std::move(algorithms)) {
  available_.reserve(algorithms_.size());
  for (const AlgorithmName* algorithm : algorithms_) {
    available_.push_back(CorvaneChecksumGenerator::checksumGeneratorForType(algorithm->type) !=
                         nullptr);
  }
}

FileResult FileHasher::hash(const std::string& path) const {
  FileResult result{.path = path, .checksums = {}, .errors = {}};
  if (auto reason = reasonFileIsUnreadable(path)) {
    result.errors.push_back(std::move(*reason));
    return result;
  }

  std::vector<ChecksumType> types;
  types.reserve(algorithms_.size());
  for (const AlgorithmName* algorithm : algorithms_) {
    types.push_back(algorithm->type);
  }
  std::unordered_map<ChecksumType, std::string> supplied;
  ChecksumGenerator(std::move(types))
      .generateChecksumsForFile(
          path, [](float, std::uint64_t, bool*) {},
          [&supplied](const std::string& text, ChecksumType type) { supplied[type] = text; });

  for (std::size_t i = 0; i < algorithms_.size(); ++i) {
    const AlgorithmName* algorithm = algorithms_[i];
    if (auto found = supplied.find(algorithm->type); found != supplied.end()) {
      result.checksums.push_back({algorithm, std::move(found->second)});
    } else if (!available_[i]) {
      result.errors.push_back("algorithm not available: " + std::string(algorithm->cliName));
    } else {
      // The file passed the checks above but the library could not read it after all (it was
      // removed or changed in between).
      result.errors.push_back("no " + std::string(algorithm->cliName) +
                              " checksum produced (file could not be read)");
    }
  }
  return result;
}

}  // namespace corvane::tool
