#include "util/TCPSocket.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/FakeDaemon.h"
#include "support/Thrown.h"
#include "util/StringUtilities.h"

TEST(TCPSocketTest, ListenAcceptConnectAndTalk) {
  TCPSocket listener;
  listener.listen("127.0.0.3", 0);
  EXPECT_EQ(listener.accept(20), nullptr);  // nobody is connecting yet
  TCPSocket client;
  client.connect("127.0.0.3", listener.getListenerPort(), 2000);
  std::unique_ptr<TCPSocket> server = listener.accept(2000);
  ASSERT_TRUE(server);
  EXPECT_EQ(server->getRemoteHost(), "127.0.0.1");
  EXPECT_EQ(server->getRemotePort(), client.getListenerPort());
  EXPECT_EQ(client.getRemoteHost(), "127.0.0.3");
  EXPECT_TRUE(server->setKeepAlive(true));
  char buffer[8] = {0};
  EXPECT_EQ(client.write("hello", 5), 5);
  EXPECT_EQ(server->read(buffer, sizeof buffer), 5);
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(server->getReadBytes(), 5);
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] {
              client.connect("127.0.0.3", listener.getListenerPort(), 2000);
            }),
            "socket already open");

  client.setReadTimeout(50);
  EXPECT_EQ(client.read(buffer, 1), -1);
  EXPECT_EQ(client.getLastError(), ETIMEDOUT);
  EXPECT_TRUE(client.isGood());
  server->close();
  EXPECT_FALSE(client.isGood());
  EXPECT_TRUE(client.isConnected());
  EXPECT_EQ(client.read(buffer, 1), 0);
}

TEST(TCPSocketTest, ConnectFailures) {
  TCPSocket refused;
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] {
              refused.connect("127.0.0.1", FakeDaemon::unusedPort(), 2000);
            }),
            "couldn't connect to server:  " + System::errorText(ECONNREFUSED));
  EXPECT_FALSE(refused.isConnected());
  EXPECT_EQ(TCPSocket::getHostIP("127.0.0.9"), "127.0.0.9");
  EXPECT_EQ(TCPSocket::getHostIP("localhost"), "127.0.0.1");
}
