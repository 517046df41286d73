#include "hopperd/Downstream.h"

#include <algorithm>

#include "hopperd/StagedFile.h"
#include "util/Logger.h"
#include "util/StringUtilities.h"

namespace {

const int kConnectTimeoutMs = 5000;
const size_t kGapBlock = 65536;
// Commit may run agent commands on the hosts after this one: a host that
// keeps answering handshakes is given this many time-outs for its reply.
const int kCommitStalls = 20;

}  // namespace

Downstream::Downstream(RelayIdentity identity, std::string self, int ioTimeoutMs)
    : mIdentity(std::move(identity)), mSelf(std::move(self)), mIoTimeoutMs(ioTimeoutMs) {}

std::unique_ptr<TCPStream> Downstream::newStream() {
  auto stream = std::make_unique<TCPStream>();
  TCPSocket& socket = stream->socket();
  socket.setReadTimeout(mIoTimeoutMs);
  socket.setWriteTimeout(mIoTimeoutMs);
  socket.setCancelFlag(&mCancelled);
  return stream;
}

bool Downstream::hostStillAnswers() {
  const int limit = mCommitting ? kCommitStalls : int(mCandidates.size() - mIndex) + 1;
  if (mCancelled || ++mStalls > limit) return false;
  std::string address;
  int port = kHopperDefaultPort;
  parseHostPort(mHost, address, port);
  std::unique_ptr<TCPStream> probe = newStream();
  try {
    const bool alive = Protocol::acceptedVersion(
        Protocol::handshake(*probe, address, port, std::min(kConnectTimeoutMs, mIoTimeoutMs)));
    HC_LOG_INFO("Relay link to " << mHost << " silent for " << mIoTimeoutMs << " ms; the host "
                << (alive ? "still answers" : "does not answer"));
    return alive;
  } catch (const std::exception& e) {
    HC_LOG_INFO("Relay link to " << mHost << " silent for " << mIoTimeoutMs
                << " ms; the host does not answer: " << e.what());
    return false;
  }
}

Downstream::~Downstream() { close(); }

void Downstream::close() {
  mStream.reset();
  mHost.clear();
}

std::vector<std::string> Downstream::remainingFrom(size_t index) const {
  std::vector<std::string> hosts;
  for (size_t i = index; i < mCandidates.size(); ++i) {
    if (!mDropped.count(mCandidates[i])) hosts.push_back(mCandidates[i]);
  }
  return hosts;
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
  std::string address;
  int port = kHopperDefaultPort;
  parseHostPort(host, address, port);
  std::unique_ptr<TCPStream> stream = newStream();
  try {
    const int version = Protocol::handshake(*stream, address, port, kConnectTimeoutMs);
    if (!Protocol::acceptedVersion(version)) return MISMATCH;
    stream->socket().setKeepAlive(true);
    Protocol::writeRelayIdentity(*stream, mIdentity);
    Protocol::writeBegin(*stream, remainingFrom(index), mStopAgents);
    stream->flush();
    int status = -1;
    *stream >> status;
    if (status == BEGIN_HEAD_BUSY) return BUSY;
    if (status != BEGIN_OK && status != BEGIN_SOME_FAILED) return FAILED;
    if (status == BEGIN_SOME_FAILED) {
      BeginResult theirs;
      Protocol::readBeginFailures(*stream, theirs);
      for (const auto& bad : theirs.mBad) mDropped.insert(bad.first);
      for (const std::string& busy : theirs.mBusy) mDropped.insert(busy);
      result.mBad.splice(result.mBad.end(), theirs.mBad);
      result.mBusy.splice(result.mBusy.end(), theirs.mBusy);
      Protocol::appendLines(result.mText, theirs.mText);
    }
  } catch (const std::exception& e) {
    HC_LOG_INFO("Unable to relay to " << host << ": " << e.what());
    return FAILED;
  }
  mStream = std::move(stream);
  mHost = host;
  mIndex = index;
  mStalls = 0;
  mStream->socket().setStallHandler([this] { return hostStillAnswers(); });
  HC_LOG_DEBUG("Relaying upload " << mIdentity.mUploadId << " to " << host);
  return LINKED;
}

bool Downstream::ensureLinked() {
  if (linked()) return true;
  BeginResult failures;
  const bool ok = search(0, failures);
  loseAll(failures);
  return ok;
}

void Downstream::loseAll(const BeginResult& failures) {
  for (const auto& bad : failures.mBad) mLost.push_back(bad.first);
  for (const std::string& busy : failures.mBusy) mLost.push_back(busy);
  mDropped.insert(mLost.begin(), mLost.end());
}

bool Downstream::reroute() {
  HC_LOG_INFO("Lost the relay link to " << mHost << " for upload " << mIdentity.mUploadId);
  if (std::find(mLost.begin(), mLost.end(), mHost) == mLost.end()) mLost.push_back(mHost);
  mDropped.insert(mHost);
  const size_t next = mIndex + 1;
  close();
  BeginResult failures;
  const bool ok = search(next, failures);
  loseAll(failures);
  return ok;
}

bool Downstream::announceOnLink(std::string& refusal) {
  mForwarding = false;
  for (int round = 0; round < 2; ++round) {
    Protocol::writeFileInfo(*mStream, mFile);
    mStream->flush();
    int status = -1;
    *mStream >> status;
    if (status == RESUME_OK) {
      mPosition = Protocol::readPosition(*mStream, mFile.mSize);
      mForwarding = true;
      return true;
    }
    if (status != RESUME_NO_SESSION) {
      refusal = Protocol::readReply(*mStream, mHost);
      return false;
    }
    if (round > 0) break;
    // The host has no session for us (it lost it): begin again on this link.
    Protocol::writeRelayIdentity(*mStream, mIdentity);
    Protocol::writeBegin(*mStream, remainingFrom(mIndex), mStopAgents);
    mStream->flush();
    *mStream >> status;
    if (status != BEGIN_OK && status != BEGIN_SOME_FAILED) break;
    if (status == BEGIN_SOME_FAILED) {
      BeginResult theirs;
      Protocol::readBeginFailures(*mStream, theirs);
      loseAll(theirs);
    }
  }
  throw std::ios_base::failure("relay link refused the session");
}

void Downstream::dropUnfinishedFile() {
  if (!mFileOpen) return;
  mFileOpen = false;
  mForwarding = false;
  mLocalCopy = nullptr;
  close();
}

bool Downstream::announce(const FileInfo& info, const StagedFile* localCopy,
                          std::string& refusal) {
  dropUnfinishedFile();
  mFile = info;
  mLocalCopy = localCopy;
  mFileOpen = true;
  mForwarding = false;
  mPosition = 0;
  mFileErrors.clear();
  if (!ensureLinked()) return false;
  for (size_t attempt = 0; attempt <= mCandidates.size(); ++attempt) {
    try {
      return announceOnLink(refusal);
    } catch (const std::exception&) {
      if (!reroute()) return false;
    }
  }
  return false;
}

void Downstream::sendFileBytes(const char* data, size_t n) {
  // Queued items first, then the block straight from the caller's buffer.
  mStream->flush();
  if (mStream->socket().write(data, static_cast<int>(n)) != static_cast<int>(n)) {
    throw std::ios_base::failure("relay link lost");
  }
  progressed();
  mBytesForwarded += static_cast<int64_t>(n);
}

void Downstream::dropFile(const std::string& why) {
  Protocol::appendLines(mFileErrors, mSelf + ": " + why);
  mForwarding = false;
  close();  // the link expects bytes it will not get; link again later
}

bool Downstream::resendGap(int64_t end) {
  if (!mLocalCopy || mLocalCopy->size() < end) {
    dropFile("Unable to pass " + mFile.mRemotePath + " on to " + mHost +
             ": the bytes are not staged here");
    return false;
  }
  std::vector<char> buffer(kGapBlock);
  while (mPosition < end) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(kGapBlock, end - mPosition));
    const ssize_t got = mLocalCopy->readAt(buffer.data(), want, mPosition);
    if (got <= 0) {
      dropFile("Unable to read back " + mLocalCopy->path() + ": " + System::getErrorMessageStr());
      return false;
    }
    sendFileBytes(buffer.data(), static_cast<size_t>(got));
    mPosition += got;
  }
  return true;
}

bool Downstream::relinkFile() {
  std::string refusal;
  mForwarding = false;
  if (!reroute()) return false;
  try {
    if (!announceOnLink(refusal)) Protocol::appendLines(mFileErrors, refusal);
  } catch (const std::exception&) {
    close();  // the next attempt finds no link; ensureLinked retries later
    return false;
  }
  return true;
}

void Downstream::forward(const char* data, size_t n, int64_t offset) {
  const int64_t end = offset + static_cast<int64_t>(n);
  for (size_t attempt = 0; mForwarding && mPosition < end && attempt <= mCandidates.size();
       ++attempt) {
    try {
      if (mPosition < offset && !resendGap(offset)) return;
      const int64_t skip = mPosition - offset;
      sendFileBytes(data + skip, n - static_cast<size_t>(skip));
      mPosition = end;
    } catch (const std::exception&) {
      if (!relinkFile()) return;
    }
  }
}

std::string Downstream::finishFile() {
  std::string reply;
  for (size_t attempt = 0; mFileOpen && mForwarding && attempt <= mCandidates.size(); ++attempt) {
    try {
      if (mPosition < mFile.mSize && !resendGap(mFile.mSize)) break;
      mStream->flush();
      reply = Protocol::readReply(*mStream, mHost);
      break;
    } catch (const std::exception&) {
      if (!relinkFile()) break;
    }
  }
  mFileOpen = false;
  mForwarding = false;
  mLocalCopy = nullptr;
  std::string lines = mFileErrors;
  Protocol::appendLines(lines, reply);
  mFileErrors.clear();
  return lines;
}

void Downstream::sendCommit() {
  dropUnfinishedFile();
  if (!ensureLinked()) return;
  try {
    *mStream << int(C2H_COMMIT_UPLOAD);
    mStream->flush();
  } catch (const std::exception&) {
    // finishCommit finds the broken link and reroutes.
  }
}

std::string Downstream::finishCommit() {
  mCommitting = true;
  mStalls = 0;
  std::string reply;
  for (size_t attempt = 0; linked() && attempt <= mCandidates.size(); ++attempt) {
    try {
      reply = Protocol::readReply(*mStream, mHost);
      break;
    } catch (const std::exception&) {
      if (!reroute()) break;
      sendCommit();
    }
  }
  mCommitting = false;
  return reply;
}

void Downstream::abort() {
  dropUnfinishedFile();
  if (!ensureLinked()) return;
  for (size_t attempt = 0; linked() && attempt <= mCandidates.size(); ++attempt) {
    try {
      *mStream << int(C2H_ABORT_UPLOAD);
      mStream->flush();
      int ignored = 0;
      *mStream >> ignored;
      return;
    } catch (const std::exception&) {
      if (!reroute()) return;
    }
  }
}
