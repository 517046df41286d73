#include "util/TCPSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "support/FakeDaemon.h"
#include "support/TempDir.h"
#include "support/Thrown.h"
#include "util/StringUtilities.h"
#include "util/System.h"

namespace {

// A connected loopback pair: client and the server end accepted for it.
struct SocketPair {
  TCPSocket listener, client;
  std::unique_ptr<TCPSocket> server;
  SocketPair() {
    listener.listen("127.0.0.1", 0);
    client.connect("127.0.0.1", listener.getListenerPort(), 2000);
    server = listener.accept(2000);
  }
};

// Shuts the socket down after limitMs, so that a wait the socket fails to end
// cannot hang the test (it then fails with another error than expected).
struct Watchdog {
  Watchdog(TCPSocket& socket, int limitMs)
      : mThread([this, &socket, limitMs] {
          for (int waited = 0; waited < limitMs && !mDone; waited += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
          if (!mDone) socket.shutdown();
        }) {}
  ~Watchdog() {
    mDone = true;
    mThread.join();
  }
  std::atomic<bool> mDone{false};
  std::thread mThread;
};

}  // namespace

TEST(TCPSocketTest, ConnectTalkAndPeerClose) {
  SocketPair p;
  char buffer[8] = {0};
  EXPECT_EQ(p.client.write("hello", 5), 5);
  EXPECT_EQ(p.server->read(buffer, sizeof buffer), 5);
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] { p.client.connect("127.0.0.1", 1, 2000); }),
            "socket already open");
  EXPECT_TRUE(p.client.isGood());
  p.server->close();
  EXPECT_FALSE(p.client.isGood());
  EXPECT_TRUE(p.client.isConnected());
  EXPECT_EQ(p.client.read(buffer, 1), 0);

  TCPSocket s;
  EXPECT_EQ(thrownMessage<TCPSocket::exception>(
                [&] { s.connect("127.0.0.1", FakeDaemon::unusedPort(), 2000); }),
            "couldn't connect to server:  " + System::errorText(ECONNREFUSED));
  EXPECT_FALSE(s.isConnected());
}

// A peer taking at most 32 KiB per 10 ms needs over 4 s for 20 MiB, far
// past the time-out, yet the write never times out.
TEST(TCPSocketTest, WriteTimeoutCountsOnlyTimeWithoutProgress) {
  SocketPair slow;
  Watchdog slowWatchdog(slow.client, 20000);
  slow.server->setReadTimeout(10000);
  std::thread reader([&] {
    std::vector<char> buffer(32 << 10);
    for (int i = 0; i < 100000 && slow.server->read(buffer.data(), int(buffer.size())) > 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  slow.client.setWriteTimeout(1500);
  const std::string data(20 << 20, 'y');
  EXPECT_EQ(slow.client.write(data.data(), int(data.size())), int(data.size()));
  slow.client.close();
  reader.join();
}

TEST(TCPSocketTest, StallHandlerEndsReads) {
  SocketPair p;
  char byte;
  int stalls = 0;
  p.client.setStallHandler([&] { return ++stalls == 1; });  // one more time-out, then fail
  p.client.setReadTimeout(100);
  EXPECT_EQ(p.client.read(&byte, 1), -1);
  EXPECT_EQ(p.client.getLastError(), ETIMEDOUT);
  EXPECT_EQ(stalls, 2);
}

// Each block arrives whole and in order from the offset, though sendfile
// comes back short; the file's position stays.
TEST(TCPSocketTest, SendFileContinuesShortTransfers) {
  TempDir dir;
  const std::string content = TempDir::pattern(1 << 20);
  TempDir::write(dir.file("f"), content);
  System::FileDescriptor file = System::openForRead(dir.file("f"));
  int fds[2];
  const int small = 4096;  // more than 64 KiB never fits at once
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  ASSERT_EQ(setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  TCPSocket client(fds[0]), server(fds[1]);
  Watchdog watchdog(client, 20000);
  client.setWriteTimeout(5000);
  const size_t count = content.size() - 2000;
  std::string received;
  std::thread reader([&] {
    std::vector<char> buffer(4096);
    for (int n; received.size() < count && (n = server.read(buffer.data(), 4096)) > 0;) {
      received.append(buffer.data(), size_t(n));
    }
  });
  std::vector<int> blocks;
  EXPECT_TRUE(client.sendFile(file.get(), 1000, count, 100000, [&](int n) {
    blocks.push_back(n);
    return true;
  }));
  reader.join();
  EXPECT_TRUE(received == content.substr(1000, count));
  std::vector<int> expected(count / 100000, 100000);
  expected.push_back(int(count % 100000));
  EXPECT_EQ(blocks, expected);
  EXPECT_EQ(System::seek(file.get(), 0, SEEK_CUR), 0);
}
