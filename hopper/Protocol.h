// The wire protocol both ends share: the encoders and the bounded decoders
// of the messages that a client and a daemon, or two daemons, exchange (the
// message codes are in hopperMisc.h), and the messages that daemons alone
// exchange to carry an upload along the relay chain. Every item read from a
// peer goes through a bounded reader: neither end trusts the other.
#ifndef HIVE_HOPPER_PROTOCOL_H_
#define HIVE_HOPPER_PROTOCOL_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "hopper/hopperMisc.h"
#include "util/NetEncoding.h"

// Daemon to daemon, before a begin: the origin client's address, the
// upload's identifier and the sender's host identifier. No reply.
const int H2H_RELAY_IDENTITY = 0x55333040;

// Daemon to daemon: one part of a file, [start, start + count) of the
// file's bytes, which follow at once as checked blocks. seq numbers the files
// of an upload in the order the head took them; a part continues the file of
// its seq. No reply unless the receiver has errors for the file
// (RELAY_FILE_ERRORS), so that nothing waits for the hosts further on.
const int H2H_FILE_PART = 0x55333041;
// Daemon to daemon, on a new relay link: which file of the upload the host
// took last. Replies int64 seq (0 for none) and int64 the bytes of it the
// host holds (its size when it wants no more of it).
const int H2H_LAST_FILE = 0x55333042;
// Daemon to daemon, after the last byte of a file: int64 seq, int64 size and
// int32 the CRC-32C of the whole file as the head received it from the
// client. Every host compares its staged copy with it. No reply unless the
// receiver has errors for the file.
const int H2H_FILE_CHECK = 0x55333043;

// A relayed file's bytes travel in blocks of 1 to kMaxRelayBlock bytes, each
// after an int32 length and an int32 CRC-32C of the block. A receiver acts on
// no byte of a block before it has checked the whole block: a link that
// corrupts data is dropped before the corruption reaches a disk or a host.
const int kMaxRelayBlock = 65536;

// What an upstream daemon hears back on its relay link once the link is up:
// an int32 tag and its items. Commit and abort from a daemon are answered
// with these instead of the client's replies.
enum RelayReply {
  RELAY_FILE_ERRORS = 1,  // int64 seq, text: the host's errors for that file
  RELAY_COMMITTED = 2,    // text: the commit reply
  RELAY_ABORTED = 3       // nothing more
};

// Status of a file announcement that this host or the ones after it refuse.
const int RESUME_REFUSED = 4;

// The largest file size a peer may announce.
const int64_t kMaxFileSize = int64_t(1) << 62;

// A reply line longer than this is cut (and marked so); a whole reply stays
// within the string bound a peer accepts.
const size_t kMaxReplyLine = 1024;
const size_t kMaxReplyText = System::kMaxPeerStringLength;

// The reply to a file announcement: RESUME_OK with the position to send
// from, RESUME_NO_SESSION (begin again on this connection), or any other
// status with the refusal's text.
struct AnnouncementReply {
  int mStatus = RESUME_OK;
  int64_t mPosition = 0;
  std::string mText;
};

// One file announcement.
struct FileInfo {
  int64_t mSize = 0;
  std::string mBaseName;
  std::string mRemotePath;
  int mMode = 0;  // permission bits only
};

// One part of a file on a relay link.
struct FilePart {
  FileInfo mInfo;
  int64_t mSeq = 0;
  int64_t mStart = 0;
  int64_t mCount = 0;
  int64_t end() const { return mStart + mCount; }
};

// The checksum of a whole file (H2H_FILE_CHECK).
struct FileCheck {
  int64_t mSeq = 0;
  int64_t mSize = 0;
  uint32_t mCRC = 0;
};

// The identity an upstream daemon passes down with the relay code.
struct RelayIdentity {
  std::string mClientAddress;
  std::string mUploadId;
  std::string mSender;
};

// What a begin found along the chain: hosts that failed (code 0 unreachable
// or lost, 1 version mismatch), hosts that were busy, and a text.
struct BeginResult {
  StringIntPairList mBad;
  StringList mBusy;
  std::string mText;
  bool empty() const { return mBad.empty() && mBusy.empty(); }
};

namespace Protocol {

// The version handshake: the new request carries the sender's protocol and
// version text and is answered "OK" and the daemon's protocol; the old one
// carries nothing and is answered with the bare protocol.
void writeVersionRequest(TCPStream& out);
void writeOldVersionRequest(TCPStream& out);
// The new request's items after its code; returns the peer's protocol.
int readVersionRequest(TCPStream& in);
void writeVersionReply(TCPStream& out);
void writeOldVersionReply(TCPStream& out);

// Handshakes with the daemon at host:port as a client does (the new version
// request, then the old one when the new is not understood). Every reply
// item goes through the bounded readers and the whole exchange ends within
// timeoutMs. Returns the daemon's protocol version; throws on a silent,
// broken or foreign peer. stream keeps its socket's settings.
int handshake(TCPStream& stream, const std::string& host, int port, int timeoutMs);
// Protocol versions this daemon relays to.
bool acceptedVersion(int version);

// Readers; each throws System::WireLimitError when the peer exceeds a bound
// and the stream's failure exception when the connection breaks.
std::string readString(TCPStream& in);
// The announcement items after the code; the mode is masked with 0777.
FileInfo readFileInfo(TCPStream& in);
// The part items after the code; the range must lie within the file.
FilePart readFilePart(TCPStream& in);
// The header of the next data block of a part with remaining bytes still
// to come: its length (1 to min(remaining, kMaxRelayBlock)) and checksum.
int readBlockHeader(TCPStream& in, int64_t remaining, uint32_t& crc);
// The check items after the code.
FileCheck readFileCheck(TCPStream& in);
// The begin items after the code: host set and the stop-agents flag.
void readBegin(TCPStream& in, std::vector<std::string>& hosts, bool& stopAgents);
// The upload identifier must be 1 to 64 letters and digits.
RelayIdentity readRelayIdentity(TCPStream& in);
// The rest of a status-3 begin reply (bad list, busy list, text), as sent.
void readBeginLists(TCPStream& in, StringIntPairList& bad, StringList& busy, std::string& text);
// The same, added to out (the text's lines appended).
void readBeginFailures(TCPStream& in, BeginResult& out);
// The reply to a file announcement.
AnnouncementReply readAnnouncementReply(TCPStream& in);
// An int64 position or size, checked to lie in [0, max].
int64_t readPosition(TCPStream& in, int64_t max);
// A reply text of the daemon `host`. One over the string bound is read past
// and replaced by a line saying so, so the link stays usable; a negative
// length throws System::WireLimitError.
std::string readReply(TCPStream& in, const std::string& host);

// Writers (not flushed).
// A file announcement, its code included.
void writeFileInfo(TCPStream& out, const FileInfo& info);
void writeAnnouncementReply(TCPStream& out, const AnnouncementReply& reply);
// The messages without items: commit, abort, and the question which file a
// newly linked host took last.
void writeCommit(TCPStream& out);
void writeAbort(TCPStream& out);
void writeLastFileRequest(TCPStream& out);
void writeFilePart(TCPStream& out, const FilePart& part);
// One data block of a part, with its header: n is at most kMaxRelayBlock.
// crc, when not null, is the block's checksum as received (a relay passes
// blocks on as they came and need not sum them again).
void writeBlock(TCPStream& out, const char* data, size_t n, const uint32_t* crc = nullptr);
void writeFileCheck(TCPStream& out, const FileCheck& check);
void writeBegin(TCPStream& out, const std::vector<std::string>& hosts, bool stopAgents);
void writeRelayIdentity(TCPStream& out, const RelayIdentity& identity);
// Status 3 (or 0 when nothing failed) and, for 3, the lists and the text.
void writeBeginReply(TCPStream& out, const BeginResult& result);

// Appends the lines of text to lines ("" adds nothing). A line over
// kMaxReplyLine is cut and marked; lines that would take the whole past
// kMaxReplyText are dropped, and one line says that some were.
void appendLines(std::string& lines, const std::string& text);

}  // namespace Protocol

#endif  // HIVE_HOPPER_PROTOCOL_H_
