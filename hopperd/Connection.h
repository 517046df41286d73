// One accepted connection: reads a message code, acts on it, and repeats
// until the peer closes. The peer is a client or an upstream daemon; both
// speak the same messages, an upstream daemon announcing itself first with
// the relay identity. Everything read goes through the bounded readers: a
// violation is logged and closes the connection. So does a peer that is
// silent in the middle of a message, or without a session, for the time-out,
// or that sends a message or a block of file data slower than one time-out.
#ifndef HIVE_HOPPERD_CONNECTION_H_
#define HIVE_HOPPERD_CONNECTION_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hopper/Protocol.h"
#include "hopperd/SessionTable.h"
#include "util/Mutex.h"
#include "util/TCPStream.h"

class Connection : public SessionOwner, public std::enable_shared_from_this<Connection> {
 public:
  Connection(std::unique_ptr<TCPSocket> socket, SessionTable& table, int ioTimeoutMs);

  // The message loop; returns when the peer closes, on a protocol error, or
  // after interrupt(). Orphans the session if the connection still owns it.
  void run();
  // Wakes run() from another thread by shutting the socket down.
  void interrupt() override;

  const std::string& peer() const { return mPeer; }

 private:
  // Waits for the next message: for ever while the connection holds a
  // session (a client may think between messages), else up to the time-out.
  // False when the peer closed or stayed silent.
  bool waitForMessage();
  // Flushes a reply (no deadline: the reply may follow long work).
  void sendReply();
  // False ends the connection.
  bool handle(int code);
  void handleNewVersion();
  void handleBegin();
  void handleFile();
  void handlePart();
  void handleLastFile();
  void handleCheck();
  void handleCommit();
  void handleAbort();
  // Commit and abort: runs finish on the session this connection owns, or
  // else on the orphan of this very peer, and forgets it. False when the
  // session went on without this connection (nothing is replied then).
  template <typename Finish>
  bool endSession(const Finish& finish);
  // Passes count bytes of file data to the session, or drops them without
  // one.
  void receiveData(int64_t count);
  // The same for a relayed part, whose bytes come in checked blocks: each
  // block is checked whole before any of it is used. A block that fails
  // drops what the session staged of the part and ends the connection.
  void receiveBlocks(int64_t count);
  // Reads exactly n bytes; like receiveData, they must arrive within the
  // time-out spent waiting for them.
  void readBlock(char* buffer, size_t n);
  // Runs step under the session's work lock, while this connection still
  // owns the session. When another has taken it over (the upload went on
  // along another path), lets it go and returns false; the connection then
  // ends, so that messages it read but did not act on never reach the
  // session behind the new owner's back.
  template <typename Step>
  bool inSession(const Step& step);
  // Reads at least one and at most max bytes; throws when the peer is gone.
  size_t readSome(char* buffer, size_t max);

  SessionTable& mTable;
  const int mIoTimeoutMs;
  Mutex mCloseMutex;    // interrupt() must not touch a closed descriptor
  bool mClosed = false;
  TCPSocket* mSocket;  // owned by mStream
  TCPStream mStream;
  std::string mPeer;
  std::optional<RelayIdentity> mIdentity;
  bool mSeenMessage = false;  // any message after the handshake
  bool mResuming = false;     // opened with a file announcement, no session
  std::shared_ptr<Session> mSession;
  bool mSessionLost = false;  // another connection took the session over
  std::vector<char> mBuffer;  // the one buffer file data passes through
};

#endif  // HIVE_HOPPERD_CONNECTION_H_
