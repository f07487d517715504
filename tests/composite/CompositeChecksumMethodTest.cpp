// CompositeChecksumMethod, CompositeChecksumSorter and the two small enumerations. Expected bytes
// are worked out by hand with the decoders of support/References.hpp: hexadecimal pairs read
// digit by digit, C4 IDs read as base-58 numbers with its alphabet.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "corvane/CompositeChecksumMethod.hpp"
#include "corvane/CorvaneChecksumGenerator.hpp"
#include "corvane/CorvaneLog.hpp"
#include "support/CapturedLog.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::bytesOf;

Bytes joined(const Bytes& a, const Bytes& b) {
  Bytes result = a;
  result.insert(result.end(), b.begin(), b.end());
  return result;
}

// MD5 of "a" and of "abc", from RFC 1321, appendix A.5.
const std::string kMd5OfA = "0cc175b9c0f1b6a831c399e269772661";
const std::string kMd5OfAbc = "900150983cd24fb0d6963f7d28e17f72";

// ----- CompositeChecksumMethod -------------------------------------------------------------

TEST(CompositeChecksumMethod, FactoriesCarryCaseAndByteOrder) {
  EXPECT_TRUE(CompositeChecksumMethod::checksumsAsData(true).isData());
  EXPECT_TRUE(CompositeChecksumMethod::checksumsAsData(true).bigEndian());
  EXPECT_FALSE(CompositeChecksumMethod::checksumsAsData(false).bigEndian());
  EXPECT_FALSE(CompositeChecksumMethod::checksumsAsText().isData());
  EXPECT_EQ(CompositeChecksumMethod::checksumsAsData(true),
            CompositeChecksumMethod::checksumsAsData(true));
  EXPECT_FALSE(CompositeChecksumMethod::checksumsAsData(true) ==
               CompositeChecksumMethod::checksumsAsData(false));
  EXPECT_FALSE(CompositeChecksumMethod::checksumsAsText() ==
               CompositeChecksumMethod::checksumsAsData(false));
  EXPECT_EQ(CompositeChecksumMethod::checksumsAsText(), CompositeChecksumMethod::checksumsAsText());
}

TEST(CompositeChecksumMethod, EmptyListGivesEmptyBufferForBothMethods) {
  for (const auto method :
       {CompositeChecksumMethod::checksumsAsText(), CompositeChecksumMethod::checksumsAsData(true),
        CompositeChecksumMethod::checksumsAsData(false)}) {
    for (const std::optional<ChecksumType> algorithm :
         {std::optional<ChecksumType>(), std::optional(ChecksumTypeMD5),
          std::optional(ChecksumTypeC4)}) {
      const std::optional<Bytes> bytes = method.data({}, algorithm);
      ASSERT_TRUE(bytes.has_value());
      EXPECT_TRUE(bytes->empty());
    }
  }
}

TEST(CompositeChecksumMethod, TextJoinsAbAndCdWhateverTheAlgorithm) {
  const auto method = CompositeChecksumMethod::checksumsAsText();
  for (const std::optional<ChecksumType> algorithm :
       {std::optional<ChecksumType>(), std::optional(ChecksumTypeMD5),
        std::optional(ChecksumTypeC4), std::optional(ChecksumTypeSRSum)}) {
    EXPECT_EQ(method.data({"ab", "cd"}, algorithm), bytesOf("abcd"));
  }
}

TEST(CompositeChecksumMethod, TextKeepsUtf8BytesUnchanged) {
  EXPECT_EQ(CompositeChecksumMethod::checksumsAsText().data({"\xc3\xa9", "x"}, std::nullopt),
            (Bytes{0xc3, 0xa9, 'x'}));
}

TEST(CompositeChecksumMethod, DataBigEndianOverTwoMd5TextsGivesTheirThirtyTwoBytesInOrder) {
  const std::optional<Bytes> bytes =
      CompositeChecksumMethod::checksumsAsData(true).data({kMd5OfA, kMd5OfAbc}, ChecksumTypeMD5);
  ASSERT_TRUE(bytes.has_value());
  ASSERT_EQ(bytes->size(), 32u);
  EXPECT_EQ(*bytes, joined(testsupport::hexBytesByHand(kMd5OfA, true),
                           testsupport::hexBytesByHand(kMd5OfAbc, true)));
  EXPECT_EQ((*bytes)[0], 0x0c);
  EXPECT_EQ((*bytes)[16], 0x90);
}

TEST(CompositeChecksumMethod, DataLittleEndianReversesEachChecksumButKeepsListOrder) {
  const std::optional<Bytes> bytes =
      CompositeChecksumMethod::checksumsAsData(false).data({kMd5OfA, kMd5OfAbc}, ChecksumTypeMD5);
  ASSERT_TRUE(bytes.has_value());
  EXPECT_EQ(*bytes, joined(testsupport::hexBytesByHand(kMd5OfA, false),
                           testsupport::hexBytesByHand(kMd5OfAbc, false)));
  EXPECT_EQ((*bytes)[0], 0x61);
  EXPECT_EQ((*bytes)[16], 0x72);
}

TEST(CompositeChecksumMethod, DataWithoutAlgorithmUsesTheHexDecoder) {
  EXPECT_EQ(CompositeChecksumMethod::checksumsAsData(true).data({"0a0b", "abc"}, std::nullopt),
            (Bytes{0x0a, 0x0b, 0xab, 0xc0}));
  EXPECT_EQ(CompositeChecksumMethod::checksumsAsData(false).data({"0a0b", "abc"}, std::nullopt),
            (Bytes{0x0b, 0x0a, 0xbc, 0x0a}));
}

TEST(CompositeChecksumMethod, C4AlgorithmSendsEveryTextThroughTheC4Decoder) {
  const std::string first = testsupport::c4Reference(bytesOf("first"));
  const std::string second = testsupport::c4Reference(bytesOf("second"));
  for (const bool bigEndian : {true, false}) {
    const std::optional<Bytes> bytes =
        CompositeChecksumMethod::checksumsAsData(bigEndian).data({first, second}, ChecksumTypeC4);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(*bytes, joined(testsupport::c4BytesByHand(first, bigEndian),
                             testsupport::c4BytesByHand(second, bigEndian)));
  }
  // With big-endian words the bytes are the SHA-512 digests themselves (unless a digest starts
  // with a zero word, which these do not).
  EXPECT_EQ(CompositeChecksumMethod::checksumsAsData(true).data({first}, ChecksumTypeC4),
            testsupport::sha512Digest(bytesOf("first")));
}

TEST(CompositeChecksumMethod, AbsentAlgorithmSendsEvenC4TextThroughTheHexDecoder) {
  const std::string c4 = testsupport::c4Reference(bytesOf("first"));
  for (const bool bigEndian : {true, false}) {
    const auto method = CompositeChecksumMethod::checksumsAsData(bigEndian);
    const std::optional<Bytes> bytes = method.data({c4}, std::nullopt);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(bytes->size(), 45u);  // 90 characters, two per byte
    EXPECT_EQ(*bytes, CorvaneChecksumGenerator::dataFromHexString(c4, !bigEndian));
    EXPECT_NE(*bytes, testsupport::c4BytesByHand(c4, bigEndian));
    // Any algorithm but C4 decodes as hex too.
    EXPECT_EQ(method.data({c4}, ChecksumTypeSHA512), bytes);
  }
}

TEST(CompositeChecksumMethod, OneUndecodableTextMakesTheWholeResultAbsent) {
  const std::string good = testsupport::c4Reference(bytesOf("good"));
  std::string badCharacter = good;
  badCharacter[40] = '0';  // not in the base-58 alphabet
  const std::string badLength = good.substr(0, 89);
  testsupport::CapturedLog log;
  for (const bool bigEndian : {true, false}) {
    const auto method = CompositeChecksumMethod::checksumsAsData(bigEndian);
    EXPECT_EQ(method.data({badCharacter, good}, ChecksumTypeC4), std::nullopt);
    EXPECT_EQ(method.data({good, badCharacter}, ChecksumTypeC4), std::nullopt);
    EXPECT_EQ(method.data({good, good, badLength}, ChecksumTypeC4), std::nullopt);
    EXPECT_TRUE(method.data({good, good}, ChecksumTypeC4).has_value());
  }
  // The text method does not decode, so nothing is undecodable there.
  EXPECT_TRUE(CompositeChecksumMethod::checksumsAsText().data({badCharacter}, ChecksumTypeC4));
}

// ----- CompositeChecksumSorter -------------------------------------------------------------

TEST(CompositeChecksumSorter, OrdersByCriteriaAscendingAndDescending) {
  CompositeChecksumSorter sorter;
  EXPECT_TRUE(sorter.ascending());
  sorter.add("2", "b");
  sorter.add("1", "a");
  sorter.add("3", "c");
  EXPECT_EQ(sorter.count(), 3u);
  EXPECT_EQ(sorter.sortedChecksums(), (std::vector<std::string>{"1", "2", "3"}));
  sorter.setAscending(false);
  EXPECT_FALSE(sorter.ascending());
  EXPECT_EQ(sorter.sortedChecksums(), (std::vector<std::string>{"3", "2", "1"}));
}

TEST(CompositeChecksumSorter, SameCriterionKeepsTheLastChecksum) {
  CompositeChecksumSorter sorter;
  sorter.add("x", "k");
  sorter.add("y", "k");
  EXPECT_EQ(sorter.count(), 1u);
  EXPECT_EQ(sorter.sortedChecksums(), (std::vector<std::string>{"y"}));
}

TEST(CompositeChecksumSorter, ComparesCaseSensitivelyUpperCaseFirst) {
  CompositeChecksumSorter sorter;
  sorter.add("lower", "a");
  sorter.add("upper", "B");
  EXPECT_EQ(sorter.sortedChecksums(), (std::vector<std::string>{"upper", "lower"}));
}

TEST(CompositeChecksumSorter, ComparesNonAsciiCriteriaByCodePoint) {
  // UTF-8 byte order is code point order: "z" (U+007A) < "é" (U+00E9) < "€" (U+20AC).
  CompositeChecksumSorter sorter;
  sorter.add("euro", "\xe2\x82\xac");
  sorter.add("e-acute", "\xc3\xa9");
  sorter.add("z", "z");
  EXPECT_EQ(sorter.sortedChecksums(), (std::vector<std::string>{"z", "e-acute", "euro"}));
}

TEST(CompositeChecksumSorter, EmptySorterHasNoChecksums) {
  CompositeChecksumSorter sorter;
  EXPECT_EQ(sorter.count(), 0u);
  EXPECT_TRUE(sorter.sortedChecksums().empty());
  sorter.setAscending(false);
  EXPECT_TRUE(sorter.sortedChecksums().empty());
}

TEST(CompositeChecksumSorter, CopiesAreIndependent) {
  CompositeChecksumSorter sorter;
  sorter.add("1", "a");
  CompositeChecksumSorter copy = sorter;
  copy.add("2", "b");
  copy.setAscending(false);
  EXPECT_EQ(sorter.count(), 1u);
  EXPECT_TRUE(sorter.ascending());
  EXPECT_EQ(copy.sortedChecksums(), (std::vector<std::string>{"2", "1"}));
}

// ----- enumerations ------------------------------------------------------------------------

TEST(CompositeChecksumLexicalOrdering, HashesByCaseIndex) {
  std::hash<CompositeChecksumLexicalOrdering> hash;
  EXPECT_EQ(hash(CompositeChecksumLexicalOrdering::checksumValue), std::hash<int>{}(0));
  EXPECT_EQ(hash(CompositeChecksumLexicalOrdering::pathName), std::hash<int>{}(1));
  std::unordered_set<CompositeChecksumLexicalOrdering> set{
      CompositeChecksumLexicalOrdering::checksumValue, CompositeChecksumLexicalOrdering::pathName,
      CompositeChecksumLexicalOrdering::pathName};
  EXPECT_EQ(set.size(), 2u);
  EXPECT_NE(CompositeChecksumLexicalOrdering::checksumValue,
            CompositeChecksumLexicalOrdering::pathName);
}

TEST(DirectoryChecksumScope, HashesByCaseIndex) {
  std::hash<DirectoryChecksumScope> hash;
  EXPECT_EQ(hash(DirectoryChecksumScope::content), std::hash<int>{}(0));
  EXPECT_EQ(hash(DirectoryChecksumScope::structure), std::hash<int>{}(1));
  std::unordered_set<DirectoryChecksumScope> set{DirectoryChecksumScope::content,
                                                 DirectoryChecksumScope::structure,
                                                 DirectoryChecksumScope::content};
  EXPECT_EQ(set.size(), 2u);
}

}  // namespace
}  // namespace corvane
