// The client's reading of the cluster manager's agent list (populateNodeMap),
// the input being the body of the agent-list reply, served over HTTP by this
// program on 127.0.0.1 (in a network namespace of its own when one can be
// made), so the reply takes the client's whole path: transfer, envelope,
// agent list. The call succeeds exactly when the input is a well-formed
// document whose Quarry element has the Status "Success". On failure it
// writes a reason to standard error and leaves the map as it was; on success
// it writes nothing and overlays Host -> IPAddress of each Agent of the
// AgentList in order, agents without a host name skipped.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "hopper/clientutil.h"
#include "tests/fuzz/FuzzCheck.h"
#include "xmlparser/XMLParser.h"

namespace {

using Hosts = std::map<std::string, std::string>;

const char kHandshake[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<Quarry><Status>Success</Status><ProtocolVersion>6</ProtocolVersion></Quarry>";

bool loopbackUp() {
  const int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool up = s >= 0 && ::ioctl(s, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags |= IFF_UP;
  up = up && ::ioctl(s, SIOCSIFFLAGS, &request) == 0;
  if (s >= 0) ::close(s);
  return up;
}

// The listening socket on 127.0.0.1, made at start (before any thread, so
// that every thread of the process shares the namespace).
struct Listener {
  Listener() {
    if (::unshare(CLONE_NEWNET) == 0) FUZZ_CHECK(loopbackUp());
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    FUZZ_CHECK(fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0);
    FUZZ_CHECK(::listen(fd, 8) == 0);
    FUZZ_CHECK(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    port = ntohs(address.sin_port);
    FUZZ_CHECK(::pipe2(wake, O_CLOEXEC) == 0);
  }
  int fd = -1;
  int port = 0;
  int wake[2];  // a byte here ends the serving of one input
} listener;

// Answers one request on c: the handshake, or body for anything else. The
// client closes first (it keeps no connection), so its end waits out the
// close, not ours.
void answer(int c, const std::string& body) {
  timeval limit{5, 0};
  ::setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(c, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  std::string request;
  char buffer[4096];
  while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
    const ssize_t n = ::read(c, buffer, sizeof buffer);
    if (n <= 0) return;
    request.append(buffer, size_t(n));
  }
  const std::string& text =
      request.find("/handshake.xml") != std::string::npos ? std::string(kHandshake) : body;
  const std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " +
                            std::to_string(text.size()) + "\r\n\r\n" + text;
  for (ssize_t sent = 0, n = 0; size_t(sent) < reply.size(); sent += n) {
    if ((n = ::send(c, reply.data() + sent, reply.size() - size_t(sent), MSG_NOSIGNAL)) <= 0) return;
  }
  while (::read(c, buffer, sizeof buffer) > 0) continue;
}

// What the reply says, read from the document directly.
bool expected(const std::string& text, Hosts& hosts) {
  XMLTree tree;
  try {
    XMLParser::getInstance().parse(text, tree);
  } catch (const XMLParser::XMLParserException&) {
    return false;
  }
  XMLTree* quarry = tree.getSubTree("Quarry");
  if (quarry == nullptr || (*quarry)["Status"] != "Success") return false;
  XMLTree* list = quarry->getSubTree("AgentList");
  if (list == nullptr) return true;
  for (XMLTree* agent : list->getSubTrees("Agent")) {
    const std::string& name = (*agent)["Host"];
    if (!name.empty()) hosts[name] = (*agent)["IPAddress"];
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const std::string body(reinterpret_cast<const char*>(data), size);

  // Serves the client's connections (a handful at most) until it is done.
  std::thread server([&] {
    for (int served = 0;;) {
      pollfd p[2] = {{listener.wake[0], POLLIN, 0}, {listener.fd, POLLIN, 0}};
      if (::poll(p, served < 16 ? 2 : 1, 1000) <= 0) continue;
      if (p[0].revents != 0) {
        char byte;
        FUZZ_CHECK(::read(listener.wake[0], &byte, 1) == 1);
        return;
      }
      const int c = ::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      answer(c, body);
      ::close(c);
      ++served;
    }
  });

  const Hosts before = {{"kept", "10.0.0.9"}, {"node1", "10.0.0.1"}};
  Hosts hosts = before;
  std::ostringstream err;
  std::streambuf* const saved = std::cerr.rdbuf(err.rdbuf());
  const bool ok = populateNodeMap("127.0.0.1:" + std::to_string(listener.port), System::OS_LINUX,
                                  hosts, false, nullptr);
  std::cerr.rdbuf(saved);
  FUZZ_CHECK(::write(listener.wake[1], "", 1) == 1);
  server.join();

  Hosts want = before;
  FUZZ_CHECK(ok == expected(body, want));
  FUZZ_CHECK(ok == err.str().empty());
  FUZZ_CHECK(hosts == (ok ? want : before));
  for (const auto& entry : hosts) FUZZ_CHECK(!entry.first.empty());
  return 0;
}
