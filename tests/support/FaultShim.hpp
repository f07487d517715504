// Making one destination folder fail in the middle of a run: the environment that preloads the
// fault shim (tests/support/faultshim/FaultShim.c, which documents the behaviour in full) into a
// program started from a shell line.
//
//   const std::string line = faultShimEnvironment({.prefix = destination, .afterBytes = 10000}) +
//                            toolCommand({"copy", source, destination, other});
//   const RunResult result = runShell(line, scratch.file("stderr"));
//
// The first 10000 bytes written to files under `destination` land, the write that crosses the
// limit is cut short, and from then on writes, opens for writing, renames into it, fsync, ... fail
// with ENOSPC; `other` is not touched. The budget is counted per process.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/ToolRunner.hpp"

#ifndef CORVANE_FAULT_SHIM_PATH
#define CORVANE_FAULT_SHIM_PATH ""
#endif

namespace corvane::testsupport {

// The built shim (libcorvane_fault_shim.so); empty when the tests were built without it.
inline constexpr const char* kFaultShimPath = CORVANE_FAULT_SHIM_PATH;

// Skips the calling test when the shim was not built.
#define SKIP_WITHOUT_FAULT_SHIM()                                               \
  do {                                                                          \
    if (std::string(::corvane::testsupport::kFaultShimPath).empty()) {          \
      GTEST_SKIP() << "the fault shim was not built (CORVANE_FAULT_SHIM_PATH)"; \
    }                                                                           \
  } while (false)

struct FaultSettings {
  // Files at or under this absolute path are affected.
  std::filesystem::path prefix;
  // Bytes that may be written there before writes start to fail.
  std::uint64_t afterBytes = 0;
  // The errno of the failures: "ENOSPC" (full drive), "EIO" (removed drive), "EACCES", "EROFS".
  std::string errnoName = "ENOSPC";
};

// The variable assignments to put in front of a command in a shell line (ending in a space), so
// that the command runs with the shim preloaded and configured by `settings`.
//
// LD_PRELOAD keeps what the test's own environment preloads, after the shim. Programs built with
// AddressSanitizer refuse to start when another library is loaded before the sanitizer's runtime,
// which a preloaded library always is with g++ (its runtime is a shared library): ASAN_OPTIONS
// gets verify_asan_link_order=0 added to the options already in force. ThreadSanitizer makes no
// such check and needs nothing. The shim passes every call it makes on to the next definition
// (RTLD_NEXT), so the sanitizers' own interceptors still see every call.
inline std::string faultShimEnvironment(const FaultSettings& settings) {
  const auto inherited = [](const char* name) -> std::string {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
  };
  std::string preload = kFaultShimPath;
  if (const std::string others = inherited("LD_PRELOAD"); !others.empty()) {
    preload += ":" + others;
  }
  std::string asanOptions = inherited("ASAN_OPTIONS");
  if (!asanOptions.empty()) asanOptions += ':';
  asanOptions += "verify_asan_link_order=0";
  // Appended piece by piece: g++ 12 -O3 warns (-Wrestrict, wrongly) on "literal" + std::string&&.
  std::string environment = "LD_PRELOAD=";
  environment += shellQuote(preload);
  environment += " CORVANE_FAULT_PREFIX=";
  environment += shellQuote(settings.prefix.string());
  environment += " CORVANE_FAULT_AFTER_BYTES=";
  environment += std::to_string(settings.afterBytes);
  environment += " CORVANE_FAULT_ERRNO=";
  environment += shellQuote(settings.errnoName);
  environment += " ASAN_OPTIONS=";
  environment += shellQuote(asanOptions);
  environment += ' ';
  return environment;
}

}  // namespace corvane::testsupport
