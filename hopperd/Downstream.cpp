#include "hopperd/Downstream.h"

#include <algorithm>

#include "hopperd/StagedFile.h"
#include "util/Logger.h"
#include "util/StringUtilities.h"

namespace {

const int kConnectTimeoutMs = 5000;
const size_t kGapBlock = 65536;
// What a host's connection takes in with one read.
const int kLinkBuffer = 65536;
// Time-outs a commit reply may take while the host answers (agent commands).
const int kCommitStalls = 20;

}  // namespace

Downstream::Downstream(RelayIdentity identity, std::string self, int ioTimeoutMs,
                       Connector* connector)
    : mIdentity(std::move(identity)),
      mSelf(std::move(self)),
      mIoTimeoutMs(ioTimeoutMs),
      mConnector(connector) {}

Downstream::~Downstream() { close(); }

int Downstream::handshake(TCPStream& stream, const std::string& host, int timeoutMs) {
  std::string address;
  int port = kHopperDefaultPort;
  parseHostPort(host, address, port);
  return connectToHopper(stream, address, port, timeoutMs);
}

std::unique_ptr<TCPStream> Downstream::newStream() {
  auto stream = std::make_unique<TCPStream>();
  stream->streamBuf().setOutputBufferSize(kLinkBuffer);
  TCPSocket& socket = stream->socket();
  socket.setReadTimeout(mIoTimeoutMs);
  socket.setWriteTimeout(mIoTimeoutMs);
  socket.setCancelFlag(&mCancelled);
  socket.setConnector(mConnector);
  return stream;
}

bool Downstream::hostStillAnswers() {
  const int limit = mCommitting ? kCommitStalls : int(mCandidates.size() - mIndex) + 1;
  if (mCancelled || ++mStalls > limit) return false;
  bool alive = false;
  std::string why;
  try {
    alive = acceptedVersion(
        handshake(*newStream(), mHost, std::min(kConnectTimeoutMs, mIoTimeoutMs)));
  } catch (const std::runtime_error& e) {  // lost, refused or timed out
    why = std::string(": ") + e.what();
  }
  HC_LOG_INFO("Relay link to " << mHost << " silent for " << mIoTimeoutMs << " ms; the host "
              << (alive ? "still answers" : "does not answer") << why);
  return alive;
}

void Downstream::close() {
  if (mReader.joinable()) {
    {
      Mutex::Lock lock(mMutex);
      mStopReader = true;
    }
    mChanged.broadcast();
    mReplies->socket().shutdown();  // ends a read in progress
    mReader.join();
  }
  if (mStream) ++mLinks;
  mReplies.reset();
  mStream.reset();
  mHost.clear();
  if (mPartState == STREAMING) mPartState = PENDING;  // a new link needs the header
  mAnnounced = false;
  mPosition = 0;
  Mutex::Lock lock(mMutex);
  mFinalsSent = mFinalsArrived = 0;
  mBroken = false;
  mStopReader = false;
}

bool Downstream::connect(const std::vector<std::string>& candidates, bool stopAgents,
                         BeginResult& result, const std::function<bool()>& abandoned) {
  close();
  mCandidates = candidates;
  mStopAgents = stopAgents;
  return search(0, result, abandoned);
}

bool Downstream::search(size_t from, BeginResult& result, const std::function<bool()>& abandoned) {
  for (size_t i = from; i < mCandidates.size(); ++i) {
    const std::string& host = mCandidates[i];
    if (mDropped.count(host)) continue;
    if (mCancelled || (abandoned && abandoned())) {
      HC_LOG_INFO("Host search for upload " << mIdentity.mUploadId << " stopped at " << host);
      return false;
    }
    const Outcome outcome = tryLink(i, result);
    if (outcome == LINKED) return true;
    if (outcome == BUSY) {
      result.mBusy.push_back(host);
    } else {
      result.mBad.emplace_back(host, outcome == MISMATCH ? 1 : 0);
    }
    mDropped.insert(host);
  }
  return false;
}

Downstream::Outcome Downstream::tryLink(size_t index, BeginResult& result) {
  const std::string& host = mCandidates[index];
  mStream = newStream();
  mHost = host;
  mIndex = index;
  mStalls = 0;
  try {
    if (!acceptedVersion(handshake(*mStream, host, kConnectTimeoutMs))) {
      close();
      return MISMATCH;
    }
    mStream->socket().setKeepAlive(true);
    // The host links its own next host before it answers the begin.
    mStream->socket().setStallHandler([this] { return hostStillAnswers(); });
    std::vector<std::string> remaining;
    for (size_t i = index; i < mCandidates.size(); ++i) {
      if (!mDropped.count(mCandidates[i])) remaining.push_back(mCandidates[i]);
    }
    Protocol::writeRelayIdentity(*mStream, mIdentity);
    Protocol::writeBegin(*mStream, remaining, mStopAgents);
    mStream->flush();
    BeginReply reply = Protocol::readBeginReply(*mStream);
    if (reply.mStatus != BEGIN_OK && reply.mStatus != BEGIN_SOME_FAILED) {
      close();
      return reply.mStatus == BEGIN_HEAD_BUSY ? BUSY : FAILED;
    }
    BeginResult& theirs = reply.mFailures;
    for (const auto& bad : theirs.mBad) mDropped.insert(bad.first);
    for (const std::string& busy : theirs.mBusy) mDropped.insert(busy);
    result.mBad.splice(result.mBad.end(), theirs.mBad);
    result.mBusy.splice(result.mBusy.end(), theirs.mBusy);
    Protocol::appendLines(result.mText, theirs.mText);
    Protocol::writeLastFileRequest(*mStream);
    mStream->flush();
    const LastFile last = Protocol::readLastFileReply(*mStream);
    std::unique_ptr<TCPSocket> socket = mStream->socket().duplicate();
    if (!socket) throw LinkLost("no descriptor for the link's replies");
    socket->setReadTimeout(mIoTimeoutMs);
    socket->setCancelFlag(&mCancelled);
    socket->setStallHandler([this] { return replyOverdue(); });
    mReplies = std::make_unique<TCPStream>(std::move(socket));
    mReader = std::thread([this, replies = mReplies.get()] { readReplies(*replies); });
    if (!mAborting) resync(last.mSeq, last.mBytes);
  } catch (const std::runtime_error& e) {
    HC_LOG_INFO("Unable to relay to " << host << ": " << e.what());
    close();
    return FAILED;
  }
  HC_LOG_DEBUG("Relaying upload " << mIdentity.mUploadId << " to " << host);
  return LINKED;
}

void Downstream::readReplies(TCPStream& replies) {
  try {
    for (;;) {
      const RelayMessage reply = Protocol::readRelayReply(replies, mHost);
      mStalls = 0;  // the link made progress
      {
        Mutex::Lock lock(mMutex);
        if (reply.mTag == RELAY_FILE_ERRORS) {
          HC_LOG_DEBUG("Errors of " << mHost << " for file " << reply.mSeq << ": " << reply.mText);
          Protocol::appendLines(mErrors, reply.mText);
        } else {
          mFinalReply = reply.mText;
          ++mFinalsArrived;
        }
      }
      mChanged.broadcast();
    }
  } catch (const LinkLost& e) {
    HC_LOG_DEBUG("Replies of " << mHost << " ended: " << e.what());
  } catch (const Wire::LimitError& e) {
    HC_LOG_INFO("Protocol error from " << mHost << ": " << e.what());
  }
  {
    Mutex::Lock lock(mMutex);
    mBroken = true;
  }
  mChanged.broadcast();
}

bool Downstream::replyOverdue() {
  {
    Mutex::Lock lock(mMutex);
    if (mStopReader) return false;
    // Between files silence is fine (keep-alive notices a vanished host).
    if (mFinalsArrived >= mFinalsSent) return true;
  }
  return hostStillAnswers();
}

bool Downstream::sendFinal(void (*write)(TCPStream&)) {
  return onLink([this, write] {
    {
      Mutex::Lock lock(mMutex);
      ++mFinalsSent;
    }
    write(*mStream);
    mStream->flush();
  });
}

std::string Downstream::finalReply(void (*write)(TCPStream&)) {
  for (size_t attempt = 0; linked() && attempt <= mCandidates.size(); ++attempt) {
    {
      Mutex::Lock lock(mMutex);
      mChanged.wait(lock, [this] { return mFinalsArrived >= mFinalsSent || mBroken; });
      if (mFinalsArrived >= mFinalsSent) return mFinalReply;
    }
    if (!reroute() || !sendFinal(write)) break;
  }
  return "";
}

bool Downstream::ensureLinked() { return linked() || searchAfterLoss(0); }

bool Downstream::searchAfterLoss(size_t from) {
  BeginResult failures;
  const bool ok = search(from, failures);
  for (const auto& bad : failures.mBad) mLost.push_back(bad.first);
  for (const std::string& busy : failures.mBusy) mLost.push_back(busy);
  return ok;
}

bool Downstream::reroute() {
  HC_LOG_INFO("Lost the relay link to " << mHost << " for upload " << mIdentity.mUploadId);
  if (std::find(mLost.begin(), mLost.end(), mHost) == mLost.end()) mLost.push_back(mHost);
  mDropped.insert(mHost);
  const size_t next = mIndex + 1;
  close();
  return searchAfterLoss(next);
}

template <typename Step>
bool Downstream::onLink(const Step& step) {
  if (!ensureLinked()) return false;
  for (size_t attempt = 0; attempt <= mCandidates.size(); ++attempt) {
    try {
      {
        Mutex::Lock lock(mMutex);
        if (mBroken) throw LinkLost("relay link lost");
      }
      step();
      return true;
    } catch (const LinkLost&) {
    }
    if (!reroute()) return false;
  }
  return false;
}

void Downstream::sendHeader(const FileInfo& info, int64_t end) {
  Protocol::writeFilePart(*mStream, FilePart{info, mCurrentSeq, mPosition, end - mPosition});
  mAnnounced = true;
}

void Downstream::sendFileBytes(const char* data, size_t n, const uint32_t* crc) {
  for (size_t done = 0; done < n;) {
    const size_t block = std::min(n - done, static_cast<size_t>(kMaxRelayBlock));
    Protocol::writeBlock(*mStream, data + done, block, block == n ? crc : nullptr);
    done += block;
  }
  mStalls = 0;  // the link made progress
  mBytesForwarded += static_cast<int64_t>(n);
}

void Downstream::dropFile(const std::string& why) {
  Protocol::appendLines(mFileErrors, mSelf + ": " + why);
  // The link may expect bytes it will not get: link again.
  if (mPartState == STREAMING && mPosition < mPart.end()) close();
  mPartState = DROPPED;
}

bool Downstream::sendFromCopy(const StagedFile* copy, const std::string& path, int64_t to,
                              std::string& error) {
  std::vector<char> buffer(kGapBlock);
  for (int64_t at = mPosition; at < to;) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(kGapBlock, to - at));
    const ssize_t got = copy->readAt(buffer.data(), want, at);
    if (got <= 0) {
      error = "Unable to read back the staged copy of " + path + ": " +
              (got < 0 ? System::getErrorMessageStr() : "it is shorter");
      return false;
    }
    sendFileBytes(buffer.data(), static_cast<size_t>(got));
    at += got;
  }
  mPosition = to;
  return true;
}

void Downstream::resync(int64_t lastSeq, int64_t lastBytes) {
  // Files go on in order: the new host holds every file before lastSeq.
  mAnnounced = false;
  mPosition = 0;
  for (const Sent& file : mSent) {
    if (file.mSeq < lastSeq || file.mSuperseded) continue;
    const bool known = file.mSeq == lastSeq;
    const bool current = mPartState != NO_PART && file.mSeq == mPart.mSeq;
    const int64_t from = known ? std::min(lastBytes, file.mInfo.mSize) : 0;
    const int64_t held = file.mCopy ? std::min(file.mCopy->size(), file.mInfo.mSize) : 0;
    // The file being received goes as far as it is staged; the part sends the rest.
    const int64_t to = current ? std::max(from, held) : file.mInfo.mSize;
    mCurrentSeq = file.mSeq;
    mAnnounced = known;
    mPosition = from;
    if ((current || known) && from >= to) {
      // It may hold every byte but not the check.
      if (known && file.mCheck && from == file.mInfo.mSize) {
        Protocol::writeFileCheck(*mStream, *file.mCheck);
      }
      continue;
    }
    if (!file.mCopy || held < to) {
      Mutex::Lock lock(mMutex);
      Protocol::appendLines(mErrors, mSelf + ": Unable to pass " + file.mInfo.mRemotePath +
                                         " on to " + mHost + ": the bytes are not staged here");
      mAnnounced = true;  // nothing more of it goes to this link
      mPosition = file.mInfo.mSize;
      continue;
    }
    sendHeader(file.mInfo, to);
    std::string error;
    if (!sendFromCopy(file.mCopy, file.mInfo.mRemotePath, to, error)) throw LinkLost(error);
    if (file.mCheck && to == file.mInfo.mSize) Protocol::writeFileCheck(*mStream, *file.mCheck);
  }
  mStream->flush();
}

void Downstream::openLivePart() {
  if (mPartState != PENDING) return;
  const int64_t end = mPart.end();
  if (mAnnounced && mPosition >= end) return;  // the link holds the part already
  sendHeader(mPart.mInfo, end);
  mPartState = STREAMING;
  catchUp(mPart.mStart);
}

void Downstream::catchUp(int64_t upTo) {
  if (mPosition >= upTo) return;
  const int64_t held = mCopy ? mCopy->size() : 0;
  if (held < upTo) {
    dropFile("Unable to pass " + mPart.mInfo.mRemotePath + " on to " + mHost +
             ": the bytes are not staged here");
    return;
  }
  std::string error;
  if (!sendFromCopy(mCopy, mPart.mInfo.mRemotePath, upTo, error)) dropFile(error);
}

void Downstream::dropUnfinishedPart() {
  const bool owed = mPartState == STREAMING && mPosition < mPart.end();
  mPartState = NO_PART;
  if (owed) close();
}

void Downstream::startPart(const FileInfo& info, int64_t seq, const StagedFile* copy,
                           int64_t start, int64_t count) {
  dropUnfinishedPart();
  if (copy) {
    const auto latest = mLatestFor.find(copy);
    if (latest != mLatestFor.end()) mSent[latest->second].mSuperseded = true;
  }
  if (mSent.empty() || mSent.back().mSeq != seq) {
    mSent.push_back(Sent{info, seq, copy, false, std::nullopt});
    if (copy) mLatestFor[copy] = mSent.size() - 1;
  } else {
    mSent.back().mCopy = copy;  // the same file continued (a resumed part)
    mSent.back().mSuperseded = false;
  }
  mPart = FilePart{info, seq, start, count};
  mCopy = copy;
  mPartState = PENDING;
  mFileErrors.clear();
  if (mCurrentSeq != seq) {
    mCurrentSeq = seq;
    mAnnounced = false;
    mPosition = 0;
  }
  if (!onLink([this] { openLivePart(); })) mPartState = DROPPED;
}

void Downstream::forward(const char* data, size_t n, int64_t offset,
                         const uint32_t* blockCRC) {
  const int64_t end = offset + static_cast<int64_t>(n);
  if (!passing() || !linked()) return;
  const bool ok = onLink([&] {
    openLivePart();
    if (mPartState == STREAMING) catchUp(offset);  // the link misses bytes before these
    if (mPartState != STREAMING || mPosition >= end) return;
    const int64_t skip = mPosition - offset;
    sendFileBytes(data + skip, n - static_cast<size_t>(skip), skip == 0 ? blockCRC : nullptr);
    mPosition = end;
    // The last block waits, so a small file leaves in one write with its header.
    if (end < mPart.end()) mStream->flush();
  });
  if (!ok) mPartState = DROPPED;
}

std::string Downstream::finishPart() {
  if (passing() && linked()) {
    onLink([this] {
      openLivePart();
      if (mPartState == STREAMING) catchUp(mPart.end());
    });
  }
  mPartState = NO_PART;
  std::string lines;
  lines.swap(mFileErrors);
  return lines;
}

void Downstream::passCheck(const FileCheck& check) {
  const auto sent = std::find_if(mSent.rbegin(), mSent.rend(),
                                 [&](const Sent& file) { return file.mSeq == check.mSeq; });
  if (sent != mSent.rend()) sent->mCheck = check;
  if (!linked()) return;
  // A new link made on the way had the check with the resync.
  const uint64_t link = mLinks;
  onLink([&] {
    if (link == mLinks && mCurrentSeq == check.mSeq && mAnnounced && mPosition >= check.mSize) {
      Protocol::writeFileCheck(*mStream, check);
    }
  });
}

void Downstream::flush() {
  if (linked()) onLink([this] { mStream->flush(); });
}

void Downstream::forgetFiles() {
  mSent.clear();
  mLatestFor.clear();
  mCopy = nullptr;
  mPartState = NO_PART;
  mCurrentSeq = 0;
}

void Downstream::sendCommit() {
  dropUnfinishedPart();
  sendFinal(Protocol::writeCommit);
}

std::string Downstream::finishCommit() {
  mCommitting = true;
  mStalls = 0;
  const std::string reply = finalReply(Protocol::writeCommit);
  mCommitting = false;
  std::string lines;
  {
    Mutex::Lock lock(mMutex);
    lines.swap(mErrors);
  }
  Protocol::appendLines(lines, reply);
  return lines;
}

void Downstream::abort() {
  dropUnfinishedPart();
  mAborting = true;
  if (sendFinal(Protocol::writeAbort)) finalReply(Protocol::writeAbort);
  mAborting = false;
}
