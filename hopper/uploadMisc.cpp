#include "hopper/uploadMisc.h"

#include <sstream>
#include <vector>

#include "hopper/Protocol.h"
#include "hopper/hopperMisc.h"
#include "util/StringUtilities.h"
#include "util/pathfun.h"

namespace {

// A daemon still without a session after this many begins is broken.
const int kMaxSessionRestarts = 3;

// Connects (and with newProtocol hand-shakes); the bad-node code, or -1.
int tryHost(TCPStream& stream, const std::string& host, bool newProtocol) {
  std::string address;
  int port = kHopperDefaultPort;
  parseHostPort(host, address, port);
  try {
    if (!newProtocol) {
      stream.connect(address, port, kConnectTimeoutMs);
      return -1;
    }
    const int version = connectToHopper(stream, address, port, kConnectTimeoutMs);
    return acceptedVersion(version) ? -1 : kBadNodeVersionMismatch;
  } catch (const std::runtime_error&) {  // refused, lost or timed out
    return kBadNodeUnreachable;
  }
}

}  // namespace

std::unique_ptr<TCPStream> findGoodNode(NodeSet& nodes, BadNodeList& badNodes, bool newProtocol,
                                        const Ticks& deadline, Connector* connector) {
  while (!nodes.empty()) {
    const std::string head = *nodes.begin();
    auto stream = std::make_unique<TCPStream>();
    // Set before connecting: the socket keeps it across reconnects.
    stream->socket().setDeadline(deadline);
    stream->socket().setConnector(connector);
    const int code = tryHost(*stream, head, newProtocol);
    if (code < 0) return stream;
    if (deadline != Ticks() && !(Ticks::currentTime() < deadline)) return nullptr;
    badNodes.emplace_back(head, code);
    nodes.erase(head);
  }
  return nullptr;
}

int sendBeginUploadMsg(TCPStream& stream, NodeSet& nodes, bool stopAgents, BadNodeList& badNodes,
                       BusyNodeList& busyNodes, std::ostream& err, bool& reconnect) {
  const std::string head = nodes.empty() ? std::string() : *nodes.begin();
  Protocol::writeBegin(stream, std::vector<std::string>(nodes.begin(), nodes.end()), stopAgents);
  stream.flush();
  const BeginReply reply = Protocol::readBeginReply(stream);
  const int status = reply.mStatus;
  if (status == BEGIN_OK) return status;
  if (status == BEGIN_SOME_FAILED) {
    err << reply.mFailures.mText;
    for (const auto& node : reply.mFailures.mBad) {
      badNodes.push_back(node);
      nodes.erase(node.first);
    }
    for (const std::string& node : reply.mFailures.mBusy) {
      busyNodes.push_back(node);
      nodes.erase(node);
    }
    return status;
  }
  if (status == BEGIN_HEAD_BUSY) {
    busyNodes.push_back(head);
  } else {
    badNodes.emplace_back(head, kBadNodeUnreachable);
  }
  nodes.erase(head);
  stream.close();
  reconnect = true;
  return status;
}

AnnouncementReply sendResumeUploadMsg(TCPStream& stream, const NodeSet& nodes, bool stopAgents,
                                      long fileSize, int mode, const std::string& localPath,
                                      const std::string& remotePath) {
  const FileInfo info{fileSize, lastPathComponent(localPath), remotePath, mode};
  for (int restarts = 0;; ++restarts) {
    Protocol::writeFileInfo(stream, info);
    stream.flush();
    const AnnouncementReply reply = Protocol::readAnnouncementReply(stream);
    if (reply.mStatus != RESUME_NO_SESSION) return reply;
    // A new head after a reconnect: begin on this connection (its host
    // reports are not this file's business), then announce again.
    NodeSet copy = nodes;
    BadNodeList bad;
    BusyNodeList busy;
    std::ostringstream ignored;
    bool reconnect = false;
    sendBeginUploadMsg(stream, copy, stopAgents, bad, busy, ignored, reconnect);
    if (reconnect || restarts >= kMaxSessionRestarts) {
      throw LinkLost("the head holds no session after a begin");
    }
  }
}

bool catchupStream(long from, long to, int fd, FileSystem& fs, TCPStream& stream) {
  // A single gap never exceeds the data in flight, so an int holds it.
  const int gap = static_cast<int>(to - from);
  if (gap <= 0) return true;
  std::vector<char> buffer(static_cast<size_t>(gap));
  if (fs.preadFull(fd, buffer.data(), buffer.size(), from) != gap) return false;
  stream.write(buffer.data(), gap);
  return true;
}

void genBadNodeErrMsg(std::ostream& out, const std::string& prefix,
                      const std::pair<std::string, int>& node) {
  if (!prefix.empty()) out << prefix << ": ";
  out << (node.second == kBadNodeUnreachable ? "Unable to connect or lost connection to "
                                             : "Protocol version mismatch communicating with ")
      << node.first << "." << std::endl;
}

void genBadNodeErrMsg(std::ostream& out, const std::string& prefix, const std::string& host) {
  genBadNodeErrMsg(out, prefix, std::make_pair(host, kBadNodeUnreachable));
}

void genBadNodeListErrMsg(std::ostream& out, const std::string& prefix, const BadNodeList& nodes) {
  for (const auto& node : nodes) genBadNodeErrMsg(out, prefix, node);
}

std::string lastPathComponent(const std::string& path) {
  std::vector<Range> parts;
  splitPath(path, parts);
  const Range& last = parts.back();
  return path.substr(last.first, last.second - last.first);
}
