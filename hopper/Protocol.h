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
const size_t kMaxReplyText = Wire::kMaxStringLength;

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

// The status of a begin and, for BEGIN_SOME_FAILED, what failed.
struct BeginReply {
  int mStatus = BEGIN_OK;
  BeginResult mFailures;
};

// One reply on a relay link: the tag, and the file (RELAY_FILE_ERRORS) and
// text that come with it.
struct RelayMessage {
  int mTag = RELAY_ABORTED;
  int64_t mSeq = 0;
  std::string mText;
};

// Which file of the upload a host took last (seq 0: none) and how many of
// its bytes it holds.
struct LastFile {
  int64_t mSeq = 0;
  int64_t mBytes = 0;
};

namespace Protocol {

// The version handshake (connectToHopper in hopperMisc.h makes it): the new
// request carries the sender's protocol and version text and is answered
// "OK" and the daemon's protocol; the old one carries nothing and is
// answered with the bare protocol.
void writeVersionRequest(TCPStream& out);
void writeOldVersionRequest(TCPStream& out);
// The new request's items after its code; returns the peer's protocol.
int readVersionRequest(TCPStream& in);
void writeVersionReply(TCPStream& out);
void writeOldVersionReply(TCPStream& out);

// Readers; each throws Wire::LimitError when the peer exceeds a bound
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
// The code that starts every message.
int readCode(TCPStream& in);
// The reply to a begin; for BEGIN_SOME_FAILED with the lists and the text as
// sent.
BeginReply readBeginReply(TCPStream& in);
// The reply to a file announcement.
AnnouncementReply readAnnouncementReply(TCPStream& in);
// An int64 position or size, checked to lie in [0, max].
int64_t readPosition(TCPStream& in, int64_t max);
void readAbortReply(TCPStream& in);
// What a host on a relay link sends back (RelayReply). An unknown tag
// throws Wire::LimitError.
RelayMessage readRelayReply(TCPStream& in, const std::string& host);
// The reply to H2H_LAST_FILE.
LastFile readLastFileReply(TCPStream& in);
// A reply text of the daemon `host`: the reply after a file's data (its
// error lines, "" when every host stored it) and the commit reply (the
// upload's error lines). One over the string bound is read past
// and replaced by a line saying so, so the link stays usable; a negative
// length throws Wire::LimitError.
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
void writeHeadBusy(TCPStream& out);
void writeReply(TCPStream& out, const std::string& text);
// To a client, or with relay to the upstream daemon.
void writeCommitReply(TCPStream& out, const std::string& errors, bool relay);
void writeAbortReply(TCPStream& out, bool relay);
void writeFileErrors(TCPStream& out, int64_t seq, const std::string& errors);
void writeLastFileReply(TCPStream& out, const LastFile& last);

// Appends the lines of text to lines ("" adds nothing). A line over
// kMaxReplyLine is cut and marked; lines that would take the whole past
// kMaxReplyText are dropped, and one line says that some were.
void appendLines(std::string& lines, const std::string& text);

}  // namespace Protocol

#endif  // HIVE_HOPPER_PROTOCOL_H_
