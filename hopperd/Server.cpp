#include "hopperd/Server.h"

#include <algorithm>
#include <system_error>

#include "util/Logger.h"
#include "util/System.h"

namespace {

const int kAcceptPollMs = 200;

}  // namespace

Server::Server(DaemonConfig config) : mConfig(std::move(config)), mTable(mConfig) {}

Server::~Server() { stopWorkers(kStopWaitMs); }

void Server::listen() {
  mListener.listen(mConfig.mBindAddress, mConfig.mPort);
  HC_LOG_INFO("Listening on " << mConfig.mBindAddress << ":" << port() << ", root "
              << mConfig.mRoot << ", allowing " << mConfig.mAllow.toString());
}

bool Server::run() {
  while (!mStopping) {
    std::unique_ptr<TCPSocket> socket = mListener.accept(kAcceptPollMs);
    if (socket) serve(std::move(socket));
    mTable.reap();
    joinFinished();
  }
  HC_LOG_INFO("Shutting down");
  mListener.close();
  const Ticks start = Ticks::currentTime();
  const bool clean = mTable.discardAll(kStopWaitMs);
  const long left = kStopWaitMs - long((Ticks::currentTime() - start).nanos() / 1000000);
  return stopWorkers(std::max(left, 100L)) && clean;
}

std::string Server::refusal(const std::string& peer) {
  if (!mConfig.mAllow.allows(peer)) return "not in the allow list";
  joinFinished();  // connections that just ended do not count
  if (mWorkers.size() >= static_cast<size_t>(mConfig.mMaxConnections)) {
    return std::to_string(mWorkers.size()) + " connections already";
  }
  const auto fromPeer = std::count_if(mWorkers.begin(), mWorkers.end(),
                                      [&](const Worker& w) { return w.mPeer == peer; });
  if (fromPeer >= mConfig.mMaxConnectionsPerPeer) {
    return std::to_string(fromPeer) + " connections from that address already";
  }
  return std::string();
}

void Server::serve(std::unique_ptr<TCPSocket> socket) {
  const std::string peer = socket->getRemoteHost();
  const std::string why = refusal(peer);
  if (!why.empty()) {
    HC_LOG_INFO("Connection from " << peer << " refused: " << why);
    return;
  }
  Worker worker;
  worker.mPeer = peer;
  worker.mConnection =
      std::make_shared<Connection>(std::move(socket), mTable, mConfig.mIoTimeoutSeconds * 1000);
  worker.mDone = std::make_shared<std::atomic<bool>>(false);
  try {
    worker.mThread = std::thread([connection = worker.mConnection, done = worker.mDone] {
      connection->run();
      *done = true;
    });
  } catch (const std::system_error& e) {
    HC_LOG_INFO("Connection from " << peer << " refused: " << e.what());
    return;
  }
  mWorkers.push_back(std::move(worker));
}

void Server::joinFinished() {
  for (auto it = mWorkers.begin(); it != mWorkers.end();) {
    if (*it->mDone) {
      it->mThread.join();
      it = mWorkers.erase(it);
    } else {
      ++it;
    }
  }
}

bool Server::stopWorkers(long waitMs) {
  for (Worker& worker : mWorkers) worker.mConnection->interrupt();
  const Ticks until = Ticks::currentTime() + Ticks(int64_t(waitMs) * 1000000);
  joinFinished();
  while (!mWorkers.empty() && Ticks::currentTime() < until) {
    System::sleep(10);
    joinFinished();
  }
  if (mWorkers.empty()) return true;
  HC_LOG_INFO(mWorkers.size() << " connections still busy at shutdown; not waiting for them");
  // The process exits right after; each thread holds what it uses.
  for (Worker& worker : mWorkers) worker.mThread.detach();
  mWorkers.clear();
  return false;
}
