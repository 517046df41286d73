#include "util/FileSystem.h"

FileSystem::~FileSystem() = default;

FileSystem* FileSystem::posix() {
  static FileSystem real;
  return &real;
}

System::FileDescriptor FileSystem::openForRead(const std::string& path) {
  return System::openForRead(path);
}

bool FileSystem::stat(const std::string& path, FileAttributes& attrs, SymLinkMode mode) {
  return attrs.stat(path, mode);
}

bool FileSystem::readDirectory(const std::string& path, std::vector<std::string>& names) {
  return System::readDirectory(path, names);
}

ssize_t FileSystem::preadFull(int fd, char* buf, size_t n, int64_t offset) {
  return System::preadFull(fd, buf, n, offset);
}

System::FileDescriptor FileSystem::createExclusiveAt(int dirFd, const std::string& name,
                                                     int mode) {
  return System::createExclusiveAt(dirFd, name, mode);
}

System::FileDescriptor FileSystem::openFileAt(int dirFd, const std::string& name, bool forWrite) {
  return System::openFileAt(dirFd, name, forWrite);
}

bool FileSystem::statAt(int dirFd, const std::string& name, FileAttributes& attrs) {
  return attrs.statAt(dirFd, name, DONT_FOLLOW_SYMLINK);
}

bool FileSystem::writeAll(int fd, const char* data, size_t n) {
  return System::writeAll(fd, data, n);
}

ssize_t FileSystem::preadSome(int fd, char* buf, size_t n, int64_t offset) {
  return System::preadSome(fd, buf, n, offset);
}

bool FileSystem::changeMode(int fd, int mode) { return System::changeMode(fd, mode); }

bool FileSystem::syncFile(int fd) { return System::syncFile(fd); }

bool FileSystem::syncFileSystem(int fd) { return System::syncFileSystem(fd); }

bool FileSystem::renameAt(int fromDirFd, const std::string& from, int toDirFd,
                          const std::string& to) {
  return System::renameAt(fromDirFd, from, toDirFd, to);
}

bool FileSystem::removeFileAt(int dirFd, const std::string& name) {
  return System::removeFileAt(dirFd, name);
}

System::FileDescriptor FileSystem::openDirectoryAt(int dirFd, const std::string& name) {
  return System::openDirectoryAt(dirFd, name);
}

bool FileSystem::makeDirectoryAt(int dirFd, const std::string& name, int mode) {
  return System::makeDirectoryAt(dirFd, name, mode);
}

bool FileSystem::removeDirectoryAt(int dirFd, const std::string& name) {
  return System::removeDirectoryAt(dirFd, name);
}
