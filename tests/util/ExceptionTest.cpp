#include <gtest/gtest.h>

#include "corvane/Exception.hpp"

namespace corvane {
namespace {

TEST(Exception, CarriesNameAndReason) {
  const Exception exception("ArithmeticException", "Overflow in addition.");
  EXPECT_EQ(exception.name(), "ArithmeticException");
  EXPECT_EQ(exception.reason(), "Overflow in addition.");
  EXPECT_STREQ(exception.what(), "Overflow in addition.");
}

TEST(DecodingError, CarriesKindAndKey) {
  const DecodingError error(DecodingError::Kind::keyNotFound, "value", "missing key");
  EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(error.key(), "value");
  EXPECT_STREQ(error.what(), "missing key");
}

}  // namespace
}  // namespace corvane
