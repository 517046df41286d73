#include "util/pathfun.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::string> components(const std::string& path, bool* absolute = nullptr) {
  std::vector<Range> parts;
  const bool abs = splitPath(path, parts);
  if (absolute) *absolute = abs;
  std::vector<std::string> out;
  for (const Range& r : parts) out.push_back(path.substr(r.first, r.second - r.first));
  return out;
}

using Parts = std::vector<std::string>;

}  // namespace

TEST(pathfunTest, DirectoryAndFileNames) {
  EXPECT_EQ(".", getDirectoryName("file"));
  EXPECT_EQ("", getDirectoryName("/file"));
  EXPECT_EQ("a/b", getDirectoryName("a/b/"));
  EXPECT_EQ("", getFileName("file"));
  EXPECT_EQ("y.txt", getFileName("/x/y.txt"));
  EXPECT_EQ("", getFileName("a/b/"));
}

TEST(pathfunTest, Concatenation) {
  std::string out = "stale";
  pathConcatEx("dir/", "f", out, '/');
  EXPECT_EQ("dir/f", out);
  pathConcatEx("dir", "f", out, '/');
  EXPECT_EQ("dir/f", out);
  pathConcatEx("dir", "/abs", out, '/');
  EXPECT_EQ("/abs", out);
  pathConcatEx("", "f", out, '/');
  EXPECT_EQ("f", out);
  pathConcatEx("dir", "", out, '/');
  EXPECT_EQ("dir", out);
  pathConcatEx("dir/", "f", out, '\\');
  EXPECT_EQ("dir/f", out) << "only '/' suppresses the separator";
}

TEST(pathfunTest, SplitAndMakeRelative) {
  bool abs = false;
  EXPECT_EQ(Parts({"/"}), components("/", &abs));
  EXPECT_TRUE(abs);
  EXPECT_EQ(Parts({""}), components("", &abs));
  EXPECT_FALSE(abs);
  EXPECT_EQ(Parts({"/", "a", "b"}), components("//a///b/"));
  EXPECT_EQ(Parts({"a", "b"}), components("a/b", &abs));
  EXPECT_FALSE(abs);

  std::string path = "/a/b/c/d";
  EXPECT_TRUE(makeRelative("/a/b", path));
  EXPECT_EQ("c/d", path);
  path = "/a/b";
  EXPECT_TRUE(makeRelative("/a/b", path));
  EXPECT_EQ("", path);
  path = "/a//b//c";
  EXPECT_TRUE(makeRelative("/a/b/", path));
  EXPECT_EQ("c", path);
  path = "/a/bc/d";
  EXPECT_FALSE(makeRelative("/a/b", path));
  EXPECT_EQ("/a/bc/d", path);
  path = "/a";
  EXPECT_FALSE(makeRelative("/a/b", path));
  path = "x/y";
  EXPECT_FALSE(makeRelative("/x", path));
  EXPECT_EQ("x/y", path);
  path = "/etc/hosts";
  EXPECT_TRUE(makeRelative("/", path));
  EXPECT_EQ("etc/hosts", path);
}
