#include "hopper/hopperMisc.h"

#include <gtest/gtest.h>

#include "support/FakeDaemon.h"
#include "support/Thrown.h"

TEST(hopperMiscTest, Handshakes) {
  FakeDaemon daemon("127.0.0.2");
  FakeDaemon::Script script;
  script.version = 4;
  daemon.setScriptFor(1, script);
  script.newHandshakeReply = "WHAT?";
  daemon.setScriptFor(2, script);
  TCPStream stream;
  EXPECT_EQ(connectToHopperNew(stream, "127.0.0.2", daemon.port(), 2000), 5);
  EXPECT_EQ(connectToHopperNew(stream, "127.0.0.2", daemon.port(), 2000), 4);
  EXPECT_EQ(connectToHopperNew(stream, "127.0.0.2", daemon.port(), 2000), -1);
  EXPECT_FALSE(stream.isConnected());
  EXPECT_EQ(connectToHopperOld(stream, "127.0.0.2", daemon.port(), 2000), 5);
  ASSERT_TRUE(daemon.waitForClosedConnections(3, 5000));
  // The old request is the bare code (the new one's bytes open every upload).
  EXPECT_EQ(daemon.connection(3).received, WireBytes().i32(0x55333037).bytes());

  script = FakeDaemon::Script();
  script.replyDelayMs = 400;
  daemon.setScript(script);
  const int port = daemon.port();
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { connectToHopperNew(stream, "127.0.0.2", port, 100); }),
            "Handshake timed out.");
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { connectToHopperOld(stream, "127.0.0.2", port, 100); }),
            "Handshake timed out for getting server version.");
}
