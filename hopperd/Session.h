// One upload on this host: the host set (this host first), the staged files
// in announcement order, the directories the upload created, its journal and
// its relay link to the next host. The connection that owns the session
// drives it one message at a time while holding workMutex(); the session
// table decides who owns it (see SessionTable).
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
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const std::string& id() const { return mId; }
  const std::string& self() const { return mSelf; }
  const std::string& clientAddress() const { return mClientAddress; }

  // Held by a connection while it handles one message of the session.
  Mutex& workMutex() { return mWorkMutex; }

  // ---- with workMutex() held -------------------------------------------

  // Takes a begin's host set and links to the next host that accepts; the
  // hosts that failed or were busy go to result. The search stops when
  // abandoned() says the upstream has gone.
  void begin(const std::vector<std::string>& hosts, bool stopAgents, BeginResult& result,
             const std::function<bool()>& abandoned);
  // A file from the client: stages it here (continuing the file the upload
  // was resumed in) and passes it on. True with the offset from which the
  // client sends, from this host's own state; false with the refusal lines
  // when this host refuses the file and no host follows it.
  bool openFile(const FileInfo& info, int64_t& start, std::string& refusal);
  // A part of a file from the host before this one: stages and passes it
  // on. Its bytes follow whatever this host makes of it.
  void openPart(const FilePart& part);
  // The next bytes of the open file or part, in order.
  // blockCRC, when not null, is the checksum of the n bytes as received.
  void fileData(const char* data, size_t n, const uint32_t* blockCRC = nullptr);
  // Ends the open file or part; returns this host's error lines for it
  // ("" for success). Errors of the hosts after this one come with commit.
  // A file the client sent whole is checked here against the checksum of
  // the bytes received, which then goes down the chain.
  std::string closeFile();
  // The head's checksum of a file relayed here: compares this host's staged
  // copy with it (a copy that differs is removed and reported) and passes it
  // on. Returns this host's error lines.
  std::string checkFile(const FileCheck& check);
  // A relayed block failed its check: what this host staged of the open
  // part is dropped (the link it came from is dropped too).
  void dropCurrentFile();
  // The file this host took last (0 for none) and the bytes of it it holds,
  // or its size when it wants no more of it (refused or failed here).
  void lastFile(int64_t& seq, int64_t& bytes) const;
  // Commits downstream and here; returns the error lines. The session is
  // over afterwards.
  std::string commit();
  // Aborts downstream and removes everything staged here.
  void abort();
  // Removes everything staged here and drops the relay link without a word
  // (an expired or shut-down session).
  void discard();
  // Sends what waits for the relay link (see Downstream::flush).
  void flushDownstream() { mDownstream.flush(); }
  bool downstreamQueued() const { return mDownstream.queued(); }
  // Drops the relay link, so that the hosts after this one notice the loss.
  void closeDownstream() { mDownstream.close(); }
  // From any thread: ends every wait on the relay link (shutdown).
  void cancel() { mDownstream.cancel(); }

  // Raw data bytes passed downstream.
  int64_t bytesForwarded() const { return mDownstream.bytesForwarded(); }

 private:
  friend class SessionTable;

  struct Entry {
    std::unique_ptr<StagedFile> mFile;
    FileInfo mInfo;  // the announcement the staged bytes belong to
    uint64_t mGeneration = 0;
    int64_t mSeq = 0;  // the file's number in the upload
    bool mFailed = false;
  };

  // Finds where info goes; false with the refusal (nothing left behind).
  bool resolve(const FileInfo& info, TargetPath::Resolution& where, std::string& refusal);
  // The entry of where's target, staged afresh as file seq.
  Entry* stageFresh(const FileInfo& info, int64_t seq, TargetPath::Resolution& where,
                    std::string& refusal);
  // Opens entry's staged bytes to continue them; false with the error text.
  bool continueStaged(Entry* entry, std::string& refusal);
  Entry* entryFor(const std::string& target) const;
  Entry* entryOfSeq(int64_t seq) const;
  // Compares entry's staged copy with check; the error lines when they
  // differ or it cannot be read (the copy is then removed).
  std::string verify(Entry* entry, const FileCheck& check);
  // The staged copy left open for its check is closed.
  void closeAwaitingCheck();
  // Receives part into entry (null: nothing of it is staged here) and
  // passes it on.
  void startFile(const FilePart& part, Entry* entry);
  // True when entry's staged bytes may be continued for info (a resumed file).
  bool resumable(const Entry* entry, const FileInfo& info) const;
  void keepCreatedDirs(const std::vector<std::string>& dirs);
  void runCommand(const std::string& command, std::string& errors);
  // Commit in two passes, so that durability costs one flush per file
  // system and one per directory rather than one per file: the files whose
  // staged copies are complete, checked and on flushed file systems...
  std::vector<Entry*> prepareForCommit(std::string& errors);
  // ...then renamed onto their targets, each directory flushed after.
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
  std::unordered_map<std::string, Entry*> mByTarget;  // keyed by remote target
  std::set<std::string> mKnownDirs;              // remote directories made
  std::vector<std::string> mCreatedDirs;         // the same, in creation order
  uint64_t mGeneration = 0;                      // counts (re)begins
  Entry* mLast = nullptr;                        // the last announced file
  int64_t mLastSeq = 0;                          // the highest file number seen

  // The file being received.
  Entry* mCurrent = nullptr;
  int64_t mOffset = 0;
  int64_t mCurrentSeq = 0;
  int64_t mCurrentSize = 0;
  bool mFromClient = false;  // this host is the head for it: it makes the check
  bool mPartEndsFile = false;  // a relayed part up to the file's end: a check follows
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
