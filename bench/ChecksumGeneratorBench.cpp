// Throughput and overhead of the streaming checksum generators.
//
// Benchmarks (rates use wall-clock time, because the hashing may run on a pool worker while the
// benchmark thread only waits; the reported CPU time is that of the whole process, all threads):
//   Generator/<alg>                 one generator per iteration over an 8 MiB buffer: add the whole
//                                   buffer, finalize, wait for the completion callback.
//   GeneratorFixedCost/<alg>        the same with an empty buffer: what a generator costs besides
//                                   hashing (creation, two hand-offs, finalization, wait).
//   GeneratorForced/<alg>/<isa>     the same for XXH3-64 and XXH3-128 with the xxHash build forced
//                                   to sse2, avx2 or avx512 (only the variants this CPU supports).
//   Raw/<alg>/<size>                the backend the library uses (OpenSSL EVP, ISA-L, the xxHash
//                                   the library carries) called directly on a streaming state,
//                                   without generator, queue or callback. Sizes 1 KiB and 8 MiB.
//   RawOneShot/<xxh>/8388608        the one-call xxHash functions (XXH64, XXH3_64bits,
//                                   XXH3_128bits) of the library on 8 MiB, as xxhsum -b measures.
//   ChunkAddThenWait/<alg>          one long-lived generator fed 1 KiB chunks the way the
//                                   multi-algorithm generator feeds it: Group enter,
//                                   addDataToChecksum, wait(queue). Time per chunk minus
//                                   Raw/<alg>/1024 is the per-chunk overhead beyond hashing.
//   Dispatch*                       the serial queue on its own: async of an empty task followed by
//                                   a group wait, with and without the waiting thread helping, a
//                                   batch of tasks handed to a busy worker, and sync.
//   ChecksumGeneratorBuffer/<algs>  ChecksumGenerator's buffer form over 8 MiB (bytes processed
//                                   count the input once, whatever the number of algorithms).
#include <benchmark/benchmark.h>
#include <isa-l/crc.h>
#include <openssl/evp.h>
#include <xxhash.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/XXHashImplementation.hpp"
#include "dispatch/Group.hpp"
#include "dispatch/SerialQueue.hpp"

namespace {

using corvane::Bytes;
using corvane::ChecksumGenerator;
using corvane::ChecksumType;
using corvane::CorvaneChecksumGenerator;
using corvane::SharedBytes;
using corvane::XXHashImplementation;
namespace dispatch = corvane::dispatch;

constexpr std::size_t kBufferSize = 8u << 20;  // the library's file read size
constexpr std::size_t kChunkSize = 1024;

struct Algorithm {
  const char* name;
  ChecksumType type;
};

const std::vector<Algorithm>& algorithms() {
  static const std::vector<Algorithm> list = {
      {"MD5", corvane::ChecksumTypeMD5},
      {"CRC32", corvane::ChecksumTypeCRC32},
      {"SHA1", corvane::ChecksumTypeSHA1},
      {"SHA256", corvane::ChecksumTypeSHA256},
      {"SHA512", corvane::ChecksumTypeSHA512},
      {"XXH64", corvane::ChecksumTypeXXHash64},
      {"XXH3-64", corvane::ChecksumTypeXXHashH364},
      {"XXH3-128", corvane::ChecksumTypeXXHashH3128},
  };
  return list;
}

// Pseudo-random bytes (fixed seed): no algorithm gets an easy input.
SharedBytes randomBytes(std::size_t size) {
  auto bytes = std::make_shared<Bytes>(size);
  std::mt19937_64 random(0x5eed);
  for (std::size_t i = 0; i < size; i += 8) {
    const std::uint64_t word = random();
    for (std::size_t j = 0; j < 8 && i + j < size; ++j)
      (*bytes)[i + j] = std::uint8_t(word >> (8 * j));
  }
  return bytes;
}

const SharedBytes& bigBuffer() {
  static const SharedBytes buffer = randomBytes(kBufferSize);
  return buffer;
}

const SharedBytes& chunk() {
  static const SharedBytes buffer = randomBytes(kChunkSize);
  return buffer;
}

// Finalizes `generator` and waits for its text (helping its queue like the library's callers).
std::optional<std::string> finalizeAndWait(
    const std::shared_ptr<CorvaneChecksumGenerator>& generator, dispatch::Group& group) {
  std::optional<std::string> text;
  group.enter();
  generator->finalizeChecksumWithCompletionBlock([&text, &group](const auto& checksum) {
    text = checksum;
    group.leave();
  });
  group.wait(generator->checksummingQueue());
  return text;
}

// --- full add/finalize path over 8 MiB --------------------------------------------------------

void generatorThroughput(benchmark::State& state, ChecksumType type) {
  const SharedBytes& data = bigBuffer();
  dispatch::Group group;  // outlives every callback that leaves it
  const auto caller = std::this_thread::get_id();
  std::int64_t hashedByCaller = 0;
  for (auto _ : state) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
    std::thread::id hashedOn;
    group.enter();
    generator->addDataToChecksum(data, [&group, &hashedOn] {
      hashedOn = std::this_thread::get_id();
      group.leave();
    });
    auto text = finalizeAndWait(generator, group);
    benchmark::DoNotOptimize(text);
    hashedByCaller += hashedOn == caller;
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(data->size()));
  // Fraction of the buffers hashed by the waiting thread itself rather than by a pool worker.
  state.counters["hashed_by_caller"] =
      benchmark::Counter(double(hashedByCaller), benchmark::Counter::kAvgIterations);
}

// The fixed cost of one generator: create, add an empty buffer, finalize, wait. This is what the
// full path pays on top of hashing for every buffer.
void generatorFixedCost(benchmark::State& state, ChecksumType type) {
  static const SharedBytes empty = std::make_shared<const Bytes>();
  dispatch::Group group;
  for (auto _ : state) {
    auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
    group.enter();
    generator->addDataToChecksum(empty, [&group] { group.leave(); });
    auto text = finalizeAndWait(generator, group);
    benchmark::DoNotOptimize(text);
  }
}

void forcedGeneratorThroughput(benchmark::State& state, ChecksumType type,
                               XXHashImplementation variant) {
  const XXHashImplementation previous = corvane::activeXXHashImplementation();
  if (!corvane::forceXXHashImplementation(variant)) {
    state.SkipWithError("xxHash variant not supported on this CPU");
    for (auto _ : state) {
    }
    return;
  }
  state.SetLabel(corvane::xxHashImplementationName(variant));
  generatorThroughput(state, type);
  corvane::forceXXHashImplementation(previous);
}

// --- raw backends ------------------------------------------------------------------------------

// One streaming state of the backend behind `type`, fed with update(bytes, length).
class RawHasher {
 public:
  explicit RawHasher(ChecksumType type) {
    if (type == corvane::ChecksumTypeCRC32) {
      update_ = [this](const std::uint8_t* p, std::size_t n) {
        crc_ = crc32_gzip_refl(crc_, p, n);
      };
    } else if (type == corvane::ChecksumTypeXXHash64) {
      xxh64_ = XXH64_createState();
      XXH64_reset(xxh64_, 0);
      update_ = [this](const std::uint8_t* p, std::size_t n) { XXH64_update(xxh64_, p, n); };
    } else if (type == corvane::ChecksumTypeXXHashH364) {
      xxh3_ = XXH3_createState();
      XXH3_64bits_reset_withSeed(xxh3_, 0);
      update_ = [this](const std::uint8_t* p, std::size_t n) { XXH3_64bits_update(xxh3_, p, n); };
    } else if (type == corvane::ChecksumTypeXXHashH3128) {
      xxh3_ = XXH3_createState();
      XXH3_128bits_reset_withSeed(xxh3_, 0);
      update_ = [this](const std::uint8_t* p, std::size_t n) { XXH3_128bits_update(xxh3_, p, n); };
    } else {
      const EVP_MD* md = type == corvane::ChecksumTypeMD5      ? EVP_md5()
                         : type == corvane::ChecksumTypeSHA1   ? EVP_sha1()
                         : type == corvane::ChecksumTypeSHA256 ? EVP_sha256()
                                                               : EVP_sha512();
      digest_ = EVP_MD_CTX_new();
      EVP_DigestInit_ex(digest_, md, nullptr);
      update_ = [this](const std::uint8_t* p, std::size_t n) { EVP_DigestUpdate(digest_, p, n); };
    }
  }
  ~RawHasher() {
    if (xxh64_ != nullptr) XXH64_freeState(xxh64_);
    if (xxh3_ != nullptr) XXH3_freeState(xxh3_);
    if (digest_ != nullptr) EVP_MD_CTX_free(digest_);
  }
  RawHasher(const RawHasher&) = delete;
  RawHasher& operator=(const RawHasher&) = delete;

  void update(const std::uint8_t* bytes, std::size_t length) { update_(bytes, length); }
  std::uint32_t crc() const { return crc_; }

 private:
  std::function<void(const std::uint8_t*, std::size_t)> update_;
  std::uint32_t crc_ = 0;
  XXH64_state_t* xxh64_ = nullptr;
  XXH3_state_t* xxh3_ = nullptr;
  EVP_MD_CTX* digest_ = nullptr;
};

void rawThroughput(benchmark::State& state, ChecksumType type, const SharedBytes& data) {
  RawHasher hasher(type);
  for (auto _ : state) {
    hasher.update(data->data(), data->size());
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(hasher.crc());
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(data->size()));
}

// The one-call xxHash functions (what xxhsum -b measures), for comparison with the streaming
// update that a generator has to use.
void rawOneShotThroughput(benchmark::State& state, ChecksumType type) {
  const SharedBytes& data = bigBuffer();
  std::uint64_t sink = 0;
  for (auto _ : state) {
    if (type == corvane::ChecksumTypeXXHash64) {
      sink += XXH64(data->data(), data->size(), 0);
    } else if (type == corvane::ChecksumTypeXXHashH364) {
      sink += XXH3_64bits(data->data(), data->size());
    } else {
      sink += XXH3_128bits(data->data(), data->size()).low64;
    }
    benchmark::DoNotOptimize(sink);
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(data->size()));
}

// --- per-chunk overhead: the add-then-wait pattern with 1 KiB chunks ---------------------------

void chunkAddThenWait(benchmark::State& state, ChecksumType type) {
  const SharedBytes& data = chunk();
  dispatch::Group group;
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
  const auto queue = generator->checksummingQueue();
  for (auto _ : state) {
    group.enter();
    generator->addDataToChecksum(data, [&group] { group.leave(); });
    group.wait(queue);
  }
  auto text = finalizeAndWait(generator, group);
  benchmark::DoNotOptimize(text);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(data->size()));
}

// --- dispatch per-task overhead ----------------------------------------------------------------

// async + wait(queue): the waiting thread runs the task itself when no worker holds the queue.
void dispatchAsyncWaitHelped(benchmark::State& state) {
  auto queue = dispatch::SerialQueue::create(CorvaneChecksumGenerator::kQueueLabel);
  dispatch::Group group;
  for (auto _ : state) {
    group.enter();
    queue->async([&group] { group.leave(); });
    group.wait(queue);
  }
}

// async + plain wait(): a worker must pick the task up and wake the waiter (thread round trip).
void dispatchAsyncWaitNoHelp(benchmark::State& state) {
  auto queue = dispatch::SerialQueue::create(CorvaneChecksumGenerator::kQueueLabel);
  dispatch::Group group;
  for (auto _ : state) {
    group.enter();
    queue->async([&group] { group.leave(); });
    group.wait();
  }
}

// Batches of empty tasks handed to a worker that is already busy with the queue; reported per
// task (items/second).
void dispatchAsyncBatch(benchmark::State& state) {
  const auto batch = state.range(0);
  auto queue = dispatch::SerialQueue::create(CorvaneChecksumGenerator::kQueueLabel);
  dispatch::Group group;
  for (auto _ : state) {
    for (std::int64_t i = 0; i < batch; ++i) {
      group.enter();
      queue->async([&group] { group.leave(); });
    }
    group.wait();
  }
  state.SetItemsProcessed(std::int64_t(state.iterations()) * batch);
}

void dispatchSync(benchmark::State& state) {
  auto queue = dispatch::SerialQueue::create(CorvaneChecksumGenerator::kQueueLabel);
  std::uint64_t counter = 0;
  for (auto _ : state) queue->sync([&counter] { ++counter; });
  benchmark::DoNotOptimize(counter);
}

// --- ChecksumGenerator buffer form -------------------------------------------------------------

void checksumGeneratorBuffer(benchmark::State& state, std::vector<ChecksumType> types) {
  const Bytes& data = *bigBuffer();
  const ChecksumGenerator generator(std::move(types));
  std::size_t supplied = 0;
  for (auto _ : state) {
    generator.generateChecksumForData(
        data, [](float, std::uint64_t, bool*) {},
        [&supplied](const std::string& text, ChecksumType) { supplied += text.size(); });
  }
  benchmark::DoNotOptimize(supplied);
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(data.size()));
}

void registerAll() {
  using std::string;
  const auto registerRealTime = [](const string& name, auto&& function) {
    return benchmark::RegisterBenchmark(name.c_str(), std::forward<decltype(function)>(function))
        ->MeasureProcessCPUTime()
        ->UseRealTime();
  };

  for (const auto& algorithm : algorithms()) {
    const ChecksumType type = algorithm.type;
    registerRealTime(string("Generator/") + algorithm.name, [type](benchmark::State& state) {
      generatorThroughput(state, type);
    })->Unit(benchmark::kMillisecond);
  }
  for (const auto& algorithm : algorithms()) {
    const ChecksumType type = algorithm.type;
    registerRealTime(string("GeneratorFixedCost/") + algorithm.name, [type](
                                                                         benchmark::State& state) {
      generatorFixedCost(state, type);
    })->Unit(benchmark::kMicrosecond);
  }
  for (const auto& algorithm : algorithms()) {
    const ChecksumType type = algorithm.type;
    if (type != corvane::ChecksumTypeXXHashH364 && type != corvane::ChecksumTypeXXHashH3128) {
      continue;
    }
    for (auto variant :
         {XXHashImplementation::sse2, XXHashImplementation::avx2, XXHashImplementation::avx512}) {
      if (!corvane::isXXHashImplementationSupported(variant)) continue;
      registerRealTime(string("GeneratorForced/") + algorithm.name + "/" +
                           corvane::xxHashImplementationName(variant),
                       [type, variant](benchmark::State& state) {
                         forcedGeneratorThroughput(state, type, variant);
                       })
          ->Unit(benchmark::kMillisecond);
    }
  }
  for (const auto& algorithm : algorithms()) {
    const ChecksumType type = algorithm.type;
    registerRealTime(string("Raw/") + algorithm.name + "/8388608", [type](benchmark::State& state) {
      rawThroughput(state, type, bigBuffer());
    })->Unit(benchmark::kMillisecond);
  }
  for (const auto& algorithm : algorithms()) {
    const ChecksumType type = algorithm.type;
    if (type != corvane::ChecksumTypeXXHash64 && type != corvane::ChecksumTypeXXHashH364 &&
        type != corvane::ChecksumTypeXXHashH3128) {
      continue;
    }
    registerRealTime(string("RawOneShot/") + algorithm.name + "/8388608",
                     [type](benchmark::State& state) { rawOneShotThroughput(state, type); })
        ->Unit(benchmark::kMillisecond);
  }
  for (const auto& algorithm : algorithms()) {
    const ChecksumType type = algorithm.type;
    registerRealTime(string("Raw/") + algorithm.name + "/1024", [type](benchmark::State& state) {
      rawThroughput(state, type, chunk());
    })->Unit(benchmark::kMicrosecond);
    registerRealTime(string("ChunkAddThenWait/") + algorithm.name, [type](benchmark::State& state) {
      chunkAddThenWait(state, type);
    })->Unit(benchmark::kMicrosecond);
  }

  registerRealTime("DispatchAsyncWaitHelped", dispatchAsyncWaitHelped)
      ->Unit(benchmark::kMicrosecond);
  registerRealTime("DispatchAsyncWaitNoHelp", dispatchAsyncWaitNoHelp)
      ->Unit(benchmark::kMicrosecond);
  registerRealTime("DispatchAsyncBatch", dispatchAsyncBatch)
      ->Arg(64)
      ->Unit(benchmark::kMicrosecond);
  registerRealTime("DispatchSync", dispatchSync)->Unit(benchmark::kMicrosecond);

  const std::vector<std::pair<string, std::vector<ChecksumType>>> sets = {
      {"MD5+SHA1+SHA256+CRC32",
       {corvane::ChecksumTypeMD5, corvane::ChecksumTypeSHA1, corvane::ChecksumTypeSHA256,
        corvane::ChecksumTypeCRC32}},
      {"MD5", {corvane::ChecksumTypeMD5}},
      {"SHA1", {corvane::ChecksumTypeSHA1}},
      {"SHA256", {corvane::ChecksumTypeSHA256}},
      {"CRC32", {corvane::ChecksumTypeCRC32}},
  };
  for (const auto& set : sets) {
    const std::vector<ChecksumType> types = set.second;
    registerRealTime("ChecksumGeneratorBuffer/" + set.first, [types](benchmark::State& state) {
      checksumGeneratorBuffer(state, types);
    })->Unit(benchmark::kMillisecond);
  }
}

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext(
      "xxhash_default", corvane::xxHashImplementationName(corvane::activeXXHashImplementation()));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
