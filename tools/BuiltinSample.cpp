#include "BuiltinSample.hpp"

#include <stdlib.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace corvane::tool {
namespace {

constexpr std::string_view kFoxText = "The quick brown fox jumps over the lazy dog";
constexpr std::size_t kPatternSize = 1024 * 1024;

std::string patternBytes() {
  std::string bytes(kPatternSize, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

void writeFile(const std::filesystem::path& path, std::string_view contents) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

}  // namespace

std::unique_ptr<BuiltinSample> BuiltinSample::create(std::ostream& log) {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "corvane-checksum-sample-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::filesystem::filesystem_error("cannot create a temporary directory", pattern,
                                            std::error_code(errno, std::generic_category()));
  }
  std::unique_ptr<BuiltinSample> sample(new BuiltinSample(pattern));
  log << "# Writing sample files to " << sample->directory_.string() << ":\n";

  struct SampleFile {
    std::string_view name;
    std::string contents;
    std::string description;
  };
  const SampleFile files[] = {
      {"empty", "", ""},
      {"quick-brown-fox.txt", std::string(kFoxText), "the text \"" + std::string(kFoxText) + "\""},
      {"pattern-1MiB.bin", patternBytes(), "a deterministic byte pattern"},
  };
  for (const auto& file : files) {
    const auto path = sample->directory_ / file.name;
    writeFile(path, file.contents);
    sample->paths_.push_back(path.string());
    log << "#   " << file.name << ": " << file.contents.size() << " bytes";
    if (!file.description.empty()) {
      log << ", " << file.description;
    }
    log << '\n';
  }
  return sample;
}

BuiltinSample::~BuiltinSample() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

}  // namespace corvane::tool
