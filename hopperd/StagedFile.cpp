#include "hopperd/StagedFile.h"

#include <cerrno>
#include <cstdio>
#include <vector>
#include <algorithm>

#include "util/CRC.h"
#include "util/StringUtilities.h"

namespace {

const char kSuffix[] = ".staged";
// Room kept for "-<attempt>", so that every attempt keeps the same prefix.
const std::string::size_type kAttemptRoom = 4;
const int kMaxAttempts = 1000;
const size_t kCheckBlock = 1 << 20;
const size_t kReadBackBlock = 65536;

// 64-bit FNV-1a: cheap, and ample to tell apart the names that share a prefix.
std::string hashText(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325u;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3u;
  }
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return hex;
}

// "." + a prefix of targetName + "." + its hash [+ "-" attempt] + "." +
// sessionId + ".staged"; at most 255 bytes.
std::string nameFor(const std::string& targetName, const std::string& sessionId, int attempt) {
  const std::string suffix = "." + sessionId + kSuffix;
  std::string tag = "." + hashText(targetName);
  if (attempt > 0) tag += "-" + std::to_string(attempt);
  const std::string::size_type fixed = 1 + 1 + 16 + kAttemptRoom + suffix.size();
  const std::string::size_type room =
      fixed < TargetPath::kMaxName ? TargetPath::kMaxName - fixed : 0;
  return "." + targetName.substr(0, room) + tag + suffix;
}

}  // namespace

bool StagedFile::isStagedName(const std::string& name, const std::string& sessionId) {
  const std::string suffix = "." + sessionId + kSuffix;
  return name.size() > suffix.size() + 1 && name[0] == '.' &&
         name.find('/') == std::string::npos &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

StagedFile::StagedFile(const TargetPath& paths, std::string remoteTarget, std::string sessionId,
                       FileSystem* fs)
    : mPaths(paths),
      mFS(fs),
      mRemoteTarget(std::move(remoteTarget)),
      mSessionId(std::move(sessionId)) {
  setName(0);
}

std::string StagedFile::remoteStaged() const {
  const std::string dir = TargetPath::directoryOf(mRemoteTarget);
  return (dir == "/" ? "" : dir) + "/" + mName;
}

void StagedFile::setName(int attempt) {
  mAttempt = attempt;
  mName = nameFor(TargetPath::nameOf(mRemoteTarget), mSessionId, attempt);
}

bool StagedFile::create(int parentFd, const BeforeCreate& beforeCreate, std::string& error) {
  close();
  mSize = 0;
  mReadBackCRC = 0;
  mReadBackSize = 0;
  if (mExists) {
    mFS->removeFileAt(parentFd, mName);
    mExists = false;
  }
  for (;;) {
    if (beforeCreate && !beforeCreate(remoteStaged(), error)) return false;
    mFd = mFS->createExclusiveAt(parentFd, mName, 0600);
    if (mFd) {
      mExists = true;
      return true;
    }
    // EEXIST: the name is another file's (a hash shared by two targets).
    if (errno != EEXIST || mAttempt + 1 >= kMaxAttempts) break;
    setName(mAttempt + 1);
  }
  error = "Unable to stage " + mRemoteTarget + ": " + System::getErrorMessageStr();
  return false;
}

System::FileDescriptor StagedFile::openExisting(bool forWrite, std::string& error) const {
  System::FileDescriptor parent = mPaths.openParent(mRemoteTarget, error);
  if (!parent) return parent;
  System::FileDescriptor fd = mFS->openFileAt(parent.get(), mName, forWrite);
  if (!fd) {
    System::SaveError keep;  // readAt reports errno
    error = "Staged copy of " + mRemoteTarget + ": " + System::getErrorMessageStr();
  }
  return fd;
}

bool StagedFile::reopen(std::string& error) {
  mFd = openExisting(true, error);
  FileAttributes attrs;
  if (mFd && attrs.statFd(mFd.get())) {
    if (attrs.mSize != mSize) mReadBackSize = -1;  // bytes this object never read back
    mSize = attrs.mSize;
    mExists = true;
    return true;
  }
  if (mFd) error = "Staged copy of " + mRemoteTarget + ": " + System::getErrorMessageStr();
  mFd.close();
  return false;
}

bool StagedFile::append(const char* data, size_t n, std::string& error) {
  if (!mFd && !reopen(error)) return false;
  if (!mFS->writeAll(mFd.get(), data, n)) {
    error = "Error writing " + mRemoteTarget + ": " + System::getErrorMessageStr();
    discard();
    return false;
  }
  const int64_t at = mSize;
  mSize += int64_t(n);
  if (mReadBackSize == at) readBack(at, n);
  return true;
}

void StagedFile::readBack(int64_t at, size_t n) {
  // A buffer per file would hold memory for every staged file.
  thread_local std::vector<char> buffer;
  buffer.resize(std::min(n, kReadBackBlock));
  for (size_t done = 0; done < n;) {
    const size_t want = std::min(n - done, buffer.size());
    const ssize_t got = mFS->preadSome(mFd.get(), buffer.data(), want, at + int64_t(done));
    if (got <= 0) {
      mReadBackSize = -1;  // checksum() reads the file again and reports why
      return;
    }
    mReadBackCRC = CRC::crc32c(reinterpret_cast<const unsigned char*>(buffer.data()),
                               static_cast<unsigned long>(got), mReadBackCRC);
    done += size_t(got);
  }
  mReadBackSize = at + int64_t(n);
}

ssize_t StagedFile::readAt(char* buf, size_t n, int64_t offset) const {
  if (mFd) return mFS->preadSome(mFd.get(), buf, n, offset);
  if (!mReader) {
    std::string ignored;
    mReader = openExisting(false, ignored);
    if (!mReader) return -1;
  }
  return mFS->preadSome(mReader.get(), buf, n, offset);
}

bool StagedFile::checksum(uint32_t& crc, std::string& error) {
  if (mReadBackSize == mSize) {
    crc = mReadBackCRC;
    return true;
  }
  std::vector<char> buffer(static_cast<size_t>(std::min<int64_t>(mSize, kCheckBlock)) + 1);
  crc = 0;
  for (int64_t at = 0; at < mSize;) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(buffer.size(), mSize - at));
    const ssize_t got = readAt(buffer.data(), want, at);
    if (got <= 0) {
      error = "Unable to read back the staged copy of " + mRemoteTarget + ": " +
              (got < 0 ? System::getErrorMessageStr() : "it is shorter");
      return false;
    }
    crc = CRC::crc32c(reinterpret_cast<const unsigned char*>(buffer.data()),
                      static_cast<unsigned long>(got), crc);
    at += got;
  }
  mReadBackCRC = crc;  // later appends continue it
  mReadBackSize = mSize;
  return true;
}

bool StagedFile::applyMode(int mode) { return mFd && mFS->changeMode(mFd.get(), mode & 0777); }

bool StagedFile::prepare(int parentFd, int64_t expectedSize, int mode, std::string& error,
                         FileAttributes& attrs) {
  close();
  const bool found = mFS->statAt(parentFd, mName, attrs);
  if (!found || !attrs.isRegularFile()) {
    if (found) errno = EINVAL;  // something else where the staged file was
    error = mRemoteTarget + ": the staged copy is lost: " + System::getErrorMessageStr();
    return false;
  }
  if (attrs.mSize != expectedSize) {
    error = mRemoteTarget + ": the staged copy holds " + std::to_string(attrs.mSize) + " of " +
            std::to_string(expectedSize) + " bytes";
    return false;
  }
  if ((attrs.mMode & 0777) == (mode & 0777)) return true;
  const System::FileDescriptor fd = openStaged(parentFd);
  if (!fd || !mFS->changeMode(fd.get(), mode & 0777)) {
    error = "Unable to set the mode of " + mRemoteTarget + ": " + System::getErrorMessageStr();
    return false;
  }
  return true;
}

System::FileDescriptor StagedFile::openStaged(int parentFd) const {
  return mFS->openFileAt(parentFd, mName, false);
}

bool StagedFile::moveInto(int parentFd, std::string& error) {
  if (!mFS->renameAt(parentFd, mName, parentFd, TargetPath::nameOf(mRemoteTarget))) {
    error = "Unable to move into place " + mRemoteTarget + ": " + System::getErrorMessageStr();
    return false;
  }
  mExists = false;
  return true;
}

void StagedFile::discard() {
  close();
  if (!mExists) return;
  mExists = false;
  mPaths.removeFile(remoteStaged());
}
