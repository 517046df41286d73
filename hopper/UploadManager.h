// UploadManager drives one upload run: it picks the head daemon, sends every
// file of every source (walking directories), resumes on the next head when a
// connection breaks, and commits or aborts at the end. Lost hosts are dropped
// until none is left (NoNodesException). The time limit also bounds every
// wait on a head: a stalled head aborts the run and is not counted as lost.
#ifndef HIVE_HOPPER_UPLOADMANAGER_H_
#define HIVE_HOPPER_UPLOADMANAGER_H_

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hopper/MoveManager.h"
#include "util/FileSystem.h"
#include "util/TCPStream.h"
#include "util/Ticks.h"
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
  // Bytes per block: the unit of progress and of the time limit check.
  static const int kBlockSize = 32768;
  // Files with at least this many bytes left go out by sendfile.
  static const long kSendFileMinimum = 4 * kBlockSize;

  using MoveManager::MoveManager;

  // Where connections go (null: TCP) and sources are read from; not owned.
  void setConnector(Connector* connector) { mConnector = connector; }
  void setFileSystem(FileSystem* fs) { mFS = fs; }

  // Throws std::runtime_error naming the first missing source or relative target.
  void validatePaths(const FilePairs& pairs) const;

  // Connects to the first usable host as the new head, reporting (and
  // appending to badNodes, if given) the hosts dropped. Throws
  // NoNodesException when none is left; returns unconnected when the time
  // limit passed (the run is then aborted).
  void findGoodNode(BadNodeList* badNodes, bool newProtocol);

  // Picks a head and begins the upload, reporting busy and failed hosts and
  // moving on while a head cannot take it. Connected unless aborted.
  void beginUpload();

  // Sends one file (permission bits mode); true when every daemon stored it.
  bool uploadFile(const std::string& localPath, const std::string& remotePath, long size, int mode);
  // Sends a tree into remoteDir joined with localDir's last component (none
  // when localDir ends in '/'). True when every entry succeeded; skipped
  // links and pipes count as failures.
  bool uploadDirectory(const std::string& localDir, const std::string& remoteDir);

  // The whole run: validate, send each pair, then commit, or abort when
  // aborted. The result is the last entry's (true for none), and false when
  // the commit reply reports a file that did not land (lost hosts aside).
  bool uploadBatch(const FilePairs& pairs);
  bool upload(const std::string& localPath, const std::string& remotePath);

 private:
  // Where the exchange with the head stands, so that an abort goes only at a
  // message boundary (Broken: only a new connection is at one).
  enum class Wire { Idle, SendingData, AwaitingReply, Broken };

  // A file to fileTarget, or a directory into directoryTarget.
  bool uploadEntry(const std::string& localPath, const std::string& fileTarget,
                   const std::string& directoryTarget);
  // Announces the file and sends it from where the daemon stands.
  bool sendFile(int file, const std::string& localPath, const std::string& remotePath, long size,
                int mode, long& sent, long& dotBytes);
  // Sends bytes [sent, size), advancing sent; false when aborted.
  bool sendData(int file, const std::string& localPath, long size, long& sent, long& dotBytes);
  // Aborts the run and returns true once the time limit has passed.
  bool timeLimitPassed();
  void dropHead();
  // False when the time limit ended it (the run is then aborted).
  bool commit();
  void finishAborted();
  // A new connection to the head, without the run's deadline (null when the
  // head does not answer).
  std::unique_ptr<TCPStream> reconnectToHead();

  // The time limit (Time::max: none), and as the monotonic end of every wait.
  Time mDeadline = Time::max;
  Ticks mStreamDeadline;
  bool mCommitFailed = false;  // the commit reply named a file error
  Connector* mConnector = nullptr;
  FileSystem* mFS = FileSystem::posix();
  std::unique_ptr<TCPStream> mPOutStream;
  std::vector<char> mBlock;
  Wire mWire = Wire::Idle;
};

#endif  // HIVE_HOPPER_UPLOADMANAGER_H_
