// The steps of the upload conversation with the head of the daemon chain,
// and the report lines for lost hosts. Hosts are "address[:port]" (default
// 2411); the first of the ordered node set is the head. Every function lets
// LinkLost, the stream's exception for a lost link, propagate.
#ifndef HIVE_HOPPER_UPLOADMISC_H_
#define HIVE_HOPPER_UPLOADMISC_H_

#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>

#include "hopper/Protocol.h"
#include "util/FileSystem.h"
#include "util/NetEncoding.h"
#include "util/TCPStream.h"

using NodeSet = std::set<std::string>;
// (host, code): code 0 unreachable or lost, 1 protocol version mismatch.
using BadNodeList = StringIntPairList;
using BusyNodeList = StringList;

const int kBadNodeUnreachable = 0;
const int kBadNodeVersionMismatch = 1;
// Connect and handshake time-out when choosing a head.
const int kConnectTimeoutMs = 5000;

// Connects to the first host of nodes that answers (with newProtocol: and
// speaks 4 or 5), moving the others to badNodes with their code; null when
// none is left. Every stream carries deadline (Ticks(): none); a host
// failing after it is not dropped, and null is returned. connector (null:
// TCP) makes the connections.
std::unique_ptr<TCPStream> findGoodNode(NodeSet& nodes, BadNodeList& badNodes, bool newProtocol,
                                        const Ticks& deadline = Ticks(),
                                        Connector* connector = nullptr);

// Sends the begin message and returns its status: 1 puts the head on
// busyNodes; 3 appends the daemon's lists and writes its text to err; others
// but 0 put (head, 0) on badNodes. Named hosts leave nodes; for 1 and
// unknown statuses the stream is closed and reconnect set.
int sendBeginUploadMsg(TCPStream& stream, NodeSet& nodes, bool stopAgents, BadNodeList& badNodes,
                       BusyNodeList& busyNodes, std::ostream& err, bool& reconnect);

// Announces one file and returns the head's answer: RESUME_OK with the
// position to send from, or a refusal with its text. A daemon without a
// session is sent a begin first; one that still has none raises LinkLost.
AnnouncementReply sendResumeUploadMsg(TCPStream& stream, const NodeSet& nodes, bool stopAgents,
                                      long fileSize, int mode, const std::string& localPath,
                                      const std::string& remotePath);

// Re-sends bytes [from, to) of fd, read through fs at those offsets; false
// when the file no longer holds them.
bool catchupStream(long from, long to, int fd, FileSystem& fs, TCPStream& stream);

// One flushed line: [prefix ": "] "Unable to connect or lost connection to "
// host, or for other codes "Protocol version mismatch communicating with " host;
// then ".".
void genBadNodeErrMsg(std::ostream& out, const std::string& prefix,
                      const std::pair<std::string, int>& node);
void genBadNodeErrMsg(std::ostream& out, const std::string& prefix, const std::string& host);
// One line per pair, in list order.
void genBadNodeListErrMsg(std::ostream& out, const std::string& prefix, const BadNodeList& nodes);

// The last component as the path splitter sees it ("x" for "a/x" and "a/x/").
std::string lastPathComponent(const std::string& path);

#endif  // HIVE_HOPPER_UPLOADMISC_H_
