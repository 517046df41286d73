#include "util/System.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "support/TempDir.h"

class SystemTest : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(SystemTest, ReadDirectoryTakesEveryEntry) {
  // Enough long names to need several reads of the entry buffer.
  std::vector<std::string> expected = {".", ".."}, names;
  for (int i = 0; i < 150; ++i) {
    expected.push_back("entry_with_a_fairly_long_name_" + std::to_string(i));
    TempDir::write(dir.file(expected.back()), "x");
  }
  ASSERT_TRUE(System::readDirectory(dir.path(), names));
  std::sort(names.begin(), names.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, names);
}

// A link swapped in at a name never leads a call elsewhere, and a FIFO never
// makes one wait.
TEST_F(SystemTest, NamesInsideAnOpenDirectoryNeverFollowALink) {
  TempDir elsewhere;
  ASSERT_EQ(0, symlink(elsewhere.file("made").c_str(), dir.file("dangling").c_str()));
  ASSERT_EQ(0, symlink(dir.file("dangling").c_str(), dir.file("filelink").c_str()));
  ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
  const System::FileDescriptor at = System::openDirectory(dir.path());
  const auto failsWith = [](bool ok, int expected) { return !ok && errno == expected; };
  EXPECT_TRUE(failsWith(System::createExclusiveAt(at.get(), "dangling", 0600).valid(), EEXIST));
  EXPECT_FALSE(System::fileExists(elsewhere.file("made"), DONT_FOLLOW_SYMLINK));
  EXPECT_TRUE(System::fileExists(dir.file("dangling"), DONT_FOLLOW_SYMLINK));
  EXPECT_FALSE(System::fileExists(dir.file("dangling"), FOLLOW_SYMLINK));
  EXPECT_TRUE(failsWith(System::openFileAt(at.get(), "filelink", true).valid(), ELOOP));
  EXPECT_TRUE(failsWith(System::openFileAt(at.get(), "fifo", false).valid(), EINVAL));
  EXPECT_FALSE(System::openFileAt(at.get(), "fifo", true).valid());
  EXPECT_FALSE(System::openForWrite(dir.file("filelink"), 0600).valid());
  EXPECT_EQ(ELOOP, errno);
}

// Agent commands start with no signal blocked and without our log file.
TEST_F(SystemTest, ShellCommandsSeeNoBlockedSignalsNorClosedOnExecFiles) {
  EXPECT_EQ(3, System::runShellCommand("exit 3"));
  EXPECT_EQ(128 + SIGTERM, System::runShellCommand("kill -TERM $$"));
  sigset_t term, saved;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &saved);
  const int status = System::runShellCommand("grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status");
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  EXPECT_EQ(0, status);

  const std::string seesLog = "ls -l /proc/self/fd/ | grep -q '" + dir.file("log") + "'";
  auto out = System::make_ofstream(dir.file("log"), std::ios::out, true);
  EXPECT_NE(0, System::runShellCommand(seesLog));
  auto inherited = System::make_ofstream(dir.file("log"), std::ios::app, false);
  EXPECT_EQ(0, System::runShellCommand(seesLog));
}
