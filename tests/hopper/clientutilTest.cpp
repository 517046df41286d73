#include "hopper/clientutil.h"

#include <gtest/gtest.h>

#include "ssl/QYSSL.h"
#include "support/FakeCM.h"

using Hosts = std::map<std::string, std::string>;

// How the agent list overlays the map is checked by the agents fuzz target's
// corpus; here the queries sent and the report of a refused list.
TEST(PopulateNodeMap, QueriesTheAgentListAndReportsARefusal) {
  FakeCM cm;
  FakeCM::Options options;
  options.agents = {{"h1", "10.0.0.1"}};
  cm.start("127.0.0.1", options);
  qysec::SSLProvider provider(false);
  Hosts hosts;
  EXPECT_TRUE(populateNodeMap(cm.hostPort(), System::OS_LINUX, hosts, false, &provider));
  EXPECT_EQ(hosts, (Hosts{{"h1", "10.0.0.1"}}));
  EXPECT_TRUE(populateNodeMap(cm.hostPort(), System::OS_WIN32, hosts, true, &provider));

  options.agentMode = "body";  // the handshake succeeds, the agent list fails
  options.body = "<Quarry><Status>Failure</Status><ErrorMessage>unknown%20platform</ErrorMessage>"
                 "<ErrorCode>7</ErrorCode></Quarry>";
  cm.reconfigure(options);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(populateNodeMap(cm.hostPort(), System::OS_LINUX, hosts, true, &provider));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error while requesting the host list from CM: unknown platform\n");
  EXPECT_EQ(hosts, (Hosts{{"h1", "10.0.0.1"}}));

  const auto requests = cm.requests();
  ASSERT_EQ(requests.size(), 6u);
  const std::string service = "/quarry/service/";
  EXPECT_EQ(requests[0].path, service + "handshake.xml?ProtocolVersion=6");
  EXPECT_EQ(requests[1].path, service + "agent_list.xml?ShowAll=1&Filter=agentOSID=3");
  EXPECT_EQ(requests[3].path, service + "agent_list.xml?ShowAll=1&Filter=agentOSID=1"
                                        "%20and%20agentEnabled=1%20and%20agentStatus=1");
}
