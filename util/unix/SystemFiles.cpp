// File metadata, raw directory listing and descriptor services.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "util/System.h"

namespace {

// Repeats call while it fails with EINTR and returns its last result.
template <typename Call>
auto retryOnInterrupt(Call call) {
  decltype(call()) rc;
  do {
    rc = call();
  } while (rc < 0 && errno == EINTR);
  return rc;
}

// Copies st into a when the stat call that filled it returned rc == 0.
bool fillFrom(FileAttributes& a, int rc, const struct stat& st) {
  if (rc != 0) return false;
  a.mFSID.mDevice = static_cast<int64_t>(st.st_dev);
  a.mFSID.mIndex = static_cast<int64_t>(st.st_ino);
  a.mSize = static_cast<int64_t>(st.st_size);
  a.mLinkCount = static_cast<int>(st.st_nlink);
  a.mCreateTime = Time(st.st_ctim);
  a.mAccessTime = Time(st.st_atim);
  a.mModifyTime = Time(st.st_mtim);
  a.mMode = static_cast<int>(st.st_mode);
  a.mOwnerId = static_cast<int>(st.st_uid);
  a.mGroupId = static_cast<int>(st.st_gid);
  a.mWindowsFlags = 0;
  return true;
}

int openAtRetrying(int dirFd, const std::string& name, int flags, int mode) {
  return retryOnInterrupt([&] { return ::openat(dirFd, name.c_str(), flags, mode_t(mode)); });
}

// Layout of the records returned by getdents64.
struct RawDirEntry {
  uint64_t d_ino;
  int64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[1];
};

const std::size_t kDirBufferSize = 5370;

// Calls readAt(done) until n bytes or end of file: the count, or -1 on error.
template <typename ReadAt>
ssize_t readUntilFull(size_t n, ReadAt readAt) {
  size_t done = 0;
  while (done < n) {
    const ssize_t r = readAt(done);
    if (r < 0) return -1;
    if (r == 0) break;
    done += static_cast<size_t>(r);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

bool FileAttributes::stat(const std::string& path, SymLinkMode mode) {
  struct stat st;
  return fillFrom(*this, retryOnInterrupt([&] {
    return mode == DONT_FOLLOW_SYMLINK ? ::lstat(path.c_str(), &st) : ::stat(path.c_str(), &st);
  }), st);
}

bool FileAttributes::statFd(int fd) {
  struct stat st;
  return fillFrom(*this, ::fstat(fd, &st), st);
}

bool FileAttributes::statAt(int dirFd, const std::string& name, SymLinkMode mode) {
  struct stat st;
  const int flags = mode == DONT_FOLLOW_SYMLINK ? AT_SYMLINK_NOFOLLOW : 0;
  return fillFrom(*this, retryOnInterrupt([&] {
    return ::fstatat(dirFd, name.c_str(), &st, flags);
  }), st);
}

FileType FileAttributes::getType() const {
  if (S_ISDIR(mMode)) return TYPE_DIRECTORY;
  if (S_ISLNK(mMode)) return TYPE_SYMLINK;
  if (S_ISFIFO(mMode)) return TYPE_NAMED_PIPE;
  return TYPE_FILE;
}

bool FileAttributes::isRegularFile() const {
  return !(S_ISDIR(mMode) || S_ISCHR(mMode) || S_ISBLK(mMode) || S_ISSOCK(mMode) ||
           S_ISFIFO(mMode));
}

bool FileAttributes::isDirectory() const { return S_ISDIR(mMode); }

bool FileAttributes::isSymlink() const { return S_ISLNK(mMode); }

namespace System {

bool readDirectory(const std::string& path, std::vector<std::string>& names) {
  FileDescriptor dir = openDirectory(path, true);
  // On failure the descriptor's destructor closes it and keeps errno.
  if (!dir || !readDirectoryAt(dir.get(), names)) return false;
  return dir.close();
}

bool readDirectoryAt(int dirFd, std::vector<std::string>& names) {
  alignas(RawDirEntry) char buffer[kDirBufferSize];
  for (;;) {
    const long n = ::syscall(SYS_getdents64, dirFd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    for (long off = 0; off < n;) {
      unsigned short recordLength;
      std::memcpy(&recordLength, buffer + off + offsetof(RawDirEntry, d_reclen),
                  sizeof recordLength);
      names.emplace_back(buffer + off + offsetof(RawDirEntry, d_name));
      off += recordLength;
    }
  }
}

FileDescriptor::~FileDescriptor() {
  SaveError keep;  // destruction during error handling must not change errno
  close();
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& o) noexcept {
  if (this != &o) {
    close();
    mFd = o.release();
  }
  return *this;
}

int FileDescriptor::release() { return std::exchange(mFd, -1); }

bool FileDescriptor::close() {
  if (mFd < 0) return true;
  const int fd = release();
  // Linux releases the descriptor even when close reports EINTR.
  return ::close(fd) == 0 || errno == EINTR;
}

FileDescriptor openForWrite(const std::string& path, int mode, int extraFlags) {
  const int flags = O_CREAT | O_WRONLY | O_NOFOLLOW | O_CLOEXEC | extraFlags;
  return FileDescriptor(openAtRetrying(AT_FDCWD, path, flags, mode));
}

FileDescriptor openForRead(const std::string& path, bool followSymlink) {
  return FileDescriptor(
      openAtRetrying(AT_FDCWD, path, O_RDONLY | O_CLOEXEC | (followSymlink ? 0 : O_NOFOLLOW), 0));
}

FileDescriptor openDirectory(const std::string& path, bool followSymlink) {
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followSymlink ? 0 : O_NOFOLLOW);
  return FileDescriptor(openAtRetrying(AT_FDCWD, path, flags, 0));
}

FileDescriptor openDirectoryAt(int dirFd, const std::string& name) {
  FileDescriptor fd(
      openAtRetrying(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
  if (fd || errno != ENOTDIR) return fd;
  // Linux says ENOTDIR for a link here; a link is worth naming as such.
  struct stat st;
  const bool link = ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISLNK(st.st_mode);
  errno = link ? ELOOP : ENOTDIR;
  return fd;
}

bool makeDirectoryAt(int dirFd, const std::string& name, int mode) {
  return ::mkdirat(dirFd, name.c_str(), static_cast<mode_t>(mode)) == 0;
}

FileDescriptor createExclusiveAt(int dirFd, const std::string& name, int mode) {
  return FileDescriptor(openAtRetrying(
      dirFd, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
}

FileDescriptor openFileAt(int dirFd, const std::string& name, bool forWrite) {
  const int access = forWrite ? (O_RDWR | O_APPEND) : O_RDONLY;
  FileDescriptor fd(
      openAtRetrying(dirFd, name, access | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0));
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0) return FileDescriptor();
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;  // kept while fd closes
    return FileDescriptor();
  }
  // O_NONBLOCK (so that opening a FIFO cannot wait) stays: regular files
  // ignore it, and clearing it would cost two calls per file.
  return fd;
}

bool renameAt(int fromDirFd, const std::string& from, int toDirFd, const std::string& to) {
  return ::renameat(fromDirFd, from.c_str(), toDirFd, to.c_str()) == 0;
}

bool removeFileAt(int dirFd, const std::string& name) {
  return ::unlinkat(dirFd, name.c_str(), 0) == 0;
}

bool removeDirectoryAt(int dirFd, const std::string& name) {
  return ::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0;
}

bool writeAll(int fd, const void* data, size_t n) {
  const char* p = static_cast<const char*>(data);
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

ssize_t readSome(int fd, void* buf, size_t n) {
  return retryOnInterrupt([&] { return ::read(fd, buf, n); });
}

ssize_t preadSome(int fd, void* buf, size_t n, int64_t offset) {
  return retryOnInterrupt([&] { return ::pread(fd, buf, n, static_cast<off_t>(offset)); });
}

ssize_t readFull(int fd, void* buf, size_t n) {
  char* p = static_cast<char*>(buf);
  return readUntilFull(n, [&](size_t done) { return readSome(fd, p + done, n - done); });
}

ssize_t preadFull(int fd, void* buf, size_t n, int64_t offset) {
  char* p = static_cast<char*>(buf);
  return readUntilFull(n, [&](size_t done) {
    return preadSome(fd, p + done, n - done, offset + static_cast<int64_t>(done));
  });
}

int64_t seek(int fd, int64_t offset, int whence) {
  return static_cast<int64_t>(::lseek(fd, static_cast<off_t>(offset), whence));
}

bool syncFile(int fd) { return ::fsync(fd) == 0; }

bool syncFileSystem(int fd) { return ::syncfs(fd) == 0; }

bool syncData(int fd) { return ::fdatasync(fd) == 0; }

bool changeMode(int fd, int mode) { return ::fchmod(fd, static_cast<mode_t>(mode)) == 0; }

}  // namespace System
