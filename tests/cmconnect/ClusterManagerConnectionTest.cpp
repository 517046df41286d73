#include "cmconnect/ClusterManagerConnection.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <sstream>

#include "ssl/QYSSL.h"
#include "support/FakeCM.h"
#include "support/FakeDaemon.h"
#include "support/TestNames.h"

namespace {

using CMC = ClusterManagerConnection;

std::string statistics(const CMC& connection) {
  std::ostringstream out;
  connection.dumpStatistics(out);
  return out.str();
}

std::string error(const CMC& connection) {
  int code = 0;
  const std::string text = connection.getError(&code);
  return std::to_string(code) + " " + text;
}

}  // namespace

// Paths and the account over HTTPS are checked with the agent-list query.
TEST(ClusterManagerConnection, PlainHTTPGoesToTheResolvedAddress) {
  FakeCM cm;
  FakeCM::Options options;
  options.plain = true;
  const int port = cm.start("127.0.0.1", options);
  CMC connection(50, 3, true);
  XMLTree reply;
  ASSERT_TRUE(connection.connect("localhost", port, nullptr, 10)) << connection.getError();
  EXPECT_EQ(connection.getHostPlusPort(), "127.0.0.1:" + std::to_string(port));
  EXPECT_TRUE(connection.sendHTTPStringMessage("agent_list.xml", reply, "<x>1</x>"));
  const auto requests = cm.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].method + " " + requests[1].path + " " + requests[1].auth,
            "POST /quarry/service/agent_list.xml brisk:vqmzt");
  EXPECT_NE(statistics(connection).find("calls: 2\n"), std::string::npos);
}

TEST(ClusterManagerConnection, ReplyEnvelopeErrors) {
  FakeCM cm;
  cm.start("127.0.0.1", {});
  qysec::SSLProvider provider(false);
  CMC connection(50, 3, true);
  ASSERT_TRUE(connection.connect(cm.hostPort(), 0, &provider, 10));
  const std::string failure = "<?xml version=\"1.0\"?><Quarry><Status>Failure</Status><ErrorMessage>";
  const struct { std::string body, error; } cases[] = {  // a failure reported by the CM, then faulty replies
      {failure + "no%20such platform</ErrorMessage></Quarry>", "3002 no such platform"},
      {failure + "busy</ErrorMessage><ErrorCode>12</ErrorCode></Quarry>", "3112 busy"},
      {failure + "odd</ErrorMessage><ErrorCode>abc</ErrorCode></Quarry>",
       "3014 odd: Unparseable error code \"abc\" sent by CM."},
      {failure + "</ErrorMessage><ErrorCode>0</ErrorCode></Quarry>",
       "3014 request failed: Unparseable error code \"0\" sent by CM."},
      {"<Other><Status>Success</Status></Other>", "3003 Response does not have <Quarry> tag"},
      {"<?xml version=\"1.0\"?><Quarry><Status>Success</Quarry>",
       "3004 XML parser threw exception: Mismatch tags (XML is '<?xml"}};
  XMLTree reply;
  for (const auto& c : cases) {
    cm.reconfigure({"body", c.body});
    EXPECT_FALSE(connection.sendHTTPMessage("agent_list.xml", reply, nullptr));
    EXPECT_EQ(error(connection).substr(0, c.error.size()), c.error);
    EXPECT_EQ(connection.gotErrFromCM(), c.body.rfind(failure, 0) == 0) << c.error;
  }
}

TEST(ClusterManagerConnection, HTTPErrorsAreRetriedWithEqualPauses) {
  FakeCM cm;
  cm.start("127.0.0.1", {"500"});
  qysec::SSLProvider provider(false);
  CMC connection(300, 4, true), twice(10, 2, true), once(10, 5, false);
  EXPECT_FALSE(connection.connect(cm.hostPort(), 0, &provider, 10));
  EXPECT_EQ(error(connection), "3010 Sending HTTP command failed with curl error(0): HTTP code 500");
  const auto requests = cm.requests();
  ASSERT_EQ(requests.size(), 4u);
  for (size_t i = 1; i < requests.size(); ++i) {
    const double gapMs = (requests[i].time - requests[i - 1].time) * 1000;
    EXPECT_TRUE(gapMs >= 290 && gapMs < 750) << gapMs;  // a growing pause reaches 900 by now
  }

  cm.reconfigure({"401"});
  EXPECT_FALSE(twice.connect(cm.hostPort(), 0, &provider, 10));
  EXPECT_EQ(error(twice), "3007 Invalid password for user 'brisk'");
  EXPECT_FALSE(once.connect(cm.hostPort(), 0, &provider, 10));
  EXPECT_EQ(cm.requests().size(), 4u + 2u + 1u);
}

TEST(ClusterManagerConnection, RefusedConnectionsBackOff) {
  const std::string refusing = "127.0.0.1:" + std::to_string(FakeDaemon::unusedPort());
  qysec::SSLProvider provider(false);
  CMC refused(100, 3, true);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(refused.connect(refusing, 0, &provider, 10));
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_EQ(error(refused), "3009 Unable to connect to CM: '127.0.0.1'");
  EXPECT_TRUE(elapsed.count() >= 200 + 300 - 10 && elapsed.count() < 5000) << elapsed.count();
  EXPECT_NE(statistics(refused).find("(including retries): 3\n"), std::string::npos);
  EXPECT_NE(statistics(refused).find("CURL codes:\n\t7\t3\n\tTotal:\t3\n"), std::string::npos);
}

TEST(ClusterManagerConnection, UnresolvableHostFailsAtOnce) {
  qysec::SSLProvider provider(false);
  CMC secured(100, 6, true), plain(100, 6, true);
  EXPECT_FALSE(secured.connect(HC_UNRESOLVABLE_HOST, 8031, &provider, 10));
  EXPECT_EQ(error(secured), "3006 Couldn't resolve CM host: '" HC_UNRESOLVABLE_HOST "'");
  EXPECT_NE(statistics(secured).find("(including retries): 1\n"), std::string::npos);
  EXPECT_FALSE(plain.connect(HC_UNRESOLVABLE_HOST ":80", 8031, nullptr, 10));
  EXPECT_EQ(error(plain), "3006 Couldn't resolve CM host: '" HC_UNRESOLVABLE_HOST "'");
  EXPECT_NE(statistics(plain).find("(including retries): 0\n"), std::string::npos);
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
