// Checksums every file of a folder with xxHash64 and MD5, several files at once, each file read
// once, with a progress line on stderr. Usage: checksum_folder FOLDER
#include <corvane/FileSetHasher.hpp>
#include <cstdio>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]), 2;
  using namespace corvane;
  const FileSetHasher hasher({.algorithms = {ChecksumTypeXXHash64, ChecksumTypeMD5}});
  FileSetRun run = hasher.start(FileSetInput::walk(argv[1]));
  std::jthread progressLine([&run](std::stop_token stop) {  // any thread may read progress
    while (!stop.stop_requested()) {
      const FileSetProgress p = run.progress();
      std::fprintf(stderr, "\r%llu files, %.1f MiB/s ", (unsigned long long)p.filesDone,
                   p.bytesPerSecond / 1048576);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  int status = 0;
  while (std::optional<FileSetResult> result = run.next()) {  // in path order, on this thread
    if (result->ok()) {
      std::printf("%s %s  %s\n", result->checksums.at(ChecksumTypeXXHash64).c_str(),
                  result->checksums.at(ChecksumTypeMD5).c_str(),
                  result->entry.relativePath.c_str());
    } else if (result->error && result->error.kind != FileErrorKind::notRegularFile) {
      std::fprintf(stderr, "\r%s: %s\n", result->entry.path.c_str(), result->error.message.c_str());
      status = 1;
    }
  }
  return status;
}
