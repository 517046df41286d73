#include "hopperd/TargetPath.h"

#include <cerrno>
#include <sstream>
#include <stdexcept>

#include "util/StringUtilities.h"
#include "util/System.h"

namespace {

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

bool namesFit(const std::string& path) {
  std::istringstream names(path);
  for (std::string name; std::getline(names, name, '/');) {
    if (name.size() > TargetPath::kMaxName) return false;
  }
  return true;
}

bool validBaseName(const std::string& base) {
  return !base.empty() && base != "." && base != ".." && base.find('/') == std::string::npos &&
         base.find('\0') == std::string::npos;
}

}  // namespace

TargetPath::TargetPath(std::string root, std::vector<std::string> allowed, FileSystem* fs)
    : mFS(fs), mRoot(normalize(root).value_or("/")), mAllowed(std::move(allowed)) {
  // The root is the administrator's choice: a link there is followed.
  mRootFd = System::openDirectory(mRoot, true);
  if (!mRootFd) mRootError = errno;
}

std::optional<std::string> TargetPath::normalize(const std::string& remote) {
  if (remote.empty() || remote[0] != '/' || remote.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  std::string out;
  std::istringstream parts(remote);
  for (std::string part; std::getline(parts, part, '/');) {
    if (part == "..") return std::nullopt;
    if (!part.empty() && part != ".") out += "/" + part;
  }
  return out.empty() ? std::string("/") : out;
}

std::vector<std::string> TargetPath::parsePrefixes(const std::string& text) {
  std::vector<std::string> prefixes;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    removeTrailingLeadingSpace(item);
    if (item.empty()) continue;
    const std::optional<std::string> norm = normalize(item);
    if (!norm) throw std::runtime_error("Invalid allowed path " + quoted(item));
    prefixes.push_back(*norm);
  }
  return prefixes;
}

bool TargetPath::allowed(const std::string& path) const {
  if (mAllowed.empty()) return true;
  for (const std::string& prefix : mAllowed) {
    if (prefix == "/" || path == prefix ||
        (path.compare(0, prefix.size(), prefix) == 0 && path[prefix.size()] == '/')) {
      return true;
    }
  }
  return false;
}

std::string TargetPath::directoryOf(const std::string& remote) {
  const std::string::size_type slash = remote.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : remote.substr(0, slash);
}

std::string TargetPath::nameOf(const std::string& remote) {
  return remote.substr(remote.rfind('/') + 1);
}

System::FileDescriptor TargetPath::walk(const std::string& dir, bool create,
                                        const BeforeMakeDirectory& beforeMake,
                                        std::vector<std::string>* created,
                                        std::string& reason) const {
  if (!mRootFd) {
    reason = "Root directory " + quoted(mRoot) + ": " +
             System::errorText(mRootError);
    errno = mRootError;
    return System::FileDescriptor();
  }
  System::FileDescriptor current = mFS->openDirectoryAt(mRootFd.get(), ".");
  for (std::string::size_type pos = 1; current && pos < dir.size();) {
    std::string::size_type end = dir.find('/', pos);
    if (end == std::string::npos) end = dir.size();
    const std::string name = dir.substr(pos, end - pos);
    const std::string sofar = dir.substr(0, end);
    pos = end + 1;
    if (name.empty() || name == "." || name == "..") {  // only normalised paths come here
      errno = EINVAL;
      reason = quoted(dir) + ": " + System::errorText(EINVAL);
      return System::FileDescriptor();
    }
    System::FileDescriptor next = mFS->openDirectoryAt(current.get(), name);
    if (!next && errno == ENOENT && create) {
      if (beforeMake && !beforeMake(sofar, reason)) return System::FileDescriptor();
      if (mFS->makeDirectoryAt(current.get(), name, 0755)) {
        created->push_back(sofar);
      } else if (errno != EEXIST) {  // EEXIST: made meanwhile, opened below like any other
        System::SaveError keep;
        reason = "Unable to create directory " + sofar + ": " + System::getErrorMessageStr();
        return System::FileDescriptor();
      }
      next = mFS->openDirectoryAt(current.get(), name);
    }
    if (!next) {
      System::SaveError keep;
      reason = sofar + ": " + System::getErrorMessageStr();
    }
    current = std::move(next);
  }
  return current;
}

System::FileDescriptor TargetPath::openParent(const std::string& remote,
                                              std::string& reason) const {
  return walk(directoryOf(remote), false, nullptr, nullptr, reason);
}

bool TargetPath::statRemote(const std::string& remote, FileAttributes& attrs) const {
  if (remote == "/") return mFS->statAt(mRootFd.get(), ".", attrs);
  std::string ignored;
  const bool cached = mCachedFd && directoryOf(remote) == mCachedDir;
  const System::FileDescriptor parent =
      cached ? System::FileDescriptor() : openParent(remote, ignored);
  const int dirFd = cached ? mCachedFd.get() : parent.get();
  return dirFd >= 0 && mFS->statAt(dirFd, nameOf(remote), attrs);
}

int TargetPath::stagingDirectory(const std::string& dir, const BeforeMakeDirectory& beforeMake,
                                 std::vector<std::string>* created,
                                 std::string& reason) const {
  if (mCachedFd && dir == mCachedDir) return mCachedFd.get();
  mCachedDir.clear();
  mCachedFd = walk(dir, true, beforeMake, created, reason);
  if (mCachedFd) mCachedDir = dir;
  return mCachedFd.get();
}

bool TargetPath::removeFile(const std::string& remote) const {
  std::string ignored;
  const System::FileDescriptor parent = openParent(remote, ignored);
  return parent && mFS->removeFileAt(parent.get(), nameOf(remote));
}

bool TargetPath::removeDirectory(const std::string& remote) const {
  mCachedFd.close();  // it may be the one removed
  mCachedDir.clear();
  std::string ignored;
  const System::FileDescriptor parent = openParent(remote, ignored);
  return parent && mFS->removeDirectoryAt(parent.get(), nameOf(remote));
}

void TargetPath::removeDirectories(const std::vector<std::string>& dirs) const {
  for (auto it = dirs.rbegin(); it != dirs.rend(); ++it) removeDirectory(*it);
}

bool TargetPath::resolve(const std::string& remote, const std::string& baseName,
                         const std::set<std::string>& knownDirs, Resolution& out,
                         std::string& reason, const BeforeMakeDirectory& beforeMake) const {
  const auto refuse = [&reason](const std::string& why) {
    reason = why;
    return false;
  };
  const std::optional<std::string> norm = normalize(remote);
  if (!norm) {
    return refuse("Remote path " + quoted(remote) + " must be absolute and free of \"..\"");
  }
  if (!allowed(*norm)) {
    return refuse("Remote path " + quoted(remote) + " lies outside the allowed paths");
  }
  // Refused before anything is made, rather than failing half-way down.
  if (!namesFit(*norm)) {
    return refuse("Remote path " + quoted(remote) + ": " + System::errorText(ENAMETOOLONG));
  }
  if (baseName.size() > kMaxName) {
    return refuse("File name " + quoted(baseName) + ": " + System::errorText(ENAMETOOLONG));
  }
  // What is at the path decides where the file goes, or is in its way.
  FileAttributes atPath;
  bool looked = false, found = false;
  bool intoDirectory = remote.back() == '/' || knownDirs.count(*norm) > 0;
  if (!intoDirectory) {
    looked = true;
    found = statRemote(*norm, atPath);
    intoDirectory = found && atPath.isDirectory();
  }
  out.mTarget = *norm;
  if (intoDirectory) {
    if (!validBaseName(baseName)) {
      return refuse("Invalid file name " + quoted(baseName) + " for " + remote);
    }
    out.mTarget = (*norm == "/" ? "" : *norm) + "/" + baseName;
  }
  if (out.mTarget == "/") {
    return refuse("Remote path " + quoted(remote) + " names the root directory");
  }
  out.mParentFd =
      stagingDirectory(directoryOf(out.mTarget), beforeMake, &out.mCreatedDirs, reason);
  if (out.mParentFd < 0) return refuse(out.mTarget + ": " + reason);
  FileAttributes existing = atPath;
  if (!looked || intoDirectory) {
    found = mFS->statAt(out.mParentFd, nameOf(out.mTarget), existing);
  }
  if (found && (existing.isDirectory() || existing.isSymlink())) {
    return refuse(out.mTarget + ": " + System::errorText(existing.isDirectory() ? EISDIR : ELOOP));
  }
  return true;
}
