#include "hopperd/Session.h"

#include <algorithm>
#include <map>

#include "util/CRC.h"
#include "util/Logger.h"
#include "util/StringUtilities.h"

namespace {

// From this size a check is sent on before the copy is read back.
const int64_t kLargeCheck = 1 << 20;

}  // namespace

Session::Session(std::string id, std::vector<std::string> hosts, std::string clientAddress,
                 const DaemonConfig& config)
    : mId(std::move(id)),
      mSelf(hosts.empty() ? std::string() : hosts.front()),
      mClientAddress(std::move(clientAddress)),
      mConfig(config),
      mTargets(config.mRoot, config.mAllowedPaths, config.mFileSystem),
      mJournal(config.mStateDir, mId, config.mRoot),
      mDownstream(RelayIdentity{mClientAddress, mId, mSelf}, mSelf,
                  config.mIoTimeoutSeconds * 1000, config.mConnector) {}

void Session::begin(const std::vector<std::string>& hosts, bool stopAgents, BeginResult& result,
                    const std::function<bool()>& abandoned) {
  mStopAgents = stopAgents;
  ++mGeneration;
  mCurrent = nullptr;
  const std::vector<std::string> after(hosts.begin() + std::min<size_t>(1, hosts.size()),
                                       hosts.end());
  mDownstream.connect(after, stopAgents, result, abandoned);
}

void Session::keepCreatedDirs(const std::vector<std::string>& dirs) {
  mCreatedDirs.insert(mCreatedDirs.end(), dirs.begin(), dirs.end());
  mKnownDirs.insert(dirs.begin(), dirs.end());
}

bool Session::resumable(const Entry* entry, const FileInfo& info) const {
  // Only the last file, announced again after a reconnect exactly as before.
  return entry && entry == mLast && !entry->mFailed && entry->mGeneration < mGeneration &&
         entry->mInfo.mSize == info.mSize && entry->mInfo.mRemotePath == info.mRemotePath &&
         entry->mInfo.mBaseName == info.mBaseName && entry->mInfo.mMode == info.mMode;
}

bool Session::resolve(const FileInfo& info, TargetPath::Resolution& where,
                      std::string& refusal) {
  const auto journalDir = [this](const std::string& dir, std::string& error) {
    return mJournal.recordDirectory(dir, error);
  };
  if (mTargets.resolve(info.mRemotePath, info.mBaseName, mKnownDirs, where, refusal,
                       journalDir)) {
    return true;
  }
  mTargets.removeDirectories(where.mCreatedDirs);  // a refused file leaves nothing behind
  return false;
}

Session::Entry* Session::entryFor(const std::string& target) const {
  const auto known = mByTarget.find(target);
  return known == mByTarget.end() ? nullptr : known->second;
}

Session::Entry* Session::entryOfSeq(int64_t seq) const {
  if (mLast && mLast->mSeq == seq) return mLast;
  for (auto it = mEntries.rbegin(); it != mEntries.rend(); ++it) {
    if ((*it)->mSeq == seq) return it->get();
  }
  return nullptr;
}

Session::Entry* Session::stageFresh(const FileInfo& info, int64_t seq,
                                    TargetPath::Resolution& where, std::string& refusal) {
  Entry* entry = entryFor(where.mTarget);
  if (entry) {  // a target announced again moves to the end of the order
    const auto it = std::find_if(mEntries.begin(), mEntries.end(),
                                 [entry](const auto& e) { return e.get() == entry; });
    std::rotate(it, it + 1, mEntries.end());
  } else {
    mEntries.push_back(std::make_unique<Entry>());
    entry = mEntries.back().get();
    entry->mFile = std::make_unique<StagedFile>(mTargets, where.mTarget, mId, mConfig.mFileSystem);
    mByTarget[where.mTarget] = entry;
  }
  entry->mInfo = info;
  entry->mSeq = seq;
  entry->mGeneration = mGeneration;
  mLast = entry;
  const auto journalFile = [this](const std::string& staged, std::string& error) {
    return mJournal.recordStagedFile(staged, error);
  };
  entry->mFailed = !entry->mFile->create(where.mParentFd, journalFile, refusal);
  if (entry->mFailed) {
    mTargets.removeDirectories(where.mCreatedDirs);
    return nullptr;
  }
  keepCreatedDirs(where.mCreatedDirs);
  return entry;
}

bool Session::continueStaged(Entry* entry, std::string& refusal) {
  if (entry->mFailed || !entry->mFile->reopen(refusal)) return false;
  entry->mGeneration = mGeneration;
  mLast = entry;
  return true;
}

void Session::startFile(const FilePart& part, Entry* entry) {
  mDownstream.startPart(part.mInfo, part.mSeq, entry ? entry->mFile.get() : nullptr, part.mStart,
                        part.mCount);
  mCurrent = entry;
  mPart = part;
  mOffset = part.mStart;
}

bool Session::openFile(const FileInfo& info, int64_t& start, std::string& refusal) {
  closeAwaitingCheck();
  mCurrent = nullptr;
  mFileErrors.clear();
  TargetPath::Resolution where;
  std::string localRefusal;
  Entry* entry = nullptr;
  int64_t seq = 0;
  if (resolve(info, where, localRefusal)) {
    entry = entryFor(where.mTarget);
    std::string ignored;
    if (resumable(entry, info) && continueStaged(entry, ignored) &&
        entry->mFile->size() <= info.mSize) {
      keepCreatedDirs(where.mCreatedDirs);
      seq = entry->mSeq;  // the file the upload was resumed in
    } else {
      seq = ++mLastSeq;
      entry = stageFresh(info, seq, where, localRefusal);
    }
  }
  if (!seq) seq = ++mLastSeq;
  if (!entry) {
    Protocol::appendLines(mFileErrors, line(localRefusal));
    if (!mDownstream.ensureLinked()) {
      refusal.swap(mFileErrors);
      mFileErrors.clear();
      return false;
    }
  }
  // This host's own position; hosts after it get what they miss from the copy.
  start = entry ? entry->mFile->size() : 0;
  startFile(FilePart{info, seq, start, info.mSize - start}, entry);
  mFromClient = true;
  // The head's checksum covers the whole file, a resumed one's too.
  std::string ignored;
  mSum = 0;
  mSumming = start == 0 || entry->mFile->checksum(mSum, ignored);
  return true;
}

void Session::openPart(const FilePart& part) {
  closeAwaitingCheck();
  mCurrent = nullptr;
  mFileErrors.clear();
  mLastSeq = std::max(mLastSeq, part.mSeq);
  const FileInfo& info = part.mInfo;
  TargetPath::Resolution where;
  std::string refusal;
  Entry* entry = nullptr;
  if (resolve(info, where, refusal)) {
    entry = entryFor(where.mTarget);
    if (entry && entry->mSeq == part.mSeq) {
      // A later part continues the staged bytes, which must reach its start.
      if (!continueStaged(entry, refusal)) {
        entry = nullptr;  // a file that failed here was reported then
      } else if (entry->mFile->size() < part.mStart) {
        refusal = info.mRemotePath + ": bytes " + std::to_string(entry->mFile->size()) + " to " +
                  std::to_string(part.mStart) + " never arrived";
        entry->mFailed = true;
        entry->mFile->discard();
        entry = nullptr;
      }
    } else if (part.mStart > 0) {
      refusal = info.mRemotePath + ": bytes 0 to " + std::to_string(part.mStart) +
                " never arrived";
      mTargets.removeDirectories(where.mCreatedDirs);
      entry = nullptr;
    } else {
      entry = stageFresh(info, part.mSeq, where, refusal);
    }
  }
  if (!entry && !refusal.empty()) Protocol::appendLines(mFileErrors, line(refusal));
  startFile(part, entry);
}

void Session::lastFile(int64_t& seq, int64_t& bytes) const {
  seq = mLastSeq;
  const bool healthy = mLast && mLast->mSeq == seq && !mLast->mFailed;
  bytes = seq == 0 ? 0 : healthy ? mLast->mFile->size() : kMaxFileSize;
}

void Session::fileData(const char* data, size_t n, const uint32_t* blockCRC) {
  if (mCurrent && !mCurrent->mFailed) {
    const int64_t staged = mCurrent->mFile->size();
    const int64_t end = mOffset + static_cast<int64_t>(n);
    if (staged >= mOffset && staged < end) {
      const size_t skip = static_cast<size_t>(staged - mOffset);
      std::string error;
      if (!mCurrent->mFile->append(data + skip, n - skip, error)) {
        mCurrent->mFailed = true;
        Protocol::appendLines(mFileErrors, line(error));
      }
    }
  }
  // The block's checksum goes on with the block and joins the file's.
  uint32_t sum = 0;
  if (mSumming) {
    if (!blockCRC) {
      sum = CRC::crc32c(reinterpret_cast<const unsigned char*>(data), n, 0);
      blockCRC = &sum;
    }
    mSum = CRC::crc32cCombine(mSum, *blockCRC, n);
  }
  mDownstream.forward(data, n, mOffset, blockCRC);
  mOffset += static_cast<int64_t>(n);
  mBytesReceived += static_cast<int64_t>(n);
}

std::string Session::closeFile() {
  std::string errors;
  errors.swap(mFileErrors);
  const bool whole = mFromClient && mSumming && mOffset == mPart.mInfo.mSize;
  Protocol::appendLines(errors, mDownstream.finishPart());
  const FileCheck check{mPart.mSeq, mPart.mInfo.mSize, mSum};
  // Sent before the read-back, so that every host reads its copy at once.
  if (whole) mDownstream.passCheck(check);
  // Once the head answers, the next host gets the file even if the head dies.
  if (mFromClient) mDownstream.flush();
  if (whole) Protocol::appendLines(errors, verify(mCurrent, check));
  // A relayed part that ends its file is followed by the file's check.
  if (mCurrent && !mFromClient && mPart.end() == mPart.mInfo.mSize && !mCurrent->mFailed) {
    mAwaitingCheck = mCurrent;  // its descriptor serves that check
  } else if (mCurrent) {
    mCurrent->mFile->close();
  }
  mCurrent = nullptr;
  mFromClient = mSumming = false;
  return errors;
}

std::string Session::checkFile(const FileCheck& check) {
  // First, so that the hosts after this one check their copies meanwhile.
  mDownstream.passCheck(check);
  if (check.mSize >= kLargeCheck) mDownstream.flush();
  std::string errors = verify(entryOfSeq(check.mSeq), check);
  closeAwaitingCheck();
  return errors;
}

std::string Session::verify(Entry* entry, const FileCheck& check) {
  // A copy that failed here was reported then; an incomplete one is at commit.
  if (!entry || entry->mFailed || entry->mSeq != check.mSeq ||
      entry->mFile->size() != check.mSize) {
    return "";
  }
  uint32_t staged = 0;
  std::string error;
  if (entry->mFile->checksum(staged, error) && staged == check.mCRC) {
    entry->mFile->applyMode(entry->mInfo.mMode);  // commit retries it if this failed
    return "";
  }
  if (error.empty()) {
    error = entry->mFile->remoteTarget() +
            ": the staged copy differs from the bytes the head received (checksum mismatch)";
  }
  HC_LOG_INFO("Session " << mId << ": " << error);
  entry->mFailed = true;
  entry->mFile->discard();
  return line(error);
}

void Session::closeAwaitingCheck() {
  if (mAwaitingCheck) mAwaitingCheck->mFile->close();
  mAwaitingCheck = nullptr;
}

void Session::dropCurrentFile() {
  if (mCurrent && !mCurrent->mFailed) {
    mCurrent->mFailed = true;
    mCurrent->mFile->discard();
  }
  mCurrent = nullptr;
}

void Session::runCommand(const std::string& command, std::string& errors) {
  if (command.empty()) return;
  const int status = System::runShellCommand(command);
  if (status == 0) return;
  const std::string why = status < 0 ? System::getErrorMessageStr()
                                     : "exit status " + std::to_string(status);
  Protocol::appendLines(errors, line("Command \"" + command + "\" failed: " + why));
}

std::string Session::commit() {
  mDownstream.sendCommit();
  std::string errors;
  if (mStopAgents) runCommand(mConfig.mStopAgentsCommand, errors);
  moveIntoPlace(prepareForCommit(errors), errors);
  if (mStopAgents) runCommand(mConfig.mStartAgentsCommand, errors);
  const std::string downstream = mDownstream.finishCommit();
  for (const std::string& lost : mDownstream.lostHosts()) {
    Protocol::appendLines(errors, line("Unable to connect or lost connection to " + lost + "."));
  }
  Protocol::appendLines(errors, downstream);
  mLast = mCurrent = mAwaitingCheck = nullptr;
  mDownstream.forgetFiles();
  mByTarget.clear();
  mEntries.clear();
  mJournal.remove();
  HC_LOG_DEBUG("Session " << mId << " committed: " << mBytesReceived
               << " data bytes received, " << mDownstream.bytesForwarded() << " forwarded");
  return errors;
}

std::vector<Session::Entry*> Session::prepareForCommit(std::string& errors) {
  // One descriptor per file system holding staged files, to flush each once.
  std::map<int64_t, System::FileDescriptor> fileSystems;
  std::vector<Entry*> ready;
  std::string directory;
  System::FileDescriptor parent;
  for (const auto& entry : mEntries) {
    StagedFile& file = *entry->mFile;
    std::string error;
    bool prepared = false;
    FileAttributes attrs;
    if (!entry->mFailed && file.size() != entry->mInfo.mSize) {
      error = file.remoteTarget() + ": incomplete, " + std::to_string(file.size()) + " of " +
              std::to_string(entry->mInfo.mSize) + " bytes received";
    } else if (!entry->mFailed) {
      prepared = walkTo(file, directory, parent, error) &&
                 file.prepare(parent.get(), entry->mInfo.mSize, entry->mInfo.mMode, error, attrs);
    }
    if (prepared && !fileSystems.count(attrs.mFSID.mDevice)) {
      System::FileDescriptor fd = file.openStaged(parent.get());
      if (!fd) error = "Unable to flush " + file.remoteTarget() + ": " + System::getErrorMessageStr();
      prepared = bool(fd);
      if (fd) fileSystems.emplace(attrs.mFSID.mDevice, std::move(fd));
    }
    if (!prepared) {
      Protocol::appendLines(errors, error.empty() ? "" : line(error));
      file.discard();
      continue;
    }
    ready.push_back(entry.get());
  }
  for (const auto& fileSystem : fileSystems) {
    if (mConfig.mFileSystem->syncFileSystem(fileSystem.second.get())) continue;
    // Nothing on it is known to be durable: none of its files is renamed.
    const std::string why = System::getErrorMessageStr();
    Protocol::appendLines(errors, line("Error flushing staged files: " + why));
    for (Entry* entry : ready) entry->mFile->discard();
    return {};
  }
  return ready;
}

bool Session::walkTo(const StagedFile& file, std::string& directory,
                     System::FileDescriptor& parent, std::string& error) const {
  const std::string dir = TargetPath::directoryOf(file.remoteTarget());
  if (dir == directory && parent) return true;
  directory = dir;
  parent = mTargets.openParent(file.remoteTarget(), error);
  if (!parent) error = file.remoteTarget() + ": " + error;
  return bool(parent);
}

void Session::moveIntoPlace(const std::vector<Entry*>& ready, std::string& errors) {
  std::string directory;
  System::FileDescriptor parent;
  const auto flushDirectory = [&] {
    if (parent && !mConfig.mFileSystem->syncFile(parent.get())) {
      Protocol::appendLines(errors, line("Error flushing directory " + directory + ": " +
                                         System::getErrorMessageStr()));
    }
  };
  for (Entry* entry : ready) {
    StagedFile& file = *entry->mFile;
    std::string error;
    if (TargetPath::directoryOf(file.remoteTarget()) != directory) flushDirectory();
    if (!walkTo(file, directory, parent, error) || !file.moveInto(parent.get(), error)) {
      Protocol::appendLines(errors, line(error));
      file.discard();
    }
  }
  flushDirectory();
}

void Session::removeStaged() {
  mDownstream.close();
  mDownstream.forgetFiles();
  for (const auto& entry : mEntries) entry->mFile->discard();
  mByTarget.clear();
  mEntries.clear();
  mLast = mCurrent = mAwaitingCheck = nullptr;
  mTargets.removeDirectories(mCreatedDirs);
  mCreatedDirs.clear();
  mKnownDirs.clear();
  mJournal.remove();
}

void Session::abort() {
  mDownstream.abort();
  removeStaged();
  HC_LOG_INFO("Session " << mId << " aborted: " << mBytesReceived << " data bytes received");
}

void Session::discard() {
  removeStaged();
  HC_LOG_INFO("Session " << mId << " discarded");
}
