// The shared, elastic pool of worker threads on which all serial queues run.
//
// Jobs never wait for a free worker: when every worker is busy (or blocked inside a job), a new
// worker is started, so a job that blocks on work queued behind it cannot deadlock the pool.
// Idle workers retire after a short while. Creating queues creates no thread.
#pragma once

#include <cstddef>
#include <functional>

namespace corvane::dispatch {

class WorkerPool {
 public:
  using Job = std::function<void()>;

  // The process-wide pool (created on first use, never destroyed).
  static WorkerPool& shared();

  // Runs `job` on a worker thread, starting a worker if none is idle.
  void submit(Job job);

  // Number of live worker threads (for tests and benchmarks).
  std::size_t workerCount() const;
  // Total number of workers ever started (for tests).
  std::size_t workersStarted() const;

 private:
  WorkerPool() = default;
  struct State;
  State& state() const;
};

}  // namespace corvane::dispatch
