// HiveCopy: the upload command, which copies local files and directories to
// the same absolute path on every host of the cluster.

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
  using RunnerApplication::RunnerApplication;

  // Uploads and prints "Upload time: <seconds> secs"; 0 on success, else 1.
  int run() override;
  void usage() override;
  // The base's options, the pairs, the upload manager. Throws for missing
  // or conflicting arguments and a faulty file list.
  void initializeAssumingSignalsAreBlocked() override;
  // The shutdown signals go to the upload manager on a dispatcher thread.
  void processSignals() override;
  // Stops the dispatcher before the manager goes, so no callback outlives it.
  void terminate() override;

  // Appends the pairs of fileName's "src => tgt" (or "->") lines; a name
  // starting with '-' reads standard input. Faulty lines are described in
  // errors, one line each; a line over 198 characters ends the reading.
  void processFileListFile(const char* fileName, FilePairs& pairs, std::string& errors);

 private:
  FilePairs mFilePairs;
  std::unique_ptr<UploadManager> mUploadMgr;
};

#endif  // HIVE_HOPPER_HIVECOPY_H_
