// HiveCopy: the upload command.  It copies local files and directories to
// the same absolute path on every host of the cluster.
//
// On top of the cluster tool base it reads the (source, target) pairs from
// the command line or from a file list, creates the UploadManager from the
// host map, hands the interactive shutdown signals to the manager while the
// upload runs, and times the upload.

#ifndef HIVE_HOPPER_HIVECOPY_H_
#define HIVE_HOPPER_HIVECOPY_H_

#include <memory>
#include <string>

#include "hopper/RunnerApplication.h"
#include "hopper/UploadManager.h"

// The upload command's option table, ended by a row with a null name.
extern GetOpt::Option gOptions[];

class HiveCopy : public RunnerApplication {
 public:
  HiveCopy(GetOpt::Option* options, const char* textName);

  // Uploads the pairs and prints "Upload time: <seconds> secs".  Returns 0
  // when the upload succeeded, else 1.
  int run() override;
  // The command's help text on standard output.
  void usage() override;
  // The base's options, then the pairs (command line or file list), then
  // the upload manager.  Throws std::runtime_error for missing or
  // conflicting arguments and for a faulty file list.
  void initializeAssumingSignalsAreBlocked() override;
  // Sends the interactive shutdown signals to the upload manager's
  // terminal-signal callback on a dispatcher thread.
  void processSignals() override;
  // Stops the dispatcher, then destroys the upload manager, so no callback
  // can reach a destroyed manager.
  void terminate() override;

  // Appends the pairs of the "src => tgt" (or "src -> tgt") lines of
  // fileName to pairs; a name starting with '-' reads standard input.
  // Faulty lines are skipped and described in errors, one line each; a
  // line longer than 198 characters ends the reading.
  void processFileListFile(const char* fileName, FilePairs& pairs, std::string& errors);

 private:
  void pairsFromArguments();

  FilePairs mFilePairs;
  std::unique_ptr<UploadManager> mUploadMgr;
};

#endif  // HIVE_HOPPER_HIVECOPY_H_
