/* The public functions of xxHash as a table of pointers, filled once per instruction-set build
 * (XXHashVariant*.c) and used by the exported forwarding functions (XXHashExports.cpp).
 * X(return type, name, parameter list, argument list) */
#ifndef CORVANE_XXHASH_FUNCTION_TABLE_H
#define CORVANE_XXHASH_FUNCTION_TABLE_H

#define CORVANE_XXH_FUNCTIONS(X)                                                                \
  X(unsigned, XXH_versionNumber, (void), ())                                                    \
  X(XXH32_hash_t, XXH32, (const void* input, size_t length, XXH32_hash_t seed),                 \
    (input, length, seed))                                                                      \
  X(XXH32_state_t*, XXH32_createState, (void), ())                                              \
  X(XXH_errorcode, XXH32_freeState, (XXH32_state_t * statePtr), (statePtr))                     \
  X(void, XXH32_copyState, (XXH32_state_t * dst, const XXH32_state_t* src), (dst, src))         \
  X(XXH_errorcode, XXH32_reset, (XXH32_state_t * statePtr, XXH32_hash_t seed), (statePtr, seed)) \
  X(XXH_errorcode, XXH32_update, (XXH32_state_t * statePtr, const void* input, size_t length),  \
    (statePtr, input, length))                                                                  \
  X(XXH32_hash_t, XXH32_digest, (const XXH32_state_t* statePtr), (statePtr))                    \
  X(void, XXH32_canonicalFromHash, (XXH32_canonical_t * dst, XXH32_hash_t hash), (dst, hash))   \
  X(XXH32_hash_t, XXH32_hashFromCanonical, (const XXH32_canonical_t* src), (src))               \
  X(XXH64_hash_t, XXH64, (const void* input, size_t length, XXH64_hash_t seed),                 \
    (input, length, seed))                                                                      \
  X(XXH64_state_t*, XXH64_createState, (void), ())                                              \
  X(XXH_errorcode, XXH64_freeState, (XXH64_state_t * statePtr), (statePtr))                     \
  X(void, XXH64_copyState, (XXH64_state_t * dst, const XXH64_state_t* src), (dst, src))         \
  X(XXH_errorcode, XXH64_reset, (XXH64_state_t * statePtr, XXH64_hash_t seed), (statePtr, seed)) \
  X(XXH_errorcode, XXH64_update, (XXH64_state_t * statePtr, const void* input, size_t length),  \
    (statePtr, input, length))                                                                  \
  X(XXH64_hash_t, XXH64_digest, (const XXH64_state_t* statePtr), (statePtr))                    \
  X(void, XXH64_canonicalFromHash, (XXH64_canonical_t * dst, XXH64_hash_t hash), (dst, hash))   \
  X(XXH64_hash_t, XXH64_hashFromCanonical, (const XXH64_canonical_t* src), (src))               \
  X(XXH64_hash_t, XXH3_64bits, (const void* data, size_t len), (data, len))                     \
  X(XXH64_hash_t, XXH3_64bits_withSeed, (const void* data, size_t len, XXH64_hash_t seed),      \
    (data, len, seed))                                                                          \
  X(XXH64_hash_t, XXH3_64bits_withSecret,                                                       \
    (const void* data, size_t len, const void* secret, size_t secretSize),                      \
    (data, len, secret, secretSize))                                                            \
  X(XXH3_state_t*, XXH3_createState, (void), ())                                                \
  X(XXH_errorcode, XXH3_freeState, (XXH3_state_t * statePtr), (statePtr))                       \
  X(void, XXH3_copyState, (XXH3_state_t * dst, const XXH3_state_t* src), (dst, src))            \
  X(XXH_errorcode, XXH3_64bits_reset, (XXH3_state_t * statePtr), (statePtr))                    \
  X(XXH_errorcode, XXH3_64bits_reset_withSeed, (XXH3_state_t * statePtr, XXH64_hash_t seed),    \
    (statePtr, seed))                                                                           \
  X(XXH_errorcode, XXH3_64bits_reset_withSecret,                                                \
    (XXH3_state_t * statePtr, const void* secret, size_t secretSize),                           \
    (statePtr, secret, secretSize))                                                             \
  X(XXH_errorcode, XXH3_64bits_update, (XXH3_state_t * statePtr, const void* input, size_t length), \
    (statePtr, input, length))                                                                  \
  X(XXH64_hash_t, XXH3_64bits_digest, (const XXH3_state_t* statePtr), (statePtr))               \
  X(XXH128_hash_t, XXH3_128bits, (const void* data, size_t len), (data, len))                   \
  X(XXH128_hash_t, XXH3_128bits_withSeed, (const void* data, size_t len, XXH64_hash_t seed),    \
    (data, len, seed))                                                                          \
  X(XXH128_hash_t, XXH3_128bits_withSecret,                                                     \
    (const void* data, size_t len, const void* secret, size_t secretSize),                      \
    (data, len, secret, secretSize))                                                            \
  X(XXH_errorcode, XXH3_128bits_reset, (XXH3_state_t * statePtr), (statePtr))                   \
  X(XXH_errorcode, XXH3_128bits_reset_withSeed, (XXH3_state_t * statePtr, XXH64_hash_t seed),   \
    (statePtr, seed))                                                                           \
  X(XXH_errorcode, XXH3_128bits_reset_withSecret,                                               \
    (XXH3_state_t * statePtr, const void* secret, size_t secretSize),                           \
    (statePtr, secret, secretSize))                                                             \
  X(XXH_errorcode, XXH3_128bits_update,                                                         \
    (XXH3_state_t * statePtr, const void* input, size_t length), (statePtr, input, length))     \
  X(XXH128_hash_t, XXH3_128bits_digest, (const XXH3_state_t* statePtr), (statePtr))             \
  X(int, XXH128_isEqual, (XXH128_hash_t h1, XXH128_hash_t h2), (h1, h2))                        \
  X(int, XXH128_cmp, (const void* h128_1, const void* h128_2), (h128_1, h128_2))                \
  X(void, XXH128_canonicalFromHash, (XXH128_canonical_t * dst, XXH128_hash_t hash), (dst, hash)) \
  X(XXH128_hash_t, XXH128_hashFromCanonical, (const XXH128_canonical_t* src), (src))            \
  X(XXH128_hash_t, XXH128, (const void* data, size_t len, XXH64_hash_t seed), (data, len, seed)) \
  X(XXH_errorcode, XXH3_generateSecret,                                                         \
    (void* secretBuffer, size_t secretSize, const void* customSeed, size_t customSeedSize),     \
    (secretBuffer, secretSize, customSeed, customSeedSize))                                     \
  X(void, XXH3_generateSecret_fromSeed, (void* secretBuffer, XXH64_hash_t seed),                \
    (secretBuffer, seed))                                                                       \
  X(XXH64_hash_t, XXH3_64bits_withSecretandSeed,                                                \
    (const void* data, size_t len, const void* secret, size_t secretSize, XXH64_hash_t seed),   \
    (data, len, secret, secretSize, seed))                                                      \
  X(XXH128_hash_t, XXH3_128bits_withSecretandSeed,                                              \
    (const void* data, size_t len, const void* secret, size_t secretSize, XXH64_hash_t seed64), \
    (data, len, secret, secretSize, seed64))                                                    \
  X(XXH_errorcode, XXH3_64bits_reset_withSecretandSeed,                                         \
    (XXH3_state_t * statePtr, const void* secret, size_t secretSize, XXH64_hash_t seed64),      \
    (statePtr, secret, secretSize, seed64))                                                     \
  X(XXH_errorcode, XXH3_128bits_reset_withSecretandSeed,                                        \
    (XXH3_state_t * statePtr, const void* secret, size_t secretSize, XXH64_hash_t seed64),      \
    (statePtr, secret, secretSize, seed64))

#define CORVANE_XXH_TABLE_MEMBER(ret, name, params, args) ret(*fn_##name) params;
typedef struct CorvaneXXHashFunctionTable {
  CORVANE_XXH_FUNCTIONS(CORVANE_XXH_TABLE_MEMBER)
} CorvaneXXHashFunctionTable;
#undef CORVANE_XXH_TABLE_MEMBER

#define CORVANE_XXH_TABLE_ENTRY(ret, name, params, args) name,

#ifdef __cplusplus
extern "C" {
#endif
extern const CorvaneXXHashFunctionTable corvane_xxhash_table_sse2;
extern const CorvaneXXHashFunctionTable corvane_xxhash_table_avx2;
extern const CorvaneXXHashFunctionTable corvane_xxhash_table_avx512;
#ifdef __cplusplus
}
#endif

#endif
