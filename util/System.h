// Operating-system services. Unless stated otherwise each reports failure by
// its return value with errno set and never throws.
#ifndef HIVE_UTIL_SYSTEM_H_
#define HIVE_UTIL_SYSTEM_H_

#include <sys/types.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "util/StringUtilities.h"
#include "util/Time.h"

enum SymLinkMode { FOLLOW_SYMLINK = 0, DONT_FOLLOW_SYMLINK = 1 };

enum FileType { TYPE_FILE = 1, TYPE_SYMLINK = 2, TYPE_DIRECTORY = 3, TYPE_NAMED_PIPE = 4 };

// Identifies a file independently of its path; ordered as (device, index).
struct FSID {
  int64_t mDevice = 0;
  int64_t mIndex = 0;
  bool operator==(const FSID& o) const { return mDevice == o.mDevice && mIndex == o.mIndex; }
  bool operator!=(const FSID& o) const { return !(*this == o); }
  bool operator<(const FSID& o) const {
    return mDevice < o.mDevice || (mDevice == o.mDevice && mIndex < o.mIndex);
  }
};

// Metadata of one file. A default-constructed value is all zero.
class FileAttributes {
 public:
  enum ModifyMask {
    CREATION_TIME = 1, ACCESS_TIME = 2, MODIFY_TIME = 4, PERMISSIONS = 8,
    OWNER = 16, GROUP = 32, WINFLAGS = 64
  };

  // lstat (DONT_FOLLOW_SYMLINK) or stat; on failure the record is unchanged.
  bool stat(const std::string& path, SymLinkMode mode);
  // The same by descriptor (fstat) and by name inside dirFd (fstatat).
  bool statFd(int fd);
  bool statAt(int dirFd, const std::string& name, SymLinkMode mode);

  // Directory, symlink, named pipe; everything else is TYPE_FILE.
  FileType getType() const;
  // False for directories, devices, sockets and FIFOs; true otherwise (a link
  // too: use getType() for links).
  bool isRegularFile() const;
  bool isDirectory() const;
  bool isSymlink() const;
  // Permission bits only (mode & 07777).
  int permissions() const { return mMode & 07777; }

  FSID mFSID;
  int64_t mSize = 0;
  int mLinkCount = 0;
  Time mCreateTime;  // inode change time on this platform
  Time mAccessTime;
  Time mModifyTime;
  int mMode = 0;
  int mOwnerId = 0;
  int mGroupId = 0;
  int mWindowsFlags = 0;
};

namespace System {

// Target platform identifier; OS_DEFAULT is the platform this tool runs on.
enum OSID {
  OS_INVALID = -1, OS_NONE = 0, OS_WIN32 = 1, OS_SOLARIS = 2, OS_LINUX = 3, OS_SOLARIS_X86 = 4,
  OS_DEFAULT = OS_LINUX
};

// Case-insensitive: null -> OS_NONE; "windows", "solaris", "linux",
// "solarisx86" -> their ids; anything else -> OS_INVALID.
OSID makeOSID(const char* name);

// SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU, SIGXFSZ, SIGPWR; the daemon set
// omits SIGHUP.
extern const std::vector<int> sInteractiveShutdownSignals;
extern const std::vector<int> sDaemonShutdownSignals;

// A dangling link exists only with DONT_FOLLOW_SYMLINK (lstat, else access).
bool fileExists(const std::string& path, SymLinkMode mode = FOLLOW_SYMLINK);

// Removes a file or an empty directory; a missing path (ENOENT, ENOTDIR)
// counts as success. Returns 0 or -1. The flag is unused here.
int remove(const std::string& path, bool force = false);
// rename(from, to). The flag is unused here.
bool move(const std::string& from, const std::string& to, bool force = false);

// remove/move tried up to maxAttempts times, intervalMs apart; on failure
// errno is that of the first attempt.
bool retryRemove(const std::string& path, bool force = false, int maxAttempts = 600,
                 long intervalMs = 100);
bool retryMove(const std::string& from, const std::string& to, bool force = false,
               int maxAttempts = 600, long intervalMs = 100);

// Appends the names of all entries in kernel order, "." and ".." included.
bool readDirectory(const std::string& path, std::vector<std::string>& names);
// The same for a freshly opened directory dirFd.
bool readDirectoryAt(int dirFd, std::vector<std::string>& names);

// mkdir (mode before umask); an existing link gives EEXIST.
bool makeDirectory(const std::string& path, int mode);
// unlink: a file or a link, never a directory.
bool removeFile(const std::string& path);
// rmdir: an empty directory.
bool removeDirectory(const std::string& path);
// chmod (follows links).
bool changeMode(const std::string& path, int mode);

// Owning file descriptor; closes on destruction. -1 means none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : mFd(fd) {}
  ~FileDescriptor();
  FileDescriptor(FileDescriptor&& o) noexcept : mFd(o.release()) {}
  FileDescriptor& operator=(FileDescriptor&& o) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return mFd; }
  bool valid() const { return mFd >= 0; }
  explicit operator bool() const { return valid(); }
  // Gives up ownership and returns the descriptor.
  int release();
  // Closes now; false with errno set when close fails.
  bool close();

 private:
  int mFd = -1;
};

// open(O_CREAT|O_WRONLY|O_NOFOLLOW|O_CLOEXEC | extraFlags, mode); a link at
// the last component gives ELOOP. Invalid on failure.
FileDescriptor openForWrite(const std::string& path, int mode, int extraFlags = 0);
// open(O_RDONLY|O_CLOEXEC), plus O_NOFOLLOW unless followSymlink.
FileDescriptor openForRead(const std::string& path, bool followSymlink = true);
// open(O_RDONLY|O_DIRECTORY|O_CLOEXEC), plus O_NOFOLLOW unless followSymlink.
FileDescriptor openDirectory(const std::string& path, bool followSymlink = false);

// New output file stream for path (mode 0666): appending with std::ios::app,
// else truncated; std::ios::ate starts at the end; failbit on failure.
std::unique_ptr<std::ostream> make_ofstream(const std::string& path,
                                          std::ios::openmode mode = std::ios::out,
                                          bool closeOnExec = true);
// New input file stream for path opened with mode | in.
std::unique_ptr<std::ifstream> make_ifstream(const std::string& path,
                                             std::ios::openmode mode = std::ios::in);

// Names inside the directory dirFd; none follows a link at the name.
// A directory: a link gives ELOOP, a non-directory ENOTDIR.
FileDescriptor openDirectoryAt(int dirFd, const std::string& name);
// mkdirat (mode before umask); any existing name gives EEXIST.
bool makeDirectoryAt(int dirFd, const std::string& name, int mode);
// A new file, readable and writable; any existing name gives EEXIST.
FileDescriptor createExclusiveAt(int dirFd, const std::string& name, int mode);
// An existing regular file, read-only or (forWrite) read-append. A link gives
// ELOOP; anything else fails at once (EINVAL, or ENXIO for a FIFO).
FileDescriptor openFileAt(int dirFd, const std::string& name, bool forWrite);
// renameat; replaces a file or link at the new name.
bool renameAt(int fromDirFd, const std::string& from, int toDirFd, const std::string& to);
// unlinkat: a file or a link (never what it points to).
bool removeFileAt(int dirFd, const std::string& name);
// unlinkat(AT_REMOVEDIR): an empty directory.
bool removeDirectoryAt(int dirFd, const std::string& name);

// Writes all n bytes, retrying short writes and EINTR.
bool writeAll(int fd, const void* data, size_t n);
// read() and pread(), retried on EINTR: bytes read, 0 at end, -1 on error.
ssize_t readSome(int fd, void* buf, size_t n);
ssize_t preadSome(int fd, void* buf, size_t n, int64_t offset);
// The same until n bytes or end of file: the count, or -1 on error.
ssize_t readFull(int fd, void* buf, size_t n);
ssize_t preadFull(int fd, void* buf, size_t n, int64_t offset);
// lseek(); the new offset or -1.
int64_t seek(int fd, int64_t offset, int whence);
bool syncFile(int fd);
// syncfs(): the whole file system holding fd.
bool syncFileSystem(int fd);
// fdatasync: the data and the size, not every time stamp.
bool syncData(int fd);
bool changeMode(int fd, int mode);

// The variable's value or null.
const char* getenv(const char* name);

// Waits at least ms milliseconds of the monotonic clock; signals do not end
// the wait early.
void sleep(long ms);

// Local time as "%Y/%m/%d %H:%M:%S".
void currentTimeAsString(std::string& out);

// Runs command through /bin/sh -c: its exit status, 128+n when killed by
// signal n, or -1 with errno set when it could not be run.
int runShellCommand(const std::string& command);

// Blocks SIGPIPE in the calling thread (and the threads it creates later).
bool disableSIGPIPE();
// Ignores SIGPIPE in the whole process.
bool ignoreSIGPIPE();
// An empty SIGUSR1 handler, unblocked here, so it interrupts blocking calls.
bool trapUSR1ButDoNothing();
// "No signal" for 0x80000000, else the platform text, else "Unknown signal N".
std::string signalName(int sig);

// on == 1 sets O_NONBLOCK, any other value clears it. Returns 0 or -1.
int setNonBlocking(int fd, int on);
// Direct pass-through to fcntl.
int fcntl(int fd, int cmd, long arg);
// errno is EINPROGRESS or EAGAIN.
bool errorMeansInProgress();
// Nothing to do on this platform.
void InitSockets();

}  // namespace System

#endif  // HIVE_UTIL_SYSTEM_H_
