// The bytes of one file in flight: a hidden file beside its target, on the
// same file system, so that committing is one atomic rename and nothing is
// visible at the target before it. The staged file is private (0600) until
// commit gives it the announced permission bits.
#ifndef HC_HOPPERD_STAGEDFILE_H
#define HC_HOPPERD_STAGEDFILE_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "util/System.h"

class StagedFile {
 public:
  // ".<name>.<sessionId>.staged" in the directory of localTarget; the name
  // part is shortened when the result would exceed 255 bytes.
  static std::string pathFor(const std::string& localTarget, const std::string& sessionId);
  // True when the last component of path is a staged name of the session.
  static bool isStagedPath(const std::string& path, const std::string& sessionId);

  StagedFile(std::string localTarget, const std::string& sessionId);
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  const std::string& path() const { return mPath; }
  // Bytes staged so far.
  int64_t size() const { return mSize; }

  // Creates the staged file empty, replacing an earlier one. False with the
  // error text (naming the path) on failure.
  bool create(std::string& error);
  // Opens the existing staged file to append to it (a resumed file); its
  // size becomes the bytes staged. False with the error text on failure.
  bool reopen(std::string& error);
  // Appends n bytes at the end. False with the error text on failure.
  bool append(const char* data, size_t n, std::string& error);
  // Reads up to n bytes at offset from the staged copy (to re-send a gap).
  // Returns the count read, 0 at the end, -1 with errno set on failure. The
  // read descriptor stays open for the next block of the same gap.
  ssize_t readAt(char* buf, size_t n, int64_t offset) const;
  // Releases the descriptors once the file's bytes are complete.
  void close() {
    mFd.close();
    mReader.close();
  }
  // Flushes the bytes to disk, applies mode & 0777 and renames the staged
  // file onto the target. False with the error text on failure.
  bool commit(int mode, std::string& error);
  // Removes the staged file; a missing one is fine.
  void discard();

 private:
  std::string failure(const std::string& what) const;

  std::string mTarget;
  std::string mPath;
  System::FileDescriptor mFd;
  mutable System::FileDescriptor mReader;  // opened by the first readAt
  int64_t mSize = 0;
};

#endif  // HC_HOPPERD_STAGEDFILE_H
