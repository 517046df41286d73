// Handshake time-outs, and the head search dropping unusable hosts.
#include "hopper/hopperMisc.h"

#include <gtest/gtest.h>

#include "hopper/uploadMisc.h"
#include "support/FakeDaemon.h"
#include "support/Thrown.h"

TEST(hopperMiscTest, HandshakesTimeOut) {
  FakeDaemon daemon("127.0.0.2");
  FakeDaemon::Script script;
  script.replyDelayMs = 400;
  daemon.setScript(script);
  TCPStream stream;
  const int port = daemon.port();
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { connectToHopperNew(stream, "127.0.0.2", port, 100); }),
            "Handshake timed out.");
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { connectToHopperOld(stream, "127.0.0.2", port, 100); }),
            "Handshake timed out for getting server version.");
}

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
  EXPECT_EQ(nodes, NodeSet{oldDaemon.hostId()});
  EXPECT_EQ(bad, (BadNodeList{{unreachable, 0}, {mismatched.hostId(), 1}}));
  // The new request is refused, so the host is asked again the old way.
  EXPECT_EQ(oldDaemon.allCodes(), (std::vector<int>{0x5533303f, 0x55333037}));
}
