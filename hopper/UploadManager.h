// UploadManager drives one upload run: it picks the head daemon, begins the
// upload, sends every file of every source (walking directories), resumes on
// the next head when a connection breaks, and commits or aborts at the end.
// Lost hosts are reported and dropped; the run goes on with the rest until
// none is left (NoNodesException). The run's time limit (timeout) is checked
// after every block and also bounds every wait on a head, so that a stalled
// head ends the run at the limit instead of holding it for ever; a wait ended
// that way aborts the run and does not count as a lost host. File data goes
// from the file to the head inside the kernel where it can (sendfile), else
// it is read and written here, in the same blocks either way.
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
  // Bytes of a file sent per block: the unit of progress and of the time
  // limit check.
  static const int kBlockSize = 32768;
  // Files with at least this many bytes left go out by sendfile.
  static const long kSendFileMinimum = 4 * kBlockSize;

  UploadManager(const IPtoNameMap& hosts, bool verboseMode, bool stopAgents, int timeout,
                System::OSID targetOSID, std::ostream& out, std::ostream& err);

  // Where the connections to heads go (null, the default: TCP); not owned.
  void setConnector(Connector* connector) { mConnector = connector; }
  // What the sources are read through (the real file system by default);
  // not owned.
  void setFileSystem(FileSystem* fs) { mFS = fs; }

  // Every local path must exist and every remote path be absolute; throws
  // std::runtime_error naming the first that is not.
  void validatePaths(const FilePairs& pairs) const;

  // Connects to the first usable host of the node set as the new head,
  // reporting (and, when given, appending to badNodes) the hosts dropped on
  // the way. Throws NoNodesException when none is left. Returns without a
  // connection when the run's time limit passed on the way (the run is then
  // aborted).
  void findGoodNode(BadNodeList* badNodes, bool newProtocol);

  // Picks a head and begins the upload on it, reporting busy and failed
  // hosts; retries with the next head when the head cannot take it. Returns
  // with the head connected unless the run was aborted (signal or time
  // limit).
  void beginUpload();

  // Sends one file (size bytes, permission bits mode) to remotePath.
  // Returns true when every daemon stored it.
  bool uploadFile(const std::string& localPath, const std::string& remotePath, long size, int mode);
  // Sends a directory tree into remoteDir joined with the last component of
  // localDir (none when localDir ends in '/'). True when every entry
  // succeeded; symbolic links and named pipes are skipped and count as
  // failures.
  bool uploadDirectory(const std::string& localDir, const std::string& remoteDir);

  // The whole run: start the time limit, validate, send each pair, then
  // commit, or abort when the run was aborted (signal or time limit). The
  // result is that of the last entry (true for an empty batch), and false
  // when the commit reply reports a file that did not land on some host
  // (lost hosts alone do not count).
  bool uploadBatch(const FilePairs& pairs);
  bool upload(const std::string& localPath, const std::string& remotePath);

 private:
  // Where the conversation with the head stands, so that an abort is only
  // sent at a message boundary. Broken: an exchange failed part way, so only
  // a new connection is known to be at one.
  enum class Wire { Idle, SendingData, AwaitingReply, Broken };

  // Sends a file to fileTarget, or a directory into directoryTarget (which
  // gets the directory's last component appended); skips links and pipes.
  bool uploadEntry(const std::string& localPath, const std::string& fileTarget,
                   const std::string& directoryTarget);
  // file is the open source; every read names its offset.
  bool sendFile(int file, const std::string& localPath, const std::string& remotePath, long size,
                int mode, long& sent, long& dotBytes);
  // A daemon's error text, its addresses replaced by host names, as a line.
  void printError(std::string text);
  // Lines the head up with the daemon's position after an announcement:
  // re-sends [position, sent) when the daemon holds less than was sent, or
  // skips sent up to position when it holds more.
  void resumeFrom(int file, const std::string& localPath, long position, long size, long& sent);
  // Sends bytes [sent, size) of the file, advancing sent block by block.
  // False when the run was aborted (signal or time limit) on the way.
  bool sendData(int file, const std::string& localPath, long size, long& sent, long& dotBytes);
  // When the run's time limit has passed, aborts the run and returns true.
  // After a failed exchange this tells that the head was not at fault.
  bool timeLimitPassed();
  void dropHead();
  // False when the time limit ended it (the run is then aborted).
  bool commit();
  void finishAborted();
  // A new connection to the current head (null when it does not answer).
  // It does not carry the run's deadline: the abort sent on it comes after.
  std::unique_ptr<TCPStream> reconnectToHead();

  // When the run's time limit passes (Time::max: never), on the wall clock
  // and as the monotonic reading that every head stream's waits end at.
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
