// Runs one real hopperd for a test: on its own loopback address and port,
// with its root, state folder and log under a folder the test gives. Every
// wait is bounded; the destructor stops the process (SIGCONT, SIGTERM, then
// SIGKILL) and reaps it.
//
//   DaemonProcess d(HIVE_BINARY_DIR "/hopperd", "127.0.0.2",
//                   DaemonProcess::freePort({"127.0.0.2"}), dir);
//   ASSERT_TRUE(d.start());            // returns once it accepts
//   ... upload to d.id() ...
//   d.signal(SIGKILL); d.waitExit(5000);
#ifndef HIVE_TESTS_SUPPORT_DAEMONPROCESS_H
#define HIVE_TESTS_SUPPORT_DAEMONPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

class DaemonProcess {
 public:
  // binary is the daemon program. folder/root (created here), folder/state
  // and folder/log are used. extraArgs are appended to the command line.
  DaemonProcess(std::string binary, std::string address, int port, std::string folder,
                std::vector<std::string> extraArgs = {});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Starts the daemon (again, after it exited) and waits up to timeoutMs
  // until it accepts connections. False when it exited or did not accept.
  bool start(int timeoutMs = 10000);
  // Sends sig to the process (no-op when it is not running).
  void signal(int sig);
  // Waits up to timeoutMs for the process to exit; its exit status, 128 + n
  // when killed by signal n, or -1 on time-out.
  int waitExit(int timeoutMs);
  // SIGCONT and SIGTERM, then SIGKILL after 10 s.
  void stop();

  // "address:port", the identifier clients use.
  std::string id() const { return mAddress + ":" + std::to_string(mPort); }
  const std::string& root() const { return mRoot; }
  const std::string& stateDir() const { return mStateDir; }
  const std::string& logFile() const { return mLogFile; }

  // A port that is free on every address given (127.x.y.z).
  static int freePort(const std::vector<std::string>& addresses);

 private:
  std::string mBinary;
  std::string mAddress;
  int mPort;
  std::string mRoot;
  std::string mStateDir;
  std::string mLogFile;
  std::vector<std::string> mExtraArgs;
  pid_t mPid = -1;
};

#endif  // HIVE_TESTS_SUPPORT_DAEMONPROCESS_H
