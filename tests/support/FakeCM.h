// Runs the fake cluster manager (tests/support/fake_cm.py, whose header
// describes the modes) as a child process: an HTTPS server on a loopback
// address that answers the handshake and agent-list requests and records
// every request. Waits are bounded; the destructor stops the process.
#ifndef HIVE_TESTS_SUPPORT_FAKECM_H_
#define HIVE_TESTS_SUPPORT_FAKECM_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/RunProcess.h"

class FakeCM {
 public:
  struct Options {
    Options(std::string m = "normal", std::string b = "") : mode(std::move(m)), body(std::move(b)) {}
    std::string mode;             // normal, 500, 401 or body
    std::string body;             // mode "body": the whole reply, one line
    std::string agentMode;        // for agent-list requests only; empty: |mode|
    std::vector<std::pair<std::string, std::string>> agents;  // (host, address)
    bool plain = false;           // HTTP instead of HTTPS
  };
  struct Request {
    double time = 0;  // monotonic seconds: the clock of std::chrono::steady_clock
    std::string method, path;
    std::string auth;  // "user:password" from the basic-auth header, or "-"
  };

  // Serves on |address| (127.x.y.z) and a free port, returned once ready.
  // Throws std::runtime_error on failure.
  int start(const std::string& address, const Options& options);
  // Changes the answers from the next request on.
  void reconfigure(const Options& options);
  // The requests received so far, oldest first.
  std::vector<Request> requests() const;
  // "address:port": the CM address to give the client.
  std::string hostPort() const { return mAddress + ":" + std::to_string(mPort); }

 private:
  TempDir mDir;  // before mProcess: the server stops before its files go
  std::unique_ptr<RunProcess> mProcess;
  std::string mAddress;
  int mPort = 0;
};

#endif  // HIVE_TESTS_SUPPORT_FAKECM_H_
