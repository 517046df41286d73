#include "hopperd/Journal.h"

#include <fcntl.h>

#include <algorithm>
#include <fstream>

#include "hopperd/StagedFile.h"
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

}  // namespace

Journal::Journal(const std::string& stateDir, std::string sessionId)
    : mPath(stateDir + "/" + sessionId + kExtension), mSessionId(std::move(sessionId)) {}

bool Journal::append(char kind, const std::string& path, std::string& error) {
  if (!mFd) {
    mFd = System::openForWrite(mPath, 0600, O_APPEND);
    if (!mFd) {
      error = "Unable to open journal " + mPath + ": " + System::getErrorMessageStr();
      return false;
    }
  }
  const std::string line = std::string(1, kind) + " " + escape(path) + "\n";
  if (!System::writeAll(mFd.get(), line.data(), line.size())) {
    error = "Unable to write journal " + mPath + ": " + System::getErrorMessageStr();
    return false;
  }
  return true;
}

bool Journal::recordStagedFile(const std::string& path, std::string& error) {
  return append('F', path, error);
}

bool Journal::recordDirectory(const std::string& path, std::string& error) {
  return append('D', path, error);
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
    if (line.size() < 3 || line[1] != ' ') continue;  // a torn last record
    const std::string path = unescape(line.substr(2));
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
    for (const std::string& staged : contents.mStagedFiles) {
      if (StagedFile::isStagedPath(staged, contents.mSessionId)) System::removeFile(staged);
    }
    // Deepest first: created parents come before their children in the file.
    for (auto it = contents.mDirectories.rbegin(); it != contents.mDirectories.rend(); ++it) {
      System::removeDirectory(*it);
    }
    System::removeFile(journalPath);
    HC_LOG_INFO("Removed the leftovers of unfinished session " << contents.mSessionId << " ("
                << contents.mStagedFiles.size() << " staged files)");
    ++handled;
  }
  return handled;
}
