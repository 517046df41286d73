// The wire protocol unit: bounds checked before any length or size is used,
// reply texts kept within their limits, and replies read back as written.
#include "hopper/Protocol.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/FakeDaemon.h"

namespace {

// A stream whose peer has already sent bytes and closed its side.
class Peer {
 public:
  explicit Peer(const std::string& bytes) {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    EXPECT_EQ(::write(fds[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
    ::close(fds[1]);
    stream = std::make_unique<TCPStream>(std::make_unique<TCPSocket>(fds[0]));
  }
  std::unique_ptr<TCPStream> stream;
};

}  // namespace

TEST(ProtocolTest, ChecksEveryLengthAndSizeBeforeUsingIt) {
  Peer ok(WireBytes().i64(kMaxFileSize).str("f").str("/t/").i32(0100755));
  const FileInfo info = Protocol::readFileInfo(*ok.stream);
  EXPECT_EQ(info.mSize, kMaxFileSize);
  EXPECT_EQ(info.mRemotePath, "/t/");
  EXPECT_EQ(info.mMode, 0755);  // type bits masked away
  for (long size : {-1L, kMaxFileSize + 1}) {
    Peer bad(WireBytes().i64(size).str("f").str("/x").i32(0));
    EXPECT_THROW(Protocol::readFileInfo(*bad.stream), Wire::LimitError) << size;
  }
  // Only a length arrives: a reader that trusted it would wait or allocate.
  for (int length : {0x7fffffff, 65537, -1}) {
    Peer string(WireBytes().i32(length));
    EXPECT_THROW(Protocol::readString(*string.stream), Wire::LimitError) << length;
  }
  Peer hosts(WireBytes().i32(100001));
  std::vector<std::string> list;
  bool stop = false;
  EXPECT_THROW(Protocol::readBegin(*hosts.stream, list, stop), Wire::LimitError);
  // A data block fits the part's rest and the receiver's buffer.
  const std::pair<int, int64_t> badBlocks[] = {
      {0, 100}, {-1, 100}, {101, 100}, {kMaxRelayBlock + 1, int64_t(1) << 30}};
  for (const auto& bad : badBlocks) {
    Peer block(WireBytes().i32(bad.first).i32(0));
    uint32_t crc = 0;
    EXPECT_THROW(Protocol::readBlockHeader(*block.stream, bad.second, crc),
                 Wire::LimitError) << bad.first;
  }
  Peer block(WireBytes().i32(100).i32(int(0xe3069283)));
  uint32_t crc = 0;
  EXPECT_EQ(Protocol::readBlockHeader(*block.stream, 100, crc), 100);
  EXPECT_EQ(crc, 0xe3069283u);
  Peer check(WireBytes().i64(0).i64(5).i32(1));
  EXPECT_THROW(Protocol::readFileCheck(*check.stream), Wire::LimitError);
}

TEST(ProtocolTest, RepliesStayWithinTheirBounds) {
  std::string lines;
  Protocol::appendLines(lines, "h1: short\n" + std::string(5000, 'p'));
  Protocol::appendLines(lines, "");
  ASSERT_EQ(lines.find('\n'), 9u);
  EXPECT_EQ(lines.size() - 10, kMaxReplyLine);
  EXPECT_EQ(lines.substr(lines.size() - 6), " [cut]");
  for (int i = 0; i < 100; ++i) Protocol::appendLines(lines, std::string(kMaxReplyLine, 'x'));
  EXPECT_LE(lines.size(), kMaxReplyText);
  EXPECT_EQ(lines.substr(lines.size() - 24), "(further errors omitted)");
  // A downstream reply over the bound is read past, and the next item follows.
  Peer big(WireBytes().str(std::string(kMaxReplyText + 1, 'r')).i32(7));
  EXPECT_EQ(Protocol::readReply(*big.stream, "h2"),
            "h2: reply of 65537 bytes exceeds the limit of 65536 and was dropped");
  int next = 0;
  *big.stream >> next;
  EXPECT_EQ(next, 7);
}

// The replies a daemon writes come back as written through the readers the
// other end uses; a relay reply of unknown kind ends the link.
TEST(ProtocolTest, BeginAndRelayRepliesReadAsWritten) {
  auto ends = TCPSocket::pair();
  TCPStream out(std::make_unique<TCPSocket>(ends.first.release()));
  TCPStream in(std::make_unique<TCPSocket>(ends.second.release()));
  BeginResult failed;
  failed.mBad = {{"h3", 1}};
  failed.mBusy = {"h4"};
  failed.mText = "h2: trouble";
  Protocol::writeBeginReply(out, failed);
  Protocol::writeHeadBusy(out);
  Protocol::writeFileErrors(out, 7, "h2: /x: no room");
  Protocol::writeCommitReply(out, "h3: /y: not renamed", true);
  Protocol::writeAbortReply(out, true);
  Protocol::writeLastFileReply(out, LastFile{9, 4096});
  out << 99;  // no such relay reply
  out.flush();

  const BeginReply begin = Protocol::readBeginReply(in);
  EXPECT_EQ(begin.mStatus, BEGIN_SOME_FAILED);
  EXPECT_TRUE(begin.mFailures.mBad == failed.mBad && begin.mFailures.mBusy == failed.mBusy &&
              begin.mFailures.mText == failed.mText);
  EXPECT_EQ(Protocol::readBeginReply(in).mStatus, BEGIN_HEAD_BUSY);
  for (const char* expected : {"1 7 h2: /x: no room", "2 0 h3: /y: not renamed", "3 0 "}) {
    const RelayMessage m = Protocol::readRelayReply(in, "h2");  // tag, seq, text
    EXPECT_EQ(std::to_string(m.mTag) + " " + std::to_string(m.mSeq) + " " + m.mText, expected);
  }
  const LastFile last = Protocol::readLastFileReply(in);
  EXPECT_TRUE(last.mSeq == 9 && last.mBytes == 4096);
  EXPECT_THROW(Protocol::readRelayReply(in, "h2"), Wire::LimitError);
}
