// Test entry point: death tests fork and re-execute the program ("threadsafe" style), because
// the library's worker threads may be running when a death test starts.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
