// Which build of xxHash runs XXH3.
//
// The library carries xxHash compiled for three instruction sets and picks the best one the CPU
// supports when first used. Results are identical; only speed differs. Forcing a variant is for
// tests and benchmarks; it affects the whole process and must not race with hashing.
#pragma once

#include <string>

#include "corvane/Export.hpp"

namespace corvane {

enum class XXHashImplementation { sse2, avx2, avx512 };

// The variant in use.
CORVANE_API XXHashImplementation activeXXHashImplementation();
// True when this CPU (and OS) can run `variant`.
CORVANE_API bool isXXHashImplementationSupported(XXHashImplementation variant);
// Selects `variant`; returns false (and changes nothing) when it is not supported here.
CORVANE_API bool forceXXHashImplementation(XXHashImplementation variant);
// "sse2", "avx2" or "avx512".
CORVANE_API std::string xxHashImplementationName(XXHashImplementation variant);

}  // namespace corvane
