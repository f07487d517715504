// FileChunkReader: chunked reads that follow the file to its end whatever its size at open.
#include "checksumsets/FileChunkReader.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "support/ScratchDirectory.hpp"

namespace corvane::detail {
namespace {

using testsupport::ScratchDirectory;

Bytes patternBytes(std::size_t count, std::uint8_t seed) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
  return bytes;
}

// Every chunk until the reader reports the end, joined.
Bytes readAll(FileChunkReader& reader, std::size_t length, std::size_t* chunkCount = nullptr) {
  Bytes all;
  std::size_t chunks = 0;
  while (auto chunk = reader.readChunk(length)) {
    EXPECT_FALSE(chunk->empty());
    EXPECT_LE(chunk->size(), length);
    all.insert(all.end(), chunk->begin(), chunk->end());
    ++chunks;
  }
  if (chunkCount) *chunkCount = chunks;
  return all;
}

TEST(FileChunkReader, SmallFileIsOneChunkOfItsOwnSize) {
  ScratchDirectory scratch;
  const Bytes content = patternBytes(1000, 3);
  auto reader = FileChunkReader::open(scratch.writeFile("small", content));
  ASSERT_TRUE(reader);
  std::size_t chunks = 0;
  EXPECT_EQ(readAll(*reader, 8 << 20, &chunks), content);
  EXPECT_EQ(chunks, 1u);
  EXPECT_FALSE(reader->failed());
}

TEST(FileChunkReader, FileThatGrewAfterOpenIsReadToItsNewEnd) {
  ScratchDirectory scratch;
  const Bytes first = patternBytes(5000, 1);
  const Bytes appended = patternBytes(70000, 9);
  const std::string path = scratch.writeFile("growing", first);
  auto reader = FileChunkReader::open(path);
  ASSERT_TRUE(reader);
  {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(appended.data()),
              static_cast<std::streamsize>(appended.size()));
  }
  Bytes expected = first;
  expected.insert(expected.end(), appended.begin(), appended.end());
  EXPECT_EQ(readAll(*reader, 16384), expected);
}

TEST(FileChunkReader, FileThatShrankAfterOpenEndsEarly) {
  ScratchDirectory scratch;
  const Bytes content = patternBytes(50000, 5);
  const std::string path = scratch.writeFile("shrinking", content);
  auto reader = FileChunkReader::open(path);
  ASSERT_TRUE(reader);
  std::filesystem::resize_file(path, 1234);
  EXPECT_EQ(readAll(*reader, 4096), Bytes(content.begin(), content.begin() + 1234));
  EXPECT_FALSE(reader->failed());
}

TEST(FileChunkReader, ReadersOneAfterAnotherOnOneThreadGiveEachFileExactly) {
  // The buffer kept between readers must never leak bytes of one file into the next.
  ScratchDirectory scratch;
  int index = 0;
  for (std::size_t size : {300000u, 10u, 70000u, 0u, 131072u, 1u}) {
    const Bytes content = patternBytes(size, static_cast<std::uint8_t>(size));
    const std::string name = std::string("file") + char('a' + index++);
    auto reader = FileChunkReader::open(scratch.writeFile(name, content));
    ASSERT_TRUE(reader);
    EXPECT_EQ(readAll(*reader, 131072), content) << size;
  }
}

TEST(FileChunkReader, ChunksHeldByTheCallerAreNotOverwritten) {
  ScratchDirectory scratch;
  const Bytes content = patternBytes(30000, 2);
  auto reader = FileChunkReader::open(scratch.writeFile("held", content));
  ASSERT_TRUE(reader);
  const auto first = reader->readChunk(10000);
  const auto second = reader->readChunk(10000);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(*first, Bytes(content.begin(), content.begin() + 10000));
  EXPECT_EQ(*second, Bytes(content.begin() + 10000, content.begin() + 20000));
}

TEST(FileChunkReader, DirectoryAndMissingFileDoNotOpen) {
  ScratchDirectory scratch;
  EXPECT_FALSE(FileChunkReader::open(scratch.path().string()));
  EXPECT_FALSE(FileChunkReader::open(scratch.file("missing")));
}

}  // namespace
}  // namespace corvane::detail
