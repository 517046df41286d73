#include "support/PairConnector.h"

#include "util/StringUtilities.h"
#include "util/TCPSocket.h"

std::string PairConnector::key(const std::string& address, int port) {
  return address + ":" + std::to_string(port);
}

std::string PairConnector::key(const std::string& host) {
  std::string address;
  int port = 2411;
  parseHostPort(host, address, port);
  return key(address, port);
}

void PairConnector::add(const std::string& host, Peer peer) {
  std::lock_guard<std::mutex> lock(mMutex);
  mPeers[key(host)] = std::move(peer);
}

void PairConnector::remove(const std::string& host) {
  std::lock_guard<std::mutex> lock(mMutex);
  mPeers.erase(key(host));
}

System::FileDescriptor PairConnector::connect(const std::string& host, int port, long) {
  Peer peer;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mPeers.find(key(host, port));
    if (it == mPeers.end()) throw TCPSocket::exception("couldn't connect to server");
    peer = it->second;
  }
  auto ends = TCPSocket::pair();
  peer(std::make_unique<TCPSocket>(ends.second.release()));
  return std::move(ends.first);
}
