// RunnerApplication: the base of the cluster tools.
//
// On top of Application it owns the options every cluster tool shares
// (--hosts, --cm, --platform, --timeout, --verbose, --version, --help),
// their help text, the version banner, the signal set-up that must happen
// while the process still has one thread, and the host map the upload
// engine works from.  initialize() runs, in this order: the logging set-up,
// --version, blockSignalsAndTrapSIGUSR1, initializeAssumingSignalsAreBlocked
// and processSignals; subclasses override the last two and call the base
// initializeAssumingSignalsAreBlocked first.

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
  RunnerApplication(GetOpt::Option* options, const char* textName);

  // Writes the common switch text and a newline on standard output;
  // subclasses print their header before it and their switches after it.
  void usage() override;
  // Logging, then --version (prints the banner and exits with 0), then the
  // signal set-up, the options and the signal dispatch.
  void initialize() override;

  // "<display name> <version text>" and a newline on standard output.
  virtual void printVersion();
  // Ignores SIGPIPE, gives SIGUSR1 an empty handler and blocks the
  // interactive shutdown signals.  Must run before any thread is created,
  // so that every later thread inherits the mask.
  virtual void blockSignalsAndTrapSIGUSR1();
  // Reads the shared options and builds the host map, from --hosts or the
  // cluster manager.  A malformed --hosts ends the process with status 2;
  // every other failure throws std::runtime_error.
  virtual void initializeAssumingSignalsAreBlocked();
  // Binds the shutdown signals to the tool's handling; nothing here.
  virtual void processSignals();

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

 private:
  void hostsFromClusterManager();
  void hostsFromNodeList();
};

#endif  // HIVE_HOPPER_RUNNERAPPLICATION_H_
