// The file operations of the client's sources and the daemon's staging and
// commit behind one interface, so that a test can override just the calls it
// makes fail. posix() is the real one; each call reports failure as the
// System function of the same name does.
#ifndef HIVE_UTIL_FILESYSTEM_H_
#define HIVE_UTIL_FILESYSTEM_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "util/System.h"

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The real file system; lives as long as the process.
  static FileSystem* posix();

  // The client's sources, by path.
  virtual System::FileDescriptor openForRead(const std::string& path) {
    return System::openForRead(path);
  }
  virtual bool stat(const std::string& path, FileAttributes& attrs, SymLinkMode mode) {
    return attrs.stat(path, mode);
  }
  // The names in a directory, "." and ".." included.
  virtual bool readDirectory(const std::string& path, std::vector<std::string>& names) {
    return System::readDirectory(path, names);
  }
  // Reads until n bytes or the end of the file: the count, or -1.
  virtual ssize_t preadFull(int fd, char* buf, size_t n, int64_t offset) {
    return System::preadFull(fd, buf, n, offset);
  }

  // A new file name in dirFd, readable and writable, never following a link.
  virtual System::FileDescriptor createExclusiveAt(int dirFd, const std::string& name, int mode) {
    return System::createExclusiveAt(dirFd, name, mode);
  }
  // An existing regular file name in dirFd: read-only, or read-append.
  virtual System::FileDescriptor openFileAt(int dirFd, const std::string& name, bool forWrite) {
    return System::openFileAt(dirFd, name, forWrite);
  }
  // The attributes of name in dirFd itself (a link is not followed).
  virtual bool statAt(int dirFd, const std::string& name, FileAttributes& attrs) {
    return attrs.statAt(dirFd, name, DONT_FOLLOW_SYMLINK);
  }
  virtual bool writeAll(int fd, const char* data, size_t n) {
    return System::writeAll(fd, data, n);
  }
  virtual ssize_t preadSome(int fd, char* buf, size_t n, int64_t offset) {
    return System::preadSome(fd, buf, n, offset);
  }
  virtual bool changeMode(int fd, int mode) { return System::changeMode(fd, mode); }
  virtual bool syncFile(int fd) { return System::syncFile(fd); }
  // Flushes the whole file system that fd lies on.
  virtual bool syncFileSystem(int fd) { return System::syncFileSystem(fd); }
  virtual bool renameAt(int fromDirFd, const std::string& from, int toDirFd,
                        const std::string& to) {
    return System::renameAt(fromDirFd, from, toDirFd, to);
  }
  virtual bool removeFileAt(int dirFd, const std::string& name) {
    return System::removeFileAt(dirFd, name);
  }
  // The directory name in dirFd ("." for dirFd itself), never following a link.
  virtual System::FileDescriptor openDirectoryAt(int dirFd, const std::string& name) {
    return System::openDirectoryAt(dirFd, name);
  }
  virtual bool makeDirectoryAt(int dirFd, const std::string& name, int mode) {
    return System::makeDirectoryAt(dirFd, name, mode);
  }
  virtual bool removeDirectoryAt(int dirFd, const std::string& name) {
    return System::removeDirectoryAt(dirFd, name);
  }
};

#endif  // HIVE_UTIL_FILESYSTEM_H_
