// The relay link of a session: the connection from this daemon to the next
// host of the chain. It finds that host (skipping unreachable and busy ones),
// passes file announcements, data, commit and abort on, and when the link is
// lost in the middle it drops the host, links to the next one and re-sends
// what that host is missing from this host's staged copy, so that a lost
// host costs the others nothing. No wait on the link lasts longer than the
// time-out without progress, unless the host still answers a fresh
// handshake (it is then itself waiting on the hosts after it).
#ifndef HC_HOPPERD_DOWNSTREAM_H
#define HC_HOPPERD_DOWNSTREAM_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hopperd/Protocol.h"
#include "util/TCPStream.h"

class StagedFile;

class Downstream {
 public:
  // identity travels ahead of every begin; self is this host's identifier,
  // used in the error lines this link writes; ioTimeoutMs bounds every wait
  // on the link.
  Downstream(RelayIdentity identity, std::string self, int ioTimeoutMs);
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

  // Announces a file. True when the link takes its bytes from position()
  // on; false when there is no link or it refused the file (its text then
  // goes to refusal). localCopy, when not null, is this host's staged copy,
  // from which gaps are re-sent after a reroute.
  bool announce(const FileInfo& info, const StagedFile* localCopy, std::string& refusal);
  int64_t position() const { return mPosition; }
  // Forwards the bytes [offset, offset + n) of the announced file; only the
  // part the link does not hold yet is sent.
  void forward(const char* data, size_t n, int64_t offset);
  // After the whole file went out: the link's reply text (its error lines),
  // or the lines of this host about a file it could not pass on.
  std::string finishFile();

  // Passes commit on (sent before this host commits, read after).
  void sendCommit();
  std::string finishCommit();
  // Passes abort on and waits for its reply.
  void abort();

  // Hosts lost during the upload, in order.
  const std::vector<std::string>& lostHosts() const { return mLost; }
  // Raw data bytes written to the link (for the traffic statistics).
  int64_t bytesForwarded() const { return mBytesForwarded; }

 private:
  enum Outcome { LINKED, BUSY, FAILED, MISMATCH };
  Outcome tryLink(size_t index, BeginResult& result);
  bool search(size_t from, BeginResult& result,
              const std::function<bool()>& abandoned = nullptr);
  // A new stream with the link's time-outs and cancellation.
  std::unique_ptr<TCPStream> newStream();
  // The stall handler of the link: true (wait once more) while the host
  // answers a fresh handshake, a bounded number of times in a row.
  bool hostStillAnswers();
  // Starts counting stalls afresh (the link made progress).
  void progressed() { mStalls = 0; }
  std::vector<std::string> remainingFrom(size_t index) const;
  // The link broke: records the host as lost and links to the next one,
  // whose own failures count as lost too. True when a new link is up.
  bool reroute();
  // Hosts that failed while the upload was under way count as lost.
  void loseAll(const BeginResult& failures);
  bool announceOnLink(std::string& refusal);
  // A file whose bytes or reply are still owed on the link (its upstream
  // vanished in the middle of it) leaves the link fit for nothing else: the
  // link is dropped, and the next message links afresh.
  void dropUnfinishedFile();
  // The link broke in the middle of a file: links to the next host and
  // announces the file there again. False when that failed.
  bool relinkFile();
  bool resendGap(int64_t end);
  void sendFileBytes(const char* data, size_t n);
  void dropFile(const std::string& why);

  RelayIdentity mIdentity;
  std::string mSelf;
  const int mIoTimeoutMs;
  std::atomic<bool> mCancelled{false};
  int mStalls = 0;  // time-outs in a row the host excused by answering
  bool mCommitting = false;
  bool mStopAgents = false;
  std::vector<std::string> mCandidates;
  std::set<std::string> mDropped;
  std::vector<std::string> mLost;
  size_t mIndex = 0;  // position of mHost in mCandidates
  std::string mHost;
  std::unique_ptr<TCPStream> mStream;

  // The file being passed on.
  bool mFileOpen = false;
  bool mForwarding = false;
  FileInfo mFile;
  const StagedFile* mLocalCopy = nullptr;
  int64_t mPosition = 0;  // next byte offset the link expects
  std::string mFileErrors;
  int64_t mBytesForwarded = 0;
};

#endif  // HC_HOPPERD_DOWNSTREAM_H
