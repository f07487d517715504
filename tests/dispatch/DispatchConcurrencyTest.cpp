// The dispatch layer under concurrent use: serial queues multiplexed on the shared worker pool,
// the counting latch (Group), the counting semaphore, the pool's growth and retirement, and the
// fate of an exception that escapes a queued task.
//
// Timing is used only in one direction: "still blocked after N ms" may be asserted, never
// "finished within N ms" (except as a generous time-out that turns a deadlock into a failure).
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/Exception.hpp"
#include "dispatch/CountingSemaphore.hpp"
#include "dispatch/Group.hpp"
#include "dispatch/SerialQueue.hpp"
#include "dispatch/WorkerPool.hpp"

namespace corvane::dispatch {
namespace {

using namespace std::chrono_literals;

// Generous bound after which a wait is declared a deadlock.
constexpr auto kDeadlockTimeout = 30s;
// How long something must stay blocked to count as blocked.
constexpr auto kStillBlocked = 200ms;

std::shared_ptr<SerialQueue> makeQueue() { return SerialQueue::create("com.corvane.test.queue"); }

// Waits until every task queued on `queue` so far has run.
void drainQueue(const std::shared_ptr<SerialQueue>& queue) {
  queue->sync([] {});
}

// Number of threads of this process, from /proc/self/task.
std::size_t threadCount() {
  std::size_t count = 0;
  if (DIR* directory = ::opendir("/proc/self/task")) {
    while (const dirent* entry = ::readdir(directory)) {
      if (entry->d_name[0] != '.') ++count;
    }
    ::closedir(directory);
  }
  return count;
}

// A task that blocks its queue until released, reporting when it has started.
class Blocker {
 public:
  Blocker() : startedFuture_(started_.get_future()), released_(release_.get_future().share()) {}

  SerialQueue::Task task() {
    return [this, released = released_] {
      started_.set_value();
      released.wait();
    };
  }
  bool waitUntilStarted() {
    return startedFuture_.wait_for(kDeadlockTimeout) == std::future_status::ready;
  }
  void release() { release_.set_value(); }

 private:
  std::promise<void> started_;
  std::future<void> startedFuture_;
  std::promise<void> release_;
  std::shared_future<void> released_;
};

// ---------------------------------------------------------------------------------------------
// SerialQueue

TEST(SerialQueue, TasksRunInSubmissionOrderAcrossManyProducers) {
  // Producers take a ticket and submit under one lock, so the submission order is the ticket
  // order; the queue must run the tasks in exactly that order.
  auto queue = makeQueue();
  constexpr int kProducers = 8;
  constexpr int kTasksEach = 500;
  std::mutex submitMutex;
  int nextTicket = 0;
  std::vector<int> ran;  // touched by queue tasks only, one at a time
  ran.reserve(kProducers * kTasksEach);

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&] {
      for (int i = 0; i < kTasksEach; ++i) {
        std::lock_guard lock(submitMutex);
        const int ticket = nextTicket++;
        queue->async([&ran, ticket] { ran.push_back(ticket); });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  drainQueue(queue);

  ASSERT_EQ(ran.size(), std::size_t(kProducers * kTasksEach));
  for (int i = 0; i < kProducers * kTasksEach; ++i) ASSERT_EQ(ran[i], i) << "position " << i;
}

TEST(SerialQueue, EachProducersTasksKeepTheirOrderWithoutALock) {
  auto queue = makeQueue();
  constexpr int kProducers = 8;
  constexpr int kTasksEach = 1000;
  std::vector<std::pair<int, int>> ran;  // (producer, sequence), touched by queue tasks only

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kTasksEach; ++i) queue->async([&ran, p, i] { ran.emplace_back(p, i); });
    });
  }
  for (auto& producer : producers) producer.join();
  drainQueue(queue);

  ASSERT_EQ(ran.size(), std::size_t(kProducers * kTasksEach));
  std::vector<int> next(kProducers, 0);
  for (const auto& [producer, sequence] : ran) {
    ASSERT_EQ(sequence, next[producer]) << "producer " << producer;
    ++next[producer];
  }
}

TEST(SerialQueue, RunsOneTaskAtATime) {
  // Producers also call runPendingTasksHere(), so workers and waiting threads compete for the
  // queue; still no two tasks may overlap.
  auto queue = makeQueue();
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> completed{0};
  constexpr int kProducers = 4;
  constexpr int kTasksEach = 500;

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&] {
      for (int i = 0; i < kTasksEach; ++i) {
        queue->async([&] {
          if (running.fetch_add(1) != 0) overlaps.fetch_add(1);
          std::this_thread::yield();
          running.fetch_sub(1);
          completed.fetch_add(1);
        });
        if (i % 7 == 0) queue->runPendingTasksHere();
      }
    });
  }
  for (auto& producer : producers) producer.join();
  drainQueue(queue);
  EXPECT_EQ(completed.load(), kProducers * kTasksEach);
  EXPECT_EQ(overlaps.load(), 0);
}

TEST(SerialQueue, RunPendingTasksHereKeepsOrderAndFinishesEverythingQueuedBefore) {
  // Whoever wins the queue (this thread or a worker), the tasks run in order, and a call that
  // returns true has run every task queued before it.
  constexpr int kTrials = 100;
  constexpr int kTasks = 20;
  int ranHereAtLeastOnce = 0;
  for (int trial = 0; trial < kTrials; ++trial) {
    auto queue = makeQueue();
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int i = 0; i < kTasks; ++i) {
      queue->async([&order, &threads, i] {
        order.push_back(i);
        threads.push_back(std::this_thread::get_id());
      });
    }
    while (!queue->runPendingTasksHere()) std::this_thread::yield();
    ASSERT_EQ(order.size(), std::size_t(kTasks)) << "trial " << trial;
    for (int i = 0; i < kTasks; ++i) ASSERT_EQ(order[i], i) << "trial " << trial;
    for (const auto& id : threads) {
      if (id == std::this_thread::get_id()) {
        ++ranHereAtLeastOnce;
        break;
      }
    }
  }
  // Waking a worker takes tens of microseconds, so the calling thread, already awake, gets to
  // the pending tasks first in practice.
  EXPECT_GT(ranHereAtLeastOnce, 0);
}

TEST(SerialQueue, RunPendingTasksHereReturnsFalseWhileAWorkerHoldsTheQueue) {
  auto queue = makeQueue();
  Blocker blocker;
  queue->async(blocker.task());
  ASSERT_TRUE(blocker.waitUntilStarted());

  std::atomic<bool> laterTaskRan{false};
  queue->async([&] { laterTaskRan = true; });
  EXPECT_FALSE(queue->runPendingTasksHere());
  EXPECT_FALSE(laterTaskRan.load());  // not run here behind the worker's back

  blocker.release();
  drainQueue(queue);
  EXPECT_TRUE(laterTaskRan.load());
  // The worker lets go of the queue right after its last task; from then on the queue is free.
  const auto deadline = std::chrono::steady_clock::now() + kDeadlockTimeout;
  bool free = queue->runPendingTasksHere();
  while (!free && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    free = queue->runPendingTasksHere();
  }
  EXPECT_TRUE(free);
}

TEST(SerialQueue, SyncReturnsAfterItsTaskAndEveryEarlierTaskRan) {
  auto queue = makeQueue();
  std::vector<int> order;
  for (int i = 0; i < 10; ++i) queue->async([&order, i] { order.push_back(i); });
  queue->sync([&order] { order.push_back(10); });
  ASSERT_EQ(order.size(), 11u);
  for (int i = 0; i <= 10; ++i) EXPECT_EQ(order[i], i);
}

TEST(SerialQueue, TaskMayQueueMoreWorkOnItsOwnQueue) {
  auto queue = makeQueue();
  std::promise<std::vector<int>> result;
  auto future = result.get_future();
  auto order = std::make_shared<std::vector<int>>();
  queue->async([queue, order, &result] {
    order->push_back(0);
    queue->async([order, &result] {
      order->push_back(2);
      result.set_value(*order);
    });
    order->push_back(1);
  });
  ASSERT_EQ(future.wait_for(kDeadlockTimeout), std::future_status::ready);
  EXPECT_EQ(future.get(), (std::vector<int>{0, 1, 2}));
}

// ---------------------------------------------------------------------------------------------
// Group

TEST(Group, WaitReturnsAtOnceWithoutEnters) {
  Group group;
  group.wait();
  group.wait(makeQueue());
  group.wait(nullptr);
}

TEST(Group, WaitBlocksUntilEveryEnterIsMatchedByALeave) {
  Group group;
  group.enter();
  group.enter();
  group.enter();
  std::atomic<bool> waited{false};
  std::thread waiter([&] {
    group.wait();
    waited = true;
  });
  group.leave();
  group.leave();
  std::this_thread::sleep_for(kStillBlocked);
  EXPECT_FALSE(waited.load());
  group.leave();
  waiter.join();
  EXPECT_TRUE(waited.load());
}

TEST(Group, EntersAndLeavesFromManyThreadsBalance) {
  // Each producer enters on its own thread and leaves from a task on a queue of its own.
  Group group;
  constexpr int kProducers = 8;
  constexpr int kPairsEach = 1000;
  std::atomic<int> left{0};
  std::vector<std::shared_ptr<SerialQueue>> queues;
  for (int p = 0; p < kProducers; ++p) queues.push_back(makeQueue());

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPairsEach; ++i) {
        group.enter();
        queues[p]->async([&] {
          left.fetch_add(1);
          group.leave();
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  group.wait();
  EXPECT_EQ(left.load(), kProducers * kPairsEach);
  for (auto& queue : queues) drainQueue(queue);
}

TEST(Group, WaitWithAQueueRunsItsPendingTasksOnTheWaitingThread) {
  constexpr int kTrials = 100;
  int ranOnWaiter = 0;
  for (int trial = 0; trial < kTrials; ++trial) {
    auto queue = makeQueue();
    Group group;
    std::thread::id ranOn;
    group.enter();
    queue->async([&] {
      ranOn = std::this_thread::get_id();
      group.leave();
    });
    group.wait(queue);
    // Wherever it ran, the task is complete when wait() returns.
    ASSERT_NE(ranOn, std::thread::id()) << "trial " << trial;
    if (ranOn == std::this_thread::get_id()) ++ranOnWaiter;
    drainQueue(queue);
  }
  // The waiting thread is already awake and reaches the pending task before a worker wakes.
  EXPECT_GT(ranOnWaiter, 0);
}

TEST(Group, WaitWithAQueueHeldByAWorkerWaitsForTheWorker) {
  auto queue = makeQueue();
  Blocker blocker;
  queue->async(blocker.task());
  ASSERT_TRUE(blocker.waitUntilStarted());

  Group group;
  group.enter();
  std::thread::id ranOn;
  queue->async([&] {
    ranOn = std::this_thread::get_id();
    group.leave();
  });
  std::atomic<bool> waited{false};
  std::thread waiter([&] {
    group.wait(queue);
    waited = true;
  });
  std::this_thread::sleep_for(kStillBlocked);
  EXPECT_FALSE(waited.load());
  blocker.release();
  waiter.join();
  EXPECT_TRUE(waited.load());
  EXPECT_NE(ranOn, std::thread::id());
  drainQueue(queue);
}

// ---------------------------------------------------------------------------------------------
// CountingSemaphore

TEST(CountingSemaphore, TryWaitTakesTheInitialCountThenFails) {
  CountingSemaphore semaphore(3);
  EXPECT_TRUE(semaphore.tryWait());
  EXPECT_TRUE(semaphore.tryWait());
  EXPECT_TRUE(semaphore.tryWait());
  EXPECT_FALSE(semaphore.tryWait());
  semaphore.signal();
  EXPECT_TRUE(semaphore.tryWait());
}

TEST(CountingSemaphore, WaitBlocksAtZeroUntilSignalled) {
  CountingSemaphore semaphore(0);
  std::atomic<bool> acquired{false};
  std::thread waiter([&] {
    semaphore.wait();
    acquired = true;
  });
  std::this_thread::sleep_for(kStillBlocked);
  EXPECT_FALSE(acquired.load());
  semaphore.signal();
  waiter.join();
  EXPECT_TRUE(acquired.load());
}

// ---------------------------------------------------------------------------------------------
// WorkerPool

TEST(WorkerPool, JobBlockedOnALaterJobDoesNotDeadlock) {
  // A chain: job i waits until job i+1 has run; the last one waits for nothing. With a fixed
  // number of workers this deadlocks as soon as the chain is longer than the pool.
  constexpr int kChain = 24;
  std::vector<std::promise<void>> ran(kChain);
  std::vector<std::shared_future<void>> ranFuture;
  for (auto& promise : ran) ranFuture.push_back(promise.get_future().share());
  auto& pool = WorkerPool::shared();
  for (int i = 0; i < kChain; ++i) {
    pool.submit([&ran, &ranFuture, i] {
      if (i + 1 < kChain) ranFuture[i + 1].wait();
      ran[i].set_value();
    });
  }
  for (int i = 0; i < kChain; ++i) {
    ASSERT_EQ(ranFuture[i].wait_for(kDeadlockTimeout), std::future_status::ready) << "job " << i;
  }
}

TEST(WorkerPool, TaskBlockedOnALaterQueueDoesNotDeadlock) {
  // The same through queues: a task of queue A waits for a task queued afterwards on queue B.
  auto first = makeQueue();
  auto second = makeQueue();
  std::promise<void> secondRan;
  auto secondRanFuture = secondRan.get_future().share();
  std::promise<void> firstDone;
  auto firstDoneFuture = firstDone.get_future();
  first->async([secondRanFuture, &firstDone] {
    secondRanFuture.wait();
    firstDone.set_value();
  });
  second->async([&secondRan] { secondRan.set_value(); });
  ASSERT_EQ(firstDoneFuture.wait_for(kDeadlockTimeout), std::future_status::ready);
}

TEST(WorkerPool, CreatingGeneratorsStartsNoThread) {
  // Let the work of earlier tests settle so that no worker is started behind our back.
  drainQueue(makeQueue());
  auto& pool = WorkerPool::shared();
  const std::size_t startedBefore = pool.workersStarted();
  const std::size_t threadsBefore = threadCount();

  // Every algorithm the factory offers, round robin.
  std::vector<ChecksumType> types;
  for (ChecksumType type : ChecksumType::allCases()) {
    if (CorvaneChecksumGenerator::checksumGeneratorForType(type)) types.push_back(type);
  }
  ASSERT_FALSE(types.empty());
  std::vector<std::shared_ptr<CorvaneChecksumGenerator>> generators;
  for (int i = 0; i < 1000; ++i) {
    generators.push_back(
        CorvaneChecksumGenerator::checksumGeneratorForType(types[i % types.size()]));
  }

  EXPECT_EQ(pool.workersStarted(), startedBefore);
  // Idle workers may retire meanwhile, so the count may fall but must not rise.
  EXPECT_LE(threadCount(), threadsBefore);
  generators.clear();
  EXPECT_EQ(pool.workersStarted(), startedBefore);
}

TEST(WorkerPool, IdleWorkersRetire) {
  auto& pool = WorkerPool::shared();
  std::promise<void> ran;
  auto ranFuture = ran.get_future();
  pool.submit([&ran] { ran.set_value(); });
  ASSERT_EQ(ranFuture.wait_for(kDeadlockTimeout), std::future_status::ready);
  EXPECT_GE(pool.workerCount(), 1u);

  // Workers retire after a couple of seconds without work; poll with a generous limit.
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (pool.workerCount() != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_EQ(pool.workerCount(), 0u);

  // A retired pool still serves: a new worker is started on demand.
  const std::size_t startedBefore = pool.workersStarted();
  std::promise<void> ranAgain;
  auto ranAgainFuture = ranAgain.get_future();
  pool.submit([&ranAgain] { ranAgain.set_value(); });
  ASSERT_EQ(ranAgainFuture.wait_for(kDeadlockTimeout), std::future_status::ready);
  EXPECT_EQ(pool.workersStarted(), startedBefore + 1);
}

// ---------------------------------------------------------------------------------------------
// Exceptions escaping tasks

TEST(SerialQueueDeathTest, TaskThrowingACorvaneExceptionEndsTheProcessWithNameAndReason) {
  EXPECT_DEATH(
      {
        auto queue = makeQueue();
        queue->async([] { throw Exception("TestInconsistencyException", "thrown by a task"); });
        std::this_thread::sleep_for(kDeadlockTimeout);
      },
      "TestInconsistencyException.*thrown by a task");
}

TEST(SerialQueueDeathTest, TaskThrowingAStandardExceptionEndsTheProcessWithItsMessage) {
  EXPECT_DEATH(
      {
        auto queue = makeQueue();
        queue->async([] { throw std::logic_error("a standard failure in a task"); });
        std::this_thread::sleep_for(kDeadlockTimeout);
      },
      "a standard failure in a task");
}

TEST(SerialQueueDeathTest, TaskThrowingOnTheWaitingThreadAlsoEndsTheProcess) {
  // sync() may run the task on the calling thread; the exception must not reach the caller.
  EXPECT_DEATH(
      {
        auto queue = makeQueue();
        queue->sync([] { throw Exception("TestSyncException", "thrown inside sync"); });
        std::this_thread::sleep_for(kDeadlockTimeout);
      },
      "TestSyncException.*thrown inside sync");
}

}  // namespace
}  // namespace corvane::dispatch
