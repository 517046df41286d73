// Real hopperd processes for a test, each on its own loopback address with
// its root, state folder and log under a folder of the test. Every wait is
// bounded; the destructor stops the process.
#ifndef HIVE_TESTS_SUPPORT_DAEMONPROCESS_H_
#define HIVE_TESTS_SUPPORT_DAEMONPROCESS_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/RunProcess.h"

class DaemonProcess {
 public:
  // Uses folder/root (created here), folder/state and folder/log.
  DaemonProcess(const std::string& address, int port, const std::string& folder,
                const std::vector<std::string>& extraArgs);
  ~DaemonProcess() { stop(); }

  // Starts the daemon (again, after it exited) and waits up to 10 s until it
  // accepts connections. False when it exited or did not accept.
  bool start();
  // As RunProcess's; no-ops when the daemon never started.
  void signal(int sig) { if (mProcess) mProcess->signal(sig); }
  int waitExit(int timeoutMs) { return mProcess ? mProcess->waitExit(timeoutMs) : -1; }
  void stop() { if (mProcess) mProcess->stop(10000); }

  const std::string address, id;  // id: "address:port", as clients name it
  const std::string root, stateDir, logFile;

 private:
  const int mPort;
  std::vector<std::string> mArgs;
  std::unique_ptr<RunProcess> mProcess;
};

// Runs n daemons (start()) on 127.0.0.2, 127.0.0.3, ... sharing one free
// port, each under dir/d<i>.
class DaemonChainTest : public ::testing::Test {
 protected:
  void start(size_t n, const std::vector<std::string>& extraArgs = {});
  DaemonProcess& daemon(size_t i) { return *daemons.at(i); }
  std::string root(size_t i) { return daemons.at(i)->root; }

  TempDir dir;
  int port = -1;
  std::vector<std::unique_ptr<DaemonProcess>> daemons;
};

#endif  // HIVE_TESTS_SUPPORT_DAEMONPROCESS_H_
