#include "hopperd/Journal.h"

#include <fcntl.h>

#include <algorithm>
#include <fstream>

#include "hopperd/StagedFile.h"
#include "hopperd/TargetPath.h"
#include "util/Logger.h"
#include "util/StringUtilities.h"

namespace {

const std::string kExtension = ".journal";

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() > tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// One record per line: a kind letter, a blank, the path with '\\' and '\n'
// escaped so that any file name survives.
std::string escape(const std::string& path) {
  std::string out;
  for (char c : path) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else out += c;
  }
  return out;
}

std::string unescape(const std::string& text) {
  std::string out;
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      ++i;
      out += text[i] == 'n' ? '\n' : text[i];
    } else {
      out += text[i];
    }
  }
  return out;
}

struct Contents {
  std::string mSessionId;
  std::string mRoot;  // empty when the journal was torn before its first record
  std::vector<std::string> mStagedFiles;  // one by one (journals of older daemons)
  std::vector<std::string> mStagingDirs;
  std::vector<std::string> mDirectories;
};

bool read(const std::string& journalPath, Contents& out) {
  std::unique_ptr<std::ifstream> in = System::make_ifstream(journalPath);
  if (!in->good()) return false;
  const std::string name = journalPath.substr(journalPath.rfind('/') + 1);
  out.mSessionId = name.substr(0, name.size() - std::min(name.size(), kExtension.size()));
  std::string line;
  while (std::getline(*in, line)) {
    // A record without its line end was torn by a crash.
    if (in->eof() || line.size() < 3 || line[1] != ' ') continue;
    const std::string path = unescape(line.substr(2));
    if (line[0] == 'R') out.mRoot = path;
    if (line[0] == 'F') out.mStagedFiles.push_back(path);
    if (line[0] == 'S') out.mStagingDirs.push_back(path);
    if (line[0] == 'D') out.mDirectories.push_back(path);
  }
  return true;
}

// Only what the session could have made; the count of staged files removed.
int removeLeftovers(const Contents& contents) {
  int removed = 0;
  const TargetPath paths(contents.mRoot, {});
  const auto normal = [](const std::string& path) { return TargetPath::normalize(path) == path; };
  for (const std::string& staged : contents.mStagedFiles) {
    const std::string name = TargetPath::nameOf(staged);
    if (normal(staged) && StagedFile::isStagedName(name, contents.mSessionId)) {
      removed += paths.removeFile(staged);
    }
  }
  for (const std::string& dir : contents.mStagingDirs) {
    std::string ignored;
    // The parent of a name in dir is dir, reached without following links.
    const System::FileDescriptor fd =
        normal(dir) ? paths.openParent(dir == "/" ? "/x" : dir + "/x", ignored)
                    : System::FileDescriptor();
    std::vector<std::string> names;
    if (!fd || !System::readDirectoryAt(fd.get(), names)) continue;
    for (const std::string& name : names) {
      if (StagedFile::isStagedName(name, contents.mSessionId)) {
        removed += System::removeFileAt(fd.get(), name);
      }
    }
  }
  // Deepest first: created parents come before their children in the file.
  for (auto it = contents.mDirectories.rbegin(); it != contents.mDirectories.rend(); ++it) {
    if (normal(*it)) paths.removeDirectory(*it);
  }
  return removed;
}

}  // namespace

Journal::Journal(const std::string& stateDir, std::string sessionId, std::string root)
    : mPath(stateDir + "/" + sessionId + kExtension), mRoot(std::move(root)) {}

bool Journal::open(std::string& error) {
  mFd = System::openForWrite(mPath, 0600, O_APPEND);
  const std::string head = "R " + escape(mRoot) + "\n";
  bool ok = mFd && System::writeAll(mFd.get(), head.data(), head.size());
  if (ok) {  // the journal's own directory entry must survive a crash like its records
    const System::FileDescriptor dir = System::openDirectory(TargetPath::directoryOf(mPath), true);
    ok = dir && System::syncFile(dir.get());
  }
  if (ok) return true;
  error = "Unable to start journal " + mPath + ": " + System::getErrorMessageStr();
  mFd.close();
  return false;
}

bool Journal::append(char kind, const std::string& path, std::string& error) {
  if (!mFd && !open(error)) return false;
  const std::string line = std::string(1, kind) + " " + escape(path) + "\n";
  if (!System::writeAll(mFd.get(), line.data(), line.size())) {
    error = "Unable to write journal " + mPath + ": " + System::getErrorMessageStr();
    return false;
  }
  return true;
}

bool Journal::recordStagedFile(const std::string& remote, std::string& error) {
  const std::string dir = TargetPath::directoryOf(remote);
  if (!mStagingDirs.count(dir) && !append('S', dir, error)) return false;
  mStagingDirs.insert(dir);
  return true;
}

bool Journal::recordDirectory(const std::string& remote, std::string& error) {
  if (!append('D', remote, error)) return false;
  if (System::syncData(mFd.get())) return true;
  error = "Unable to flush journal " + mPath + ": " + System::getErrorMessageStr();
  return false;
}

void Journal::remove() {
  mFd.close();
  mStagingDirs.clear();
  System::removeFile(mPath);
}

int Journal::cleanUp(const std::string& stateDir) {
  std::vector<std::string> names;
  if (!System::readDirectory(stateDir, names)) return 0;
  std::sort(names.begin(), names.end());
  int handled = 0;
  for (const std::string& name : names) {
    if (!endsWith(name, kExtension)) continue;
    const std::string journalPath = stateDir + "/" + name;
    Contents contents;
    if (!read(journalPath, contents)) continue;
    const int removed = contents.mRoot.empty() ? 0 : removeLeftovers(contents);
    System::removeFile(journalPath);
    HC_LOG_INFO("Removed the leftovers of unfinished session " << contents.mSessionId << " ("
                << removed << " staged files)");
    ++handled;
  }
  return handled;
}
