// A counting semaphore (wait blocks without time limit while the count is zero).
#pragma once

#include <semaphore>

namespace corvane::dispatch {

class CountingSemaphore {
 public:
  explicit CountingSemaphore(std::ptrdiff_t initial) : semaphore_(initial) {}
  void wait() { semaphore_.acquire(); }
  // Non-blocking wait; false when the count is zero.
  bool tryWait() { return semaphore_.try_acquire(); }
  void signal() { semaphore_.release(); }

 private:
  std::counting_semaphore<> semaphore_;
};

}  // namespace corvane::dispatch
