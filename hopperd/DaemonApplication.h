// The daemon program: its switches, start-up, and the accept loop: one
// thread per connection (up to the caps, in all and per peer; peers beyond
// them or outside the allow list are closed and logged), orphans discarded
// when their resume window passes, and a stop that discards the session
// within a bounded time.
#ifndef HIVE_HOPPERD_DAEMONAPPLICATION_H_
#define HIVE_HOPPERD_DAEMONAPPLICATION_H_

#include <atomic>
#include <list>
#include <memory>
#include <thread>

#include "hopper/Application.h"
#include "hopperd/Connection.h"
#include "hopperd/DaemonConfig.h"

class DaemonApplication : public Application {
 public:
  enum DaemonOptionID {
    ARG_PORT = 600,
    ARG_BIND,
    ARG_ROOT,
    ARG_ALLOW,
    ARG_ALLOW_PATH,
    ARG_STATE_DIR,
    ARG_RESUME_WINDOW,
    ARG_STOP_AGENTS_CMD,
    ARG_START_AGENTS_CMD,
    ARG_IO_TIMEOUT
  };

  DaemonApplication();

  // Serves until a shutdown signal, then ends every connection; 0 afterwards.
  int run() override;
  void usage() override;
  // The switches; a positional argument prints the usage and throws.
  void parseArgs(int argc, char** argv) override;
  // Standard error under systemd, else /var/log/hopperd.log.
  std::string defaultLogFile() const override;
  // Logging, --version, settings, journal clean-up, listening and signals
  // (shutdown ones stop serving; SIGHUP reopens the log file).
  void initialize() override;
  void terminate() override;

  // The settings; throws std::runtime_error naming a faulty switch.
  DaemonConfig readConfig() const;

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

  DaemonConfig mConfig;
  std::unique_ptr<SessionTable> mTable;  // none with --version
  TCPSocket mListener;
  std::atomic<bool> mStopping{false};
  std::list<Worker> mWorkers;  // touched by the run() thread only
};

#endif  // HIVE_HOPPERD_DAEMONAPPLICATION_H_
