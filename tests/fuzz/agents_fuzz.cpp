// The client's reading of the agent list (populateNodeMap), the input being
// the body of the agent-list reply, served over HTTP on 127.0.0.1 (in a
// network namespace of its own when one can be made) so that it takes the
// client's whole path. The call succeeds exactly when the input is a
// well-formed document whose Quarry Status is "Success"; on failure it writes
// a reason to standard error and leaves the map alone; on success it writes
// nothing and overlays Host -> IPAddress of each Agent, hostless ones skipped.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include "hopper/clientutil.h"
#include "tests/fuzz/FuzzCheck.h"
#include "util/TCPSocket.h"
#include "xmlparser/XMLParser.h"

namespace {

using Hosts = std::map<std::string, std::string>;

// Made before any thread, so that every thread shares the namespace.
struct Listener {
  Listener() {
    if (::unshare(CLONE_NEWNET) == 0) {  // a new namespace's loopback starts down
      const int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      ifreq request{};
      std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
      FUZZ_CHECK(s >= 0 && ::ioctl(s, SIOCGIFFLAGS, &request) == 0);
      request.ifr_flags |= IFF_UP;
      FUZZ_CHECK(::ioctl(s, SIOCSIFFLAGS, &request) == 0);
      ::close(s);
    }
    socket.listen("127.0.0.1", 0);
  }
  TCPSocket socket;
} listener;

// Answers one request: the handshake, or body for anything else. The client
// closes first, so its end waits out the close, not ours.
void answer(TCPSocket& c, const std::string& body) {
  c.setReadTimeout(5000);
  c.setWriteTimeout(5000);
  std::string request;
  char buffer[4096];
  for (int n; request.find("\r\n\r\n") == std::string::npos && request.size() < 65536;) {
    if ((n = c.read(buffer, sizeof buffer)) <= 0) return;
    request.append(buffer, size_t(n));
  }
  const std::string text = request.find("/handshake.xml") == std::string::npos ? body :
      "<Quarry><Status>Success</Status><ProtocolVersion>6</ProtocolVersion></Quarry>";
  const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n" + text;
  if (c.write(reply.data(), int(reply.size())) != int(reply.size())) return;
  while (c.read(buffer, sizeof buffer) > 0) continue;
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
  for (XMLTree* agent : list ? list->getSubTrees("Agent") : std::vector<XMLTree*>()) {
    if (!(*agent)["Host"].empty()) hosts[(*agent)["Host"]] = (*agent)["IPAddress"];
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const std::string body(reinterpret_cast<const char*>(data), size);
  std::atomic<bool> done{false};
  std::thread server([&] {  // at most 16 connections and 100 s
    for (int served = 0, polls = 0; !done && served < 16 && polls < 1000; ++polls) {
      std::unique_ptr<TCPSocket> c = listener.socket.accept(100);
      if (c && !done) {
        answer(*c, body);
        ++served;
      }
    }
  });

  const Hosts before = {{"kept", "10.0.0.9"}, {"node1", "10.0.0.1"}};
  Hosts hosts = before, want = before;
  std::ostringstream err;
  std::streambuf* const saved = std::cerr.rdbuf(err.rdbuf());
  const bool ok = populateNodeMap("127.0.0.1:" + std::to_string(listener.socket.getListenerPort()),
                                  System::OS_LINUX, hosts, false, nullptr);
  std::cerr.rdbuf(saved);
  done = true;
  TCPSocket wake;  // ends the server's wait for a connection at once
  try {
    wake.connect("127.0.0.1", listener.socket.getListenerPort(), 1000);
  } catch (const TCPSocket::exception&) {
  }
  server.join();

  FUZZ_CHECK(ok == expected(body, want) && ok == err.str().empty() && hosts == (ok ? want : before));
  for (const auto& entry : hosts) FUZZ_CHECK(!entry.first.empty());
  return 0;
}
