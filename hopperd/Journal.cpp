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

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() > tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Only what the session could have made: normalised paths, staged names.
void removeLeftovers(const Journal::Contents& contents) {
  const TargetPath paths(contents.mRoot, {});
  const auto normal = [](const std::string& path) { return TargetPath::normalize(path) == path; };
  for (const std::string& staged : contents.mStagedFiles) {
    const std::string name = TargetPath::nameOf(staged);
    if (normal(staged) && StagedFile::isStagedName(name, contents.mSessionId)) {
      paths.removeFile(staged);
    }
  }
  // Deepest first: created parents come before their children in the file.
  for (auto it = contents.mDirectories.rbegin(); it != contents.mDirectories.rend(); ++it) {
    if (normal(*it)) paths.removeDirectory(*it);
  }
}

}  // namespace

Journal::Journal(const std::string& stateDir, std::string sessionId, std::string root)
    : mStateDir(stateDir),
      mPath(stateDir + "/" + sessionId + kExtension),
      mSessionId(std::move(sessionId)),
      mRoot(std::move(root)) {}

bool Journal::open(std::string& error) {
  mFd = System::openForWrite(mPath, 0600, O_APPEND);
  const std::string head = "R " + escape(mRoot) + "\n";
  bool ok = mFd && System::writeAll(mFd.get(), head.data(), head.size());
  if (ok) {  // the journal's own directory entry must survive a crash like its records
    const System::FileDescriptor dir = System::openDirectory(mStateDir, true);
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
  return append('F', remote, error);
}

bool Journal::recordDirectory(const std::string& remote, std::string& error) {
  if (!append('D', remote, error)) return false;
  if (System::syncData(mFd.get())) return true;
  error = "Unable to flush journal " + mPath + ": " + System::getErrorMessageStr();
  return false;
}

void Journal::remove() {
  mFd.close();
  System::removeFile(mPath);
}

bool Journal::read(const std::string& journalPath, Contents& out) {
  std::unique_ptr<std::ifstream> in = System::make_ifstream(journalPath);
  if (!in->good()) return false;
  const std::string name = journalPath.substr(journalPath.rfind('/') + 1);
  out.mSessionId = name.substr(0, name.size() - std::min(name.size(), kExtension.size()));
  std::string line;
  while (std::getline(*in, line)) {
    // A record without its line end was torn by a crash: its path may be
    // a prefix of the real one.
    if (in->eof() || line.size() < 3 || line[1] != ' ') continue;
    const std::string path = unescape(line.substr(2));
    if (line[0] == 'R') out.mRoot = path;
    if (line[0] == 'F') out.mStagedFiles.push_back(path);
    if (line[0] == 'D') out.mDirectories.push_back(path);
  }
  return true;
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
    if (!contents.mRoot.empty()) removeLeftovers(contents);
    System::removeFile(journalPath);
    HC_LOG_INFO("Removed the leftovers of unfinished session " << contents.mSessionId << " ("
                << contents.mStagedFiles.size() << " staged files)");
    ++handled;
  }
  return handled;
}
