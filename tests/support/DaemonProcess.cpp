#include "support/DaemonProcess.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include "util/TCPSocket.h"

namespace {

// A port that is free on every address given (127.x.y.z).
int freePort(const std::vector<std::string>& addresses) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    TCPSocket first;
    first.listen(addresses.at(0), 0);
    const int port = first.getListenerPort();
    try {
      for (size_t i = 1; i < addresses.size(); ++i) TCPSocket().listen(addresses[i], port);
      return port;
    } catch (const TCPSocket::exception&) {  // taken there: try another
    }
  }
  return -1;
}

}  // namespace

DaemonProcess::DaemonProcess(std::string binary, std::string address, int port,
                             const std::string& folder, std::vector<std::string> extraArgs)
    : mBinary(std::move(binary)),
      mAddress(std::move(address)),
      mPort(port),
      mRoot(folder + "/root"),
      mStateDir(folder + "/state"),
      mLogFile(folder + "/log"),
      mExtraArgs(std::move(extraArgs)) {
  std::filesystem::create_directories(mRoot);
}

bool DaemonProcess::start(int timeoutMs) {
  std::vector<std::string> args{"--bind=" + mAddress, "--port=" + std::to_string(mPort),
                                "--root=" + mRoot, "--state-dir=" + mStateDir,
                                "--log-level=debug", "--logfile=" + mLogFile};
  args.insert(args.end(), mExtraArgs.begin(), mExtraArgs.end());
  mProcess.reset();
  mProcess = std::make_unique<RunProcess>(mBinary, args);
  for (int waited = 0; waited < timeoutMs && mProcess->waitExit(0) == -1; waited += 20) {
    TCPSocket probe;
    try {
      probe.connect(mAddress, mPort, 200);
      return true;
    } catch (const TCPSocket::exception&) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

DaemonChain::DaemonChain(const std::string& binary, const std::string& folder, size_t n,
                         const std::vector<std::string>& extraArgs) {
  std::vector<std::string> addresses;
  for (size_t i = 0; i < n; ++i) addresses.push_back("127.0.0." + std::to_string(i + 2));
  mPort = freePort(addresses);
  for (size_t i = 0; i < n; ++i) {
    mDaemons.push_back(std::make_unique<DaemonProcess>(
        binary, addresses[i], mPort, folder + "/d" + std::to_string(i), extraArgs));
    mStarted = mDaemons.back()->start() && mStarted;
  }
}

std::string DaemonChain::hostsArg() const {
  std::string arg = "--hosts=";
  for (size_t i = 0; i < mDaemons.size(); ++i) arg += (i ? " " : "") + mDaemons[i]->id();
  return arg;
}
