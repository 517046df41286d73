#include "support/DaemonProcess.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "util/TCPSocket.h"

extern char** environ;

namespace {

const auto kPollStep = std::chrono::milliseconds(20);

}  // namespace

DaemonProcess::DaemonProcess(std::string binary, std::string address, int port,
                             std::string folder, std::vector<std::string> extraArgs)
    : mBinary(std::move(binary)),
      mAddress(std::move(address)),
      mPort(port),
      mRoot(folder + "/root"),
      mStateDir(folder + "/state"),
      mLogFile(folder + "/log"),
      mExtraArgs(std::move(extraArgs)) {
  std::filesystem::create_directories(mRoot);
}

DaemonProcess::~DaemonProcess() { stop(); }

bool DaemonProcess::start(int timeoutMs) {
  std::vector<std::string> args{mBinary, "--bind=" + mAddress, "--port=" + std::to_string(mPort),
                                "--root=" + mRoot, "--state-dir=" + mStateDir,
                                "--log-level=debug", "--logfile=" + mLogFile};
  args.insert(args.end(), mExtraArgs.begin(), mExtraArgs.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  // The child starts with no blocked signals, whatever this thread blocks.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  const int rc = posix_spawn(&mPid, argv[0], nullptr, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    mPid = -1;
    return false;
  }
  for (int waited = 0; waited < timeoutMs; waited += 20) {
    TCPSocket probe;
    try {
      probe.connect(mAddress, mPort, 200);
      return true;
    } catch (const TCPSocket::exception&) {
    }
    if (waitExit(0) != -1) return false;
    std::this_thread::sleep_for(kPollStep);
  }
  return false;
}

void DaemonProcess::signal(int sig) {
  if (mPid > 0) ::kill(mPid, sig);
}

int DaemonProcess::waitExit(int timeoutMs) {
  for (int waited = 0; mPid > 0; waited += 20) {
    int status = 0;
    if (::waitpid(mPid, &status, WNOHANG) == mPid) {
      mPid = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    if (waited >= timeoutMs) return -1;
    std::this_thread::sleep_for(kPollStep);
  }
  return -1;
}

void DaemonProcess::stop() {
  if (mPid <= 0) return;
  signal(SIGCONT);
  signal(SIGTERM);
  if (waitExit(10000) == -1) {
    signal(SIGKILL);
    waitExit(10000);
  }
}

int DaemonProcess::freePort(const std::vector<std::string>& addresses) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    TCPSocket first;
    first.listen(addresses.at(0), 0);
    const int port = first.getListenerPort();
    bool freeEverywhere = true;
    for (size_t i = 1; i < addresses.size() && freeEverywhere; ++i) {
      TCPSocket other;
      try {
        other.listen(addresses[i], port);
      } catch (const TCPSocket::exception&) {
        freeEverywhere = false;
      }
    }
    if (freeEverywhere) return port;
  }
  return -1;
}
