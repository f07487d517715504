// CorvaneChecksumGenerator: the streaming checksum interface and its factory.
//
// A caller obtains a generator for one algorithm from checksumGeneratorForType(), hands it the
// input in chunks with addDataToChecksum(), and ends it once with
// finalizeChecksumWithCompletionBlock() to receive the checksum text. Both calls return at once;
// hashing runs on the generator's own serial queue, in the order the chunks were handed over.
// At most eight tasks of one generator are queued at a time: a ninth hand-off blocks its caller
// until one of them has finished.
//
// Generators live in std::shared_ptr (create them through the factory or std::make_shared).
// Queued tasks hold their own references to the generator, the buffer and the callbacks.
// Finalizing a generator twice is a programming error: the second finalization task ends the
// process with NSInternalInconsistencyException.
//
// A bare CorvaneChecksumGenerator (checksumType 0) has no algorithm: its first added chunk
// marks it finalized and its finalization reports null at once.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/Export.hpp"

namespace corvane {

namespace dispatch {
class SerialQueue;
class CountingSemaphore;
}  // namespace dispatch

class CORVANE_API CorvaneChecksumGenerator
    : public std::enable_shared_from_this<CorvaneChecksumGenerator> {
 public:
  using UpdateBlock = std::function<void()>;
  using CompletionBlock = std::function<void(const std::optional<std::string>& checksum)>;

  // Label shared by the queues of all generators (each generator has a queue of its own).
  static constexpr const char* kQueueLabel = "com.corvane.replication.checksum";
  // Number of tasks of one generator that may be queued and unfinished at once.
  static constexpr int kQueuedTaskLimit = 8;

  CorvaneChecksumGenerator();
  virtual ~CorvaneChecksumGenerator();
  CorvaneChecksumGenerator(const CorvaneChecksumGenerator&) = delete;
  CorvaneChecksumGenerator& operator=(const CorvaneChecksumGenerator&) = delete;

  // The factory: a new generator of the class that computes `type`, or null when `type` is not
  // one of the algorithms with a generator (0, masks, SR Sum and unknown bits give null).
  static std::shared_ptr<CorvaneChecksumGenerator> checksumGeneratorForType(ChecksumType type);
  // A generator that stands for an already known checksum: finalized, holding `checksumValue`.
  // Null when the factory has no generator for `type`.
  static std::shared_ptr<CorvaneChecksumGenerator> checksumGeneratorForType(
      ChecksumType type, std::optional<std::string> precalculatedChecksum);

  // --- one-shot helpers: one checksum in one blocking call ------------------------------------
  // Must not be called on a generator's own queue (they wait for it).

  // Synchronous pair of the generator: only MD5 implements it, so every other type gives null
  // (by design). Null `data` gives null.
  static std::optional<std::string> checksumData(const Bytes* data, ChecksumType withType);
  // The checksum of `data` (null counts as empty); null when `algorithm` has no generator.
  // For C4 the result is the C4 ID.
  static std::optional<std::string> generateDataChecksum(SharedBytes data, ChecksumType algorithm);
  // The checksum of the file at `path`, read in chunks of 8 MiB (or `readSize` bytes; 0 reads
  // nothing, a negative size reads to the end in 8 MiB chunks). Null when `algorithm` has no
  // generator or the file cannot be opened. A read error throws Exception
  // ("NSFileHandleOperationException", "<path>: <reason>").
  static std::optional<std::string> generateFileChecksum(const std::string& path,
                                                         ChecksumType algorithm);
  static std::optional<std::string> generateFileChecksum(const std::string& path,
                                                         ChecksumType algorithm,
                                                         std::int64_t readSize);
  // Hex text to bytes, last pair first (storeAsLittleEndian true, the default) or in text order.
  // An odd-length text gets a "0" at the front (little endian) or at the end (big endian). Each
  // pair is read like strtol(pair, 16): leading spaces skipped, a sign accepted, conversion stops
  // at the first non-hex character; the byte is the low 8 bits ("-1" gives 0xff).
  static Bytes dataFromHexString(const std::string& hexString);
  static Bytes dataFromHexString(const std::string& hexString, bool storeAsLittleEndian);

  // Hands one chunk over. A null buffer calls `updateBlock` at once on the caller's thread.
  // Otherwise the chunk is queued (blocking while eight tasks are pending) and `updateBlock`
  // runs on the queue after the chunk was absorbed; the buffer must not change until then.
  virtual void addDataToChecksum(SharedBytes data, UpdateBlock updateBlock);
  // Ends the input. `completionBlock` (required) receives the text once every chunk handed over
  // before has been absorbed.
  virtual void finalizeChecksumWithCompletionBlock(CompletionBlock completionBlock);
  // Blocking forms of the two calls above, for callers that want to wait anyway: they return
  // once the chunk was absorbed, or with the text once the generator was finalized. When no
  // worker is running the generator's queue at that moment, the waiting thread runs the queued
  // work itself, so no thread is woken for it; order and one-task-at-a-time still hold. Must not
  // be called on the generator's own queue (they wait for it).
  void addDataToChecksumAndWait(const SharedBytes& data);
  std::optional<std::string> finalizeChecksumAndWait();
  // Synchronous pair (only MD5 implements them; the defaults do nothing / return null).
  virtual void updateChecksumWithData(const Bytes* data);
  virtual std::optional<std::string> finalizeChecksum();

  // Properties. Reads and writes are atomic.
  bool isFinialized() const noexcept { return isFinialized_.load(); }
  void setIsFinialized(bool value) noexcept { isFinialized_.store(value); }
  bool limitUsingSemaphore() const noexcept { return limitUsingSemaphore_.load(); }
  // Must not change while tasks are outstanding: waits and signals would no longer pair.
  void setLimitUsingSemaphore(bool value) noexcept { limitUsingSemaphore_.store(value); }
  ChecksumType checksumType() const noexcept { return ChecksumType(checksumType_.load()); }
  void setChecksumType(ChecksumType type) noexcept { checksumType_.store(type.rawValue()); }
  std::optional<std::string> checksumValue() const;
  void setChecksumValue(std::optional<std::string> value);
  std::shared_ptr<dispatch::SerialQueue> checksummingQueue() const;
  void setChecksummingQueue(std::shared_ptr<dispatch::SerialQueue> queue);
  std::shared_ptr<dispatch::CountingSemaphore> limitingSemaphore() const;
  void setLimitingSemaphore(std::shared_ptr<dispatch::CountingSemaphore> semaphore);

 private:
  std::atomic<bool> isFinialized_{false};
  std::atomic<bool> limitUsingSemaphore_{true};
  std::atomic<std::uint64_t> checksumType_{0};
  mutable std::mutex propertyMutex_;
  std::optional<std::string> checksumValue_;
  std::shared_ptr<dispatch::SerialQueue> checksummingQueue_;
  std::shared_ptr<dispatch::CountingSemaphore> limitingSemaphore_;
};

// The streaming protocol shared by every algorithm class. A chunk: a null buffer calls back at
// once; otherwise wait for a semaphore slot, then queue a task that absorbs the bytes, returns
// the slot and calls back. Finalization: wait for a slot, then queue a task that raises the
// double-finalization error if already finalized, else marks the generator finalized, finishes
// the algorithm, stores the text, returns the slot and calls the completion with the text.
class CORVANE_API CorvaneStreamingChecksumGenerator : public CorvaneChecksumGenerator {
 public:
  void addDataToChecksum(SharedBytes data, UpdateBlock updateBlock) override;
  void finalizeChecksumWithCompletionBlock(CompletionBlock completionBlock) override;

 protected:
  // Run on the generator's queue, one task at a time.
  virtual void absorb(const std::uint8_t* bytes, std::size_t length) = 0;
  virtual std::optional<std::string> finishChecksumText() = 0;
};

}  // namespace corvane
