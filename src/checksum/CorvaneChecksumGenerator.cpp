#include "corvane/CorvaneChecksumGenerator.hpp"

#include "corvane/Exception.hpp"
#include "dispatch/CountingSemaphore.hpp"
#include "dispatch/SerialQueue.hpp"

namespace corvane {

namespace {
constexpr const char* kFinalizeOperationName = "finalizeChecksumWithCompletionBlock:";
}

CorvaneChecksumGenerator::CorvaneChecksumGenerator()
    : checksummingQueue_(dispatch::SerialQueue::create(kQueueLabel)),
      limitingSemaphore_(std::make_shared<dispatch::CountingSemaphore>(kQueuedTaskLimit)) {}

CorvaneChecksumGenerator::~CorvaneChecksumGenerator() = default;

// --- base-class defaults: a generator without an algorithm -----------------------------------

void CorvaneChecksumGenerator::addDataToChecksum(SharedBytes, UpdateBlock updateBlock) {
  // Spent by its first chunk: it has nothing to compute.
  setIsFinialized(true);
  if (updateBlock) updateBlock();
}

void CorvaneChecksumGenerator::finalizeChecksumWithCompletionBlock(
    CompletionBlock completionBlock) {
  if (completionBlock) completionBlock(std::nullopt);
}

void CorvaneChecksumGenerator::updateChecksumWithData(const Bytes*) {}

std::optional<std::string> CorvaneChecksumGenerator::finalizeChecksum() { return std::nullopt; }

// --- the streaming protocol of every algorithm ------------------------------------------------

void CorvaneStreamingChecksumGenerator::addDataToChecksum(SharedBytes data,
                                                          UpdateBlock updateBlock) {
  if (!data) {
    if (updateBlock) updateBlock();
    return;
  }
  if (limitUsingSemaphore()) limitingSemaphore()->wait();
  // The task keeps the generator, the buffer and the callback alive; no copy of the bytes.
  checksummingQueue()->async(
      [self = std::static_pointer_cast<CorvaneStreamingChecksumGenerator>(shared_from_this()),
       data = std::move(data), block = std::move(updateBlock)] {
        self->absorb(data->data(), data->size());
        if (self->limitUsingSemaphore()) self->limitingSemaphore()->signal();
        if (block) block();
      });
}

void CorvaneStreamingChecksumGenerator::finalizeChecksumWithCompletionBlock(
    CompletionBlock completionBlock) {
  if (limitUsingSemaphore()) limitingSemaphore()->wait();
  checksummingQueue()->async([self = std::static_pointer_cast<CorvaneStreamingChecksumGenerator>(
                                  shared_from_this()),
                              block = std::move(completionBlock)] {
    if (self->isFinialized()) {
      // Raised on the queue: ends the process; the slot is not returned, no callback runs.
      throw Exception("NSInternalInconsistencyException",
                      std::string("You may not finialize a checksum generator more than once: ") +
                          kFinalizeOperationName);
    }
    self->setIsFinialized(true);
    if (auto text = self->finishChecksumText()) self->setChecksumValue(std::move(text));
    if (self->limitUsingSemaphore()) self->limitingSemaphore()->signal();
    block(self->checksumValue());
  });
}

// --- properties -------------------------------------------------------------------------------

std::optional<std::string> CorvaneChecksumGenerator::checksumValue() const {
  std::lock_guard lock(propertyMutex_);
  return checksumValue_;
}

void CorvaneChecksumGenerator::setChecksumValue(std::optional<std::string> value) {
  std::lock_guard lock(propertyMutex_);
  checksumValue_ = std::move(value);
}

std::shared_ptr<dispatch::SerialQueue> CorvaneChecksumGenerator::checksummingQueue() const {
  std::lock_guard lock(propertyMutex_);
  return checksummingQueue_;
}

void CorvaneChecksumGenerator::setChecksummingQueue(std::shared_ptr<dispatch::SerialQueue> queue) {
  std::lock_guard lock(propertyMutex_);
  checksummingQueue_ = std::move(queue);
}

std::shared_ptr<dispatch::CountingSemaphore> CorvaneChecksumGenerator::limitingSemaphore() const {
  std::lock_guard lock(propertyMutex_);
  return limitingSemaphore_;
}

void CorvaneChecksumGenerator::setLimitingSemaphore(
    std::shared_ptr<dispatch::CountingSemaphore> semaphore) {
  std::lock_guard lock(propertyMutex_);
  limitingSemaphore_ = std::move(semaphore);
}

}  // namespace corvane
