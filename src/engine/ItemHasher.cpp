#include "engine/ItemHasher.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <thread>

#include "corvane/CorvaneChecksumGenerator.hpp"
#include "engine/FileReader.hpp"

namespace corvane::engine {
namespace {

// Pieces in which a file of at most one chunk is read and hashed on the reading thread: small
// enough to stay in the processor's own cache between the read and the hashing.
constexpr std::size_t kCachedPieceSize = std::size_t{128} << 10;

// Processor time per byte, relative (MD5 is the slowest): decides which algorithms of a file get
// a processor of their own.
int relativeCost(ChecksumType type) {
  if (type == ChecksumTypeMD5) return 11;
  if (type == ChecksumTypeSHA512 || type == ChecksumTypeC4) return 8;
  if (type == ChecksumTypeSHA1 || type == ChecksumTypeSHA256) return 5;
  return 1;  // CRC-32 and the xxHash family
}

FileError stoppedError() { return FileError{FileErrorKind::stopped, ECANCELED, "stopped"}; }

// The result of an item that is reported, not read (a walk's notice or problem).
FileSetResult reportedEntry(FileSetItem&& item, std::size_t index) {
  FileSetResult result;
  result.index = index;
  result.entry = std::move(item.entry);
  switch (result.entry.kind) {
    case WalkEntry::Kind::skipped:
      result.error = FileError{FileErrorKind::notRegularFile, 0, result.entry.reason()};
      break;
    case WalkEntry::Kind::unreadable:
      result.error = FileError{FileErrorKind::walk, result.entry.error, result.entry.reason()};
      break;
    default:
      break;
  }
  return result;
}

// Releases a device slot at the end of a scope.
class DeviceSlot {
 public:
  DeviceSlot(DeviceReaderLimits& limits, std::uint64_t device) : limits_(limits), device_(device) {}
  ~DeviceSlot() { limits_.release(device_); }
  DeviceSlot(const DeviceSlot&) = delete;
  DeviceSlot& operator=(const DeviceSlot&) = delete;

 private:
  DeviceReaderLimits& limits_;
  std::uint64_t device_;
};

}  // namespace

AlgorithmPlan planAlgorithms(std::vector<ChecksumType> algorithms, unsigned processors) {
  // Either every algorithm hashes each chunk on its own without the reader waiting, or only the
  // heaviest ones (one fewer than there are processors) do and the reader hands the chunk to the
  // rest one after another, waiting for each. The second keeps the slowest algorithm from
  // sharing a processor with light ones (MD5 beside SHA-1, SHA-256 and CRC-32 then runs at its
  // own speed); the first wins when the light ones together outweigh it. The choice goes by the
  // estimated time of each, where sharing processors costs about a tenth.
  AlgorithmPlan plan;
  plan.algorithms = std::move(algorithms);
  plan.handOffOrder.resize(plan.algorithms.size());
  std::iota(plan.handOffOrder.begin(), plan.handOffOrder.end(), std::size_t{0});
  std::stable_sort(plan.handOffOrder.begin(), plan.handOffOrder.end(),
                   [&plan](std::size_t a, std::size_t b) {
                     return relativeCost(plan.algorithms[a]) > relativeCost(plan.algorithms[b]);
                   });
  processors = std::max(1U, processors);
  const std::size_t unwaited =
      std::min(plan.handOffOrder.size(), std::max<std::size_t>(1, processors - 1));
  double heaviest = 0;
  double total = 0;
  double waitedChain = 0;
  for (std::size_t k = 0; k < plan.handOffOrder.size(); ++k) {
    const double cost = relativeCost(plan.algorithms[plan.handOffOrder[k]]);
    heaviest = std::max(heaviest, cost);
    total += cost;
    if (k >= unwaited) waitedChain += cost;
  }
  const double withWaits = std::max(heaviest, waitedChain);
  const double allAtOnce = 1.1 * std::max(heaviest, total / double(processors));
  plan.unwaitedCount = withWaits <= allAtOnce ? unwaited : plan.handOffOrder.size();
  // Algorithms that hash about as fast as the kernel copies pages (the xxHash family, CRC-32)
  // gain nothing from a thread of their own: each hand-over costs a wake-up worth more than the
  // hashing. They are absorbed on the reading thread, as xxhsum does.
  if (heaviest <= 1) plan.unwaitedCount = 0;
  return plan;
}

ItemHasher::ItemHasher(const FileSetSettings& settings, DeviceReaderLimits& limits,
                       RunCounters& counters)
    : settings_(settings),
      limits_(limits),
      counters_(counters),
      processors_(std::max(1U, std::thread::hardware_concurrency())) {}

const AlgorithmPlan& ItemHasher::planFor(const std::vector<ChecksumType>& algorithms) {
  std::vector<std::uint64_t> key;
  key.reserve(algorithms.size());
  for (const ChecksumType type : algorithms) key.push_back(type.rawValue());
  const std::lock_guard lock(plansMutex_);
  auto found = plans_.find(key);
  if (found == plans_.end()) {
    found = plans_.emplace(std::move(key), planAlgorithms(algorithms, processors_)).first;
  }
  return found->second;
}

FileSetResult ItemHasher::hash(FileSetItem item, std::size_t index, const std::stop_token& stop) {
  if (item.entry.kind != WalkEntry::Kind::file) return reportedEntry(std::move(item), index);
  FileSetResult result;
  result.index = index;
  result.entry = item.entry;
  // Until the file is read, its size is the one the walk saw (named paths have none).
  if (item.regularOnly) result.size = item.entry.size;
  if (stop.stop_requested()) {
    result.error = stoppedError();
    return result;
  }

  // A file the walk saw as small is read in cache-sized pieces; others in full chunks.
  const std::size_t chunkSize = settings_.chunkSize != 0 ? settings_.chunkSize : kDefaultChunkSize;
  const std::vector<ChecksumType>& wanted =
      item.algorithms.empty() ? settings_.algorithms : item.algorithms;
  const AlgorithmPlan& plan = planFor(wanted);
  // Bytes hashed on the reading thread are read in cache-sized pieces: a file the walk saw as
  // small, or any file whose algorithms all run on this thread.
  const bool smallByWalk = item.entry.size != 0 && item.entry.size <= chunkSize;
  ReadOptions options;
  options.chunkSize =
      smallByWalk || plan.unwaitedCount == 0 ? std::min(chunkSize, kCachedPieceSize) : chunkSize;
  options.bypassCache = settings_.bypassCache || item.bypassCache;
  options.regularOnly = item.regularOnly;
  // A stream (a FIFO waiting for its writer, a pipe waiting for data) ends with the run's stop.
  options.stop = stop;
  // The device's slot is taken only when the disk must be read: cached bytes never wait for it.
  std::optional<DeviceSlot> slot;
  std::uint64_t device = 0;
  options.beforeDiskRead = [this, &slot, &device, &stop] {
    if (!limits_.acquire(device, stop)) return false;
    slot.emplace(limits_, device);
    return true;
  };
  const int descriptor = std::exchange(item.descriptor, -1);
  FileReader reader = descriptor >= 0 ? FileReader::adopt(descriptor, options)
                                      : FileReader::open(item.entry.path, options);
  if (reader.error()) {
    result.error = reader.error();
    return result;
  }
  const struct stat& status = reader.statusAtOpen();
  result.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
  result.entry.device = static_cast<std::uint64_t>(status.st_dev);
  device = result.entry.device;
  if (item.entry.size == 0 && reader.isRegular()) counters_.bytesSeen += reader.expectedSize();

  std::vector<std::shared_ptr<CorvaneChecksumGenerator>> generators;
  generators.reserve(plan.algorithms.size());
  for (const ChecksumType type : plan.algorithms) {
    generators.push_back(CorvaneChecksumGenerator::checksumGeneratorForType(type));
    if (!generators.back()) {
      result.error = FileError{FileErrorKind::open, 0,
                               "no generator for algorithm " + std::to_string(type.rawValue())};
      return result;
    }
  }
  std::unique_ptr<ChunkSink> sink;
  if (settings_.sinkFactory) {
    sink = settings_.sinkFactory(item);
    if (sink) sink->begin(item, reader.expectedSize());
  }
  // The observer hears of a read once its first bytes arrived: a file waiting for its device's
  // slot is not being read yet.
  ReadObserver* observer = settings_.observer;
  bool announced = false;
  const auto announce = [&] {
    if (observer == nullptr || announced) return;
    announced = true;
    observer->readStarted(result.entry.path, result.entry.device);
  };

  // A small file (or a pipe's pieces) is absorbed piece by piece on this thread; a large one is
  // handed to the generators as planned.
  const bool small = reader.isRegular() && reader.expectedSize() <= chunkSize;
  const std::size_t unwaited = small ? 0 : plan.unwaitedCount;
  bool stopped = false;
  while (SharedBytes chunk = reader.next()) {
    announce();
    for (std::size_t k = 0; k < plan.handOffOrder.size(); ++k) {
      CorvaneChecksumGenerator& generator = *generators[plan.handOffOrder[k]];
      if (k < unwaited) {
        generator.addDataToChecksum(chunk, [] {});
      } else {
        // Absorbed on this thread while the generator's queue is idle: no thread is woken.
        generator.addDataToChecksumAndWait(chunk);
      }
    }
    if (sink) sink->chunk(chunk);
    counters_.bytesRead.fetch_add(chunk->size(), std::memory_order_relaxed);
    if (observer != nullptr) observer->bytesRead(chunk->size());
    if (stop.stop_requested()) {
      stopped = true;
      break;
    }
  }
  result.size = reader.bytesRead();
  FileError error = stopped ? stoppedError() : reader.error();
  if (!error) error = reader.finish();
  if (sink) {
    FileError sinkError = sink->finish(error);
    if (!error) error = std::move(sinkError);
  }
  announce();
  if (observer != nullptr) observer->readFinished(result.entry.path);

  // Finalising also after an error lets every queued chunk drain before the buffers go back.
  std::vector<std::optional<std::string>> texts;
  texts.reserve(generators.size());
  for (const auto& generator : generators) texts.push_back(generator->finalizeChecksumAndWait());
  if (error) {
    result.error = std::move(error);
    return result;
  }
  for (std::size_t i = 0; i < plan.algorithms.size(); ++i) {
    if (!texts[i]) {
      result.error = FileError{FileErrorKind::read, 0, "no checksum produced"};
      result.checksums.clear();
      return result;
    }
    result.checksums[plan.algorithms[i]] = std::move(*texts[i]);
  }
  return result;
}

}  // namespace corvane::engine
