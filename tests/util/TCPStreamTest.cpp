#include "util/TCPStream.h"

#include <gtest/gtest.h>

#include <cerrno>

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

  p.client->close();
  EXPECT_THROW(p.server->get(), std::ios_base::failure);
}

TEST(TCPStreamTest, ChecksummedBlocks) {
  StreamPair p;
  int mismatches = 0;
  p.client->setCRCMode([&] { ++mismatches; });
  p.client->write("abc", 3).flush();
  const unsigned crc = CRC::crc32c(reinterpret_cast<const unsigned char*>("abc"), 3, 0);
  EXPECT_EQ(readN(*p.server, 11), WireBytes().i32(3).i32(static_cast<int>(crc)).raw("abc").bytes());

  p.server->setCRCMode([&] { ++mismatches; });
  const std::string bulk = TempDir::pattern(50000);
  p.client->write(bulk.data(), static_cast<std::streamsize>(bulk.size())).flush();
  EXPECT_EQ(readN(*p.server, bulk.size()), bulk);
  EXPECT_EQ(mismatches, 0);
  const std::string corrupt = WireBytes().i32(2).i32(0).raw("xy");
  p.client->socket().write(corrupt.data(), static_cast<int>(corrupt.size()));
  EXPECT_EQ(readN(*p.server, 2), "xy");
  EXPECT_EQ(mismatches, 1);
  EXPECT_TRUE(p.server->crcMismatch());
}

TEST(TCPStreamTest, TimedOutReadRaisesAndSettingsSurviveReconnect) {
  TCPSocket listener;
  listener.listen("127.0.0.1", 0);
  TCPStream stream;
  int stalls = 0;
  stream.socket().setReadTimeout(50);
  stream.socket().setStallHandler([&] { return ++stalls < 0; });
  for (int round = 1; round <= 2; ++round) {  // connect() reuses the socket object
    stream.connect("127.0.0.1", listener.getListenerPort(), 2000);
    EXPECT_THROW(stream.get(), std::ios_base::failure);
    EXPECT_EQ(stream.socket().getLastError(), ETIMEDOUT);
    EXPECT_EQ(stalls, round);
  }
}
