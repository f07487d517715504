#include "engine/ItemHasher.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <thread>

#include "checksum/HexText.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "engine/FileReader.hpp"

namespace corvane::engine {
namespace {

// Pieces in which a file of at most one chunk is read and hashed on the reading thread: small
// enough to stay in the processor's own cache between the read and the hashing.
constexpr std::size_t kCachedPieceSize = std::size_t{128} << 10;

// Bytes of each file of a group read and hashed in one turn: 16 lanes of 64 KiB fill the 1 MiB
// of L2 cache a processor has here, so what was read is still cached when it is hashed
// (docs/PERFORMANCE.md, "MD5 and SHA-1 over many streams").
constexpr std::size_t kLanePieceSize = std::size_t{64} << 10;

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
      processors_(std::max(1U, std::thread::hardware_concurrency())),
      md5Lanes_(detail::md5LanePathInUse()),
      sha1Lanes_(detail::sha1LanePathInUse()) {
  if (settings.forceScalarMd5 || detail::laneCount(*md5Lanes_) == 1) md5Lanes_.reset();
  if (settings.forceScalarSha1 || detail::laneCount(*sha1Lanes_) == 1) sha1Lanes_.reset();
}

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
  // Nobody outside counts the chunks of a file hashed here alone.
  options.flexibleChunks = !settings_.sinkFactory;
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

bool ItemHasher::groupable(const FileSetItem& item) {
  if (!groupsEnabled() || item.entry.kind != WalkEntry::Kind::file || item.descriptor >= 0) {
    return false;
  }
  const AlgorithmPlan& plan =
      planFor(item.algorithms.empty() ? settings_.algorithms : item.algorithms);
  bool laned = false;
  for (const ChecksumType type : plan.algorithms) {
    if ((type == ChecksumTypeMD5 && md5Lanes_) || (type == ChecksumTypeSHA1 && sha1Lanes_)) {
      laned = true;
    } else if (relativeCost(type) > 1) {
      return false;
    }
  }
  if (!laned) return false;
  // A named path may be a FIFO or a device, whose open or reads wait for a writer: such files are
  // hashed alone, so that no other file waits with them.
  return isRegularFileItem(item).value_or(false);
}

std::optional<bool> isRegularFileItem(const FileSetItem& item) {
  if (item.regularOnly) return true;
  struct stat status {};
  if (::stat(item.entry.path.c_str(), &status) != 0) return std::nullopt;
  return S_ISREG(status.st_mode);
}

// One file of a group, from open to result.
struct GroupMember {
  FileSetItem item;
  FileSetResult result;
  const AlgorithmPlan* plan = nullptr;
  std::optional<FileReader> reader;
  // One per algorithm of the plan, in its order; null for MD5 and SHA-1, which the lanes hash.
  std::vector<std::shared_ptr<CorvaneChecksumGenerator>> generators;
  std::unique_ptr<ChunkSink> sink;
  std::optional<unsigned> md5Lane;   // its lane of the group's MD5 lanes, if it has MD5
  std::optional<unsigned> sha1Lane;  // the same for SHA-1
  bool announced = false;
  bool ended = false;      // the reader has nothing more (end or error)
  bool done = false;       // the result was delivered
  bool holdsSlot = false;  // shares the group's slot of its device
  SharedBytes held;        // the chunk fed to the lane, kept until the lanes ran
};

// The files one thread hashes together; see ItemHasher::hashGroup().
class LaneGroup {
 public:
  LaneGroup(ItemHasher& hasher, const std::stop_token& stop, GroupSource& source)
      : hasher_(hasher), settings_(hasher.settings_), stop_(stop), source_(source) {
    if (hasher.md5Lanes_) md5_.emplace(*hasher.md5Lanes_);
    if (hasher.sha1Lanes_) sha1_.emplace(*hasher.sha1Lanes_);
  }

  LaneGroup(const LaneGroup&) = delete;
  LaneGroup& operator=(const LaneGroup&) = delete;

  void run(FileSetItem first, std::size_t index) {
    // Fewer files than half the lanes are hashed faster one per thread (each file then has a
    // reading thread and a hashing one) than together on one processor; SHA-1 also needs as many
    // as make its kernel pay against OpenSSL's SHA extensions, or the group would hash them all
    // through OpenSSL on one thread.
    std::size_t minimum = std::max(2U, capacity() / 2);
    if (sha1_ && needs(first, ChecksumTypeSHA1)) {
      minimum = std::max<std::size_t>(minimum, sha1_->vectorThreshold());
    }
    std::vector<std::pair<FileSetItem, std::size_t>> gathered;
    gathered.emplace_back(std::move(first), index);
    while (gathered.size() < minimum) {
      std::optional<std::pair<FileSetItem, std::size_t>> next = source_.take();
      if (!next) break;
      if (sortedOut(*next)) continue;
      gathered.push_back(std::move(*next));
    }
    if (gathered.size() < minimum) {
      for (std::size_t k = 1; k < gathered.size(); ++k) {
        source_.handBack(std::move(gathered[k].first), gathered[k].second);
      }
      source_.deliver(hasher_.hash(std::move(gathered[0].first), index, stop_));
      return;
    }
    for (auto& [item, position] : gathered) start(std::move(item), position);
    while (true) {
      while (freeLanes() > 0) {
        std::optional<std::pair<FileSetItem, std::size_t>> next = source_.take();
        if (!next) break;
        if (!sortedOut(*next)) start(std::move(next->first), next->second);
      }
      if (members_.empty()) break;
      turn();
    }
  }

 private:
  // Files the group can hold at once: each may need a lane of every algorithm.
  unsigned capacity() const {
    return std::min(md5_ ? md5_->laneCount() : 16U, sha1_ ? sha1_->laneCount() : 16U);
  }
  unsigned freeLanes() const {
    return std::min(md5_ ? md5_->freeLanes() : 16U, sha1_ ? sha1_->freeLanes() : 16U);
  }
  bool needs(const FileSetItem& item, ChecksumType type) const {
    const std::vector<ChecksumType>& algorithms =
        item.algorithms.empty() ? settings_.algorithms : item.algorithms;
    return std::find(algorithms.begin(), algorithms.end(), type) != algorithms.end();
  }
  // Hashes what every member fed, in the lanes of each algorithm.
  void runLanes() {
    if (md5_) md5_->run();
    if (sha1_) sha1_->run();
  }
  void leaveLanes(GroupMember& m) {
    if (m.md5Lane) md5_->leave(*m.md5Lane);
    if (m.sha1Lane) sha1_->leave(*m.sha1Lane);
  }

  // Delivers or hands back an item that does not join the group; true when it did so.
  bool sortedOut(std::pair<FileSetItem, std::size_t>& next) {
    if (next.first.entry.kind != WalkEntry::Kind::file) {
      source_.deliver(reportedEntry(std::move(next.first), next.second));
      return true;
    }
    if (!hasher_.groupable(next.first)) {
      source_.handBack(std::move(next.first), next.second);
      return true;
    }
    return false;
  }

  // Opens a file and gives it a lane, or delivers its result when it ends before its first read.
  void start(FileSetItem item, std::size_t index) {
    auto member = std::make_unique<GroupMember>();
    GroupMember& m = *member;
    m.result.index = index;
    m.result.entry = item.entry;
    if (item.regularOnly) m.result.size = item.entry.size;
    if (stop_.stop_requested()) {
      m.result.error = stoppedError();
      source_.deliver(std::move(m.result));
      return;
    }
    m.plan = &hasher_.planFor(item.algorithms.empty() ? settings_.algorithms : item.algorithms);
    const std::size_t chunkSize =
        settings_.chunkSize != 0 ? settings_.chunkSize : kDefaultChunkSize;
    ReadOptions options;
    options.bypassCache = settings_.bypassCache || item.bypassCache;
    // Reads past the cache stay large: they wait for the device, which wants big requests.
    options.chunkSize = options.bypassCache ? chunkSize : std::min(chunkSize, kLanePieceSize);
    options.regularOnly = item.regularOnly;
    options.stop = stop_;
    options.beforeDiskRead = [this, &m] { return beforeDiskRead(m); };
    m.reader.emplace(FileReader::open(item.entry.path, options));
    FileReader& reader = *m.reader;
    if (reader.error()) {
      m.result.error = reader.error();
      source_.deliver(std::move(m.result));
      return;
    }
    const struct stat& status = reader.statusAtOpen();
    m.result.modified = FileTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    m.result.entry.device = static_cast<std::uint64_t>(status.st_dev);
    if (item.entry.size == 0 && reader.isRegular()) {
      hasher_.counters_.bytesSeen += reader.expectedSize();
    }
    m.generators.reserve(m.plan->algorithms.size());
    for (const ChecksumType type : m.plan->algorithms) {
      if ((type == ChecksumTypeMD5 && md5_) || (type == ChecksumTypeSHA1 && sha1_)) {
        m.generators.emplace_back();
        continue;
      }
      m.generators.push_back(CorvaneChecksumGenerator::checksumGeneratorForType(type));
      if (!m.generators.back()) {
        m.result.error = FileError{FileErrorKind::open, 0,
                                   "no generator for algorithm " + std::to_string(type.rawValue())};
        source_.deliver(std::move(m.result));
        return;
      }
    }
    if (settings_.sinkFactory) {
      m.sink = settings_.sinkFactory(item);
      if (m.sink) m.sink->begin(item, reader.expectedSize());
    }
    m.item = std::move(item);
    // run() admits files only while every algorithm has a lane free.
    for (const ChecksumType type : m.plan->algorithms) {
      if (type == ChecksumTypeMD5 && md5_) m.md5Lane = *md5_->join();
      if (type == ChecksumTypeSHA1 && sha1_) m.sha1Lane = *sha1_->join();
    }
    members_.push_back(std::move(member));
  }

  void announce(GroupMember& m) {
    if (settings_.observer == nullptr || m.announced) return;
    m.announced = true;
    settings_.observer->readStarted(m.result.entry.path, m.result.entry.device);
  }

  // Reads the next chunk of `m` and hands it to its generators, sinks and lane (not run yet).
  // False at the end of the file or after an error.
  bool readChunk(GroupMember& m) {
    SharedBytes chunk = m.reader->next();
    if (!chunk) {
      m.ended = true;
      return false;
    }
    announce(m);
    for (const std::size_t k : m.plan->handOffOrder) {
      if (m.generators[k]) m.generators[k]->addDataToChecksumAndWait(chunk);
    }
    if (m.sink) m.sink->chunk(chunk);
    hasher_.counters_.bytesRead.fetch_add(chunk->size(), std::memory_order_relaxed);
    if (settings_.observer != nullptr) settings_.observer->bytesRead(chunk->size());
    if (m.md5Lane) md5_->feed(*m.md5Lane, chunk->data(), chunk->size());
    if (m.sha1Lane) sha1_->feed(*m.sha1Lane, chunk->data(), chunk->size());
    m.held = std::move(chunk);
    return true;
  }

  // One turn: a chunk of every file, then the lanes hash them all together.
  void turn() {
    bool stopped = false;
    for (std::size_t k = 0; k < members_.size() && !stopped; ++k) {
      GroupMember& m = *members_[k];
      if (m.done || m.ended) continue;
      if (readChunk(m) && stop_.stop_requested()) stopped = true;
    }
    runLanes();
    std::vector<GroupMember*> ended;
    for (const auto& member : members_) {
      member->held.reset();
      if (member->done) continue;
      if (member->ended) {
        ended.push_back(member.get());
      } else if (stopped) {
        concludeStopped(*member);
      }
    }
    concludeAll(ended);
    std::erase_if(members_, [](const std::unique_ptr<GroupMember>& m) { return m->done; });
  }

  // The end of reading a file, as hash() ends it: size, error, change check, sink, observer,
  // the other algorithms' checksums. Leaves the lanes to the caller.
  FileError endReading(GroupMember& m, bool stopped,
                       std::vector<std::optional<std::string>>& texts) {
    FileReader& reader = *m.reader;
    m.result.size = reader.bytesRead();
    FileError error = stopped ? stoppedError() : reader.error();
    if (!error) error = reader.finish();
    if (m.sink) {
      FileError sinkError = m.sink->finish(error);
      if (!error) error = std::move(sinkError);
    }
    announce(m);
    if (settings_.observer != nullptr) settings_.observer->readFinished(m.result.entry.path);
    texts.clear();
    for (const auto& generator : m.generators) {
      texts.push_back(generator ? generator->finalizeChecksumAndWait() : std::nullopt);
    }
    releaseSlot(m);
    return error;
  }

  // `laned`: the checksums from the lanes by algorithm (empty when there is an error).
  void deliver(GroupMember& m, FileError error, std::vector<std::optional<std::string>>& texts,
               std::map<std::uint64_t, std::string> laned) {
    m.done = true;
    m.reader.reset();
    if (error) {
      m.result.error = std::move(error);
      source_.deliver(std::move(m.result));
      return;
    }
    for (std::size_t i = 0; i < m.plan->algorithms.size(); ++i) {
      const ChecksumType type = m.plan->algorithms[i];
      if (const auto found = laned.find(type.rawValue()); found != laned.end()) {
        m.result.checksums[type] = std::move(found->second);
        continue;
      }
      if (!texts[i]) {
        m.result.error = FileError{FileErrorKind::read, 0, "no checksum produced"};
        m.result.checksums.clear();
        break;
      }
      m.result.checksums[type] = std::move(*texts[i]);
    }
    source_.deliver(std::move(m.result));
  }

  // A file the stop caught before its end.
  void concludeStopped(GroupMember& m) {
    std::vector<std::optional<std::string>> texts;
    FileError error = endReading(m, /*stopped=*/true, texts);
    leaveLanes(m);
    deliver(m, std::move(error), texts, {});
  }

  // Files whose reader ended: their padding is hashed together.
  void concludeAll(const std::vector<GroupMember*>& ended) {
    std::vector<std::vector<std::optional<std::string>>> texts(ended.size());
    std::vector<FileError> errors(ended.size());
    for (std::size_t k = 0; k < ended.size(); ++k) {
      errors[k] = endReading(*ended[k], /*stopped=*/false, texts[k]);
      GroupMember& m = *ended[k];
      if (errors[k]) {
        leaveLanes(m);
        continue;
      }
      if (m.md5Lane) md5_->close(*m.md5Lane);
      if (m.sha1Lane) sha1_->close(*m.sha1Lane);
    }
    runLanes();
    for (std::size_t k = 0; k < ended.size(); ++k) {
      GroupMember& m = *ended[k];
      std::map<std::uint64_t, std::string> laned;
      if (!errors[k] && m.md5Lane) {
        const detail::Md5Digest digest = md5_->takeDigest(*m.md5Lane);
        laned[ChecksumTypeMD5.rawValue()] = detail::hexText(Bytes(digest.begin(), digest.end()));
      }
      if (!errors[k] && m.sha1Lane) {
        const detail::Sha1Digest digest = sha1_->takeDigest(*m.sha1Lane);
        laned[ChecksumTypeSHA1.rawValue()] = detail::hexText(Bytes(digest.begin(), digest.end()));
      }
      deliver(m, std::move(errors[k]), texts[k], std::move(laned));
    }
  }

  // Reads `m` to its end alone and delivers it.
  void drain(GroupMember& m) {
    bool stopped = false;
    while (!m.ended) {
      if (readChunk(m)) {
        runLanes();
        if (stop_.stop_requested()) {
          stopped = true;
          break;
        }
      }
    }
    if (stopped) {
      concludeStopped(m);
    } else {
      concludeAll({&m});
    }
  }

  // The storage device of `m` must be read (its bytes are not cached): a slot of the device, as
  // ItemHasher::hash() takes one. The group shares one slot among its files of a device that
  // allows several readers; before waiting for a slot, it ends the files that hold its other
  // slots, so it never waits while holding one.
  bool beforeDiskRead(GroupMember& m) {
    const std::uint64_t device = m.result.entry.device;
    const auto held = slots_.find(device);
    if (held != slots_.end() && readerLimit(device) != 1) {
      ++held->second;
      m.holdsSlot = true;
      return true;
    }
    for (const auto& member : members_) {
      if (member.get() != &m && member->holdsSlot && !member->done) drain(*member);
    }
    if (!hasher_.limits_.acquire(device, stop_)) return false;
    slots_[device] = 1;
    m.holdsSlot = true;
    return true;
  }

  void releaseSlot(GroupMember& m) {
    if (!m.holdsSlot) return;
    m.holdsSlot = false;
    const std::uint64_t device = m.result.entry.device;
    const auto held = slots_.find(device);
    if (--held->second == 0) {
      slots_.erase(held);
      hasher_.limits_.release(device);
    }
  }

  // As DeviceReaderLimits counts them: the fixed limit, else the device's kind (0: none).
  unsigned readerLimit(std::uint64_t device) {
    if (settings_.readersPerDevice != 0) return settings_.readersPerDevice;
    const auto [found, added] = limits_.try_emplace(device, 0);
    if (added) found->second = suggestedReadersForDevice(device);
    return found->second;
  }

  ItemHasher& hasher_;
  const FileSetSettings& settings_;
  const std::stop_token& stop_;
  GroupSource& source_;
  std::optional<detail::Md5Lanes> md5_;  // nothing when MD5 is hashed one file at a time
  std::optional<detail::Sha1Lanes> sha1_;
  std::vector<std::unique_ptr<GroupMember>> members_;  // in the order they joined
  std::map<std::uint64_t, unsigned> slots_;  // devices the group holds a slot of: files sharing it
  std::map<std::uint64_t, unsigned> limits_;
};

void ItemHasher::hashGroup(FileSetItem first, std::size_t index, const std::stop_token& stop,
                           GroupSource& source) {
  LaneGroup group(*this, stop, source);
  group.run(std::move(first), index);
}

}  // namespace corvane::engine
