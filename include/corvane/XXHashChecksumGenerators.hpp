// The xxHash family: xxHash64 (the default algorithm), XXH3-64 and XXH3-128, all with seed 0.
//
// Each generator owns its xxHash streaming state exclusively: created and reset in the
// constructor, freed in the destructor (also when the generator was never finalized).
// Texts are the canonical big-endian hex forms, zero-filled: 16, 16 and 32 digits.
#pragma once

#include "corvane/CorvaneChecksumGenerator.hpp"

namespace corvane {

// What the three xxHash generators share: ownership of the library's streaming state.
class CORVANE_API CorvaneChecksumGeneratorXXHashState : public CorvaneStreamingChecksumGenerator {
 public:
  // The library's XXH64_state_t* or XXH3_state_t*, owned by this generator.
  void* checksumState() const noexcept { return checksumState_; }
  void setChecksumState(void* state) noexcept { checksumState_ = state; }

 private:
  void* checksumState_ = nullptr;
};

class CORVANE_API CorvaneChecksumGeneratorXXHash64 : public CorvaneChecksumGeneratorXXHashState {
 public:
  CorvaneChecksumGeneratorXXHash64();
  ~CorvaneChecksumGeneratorXXHash64() override;

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;
};

class CORVANE_API CorvaneChecksumGeneratorXXHashH364 : public CorvaneChecksumGeneratorXXHashState {
 public:
  CorvaneChecksumGeneratorXXHashH364();
  ~CorvaneChecksumGeneratorXXHashH364() override;

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;
};

class CORVANE_API CorvaneChecksumGeneratorXXHashH3128 : public CorvaneChecksumGeneratorXXHashState {
 public:
  CorvaneChecksumGeneratorXXHashH3128();
  ~CorvaneChecksumGeneratorXXHashH3128() override;

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;
};

}  // namespace corvane
