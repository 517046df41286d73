#include "util/TCPStream.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "support/FakeDaemon.h"
#include "support/TempDir.h"
#include "util/CRC.h"

namespace {

// A client stream and the server stream it is connected to.
struct StreamPair {
  TCPSocket listener;
  std::unique_ptr<TCPStream> client, server;
  StreamPair() {
    listener.listen("127.0.0.1", 0);
    client = std::make_unique<TCPStream>("127.0.0.1", listener.getListenerPort(), 2000, 5000);
    server = std::make_unique<TCPStream>(listener.accept(2000));
    server->socket().setReadTimeout(5000);
  }
};

std::string readN(std::istream& in, size_t n) {
  std::string s(n, '\0');
  in.read(&s[0], static_cast<std::streamsize>(n));
  return s;
}

}  // namespace

TEST(TCPStreamTest, BulkAndSmallWritesKeepOrderAndLossRaises) {
  StreamPair p;
  const std::string bulk = TempDir::pattern(100000);
  p.client->write("ab", 2);
  p.client->write(bulk.data(), static_cast<std::streamsize>(bulk.size()));
  p.client->write("cd", 2);
  p.client->flush();
  EXPECT_EQ(readN(*p.server, 2), "ab");
  EXPECT_EQ(readN(*p.server, bulk.size()), bulk);
  p.server->unget();  // the put-back area survives a bulk read
  EXPECT_EQ(p.server->get(), static_cast<unsigned char>(bulk.back()));
  EXPECT_EQ(readN(*p.server, 2), "cd");

  // Queued bytes and a bulk write far larger than the socket buffers go out
  // in order through partial sends.
  StreamPair q;
  q.server->streamBuf().setInputBufferSize(65544);
  q.client->socket().setWriteTimeout(5000);  // sends what fits, then waits
  const std::string large = TempDir::pattern(8 << 20);
  std::thread writer([&] {
    q.client->write("xy", 2);
    q.client->write(large.data(), static_cast<std::streamsize>(large.size()));
    q.client->flush();
  });
  EXPECT_EQ(readN(*q.server, 3), "xy" + large.substr(0, 1));
  EXPECT_TRUE(readN(*q.server, large.size() - 1) == large.substr(1));
  writer.join();

  p.client->close();
  EXPECT_THROW(p.server->get(), LinkLost);
}

TEST(TCPStreamTest, ChecksummedBlocks) {
  StreamPair p;
  int mismatches = 0;
  p.client->setCRCMode([&] { ++mismatches; });
  p.client->write("abc", 3).flush();
  const unsigned crc = CRC::crc32c(reinterpret_cast<const unsigned char*>("abc"), 3, 0);
  EXPECT_EQ(readN(*p.server, 11), WireBytes().i32(3).i32(static_cast<int>(crc)).raw("abc").bytes());
  p.server->setCRCMode([&] { ++mismatches; });
  const std::string corrupt = WireBytes().i32(2).i32(0).raw("xy");
  p.client->socket().write(corrupt.data(), static_cast<int>(corrupt.size()));
  EXPECT_EQ(readN(*p.server, 2), "xy");
  EXPECT_EQ(mismatches, 1);
  EXPECT_TRUE(p.server->crcMismatch());
}

// File bytes follow the items queued before them; a lost connection raises
// like a write, without a SIGPIPE reaching the process.
TEST(TCPStreamTest, SendFileAfterQueuedItems) {
  StreamPair p;
  TempDir dir;
  TempDir::write(dir.file("f"), "filebytes");
  System::FileDescriptor file = System::openForRead(dir.file("f"));
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  System::FileDescriptor pipeIn(fds[0]), pipeOut(fds[1]);
  ASSERT_TRUE(System::writeAll(pipeOut.get(), "abc", 3));
  const auto send = [&](int fd, int64_t offset, int64_t count) {
    return p.client->sendFile(fd, offset, count, 32768, nullptr);
  };
  p.client->write("ab", 2);
  EXPECT_EQ(send(file.get(), 4, 5), TCPStream::FileSend::kDone);
  EXPECT_EQ(send(pipeIn.get(), 0, 3), TCPStream::FileSend::kUnavailable);
  EXPECT_EQ(send(file.get(), 0, 10), TCPStream::FileSend::kFileEnded);
  EXPECT_EQ(readN(*p.server, 16), "abbytesfilebytes");
  p.client->socket().shutdown();
  EXPECT_THROW(send(file.get(), 0, 9), LinkLost);
  sigset_t pending, mask;
  ASSERT_EQ(sigpending(&pending), 0);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE) || sigismember(&mask, SIGPIPE));
}
