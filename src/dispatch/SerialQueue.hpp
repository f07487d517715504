// A serial first-in first-out task queue, multiplexed on the shared WorkerPool.
//
// Tasks run one at a time, in submission order. A queue holds no thread of its own: when it has
// work and nobody is draining it, one pool job is submitted to drain it.
//
// runPendingTasksHere() lets a thread that is about to wait for this queue run the pending tasks
// itself, when no worker currently holds the queue. FIFO order and one-task-at-a-time still hold;
// the waiting thread saves the cost of waking a worker (about 40 microseconds on small VMs).
//
// An exception escaping a task ends the process after printing the exception's name and reason.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace corvane::dispatch {

class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  using Task = std::function<void()>;

  static std::shared_ptr<SerialQueue> create(std::string label);

  const std::string& label() const noexcept { return label_; }

  // Appends `task`; returns at once.
  void async(Task task);
  // Appends `task` and returns once it has run (runs it here when the queue is free).
  void sync(Task task);
  // Drains pending tasks on the calling thread if no other thread holds the queue.
  // Returns true if the queue was free (whether or not there were tasks).
  bool runPendingTasksHere();

 private:
  explicit SerialQueue(std::string label) : label_(std::move(label)) {}
  void drain(std::unique_lock<std::mutex>& lock);

  std::string label_;
  std::mutex mutex_;
  std::deque<Task> tasks_;
  bool draining_ = false;      // a thread is running this queue's tasks
  bool jobScheduled_ = false;  // a pool job for this queue was submitted and has not started
};

// While alive, tasks that this thread adds to `queue` are not handed to the worker pool: the
// thread promises to run them itself right after (Group::wait(queue) or runPendingTasksHere()).
// This saves waking a worker for work the caller is about to wait for. Only for a hand-off that
// cannot block before the drain (one chunk or one finalization at a time).
class CallerDrainsScope {
 public:
  explicit CallerDrainsScope(const std::shared_ptr<SerialQueue>& queue) noexcept;
  ~CallerDrainsScope();
  CallerDrainsScope(const CallerDrainsScope&) = delete;
  CallerDrainsScope& operator=(const CallerDrainsScope&) = delete;

 private:
  const SerialQueue* previous_;
};

// Runs `task`, ending the process if it throws (printing name and reason).
void runTaskOrTerminate(const std::function<void()>& task) noexcept;

}  // namespace corvane::dispatch
