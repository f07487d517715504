// Helpers shared by the fuzz targets.
//
// A broken invariant names itself (file, line, condition) on stderr and aborts, so libFuzzer keeps
// the input as a crash artifact and the run fails. Library log lines are expected for many
// malformed inputs (an unknown protocol-buffer number, an undecodable composite pair); they are
// dropped so that they do not drown libFuzzer's own output.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "corvane/CorvaneLog.hpp"

#define CORVANE_FUZZ_CHECK(condition)                                                        \
  do {                                                                                       \
    if (!(condition)) {                                                                      \
      std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                          \
    }                                                                                        \
  } while (0)

namespace corvane::fuzz {

inline void silenceLibraryLog() {
  CorvaneLog::defaultLogger().setSink([](LogLevel, const std::string&) {});
}

}  // namespace corvane::fuzz
