// One accepted connection, from a client or an upstream daemon (which sends
// the relay identity first): reads a message code and acts on it until the
// peer closes. A bound violation, or a message or block of file data slower
// than the time-out, is logged and closes the connection.
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

  // The message loop, until the peer closes, a protocol error or
  // interrupt(). Orphans the session if the connection still owns it.
  void run();
  // Wakes run() from another thread by shutting the socket down.
  void interrupt() override;

 private:
  // False when the peer closed or, without a session, stayed silent.
  bool waitForMessage();
  void sendReply();
  // False ends the connection.
  bool handle(int code);
  void handleBegin();
  void handleFile();
  void handlePart();
  void handleLastFile();
  void handleCheck();
  void handleCommit();
  void handleAbort();
  // Commit and abort: runs finish on the session owned or this peer's
  // orphan. False when the session went on without this connection.
  template <typename Finish>
  bool endSession(const Finish& finish);
  // Passes count bytes of file data to the session (dropped without one).
  void receiveData(int64_t count);
  // The same for a relayed part's checked blocks; a block that fails its
  // check drops the part's staged copy and ends the connection.
  void receiveBlocks(int64_t count);
  // Throws when the waits for one block of file data passed the time-out.
  void checkPace(const Ticks& waitedBefore) const;
  // Runs step under the session's work lock while this connection owns the
  // session; else lets it go and returns false (the connection ends).
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
