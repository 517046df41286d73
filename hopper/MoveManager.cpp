#include "hopper/MoveManager.h"

#include <iostream>
#include <sstream>
#include <stdexcept>

#include "util/TCPSocket.h"
#include "util/pathfun.h"

MoveManager::MoveManager(const IPtoNameMap& hosts, bool verboseMode, bool stopAgents, int timeout,
                         System::OSID targetOSID, std::ostream& out, std::ostream& err)
    : mClientHostName(TCPSocket::getHostName()),
      mNodeIPToNameMap(hosts),
      mVerboseMode(verboseMode),
      mStopAgents(stopAgents),
      mTimeout(timeout),
      mTargetOSID(targetOSID),
      mStdout(out),
      mStderr(err) {
  for (const auto& entry : mNodeIPToNameMap) mNodeIPSet.insert(entry.first);
}

void MoveManager::abort(const std::string& message) {
  Mutex::Lock lock(mAbortMutex);
  if (mAbortMessage.empty()) mAbortMessage = message;
}

bool MoveManager::aborted() {
  Mutex::Lock lock(mAbortMutex);
  return !mAbortMessage.empty();
}

void MoveManager::abortCheck() {
  Mutex::Lock lock(mAbortMutex);
  if (!mAbortMessage.empty()) throw std::runtime_error(mAbortMessage);
}

void MoveManager::checkAbsolutePath(const std::string& remotePath) const {
  if (!isAbsolute(remotePath)) {
    throw std::runtime_error("Remote path \"" + remotePath + "\" must be an absolute path!");
  }
}

void MoveManager::massageMsg(std::string& text) const {
  for (const auto& entry : mNodeIPToNameMap) {
    const std::string& address = entry.first;
    const std::string& name = entry.second;
    if (address.empty() || address == name) continue;
    // Search on after the inserted name, which may hold or re-form its
    // address: from the beginning the loop might never end.
    for (size_t at = text.find(address); at != std::string::npos;
         at = text.find(address, at + name.size())) {
      text.replace(at, address.size(), name);
    }
  }
}

void MoveManager::writeMassaged(std::string text) {
  massageMsg(text);
  mStderr << text;
  mStderr.flush();
}

void MoveManager::reportBadNodesByIP(const BadNodeList& badNodes) {
  std::ostringstream lines;
  genBadNodeListErrMsg(lines, mClientHostName, badNodes);
  writeMassaged(lines.str());
}

void MoveManager::reportBadNodeByIP(const std::string& host, int code) {
  reportBadNodesByIP({{host, code}});
}

void MoveManager::reportBusyNodesByIP(const BusyNodeList& busyNodes) {
  std::string lines;
  for (const std::string& host : busyNodes) lines += host + ": Server busy\n";
  writeMassaged(lines);
}

std::string MoveManager::nameOf(const std::string& host) const {
  const auto it = mNodeIPToNameMap.find(host);
  return it == mNodeIPToNameMap.end() || it->second.empty() ? host : it->second;
}

SignalProcessing::Callback MoveManager::terminalSignalProcessor() {
  return [this](int sig) { return ProcessTerminalSignal(sig); };
}

SignalProcessing::Action MoveManager::ProcessTerminalSignal(int sig) {
  const std::string message = "User signal received: " + System::signalName(sig) + ".";
  std::cerr << message << std::endl;
  abort(message);
  return SignalProcessing::Action();
}
