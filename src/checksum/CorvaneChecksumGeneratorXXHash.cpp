// The xxHash generators. They call xxHash through the names this library exports, which run the
// build of xxHash chosen for this CPU.
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

#include "checksum/HexText.hpp"
#include "corvane/XXHashChecksumGenerators.hpp"

namespace corvane {

// --- xxHash64 ---------------------------------------------------------------------------------

CorvaneChecksumGeneratorXXHash64::CorvaneChecksumGeneratorXXHash64() {
  setChecksumType(ChecksumTypeXXHash64);
  setChecksumState(nullptr);
  XXH64_state_t* state = XXH64_createState();
  XXH64_reset(state, 0);
  setChecksumState(state);
}

CorvaneChecksumGeneratorXXHash64::~CorvaneChecksumGeneratorXXHash64() {
  if (checksumState() != nullptr) {
    XXH64_freeState(static_cast<XXH64_state_t*>(checksumState()));
    setChecksumState(nullptr);
  }
}

void CorvaneChecksumGeneratorXXHash64::absorb(const std::uint8_t* bytes, std::size_t length) {
  auto* state = static_cast<XXH64_state_t*>(checksumState());
  XXH64_update(state, bytes, length);
  setChecksumState(state);
}

std::optional<std::string> CorvaneChecksumGeneratorXXHash64::finishChecksumText() {
  const XXH64_hash_t digest = XXH64_digest(static_cast<XXH64_state_t*>(checksumState()));
  // "%08x%08x": upper 32 bits first, so the text is the canonical big-endian form.
  return detail::hexText(digest >> 32, 8) + detail::hexText(digest & 0xFFFFFFFFu, 8);
}

// --- XXH3 64-bit ------------------------------------------------------------------------------

CorvaneChecksumGeneratorXXHashH364::CorvaneChecksumGeneratorXXHashH364() {
  setChecksumType(ChecksumTypeXXHashH364);
  setChecksumState(nullptr);
  XXH3_state_t* state = XXH3_createState();
  XXH3_64bits_reset_withSeed(state, 0);
  setChecksumState(state);
}

CorvaneChecksumGeneratorXXHashH364::~CorvaneChecksumGeneratorXXHashH364() {
  if (checksumState() != nullptr) {
    XXH3_freeState(static_cast<XXH3_state_t*>(checksumState()));
    setChecksumState(nullptr);
  }
}

void CorvaneChecksumGeneratorXXHashH364::absorb(const std::uint8_t* bytes, std::size_t length) {
  auto* state = static_cast<XXH3_state_t*>(checksumState());
  XXH3_64bits_update(state, bytes, length);
  setChecksumState(state);
}

std::optional<std::string> CorvaneChecksumGeneratorXXHashH364::finishChecksumText() {
  return detail::hexText(XXH3_64bits_digest(static_cast<XXH3_state_t*>(checksumState())), 16);
}

// --- XXH3 128-bit -----------------------------------------------------------------------------

CorvaneChecksumGeneratorXXHashH3128::CorvaneChecksumGeneratorXXHashH3128() {
  setChecksumType(ChecksumTypeXXHashH3128);
  setChecksumState(nullptr);
  XXH3_state_t* state = XXH3_createState();
  XXH3_128bits_reset_withSeed(state, 0);
  setChecksumState(state);
}

CorvaneChecksumGeneratorXXHashH3128::~CorvaneChecksumGeneratorXXHashH3128() {
  if (checksumState() != nullptr) {
    XXH3_freeState(static_cast<XXH3_state_t*>(checksumState()));
    setChecksumState(nullptr);
  }
}

void CorvaneChecksumGeneratorXXHashH3128::absorb(const std::uint8_t* bytes, std::size_t length) {
  auto* state = static_cast<XXH3_state_t*>(checksumState());
  XXH3_128bits_update(state, bytes, length);
  setChecksumState(state);
}

std::optional<std::string> CorvaneChecksumGeneratorXXHashH3128::finishChecksumText() {
  const XXH128_hash_t digest = XXH3_128bits_digest(static_cast<XXH3_state_t*>(checksumState()));
  // "%016llx%016llx": high 64 bits first.
  return detail::hexText(digest.high64, 16) + detail::hexText(digest.low64, 16);
}

}  // namespace corvane
