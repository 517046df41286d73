#include "support/FakeCM.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace {

namespace fs = std::filesystem;

const auto kPollStep = std::chrono::milliseconds(20);
const int kStartPolls = 1500;  // 30 s: the script makes a key pair first
const int kStopPolls = 250;    // 5 s before SIGKILL

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

bool reaped(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, WNOHANG) == pid;
}

}  // namespace

FakeCM::FakeCM() {
  std::string pattern = (fs::temp_directory_path() / "fakecm.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("FakeCM: mkdtemp failed");
  mFolder = pattern;
}

FakeCM::~FakeCM() {
  stop();
  std::error_code ignored;
  fs::remove_all(mFolder, ignored);
}

void FakeCM::reconfigure(const Options& o) {
  // One argument per line, written aside and renamed so it is never read half done.
  std::string agents;
  for (const auto& [host, address] : o.agents) agents += (agents.empty() ? "" : ",") + host + "=" + address;
  std::ofstream(mFolder + "/control.tmp")
      << "--mode=" << o.mode << "\n" << (o.agentMode.empty() ? "" : "--agent-mode=" + o.agentMode + "\n")
      << "--agents=" << agents << "\n--error-message=" << o.errorMessage
      << "\n--error-code=" << o.errorCode << "\n--body=" << o.body << "\n";
  fs::rename(mFolder + "/control.tmp", mFolder + "/control");
}

int FakeCM::start(const std::string& address, const Options& options) {
  if (mPid > 0) throw std::runtime_error("FakeCM: already started");
  mAddress = address;
  reconfigure(options);
  const std::string script = (fs::path(__FILE__).parent_path() / "fake_cm.py").string();
  std::vector<std::string> args{"python3", script, "--address=" + address,
                                "--port-file=" + mFolder + "/port", "--log=" + mFolder + "/log",
                                "--control=" + mFolder + "/control"};
  if (options.plain) args.push_back("--plain");
  if (options.mode == "refuse") args.push_back("--mode=refuse");  // decided when binding
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, (mFolder + "/stderr").c_str(), O_WRONLY | O_CREAT, 0644);
  const int rc = posix_spawnp(&mPid, "python3", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) mPid = -1;
  for (int i = 0; mPid > 0 && i < kStartPolls; ++i) {
    if (fs::exists(mFolder + "/port")) return mPort = std::atoi(readFile(mFolder + "/port").c_str());
    if (reaped(mPid)) mPid = -1;
    std::this_thread::sleep_for(kPollStep);
  }
  stop();
  throw std::runtime_error("FakeCM: server did not start: " + readFile(mFolder + "/stderr"));
}

void FakeCM::stop() {
  if (mPid <= 0) return;
  kill(mPid, SIGTERM);
  bool gone = false;
  for (int i = 0; i < kStopPolls && !(gone = reaped(mPid)); ++i) std::this_thread::sleep_for(kPollStep);
  if (!gone && kill(mPid, SIGKILL) == 0) waitpid(mPid, nullptr, 0);
  mPid = -1;
}

std::vector<FakeCM::Request> FakeCM::requests() const {
  std::vector<Request> requests;
  std::ifstream in(mFolder + "/log");
  for (std::string line; std::getline(in, line);) {
    Request r;
    std::istringstream(line) >> r.time >> r.method >> r.path >> r.auth;
    requests.push_back(r);
  }
  return requests;
}
