// Tests of the checksum-key operations on sets and lists of file-attribute keys.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unordered_set>
#include <vector>

#include "corvane/FileAttributeKeyCollections.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

using Key = FileAttributeKey;
using KeyList = std::vector<FileAttributeKey>;
using TypeSet = std::unordered_set<ChecksumType>;

const Key& md5() { return Key::md5Checksum(); }
const Key& c4() { return Key::c4Checksum(); }
const Key& size() { return Key::NSFileSize(); }
const Key kModificationDate("NSFileModificationDate");

// --- sets --------------------------------------------------------------------------------------

TEST(FileAttributeKeySet, SizeOnlySetHasNoChecksumKeys) {
  const FileAttributeKeySet set{size()};
  EXPECT_EQ(representedChecksumsAlgorithms(set), std::nullopt);
  EXPECT_FALSE(containsChecksumKeys(set));
  EXPECT_EQ(trimmingChecksumAttributes(set), set);
}

TEST(FileAttributeKeySet, MD5AndC4AndSizeRepresentTwoAlgorithmsAndTrimToSize) {
  const FileAttributeKeySet set{md5(), c4(), size()};
  EXPECT_EQ(representedChecksumsAlgorithms(set), (TypeSet{ChecksumTypeMD5, ChecksumTypeC4}));
  EXPECT_TRUE(containsChecksumKeys(set));
  EXPECT_EQ(trimmingChecksumAttributes(set), FileAttributeKeySet{size()});
  EXPECT_EQ(set.size(), 3u) << "trimming leaves the receiver unchanged";
}

TEST(FileAttributeKeySet, EmptySetHasNoChecksumKeys) {
  const FileAttributeKeySet set;
  EXPECT_EQ(representedChecksumsAlgorithms(set), std::nullopt);
  EXPECT_FALSE(containsChecksumKeys(set));
  EXPECT_TRUE(trimmingChecksumAttributes(set).empty());
}

TEST(FileAttributeKeySet, AddChecksumKeysInsertsEachKeyOnce) {
  FileAttributeKeySet set{md5(), size()};
  addChecksumKeys(set, {ChecksumTypeSHA256, ChecksumTypeMD5, ChecksumTypeSHA256});
  EXPECT_EQ(set, (FileAttributeKeySet{md5(), size(), Key::sha2_256Checksum()}));
  addChecksumKeys(set, {});
  EXPECT_EQ(set.size(), 3u);
}

TEST(FileAttributeKeySet, RemoveAllChecksumKeysKeepsOtherKeys) {
  FileAttributeKeySet set(allFileAttributesKeys().begin(), allFileAttributesKeys().end());
  set.insert(size());
  set.insert(kModificationDate);
  removeAllChecksumKeys(set);
  EXPECT_EQ(set, (FileAttributeKeySet{size(), kModificationDate}));
  FileAttributeKeySet empty;
  removeAllChecksumKeys(empty);
  EXPECT_TRUE(empty.empty());
}

TEST(FileAttributeKeySetDeathTest, AddChecksumKeysForCombinedValueIsFatal) {
  FileAttributeKeySet set;
  EXPECT_DEATH(addChecksumKeys(set, {ChecksumType(3)}), "ChecksumType[^\n]*[^0-9]3([^0-9]|$)");
}

// --- lists -------------------------------------------------------------------------------------

TEST(FileAttributeKeyList, DuplicatedMD5KeyIsRepresentedTwice) {
  const KeyList list{md5(), size(), md5()};
  EXPECT_EQ(representedChecksumsAlgorithms(list),
            (std::vector<ChecksumType>{ChecksumTypeMD5, ChecksumTypeMD5}));
  EXPECT_TRUE(containsChecksumKeys(list));
}

TEST(FileAttributeKeyList, TrimmingChecksumAttributesRemovesFirstOccurrenceOnly) {
  const KeyList list{md5(), size(), md5()};
  EXPECT_THAT(trimmingChecksumAttributes(list), ElementsAre(size(), md5()));
  EXPECT_EQ(list.size(), 3u) << "trimming leaves the receiver unchanged";
}

TEST(FileAttributeKeyList, RemoveAllChecksumKeysRemovesFirstOccurrenceOnly) {
  KeyList list{md5(), size(), md5()};
  removeAllChecksumKeys(list);
  EXPECT_THAT(list, ElementsAre(size(), md5()));
}

TEST(FileAttributeKeyList, RepresentedAlgorithmsFollowListOrder) {
  const KeyList list{c4(), kModificationDate, Key::xxhash64Checksum(), md5()};
  EXPECT_EQ(representedChecksumsAlgorithms(list),
            (std::vector<ChecksumType>{ChecksumTypeC4, ChecksumTypeXXHash64, ChecksumTypeMD5}));
}

TEST(FileAttributeKeyList, AddChecksumKeysSkipsDuplicatesAndKeepsArgumentOrder) {
  KeyList list;
  addChecksumKeys(list, {ChecksumTypeSHA256, ChecksumTypeMD5, ChecksumTypeSHA256});
  EXPECT_THAT(list, ElementsAre(Key::sha2_256Checksum(), md5()));
}

TEST(FileAttributeKeyList, AddChecksumKeysAppendsOnlyMissingKeys) {
  KeyList list{size(), md5(), size()};
  addChecksumKeys(list, {ChecksumTypeMD5, ChecksumTypeC4});
  EXPECT_THAT(list, ElementsAre(size(), md5(), size(), c4()));
  addChecksumKeys(list, {});
  EXPECT_EQ(list.size(), 4u);
}

TEST(FileAttributeKeyListDeathTest, AddChecksumKeysForUnknownValueIsFatal) {
  KeyList list;
  EXPECT_DEATH(addChecksumKeys(list, {ChecksumType(2048)}),
               "ChecksumType[^\n]*[^0-9]2048([^0-9]|$)");
}

TEST(FileAttributeKeyList, TrimmingWithKeyNamedTwiceRemovesTwoOccurrences) {
  const KeyList list{md5(), size(), md5(), md5()};
  EXPECT_THAT(trimming(list, {md5(), md5()}), ElementsAre(size(), md5()));
}

TEST(FileAttributeKeyList, TrimmingIgnoresAbsentKeysAndEmptyArgument) {
  const KeyList list{size(), md5()};
  EXPECT_EQ(trimming(list, {}), list);
  EXPECT_THAT(trimming(list, {c4(), size()}), ElementsAre(md5()));
}

TEST(FileAttributeKeyList, SubtractingCollapsesDuplicates) {
  const Key a("a");
  const Key b("b");
  EXPECT_THAT(subtracting({a, a, b}, {b}), ElementsAre(a));
}

TEST(FileAttributeKeyList, SubtractingKeepsDistinctRemainderInAnyOrder) {
  const Key a("a");
  const Key b("b");
  const Key c("c");
  EXPECT_THAT(subtracting({c, a, c, b}, {}), UnorderedElementsAre(a, b, c));
  EXPECT_TRUE(subtracting({a}, {a, b}).empty());
}

TEST(FileAttributeKeyList, EmptyListHasNoChecksumKeysAndTrimsToEmpty) {
  const KeyList list;
  EXPECT_EQ(representedChecksumsAlgorithms(list), std::nullopt);
  EXPECT_FALSE(containsChecksumKeys(list));
  EXPECT_TRUE(trimmingChecksumAttributes(list).empty());
  EXPECT_TRUE(trimming(list, {md5()}).empty());
  KeyList mutableList;
  removeAllChecksumKeys(mutableList);
  EXPECT_TRUE(mutableList.empty());
}

TEST(FileAttributeKeyList, ListWithoutChecksumKeysHasNoRepresentedAlgorithms) {
  const KeyList list{size(), kModificationDate};
  EXPECT_EQ(representedChecksumsAlgorithms(list), std::nullopt);
  EXPECT_FALSE(containsChecksumKeys(list));
  EXPECT_EQ(trimmingChecksumAttributes(list), list);
}

}  // namespace
}  // namespace corvane
