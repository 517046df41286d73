#include "support/DaemonProcess.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include "util/TCPSocket.h"

DaemonProcess::DaemonProcess(const std::string& address, int port, const std::string& folder,
                             const std::vector<std::string>& extraArgs)
    : address(address),
      id(address + ":" + std::to_string(port)),
      root(folder + "/root"),
      stateDir(folder + "/state"),
      logFile(folder + "/log"),
      mPort(port),
      mArgs{"--bind=" + address, "--port=" + std::to_string(port), "--root=" + root,
            "--state-dir=" + stateDir, "--log-level=debug", "--logfile=" + logFile} {
  mArgs.insert(mArgs.end(), extraArgs.begin(), extraArgs.end());
  std::filesystem::create_directories(root);
}

bool DaemonProcess::start() {
  mProcess.reset();
  mProcess = std::make_unique<RunProcess>(HIVE_BINARY_DIR "/hopperd", mArgs);
  for (int waited = 0; waited < 10000 && mProcess->waitExit(0) == -1; waited += 20) {
    try {
      TCPSocket().connect(address, mPort, 200);
      return true;
    } catch (const TCPSocket::exception&) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

void DaemonChainTest::start(size_t n, const std::vector<std::string>& extraArgs) {
  // A port free on every address: taken on one of them, try another.
  for (int attempt = 0; attempt < 50 && port == -1; ++attempt) {
    TCPSocket first;
    first.listen("127.0.0.2", 0);
    port = first.getListenerPort();
    try {
      for (size_t i = 1; i < n; ++i) TCPSocket().listen("127.0.0." + std::to_string(i + 2), port);
    } catch (const TCPSocket::exception&) {
      port = -1;
    }
  }
  for (size_t i = 0; i < n; ++i) {
    const std::string address = "127.0.0." + std::to_string(i + 2);
    daemons.push_back(std::make_unique<DaemonProcess>(address, port, dir.file("d" + std::to_string(i)),
                                                      extraArgs));
    ASSERT_TRUE(daemons.back()->start()) << i;
  }
}
