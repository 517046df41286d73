// Where an announced file lands on this host, and the one way the daemon
// reaches anything under its root. A remote path is checked (absolute, no
// "..", every name at most 255 bytes, under an allowed prefix) and mapped
// under the root. The root is opened once; every path below it is reached by
// opening one component at a time from the root's descriptor, never
// following a symbolic link and never trusting an earlier check of a path
// name, so a link found or swapped in anywhere on the way fails the walk
// instead of leading it outside the root. Paths called "remote" are in the
// client's terms ("/opt/x"); "local" paths have the root in front and serve
// only in messages.
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
  // The longest name of one path component.
  static constexpr std::string::size_type kMaxName = 255;

  // Called with a normalised remote directory just before it is created;
  // false (with error set) refuses the file instead.
  using BeforeMakeDirectory = std::function<bool(const std::string& dir, std::string& error)>;

  // root: an existing directory ("/" means none), opened here once; when it
  // cannot be opened every walk fails naming it. allowed: normalised
  // absolute prefixes that remote paths must lie under, empty for any. fs
  // makes the walks and removals; it must outlive this object.
  TargetPath(std::string root, std::vector<std::string> allowed,
             FileSystem* fs = FileSystem::posix());
  TargetPath(const TargetPath&) = delete;
  TargetPath& operator=(const TargetPath&) = delete;

  // Parses a comma-separated list of absolute prefixes into normalised form.
  // Throws std::runtime_error for a relative prefix or one holding "..".
  static std::vector<std::string> parsePrefixes(const std::string& text);

  // "/" followed by the non-empty, non-"." components joined by "/"; nothing
  // for a relative path or one with a ".." component.
  static std::optional<std::string> normalize(const std::string& remote);
  // "/a/b" -> "/a", "/a" -> "/"; and "/a/b" -> "b". Normalised paths only.
  static std::string directoryOf(const std::string& remote);
  static std::string nameOf(const std::string& remote);

  // The outcome of resolving one file announcement.
  struct Resolution {
    std::string mTarget;                     // normalised remote target
    std::string mLocal;                      // the target under the root
    std::vector<std::string> mCreatedDirs;   // normalised remote directories made, in order
    // The target's directory, reached by the walk; the TargetPath holds it
    // until its next resolve or directory removal.
    int mParentFd = -1;
  };

  // Checks the remote path and the base name, chooses the target (inside the
  // remote directory when the path ends in "/", is an existing directory or
  // is in knownDirs, a set of normalised remote paths), walks to its parent
  // creating missing directories (0755, each announced to beforeMake first)
  // and checks that the target is not a directory or a symbolic link. On
  // refusal returns false with reason naming the remote target (and the
  // directory at fault); directories made before a failure are still listed
  // in out.mCreatedDirs.
  bool resolve(const std::string& remote, const std::string& baseName,
               const std::set<std::string>& knownDirs, Resolution& out, std::string& reason,
               const BeforeMakeDirectory& beforeMake = nullptr) const;

  // The directory holding a normalised remote path, by the walk, creating
  // nothing. Invalid on failure, with reason naming the remote directory and
  // the system's error text, and errno set.
  System::FileDescriptor openParent(const std::string& remote, std::string& reason) const;

  // Remove the file, or the empty directory, at a normalised remote path
  // reached by the walk. False with errno set when nothing was removed.
  bool removeFile(const std::string& remote) const;
  bool removeDirectory(const std::string& remote) const;
  // Removes those of dirs (normalised, parents before children) that are
  // empty, last first.
  void removeDirectories(const std::vector<std::string>& dirs) const;

  // Local form of a normalised remote path.
  std::string local(const std::string& normalizedRemote) const;

  // True when the normalised remote path lies under an allowed prefix.
  bool allowed(const std::string& normalizedRemote) const;

 private:
  // Opens the normalised remote directory dir component by component from
  // the root; with create, makes the missing ones and lists them in created.
  System::FileDescriptor walk(const std::string& dir, bool create,
                              const BeforeMakeDirectory& beforeMake,
                              std::vector<std::string>* created, std::string& reason) const;
  // Whether the normalised remote path exists and what it is (without
  // following a link), asked while staging.
  bool statRemote(const std::string& remote, FileAttributes& attrs) const;
  // The directory a file is staged in: the walk of the last file when it
  // is the same directory, else a creating walk, kept for the next file.
  int stagingDirectory(const std::string& dir, const BeforeMakeDirectory& beforeMake,
                       std::vector<std::string>* created, std::string& reason) const;

  // The directory the last staging walk reached. Files of one directory
  // come together, so staging them walks once; the descriptor stays the
  // directory the walk found even if a name on the way is swapped later.
  // Commit never uses it: it walks afresh.
  mutable std::string mCachedDir;
  mutable System::FileDescriptor mCachedFd;

  FileSystem* const mFS;
  std::string mRoot;  // without a trailing '/', empty for "/"
  std::vector<std::string> mAllowed;
  System::FileDescriptor mRootFd;
  int mRootError = 0;  // why mRootFd could not be opened
};

#endif  // HIVE_HOPPERD_TARGETPATH_H_
