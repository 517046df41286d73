#include "hopperd/AllowList.h"

#include <gtest/gtest.h>

#include <stdexcept>

TEST(AllowListTest, MatchesNetworksByPrefixAndRefusesMalformedItems) {
  const AllowList list = AllowList::parse(" 10.1.2.3/8 , 192.168.7.9, 172.16.0.0/12,0.0.0.0/32");
  EXPECT_EQ(list.toString(), "10.0.0.0/8,192.168.7.9/32,172.16.0.0/12,0.0.0.0/32");
  for (const char* in : {"10.255.0.1", "172.31.255.255"}) EXPECT_TRUE(list.allows(in)) << in;
  for (const char* out : {"11.0.0.1", "192.168.7.10", "172.32.0.0", "10.1.2", "10.1.2.3."}) {
    EXPECT_FALSE(list.allows(out)) << out;
  }
  EXPECT_TRUE(AllowList::parse("0.0.0.0/0").allows("203.0.113.5"));
  for (const char* bad : {"", " , ", "10.0.0.0/33", "10.0.0/8", "256.0.0.1", "10.0.0.1/",
                          "10.0.0.1/-1", "+1.2.3.4", "1.2.3.4.5", "a.b.c.d", "1..2.3", "1.2.3.4."}) {
    EXPECT_THROW(AllowList::parse(bad), std::runtime_error) << bad;
  }
}
