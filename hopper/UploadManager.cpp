#include "hopper/UploadManager.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "hopper/Protocol.h"
#include "hopper/hopperMisc.h"
#include "util/Assert.h"
#include "util/StringUtilities.h"
#include "util/System.h"
#include "util/pathfun.h"

namespace {

const long kBytesPerDot = 1000000;
const char kTimeLimitReason[] = "Time limited exceeded";

// The monotonic reading of a wall-clock deadline (none for Time::max), as
// socket waits measure it: a clock change cannot stretch them.
Ticks monotonicAt(const Time& deadline) {
  if (deadline == Time::max) return Ticks();
  const Time now = Time::now();
  const int64_t left = (deadline.seconds() - now.seconds()) * 1000000000LL +
                       (deadline.nanos() - now.nanos());
  return Ticks::currentTime() + Ticks(std::max<int64_t>(left, 0));
}

// True when a commit reply holds any line but a lost host's: a file that
// did not land.
bool reportsFileErrors(const std::string& reply) {
  std::istringstream lines(reply);
  for (std::string line; std::getline(lines, line);) {
    const bool lostHost =
        line.find(": Unable to connect or lost connection to ") != std::string::npos;
    if (!line.empty() && !lostHost) return true;
  }
  return false;
}

// Where a local directory lands: remoteDir joined with its last component,
// or remoteDir itself when it ends in '/'.
std::string targetDirectory(const std::string& localDir, const std::string& remoteDir) {
  if (!localDir.empty() && localDir.back() == '/') return remoteDir;
  return pathConcat(remoteDir, lastPathComponent(localDir));
}

}  // namespace

void UploadManager::validatePaths(const FilePairs& pairs) const {
  for (const auto& pair : pairs) {
    FileAttributes attributes;
    if (!mFS->stat(pair.first, attributes, DONT_FOLLOW_SYMLINK)) {
      throw std::runtime_error("Source file/dir \"" + pair.first + "\" doesn't exist!");
    }
    checkAbsolutePath(pair.second);
  }
}

void UploadManager::findGoodNode(BadNodeList* badNodes, bool newProtocol) {
  mPOutStream.reset();
  mWire = Wire::Idle;
  BadNodeList dropped;
  mPOutStream = ::findGoodNode(mNodeIPSet, dropped, newProtocol, mStreamDeadline, mConnector);
  if (!mPOutStream) timeLimitPassed();
  reportBadNodesByIP(dropped);
  if (badNodes) badNodes->insert(badNodes->end(), dropped.begin(), dropped.end());
  if (!mPOutStream && mNodeIPSet.empty()) throw NoNodesException();
}

bool UploadManager::timeLimitPassed() {
  if (Time::now() < mDeadline) return false;
  abort(kTimeLimitReason);
  return true;
}

void UploadManager::dropHead() {
  const std::string head = *mNodeIPSet.begin();
  reportBadNodeByIP(head, kBadNodeUnreachable);
  mNodeIPSet.erase(head);
  mPOutStream.reset();
  mWire = Wire::Idle;
}

void UploadManager::beginUpload() {
  HC_ASSERT(mPOutStream.get() == 0);
  // Each round returns or drops a host, so the node set bounds the loop.
  while (!aborted()) {
    findGoodNode(nullptr, true);
    if (!mPOutStream) return;  // the time limit passed
    const std::string head = *mNodeIPSet.begin();
    BadNodeList bad;
    BusyNodeList busy;
    std::ostringstream text;
    bool reconnect = false;
    int status;
    try {
      status = sendBeginUploadMsg(*mPOutStream, mNodeIPSet, mStopAgents, bad, busy, text,
                                  reconnect);
    } catch (const LinkLost&) {
      if (timeLimitPassed()) {
        mWire = Wire::Broken;
        return;
      }
      dropHead();
      continue;
    }
    if (status == BEGIN_HEAD_BUSY || status == BEGIN_SOME_FAILED) reportBusyNodesByIP(busy);
    if (status == BEGIN_SOME_FAILED) {
      reportBadNodesByIP(bad);
      if (!text.str().empty()) {
        writeMassaged("Protocol error while communicating with " + nameOf(head) + ": " +
                      text.str() + "\n");
      }
    }
    if (!reconnect) return;
    mPOutStream.reset();
  }
}

bool UploadManager::uploadFile(const std::string& localPath, const std::string& remotePath,
                               long size, int mode) {
  FileAttributes attributes;
  if (!mFS->stat(localPath, attributes, FOLLOW_SYMLINK) || !attributes.isRegularFile()) {
    mStdout << "WARNING: " << localPath << " is not a regular file, skipping..." << std::endl;
    return false;
  }
  const System::FileDescriptor file = mFS->openForRead(localPath);
  if (!file) throw std::runtime_error("Error opening file: " + localPath);
  if (!mPOutStream) beginUpload();
  if (!mPOutStream || aborted()) return false;  // aborted while choosing a head

  long sent = 0;
  long dotBytes = 0;
  // Every lost connection drops one host, so the node set bounds the loop.
  for (;;) {
    try {
      return sendFile(file.get(), localPath, remotePath, size, mode, sent, dotBytes);
    } catch (const LinkLost&) {  // the link to the head is lost
      if (aborted() || timeLimitPassed()) {
        mWire = Wire::Broken;
        return false;
      }
      dropHead();
      findGoodNode(nullptr, true);
      if (!mPOutStream) return false;  // the time limit passed
    }
  }
}

bool UploadManager::sendFile(int file, const std::string& localPath, const std::string& remotePath,
                             long size, int mode, long& sent, long& dotBytes) {
  const AnnouncementReply announced =
      sendResumeUploadMsg(*mPOutStream, mNodeIPSet, mStopAgents, size, mode, localPath, remotePath);
  if (announced.mStatus != RESUME_OK) {
    writeMassaged(*mNodeIPSet.begin() + ": " + announced.mText + "\n");
    return false;
  }
  mWire = Wire::SendingData;
  const long position = static_cast<long>(announced.mPosition);
  if (position >= 0 && position < sent) {
    // The new head lacks bytes that went to the old one: they go again.
    if (!catchupStream(position, sent, file, *mFS, *mPOutStream)) {
      throw std::runtime_error("Error reading file: " + localPath);
    }
  } else if (position > sent) {
    // The daemons hold more than was sent (from an earlier run): skip it.
    sent = std::min(position, size);
  }
  const bool complete = sendData(file, localPath, size, sent, dotBytes);
  if (sent >= size) mWire = Wire::AwaitingReply;
  if (!complete) return false;
  mPOutStream->flush();
  const std::string reply = Protocol::readReply(*mPOutStream, *mNodeIPSet.begin());
  mWire = Wire::Idle;
  if (mVerboseMode) mStdout << (reply.empty() ? "success" : "failed") << std::endl;
  if (!reply.empty()) writeMassaged(reply + "\n");
  return reply.empty();
}

bool UploadManager::sendData(int file, const std::string& localPath, long size, long& sent,
                             long& dotBytes) {
  // After each block: the progress, then whether to go on.
  const auto blockSent = [&](int length) {
    sent += length;
    if (mVerboseMode) {
      for (dotBytes += length; dotBytes >= kBytesPerDot; dotBytes -= kBytesPerDot) mStdout << '.';
      mStdout.flush();
    }
    return !timeLimitPassed() && !aborted();
  };
  // The kernel moves large files' bytes itself; for a few blocks, setting up
  // its copy costs more system calls than it saves.
  if (size - sent >= kSendFileMinimum && !aborted()) {
    switch (mPOutStream->sendFile(file, sent, size - sent, kBlockSize, blockSent)) {
      case TCPStream::FileSend::kDone:
        return !aborted();
      case TCPStream::FileSend::kFileEnded:  // the file shrank
        throw std::runtime_error("Error reading file: " + localPath);
      case TCPStream::FileSend::kUnavailable:  // nothing sent: the blocks go through mBlock
        break;
    }
  }
  mBlock.resize(kBlockSize);
  while (sent < size) {
    if (aborted()) return false;
    const long length = std::min<long>(kBlockSize, size - sent);
    if (mFS->preadFull(file, mBlock.data(), static_cast<size_t>(length), sent) != length) {
      throw std::runtime_error("Error reading file: " + localPath);
    }
    mPOutStream->write(mBlock.data(), length);
    if (!blockSent(static_cast<int>(length))) return false;
  }
  return !aborted();
}

bool UploadManager::uploadEntry(const std::string& localPath, const std::string& fileTarget,
                                const std::string& directoryTarget) {
  FileAttributes attributes;
  if (!mFS->stat(localPath, attributes, DONT_FOLLOW_SYMLINK)) {
    mStderr << "Error while reading " << localPath << ": " << System::getErrorMessageStr()
            << std::endl;
    return false;
  }
  const FileType type = attributes.getType();
  if (type == TYPE_FILE) {
    return uploadFile(localPath, fileTarget, attributes.mSize, attributes.mMode & 0777);
  }
  if (type == TYPE_DIRECTORY) return uploadDirectory(localPath, directoryTarget);
  mStderr << "Skipping " << localPath << " because it is a "
          << (type == TYPE_SYMLINK ? "symlink" : "named pipe") << std::endl;
  return false;
}

bool UploadManager::uploadDirectory(const std::string& localDir, const std::string& remoteDir) {
  if (aborted()) return false;
  if (!mPOutStream) beginUpload();
  if (!mPOutStream || aborted()) return false;
  const std::string target = targetDirectory(localDir, remoteDir);
  std::vector<std::string> names;
  if (!mFS->readDirectory(localDir, names)) {
    mStderr << "Error while reading directory " << localDir << ": "
            << System::getErrorMessageStr() << std::endl;
    return false;
  }
  // A stable order makes runs and their progress output reproducible.
  std::sort(names.begin(), names.end());
  bool result = true;
  for (const std::string& name : names) {
    if (name == "." || name == "..") continue;
    if (aborted()) return false;
    result = uploadEntry(pathConcat(localDir, name), pathConcat(target, name), target) && result;
  }
  return result;
}

bool UploadManager::uploadBatch(const FilePairs& pairs) {
  validatePaths(pairs);
  mDeadline = Time::max;
  if (mTimeout != -1) {
    mDeadline = Time::now();
    mDeadline.addSeconds(mTimeout);
  }
  mStreamDeadline = monotonicAt(mDeadline);
  bool result = true;
  for (const auto& pair : pairs) {
    if (aborted()) break;
    result = uploadEntry(pair.first, pair.second, pair.second);
  }
  if (!aborted() && commit()) return result && !mCommitFailed;
  finishAborted();
  return false;
}

bool UploadManager::upload(const std::string& localPath, const std::string& remotePath) {
  return uploadBatch(FilePairs{{localPath, remotePath}});
}

bool UploadManager::commit() {
  if (mVerboseMode) mStdout << "Committing upload" << std::endl;
  if (!mPOutStream) return true;  // nothing was sent
  std::string failedHead;
  // A head that fails the commit is asked again once (it may have dropped
  // only the connection); failing twice drops it.
  while (mPOutStream) {
    const std::string head = *mNodeIPSet.begin();
    try {
      Protocol::writeCommit(*mPOutStream);
      mPOutStream->flush();
      std::string reply = Protocol::readReply(*mPOutStream, head);
      mPOutStream.reset();
      if (!reply.empty()) {
        mCommitFailed = reportsFileErrors(reply);
        massageMsg(reply);
        mStderr << "Errors while committing uploaded file(s):" << std::endl << reply << std::endl;
      }
      return true;
    } catch (const LinkLost&) {
      if (timeLimitPassed()) {
        mWire = Wire::Broken;
        return false;
      }
      mPOutStream.reset();
      if (head == failedHead) dropHead();
      failedHead = head;
      findGoodNode(nullptr, true);
    }
  }
  return false;  // the time limit passed while choosing a new head
}

void UploadManager::finishAborted() {
  mStderr << std::endl
          << (Time::now() < mDeadline ? "Aborting upload..." : "Aborting upload due to timeout...")
          << std::endl;
  if (!mPOutStream) return;
  if (mWire == Wire::SendingData || mWire == Wire::Broken) {
    // Mid-message the daemon would take the abort for data: send it on a
    // new connection to the same head, which takes the upload over.
    mPOutStream = reconnectToHead();
    mWire = Wire::Idle;
    if (!mPOutStream) return;
  }
  try {
    // Not bound by the run's deadline (usually passed), nor hanging on a
    // silent daemon.
    TCPSocket& socket = mPOutStream->socket();
    socket.setDeadline(Ticks());
    socket.setReadTimeout(kConnectTimeoutMs);
    socket.setWriteTimeout(kConnectTimeoutMs);
    if (mWire == Wire::AwaitingReply) {
      mPOutStream->flush();
      Protocol::readReply(*mPOutStream, *mNodeIPSet.begin());  // the file's, unwanted now
      mWire = Wire::Idle;
    }
    if (mWire == Wire::Idle) {
      Protocol::writeAbort(*mPOutStream);
      mPOutStream->flush();
      Protocol::readAbortReply(*mPOutStream);
    }
  } catch (const LinkLost&) {
    // The connection is being dropped anyway.
  }
  mPOutStream.reset();
  mWire = Wire::Idle;
}

std::unique_ptr<TCPStream> UploadManager::reconnectToHead() {
  mPOutStream.reset();
  // A copy of the set: a head that does not answer now is not reported.
  NodeSet head{*mNodeIPSet.begin()};
  BadNodeList ignored;
  try {
    return ::findGoodNode(head, ignored, true, Ticks(), mConnector);
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}
