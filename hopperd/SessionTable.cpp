#include "hopperd/SessionTable.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "util/Logger.h"
#include "util/System.h"

SessionTable::SessionTable(const DaemonConfig& config) : mConfig(config) {}

std::string SessionTable::newSessionId() {
  std::random_device random;
  char id[33];
  std::snprintf(id, sizeof id, "%08x%08x%08x%08x", unsigned(random()), unsigned(random()),
                unsigned(random()), unsigned(random()));
  return id;
}

SessionTable::Decision SessionTable::decide(const Session& session, const SessionOwner* owner,
                                            const BeginRequest& request) {
  if (session.mOwnerId == owner) return ADOPT;
  // The same upload relayed along another path; not from this very session.
  if (request.mUploadId && *request.mUploadId == session.id()) {
    return request.mUpstreamHost != session.mSelf ? ADOPT : BUSY;
  }
  if (request.mClientAddress != session.clientAddress()) return BUSY;
  if (request.mResume && !request.mUploadId) return session.mOrphaned ? ADOPT : WAIT;
  // Any other begin is a new upload: it never continues an old one.
  return session.mOrphaned ? REPLACE : WAIT;
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
  mChanged.broadcast();
  return mSession;
}

std::shared_ptr<Session> SessionTable::create(const std::shared_ptr<SessionOwner>& owner,
                                              const BeginRequest& request) {
  mSession = std::make_shared<Session>(request.mUploadId.value_or(newSessionId()),
                                       request.mHosts, request.mClientAddress, mConfig);
  mSession->mOwner = owner;
  mSession->mOwnerId = owner.get();
  mSession->mUpstreamHost = request.mUpstreamHost;
  HC_LOG_INFO("Session " << mSession->id() << " begun for " << request.mClientAddress
              << " from " << request.mUpstreamHost);
  mChanged.broadcast();
  return mSession;
}

std::shared_ptr<Session> SessionTable::detach() {
  std::shared_ptr<Session> session;
  session.swap(mSession);
  mChanged.broadcast();
  return session;
}

void SessionTable::graceFor(Mutex::Lock& lock) {
  const std::shared_ptr<Session> watched = mSession;
  mChanged.waitFor(lock, kGraceMs, [&] { return mSession != watched || watched->mOrphaned; });
}

std::shared_ptr<Session> SessionTable::begin(const std::shared_ptr<SessionOwner>& owner,
                                             const BeginRequest& request) {
  std::shared_ptr<Session> replaced;
  {
    Mutex::Lock lock(mMutex);
    if (request.mUploadId &&
        std::find(mEnded.begin(), mEnded.end(), *request.mUploadId) != mEnded.end()) {
      return nullptr;
    }
    for (int round = 0; !replaced; ++round) {
      if (!mSession) return create(owner, request);
      const Decision decision = decide(*mSession, owner.get(), request);
      if (decision == ADOPT) return adopt(owner, request.mUpstreamHost);
      if (decision == REPLACE) {
        replaced = detach();
      } else if (decision == WAIT && round == 0) {
        graceFor(lock);
      } else {
        return nullptr;
      }
    }
  }
  // The orphan's staged files go before the new upload stages anything.
  HC_LOG_INFO("Session " << replaced->id() << " of " << replaced->clientAddress()
              << " discarded: its client began a new upload");
  {
    Mutex::Lock work(replaced->workMutex());
    replaced->discard();
  }
  Mutex::Lock lock(mMutex);
  return mSession ? nullptr : create(owner, request);
}

std::shared_ptr<Session> SessionTable::takeOver(const std::shared_ptr<SessionOwner>& owner,
                                                const std::string& peerAddress) {
  Mutex::Lock lock(mMutex);
  for (int round = 0; round < 2; ++round) {
    if (!mSession || mSession->clientAddress() != peerAddress) return nullptr;
    if (mSession->mOwnerId == owner.get() || mSession->mOrphaned) {
      return adopt(owner, mSession->mUpstreamHost);
    }
    if (round == 0) graceFor(lock);
  }
  return nullptr;
}

bool SessionTable::owns(const SessionOwner* owner, const Session& session) {
  Mutex::Lock lock(mMutex);
  return mSession.get() == &session && session.mOwnerId == owner;
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
  const size_t kRemembered = 64;
  Mutex::Lock lock(mMutex);
  if (mSession == session) mSession.reset();
  mEnded.push_back(session->id());
  if (mEnded.size() > kRemembered) mEnded.pop_front();
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
    victim = detach();
  }
  HC_LOG_INFO("Resume window of session " << victim->id() << " expired");
  victim->discard();
  victim->workMutex().unlock();
  return true;
}

bool SessionTable::discardAll(long waitMs) {
  std::shared_ptr<Session> victim;
  std::shared_ptr<SessionOwner> owner;
  {
    Mutex::Lock lock(mMutex);
    if (!mSession) return true;
    owner = mSession->mOwner.lock();
    mSession->mOwner.reset();
    mSession->mOwnerId = nullptr;
    victim = detach();
  }
  if (owner) owner->interrupt();
  victim->cancel();
  // One stuck in a command or a disk write is left to the journal clean-up.
  const Ticks until = Ticks::currentTime() + Ticks(int64_t(waitMs) * 1000000);
  while (!victim->workMutex().try_lock()) {
    if (Ticks::currentTime() > until) {
      HC_LOG_INFO("Session " << victim->id() << " still busy at shutdown; left to the journal");
      return false;
    }
    System::sleep(10);
  }
  victim->discard();
  victim->workMutex().unlock();
  return true;
}
