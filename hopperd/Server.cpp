#include "hopperd/Server.h"

#include <system_error>

#include "util/Logger.h"

namespace {

const int kAcceptPollMs = 200;

}  // namespace

Server::Server(DaemonConfig config) : mConfig(std::move(config)), mTable(mConfig) {}

Server::~Server() { joinWorkers(true); }

void Server::listen() {
  mListener.listen(mConfig.mBindAddress, mConfig.mPort);
  HC_LOG_INFO("Listening on " << mConfig.mBindAddress << ":" << port() << ", root "
              << mConfig.mRoot << ", allowing " << mConfig.mAllow.toString());
}

void Server::run() {
  while (!mStopping) {
    std::unique_ptr<TCPSocket> socket = mListener.accept(kAcceptPollMs);
    if (socket) serve(std::move(socket));
    mTable.reap();
    joinWorkers(false);
  }
  HC_LOG_INFO("Shutting down");
  mListener.close();
  mTable.discardAll();
  joinWorkers(true);
}

void Server::serve(std::unique_ptr<TCPSocket> socket) {
  const std::string peer = socket->getRemoteHost();
  if (!mConfig.mAllow.allows(peer)) {
    HC_LOG_INFO("Connection from " << peer << " refused: not in the allow list");
    return;
  }
  if (mWorkers.size() >= static_cast<size_t>(mConfig.mMaxConnections)) {
    HC_LOG_INFO("Connection from " << peer << " refused: " << mWorkers.size()
                << " connections already");
    return;
  }
  Worker worker;
  worker.mConnection = std::make_shared<Connection>(std::move(socket), mTable);
  worker.mDone = std::make_shared<std::atomic<bool>>(false);
  std::shared_ptr<Connection> connection = worker.mConnection;
  std::shared_ptr<std::atomic<bool>> done = worker.mDone;
  try {
    worker.mThread = std::thread([connection, done] {
      connection->run();
      *done = true;
    });
  } catch (const std::system_error& e) {
    HC_LOG_INFO("Connection from " << peer << " refused: " << e.what());
    return;
  }
  mWorkers.push_back(std::move(worker));
}

void Server::joinWorkers(bool all) {
  if (all) {
    for (Worker& worker : mWorkers) worker.mConnection->interrupt();
  }
  for (auto it = mWorkers.begin(); it != mWorkers.end();) {
    if (all || *it->mDone) {
      it->mThread.join();
      it = mWorkers.erase(it);
    } else {
      ++it;
    }
  }
}
