// The steps of the upload conversation with the head of the daemon chain:
// choosing the head, beginning an upload, announcing a file, re-sending a
// gap after a resume, and the report lines for lost hosts.
//
// Host identifiers are "address" or "address:port" (default port 2411). The
// node set is ordered; its first element is always the head. Every function
// lets LinkLost, the stream's exception for a lost link, propagate.
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
// speaks protocol 4 or 5), dropping the others from nodes and appending them
// to badNodes with their code. Returns the connected stream, or null when
// no host is left. With a deadline (default Ticks(): none) every stream
// carries it, and a host that fails once it has passed is not dropped: the
// search ends there, returning null. connector (null: TCP) makes the
// connections.
std::unique_ptr<TCPStream> findGoodNode(NodeSet& nodes, BadNodeList& badNodes, bool newProtocol,
                                        const Ticks& deadline = Ticks(),
                                        Connector* connector = nullptr);

// Sends the begin message with the whole node set and !stopAgents and acts
// on the status (returned): 0 nothing; 1 the head goes to busyNodes; 3 the
// daemon's bad and busy hosts are appended to the lists and its text written
// to err; other statuses put (head, 0) on badNodes. Every named host leaves
// nodes. For 1 and unknown statuses the stream is closed and reconnect set.
int sendBeginUploadMsg(TCPStream& stream, NodeSet& nodes, bool stopAgents, BadNodeList& badNodes,
                       BusyNodeList& busyNodes, std::ostream& err, bool& reconnect);

// Announces one file (size, last component of localPath, remotePath, mode)
// and returns the head's answer: RESUME_OK with the position to send from,
// or a refusal with its text (the connection stays usable). A daemon
// without a session is sent a begin first (on a copy of nodes); one that
// still has none after that is as good as lost, so it raises the stream's
// failure like a lost link.
AnnouncementReply sendResumeUploadMsg(TCPStream& stream, const NodeSet& nodes, bool stopAgents,
                                      long fileSize, int mode, const std::string& localPath,
                                      const std::string& remotePath);

// Re-sends bytes [from, to) of the open file fd, read through fs at those
// offsets (the descriptor's own offset does not move). False when the file
// no longer holds them.
bool catchupStream(long from, long to, int fd, FileSystem& fs, TCPStream& stream);

// One report line: [prefix ": "] "Unable to connect or lost connection to "
// host, or for a non-zero code "Protocol version mismatch communicating with "
// host; then "." and a newline. The stream is flushed.
void genBadNodeErrMsg(std::ostream& out, const std::string& prefix,
                      const std::pair<std::string, int>& node);
void genBadNodeErrMsg(std::ostream& out, const std::string& prefix, const std::string& host);
// One line per pair, in list order.
void genBadNodeListErrMsg(std::ostream& out, const std::string& prefix, const BadNodeList& nodes);

// The last component of a path as the path splitter sees it ("x" for "a/x"
// and for "a/x/", "f" for "f").
std::string lastPathComponent(const std::string& path);

#endif  // HIVE_HOPPER_UPLOADMISC_H_
