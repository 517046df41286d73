#include "hopperd/TargetPath.h"

#include <cerrno>
#include <stdexcept>

#include "util/StringUtilities.h"
#include "util/System.h"

namespace {

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

// "/a/b/c" -> {"/a", "/a/b"}: the proper ancestors below "/".
std::vector<std::string> parentsOf(const std::string& target) {
  std::vector<std::string> parents;
  for (std::string::size_type pos = target.find('/', 1); pos != std::string::npos;
       pos = target.find('/', pos + 1)) {
    parents.push_back(target.substr(0, pos));
  }
  return parents;
}

bool validBaseName(const std::string& base) {
  return !base.empty() && base != "." && base != ".." && base.find('/') == std::string::npos &&
         base.find('\0') == std::string::npos;
}

}  // namespace

TargetPath::TargetPath(std::string root, std::vector<std::string> allowed)
    : mRoot(normalize(root).value_or("/")), mAllowed(std::move(allowed)) {
  if (mRoot == "/") mRoot.clear();
}

std::optional<std::string> TargetPath::normalize(const std::string& remote) {
  if (remote.empty() || remote[0] != '/' || remote.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  std::string out;
  std::string::size_type pos = 0;
  while (pos < remote.size()) {
    std::string::size_type end = remote.find('/', pos);
    if (end == std::string::npos) end = remote.size();
    const std::string part = remote.substr(pos, end - pos);
    if (part == "..") return std::nullopt;
    if (!part.empty() && part != ".") out += "/" + part;
    pos = end + 1;
  }
  return out.empty() ? std::string("/") : out;
}

std::vector<std::string> TargetPath::parsePrefixes(const std::string& text) {
  std::vector<std::string> prefixes;
  std::string::size_type start = 0;
  while (start <= text.size()) {
    std::string::size_type end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    std::string item = text.substr(start, end - start);
    removeTrailingLeadingSpace(item);
    if (!item.empty()) {
      const std::optional<std::string> norm = normalize(item);
      if (!norm) throw std::runtime_error("Invalid allowed path " + quoted(item));
      prefixes.push_back(*norm);
    }
    start = end + 1;
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

std::string TargetPath::local(const std::string& normalizedRemote) const {
  return mRoot.empty() ? normalizedRemote : mRoot + normalizedRemote;
}

bool TargetPath::resolve(const std::string& remote, const std::string& baseName,
                         const std::set<std::string>& knownDirs, Resolution& out,
                         std::string& reason) const {
  const std::optional<std::string> norm = normalize(remote);
  if (!norm) {
    reason = "Remote path " + quoted(remote) + " must be absolute and free of \"..\"";
    return false;
  }
  if (!allowed(*norm)) {
    reason = "Remote path " + quoted(remote) + " lies outside the allowed paths";
    return false;
  }
  FileAttributes attrs;
  const bool intoDirectory = remote.back() == '/' || knownDirs.count(*norm) > 0 ||
                             (attrs.stat(local(*norm), DONT_FOLLOW_SYMLINK) && attrs.isDirectory());
  out.mTarget = *norm;
  if (intoDirectory) {
    if (!validBaseName(baseName)) {
      reason = "Invalid file name " + quoted(baseName) + " for " + remote;
      return false;
    }
    out.mTarget = (*norm == "/" ? "" : *norm) + "/" + baseName;
  }
  if (out.mTarget == "/") {
    reason = "Remote path " + quoted(remote) + " names the root directory";
    return false;
  }
  out.mLocal = local(out.mTarget);
  if (!makeParents(out.mTarget, out, reason)) return false;
  FileAttributes existing;
  if (existing.stat(out.mLocal, DONT_FOLLOW_SYMLINK)) {
    if (existing.isDirectory()) {
      reason = out.mTarget + ": " + System::errorText(EISDIR);
      return false;
    }
    if (existing.isSymlink()) {
      reason = out.mTarget + ": " + System::errorText(ELOOP);
      return false;
    }
  }
  return true;
}

bool TargetPath::makeParents(const std::string& target, Resolution& out,
                             std::string& reason) const {
  FileAttributes rootAttrs;
  const std::string root = mRoot.empty() ? "/" : mRoot;
  if (!rootAttrs.stat(root, FOLLOW_SYMLINK)) {
    reason = "Root directory " + quoted(root) + ": " + System::getErrorMessageStr();
    return false;
  }
  if (!rootAttrs.isDirectory()) {
    reason = "Root directory " + quoted(root) + ": " + System::errorText(ENOTDIR);
    return false;
  }
  for (const std::string& dir : parentsOf(target)) {
    const std::string path = local(dir);
    FileAttributes attrs;
    if (attrs.stat(path, DONT_FOLLOW_SYMLINK)) {
      if (attrs.isDirectory()) continue;
      reason = dir + ": " + System::errorText(ENOTDIR);
      return false;
    }
    if (errno != ENOENT) {
      reason = dir + ": " + System::getErrorMessageStr();
      return false;
    }
    if (System::makeDirectory(path, 0755)) {
      out.mCreatedDirs.push_back(dir);
      continue;
    }
    // Someone may have made it meanwhile; anything but a real directory fails.
    const int err = errno;
    if (err == EEXIST && attrs.stat(path, DONT_FOLLOW_SYMLINK) && attrs.isDirectory()) continue;
    reason = "Unable to create directory " + dir + ": " + System::errorText(err == EEXIST ? ENOTDIR : err);
    return false;
  }
  return true;
}
