#include "util/NetEncoding.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/FakeDaemon.h"

using namespace System;

TEST(NetEncodingTest, LongValuesAndShortReads) {
  // Sizes and offsets past 2 GiB: the low half reads as unsigned.
  std::stringstream s;
  writeInt64(s, 0x1C0000002L);
  EXPECT_EQ(readInt64(s), 0x1C0000002L);
  EXPECT_EQ(Int64From2Ints(-1, 0), -0x100000000L);

  std::string text = "kept";
  std::istringstream truncatedPrefix(std::string("\0\0", 2));
  readSmallBuf(truncatedPrefix, text);
  EXPECT_EQ(text, "kept");
  std::istringstream shortPayload(WireBytes().i32(5).raw("ab").bytes());
  readSmallBuf(shortPayload, text);
  EXPECT_EQ(text, std::string("ab\0\0\0", 5));
  std::istringstream negative(WireBytes().i32(-1).bytes());
  EXPECT_THROW(readSmallBuf(negative, text), std::length_error);
}
