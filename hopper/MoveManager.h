// MoveManager: what one upload run shares across its steps and with the
// signal thread: the target hosts and their names, the run's settings, the
// abort state, and the reports of lost and busy hosts in the names the user
// gave (daemon texts name hosts by address; the reports rewrite them).
#ifndef HIVE_HOPPER_MOVEMANAGER_H_
#define HIVE_HOPPER_MOVEMANAGER_H_

#include <map>
#include <ostream>
#include <string>

#include "hopper/uploadMisc.h"
#include "util/Mutex.h"
#include "util/SignalProcessing.h"
#include "util/System.h"

// Host identifier (address or address:port, or a host name to resolve) to
// the host entry as the user or the cluster manager wrote it.
using IPtoNameMap = std::map<std::string, std::string>;

class MoveManager {
 public:
  // hosts: identifier -> name; every identifier becomes a target host.
  // timeout is in seconds, -1 for none. out and err are not owned.
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

  // Throws std::runtime_error "Remote path \"<path>\" must be an absolute
  // path!" unless remotePath is absolute.
  void checkAbsolutePath(const std::string& remotePath) const;

  // Replaces every host identifier in text by the host's name, identifiers
  // in ascending order, each search starting again at the beginning.
  void massageMsg(std::string& text) const;

  // One line per host on the error stream, prefixed with this machine's
  // name, identifiers rewritten into names.
  void reportBadNodesByIP(const BadNodeList& badNodes);
  void reportBadNodeByIP(const std::string& host, int code);
  // "<host>: Server busy", one line per host, rewritten into names.
  void reportBusyNodesByIP(const BusyNodeList& busyNodes);

  // The callback for terminating signals: reports "User signal received:
  // <name>." on standard error and aborts the run.
  SignalProcessing::Callback terminalSignalProcessor();

  const NodeSet& nodeSet() const { return mNodeIPSet; }

 protected:
  SignalProcessing::Action ProcessTerminalSignal(int sig);
  // The host's name for messages (the identifier itself when unknown).
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
