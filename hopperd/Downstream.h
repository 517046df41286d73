// The relay link of a session to the next host of the chain that accepts
// the upload. Files go on as parts carrying their bytes at once; a reader
// thread keeps the host's replies, so only commit and abort wait for them.
// A lost host is dropped: the next one is asked which file it took last and
// is sent the rest from this host's staged copies. A wait on the link ends
// after the time-out unless the host still answers a fresh handshake.
#ifndef HIVE_HOPPERD_DOWNSTREAM_H_
#define HIVE_HOPPERD_DOWNSTREAM_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "hopper/Protocol.h"
#include "util/Condition.h"
#include "util/Mutex.h"
#include "util/TCPStream.h"

class StagedFile;

class Downstream {
 public:
  // identity precedes every begin; self prefixes this link's error lines;
  // connector (not owned; null: TCP) makes its connections.
  Downstream(RelayIdentity identity, std::string self, int ioTimeoutMs,
             Connector* connector = nullptr);
  ~Downstream();

  // Links to the first of candidates that accepts the upload; the busy and
  // failed go to result. Stops when abandoned() is true. True when linked.
  bool connect(const std::vector<std::string>& candidates, bool stopAgents,
               BeginResult& result, const std::function<bool()>& abandoned);
  // Links again when no link is up; hosts failing now count as lost.
  bool ensureLinked();
  bool linked() const { return mStream != nullptr; }
  // Closes the link without a word (the next host sees its upstream vanish).
  void close();
  // From any thread (shutdown): every wait ends soon, no new link is made.
  void cancel() { mCancelled = true; }

  // Opens the part [start, start + count) of file seq; copy (may be null) is
  // this host's staged copy, which re-sends what the link misses.
  void startPart(const FileInfo& info, int64_t seq, const StagedFile* copy, int64_t start,
                 int64_t count);
  // Forwards the part's bytes [offset, offset + n) the link lacks; blockCRC
  // (may be null) is their checksum.
  void forward(const char* data, size_t n, int64_t offset, const uint32_t* blockCRC = nullptr);
  // Ends the part without waiting for the link; this host's error lines.
  std::string finishPart();
  // Passes on a whole file's checksum once the link holds all of the file.
  void passCheck(const FileCheck& check);
  // Sends what collected in the link's buffer (up to 64 KiB).
  void flush();
  // True when bytes wait in the link's buffer.
  bool queued() const { return linked() && mStream->streamBuf().queued() > 0; }
  // Forgets the files passed on (their staged copies are gone).
  void forgetFiles();

  // Passes commit on (sent before this host commits, read after).
  void sendCommit();
  // Waits for the commit reply; the hosts' file errors, then its lines.
  std::string finishCommit();
  // Passes abort on and waits for its reply.
  void abort();

  // Hosts lost during the upload, in order.
  const std::vector<std::string>& lostHosts() const { return mLost; }
  // Raw data bytes written to the link.
  int64_t bytesForwarded() const { return mBytesForwarded; }

 private:
  enum Outcome { LINKED, BUSY, FAILED, MISMATCH };
  // A file passed on: enough to send it again to a new host.
  struct Sent {
    FileInfo mInfo;
    int64_t mSeq = 0;
    const StagedFile* mCopy = nullptr;
    bool mSuperseded = false;  // its target was announced again later
    std::optional<FileCheck> mCheck;
  };

  Outcome tryLink(size_t index, BeginResult& result);
  bool search(size_t from, BeginResult& result,
              const std::function<bool()>& abandoned = nullptr);
  // Connects and shakes hands with host; its protocol version.
  int handshake(TCPStream& stream, const std::string& host, int timeoutMs);
  std::unique_ptr<TCPStream> newStream();
  // Stall handler: wait once more while the host answers a handshake.
  bool hostStillAnswers();
  bool reroute();
  // Links to the first host from index from on; failures count as lost.
  bool searchAfterLoss(size_t from);
  // Runs step on the link, rerouting when it breaks; false when no host is left.
  template <typename Step>
  bool onLink(const Step& step);

  void readReplies(TCPStream& replies);
  // Stall handler of the reader: silence is fine unless a reply is owed.
  bool replyOverdue();
  bool sendFinal(void (*write)(TCPStream&));
  // Waits for the replies owed, resending write's message on a new link;
  // the last reply's text, "" when no host is left.
  std::string finalReply(void (*write)(TCPStream&));

  void resync(int64_t lastSeq, int64_t lastBytes);
  void sendHeader(const FileInfo& info, int64_t end);
  void openLivePart();
  // Sends the bytes [mPosition, upTo) from the staged copy, or drops the file.
  void catchUp(int64_t upTo);
  void sendFileBytes(const char* data, size_t n, const uint32_t* crc = nullptr);
  bool sendFromCopy(const StagedFile* copy, const std::string& path, int64_t to,
                    std::string& error);
  void dropFile(const std::string& why);
  void dropUnfinishedPart();

  RelayIdentity mIdentity;
  std::string mSelf;
  const int mIoTimeoutMs;
  Connector* const mConnector;
  std::atomic<bool> mCancelled{false};
  std::atomic<int> mStalls{0};  // time-outs in a row excused by a handshake
  std::atomic<bool> mCommitting{false};
  bool mStopAgents = false;
  bool mAborting = false;  // a new link is not sent the files again
  std::vector<std::string> mCandidates;
  std::set<std::string> mDropped;
  std::vector<std::string> mLost;
  size_t mIndex = 0;  // position of mHost in mCandidates
  std::string mHost;
  std::unique_ptr<TCPStream> mStream;   // the writing side
  std::unique_ptr<TCPStream> mReplies;  // the reading side, the reader's own
  uint64_t mLinks = 0;                  // links closed so far
  std::thread mReader;

  Mutex mMutex;  // and what follows: shared with the reader thread
  Condition mChanged;
  // Counts, not a flag: a reply read before its request is recorded counts.
  uint64_t mFinalsSent = 0;
  uint64_t mFinalsArrived = 0;
  std::string mFinalReply;
  bool mBroken = false;
  bool mStopReader = false;
  std::string mErrors;  // the hosts' error lines for files

  std::vector<Sent> mSent;  // every file passed on, in order
  std::unordered_map<const StagedFile*, size_t> mLatestFor;

  enum PartState {
    NO_PART,
    DROPPED,    // open, but its bytes no longer go to the link
    PENDING,    // open; the link has not had its header yet
    STREAMING,  // the link takes the part's bytes from mPosition
  };
  PartState mPartState = NO_PART;
  bool passing() const { return mPartState == PENDING || mPartState == STREAMING; }
  FilePart mPart;
  const StagedFile* mCopy = nullptr;
  int64_t mCurrentSeq = 0;  // the file whose bytes mPosition counts
  bool mAnnounced = false;  // the link knows that file
  int64_t mPosition = 0;    // next byte of it the link expects
  std::string mFileErrors;
  int64_t mBytesForwarded = 0;
};

#endif  // HIVE_HOPPERD_DOWNSTREAM_H_
