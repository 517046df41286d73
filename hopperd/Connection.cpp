#include "hopperd/Connection.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "util/Logger.h"

namespace {

const size_t kDataBlock = 65536;

std::string hex(int code) {
  std::ostringstream text;
  text << "0x" << std::hex << std::setw(8) << std::setfill('0') << static_cast<unsigned>(code);
  return text.str();
}

}  // namespace

Connection::Connection(std::unique_ptr<TCPSocket> socket, SessionTable& table)
    : mTable(table),
      mSocket(socket.get()),
      mStream(std::move(socket)),
      mPeer(mSocket->getRemoteHost()),
      mBuffer(kDataBlock) {
  mSocket->setKeepAlive(true);
}

void Connection::interrupt() {
  Mutex::Lock lock(mCloseMutex);
  if (!mClosed) mSocket->shutdown();
}

const std::string& Connection::clientAddress() const {
  return mIdentity ? mIdentity->mClientAddress : mPeer;
}

void Connection::run() {
  try {
    while (true) {
      int code = 0;
      mStream >> code;
      if (!handle(code)) break;
    }
  } catch (const System::WireLimitError& e) {
    HC_LOG_INFO("Protocol error from " << mPeer << ": " << e.what() << "; connection closed");
  } catch (const std::ios_base::failure&) {
    HC_LOG_DEBUG("Connection from " << mPeer << " closed");
  } catch (const std::exception& e) {
    HC_LOG_INFO("Connection from " << mPeer << " ended: " << e.what());
  }
  mTable.release(this);
  mSession.reset();
  Mutex::Lock lock(mCloseMutex);
  mClosed = true;
  mStream.close();
}

bool Connection::handle(int code) {
  switch (code) {
    case C2H_GET_VERSION:
      mStream << kHopperProtocolVersion;
      mStream.flush();
      return true;
    case C2H_NEW_GET_VERSION:
      handleNewVersion();
      return true;
    case H2H_RELAY_IDENTITY:
      mIdentity = Protocol::readRelayIdentity(mStream);
      return true;
    case C2H_BEGIN_UPLOAD:
      handleBegin();
      return true;
    case C2H_RESUME_UPLOAD:
      handleFile();
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

void Connection::handleNewVersion() {
  int clientProtocol = 0;
  mStream >> clientProtocol;
  const std::string version = Protocol::readString(mStream);
  HC_LOG_DEBUG("Handshake from " << mPeer << ", protocol " << clientProtocol);
  mStream << std::string("OK") << kHopperProtocolVersion;
  mStream.flush();
}

void Connection::handleBegin() {
  SessionTable::BeginRequest request;
  bool stopAgents = false;
  Protocol::readBegin(mStream, request.mHosts, stopAgents);
  if (request.mHosts.empty()) throw System::WireLimitError("begin without hosts");
  request.mClientAddress = clientAddress();
  // A client talks to its head directly: the head is its own upstream host.
  request.mUpstreamHost = mIdentity ? mIdentity->mSender : request.mHosts.front();
  if (mIdentity) request.mUploadId = mIdentity->mUploadId;
  mSession = mTable.begin(shared_from_this(), request);
  if (!mSession) {
    HC_LOG_INFO("Busy: begin from " << mPeer << " for " << request.mClientAddress << " refused");
    mStream << int(BEGIN_HEAD_BUSY);
    mStream.flush();
    return;
  }
  BeginResult result;
  {
    Mutex::Lock work(mSession->workMutex());
    mSession->touch();
    mSession->begin(request.mHosts, stopAgents, result);
  }
  Protocol::writeBeginReply(mStream, result);
  mStream.flush();
}

void Connection::handleFile() {
  const FileInfo info = Protocol::readFileInfo(mStream);
  if (!mSession) {
    mStream << int(RESUME_NO_SESSION);
    mStream.flush();
    return;
  }
  Mutex::Lock work(mSession->workMutex());
  mSession->touch();
  int64_t start = 0;
  std::string refusal;
  if (!mSession->openFile(info, start, refusal)) {
    HC_LOG_DEBUG("Refused " << info.mRemotePath << ": " << refusal);
    mStream << RESUME_REFUSED << refusal;
    mStream.flush();
    return;
  }
  mStream << int(RESUME_OK) << long(start);
  mStream.flush();
  receiveData(info.mSize - start);
  mStream << mSession->closeFile();
  mStream.flush();
}

void Connection::receiveData(int64_t count) {
  while (count > 0) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(count, int64_t(mBuffer.size())));
    const size_t got = readSome(mBuffer.data(), want);
    mSession->fileData(mBuffer.data(), got);
    mSession->touch();
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
  // Straight from the socket into the one buffer: what has arrived goes on
  // at once instead of waiting for a full block.
  const int got = mSocket->read(buffer, static_cast<int>(max));
  if (got <= 0) throw std::ios_base::failure("connection lost during file data");
  return static_cast<size_t>(got);
}

void Connection::handleCommit() {
  if (!mSession) mSession = mTable.takeOver(shared_from_this(), clientAddress());
  std::string errors;
  if (mSession) {
    {
      Mutex::Lock work(mSession->workMutex());
      errors = mSession->commit();
    }
    mTable.end(mSession);
    mSession.reset();
  }
  mStream << errors;
  mStream.flush();
}

void Connection::handleAbort() {
  if (!mSession) mSession = mTable.takeOver(shared_from_this(), clientAddress());
  if (mSession) {
    {
      Mutex::Lock work(mSession->workMutex());
      mSession->abort();
    }
    mTable.end(mSession);
    mSession.reset();
  }
  mStream << 0;
  mStream.flush();
}
