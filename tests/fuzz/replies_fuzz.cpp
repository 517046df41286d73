// The client's reading of daemon replies (sendBeginUploadMsg and
// sendResumeUploadMsg) over a stream whose peer has sent a reply built from
// the input and closed its side. Failures may be exceptions; the call must
// end and keep its promises about the host lists.
//
// The client trusts daemons and allocates the lengths and counts they send,
// so raw bytes out of step would claim up to 2 GB. Instead the input drives
// a reply in the shape the client reads, each field from the next input
// bytes: statuses 0..7 (known and not), any codes and positions, list counts
// below 65536, string lengths below 4096 (or negative), strings cut where
// the input ends. So a reply claims a few MB at most.
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <sstream>
#include <string>

#include "hopper/hopperMisc.h"
#include "hopper/uploadMisc.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

class Reply {
 public:
  Reply(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

  std::string begin() {
    const uint32_t status = take(4) % 8;
    put32(status);
    if (status == 3) {  // BEGIN_SOME_FAILED: bad (host, code) list, busy list, text
      for (uint32_t i = count(); i > 0 && more(); --i) {
        string();
        put32(take(4));
      }
      for (uint32_t i = count(); i > 0 && more(); --i) string();
      string();
    }
    return mOut;
  }

  std::string resume() {
    for (int restarts = 0; restarts < 6 && more(); ++restarts) {
      const uint32_t status = take(4) % 8;
      put32(status);
      if (status == 2) {  // RESUME_NO_SESSION: a begin reply, then again
        begin();
        continue;
      }
      if (status == 0) {
        put32(take(4));
        put32(take(4));
      } else {
        string();
      }
      break;
    }
    return mOut;
  }

 private:
  bool more() const { return mPos < mSize; }
  uint32_t take(int bytes) {
    uint32_t v = 0;
    for (int i = 0; i < bytes && more(); ++i) v = (v << 8) | mData[mPos++];
    return v;
  }
  uint32_t count() {
    const uint32_t c = take(2);
    put32(c == 0xffff ? 0xffffffffu : c);  // -1 stands for a negative count
    return c == 0xffff ? 0 : c;
  }
  void string() {
    const uint32_t length = take(2);
    if (length >= 0xf000) {
      put32(0x80000000u | length);  // negative
      return;
    }
    put32(length % 4096);
    for (uint32_t i = 0; i < length % 4096 && more(); ++i) mOut.push_back(static_cast<char>(mData[mPos++]));
  }
  void put32(uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) mOut.push_back(static_cast<char>(v >> shift));
  }

  const uint8_t* mData;
  size_t mSize;
  size_t mPos = 0;
  std::string mOut;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  std::signal(SIGPIPE, SIG_IGN);
  Reply builder(data + 1, size - 1);
  const std::string reply = (data[0] & 1) ? builder.resume() : builder.begin();
  int fds[2];
  FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
  // The reply fits the socket buffer (at most 4 bytes out per input byte),
  // and what the client sends stays unread in the peer's buffer: nothing blocks.
  FUZZ_CHECK(::write(fds[1], reply.data(), reply.size()) == static_cast<ssize_t>(reply.size()));
  ::shutdown(fds[1], SHUT_WR);
  TCPStream stream(std::make_unique<TCPSocket>(fds[0]));

  const NodeSet before = {"10.0.0.1", "10.0.0.2:2412", "10.0.0.3"};
  NodeSet nodes = before;
  std::ostringstream err;
  try {
    if (data[0] & 1) {
      const AnnouncementReply reply =
          sendResumeUploadMsg(stream, nodes, false, 100, 0644, "/src/f", "/dst/f");
      FUZZ_CHECK(reply.mStatus != RESUME_NO_SESSION);  // answered here, never passed up
    } else {
      BadNodeList bad;
      BusyNodeList busy;
      bool reconnect = false;
      const int status = sendBeginUploadMsg(stream, nodes, data[0] & 2, bad, busy, err, reconnect);
      for (const std::string& node : nodes) FUZZ_CHECK(before.count(node) == 1);
      for (const auto& node : bad) FUZZ_CHECK(nodes.count(node.first) == 0);
      for (const std::string& node : busy) FUZZ_CHECK(nodes.count(node) == 0);
      if (status == BEGIN_OK) FUZZ_CHECK(nodes == before && bad.empty() && busy.empty());
      if (status != BEGIN_OK && status != BEGIN_SOME_FAILED) {
        FUZZ_CHECK(reconnect && nodes.count(*before.begin()) == 0);
        FUZZ_CHECK(bad.size() + busy.size() == 1);
      }
    }
  } catch (const std::exception&) {
    // A short or malformed reply: the stream's failure, a length error.
  }
  ::close(fds[1]);
  return 0;
}
