// PairConnector: connections to peers inside the test process. Each connect
// to a registered host makes a local socket pair, hands one end to that
// host's peer and returns the other, so that the client and the relay link
// run as they do over TCP without daemons on the network. A host that is not
// (or no longer) registered refuses, as an unreachable one does.
#ifndef HIVE_TESTS_SUPPORT_PAIRCONNECTOR_H_
#define HIVE_TESTS_SUPPORT_PAIRCONNECTOR_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "util/Connector.h"

class TCPSocket;

class PairConnector : public Connector {
 public:
  // Takes the peer's end of a new connection; it must not block.
  using Peer = std::function<void(std::unique_ptr<TCPSocket>)>;

  // host is an address with or without ":port" (default port 2411).
  void add(const std::string& host, Peer peer);
  // The host refuses connections from now on.
  void remove(const std::string& host);

  System::FileDescriptor connect(const std::string& host, int port, long timeoutMs) override;

 private:
  static std::string key(const std::string& address, int port);
  static std::string key(const std::string& host);
  std::mutex mMutex;
  std::map<std::string, Peer> mPeers;
};

#endif  // HIVE_TESTS_SUPPORT_PAIRCONNECTOR_H_
