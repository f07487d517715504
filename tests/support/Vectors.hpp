// Test helpers shared by the checksum suites: locating and parsing the known-answer files under
// tests/data/vectors, hex conversion, random data and chunk splitting, the algorithms with a
// generator, and running a streaming generator to its result on the calling thread's schedule.
// Independent reference checksums are in support/References.hpp.
//
// The vector files are plain data copied into the project (tests/data/vectors/SOURCES.md names
// the origin of each). Tests find them through the compile definition CORVANE_TEST_DATA_DIR.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/Bytes.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"

namespace corvane::testsupport {

// tests/data, as configured by the build.
std::filesystem::path testDataDirectory();
// tests/data/vectors/<fileName>.
std::filesystem::path vectorFilePath(std::string_view fileName);
// The whole file as text; fails the calling test (ADD_FAILURE) and returns "" when unreadable.
std::string readTextFile(const std::filesystem::path& path);

// Lowercase/uppercase hex digits to bytes. Returns nullopt on odd length or a non-hex digit.
std::optional<Bytes> hexDecode(std::string_view hex);
// Bytes to lowercase hex, two digits per byte.
std::string hexEncode(const Bytes& bytes);
Bytes bytesOf(std::string_view text);
SharedBytes share(Bytes bytes);

// One record of a "Len / Msg / MD" file (NIST CAVP SHAVS .rsp files, the RFC 1321 suite).
// Len is in bits; a record with Len = 0 carries "Msg = 00" and stands for the empty message.
struct MessageDigestVector {
  std::size_t lengthInBits = 0;
  Bytes message;
  std::string digest;    // lowercase hex
  std::size_t line = 0;  // line of the "MD =" entry, for failure messages
};
// Parses every Len/Msg/MD record of `path`. Comment lines ("#") and "[L = n]" headers are
// skipped. A malformed record fails the calling test.
std::vector<MessageDigestVector> readMessageDigestVectors(const std::filesystem::path& path);

// A SHAVS Monte Carlo file: the seed and the digest expected at each checkpoint.
struct MonteCarloVectors {
  Bytes seed;
  std::vector<std::string> checkpoints;  // checkpoints[j] is "COUNT = j"
};
MonteCarloVectors readMonteCarloVectors(const std::filesystem::path& path);

// The fixed seed of the random tests. CORVANE_TEST_SEED in the environment overrides it, so a
// failure printed with its seed can be replayed.
std::uint64_t randomTestSeed();
// "random seed 12345 (set CORVANE_TEST_SEED to replay)", for SCOPED_TRACE.
std::string describeSeed(std::uint64_t seed);

// Splits `input` into consecutive chunks of random sizes in [0, maxChunk]; about one chunk in
// `emptyOneIn` is deliberately empty (0 disables the extra empties). Concatenating the chunks
// gives `input` back.
std::vector<SharedBytes> randomSplit(const Bytes& input, std::mt19937_64& random,
                                     std::size_t maxChunk, unsigned emptyOneIn = 5);
// One chunk per byte.
std::vector<SharedBytes> byteAtATime(const Bytes& input);
// Chunks of `chunkSize` bytes (the last one may be shorter).
std::vector<SharedBytes> fixedSplit(const Bytes& input, std::size_t chunkSize);
// `count` random bytes.
Bytes randomBytes(std::mt19937_64& random, std::size_t count);
// `count` random bytes from a generator freshly seeded with randomTestSeed(): the same bytes
// every call.
Bytes seededRandomBytes(std::size_t count);

// The nine algorithms that have a generator: every single flag except SR Sum (64), which has
// none.
const std::vector<ChecksumType>& typesWithAGenerator();
// typesWithAGenerator(), in the same order, less those the factory does not offer. C4 sits on
// the BigInt arithmetic and joins the list once the factory offers it.
const std::vector<ChecksumType>& algorithmsWithAGenerator();
// A fresh generator of `type` from the factory; null, after failing the calling test without
// ending it, when the factory has none.
std::shared_ptr<CorvaneChecksumGenerator> newGenerator(ChecksumType type);
// The free slots of `generator`'s limiting semaphore, counted by taking them (20 at the most)
// and then giving them back.
int freeSemaphoreSlots(const std::shared_ptr<CorvaneChecksumGenerator>& generator);

// Hands every chunk to `generator` (in order, with update callbacks), then finalizes it and
// waits for the completion callback. Returns the text given to the completion callback.
// Update callbacks that did not run, or ran out of order or after the completion, fail the
// calling test.
std::optional<std::string> runGenerator(const std::shared_ptr<CorvaneChecksumGenerator>& generator,
                                        const std::vector<SharedBytes>& chunks);
// Finalizes `generator` and waits (at most two minutes) for its completion callback; returns the
// text it received. Fails the calling test when the callback does not come.
std::optional<std::string> finalizeAndWait(
    const std::shared_ptr<CorvaneChecksumGenerator>& generator);
// Finalizes `generator`; the future gives the text its completion callback receives.
std::future<std::optional<std::string>> finalizeLater(
    const std::shared_ptr<CorvaneChecksumGenerator>& generator);
// "ChecksumType 16", for SCOPED_TRACE and failure messages.
std::string describeType(ChecksumType type);
// A fresh generator of `type` fed `chunks`. Fails the test when the factory has no generator.
std::optional<std::string> checksumOfChunks(ChecksumType type,
                                            const std::vector<SharedBytes>& chunks);
// A fresh generator of `type` fed `input` as one chunk.
std::optional<std::string> checksumOf(ChecksumType type, const Bytes& input);
std::optional<std::string> checksumOf(ChecksumType type, std::string_view input);

// How expectSplitsGiveTheOneChunkResult cuts each input: random chunks of at most `maxChunk`
// bytes with the default share of empty chunks, random chunks of at most `largeMaxChunk` bytes
// with one empty chunk in `largeEmptyOneIn`, and one byte at a time for inputs of at most
// `byteAtATimeUpTo` bytes.
struct SplitPlan {
  std::size_t maxChunk = 0;
  std::size_t largeMaxChunk = 0;
  unsigned largeEmptyOneIn = 5;
  std::size_t byteAtATimeUpTo = 0;
};
// For every length of `lengths`, random bytes of that length (from randomTestSeed()) fed to a
// generator of each of `types` in the chunks of `plan` must give the result of one chunk.
void expectSplitsGiveTheOneChunkResult(const std::vector<ChecksumType>& types,
                                       const std::vector<std::size_t>& lengths,
                                       const SplitPlan& plan);

// Blocks the generator's serial queue until release() (or destruction) so tests can observe
// what happens while tasks are waiting. The constructor queues the blocking task and returns once
// it has started running on the queue.
class QueueStall {
 public:
  explicit QueueStall(const std::shared_ptr<CorvaneChecksumGenerator>& generator);
  ~QueueStall();
  QueueStall(const QueueStall&) = delete;
  QueueStall& operator=(const QueueStall&) = delete;

  void release();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace corvane::testsupport
