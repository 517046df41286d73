#include "hopper/clientutil.h"

#include <gtest/gtest.h>

#include "ssl/QYSSL.h"
#include "support/FakeCM.h"

using Hosts = std::map<std::string, std::string>;

// The queries themselves are checked end to end; here a CM that refuses the
// list is reported with its own message and leaves the map alone.
TEST(PopulateNodeMap, ARefusedListIsReportedAndChangesNothing) {
  FakeCM cm;
  FakeCM::Options options;
  options.agentMode = "body";  // the handshake succeeds, the agent list fails
  options.body = "<Quarry><Status>Failure</Status><ErrorMessage>unknown%20platform</ErrorMessage>"
                 "<ErrorCode>7</ErrorCode></Quarry>";
  cm.start("127.0.0.1", options);
  qysec::SSLProvider provider(false);
  Hosts hosts = {{"h1", "10.0.0.1"}};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(populateNodeMap(cm.hostPort(), System::OS_LINUX, hosts, true, &provider));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error while requesting the host list from CM: unknown platform\n");
  EXPECT_EQ(hosts, (Hosts{{"h1", "10.0.0.1"}}));
}
