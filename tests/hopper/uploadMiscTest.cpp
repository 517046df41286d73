#include "hopper/uploadMisc.h"

#include <gtest/gtest.h>

#include "support/FakeDaemon.h"

TEST(uploadMiscTest, FindGoodNodeDropsUnreachableAndMismatchedHosts) {
  const std::string unreachable = "127.0.0.1:" + std::to_string(FakeDaemon::unusedPort());
  FakeDaemon mismatched("127.0.0.2"), oldDaemon("127.0.0.3");
  FakeDaemon::Script script;
  script.version = 3;
  mismatched.setScript(script);
  script.version = 4;
  script.newHandshakeReply = "unknown request";
  oldDaemon.setScript(script);

  NodeSet nodes = {oldDaemon.hostId(), mismatched.hostId(), unreachable};
  BadNodeList bad;
  std::unique_ptr<TCPStream> stream = findGoodNode(nodes, bad, true);
  ASSERT_TRUE(stream);
  EXPECT_TRUE(stream->isConnected());
  EXPECT_EQ(nodes, NodeSet{oldDaemon.hostId()});
  EXPECT_EQ(bad, (BadNodeList{{unreachable, 0}, {mismatched.hostId(), 1}}));
  // The new request is refused, so the host is asked again the old way.
  EXPECT_EQ(oldDaemon.allCodes(), (std::vector<int>{0x5533303f, 0x55333037}));
  EXPECT_EQ(oldDaemon.connectionCount(), 2);

  NodeSet lone = {unreachable};
  bad.clear();
  EXPECT_EQ(findGoodNode(lone, bad, false), nullptr);
  EXPECT_TRUE(lone.empty());
  EXPECT_EQ(bad, (BadNodeList{{unreachable, 0}}));
}
