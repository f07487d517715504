#include "corvane/FileSetHasher.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

#include "engine/DeviceReaderLimits.hpp"
#include "engine/ItemHasher.hpp"

namespace corvane {
namespace {

using Clock = std::chrono::steady_clock;

// Results that may wait for an earlier one, beyond the files in flight: bounds memory while
// letting fast files run ahead of a slow one.
constexpr std::size_t kWindowPerFileInFlight = 64;
// The rate of a progress snapshot is measured over about this long.
constexpr auto kRateSpan = std::chrono::seconds(3);

unsigned processorCount() { return std::max(1U, std::thread::hardware_concurrency()); }

}  // namespace

// The shared state of one run: the input, the window of results in input order, the threads.
//
// Every thread of the run (the helpers and the caller inside next()) takes work the same way:
// it fetches the next item from the input and hashes it. The caller, between results, takes
// work too instead of sleeping, so a run of many small files costs no thread switch per file;
// helpers wake it only when it waits.
//
// A thread that fetches a file whose MD5 and/or SHA-1 can be hashed in vector lanes hashes a group
// instead (ItemHasher::hashGroup): it goes on fetching while lanes are free, and items the group
// does not take are handed back, to be hashed alone by whichever thread comes next. The caller's
// thread stops adding files to its group once a result is ready for it to deliver.
class FileSetRunState {
 public:
  FileSetRunState(const FileSetSettings& settings, FileSetInput input, std::stop_token external)
      : settings_(settings),
        input_(std::move(input)),
        filesInFlight_(settings.filesInFlight != 0 ? settings.filesInFlight : processorCount()),
        windowLimit_(std::size_t{filesInFlight_} * kWindowPerFileInFlight),
        limits_(settings.readersPerDevice, filesInFlight_),
        hasher_(settings_, limits_, counters_),
        start_(Clock::now()) {
    if (external.stop_possible()) {
      externalStop_.emplace(std::move(external), [this] { requestStop(); });
    }
    helpers_.reserve(filesInFlight_ - 1);
    liveHelpers_ = filesInFlight_ - 1;
    for (unsigned i = 1; i < filesInFlight_; ++i) helpers_.emplace_back([this] { helperLoop(); });
  }

  ~FileSetRunState() {
    // The caller's stop callback goes first: it must not reach a state being destroyed.
    externalStop_.reset();
    requestStop();
    for (std::thread& helper : helpers_) helper.join();
  }

  FileSetRunState(const FileSetRunState&) = delete;
  FileSetRunState& operator=(const FileSetRunState&) = delete;

  std::optional<FileSetResult> next() {
    std::unique_lock lock(mutex_);
    while (true) {
      if (!window_.empty() && window_.front()) {
        FileSetResult result = std::move(*window_.front());
        window_.pop_front();
        ++firstIndex_;
        if (waitingHelpers_ != 0) changed_.notify_all();
        return result;
      }
      if (window_.empty() && !fetching_ && (inputDone_ || stopSource_.stop_requested())) {
        if (inputError_) std::rethrow_exception(std::exchange(inputError_, nullptr));
        return std::nullopt;
      }
      if (consumerCanTakeLocked()) {
        takeOneLocked(lock, /*consumer=*/true);
        continue;
      }
      consumerWaiting_ = true;
      changed_.wait(lock);
      consumerWaiting_ = false;
    }
  }

  FileSetProgress progress() const {
    FileSetProgress snapshot;
    snapshot.filesDone = filesDone_.load(std::memory_order_relaxed);
    snapshot.bytesDone = counters_.bytesRead.load(std::memory_order_relaxed);
    snapshot.filesTotal = filesSeen_.load(std::memory_order_relaxed);
    snapshot.bytesTotal = counters_.bytesSeen.load(std::memory_order_relaxed);
    snapshot.totalsKnown = totalsKnown_.load(std::memory_order_acquire);
    const auto now = Clock::now();
    snapshot.elapsedSeconds = std::chrono::duration<double>(now - start_).count();
    const std::lock_guard lock(rateMutex_);
    rateSamples_.push_back({now, snapshot.bytesDone});
    while (rateSamples_.size() > 2 && now - rateSamples_[1].first >= kRateSpan) {
      rateSamples_.pop_front();
    }
    const auto& [then, bytesThen] = rateSamples_.front();
    const double span = std::chrono::duration<double>(now - then).count();
    if (span > 0.05) {
      snapshot.bytesPerSecond = double(snapshot.bytesDone - bytesThen) / span;
    } else if (snapshot.elapsedSeconds > 0) {
      snapshot.bytesPerSecond = double(snapshot.bytesDone) / snapshot.elapsedSeconds;
    }
    return snapshot;
  }

  void requestStop() {
    stopSource_.request_stop();
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
  }

  bool stopRequested() const { return stopSource_.stop_requested(); }

 private:
  bool canFetchLocked() const {
    return !inputDone_ && !fetching_ && !stopSource_.stop_requested() &&
           window_.size() < windowLimit_;
  }

  // Items handed back by a group are taken first, also after a stop: their places in the window
  // wait for them.
  bool canTakeLocked() const { return !handedBack_.empty() || canFetchLocked(); }

  // The caller's thread works too while its next result is not ready, but with helpers it leaves
  // them what may wait (a stream, and whatever a group handed back): waiting there, it could not
  // deliver the results others finish meanwhile.
  bool consumerCanTakeLocked() const {
    return canFetchLocked() || consumerMayTakeHandedBackLocked();
  }

  // The first handed-back item the caller's thread may take, or end.
  auto consumerHandedBackLocked() {
    return std::find_if(handedBack_.begin(), handedBack_.end(), [this](const HandedBack& back) {
      return liveHelpers_ == 0 || !back.mayWait;
    });
  }
  bool consumerMayTakeHandedBackLocked() const {
    return std::any_of(handedBack_.begin(), handedBack_.end(), [this](const HandedBack& back) {
      return liveHelpers_ == 0 || !back.mayWait;
    });
  }

  // Whether reading `item` may wait for a writer: standard input or another descriptor handed
  // over, or a named path that is not a regular file (a FIFO, a device).
  static bool mayWait(const FileSetItem& item) {
    if (item.entry.kind != WalkEntry::Kind::file) return false;
    if (item.descriptor >= 0) return true;
    return !engine::isRegularFileItem(item).value_or(true);
  }

  // Fetches the next item and reserves its place in the window, with the lock released while the
  // input runs; nothing at the end of the input. Items are numbered in the order they were
  // fetched.
  std::optional<std::pair<FileSetItem, std::size_t>> fetchLocked(
      std::unique_lock<std::mutex>& lock) {
    fetching_ = true;
    lock.unlock();
    std::optional<FileSetItem> item;
    std::exception_ptr error;
    try {
      item = input_.next();
    } catch (...) {
      error = std::current_exception();
    }
    lock.lock();
    fetching_ = false;
    if (!item) {
      inputDone_ = true;
      totalsKnown_.store(true, std::memory_order_release);
      if (error) inputError_ = error;
      changed_.notify_all();
      return std::nullopt;
    }
    const std::size_t index = firstIndex_ + window_.size();
    window_.emplace_back();
    filesSeen_.fetch_add(1, std::memory_order_relaxed);
    if (item->entry.kind == WalkEntry::Kind::file) {
      counters_.bytesSeen.fetch_add(item->entry.size, std::memory_order_relaxed);
    }
    if (waitingHelpers_ != 0) changed_.notify_all();  // the input is free again
    return std::pair{std::move(*item), index};
  }

  void storeLocked(FileSetResult&& result) {
    const std::size_t index = result.index;
    window_[index - firstIndex_] = std::move(result);
    filesDone_.fetch_add(1, std::memory_order_relaxed);
    if (consumerWaiting_) changed_.notify_all();
  }

  // A group's view of the run, for the thread hashing it.
  class RunGroupSource final : public engine::GroupSource {
   public:
    RunGroupSource(FileSetRunState& run, bool consumer) : run_(run), consumer_(consumer) {}

    std::optional<std::pair<FileSetItem, std::size_t>> take() override {
      std::unique_lock lock(run_.mutex_);
      // Items handed back go to other threads first; the consumer goes back to delivering.
      if (!run_.handedBack_.empty() || !run_.canFetchLocked()) return std::nullopt;
      if (consumer_ && !run_.window_.empty() && run_.window_.front()) return std::nullopt;
      return run_.fetchLocked(lock);
    }

    void handBack(FileSetItem item, std::size_t index) override {
      const bool wait = mayWait(item);
      const std::lock_guard lock(run_.mutex_);
      run_.handedBack_.push_back({std::move(item), index, wait});
      run_.changed_.notify_all();
    }

    void deliver(FileSetResult result) override {
      const std::lock_guard lock(run_.mutex_);
      run_.storeLocked(std::move(result));
    }

   private:
    FileSetRunState& run_;
    bool consumer_;
  };

  // Takes the next item (one handed back, else a new one from the input) and hashes it, alone or
  // in a group, with the lock released meanwhile; results take their places in the window.
  void takeOneLocked(std::unique_lock<std::mutex>& lock, bool consumer) {
    std::optional<std::pair<FileSetItem, std::size_t>> taken;
    bool handedBack = false;
    const auto back = consumer ? consumerHandedBackLocked() : handedBack_.begin();
    if (back != handedBack_.end()) {
      taken.emplace(std::move(back->item), back->index);
      handedBack_.erase(back);
      handedBack = true;
    } else {
      taken = fetchLocked(lock);
      if (!taken) return;
      if (consumer && liveHelpers_ != 0 && mayWait(taken->first)) {
        handedBack_.push_back({std::move(taken->first), taken->second, true});
        changed_.notify_all();
        return;
      }
    }
    lock.unlock();
    auto& [item, index] = *taken;
    if (!handedBack && hasher_.groupsEnabled() && hasher_.groupable(item)) {
      RunGroupSource source(*this, consumer);
      hasher_.hashGroup(std::move(item), index, stopSource_.get_token(), source);
      lock.lock();
      return;
    }
    FileSetResult result = hasher_.hash(std::move(item), index, stopSource_.get_token());
    lock.lock();
    storeLocked(std::move(result));
  }

  void helperLoop() {
    std::unique_lock lock(mutex_);
    while (true) {
      if (canTakeLocked()) {
        takeOneLocked(lock, /*consumer=*/false);
        continue;
      }
      if (stopSource_.stop_requested() || inputDone_) break;
      ++waitingHelpers_;
      changed_.wait(lock);
      --waitingHelpers_;
    }
    // From now on the caller's thread takes whatever is left, also what may wait.
    --liveHelpers_;
    if (consumerWaiting_) changed_.notify_all();
  }

  const FileSetSettings settings_;  // a copy: a run may outlive its hasher
  FileSetInput input_;
  const unsigned filesInFlight_;
  const std::size_t windowLimit_;
  engine::RunCounters counters_;
  engine::DeviceReaderLimits limits_;
  engine::ItemHasher hasher_;
  const Clock::time_point start_;

  std::stop_source stopSource_;
  std::optional<std::stop_callback<std::function<void()>>> externalStop_;

  mutable std::mutex mutex_;  // guards everything below up to the atomics
  std::condition_variable changed_;
  std::deque<std::optional<FileSetResult>> window_;  // results from firstIndex_ on
  std::size_t firstIndex_ = 0;
  bool fetching_ = false;  // a thread is calling input_.next()
  bool inputDone_ = false;
  std::exception_ptr inputError_;
  // Items a group took but does not hash, in the order handed back.
  // Items a group handed back (or the caller's thread left to the helpers), with whether they
  // may wait (see mayWait()).
  struct HandedBack {
    FileSetItem item;
    std::size_t index;
    bool mayWait;
  };
  std::deque<HandedBack> handedBack_;
  unsigned waitingHelpers_ = 0;
  unsigned liveHelpers_ = 0;  // helper threads that have not left their loop
  bool consumerWaiting_ = false;

  std::atomic<std::uint64_t> filesDone_{0};
  std::atomic<std::uint64_t> filesSeen_{0};
  std::atomic<bool> totalsKnown_{false};
  mutable std::mutex rateMutex_;
  mutable std::deque<std::pair<Clock::time_point, std::uint64_t>> rateSamples_;

  std::vector<std::thread> helpers_;  // last: started after everything above exists
};

FileSetRun::FileSetRun(std::shared_ptr<FileSetRunState> state) : state_(std::move(state)) {}
FileSetRun::FileSetRun(FileSetRun&&) noexcept = default;
FileSetRun& FileSetRun::operator=(FileSetRun&&) noexcept = default;
FileSetRun::~FileSetRun() = default;

std::optional<FileSetResult> FileSetRun::next() { return state_->next(); }
FileSetProgress FileSetRun::progress() const { return state_->progress(); }
void FileSetRun::requestStop() { state_->requestStop(); }
bool FileSetRun::stopRequested() const { return state_->stopRequested(); }

FileSetHasher::FileSetHasher(FileSetSettings settings) : settings_(std::move(settings)) {}

FileSetRun FileSetHasher::start(FileSetInput input, std::stop_token stop) const {
  return FileSetRun(
      std::make_shared<FileSetRunState>(settings_, std::move(input), std::move(stop)));
}

FileSetSummary FileSetHasher::run(FileSetInput input,
                                  const std::function<void(FileSetResult&&)>& deliver,
                                  std::stop_token stop) const {
  FileSetRun run = start(std::move(input), std::move(stop));
  FileSetSummary summary;
  while (std::optional<FileSetResult> result = run.next()) {
    ++summary.results;
    if (result->ok()) {
      ++summary.hashed;
    } else if (result->error && result->error.kind != FileErrorKind::notRegularFile) {
      ++summary.failed;
    }
    summary.bytes += result->size.value_or(0);
    deliver(std::move(*result));  // an exception ends the run: FileSetRun stops and joins
  }
  summary.stopped = run.stopRequested();
  return summary;
}

}  // namespace corvane
