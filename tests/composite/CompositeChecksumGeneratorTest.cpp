// The composite generators: the flat scheme over lists and lookups, and the pairwise scheme.
// Expected values are computed here without the library: digests with OpenSSL's EVP_Digest,
// C4 IDs with the base-58 reference of support/References.hpp, hexadecimal and base-58 texts
// decoded by hand (also support/References.hpp), and the pairwise levels rebuilt by a reference
// loop of this file.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "corvane/CompositeChecksumGenerator.hpp"
#include "corvane/CorvaneLog.hpp"
#include "support/CapturedLog.hpp"
#include "support/References.hpp"
#include "support/Vectors.hpp"

namespace corvane {
namespace {

using testsupport::bytesOf;
using testsupport::c4BytesByHand;
using testsupport::CapturedLog;
using testsupport::hexBytesByHand;

// ----- independent references --------------------------------------------------------------

std::string md5Of(const Bytes& bytes) {
  return testsupport::hexEncode(testsupport::evpDigest(EVP_md5(), bytes));
}
std::string sha256Of(const Bytes& bytes) {
  return testsupport::hexEncode(testsupport::evpDigest(EVP_sha256(), bytes));
}

// One way of turning checksum texts into bytes and hashing them, written without the library.
struct Recipe {
  std::string label;
  ChecksumType algorithm;
  CompositeChecksumMethod method;
  std::function<Bytes(const std::string&)> decode;  // one checksum text to its bytes
  std::function<std::string(const Bytes&)> hash;    // bytes to the checksum text
};

std::vector<Recipe> allRecipes() {
  std::vector<Recipe> recipes;
  const auto text = [](const std::string& checksum) { return bytesOf(checksum); };
  const auto c4 = [](const Bytes& bytes) { return testsupport::c4Reference(bytes); };
  for (const bool bigEndian : {true, false}) {
    const std::string order = bigEndian ? "big-endian" : "little-endian";
    const auto hex = [bigEndian](const std::string& s) { return hexBytesByHand(s, bigEndian); };
    const auto c4Data = [bigEndian](const std::string& s) { return c4BytesByHand(s, bigEndian); };
    const auto data = CompositeChecksumMethod::checksumsAsData(bigEndian);
    recipes.push_back({"SHA-256 data " + order, ChecksumTypeSHA256, data, hex, sha256Of});
    recipes.push_back({"MD5 data " + order, ChecksumTypeMD5, data, hex, md5Of});
    recipes.push_back({"C4 data " + order, ChecksumTypeC4, data, c4Data, c4});
  }
  const auto asText = CompositeChecksumMethod::checksumsAsText();
  recipes.push_back({"SHA-256 text", ChecksumTypeSHA256, asText, text, sha256Of});
  recipes.push_back({"MD5 text", ChecksumTypeMD5, asText, text, md5Of});
  recipes.push_back({"C4 text", ChecksumTypeC4, asText, text, c4});
  return recipes;
}

// The checksum of the i-th test item, a valid checksum text of the recipe's algorithm.
std::string itemChecksum(const Recipe& recipe, std::size_t i) {
  return recipe.hash(bytesOf("item " + std::to_string(i)));
}

// The pairwise hash tree rebuilt step by step: drop repeats, sort, then per level hash
// neighbours (first then second), sort the hashes and put an odd last item after them.
std::optional<std::string> referencePairwise(std::vector<std::string> level, const Recipe& recipe,
                                             bool removeDuplicates, bool sortList) {
  if (removeDuplicates) {
    std::vector<std::string> unique;
    std::set<std::string> seen;
    for (const auto& item : level) {
      if (seen.insert(item).second) unique.push_back(item);
    }
    level = unique;
  }
  if (sortList) std::sort(level.begin(), level.end());
  if (level.empty()) return std::nullopt;
  while (level.size() > 1) {
    std::vector<std::string> next;
    std::size_t i = 0;
    for (; i + 1 < level.size(); i += 2) {
      Bytes bytes = recipe.decode(level[i]);
      const Bytes second = recipe.decode(level[i + 1]);
      bytes.insert(bytes.end(), second.begin(), second.end());
      next.push_back(recipe.hash(bytes));
    }
    std::sort(next.begin(), next.end());
    if (i < level.size()) next.push_back(level[i]);
    level = next;
  }
  return level.front();
}

// The flat scheme rebuilt: all decoded bytes joined, hashed once.
std::string referenceFlat(const std::vector<std::string>& list, const Recipe& recipe) {
  Bytes bytes;
  for (const auto& item : list) {
    const Bytes decoded = recipe.decode(item);
    bytes.insert(bytes.end(), decoded.begin(), decoded.end());
  }
  return recipe.hash(bytes);
}

// ----- flat scheme ---------------------------------------------------------------------------

TEST(CompositeChecksumGenerator, FlatEmptyListGivesTheChecksumOfZeroBytes) {
  // MD5 of the empty string, from RFC 1321, appendix A.5.
  for (const auto method :
       {CompositeChecksumMethod::checksumsAsText(), CompositeChecksumMethod::checksumsAsData(true),
        CompositeChecksumMethod::checksumsAsData(false)}) {
    const CorvaneStandardCompositeChecksumGenerator generator(
        method, true, CompositeChecksumLexicalOrdering::checksumValue);
    EXPECT_EQ(generator.generate({}, ChecksumTypeMD5), "d41d8cd98f00b204e9800998ecf8427e");
  }
}

TEST(CompositeChecksumGenerator, FlatRemovesLaterDuplicatesOnlyWhenAsked) {
  for (const Recipe& recipe : allRecipes()) {
    if (recipe.algorithm == ChecksumTypeC4) continue;  // "a1" is not a C4 ID
    SCOPED_TRACE(recipe.label);
    CorvaneStandardCompositeChecksumGenerator generator(recipe.method, true,
                                                        CompositeChecksumLexicalOrdering::pathName);
    EXPECT_EQ(generator.generate({"a1", "a1", "b2"}, recipe.algorithm),
              referenceFlat({"a1", "b2"}, recipe));
    generator.setRemoveDuplicates(false);
    EXPECT_EQ(generator.generate({"a1", "a1", "b2"}, recipe.algorithm),
              referenceFlat({"a1", "a1", "b2"}, recipe));
  }
}

TEST(CompositeChecksumGenerator, FlatDuplicatesAreCaseSensitive) {
  const CorvaneStandardCompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsText(), true,
      CompositeChecksumLexicalOrdering::checksumValue);
  EXPECT_EQ(generator.generate({"ABC", "abc", "ABC"}, ChecksumTypeMD5), md5Of(bytesOf("ABCabc")));
}

TEST(CompositeChecksumGenerator, FlatNeverSorts) {
  for (const Recipe& recipe : allRecipes()) {
    SCOPED_TRACE(recipe.label);
    const std::string a = itemChecksum(recipe, 1);
    const std::string b = itemChecksum(recipe, 2);
    const CorvaneStandardCompositeChecksumGenerator generator(
        recipe.method, false, CompositeChecksumLexicalOrdering::checksumValue);
    const auto forward = generator.generate({a, b}, recipe.algorithm);
    const auto backward = generator.generate({b, a}, recipe.algorithm);
    EXPECT_EQ(forward, referenceFlat({a, b}, recipe));
    EXPECT_EQ(backward, referenceFlat({b, a}, recipe));
    EXPECT_NE(forward, backward);
  }
}

TEST(CompositeChecksumGenerator, FlatUndecodableOrUnhashableListGivesNothingAndLogsNothing) {
  CapturedLog log;
  const CorvaneStandardCompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true), false,
      CompositeChecksumLexicalOrdering::checksumValue);
  const std::size_t before = log.lines.size();
  EXPECT_EQ(generator.generate({"c4tooshort"}, ChecksumTypeC4), std::nullopt);
  EXPECT_EQ(generator.generate({"a1"}, ChecksumTypeSRSum), std::nullopt);
  EXPECT_EQ(log.lines.size(), before);
}

TEST(CompositeChecksumGenerator, LookupSkipsAlgorithmWithoutGenerator) {
  const CorvaneStandardCompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true), true,
      CompositeChecksumLexicalOrdering::checksumValue);
  const std::string md5A = md5Of(bytesOf("a"));
  const std::string md5B = md5Of(bytesOf("b"));
  const std::string shaA = sha256Of(bytesOf("a"));
  const std::unordered_map<ChecksumType, std::vector<std::string>> lookup = {
      {ChecksumTypeMD5, {md5A, md5B}},
      {ChecksumTypeSRSum, {"0102", "0304"}},
      {ChecksumTypeSHA256, {shaA}},
  };
  std::unordered_map<ChecksumType, std::string> received;
  int calls = 0;
  generator.generate(lookup, [&](const std::string& checksum, ChecksumType type) {
    ++calls;
    received[type] = checksum;
  });
  EXPECT_EQ(calls, 2);
  ASSERT_EQ(received.size(), 2u);
  Bytes md5Bytes = hexBytesByHand(md5A, true);
  const Bytes md5BBytes = hexBytesByHand(md5B, true);
  md5Bytes.insert(md5Bytes.end(), md5BBytes.begin(), md5BBytes.end());
  EXPECT_EQ(received[ChecksumTypeMD5], md5Of(md5Bytes));
  EXPECT_EQ(received[ChecksumTypeSHA256], sha256Of(hexBytesByHand(shaA, true)));
  EXPECT_EQ(received.count(ChecksumTypeSRSum), 0u);
}

TEST(CompositeChecksumGenerator, LookupSkipsUndecodableEntryAndDeduplicatesEachList) {
  CapturedLog log;
  const std::string c4 = testsupport::c4Reference(bytesOf("x"));
  const CorvaneStandardCompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true), true,
      CompositeChecksumLexicalOrdering::checksumValue);
  std::vector<ChecksumType> types;
  generator.generate({{ChecksumTypeC4, {"not a c4 id"}}, {ChecksumTypeMD5, {"0a", "0a", "0b"}}},
                     [&](const std::string& checksum, ChecksumType type) {
                       types.push_back(type);
                       EXPECT_EQ(checksum, md5Of(Bytes{0x0a, 0x0b}));
                     });
  EXPECT_EQ(types, std::vector<ChecksumType>{ChecksumTypeMD5});
}

// ----- pairwise scheme -----------------------------------------------------------------------

TEST(Smpte2144Colon2017CompositeChecksumGenerator, InitialiserFixesOrderingAndRemovesDuplicates) {
  Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(false));
  EXPECT_EQ(generator.lexicalOrdering(), CompositeChecksumLexicalOrdering::checksumValue);
  EXPECT_TRUE(generator.removeDuplicates());
  EXPECT_EQ(generator.method(), CompositeChecksumMethod::checksumsAsData(false));
  generator.setMethod(CompositeChecksumMethod::checksumsAsText());
  generator.setRemoveDuplicates(false);
  EXPECT_EQ(generator.method(), CompositeChecksumMethod::checksumsAsText());
  EXPECT_FALSE(generator.removeDuplicates());
  EXPECT_EQ(generator.lexicalOrdering(), CompositeChecksumLexicalOrdering::checksumValue);
}

TEST(CorvaneStandardCompositeChecksumGenerator, InitialiserAndSettersHoldEveryField) {
  CorvaneStandardCompositeChecksumGenerator generator(CompositeChecksumMethod::checksumsAsText(),
                                                      false,
                                                      CompositeChecksumLexicalOrdering::pathName);
  EXPECT_EQ(generator.method(), CompositeChecksumMethod::checksumsAsText());
  EXPECT_FALSE(generator.removeDuplicates());
  EXPECT_EQ(generator.lexicalOrdering(), CompositeChecksumLexicalOrdering::pathName);
  generator.setMethod(CompositeChecksumMethod::checksumsAsData(true));
  generator.setRemoveDuplicates(true);
  generator.setLexicalOrdering(CompositeChecksumLexicalOrdering::checksumValue);
  EXPECT_EQ(generator.method(), CompositeChecksumMethod::checksumsAsData(true));
  EXPECT_TRUE(generator.removeDuplicates());
  EXPECT_EQ(generator.lexicalOrdering(), CompositeChecksumLexicalOrdering::checksumValue);
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, TwoArgumentGenerateIsTheFlatScheme) {
  for (const Recipe& recipe : allRecipes()) {
    SCOPED_TRACE(recipe.label);
    std::vector<std::string> list;
    for (std::size_t i = 0; i < 5; ++i) list.push_back(itemChecksum(recipe, i));
    list.push_back(list[1]);  // removed: de-duplication is on by default
    const Smpte2144Colon2017CompositeChecksumGenerator smpte(recipe.method);
    const CompositeChecksumGenerator& asProtocol = smpte;
    const CorvaneStandardCompositeChecksumGenerator standard(
        recipe.method, true, CompositeChecksumLexicalOrdering::checksumValue);
    const std::vector<std::string> unique(list.begin(), list.begin() + 5);
    EXPECT_EQ(smpte.generate(list, recipe.algorithm), referenceFlat(unique, recipe));
    EXPECT_EQ(asProtocol.generate(list, recipe.algorithm),
              standard.generate(list, recipe.algorithm));
    EXPECT_NE(smpte.generate(list, recipe.algorithm), smpte.generate(list, recipe.algorithm, true));
  }
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, SortChecksumsSortsAscendingKeepingDuplicates) {
  EXPECT_EQ(Smpte2144Colon2017CompositeChecksumGenerator::sortChecksums({"b", "a", "B", "a"}),
            (std::vector<std::string>{"B", "a", "a", "b"}));
  EXPECT_TRUE(Smpte2144Colon2017CompositeChecksumGenerator::sortChecksums({}).empty());
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseEmptyListGivesNothing) {
  CapturedLog log;
  for (const Recipe& recipe : allRecipes()) {
    const Smpte2144Colon2017CompositeChecksumGenerator generator(recipe.method);
    EXPECT_EQ(generator.generate({}, recipe.algorithm, true), std::nullopt);
    EXPECT_EQ(generator.generate({}, recipe.algorithm, false), std::nullopt);
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseSingleItemIsReturnedUnchanged) {
  CapturedLog log;
  for (const auto method :
       {CompositeChecksumMethod::checksumsAsText(), CompositeChecksumMethod::checksumsAsData(true),
        CompositeChecksumMethod::checksumsAsData(false)}) {
    Smpte2144Colon2017CompositeChecksumGenerator generator(method);
    for (const ChecksumType algorithm : ChecksumType::allCases()) {
      for (const bool sort : {true, false}) {
        EXPECT_EQ(generator.generate({"x"}, algorithm, sort), "x");
        // De-duplicated to one item: also unchanged.
        EXPECT_EQ(generator.generate({"x", "x"}, algorithm, sort), "x");
      }
    }
    generator.setRemoveDuplicates(false);
    EXPECT_EQ(generator.generate({"x"}, ChecksumTypeSRSum, true), "x");
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseWithoutDeduplicationHashesEqualItems) {
  Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsText());
  generator.setRemoveDuplicates(false);
  EXPECT_EQ(generator.generate({"x", "x"}, ChecksumTypeMD5, true), md5Of(bytesOf("xx")));
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseTwoChecksumsHashTheirSixtyFourBytes) {
  const Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true));
  std::string p = sha256Of(bytesOf("p"));
  std::string q = sha256Of(bytesOf("q"));
  if (q > p) std::swap(p, q);  // make q < p
  Bytes pq = hexBytesByHand(p, true);
  const Bytes qBytes = hexBytesByHand(q, true);
  Bytes qp = qBytes;
  qp.insert(qp.end(), pq.begin(), pq.end());
  pq.insert(pq.end(), qBytes.begin(), qBytes.end());
  ASSERT_EQ(pq.size(), 64u);
  EXPECT_EQ(generator.generate({p, q}, ChecksumTypeSHA256, false), sha256Of(pq));
  EXPECT_EQ(generator.generate({p, q}, ChecksumTypeSHA256, true), sha256Of(qp));
  EXPECT_EQ(generator.generate({q, p}, ChecksumTypeSHA256, false), sha256Of(qp));
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseThreeChecksumsCarryTheThirdToLevelTwo) {
  for (const Recipe& recipe : allRecipes()) {
    SCOPED_TRACE(recipe.label);
    const Smpte2144Colon2017CompositeChecksumGenerator generator(recipe.method);
    std::vector<std::string> items = {itemChecksum(recipe, 1), itemChecksum(recipe, 2),
                                      itemChecksum(recipe, 3)};
    const auto pairHash = [&](const std::string& a, const std::string& b) {
      Bytes bytes = recipe.decode(a);
      const Bytes second = recipe.decode(b);
      bytes.insert(bytes.end(), second.begin(), second.end());
      return recipe.hash(bytes);
    };
    // Unsorted: (0,1) hashed, 2 carried and hashed after the level-1 hash.
    EXPECT_EQ(generator.generate(items, recipe.algorithm, false),
              pairHash(pairHash(items[0], items[1]), items[2]));
    std::sort(items.begin(), items.end());
    EXPECT_EQ(generator.generate({items[2], items[0], items[1]}, recipe.algorithm, true),
              pairHash(pairHash(items[0], items[1]), items[2]));
  }
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseWorkedFiveItemExample) {
  for (const Recipe& recipe : allRecipes()) {
    SCOPED_TRACE(recipe.label);
    std::vector<std::string> sorted;
    for (std::size_t i = 0; i < 5; ++i) sorted.push_back(itemChecksum(recipe, i));
    std::sort(sorted.begin(), sorted.end());
    const std::string &a = sorted[0], &b = sorted[1], &c = sorted[2], &d = sorted[3],
                      &e = sorted[4];
    const auto pairHash = [&](const std::string& x, const std::string& y) {
      Bytes bytes = recipe.decode(x);
      const Bytes second = recipe.decode(y);
      bytes.insert(bytes.end(), second.begin(), second.end());
      return recipe.hash(bytes);
    };
    // Level 1: (a,b), (c,d), e carried: [min(h1,h2), max(h1,h2), e].
    const std::string h1 = pairHash(a, b);
    const std::string h2 = pairHash(c, d);
    // Level 2: the two sorted hashes, e carried: [h3, e]. Level 3: (h3, e).
    const std::string h3 = pairHash(std::min(h1, h2), std::max(h1, h2));
    const std::string expected = pairHash(h3, e);
    const Smpte2144Colon2017CompositeChecksumGenerator generator(recipe.method);
    EXPECT_EQ(generator.generate({d, b, e, a, c}, recipe.algorithm, true), expected);
    EXPECT_EQ(generator.generate({a, b, c, d, e, c, a}, recipe.algorithm, true), expected);
  }
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseMatchesReferenceForManySizes) {
  for (const Recipe& recipe : allRecipes()) {
    for (const std::size_t count : {1u, 2u, 3u, 4u, 5u, 8u, 1000u}) {
      SCOPED_TRACE(recipe.label + ", " + std::to_string(count) + " checksums");
      std::vector<std::string> items;
      for (std::size_t i = 0; i < count; ++i) items.push_back(itemChecksum(recipe, i));
      Smpte2144Colon2017CompositeChecksumGenerator generator(recipe.method);
      for (const bool sort : {true, false}) {
        const std::optional<std::string> expected = referencePairwise(items, recipe, true, sort);
        ASSERT_TRUE(expected.has_value());
        EXPECT_EQ(generator.generate(items, recipe.algorithm, sort), expected);
      }
      if (count == 5) {
        // Repeats: dropped by default, hashed like any item when de-duplication is off.
        std::vector<std::string> withRepeats = items;
        withRepeats.push_back(items[0]);
        withRepeats.push_back(items[3]);
        EXPECT_EQ(generator.generate(withRepeats, recipe.algorithm, true),
                  referencePairwise(withRepeats, recipe, true, true));
        generator.setRemoveDuplicates(false);
        EXPECT_EQ(generator.generate(withRepeats, recipe.algorithm, true),
                  referencePairwise(withRepeats, recipe, false, true));
      }
    }
  }
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseOverC4TextsUsesTheC4Decoder) {
  const std::string x = testsupport::c4Reference(bytesOf("x"));
  const std::string y = testsupport::c4Reference(bytesOf("y"));
  for (const bool bigEndian : {true, false}) {
    const Smpte2144Colon2017CompositeChecksumGenerator generator(
        CompositeChecksumMethod::checksumsAsData(bigEndian));
    Bytes bytes = c4BytesByHand(x, bigEndian);
    const Bytes second = c4BytesByHand(y, bigEndian);
    bytes.insert(bytes.end(), second.begin(), second.end());
    EXPECT_EQ(generator.generate({x, y}, ChecksumTypeC4, false), testsupport::c4Reference(bytes));
  }
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseMalformedC4LogsThePairAndGivesNothing) {
  const std::string good = testsupport::c4Reference(bytesOf("good"));
  std::string bad = testsupport::c4Reference(bytesOf("bad"));
  bad[50] = 'l';  // not in the base-58 alphabet
  const Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(true));
  CapturedLog log;
  EXPECT_EQ(generator.generate({good, bad}, ChecksumTypeC4, false), std::nullopt);
  // The C4 decoder logs the bad character first; the composite's own line comes last.
  ASSERT_FALSE(log.lines.empty());
  EXPECT_EQ(log.lines.back(),
            "CS_CC - Failed to hash checksum pairs '" + good + "' & '" + bad + "' of type 'C4' ");
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseFailureInALaterLevelStillGivesNothing) {
  // Three items: level 1 hashes (good1, good2) fine; level 2 pairs that hash with the bad,
  // carried item, which then fails.
  const std::string g1 = testsupport::c4Reference(bytesOf("1"));
  const std::string g2 = testsupport::c4Reference(bytesOf("2"));
  const std::string bad = "c4short";
  const Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsData(false));
  CapturedLog log;
  EXPECT_EQ(generator.generate({g1, g2, bad}, ChecksumTypeC4, false), std::nullopt);
  Bytes bytes = c4BytesByHand(g1, false);
  const Bytes second = c4BytesByHand(g2, false);
  bytes.insert(bytes.end(), second.begin(), second.end());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0], "CS_CC - Failed to hash checksum pairs '" +
                              testsupport::c4Reference(bytes) + "' & '" + bad + "' of type 'C4' ");
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, PairwiseAlgorithmWithoutGeneratorLogsAndFails) {
  const Smpte2144Colon2017CompositeChecksumGenerator generator(
      CompositeChecksumMethod::checksumsAsText());
  CapturedLog log;
  EXPECT_EQ(generator.generate({"p", "q"}, ChecksumTypeSRSum, false), std::nullopt);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0], "CS_CC - Failed to hash checksum pairs 'p' & 'q' of type 'SR Sum' ");
}

TEST(Smpte2144Colon2017CompositeChecksumGenerator, LexicalOrderingPlaysNoPartInGenerate) {
  const std::vector<std::string> list = {"0b", "0a"};
  const CorvaneStandardCompositeChecksumGenerator byValue(
      CompositeChecksumMethod::checksumsAsData(true), false,
      CompositeChecksumLexicalOrdering::checksumValue);
  const CorvaneStandardCompositeChecksumGenerator byPath(
      CompositeChecksumMethod::checksumsAsData(true), false,
      CompositeChecksumLexicalOrdering::pathName);
  EXPECT_EQ(byValue.generate(list, ChecksumTypeMD5), byPath.generate(list, ChecksumTypeMD5));
  EXPECT_EQ(byValue.generate(list, ChecksumTypeMD5), md5Of(Bytes{0x0b, 0x0a}));
}

}  // namespace
}  // namespace corvane
