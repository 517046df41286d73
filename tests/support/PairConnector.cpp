#include "support/PairConnector.h"

#include "util/StringUtilities.h"
#include "util/TCPSocket.h"

std::string PairConnector::key(const std::string& address, int port) {
  return address + ":" + std::to_string(port);
}

void PairConnector::add(const std::string& host, Peer peer) {
  std::string address;
  int port = 2411;
  parseHostPort(host, address, port);
  std::lock_guard<std::mutex> lock(mMutex);
  mPeers[key(address, port)] = std::move(peer);
}

void PairConnector::remove(const std::string& host) {
  std::string address;
  int port = 2411;
  parseHostPort(host, address, port);
  std::lock_guard<std::mutex> lock(mMutex);
  mPeers.erase(key(address, port));
}

int PairConnector::connects() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mConnects;
}

System::FileDescriptor PairConnector::connect(const std::string& host, int port, long) {
  Peer peer;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mPeers.find(key(host, port));
    if (it == mPeers.end()) throw TCPSocket::exception("couldn't connect to server");
    peer = it->second;
    ++mConnects;
  }
  auto ends = TCPSocket::pair();
  peer(std::make_unique<TCPSocket>(ends.second.release()));
  return std::move(ends.first);
}
