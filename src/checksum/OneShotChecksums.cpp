// One checksum in one blocking call, driving a streaming generator to completion.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "checksum/BlockingHandOff.hpp"
#include "checksum/TextUnits.hpp"
#include "checksumsets/FileChunkReader.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/Exception.hpp"
#include "dispatch/Group.hpp"

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
  auto reader = detail::FileChunkReader::open(path);
  if (!reader) return std::nullopt;
  // An unsigned "read up to" of a negative size reads to the end. Chunking does not change the
  // checksum, so such reads use the default chunk size, and huge sizes are capped to keep memory
  // bounded.
  const std::size_t chunkSize =
      readSize < 0 ? std::size_t{kDefaultFileReadSize}
                   : static_cast<std::size_t>(std::min<std::int64_t>(readSize, kMaximumChunkSize));
  dispatch::Group group;
  // Each chunk is absorbed before the next read, so one chunk is held at a time.
  while (SharedBytes chunk = reader->readChunk(chunkSize)) detail::addAndWait(*generator, group, chunk);
  if (reader->failed()) {
    throw Exception("NSFileHandleOperationException", path + ": " + std::strerror(reader->errorNumber()));
  }
  return detail::finalizeAndWait(*generator, group);
}

Bytes CorvaneChecksumGenerator::dataFromHexString(const std::string& hexString) {
  return dataFromHexString(hexString, true);
}

Bytes CorvaneChecksumGenerator::dataFromHexString(const std::string& hexString,
                                                  bool storeAsLittleEndian) {
  std::u16string units = detail::utf16Units(hexString);
  if (units.size() % 2 != 0) {
    // "abc" becomes "0abc" (little endian) or "abc0" (big endian).
    if (storeAsLittleEndian) {
      units.insert(units.begin(), u'0');
    } else {
      units.push_back(u'0');
    }
  }
  Bytes bytes;
  bytes.reserve(units.size() / 2);
  for (std::size_t i = 0; i + 1 < units.size(); i += 2) {
    // Each character by its low 8 bits, the pair read as strtol reads it.
    const char pair[3] = {static_cast<char>(units[i] & 0xFF),
                          static_cast<char>(units[i + 1] & 0xFF), '\0'};
    const auto byte = static_cast<std::uint8_t>(std::strtol(pair, nullptr, 16) & 0xFF);
    bytes.push_back(byte);
  }
  // Little endian: the last pair of the text becomes the first byte.
  if (storeAsLittleEndian) std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

}  // namespace corvane
