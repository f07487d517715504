#include "dispatch/WorkerPool.hpp"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace corvane::dispatch {

namespace {
// A worker without a job for this long leaves the pool.
constexpr auto kIdleRetirement = std::chrono::seconds(2);
}  // namespace

struct WorkerPool::State {
  std::mutex mutex;
  std::condition_variable jobAvailable;
  std::deque<Job> jobs;
  std::size_t idleWorkers = 0;
  std::size_t liveWorkers = 0;
  std::size_t startedWorkers = 0;

  void workerLoop() {
    std::unique_lock lock(mutex);
    for (;;) {
      while (jobs.empty()) {
        ++idleWorkers;
        const bool woke =
            jobAvailable.wait_for(lock, kIdleRetirement, [&] { return !jobs.empty(); });
        --idleWorkers;
        if (!woke) {
          --liveWorkers;
          return;
        }
      }
      Job job = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      job();
      job = nullptr;  // release captured references outside the lock
      lock.lock();
    }
  }
};

WorkerPool& WorkerPool::shared() {
  // Never destroyed: detached workers may still touch it while the process exits.
  static WorkerPool* pool = new WorkerPool();
  return *pool;
}

WorkerPool::State& WorkerPool::state() const {
  static State* state = new State();
  return *state;
}

void WorkerPool::submit(Job job) {
  State& s = state();
  std::unique_lock lock(s.mutex);
  s.jobs.push_back(std::move(job));
  // Every queued job needs a worker of its own that is free now; otherwise start one, so a job
  // that blocks until a later job has run can never starve the pool.
  if (s.jobs.size() > s.idleWorkers) {
    ++s.liveWorkers;
    ++s.startedWorkers;
    lock.unlock();
    std::thread([&s] { s.workerLoop(); }).detach();
  } else {
    lock.unlock();
    s.jobAvailable.notify_one();
  }
}

std::size_t WorkerPool::workerCount() const {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.liveWorkers;
}

std::size_t WorkerPool::workersStarted() const {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.startedWorkers;
}

}  // namespace corvane::dispatch
