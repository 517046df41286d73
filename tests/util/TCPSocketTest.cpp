// TCPSocket on loopback: connecting, talking, time-outs, stalls, cancel
// flags and deadlines, sendfile, and the ownership of its descriptor.
#include "util/TCPSocket.h"

#include <fcntl.h>
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
  explicit SocketPair(const std::string& address = "127.0.0.1") {
    listener.listen(address, 0);
    client.connect(address, listener.getListenerPort(), 2000);
    server = listener.accept(2000);
  }
};

// Shuts the socket down after limitMs unless its wait ended first, so that
// a wait the socket fails to end cannot hang the test (it then fails with
// another error than the one expected).
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

// Writes 1 MiB chunks, at most 64 MiB, to a peer that does not read; true
// when a write fell short.
bool writeUntilFailure(TCPSocket& socket) {
  const std::string chunk(1 << 20, 'x');
  for (int i = 0; i < 64; ++i) {
    if (socket.write(chunk.data(), int(chunk.size())) != int(chunk.size())) return true;
  }
  return false;
}

int openDescriptors() {
  std::vector<std::string> names;
  EXPECT_TRUE(System::readDirectory("/proc/self/fd", names));
  return static_cast<int>(names.size());
}

}  // namespace

TEST(TCPSocketTest, ListenAcceptConnectAndTalk) {
  SocketPair p("127.0.0.3");
  TCPSocket& client = p.client;
  std::unique_ptr<TCPSocket>& server = p.server;
  ASSERT_TRUE(server);
  EXPECT_EQ(p.listener.accept(20), nullptr);  // nobody else is connecting
  EXPECT_EQ(server->getRemoteHost(), "127.0.0.1");
  EXPECT_EQ(server->getRemotePort(), client.getListenerPort());
  EXPECT_EQ(client.getRemoteHost(), "127.0.0.3");
  EXPECT_TRUE(server->setKeepAlive(true));
  char buffer[8] = {0};
  EXPECT_EQ(client.write("hello", 5), 5);
  EXPECT_EQ(server->read(buffer, sizeof buffer), 5);
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(server->getReadBytes(), 5);
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] { client.connect("127.0.0.3", 1, 2000); }),
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


TEST(TCPSocketTest, WriteTimeoutCountsOnlyTimeWithoutProgress) {
  SocketPair stalled;
  Watchdog watchdog(stalled.client, 10000);
  stalled.client.setWriteTimeout(200);
  EXPECT_TRUE(writeUntilFailure(stalled.client));
  EXPECT_EQ(stalled.client.getLastError(), ETIMEDOUT);

  // A peer that keeps taking bytes, if slowly, never lets the write time
  // out, however long the whole write takes.
  SocketPair slow;
  Watchdog slowWatchdog(slow.client, 20000);
  slow.server->setReadTimeout(10000);
  std::thread reader([&] {
    std::vector<char> buffer(32 << 10);
    for (int i = 0; i < 100000 && slow.server->read(buffer.data(), int(buffer.size())) > 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  // The reader takes at most 32 KiB per 10 ms, so 20 MiB (less what the
  // socket buffers hold at the end) take over 4 s, far past the time-out,
  // which leaves a loaded machine room to schedule the reader.
  slow.client.setWriteTimeout(1500);
  const std::string data(20 << 20, 'y');
  EXPECT_EQ(slow.client.write(data.data(), int(data.size())), int(data.size()));
  slow.client.close();
  reader.join();
}

TEST(TCPSocketTest, StallHandlerAndDeadlineEndReads) {
  SocketPair p;
  char byte;
  int stalls = 0;
  p.client.setStallHandler([&] { return ++stalls == 1; });  // one more time-out, then fail
  p.client.setReadTimeout(100);
  EXPECT_EQ(p.client.read(&byte, 1), -1);
  EXPECT_EQ(p.client.getLastError(), ETIMEDOUT);
  EXPECT_EQ(stalls, 2);

  // The deadline comes first and does not count as a stall.
  stalls = 0;
  p.client.setReadTimeout(5000);
  p.client.setDeadline(Ticks::currentTime() + Ticks(200000000));
  EXPECT_EQ(p.client.read(&byte, 1), -1);
  EXPECT_EQ(p.client.getLastError(), ETIMEDOUT);
  EXPECT_EQ(stalls, 0);
  EXPECT_FALSE(p.client.isReadable(5000));
  EXPECT_EQ(p.client.getLastError(), ETIMEDOUT);
}

TEST(TCPSocketTest, CancelFlagEndsBlockedReadAndWrite) {
  SocketPair p;
  Watchdog watchdog(p.client, 10000);
  std::atomic<bool> cancel{false};
  p.client.setCancelFlag(&cancel);
  for (bool writing : {false, true}) {
    cancel = false;
    std::thread canceller([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      cancel = true;
    });
    char byte;
    if (writing) {
      EXPECT_TRUE(writeUntilFailure(p.client));
    } else {
      EXPECT_EQ(p.client.read(&byte, 1), -1);
    }
    canceller.join();
    EXPECT_EQ(p.client.getLastError(), ECANCELED) << writing;
  }
}

TEST(TCPSocketTest, ConnectFailsWhenRefusedCancelledOrPastTheDeadline) {
  TCPSocket refused;
  const int unused = FakeDaemon::unusedPort();
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] { refused.connect("127.0.0.1", unused, 2000); }),
            "couldn't connect to server:  " + System::errorText(ECONNREFUSED));
  EXPECT_FALSE(refused.isConnected());
  EXPECT_EQ(TCPSocket::getHostIP("127.0.0.9"), "127.0.0.9");
  EXPECT_EQ(TCPSocket::getHostIP("localhost"), "127.0.0.1");
  TCPSocket listener, s;
  listener.listen("127.0.0.1", 0);
  const int port = listener.getListenerPort();
  std::atomic<bool> cancel{true};
  s.setCancelFlag(&cancel);
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] { s.connect("127.0.0.1", port, 2000); }),
            "couldn't connect to server: cancelled");
  cancel = false;
  s.setDeadline(Ticks::currentTime());
  EXPECT_EQ(thrownMessage<TCPSocket::exception>([&] { s.connect("127.0.0.1", port, 2000); }),
            "couldn't connect to server: timed out");
  EXPECT_EQ(s.getLastError(), ETIMEDOUT);
  s.setDeadline(Ticks());
  s.connect("127.0.0.1", port, 2000);
  EXPECT_TRUE(s.isConnected());
}

// Each block arrives whole and in order from the offset, though the peer
// reads late and sendfile comes back short; the file's position stays. Once
// the peer stops reading, the deadline ends the send.
TEST(TCPSocketTest, SendFileContinuesShortTransfersUntilItsDeadline) {
  TempDir dir;
  const std::string content = TempDir::pattern(1 << 20);
  TempDir::write(dir.file("f"), content);
  System::FileDescriptor file = System::openForRead(dir.file("f"));
  // A small send buffer: more than 64 KiB never fits at once, and a blocking
  // send of that much would wait inside sendfile.
  int fds[2];
  const int small = 4096;
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  ASSERT_EQ(setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  TCPSocket client(fds[0]), server(fds[1]);
  Watchdog watchdog(client, 20000);
  client.setWriteTimeout(5000);
  const size_t count = content.size() - 2000;
  std::string received;
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
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

  // No write time-out: only the deadline gives ETIMEDOUT (the watchdog's
  // shutdown gives another error).
  client.setWriteTimeout(-1);
  client.setDeadline(Ticks::currentTime() + Ticks(300000000));
  EXPECT_FALSE(client.sendFile(file.get(), 0, count, 1 << 20, nullptr));
  EXPECT_EQ(client.getLastError(), ETIMEDOUT);
}

// A socket owns one descriptor at a time: failed calls give it back, a
// second close never reaches a descriptor that took the old number, and a
// duplicate carries the connection on its own.
TEST(TCPSocketTest, DescriptorOwnership) {
  const int before = openDescriptors();
  {
    SocketPair p;
    TCPSocket &client = p.client, taken, refused;
    std::unique_ptr<TCPSocket>& server = p.server;
    EXPECT_THROW(taken.listen("127.0.0.1", p.listener.getListenerPort()), TCPSocket::exception);
    EXPECT_FALSE(taken.isConnected());
    EXPECT_THROW(refused.connect("127.0.0.1", FakeDaemon::unusedPort(), 2000),
                 TCPSocket::exception);
    ASSERT_TRUE(server);
    std::unique_ptr<TCPSocket> copy = server->duplicate();
    ASSERT_TRUE(copy);
    server->close();
    EXPECT_EQ(server->duplicate(), nullptr);
    System::FileDescriptor later = System::openForRead("/dev/null");  // may reuse the number
    server->close();
    server.reset();
    EXPECT_NE(fcntl(later.get(), F_GETFD), -1);

    char buffer[4] = {0};
    client.setReadTimeout(2000);
    EXPECT_EQ(copy->write("d", 1), 1);
    EXPECT_EQ(client.read(buffer, sizeof buffer), 1);
    copy.reset();
    EXPECT_EQ(client.read(buffer, sizeof buffer), 0);  // the last descriptor closed
  }
  EXPECT_EQ(openDescriptors(), before);
}
