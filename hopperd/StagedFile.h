// The bytes of one file in flight: a hidden file beside its target, on the
// same file system, so that committing is one atomic rename and nothing is
// visible at the target before it. The staged file is private (0600) until
// commit gives it the announced permission bits. It is reached only through
// its TargetPath's walk, which follows no symbolic link, and it is created
// exclusively, so it is never confused with another file; only the
// descriptors of the bytes being written or read back stay open.
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
  // Called with the remote path of a staged file just before it is created
  // (to journal it); false with error set refuses the file.
  using BeforeCreate = std::function<bool(const std::string& remoteStaged, std::string& error)>;

  // "." + a prefix of targetName + "." + 16 hex digits of a hash of all of
  // targetName, "-" + attempt when attempt > 0, + "." + sessionId +
  // ".staged". At most 255 bytes for a session identifier of up to 64.
  static std::string nameFor(const std::string& targetName, const std::string& sessionId,
                             int attempt);
  // True when name (one component) is a staged name of the session.
  static bool isStagedName(const std::string& name, const std::string& sessionId);

  // remoteTarget is normalised; paths and fs must outlive this object.
  StagedFile(const TargetPath& paths, std::string remoteTarget, std::string sessionId,
             FileSystem* fs = FileSystem::posix());
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  const std::string& remoteTarget() const { return mRemoteTarget; }
  // The staged file's name and its local path (for messages).
  const std::string& name() const { return mName; }
  const std::string& path() const { return mPath; }
  // Bytes staged so far.
  int64_t size() const { return mSize; }

  // Creates the staged file empty in parentFd, the target's directory, after
  // removing the one this object created before (a re-announced target).
  // When the name belongs to another file, takes the next attempt's name.
  // False with the error text (naming the remote target) on failure.
  bool create(int parentFd, const BeforeCreate& beforeCreate, std::string& error);
  // Opens the existing staged file to append to it (a resumed file); its
  // size becomes the bytes staged. False with the error text on failure.
  bool reopen(std::string& error);
  // Appends n bytes at the end and reads them back at once for checksum(),
  // while they are fresh, so that a file's check makes no second pass over
  // it. On failure removes the staged file, so that its space comes back,
  // and returns false with the error text.
  bool append(const char* data, size_t n, std::string& error);
  // Reads up to n bytes at offset from the staged copy (to re-send a gap).
  // Returns the count read, 0 at the end, -1 with errno set on failure. The
  // read descriptor stays open for the next block of the same gap.
  ssize_t readAt(char* buf, size_t n, int64_t offset) const;
  // The CRC-32C of the bytes staged so far as read back from the staged
  // copy (what the file system holds, not what was meant to be written):
  // the sum of the read-backs of every append, or, when the file was not
  // written through this object alone (a resumed file), of a read of all
  // of it. False with the error text when they cannot be read.
  bool checksum(uint32_t& crc, std::string& error);
  // Gives the open staged file the permission bits mode & 0777 (once its
  // bytes are checked), so that commit need not open it again. False when
  // it is closed or the call failed; commit then applies them.
  bool applyMode(int mode);
  // Releases the descriptors once the file's bytes are complete.
  void close() {
    mFd.close();
    mReader.close();
  }
  // First step of commit, in parentFd, the target's directory reached by a
  // fresh walk (TargetPath::openParent): checks that the staged file is a
  // regular file of exactly expectedSize bytes and gives it mode & 0777
  // unless it has them. Its attributes go to attrs (its file system is to be
  // flushed before the rename: openStaged gives a descriptor for that).
  // False with the error text; a missing or short staged file fails and
  // nothing is ever re-created.
  bool prepare(int parentFd, int64_t expectedSize, int mode, std::string& error,
               FileAttributes& attrs);
  // The staged file in parentFd open for reading (invalid on failure).
  System::FileDescriptor openStaged(int parentFd) const;
  // Second step, once the bytes are durable: renames the staged file onto
  // its target in parentFd, the target's directory reached by a fresh walk
  // (TargetPath::openParent). False with the error text on failure.
  bool moveInto(int parentFd, std::string& error);
  // Removes the staged file this object made; a missing one is fine.
  void discard();

 private:
  void setName(int attempt);
  // Reads back the n bytes just appended at offset at into the running
  // checksum (which becomes unknown when they cannot be read).
  void readBack(int64_t at, size_t n);
  std::string remoteStaged() const;
  // The staged file by a fresh walk: appending, or reading.
  System::FileDescriptor openExisting(bool forWrite, std::string& error) const;

  const TargetPath& mPaths;
  FileSystem* const mFS;
  const std::string mRemoteTarget;
  const std::string mSessionId;
  int mAttempt = 0;
  std::string mName;
  std::string mPath;
  bool mExists = false;  // made (or reopened) by this object and not yet gone
  System::FileDescriptor mFd;              // reads and appends
  mutable System::FileDescriptor mReader;  // opened by the first readAt without mFd
  int64_t mSize = 0;
  // The CRC-32C of the first mReadBackSize bytes as read back (-1: unknown,
  // checksum() reads the whole file).
  uint32_t mReadBackCRC = 0;
  int64_t mReadBackSize = -1;
};

#endif  // HIVE_HOPPERD_STAGEDFILE_H_
