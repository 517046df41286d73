// The daemon's one session and who owns it. A begin on another connection
// while a session exists is answered busy, except when it resumes that
// session: the same upload relayed again (its identifier), or the same
// client coming back through a host set that leaves out the session's
// upstream host. A session whose upstream connection ends without commit or
// abort is orphaned: kept for the resume window, then discarded. All these
// decisions are made under one mutex.
#ifndef HC_HOPPERD_SESSIONTABLE_H
#define HC_HOPPERD_SESSIONTABLE_H

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
  // An upstream that is silent this long is taken for dead by a resuming
  // client; a live one is given this grace to close before the answer is busy.
  static const int64_t kQuietNanos = 30LL * 1000 * 1000 * 1000;
  static const long kGraceMs = 1500;

  explicit SessionTable(const DaemonConfig& config);

  struct BeginRequest {
    std::vector<std::string> mHosts;       // this host first
    std::string mClientAddress;            // the origin client
    std::string mUpstreamHost;             // the host that sends to us
    std::optional<std::string> mUploadId;  // set when relayed by a daemon
  };

  // The session for owner: a new one, the one it already owns, or one it
  // adopts (whose previous owner is interrupted). Null means busy.
  std::shared_ptr<Session> begin(const std::shared_ptr<SessionOwner>& owner,
                                 const BeginRequest& request);
  // Commit or abort without a begin: owner takes over the session of the
  // client address, if there is one that is not busy with a live upstream.
  std::shared_ptr<Session> takeOver(const std::shared_ptr<SessionOwner>& owner,
                                    const std::string& clientAddress);
  // The owner's connection has ended: its session, if it still owns it, is
  // orphaned and its relay link dropped.
  void release(const SessionOwner* owner);
  // The session has committed or aborted: forget it.
  void end(const std::shared_ptr<Session>& session);
  // Discards an orphaned session whose resume window has passed, unless a
  // connection is still busy with it (never blocks). Returns true when one
  // was discarded.
  bool reap();
  // Shutdown: discards the session, whatever its state.
  void discardAll();

 private:
  enum Decision { BUSY, ADOPT, WAIT };
  Decision decide(const Session& session, const SessionOwner* owner, const BeginRequest& request);
  std::shared_ptr<Session> adopt(const std::shared_ptr<SessionOwner>& owner,
                                 const std::string& upstreamHost);
  bool upstreamGone(const Session& session) const;
  std::string newSessionId();

  const DaemonConfig& mConfig;
  Mutex mMutex;
  Condition mChanged;
  std::shared_ptr<Session> mSession;
};

#endif  // HC_HOPPERD_SESSIONTABLE_H
