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
  std::string mRoot = "/";
  AllowList mAllow = AllowList::parse("127.0.0.0/8");
  // Normalised prefixes that targets must lie under; empty allows any path.
  std::vector<std::string> mAllowedPaths;
  std::string mStateDir = "/var/lib/hopperd";
  int mResumeWindowSeconds = 120;
  std::string mStopAgentsCommand;
  std::string mStartAgentsCommand;
  int mIoTimeoutSeconds = 30;  // the longest a read or write waits without progress
  // Connections served at once, in all and from one peer address.
  int mMaxConnections = 64;
  int mMaxConnectionsPerPeer = 8;
  FileSystem* mFileSystem = FileSystem::posix();  // staging and commit; not owned
  Connector* mConnector = nullptr;  // relay links (null: TCP); not owned
};

#endif  // HIVE_HOPPERD_DAEMONCONFIG_H_
