// Tests of the comparisons every ChecksumStore provides, run on small test doubles.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "corvane/ChecksumLookup.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A store holding an ordered list of pairs: it enumerates and lists them in that order. A
// separate list of algorithms can be given to model a store whose list and values disagree.
class VectorChecksumStore : public ChecksumStore {
 public:
  explicit VectorChecksumStore(std::vector<ChecksumPair> entries) : entries_(std::move(entries)) {}
  VectorChecksumStore(std::vector<ChecksumPair> entries, std::vector<ChecksumType> listed)
      : entries_(std::move(entries)), listed_(std::move(listed)) {}

  std::vector<ChecksumType> storedChecksumAlgorithms() const override {
    if (listed_) {
      return *listed_;
    }
    std::vector<ChecksumType> algorithms;
    for (const ChecksumPair& entry : entries_) {
      algorithms.push_back(entry.algorithm);
    }
    return algorithms;
  }

  std::optional<std::string> checksumValue(ChecksumType type) const override {
    for (const ChecksumPair& entry : entries_) {
      if (entry.algorithm == type) {
        return entry.value;
      }
    }
    return std::nullopt;
  }

  void enumerateStoredChecksums(
      const std::function<void(const std::string&, ChecksumType)>& block) const override {
    for (const ChecksumPair& entry : entries_) {
      block(entry.value, entry.algorithm);
    }
  }

 private:
  std::vector<ChecksumPair> entries_;
  std::optional<std::vector<ChecksumType>> listed_;
};

// A store of another kind, backed by a lookup and listed in the default ordering, to show that
// the operations work between different implementations.
class LookupChecksumStore : public ChecksumStore {
 public:
  explicit LookupChecksumStore(ChecksumLookup lookup) : lookup_(std::move(lookup)) {}

  std::vector<ChecksumType> storedChecksumAlgorithms() const override {
    std::vector<ChecksumType> algorithms;
    for (const ChecksumPair& pair : pairs(lookup_)) {
      algorithms.push_back(pair.algorithm);
    }
    return algorithms;
  }

  std::optional<std::string> checksumValue(ChecksumType type) const override {
    const auto entry = lookup_.find(type);
    if (entry == lookup_.end()) {
      return std::nullopt;
    }
    return entry->second;
  }

  void enumerateStoredChecksums(
      const std::function<void(const std::string&, ChecksumType)>& block) const override {
    for (const ChecksumPair& pair : pairs(lookup_)) {
      block(pair.value, pair.algorithm);
    }
  }

 private:
  ChecksumLookup lookup_;
};

using Collision = std::tuple<ChecksumType, std::string, std::string>;
using Entry = std::tuple<ChecksumType, std::optional<std::string>, std::optional<std::string>>;

std::vector<Collision> collisionsOf(const ChecksumStore& store, const ChecksumStore& other) {
  std::vector<Collision> reported;
  store.enumerateChecksumCollisions(
      other, [&](ChecksumType type, const std::string& text, const std::string& otherText) {
        reported.emplace_back(type, text, otherText);
      });
  return reported;
}

std::vector<Entry> entriesOf(const ChecksumStore& store, const ChecksumStore& other) {
  std::vector<Entry> reported;
  store.enumerateAlgorithmEntries(other,
                                  [&](ChecksumType type, const std::optional<std::string>& text,
                                      const std::optional<std::string>& otherText) {
                                    reported.emplace_back(type, text, otherText);
                                  });
  return reported;
}

const VectorChecksumStore kEmptyStore({});

// --- checksumIntersection ---------------------------------------------------------------------

TEST(ChecksumStore, IntersectionKeepsOnlyAlgorithmsWithEqualTexts) {
  const VectorChecksumStore store({{"a", ChecksumTypeMD5}, {"b", ChecksumTypeSHA1}});
  const VectorChecksumStore other(
      {{"a", ChecksumTypeMD5}, {"c", ChecksumTypeSHA1}, {"d", ChecksumTypeCRC32}});

  EXPECT_THAT(store.checksumIntersection(other), ElementsAre(ChecksumPair("a", ChecksumTypeMD5)));
}

TEST(ChecksumStore, IntersectionFollowsThisStoreOrder) {
  const VectorChecksumStore store(
      {{"s", ChecksumTypeSHA256}, {"m", ChecksumTypeMD5}, {"x", ChecksumTypeXXHash64}});
  const VectorChecksumStore other(
      {{"x", ChecksumTypeXXHash64}, {"m", ChecksumTypeMD5}, {"s", ChecksumTypeSHA256}});

  EXPECT_THAT(store.checksumIntersection(other),
              ElementsAre(ChecksumPair("s", ChecksumTypeSHA256), ChecksumPair("m", ChecksumTypeMD5),
                          ChecksumPair("x", ChecksumTypeXXHash64)));
}

TEST(ChecksumStore, IntersectionComparesTextsCaseSensitively) {
  const VectorChecksumStore store({{"AB", ChecksumTypeMD5}});
  const VectorChecksumStore other({{"ab", ChecksumTypeMD5}});

  EXPECT_THAT(store.checksumIntersection(other), IsEmpty());
}

TEST(ChecksumStore, IntersectionWithEmptyStoreIsEmpty) {
  const VectorChecksumStore store({{"a", ChecksumTypeMD5}});

  EXPECT_THAT(store.checksumIntersection(kEmptyStore), IsEmpty());
  EXPECT_THAT(kEmptyStore.checksumIntersection(store), IsEmpty());
}

// --- subtractingChecksums ---------------------------------------------------------------------

TEST(ChecksumStore, SubtractingLeavesOutAlgorithmsTheOtherHoldsWithDifferentText) {
  const VectorChecksumStore store({{"a", ChecksumTypeMD5}, {"b", ChecksumTypeSHA1}});
  const VectorChecksumStore other({{"zzz", ChecksumTypeSHA1}});

  EXPECT_THAT(store.subtractingChecksums(other), ElementsAre(ChecksumPair("a", ChecksumTypeMD5)));
}

TEST(ChecksumStore, SubtractingKeepsThisStoreOrder) {
  const VectorChecksumStore store({{"c", ChecksumTypeCRC32},
                                   {"s", ChecksumTypeSHA1},
                                   {"m", ChecksumTypeMD5},
                                   {"x", ChecksumTypeXXHash64}});
  const VectorChecksumStore other({{"s", ChecksumTypeSHA1}});

  EXPECT_THAT(store.subtractingChecksums(other),
              ElementsAre(ChecksumPair("c", ChecksumTypeCRC32), ChecksumPair("m", ChecksumTypeMD5),
                          ChecksumPair("x", ChecksumTypeXXHash64)));
}

TEST(ChecksumStore, SubtractingFromEmptyStoreReturnsEveryChecksum) {
  const VectorChecksumStore store({{"b", ChecksumTypeSHA1}, {"a", ChecksumTypeMD5}});

  EXPECT_THAT(store.subtractingChecksums(kEmptyStore),
              ElementsAre(ChecksumPair("b", ChecksumTypeSHA1), ChecksumPair("a", ChecksumTypeMD5)));
  EXPECT_THAT(kEmptyStore.subtractingChecksums(store), IsEmpty());
}

TEST(ChecksumStore, SubtractingStoreFromItselfIsEmpty) {
  const VectorChecksumStore store({{"b", ChecksumTypeSHA1}, {"a", ChecksumTypeMD5}});

  EXPECT_THAT(store.subtractingChecksums(store), IsEmpty());
}

// --- enumerateChecksumCollisions --------------------------------------------------------------

TEST(ChecksumStore, CollisionsAreCaseSensitive) {
  const VectorChecksumStore store({{"AB", ChecksumTypeMD5}});
  const VectorChecksumStore other({{"ab", ChecksumTypeMD5}});

  EXPECT_THAT(collisionsOf(store, other), ElementsAre(Collision(ChecksumTypeMD5, "AB", "ab")));
}

TEST(ChecksumStore, CollisionsSkipEqualAndOneSidedAlgorithms) {
  const VectorChecksumStore store({{"same", ChecksumTypeMD5},
                                   {"mine", ChecksumTypeSHA1},
                                   {"only here", ChecksumTypeCRC32},
                                   {"one", ChecksumTypeSHA256}});
  const VectorChecksumStore other({{"two", ChecksumTypeSHA256},
                                   {"only there", ChecksumTypeC4},
                                   {"same", ChecksumTypeMD5},
                                   {"theirs", ChecksumTypeSHA1}});

  EXPECT_THAT(collisionsOf(store, other), ElementsAre(Collision(ChecksumTypeSHA1, "mine", "theirs"),
                                                      Collision(ChecksumTypeSHA256, "one", "two")));
}

TEST(ChecksumStore, CollisionsWithEmptyStoreReportNothing) {
  const VectorChecksumStore store({{"a", ChecksumTypeMD5}});

  EXPECT_THAT(collisionsOf(store, kEmptyStore), IsEmpty());
  EXPECT_THAT(collisionsOf(kEmptyStore, store), IsEmpty());
}

// --- enumerateAlgorithmEntries ----------------------------------------------------------------

TEST(ChecksumStore, AlgorithmEntriesReportSharedThenOtherOnly) {
  const VectorChecksumStore store({{"a", ChecksumTypeMD5}});
  const VectorChecksumStore other({{"a", ChecksumTypeMD5}, {"b", ChecksumTypeSHA1}});

  EXPECT_THAT(entriesOf(store, other), ElementsAre(Entry(ChecksumTypeMD5, "a", "a"),
                                                   Entry(ChecksumTypeSHA1, std::nullopt, "b")));
}

TEST(ChecksumStore, AlgorithmEntriesReportThisOnlyWithNothingFromOther) {
  const VectorChecksumStore store({{"a", ChecksumTypeMD5}, {"b", ChecksumTypeSHA1}});
  const VectorChecksumStore other({{"c", ChecksumTypeSHA1}});

  EXPECT_THAT(entriesOf(store, other), ElementsAre(Entry(ChecksumTypeMD5, "a", std::nullopt),
                                                   Entry(ChecksumTypeSHA1, "b", "c")));
}

TEST(ChecksumStore, AlgorithmEntriesReportEveryAlgorithmOnceInOrder) {
  const VectorChecksumStore store(
      {{"s", ChecksumTypeSHA256}, {"m1", ChecksumTypeMD5}, {"c", ChecksumTypeCRC32}});
  const VectorChecksumStore other({{"4", ChecksumTypeC4},
                                   {"m2", ChecksumTypeMD5},
                                   {"x", ChecksumTypeXXHash64},
                                   {"s", ChecksumTypeSHA256},
                                   {"1", ChecksumTypeSHA1}});

  EXPECT_THAT(entriesOf(store, other),
              ElementsAre(Entry(ChecksumTypeSHA256, "s", "s"), Entry(ChecksumTypeMD5, "m1", "m2"),
                          Entry(ChecksumTypeCRC32, "c", std::nullopt),
                          Entry(ChecksumTypeC4, std::nullopt, "4"),
                          Entry(ChecksumTypeXXHash64, std::nullopt, "x"),
                          Entry(ChecksumTypeSHA1, std::nullopt, "1")));
}

TEST(ChecksumStore, AlgorithmEntriesListOtherOnlyInOtherListOrder) {
  const VectorChecksumStore store({{"m", ChecksumTypeMD5}});
  // The other store enumerates SHA-1 before CRC-32 but lists them the other way round; the
  // second half of the walk follows the list.
  const VectorChecksumStore other({{"1", ChecksumTypeSHA1}, {"c", ChecksumTypeCRC32}},
                                  {ChecksumTypeCRC32, ChecksumTypeSHA1});

  EXPECT_THAT(entriesOf(store, other), ElementsAre(Entry(ChecksumTypeMD5, "m", std::nullopt),
                                                   Entry(ChecksumTypeCRC32, std::nullopt, "c"),
                                                   Entry(ChecksumTypeSHA1, std::nullopt, "1")));
}

TEST(ChecksumStore, AlgorithmEntriesSkipListedAlgorithmsWithoutValue) {
  const VectorChecksumStore other({{"1", ChecksumTypeSHA1}},
                                  {ChecksumTypeC4, ChecksumTypeSHA1, ChecksumTypeMD5});

  EXPECT_THAT(entriesOf(kEmptyStore, other),
              ElementsAre(Entry(ChecksumTypeSHA1, std::nullopt, "1")));
}

TEST(ChecksumStore, AlgorithmEntriesOfTwoEmptyStoresReportNothing) {
  EXPECT_THAT(entriesOf(kEmptyStore, kEmptyStore), IsEmpty());
}

// --- keys outside the ten flags, mixed implementations ----------------------------------------

TEST(ChecksumStore, OperationsCompareUnknownAndCombinedKeys) {
  const ChecksumType combined{ChecksumTypeMD5.rawValue() | ChecksumTypeSHA1.rawValue()};
  const ChecksumType unknown{1024};
  const VectorChecksumStore store({{"u", unknown}, {"c1", combined}, {"n", ChecksumTypeNone}});
  const VectorChecksumStore other({{"u", unknown}, {"c2", combined}});

  EXPECT_THAT(store.checksumIntersection(other), ElementsAre(ChecksumPair("u", unknown)));
  EXPECT_THAT(store.subtractingChecksums(other), ElementsAre(ChecksumPair("n", ChecksumTypeNone)));
  EXPECT_THAT(collisionsOf(store, other), ElementsAre(Collision(combined, "c1", "c2")));
  EXPECT_THAT(entriesOf(other, store),
              ElementsAre(Entry(unknown, "u", "u"), Entry(combined, "c2", "c1"),
                          Entry(ChecksumTypeNone, std::nullopt, "n")));
}

TEST(ChecksumStore, OperationsWorkBetweenDifferentImplementations) {
  const VectorChecksumStore store(
      {{"c", ChecksumTypeCRC32}, {"m", ChecksumTypeMD5}, {"one", ChecksumTypeSHA1}});
  // Listed and enumerated in the default ordering: xxHash64, MD5, SHA-1, SHA-512.
  const LookupChecksumStore other({{ChecksumTypeSHA512, "5"},
                                   {ChecksumTypeMD5, "m"},
                                   {ChecksumTypeSHA1, "two"},
                                   {ChecksumTypeXXHash64, "x"}});

  EXPECT_THAT(store.checksumIntersection(other), ElementsAre(ChecksumPair("m", ChecksumTypeMD5)));
  EXPECT_THAT(store.subtractingChecksums(other), ElementsAre(ChecksumPair("c", ChecksumTypeCRC32)));
  EXPECT_THAT(collisionsOf(store, other), ElementsAre(Collision(ChecksumTypeSHA1, "one", "two")));
  EXPECT_THAT(entriesOf(store, other),
              ElementsAre(Entry(ChecksumTypeCRC32, "c", std::nullopt),
                          Entry(ChecksumTypeMD5, "m", "m"), Entry(ChecksumTypeSHA1, "one", "two"),
                          Entry(ChecksumTypeXXHash64, std::nullopt, "x"),
                          Entry(ChecksumTypeSHA512, std::nullopt, "5")));
  EXPECT_THAT(
      other.subtractingChecksums(store),
      ElementsAre(ChecksumPair("x", ChecksumTypeXXHash64), ChecksumPair("5", ChecksumTypeSHA512)));
}

}  // namespace
}  // namespace corvane
