// A ReadObserver that sleeps when a file's read starts, so that runs over small files last long
// enough to be stopped or destroyed midway.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "corvane/FileSetHasher.hpp"

namespace corvane::testsupport {

class SlowStartObserver : public ReadObserver {
 public:
  explicit SlowStartObserver(std::chrono::milliseconds pause) : pause_(pause) {}
  void readStarted(const std::string&, std::uint64_t) override {
    std::this_thread::sleep_for(pause_);
  }

 private:
  std::chrono::milliseconds pause_;
};

}  // namespace corvane::testsupport
