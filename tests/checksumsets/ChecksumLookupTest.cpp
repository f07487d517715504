// Tests of the ordered views of a checksum lookup and of conflicts and collisions between lookups.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "corvane/ChecksumLookup.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

const ChecksumType kCombined{ChecksumTypeMD5.rawValue() | ChecksumTypeSHA1.rawValue()};
const ChecksumType kUnknown{1024};

using Conflict = std::tuple<ChecksumType, std::string, std::string>;
using Collision = std::pair<ChecksumType, std::vector<std::string>>;

std::vector<Conflict> conflictsOf(const ChecksumLookup& lookup, const ChecksumLookup& other) {
  std::vector<Conflict> reported;
  enumerateConflictingEntries(
      lookup, other, [&](ChecksumType type, const std::string& text, const std::string& otherText) {
        reported.emplace_back(type, text, otherText);
      });
  return reported;
}

std::vector<Collision> collisionsOf(const std::vector<ChecksumLookup>& lookups) {
  std::vector<Collision> reported;
  enumerateCollisions(lookups, [&](ChecksumType type, const std::vector<std::string>& texts) {
    reported.emplace_back(type, texts);
  });
  return reported;
}

std::vector<ChecksumPair> sortedEntriesOf(const ChecksumLookup& lookup) {
  std::vector<ChecksumPair> reported;
  enumerateSortedEntries(lookup, [&](const ChecksumPair& pair) { reported.push_back(pair); });
  return reported;
}

// --- pairs and enumerateSortedEntries ---------------------------------------------------------

TEST(ChecksumLookup, PairsFollowDefaultOrdering) {
  const ChecksumLookup lookup = {
      {ChecksumTypeCRC32, "x"}, {ChecksumTypeMD5, "y"}, {ChecksumTypeXXHash64, "z"}};

  EXPECT_THAT(pairs(lookup), ElementsAre(ChecksumPair("z", ChecksumTypeXXHash64),
                                         ChecksumPair("y", ChecksumTypeMD5),
                                         ChecksumPair("x", ChecksumTypeCRC32)));
}

TEST(ChecksumLookup, PairsOfFullLookupFollowDefaultOrdering) {
  ChecksumLookup lookup;
  for (const ChecksumType type : ChecksumType::allCases()) {
    lookup.emplace(type, "text " + std::to_string(type.rawValue()));
  }

  std::vector<ChecksumPair> expected;
  for (const ChecksumType type : ChecksumType::defaultOrdering()) {
    expected.emplace_back("text " + std::to_string(type.rawValue()), type);
  }
  ASSERT_EQ(expected.size(), 10u);
  EXPECT_EQ(pairs(lookup), expected);
}

TEST(ChecksumLookup, PairsOfEmptyLookupIsEmpty) { EXPECT_THAT(pairs(ChecksumLookup{}), IsEmpty()); }

TEST(ChecksumLookup, PairsSkipUnknownAndCombinedKeys) {
  const ChecksumLookup lookup = {{kCombined, "combined"},
                                 {kUnknown, "unknown"},
                                 {ChecksumTypeNone, "none"},
                                 {ChecksumTypeSHA1, "sha1"}};

  EXPECT_THAT(pairs(lookup), ElementsAre(ChecksumPair("sha1", ChecksumTypeSHA1)));
}

TEST(ChecksumLookup, PairsKeepTextsAsStored) {
  const ChecksumLookup lookup = {{ChecksumTypeMD5, "D41D8CD9"}, {ChecksumTypeSRSum, ""}};

  EXPECT_THAT(pairs(lookup), ElementsAre(ChecksumPair("D41D8CD9", ChecksumTypeMD5),
                                         ChecksumPair("", ChecksumTypeSRSum)));
}

TEST(ChecksumLookup, EnumerateSortedEntriesMatchesPairs) {
  const ChecksumLookup lookup = {{ChecksumTypeC4, "c"},
                                 {ChecksumTypeSHA512, "5"},
                                 {ChecksumTypeXXHashH3128, "128"},
                                 {ChecksumTypeXXHashH364, "64"},
                                 {ChecksumTypeSHA256, "2"}};

  EXPECT_THAT(sortedEntriesOf(lookup), ElementsAre(ChecksumPair("64", ChecksumTypeXXHashH364),
                                                   ChecksumPair("128", ChecksumTypeXXHashH3128),
                                                   ChecksumPair("2", ChecksumTypeSHA256),
                                                   ChecksumPair("5", ChecksumTypeSHA512),
                                                   ChecksumPair("c", ChecksumTypeC4)));
  EXPECT_EQ(sortedEntriesOf(lookup), pairs(lookup));
}

TEST(ChecksumLookup, EnumerateSortedEntriesSkipsUnknownAndCombinedKeys) {
  const ChecksumLookup lookup = {{kCombined, "combined"}, {kUnknown, "unknown"}};

  EXPECT_THAT(sortedEntriesOf(lookup), IsEmpty());
}

// --- enumerateConflictingEntries --------------------------------------------------------------

TEST(ChecksumLookup, ConflictsAgainstEmptyLookupCallNothing) {
  const ChecksumLookup lookup = {{ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "b"}};

  EXPECT_THAT(conflictsOf(lookup, {}), IsEmpty());
}

TEST(ChecksumLookup, ConflictsOfEmptyLookupCallNothing) {
  EXPECT_THAT(conflictsOf({}, {{ChecksumTypeMD5, "a"}}), IsEmpty());
}

TEST(ChecksumLookup, ConflictsReportDifferingTextsWithBothValues) {
  const ChecksumLookup lookup = {
      {ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "b"}, {ChecksumTypeCRC32, "c"}};
  const ChecksumLookup other = {
      {ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "B"}, {ChecksumTypeCRC32, "d"}};

  EXPECT_THAT(conflictsOf(lookup, other),
              UnorderedElementsAre(Conflict(ChecksumTypeSHA1, "b", "B"),
                                   Conflict(ChecksumTypeCRC32, "c", "d")));
  EXPECT_THAT(conflictsOf(other, lookup),
              UnorderedElementsAre(Conflict(ChecksumTypeSHA1, "B", "b"),
                                   Conflict(ChecksumTypeCRC32, "d", "c")));
}

TEST(ChecksumLookup, ConflictsIgnoreAlgorithmsHeldOnOneSide) {
  const ChecksumLookup lookup = {{ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "b"}};
  const ChecksumLookup other = {{ChecksumTypeSHA256, "c"}, {ChecksumTypeXXHash64, "d"}};

  EXPECT_THAT(conflictsOf(lookup, other), IsEmpty());
}

TEST(ChecksumLookup, ConflictsAreCaseSensitive) {
  EXPECT_THAT(conflictsOf({{ChecksumTypeMD5, "AB"}}, {{ChecksumTypeMD5, "ab"}}),
              ElementsAre(Conflict(ChecksumTypeMD5, "AB", "ab")));
}

TEST(ChecksumLookup, ConflictsCompareUnknownAndCombinedKeys) {
  const ChecksumLookup lookup = {{kCombined, "x"}, {kUnknown, "u"}, {ChecksumTypeNone, "n"}};
  const ChecksumLookup other = {{kCombined, "y"}, {kUnknown, "u"}, {ChecksumTypeNone, "m"}};

  EXPECT_THAT(
      conflictsOf(lookup, other),
      UnorderedElementsAre(Conflict(kCombined, "x", "y"), Conflict(ChecksumTypeNone, "n", "m")));
}

// --- enumerateCollisions ----------------------------------------------------------------------

TEST(ChecksumLookup, CollisionsReportDisagreementOnceAndSkipSingleHolders) {
  const std::vector<ChecksumLookup> lookups = {{{ChecksumTypeMD5, "a"}},
                                               {{ChecksumTypeMD5, "a"}},
                                               {{ChecksumTypeMD5, "b"}},
                                               {{ChecksumTypeSHA1, "c"}}};

  const std::vector<Collision> reported = collisionsOf(lookups);

  ASSERT_EQ(reported.size(), 1u);
  EXPECT_EQ(reported[0].first, ChecksumTypeMD5);
  EXPECT_THAT(reported[0].second, UnorderedElementsAre("a", "b"));
}

TEST(ChecksumLookup, CollisionsOverSingleLookupReportNothing) {
  const std::vector<ChecksumLookup> lookups = {{{ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "b"}}};

  EXPECT_THAT(collisionsOf(lookups), IsEmpty());
}

TEST(ChecksumLookup, CollisionsOverNoLookupsReportNothing) {
  EXPECT_THAT(collisionsOf({}), IsEmpty());
}

TEST(ChecksumLookup, CollisionsSkipAlgorithmsWhereAllHoldersAgree) {
  const std::vector<ChecksumLookup> lookups = {{{ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "s"}},
                                               {{ChecksumTypeMD5, "a"}},
                                               {},
                                               {{ChecksumTypeMD5, "a"}, {ChecksumTypeSHA1, "s"}}};

  EXPECT_THAT(collisionsOf(lookups), IsEmpty());
}

TEST(ChecksumLookup, CollisionsReportDistinctTextsOnce) {
  const std::vector<ChecksumLookup> lookups = {
      {{ChecksumTypeSHA256, "a"}}, {{ChecksumTypeSHA256, "b"}}, {{ChecksumTypeSHA256, "a"}},
      {{ChecksumTypeSHA256, "c"}}, {{ChecksumTypeSHA256, "b"}}, {{ChecksumTypeSHA256, "a"}}};

  const std::vector<Collision> reported = collisionsOf(lookups);

  ASSERT_EQ(reported.size(), 1u);
  EXPECT_EQ(reported[0].first, ChecksumTypeSHA256);
  EXPECT_THAT(reported[0].second, UnorderedElementsAre("a", "b", "c"));
}

TEST(ChecksumLookup, CollisionsFollowAscendingFlagOrder) {
  // Every flag disagrees between the two lookups; the reports come in ascending raw value.
  ChecksumLookup first;
  ChecksumLookup second;
  for (const ChecksumType type : ChecksumType::defaultOrdering()) {
    first.emplace(type, "first");
    second.emplace(type, "second");
  }

  std::vector<ChecksumType> reportedTypes;
  for (const Collision& collision : collisionsOf({first, second})) {
    reportedTypes.push_back(collision.first);
    EXPECT_THAT(collision.second, UnorderedElementsAre("first", "second"));
  }
  EXPECT_EQ(reportedTypes, ChecksumType::allCases());
}

TEST(ChecksumLookup, CollisionsAreCaseSensitive) {
  const std::vector<ChecksumLookup> lookups = {{{ChecksumTypeMD5, "AB"}},
                                               {{ChecksumTypeMD5, "ab"}}};

  EXPECT_THAT(collisionsOf(lookups),
              ElementsAre(Pair(ChecksumTypeMD5, UnorderedElementsAre("AB", "ab"))));
}

TEST(ChecksumLookup, CollisionsSkipUnknownAndCombinedKeys) {
  const std::vector<ChecksumLookup> lookups = {
      {{kCombined, "x"}, {kUnknown, "u"}, {ChecksumTypeNone, "n"}, {ChecksumTypeC4, "c"}},
      {{kCombined, "y"}, {kUnknown, "v"}, {ChecksumTypeNone, "m"}, {ChecksumTypeC4, "d"}}};

  EXPECT_THAT(collisionsOf(lookups),
              ElementsAre(Pair(ChecksumTypeC4, UnorderedElementsAre("c", "d"))));
}

}  // namespace
}  // namespace corvane
