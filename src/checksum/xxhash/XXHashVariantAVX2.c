/* xxHash compiled for AVX2; the build gives this file the matching -m flags. */
#define XXH_STATIC_LINKING_ONLY
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "checksum/xxhash/XXHashFunctionTable.h"

#if XXH_VECTOR != XXH_AVX2
#error "xxHash did not pick the AVX2 code path for this translation unit"
#endif

const CorvaneXXHashFunctionTable corvane_xxhash_table_avx2 = {
    CORVANE_XXH_FUNCTIONS(CORVANE_XXH_TABLE_ENTRY)};
