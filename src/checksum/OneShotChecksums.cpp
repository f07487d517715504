// One checksum in one blocking call, driving a streaming generator to completion.
#include <algorithm>
#include <cstdlib>

#include "checksum/BlockingHandOff.hpp"
#include "checksum/HexDecoding.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/Exception.hpp"
#include "dispatch/Group.hpp"
#include "engine/FileReader.hpp"

namespace corvane {

namespace {
constexpr std::int64_t kDefaultFileReadSize = 8388608;
constexpr std::int64_t kMaximumChunkSize = std::int64_t{1} << 30;

}  // namespace

std::optional<std::string> CorvaneChecksumGenerator::checksumData(const Bytes* data,
                                                                  ChecksumType withType) {
  if (data == nullptr) return std::nullopt;
  auto generator = checksumGeneratorForType(withType);
  if (!generator) return std::nullopt;
  try {
    generator->updateChecksumWithData(data);
    return generator->finalizeChecksum();
  } catch (...) {
    return std::nullopt;  // guarded: a failure gives no checksum and is not reported
  }
}

void CorvaneChecksumGenerator::addDataToChecksumAndWait(const SharedBytes& data) {
  dispatch::Group group;
  detail::addAndWait(*this, group, data);
}

std::optional<std::string> CorvaneChecksumGenerator::finalizeChecksumAndWait() {
  dispatch::Group group;
  return detail::finalizeAndWait(*this, group);
}

std::optional<std::string> CorvaneChecksumGenerator::generateDataChecksum(SharedBytes data,
                                                                          ChecksumType algorithm) {
  auto generator = checksumGeneratorForType(algorithm);
  if (!generator) return std::nullopt;
  dispatch::Group group;
  detail::addAndWait(*generator, group, data);  // a null buffer calls back at once
  return detail::finalizeAndWait(*generator, group);
}

std::optional<std::string> CorvaneChecksumGenerator::generateFileChecksum(const std::string& path,
                                                                          ChecksumType algorithm) {
  return generateFileChecksum(path, algorithm, kDefaultFileReadSize);
}

std::optional<std::string> CorvaneChecksumGenerator::generateFileChecksum(const std::string& path,
                                                                          ChecksumType algorithm,
                                                                          std::int64_t readSize) {
  auto generator = checksumGeneratorForType(algorithm);
  if (!generator) return std::nullopt;
  // An unsigned "read up to" of a negative size reads to the end. Chunking does not change the
  // checksum, so such reads use the default chunk size, and huge sizes are capped to keep memory
  // bounded.
  const std::size_t chunkSize =
      readSize < 0 ? std::size_t{kDefaultFileReadSize}
                   : static_cast<std::size_t>(std::min<std::int64_t>(readSize, kMaximumChunkSize));
  // A read size of 0 still opens the file (a missing one gives null) but reads nothing. The
  // change verdict of finish() is not asked for: the checksum is of the bytes read.
  engine::FileReader reader = engine::FileReader::open(path, {.chunkSize = chunkSize});
  if (reader.error()) return std::nullopt;
  dispatch::Group group;
  // Each chunk is absorbed before the next read, so one chunk is held at a time.
  if (chunkSize > 0) {
    while (SharedBytes chunk = reader.next()) detail::addAndWait(*generator, group, chunk);
  }
  if (reader.error()) {
    throw Exception("NSFileHandleOperationException", path + ": " + reader.error().message);
  }
  return detail::finalizeAndWait(*generator, group);
}

Bytes CorvaneChecksumGenerator::dataFromHexString(const std::string& hexString) {
  return dataFromHexString(hexString, true);
}

Bytes CorvaneChecksumGenerator::dataFromHexString(const std::string& hexString,
                                                  bool storeAsLittleEndian) {
  Bytes bytes;
  detail::appendBytesFromHexText(hexString, storeAsLittleEndian, bytes);
  return bytes;
}

}  // namespace corvane
