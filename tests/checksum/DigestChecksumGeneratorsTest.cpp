// The classic checksums: MD5 (with its synchronous pair and the hasHadNonZero flag), our CRC-32
// variant and its short print form, SHA-1, SHA-256 and SHA-512.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "corvane/ChecksumType.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/DigestChecksumGenerators.hpp"
#include "dispatch/SerialQueue.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using testsupport::bytesOf;
using testsupport::checksumOf;
using testsupport::checksumOfChunks;
using testsupport::crc32Reference;
using testsupport::crc32ReferenceRegister;
using testsupport::crc32ReferenceTable;
using testsupport::describeType;
using testsupport::finalizeAndWait;
using testsupport::hexDecode;
using testsupport::QueueStall;
using testsupport::runGenerator;
using testsupport::share;

const std::vector<ChecksumType>& digestTypes() {
  static const std::vector<ChecksumType> types{ChecksumTypeMD5, ChecksumTypeCRC32, ChecksumTypeSHA1,
                                               ChecksumTypeSHA256, ChecksumTypeSHA512};
  return types;
}

// Waits until every chunk handed over so far has been absorbed (a no-op chunk's callback is
// queued behind them). Not for MD5, which does not queue empty chunks.
void waitUntilAbsorbed(const std::shared_ptr<CorvaneChecksumGenerator>& generator) {
  auto promise = std::make_shared<std::promise<void>>();
  auto future = promise->get_future();
  generator->checksummingQueue()->async([promise] { promise->set_value(); });
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
}

// ----- reference CRC-32, byte at a time ------------------------------------------------------
// The straightforward algorithm of support/References.hpp, checked here against published values.

TEST(ReferenceCrc32, TableHasTheWellKnownReflectedEntries) {
  // Entries 0, 1, 128 and 255 of the reflected CRC-32 table, as printed in the crc32.h table of
  // zlib and in ISO 3309 / ITU-T V.42 implementations.
  const auto& table = crc32ReferenceTable();
  EXPECT_EQ(table[0], 0x00000000u);
  EXPECT_EQ(table[1], 0x77073096u);
  EXPECT_EQ(table[128], 0xEDB88320u);
  EXPECT_EQ(table[255], 0x2D02EF8Du);
}

TEST(ReferenceCrc32, PresetRegisterGivesTheCommonCheckValue) {
  // With the usual preset of all ones the algorithm gives the common CRC-32 check value of
  // "123456789", 0xCBF43926 (CRC catalogue, CRC-32/ISO-HDLC), which validates the reference.
  EXPECT_EQ(~crc32ReferenceRegister(bytesOf("123456789"), 0xFFFFFFFFu), 0xCBF43926u);
}

// ----- empty input ------------------------------------------------------------------------------

TEST(DigestChecksumGenerators, FinalizingWithoutDataGivesTheEmptyInputTexts) {
  // MD5: RFC 1321 appendix A.5; SHA: the Len = 0 records of the NIST CAVP ShortMsg files.
  // CRC-32: our variant, complement of a register that starts at 0.
  EXPECT_EQ(checksumOfChunks(ChecksumTypeMD5, {}), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(checksumOfChunks(ChecksumTypeCRC32, {}), "ffffffff");
  EXPECT_EQ(checksumOfChunks(ChecksumTypeSHA1, {}), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(checksumOfChunks(ChecksumTypeSHA256, {}),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(checksumOfChunks(ChecksumTypeSHA512, {}),
            "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff83"
            "18d2877eec2f63b931bd47417a81a538327af927da3e");
}

TEST(DigestChecksumGenerators, OnlyEmptyChunksGiveTheEmptyInputTexts) {
  const std::vector<SharedBytes> empties{share({}), nullptr, share({}), share({})};
  for (ChecksumType type : digestTypes()) {
    SCOPED_TRACE(describeType(type));
    EXPECT_EQ(checksumOfChunks(type, empties), type.emptyChecksumValue());
  }
}

// ----- known answers ----------------------------------------------------------------------------

TEST(DigestChecksumGenerators, AbcGivesThePublishedDigests) {
  // MD5 ("abc"): RFC 1321 appendix A.5. SHA-1, SHA-256, SHA-512 ("abc"): FIPS 180-2 appendices
  // A.1, B.1 and C.1.
  EXPECT_EQ(checksumOf(ChecksumTypeMD5, std::string_view("abc")),
            "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(checksumOf(ChecksumTypeSHA1, std::string_view("abc")),
            "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(checksumOf(ChecksumTypeSHA256, std::string_view("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(checksumOf(ChecksumTypeSHA512, std::string_view("abc")),
            "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c"
            "23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
}

TEST(DigestChecksumGenerators, TwoBlockMessagesGiveThePublishedDigests) {
  // FIPS 180-2 appendices A.2 (SHA-1), B.2 (SHA-256) and C.2 (SHA-512).
  const std::string_view shortMessage = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const std::string_view longMessage =
      "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmno"
      "pqrsmnopqrstnopqrstu";
  EXPECT_EQ(checksumOf(ChecksumTypeSHA1, shortMessage), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(checksumOf(ChecksumTypeSHA256, shortMessage),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(checksumOf(ChecksumTypeSHA512, longMessage),
            "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018501d289e4900f7e4331b99"
            "dec4b5433ac7d329eeb6dd26545e96e55b874be909");
}

TEST(DigestChecksumGenerators, TextsAreLowercaseHexOfTheFullDigestWidth) {
  std::mt19937_64 random(testsupport::randomTestSeed());
  SCOPED_TRACE(testsupport::describeSeed(testsupport::randomTestSeed()));
  const std::vector<std::pair<ChecksumType, std::size_t>> widths{{ChecksumTypeMD5, 32},
                                                                 {ChecksumTypeSHA1, 40},
                                                                 {ChecksumTypeSHA256, 64},
                                                                 {ChecksumTypeSHA512, 128}};
  for (int round = 0; round < 20; ++round) {
    const Bytes input = testsupport::randomBytes(random, static_cast<std::size_t>(round * 7));
    for (const auto& [type, width] : widths) {
      const auto text = checksumOf(type, input);
      ASSERT_TRUE(text.has_value());
      EXPECT_EQ(text->size(), width) << describeType(type);
      EXPECT_EQ(text->find_first_not_of("0123456789abcdef"), std::string::npos) << *text;
    }
  }
}

// ----- splitting --------------------------------------------------------------------------------

TEST(DigestChecksumGenerators, SplittingIntoChunksOfAnySizeGivesTheOneChunkResult) {
  testsupport::expectSplitsGiveTheOneChunkResult(
      digestTypes(), {0, 1, 55, 56, 63, 64, 65, 111, 112, 127, 128, 129, 1000, 4099},
      {.maxChunk = 70, .largeMaxChunk = 300, .largeEmptyOneIn = 2, .byteAtATimeUpTo = 1000});
}

TEST(DigestChecksumGenerators, NullChunksAmongDataChangeNothing) {
  const Bytes input = bytesOf("Hello, checksum world");
  for (ChecksumType type : digestTypes()) {
    SCOPED_TRACE(describeType(type));
    const std::vector<SharedBytes> chunks{nullptr, share(bytesOf("Hello, ")), nullptr,
                                          share(bytesOf("checksum world")), nullptr};
    EXPECT_EQ(checksumOfChunks(type, chunks), checksumOf(type, input));
  }
}

// ----- zero-length chunks -----------------------------------------------------------------------

TEST(CorvaneChecksumGeneratorMD5, ZeroLengthChunkIsCalledBackSynchronously) {
  auto generator = CorvaneChecksumGenerator::checksumGeneratorForType(ChecksumTypeMD5);
  ASSERT_NE(generator, nullptr);
  QueueStall stall(generator);
  bool called = false;
  std::thread::id callbackThread;
  generator->addDataToChecksum(share({}), [&] {
    called = true;
    callbackThread = std::this_thread::get_id();
  });
  EXPECT_TRUE(called);
  EXPECT_EQ(callbackThread, std::this_thread::get_id());
  // Nothing was queued, so no semaphore slot is held.
  EXPECT_EQ(testsupport::freeSemaphoreSlots(generator), 8);
  stall.release();
  EXPECT_EQ(finalizeAndWait(generator), ChecksumTypeMD5.emptyChecksumValue());
}

TEST(DigestChecksumGenerators, OtherDigestsQueueZeroLengthChunksAndCallBackFromTheQueue) {
  for (ChecksumType type :
       {ChecksumTypeCRC32, ChecksumTypeSHA1, ChecksumTypeSHA256, ChecksumTypeSHA512}) {
    SCOPED_TRACE(describeType(type));
    auto generator = testsupport::newGenerator(type);
    if (generator == nullptr) continue;
    QueueStall stall(generator);
    std::atomic<bool> called{false};
    generator->addDataToChecksum(share({}), [&] { called = true; });
    // The call returned, but the callback waits behind the stalled queue.
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(called.load());
    stall.release();
    waitUntilAbsorbed(generator);
    EXPECT_TRUE(called.load());
    EXPECT_EQ(finalizeAndWait(generator), type.emptyChecksumValue());
  }
}

// ----- MD5: hasHadNonZero ------------------------------------------------------------------------

TEST(CorvaneChecksumGeneratorMD5, HasHadNonZeroStartsFalse) {
  CorvaneChecksumGeneratorMD5 generator;
  EXPECT_FALSE(generator.hasHadNonZero());
  EXPECT_EQ(generator.checksumType(), ChecksumTypeMD5);
}

TEST(CorvaneChecksumGeneratorMD5, HasHadNonZeroStaysFalseAfterOnlyZeroLengthChunks) {
  auto generator = std::make_shared<CorvaneChecksumGeneratorMD5>();
  const auto checksum = runGenerator(generator, {share({}), share({}), nullptr, share({})});
  EXPECT_FALSE(generator->hasHadNonZero());
  EXPECT_EQ(checksum, "d41d8cd98f00b204e9800998ecf8427e");  // RFC 1321 appendix A.5
}

TEST(CorvaneChecksumGeneratorMD5, HasHadNonZeroBecomesTrueAfterTheFirstNonEmptyChunkAndStays) {
  auto generator = std::make_shared<CorvaneChecksumGeneratorMD5>();
  auto absorbed = std::make_shared<std::promise<void>>();
  auto future = absorbed->get_future();
  generator->addDataToChecksum(share({}), nullptr);
  EXPECT_FALSE(generator->hasHadNonZero());
  generator->addDataToChecksum(share(bytesOf("a")), [absorbed] { absorbed->set_value(); });
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  EXPECT_TRUE(generator->hasHadNonZero());
  generator->addDataToChecksum(share({}), nullptr);
  // MD5 ("a"): RFC 1321 appendix A.5.
  EXPECT_EQ(finalizeAndWait(generator), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_TRUE(generator->hasHadNonZero());
}

TEST(CorvaneChecksumGeneratorMD5, HasHadNonZeroIsSetByAChunkOfZeroBytes) {
  // The flag records a non-empty chunk, not a non-zero byte; the digest is the ordinary one.
  auto generator = std::make_shared<CorvaneChecksumGeneratorMD5>();
  const auto checksum = runGenerator(generator, {share(Bytes(32, 0)), share(Bytes(32, 0))});
  EXPECT_TRUE(generator->hasHadNonZero());
  // MD5 of 64 zero bytes, computed with Python hashlib.md5(bytes(64)).
  EXPECT_EQ(checksum, "3b5d3c7d207e37dceeedd301e35e2e58");
}

// ----- MD5: synchronous pair ---------------------------------------------------------------------

TEST(CorvaneChecksumGeneratorMD5, SynchronousPairGivesTheDigestOnTheCallersThread) {
  auto generator = std::make_shared<CorvaneChecksumGeneratorMD5>();
  // The queue is stalled: the synchronous pair must not need it.
  QueueStall stall(generator);
  const Bytes first = bytesOf("message ");
  const Bytes second = bytesOf("digest");
  generator->updateChecksumWithData(&first);
  generator->updateChecksumWithData(&second);
  // MD5 ("message digest"): RFC 1321 appendix A.5.
  EXPECT_EQ(generator->finalizeChecksum(), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_FALSE(generator->hasHadNonZero());
  EXPECT_FALSE(generator->isFinialized());
  EXPECT_EQ(generator->checksumValue(), std::nullopt);
}

TEST(CorvaneChecksumGeneratorMD5, SynchronousUpdateWithNullAbsorbsNothing) {
  auto generator = std::make_shared<CorvaneChecksumGeneratorMD5>();
  const Bytes abc = bytesOf("abc");
  const Bytes empty;
  generator->updateChecksumWithData(nullptr);
  generator->updateChecksumWithData(&abc);
  generator->updateChecksumWithData(nullptr);
  generator->updateChecksumWithData(&empty);
  EXPECT_EQ(generator->finalizeChecksum(), "900150983cd24fb0d6963f7d28e17f72");  // RFC 1321 A.5
}

TEST(CorvaneChecksumGeneratorMD5, SynchronousFinalizeWithoutDataGivesTheEmptyDigest) {
  CorvaneChecksumGeneratorMD5 generator;
  EXPECT_EQ(generator.finalizeChecksum(), "d41d8cd98f00b204e9800998ecf8427e");  // RFC 1321 A.5
}

TEST(CorvaneChecksumGeneratorMD5,
     SynchronousFinalizeLeavesItUnfinalizedSoAStreamingFinalizeDoesNotRaise) {
  auto generator = std::make_shared<CorvaneChecksumGeneratorMD5>();
  const Bytes abc = bytesOf("abc");
  generator->updateChecksumWithData(&abc);
  ASSERT_EQ(generator->finalizeChecksum(), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_FALSE(generator->isFinialized());
  // Mixing the pairs gives no defined text, but the streaming finalization runs normally.
  auto promise = std::make_shared<std::promise<void>>();
  auto future = promise->get_future();
  generator->finalizeChecksumWithCompletionBlock(
      [promise](const std::optional<std::string>&) { promise->set_value(); });
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  EXPECT_TRUE(generator->isFinialized());
}

// ----- CRC-32 ------------------------------------------------------------------------------------

TEST(CorvaneChecksumGeneratorCRC32, RegisterStartsAtZero) {
  CorvaneChecksumGeneratorCRC32 generator;
  EXPECT_EQ(generator.crc32Value(), 0u);
  EXPECT_EQ(generator.checksumType(), ChecksumTypeCRC32);
}

TEST(CorvaneChecksumGeneratorCRC32, CheckStringGivesTheCommonCrcComputedFromAZeroRegister) {
  const Bytes check = bytesOf("123456789");
  // The common CRC-32 algorithm with an initial register of 0 instead of all ones; the literal
  // was computed with Python zlib.crc32(b"123456789", 0xFFFFFFFF) (zlib complements the value
  // it is given, so its register starts at 0).
  EXPECT_EQ(crc32Reference(check), "d202d277");
  EXPECT_EQ(checksumOf(ChecksumTypeCRC32, check), "d202d277");
}

TEST(CorvaneChecksumGeneratorCRC32, RegisterHoldsTheUncomplementedValueAfterFinalization) {
  auto generator = std::make_shared<CorvaneChecksumGeneratorCRC32>();
  ASSERT_EQ(runGenerator(generator, {share(bytesOf("123456789"))}), "d202d277");
  EXPECT_EQ(generator->crc32Value(), ~0xd202d277u);
}

TEST(CorvaneChecksumGeneratorCRC32, ComplementBelow0x10000000PrintsFewerThanEightDigits) {
  // Four-byte inputs chosen (by solving the CRC's linear equations) so that the complemented
  // register is the value on the right. Each value was confirmed with Python
  // zlib.crc32(data, 0xFFFFFFFF) and is checked against the reference table here too.
  struct Case {
    const char* inputHex;
    std::uint32_t complemented;
    const char* text;
  };
  const Case cases[] = {
      {"2bc1df92", 0x0000000Fu, "0f"},       {"62f52692", 0x00000000u, "00"},
      {"23f35749", 0x00000001u, "01"},       {"bbcc7864", 0x00000FFFu, "fff"},
      {"397420fc", 0x00AB12CDu, "ab12cd"},   {"fcba6a50", 0x0FFFFFFFu, "fffffff"},
      {"c025f2d4", 0x10000000u, "10000000"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.inputHex);
    const auto input = hexDecode(c.inputHex);
    ASSERT_TRUE(input.has_value());
    ASSERT_EQ(~crc32ReferenceRegister(*input), c.complemented);
    ASSERT_EQ(crc32Reference(*input), c.text);
    EXPECT_EQ(checksumOf(ChecksumTypeCRC32, *input), c.text);
    EXPECT_EQ(checksumOfChunks(ChecksumTypeCRC32, testsupport::byteAtATime(*input)), c.text);
  }
}

TEST(CorvaneChecksumGeneratorCRC32, EqualsTheTableReferenceOnRandomInputsAndRandomSplits) {
  const auto seed = testsupport::randomTestSeed();
  SCOPED_TRACE(testsupport::describeSeed(seed));
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::size_t> smallLength(0, 300);
  std::uniform_int_distribution<std::size_t> largeLength(300, 200000);
  for (int round = 0; round < 120; ++round) {
    const std::size_t length = round % 4 == 3 ? largeLength(random) : smallLength(random);
    const Bytes input = testsupport::randomBytes(random, length);
    const std::string expected = crc32Reference(input);
    SCOPED_TRACE("round " + std::to_string(round) + " length " + std::to_string(length));
    EXPECT_EQ(checksumOf(ChecksumTypeCRC32, input), expected);
    const std::size_t maxChunk = round % 2 == 0 ? 17 : 5000;
    EXPECT_EQ(
        checksumOfChunks(ChecksumTypeCRC32, testsupport::randomSplit(input, random, maxChunk)),
        expected);
  }
}

TEST(CorvaneChecksumGeneratorCRC32, EqualsTheTableReferenceOnRepetitiveInputs) {
  // Long runs of one byte value exercise the wide (folding) code paths with simple data.
  for (std::uint8_t value : {std::uint8_t{0x00}, std::uint8_t{0xFF}, std::uint8_t{'a'}}) {
    for (std::size_t length :
         {std::size_t{1}, std::size_t{15}, std::size_t{16}, std::size_t{63}, std::size_t{64},
          std::size_t{255}, std::size_t{256}, std::size_t{4096}, std::size_t{65537}}) {
      const Bytes input(length, value);
      EXPECT_EQ(checksumOf(ChecksumTypeCRC32, input), crc32Reference(input))
          << "byte " << int(value) << " length " << length;
    }
  }
}

}  // namespace
}  // namespace corvane
