#include "util/URL.h"

#include <gtest/gtest.h>

#include <string>

// The check stays on in release builds (NDEBUG), not only in debug ones.
TEST(URLDeathTest, DecodingIntoItsOwnInputAborts) {
  std::string text = "a%20b";
  EXPECT_DEATH(URL::decode(text, text), "Assertion failed: &encoded != &decoded");
}
