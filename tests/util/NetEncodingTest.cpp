#include "util/NetEncoding.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/FakeDaemon.h"
#include "util/TCPStream.h"

using namespace System;

TEST(NetEncodingTest, LongValuesAndShortReads) {
  // Sizes and offsets past 2 GiB: the low half reads as unsigned.
  std::stringstream s;
  writeInt64(s, 0x1C0000002L);
  EXPECT_EQ(readInt64(s), 0x1C0000002L);
  std::string text = "kept";
  std::istringstream truncatedPrefix(std::string("\0\0", 2));
  readSmallBuf(truncatedPrefix, text);
  EXPECT_EQ(text, "kept");
  std::istringstream negative(WireBytes().i32(-1).bytes());
  EXPECT_THROW(readSmallBuf(negative, text), std::length_error);
}

// A list cut short by the peer closing is a lost link, not data; the trusted
// reader still replaces its target with what arrived and defaults.
TEST(NetEncodingTest, TrustedListCutShortStillReplacesItsTarget) {
  auto ends = TCPSocket::pair();
  const std::string bytes = WireBytes().i32(3).str("a").i32(2).raw("b");
  ASSERT_TRUE(writeAll(ends.second.get(), bytes.data(), bytes.size()));
  ends.second.close();
  TCPStream in(std::make_unique<TCPSocket>(ends.first.release()));
  StringList names = {"old"};
  EXPECT_THROW(in >> names, LinkLost);
  EXPECT_EQ(names, (StringList{"a", std::string("b\0", 2), ""}));
}

TEST(NetEncodingTest, BoundedReadersRefuseBeforeAllocating) {
  std::string text = "kept";
  std::istringstream tooLong(WireBytes().i32(Wire::kMaxStringLength + 1).bytes());
  EXPECT_THROW(Wire::getString(tooLong, text), Wire::LimitError);
  EXPECT_EQ(text, "kept");
  const std::string longest(Wire::kMaxStringLength, 'x');  // the bound itself is allowed
  std::istringstream atTheBound(WireBytes().str(longest).bytes());
  Wire::getString(atTheBound, text);
  EXPECT_EQ(text, longest);
  StringList names = {"kept"};
  std::istringstream hugeCount(WireBytes().i32(0x7fffffff).bytes());
  EXPECT_THROW(Wire::getStringList(hugeCount, names), Wire::LimitError);
  EXPECT_EQ(names, StringList{"kept"});
  std::istringstream longName(WireBytes().i32(1).i32(10).raw("0123456789").bytes());
  EXPECT_THROW(Wire::getStringList(longName, names, 10, 9), Wire::LimitError);
}
