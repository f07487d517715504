// One pass over a file for several algorithms versus one in-memory pass per algorithm.
//
// Usage: MultiFileBench FILE [REPEATS]
//
// 1. Loads FILE into memory as chunks of the library's read size (8 MiB).
// 2. For each of MD5, SHA-1, SHA-256 and CRC-32 alone: one streaming generator fed the in-memory
//    chunks with the pattern the file form uses (Group enter, addDataToChecksum, wait(queue)),
//    then finalized.
// 3. ChecksumGenerator({MD5, SHA1, SHA256, CRC32}).generateChecksumsForFile(FILE). The file
//    should be in the page cache (read it once before).
//    Steps 2 and 3 alternate REPEATS times (default 3); the best time of each is kept.
// 4. Checks that both ways give the same four checksums and prints, one "key value" per line:
//    the single times, their sum, the multi-algorithm file time and ratio = file / sum, each in
//    wall-clock seconds and in process CPU seconds (all threads, user and system: the CPU clock
//    is less disturbed by other programs sharing the cores).
// Exit status 0 when the checksums agree, 2 when they differ, 1 on usage or I/O errors.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/ChecksumGenerator.hpp"
#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "dispatch/Group.hpp"

namespace {

using corvane::Bytes;
using corvane::ChecksumGenerator;
using corvane::ChecksumType;
using corvane::CorvaneChecksumGenerator;
using corvane::SharedBytes;
using Clock = std::chrono::steady_clock;

// Wall-clock and process CPU seconds of one run.
struct Seconds {
  double wall = 0;
  double cpu = 0;
};

double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

class Stopwatch {
 public:
  Stopwatch() : wallStart_(Clock::now()), cpuStart_(processCpuSeconds()) {}
  Seconds elapsed() const {
    return {std::chrono::duration<double>(Clock::now() - wallStart_).count(),
            processCpuSeconds() - cpuStart_};
  }

 private:
  Clock::time_point wallStart_;
  double cpuStart_;
};

// Keeps the lowest of each clock separately (best of several runs).
void keepBest(Seconds& best, const Seconds& run) {
  best.wall = std::min(best.wall, run.wall);
  best.cpu = std::min(best.cpu, run.cpu);
}

constexpr Seconds kNoRunYet{1e300, 1e300};

struct Algorithm {
  const char* name;
  ChecksumType type;
};

const Algorithm kAlgorithms[] = {
    {"MD5", corvane::ChecksumTypeMD5},
    {"SHA1", corvane::ChecksumTypeSHA1},
    {"SHA256", corvane::ChecksumTypeSHA256},
    {"CRC32", corvane::ChecksumTypeCRC32},
};

std::optional<std::vector<SharedBytes>> loadChunks(const std::string& path, std::size_t size) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::vector<SharedBytes> chunks;
  while (true) {
    auto chunk = std::make_shared<Bytes>(size);
    file.read(reinterpret_cast<char*>(chunk->data()), std::streamsize(size));
    const auto got = std::size_t(file.gcount());
    if (got == 0) break;
    chunk->resize(got);
    chunks.push_back(std::move(chunk));
    if (got < size) break;
  }
  if (file.bad()) return std::nullopt;
  return chunks;
}

// Time of one generator over all chunks; stores the checksum in `text`.
Seconds timeInMemory(ChecksumType type, const std::vector<SharedBytes>& chunks,
                     std::optional<std::string>& text) {
  corvane::dispatch::Group group;
  const Stopwatch stopwatch;
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(type);
  const auto queue = generator->checksummingQueue();
  for (const auto& chunk : chunks) {
    group.enter();
    generator->addDataToChecksum(chunk, [&group] { group.leave(); });
    group.wait(queue);
  }
  group.enter();
  generator->finalizeChecksumWithCompletionBlock([&](const std::optional<std::string>& checksum) {
    text = checksum;
    group.leave();
  });
  group.wait(queue);
  return stopwatch.elapsed();
}

Seconds timeFile(const std::string& path, std::map<std::uint64_t, std::string>& results) {
  std::vector<ChecksumType> types;
  for (const auto& algorithm : kAlgorithms) types.push_back(algorithm.type);
  const ChecksumGenerator generator(types);
  results.clear();
  const Stopwatch stopwatch;
  generator.generateChecksumsForFile(
      path, [](float, std::uint64_t, bool*) {},
      [&results](const std::string& text, ChecksumType type) { results[type.rawValue()] = text; });
  return stopwatch.elapsed();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s FILE [REPEATS]\n", argv[0]);
    return 1;
  }
  const std::string path = argv[1];
  const int repeats = argc == 3 ? std::max(1, std::atoi(argv[2])) : 3;

  const auto chunks = loadChunks(path, std::size_t(ChecksumGenerator::kDefaultReadSize));
  if (!chunks) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::uint64_t fileBytes = 0;
  for (const auto& chunk : *chunks) fileBytes += chunk->size();
  std::printf("file_bytes %llu\n", static_cast<unsigned long long>(fileBytes));
  std::printf("repeats %d\n", repeats);

  // The rounds interleave the in-memory runs and the file runs, so that a burst of other work on
  // the machine does not fall on one side only.
  std::map<std::uint64_t, std::string> memoryResults;
  std::map<std::uint64_t, std::string> fileResults;
  std::vector<Seconds> single(std::size(kAlgorithms), kNoRunYet);
  Seconds bestFile = kNoRunYet;
  for (int round = 0; round < repeats; ++round) {
    for (std::size_t a = 0; a < std::size(kAlgorithms); ++a) {
      std::optional<std::string> text;
      keepBest(single[a], timeInMemory(kAlgorithms[a].type, *chunks, text));
      if (text) memoryResults[kAlgorithms[a].type.rawValue()] = *text;
    }
    keepBest(bestFile, timeFile(path, fileResults));
  }
  Seconds sum;
  for (std::size_t a = 0; a < std::size(kAlgorithms); ++a) {
    std::printf("single_seconds_%s %.6f\n", kAlgorithms[a].name, single[a].wall);
    std::printf("single_cpu_seconds_%s %.6f\n", kAlgorithms[a].name, single[a].cpu);
    sum.wall += single[a].wall;
    sum.cpu += single[a].cpu;
  }
  std::printf("single_seconds_sum %.6f\n", sum.wall);
  std::printf("single_cpu_seconds_sum %.6f\n", sum.cpu);

  std::printf("multi_file_seconds %.6f\n", bestFile.wall);
  std::printf("multi_file_cpu_seconds %.6f\n", bestFile.cpu);
  std::printf("ratio %.4f\n", bestFile.wall / sum.wall);
  std::printf("cpu_ratio %.4f\n", bestFile.cpu / sum.cpu);

  const bool agree = fileResults == memoryResults && fileResults.size() == std::size(kAlgorithms);
  for (const auto& algorithm : kAlgorithms) {
    const auto found = fileResults.find(algorithm.type.rawValue());
    std::printf("checksum_%s %s\n", algorithm.name,
                found == fileResults.end() ? "(none)" : found->second.c_str());
  }
  std::printf("checksums_agree %s\n", agree ? "yes" : "no");
  return agree ? 0 : 2;
}
