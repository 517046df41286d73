#include "util/StringUtilities.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

TEST(StringUtilitiesTest, ErrorTextsKeepErrno) {
  const unsigned long noEntry = ENOENT;
  errno = EACCES;
  EXPECT_EQ(std::string(std::strerror(ENOENT)) + " (error code 0x2)", System::getErrorMessageStr(true, &noEntry));
  EXPECT_EQ(EACCES, errno);
}

// Without a colon the port stays as given; digits up to another character count.
TEST(StringUtilitiesTest, HostAndPort) {
  const struct { const char *text, *host; int port; } cases[] = {
      {"node7:8000", "node7", 8000}, {"node7", "node7", 2411}, {"node7:", "node7", 0},
      {":80", "", 80}, {"a:12x:9", "a", 12}};
  for (const auto& c : cases) {
    std::string host = "stale";
    int port = 2411;
    parseHostPort(c.text, host, port);
    EXPECT_TRUE(c.host == host && c.port == port) << c.text << ": " << host << " " << port;
  }
}
