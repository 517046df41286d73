// The on-disk record of what one session made: its staged files and the
// directories it created, as remote paths under the root the journal names.
// Each is recorded before it is made, and a directory record reaches the disk
// before the directory does, so a daemon restarted after a crash finds and
// removes the leftovers of every session that never committed. Clean-up walks
// from the root like the session did, following no symbolic link.
#ifndef HIVE_HOPPERD_JOURNAL_H_
#define HIVE_HOPPERD_JOURNAL_H_

#include <string>
#include <vector>

#include "util/System.h"

class Journal {
 public:
  // The journal of a session lives at stateDir/<sessionId>.journal; the file
  // is created by the first record, which names root (the daemon's root).
  Journal(const std::string& stateDir, std::string sessionId, std::string root);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  const std::string& path() const { return mPath; }

  // Append one record of a normalised remote path. A directory record is
  // flushed to disk before returning. False with the error text on failure.
  bool recordStagedFile(const std::string& remote, std::string& error);
  bool recordDirectory(const std::string& remote, std::string& error);

  // Deletes the journal: the session has ended.
  void remove();

  // What a journal file holds, in record order.
  struct Contents {
    std::string mSessionId;
    std::string mRoot;  // empty when the journal was torn before its first record
    std::vector<std::string> mStagedFiles;
    std::vector<std::string> mDirectories;
  };
  // Reads one journal file; false when it cannot be read.
  static bool read(const std::string& journalPath, Contents& out);

  // For every journal in stateDir: removes its staged files (only names that
  // are staged names of that session), then its directories that are empty,
  // deepest first, each reached from its root without following a link; then
  // the journal. Returns the number of journals handled.
  static int cleanUp(const std::string& stateDir);

 private:
  bool open(std::string& error);
  bool append(char kind, const std::string& path, std::string& error);

  std::string mStateDir;
  std::string mPath;
  std::string mSessionId;
  std::string mRoot;
  System::FileDescriptor mFd;
};

#endif  // HIVE_HOPPERD_JOURNAL_H_
