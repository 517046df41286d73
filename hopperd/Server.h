// The daemon's accept loop: one thread per connection (up to the caps, in
// all and per peer; peers beyond them or outside the allow list are closed
// and logged), orphans discarded when their resume window passes, and a
// stop that discards the session within a bounded time.
#ifndef HIVE_HOPPERD_SERVER_H_
#define HIVE_HOPPERD_SERVER_H_

#include <atomic>
#include <list>
#include <memory>
#include <thread>

#include "hopperd/Connection.h"
#include "hopperd/DaemonConfig.h"
#include "hopperd/SessionTable.h"
#include "util/Mutex.h"
#include "util/TCPSocket.h"

class Server {
 public:
  explicit Server(DaemonConfig config);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens; throws TCPSocket::exception on failure.
  void listen();
  // The port listened on (useful with port 0).
  int port() const { return mListener.getListenerPort(); }
  // Serves until stop(), then discards the session and ends every
  // connection. False when some were still busy after kStopWaitMs.
  bool run();
  static const long kStopWaitMs = 1500;
  // Asks run() to return; from any thread.
  void stop() { mStopping = true; }

 private:
  struct Worker {
    std::string mPeer;
    std::shared_ptr<Connection> mConnection;
    std::thread mThread;
    std::shared_ptr<std::atomic<bool>> mDone;
  };
  void serve(std::unique_ptr<TCPSocket> socket);
  void joinFinished();
  // Interrupts every worker and joins those that end within waitMs; the
  // others are detached. True when all ended.
  bool stopWorkers(long waitMs);
  // Why a connection from peer cannot be served now ("" when it can).
  std::string refusal(const std::string& peer);

  const DaemonConfig mConfig;
  SessionTable mTable;
  TCPSocket mListener;
  std::atomic<bool> mStopping{false};
  std::list<Worker> mWorkers;  // touched by the run() thread only
};

#endif  // HIVE_HOPPERD_SERVER_H_
