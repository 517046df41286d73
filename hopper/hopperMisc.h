// Before any upload: the daemon protocol's message codes, the version
// handshakes, and the version text of --version and the handshake.
#ifndef HIVE_HOPPER_HOPPERMISC_H_
#define HIVE_HOPPER_HOPPERMISC_H_

#include <string>

#include "util/TCPStream.h"

// The protocol spoken here; daemons speaking 4 or 5 are accepted.
const int kHopperProtocolVersion = 5;
const int kHopperDefaultPort = 2411;

// Message codes: every message starts with one as an int32.
enum HopperMessageCode {
  C2H_GET_VERSION = 0x55333037,       // old version request; reply int32
  C2H_BEGIN_UPLOAD = 0x55333038,      // host set, bool !stopAgents
  C2H_RESUME_UPLOAD = 0x5533303a,     // announce a file: size, name, path, mode
  C2H_COMMIT_UPLOAD = 0x5533303b,     // reply: small buffer of errors
  C2H_ABORT_UPLOAD = 0x5533303c,      // reply: int32, ignored
  C2H_STREAM_DAEMON_FILE = 0x5533303e,  // reserved, never sent by the client
  C2H_NEW_GET_VERSION = 0x5533303f    // int32 protocol, version text
};

// Status of the reply to a begin-upload message.
enum BeginUploadStatus {
  BEGIN_OK = 0,             // every host accepted
  BEGIN_HEAD_BUSY = 1,      // the head serves another client
  BEGIN_SOME_FAILED = 3     // bad list, busy list and a text follow
};

// Status of the reply to a file announcement.
enum ResumeUploadStatus {
  RESUME_OK = 0,            // an int64 position follows
  RESUME_NO_SESSION = 2     // begin again on this connection
  // any other value: the file is refused, a text follows
};

// Connects and asks with C2H_NEW_GET_VERSION: the daemon's protocol, or -1 (stream
// closed) without "OK". Throws "Handshake timed out." past timeoutMs.
int connectToHopperNew(TCPStream& stream, const std::string& host, int port, int timeoutMs);

// The same with the old request, for daemons that predate the new one.
// Throws "Handshake timed out for getting server version." on time-out.
int connectToHopperOld(TCPStream& stream, const std::string& host, int port, int timeoutMs);

// The new request, then the old one when the daemon does not understand it,
// all within twice timeoutMs (and the socket's deadline). Returns the
// daemon's protocol; throws as the two above or as the stream.
int connectToHopper(TCPStream& stream, const std::string& host, int port, int timeoutMs);
// Protocol versions this side talks to: 4 and 5.
bool acceptedVersion(int version);

// "<release>, protocol 5" and a newline, then the product notice.
std::string getVersionString();

#endif  // HIVE_HOPPER_HOPPERMISC_H_
