// UploadManager drives one upload run: it picks the head daemon, begins the
// upload, sends every file of every source (walking directories), resumes on
// the next head when a connection breaks, and commits or aborts at the end.
// Lost hosts are reported and dropped; the run goes on with the rest until
// none is left (NoNodesException).
#ifndef HOPPER_UPLOADMANAGER_H_
#define HOPPER_UPLOADMANAGER_H_

#include <exception>
#include <istream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hopper/MoveManager.h"
#include "util/TCPStream.h"
#include "util/Time.h"

// (local source path, remote target path) pairs in upload order.
using FilePairs = std::vector<std::pair<std::string, std::string>>;

// Ends the run when every target host has been dropped.
class NoNodesException : public std::exception {
 public:
  const char* what() const noexcept override { return "No good hosts left"; }
};

class UploadManager : public MoveManager {
 public:
  // Bytes read from a file and sent per block.
  static const int kBlockSize = 32768;

  UploadManager(const IPtoNameMap& hosts, bool verboseMode, bool stopAgents, int timeout,
                System::OSID targetOSID, std::ostream& out, std::ostream& err);
  ~UploadManager() override;

  // Every local path must exist and every remote path be absolute; throws
  // std::runtime_error naming the first that is not.
  void validatePaths(const FilePairs& pairs) const;

  // Connects to the first usable host of the node set as the new head,
  // reporting (and, when given, appending to badNodes) the hosts dropped on
  // the way. Throws NoNodesException when none is left.
  void findGoodNode(BadNodeList* badNodes, bool newProtocol);

  // Picks a head and begins the upload on it, reporting busy and failed
  // hosts; retries with the next head when the head cannot take it. Returns
  // without a connection only when the run was aborted.
  void beginUpload();

  // Sends one file (size bytes, permission bits mode) to remotePath.
  // Returns true when every daemon stored it.
  bool uploadFile(const std::string& localPath, const std::string& remotePath, long size, int mode,
                  const Time& deadline);
  // Sends a directory tree into remoteDir joined with the last component of
  // localDir (none when localDir ends in '/'). True when every entry
  // succeeded; symbolic links and named pipes are skipped and count as
  // failures.
  bool uploadDirectory(const std::string& localDir, const std::string& remoteDir,
                       const Time& deadline);

  // The whole run: validate, send each pair, then commit, or abort when the
  // run was aborted (signal or time limit). The result is that of the last
  // entry (true for an empty batch).
  bool uploadBatch(const FilePairs& pairs);
  bool upload(const std::string& localPath, const std::string& remotePath);

 private:
  // Where the conversation with the head stands, so that an abort is only
  // sent at a message boundary.
  enum class Wire { Idle, SendingData, AwaitingReply };

  // Sends a file to fileTarget, or a directory into directoryTarget (which
  // gets the directory's last component appended); skips links and pipes.
  bool uploadEntry(const std::string& localPath, const std::string& fileTarget,
                   const std::string& directoryTarget, const Time& deadline);
  bool sendFile(std::istream& file, const std::string& localPath, const std::string& remotePath,
                long size, int mode, const Time& deadline, long& sent, long& dotBytes,
                std::ostream& fileErrors);
  void resumeFrom(std::istream& file, const std::string& localPath, long position, long size,
                  long& sent);
  bool sendData(std::istream& file, const std::string& localPath, long size,
                const Time& deadline, long& sent, long& dotBytes);
  void dropHead();
  void commit();
  void finishAborted(const Time& deadline);
  // A new connection to the current head (null when it does not answer).
  std::unique_ptr<TCPStream> reconnectToHead();

  std::unique_ptr<TCPStream> mPOutStream;
  std::vector<char> mBlock;
  Wire mWire = Wire::Idle;
};

#endif  // HOPPER_UPLOADMANAGER_H_
