// The wire protocol both ends share: encoders and bounded decoders of the
// client's messages (codes in hopperMisc.h) and of the relay messages
// between daemons. Every item read from a peer is bounded first.
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

// Daemon to daemon: bytes [start, start + count) of the file numbered seq
// (in the order the head took them), as checked blocks that follow at once.
// No reply unless the receiver has errors for the file (RELAY_FILE_ERRORS).
const int H2H_FILE_PART = 0x55333041;
// Daemon to daemon, on a new relay link: which file of the upload the host
// took last. Replies int64 seq (0 for none) and int64 the bytes of it the
// host holds (its size when it wants no more of it).
const int H2H_LAST_FILE = 0x55333042;
// Daemon to daemon, after a file's last byte: int64 seq, int64 size and
// int32 the CRC-32C of the whole file as the head received it, for every
// host to check its staged copy. No reply unless there are errors.
const int H2H_FILE_CHECK = 0x55333043;

// Relayed bytes travel in blocks of 1 to kMaxRelayBlock bytes, each after
// an int32 length and an int32 CRC-32C; no byte is used before its block
// is checked, so corruption never reaches a disk or a host.
const int kMaxRelayBlock = 65536;

// Replies on a relay link: an int32 tag and its items (commit and abort
// from a daemon are answered with these, not with the client's replies).
enum RelayReply {
  RELAY_FILE_ERRORS = 1,  // int64 seq, text: the host's errors for that file
  RELAY_COMMITTED = 2,    // text: the commit reply
  RELAY_ABORTED = 3       // nothing more
};

// Status of a file announcement that this host or the ones after it refuse.
const int RESUME_REFUSED = 4;

// The largest file size a peer may announce.
const int64_t kMaxFileSize = int64_t(1) << 62;

// A longer reply line is cut and marked; a reply stays within the string
// bound.
const size_t kMaxReplyLine = 1024;
const size_t kMaxReplyText = Wire::kMaxStringLength;

// RESUME_OK with the position to send from, RESUME_NO_SESSION, or a
// refusal's status and text.
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

// What a begin found: failed hosts (code 0 lost, 1 version mismatch), busy
// hosts and a text.
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

// One reply on a relay link: the tag, its file (RELAY_FILE_ERRORS) and text.
struct RelayMessage {
  int mTag = RELAY_ABORTED;
  int64_t mSeq = 0;
  std::string mText;
};

// The file a host took last (seq 0: none) and how many bytes it holds.
struct LastFile {
  int64_t mSeq = 0;
  int64_t mBytes = 0;
};

namespace Protocol {

// The version handshake (see connectToHopper): the new request carries the
// protocol and version text and is answered "OK" and the protocol; the old
// one carries nothing and is answered with the bare protocol.
void writeVersionRequest(TCPStream& out);
void writeOldVersionRequest(TCPStream& out);
// The new request's items after its code; returns the peer's protocol.
int readVersionRequest(TCPStream& in);
void writeVersionReply(TCPStream& out);
void writeOldVersionReply(TCPStream& out);

// Readers; each throws Wire::LimitError when the peer exceeds a bound and
// the stream's failure exception when the connection breaks.
std::string readString(TCPStream& in);
// The announcement items after the code; the mode is masked with 0777.
FileInfo readFileInfo(TCPStream& in);
// The part items after the code; the range must lie within the file.
FilePart readFilePart(TCPStream& in);
// The next block's length (1 to min(remaining, kMaxRelayBlock)) and checksum.
int readBlockHeader(TCPStream& in, int64_t remaining, uint32_t& crc);
FileCheck readFileCheck(TCPStream& in);
// The begin items after the code: host set and the stop-agents flag.
void readBegin(TCPStream& in, std::vector<std::string>& hosts, bool& stopAgents);
// The upload identifier must be 1 to 64 letters and digits.
RelayIdentity readRelayIdentity(TCPStream& in);
int readCode(TCPStream& in);
// The reply to a begin, with the lists and text for BEGIN_SOME_FAILED.
BeginReply readBeginReply(TCPStream& in);
AnnouncementReply readAnnouncementReply(TCPStream& in);
// An int64 position or size, checked to lie in [0, max].
int64_t readPosition(TCPStream& in, int64_t max);
void readAbortReply(TCPStream& in);
// A RelayReply; an unknown tag throws Wire::LimitError.
RelayMessage readRelayReply(TCPStream& in, const std::string& host);
LastFile readLastFileReply(TCPStream& in);
// The daemon `host`'s reply after a file's data or a commit: its error
// lines, "" for none. One over the string bound is read past and replaced by
// a line saying so; a negative length throws Wire::LimitError.
std::string readReply(TCPStream& in, const std::string& host);

// Writers (not flushed).
// A file announcement, its code included.
void writeFileInfo(TCPStream& out, const FileInfo& info);
void writeAnnouncementReply(TCPStream& out, const AnnouncementReply& reply);
// The messages without items.
void writeCommit(TCPStream& out);
void writeAbort(TCPStream& out);
void writeLastFileRequest(TCPStream& out);
void writeFilePart(TCPStream& out, const FilePart& part);
// One block with its header (n <= kMaxRelayBlock); crc, when given, is the
// checksum as received, so a relay need not sum it again.
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

// Appends the lines of text to lines. A line over kMaxReplyLine is cut and
// marked; lines past kMaxReplyText are dropped, and one line says so.
void appendLines(std::string& lines, const std::string& text);

}  // namespace Protocol

#endif  // HIVE_HOPPER_PROTOCOL_H_
