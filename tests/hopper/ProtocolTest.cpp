#include "hopper/Protocol.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "support/FakeDaemon.h"

namespace {

// A stream whose peer has already sent bytes and closed its side.
std::unique_ptr<TCPStream> peer(const std::string& bytes) {
  int fds[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  EXPECT_EQ(::write(fds[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
  ::close(fds[1]);
  return std::make_unique<TCPStream>(std::make_unique<TCPSocket>(fds[0]));
}

}  // namespace

TEST(ProtocolTest, ChecksEveryLengthAndSizeBeforeUsingIt) {
  uint32_t crc = 0;
  // Items out of bounds: a reader that trusted them would wait, allocate or
  // write outside the file.
  using Reader = std::function<void(TCPStream&)>;
  const Reader fileInfo = [](TCPStream& in) { Protocol::readFileInfo(in); };
  const Reader block = [&crc](TCPStream& in) { Protocol::readBlockHeader(in, 100, crc); };
  const std::pair<std::string, Reader> hostile[] = {
      {WireBytes().i64(-1).str("f").str("/x").i32(0), fileInfo},
      {WireBytes().i64(kMaxFileSize + 1).str("f").str("/x").i32(0), fileInfo},
      {WireBytes().i32(-1), [](TCPStream& in) { Protocol::readString(in); }},
      {WireBytes().i32(100001), [](TCPStream& in) {
         std::vector<std::string> hosts;
         bool stop;
         Protocol::readBegin(in, hosts, stop);
       }},
      {WireBytes().i32(0).i32(0), block},
      {WireBytes().i32(101).i32(0), block},  // past the part's rest
      {WireBytes().i32(kMaxRelayBlock + 1).i32(0),
       [&crc](TCPStream& in) { Protocol::readBlockHeader(in, int64_t(1) << 30, crc); }},
      {WireBytes().i64(0).i64(5).i32(1), [](TCPStream& in) { Protocol::readFileCheck(in); }},
      {WireBytes().i32(99), [](TCPStream& in) { Protocol::readRelayReply(in, "h2"); }}};
  for (const auto& [bytes, read] : hostile) {
    EXPECT_THROW(read(*peer(bytes)), Wire::LimitError) << bytes.size();
  }
}

TEST(ProtocolTest, RepliesStayWithinTheirBounds) {
  std::string lines;
  Protocol::appendLines(lines, "h1: short\n" + std::string(5000, 'p'));
  ASSERT_EQ(lines.find('\n'), 9u);
  EXPECT_EQ(lines.size() - 10, kMaxReplyLine);
  EXPECT_EQ(lines.substr(lines.size() - 6), " [cut]");
  for (int i = 0; i < 100; ++i) Protocol::appendLines(lines, std::string(kMaxReplyLine, 'x'));
  EXPECT_LE(lines.size(), kMaxReplyText);
  EXPECT_EQ(lines.substr(lines.size() - 24), "(further errors omitted)");
  // A downstream reply over the bound is read past, and the next item follows.
  auto big = peer(WireBytes().str(std::string(kMaxReplyText + 1, 'r')).i32(7));
  EXPECT_EQ(Protocol::readReply(*big, "h2"),
            "h2: reply of 65537 bytes exceeds the limit of 65536 and was dropped");
  int next = 0;
  *big >> next;
  EXPECT_EQ(next, 7);
}
