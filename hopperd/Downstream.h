// The relay link of a session: the connection from this daemon to the next
// host of the chain. It finds that host (skipping unreachable and busy ones)
// and passes every file on to it as parts that carry their bytes at once, so
// that nothing on the way waits for the hosts after this one: a reader thread
// of the link takes what the host sends back (its errors for files, which it
// sends only when it has some) as it comes and keeps the errors for the
// commit reply. Only commit and abort wait for the link's replies.
//
// The link remembers every file it passed on. When it is lost it drops the
// host, links to the next one, asks it which file it took last and how much
// of it, and re-sends the rest from this host's staged copies, so that a lost
// host costs the others nothing. Every wait on the link ends after the time-
// out without progress, unless the host still answers a fresh handshake (it
// is then itself waiting on the hosts after it).
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
  // identity travels ahead of every begin; self is this host's identifier,
  // used in the error lines this link writes; ioTimeoutMs bounds every wait
  // on the link; connector (not owned; null: TCP) makes its connections.
  Downstream(RelayIdentity identity, std::string self, int ioTimeoutMs,
             Connector* connector = nullptr);
  ~Downstream();
  Downstream(const Downstream&) = delete;
  Downstream& operator=(const Downstream&) = delete;

  // Drops any current link and links to the first host of candidates (the
  // hosts after this one, in order) that accepts the upload. Busy and failed
  // hosts, and those the new link reports, go to result. The search stops
  // early when abandoned() says the upstream has gone. True when linked.
  bool connect(const std::vector<std::string>& candidates, bool stopAgents,
               BeginResult& result, const std::function<bool()>& abandoned);
  // When no link is up but hosts remain (after an orphaning), links again;
  // hosts that fail now count as lost. True when linked.
  bool ensureLinked();
  bool linked() const { return mStream != nullptr; }
  // Closes the link without a word (the next host sees its upstream vanish).
  void close();
  // From any thread: every wait on the link ends within 100 ms and no new
  // link is made (the daemon is shutting down).
  void cancel() { mCancelled = true; }

  // Passes on the bytes [start, start + count) of the file seq, which the
  // caller then hands to forward() in order and ends with finishPart().
  // copy, when not null, is this host's staged copy of the file, from which
  // the bytes the host after this one misses are re-sent.
  void startPart(const FileInfo& info, int64_t seq, const StagedFile* copy, int64_t start,
                 int64_t count);
  // Forwards the bytes [offset, offset + n) of the part; only what the link
  // does not hold yet is sent. blockCRC, when not null, is their checksum
  // (one relayed block, passed on as it came).
  void forward(const char* data, size_t n, int64_t offset, const uint32_t* blockCRC = nullptr);
  // Ends the part: the lines of this host about a file it could not pass on
  // ("" when it went out). Never waits for the link's reply. The part's
  // last bytes may wait in the link's buffer (see flush).
  std::string finishPart();
  // Passes on the checksum of a whole file, to the host after this one when
  // the link holds all of the file; a host linked later gets it with the
  // file. It may wait in the link's buffer.
  void passCheck(const FileCheck& check);
  // Sends what waits in the link's buffer. Small files and checks collect
  // there (up to 64 KiB) until the caller is about to wait for
  // more input, so that files arriving together leave in one send.
  void flush();
  // True when bytes wait in the link's buffer.
  bool queued() const { return linked() && mStream->streamBuf().queued() > 0; }
  // Forgets the files passed on (their staged copies are gone).
  void forgetFiles();

  // Passes commit on (sent before this host commits, read after).
  void sendCommit();
  // Waits for the commit reply; returns the errors the hosts after this one
  // reported for files during the upload, then the commit reply's lines.
  std::string finishCommit();
  // Passes abort on and waits for its reply.
  void abort();

  // Hosts lost during the upload, in order.
  const std::vector<std::string>& lostHosts() const { return mLost; }
  // Raw data bytes written to the link (for the traffic statistics).
  int64_t bytesForwarded() const { return mBytesForwarded; }

 private:
  enum Outcome { LINKED, BUSY, FAILED, MISMATCH };
  // A file passed on: enough to send it again to a new host.
  struct Sent {
    FileInfo mInfo;
    int64_t mSeq = 0;
    const StagedFile* mCopy = nullptr;
    bool mSuperseded = false;  // its target was announced again later
    std::optional<FileCheck> mCheck;  // the file's checksum, once known
  };

  Outcome tryLink(size_t index, BeginResult& result);
  bool search(size_t from, BeginResult& result,
              const std::function<bool()>& abandoned = nullptr);
  // A new stream with the link's time-outs and cancellation.
  std::unique_ptr<TCPStream> newStream();
  // The stall handler of the link: true (wait once more) while the host
  // answers a fresh handshake, a bounded number of times in a row.
  bool hostStillAnswers();
  std::vector<std::string> remainingFrom(size_t index) const;
  // The link broke: records the host as lost and links to the next one,
  // whose own failures count as lost too. True when a new link is up.
  bool reroute();
  // Links to the first host from index from on; hosts that fail now, while
  // the upload is under way, count as lost. True when linked.
  bool searchAfterLoss(size_t from);
  // Runs step on the link, rerouting and running it again when the link
  // breaks. False when no host is left to run it on.
  template <typename Step>
  bool onLink(const Step& step);

  // The reader thread's loop over what the host sends back.
  void readReplies(TCPStream& replies);
  // The stall handler of the reading side: silence is fine unless a reply
  // is owed, and then only while the host still answers a handshake.
  bool replyOverdue();
  void startReader();
  // Throws LinkLost once the reader has found the link broken.
  void checkLink();
  // Sends the commit or abort that write puts on the link (rerouting as
  // onLink does) and counts its reply as owed. False when no host is left.
  bool sendFinal(void (*write)(TCPStream&));
  // Waits until the reader took the reply to every commit or abort sent on
  // this link (or the link broke); returns the last one's text.
  std::string awaitFinal();
  // awaitFinal(), rerouting when the link breaks: the new host is sent the
  // files again (unless aborting) and then write's message. "" when no host
  // is left.
  std::string finalReply(void (*write)(TCPStream&));

  // Brings a freshly linked host up to date: every file from the one it
  // took last is sent again from the staged copies.
  void resync(int64_t lastSeq, int64_t lastBytes);
  // Sends the part header for [mPosition, end) of the file mCurrentSeq.
  void sendHeader(const FileInfo& info, int64_t end);
  // Sends the current part's header and what the link misses before it,
  // when the link has not had them yet (PENDING).
  void openLivePart();
  // Sends the current file's bytes [mPosition, upTo) from the staged copy,
  // or drops the file when the copy does not hold them.
  void catchUp(int64_t upTo);
  // Sends data as checked blocks; crc, when not null, is the checksum of
  // all of it, which then goes as one block.
  void sendFileBytes(const char* data, size_t n, const uint32_t* crc = nullptr);
  // Sends [mPosition, to) of a staged copy and moves mPosition to to; false
  // with the error text when the copy cannot be read back.
  bool sendFromCopy(const StagedFile* copy, const std::string& path, int64_t to,
                    std::string& error);
  void dropFile(const std::string& why);
  // A part whose bytes are still owed on the link (its upstream vanished in
  // the middle of it) leaves the link fit for nothing else: it is closed.
  void dropUnfinishedPart();

  RelayIdentity mIdentity;
  std::string mSelf;
  const int mIoTimeoutMs;
  Connector* const mConnector;
  std::atomic<bool> mCancelled{false};
  std::atomic<int> mStalls{0};  // time-outs in a row the host excused by answering
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

  // Shared with the reader thread.
  Mutex mMutex;
  Condition mChanged;
  // Commit and abort replies owed and taken on this link. Counts, not a
  // flag reset by the writer: a reply the reader takes before the writer
  // has recorded sending its request still counts.
  uint64_t mFinalsSent = 0;
  uint64_t mFinalsArrived = 0;
  std::string mFinalReply;
  bool mBroken = false;
  bool mStopReader = false;
  std::string mErrors;  // the hosts' error lines for files

  // Every file passed on, in order; the latest entry for each staged copy.
  std::vector<Sent> mSent;
  std::unordered_map<const StagedFile*, size_t> mLatestFor;

  // The part being passed on.
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
