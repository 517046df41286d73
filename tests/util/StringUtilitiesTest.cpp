#include "util/StringUtilities.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>

TEST(StringUtilitiesTest, ErrorTextsEndCleanAndKeepErrno) {
  for (unsigned long code : {1ul, 2ul, 13ul, 22ul, 110ul, 9999ul}) {
    errno = 77;
    const std::string text = System::getErrorMessageStr(false, &code);
    EXPECT_EQ(77, errno) << "errno must survive the call";
    ASSERT_FALSE(text.empty());
    EXPECT_NE('.', text.back()) << text;
    EXPECT_NE('\n', text.back()) << text;
  }
  const unsigned long noEntry = ENOENT;
  const std::string plain = System::getErrorMessageStr(false, &noEntry);
  EXPECT_EQ(std::string(std::strerror(ENOENT)), plain);
  EXPECT_EQ(plain + " (error code 0x2)", System::getErrorMessageStr(true, &noEntry));

  // Without a code the current errno is described.
  errno = ENOENT;
  EXPECT_EQ(plain, System::getErrorMessageStr());
  EXPECT_EQ(ENOENT, errno);
}

TEST(StringUtilitiesTest, PerThreadMessageIsOverwrittenByTheNextCall) {
  const unsigned long first = ENOENT, second = EACCES;
  const char* a = System::getErrorMessage(false, &first);
  const std::string saved = a;
  const char* b = System::getErrorMessage(false, &second);
  // The longer text came first, so the slot is rewritten in place.
  EXPECT_STREQ(b, a) << "the first result is overwritten";
  EXPECT_EQ(System::getErrorMessageStr(false, &second), std::string(b));
  EXPECT_NE(saved, std::string(b));
  std::string other;
  std::thread([&] { other = System::getErrorMessage(false, &first); }).join();
  EXPECT_EQ(saved, other);
  EXPECT_EQ(System::getErrorMessageStr(false, &second), std::string(b)) << "other thread's slot";
}

TEST(StringUtilitiesTest, ErrnoExceptionAndMessagePrefix) {
  const ErrnoException e("clock_gettime", EINVAL);
  EXPECT_EQ(EINVAL, e.err());
  EXPECT_EQ("clock_gettime: " + std::string(std::strerror(EINVAL)), e.what());
  std::ostringstream out;
  out << MessagePrefix{true, 42} << MessagePrefix{false, 12345};
  EXPECT_EQ("ERROR QY0042: WARNING QY12345: ", out.str());
}

TEST(StringUtilitiesTest, TrimAndHostPort) {
  using Pair = std::pair<std::string, std::string>;
  for (const auto& [text, trimmed] : {Pair{" \t\v\f\r\nnode 7\r\n\t ", "node 7"}, Pair{" \t\n ", ""}}) {
    std::string s = text;
    removeTrailingLeadingSpace(s);
    EXPECT_EQ(trimmed, s);
  }
  // The port stays as given without a colon; digits up to the first other character count.
  const struct { const char *text, *host; int port; } cases[] = {
      {"node7:8000", "node7", 8000}, {"node7", "node7", 2411}, {"node7:", "node7", 0},
      {":80", "", 80}, {"a:12x:9", "a", 12}};
  for (const auto& c : cases) {
    std::string host = "stale";
    int port = 2411;
    parseHostPort(c.text, host, port);
    EXPECT_EQ(c.host, host) << c.text;
    EXPECT_EQ(c.port, port) << c.text;
  }
}
