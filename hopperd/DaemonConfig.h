// The daemon's settings, as read from its command line.
#ifndef HIVE_HOPPERD_DAEMONCONFIG_H_
#define HIVE_HOPPERD_DAEMONCONFIG_H_

#include <string>
#include <vector>

#include "hopperd/AllowList.h"
#include "util/FileSystem.h"
#include "util/Connector.h"

struct DaemonConfig {
  int mPort = 2411;
  std::string mBindAddress = "0.0.0.0";
  // Every target path is resolved under this directory.
  std::string mRoot = "/";
  AllowList mAllow = AllowList::parse("127.0.0.0/8");
  // Normalised prefixes that targets must lie under; empty allows any path.
  std::vector<std::string> mAllowedPaths;
  std::string mStateDir = "/var/lib/hopperd";
  // Seconds an interrupted upload is kept for resuming.
  int mResumeWindowSeconds = 120;
  std::string mStopAgentsCommand;
  std::string mStartAgentsCommand;
  // No read or write on a connection or relay link waits longer than this
  // without progress.
  int mIoTimeoutSeconds = 30;
  // Connections served at once, in all and from one peer address; more are
  // closed at once.
  int mMaxConnections = 64;
  int mMaxConnectionsPerPeer = 8;
  // Where staging and commit read, write, flush and rename (tests put a
  // faulty one here); not owned.
  FileSystem* mFileSystem = FileSystem::posix();
  // Where relay links connect (null: TCP; tests pair hosts in one process);
  // not owned.
  Connector* mConnector = nullptr;
};

#endif  // HIVE_HOPPERD_DAEMONCONFIG_H_
