// The on-disk record of what one session made: its staged files and the
// directories it created. A staged path is recorded before the file is
// created, so a daemon restarted after a crash finds and removes the leftovers
// of every session that never committed.
#ifndef HC_HOPPERD_JOURNAL_H
#define HC_HOPPERD_JOURNAL_H

#include <string>
#include <vector>

#include "util/System.h"

class Journal {
 public:
  // The journal of a session lives at stateDir/<sessionId>.journal; the file
  // is created by the first record.
  Journal(const std::string& stateDir, std::string sessionId);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  const std::string& path() const { return mPath; }

  // Append one record. False with the error text on failure.
  bool recordStagedFile(const std::string& path, std::string& error);
  bool recordDirectory(const std::string& path, std::string& error);

  // Deletes the journal: the session has ended.
  void remove();

  // What a journal file holds, in record order.
  struct Contents {
    std::string mSessionId;
    std::vector<std::string> mStagedFiles;
    std::vector<std::string> mDirectories;
  };
  // Reads one journal file; false when it cannot be read.
  static bool read(const std::string& journalPath, Contents& out);

  // For every journal in stateDir: removes its staged files (only names that
  // are staged names of that session), then its directories that are empty,
  // deepest first, then the journal. Returns the number of journals handled.
  static int cleanUp(const std::string& stateDir);

 private:
  bool append(char kind, const std::string& path, std::string& error);

  std::string mPath;
  std::string mSessionId;
  System::FileDescriptor mFd;
};

#endif  // HC_HOPPERD_JOURNAL_H
