// The on-disk record of what one session made: the directories it staged
// files in and the directories it created, as remote paths under the root
// the journal names. Each is recorded before anything is made in it or of
// it, and a created directory's record reaches the disk before the directory
// does, so a daemon restarted after a crash finds and removes the leftovers
// of every session that never committed. A staged file's name carries its
// session's identifier, so one record per directory finds them all (one
// write per directory rather than per file). Clean-up walks from the root
// like the session did, following no symbolic link.
#ifndef HIVE_HOPPERD_JOURNAL_H_
#define HIVE_HOPPERD_JOURNAL_H_

#include <set>
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

  // Records, once per directory, the directory of remote (a normalised path
  // of a staged file to be created). A created directory's record is
  // flushed to disk before returning. False with the error text on failure.
  bool recordStagedFile(const std::string& remote, std::string& error);
  bool recordDirectory(const std::string& remote, std::string& error);

  // Deletes the journal: the session has ended.
  void remove();

  // What a journal file holds, in record order.
  struct Contents {
    std::string mSessionId;
    std::string mRoot;  // empty when the journal was torn before its first record
    std::vector<std::string> mStagedFiles;  // one by one (journals of older daemons)
    std::vector<std::string> mStagingDirs;  // hold staged files of the session
    std::vector<std::string> mDirectories;
  };
  // Reads one journal file; false when it cannot be read.
  static bool read(const std::string& journalPath, Contents& out);

  // For every journal in stateDir: removes its staged files (only names that
  // are staged names of that session, in its staging directories or named
  // one by one), then its directories that are empty,
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
  std::set<std::string> mStagingDirs;  // recorded already
};

#endif  // HIVE_HOPPERD_JOURNAL_H_
