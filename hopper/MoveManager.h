// MoveManager: what an upload run shares across its steps and with the
// signal thread: target hosts and their names, settings, the abort state,
// and reports of lost and busy hosts in the names the user gave.
#ifndef HIVE_HOPPER_MOVEMANAGER_H_
#define HIVE_HOPPER_MOVEMANAGER_H_

#include <map>
#include <ostream>
#include <string>

#include "hopper/uploadMisc.h"
#include "util/Mutex.h"
#include "util/SignalProcessing.h"
#include "util/System.h"

// Host identifier (address[:port], or a name to resolve) to the host entry
// as the user or the cluster manager wrote it.
using IPtoNameMap = std::map<std::string, std::string>;

class MoveManager {
 public:
  // Every host identifier is a target; timeout in s (-1: none); out, err not owned.
  MoveManager(const IPtoNameMap& hosts, bool verboseMode, bool stopAgents, int timeout,
              System::OSID targetOSID, std::ostream& out, std::ostream& err);
  virtual ~MoveManager() = default;
  MoveManager(const MoveManager&) = delete;
  MoveManager& operator=(const MoveManager&) = delete;

  // Records why the run stops; only the first reason is kept. Thread-safe.
  void abort(const std::string& message);
  // Whether a reason is recorded. Thread-safe.
  bool aborted();
  // Throws std::runtime_error with the recorded reason, if any. Thread-safe.
  void abortCheck();

  // Throws "Remote path \"<path>\" must be an absolute path!" if it is not.
  void checkAbsolutePath(const std::string& remotePath) const;

  // Replaces every host identifier in text by its name, in ascending order.
  void massageMsg(std::string& text) const;

  // One line per host on the error stream, after this machine's name.
  void reportBadNodesByIP(const BadNodeList& badNodes);
  void reportBadNodeByIP(const std::string& host, int code);
  // "<host>: Server busy", one line per host.
  void reportBusyNodesByIP(const BusyNodeList& busyNodes);

  // On a terminating signal: "User signal received: <name>." on stderr, then abort.
  SignalProcessing::Callback terminalSignalProcessor();

  const NodeSet& nodeSet() const { return mNodeIPSet; }

 protected:
  SignalProcessing::Action ProcessTerminalSignal(int sig);
  // The host's name (the identifier itself when unknown).
  std::string nameOf(const std::string& host) const;
  void writeMassaged(std::string text);

  std::string mClientHostName;
  IPtoNameMap mNodeIPToNameMap;
  NodeSet mNodeIPSet;
  bool mVerboseMode;
  bool mStopAgents;
  int mTimeout;
  System::OSID mTargetOSID;
  std::ostream& mStdout;
  std::ostream& mStderr;
  Mutex mAbortMutex;
  std::string mAbortMessage;
};

#endif  // HIVE_HOPPER_MOVEMANAGER_H_
