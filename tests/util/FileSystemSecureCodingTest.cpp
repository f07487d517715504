#include <gtest/gtest.h>

#include <vector>

#include "corvane/FileSystemSecureCoding.hpp"

namespace corvane {
namespace {

TEST(FileSystemSecureCoding, ListsTheFiveValueKindsInOrder) {
  const std::vector<SecureCodingClass> expected = {
      SecureCodingClass::array, SecureCodingClass::string, SecureCodingClass::number,
      SecureCodingClass::date, SecureCodingClass::dictionary};
  EXPECT_EQ(FileSystemSecureCoding::treeNodeSecureCodingClasses(), expected);
}

TEST(FileSystemSecureCoding, TwoCallsGiveDistinctListsWithEqualContents) {
  std::vector<SecureCodingClass> first = FileSystemSecureCoding::treeNodeSecureCodingClasses();
  const std::vector<SecureCodingClass> second =
      FileSystemSecureCoding::treeNodeSecureCodingClasses();
  ASSERT_EQ(first, second);
  EXPECT_NE(first.data(), second.data());

  // Changing one list leaves the other, and later calls, as they were.
  const std::vector<SecureCodingClass> before = second;
  first.push_back(SecureCodingClass::string);
  first[0] = SecureCodingClass::dictionary;
  EXPECT_EQ(second, before);
  EXPECT_EQ(FileSystemSecureCoding::treeNodeSecureCodingClasses(), before);
  EXPECT_EQ(first.size(), 6u);
}

}  // namespace
}  // namespace corvane
