#include "OrderedParallelRun.hpp"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace corvane::tool {

unsigned defaultJobCount() { return std::max(1U, std::thread::hardware_concurrency()); }

void runOrderedInParallel(std::size_t count, unsigned jobs,
                          const std::function<void(std::size_t)>& work,
                          const std::function<void(std::size_t)>& deliver) {
  if (jobs <= 1 || count <= 1) {
    for (std::size_t i = 0; i < count; ++i) {
      work(i);
      deliver(i);
    }
    return;
  }

  // The calling thread is one of the `jobs` workers: between pieces of work it delivers what is
  // ready, and it sleeps only when it has nothing to deliver and nothing left to take. Helpers
  // wake it only then, so a run of many small files costs no thread switch per file.
  std::vector<char> finished(count, 0);
  std::mutex mutex;
  std::condition_variable deliverable;
  std::size_t next = 0;  // the next piece of work to take
  bool callerWaiting = false;

  auto take = [&](std::unique_lock<std::mutex>&) -> std::size_t {
    return next < count ? next++ : count;
  };

  auto helper = [&] {
    std::unique_lock lock(mutex);
    for (std::size_t i = take(lock); i < count; i = take(lock)) {
      lock.unlock();
      work(i);
      lock.lock();
      finished[i] = 1;
      if (callerWaiting) deliverable.notify_one();
    }
  };
  std::vector<std::jthread> helpers;
  const std::size_t helperCount = std::min<std::size_t>(jobs, count) - 1;
  helpers.reserve(helperCount);
  for (std::size_t t = 0; t < helperCount; ++t) helpers.emplace_back(helper);

  std::unique_lock lock(mutex);
  for (std::size_t delivered = 0; delivered < count;) {
    if (finished[delivered]) {
      lock.unlock();
      deliver(delivered++);
      lock.lock();
      continue;
    }
    if (const std::size_t i = take(lock); i < count) {
      lock.unlock();
      work(i);
      lock.lock();
      finished[i] = 1;
      continue;
    }
    callerWaiting = true;
    deliverable.wait(lock, [&] { return finished[delivered] != 0; });
    callerWaiting = false;
  }
}

}  // namespace corvane::tool
