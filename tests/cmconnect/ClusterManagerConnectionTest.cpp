#include "cmconnect/ClusterManagerConnection.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <vector>

#include "ssl/QYSSL.h"
#include "support/FakeCM.h"
#include "support/FakeDaemon.h"
#include "support/TestNames.h"

namespace {

using CMC = ClusterManagerConnection;

// Records the pauses between attempts instead of waiting them out.
struct PauseSpy : CMC {
  using CMC::CMC;
  void pauseBeforeRetry(long ms) override { pauses.push_back(ms); }
  std::vector<long> pauses;
};

std::string error(const CMC& connection) {
  int code = 0;
  const std::string text = connection.getError(&code);
  return std::to_string(code) + " " + text;
}

}  // namespace

TEST(ClusterManagerConnection, ReplyEnvelopeErrors) {
  FakeCM cm;
  cm.start("127.0.0.1", {});
  qysec::SSLProvider provider(false);
  CMC connection(50, 3, true);
  ASSERT_TRUE(connection.connect(cm.hostPort(), 0, &provider, 10));
  EXPECT_EQ(cm.requests().at(0).auth, "brisk:vqmzt");
  const std::string failure = "<?xml version=\"1.0\"?><Quarry><Status>Failure</Status><ErrorMessage>";
  const struct { std::string body, error; } cases[] = {  // a failure reported by the CM, then faulty replies
      {failure + "no%20such platform</ErrorMessage></Quarry>", "3002 no such platform"},
      {failure + "busy</ErrorMessage><ErrorCode>12</ErrorCode></Quarry>", "3112 busy"},
      {failure + "odd</ErrorMessage><ErrorCode>abc</ErrorCode></Quarry>",
       "3014 odd: Unparseable error code \"abc\" sent by CM."},
      {"<Other><Status>Success</Status></Other>", "3003 Response does not have <Quarry> tag"},
      {"<?xml version=\"1.0\"?><Quarry><Status>Success</Quarry>",
       "3004 XML parser threw exception: Mismatch tags (XML is '<?xml"}};
  XMLTree reply;
  for (const auto& c : cases) {
    cm.reconfigure({"body", c.body});
    EXPECT_FALSE(connection.sendHTTPMessage("agent_list.xml", reply, nullptr));
    EXPECT_EQ(error(connection).substr(0, c.error.size()), c.error);
  }
}

TEST(ClusterManagerConnection, HTTPErrorsAreRetriedWithEqualPauses) {
  FakeCM cm;
  cm.start("127.0.0.1", {"500"});
  qysec::SSLProvider provider(false);
  PauseSpy connection(10, 4, true);
  CMC twice(10, 2, true);
  EXPECT_FALSE(connection.connect(cm.hostPort(), 0, &provider, 10));
  EXPECT_EQ(error(connection), "3010 Sending HTTP command failed with curl error(0): HTTP code 500");
  EXPECT_EQ(cm.requests().size(), 4u);
  EXPECT_EQ(connection.pauses, (std::vector<long>{10, 10, 10}));  // an answer keeps the pause
  cm.reconfigure({"401"});
  EXPECT_FALSE(twice.connect(cm.hostPort(), 0, &provider, 10));
  EXPECT_EQ(error(twice), "3007 Invalid password for user 'brisk'");
  EXPECT_EQ(cm.requests().size(), 4u + 2u);
}

// A refused connection is tried again; a name that does not resolve is not.
TEST(ClusterManagerConnection, TransportFailures) {
  qysec::SSLProvider provider(false);
  PauseSpy refused(10, 3, true), secured(10, 6, true);
  EXPECT_FALSE(refused.connect("127.0.0.1:" + std::to_string(FakeDaemon::unusedPort()), 0, &provider, 10));
  EXPECT_EQ(error(refused), "3009 Unable to connect to CM: '127.0.0.1'");
  EXPECT_EQ(refused.pauses, (std::vector<long>{20, 30}));  // three attempts; no answer: the pause grows
  EXPECT_FALSE(secured.connect(HC_UNRESOLVABLE_HOST, 8031, &provider, 10));
  EXPECT_EQ(error(secured), "3006 Couldn't resolve CM host: '" HC_UNRESOLVABLE_HOST "'");
  EXPECT_TRUE(secured.pauses.empty());  // not tried again
}

TEST(ClusterManagerConnection, ProxyFromEnvironmentIsBypassed) {
  FakeCM cm;
  cm.start("127.0.0.1", {});
  const std::string deadProxy = "http://127.0.0.1:" + std::to_string(FakeDaemon::unusedPort());
  const char* const names[] = {"http_proxy", "https_proxy", "HTTPS_PROXY", "ALL_PROXY"};
  for (const char* name : names) setenv(name, deadProxy.c_str(), 1);
  unsetenv("no_proxy");
  unsetenv("NO_PROXY");
  qysec::SSLProvider provider(false);
  CMC connection(10, 2, true);
  const bool connected = connection.connect(cm.hostPort(), 0, &provider, 10);
  for (const char* name : names) unsetenv(name);
  EXPECT_TRUE(connected) << connection.getError();
  EXPECT_EQ(cm.requests().size(), 1u);
}
