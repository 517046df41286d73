#include "hopperd/StagedFile.h"

#include <fcntl.h>

#include "util/StringUtilities.h"
#include "util/pathfun.h"

namespace {

const char kSuffix[] = ".staged";
const std::string::size_type kMaxName = 255;

std::string suffixFor(const std::string& sessionId) { return "." + sessionId + kSuffix; }

}  // namespace

std::string StagedFile::pathFor(const std::string& localTarget, const std::string& sessionId) {
  const std::string suffix = suffixFor(sessionId);
  std::string name = getFileName(localTarget);
  if (1 + name.size() + suffix.size() > kMaxName) name.resize(kMaxName - 1 - suffix.size());
  return getDirectoryName(localTarget) + "/." + name + suffix;
}

bool StagedFile::isStagedPath(const std::string& path, const std::string& sessionId) {
  const std::string name = getFileName(path);
  const std::string suffix = suffixFor(sessionId);
  return name.size() > suffix.size() + 1 && name[0] == '.' &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

StagedFile::StagedFile(std::string localTarget, const std::string& sessionId)
    : mTarget(std::move(localTarget)), mPath(pathFor(mTarget, sessionId)) {}

std::string StagedFile::failure(const std::string& what) const {
  return what + " " + mPath + ": " + System::getErrorMessageStr();
}

bool StagedFile::create(std::string& error) {
  mFd = System::openForWrite(mPath, 0600, O_TRUNC);
  mSize = 0;
  if (!mFd) error = failure("Unable to create");
  return mFd.valid();
}

bool StagedFile::reopen(std::string& error) {
  mFd = System::openForWrite(mPath, 0600, O_APPEND);
  FileAttributes attrs;
  if (mFd && attrs.statFd(mFd.get())) {
    mSize = attrs.mSize;
    return true;
  }
  error = failure("Unable to reopen");
  mFd.close();
  return false;
}

bool StagedFile::append(const char* data, size_t n, std::string& error) {
  if (!mFd && !reopen(error)) return false;
  if (!System::writeAll(mFd.get(), data, n)) {
    error = failure("Error writing");
    return false;
  }
  mSize += int64_t(n);
  return true;
}

ssize_t StagedFile::readAt(char* buf, size_t n, int64_t offset) const {
  if (!mReader) mReader = System::openForRead(mPath, false);
  if (!mReader) return -1;
  return System::preadSome(mReader.get(), buf, n, offset);
}

bool StagedFile::commit(int mode, std::string& error) {
  if (!mFd) {
    mFd = System::openForWrite(mPath, 0600, O_APPEND);
    if (!mFd) {
      error = failure("Unable to open");
      return false;
    }
  }
  if (!System::syncFile(mFd.get())) {
    error = failure("Error flushing");
    return false;
  }
  if (!System::changeMode(mFd.get(), mode & 0777)) {
    error = failure("Unable to set the mode of");
    return false;
  }
  close();
  if (!System::move(mPath, mTarget)) {
    error = "Unable to rename " + mPath + " to " + mTarget + ": " + System::getErrorMessageStr();
    return false;
  }
  return true;
}

void StagedFile::discard() {
  close();
  System::removeFile(mPath);
}
