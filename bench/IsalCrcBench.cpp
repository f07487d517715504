// Reference throughput of ISA-L's crc32_gzip_refl (the CRC-32 backend of choice on x86-64),
// called directly on one buffer, with nothing around it. Compared by bench/compare.sh with the
// CRC-32 generator of the library.
#include <benchmark/benchmark.h>
#include <isa-l/crc.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

std::vector<unsigned char> randomBytes(std::size_t size) {
  std::vector<unsigned char> bytes(size);
  std::mt19937_64 random(0x5eed);
  for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

void isalCrc32GzipRefl(benchmark::State& state) {
  const auto data = randomBytes(std::size_t(state.range(0)));
  std::uint32_t crc = 0;
  for (auto _ : state) {
    crc = crc32_gzip_refl(crc, data.data(), data.size());
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * state.range(0));
}

BENCHMARK(isalCrc32GzipRefl)
    ->Name("IsalCrc32GzipRefl")
    ->Arg(1024)
    ->Arg(8388608)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
