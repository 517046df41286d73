// Where an announced file lands on this host, and the one way the daemon
// reaches anything under its root. A remote path ("/opt/x", the client's
// terms) is checked (absolute, no "..", names of at most 255 bytes, under an
// allowed prefix) and reached one component at a time from the root's
// descriptor, never following a symbolic link, so nothing found or swapped
// in on the way leads outside the root.
#ifndef HIVE_HOPPERD_TARGETPATH_H_
#define HIVE_HOPPERD_TARGETPATH_H_

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "util/FileSystem.h"
#include "util/System.h"

class TargetPath {
 public:
  static constexpr std::string::size_type kMaxName = 255;

  // Called with a remote directory before it is created; false (with error
  // set) refuses the file.
  using BeforeMakeDirectory = std::function<bool(const std::string& dir, std::string& error)>;

  // root ("/" means none) is opened once, else every walk fails naming it.
  // allowed: normalised prefixes, empty for any. fs must outlive this object.
  TargetPath(std::string root, std::vector<std::string> allowed,
             FileSystem* fs = FileSystem::posix());
  TargetPath(const TargetPath&) = delete;
  TargetPath& operator=(const TargetPath&) = delete;

  // Normalises a comma-separated list of absolute prefixes; throws
  // std::runtime_error for a relative one or one holding "..".
  static std::vector<std::string> parsePrefixes(const std::string& text);

  // The path without empty and "." components; nothing for a relative path
  // or one with a ".." component.
  static std::optional<std::string> normalize(const std::string& remote);
  // "/a/b" -> "/a", "/a" -> "/"; and "/a/b" -> "b". Normalised paths only.
  static std::string directoryOf(const std::string& remote);
  static std::string nameOf(const std::string& remote);

  struct Resolution {
    std::string mTarget;                     // normalised remote target
    std::vector<std::string> mCreatedDirs;   // directories made, in order
    // The target's directory; held until the next resolve or removal.
    int mParentFd = -1;
  };

  // Chooses the target (inside remote when it ends in "/", is a directory or
  // is in knownDirs), makes its missing parents (0755, each announced to
  // beforeMake first) and checks that it is no directory or link. False
  // with reason naming the path at fault; what was made is still listed.
  bool resolve(const std::string& remote, const std::string& baseName,
               const std::set<std::string>& knownDirs, Resolution& out, std::string& reason,
               const BeforeMakeDirectory& beforeMake = nullptr) const;

  // The directory holding a normalised remote path, by the walk. Invalid on
  // failure, with reason and errno set.
  System::FileDescriptor openParent(const std::string& remote, std::string& reason) const;

  // Remove the file, or the empty directory, at a normalised remote path.
  // False with errno set when nothing was removed.
  bool removeFile(const std::string& remote) const;
  bool removeDirectory(const std::string& remote) const;
  // Removes those of dirs (parents before children) that are empty, last first.
  void removeDirectories(const std::vector<std::string>& dirs) const;

 private:
  bool allowed(const std::string& normalizedRemote) const;
  // Opens dir component by component from the root; with create, makes the
  // missing ones and lists them in created.
  System::FileDescriptor walk(const std::string& dir, bool create,
                              const BeforeMakeDirectory& beforeMake,
                              std::vector<std::string>* created, std::string& reason) const;
  bool statRemote(const std::string& remote, FileAttributes& attrs) const;
  int stagingDirectory(const std::string& dir, const BeforeMakeDirectory& beforeMake,
                       std::vector<std::string>* created, std::string& reason) const;

  // The last staging walk, reused by the files of one directory; commit
  // never uses it but walks afresh.
  mutable std::string mCachedDir;
  mutable System::FileDescriptor mCachedFd;

  FileSystem* const mFS;
  std::string mRoot;
  std::vector<std::string> mAllowed;
  System::FileDescriptor mRootFd;
  int mRootError = 0;
};

#endif  // HIVE_HOPPERD_TARGETPATH_H_
