#include "hopperd/DaemonApplication.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "hopper/hopperMisc.h"
#include "hopperd/Journal.h"
#include "hopperd/TargetPath.h"
#include "util/Logger.h"
#include "util/SignalProcessing.h"
#include "util/System.h"

namespace {

const int kAcceptPollMs = 200;
const long kStopWaitMs = 1500;

GetOpt::Option gDaemonOptions[] = {
    {"help", GetOpt::NO_ARG, nullptr, 'h', nullptr},
    {"version", GetOpt::NO_ARG, nullptr, 'v', nullptr},
    {"port", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_PORT, "2411"},
    {"bind", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_BIND, "0.0.0.0"},
    {"root", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_ROOT, "/"},
    {"allow", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_ALLOW, "127.0.0.0/8"},
    {"allow-path", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_ALLOW_PATH, nullptr},
    {"state-dir", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_STATE_DIR, "/var/lib/hopperd"},
    {"resume-window", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_RESUME_WINDOW, "120"},
    {"stop-agents-cmd", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_STOP_AGENTS_CMD, nullptr},
    {"start-agents-cmd", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_START_AGENTS_CMD,
     nullptr},
    {"io-timeout", GetOpt::REQ_ARG, nullptr, DaemonApplication::ARG_IO_TIMEOUT, "30"},
    {"log-level", GetOpt::REQ_ARG, nullptr, Application::ARG_LOGLEVEL, nullptr},
    {"logfile", GetOpt::REQ_ARG, nullptr, Application::ARG_LOGFILE, nullptr},
    {nullptr, 0, nullptr, 0, nullptr}};

Application::OptionID id(DaemonApplication::DaemonOptionID option) {
  return static_cast<Application::OptionID>(option);
}

// A given switch's value, a decimal number in [min, max], goes to number.
void readNumber(const Application& app, DaemonApplication::DaemonOptionID option,
                const char* name, int min, int max, int& number) {
  if (!app.wasOptionPresent(id(option))) return;
  const std::string text = app.getOption(id(option), "");
  const bool digits = !text.empty() && text.size() <= 9 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
  const int value = digits ? std::stoi(text) : -1;  // min is never negative
  if (value < min || value > max) {
    throw std::runtime_error(std::string("Invalid value for --") + name + ": " + text);
  }
  number = value;
}

void requireDirectory(const char* name, const std::string& path, bool create) {
  if (path.empty() || path[0] != '/') {
    throw std::runtime_error(std::string("--") + name + " must be an absolute path: " + path);
  }
  if (create && !System::makeDirectory(path, 0700) && errno != EEXIST) {
    throw std::runtime_error("Unable to create " + path + ": " + System::getErrorMessageStr());
  }
  FileAttributes attrs;
  if (!attrs.stat(path, FOLLOW_SYMLINK) || !attrs.isDirectory()) {
    throw std::runtime_error(std::string("--") + name + " is not a directory: " + path);
  }
}

}  // namespace

DaemonApplication::DaemonApplication() : Application(gDaemonOptions, "Hopper hopperd") {}

void DaemonApplication::usage() {
  std::cout
      << "Usage: hopperd [switches]\n"
      << "\n"
      << "Receives uploads and relays them to the next host of the chain.\n"
      << "\n"
      << "Switches:\n"
      << "  -h, --help                Print this text.\n"
      << "  -v, --version             Print the version.\n"
      << "      --port=val            TCP port to listen on (default 2411).\n"
      << "      --bind=val            IPv4 address to listen on (default 0.0.0.0).\n"
      << "      --root=val            Directory under which every target path is\n"
      << "                            resolved (default /).\n"
      << "      --allow=val           Comma-separated IPv4 networks (CIDR) whose\n"
      << "                            connections are accepted (default 127.0.0.0/8).\n"
      << "      --allow-path=val      Comma-separated absolute path prefixes that\n"
      << "                            targets must lie under (default any path).\n"
      << "      --state-dir=val       Where session journals are kept\n"
      << "                            (default /var/lib/hopperd).\n"
      << "      --resume-window=val   Seconds an interrupted upload is kept for\n"
      << "                            resuming (default 120).\n"
      << "      --stop-agents-cmd=val   Shell command run before commit when the\n"
      << "                              client asked to stop the agents.\n"
      << "      --start-agents-cmd=val  Shell command run after that commit.\n"
      << "      --io-timeout=val      Seconds a read or write may go without progress\n"
      << "                            before the peer is taken for lost (default 30).\n"
      << "      --log-level=val       info or debug (default: no logging).\n"
      << "      --logfile=val         Log file (default /var/log/hopperd.log).\n";
}

DaemonConfig DaemonApplication::readConfig() const {
  DaemonConfig config;
  readNumber(*this, ARG_PORT, "port", 0, 65535, config.mPort);
  config.mBindAddress = getOption(id(ARG_BIND), config.mBindAddress.c_str());
  if (!AllowList::parseAddress(config.mBindAddress)) {
    throw std::runtime_error("Invalid value for --bind: " + config.mBindAddress);
  }
  config.mRoot = getOption(id(ARG_ROOT), config.mRoot.c_str());
  requireDirectory("root", config.mRoot, false);
  if (wasOptionPresent(id(ARG_ALLOW))) config.mAllow = AllowList::parse(getOption(id(ARG_ALLOW), ""));
  config.mAllowedPaths = TargetPath::parsePrefixes(getOption(id(ARG_ALLOW_PATH), ""));
  config.mStateDir = getOption(id(ARG_STATE_DIR), config.mStateDir.c_str());
  requireDirectory("state-dir", config.mStateDir, true);
  readNumber(*this, ARG_RESUME_WINDOW, "resume-window", 0, 86400 * 7, config.mResumeWindowSeconds);
  readNumber(*this, ARG_IO_TIMEOUT, "io-timeout", 1, 86400, config.mIoTimeoutSeconds);
  config.mStopAgentsCommand = getOption(id(ARG_STOP_AGENTS_CMD), "");
  config.mStartAgentsCommand = getOption(id(ARG_START_AGENTS_CMD), "");
  return config;
}

void DaemonApplication::initialize() {
  Application::initialize();
  if (wasOptionPresent('v')) {
    std::cout << getVersionString();
    return;
  }
  // Before any thread exists, so that only the dispatcher gets the signals.
  Ticks::currentTime();
  SignalProcessing::block(System::sDaemonShutdownSignals);
  SignalProcessing::block({SIGHUP});
  System::ignoreSIGPIPE();
  mConfig = readConfig();
  const int cleaned = Journal::cleanUp(mConfig.mStateDir);
  if (cleaned > 0) HC_LOG_INFO("Cleaned up after " << cleaned << " unfinished sessions");
  mTable = std::make_unique<SessionTable>(mConfig);
  mListener.listen(mConfig.mBindAddress, mConfig.mPort);
  HC_LOG_INFO("Listening on " << mConfig.mBindAddress << ":" << mListener.getListenerPort()
              << ", root " << mConfig.mRoot << ", allowing " << mConfig.mAllow.toString());
  SignalProcessing& signals = SignalProcessing::getInstance();
  SignalProcessing::Configuration configuration;
  for (int sig : System::sDaemonShutdownSignals) {
    configuration.set(sig, SignalProcessing::simple([this](int sig) {
      HC_LOG_INFO("Signal received: " << System::signalName(sig));
      mStopping = true;
    }));
  }
  configuration.set(SIGHUP, SignalProcessing::simple([](int) {
    Logger::getInstance().reopen();
    HC_LOG_INFO("Log file reopened");
  }));
  signals.configure(configuration);
  signals.processSignals();
}

std::string DaemonApplication::defaultLogFile() const {
  if (System::getenv("JOURNAL_STREAM") || System::getenv("INVOCATION_ID")) return "";
  return Application::defaultLogFile();
}

void DaemonApplication::parseArgs(int argc, char** argv) {
  Application::parseArgs(argc, argv);
  if (!mArgs.empty()) {
    usage();
    throw std::runtime_error(std::string("Unexpected argument \"") + mArgs.front() + "\"");
  }
}

int DaemonApplication::run() {
  if (!mTable) return 0;
  while (!mStopping) {
    std::unique_ptr<TCPSocket> socket = mListener.accept(kAcceptPollMs);
    if (socket) serve(std::move(socket));
    mTable->reap();
    joinFinished();
  }
  HC_LOG_INFO("Shutting down");
  mListener.close();
  const Ticks start = Ticks::currentTime();
  const bool clean = mTable->discardAll(kStopWaitMs);
  const long left = kStopWaitMs - long((Ticks::currentTime() - start).nanos() / 1000000);
  if (!stopWorkers(std::max(left, 100L)) || !clean) {
    // Threads still blocked hold the daemon's state: do not tear it down.
    HC_LOG_INFO("Exiting with connections still busy");
    std::_Exit(0);
  }
  return 0;
}

void DaemonApplication::terminate() {
  SignalProcessing::getInstance().stop();
  stopWorkers(kStopWaitMs);
}

std::string DaemonApplication::refusal(const std::string& peer) {
  if (!mConfig.mAllow.allows(peer)) return "not in the allow list";
  joinFinished();  // connections that just ended do not count
  if (mWorkers.size() >= static_cast<size_t>(mConfig.mMaxConnections)) {
    return std::to_string(mWorkers.size()) + " connections already";
  }
  const auto fromPeer = std::count_if(mWorkers.begin(), mWorkers.end(),
                                      [&](const Worker& w) { return w.mPeer == peer; });
  if (fromPeer >= mConfig.mMaxConnectionsPerPeer) {
    return std::to_string(fromPeer) + " connections from that address already";
  }
  return std::string();
}

void DaemonApplication::serve(std::unique_ptr<TCPSocket> socket) {
  const std::string peer = socket->getRemoteHost();
  const std::string why = refusal(peer);
  if (!why.empty()) {
    HC_LOG_INFO("Connection from " << peer << " refused: " << why);
    return;
  }
  Worker worker;
  worker.mPeer = peer;
  worker.mConnection =
      std::make_shared<Connection>(std::move(socket), *mTable, mConfig.mIoTimeoutSeconds * 1000);
  worker.mDone = std::make_shared<std::atomic<bool>>(false);
  try {
    worker.mThread = std::thread([connection = worker.mConnection, done = worker.mDone] {
      connection->run();
      *done = true;
    });
  } catch (const std::system_error& e) {
    HC_LOG_INFO("Connection from " << peer << " refused: " << e.what());
    return;
  }
  mWorkers.push_back(std::move(worker));
}

void DaemonApplication::joinFinished() {
  for (auto it = mWorkers.begin(); it != mWorkers.end();) {
    if (*it->mDone) {
      it->mThread.join();
      it = mWorkers.erase(it);
    } else {
      ++it;
    }
  }
}

bool DaemonApplication::stopWorkers(long waitMs) {
  for (Worker& worker : mWorkers) worker.mConnection->interrupt();
  const Ticks until = Ticks::currentTime() + Ticks(int64_t(waitMs) * 1000000);
  joinFinished();
  while (!mWorkers.empty() && Ticks::currentTime() < until) {
    System::sleep(10);
    joinFinished();
  }
  if (mWorkers.empty()) return true;
  HC_LOG_INFO(mWorkers.size() << " connections still busy at shutdown; not waiting for them");
  // The process exits right after; each thread holds what it uses.
  for (Worker& worker : mWorkers) worker.mThread.detach();
  mWorkers.clear();
  return false;
}
