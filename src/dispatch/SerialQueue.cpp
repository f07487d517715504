#include "dispatch/SerialQueue.hpp"

#include <exception>
#include <future>

#include "corvane/Exception.hpp"
#include "dispatch/WorkerPool.hpp"
#include "util/Fatal.hpp"

namespace corvane::dispatch {

void runTaskOrTerminate(const std::function<void()>& task) noexcept {
  try {
    task();
  } catch (const Exception& exception) {
    detail::fatalUncaughtException(exception);
  } catch (const std::exception& exception) {
    detail::fatalUncaughtException(Exception("std::exception", exception.what()));
  } catch (...) {
    detail::fatalError("unknown exception escaped a queued task");
  }
}

namespace {
// The queue whose tasks the current thread has promised to run itself (see CallerDrainsScope).
thread_local const SerialQueue* queueDrainedByThisThread = nullptr;
}  // namespace

CallerDrainsScope::CallerDrainsScope(const std::shared_ptr<SerialQueue>& queue) noexcept
    : previous_(queueDrainedByThisThread) {
  queueDrainedByThisThread = queue.get();
}

CallerDrainsScope::~CallerDrainsScope() { queueDrainedByThisThread = previous_; }

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label)));
}

void SerialQueue::async(Task task) {
  std::unique_lock lock(mutex_);
  tasks_.push_back(std::move(task));
  if (draining_ || jobScheduled_) return;        // whoever holds the queue will get to it
  if (queueDrainedByThisThread == this) return;  // the caller runs it itself right after
  jobScheduled_ = true;
  lock.unlock();
  WorkerPool::shared().submit([self = shared_from_this()] {
    std::unique_lock jobLock(self->mutex_);
    self->jobScheduled_ = false;
    if (self->draining_) return;  // a waiting thread is running the tasks itself
    self->drain(jobLock);
  });
}

void SerialQueue::drain(std::unique_lock<std::mutex>& lock) {
  draining_ = true;
  while (!tasks_.empty()) {
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    runTaskOrTerminate(task);
    task = nullptr;  // drop the task's references before taking the next one
    lock.lock();
  }
  draining_ = false;
}

bool SerialQueue::runPendingTasksHere() {
  std::unique_lock lock(mutex_);
  if (draining_) return false;
  drain(lock);
  return true;
}

void SerialQueue::sync(Task task) {
  std::promise<void> done;
  auto finished = done.get_future();
  async([&task, &done] {
    runTaskOrTerminate(task);
    done.set_value();
  });
  runPendingTasksHere();
  finished.wait();
}

}  // namespace corvane::dispatch
