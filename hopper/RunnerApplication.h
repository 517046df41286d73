// RunnerApplication: the base of the cluster tools. It owns their shared
// options and help text, the version banner, the signal set-up that must run
// while the process has one thread, and the host map the upload engine
// works from.

#ifndef HIVE_HOPPER_RUNNERAPPLICATION_H_
#define HIVE_HOPPER_RUNNERAPPLICATION_H_

#include <cstdint>
#include <string>
#include <vector>

#include "hopper/Application.h"
#include "hopper/MoveManager.h"
#include "util/System.h"

class RunnerApplication : public Application {
 public:
  using Application::Application;

  // The common switch text; subclasses print theirs around it.
  void usage() override;
  // Logging, --version (banner, exit 0), blockSignalsAndTrapSIGUSR1,
  // initializeAssumingSignalsAreBlocked, processSignals.
  void initialize() override;

  virtual void printVersion();
  // Ignores SIGPIPE, gives SIGUSR1 an empty handler and blocks the
  // shutdown signals, before any thread exists to inherit the mask.
  virtual void blockSignalsAndTrapSIGUSR1();
  // Reads the shared options and builds the host map from --hosts or the
  // CM. A malformed --hosts exits with status 2; other failures throw.
  virtual void initializeAssumingSignalsAreBlocked();
  // Binds the shutdown signals to the tool's handling.
  virtual void processSignals() {}

 protected:
  System::OSID mPlatform = System::OS_NONE;
  std::vector<std::string> mNodeList;   // --hosts expanded, duplicates removed
  const char* mCM = nullptr;            // --cm, else BRISK_CM, else null
  const char* mFileListFile = nullptr;  // --filelist or null
  bool mGoodNodesOnly = false;
  bool mStopAgents = false;
  int32_t mTimeout = -1;                // seconds; -1 when not given
  IPtoNameMap mNodeIPToNameMap;         // address[:port] -> entry as written
  bool mVerbose = false;
};

#endif  // HIVE_HOPPER_RUNNERAPPLICATION_H_
