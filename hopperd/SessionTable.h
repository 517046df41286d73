// The daemon's one session and who owns it. A session whose upstream
// connection ends without commit or abort is orphaned: kept for the resume
// window, then discarded. A begin from another connection while a session
// exists:
//  - resumes it when it is relayed with the session's own identifier, or
//    when it comes from the session's client in person, on a connection
//    whose first message was a file announcement (the client lost its head
//    and goes on here), and the session is orphaned;
//  - otherwise replaces an orphaned session of the same client (a new run
//    after a crash: the orphan is discarded, never mixed in);
//  - otherwise is answered busy, and so is a relayed begin of an upload
//    that has already ended here.
// A live session whose upstream is about to vanish is given a short grace
// before the answer. All these decisions are made under one mutex.
#ifndef HIVE_HOPPERD_SESSIONTABLE_H_
#define HIVE_HOPPERD_SESSIONTABLE_H_

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hopperd/DaemonConfig.h"
#include "hopperd/Session.h"
#include "util/Condition.h"
#include "util/Mutex.h"

// Whatever holds a session (a connection); interrupt() may be called from
// another thread and makes its owner let go of the session soon.
class SessionOwner {
 public:
  virtual ~SessionOwner() = default;
  virtual void interrupt() = 0;
};

class SessionTable {
 public:
  // A live session of the same client is given this grace to be orphaned
  // before the answer is busy (its old connection may not have closed yet).
  static const long kGraceMs = 1500;

  explicit SessionTable(const DaemonConfig& config);

  struct BeginRequest {
    std::vector<std::string> mHosts;       // this host first
    std::string mClientAddress;            // the origin client, as claimed
    std::string mUpstreamHost;             // the host that sends to us
    std::optional<std::string> mUploadId;  // set when relayed by a daemon
    // A client in person resuming: its connection opened with a file
    // announcement, answered "no session".
    bool mResume = false;
  };

  // The session for owner: a new one, the one it already owns, or one it
  // adopts (whose previous owner is interrupted). Null means busy.
  std::shared_ptr<Session> begin(const std::shared_ptr<SessionOwner>& owner,
                                 const BeginRequest& request);
  // Commit or abort without a begin: owner takes over the orphaned session
  // of peerAddress (the connection's real peer), if there is one.
  std::shared_ptr<Session> takeOver(const std::shared_ptr<SessionOwner>& owner,
                                    const std::string& peerAddress);
  // True while owner owns session (no other connection took it over, and
  // it was neither orphaned nor replaced).
  bool owns(const SessionOwner* owner, const Session& session);
  // The owner's connection has ended: its session, if it still owns it, is
  // orphaned and its relay link dropped.
  void release(const SessionOwner* owner);
  // The session has committed or aborted: forget it.
  void end(const std::shared_ptr<Session>& session);
  // Discards an orphaned session whose resume window has passed, unless a
  // connection is still busy with it (never blocks). Returns true when one
  // was discarded.
  bool reap();
  // Shutdown: discards the session, whatever its state, waiting at most
  // waitMs for a connection busy with it (false when it gave up).
  bool discardAll(long waitMs);

  // 32 hex digits from the system's random source.
  static std::string newSessionId();

 private:
  enum Decision { BUSY, ADOPT, REPLACE, WAIT };
  Decision decide(const Session& session, const SessionOwner* owner, const BeginRequest& request);
  std::shared_ptr<Session> adopt(const std::shared_ptr<SessionOwner>& owner,
                                 const std::string& upstreamHost);
  std::shared_ptr<Session> create(const std::shared_ptr<SessionOwner>& owner,
                                  const BeginRequest& request);
  // Takes the session out of the table; the caller discards it.
  std::shared_ptr<Session> detach();
  // Waits up to the grace for the watched session to be orphaned or gone.
  void graceFor(Mutex::Lock& lock);

  const DaemonConfig& mConfig;
  Mutex mMutex;
  Condition mChanged;
  std::shared_ptr<Session> mSession;
  // Uploads that committed or aborted here lately: a host lost from the
  // chain that wakes up and relays one again must not begin it afresh.
  std::deque<std::string> mEnded;
};

#endif  // HIVE_HOPPERD_SESSIONTABLE_H_
