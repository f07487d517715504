// DeviceReaderLimits: at most N files read at once from one storage device, so that a spinning
// disk is read one file after another (seeking between files costs more than it gains) while
// SSDs and NVMe drives, which want several requests in flight, are read in parallel.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <stop_token>

namespace corvane::engine {

class DeviceReaderLimits {
 public:
  // `fixedLimit` readers per device, or 0: each device's suggestedReadersForDevice(), where 0
  // means no limit of its own; `overall` bounds a device without a limit of its own.
  DeviceReaderLimits(unsigned fixedLimit, unsigned overall);

  // Waits for a reading slot on `device`; false when `stop` was requested first.
  bool acquire(std::uint64_t device, const std::stop_token& stop);
  void release(std::uint64_t device);

 private:
  struct Device {
    unsigned limit = 0;
    unsigned active = 0;
  };
  Device& deviceLocked(std::uint64_t device);

  unsigned fixedLimit_;
  unsigned overall_;
  std::mutex mutex_;
  std::condition_variable_any freed_;
  std::map<std::uint64_t, Device> devices_;
};

}  // namespace corvane::engine
