#include "hopperd/SessionTable.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <random>

#include "util/Logger.h"

SessionTable::SessionTable(const DaemonConfig& config) : mConfig(config) {}

std::string SessionTable::newSessionId() {
  std::random_device random;
  const uint64_t value = (uint64_t(random()) << 32) ^ uint64_t(random()) ^
                         uint64_t(Ticks::currentTime().nanos());
  char text[17];
  std::snprintf(text, sizeof text, "%016" PRIx64, value);
  return text;
}

bool SessionTable::upstreamGone(const Session& session) const {
  return session.mOrphaned || session.mOwner.expired() ||
         Ticks::currentTime().nanos() - session.lastActivity() > kQuietNanos;
}

SessionTable::Decision SessionTable::decide(const Session& session, const SessionOwner* owner,
                                            const BeginRequest& request) {
  if (session.mOwnerId == owner) return ADOPT;
  // A relayed begin resumes exactly its own upload and nothing else; one
  // from this very session (a host set naming us twice) is refused.
  if (request.mUploadId) {
    return *request.mUploadId == session.id() && request.mUpstreamHost != session.self() ? ADOPT
                                                                                          : BUSY;
  }
  if (request.mClientAddress != session.clientAddress()) return BUSY;
  // The client resumes here only after giving up on our upstream host.
  const std::vector<std::string>& hosts = request.mHosts;
  if (std::find(hosts.begin(), hosts.end(), session.mUpstreamHost) != hosts.end()) return BUSY;
  return upstreamGone(session) ? ADOPT : WAIT;
}

std::shared_ptr<Session> SessionTable::adopt(const std::shared_ptr<SessionOwner>& owner,
                                             const std::string& upstreamHost) {
  Session& session = *mSession;
  if (session.mOwnerId != owner.get()) {
    std::shared_ptr<SessionOwner> previous = session.mOwner.lock();
    session.mOwner = owner;
    session.mOwnerId = owner.get();
    session.mOrphaned = false;
    ++session.mOwnerChanges;
    if (previous) previous->interrupt();
    HC_LOG_INFO("Session " << session.id() << " resumed from " << upstreamHost);
  }
  session.mUpstreamHost = upstreamHost;
  session.touch();
  mChanged.broadcast();
  return mSession;
}

std::shared_ptr<Session> SessionTable::begin(const std::shared_ptr<SessionOwner>& owner,
                                             const BeginRequest& request) {
  Mutex::Lock lock(mMutex);
  for (int round = 0; round < 2; ++round) {
    if (!mSession) {
      mSession = std::make_shared<Session>(request.mUploadId.value_or(newSessionId()),
                                           request.mHosts, request.mClientAddress, mConfig);
      mSession->mOwner = owner;
      mSession->mOwnerId = owner.get();
      mSession->mUpstreamHost = request.mUpstreamHost;
      HC_LOG_INFO("Session " << mSession->id() << " begun for " << request.mClientAddress
                  << " from " << request.mUpstreamHost);
      return mSession;
    }
    const Decision decision = decide(*mSession, owner.get(), request);
    if (decision == ADOPT) return adopt(owner, request.mUpstreamHost);
    if (decision == BUSY || round > 0) break;
    // The same client may be resuming before we noticed its old path close.
    const std::shared_ptr<Session> watched = mSession;
    mChanged.waitFor(lock, kGraceMs, [&] { return mSession != watched || watched->mOrphaned; });
  }
  return nullptr;
}

std::shared_ptr<Session> SessionTable::takeOver(const std::shared_ptr<SessionOwner>& owner,
                                                const std::string& clientAddress) {
  Mutex::Lock lock(mMutex);
  for (int round = 0; round < 2; ++round) {
    if (!mSession || mSession->clientAddress() != clientAddress) return nullptr;
    if (mSession->mOwnerId == owner.get() || upstreamGone(*mSession)) {
      return adopt(owner, mSession->mUpstreamHost);
    }
    if (round > 0) break;
    const std::shared_ptr<Session> watched = mSession;
    mChanged.waitFor(lock, kGraceMs, [&] { return mSession != watched || watched->mOrphaned; });
  }
  return nullptr;
}

void SessionTable::release(const SessionOwner* owner) {
  std::shared_ptr<Session> orphan;
  uint64_t changes = 0;
  {
    Mutex::Lock lock(mMutex);
    if (!mSession || mSession->mOwnerId != owner) return;
    orphan = mSession;
    orphan->mOrphaned = true;
    orphan->mOrphanedAt = Ticks::currentTime();
    orphan->mOwner.reset();
    orphan->mOwnerId = nullptr;
    changes = ++orphan->mOwnerChanges;
    mChanged.broadcast();
  }
  HC_LOG_INFO("Session " << orphan->id() << " lost its upstream; kept for "
              << mConfig.mResumeWindowSeconds << " s");
  Mutex::Lock work(orphan->workMutex());
  {
    Mutex::Lock lock(mMutex);
    if (mSession != orphan || orphan->mOwnerChanges != changes) return;
  }
  orphan->closeDownstream();
}

void SessionTable::end(const std::shared_ptr<Session>& session) {
  Mutex::Lock lock(mMutex);
  if (mSession == session) mSession.reset();
  mChanged.broadcast();
}

bool SessionTable::reap() {
  std::shared_ptr<Session> victim;
  {
    Mutex::Lock lock(mMutex);
    if (!mSession || !mSession->mOrphaned) return false;
    const int64_t window = int64_t(mConfig.mResumeWindowSeconds) * 1000 * 1000 * 1000;
    if ((Ticks::currentTime() - mSession->mOrphanedAt).nanos() < window) return false;
    // Never wait for a connection still busy with it: try again next time.
    if (!mSession->workMutex().try_lock()) return false;
    victim.swap(mSession);
    mChanged.broadcast();
  }
  HC_LOG_INFO("Resume window of session " << victim->id() << " expired");
  victim->discard();
  victim->workMutex().unlock();
  return true;
}

void SessionTable::discardAll() {
  std::shared_ptr<Session> victim;
  std::shared_ptr<SessionOwner> owner;
  {
    Mutex::Lock lock(mMutex);
    victim.swap(mSession);
    if (victim) {
      owner = victim->mOwner.lock();
      victim->mOwner.reset();
      victim->mOwnerId = nullptr;
    }
    mChanged.broadcast();
  }
  if (!victim) return;
  if (owner) owner->interrupt();
  Mutex::Lock work(victim->workMutex());
  victim->discard();
}
