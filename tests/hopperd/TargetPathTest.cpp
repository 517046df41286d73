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

// Every refusal comes before anything is made; a link is never followed,
// and a link to a directory is no directory.
TEST_F(TargetPathTest, RefusesPathsOutsideTheRootOrTheAllowedPrefixes) {
  ASSERT_EQ(::symlink(outside.c_str(), (root + "/opt/escape").c_str()), 0);
  ASSERT_EQ(::symlink((outside + "/f").c_str(), (root + "/opt/link").c_str()), 0);
  const TargetPath paths(root, TargetPath::parsePrefixes("/opt/, /srv/data"));
  const std::string longest(255, 'n'), tooLong(256, 'n');
  const struct {
    std::string remote, base, refusal;  // refusal: part of the reason; "" accepted
  } cases[] = {
      {"/opt/../etc/passwd", "f", "must be absolute and free of \"..\""},
      {"relative/x", "f", "must be absolute"},
      {"/optional/x", "f", "lies outside the allowed paths"},  // a prefix is whole components
      {"/opt/escape/sub/f", "f", "/opt/escape: " + System::errorText(ELOOP)},
      {"/opt/escape/f", "f", "/opt/escape: " + System::errorText(ELOOP)},
      {"/opt/escape", "f", "/opt/escape: " + System::errorText(ELOOP)},
      {"/opt/link", "f", "/opt/link: " + System::errorText(ELOOP)},
      {"/opt/plain/sub/x", "f", "/opt/plain/sub/x: /opt/plain: Not a directory"},
      {"/opt/", "existing", "/opt/existing: Is a directory"},
      {"/opt/fits/" + longest, "f", ""},
      {"/opt/new/" + tooLong + "/f", "f", "too long"},
      {"/opt/new/", tooLong, "too long"},
  };
  for (const auto& c : cases) {
    const std::string reason = refusal(paths, c.remote, c.base);
    EXPECT_TRUE(c.refusal.empty() ? reason.empty() : reason.find(c.refusal) != std::string::npos)
        << c.remote << ": " << reason;
  }
  EXPECT_EQ(refusal(paths, "//srv/./data//x"), "");
  EXPECT_EQ(result.mTarget, "/srv/data/x");
  EXPECT_TRUE(fs::is_empty(outside));
  EXPECT_FALSE(fs::exists(root + "/opt/new"));
  EXPECT_THROW(TargetPath::parsePrefixes("/ok,relative"), std::runtime_error);
}

TEST_F(TargetPathTest, ChoosesTargetAndCreatesParents) {
  const TargetPath paths(root, {});
  EXPECT_EQ(refusal(paths, "/opt/existing", "f"), "");  // into an existing directory
  EXPECT_EQ(result.mTarget, "/opt/existing/f");
  EXPECT_EQ(refusal(paths, "/opt/new/sub/", "f"), "");  // a trailing '/' names a directory
  EXPECT_EQ(result.mTarget, "/opt/new/sub/f");
  EXPECT_EQ(result.mCreatedDirs, (std::vector<std::string>{"/opt/new", "/opt/new/sub"}));
  EXPECT_TRUE(fs::is_directory(root + "/opt/new/sub"));
  EXPECT_EQ(refusal(paths, "/opt/plain", "f"), "");  // an existing file is replaced
  EXPECT_EQ(result.mTarget, "/opt/plain");
  std::string reason;
  EXPECT_TRUE(paths.resolve("/opt/later", "f", {"/opt/later"}, result, reason));
  EXPECT_EQ(result.mTarget, "/opt/later/f");
}

// Each directory is announced (journaled) before it is made.
TEST_F(TargetPathTest, MadeDirectoriesAreAnnouncedAndUnmade) {
  const TargetPath paths(root, {});
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
