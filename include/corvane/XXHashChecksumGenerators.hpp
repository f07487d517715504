// The xxHash family: xxHash64 (the default algorithm), XXH3-64 and XXH3-128, all with seed 0.
//
// Each generator owns its xxHash streaming state exclusively: created and reset in the
// constructor, freed in the destructor (also when the generator was never finalized).
// Texts are the canonical big-endian hex forms, zero-filled: 16, 16 and 32 digits.
#pragma once

#include "corvane/CorvaneChecksumGenerator.hpp"

namespace corvane {

class CORVANE_API CorvaneChecksumGeneratorXXHash64 : public CorvaneStreamingChecksumGenerator {
 public:
  CorvaneChecksumGeneratorXXHash64();
  ~CorvaneChecksumGeneratorXXHash64() override;

  // The library's XXH64_state_t*, owned by this generator.
  void* checksumState() const noexcept { return checksumState_; }
  void setChecksumState(void* state) noexcept { checksumState_ = state; }

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;

 private:
  void* checksumState_ = nullptr;
};

class CORVANE_API CorvaneChecksumGeneratorXXHashH364 : public CorvaneStreamingChecksumGenerator {
 public:
  CorvaneChecksumGeneratorXXHashH364();
  ~CorvaneChecksumGeneratorXXHashH364() override;

  // The library's XXH3_state_t*, owned by this generator.
  void* checksumState() const noexcept { return checksumState_; }
  void setChecksumState(void* state) noexcept { checksumState_ = state; }

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;

 private:
  void* checksumState_ = nullptr;
};

class CORVANE_API CorvaneChecksumGeneratorXXHashH3128 : public CorvaneStreamingChecksumGenerator {
 public:
  CorvaneChecksumGeneratorXXHashH3128();
  ~CorvaneChecksumGeneratorXXHashH3128() override;

  // The library's XXH3_state_t*, owned by this generator.
  void* checksumState() const noexcept { return checksumState_; }
  void setChecksumState(void* state) noexcept { checksumState_ = state; }

 protected:
  void absorb(const std::uint8_t* bytes, std::size_t length) override;
  std::optional<std::string> finishChecksumText() override;

 private:
  void* checksumState_ = nullptr;
};

}  // namespace corvane
