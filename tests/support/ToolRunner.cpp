#include "support/ToolRunner.hpp"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "support/ScratchDirectory.hpp"

namespace corvane::testsupport {

std::string shellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

RunResult runShell(const std::string& command, const std::filesystem::path& errPath) {
  RunResult result;
  const std::string full =
      errPath.empty() ? command : command + " 2>" + shellQuote(errPath.string());
  FILE* pipe = ::popen(full.c_str(), "r");
  if (pipe == nullptr) {
    return result;
  }
  std::array<char, 65536> buffer{};
  std::size_t n = 0;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
    result.out.append(buffer.data(), n);
  }
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (!errPath.empty()) {
    result.err = readFile(errPath);
  }
  return result;
}

RunResult runTool(const std::vector<std::string>& arguments, const std::string& prefix) {
  ScratchDirectory scratch;
  std::string command = prefix + shellQuote(kToolPath);
  for (const auto& argument : arguments) {
    command += ' ';
    command += shellQuote(argument);
  }
  return runShell(command, scratch.path() / "stderr");
}

std::string toolCommand(const std::vector<std::string>& arguments, const std::string& prefix) {
  std::string command = prefix + shellQuote(kToolPath);
  for (const auto& argument : arguments) {
    command += ' ';
    command += shellQuote(argument);
  }
  return command;
}

RunResult runToolWithInput(const std::filesystem::path& directory,
                           const std::vector<std::string>& arguments, const std::string& input) {
  ScratchDirectory scratch;
  const std::string inputPath = scratch.writeText("stdin", input);
  return runShell("cd " + shellQuote(directory.string()) + " && " + toolCommand(arguments) + " <" +
                      shellQuote(inputPath),
                  scratch.path() / "stderr");
}

bool haveProgram(const std::string& name) {
  return runShell("command -v " + name + " >/dev/null 2>&1").status == 0;
}

std::string pseudoRandomBytes(std::size_t size, std::uint64_t seed) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    byte = static_cast<char>(seed >> 56);
  }
  return bytes;
}

}  // namespace corvane::testsupport
