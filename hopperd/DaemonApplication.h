// The daemon program: its switches, start-up, serving loop and orderly stop.
#ifndef HIVE_HOPPERD_DAEMONAPPLICATION_H_
#define HIVE_HOPPERD_DAEMONAPPLICATION_H_

#include <memory>

#include "hopper/Application.h"
#include "hopperd/DaemonConfig.h"
#include "hopperd/Server.h"

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

  // Serves until a shutdown signal; 0 afterwards.
  int run() override;
  void usage() override;
  // The switches; a positional argument prints the usage and throws.
  void parseArgs(int argc, char** argv) override;
  // Standard error under systemd, else /var/log/hopperd.log.
  std::string defaultLogFile() const override;
  // Logging, --version, settings, journal clean-up, listening and signals
  // (shutdown ones stop the server; SIGHUP reopens the log file).
  void initialize() override;
  void terminate() override;

  // The settings; throws std::runtime_error naming a faulty switch.
  DaemonConfig readConfig() const;

 private:
  std::unique_ptr<Server> mServer;
};

#endif  // HIVE_HOPPERD_DAEMONAPPLICATION_H_
