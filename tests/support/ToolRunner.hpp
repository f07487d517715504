// Running the built corvane-checksum program, and the shell commands the tool tests compare it
// with, from the tool tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#ifndef CORVANE_TOOL_PATH
#define CORVANE_TOOL_PATH ""
#endif

namespace corvane::testsupport {

// The path of the built corvane-checksum program; empty when it was not built.
inline constexpr const char* kToolPath = CORVANE_TOOL_PATH;

// Skips the calling test when corvane-checksum was not built.
#define SKIP_WITHOUT_TOOL()                                                 \
  do {                                                                      \
    if (std::string(::corvane::testsupport::kToolPath).empty()) {           \
      GTEST_SKIP() << "corvane-checksum was not built (CORVANE_TOOL_PATH)"; \
    }                                                                       \
  } while (false)

// `text` in single quotes for the shell, each quote in it written as '\''.
std::string shellQuote(const std::string& text);

// The whole content of the file at `path`, byte for byte; "" when it cannot be read.
std::string readFile(const std::filesystem::path& path);

struct RunResult {
  std::string out;
  std::string err;
  int status = -1;
};

// Runs a shell command, returning its stdout and exit status; stderr goes to `errPath` if given.
RunResult runShell(const std::string& command, const std::filesystem::path& errPath = {});

// Runs the tool with `arguments`; `prefix` is put in front of the command line (e.g. a program
// that runs it as another user).
RunResult runTool(const std::vector<std::string>& arguments, const std::string& prefix = "");

// The shell command line that runs the tool with `arguments`, each one quoted; `prefix` as for
// runTool.
std::string toolCommand(const std::vector<std::string>& arguments, const std::string& prefix = "");

// Runs the tool with `arguments` in the working directory `directory`, with standard input read
// from a file holding `input`; stderr is captured through a file.
RunResult runToolWithInput(const std::filesystem::path& directory,
                           const std::vector<std::string>& arguments, const std::string& input);

// `size` deterministic bytes that are not a short repeating pattern (the top byte of a 64-bit
// linear congruential generator started at `seed`), as file content for the tool.
std::string pseudoRandomBytes(std::size_t size, std::uint64_t seed);

// Whether the shell finds a program called `name`.
bool haveProgram(const std::string& name);

}  // namespace corvane::testsupport
