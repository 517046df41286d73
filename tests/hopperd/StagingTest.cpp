#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "hopperd/Journal.h"
#include "hopperd/StagedFile.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

int modeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

}  // namespace

TEST(StagingTest, StagedBytesAppearOnlyAtCommit) {
  TempDir dir;
  const std::string target = dir.file("out.bin");
  TempDir::write(target, "old");
  StagedFile staged(target, "abc123");
  EXPECT_EQ(staged.path(), dir.file(".out.bin.abc123.staged"));
  EXPECT_TRUE(StagedFile::isStagedPath(staged.path(), "abc123"));
  EXPECT_FALSE(StagedFile::isStagedPath(target, "abc123"));
  std::string error;
  ASSERT_TRUE(staged.create(error)) << error;
  ASSERT_TRUE(staged.append("hello ", 6, error));
  staged.close();  // a resumed file goes on where its bytes stopped
  StagedFile resumed(target, "abc123");
  ASSERT_TRUE(resumed.reopen(error)) << error;
  EXPECT_EQ(resumed.size(), 6);
  ASSERT_TRUE(resumed.append("world", 5, error));
  EXPECT_EQ(TempDir::read(target), "old");
  EXPECT_EQ(modeOf(resumed.path()), 0600);
  ASSERT_TRUE(resumed.commit(0751, error)) << error;
  EXPECT_EQ(TempDir::read(target), "hello world");
  EXPECT_EQ(modeOf(target), 0751);
  EXPECT_FALSE(fs::exists(resumed.path()));
}

TEST(StagingTest, CleanUpRemovesWhatUnfinishedSessionsLeft) {
  TempDir dir;
  const std::string state = dir.file("state"), a = dir.file("a"), b = dir.file("a/b");
  fs::create_directories(b);
  fs::create_directories(state);
  {
    Journal journal(state, "s1");
    std::string error;
    StagedFile staged(b + "/we\nird", "s1");
    ASSERT_TRUE(journal.recordDirectory(a, error) && journal.recordDirectory(b, error));
    ASSERT_TRUE(journal.recordStagedFile(staged.path(), error)) << error;
    ASSERT_TRUE(journal.recordStagedFile(dir.file("victim"), error));  // not a staged name
    ASSERT_TRUE(staged.create(error)) << error;
  }
  TempDir::write(dir.file("victim"), "keep");
  fs::create_directories(dir.file("kept"));
  {
    Journal other(state, "s2");
    std::string error;
    ASSERT_TRUE(other.recordDirectory(dir.file("kept"), error));
    TempDir::write(dir.file("kept/committed"), "x");
  }
  EXPECT_EQ(Journal::cleanUp(state), 2);
  EXPECT_FALSE(fs::exists(a));  // emptied (so the odd name was found), removed deepest first
  EXPECT_TRUE(fs::exists(dir.file("victim")));
  EXPECT_TRUE(fs::exists(dir.file("kept/committed")));
  EXPECT_TRUE(fs::is_empty(state));
}
