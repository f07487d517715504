// The xxHash functions exported by libCorvaneSecurity under their usual names. Each forwards to
// the build of xxHash chosen for this CPU (see XXHashDispatch.cpp). States are laid out the
// same in every build, so a state may move between builds.
#pragma GCC visibility push(default)
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>
#pragma GCC visibility pop

#include "checksum/xxhash/XXHashDispatch.hpp"
#include "checksum/xxhash/XXHashFunctionTable.h"

extern "C" {
#pragma GCC visibility push(default)
#define CORVANE_XXH_FORWARD(ret, name, params, args) \
  ret name params { return corvane::detail::activeXXHashTable().fn_##name args; }
CORVANE_XXH_FUNCTIONS(CORVANE_XXH_FORWARD)
#undef CORVANE_XXH_FORWARD
#pragma GCC visibility pop
}
