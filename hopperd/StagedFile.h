// The bytes of one file in flight: a hidden file beside its target, so that
// commit is one atomic rename. It is private (0600) until commit, reached
// only through its TargetPath's walk and created exclusively.
#ifndef HIVE_HOPPERD_STAGEDFILE_H_
#define HIVE_HOPPERD_STAGEDFILE_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "util/FileSystem.h"
#include "hopperd/TargetPath.h"
#include "util/System.h"

class StagedFile {
 public:
  // Called with a staged file's remote path before it is created (to
  // journal it); false with error set refuses the file.
  using BeforeCreate = std::function<bool(const std::string& remoteStaged, std::string& error)>;

  // True when name (one component) is a staged name of the session.
  static bool isStagedName(const std::string& name, const std::string& sessionId);

  // remoteTarget is normalised; paths and fs must outlive this object.
  StagedFile(const TargetPath& paths, std::string remoteTarget, std::string sessionId,
             FileSystem* fs = FileSystem::posix());
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  const std::string& remoteTarget() const { return mRemoteTarget; }
  // Bytes staged so far.
  int64_t size() const { return mSize; }

  // Creates it empty in parentFd (the target's directory), replacing the one
  // made before; a name another file holds takes the next attempt's.
  bool create(int parentFd, const BeforeCreate& beforeCreate, std::string& error);
  // Opens the existing staged file to append to it (a resumed file).
  bool reopen(std::string& error);
  // Appends n bytes and reads them back at once for checksum(). On failure
  // removes the staged file and returns false with the error text.
  bool append(const char* data, size_t n, std::string& error);
  // Reads up to n bytes at offset: the count, 0 at the end, -1 with errno.
  ssize_t readAt(char* buf, size_t n, int64_t offset) const;
  // The CRC-32C of the staged bytes as read back from the file system.
  // False with the error text when they cannot be read.
  bool checksum(uint32_t& crc, std::string& error);
  // Gives the open staged file the bits mode & 0777 (else commit does).
  bool applyMode(int mode);
  void close() {
    mFd.close();
    mReader.close();
  }
  // First step of commit: checks that it is a regular file of expectedSize
  // bytes and gives it mode & 0777; its attributes go to attrs.
  bool prepare(int parentFd, int64_t expectedSize, int mode, std::string& error,
               FileAttributes& attrs);
  // The staged file in parentFd open for reading (invalid on failure).
  System::FileDescriptor openStaged(int parentFd) const;
  // Second step, once the bytes are durable: renames it onto its target.
  bool moveInto(int parentFd, std::string& error);
  // Removes the staged file this object made; a missing one is fine.
  void discard();

 private:
  void setName(int attempt);
  void readBack(int64_t at, size_t n);
  std::string remoteStaged() const;
  System::FileDescriptor openExisting(bool forWrite, std::string& error) const;

  const TargetPath& mPaths;
  FileSystem* const mFS;
  const std::string mRemoteTarget;
  const std::string mSessionId;
  int mAttempt = 0;
  std::string mName;
  bool mExists = false;  // made (or reopened) by this object and not yet gone
  System::FileDescriptor mFd;              // reads and appends
  mutable System::FileDescriptor mReader;  // opened by the first readAt without mFd
  int64_t mSize = 0;
  // The CRC-32C of the first mReadBackSize bytes read back (-1: unknown).
  uint32_t mReadBackCRC = 0;
  int64_t mReadBackSize = -1;
};

#endif  // HIVE_HOPPERD_STAGEDFILE_H_
