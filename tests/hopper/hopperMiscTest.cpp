#include "hopper/hopperMisc.h"

#include <gtest/gtest.h>

#include "hopper/uploadMisc.h"
#include "support/FakeDaemon.h"
#include "support/Thrown.h"

// A silent daemon times the handshake out; the head search drops unusable hosts.
TEST(hopperMiscTest, HandshakeTimeOutsAndHeadSearch) {
  const std::string unreachable = "127.0.0.1:" + std::to_string(FakeDaemon::unusedPort());
  FakeDaemon silent("127.0.0.2"), mismatched("127.0.0.3"), oldDaemon("127.0.0.4");
  FakeDaemon::Script script;
  script.replyDelayMs = 400;
  silent.setScript(script);
  TCPStream stream;
  const int port = silent.port();
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { connectToHopperNew(stream, "127.0.0.2", port, 100); }),
            "Handshake timed out.");
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { connectToHopperOld(stream, "127.0.0.2", port, 100); }),
            "Handshake timed out for getting server version.");
  script = FakeDaemon::Script();
  script.version = 3;
  mismatched.setScript(script);
  script.version = 4;
  script.newHandshakeReply = "unknown request";
  oldDaemon.setScript(script);
  NodeSet nodes = {oldDaemon.hostId(), mismatched.hostId(), unreachable};
  BadNodeList bad;
  ASSERT_TRUE(findGoodNode(nodes, bad, true));
  EXPECT_EQ(nodes, NodeSet{oldDaemon.hostId()});
  EXPECT_EQ(bad, (BadNodeList{{unreachable, 0}, {mismatched.hostId(), 1}}));
  // The new request is refused, so the host is asked again the old way.
  EXPECT_EQ(oldDaemon.allCodes(), (std::vector<int>{0x5533303f, 0x55333037}));
}
