// Runs one real hopperd for a test: on its own loopback address and port,
// with its root, state folder and log under a folder the test gives. Every
// wait is bounded; the destructor stops the process.
#ifndef HIVE_TESTS_SUPPORT_DAEMONPROCESS_H_
#define HIVE_TESTS_SUPPORT_DAEMONPROCESS_H_

#include <memory>
#include <string>
#include <vector>

#include "support/RunProcess.h"

class DaemonProcess {
 public:
  // binary is the daemon program. folder/root (created here), folder/state
  // and folder/log are used. extraArgs are appended to the command line.
  DaemonProcess(std::string binary, std::string address, int port, const std::string& folder,
                std::vector<std::string> extraArgs = {});
  ~DaemonProcess() { stop(); }

  // Starts the daemon (again, after it exited) and waits up to timeoutMs
  // until it accepts connections. False when it exited or did not accept.
  bool start(int timeoutMs = 10000);
  // As RunProcess's; no-ops when the daemon never started.
  void signal(int sig) { if (mProcess) mProcess->signal(sig); }
  int waitExit(int timeoutMs) { return mProcess ? mProcess->waitExit(timeoutMs) : -1; }
  // SIGCONT and SIGTERM, then SIGKILL after 10 s.
  void stop() { if (mProcess) mProcess->stop(10000); }

  // "address:port", the identifier clients use.
  std::string id() const { return mAddress + ":" + std::to_string(mPort); }
  const std::string& root() const { return mRoot; }
  const std::string& stateDir() const { return mStateDir; }
  const std::string& logFile() const { return mLogFile; }

 private:
  std::string mBinary, mAddress;
  int mPort;
  std::string mRoot, mStateDir, mLogFile;
  std::vector<std::string> mExtraArgs;
  std::unique_ptr<RunProcess> mProcess;
};

// n daemons on 127.0.0.2, 127.0.0.3, ... sharing one free port, each under
// folder/d<i>, all given extraArgs and started (check started()).
class DaemonChain {
 public:
  DaemonChain(const std::string& binary, const std::string& folder, size_t n,
              const std::vector<std::string>& extraArgs = {});
  bool started() const { return mStarted; }
  DaemonProcess& operator[](size_t i) { return *mDaemons.at(i); }
  size_t size() const { return mDaemons.size(); }
  int port() const { return mPort; }
  // "--hosts=<id0> <id1> ..." for the client.
  std::string hostsArg() const;

 private:
  std::vector<std::unique_ptr<DaemonProcess>> mDaemons;
  int mPort = -1;
  bool mStarted = true;
};

#endif  // HIVE_TESTS_SUPPORT_DAEMONPROCESS_H_
