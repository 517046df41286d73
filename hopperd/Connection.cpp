#include "hopperd/Connection.h"

#include <algorithm>
#include <cstdio>

#include "util/CRC.h"
#include "util/Logger.h"
#include "util/System.h"

namespace {

const size_t kDataBlock = 65536;
// How long a relay waits for more input before it sends on what it holds.
const int kGatherMs = 1;
static_assert(kDataBlock >= size_t(kMaxRelayBlock), "a relayed block fits the buffer");

std::string hex(int code) {
  char text[11];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(code));
  return text;
}

}  // namespace

Connection::Connection(std::unique_ptr<TCPSocket> socket, SessionTable& table, int ioTimeoutMs)
    : mTable(table),
      mIoTimeoutMs(ioTimeoutMs),
      mSocket(socket.get()),
      mStream(std::move(socket)),
      mPeer(mSocket->getRemoteHost()),
      mBuffer(kDataBlock) {
  // A relayed block's header and data come in with one read.
  mStream.streamBuf().setInputBufferSize(kDataBlock + 8);
  mSocket->setKeepAlive(true);
  mSocket->setReadTimeout(ioTimeoutMs);
  mSocket->setWriteTimeout(ioTimeoutMs);
}

bool Connection::waitForMessage() {
  mSocket->setDeadline(Ticks());
  if (mStream.streamBuf().buffered() > 0) return true;
  if (mSession) {
    // What goes on waits until the input is used up and a moment more, so
    // that a tree's files leave in a few large sends, not one each.
    bool queued = false;
    if (!inSession([&] { queued = mSession->downstreamQueued(); })) return false;
    if (queued) {
      // A sleep, not a wait on the socket: the head then wakes this host
      // once per pause, not per file.
      System::sleep(kGatherMs);
      if (mSocket->isReadable(0)) return true;
      if (!inSession([this] { mSession->flushDownstream(); })) return false;
    }
    // Keep-alive ends the wait for a peer that vanished.
    while (!mSocket->isReadable(60000)) {
      if (!mSocket->isGood()) return false;
    }
    return true;
  }
  if (mSocket->isReadable(mIoTimeoutMs)) return true;
  HC_LOG_DEBUG("Connection from " << mPeer << " idle for " << mIoTimeoutMs << " ms; closed");
  return false;
}

void Connection::sendReply() {
  mSocket->setDeadline(Ticks());
  mStream.flush();
}

void Connection::interrupt() {
  Mutex::Lock lock(mCloseMutex);
  if (!mClosed) mSocket->shutdown(true);
}

template <typename Step>
bool Connection::inSession(const Step& step) {
  {
    Mutex::Lock work(mSession->workMutex());
    if (mTable.owns(this, *mSession)) {
      step();
      return true;
    }
  }
  HC_LOG_INFO("Upload " << mSession->id() << " went on without the connection from " << mPeer
              << "; what it still had is dropped");
  mSession.reset();
  mSessionLost = true;
  return false;
}

void Connection::run() {
  try {
    while (waitForMessage()) {
      // The message's items must arrive within the time-out from its start.
      mSocket->setDeadline(Ticks::currentTime() + Ticks(int64_t(mIoTimeoutMs) * 1000000));
      if (!handle(Protocol::readCode(mStream)) || mSessionLost) break;
    }
  } catch (const Wire::LimitError& e) {
    HC_LOG_INFO("Protocol error from " << mPeer << ": " << e.what() << "; connection closed");
  } catch (const LinkLost&) {
    HC_LOG_DEBUG("Connection from " << mPeer << " closed");
  } catch (const std::runtime_error& e) {  // e.g. no thread for a relay link's replies
    HC_LOG_INFO("Connection from " << mPeer << " ended: " << e.what());
  }
  mTable.release(this);
  mSession.reset();
  Mutex::Lock lock(mCloseMutex);
  mClosed = true;
  mStream.close();
}

bool Connection::handle(int code) {
  const bool first = !mSeenMessage;
  if (code != C2H_GET_VERSION && code != C2H_NEW_GET_VERSION) mSeenMessage = true;
  if ((code == H2H_FILE_PART || code == H2H_LAST_FILE || code == H2H_FILE_CHECK) && !mIdentity) {
    HC_LOG_INFO("Protocol error from " << mPeer << ": relay message " << hex(code)
                << " without a relay identity; connection closed");
    return false;
  }
  switch (code) {
    case C2H_GET_VERSION:
      Protocol::writeOldVersionReply(mStream);
      sendReply();
      return true;
    case C2H_NEW_GET_VERSION: {
      const int clientProtocol = Protocol::readVersionRequest(mStream);
      HC_LOG_DEBUG("Handshake from " << mPeer << ", protocol " << clientProtocol);
      Protocol::writeVersionReply(mStream);
      sendReply();
      return true;
    }
    case H2H_RELAY_IDENTITY:
      mIdentity = Protocol::readRelayIdentity(mStream);
      return true;
    case C2H_BEGIN_UPLOAD:
      handleBegin();
      return true;
    case C2H_RESUME_UPLOAD:
      // Only a connection opened with a file announcement may resume an orphan.
      handleFile();
      if (first && !mSession && !mIdentity) mResuming = true;
      return true;
    case H2H_FILE_PART:
      handlePart();
      return true;
    case H2H_LAST_FILE:
      handleLastFile();
      return true;
    case H2H_FILE_CHECK:
      handleCheck();
      return true;
    case C2H_COMMIT_UPLOAD:
      handleCommit();
      return true;
    case C2H_ABORT_UPLOAD:
      handleAbort();
      return true;
    case C2H_STREAM_DAEMON_FILE:
      HC_LOG_INFO("Streaming a daemon file is not supported (from " << mPeer
                  << "); connection closed");
      return false;
    default:
      HC_LOG_INFO("Protocol error from " << mPeer << ": unknown message code " << hex(code)
                  << "; connection closed");
      return false;
  }
}

void Connection::handleBegin() {
  SessionTable::BeginRequest request;
  bool stopAgents = false;
  Protocol::readBegin(mStream, request.mHosts, stopAgents);
  if (request.mHosts.empty()) throw Wire::LimitError("begin without hosts");
  request.mClientAddress = mIdentity ? mIdentity->mClientAddress : mPeer;  // the origin client
  // A client talks to its head directly: the head is its own upstream host.
  request.mUpstreamHost = mIdentity ? mIdentity->mSender : request.mHosts.front();
  if (mIdentity) request.mUploadId = mIdentity->mUploadId;
  request.mResume = mResuming;
  mSocket->setDeadline(Ticks());
  mSession = mTable.begin(shared_from_this(), request);
  if (!mSession) {
    HC_LOG_INFO("Busy: begin from " << mPeer << " for " << request.mClientAddress << " refused");
    Protocol::writeHeadBusy(mStream);
    sendReply();
    return;
  }
  BeginResult result;
  // The host search stops when the peer that asked for it has gone.
  const auto abandoned = [this] { return !mSocket->isGood(); };
  if (!inSession([&] { mSession->begin(request.mHosts, stopAgents, result, abandoned); })) return;
  Protocol::writeBeginReply(mStream, result);
  sendReply();
}

void Connection::handleFile() {
  const FileInfo info = Protocol::readFileInfo(mStream);
  if (!mSession) {
    Protocol::writeAnnouncementReply(mStream, AnnouncementReply{RESUME_NO_SESSION, 0, ""});
    sendReply();
    return;
  }
  inSession([&] {
    int64_t start = 0;
    std::string refusal;
    const bool opened = mSession->openFile(info, start, refusal);
    if (!opened) HC_LOG_DEBUG("Refused " << info.mRemotePath << ": " << refusal);
    Protocol::writeAnnouncementReply(
        mStream, AnnouncementReply{opened ? RESUME_OK : RESUME_REFUSED, start, refusal});
    sendReply();
    if (!opened) return;
    receiveData(info.mSize - start);
    Protocol::writeReply(mStream, mSession->closeFile());
    sendReply();
  });
}

void Connection::handlePart() {
  const FilePart part = Protocol::readFilePart(mStream);
  if (!mSession) {
    receiveBlocks(part.mCount);
    Protocol::writeFileErrors(mStream, part.mSeq,
                              "Upload session lost before " + part.mInfo.mRemotePath);
    sendReply();
    return;
  }
  std::string errors;
  const bool held = inSession([&] {
    mSession->openPart(part);
    receiveBlocks(part.mCount);
    errors = mSession->closeFile();
  });
  // Only errors go back, so the upstream's end has nothing to read while files flow.
  if (!held || errors.empty()) return;
  Protocol::writeFileErrors(mStream, part.mSeq, errors);
  sendReply();
}

void Connection::handleLastFile() {
  LastFile last;
  if (mSession && !inSession([&] { mSession->lastFile(last.mSeq, last.mBytes); })) return;
  Protocol::writeLastFileReply(mStream, last);
  sendReply();
}

void Connection::handleCheck() {
  const FileCheck check = Protocol::readFileCheck(mStream);
  if (!mSession) return;  // the part before it was answered already
  std::string errors;
  if (!inSession([&] { errors = mSession->checkFile(check); }) || errors.empty()) return;
  Protocol::writeFileErrors(mStream, check.mSeq, errors);
  sendReply();
}

void Connection::receiveBlocks(int64_t count) {
  while (count > 0) {
    uint32_t expected = 0;
    const int length = Protocol::readBlockHeader(mStream, count, expected);
    const Ticks waitedBefore = mSocket->getReadTicks();
    for (int have = 0; have < length;) {
      have += int(readSome(mBuffer.data() + have, size_t(length - have)));
      if (have < length) checkPace(waitedBefore);
    }
    const uint32_t actual = CRC::crc32c(reinterpret_cast<const unsigned char*>(mBuffer.data()),
                                        static_cast<unsigned long>(length), 0);
    if (actual != expected) {
      if (mSession) mSession->dropCurrentFile();  // the caller holds its work mutex
      // The link corrupts data: the upstream host routes around this one.
      throw Wire::LimitError("a data block failed its checksum");
    }
    if (mSession) mSession->fileData(mBuffer.data(), static_cast<size_t>(length), &actual);
    count -= length;
  }
}

void Connection::checkPace(const Ticks& waitedBefore) const {
  if ((mSocket->getReadTicks() - waitedBefore).nanos() / 1000000 > mIoTimeoutMs) {
    throw LinkLost("file data slower than one block per time-out");
  }
}

void Connection::receiveData(int64_t count) {
  // A peer that sends a byte now and then holds nothing for ever.
  Ticks waitedBefore = mSocket->getReadTicks();
  size_t sinceBlock = 0;
  while (count > 0) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(count, int64_t(mBuffer.size())));
    const size_t got = readSome(mBuffer.data(), want);
    sinceBlock += got;
    if (sinceBlock >= kDataBlock) {
      sinceBlock = 0;
      waitedBefore = mSocket->getReadTicks();
    } else {
      checkPace(waitedBefore);
    }
    if (mSession) mSession->fileData(mBuffer.data(), got);
    count -= static_cast<int64_t>(got);
  }
}

size_t Connection::readSome(char* buffer, size_t max) {
  const std::streamsize buffered = mStream.streamBuf().buffered();
  if (buffered > 0) {
    const std::streamsize n = std::min<std::streamsize>(buffered, std::streamsize(max));
    mStream.read(buffer, n);
    return static_cast<size_t>(n);
  }
  // Straight into the one buffer: what has arrived goes on at once.
  const int got = mSocket->read(buffer, static_cast<int>(max));
  if (got <= 0) throw LinkLost("connection lost during file data");
  return static_cast<size_t>(got);
}

template <typename Finish>
bool Connection::endSession(const Finish& finish) {
  // Only this very peer's orphan: a claimed client address grants nothing.
  mSocket->setDeadline(Ticks());
  if (!mSession) mSession = mTable.takeOver(shared_from_this(), mPeer);
  if (!mSession) return true;
  if (!inSession(finish)) return false;
  mTable.end(mSession);
  mSession.reset();
  return true;
}

void Connection::handleCommit() {
  std::string errors;
  if (!endSession([&] { errors = mSession->commit(); })) return;
  Protocol::writeCommitReply(mStream, errors, bool(mIdentity));
  sendReply();
}

void Connection::handleAbort() {
  if (!endSession([this] { mSession->abort(); })) return;
  Protocol::writeAbortReply(mStream, bool(mIdentity));
  sendReply();
}
