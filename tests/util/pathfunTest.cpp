#include "util/pathfun.h"

#include <gtest/gtest.h>

namespace {

using Parts = std::vector<std::string>;

Parts components(const std::string& path, bool expectAbsolute) {
  std::vector<Range> parts;
  EXPECT_EQ(expectAbsolute, splitPath(path, parts)) << path;
  Parts out;
  for (const Range& r : parts) out.push_back(path.substr(r.first, r.second - r.first));
  return out;
}

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
  const struct { const char *dir, *name; char separator; const char* joined; } cases[] = {
      {"dir/", "f", '/', "dir/f"}, {"dir", "f", '/', "dir/f"}, {"dir", "/abs", '/', "/abs"},
      {"", "f", '/', "f"}, {"dir", "", '/', "dir"},
      {"dir/", "f", '\\', "dir/f"}};  // only '/' suppresses the separator
  std::string out = "stale";
  for (const auto& c : cases) {
    pathConcatEx(c.dir, c.name, out, c.separator);
    EXPECT_EQ(c.joined, out) << c.dir << " + " << c.name;
  }
}

TEST(pathfunTest, SplitAndMakeRelative) {
  EXPECT_EQ(Parts({"/"}), components("/", true));
  EXPECT_EQ(Parts({""}), components("", false));
  EXPECT_EQ(Parts({"/", "a", "b"}), components("//a///b/", true));
  EXPECT_EQ(Parts({"a", "b"}), components("a/b", false));

  const struct { const char *base, *path; bool ok; const char* result; } cases[] = {
      {"/a/b", "/a/b/c/d", true, "c/d"}, {"/a/b", "/a/b", true, ""},
      {"/a/b/", "/a//b//c", true, "c"}, {"/", "/etc/hosts", true, "etc/hosts"},
      {"/a/b", "/a/bc/d", false, "/a/bc/d"}, {"/a/b", "/a", false, "/a"},
      {"/x", "x/y", false, "x/y"}};  // a failure leaves the path as it was
  for (const auto& c : cases) {
    std::string path = c.path;
    EXPECT_EQ(c.ok, makeRelative(c.base, path)) << c.base << " " << c.path;
    EXPECT_EQ(c.result, path) << c.base << " " << c.path;
  }
}
