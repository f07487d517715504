// The shared library exports xxHash's public functions under their usual names.
#include <dlfcn.h>
#include <gtest/gtest.h>

#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

#include <string>
#include <vector>

#include "checksum/xxhash/XXHashFunctionTable.h"

namespace {

std::vector<std::string> exportedNames() {
  std::vector<std::string> names;
#define CORVANE_XXH_NAME(ret, name, params, args) names.emplace_back(#name);
  CORVANE_XXH_FUNCTIONS(CORVANE_XXH_NAME)
#undef CORVANE_XXH_NAME
  return names;
}

TEST(XXHashExports, SharedLibraryExportsEveryPublicXXHashFunction) {
  void* library = dlopen(CORVANE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto names = exportedNames();
  EXPECT_GE(names.size(), 49u);
  for (const std::string& name : names) {
    EXPECT_NE(dlsym(library, name.c_str()), nullptr) << name << " is not exported";
  }
  // The exported functions compute: XXH64 of "abc" with seed 0 is 44bc2cf5ad770999 (xxhsum -H1).
  using XXH64Function = XXH64_hash_t (*)(const void*, size_t, XXH64_hash_t);
  auto xxh64 = reinterpret_cast<XXH64Function>(dlsym(library, "XXH64"));
  ASSERT_NE(xxh64, nullptr);
  EXPECT_EQ(xxh64("abc", 3, 0), 0x44bc2cf5ad770999ULL);
  dlclose(library);
}

TEST(XXHashExports, OnlyPublicApiIsExportedBesidesXXHash) {
  void* library = dlopen(CORVANE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  // Internal names stay hidden.
  EXPECT_EQ(dlsym(library, "corvane_xxhash_table_sse2"), nullptr);
  EXPECT_EQ(dlsym(library, "corvane_xxhash_table_avx512"), nullptr);
  dlclose(library);
}

}  // namespace
