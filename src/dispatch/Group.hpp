// A counting latch: enter() before handing work over, leave() when it is done, wait() until
// every enter has been matched by a leave (no time limit).
//
// wait(queue) first runs the queue's pending tasks on the waiting thread when no worker holds
// it, so handing a small buffer to a generator and waiting costs no thread wake-up.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

namespace corvane::dispatch {

class SerialQueue;

class Group {
 public:
  void enter();
  void leave();
  void wait();
  void wait(const std::shared_ptr<SerialQueue>& helpQueue);

 private:
  std::mutex mutex_;
  std::condition_variable allLeft_;
  long count_ = 0;
};

}  // namespace corvane::dispatch
