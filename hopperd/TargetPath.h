// Where an announced file lands on this host. A remote path is checked
// (absolute, no "..", under an allowed prefix), mapped under the daemon's
// root, and its missing parent directories are created one component at a
// time without following symbolic links, so nothing is ever written outside
// the root. Paths called "remote" are in the client's terms ("/opt/x");
// "local" paths have the root in front.
#ifndef HC_HOPPERD_TARGETPATH_H
#define HC_HOPPERD_TARGETPATH_H

#include <optional>
#include <set>
#include <string>
#include <vector>

class TargetPath {
 public:
  // root: existing absolute directory ("/" means none); allowed: normalised
  // absolute prefixes that remote paths must lie under, empty for any.
  TargetPath(std::string root, std::vector<std::string> allowed);

  // Parses a comma-separated list of absolute prefixes into normalised form.
  // Throws std::runtime_error for a relative prefix or one holding "..".
  static std::vector<std::string> parsePrefixes(const std::string& text);

  // "/" followed by the non-empty, non-"." components joined by "/"; nothing
  // for a relative path or one with a ".." component.
  static std::optional<std::string> normalize(const std::string& remote);

  // The outcome of resolving one file announcement.
  struct Resolution {
    std::string mTarget;                     // normalised remote target
    std::string mLocal;                      // the target under the root
    std::vector<std::string> mCreatedDirs;   // normalised remote directories made, in order
  };

  // Checks the remote path, chooses the target (inside the remote directory
  // when the path ends in "/", is an existing directory or is in knownDirs,
  // a set of normalised remote paths), creates its parents (0755) and checks
  // that the target is not a directory or a symbolic link. On refusal returns
  // false with reason naming the path; directories made before a failure are
  // still listed in out.mCreatedDirs.
  bool resolve(const std::string& remote, const std::string& baseName,
               const std::set<std::string>& knownDirs, Resolution& out,
               std::string& reason) const;

  // Local form of a normalised remote path.
  std::string local(const std::string& normalizedRemote) const;

  // True when the normalised remote path lies under an allowed prefix.
  bool allowed(const std::string& normalizedRemote) const;

 private:
  bool makeParents(const std::string& target, Resolution& out, std::string& reason) const;

  std::string mRoot;  // without a trailing '/', empty for "/"
  std::vector<std::string> mAllowed;
};

#endif  // HC_HOPPERD_TARGETPATH_H
