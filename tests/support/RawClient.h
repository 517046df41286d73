// RawClient: a hand-driven peer of a daemon for tests that need what the
// real client never does: a chosen source address on the loopback network,
// messages cut short, bytes dribbled slowly, a claimed identity. Every read
// waits at most the time-out given at construction.
#ifndef HIVE_TESTS_SUPPORT_RAWCLIENT_H_
#define HIVE_TESTS_SUPPORT_RAWCLIENT_H_

#include <string>

class RawClient {
 public:
  // Connects from source (a 127.x.y.z address) to address:port; every later
  // call fails when that did not work.
  RawClient(const std::string& source, const std::string& address, int port, int timeoutMs = 10000);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Sends all bytes; false when the daemon has closed the connection.
  bool send(const std::string& bytes);
  // The next int32, int64 (a position) or length-prefixed text; -1 or ""
  // when none arrived in time.
  int readInt32();
  long readInt64();
  std::string readString();
  // The version handshake as a client sends it; true on "OK".
  bool handshake();
  // True when the daemon closes the connection within timeoutMs.
  bool closedWithin(int timeoutMs);
  void close();

 private:
  bool readFull(char* buffer, size_t n);

  int mFd = -1;
  int mTimeoutMs;
  bool mFailed = false;
};

#endif  // HIVE_TESTS_SUPPORT_RAWCLIENT_H_
