// The file-set engine's own cost, beside the work it does.
//
//   BM_TinyFiles/jobs         files of 1 byte, one algorithm (xxHash64): what the engine costs per
//                             file (open, fstat, read, generator, ordered delivery). The
//                             "us_per_file" counter is the figure to read; jobs = 1 is one core.
//   BM_TinyFilesRawLoop       the same files through open/fstat/read/close and XXH64 alone, in a
//                             plain loop on one thread: the floor the engine is measured against.
//   BM_SmallFiles/jobs        2,000 files of 4 KiB to 1 MiB (log-uniform, the size mix of a
//                             camera card's side files), one algorithm, as bytes per second.
// The files are made once in a scratch folder under $TMPDIR (or /tmp) and sit in the page cache.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "corvane/FileSetHasher.hpp"

namespace {

namespace fs = std::filesystem;
using namespace corvane;

// A scratch folder of files, removed at exit.
class FileTree {
 public:
  FileTree(const std::string& name, std::size_t count, bool tiny) {
    const char* tmp = std::getenv("TMPDIR");
    std::string folder = "corvane-bench-";
    folder += name;
    folder += '-';
    folder += std::to_string(::getpid());
    root_ = fs::path(tmp != nullptr ? tmp : "/tmp") / folder;
    fs::create_directories(root_);
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> logSize(std::log(4096.0), std::log(1048576.0));
    std::string content;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t size = tiny ? 1 : static_cast<std::size_t>(std::exp(logSize(random)));
      content.resize(size);
      for (char& c : content) c = static_cast<char>(random());
      const fs::path path = root_ / std::to_string(100000 + i);
      std::ofstream(path, std::ios::binary).write(content.data(), static_cast<long>(size));
      paths_.push_back(path.string());
      bytes_ += size;
    }
  }
  ~FileTree() { fs::remove_all(root_); }

  const fs::path& root() const { return root_; }
  const std::vector<std::string>& paths() const { return paths_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  fs::path root_;
  std::vector<std::string> paths_;
  std::uint64_t bytes_ = 0;
};

// Wall-clock microseconds per file over the whole run.
benchmark::Counter microsecondsPerFile(std::uint64_t files) {
  return benchmark::Counter(static_cast<double>(files) * 1e-6,
                            benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

const FileTree& tinyFiles() {
  static const FileTree tree("tiny", 20000, true);
  return tree;
}

const FileTree& smallFiles() {
  static const FileTree tree("small", 2000, false);
  return tree;
}

void BM_TinyFiles(benchmark::State& state) {
  const FileTree& tree = tinyFiles();
  const FileSetHasher hasher({.algorithms = {ChecksumTypeXXHash64},
                              .filesInFlight = static_cast<unsigned>(state.range(0))});
  std::uint64_t files = 0;
  for (auto _ : state) {
    hasher.run(FileSetInput::paths(tree.paths()), [&](FileSetResult&& result) {
      benchmark::DoNotOptimize(result.checksums);
      ++files;
    });
  }
  state.counters["us_per_file"] = microsecondsPerFile(files);
}
BENCHMARK(BM_TinyFiles)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TinyFilesRawLoop(benchmark::State& state) {
  const FileTree& tree = tinyFiles();
  std::uint64_t files = 0;
  char buffer[4096];
  for (auto _ : state) {
    for (const std::string& path : tree.paths()) {
      const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      struct stat status {};
      ::fstat(descriptor, &status);
      XXH64_state_t* hash = XXH64_createState();
      XXH64_reset(hash, 0);
      ssize_t got;
      while ((got = ::read(descriptor, buffer, sizeof buffer)) > 0) {
        XXH64_update(hash, buffer, static_cast<std::size_t>(got));
      }
      benchmark::DoNotOptimize(XXH64_digest(hash));
      XXH64_freeState(hash);
      ::close(descriptor);
      ++files;
    }
  }
  state.counters["us_per_file"] = microsecondsPerFile(files);
}
BENCHMARK(BM_TinyFilesRawLoop)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SmallFiles(benchmark::State& state) {
  const FileTree& tree = smallFiles();
  const FileSetHasher hasher({.algorithms = {ChecksumTypeXXHash64},
                              .filesInFlight = static_cast<unsigned>(state.range(0))});
  for (auto _ : state) {
    hasher.run(FileSetInput::walk(tree.root().string()),
               [](FileSetResult&& result) { benchmark::DoNotOptimize(result.checksums); });
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tree.bytes()));
}
BENCHMARK(BM_SmallFiles)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
