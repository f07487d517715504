#include "dispatch/Group.hpp"

#include "dispatch/SerialQueue.hpp"

namespace corvane::dispatch {

void Group::enter() {
  std::lock_guard lock(mutex_);
  ++count_;
}

void Group::leave() {
  std::lock_guard lock(mutex_);
  if (--count_ == 0) allLeft_.notify_all();
}

void Group::wait() {
  std::unique_lock lock(mutex_);
  allLeft_.wait(lock, [&] { return count_ == 0; });
}

void Group::wait(const std::shared_ptr<SerialQueue>& helpQueue) {
  // Always offer to drain: tasks handed over under a CallerDrainsScope run only here.
  if (helpQueue) helpQueue->runPendingTasksHere();
  wait();
}

}  // namespace corvane::dispatch
