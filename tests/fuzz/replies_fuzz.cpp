// The client's reading of daemon replies (sendBeginUploadMsg and
// sendResumeUploadMsg) over a stream whose peer has sent a reply built from
// the input and closed its side. Failures may be exceptions; the call must
// end and keep its promises about the host lists.
//
// The client trusts daemons and allocates the lengths and counts they send,
// so raw bytes would claim up to 2 GB. Instead the input drives a reply in
// the shape the client reads: statuses 0..7, any codes and positions, list
// counts below 65536 (or -1), string lengths below 4096 (or negative),
// strings cut where the input ends. So a reply claims a few MB at most.
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

struct Reply {
  const uint8_t* in;
  const uint8_t* end;
  std::string out;

  bool more() const { return in < end; }
  uint32_t take(int bytes) {
    uint32_t v = 0;
    for (int i = 0; i < bytes && more(); ++i) v = (v << 8) | *in++;
    return v;
  }
  void put32(uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(v >> shift));
  }
  uint32_t count() {  // 0xffff stands for -1
    const uint32_t c = take(2);
    put32(c == 0xffff ? 0xffffffffu : c);
    return c == 0xffff ? 0 : c;
  }
  void string() {  // 0xf000 and above stand for negative lengths
    const uint32_t length = take(2);
    put32(length >= 0xf000 ? 0x80000000u | length : length % 4096);
    for (uint32_t i = 0; length < 0xf000 && i < length % 4096 && more(); ++i) out.push_back(char(*in++));
  }
  void begin() {
    const uint32_t status = take(4) % 8;
    put32(status);
    if (status != 3) return;  // BEGIN_SOME_FAILED: bad (host, code) list, busy list, text
    for (uint32_t i = count(); i > 0 && more(); --i) {
      string();
      put32(take(4));
    }
    for (uint32_t i = count(); i > 0 && more(); --i) string();
    string();
  }
  void resume() {
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
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  std::signal(SIGPIPE, SIG_IGN);
  const bool resume = data[0] & 1;
  Reply reply{data + 1, data + size, ""};
  resume ? reply.resume() : reply.begin();
  int fds[2];
  FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
  // The reply fits the socket buffer (at most 4 bytes out per input byte),
  // and what the client sends stays unread in the peer's buffer: nothing blocks.
  FUZZ_CHECK(::write(fds[1], reply.out.data(), reply.out.size()) == static_cast<ssize_t>(reply.out.size()));
  ::shutdown(fds[1], SHUT_WR);
  TCPStream stream(std::make_unique<TCPSocket>(fds[0]));

  const NodeSet before = {"10.0.0.1", "10.0.0.2:2412", "10.0.0.3"};
  NodeSet nodes = before;
  std::ostringstream err;
  BadNodeList bad;
  BusyNodeList busy;
  bool reconnect = false;
  try {
    if (resume) {
      const AnnouncementReply answer = sendResumeUploadMsg(stream, nodes, false, 100, 0644, "/src/f", "/dst/f");
      FUZZ_CHECK(answer.mStatus != RESUME_NO_SESSION);  // answered here, never passed up
    } else {
      const int status = sendBeginUploadMsg(stream, nodes, data[0] & 2, bad, busy, err, reconnect);
      for (const std::string& node : nodes) FUZZ_CHECK(before.count(node) == 1);
      for (const auto& node : bad) FUZZ_CHECK(nodes.count(node.first) == 0);
      for (const std::string& node : busy) FUZZ_CHECK(nodes.count(node) == 0);
      if (status == BEGIN_OK) FUZZ_CHECK(nodes == before && bad.empty() && busy.empty());
      if (status != BEGIN_OK && status != BEGIN_SOME_FAILED) {
        FUZZ_CHECK(reconnect && nodes.count(*before.begin()) == 0 && bad.size() + busy.size() == 1);
      }
    }
  } catch (const std::exception&) {
    // A short or malformed reply: the stream's failure, a length error.
  }
  ::close(fds[1]);
  return 0;
}
