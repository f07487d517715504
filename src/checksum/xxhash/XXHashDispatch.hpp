// Run-time choice among the builds of xxHash.
#pragma once

#include "checksum/xxhash/XXHashFunctionTable.h"

namespace corvane::detail {

// The table of the build in use (chosen on first call from the CPU's features).
const CorvaneXXHashFunctionTable& activeXXHashTable() noexcept;

}  // namespace corvane::detail
