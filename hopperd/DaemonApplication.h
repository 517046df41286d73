// The daemon program: its switches, the start-up (logging, the journals
// left by an earlier run, the listening socket, the shutdown signals), the
// serving loop and an orderly stop.
#ifndef HIVE_HOPPERD_DAEMONAPPLICATION_H_
#define HIVE_HOPPERD_DAEMONAPPLICATION_H_

#include <memory>

#include "hopper/Application.h"
#include "hopperd/DaemonConfig.h"
#include "hopperd/Server.h"

class DaemonApplication : public Application {
 public:
  // Option identifiers of the daemon alone, after the shared ones.
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

  // Serves until a shutdown signal; 0 afterwards.
  int run() override;
  void usage() override;
  // The switches; a positional argument prints the usage and throws.
  void parseArgs(int argc, char** argv) override;
  // Standard error when systemd started us (its journal keeps it), else
  // /var/log/hopperd.log.
  std::string defaultLogFile() const override;
  // Logging, --version, signal blocking, the settings (a faulty switch
  // throws with its message), journal clean-up, listening, signal dispatch
  // (the shutdown signals stop the server; SIGHUP reopens the log file).
  void initialize() override;
  // Stops the signal dispatcher and the server.
  void terminate() override;

  // The settings the switches describe; throws std::runtime_error naming
  // the faulty switch.
  DaemonConfig readConfig() const;

 private:
  std::unique_ptr<Server> mServer;
};

#endif  // HIVE_HOPPERD_DAEMONAPPLICATION_H_
