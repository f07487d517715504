#include "OrderedParallelRun.hpp"

#include <algorithm>
#include <atomic>
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

  std::vector<char> finished(count, 0);
  std::mutex mutex;
  std::condition_variable finishedChanged;
  std::atomic<std::size_t> next{0};

  auto worker = [&] {
    for (std::size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1)) {
      work(i);
      {
        const std::lock_guard lock(mutex);
        finished[i] = 1;
      }
      finishedChanged.notify_all();
    }
  };

  std::vector<std::jthread> threads;
  const std::size_t threadCount = std::min<std::size_t>(jobs, count);
  threads.reserve(threadCount);
  for (std::size_t t = 0; t < threadCount; ++t) threads.emplace_back(worker);

  for (std::size_t i = 0; i < count; ++i) {
    {
      std::unique_lock lock(mutex);
      finishedChanged.wait(lock, [&] { return finished[i] != 0; });
    }
    deliver(i);
  }
}

}  // namespace corvane::tool
