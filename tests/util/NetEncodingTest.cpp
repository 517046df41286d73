#include "util/NetEncoding.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/FakeDaemon.h"

using namespace System;

TEST(NetEncodingTest, PrimitivesOnPlainStreams) {
  std::stringstream s;
  writeInt32(s, 1);
  writeInt32(s, -1);
  writeInt64(s, 0x0000000100000002L);
  writeByte(s, 0xab);
  writeSmallBuf(s, "", 0);
  writeLargeBuf(s, "xyz", 3);
  EXPECT_EQ(s.str(), std::string("\0\0\0\1\xff\xff\xff\xff\0\0\0\1\0\0\0\2\xab\0\0\0\0", 21) +
                         WireBytes().i64(3).raw("xyz").bytes());
  EXPECT_EQ(readInt32(s), 1);
  EXPECT_EQ(readInt32(s), -1);
  EXPECT_EQ(readInt64(s), 0x100000002L);
  EXPECT_EQ(Int64From2Ints(1, -1), 0x1FFFFFFFFL);
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
  std::istringstream good(WireBytes().i32(2).str("b").str("a").i32(1).str("h").i32(1).bytes());
  std::set<std::string> set;
  StringIntPairList pairs;
  Wire::getStringSet(good, set);
  Wire::getPairList(good, pairs);
  EXPECT_EQ(set, (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(pairs, (StringIntPairList{{"h", 1}}));
}

TEST(NetEncodingTest, OperatorsOnTCPStream) {
  TCPSocket listener;
  listener.listen("127.0.0.1", 0);
  TCPStream client("127.0.0.1", listener.getListenerPort(), 2000, 5000);
  TCPStream server(listener.accept(2000));
  client << 7 << -3L << true << std::string("str") << "chars" << std::set<std::string>{"c", "a", "b"};
  client.flush();
  const std::string expected = WireBytes().i32(7).i64(-3).flag(true).str("str").str("chars")
                                   .i32(3).str("a").str("b").str("c");
  std::string wire(expected.size(), '\0');
  server.read(&wire[0], static_cast<std::streamsize>(wire.size()));
  EXPECT_EQ(wire, expected);

  const std::string replies = WireBytes().i64(1L << 40).raw("\x02").i32(2).str("x").str("y")
                                  .i32(1).str("h").i32(1).i32(0);
  server.write(replies.data(), static_cast<std::streamsize>(replies.size())).flush();
  long l = 0;
  bool b = false;
  StringList list, emptied = {"old"};
  StringIntPairList pairs;
  client >> l >> b >> list >> pairs >> emptied;
  EXPECT_EQ(l, 1L << 40);
  EXPECT_TRUE(b);
  EXPECT_EQ(list, (StringList{"x", "y"}));
  EXPECT_EQ(pairs, (StringIntPairList{{"h", 1}}));
  EXPECT_TRUE(emptied.empty());
}
