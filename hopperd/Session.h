// One upload on this host: its staged files in announcement order, the
// directories it created, its journal and its relay link to the next host.
// The owning connection (see SessionTable) drives it under workMutex().
#ifndef HIVE_HOPPERD_SESSION_H_
#define HIVE_HOPPERD_SESSION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "hopperd/DaemonConfig.h"
#include "hopperd/Downstream.h"
#include "hopperd/Journal.h"
#include "hopper/Protocol.h"
#include "hopperd/StagedFile.h"
#include "hopperd/TargetPath.h"
#include "util/Mutex.h"
#include "util/Ticks.h"

class SessionOwner;

class Session {
 public:
  // hosts[0] is this host's identifier as the sender named it.
  Session(std::string id, std::vector<std::string> hosts, std::string clientAddress,
          const DaemonConfig& config);

  const std::string& id() const { return mId; }
  const std::string& clientAddress() const { return mClientAddress; }
  Mutex& workMutex() { return mWorkMutex; }

  // ---- with workMutex() held -------------------------------------------

  // Links to the next host of hosts that accepts; the failed and busy go
  // to result. Stops when abandoned() is true.
  void begin(const std::vector<std::string>& hosts, bool stopAgents, BeginResult& result,
             const std::function<bool()>& abandoned);
  // A file from the client, staged and passed on. True with the offset the
  // client sends from; false with the refusal when no host follows this one.
  bool openFile(const FileInfo& info, int64_t& start, std::string& refusal);
  // A part of a file from the host before this one, staged and passed on.
  void openPart(const FilePart& part);
  // The next bytes of the open file or part; blockCRC (may be null) is their checksum.
  void fileData(const char* data, size_t n, const uint32_t* blockCRC = nullptr);
  // Ends the open file or part (a file from the client is checked here);
  // this host's error lines, "" for success.
  std::string closeFile();
  // Checks the staged copy against the head's checksum (removing one that
  // differs) and passes it on; this host's error lines.
  std::string checkFile(const FileCheck& check);
  // A relayed block failed its check: the open part's staged copy goes.
  void dropCurrentFile();
  // The file taken last (0: none) and its bytes held (max when failed here).
  void lastFile(int64_t& seq, int64_t& bytes) const;
  // Commits downstream and here; the error lines. The session is over.
  std::string commit();
  // Aborts downstream and removes everything staged here.
  void abort();
  // Removes everything staged here and drops the relay link without a word.
  void discard();
  void flushDownstream() { mDownstream.flush(); }
  bool downstreamQueued() const { return mDownstream.queued(); }
  void closeDownstream() { mDownstream.close(); }
  // From any thread: ends every wait on the relay link (shutdown).
  void cancel() { mDownstream.cancel(); }

 private:
  friend class SessionTable;

  struct Entry {
    std::unique_ptr<StagedFile> mFile;
    FileInfo mInfo;  // the announcement the staged bytes belong to
    uint64_t mGeneration = 0;
    int64_t mSeq = 0;
    bool mFailed = false;
  };

  // False with the refusal (nothing left behind).
  bool resolve(const FileInfo& info, TargetPath::Resolution& where, std::string& refusal);
  Entry* stageFresh(const FileInfo& info, int64_t seq, TargetPath::Resolution& where,
                    std::string& refusal);
  bool continueStaged(Entry* entry, std::string& refusal);
  Entry* entryFor(const std::string& target) const;
  Entry* entryOfSeq(int64_t seq) const;
  // The error lines when entry's copy differs from check (it is removed).
  std::string verify(Entry* entry, const FileCheck& check);
  void closeAwaitingCheck();
  // entry is null when the file is not staged here.
  void startFile(const FilePart& part, Entry* entry);
  bool resumable(const Entry* entry, const FileInfo& info) const;
  void keepCreatedDirs(const std::vector<std::string>& dirs);
  void runCommand(const std::string& command, std::string& errors);
  // Reuses parent while file's target is in directory, else walks afresh.
  bool walkTo(const StagedFile& file, std::string& directory, System::FileDescriptor& parent,
              std::string& error) const;
  // Commit flushes once per file system, then renames and flushes once per directory.
  std::vector<Entry*> prepareForCommit(std::string& errors);
  void moveIntoPlace(const std::vector<Entry*>& ready, std::string& errors);
  void removeStaged();
  std::string line(const std::string& text) const { return mSelf + ": " + text; }

  const std::string mId;
  const std::string mSelf;
  const std::string mClientAddress;
  const DaemonConfig& mConfig;
  bool mStopAgents = false;

  Mutex mWorkMutex;
  TargetPath mTargets;
  Journal mJournal;
  Downstream mDownstream;
  std::vector<std::unique_ptr<Entry>> mEntries;  // announcement order
  std::unordered_map<std::string, Entry*> mByTarget;
  std::set<std::string> mKnownDirs;              // remote directories made
  std::vector<std::string> mCreatedDirs;         // the same, in creation order
  uint64_t mGeneration = 0;                      // counts (re)begins
  Entry* mLast = nullptr;
  int64_t mLastSeq = 0;                          // the highest file number seen

  Entry* mCurrent = nullptr;  // the file being received
  FilePart mPart;
  int64_t mOffset = 0;
  bool mFromClient = false;  // this host is the head for it: it makes the check
  bool mSumming = false;     // mSum covers every byte of the file so far
  uint32_t mSum = 0;
  Entry* mAwaitingCheck = nullptr;  // relayed whole, its check still to come
  std::string mFileErrors;
  int64_t mBytesReceived = 0;

  // Ownership, guarded by the session table's mutex.
  std::weak_ptr<SessionOwner> mOwner;
  const SessionOwner* mOwnerId = nullptr;
  bool mOrphaned = false;
  Ticks mOrphanedAt;
  uint64_t mOwnerChanges = 0;
  std::string mUpstreamHost;
};

#endif  // HIVE_HOPPERD_SESSION_H_
