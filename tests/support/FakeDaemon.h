// FakeDaemon: a scripted stand-in for hopperd in tests of the client, on a
// loopback address (or, paired, reached through a PairConnector as
// address:2411). Each connection is served on its own thread as its Script
// says and recorded: every byte, the message codes, the file data. Reads time
// out after 10 s. A file announced without a begin gets status 2.
#ifndef HIVE_TESTS_SUPPORT_FAKEDAEMON_H_
#define HIVE_TESTS_SUPPORT_FAKEDAEMON_H_

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

class PairConnector;
class TCPSocket;

// Expected wire bytes (big-endian), built independently of the production
// encoder.
class WireBytes {
 public:
  WireBytes& i32(int v) { return put(unsigned(v), 4); }
  WireBytes& i64(long v) { return put((unsigned long)v, 8); }
  WireBytes& flag(bool v) { return put(v ? 1 : 0, 1); }
  WireBytes& str(const std::string& s) { return i32(int(s.size())).raw(s); }  // length, bytes
  WireBytes& raw(const std::string& s) { mBytes += s; return *this; }
  const std::string& bytes() const { return mBytes; }
  operator const std::string&() const { return mBytes; }

 private:
  WireBytes& put(unsigned long v, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) mBytes += char(v >> shift);
    return *this;
  }
  std::string mBytes;
};

class FakeDaemon {
  using Lock = std::lock_guard<std::mutex>;

 public:
  // How to answer on one connection.
  struct Script {
    // C2H_NEW_GET_VERSION gets "OK" and `version`; any other reply text is
    // sent instead and the connection closed. The old request gets `version`.
    std::string newHandshakeReply = "OK";
    int version = 5;
    // Begin: the status, and for 3 the lists and text. 0 and 3 open a session.
    int beginStatus = 0;
    std::vector<std::pair<std::string, int>> beginBad;
    std::vector<std::string> beginBusy;
    std::string beginText;
    // A file within a session: 0 accepts from `position` (at most the size),
    // 2 claims no session, anything else refuses it with `fileText`.
    int fileStatus = 0;
    long position = 0;
    std::string fileText;
    std::string fileReply;          // after each file's data
    // Close the descriptor, as a dying process does, once this many data
    // bytes came (-1: never).
    long closeAfterDataBytes = -1;
    // Like a stopped process: neither read nor answer any more once this many
    // data bytes came (-1: never), or on a commit when answerCommit is false.
    long stallAfterDataBytes = -1;
    bool answerCommit = true;
    int replyDelayMs = 0;           // wait before every reply
  };

  struct Connection {
    std::string received;    // every byte, in order
    std::vector<int> codes;  // message codes, in order
    std::string data;        // file data bytes of all files, in order
  };

  // Pseudo code passed to the message hook when a file's data is complete.
  static const int kDataReceived = 0;

  // Listens on address:port (0: ephemeral). Throws on failure.
  explicit FakeDaemon(const std::string& address = "127.0.0.1", int port = 0);
  // Paired: registers itself with connector as address:2411.
  FakeDaemon(PairConnector& connector, const std::string& address);
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  // The script for every connection without one of its own, and for the
  // index-th connection (0-based, in accept order).
  void setScript(const Script& s) { Lock lock(mMutex); mDefault = s; }
  void setScriptFor(int index, const Script& s) { Lock lock(mMutex); mScripts[index] = s; }
  // Called on the connection's thread with each message code (kDataReceived
  // after a file's data) before the reply goes out.
  void setOnMessage(std::function<void(int)> hook) { Lock lock(mMutex); mOnMessage = hook; }

  const std::string& address() const { return mAddress; }
  int port() const { return mPort; }
  // "address:port", a host identifier for the client.
  std::string hostId() const { return mAddress + ":" + std::to_string(mPort); }

  int connectionCount() const { Lock lock(mMutex); return int(mConnections.size()); }
  // Snapshot of the index-th connection's records.
  Connection connection(int index) const {
    Lock lock(mMutex);
    return index < int(mConnections.size()) ? mConnections[index] : Connection();
  }
  // Message codes of all connections, connection by connection.
  std::vector<int> allCodes() const;
  // Waits up to timeoutMs until n connections have ended; true when they did.
  bool waitForClosedConnections(int n, int timeoutMs) const;

  // A port on address that nothing listens on (bound once, then released).
  static int unusedPort(const std::string& address = "127.0.0.1");

 private:
  struct Session;
  void acceptLoop();
  void adopt(std::unique_ptr<TCPSocket> socket);
  void serve(int index, std::shared_ptr<TCPSocket> socket);

  std::string mAddress;
  int mPort = 0;
  std::unique_ptr<TCPSocket> mListener;
  PairConnector* mConnector = nullptr;
  std::atomic<bool> mStop{false};
  mutable std::mutex mMutex;
  Script mDefault;
  std::map<int, Script> mScripts;
  std::function<void(int)> mOnMessage;
  std::vector<Connection> mConnections;
  std::vector<std::shared_ptr<TCPSocket>> mSockets;
  int mClosed = 0;
  mutable std::condition_variable mClosedCond;
  std::vector<std::thread> mThreads;
  std::thread mAcceptThread;
};

#endif  // HIVE_TESTS_SUPPORT_FAKEDAEMON_H_
