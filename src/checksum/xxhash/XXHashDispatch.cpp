// clang-format off
// xxhash.h (with its full state types) must come before the function table that names them.
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>
#include "checksum/xxhash/XXHashDispatch.hpp"
// clang-format on

#include <atomic>

#include "corvane/XXHashImplementation.hpp"

namespace corvane {
namespace {

const CorvaneXXHashFunctionTable& tableFor(XXHashImplementation variant) {
  switch (variant) {
    case XXHashImplementation::avx512:
      return corvane_xxhash_table_avx512;
    case XXHashImplementation::avx2:
      return corvane_xxhash_table_avx2;
    default:
      return corvane_xxhash_table_sse2;
  }
}

XXHashImplementation bestSupported() {
  if (isXXHashImplementationSupported(XXHashImplementation::avx512)) {
    return XXHashImplementation::avx512;
  }
  if (isXXHashImplementationSupported(XXHashImplementation::avx2)) {
    return XXHashImplementation::avx2;
  }
  return XXHashImplementation::sse2;
}

// Encoded as int + 1 so that 0 means "not chosen yet".
std::atomic<int> chosenVariant{0};

XXHashImplementation chosen() {
  int value = chosenVariant.load(std::memory_order_acquire);
  if (value == 0) {
    int best = static_cast<int>(bestSupported()) + 1;
    chosenVariant.compare_exchange_strong(value, best, std::memory_order_acq_rel);
    value = chosenVariant.load(std::memory_order_acquire);
  }
  return static_cast<XXHashImplementation>(value - 1);
}

}  // namespace

bool isXXHashImplementationSupported(XXHashImplementation variant) {
  __builtin_cpu_init();
  switch (variant) {
    case XXHashImplementation::avx512:
      // The AVX-512 build may use any of these; the CPU check includes the OS's register support.
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
             __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
    case XXHashImplementation::avx2:
      return __builtin_cpu_supports("avx2");
    case XXHashImplementation::sse2:
      return true;  // part of x86-64
  }
  return false;
}

XXHashImplementation activeXXHashImplementation() { return chosen(); }

bool forceXXHashImplementation(XXHashImplementation variant) {
  if (!isXXHashImplementationSupported(variant)) return false;
  chosenVariant.store(static_cast<int>(variant) + 1, std::memory_order_release);
  return true;
}

std::string xxHashImplementationName(XXHashImplementation variant) {
  switch (variant) {
    case XXHashImplementation::avx512:
      return "avx512";
    case XXHashImplementation::avx2:
      return "avx2";
    case XXHashImplementation::sse2:
      return "sse2";
  }
  return "unknown";
}

namespace detail {

const CorvaneXXHashFunctionTable& activeXXHashTable() noexcept { return tableFor(chosen()); }

}  // namespace detail
}  // namespace corvane
