#include "hopper/hopperMisc.h"

#include <gtest/gtest.h>

#include <regex>

#include "support/FakeDaemon.h"

TEST(hopperMiscTest, VersionText) {
  const std::string text = getVersionString();
  EXPECT_TRUE(std::regex_search(text, std::regex("^\\d+\\.\\d+\\.\\d+\\.\\d+, build build_\\d+\\.\\d+_"
                                                 "\\d+_OPT_\\d{4}\\.\\d\\d\\.\\d\\d_\\d\\d:\\d\\d:"
                                                 "\\d\\d, protocol 5\n.")))
      << text;
}

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
  EXPECT_EQ(daemon.connection(0).received,
            WireBytes().i32(0x5533303f).i32(5).str(getVersionString()).bytes());
  EXPECT_EQ(daemon.connection(3).received, WireBytes().i32(0x55333037).bytes());

  script = FakeDaemon::Script();
  script.replyDelayMs = 400;
  daemon.setScript(script);
  const auto timeOut = [&](auto handshake) -> std::string {
    try {
      handshake(stream, "127.0.0.2", daemon.port(), 100);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "answered";
  };
  EXPECT_EQ(timeOut(connectToHopperNew), "Handshake timed out.");
  EXPECT_EQ(timeOut(connectToHopperOld), "Handshake timed out for getting server version.");
}
