#include "support/FakeCM.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

void FakeCM::reconfigure(const Options& o) {
  // One argument per line, written aside and renamed so it is never read half done.
  std::string agents;
  for (const auto& [host, address] : o.agents) agents += (agents.empty() ? "" : ",") + host + "=" + address;
  std::ofstream(mDir.file("control.tmp"))
      << "--mode=" << o.mode << "\n" << (o.agentMode.empty() ? "" : "--agent-mode=" + o.agentMode + "\n")
      << "--agents=" << agents << "\n--body=" << o.body << "\n";
  fs::rename(mDir.file("control.tmp"), mDir.file("control"));
}

int FakeCM::start(const std::string& address, const Options& options) {
  if (mProcess) throw std::runtime_error("FakeCM: already started");
  mAddress = address;
  reconfigure(options);
  const std::string script = (fs::path(__FILE__).parent_path() / "fake_cm.py").string();
  std::vector<std::string> args{script, "--address=" + address, "--port-file=" + mDir.file("port"),
                                "--log=" + mDir.file("log"), "--control=" + mDir.file("control")};
  if (options.plain) args.push_back("--plain");
  mProcess = std::make_unique<RunProcess>("python3", args);
  // Up to 30 s: the script makes a key pair first.
  for (int polls = 0; polls < 1500 && mProcess->waitExit(0) == -1; ++polls) {
    if (fs::exists(mDir.file("port"))) return mPort = std::stoi(TempDir::read(mDir.file("port")));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const std::string err = mProcess->err();
  mProcess.reset();
  throw std::runtime_error("FakeCM: server did not start: " + err);
}

std::vector<FakeCM::Request> FakeCM::requests() const {
  std::vector<Request> requests;
  std::ifstream in(mDir.file("log"));
  for (std::string line; std::getline(in, line);) {
    Request r;
    std::istringstream(line) >> r.time >> r.method >> r.path >> r.auth;
    requests.push_back(r);
  }
  return requests;
}
