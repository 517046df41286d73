// The daemon's one session and who owns it. A session whose upstream
// connection ends without commit or abort is orphaned: kept for the resume
// window, then discarded. A begin from another connection, decided under
// one mutex:
//  - resumes it when relayed with the session's identifier, or when the
//    orphan's client comes in person on a connection opened with a file
//    announcement (it lost its head and goes on here);
//  - otherwise replaces an orphan of the same client (a new run: the orphan
//    is discarded, never mixed in);
//  - otherwise, or for an upload that has ended here, is answered busy,
//    after a short grace when the live session's upstream may be vanishing.
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

// Whatever holds a session; interrupt(), from any thread, makes it let go soon.
class SessionOwner {
 public:
  virtual ~SessionOwner() = default;
  virtual void interrupt() = 0;
};

class SessionTable {
 public:
  // How long a live session of the same client may take to be orphaned.
  static const long kGraceMs = 1500;

  explicit SessionTable(const DaemonConfig& config);

  struct BeginRequest {
    std::vector<std::string> mHosts;       // this host first
    std::string mClientAddress;            // the origin client, as claimed
    std::string mUpstreamHost;             // the host that sends to us
    std::optional<std::string> mUploadId;  // set when relayed by a daemon
    bool mResume = false;  // a client's connection opened with a file announcement
  };

  // The session for owner: a new one, the one it already owns, or one it
  // adopts (whose previous owner is interrupted). Null means busy.
  std::shared_ptr<Session> begin(const std::shared_ptr<SessionOwner>& owner,
                                 const BeginRequest& request);
  // Commit or abort without a begin: owner takes over peerAddress's orphan.
  std::shared_ptr<Session> takeOver(const std::shared_ptr<SessionOwner>& owner,
                                    const std::string& peerAddress);
  // True while owner owns session (not taken over, orphaned or replaced).
  bool owns(const SessionOwner* owner, const Session& session);
  // The owner's connection has ended: its session is orphaned.
  void release(const SessionOwner* owner);
  // The session has committed or aborted: forget it.
  void end(const std::shared_ptr<Session>& session);
  // Discards an orphan whose resume window has passed, unless a connection
  // is busy with it (never blocks). True when one was discarded.
  bool reap();
  // Shutdown: discards the session, waiting at most waitMs for a connection
  // busy with it (false when it gave up).
  bool discardAll(long waitMs);

  // 32 random hex digits.
  static std::string newSessionId();

 private:
  enum Decision { BUSY, ADOPT, REPLACE, WAIT };
  Decision decide(const Session& session, const SessionOwner* owner, const BeginRequest& request);
  std::shared_ptr<Session> adopt(const std::shared_ptr<SessionOwner>& owner,
                                 const std::string& upstreamHost);
  std::shared_ptr<Session> create(const std::shared_ptr<SessionOwner>& owner,
                                  const BeginRequest& request);
  std::shared_ptr<Session> detach();
  // Waits up to the grace for the session to be orphaned or gone.
  void graceFor(Mutex::Lock& lock);

  const DaemonConfig& mConfig;
  Mutex mMutex;
  Condition mChanged;
  std::shared_ptr<Session> mSession;
  // Uploads ended here lately: a lost host waking up must not begin one again.
  std::deque<std::string> mEnded;
};

#endif  // HIVE_HOPPERD_SESSIONTABLE_H_
