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

namespace {

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// One byte from two characters (each the low 8 bits of its text unit), read as strtol reads the
// two-character text in base 16: two hex digits are the common case; anything else (spaces, a
// sign, a "0x" prefix, other characters) goes through strtol itself.
std::uint8_t byteFromPair(char high, char low) {
  const int highValue = hexDigitValue(high);
  const int lowValue = hexDigitValue(low);
  if (highValue >= 0 && lowValue >= 0) return static_cast<std::uint8_t>(highValue * 16 + lowValue);
  const char pair[3] = {high, low, '\0'};
  return static_cast<std::uint8_t>(std::strtol(pair, nullptr, 16) & 0xFF);
}

template <typename Units>
Bytes bytesFromHexUnits(const Units& units, bool storeAsLittleEndian) {
  const std::size_t count = units.size();
  const bool odd = count % 2 != 0;
  // An odd text gets a "0" at the front (little endian) or at the end (big endian):
  // "abc" reads as "0abc" or "abc0".
  auto unitAt = [&](std::size_t paddedIndex) -> char {
    if (odd && storeAsLittleEndian) {
      return paddedIndex == 0 ? '0' : static_cast<char>(units[paddedIndex - 1] & 0xFF);
    }
    return paddedIndex < count ? static_cast<char>(units[paddedIndex] & 0xFF) : '0';
  };
  const std::size_t paddedCount = count + (odd ? 1 : 0);
  Bytes bytes(paddedCount / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = byteFromPair(unitAt(2 * i), unitAt(2 * i + 1));
  }
  // Little endian: the last pair of the text becomes the first byte.
  if (storeAsLittleEndian) std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

bool isAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

Bytes CorvaneChecksumGenerator::dataFromHexString(const std::string& hexString,
                                                  bool storeAsLittleEndian) {
  // ASCII texts are their own UTF-16 units; others are measured and read unit by unit.
  if (isAscii(hexString)) return bytesFromHexUnits(hexString, storeAsLittleEndian);
  return bytesFromHexUnits(detail::utf16Units(hexString), storeAsLittleEndian);
}

}  // namespace corvane
