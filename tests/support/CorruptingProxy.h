// CorruptingProxy: a TCP relay for tests that sits between two daemons and
// damages what passes. It listens on an address and port, connects each
// accepted connection to the target, and copies bytes both ways; in the
// direction from the connecting side it flips one byte, once in its life,
// when a connection has carried more than flipAfter bytes. When either side
// closes, both are closed. The destructor stops every thread within a
// bounded time.
#ifndef HIVE_TESTS_SUPPORT_CORRUPTINGPROXY_H_
#define HIVE_TESTS_SUPPORT_CORRUPTINGPROXY_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class TCPSocket;

class CorruptingProxy {
 public:
  // Throws TCPSocket::exception when it cannot listen.
  CorruptingProxy(const std::string& address, int port, std::string targetAddress,
                  int targetPort, int64_t flipAfter);
  ~CorruptingProxy();

  // True once the byte was flipped.
  bool flipped() const { return mFlipped; }

 private:
  void acceptLoop();
  void pump(TCPSocket& from, TCPSocket& to, bool corrupt);

  const std::string mTargetAddress;
  const int mTargetPort;
  const int64_t mFlipAfter;
  std::unique_ptr<TCPSocket> mListener;
  std::atomic<bool> mStop{false};
  std::atomic<bool> mFlipped{false};
  std::mutex mMutex;
  std::vector<std::shared_ptr<TCPSocket>> mSockets;
  std::vector<std::thread> mThreads;
  std::thread mAcceptThread;
};

#endif  // HIVE_TESTS_SUPPORT_CORRUPTINGPROXY_H_
