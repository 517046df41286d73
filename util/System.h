// Operating-system services: file existence and metadata, directory listing,
// removal and renaming with patient retries, file streams and descriptors,
// names inside an open directory (for walks that never follow a link),
// environment, platform names, sleeping, signal settings and a shell runner.
// Unless stated otherwise every service reports failure by its return value
// with errno set (turn it into words with System::getErrorMessageStr) and
// never throws.
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

  // lstat (DONT_FOLLOW_SYMLINK) or stat (FOLLOW_SYMLINK), retried on EINTR.
  // On failure returns false with errno set and leaves the record unchanged.
  bool stat(const std::string& path, SymLinkMode mode);
  // The same from an open descriptor (fstat).
  bool statFd(int fd);
  // The same for name inside the open directory dirFd (fstatat).
  bool statAt(int dirFd, const std::string& name, SymLinkMode mode);

  // Directory, symlink, named pipe; everything else is TYPE_FILE.
  FileType getType() const;
  // False for directories, devices, sockets and FIFOs; true otherwise, so a
  // symlink read without following counts as regular: use getType() for links.
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

// The shutdown signal sets: SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU,
// SIGXFSZ, SIGPWR; the daemon set omits SIGHUP. Use them after main starts.
extern const std::vector<int> sInteractiveShutdownSignals;
extern const std::vector<int> sDaemonShutdownSignals;

// ---- existence, removal, renaming, listing --------------------------------

// FOLLOW_SYMLINK: access() based, a dangling link does not exist.
// DONT_FOLLOW_SYMLINK: lstat() based, a dangling link exists.
bool fileExists(const std::string& path, SymLinkMode mode = FOLLOW_SYMLINK);

// Removes a file or an empty directory. A missing path (ENOENT, ENOTDIR)
// counts as success. Returns 0 or -1. The flag is unused on this platform.
int remove(const std::string& path, bool force = false);

// rename(from, to). The flag is unused on this platform.
bool move(const std::string& from, const std::string& to, bool force = false);

// Runs attempt() up to maxAttempts times, sleeping intervalMs between
// failures. On overall failure errno is the one left by the FIRST failure.
bool retryOperation(const std::function<bool()>& attempt, int maxAttempts, long intervalMs);

// remove/move retried 600 times, 100 ms apart (about a minute); on failure
// errno is that of the first attempt.
bool retryRemove(const std::string& path, bool force = false, int maxAttempts = 600,
                 long intervalMs = 100);
bool retryMove(const std::string& from, const std::string& to, bool force = false,
               int maxAttempts = 600, long intervalMs = 100);

// Appends the names of all entries in kernel order, "." and ".." included.
bool readDirectory(const std::string& path, std::vector<std::string>& names);
// The same for the open directory dirFd, read from its current position
// (pass one freshly opened).
bool readDirectoryAt(int dirFd, std::vector<std::string>& names);

// Creates one directory with the given mode (before umask). Never follows a
// symbolic link at the last component: an existing link gives EEXIST.
bool makeDirectory(const std::string& path, int mode);
// unlink(path): removes a file or a symlink (never a directory).
bool removeFile(const std::string& path);
// rmdir(path): removes an empty directory.
bool removeDirectory(const std::string& path);
// chmod on a path (follows links).
bool changeMode(const std::string& path, int mode);

// ---- file descriptors ----------------------------------------------------

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
  // Closes now; returns false with errno set when close fails.
  bool close();

 private:
  int mFd = -1;
};

// open(O_CREAT|O_WRONLY|O_NOFOLLOW|O_CLOEXEC | extraFlags, mode); extraFlags
// may add O_TRUNC, O_EXCL, O_APPEND. Invalid result on failure (errno set);
// a symlink at the last component fails with ELOOP.
FileDescriptor openForWrite(const std::string& path, int mode, int extraFlags = 0);
// open(O_RDONLY|O_CLOEXEC), plus O_NOFOLLOW unless followSymlink.
FileDescriptor openForRead(const std::string& path, bool followSymlink = true);
// open(O_RDONLY|O_DIRECTORY|O_CLOEXEC), plus O_NOFOLLOW unless
// followSymlink; e.g. to fsync a directory.
FileDescriptor openDirectory(const std::string& path, bool followSymlink = false);

// ---- streams ---------------------------------------------------------------

// A buffered output stream on a file descriptor that it owns, so that the
// caller decides how the descriptor is opened (close-on-exec in particular).
// tellp() and seekp() write the buffer out first and then ask the
// descriptor, so the position counts every byte written. The destructor
// flushes and closes.
class OutputFile : public std::ostream {
 public:
  // Takes fd; an invalid one gives a stream in the failed state.
  explicit OutputFile(FileDescriptor fd);
  ~OutputFile() override;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  bool is_open() const;
  // Writes out the buffer and closes the descriptor; sets failbit when
  // either fails or the stream was not open.
  void close();

 private:
  class Buffer;
  std::unique_ptr<Buffer> mBuffer;
};

// New output file stream for path (created with mode 0666 before umask):
// with std::ios::app every write goes to the end, otherwise the file is
// truncated; std::ios::ate starts the position at the end. On failure the
// stream's failbit is set (check its state). With closeOnExec the descriptor
// is not inherited by child processes.
std::unique_ptr<OutputFile> make_ofstream(const std::string& path,
                                          std::ios::openmode mode = std::ios::out,
                                          bool closeOnExec = true);
// New input file stream for path opened with mode | in.
std::unique_ptr<std::ifstream> make_ifstream(const std::string& path,
                                             std::ios::openmode mode = std::ios::in);

// ---- names inside an open directory ------------------------------------------
// Each takes one name (no '/') inside the directory dirFd and never follows
// a symbolic link at that name, so a walk from a held directory can never be
// led elsewhere by a link swapped in meanwhile.

// openat(O_RDONLY|O_DIRECTORY|O_NOFOLLOW|O_CLOEXEC): a link gives ELOOP, a
// non-directory ENOTDIR.
FileDescriptor openDirectoryAt(int dirFd, const std::string& name);
// mkdirat(mode before umask); an existing name, link or not, gives EEXIST.
bool makeDirectoryAt(int dirFd, const std::string& name, int mode);
// openat(O_RDWR|O_CREAT|O_EXCL|O_NOFOLLOW|O_CLOEXEC, mode): a new file
// only; any existing name gives EEXIST. Readable, so that what was written
// can be checked through the same descriptor.
FileDescriptor createExclusiveAt(int dirFd, const std::string& name, int mode);
// openat of an existing regular file: O_RDONLY when !forWrite, else
// O_RDWR|O_APPEND; never creates. A link gives ELOOP; anything but a
// regular file fails at once (EINVAL, or ENXIO for a FIFO without reader).
FileDescriptor openFileAt(int dirFd, const std::string& name, bool forWrite);
// renameat; replaces a file or link at the new name, never follows one.
bool renameAt(int fromDirFd, const std::string& from, int toDirFd, const std::string& to);
// unlinkat: a file or a link (never what it points to).
bool removeFileAt(int dirFd, const std::string& name);
// unlinkat(AT_REMOVEDIR): an empty directory.
bool removeDirectoryAt(int dirFd, const std::string& name);

// Writes all n bytes, retrying short writes and EINTR.
bool writeAll(int fd, const void* data, size_t n);
// read(); retried on EINTR. Returns bytes read, 0 at end, -1 on error.
ssize_t readSome(int fd, void* buf, size_t n);
// Reads until n bytes or end of file; returns the count or -1 on error.
ssize_t readFull(int fd, void* buf, size_t n);
// pread(); retried on EINTR. Returns bytes read, 0 at end, -1 on error.
ssize_t preadSome(int fd, void* buf, size_t n, int64_t offset);
// pread() until n bytes or end of file; returns the count or -1 on error.
// The descriptor's own offset does not move.
ssize_t preadFull(int fd, void* buf, size_t n, int64_t offset);
// lseek(); returns the new offset or -1.
int64_t seek(int fd, int64_t offset, int whence);
bool syncFile(int fd);
// syncfs(): flushes the whole file system holding fd.
bool syncFileSystem(int fd);
// fdatasync: the data and the size, not every time stamp.
bool syncData(int fd);
bool changeMode(int fd, int mode);
bool truncateFile(int fd, int64_t length);

// ---- environment, time, processes -----------------------------------------

// The variable's value or null.
const char* getenv(const char* name);

// Waits at least ms milliseconds of the monotonic clock (none for ms <= 0).
// Signals and wake-ups do not end the wait early, nor does a change of the
// wall clock.
void sleep(long ms);

// Local time as "%Y/%m/%d %H:%M:%S".
void currentTimeAsString(std::string& out);

// Runs command through /bin/sh -c. Returns its exit status (0-255), 128+n
// when killed by signal n, or -1 with errno set when it could not be run.
int runShellCommand(const std::string& command);

// ---- signals -----------------------------------------------------------------

// Blocks SIGPIPE in the calling thread (threads created later inherit it),
// so a write on a closed socket fails with EPIPE instead of killing us.
bool disableSIGPIPE();
// Sets SIGPIPE's disposition to ignore for the whole process.
bool ignoreSIGPIPE();
// Installs an empty SIGUSR1 handler and unblocks SIGUSR1 in the calling
// thread, so that the signal interrupts blocking calls.
bool trapUSR1ButDoNothing();
// "No signal" for 0x80000000, else the platform text, else "Unknown signal N".
std::string signalName(int sig);

// ---- sockets (generic descriptor settings) ---------------------------------

// on == 1 sets O_NONBLOCK, any other value clears it; other flags are kept.
// Returns 0 or -1.
int setNonBlocking(int fd, int on);
// Direct pass-through to fcntl.
int fcntl(int fd, int cmd, long arg);
// errno is EINPROGRESS or EAGAIN.
bool errorMeansInProgress();
// Nothing to do on this platform.
void InitSockets();

}  // namespace System

#endif  // HIVE_UTIL_SYSTEM_H_
