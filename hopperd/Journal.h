// The on-disk record of what one session made: the directories it staged
// files in and those it created, recorded before anything is made there (a
// created one's record reaches the disk first), so a restarted daemon
// removes the leftovers of every session that never committed. Staged names
// carry the session's identifier, so one record per directory finds them.
#ifndef HIVE_HOPPERD_JOURNAL_H_
#define HIVE_HOPPERD_JOURNAL_H_

#include <set>
#include <string>

#include "util/System.h"

class Journal {
 public:
  // stateDir/<sessionId>.journal, created by the first record.
  Journal(const std::string& stateDir, std::string sessionId, std::string root);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Record the directory of a staged file to be created (once per directory)
  // or a directory to be created (flushed to disk). False with the error text.
  bool recordStagedFile(const std::string& remote, std::string& error);
  bool recordDirectory(const std::string& remote, std::string& error);

  // Deletes the journal: the session has ended.
  void remove();

  // For every journal in stateDir: removes its session's staged files, then
  // its directories that are empty, deepest first, then the journal.
  // Returns the number of journals handled.
  static int cleanUp(const std::string& stateDir);

 private:
  bool open(std::string& error);
  bool append(char kind, const std::string& path, std::string& error);

  std::string mPath;
  std::string mRoot;
  System::FileDescriptor mFd;
  std::set<std::string> mStagingDirs;  // recorded already
};

#endif  // HIVE_HOPPERD_JOURNAL_H_
