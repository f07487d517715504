#include "checksum/HashLanes.hpp"

#include <cstdlib>

namespace corvane::detail {

bool lanePathSupported(LanePath path) {
  // __builtin_cpu_supports also checks (XGETBV) that the operating system saves the registers.
  switch (path) {
    case LanePath::scalar:
      return true;
    case LanePath::avx2:
      return __builtin_cpu_supports("avx2") != 0;
    case LanePath::avx512:
      return __builtin_cpu_supports("avx512f") != 0;
  }
  return false;
}

unsigned laneCount(LanePath path) {
  switch (path) {
    case LanePath::avx512:
      return 16;
    case LanePath::avx2:
      return 8;
    case LanePath::scalar:
      break;
  }
  return 1;
}

std::string_view lanePathName(LanePath path) {
  switch (path) {
    case LanePath::avx512:
      return "avx512";
    case LanePath::avx2:
      return "avx2";
    case LanePath::scalar:
      break;
  }
  return "scalar";
}

std::optional<LanePath> lanePathNamed(std::string_view name) {
  for (const LanePath path : {LanePath::scalar, LanePath::avx2, LanePath::avx512}) {
    if (name == lanePathName(path)) return path;
  }
  return std::nullopt;
}

LanePath lanePathFromEnvironment(const char* variable, LanePath preferred,
                                 std::initializer_list<LanePath> fallbacks) {
  LanePath wanted = preferred;
  if (const char* forced = std::getenv(variable)) {
    if (const std::optional<LanePath> named = lanePathNamed(forced)) wanted = *named;
  }
  if (lanePathSupported(wanted)) return wanted;
  for (const LanePath fallback : fallbacks) {
    if (fallback < wanted && lanePathSupported(fallback)) return fallback;
  }
  return LanePath::scalar;
}

}  // namespace corvane::detail
