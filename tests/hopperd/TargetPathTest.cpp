#include "hopperd/TargetPath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/TempDir.h"
#include "util/StringUtilities.h"

namespace fs = std::filesystem;

class TargetPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = dir.file("root");
    outside = dir.file("outside");
    fs::create_directories(root + "/opt/existing");
    fs::create_directories(outside);
    TempDir::write(root + "/opt/plain", "x");
  }
  // Resolves with an empty session; returns the reason on refusal.
  std::string refusal(const TargetPath& paths, const std::string& remote,
                      const std::string& base = "f") {
    std::string reason;
    result = TargetPath::Resolution();
    return paths.resolve(remote, base, {}, result, reason) ? "" : reason;
  }
  TempDir dir;
  std::string root, outside;
  TargetPath::Resolution result;
};

TEST_F(TargetPathTest, NormalizesAndConfinesRemotePaths) {
  EXPECT_EQ(TargetPath::normalize("//a/./b//c/"), "/a/b/c");
  EXPECT_FALSE(TargetPath::normalize("/a/../b"));
  EXPECT_FALSE(TargetPath::normalize("a/b"));
  const TargetPath paths(root, TargetPath::parsePrefixes("/opt/, /srv/data"));
  EXPECT_NE(refusal(paths, "/opt/../etc/passwd"), "");
  EXPECT_NE(refusal(paths, "relative/x"), "");
  EXPECT_NE(refusal(paths, "/optional/x"), "");  // a prefix is whole components
  EXPECT_EQ(refusal(paths, "/srv/data/x"), "");
  EXPECT_THROW(TargetPath::parsePrefixes("/ok,relative"), std::runtime_error);
}

TEST_F(TargetPathTest, ChoosesTargetAndCreatesParents) {
  const TargetPath paths(root, {});
  EXPECT_EQ(refusal(paths, "/opt/existing", "f"), "");  // into an existing directory
  EXPECT_EQ(result.mLocal, root + "/opt/existing/f");
  EXPECT_EQ(refusal(paths, "/opt/new/sub/", "f"), "");  // a trailing '/' names a directory
  EXPECT_EQ(result.mTarget, "/opt/new/sub/f");
  EXPECT_EQ(result.mCreatedDirs, (std::vector<std::string>{"/opt/new", "/opt/new/sub"}));
  EXPECT_TRUE(fs::is_directory(root + "/opt/new/sub"));
  EXPECT_EQ(refusal(paths, "/opt/plain", "f"), "");  // an existing file is replaced
  EXPECT_EQ(result.mTarget, "/opt/plain");
  std::string reason;
  EXPECT_TRUE(paths.resolve("/opt/later", "f", {"/opt/later"}, result, reason));
  EXPECT_EQ(result.mTarget, "/opt/later/f");
  EXPECT_EQ(refusal(paths, "/opt/plain/sub/x"), "/opt/plain/sub/x: /opt/plain: Not a directory");
  EXPECT_NE(refusal(paths, "/opt/", "existing").find("Is a directory"), std::string::npos);
}

TEST_F(TargetPathTest, NeverFollowsSymbolicLinks) {
  ASSERT_EQ(::symlink(outside.c_str(), (root + "/opt/escape").c_str()), 0);
  ASSERT_EQ(::symlink((outside + "/f").c_str(), (root + "/opt/link").c_str()), 0);
  const TargetPath paths(root, {});
  EXPECT_NE(refusal(paths, "/opt/escape/sub/f"), "");
  EXPECT_NE(refusal(paths, "/opt/escape/f"), "");
  EXPECT_NE(refusal(paths, "/opt/escape", "f"), "");  // a link to a directory is no directory
  EXPECT_NE(refusal(paths, "/opt/link"), "");
  EXPECT_TRUE(fs::is_empty(outside));
}

TEST_F(TargetPathTest, WalksFromTheHeldRootSoALinkSwappedInLaterFails) {
  const TargetPath paths(root, {});
  ASSERT_EQ(refusal(paths, "/race/sub/f"), "");
  TempDir::write(root + "/race/sub/keep", "k");
  // The directory moves out of the root and a link to it takes its place.
  fs::rename(root + "/race/sub", outside + "/sub");
  fs::create_directory_symlink(outside + "/sub", root + "/race/sub");
  std::string reason;
  EXPECT_FALSE(paths.openParent("/race/sub/f", reason).valid());
  EXPECT_EQ(reason, "/race/sub: " + System::errorText(ELOOP));
  EXPECT_FALSE(paths.removeFile("/race/sub/keep"));
  EXPECT_TRUE(fs::exists(outside + "/sub/keep"));
  EXPECT_FALSE(paths.openParent("/opt/plain/x", reason).valid());
  EXPECT_EQ(reason, "/opt/plain: " + System::errorText(ENOTDIR));
}

TEST_F(TargetPathTest, OverlongNamesAreRefusedAndMadeDirectoriesAnnouncedAndUnmade) {
  const TargetPath paths(root, {});
  const std::string tooLong(256, 'n');
  EXPECT_EQ(refusal(paths, "/opt/fits/" + std::string(255, 'n')), "");
  EXPECT_NE(refusal(paths, "/opt/new/" + tooLong + "/f").find("too long"), std::string::npos);
  EXPECT_NE(refusal(paths, "/opt/new/", tooLong).find("too long"), std::string::npos);
  EXPECT_FALSE(fs::exists(root + "/opt/new"));
  // Each directory is announced (journaled) before it is made.
  std::vector<std::string> announced;
  const auto allowTwo = [&](const std::string& made, std::string& error) {
    EXPECT_FALSE(fs::exists(root + made));
    announced.push_back(made);
    error = "journal full";
    return announced.size() <= 2;
  };
  std::string reason;
  EXPECT_FALSE(paths.resolve("/opt/a/b/c/f", "f", {}, result, reason, allowTwo));
  EXPECT_EQ(announced, (std::vector<std::string>{"/opt/a", "/opt/a/b", "/opt/a/b/c"}));
  EXPECT_EQ(result.mCreatedDirs, (std::vector<std::string>{"/opt/a", "/opt/a/b"}));
  // Only empty ones are removed, deepest first.
  TempDir::write(root + "/opt/a/other", "x");
  paths.removeDirectories(result.mCreatedDirs);
  EXPECT_FALSE(fs::exists(root + "/opt/a/b"));
  EXPECT_TRUE(fs::exists(root + "/opt/a/other"));
}

// Files of one directory reuse the walk to it, but a directory removed in
// between (an aborted file took it away) is walked to and made afresh.
TEST_F(TargetPathTest, ARemovedDirectoryIsMadeAgainForTheNextFile) {
  const TargetPath paths(root, {});
  EXPECT_EQ(refusal(paths, "/opt/new/sub/"), "");
  ASSERT_EQ(result.mCreatedDirs, (std::vector<std::string>{"/opt/new", "/opt/new/sub"}));
  paths.removeDirectories(result.mCreatedDirs);
  ASSERT_FALSE(fs::exists(root + "/opt/new"));
  EXPECT_EQ(refusal(paths, "/opt/new/sub/", "g"), "");
  EXPECT_EQ(result.mCreatedDirs.size(), 2u);
  // The parent handed out is the directory now at the path.
  struct stat byWalk, byName;
  ASSERT_EQ(fstat(result.mParentFd, &byWalk), 0);
  ASSERT_EQ(stat((root + "/opt/new/sub").c_str(), &byName), 0);
  EXPECT_EQ(byWalk.st_ino, byName.st_ino);
}
