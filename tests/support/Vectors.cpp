#include "support/Vectors.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <sstream>

#include "dispatch/CountingSemaphore.hpp"
#include "dispatch/SerialQueue.hpp"

namespace corvane::testsupport {

namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

// Splits "Key = value" into its two trimmed halves; false for lines of another shape.
bool splitAssignment(std::string_view line, std::string_view& key, std::string_view& value) {
  const auto equals = line.find('=');
  if (equals == std::string_view::npos) return false;
  key = trim(line.substr(0, equals));
  value = trim(line.substr(equals + 1));
  return true;
}

int hexDigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

// Calls `visit` with the line number, key and value of every "Key = value" line of `path`. Blank
// lines, comment lines ("#") and "[L = n]" headers are skipped.
void forEachAssignment(
    const std::filesystem::path& path,
    const std::function<void(std::size_t, std::string_view, std::string_view)>& visit) {
  std::istringstream lines(readTextFile(path));
  std::string rawLine;
  std::size_t lineNumber = 0;
  while (std::getline(lines, rawLine)) {
    ++lineNumber;
    const std::string_view line = trim(rawLine);
    if (line.empty() || line.front() == '#' || line.front() == '[') continue;
    std::string_view key;
    std::string_view value;
    if (splitAssignment(line, key, value)) visit(lineNumber, key, value);
  }
}

std::string lowercase(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

}  // namespace

std::filesystem::path testDataDirectory() { return std::filesystem::path(CORVANE_TEST_DATA_DIR); }

std::filesystem::path vectorFilePath(std::string_view fileName) {
  return testDataDirectory() / "vectors" / std::filesystem::path(fileName);
}

std::string readTextFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    ADD_FAILURE() << "cannot open test data file " << path;
    return {};
  }
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

std::optional<Bytes> hexDecode(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  Bytes bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int high = hexDigitValue(hex[i]);
    const int low = hexDigitValue(hex[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
  }
  return bytes;
}

std::string hexEncode(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (std::uint8_t byte : bytes) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0F]);
  }
  return text;
}

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

SharedBytes share(Bytes bytes) { return std::make_shared<const Bytes>(std::move(bytes)); }

std::vector<MessageDigestVector> readMessageDigestVectors(const std::filesystem::path& path) {
  std::vector<MessageDigestVector> vectors;
  bool haveLength = false;
  std::size_t length = 0;
  std::optional<Bytes> message;
  forEachAssignment(
      path, [&](std::size_t lineNumber, std::string_view key, std::string_view value) {
        if (key == "Len") {
          length = static_cast<std::size_t>(std::stoull(std::string(value)));
          haveLength = true;
          message.reset();
        } else if (key == "Msg") {
          message = hexDecode(value);
          if (!message) ADD_FAILURE() << path << ":" << lineNumber << ": bad hex in Msg";
        } else if (key == "MD") {
          if (!haveLength || !message) {
            ADD_FAILURE() << path << ":" << lineNumber << ": MD without Len and Msg";
            return;
          }
          MessageDigestVector vector;
          vector.lengthInBits = length;
          // "Len = 0" is written with "Msg = 00": the message is empty.
          vector.message = length == 0 ? Bytes{} : *message;
          vector.digest = lowercase(value);
          vector.line = lineNumber;
          if (vector.message.size() * 8 != vector.lengthInBits) {
            ADD_FAILURE() << path << ":" << lineNumber << ": Len " << vector.lengthInBits
                          << " does not match " << vector.message.size() << " message bytes";
          }
          vectors.push_back(std::move(vector));
          haveLength = false;
          message.reset();
        }
      });
  return vectors;
}

MonteCarloVectors readMonteCarloVectors(const std::filesystem::path& path) {
  MonteCarloVectors vectors;
  bool haveCount = false;
  std::size_t count = 0;
  forEachAssignment(
      path, [&](std::size_t lineNumber, std::string_view key, std::string_view value) {
        if (key == "Seed") {
          auto seed = hexDecode(value);
          if (!seed) ADD_FAILURE() << path << ":" << lineNumber << ": bad hex in Seed";
          vectors.seed = seed.value_or(Bytes{});
        } else if (key == "COUNT") {
          count = static_cast<std::size_t>(std::stoull(std::string(value)));
          haveCount = true;
        } else if (key == "MD") {
          if (!haveCount || count != vectors.checkpoints.size()) {
            ADD_FAILURE() << path << ":" << lineNumber << ": checkpoints out of sequence";
          }
          vectors.checkpoints.push_back(lowercase(value));
          haveCount = false;
        }
      });
  return vectors;
}

std::uint64_t randomTestSeed() {
  if (const char* text = std::getenv("CORVANE_TEST_SEED"); text != nullptr && *text != '\0') {
    return std::strtoull(text, nullptr, 0);
  }
  return 0x5EED2024C0FFEEULL;
}

std::string describeSeed(std::uint64_t seed) {
  return "random seed " + std::to_string(seed) + " (set CORVANE_TEST_SEED=" + std::to_string(seed) +
         " to replay)";
}

std::vector<SharedBytes> randomSplit(const Bytes& input, std::mt19937_64& random,
                                     std::size_t maxChunk, unsigned emptyOneIn) {
  std::vector<SharedBytes> chunks;
  std::size_t offset = 0;
  std::uniform_int_distribution<std::size_t> size(0, std::max<std::size_t>(maxChunk, 1));
  std::uniform_int_distribution<unsigned> oneIn(0, emptyOneIn == 0 ? 0 : emptyOneIn - 1);
  if (emptyOneIn != 0) chunks.push_back(share({}));  // an empty chunk before any data
  while (offset < input.size()) {
    if (emptyOneIn != 0 && oneIn(random) == 0) {
      chunks.push_back(share({}));
      continue;
    }
    const std::size_t length = std::min(size(random), input.size() - offset);
    chunks.push_back(share(Bytes(input.begin() + static_cast<std::ptrdiff_t>(offset),
                                 input.begin() + static_cast<std::ptrdiff_t>(offset + length))));
    offset += length;
  }
  if (emptyOneIn != 0) chunks.push_back(share({}));  // and one after the last
  return chunks;
}

std::vector<SharedBytes> byteAtATime(const Bytes& input) { return fixedSplit(input, 1); }

std::vector<SharedBytes> fixedSplit(const Bytes& input, std::size_t chunkSize) {
  std::vector<SharedBytes> chunks;
  for (std::size_t offset = 0; offset < input.size(); offset += chunkSize) {
    const std::size_t length = std::min(chunkSize, input.size() - offset);
    chunks.push_back(share(Bytes(input.begin() + static_cast<std::ptrdiff_t>(offset),
                                 input.begin() + static_cast<std::ptrdiff_t>(offset + length))));
  }
  return chunks;
}

Bytes randomBytes(std::mt19937_64& random, std::size_t count) {
  Bytes bytes(count);
  std::uniform_int_distribution<unsigned> byte(0, 255);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(random));
  return bytes;
}

Bytes seededRandomBytes(std::size_t count) {
  std::mt19937_64 random(randomTestSeed());
  return randomBytes(random, count);
}

const std::vector<ChecksumType>& typesWithAGenerator() {
  static const std::vector<ChecksumType> types{
      ChecksumTypeMD5,  ChecksumTypeXXHash64,   ChecksumTypeCRC32,
      ChecksumTypeSHA1, ChecksumTypeSHA256,     ChecksumTypeSHA512,
      ChecksumTypeC4,   ChecksumTypeXXHashH364, ChecksumTypeXXHashH3128};
  return types;
}

const std::vector<ChecksumType>& algorithmsWithAGenerator() {
  static const std::vector<ChecksumType> available = [] {
    std::vector<ChecksumType> types;
    for (ChecksumType type : typesWithAGenerator()) {
      if (CorvaneChecksumGenerator::checksumGeneratorForType(type)) types.push_back(type);
    }
    return types;
  }();
  return available;
}

std::shared_ptr<CorvaneChecksumGenerator> newGenerator(ChecksumType type) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
  if (!generator) ADD_FAILURE() << "no generator for " << describeType(type);
  return generator;
}

int freeSemaphoreSlots(const std::shared_ptr<CorvaneChecksumGenerator>& generator) {
  const auto semaphore = generator->limitingSemaphore();
  int freeSlots = 0;
  while (freeSlots < 20 && semaphore->tryWait()) ++freeSlots;
  for (int i = 0; i < freeSlots; ++i) semaphore->signal();
  return freeSlots;
}

std::optional<std::string> runGenerator(const std::shared_ptr<CorvaneChecksumGenerator>& generator,
                                        const std::vector<SharedBytes>& chunks) {
  if (!generator) {
    ADD_FAILURE() << "no generator";
    return std::nullopt;
  }
  // Shared with the callbacks, which may outlive this frame if the generator misbehaves.
  struct Progress {
    std::mutex mutex;
    std::vector<std::size_t> updateOrder;
    bool completed = false;
    bool updateAfterCompletion = false;
    std::promise<std::optional<std::string>> result;
  };
  auto progress = std::make_shared<Progress>();
  const auto queue = generator->checksummingQueue();

  for (std::size_t i = 0; i < chunks.size(); ++i) {
    generator->addDataToChecksum(chunks[i], [progress, i] {
      std::lock_guard lock(progress->mutex);
      progress->updateOrder.push_back(i);
      if (progress->completed) progress->updateAfterCompletion = true;
    });
    // Absorb pending chunks on this thread now and then, so feeding many small chunks does not
    // pay a thread wake-up per chunk. Order and one-task-at-a-time are kept by the queue.
    if (queue && i % 8 == 7) queue->runPendingTasksHere();
  }
  generator->finalizeChecksumWithCompletionBlock(
      [progress](const std::optional<std::string>& checksum) {
        {
          std::lock_guard lock(progress->mutex);
          progress->completed = true;
        }
        progress->result.set_value(checksum);
      });
  if (queue) queue->runPendingTasksHere();
  auto future = progress->result.get_future();
  if (future.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
    ADD_FAILURE() << "the completion callback was not called within 120 s";
    return std::nullopt;
  }
  auto checksum = future.get();

  std::lock_guard lock(progress->mutex);
  EXPECT_EQ(progress->updateOrder.size(), chunks.size()) << "update callbacks missing";
  EXPECT_FALSE(progress->updateAfterCompletion) << "an update callback ran after completion";
  // Chunks that are queued are absorbed (and called back) in the order they were handed over;
  // null chunks, and empty chunks for MD5, are called back at once, so they are not checked.
  std::size_t previous = 0;
  bool first = true;
  for (std::size_t index : progress->updateOrder) {
    if (!chunks[index] || chunks[index]->empty()) continue;
    if (!first) {
      EXPECT_LT(previous, index) << "update callbacks out of order";
    }
    previous = index;
    first = false;
  }
  return checksum;
}

std::future<std::optional<std::string>> finalizeLater(
    const std::shared_ptr<CorvaneChecksumGenerator>& generator) {
  auto promise = std::make_shared<std::promise<std::optional<std::string>>>();
  auto future = promise->get_future();
  generator->finalizeChecksumWithCompletionBlock(
      [promise](const std::optional<std::string>& checksum) { promise->set_value(checksum); });
  return future;
}

std::optional<std::string> finalizeAndWait(
    const std::shared_ptr<CorvaneChecksumGenerator>& generator) {
  auto future = finalizeLater(generator);
  if (future.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
    ADD_FAILURE() << "the completion callback was not called within 120 s";
    return std::nullopt;
  }
  return future.get();
}

std::string describeType(ChecksumType type) {
  return "ChecksumType " + std::to_string(type.rawValue());
}

std::optional<std::string> checksumOfChunks(ChecksumType type,
                                            const std::vector<SharedBytes>& chunks) {
  auto generator = newGenerator(type);
  if (!generator) return std::nullopt;
  return runGenerator(generator, chunks);
}

std::optional<std::string> checksumOf(ChecksumType type, const Bytes& input) {
  return checksumOfChunks(type, {share(input)});
}

std::optional<std::string> checksumOf(ChecksumType type, std::string_view input) {
  return checksumOf(type, bytesOf(input));
}

void expectSplitsGiveTheOneChunkResult(const std::vector<ChecksumType>& types,
                                       const std::vector<std::size_t>& lengths,
                                       const SplitPlan& plan) {
  const auto seed = randomTestSeed();
  SCOPED_TRACE(describeSeed(seed));
  std::mt19937_64 random(seed);
  for (std::size_t length : lengths) {
    const Bytes input = randomBytes(random, length);
    for (ChecksumType type : types) {
      SCOPED_TRACE(describeType(type) + " length " + std::to_string(length));
      const auto oneChunk = checksumOf(type, input);
      ASSERT_TRUE(oneChunk.has_value());
      // Random sizes with empty chunks mixed in (and before and after the data).
      EXPECT_EQ(checksumOfChunks(type, randomSplit(input, random, plan.maxChunk)), oneChunk);
      EXPECT_EQ(checksumOfChunks(
                    type, randomSplit(input, random, plan.largeMaxChunk, plan.largeEmptyOneIn)),
                oneChunk);
      if (length <= plan.byteAtATimeUpTo) {
        EXPECT_EQ(checksumOfChunks(type, byteAtATime(input)), oneChunk);
      }
    }
  }
}

struct QueueStall::State {
  std::mutex mutex;
  std::condition_variable changed;
  bool started = false;
  bool released = false;
};

QueueStall::QueueStall(const std::shared_ptr<CorvaneChecksumGenerator>& generator)
    : state_(std::make_shared<State>()) {
  generator->checksummingQueue()->async([state = state_] {
    std::unique_lock lock(state->mutex);
    state->started = true;
    state->changed.notify_all();
    state->changed.wait(lock, [&] { return state->released; });
  });
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock, [&] { return state_->started; });
}

QueueStall::~QueueStall() { release(); }

void QueueStall::release() {
  std::lock_guard lock(state_->mutex);
  state_->released = true;
  state_->changed.notify_all();
}

}  // namespace corvane::testsupport
