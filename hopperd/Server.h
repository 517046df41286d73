// The daemon's accept loop: one thread per accepted connection (up to the
// configured cap; more are closed at once), peers outside the allow list
// closed and logged, orphaned sessions discarded when their resume window
// passes, and an orderly stop that aborts the session on this host.
#ifndef HC_HOPPERD_SERVER_H
#define HC_HOPPERD_SERVER_H

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
  // Serves until stop(); then discards the session on this host, ends every
  // connection and returns once their threads have finished.
  void run();
  // Asks run() to return; callable from any thread (the signal dispatcher).
  void stop() { mStopping = true; }

 private:
  struct Worker {
    std::shared_ptr<Connection> mConnection;
    std::thread mThread;
    std::shared_ptr<std::atomic<bool>> mDone;
  };
  void serve(std::unique_ptr<TCPSocket> socket);
  // Joins finished workers (all of them with all, after interrupting them).
  void joinWorkers(bool all);

  const DaemonConfig mConfig;
  SessionTable mTable;
  TCPSocket mListener;
  std::atomic<bool> mStopping{false};
  std::list<Worker> mWorkers;  // touched by the run() thread only
};

#endif  // HC_HOPPERD_SERVER_H
