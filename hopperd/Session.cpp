#include "hopperd/Session.h"

#include <algorithm>

#include "util/Logger.h"
#include "util/StringUtilities.h"

Session::Session(std::string id, std::vector<std::string> hosts, std::string clientAddress,
                 const DaemonConfig& config)
    : mId(std::move(id)),
      mSelf(hosts.empty() ? std::string() : hosts.front()),
      mClientAddress(std::move(clientAddress)),
      mConfig(config),
      mHosts(std::move(hosts)),
      mTargets(config.mRoot, config.mAllowedPaths),
      mJournal(config.mStateDir, mId),
      mDownstream(RelayIdentity{mClientAddress, mId, mSelf}, mSelf) {
  touch();
}

Session::~Session() = default;

void Session::begin(const std::vector<std::string>& hosts, bool stopAgents, BeginResult& result) {
  mHosts = hosts;
  mStopAgents = stopAgents;
  ++mGeneration;
  mCurrent = nullptr;
  const std::vector<std::string> after(mHosts.begin() + std::min<size_t>(1, mHosts.size()),
                                       mHosts.end());
  mDownstream.connect(after, stopAgents, result);
}

void Session::moveToEnd(Entry* entry) {
  auto it = std::find_if(mEntries.begin(), mEntries.end(),
                         [entry](const std::unique_ptr<Entry>& e) { return e.get() == entry; });
  std::rotate(it, it + 1, mEntries.end());
}

void Session::recordCreatedDirs(const std::vector<std::string>& dirs) {
  for (const std::string& dir : dirs) {
    const std::string local = mTargets.local(dir);
    std::string error;
    if (!mJournal.recordDirectory(local, error)) HC_LOG_INFO(error);
    mCreatedDirs.push_back(local);
    mKnownDirs.insert(dir);
  }
}

Session::Entry* Session::stageLocally(const FileInfo& info, int64_t& position,
                                      std::string& refusal) {
  TargetPath::Resolution where;
  const bool ok = mTargets.resolve(info.mRemotePath, info.mBaseName, mKnownDirs, where, refusal);
  recordCreatedDirs(where.mCreatedDirs);
  if (!ok) return nullptr;
  const auto known = mByTarget.find(where.mLocal);
  Entry* entry = known == mByTarget.end() ? nullptr : known->second;
  // A file announced again after a reconnect, with the same size, goes on
  // where its bytes stopped; any other announcement starts it afresh.
  bool resume = entry && entry == mLast && !entry->mFailed && entry->mSize == info.mSize &&
                entry->mGeneration < mGeneration;
  if (resume && !(entry->mFile->reopen(refusal) && entry->mFile->size() <= info.mSize)) {
    resume = false;
  }
  if (!resume) {
    if (entry) {
      moveToEnd(entry);
    } else {
      mEntries.push_back(std::make_unique<Entry>());
      entry = mEntries.back().get();
      entry->mFile = std::make_unique<StagedFile>(where.mLocal, mId);
      if (!mJournal.recordStagedFile(entry->mFile->path(), refusal)) {
        mEntries.pop_back();
        return nullptr;
      }
      mByTarget[where.mLocal] = entry;
    }
    entry->mRemoteTarget = where.mTarget;
    entry->mSize = info.mSize;
    entry->mMode = info.mMode;
    entry->mFailed = !entry->mFile->create(refusal);
    if (entry->mFailed) return nullptr;
  }
  entry->mGeneration = mGeneration;
  mLast = entry;
  position = entry->mFile->size();
  return entry;
}

bool Session::openFile(const FileInfo& info, int64_t& start, std::string& refusal) {
  mCurrent = nullptr;
  mFileErrors.clear();
  int64_t position = 0;
  std::string localRefusal;
  Entry* entry = stageLocally(info, position, localRefusal);
  std::string downRefusal;
  const bool forwarding =
      mDownstream.announce(info, entry ? entry->mFile.get() : nullptr, downRefusal);
  if (!entry) Protocol::appendLines(mFileErrors, line(localRefusal));
  Protocol::appendLines(mFileErrors, downRefusal);
  if (!entry && !forwarding) {
    refusal = mFileErrors;
    mFileErrors.clear();
    return false;
  }
  start = info.mSize;
  if (entry) start = position;
  if (forwarding) start = std::min(start, mDownstream.position());
  mCurrent = entry;
  mOffset = start;
  return true;
}

void Session::fileData(const char* data, size_t n) {
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
  mDownstream.forward(data, n, mOffset);
  mOffset += static_cast<int64_t>(n);
  mBytesReceived += static_cast<int64_t>(n);
}

std::string Session::closeFile() {
  if (mCurrent) mCurrent->mFile->close();
  mCurrent = nullptr;
  std::string errors = mFileErrors;
  mFileErrors.clear();
  Protocol::appendLines(errors, mDownstream.finishFile());
  return errors;
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
  for (const auto& entry : mEntries) {
    StagedFile& file = *entry->mFile;
    std::string error;
    if (entry->mFailed) {
      file.discard();
    } else if (file.size() != entry->mSize) {
      Protocol::appendLines(errors, line(entry->mRemoteTarget + ": incomplete, " +
                                         std::to_string(file.size()) + " of " +
                                         std::to_string(entry->mSize) + " bytes received"));
      file.discard();
    } else if (!file.commit(entry->mMode, error)) {
      Protocol::appendLines(errors, line(error));
      file.discard();
    }
  }
  if (mStopAgents) runCommand(mConfig.mStartAgentsCommand, errors);
  const std::string downstream = mDownstream.finishCommit();
  for (const std::string& lost : mDownstream.lostHosts()) {
    Protocol::appendLines(errors, line("Unable to connect or lost connection to " + lost + "."));
  }
  Protocol::appendLines(errors, downstream);
  mLast = mCurrent = nullptr;
  mByTarget.clear();
  mEntries.clear();
  mJournal.remove();
  HC_LOG_DEBUG("Session " << mId << " committed: " << mBytesReceived
               << " data bytes received, " << bytesForwarded() << " forwarded");
  return errors;
}

void Session::removeStaged() {
  for (const auto& entry : mEntries) entry->mFile->discard();
  mByTarget.clear();
  mEntries.clear();
  mLast = mCurrent = nullptr;
  for (auto it = mCreatedDirs.rbegin(); it != mCreatedDirs.rend(); ++it) {
    System::removeDirectory(*it);
  }
  mCreatedDirs.clear();
  mKnownDirs.clear();
  mJournal.remove();
}

void Session::abort() {
  mDownstream.abort();
  mDownstream.close();
  removeStaged();
  HC_LOG_INFO("Session " << mId << " aborted: " << mBytesReceived << " data bytes received");
}

void Session::discard() {
  mDownstream.close();
  removeStaged();
  HC_LOG_INFO("Session " << mId << " discarded");
}
